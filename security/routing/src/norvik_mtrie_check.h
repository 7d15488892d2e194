// norvik_mtrie_check.h - audits of the trie and of the hardware tables.
#pragma once

#include <cstdint>

#include "mtrie_records.h"

// What an audit found in a tree.
struct mtrie_census {
    std::uint32_t nodes;    // the root included
    std::uint32_t leaves;   // in slots, or linked to such a leaf
    std::uint32_t foldable; // nodes below the root, empty or all slots one leaf: an insert ran out or filled a gap
};

// Audit of the tree of `root`: reference counts, links both ways, slot counts, shorter masks along `back`, leaves that
// cover their slots. `census` may be null. Returns 0, or the number of rules broken.
[[nodiscard]] int mtrie_check(const mtrie_node *root, mtrie_census *census);

// Audit: every copy equals the control plane in its own form. Returns 0, or the number of words that differ.
[[nodiscard]] int mtrie_hw_check();
// Parts of it: the words of the processors' copies from one offset in the table to another; one tree's wired copy.
[[nodiscard]] int mtrie_hw_check_copies(std::uint32_t from, std::uint32_t to);
[[nodiscard]] int mtrie_hw_check_tree(std::uint32_t tree);
