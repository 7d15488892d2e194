// every_change_test.cpp - no single change is ever seen half done, by whichever reader its stores fall upon.
//
// Every kind of change on tables made by hand and at random: after each store, and in every order of loads and stores,
// an address is answered what the table before or the table after the change gives.
#include <random>

#include <gtest/gtest.h>

#include "norvik_mtrie_pool.h"
#include "proof_card.h"

using namespace harness;

namespace
{
constexpr std::uint32_t TREE = 4;
constexpr proof_path A{5, 0x11}, B{6, 0x22}, C{7, 0x33}, D{8, 0x44}, UNKNOWN{9, 0x99};
constexpr unsigned PLAIN = 0, ECMP = RIB_F_ECMP;
constexpr std::uint32_t NET = IP(10, 0, 0, 0);

std::uint32_t masked(std::uint32_t address, std::uint32_t len)
{
    return len == 0 ? 0 : address & 0xFFFFFFFFu << (32 - len);
}

struct every_change : testing::Test {
    proof_card proof;

    // Judges one change at the boundaries of the tree as it is, of the prefix, and of what is there afterwards too.
    void judged(std::uint32_t prefix, std::uint32_t len, const std::function<void()> &change)
    {
        std::vector<std::uint32_t> addresses = tree_boundaries(TREE);
        add_boundaries(addresses, prefix, len);
        const proof_finding found = proof.judge(TREE, addresses, {change});
        EXPECT_TRUE(found.clean()) << found.after_stores << " after stores, " << found.interleavings()
                                   << " in some order; " << found.first;
    }
    void judged_add(std::uint32_t address, std::uint32_t len, proof_path path, unsigned flags, std::uint32_t expected)
    {
        const std::uint32_t prefix = masked(address, len);
        SCOPED_TRACE(testing::Message() << "add " << std::hex << prefix << std::dec << "/" << len);
        judged(prefix, len, [=] { EXPECT_EQ(proof_add(TREE, prefix, len, path, flags), expected); });
    }
    void judged_remove(std::uint32_t address, std::uint32_t len, proof_path path, std::uint32_t expected)
    {
        const std::uint32_t prefix = masked(address, len);
        SCOPED_TRACE(testing::Message() << "remove " << std::hex << prefix << std::dec << "/" << len);
        judged(prefix, len, [=] { EXPECT_EQ(proof_remove(TREE, prefix, len, path), expected); });
    }
    // The default route answers, so that an answer of 0 is nobody's.
    void with_default()
    {
        judged(0, 0, [] { EXPECT_EQ(proof_default(TREE, A, PLAIN), 1u); });
    }
    // A route with `paths` paths, A to D first.
    void with_set(unsigned paths)
    {
        const proof_path all[] = {A, B, C, D, {1, 0x51}, {1, 0x52}, {1, 0x53}, {1, 0x54}};
        judged_add(NET, 8, all[0], PLAIN, 1);
        for (unsigned i = 1; i < paths; ++i)
            judged_add(NET, 8, all[i], ECMP, 1);
    }
};
} // namespace

TEST_F(every_change, a_prefix_of_each_length_alone)
{
    with_default();
    for (std::uint32_t len = 1; len <= 32; ++len) {
        judged_add(NET, len, B, PLAIN, 1);
        judged_remove(NET, len, B, 1);
    }
}

TEST_F(every_change, a_prefix_of_each_length_under_and_over_others)
{
    with_default();
    judged_add(IP(10, 128, 0, 0), 9, B, PLAIN, 1);
    judged_add(IP(10, 0, 64, 0), 18, B, PLAIN, 1);
    judged_add(IP(10, 0, 0, 4), 30, D, PLAIN, 1);
    for (const std::uint32_t len : {1u, 5u, 7u, 8u, 10u, 15u, 16u, 17u, 20u, 24u, 25u, 29u, 31u, 32u}) {
        judged_add(NET, len, C, PLAIN, 1);
        judged_remove(NET, len, C, 1);
    }
}

TEST_F(every_change, prefixes_that_nest_taken_from_either_end)
{
    with_default();
    for (const std::uint32_t len : {8u, 16u, 24u, 32u})
        judged_add(NET, len, {len, len}, PLAIN, 1);
    for (const std::uint32_t len : {8u, 16u, 24u, 32u})
        judged_remove(NET, len, {len, len}, 1);
    for (const std::uint32_t len : {32u, 24u, 16u, 8u})
        judged_add(NET, len, {len, len}, PLAIN, 1);
    for (const std::uint32_t len : {32u, 24u, 16u, 8u})
        judged_remove(NET, len, {len, len}, 1);
}

TEST_F(every_change, three_nodes_pushed_down_and_folded_at_once)
{
    with_default();
    const std::int32_t nodes = mtrie_pools[MTRIE_POOL_NODE].count;
    judged_add(IP(10, 1, 2, 3), 32, B, PLAIN, 1);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_NODE].count, nodes + 3);
    judged_remove(IP(10, 1, 2, 3), 32, B, 1);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_NODE].count, nodes);
}

TEST_F(every_change, a_prefix_that_longer_ones_cover_wholly_and_the_gap_that_it_leaves)
{
    with_default();
    judged_add(NET, 25, B, PLAIN, 1);
    judged_add(IP(10, 0, 0, 128), 25, C, PLAIN, 1);
    judged_add(NET, 24, D, PLAIN, 1); // takes no slot, and has nothing behind it
    judged_remove(NET, 25, B, 1);
    judged_remove(IP(10, 0, 0, 128), 25, C, 1);
    judged_remove(NET, 24, D, 1); // its slots are empty now
    judged_add(NET, 26, B, PLAIN, 1);
    judged_add(IP(10, 0, 0, 7), 32, C, PLAIN, 1);
    judged_remove(IP(10, 0, 0, 7), 32, C, 1);
    judged_remove(NET, 26, B, 1);
}

TEST_F(every_change, a_set_grown_to_eight_paths_and_refused_the_ninth)
{
    with_default();
    with_set(8);
    judged_add(NET, 8, UNKNOWN, ECMP, 0);
}

TEST_F(every_change, the_own_the_last_and_a_middle_path_leave_sets_of_each_size)
{
    with_default();
    for (unsigned paths = 2; paths <= 8; ++paths)
        for (const unsigned gone : {0u, 1u, paths / 2, paths - 1}) {
            SCOPED_TRACE(testing::Message() << paths << " paths, " << gone << " goes");
            const proof_path all[] = {A, B, C, D, {1, 0x51}, {1, 0x52}, {1, 0x53}, {1, 0x54}};
            with_set(paths);
            judged_remove(NET, 8, all[gone], 1);
            for (unsigned i = 0; i < paths; ++i)
                if (i != gone)
                    judged_remove(NET, 8, all[i], 1);
        }
}

TEST_F(every_change, an_unknown_path_leaves_the_set_invalid_and_refusing)
{
    with_default();
    with_set(3);
    judged_remove(NET, 8, UNKNOWN, 0);
    judged_add(NET, 8, D, ECMP, 0);
    judged_remove(NET, 8, A, 0);
}

TEST_F(every_change, a_set_under_a_longer_prefix_that_takes_all_its_slots)
{
    with_default();
    with_set(3);
    judged_add(NET, 9, D, PLAIN, 1);
    judged_add(IP(10, 128, 0, 0), 9, D, PLAIN, 1);
    judged_remove(NET, 9, D, 1);
    judged_remove(IP(10, 128, 0, 0), 9, D, 1);
}

TEST_F(every_change, a_default_route_set_changed_and_reset)
{
    judged(0, 0, [] { EXPECT_EQ(proof_default(TREE, A, PLAIN), 1u); });
    judged_add(NET, 8, B, PLAIN, 1);
    judged(0, 0, [] { EXPECT_EQ(proof_default(TREE, C, PLAIN), 1u); });
    judged(0, 0, [] { EXPECT_EQ(proof_default_reset(TREE, C), 1u); });
}

TEST_F(every_change, a_plain_default_over_a_set_and_back)
{
    judged(0, 0, [] { EXPECT_EQ(proof_default(TREE, A, ECMP), 1u); });
    judged(0, 0, [] { EXPECT_EQ(proof_default(TREE, B, ECMP), 1u); });
    judged(0, 0, [] { EXPECT_EQ(proof_default(TREE, C, ECMP), 1u); });
    judged(0, 0, [] { EXPECT_EQ(proof_default_reset(TREE, B), 1u); });
    judged(0, 0, [] { EXPECT_EQ(proof_default(TREE, D, PLAIN), 1u); }); // the block stays, out of use
    judged(0, 0, [] { EXPECT_EQ(proof_default(TREE, B, ECMP), 1u); });  // grows, out of use
    judged(0, 0, [] { EXPECT_EQ(proof_default_reset(TREE, D), 1u); });
    judged(0, 0, [] { EXPECT_EQ(proof_default(TREE, A, ECMP), 1u); });
}

TEST_F(every_change, a_repeat_changes_nothing_for_readers)
{
    with_default();
    judged_add(NET, 16, B, PLAIN, 1);
    judged_add(NET, 16, C, PLAIN, 2);
}

TEST_F(every_change, a_route_refused_for_want_of_leaves_nodes_or_blocks)
{
    with_default();
    with_set(2);
    while (mtrie_pools[MTRIE_POOL_NODE].count < 1022)
        ASSERT_NE(mtrie_node_alloc_pool(77), nullptr);
    while (mtrie_pools[MTRIE_POOL_ECMP].count < 128)
        ASSERT_NE(mtrie_ecmp_alloc_pool(77), nullptr);
    proof.settle();
    judged_add(IP(10, 1, 2, 3), 32, B, PLAIN, 0); // two of the three nodes: they stay and answer as before
    judged_add(IP(12, 0, 0, 0), 8, B, PLAIN, 1);
    judged_add(IP(12, 0, 0, 0), 8, C, ECMP, 0);
    while (mtrie_pools[MTRIE_POOL_LEAF].count < 1024)
        ASSERT_NE(mtrie_leaf_alloc_pool(77), nullptr);
    proof.settle();
    judged_add(IP(13, 0, 0, 0), 8, B, PLAIN, 0);
    judged_add(IP(12, 0, 0, 0), 8, B, PLAIN, 0); // takes the route that was there along
    judged_remove(NET, 8, B, 1);
    judged_remove(NET, 8, A, 1);
}

// --- At random

namespace
{
struct random_step {
    unsigned kind;
    std::uint32_t prefix, len;
    proof_path path;
    unsigned flags;
};

random_step random_step_of(std::mt19937 &random)
{
    constexpr std::uint32_t lengths[] = {0, 1, 2, 3, 8, 9, 10, 16, 17, 23, 24, 25, 26, 31, 32, 32};
    constexpr std::uint32_t tops[] = {10, 10, 10, 0, 64, 128}, bytes[] = {0, 0, 64, 128, 1};
    constexpr unsigned flags[] = {0, 0, ECMP, ECMP, ECMP, RIB_F_CONNECTED, RIB_F_NAT};
    const auto below = [&random](std::size_t n) { return static_cast<std::uint32_t>(random() % n); };
    random_step step{};
    step.kind = below(10);
    step.len = lengths[below(std::size(lengths))];
    const std::uint32_t top = tops[below(std::size(tops))];
    const std::uint32_t second = bytes[below(5)], third = bytes[below(5)], last = bytes[below(5)]; // in this order
    step.prefix = masked(IP(top, second, third, last), step.len);
    step.path = {1 + below(4), 1 + below(2)};
    step.flags = flags[below(std::size(flags))];
    return step;
}

void take(const random_step &step)
{
    if (step.kind < 5)
        (void)proof_add(TREE, step.prefix, step.len, step.path, step.flags);
    else if (step.kind < 8)
        (void)proof_remove(TREE, step.prefix, step.len, step.path);
    else if (step.kind < 9)
        (void)proof_default(TREE, step.path, step.flags);
    else
        (void)proof_default_reset(TREE, step.path);
}

struct random_changes : every_change, testing::WithParamInterface<std::uint32_t> {
};
} // namespace

TEST_P(random_changes, of_a_random_table_are_never_seen_half_done)
{
    std::mt19937 random(GetParam());
    with_default();
    for (unsigned i = 0; i < 100; ++i) {
        const random_step step = random_step_of(random);
        SCOPED_TRACE(testing::Message() << "seed " << GetParam() << " step " << i << " kind " << step.kind << " "
                                        << std::hex << step.prefix << std::dec << "/" << step.len);
        judged(step.prefix, step.len, [&step] { take(step); });
        ASSERT_FALSE(HasFailure());
    }
    RecordProperty("stores", static_cast<int>(proof.stores));
    RecordProperty("states", static_cast<int>(proof.states));
}

INSTANTIATE_TEST_SUITE_P(seeds, random_changes, testing::Values(1u, 2u, 3u, 4u));
