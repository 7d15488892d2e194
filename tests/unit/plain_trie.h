// plain_trie.h - a slow, plain picture of the forwarding table of one tree.
//
// It holds no slots and no links but the way back: a tree is a list of address ranges, each with the prefix that
// answers it, and the set of places where a node stands. What the trie does that a map of prefixes would not is written
// down as a rule of its own, marked "odd". It shares the records' numbers with the process, and no code.
// Always: exact for every sequence of operations, also where prefixes are wholly covered by longer ones, where a
// default leaf was given back and where a pool has run out.
#pragma once

#include <array>
#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "card_bytes.h"
#include "mtrie_records.h"

namespace harness
{
struct plain_block {
    std::uint32_t npaths;
    std::uint32_t words[ECMP_WORDS];
};

struct plain_leaf {
    std::uint32_t prefix = 0, mask = 0, adjacency = 0;
    plain_leaf *back = nullptr; // the less specific leaf that it falls back to
    bool has_block = false;
    plain_block block{};
};

// What all trees of a card share.
enum plain_record : unsigned { PLAIN_NODE, PLAIN_LEAF, PLAIN_BLOCK };
struct plain_pools {
    static constexpr std::uint32_t LEAVES = 1024, BLOCKS = 128, NODES = 1024;
    std::uint32_t leaves = 0, blocks = 0, nodes = 0; // in use
    // Charged to each context, by kind of record. Odd: below 0 where another context gave back what this one took.
    std::map<std::uint32_t, std::array<std::int32_t, 3>> held;
    std::vector<std::string> errors; // lines of category 100, with their context
};

struct plain_tree {
    std::uint32_t id; // route id
    plain_pools *pools;
    std::list<plain_leaf> leaves;                               // in use
    std::map<std::uint32_t, plain_leaf *> ranges;               // first address to what answers up to the next range
    std::set<std::pair<unsigned, std::uint32_t>> nodes;         // below the root: level 1 to 3, first address
    plain_leaf *standard = nullptr;                             // the default leaf; null once it was given back
    std::uint32_t lost_leaves = 0;                              // taken and never linked
    explicit plain_tree(std::uint32_t id, plain_pools *shared); // takes the root node and the default leaf
    plain_tree(const plain_tree &) = delete;                    // leaves point at each other
    plain_tree(plain_tree &&) = default;
};

// A way for packets, as the RIB hands it over.
struct plain_way {
    std::uint32_t encap, ifid, flags; // of encap the low 16 bits count
    std::uint32_t ctx;                // whom records are charged to and given back for, and whose lines
};

std::uint32_t plain_mask(std::uint32_t length);
const plain_leaf *plain_find(const plain_tree &tree, std::uint32_t address); // null: nothing answers
plain_leaf *plain_exact(const plain_tree &tree, std::uint32_t prefix, std::uint32_t mask);
unsigned plain_levels(const plain_tree &tree, std::uint32_t address); // nodes on the way, the root included
std::uint32_t plain_nodes_held(const plain_tree &tree);               // the root included

// Results as the process's functions have them: 0 for a failure.
std::uint32_t plain_route_add(plain_tree &tree, std::uint32_t prefix, std::uint32_t mask, const plain_way &way);
std::uint32_t plain_route_remove(plain_tree &tree, std::uint32_t prefix, std::uint32_t mask, const plain_way &way);
std::uint32_t plain_set_default(plain_tree &tree, const plain_way &way, bool add);

// An error line as the history shows it.
void plain_error(plain_pools &pools, std::uint32_t ctx, const std::string &message);
} // namespace harness
