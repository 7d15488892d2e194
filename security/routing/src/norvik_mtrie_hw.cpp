// norvik_mtrie_hw.cpp - the hardware tables: mapping, writers, the trie's hooks, debug walks.
//
// Every control-plane record owns the hardware slot of its pool index, in the wired region and in each processor's
// table memory. Addresses are physical in the wired copy, and the processor's own in a processor's copy. All stores are
// whole words (hw_store.h); children are filled before the slot that names them, an ECMP header after its entries.
// Elsewhere: the slot of a record (norvik_mtrie_slot.cpp), which records exist (norvik_mtrie_pool.cpp), when a slot
// changes (norvik_mtrie.cpp).
#include "norvik_mtrie_hw.h"

#include <cstdio>
#include <iterator>

#include "hw_store.h"
#include "norvik_mtrie_slot.h"
#include "platform_mem.h"
#include "route_log.h"
#include "route_table.h"

card_addr va_wired_base, va_ixp1_dram_base, va_ixp2_dram_base;
std::uint32_t wired_route_phys_base;
mtrie_hw_writers mtrie_hw_ops;

constexpr std::uint32_t ixp_form = HW_IXP_BASE;
constexpr mtrie_hw_copy mtrie_hw_copies[MTRIE_HW_COPIES] = {
    {va_wired_base, wired_route_phys_base},
    {va_ixp1_dram_base, ixp_form},
    {va_ixp2_dram_base, ixp_form},
};

static_assert(HW_NODE_COUNT * HW_NODE_BYTES == 0x100000 && HW_NODE_BYTES == MTRIE_SLOTS * 4);

namespace
{
std::uint32_t *word_at(card_addr addr) { return card_at<std::uint32_t>(addr); }

// The address in a processor's copy that corresponds to one in the wired copy. ixp: from 1.
card_addr in_ixp(unsigned ixp, card_addr wired) { return wired - va_wired_base + mtrie_hw_copies[ixp].base; }

void fill_pairs(card_addr to, std::uint32_t a, std::uint32_t b, std::uint32_t pairs)
{
    if (a == b)
        return platform_fill32(word_at(to), a, 2 * static_cast<std::size_t>(pairs));
    for (std::uint32_t i = 0; i < pairs; ++i) {
        platform_store32(word_at(to) + 2 * i, a);
        platform_store32(word_at(to) + 2 * i + 1, b);
    }
}

void fill_pairs_wired(card_addr to, std::uint32_t a, std::uint32_t b, std::uint32_t pairs)
{
    fill_pairs(to, a, b, pairs);
}

void fill_words_wired(card_addr to, std::uint32_t word, std::uint32_t words)
{
    platform_fill32(word_at(to), word, words);
}

template <unsigned Ixps> void copy_run(card_addr to, const std::uint32_t *from, std::uint32_t words)
{
    for (unsigned ixp = 1; ixp <= Ixps; ++ixp)
        platform_copy32(word_at(in_ixp(ixp, to)), from, words);
    platform_copy32(word_at(to), from, words);
}

template <unsigned Ixps> void copy_pairs(card_addr to, const std::uint32_t *from, std::uint32_t pairs)
{
    for (std::uint32_t i = 0; i < pairs; ++i)
        copy_run<Ixps>(to + 8 * i, from + 2 * i, 2);
}

template <unsigned Ixps> void copy_words(card_addr to, const std::uint32_t *from, std::uint32_t words)
{
    for (std::uint32_t i = 0; i < words; ++i)
        copy_run<Ixps>(to + 4 * i, from + i, 1);
}

template <unsigned Ixps> void fill_pairs_ixp(card_addr to, std::uint32_t a, std::uint32_t b, std::uint32_t pairs)
{
    for (unsigned ixp = 1; ixp <= Ixps; ++ixp)
        fill_pairs(in_ixp(ixp, to), a, b, pairs);
}

template <unsigned Ixps> void fill_words_ixp(card_addr to, std::uint32_t word, std::uint32_t words)
{
    for (unsigned ixp = 1; ixp <= Ixps; ++ixp)
        platform_fill32(word_at(in_ixp(ixp, to)), word, words);
}

template <unsigned Ixps> constexpr mtrie_hw_writers WRITERS = {
    copy_pairs<Ixps>, copy_words<Ixps>, fill_pairs_wired, fill_words_wired, fill_pairs_ixp<Ixps>, fill_words_ixp<Ixps>};

// With any number of processors but one and two there are no writers, and nothing is written. No tree gets a root then,
// so the start-up ends at its first route.
bool has_writers() { return mtrie_hw_ops.fill_words_wired != nullptr; }

// Writes `count` words from byte `at` of the table on: the address of the slot at `offset`, in each copy's form, with
// `tag`. Offset 0 is no slot (the roots are there) and gives null words.
void fill_address(std::uint32_t at, std::uint32_t offset, std::uint32_t tag, std::uint32_t count)
{
    if (!has_writers())
        return;
    const auto word = [offset, tag](const mtrie_hw_copy &copy) { return offset == 0 ? 0 : (copy.form + offset) | tag; };
    const card_addr to = va_wired_base + at;
    const std::uint32_t ixp_word = word(mtrie_hw_copies[MTRIE_HW_IXP1]); // one form for all processors
    mtrie_hw_ops.fill_words_wired(to, word(mtrie_hw_copies[MTRIE_HW_WIRED]), count);
    mtrie_hw_ops.fill_words_ixp(to, ixp_word, count);
}

bool is_mapped(card_addr addr) { return addr != 0 && addr != 0xFFFFFFFF; }

// The table memory of each processor, and the line number that is printed when it cannot be mapped.
struct ixp_memory {
    std::uint32_t pci_address;
    int line;
};
constexpr ixp_memory IXP_MEMORIES[] = {{HW_IXP1_PCI, 174}, {HW_IXP2_PCI, 201}};
static_assert(MTRIE_HW_IXP1 + std::size(IXP_MEMORIES) == MTRIE_HW_COPIES);

// Maps the memory of a processor, counted from 0, and clears it. Returns 0 or -2.
int map_ixp(unsigned processor)
{
    const ixp_memory &memory = IXP_MEMORIES[processor];
    const card_addr addr = map_pci_xram_to_uspace(memory.pci_address, HW_TABLE_BYTES, processor);
    if (!is_mapped(addr)) {
        std::printf("\n%s[%d] :: Error mapping IXP%u DRAM route table.\n", "mtrie_hw_map", memory.line, processor + 1);
        return -2;
    }
    mtrie_hw_copies[MTRIE_HW_IXP1 + processor].base = addr;
    platform_fill32(word_at(addr), 0, HW_TABLE_BYTES / 4);
    return 0;
}

int mtrie_hw_map(unsigned num_ixp)
{
    // Never closed: the mappings need it open.
    const int fd = syscall_open();
    if (fd < 0) {
        std::printf("\n%s[%d] :: Error opening Norvik system library.\n", "mtrie_hw_map", 100);
        return -1;
    }
    const card_addr wired = map_wired_route(fd);
    if (!is_mapped(wired)) {
        std::printf("\n%s[%d] :: Error mapping wired route table.\n", "mtrie_hw_map", 107);
        return -2;
    }
    va_wired_base = wired;
    wired_info info{};
    if (norvik_get_wired_info(fd, &info) != 0) {
        std::printf("\n%s[%d] :: Error getting wired region info.\n", "mtrie_hw_map", 142);
        return -3;
    }
    wired_route_phys_base = info.phys_base;
    platform_fill32(word_at(va_wired_base), 0, info.size / 4);
    // The first processor's memory is mapped even when the card has none.
    for (unsigned processor = 0; processor < std::size(IXP_MEMORIES); ++processor)
        if ((processor == 0 || processor < num_ixp) && map_ixp(processor) != 0)
            return -2;
    route_log(ROUTE_DBG_INFO, 0, "\nPhysical: wired 0x%x dram 0x%x", wired_route_phys_base, HW_IXP_BASE);
    route_log(ROUTE_DBG_INFO, 0, "\nVirtual: wired 0x%x dram1 0x%x dram2 0x%x\n", va_wired_base, va_ixp1_dram_base,
              va_ixp2_dram_base);
    return 0;
}
} // namespace

int mtrie_hw_init()
{
    const unsigned num_ixp = platform_get_num_ixp();
    if (mtrie_hw_map(num_ixp) != 0)
        return -1;
    mtrie_hw_ops = num_ixp == 1 ? WRITERS<1> : num_ixp == 2 ? WRITERS<2> : mtrie_hw_writers{};
    return 0;
}

void mtrie_hw_clear_node(std::int32_t type, std::int32_t index)
{
    if (!has_writers())
        return;
    if (type == MTRIE_POOL_NODE || type == MTRIE_POOL_ECMP) {
        const card_addr to = va_wired_base + mtrie_slot_at(type, index);
        const std::uint32_t pairs = MTRIE_SLOT_SHAPES[type].hw_bytes / 8;
        mtrie_hw_ops.fill_pairs_wired(to, 0, 0, pairs);
        mtrie_hw_ops.fill_pairs_ixp(to, 0, 0, pairs);
    } else if (type == MTRIE_POOL_LEAF) {
        fill_address(mtrie_slot_at(type, index), 0, 0, HW_LEAF_BYTES / 4);
    }
}

void mtrie_hw_write_adjacency(const mtrie_leaf *leaf, const std::uint32_t *source)
{
    if (has_writers())
        mtrie_hw_ops.copy_words(va_wired_base + mtrie_slot_of(leaf), source, 1);
}

void mtrie_hw_write_ecmp(const mtrie_ecmp *block, const std::uint32_t *source)
{
    if (!has_writers())
        return;
    const card_addr to = va_wired_base + mtrie_slot_of(block);
    // The header goes last: a valid one never stands over stale entries.
    for (std::uint32_t i = 1; i < ECMP_WORDS; ++i)
        mtrie_hw_ops.copy_words(to + 4 * i, source + i, 1);
    mtrie_hw_ops.copy_words(to, source, 1);
}

void mtrie_hw_set_ecmp(const mtrie_leaf *leaf, const mtrie_ecmp *block)
{
    if (block != nullptr)
        fill_address(mtrie_slot_of(leaf) + 4, mtrie_slot_of(block), 0, 1);
}

void mtrie_hw_reset_ecmp(const mtrie_leaf *leaf) { fill_address(mtrie_slot_of(leaf) + 4, 0, 0, 1); }

void mtrie_hw_set_root(std::uint32_t tree, const mtrie_node *root)
{
    if (root != nullptr)
        fill_address(4 * tree, mtrie_slot_of(root), HW_NODE_TAG, 1);
}

mtrie_node *mtrie_get_root_node(std::uint32_t tree)
{
    const std::uint32_t word = word_at(va_wired_base)[tree];
    if (word == 0)
        return nullptr;
    const std::uint32_t offset = (word & ~HW_NODE_TAG) - wired_route_phys_base;
    const card_addr element =
        mtrie_get_cp_node(MTRIE_POOL_NODE, static_cast<std::int32_t>(offset - HW_NODES) / std::int32_t{HW_NODE_BYTES});
    return mtrie_record_of<mtrie_node>(element);
}

int mtrie_hw_write_children(const mtrie_node *node, std::uint32_t word, std::uint32_t first, std::uint32_t last)
{
    std::uint32_t offset = 0, tag = 0;
    if (word != 0) {
        const card_addr record = mtrie_is_child(word) ? card_addr_of(mtrie_child_of(word)) : word;
        const card_addr element = record - MTRIE_POOL_LINK;
        const std::int32_t type = mtrie_node_type(element);
        if (type == MTRIE_POOL_LEAF) {
            offset = mtrie_slot_at(MTRIE_POOL_LEAF, mtrie_node_offset(MTRIE_POOL_LEAF, element));
        } else if (type == MTRIE_POOL_NODE) {
            offset = mtrie_slot_at(MTRIE_POOL_NODE, mtrie_node_offset(MTRIE_POOL_NODE, element));
            tag = HW_NODE_TAG;
        } else {
            return 1;
        }
    }
    fill_address(mtrie_slot_of(node) + 4 * first, offset, tag, last - first + 1);
    return 0;
}

// Nothing to do for the processors when a record is taken or freed: its slot is cleared when it is taken, and can not
// be reached any more when it is freed.
void reg_invoke_hw_mtrie_node_alloc(mtrie_node *, int *ok) { *ok = 1; }
void reg_invoke_hw_mtrie_leaf_alloc(mtrie_leaf *, int *ok) { *ok = 1; }
void reg_invoke_hw_mtrie_node_free(mtrie_node *) {}
void reg_invoke_hw_mtrie_leaf_free() {}

int reg_invoke_hw_add_child_to_mnode(const mtrie_node *node, std::uint32_t word, std::uint32_t index)
{
    return mtrie_hw_write_children(node, word, index, index);
}

int reg_invoke_hw_add_child_block_to_mnode(const mtrie_node *node, std::uint32_t word, std::uint32_t first,
                                           std::uint32_t count)
{
    return mtrie_hw_write_children(node, word, first, first + count - 1);
}

namespace
{
// Walks a copy as a processor does. One that the card has not reads as zeros.
void walk_copy(const mtrie_hw_copy &copy, std::uint32_t tree, std::uint32_t address)
{
    std::uint32_t word = copy.base == 0 ? 0 : word_at(copy.base)[tree];
    for (unsigned level = 0; level < 4 && (word & HW_NODE_TAG) != 0; ++level) {
        const std::uint32_t index = address >> (24 - 8 * level) & 0xFF;
        word = word_at(copy.base + ((word & ~HW_NODE_TAG) - copy.form))[index];
    }
    if ((word & HW_NODE_TAG) != 0) {
        std::printf("\nSearch terminating unsuccessfully. Null leaf.");
        return;
    }
    const card_addr leaf = word == 0 ? 0 : copy.base + (word - copy.form);
    std::printf("\nSearch terminating successfully, Leaf 0x%x found.\n", leaf);
    if (leaf != 0)
        std::printf("\nencaps id %u if_id %u\n", adj_encap(*word_at(leaf)), adj_ifid(*word_at(leaf)));
}
} // namespace

void mtrie_hw_lookup(std::uint32_t tree, std::uint32_t address) { walk_copy(mtrie_hw_copies[0], tree, address); }
void mtrie_hw_lookup_ixp_1(std::uint32_t tree, std::uint32_t address) { walk_copy(mtrie_hw_copies[1], tree, address); }
void mtrie_hw_lookup_ixp_2(std::uint32_t tree, std::uint32_t address) { walk_copy(mtrie_hw_copies[2], tree, address); }
