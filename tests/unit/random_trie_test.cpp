// random_trie_test.cpp - random operations on several trees against a slow, plain picture of them.
//
// The picture holds no nodes and no slots: a tree is a list of address ranges, each with the prefix that answers it.
// What the trie does that a map of prefixes would not is written down in it and marked "odd".
// After each operation the answers, the back chains, the paths, the pools and all copies must agree, and between any
// two stores each copy must have answered with what was there before or with what is there afterwards.
// Elsewhere: what is printed and logged (the tests of each area).

#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "norvik_init.h"
#include "norvik_mtrie.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "prefix_mgr.h"
#include "processor_walk.h"

namespace
{
constexpr std::uint32_t TREES[] = {0, 1, 255};
constexpr std::uint32_t LEAF_CAPACITY = 1024, BLOCK_CAPACITY = 128, NODE_CAPACITY = 1024;

// --- The picture

struct plain_block {
    std::uint32_t npaths;
    std::uint32_t words[8];
};

struct plain_leaf {
    std::uint32_t prefix = 0, mask = 0, adjacency = 0;
    plain_leaf *back = nullptr;
    bool has_block = false;
    plain_block block{};
    bool in_use = true;
};

struct plain_pools {
    std::uint32_t leaves, blocks; // in use, by all trees
};

struct plain_tree {
    std::deque<plain_leaf> leaves;                // every leaf that ever was; none moves
    std::map<std::uint32_t, plain_leaf *> ranges; // first address to the leaf that answers up to the next range
    plain_leaf *standard = nullptr;               // the default leaf; null once it was given back
    bool had_gap = false;                         // once an address had no answer; filling it folds no node
    std::uint32_t lost_leaves = 0;                // taken and never linked
    std::uint32_t blocks = 0;
    plain_pools *pools = nullptr;

    explicit plain_tree(plain_pools *shared) : pools(shared)
    {
        standard = &leaves.emplace_back();
        ranges[0] = standard;
    }
};

std::uint32_t mask_of(std::uint32_t length) { return length == 0 ? 0 : 0xFFFFFFFFu << (32 - length); }

plain_leaf *plain_find(const plain_tree &tree, std::uint32_t address)
{
    return std::prev(tree.ranges.upper_bound(address))->second;
}

// Odd: it starts at whatever answers the address as given, so a prefix that is not on that one's back chain is missed.
plain_leaf *plain_exact(const plain_tree &tree, std::uint32_t prefix, std::uint32_t mask)
{
    plain_leaf *leaf = plain_find(tree, prefix);
    while (leaf != nullptr && (leaf->prefix != prefix || leaf->mask != mask))
        leaf = leaf->back;
    return leaf;
}

void plain_split(plain_tree &tree, std::uint32_t at) { tree.ranges.emplace(at, plain_find(tree, at)); }

// First and last range of a prefix, cut so that they end with it.
std::pair<std::map<std::uint32_t, plain_leaf *>::iterator, std::map<std::uint32_t, plain_leaf *>::iterator>
plain_range(plain_tree &tree, std::uint32_t prefix, std::uint32_t mask)
{
    const std::uint32_t first = prefix & mask, last = first | ~mask;
    plain_split(tree, first);
    if (last != 0xFFFFFFFF)
        plain_split(tree, last + 1);
    return {tree.ranges.find(first), last == 0xFFFFFFFF ? tree.ranges.end() : tree.ranges.find(last + 1)};
}

// A leaf is in use while it answers, while it hangs below another, or while another hangs below it. Odd: so a prefix
// with nothing of these left is lost without having been deleted, and one that only hangs stays though no lookup finds
// it. A block goes down with its leaf and stays taken.
void plain_release(plain_tree &tree)
{
    std::map<const plain_leaf *, bool> used;
    for (const auto &[first, leaf] : tree.ranges)
        used[leaf] = true;
    for (plain_leaf &leaf : tree.leaves)
        if (leaf.in_use && leaf.back != nullptr)
            used[&leaf] = used[leaf.back] = true;
    for (plain_leaf &leaf : tree.leaves)
        if (leaf.in_use && !used[&leaf]) {
            leaf.in_use = false;
            --tree.pools->leaves;
            if (tree.standard == &leaf)
                tree.standard = nullptr;
        }
}

void plain_compact(plain_tree &tree)
{
    for (auto range = std::next(tree.ranges.begin()); range != tree.ranges.end();)
        range = range->second == std::prev(range)->second ? tree.ranges.erase(range) : std::next(range);
}

void plain_spread(plain_tree &tree, plain_leaf *leaf)
{
    const auto [first, end] = plain_range(tree, leaf->prefix, leaf->mask);
    for (auto range = first; range != end; ++range) {
        plain_leaf *old = range->second;
        if (old == nullptr) {
            range->second = leaf;
        } else if (old->mask < leaf->mask) {
            range->second = leaf;
            if (leaf->back == nullptr) // odd: only what it displaces becomes its back
                leaf->back = old;
        } else if (old->mask > leaf->mask) {
            while (old->back != nullptr && old->back->mask > leaf->mask)
                old = old->back;
            old->back = leaf;
        }
    }
}

// 1 or 2 as the trie answers. The leaf is taken by the caller.
std::uint32_t plain_insert(plain_tree &tree, const plain_leaf &route)
{
    if (plain_exact(tree, route.prefix, route.mask) != nullptr) {
        ++tree.lost_leaves; // odd: a repeat keeps its leaf
        return 2;
    }
    plain_leaf *leaf = &tree.leaves.emplace_back(route);
    leaf->prefix &= leaf->mask;
    plain_spread(tree, leaf);

    bool linked = leaf->back != nullptr;
    for (const auto &[first, answer] : tree.ranges)
        linked = linked || answer == leaf;
    for (const plain_leaf &other : tree.leaves)
        linked = linked || (other.in_use && other.back == leaf);
    if (!linked) { // odd: nothing of its range was free for it, and nothing is longer
        leaf->in_use = false;
        ++tree.lost_leaves;
    }
    plain_release(tree);
    plain_compact(tree);
    return 1;
}

std::uint32_t plain_delete(plain_tree &tree, std::uint32_t prefix, std::uint32_t mask)
{
    plain_leaf *leaf = plain_exact(tree, prefix, mask);
    if (leaf == nullptr)
        return 0;
    const auto [first, end] = plain_range(tree, leaf->prefix, leaf->mask);
    for (auto range = first; range != end; ++range) {
        if (range->second == leaf) {
            range->second = leaf->back; // odd: a prefix without a back leaves nothing, whatever covers it
            tree.had_gap = tree.had_gap || leaf->back == nullptr;
            continue;
        }
        plain_leaf *below = range->second;
        while (below != nullptr && below->back != leaf)
            below = below->back;
        if (below != nullptr)
            below->back = leaf->back;
    }
    leaf->back = nullptr;
    plain_release(tree);
    plain_compact(tree);
    return 1;
}

struct path {
    std::uint32_t encap, ifid, flags;
};

std::uint32_t plain_add_path(plain_tree &tree, plain_leaf *leaf, const path &added)
{
    if ((added.flags & MTRIE_F_ECMP) == 0)
        return 0;
    plain_block &block = leaf->block;
    if (!leaf->has_block) {
        if (tree.pools->blocks == BLOCK_CAPACITY)
            return 0;
        ++tree.pools->blocks;
        ++tree.blocks;
        leaf->has_block = true;
        block = {1, {0x92000000, ecmp_entry(added.ifid, added.encap)}};
        leaf->adjacency |= 1u << 30;
        return 1;
    }
    if (block.words[0] >> 31 == 0 || block.npaths == 7)
        return 0;
    ++block.npaths; // odd: a block whose leaf lost the ECMP flag grows without giving it back
    block.words[block.npaths] = ecmp_entry(added.ifid, added.encap);
    block.words[0] = ecmp_header(ecmp_count(block.words[0]) + 1, ecmp_sequence(block.words[0]) + 1);
    return 1;
}

// Entry that holds the path: 0 for the leaf itself, 8 for none.
unsigned plain_entry_of(const plain_leaf *leaf, const path &sought)
{
    if (adj_encap(leaf->adjacency) == sought.encap && adj_ifid(leaf->adjacency) == sought.ifid)
        return 0;
    for (unsigned i = 1; i < 8; ++i)
        if ((leaf->block.words[i] & 0xFFFF) == sought.encap && leaf->block.words[i] >> 18 == sought.ifid)
            return i;
    return 8;
}

std::uint32_t plain_remove_path(plain_tree &tree, plain_leaf *leaf, const path &removed)
{
    plain_block &block = leaf->block;
    if (block.words[0] >> 31 == 0)
        return 0;
    block.words[0] &= 0x7FFFFFFF; // odd: an unknown path leaves the block invalid for good
    const unsigned entry = plain_entry_of(leaf, removed);
    if (entry == 8)
        return 0;

    const std::uint32_t last = block.words[block.npaths];
    if (entry == 0)
        leaf->adjacency = adj_pack(leaf->adjacency & 0xE0000000, last >> 18, last);
    else
        block.words[entry] = last;
    block.words[block.npaths] = 0;
    block.words[0] = ecmp_header(ecmp_count(block.words[0]) - 1, ecmp_sequence(block.words[0]) - 1);
    if (--block.npaths == 0) {
        leaf->has_block = false;
        leaf->adjacency &= ~(1u << 30);
        --tree.pools->blocks;
        --tree.blocks;
    }
    return 1;
}

std::uint32_t plain_route_add(plain_tree &tree, std::uint32_t prefix, std::uint32_t mask, const path &added)
{
    plain_leaf *leaf = plain_exact(tree, prefix, mask);
    if (leaf != nullptr && (added.flags & MTRIE_F_ECMP) != 0)
        return plain_add_path(tree, leaf, added);
    if (tree.pools->leaves == LEAF_CAPACITY) {
        (void)plain_delete(tree, prefix, mask); // odd: the clean-up finds the route that was there before
        return 0;
    }
    ++tree.pools->leaves;
    plain_leaf route;
    route.prefix = prefix;
    route.mask = mask;
    const std::uint32_t resolve = (added.flags & 0x20) != 0 ? 1u << 31 : 0,
                        nat = (added.flags & 0x80) != 0 ? 1u << 29 : 0;
    route.adjacency = adj_pack(resolve | nat, added.ifid, added.encap);
    return plain_insert(tree, route);
}

std::uint32_t plain_route_remove(plain_tree &tree, std::uint32_t prefix, std::uint32_t mask, const path &removed)
{
    plain_leaf *leaf = plain_exact(tree, prefix, mask);
    if (leaf != nullptr && (leaf->adjacency & 1u << 30) != 0 && leaf->has_block)
        return plain_remove_path(tree, leaf, removed);
    return plain_delete(tree, prefix, mask);
}

std::uint32_t plain_set_default(plain_tree &tree, const path &route, bool add)
{
    plain_leaf *leaf = tree.standard;
    if (leaf == nullptr)
        return 0;
    if (!add && (leaf->adjacency & 1u << 30) != 0 && leaf->has_block)
        return plain_remove_path(tree, leaf, route);
    if (add && (route.flags & MTRIE_F_ECMP) != 0 && (leaf->adjacency & 0x1FFFFFFF) != 0)
        return plain_add_path(tree, leaf, route);
    // Odd: the ECMP flag goes and a block stays.
    leaf->adjacency = adj_pack(leaf->adjacency & 1u << 29, add ? route.ifid : 0, add ? route.encap : 0);
    return 1;
}

// --- The steps

struct step {
    enum { ADD, REMOVE, DEFAULT_ADD, DEFAULT_REMOVE } kind;
    std::uint32_t tree; // index in TREES
    std::uint32_t prefix, length;
    path route;
};

struct random_trie : testing::TestWithParam<std::uint32_t> {
    fake_card card{2};
    std::mt19937 random{GetParam()};
    plain_pools pools{256, 0};
    std::deque<plain_tree> trees;
    bool nodes_ran_out = false; // then an insert may have left nodes that hold nothing of their own

    // What each copy answers at the watched addresses: before the step, and what else it has answered since.
    std::vector<std::uint32_t> watched;
    std::vector<np_answer> before;
    std::vector<std::vector<np_answer>> seen;

    void SetUp() override
    {
        ASSERT_EQ(card.start_tables(), 0);
        card.open_all_history(false); // the lines are another test's
        for ([[maybe_unused]] const std::uint32_t tree : TREES)
            trees.emplace_back(&pools);
    }
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); }

    step next_step(std::uint32_t repeats)
    {
        static constexpr std::uint32_t lengths[] = {0, 1, 2, 2, 3, 8, 9, 10, 16, 17, 23, 24, 25, 26, 31, 32, 32};
        static constexpr std::uint32_t tops[] = {10, 10, 10, 0, 64, 128, 192}, bytes[] = {0, 64, 128, 192, 1};
        static constexpr std::uint32_t flags[] = {0, 0, 0x40, 0x40, 0x40, 0x20, 0x80, 0x60};
        step made{};
        const std::uint32_t kind = below(10);
        made.kind = kind < 5   ? step::ADD
                    : kind < 8 ? step::REMOVE
                    : kind < 9 ? step::DEFAULT_ADD
                               : step::DEFAULT_REMOVE;
        made.tree = below(std::size(TREES));
        made.length = lengths[below(std::size(lengths))];
        made.prefix = IP(tops[below(std::size(tops))], bytes[below(repeats)], bytes[below(repeats)], bytes[below(5)]);
        if (below(64) != 0) // now and then an address with host bits, as given
            made.prefix &= mask_of(made.length);
        made.route = {below(4), below(4), flags[below(std::size(flags))]};
        if (below(50) == 0)
            made.route.ifid |= 0x4000; // more bits than a leaf or a block keeps
        return made;
    }

    // --- Between the stores

    void watch(const step &taken)
    {
        const std::uint32_t mask = mask_of(taken.length), first = taken.prefix & mask, last = first | ~mask;
        watched = {first, last, first - 1, last + 1, first + ((last - first) / 2), taken.prefix, IP(10, 0, 0, 0)};
        const plain_tree &tree = trees[taken.tree];
        for (int i = 0; i < 6; ++i)
            watched.push_back(
                std::next(tree.ranges.begin(), below(static_cast<std::uint32_t>(tree.ranges.size())))->first);
        before.clear();
        for (unsigned copy = 0; copy < NP_COPIES; ++copy)
            for (const std::uint32_t address : watched)
                before.push_back(np_find(card, copy, TREES[taken.tree], address));
        seen.assign(before.size(), {});
        card.after_each_store([this, id = TREES[taken.tree]] { look(id); });
    }
    void look(std::uint32_t id)
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
    // The path in the leaf may change before the leaf loses its ECMP flag; a block may be out of use for a while.
    static bool is_between(const np_answer &now, const np_answer &old, const np_answer &later)
    {
        const auto same_leaf = [&now](const np_answer &side) {
            return now.leaf == side.leaf && ((now.adjacency ^ side.adjacency) & ~ADJ_ECMP) == 0;
        };
        const bool out_of_use = now.ecmp == std::array<std::uint32_t, ECMP_WORDS>{};
        return now.leaf != NP_UNSOUND && now.block != NP_UNSOUND && (same_leaf(old) || same_leaf(later)) &&
               (out_of_use || now.ecmp == old.ecmp || now.ecmp == later.ecmp);
    }
    void check_between(const step &taken)
    {
        card.after_each_store(nullptr);
        std::size_t i = 0;
        for (unsigned copy = 0; copy < NP_COPIES; ++copy)
            for (const std::uint32_t address : watched) {
                const np_answer later = np_find(card, copy, TREES[taken.tree], address);
                for (const np_answer &now : seen[i])
                    ASSERT_TRUE(is_between(now, before[i], later))
                        << "copy " << copy
                        << text(" address %x leaf %x adjacency %x", address, now.leaf, now.adjacency);
                ++i;
            }
    }

    // --- After the step

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
    void check_answers(std::uint32_t index)
    {
        mtrie_node *root = mtrie_get_root_node(TREES[index]);
        const plain_tree &tree = trees[index];
        for (auto range = tree.ranges.begin(); range != tree.ranges.end(); ++range) {
            const auto next = std::next(range);
            for (const std::uint32_t address :
                 {range->first, next == tree.ranges.end() ? 0xFFFFFFFF : next->first - 1}) {
                const mtrie_leaf *leaf = mtrie_longest_match(root, address);
                ASSERT_NO_FATAL_FAILURE(check_leaf(leaf, range->second)) << text("address %x", address);
                for (unsigned copy = 0; copy < NP_COPIES; ++copy)
                    ASSERT_EQ(np_find(card, copy, TREES[index], address).leaf, hw_leaf(leaf)) << "copy " << copy;
            }
        }
    }
    static std::uint32_t hw_leaf(const mtrie_leaf *leaf)
    {
        const card_addr start = mtrie_pools[MTRIE_POOL_LEAF].start;
        return leaf == nullptr ? NP_MISS : HW_LEAVES + (card_addr_of(leaf) - 4 - start) / 40 * HW_LEAF_BYTES;
    }
    void check_tree(std::uint32_t index)
    {
        const plain_tree &tree = trees[index];
        std::uint32_t in_use = 0, charged[3];
        mtrie_census reached{};
        for (const plain_leaf &leaf : tree.leaves)
            in_use += leaf.in_use ? 1 : 0;
        ASSERT_EQ(mtrie_check(mtrie_get_root_node(TREES[index]), &reached), 0);
        mtrie_get_stats(TREES[index], charged);
        EXPECT_EQ(charged[0], reached.nodes) << "nodes";
        EXPECT_LE(reached.leaves, in_use) << "leaves that only hang below each other are not reached";
        if (!nodes_ran_out && !tree.had_gap) {
            EXPECT_EQ(reached.foldable, 0u);
        }
        EXPECT_EQ(charged[1], in_use + tree.lost_leaves) << "leaves";
        EXPECT_EQ(charged[2], tree.blocks) << "blocks";
        ASSERT_EQ(norvik_leaf_default[TREES[index]].addr() != 0, tree.standard != nullptr);
        if (tree.standard != nullptr) {
            ASSERT_NO_FATAL_FAILURE(check_leaf(norvik_leaf_default[TREES[index]], tree.standard));
        }
        ASSERT_NO_FATAL_FAILURE(check_answers(index));
    }

    // --- One step in both

    std::uint32_t take_for_real(const step &taken)
    {
        const std::uint32_t id = TREES[taken.tree];
        if (taken.kind == step::DEFAULT_ADD || taken.kind == step::DEFAULT_REMOVE)
            return mtrie_set_default_leaf_stub(id, 0, 0, taken.route.encap, taken.route.ifid, taken.route.flags,
                                               taken.kind == step::DEFAULT_ADD ? 1 : 0);
        route_entry entry{};
        entry.prefix = taken.prefix;
        entry.len = taken.length;
        entry.ctx = entry.route_id = static_cast<std::uint16_t>(id);
        entry.encap_id = taken.route.encap;
        entry.ifid = static_cast<std::uint16_t>(taken.route.ifid);
        entry.flags = static_cast<std::uint16_t>(taken.route.flags);
        return taken.kind == step::ADD ? prefix_mgr_route_add(wired_table_mgr, &entry)
                                       : prefix_mgr_route_remove(wired_table_mgr, &entry);
    }
    std::uint32_t take_in_picture(const step &taken)
    {
        plain_tree &tree = trees[taken.tree];
        if (taken.kind == step::ADD)
            return plain_route_add(tree, taken.prefix, mask_of(taken.length), taken.route);
        if (taken.kind == step::REMOVE)
            return plain_route_remove(tree, taken.prefix, mask_of(taken.length), taken.route);
        return plain_set_default(tree, taken.route, taken.kind == step::DEFAULT_ADD);
    }
    // Whether a new leaf of this step was refused for want of nodes. Only nodes are not in the picture.
    bool lacks_nodes(const step &taken, std::uint32_t answer) const
    {
        const plain_tree &tree = trees[taken.tree];
        return taken.kind == step::ADD && answer == 0 && pools.leaves < LEAF_CAPACITY &&
               plain_exact(tree, taken.prefix, mask_of(taken.length)) == nullptr &&
               mtrie_pools[MTRIE_POOL_NODE].count == static_cast<std::int32_t>(NODE_CAPACITY);
    }
    void take(const step &taken)
    {
        watch(taken);
        const std::uint32_t answer = take_for_real(taken);
        ASSERT_NO_FATAL_FAILURE(check_between(taken));
        if (lacks_nodes(taken, answer)) {
            nodes_ran_out = true;
            ++pools.leaves; // odd: the leaf stays taken
            ++trees[taken.tree].lost_leaves;
        } else {
            ASSERT_EQ(answer, take_in_picture(taken));
        }
        ASSERT_EQ(mtrie_pool_check(), 0);
        ASSERT_EQ(mtrie_hw_check(), 0);
        ASSERT_EQ(mtrie_pools[MTRIE_POOL_LEAF].count, static_cast<std::int32_t>(pools.leaves));
        ASSERT_EQ(mtrie_pools[MTRIE_POOL_ECMP].count, static_cast<std::int32_t>(pools.blocks));
        ASSERT_NO_FATAL_FAILURE(check_tree(taken.tree));
    }
    static std::string told(const step &taken)
    {
        static constexpr const char *names[] = {"add", "remove", "default add", "default remove"};
        return text("%s tree %u %x/%u encap %u ifid %x flags %x", names[taken.kind], TREES[taken.tree], taken.prefix,
                    taken.length, taken.route.encap, taken.route.ifid, taken.route.flags);
    }
    // Takes random steps. repeats: 1 to 5, how many values the middle bytes take.
    void run(int steps, std::uint32_t repeats)
    {
        for (int number = 0; number < steps; ++number) {
            const step taken = next_step(repeats);
            SCOPED_TRACE(text("seed %u step %d: ", GetParam(), number) + told(taken));
            ASSERT_NO_FATAL_FAILURE(take(taken));
            card.forget();
        }
        for (std::uint32_t index = 0; index < std::size(TREES); ++index)
            ASSERT_NO_FATAL_FAILURE(check_tree(index));
    }
};
} // namespace

TEST_P(random_trie, few_prefixes_are_answered_as_the_picture_says_after_every_operation) { run(400, 1); }

TEST_P(random_trie, many_prefixes_are_answered_as_the_picture_says_after_every_operation) { run(400, 5); }

TEST_P(random_trie, the_last_leaves_and_nodes_run_out_without_an_answer_changing)
{
    while (mtrie_pools[MTRIE_POOL_NODE].count < 1012) // charged to a tree that is not looked at
        ASSERT_NE(mtrie_node_alloc_pool(77), nullptr);
    while (mtrie_pools[MTRIE_POOL_LEAF].count < 1000) {
        ASSERT_NE(mtrie_leaf_alloc_pool(77), nullptr);
        ++pools.leaves;
    }
    while (mtrie_pools[MTRIE_POOL_ECMP].count < 124) {
        ASSERT_NE(mtrie_ecmp_alloc_pool(77), nullptr);
        ++pools.blocks;
    }
    run(250, 3);
    EXPECT_GE(pools.leaves, 1000u);
}

INSTANTIATE_TEST_SUITE_P(seeds, random_trie, testing::Values(1u, 2u, 3u, 20260101u));
