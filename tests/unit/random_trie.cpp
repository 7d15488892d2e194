// random_trie.cpp - drawing a step, taking it on the card and in the picture, and comparing the two.
#include "random_trie.h"

#include <algorithm>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "norvik_mtrie.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "prefix_mgr.h"

namespace harness
{
struct random_trie::step {
    enum { ADD, REMOVE, DEFAULT_ADD, DEFAULT_REMOVE } kind;
    std::uint32_t tree; // index in TREES
    std::uint32_t prefix, length;
    plain_way route;
};

namespace
{
constexpr std::uint32_t TREES[] = {0, 1, 255};

// The path in the leaf may change before the leaf loses its ECMP flag; a block may be out of use for a while.
bool is_between(const np_answer &now, const np_answer &old, const np_answer &later)
{
    const auto same_leaf = [&now](const np_answer &side) {
        return now.leaf == side.leaf && ((now.adjacency ^ side.adjacency) & ~ADJ_ECMP) == 0;
    };
    const bool out_of_use = now.ecmp == std::array<std::uint32_t, ECMP_WORDS>{};
    return now.leaf != NP_UNSOUND && now.block != NP_UNSOUND && (same_leaf(old) || same_leaf(later)) &&
           (out_of_use || now.ecmp == old.ecmp || now.ecmp == later.ecmp);
}

void check_leaf(const mtrie_leaf *leaf, const plain_leaf *expected)
{
    while (leaf != nullptr && expected != nullptr) {
        ASSERT_EQ(leaf->prefix, expected->prefix);
        ASSERT_EQ(leaf->mask, expected->mask);
        ASSERT_EQ(leaf->adjacency, expected->adjacency) << text("%x/%x", leaf->prefix, leaf->mask);
        ASSERT_EQ(leaf->ecmp.addr() != 0, expected->has_block);
        if (expected->has_block) {
            ASSERT_EQ(leaf->ecmp->npaths, expected->block.npaths);
            for (unsigned i = 0; i < 8; ++i)
                ASSERT_EQ(leaf->ecmp->hw[i], expected->block.words[i]) << "word " << i;
        }
        leaf = leaf->back;
        expected = expected->back;
    }
    ASSERT_EQ(leaf, nullptr);
    ASSERT_EQ(expected, nullptr);
}
} // namespace

// --- The steps

random_trie::step random_trie::next_step()
{
    static constexpr std::uint32_t lengths[] = {0, 1, 2, 2, 3, 8, 9, 10, 16, 17, 23, 24, 25, 26, 31, 32, 32};
    static constexpr std::uint32_t tops[] = {10, 10, 10, 0, 64, 128, 192}, bytes[] = {0, 64, 128, 192, 1};
    static constexpr std::uint32_t flags[] = {0, 0, 0x40, 0x40, 0x40, 0x20, 0x80, 0x60};
    const std::uint32_t middles = kind == trie_kind::FEW ? 1 : kind == trie_kind::MANY ? 5 : 3; // of the middle bytes
    step made{};
    const std::uint32_t drawn = below(10);
    made.kind = drawn < 5 ? step::ADD : drawn < 8 ? step::REMOVE : drawn < 9 ? step::DEFAULT_ADD : step::DEFAULT_REMOVE;
    made.tree = below(std::size(TREES));
    made.length = lengths[below(std::size(lengths))];
    // A draw a declarator: in an argument list their order, and with it the run of a seed, would be the compiler's.
    const std::uint32_t top = tops[below(std::size(tops))], second = bytes[below(middles)],
                        third = bytes[below(middles)], last = bytes[below(5)];
    made.prefix = IP(top, second, third, last);
    if (below(64) != 0) // now and then an address with host bits, as given
        made.prefix &= plain_mask(made.length);
    made.route = {below(4), below(4), flags[below(std::size(flags))], 0};
    made.route.ctx = TREES[(made.tree + made.route.encap) % std::size(TREES)]; // its tree's, or another
    if (below(50) == 0)
        made.route.ifid |= 0x4000; // more bits than a leaf or a block keeps
    return made;
}

// --- Between the stores

void random_trie::watch(const step &taken)
{
    const std::uint32_t mask = plain_mask(taken.length), first = taken.prefix & mask, last = first | ~mask;
    watched = {first, last, first - 1, last + 1, first + ((last - first) / 2), taken.prefix, IP(10, 0, 0, 0)};
    const plain_tree &tree = trees[taken.tree];
    for (int i = 0; i < 6; ++i)
        watched.push_back(std::next(tree.ranges.begin(), below(static_cast<std::uint32_t>(tree.ranges.size())))->first);
    before.clear();
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        for (const std::uint32_t address : watched)
            before.push_back(np_find(card, copy, TREES[taken.tree], address));
    seen.assign(before.size(), {});
    card.after_each_store([this, id = TREES[taken.tree]] { look(id); });
}

void random_trie::look(std::uint32_t id)
{
    std::size_t i = 0;
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        for (const std::uint32_t address : watched) {
            const np_answer now = np_find(card, copy, id, address);
            if (now != (seen[i].empty() ? before[i] : seen[i].back()))
                seen[i].push_back(now);
            ++i;
        }
}

void random_trie::check_between(const step &taken)
{
    card.after_each_store(nullptr);
    std::size_t i = 0;
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        for (const std::uint32_t address : watched) {
            const np_answer later = np_find(card, copy, TREES[taken.tree], address);
            for (const np_answer &now : seen[i])
                ASSERT_TRUE(is_between(now, before[i], later))
                    << "copy " << copy << text(" address %x leaf %x adjacency %x", address, now.leaf, now.adjacency);
            ++i;
        }
}

// --- After the step

void random_trie::check_answers(std::uint32_t index)
{
    mtrie_node *root = mtrie_get_root_node(TREES[index]);
    const plain_tree &tree = trees[index];
    for (auto range = tree.ranges.begin(); range != tree.ranges.end(); ++range) {
        const auto next = std::next(range);
        for (const std::uint32_t address : {range->first, next == tree.ranges.end() ? 0xFFFFFFFF : next->first - 1}) {
            const mtrie_leaf *leaf = mtrie_longest_match(root, address);
            ASSERT_NO_FATAL_FAILURE(check_leaf(leaf, range->second)) << text("address %x", address);
            for (unsigned copy = 0; copy < NP_COPIES; ++copy)
                ASSERT_EQ(np_find(card, copy, TREES[index], address).leaf, hw_leaf(leaf)) << "copy " << copy;
        }
    }
}

void random_trie::check_tree(std::uint32_t index)
{
    const plain_tree &tree = trees[index];
    std::uint32_t charged[3];
    mtrie_census reached{};
    ASSERT_EQ(mtrie_check(mtrie_get_root_node(TREES[index]), &reached), 0);
    mtrie_get_stats(TREES[index], charged);
    EXPECT_EQ(reached.nodes, plain_nodes_held(tree)) << "nodes";
    EXPECT_LE(reached.leaves, tree.leaves.size()) << "leaves that only hang below each other are not reached";
    const std::array<std::int32_t, 3> &held = pools.held.at(TREES[index]);
    for (const plain_record record : {PLAIN_NODE, PLAIN_LEAF, PLAIN_BLOCK})
        EXPECT_EQ(charged[record], static_cast<std::uint32_t>(held[record])) << "pool " << record;
    ASSERT_EQ(norvik_leaf_default[TREES[index]].addr() != 0, tree.standard != nullptr);
    if (tree.standard != nullptr) {
        ASSERT_NO_FATAL_FAILURE(check_leaf(norvik_leaf_default[TREES[index]], tree.standard));
    }
    ASSERT_NO_FATAL_FAILURE(check_answers(index));
}

// --- One step in both

namespace
{
std::uint32_t take_for_real(const random_trie::step &taken)
{
    const std::uint32_t id = TREES[taken.tree];
    if (taken.kind == random_trie::step::DEFAULT_ADD || taken.kind == random_trie::step::DEFAULT_REMOVE)
        return mtrie_set_default_leaf_stub(id, 0, 0, taken.route.encap, taken.route.ifid, taken.route.flags,
                                           taken.kind == random_trie::step::DEFAULT_ADD ? 1 : 0);
    route_entry entry{};
    entry.prefix = taken.prefix;
    entry.len = taken.length;
    entry.ctx = static_cast<std::uint16_t>(taken.route.ctx);
    entry.route_id = static_cast<std::uint16_t>(id);
    entry.encap_id = taken.route.encap;
    entry.ifid = static_cast<std::uint16_t>(taken.route.ifid);
    entry.flags = static_cast<std::uint16_t>(taken.route.flags);
    return taken.kind == random_trie::step::ADD ? prefix_mgr_route_add(wired_table_mgr, &entry)
                                                : prefix_mgr_route_remove(wired_table_mgr, &entry);
}

std::uint32_t take_in_picture(const random_trie::step &taken, plain_tree &tree)
{
    if (taken.kind == random_trie::step::ADD)
        return plain_route_add(tree, taken.prefix, plain_mask(taken.length), taken.route);
    if (taken.kind == random_trie::step::REMOVE)
        return plain_route_remove(tree, taken.prefix, plain_mask(taken.length), taken.route);
    return plain_set_default(tree, taken.route, taken.kind == random_trie::step::DEFAULT_ADD);
}

std::string told(const random_trie::step &taken)
{
    static constexpr const char *names[] = {"add", "remove", "default add", "default remove"};
    return text("%s tree %u %x/%u encap %u ifid %x flags %x", names[taken.kind], TREES[taken.tree], taken.prefix,
                taken.length, taken.route.encap, taken.route.ifid, taken.route.flags);
}
} // namespace

void random_trie::take(const step &taken)
{
    watch(taken);
    const std::uint32_t answer = take_for_real(taken);
    ASSERT_NO_FATAL_FAILURE(check_between(taken));
    ASSERT_EQ(answer, take_in_picture(taken, trees[taken.tree]));
    ASSERT_EQ(card.texts(100), pools.errors);
    pools.errors.clear();
    ASSERT_EQ(mtrie_pool_check(), 0);
    ASSERT_EQ(mtrie_hw_check(), 0);
    ASSERT_EQ(mtrie_pools[MTRIE_POOL_LEAF].count, static_cast<std::int32_t>(pools.leaves));
    ASSERT_EQ(mtrie_pools[MTRIE_POOL_ECMP].count, static_cast<std::int32_t>(pools.blocks));
    ASSERT_EQ(mtrie_pools[MTRIE_POOL_NODE].count, static_cast<std::int32_t>(pools.nodes));
    ASSERT_NO_FATAL_FAILURE(check_tree(taken.tree));
}

random_trie::random_trie(std::uint32_t its_seed, trie_kind its_kind) : seed(its_seed), kind(its_kind), random(its_seed)
{
    EXPECT_EQ(card.start_tables(), 0);
    card.forget();
    card.open_all_history(false);
    card.open_history(100, true);                                 // the other lines are another test's
    pools.leaves -= static_cast<std::uint32_t>(std::size(TREES)); // these count themselves
    pools.nodes -= static_cast<std::uint32_t>(std::size(TREES));
    for (const std::uint32_t tree : TREES)
        trees.emplace_back(tree, &pools);
    if (kind == trie_kind::USED_UP)
        use_up_pools();
}

// Takes most of each pool, charged to a tree that is not looked at.
void random_trie::use_up_pools()
{
    constexpr std::uint32_t OTHER_TREE = 77;
    for (; pools.nodes < 1012; ++pools.nodes)
        EXPECT_NE(mtrie_node_alloc_pool(OTHER_TREE), nullptr);
    for (; pools.leaves < 1000; ++pools.leaves)
        EXPECT_NE(mtrie_leaf_alloc_pool(OTHER_TREE), nullptr);
    for (; pools.blocks < 124; ++pools.blocks)
        EXPECT_NE(mtrie_ecmp_alloc_pool(OTHER_TREE), nullptr);
}

void random_trie::take_steps(unsigned steps)
{
    for (unsigned number = 0; number < steps; ++number) {
        const step taken = next_step();
        SCOPED_TRACE(text("seed %u step %u: ", seed, number) + told(taken));
        ASSERT_NO_FATAL_FAILURE(take(taken));
        most_nodes = std::max(most_nodes, pools.nodes);
        card.forget();
    }
    for (std::uint32_t index = 0; index < std::size(TREES); ++index)
        ASSERT_NO_FATAL_FAILURE(check_tree(index));
}
} // namespace harness
