// fake_memory.cpp - memory tracking, the table memories and the stores to them, as a test's card has them.
//
// Blocks come from the card's heap and mappings are fresh zeroed memory in the card space, so records hold the same
// kind of addresses as on a card. Each store of a word is seen one by one.
// Always: a block or mapping that is given back is one that was taken; anything else is a failure of the test.
#include <algorithm>
#include <atomic>
#include <limits>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "hw_store.h"
#include "norvik_mtrie_pool.h"
#include "platform_mem.h"

#include "fake_call.h"

using namespace harness;

namespace
{

constexpr std::uint32_t ALL_TYPES = std::numeric_limits<std::uint32_t>::max();

// True when this allocation is the one to fail.
bool countdown_ends(std::uint32_t type)
{
    auto &waiting = the_card().alloc_countdown;
    const auto it = waiting.find(type);
    if (it == waiting.end() || --it->second > 0)
        return false;
    waiting.erase(it);
    return true;
}

card_addr map_copy(unsigned copy, std::size_t bytes)
{
    const card_addr addr = card_space_map(-1, bytes);
    if (addr != 0)
        the_card().maps[addr] = {copy, bytes};
    return addr;
}

void unmap_copy(card_addr addr)
{
    const auto it = the_card().maps.find(addr);
    if (it == the_card().maps.end())
        return; // not mapped: left alone
    card_space_unmap(addr, it->second.bytes);
    the_card().maps.erase(it);
}

void store_word(std::uint32_t *word, std::uint32_t value)
{
    fake_card &card = the_card();
    if (!card.keep_store || !card.keep_store({card_addr_of(word), value}))
        card.store_now({card_addr_of(word), value});
}

} // namespace

void fake_card::fail_alloc(std::uint32_t type, unsigned nth) { alloc_countdown[type] = nth; }
void fake_card::fail_any_alloc(unsigned nth) { alloc_countdown[ALL_TYPES] = nth; }

std::uint32_t fake_card::blocks(std::uint32_t type) const
{
    return static_cast<std::uint32_t>(
        std::count_if(heap.begin(), heap.end(), [type](const auto &entry) { return entry.second.type == type; }));
}

std::uint32_t fake_card::all_blocks() const { return static_cast<std::uint32_t>(heap.size()); }

void fake_card::store_now(const fake_store &store)
{
    std::atomic_ref<std::uint32_t>(*card_at<std::uint32_t>(store.address))
        .store(store.value, std::memory_order_release);
    if (journal_on)
        journal.push_back(store);
    if (store_callback)
        store_callback();
}

void fake_card::after_each_store(std::function<void()> callback) { store_callback = std::move(callback); }

card_addr fake_card::memory(unsigned copy) const
{
    for (const auto &[addr, mapped] : maps)
        if (mapped.copy == copy)
            return addr;
    return 0;
}

std::uint32_t fake_card::word(unsigned copy, std::uint32_t offset) const
{
    const card_addr base = memory(copy);
    if (base == 0) {
        ADD_FAILURE() << "copy " << copy << " is not mapped";
        return 0;
    }
    return std::atomic_ref<std::uint32_t>(*card_at<std::uint32_t>(base + offset)).load(std::memory_order_acquire);
}

np_table fake_card::table(unsigned copy) const
{
    return {card_at<std::uint32_t>(memory(copy)), copy == 0 ? wired_phys_base : TABLE_IXP};
}

np_answer harness::np_find(const fake_card &card, unsigned copy, std::uint32_t tree, std::uint32_t address)
{
    return np_find(card.table(copy), tree, address);
}

std::uint32_t harness::hw_leaf(const mtrie_leaf *leaf)
{
    constexpr card_addr LINK = 4, RECORD = 40;
    return leaf == nullptr ? NP_MISS
                           : leaf_at((card_addr_of(leaf) - LINK - mtrie_pools[MTRIE_POOL_LEAF].start) / RECORD);
}

std::uint32_t harness::hw_block(const mtrie_ecmp *block)
{
    constexpr card_addr LINK = 4, RECORD = 48;
    return block == nullptr ? NP_MISS
                            : ecmp_at((card_addr_of(block) - LINK - mtrie_pools[MTRIE_POOL_ECMP].start) / RECORD);
}

std::string harness::in_ctx(unsigned ctx, const std::string &message) { return text("<Ctx:%u>", ctx) + message; }

void *harness::shown(const void *record)
{
    return reinterpret_cast<void *>(static_cast<std::uintptr_t>(card_addr_of(record)));
}

int mtrack_init(const char *process_name, std::uint32_t module, const char *const *type_names, unsigned count)
{
    fake_called("mtrack_init %s %u %u", process_name, module, count);
    if (count > MTRACK_MAX_TYPES)
        return -1;
    the_card().types.clear();
    for (unsigned i = 0; i < count; ++i)
        the_card().types.push_back({type_names[i], 0, 0, 0});
    return 0;
}

void *mtrack_alloc(std::uint32_t module, std::uint32_t type, std::size_t size)
{
    EXPECT_EQ(module, 340u) << "allocation of type " << type;
    fake_card &card = the_card();
    const bool ends = countdown_ends(type);
    if (countdown_ends(ALL_TYPES) || ends || card.memory_short || type >= MTRACK_MAX_TYPES)
        return nullptr;
    void *block = card_heap_alloc(size);
    if (block != nullptr)
        card.heap[card_addr_of(block)] = {type, size};
    return block;
}

void mtrack_freeze() {} // a test that ends by a signal has no clean-up to judge

void mtrack_free(void *block)
{
    if (block == nullptr)
        return;
    fake_card &card = the_card();
    const auto it = card.heap.find(card_addr_of(block));
    if (it == card.heap.end()) {
        ADD_FAILURE() << "freed a block that is not allocated: " << block;
        return;
    }
    card_heap_free(block, it->second.bytes);
    card.heap.erase(it);
}

unsigned mtrack_type_count() { return static_cast<unsigned>(the_card().types.size()); }

mtrack_type_stats mtrack_stats(unsigned type)
{
    mtrack_type_stats stats = the_card().types.at(type);
    for (const auto &[addr, taken] : the_card().heap)
        if (taken.type == type) {
            ++stats.live_blocks;
            stats.live_bytes += taken.bytes;
        }
    stats.peak_bytes = stats.live_bytes; // no test asks for what has been
    return stats;
}

int syscall_open()
{
    fake_called("syscall_open");
    const int result = the_card().syscall_open_result;
    return result < 0 ? result : the_card().next_descriptor++;
}

int syscall_close(int descriptor)
{
    fake_called("syscall_close %d", descriptor);
    return 0;
}

int norvik_get_wired_info(int, wired_info *info)
{
    fake_called("norvik_get_wired_info");
    if (the_card().wired_info_result != 0)
        return the_card().wired_info_result;
    *info = {the_card().wired_phys_base, the_card().wired_bytes};
    return 0;
}

card_addr map_wired_route(int)
{
    fake_called("map_wired_route");
    return the_card().map_wired_fails ? 0 : map_copy(0, the_card().wired_bytes);
}

void unmap_wired_route(int descriptor, card_addr addr)
{
    fake_called("unmap_wired_route %d %s", descriptor, fake_copy_name(addr));
    unmap_copy(addr);
}

card_addr map_pci_xram_to_uspace(std::uint32_t pci_address, std::uint32_t bytes, std::uint32_t processor)
{
    fake_called("map_pci_xram_to_uspace 0x%x 0x%x %u", pci_address, bytes, processor);
    if (processor > 1)
        return 0;
    const std::optional<card_addr> &failure = the_card().map_ixp_result[processor];
    return failure.has_value() ? *failure : map_copy(processor + 1, bytes);
}

void unmap_pci_xram_to_uspace(card_addr addr, std::uint32_t bytes)
{
    fake_called("unmap_pci_xram_to_uspace %s 0x%x", fake_copy_name(addr), bytes);
    unmap_copy(addr);
}

unsigned platform_get_num_ixp() { return the_card().num_ixp; }

int tn_flush_rt_cache(int)
{
    fake_called("tn_flush_rt_cache");
    return the_card().flush_result;
}

void platform_store32(std::uint32_t *word, std::uint32_t value) { store_word(word, value); }

void platform_fill32(std::uint32_t *words, std::uint32_t value, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        store_word(words + i, value);
}

void platform_copy32(std::uint32_t *to, const std::uint32_t *from, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        store_word(to + i, from[i]);
}
