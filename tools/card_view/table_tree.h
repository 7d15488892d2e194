// table_tree.h - the whole trie of a context, read out of one copy: for drawings and for data.
//
// Equal neighbouring slots are one run, so a node of 256 slots is a few lines. Leaves carry no prefix in the hardware:
// only the slots say which addresses a leaf answers.
// Always: the root comes first, and each node after the one that names it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "table_view.h"

struct tree_run {
    unsigned first, last; // slots, 0 to 255
    table_target target;
    std::uint32_t word; // what these slots hold
};

struct tree_node {
    std::uint32_t index;
    unsigned level;       // 0: root
    std::uint32_t prefix; // address bits that lead here, left aligned; the length is 8 * level
    std::vector<tree_run> runs;
};

struct tree_view {
    std::uint32_t ctx = 0;
    table_copy copy = COPY_WIRED;
    std::uint32_t root = 0;                     // root word; 0: the context has no tree
    std::vector<tree_node> nodes;               // the root first, parents before their children
    std::map<std::uint32_t, table_leaf> leaves; // by number
    std::vector<std::string> faults;
};

tree_view tree_read(const table_view &view, std::uint32_t ctx);

// The tree as a drawing in Graphviz' language: a node's slots with the same answer are one row.
std::string tree_dot(const tree_view &tree);
