// ixp_lookup.cpp - the scalar and the batch implementation, and the choice among the three.
//
// The batch takes a block of addresses level by level, without a branch that an address decides: nothing is guessed
// wrong, and a processor has as many loads in flight as its window holds. Each address has a cell with its last word.
// At each level the place to read is chosen, not whether to read: the slot where the word names a node, otherwise the
// cell itself. Leaves whose word has the ECMP flag are listed, without a branch too, and choose their paths once the
// block is through.
// Elsewhere: the walk of one address (ixp_walk.h), the gathers (ixp_avx2.cpp).
#include "ixp_lookup.h"

#include <algorithm>
#include <bit>

#include "ixp_walk.h"

namespace
{
constexpr std::size_t BLOCK = 128;                                // addresses in flight
constexpr std::uint32_t NODE_END = IXP_LAST_WORD - IXP_SLOT_MASK; // a node that begins below it lies in the table whole

// Hides from the compiler how a number came about, so that it can not make a branch of the choice.
template <class Number> inline Number unknown(Number number)
{
    asm("" : "+r"(number));
    return number;
}

// What a block is read from, and how much. Taken by value, since nothing that lies in memory stays in a register beyond
// a load with acquire order.
struct batch_source {
    const std::uint32_t *words;
    std::uint32_t to_node, to_leaf; // added to a word, they leave its index times four
    const std::uint8_t *addresses;  // byte by byte
    std::size_t count;
};
batch_source source_of(const ixp_table &table, const std::uint32_t *addresses, std::size_t count)
{
    return {table.words, 0 - table.base - HW_NODE_TAG, 0 - table.base,
            reinterpret_cast<const std::uint8_t *>(addresses), count};
}

// Index of the node or leaf that a word names. What names none, or one at no word's place, gets an index far behind the
// table, since the rotation brings the lower bits to the top: one comparison tells.
inline std::uint32_t batch_index(std::uint32_t word, std::uint32_t to) { return std::rotr(word + to, 2); }

// Whether the batch can tell a null word by its index. Not where the table begins at address 0 or wraps round.
bool batch_tells_null(const ixp_table &table) { return batch_index(0, 0 - table.base) > IXP_LAST_WORD; }

// An address's byte for a level, the upper one first.
template <unsigned LEVEL> inline std::uint32_t batch_slot(const std::uint8_t *addresses, std::size_t i)
{
    return addresses[4 * i + (std::endian::native == std::endian::little ? IXP_LEVELS - 1 - LEVEL : LEVEL)];
}

// The word `index` words behind `origin`, the table's address. A number, since the cells lie outside the table.
inline std::uint32_t load_at(std::uintptr_t origin, std::uintptr_t index)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): see above
    return ixp_load_word(reinterpret_cast<const std::uint32_t *>(origin + 4 * index));
}

// cppcheck-suppress passedByValue ; so that a store into the cells is known not to change it
template <unsigned LEVEL> void batch_descend(const batch_source s, std::uint32_t *cells)
{
    const std::uint32_t to_node = unknown(s.to_node);
    const std::uintptr_t origin = unknown(reinterpret_cast<std::uintptr_t>(s.words));
    // The cells have indexes from there too; below the table, the multiplication by 4 wraps round to them.
    const std::uintptr_t first_cell = (unknown(reinterpret_cast<std::uintptr_t>(cells)) - origin) / 4;
#pragma GCC unroll 4
    for (std::size_t i = 0; i < s.count; ++i) {
        const std::uint32_t node = batch_index(cells[i], to_node);
        const std::uintptr_t slot = unknown(std::uintptr_t{node} + batch_slot<LEVEL>(s.addresses, i));
        const std::uintptr_t cell = first_cell + i;
        cells[i] = load_at(origin, unknown(node < NODE_END ? slot : cell));
    }
}

// Reads the first slots. The root of the one tree is loaded once; one that is no node is left to the levels.
// cppcheck-suppress passedByValue ; so that a store into the cells is known not to change it
void batch_enter(const ixp_table &table, const ixp_trees &trees, const batch_source s, std::uint32_t *cells)
{
    const std::uint32_t one = ixp_load(table, trees.one & IXP_TREE_MASK), root = batch_index(one, s.to_node);
    if (trees.each == nullptr && root < NODE_END) {
        const std::uint32_t *const slots = s.words + root;
#pragma GCC unroll 4
        for (std::size_t i = 0; i < s.count; ++i)
            cells[i] = ixp_load_word(slots + batch_slot<0>(s.addresses, i));
        return;
    }
    for (std::size_t i = 0; i < s.count; ++i)
        cells[i] = trees.each == nullptr ? one : ixp_load(table, trees.each[i] & IXP_TREE_MASK);
    batch_descend<0>(s, cells);
}

// Walks once: afterwards the cells hold the last slot words.
void batch_walk(const ixp_table &table, const ixp_trees &trees, const batch_source &s, std::uint32_t *cells)
{
    batch_enter(table, trees, s, cells);
    batch_descend<1>(s, cells);
    batch_descend<2>(s, cells);
    batch_descend<3>(s, cells);
}

// What has no leaf, or one that is not in the table, goes by itself.
[[gnu::noinline, gnu::cold]] void lookup_again(const ixp_table &table, const ixp_trees &trees,
                                               const std::uint32_t *addresses, std::uint32_t *words, std::size_t i)
{
    words[i] = ixp_adjacency(table, ixp_tree_of(trees, i), addresses[i], IXP_WALKS - 1);
}
[[gnu::noinline, gnu::cold]] void forward_again(const ixp_table &table, const ixp_trees &trees, const ixp_packets &p,
                                                std::size_t i)
{
    const ixp_choice choice = ixp_path(table, ixp_tree_of(trees, i), p.addresses[i], p.hashes[i], IXP_WALKS - 1);
    p.words[i] = choice.word;
    p.paths[i] = choice.path;
}

void batch_lookup(const ixp_table &table, const ixp_trees &trees, const std::uint32_t *addresses, std::uint32_t *words,
                  std::size_t count)
{
    const batch_source s = source_of(table, addresses, count);
    std::uint32_t cells[BLOCK];
    batch_walk(table, trees, s, cells);
#pragma GCC unroll 4
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t leaf = batch_index(cells[i], s.to_leaf);
        if (leaf <= IXP_LAST_WORD) [[likely]]
            words[i] = ixp_load_word(s.words + leaf);
        else
            lookup_again(table, trees, addresses, words, i);
    }
}

// Reads the leaves' words; answers the number of sets, whose places are left in `sets`.
// cppcheck-suppress passedByValue ; so that a store into the answers is known not to change them
std::size_t batch_leaves(const ixp_table &table, const ixp_trees &trees, const ixp_packets p, const batch_source s,
                         const std::uint32_t *cells, std::uint32_t *sets)
{
    std::size_t found = 0;
    for (std::size_t i = 0; i < s.count; ++i) {
        const std::uint32_t leaf = batch_index(cells[i], s.to_leaf);
        if (leaf > IXP_LAST_WORD) [[unlikely]] {
            forward_again(table, trees, p, i);
            continue;
        }
        const std::uint32_t own = ixp_load_word(s.words + leaf);
        p.words[i] = own;
        p.paths[i] = 0;
        sets[found] = static_cast<std::uint32_t>(i);
        found += (own & ADJ_ECMP) / ADJ_ECMP;
    }
    return found;
}

void batch_forward(const ixp_table &table, const ixp_trees &trees, const ixp_packets &p)
{
    const batch_source s = source_of(table, p.addresses, p.count);
    std::uint32_t cells[BLOCK], sets[BLOCK];
    batch_walk(table, trees, s, cells);
    const std::size_t count = batch_leaves(table, trees, p, s, cells, sets);
    for (std::size_t k = 0; k < count; ++k) {
        const std::uint32_t i = sets[k];
        const ixp_choice choice = ixp_choose(table, cells[i], p.words[i], p.hashes[i]);
        p.words[i] = choice.word;
        p.paths[i] = choice.path;
    }
}

void scalar_lookup(const ixp_table &table, const ixp_trees &trees, const std::uint32_t *addresses, std::uint32_t *words,
                   std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        words[i] = ixp_adjacency(table, ixp_tree_of(trees, i), addresses[i], IXP_WALKS);
}

void scalar_forward(const ixp_table &table, const ixp_trees &trees, const ixp_packets &p)
{
    for (std::size_t i = 0; i < p.count; ++i) {
        const ixp_choice choice = ixp_path(table, ixp_tree_of(trees, i), p.addresses[i], p.hashes[i], IXP_WALKS);
        p.words[i] = choice.word;
        p.paths[i] = choice.path;
    }
}

ixp_packets packets_from(const ixp_packets &p, std::size_t at, std::size_t count)
{
    return {p.addresses + at, p.hashes + at, p.words + at, p.paths + at, count};
}

void lookup(const ixp_table &table, ixp_implementation implementation, const ixp_trees &trees,
            const std::uint32_t *addresses, std::uint32_t *words, std::size_t count)
{
    if (implementation == IXP_AVX2 && ixp_avx2_runs())
        return ixp_avx2_lookup(table, trees, addresses, words, count);
    if (implementation == IXP_SCALAR || !batch_tells_null(table))
        return scalar_lookup(table, trees, addresses, words, count);
    for (std::size_t at = 0; at < count; at += BLOCK)
        batch_lookup(table, ixp_trees_from(trees, at), addresses + at, words + at, std::min(BLOCK, count - at));
}

void forward(const ixp_table &table, ixp_implementation implementation, const ixp_trees &trees, const ixp_packets &p)
{
    if (implementation == IXP_AVX2 && ixp_avx2_runs())
        return ixp_avx2_forward(table, trees, p);
    if (implementation == IXP_SCALAR || !batch_tells_null(table))
        return scalar_forward(table, trees, p);
    for (std::size_t at = 0; at < p.count; at += BLOCK)
        batch_forward(table, ixp_trees_from(trees, at), packets_from(p, at, std::min(BLOCK, p.count - at)));
}
} // namespace

const char *ixp_implementation_name(ixp_implementation implementation)
{
    constexpr const char *NAMES[IXP_IMPLEMENTATIONS] = {"scalar", "batch", "avx2"};
    return implementation < IXP_IMPLEMENTATIONS ? NAMES[implementation] : "none";
}

bool ixp_implementation_runs(ixp_implementation implementation)
{
    return implementation < IXP_AVX2 || (implementation == IXP_AVX2 && ixp_avx2_runs());
}

ixp_implementation ixp_best_implementation() { return ixp_avx2_runs() ? IXP_AVX2 : IXP_BATCH; }

void ixp_lookup(const ixp_table &table, ixp_implementation implementation, std::uint32_t tree,
                const std::uint32_t *addresses, std::uint32_t *words, std::size_t count)
{
    lookup(table, implementation, {nullptr, tree}, addresses, words, count);
}

void ixp_lookup_trees(const ixp_table &table, ixp_implementation implementation, const std::uint32_t *trees,
                      const std::uint32_t *addresses, std::uint32_t *words, std::size_t count)
{
    lookup(table, implementation, {trees, 0}, addresses, words, count);
}

void ixp_forward(const ixp_table &table, ixp_implementation implementation, std::uint32_t tree,
                 const ixp_packets &packets)
{
    forward(table, implementation, {nullptr, tree}, packets);
}

void ixp_forward_trees(const ixp_table &table, ixp_implementation implementation, const std::uint32_t *trees,
                       const ixp_packets &packets)
{
    forward(table, implementation, {trees, 0}, packets);
}

ixp_hop ixp_hop_of(std::uint32_t word, std::uint32_t path)
{
    return {path == 0 ? adj_ifid(word) : ecmp_entry_ifid(word), adj_encap(word)};
}
