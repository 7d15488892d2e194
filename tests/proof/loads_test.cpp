// loads_test.cpp - each implementation of the lookup makes the loads of the walk taken apart, one by one and no other.
//
// Answers can be right by luck: a table at rest does not tell a header that is read twice from one that is read once.
// So the loads themselves are compared (load_trace.h), with a table at rest and with words that change between any two
// of them. Each address of a run has words of its own, so a load tells whose it is, however an implementation mixes
// them; it must be the one that the machine of that address asks for next, and what was loaded must lead both to the
// same answer.
// The vector implementation chooses the paths of sets without a branch, eight at once: a lane reads on in the set's
// block behind the machine's last load, and a lane without a set reads some leaf's again. So its loads of pointers and
// blocks are followed lane by lane, and one lane must have been led to the answer. No other implementation may make a
// load that the machine does not ask for.
#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "ixp_lookup.h"
#include "load_trace.h"
#include "walk_machine.h"

using namespace harness;

namespace
{
// So many addresses that the vector implementation has a group of vectors, a vector, and an end that fills none.
constexpr std::uint32_t OWNERS = 64 + 8 + 3;
constexpr std::uint32_t NODES_EACH = 6, LEAVES_EACH = 2, WALKS = 4;
constexpr std::uint32_t ONE_TREE = 200, SHARED_ROOT = OWNERS * NODES_EACH; // a node
constexpr std::uint32_t NOIMPLEMENTATIONS_LEAF = HW_LEAF_COUNT - 1;

std::uint32_t node_index(std::uint32_t node) { return (HW_NODES + node * HW_NODE_BYTES) / 4; }
std::uint32_t leaf_index(std::uint32_t leaf) { return (HW_LEAVES + leaf * HW_LEAF_BYTES) / 4; }
std::uint32_t block_index(std::uint32_t block) { return (HW_ECMPS + block * HW_ECMP_BYTES) / 4; }
std::uint32_t named(std::uint32_t index, std::uint32_t tag = 0) { return HW_IXP_BASE + 4 * index + tag; }

// No byte is 0: the first slot of a node belongs to nobody.
std::uint32_t address_of(std::uint32_t owner)
{
    return (1 + owner) << 24 | (100 + owner) << 16 | 176u << 8 | (255 - owner);
}

enum class word_kind { SLOT, LEAF, POINTER, HEADER, ENTRY };
struct owned_word {
    std::uint32_t owner;
    word_kind kind;
};

// What an implementation is asked: all addresses in one tree, or each in its own; the leaf's word, or the path too.
struct question {
    ixp_implementation implementation;
    bool one_tree, forwards;
};

// What came of the walks, so that a test can say that it has seen all of it.
struct seen_ways {
    unsigned answered_in_walk[WALKS + 1] = {}, missed = 0;
    unsigned null_pointer = 0, invalid = 0, own_path = 0, other_path = 0, header_changed = 0;
};

bool asks_for(const walker &machine, std::uint32_t index) { return !machine.ended() && machine.index == index; }

// One address: the machine, as far as the loads have led it. It hears of them in a handler of signals, so it takes its
// memory before.
struct follower {
    walk_key key{};
    std::uint32_t hash = 0;
    bool forwards = false;
    walker at;
    std::array<std::optional<walker>, NO_LANE + 1> lanes; // from the pointer on
    std::vector<std::uint32_t> loads = {};                // indexes
    std::vector<walker> next = {};                        // of a step

    void start(const walk_key &of, std::uint32_t with_hash, bool chooses)
    {
        *this = {};
        key = of;
        hash = with_hash;
        forwards = chooses;
        at = walk_start(key);
        loads.reserve(200);
        next.reserve(ECMP_WORDS);
    }
    void step(walker &machine, std::uint32_t word, seen_ways &seen)
    {
        const walker before = machine;
        next.clear();
        walk_step(key, HW_IXP_BASE, before, word, next);
        // Behind a valid header follow the ways of all hashes, path 0 first.
        machine = next[next.size() == 1 ? 0 : hash % (ecmp_count(word) + 1)];
        if (before.stage == WALK_LEAF) {
            ++seen.answered_in_walk[WALKS + 1 - before.walks];
            if (!forwards) {
                machine.stage = WALK_DONE;
                machine.own = word;
            }
        }
        seen.missed += machine.stage == WALK_MISS ? 1u : 0u;
        seen.null_pointer += before.stage == WALK_POINTER && word == 0 ? 1u : 0u;
        seen.invalid += before.stage == WALK_HEADER && (word & ECMP_VALID) == 0 ? 1u : 0u;
        seen.own_path += before.stage == WALK_HEADER && (word & ECMP_VALID) != 0 && machine.ended() ? 1u : 0u;
        seen.other_path += before.stage == WALK_AGAIN && machine.path != 0 ? 1u : 0u;
        seen.header_changed += before.stage == WALK_AGAIN && machine.path == 0 ? 1u : 0u;
    }
    // Whether the machine has come to this answer.
    bool ends_in(std::uint32_t word, std::uint32_t path) const
    {
        if (at.stage == WALK_MISS)
            return word == IXP_MISS && path == 0;
        if (at.stage == WALK_DONE)
            return word == at.own && path == at.path;
        return std::any_of(lanes.begin(), lanes.end(), [&](const auto &lane) {
            return lane.has_value() && lane->stage == WALK_DONE && lane->own == word && lane->path == path;
        });
    }
};

struct loads : testing::Test {
    load_trace trace;
    std::mt19937 random{20250612};
    std::map<std::uint32_t, owned_word> owned; // by index
    std::vector<std::uint32_t> words_of[OWNERS];
    follower followers[OWNERS];
    seen_ways seen;

    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); }

    void own(std::uint32_t index, std::uint32_t owner, word_kind kind)
    {
        owned[index] = {owner, kind};
        words_of[owner].push_back(index);
    }
    void SetUp() override
    {
        if (!load_trace::runs())
            GTEST_SKIP() << "loads can be traced on x86 alone";
        for (std::uint32_t owner = 0; owner < OWNERS; ++owner) {
            own(1 + owner, owner, word_kind::SLOT); // the root word of its tree
            const std::uint32_t address = address_of(owner);
            own(node_index(SHARED_ROOT) + (address >> 24), owner, word_kind::SLOT);
            for (std::uint32_t node = 0; node < NODES_EACH; ++node)
                for (const unsigned shift : {24u, 16u, 8u, 0u})
                    own(node_index(owner * NODES_EACH + node) + (address >> shift & 0xFF), owner, word_kind::SLOT);
            for (std::uint32_t leaf = 0; leaf < LEAVES_EACH; ++leaf) {
                own(leaf_index(owner * LEAVES_EACH + leaf), owner, word_kind::LEAF);
                own(leaf_index(owner * LEAVES_EACH + leaf) + 1, owner, word_kind::POINTER);
            }
            own(block_index(owner), owner, word_kind::HEADER);
            for (std::uint32_t entry = 1; entry < ECMP_WORDS; ++entry)
                own(block_index(owner) + entry, owner, word_kind::ENTRY);
        }
        // What the unused lanes of a vector look up, address 0, has a leaf.
        trace.words[ONE_TREE] = named(node_index(SHARED_ROOT), HW_NODE_TAG);
        trace.words[node_index(SHARED_ROOT)] = named(leaf_index(NOIMPLEMENTATIONS_LEAF));
        // What a null word leads to is the last word: a set's leaf and a valid header, if it were taken for one.
        trace.words[HW_TABLE_BYTES / 4 - 1] = ecmp_header(7, 1);
    }

    // A word that can stand at such a place.
    std::uint32_t drawn(const owned_word &at)
    {
        const std::uint32_t draw = below(12), leaf = at.owner * LEAVES_EACH + below(LEAVES_EACH);
        const std::uint32_t node = at.owner * NODES_EACH + below(NODES_EACH), number = 1 + below(0xFFFF);
        switch (at.kind) {
        case word_kind::SLOT:
            return draw < 2 ? 0 : draw < 5 ? named(leaf_index(leaf)) : named(node_index(node), HW_NODE_TAG);
        case word_kind::LEAF:
            return adj_pack(draw < 8 ? ADJ_ECMP : 0, 1 + draw, number);
        case word_kind::POINTER:
            return draw < 2 ? 0 : named(block_index(at.owner));
        case word_kind::HEADER:
            return ecmp_header(1 + below(7), below(8)) & (draw < 2 ? ~ECMP_VALID : ~0u);
        default:
            return ecmp_entry(1 + draw, number);
        }
    }
    void draw_table()
    {
        for (const auto &[index, at] : owned)
            trace.words[index] = drawn(at);
    }

    // Changes a word of the address that loads next, most often one that it has loaded before or loads now.
    void change_one(std::uint32_t next)
    {
        const std::uint32_t owner = owned.at(next).owner;
        const std::vector<std::uint32_t> &loaded = followers[owner].loads;
        const std::uint32_t any = words_of[owner][below(static_cast<std::uint32_t>(words_of[owner].size()))];
        const std::uint32_t before = loaded.empty() ? next : loaded[below(static_cast<std::uint32_t>(loaded.size()))];
        const std::uint32_t index = below(3) == 0 ? next : below(3) == 0 ? any : before;
        trace.words[index] = drawn(owned.at(index));
    }

    static std::string description(const question &asked, const follower &f)
    {
        std::string text = std::string(ixp_implementation_name(asked.implementation)) +
                           (asked.forwards ? ", forward" : ", lookup") +
                           (asked.one_tree ? ", one tree, loads" : ", a tree each, loads");
        for (const std::uint32_t index : f.loads)
            text += " " + std::to_string(index);
        return text;
    }

    // Hears of a load before it is made.
    void loading(const question &asked, std::uint32_t index, unsigned lane, bool may_change)
    {
        const auto at = owned.find(index);
        if (at == owned.end())
            return; // the root of the one tree, or what unused lanes and words that name nothing lead to
        if (may_change && below(3) == 0)
            change_one(index);
        follower &f = followers[at->second.owner];
        f.loads.push_back(index);
        const bool is_of_set = at->second.kind != word_kind::SLOT && at->second.kind != word_kind::LEAF;
        const bool may_read_on = is_of_set && asked.implementation == IXP_AVX2 && asked.forwards;
        if (f.at.stage != WALK_POINTER) {
            EXPECT_TRUE(asks_for(f.at, index) || may_read_on) << "not the next load: " << description(asked, f);
            if (asks_for(f.at, index))
                f.step(f.at, trace.words[index], seen);
            pass_root(asked, f);
            return;
        }
        if (!f.lanes[lane].has_value())
            f.lanes[lane] = f.at;
        walker &machine = *f.lanes[lane];
        if (asks_for(machine, index))
            return f.step(machine, trace.words[index], seen);
        EXPECT_TRUE(may_read_on) << "not the next load: " << description(asked, f);
        if (!machine.ended())
            machine.stage = WALK_MISS; // a lane without a set
    }
    // The one tree's root word is loaded for all at once, and does not change.
    void pass_root(const question &asked, follower &f)
    {
        if (asked.one_tree && f.at.stage == WALK_ROOT)
            f.step(f.at, trace.words[ONE_TREE], seen);
    }

    void ask(const question &asked, bool may_change)
    {
        std::uint32_t addresses[OWNERS], hashes[OWNERS], trees[OWNERS], words[OWNERS], paths[OWNERS] = {};
        for (std::uint32_t owner = 0; owner < OWNERS; ++owner) {
            addresses[owner] = address_of(owner);
            hashes[owner] = static_cast<std::uint32_t>(random());
            trees[owner] = asked.one_tree ? ONE_TREE : 1 + owner;
            followers[owner].start({trees[owner], addresses[owner]}, hashes[owner], asked.forwards);
            pass_root(asked, followers[owner]);
        }
        const ixp_table table{trace.traced, HW_IXP_BASE};
        const ixp_packets packets{addresses, hashes, words, paths, OWNERS};
        const auto reader = [&] {
            if (asked.forwards && asked.one_tree)
                ixp_forward(table, asked.implementation, ONE_TREE, packets);
            else if (asked.forwards)
                ixp_forward_trees(table, asked.implementation, trees, packets);
            else if (asked.one_tree)
                ixp_lookup(table, asked.implementation, ONE_TREE, addresses, words, OWNERS);
            else
                ixp_lookup_trees(table, asked.implementation, trees, addresses, words, OWNERS);
        };
        trace.run(reader, [&](std::uint32_t index, unsigned lane) { loading(asked, index, lane, may_change); });
        for (std::uint32_t owner = 0; owner < OWNERS; ++owner)
            ASSERT_TRUE(followers[owner].ends_in(words[owner], paths[owner]))
                << "word " << words[owner] << " path " << paths[owner] << ": " << description(asked, followers[owner]);
    }
    void ask_everything(ixp_implementation implementation, unsigned rounds, bool may_change)
    {
        for (unsigned round = 0; round < rounds && !HasFailure(); ++round)
            for (const bool one_tree : {true, false})
                for (const bool forwards : {true, true, false}) {
                    draw_table();
                    ask({implementation, one_tree, forwards}, may_change);
                }
    }
    void expect_all_ways(bool changed) const
    {
        EXPECT_GT(seen.answered_in_walk[1], 300u);
        for (unsigned walk = 2; walk <= WALKS; ++walk)
            EXPECT_GE(seen.answered_in_walk[walk], changed ? 5u : 0u) << "walk " << walk;
        for (const unsigned often : {seen.missed, seen.null_pointer, seen.invalid, seen.own_path, seen.other_path})
            EXPECT_GT(often, 20u);
        EXPECT_GE(seen.header_changed, changed ? 20u : 0u);
    }
};

class loads_of : public loads, public testing::WithParamInterface<ixp_implementation>
{
};
} // namespace

TEST_P(loads_of, a_table_at_rest_are_those_of_the_walk_taken_apart)
{
    if (!ixp_implementation_runs(GetParam()))
        GTEST_SKIP() << "not on this processor";
    ask_everything(GetParam(), 2, false);
    expect_all_ways(false);
}

TEST_P(loads_of, a_table_that_changes_between_them_are_those_of_the_walk_taken_apart)
{
    if (!ixp_implementation_runs(GetParam()))
        GTEST_SKIP() << "not on this processor";
    ask_everything(GetParam(), 4, true);
    expect_all_ways(true);
}

INSTANTIATE_TEST_SUITE_P(each, loads_of, testing::Values(IXP_SCALAR, IXP_BATCH, IXP_AVX2),
                         [](const auto &param) { return std::string(ixp_implementation_name(param.param)); });
