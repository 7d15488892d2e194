// several_changes_test.cpp - what a reader can be answered that sleeps through more than one change.
//
// Over one change no reader answers wrong (every_change_test.cpp). Over several there are three ways in which one can
// be, all of them bound to the order of stores that is laid down for the tables. Each stands here with its smallest
// example, which is as small as it says: without its last change there is nothing to find. Random windows then show
// that there is no fourth.
// Elsewhere: what each means for a card (docs/interleavings.md).
#include <random>

#include <gtest/gtest.h>

#include "proof_card.h"

using namespace harness;

namespace
{
constexpr std::uint32_t TREE = 4, NET = IP(10, 0, 0, 0), HOST = IP(10, 1, 2, 3);
constexpr proof_path A{5, 0x11}, B{6, 0x22}, C{7, 0x33}, D{8, 0x44};
constexpr unsigned PLAIN = 0, ECMP = RIB_F_ECMP;
using change = std::function<void()>;

change add(std::uint32_t prefix, std::uint32_t len, proof_path path, unsigned flags)
{
    return [=] { EXPECT_NE(proof_add(TREE, prefix, len, path, flags), 0u); };
}
change remove(std::uint32_t prefix, std::uint32_t len, proof_path path)
{
    return [=] { EXPECT_EQ(proof_remove(TREE, prefix, len, path), 1u); };
}
change default_route(proof_path path, unsigned flags)
{
    return [=] { EXPECT_EQ(proof_default(TREE, path, flags), 1u); };
}

// The finding of a window over a table that `before` has made.
proof_finding window(const std::vector<change> &before, std::uint32_t address, const std::vector<change> &changes)
{
    proof_card proof;
    for (const change &made : before)
        made();
    proof.settle();
    return proof.judge(TREE, {address}, changes);
}

// All changes of `changes` are needed: without the last there is nothing to find.
proof_finding smallest_window(const std::vector<change> &before, std::uint32_t address, std::vector<change> changes)
{
    const proof_finding all = window(before, address, changes);
    changes.pop_back();
    const proof_finding fewer = window(before, address, changes);
    EXPECT_TRUE(fewer.clean()) << fewer.first;
    EXPECT_EQ(all.after_stores, 0u) << all.first;
    EXPECT_EQ(all.unnamed, 0u) << all.first;
    return all;
}
} // namespace

TEST(several_changes, a_header_that_came_back_lets_an_empty_entry_pass)
{
    const proof_finding found = smallest_window({add(NET, 8, A, PLAIN), add(NET, 8, B, ECMP), add(NET, 8, C, ECMP)},
                                                NET, {remove(NET, 8, C), add(NET, 8, D, ECMP)});
    EXPECT_EQ(found.came_back, 3u) << "one a copy";
    EXPECT_EQ(found.interleavings(), 3u) << found.first;
}

TEST(several_changes, a_default_leaf_left_behind_answers_with_its_new_route)
{
    const proof_finding found =
        smallest_window({default_route(A, PLAIN)}, NET, {add(NET, 8, B, PLAIN), default_route(C, PLAIN)});
    EXPECT_EQ(found.left_behind, 3u) << "one a copy";
    EXPECT_EQ(found.interleavings(), 3u) << found.first;
}

TEST(several_changes, a_set_left_behind_answers_with_its_new_path)
{
    const proof_finding found = smallest_window({add(NET, 8, A, PLAIN), add(NET, 8, B, ECMP)}, HOST,
                                                {add(HOST, 32, C, PLAIN), add(NET, 8, D, ECMP)});
    EXPECT_EQ(found.left_behind, 3u) << "one a copy";
    EXPECT_EQ(found.interleavings(), 3u) << found.first;
}

TEST(several_changes, a_set_under_a_plain_default_answers_with_its_new_path)
{
    const proof_finding found = smallest_window({default_route(A, PLAIN), default_route(B, ECMP)}, NET,
                                                {default_route(C, PLAIN), default_route(D, ECMP)});
    EXPECT_EQ(found.left_behind, 3u) << "one a copy";
    EXPECT_EQ(found.interleavings(), 3u) << found.first;
}

TEST(several_changes, a_fourth_node_folded_away_under_one_lookup_is_a_miss)
{
    const proof_finding found = smallest_window({default_route(A, PLAIN), add(HOST, 32, B, PLAIN)}, HOST,
                                                {remove(HOST, 32, B), add(HOST, 32, B, PLAIN), remove(HOST, 32, B)});
    EXPECT_EQ(found.folded, 3u) << "one a copy";
    EXPECT_EQ(found.interleavings(), 3u) << found.first;
}

// --- No other way

namespace
{
change random_change(std::mt19937 &random)
{
    constexpr std::uint32_t lengths[] = {8, 8, 8, 16, 24, 32};
    const auto below = [&random](unsigned n) { return static_cast<std::uint32_t>(random() % n); };
    const std::uint32_t kind = below(12), len = lengths[below(6)];
    const proof_path path{1 + below(5), 1};
    if (kind < 5)
        return [=] { (void)proof_add(TREE, NET, len, path, kind < 4 ? ECMP : PLAIN); };
    if (kind < 8)
        return [=] { (void)proof_remove(TREE, NET, len, path); };
    if (kind < 11)
        return [=] { (void)proof_default(TREE, path, kind < 9 ? PLAIN : ECMP); };
    return [=] { (void)proof_default_reset(TREE, path); };
}

struct random_windows : testing::TestWithParam<std::uint32_t> {
};
} // namespace

TEST_P(random_windows, give_wrong_answers_of_these_kinds_only)
{
    std::mt19937 random(GetParam());
    unsigned named = 0;
    for (unsigned table = 0; table < 12; ++table) {
        proof_card proof;
        (void)proof_default(TREE, {9, 0x99}, PLAIN);
        for (unsigned i = 0; i < 6; ++i)
            random_change(random)();
        proof.settle();
        for (unsigned round = 0; round < 30; ++round) {
            std::vector<change> changes(2 + random() % 4);
            for (change &made : changes)
                made = random_change(random);
            const proof_finding found = proof.judge(TREE, {NET, NET + 1, IP(10, 1, 0, 1), IP(11, 0, 0, 0)}, changes);
            ASSERT_EQ(found.after_stores, 0u) << "seed " << GetParam() << " table " << table << ": " << found.first;
            ASSERT_EQ(found.unnamed, 0u) << "seed " << GetParam() << " table " << table << ": " << found.first;
            named += found.interleavings();
        }
    }
    EXPECT_GT(named, 0u) << "windows of this kind are known to give wrong answers";
}

INSTANTIATE_TEST_SUITE_P(seeds, random_windows, testing::Values(1u, 2u, 3u));
