// host_space_test.cpp - card addresses, the heap behind them and the counts of who holds what.
#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <vector>

#include <sys/mman.h>
#include <sys/resource.h>

#include "card_space.h"
#include "host_support.h"
#include "mtrack.h"

using namespace harness;

namespace
{
std::size_t lines_of_map_at(card_addr addr, std::size_t bytes, const char *mode)
{
    const auto first = reinterpret_cast<std::uintptr_t>(card_space_base) + addr;
    std::ifstream maps("/proc/self/maps");
    std::size_t covered = 0;
    for (std::string line; std::getline(maps, line);) {
        unsigned long from = 0, to = 0;
        char perms[5] = {};
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &from, &to, perms) != 3 || std::strcmp(perms, mode) != 0)
            continue;
        const unsigned long low = std::max<unsigned long>(from, first), high = std::min(to, first + bytes);
        covered += low < high ? high - low : 0;
    }
    return covered;
}

bool all_zero(const void *p, std::size_t bytes)
{
    const auto *b = static_cast<const unsigned char *>(p);
    for (std::size_t i = 0; i < bytes; ++i)
        if (b[i] != 0)
            return false;
    return true;
}
} // namespace

TEST(card_space, the_reservation_is_made_by_the_first_need_and_aligned_to_its_own_size)
{
    EXPECT_EQ(in_child([] {
                  EXPECT_EQ(card_space_base, nullptr);
                  EXPECT_NE(card_space_map(-1, 4096), 0u);
                  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(card_space_base) % (std::uintptr_t{1} << 32), 0u);
              }),
              0);
}

TEST(card_space, an_address_and_its_pointer_turn_into_each_other)
{
    const card_addr addr = card_space_map(-1, 10000);
    ASSERT_NE(addr, 0u);
    EXPECT_EQ(addr % 4096, 0u);
    auto *const p = card_at<char>(addr);
    EXPECT_EQ(card_addr_of(p), addr);
    EXPECT_EQ(card_addr_of(p + 5), addr + 5);
    EXPECT_TRUE(all_zero(p, 10000));
    card_ptr<char> link = p;
    EXPECT_EQ(link.get(), p);
    EXPECT_EQ(card_ptr<char>().get(), nullptr);
    card_space_unmap(addr, 10000);
}

TEST(card_space, the_first_page_is_never_handed_out)
{
    EXPECT_EQ(in_child([] {
                  EXPECT_GE(card_space_map(-1, 1), 4096u);
                  EXPECT_EQ(lines_of_map_at(0, 4096, "---p"), 4096u);
              }),
              0);
}

TEST(card_space, unmapping_with_a_larger_length_leaves_the_neighbour_alone)
{
    const card_addr first = card_space_map(-1, 0x103400), second = card_space_map(-1, 4096);
    ASSERT_EQ(second, first + 0x104000);
    *card_at<int>(second) = 42;
    card_space_unmap(first, 0x104000 + 0x4000);
    EXPECT_EQ(*card_at<int>(second), 42);
    EXPECT_EQ(lines_of_map_at(first, 0x104000, "---p"), 0x104000u) << "the range is reserved again";
    card_space_unmap(second, 4096);
}

TEST(card_space, taking_down_what_is_not_mapped_does_nothing)
{
    const card_addr addr = card_space_map(-1, 8192);
    *card_at<int>(addr) = 7;
    card_space_unmap(0, 8192);
    card_space_unmap(addr + 4096, 4096);
    card_space_unmap(0x70000000, 4096);
    EXPECT_EQ(*card_at<int>(addr), 7);
    card_space_unmap(addr, 8192);
    const card_addr again = card_space_map(-1, 4096);
    card_space_unmap(again, 4096);
    card_space_unmap(again, 4096); // the clean-up runs twice
    EXPECT_EQ(lines_of_map_at(again, 4096, "---p"), 4096u);
}

TEST(card_space, a_freed_range_is_used_again)
{
    const card_addr first = card_space_map(-1, 64 * 4096);
    card_space_unmap(first, 64 * 4096);
    EXPECT_EQ(card_space_map(-1, 64 * 4096), first);
    card_space_unmap(first, 64 * 4096);
}

TEST(card_space, a_mapping_that_cannot_fit_is_refused)
{
    EXPECT_EQ(card_space_map(-1, 0), 0u);
    EXPECT_EQ(card_space_map(-1, std::size_t{1} << 32), 0u);
    EXPECT_EQ(card_space_map(-1, ~std::size_t{0}), 0u);
    EXPECT_EQ(card_space_map(9999, 4096), 0u) << "no such descriptor";
}

TEST(card_heap, blocks_are_zeroed_aligned_and_apart)
{
    std::mt19937 random(20260131);
    std::map<card_addr, std::size_t> live;
    for (int step = 0; step < 20000; ++step) {
        if (live.size() < 500 && random() % 2 == 0) {
            const std::size_t bytes = random() % 100 == 0 ? random() % 200000 : random() % 300;
            auto *const p = static_cast<unsigned char *>(card_heap_alloc(bytes));
            ASSERT_NE(p, nullptr);
            ASSERT_EQ(card_addr_of(p) % 8, 0u);
            ASSERT_TRUE(all_zero(p, bytes)) << "step " << step;
            std::memset(p, 0xA5, bytes);
            const auto next = live.lower_bound(card_addr_of(p));
            ASSERT_TRUE(next == live.end() || card_addr_of(p) + bytes <= next->first);
            ASSERT_TRUE(next == live.begin() || std::prev(next)->first + std::prev(next)->second <= card_addr_of(p));
            live[card_addr_of(p)] = bytes;
        } else if (!live.empty()) {
            const auto victim = std::next(live.begin(), static_cast<long>(random() % live.size()));
            card_heap_free(card_at<void>(victim->first), victim->second);
            live.erase(victim);
        }
    }
    for (const auto &[addr, bytes] : live)
        card_heap_free(card_at<void>(addr), bytes);
}

TEST(card_heap, short_memory_is_null_and_the_heap_goes_on)
{
    EXPECT_EQ(card_heap_alloc(~std::size_t{0}), nullptr);
    EXPECT_EQ(card_heap_alloc(~std::size_t{0} - 7), nullptr);
    EXPECT_EQ(card_heap_alloc(std::size_t{1} << 32), nullptr);
    std::vector<void *> blocks;
    constexpr std::size_t BYTES = 1u << 29;
    for (int i = 0; i < 9; ++i)
        if (const card_addr range = card_space_map(-1, BYTES); range != 0)
            blocks.push_back(card_at<void>(range));
    EXPECT_LT(blocks.size(), 9u) << "the space holds less than 4 GiB of mappings";
    EXPECT_EQ(card_heap_alloc(BYTES), nullptr);
    for (void *p : blocks)
        card_space_unmap(card_addr_of(p), BYTES);
    void *const p = card_heap_alloc(1000);
    EXPECT_NE(p, nullptr);
    card_heap_free(p, 1000);
    card_heap_free(nullptr, 36);
}

TEST(card_heap, a_large_block_goes_back_to_the_host)
{
    void *const p = card_heap_alloc(1 << 20);
    ASSERT_NE(p, nullptr);
    const card_addr addr = card_addr_of(p) & ~0xFFFu;
    EXPECT_EQ(lines_of_map_at(addr, 1 << 20, "rw-p"), std::size_t{1} << 20);
    card_heap_free(p, 1 << 20);
    EXPECT_EQ(lines_of_map_at(addr, 1 << 20, "---p"), std::size_t{1} << 20);
}

// One of a caller's page of routes; a larger one between two of them changes nothing.
TEST(card_heap, the_last_range_of_a_page_of_routes_is_kept_and_comes_back_zeroed)
{
    constexpr std::size_t BYTES = 61200;
    auto *const first = static_cast<unsigned char *>(card_heap_alloc(BYTES));
    auto *const second = static_cast<unsigned char *>(card_heap_alloc(BYTES));
    ASSERT_TRUE(first != nullptr && second != nullptr);
    std::memset(second, 0xA5, BYTES);
    const card_addr first_page = card_addr_of(first) & ~0xFFFu, second_page = card_addr_of(second) & ~0xFFFu;
    card_heap_free(first, BYTES);
    EXPECT_EQ(lines_of_map_at(first_page, 4096, "rw-p"), 4096u);
    card_heap_free(second, BYTES);
    EXPECT_EQ(lines_of_map_at(first_page, 4096, "---p"), 4096u) << "one is kept, no more";
    EXPECT_EQ(lines_of_map_at(second_page, 4096, "rw-p"), 4096u);

    void *const large = card_heap_alloc(1 << 20);
    card_heap_free(large, 1 << 20);
    auto *const again = static_cast<unsigned char *>(card_heap_alloc(BYTES));
    EXPECT_EQ(again, second);
    EXPECT_TRUE(all_zero(again, BYTES));
    card_heap_free(again, BYTES);
}

TEST(card_heap, blocks_a_little_over_a_page_lie_close_together_and_are_used_again)
{
    constexpr std::size_t BYTES = 4160, SMALLER = 4104, COUNT = 1200; // more than the slabs hold
    std::map<card_addr, std::size_t> live;
    for (std::size_t i = 0; i < COUNT; ++i) {
        const std::size_t bytes = i % 2 == 0 ? BYTES : SMALLER;
        auto *const p = static_cast<unsigned char *>(card_heap_alloc(bytes));
        ASSERT_NE(p, nullptr);
        ASSERT_TRUE(all_zero(p, bytes));
        std::memset(p, 0xA5, bytes);
        live[card_addr_of(p)] = bytes;
    }
    ASSERT_EQ(live.size(), COUNT);
    std::size_t close = 0;
    for (auto at = live.begin(), next = std::next(at); next != live.end(); at = next++) {
        ASSERT_GE(next->first - at->first, at->second);
        close += next->first - at->first < 4200 ? 1u : 0u;
    }
    EXPECT_GT(close, 1000u);

    const auto [addr, bytes] = *live.begin();
    card_heap_free(card_at<void>(addr), bytes);
    auto *const again = static_cast<unsigned char *>(card_heap_alloc(bytes));
    EXPECT_EQ(card_addr_of(again), addr);
    EXPECT_TRUE(all_zero(again, bytes));
    for (const auto &[at, size] : live)
        card_heap_free(card_at<void>(at), size);
}

TEST(mtrack, counts_follow_each_type_and_the_peak_stays)
{
    static const char *const names[] = {"FIRST", "SECOND"};
    ASSERT_EQ(mtrack_init("test", 340, names, 2), 0);
    ASSERT_EQ(mtrack_type_count(), 2u);
    void *const a = mtrack_alloc(340, 1, 36), *const b = mtrack_alloc(340, 1, 100), *const c = mtrack_alloc(340, 0, 7);
    ASSERT_TRUE(a != nullptr && b != nullptr && c != nullptr);
    EXPECT_EQ(card_addr_of(a) % 8, 0u);
    EXPECT_TRUE(all_zero(b, 100));
    EXPECT_STREQ(mtrack_stats(1).name, "SECOND");
    EXPECT_EQ(mtrack_stats(1).live_blocks, 2u);
    EXPECT_EQ(mtrack_stats(1).live_bytes, 136u);
    mtrack_free(a);
    EXPECT_EQ(mtrack_stats(1).live_blocks, 1u);
    EXPECT_EQ(mtrack_stats(1).live_bytes, 100u);
    EXPECT_EQ(mtrack_stats(1).peak_bytes, 136u);
    EXPECT_EQ(mtrack_stats(0).live_bytes, 7u);
    mtrack_free(b);
    mtrack_free(c);
    mtrack_free(nullptr);
    EXPECT_EQ(mtrack_stats(1).live_bytes, 0u);
    EXPECT_EQ(mtrack_stats(1).peak_bytes, 136u);
}

TEST(mtrack, what_cannot_be_charged_is_null_and_counts_nothing)
{
    static const char *const names[MTRACK_MAX_TYPES + 1] = {};
    EXPECT_EQ(mtrack_init("test", 340, names, MTRACK_MAX_TYPES + 1), -1);
    EXPECT_EQ(mtrack_alloc(340, MTRACK_MAX_TYPES, 8), nullptr);
    const mtrack_type_stats before = mtrack_stats(2);
    EXPECT_EQ(mtrack_alloc(340, 2, 0xFFFFFFFF), nullptr);
    EXPECT_EQ(mtrack_alloc(340, 2, std::size_t{1} << 40), nullptr);
    EXPECT_EQ(mtrack_stats(2).live_blocks, before.live_blocks);
    EXPECT_EQ(mtrack_stats(2).peak_bytes, before.peak_bytes);
}

#if defined(__SANITIZE_ADDRESS__)
TEST(mtrack, a_freed_block_and_the_bytes_behind_a_block_cannot_be_touched)
{
    auto *volatile p = static_cast<volatile char *>(mtrack_alloc(340, 0, 13));
    EXPECT_DEATH(p[13] = 1, "use-after-poison");
    mtrack_free(const_cast<char *>(p));
    EXPECT_DEATH(p[0] = 1, "use-after-poison");
    EXPECT_DEATH(mtrack_free(const_cast<char *>(p)), "use-after-poison");

    p = static_cast<volatile char *>(mtrack_alloc(340, 0, 61200)); // whose range is kept
    EXPECT_DEATH(p[61200] = 1, "use-after-poison");
    mtrack_free(const_cast<char *>(p));
    EXPECT_DEATH(p[0] = 1, "use-after-poison");
    EXPECT_DEATH(p[61199] = 1, "use-after-poison");
}
#endif

TEST(mtrack, once_frozen_counts_a_freed_block_as_released_and_keeps_the_heap_as_it_is)
{
    on_fresh_card([] {
        constexpr const char *TYPES[] = {"TEST"};
        ASSERT_EQ(mtrack_init("test", 340, TYPES, 1), 0);
        void *const kept = mtrack_alloc(340, 0, 40), *const given = mtrack_alloc(340, 0, 40);
        mtrack_free(given);
        EXPECT_EQ(mtrack_alloc(340, 0, 40), given) << "a freed block is handed out again";
        mtrack_freeze();
        mtrack_free(given);
        EXPECT_EQ(mtrack_stats(0).live_blocks, 1u);
        EXPECT_EQ(mtrack_stats(0).live_bytes, 40u);
        EXPECT_NE(mtrack_alloc(340, 0, 40), given);
        mtrack_free(kept);
    });
}
