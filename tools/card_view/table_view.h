// table_view.h - one copy of the hardware route table, read as a network processor reads it.
//
// Always: a word is loaded once, whole, with acquire order, and checked: an address that names no element of the copy's
// own table is a fault that is reported, not followed. So a walk ends in any memory, also while it is written.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "card_dir.h"
#include "mapped_file.h"
#include "mtrie_records.h"
#include "route_table.h"

// The copies, numbered as the dump procedure selects them.
enum table_copy : unsigned { COPY_WIRED, COPY_IXP1, COPY_IXP2 };
constexpr unsigned TABLE_COPIES = 3;
constexpr const char *TABLE_COPY_NAMES[TABLE_COPIES] = {"wired", "ixp1", "ixp2"};

// A copy, mapped read-only.
struct table_view {
    table_copy copy = COPY_WIRED;
    std::uint32_t base = 0; // address of the table's start as its words give it
    mapped_file file;
    bool is_open() const { return file.is_open(); }
};

// Path of a copy's memory in the card directory `card`.
std::string table_path(const std::string &card, table_copy copy);

// Maps `copy`. conf: the card's settings, which say where its wired region is and which memory has a provider. Returns
// an open view, or one that is not open with the reason in `why`.
table_view table_open(const std::string &card, table_copy copy, const card_conf &conf, std::string *why);

// The word at the byte offset `at` of the table, a multiple of 4 below HW_TABLE_BYTES.
std::uint32_t table_load(const table_view &view, std::uint32_t at);

// What an address in a slot word or ECMP pointer names.
enum class table_kind { empty, node, leaf, block, stray };
struct table_target {
    table_kind kind;
    std::uint32_t index; // of the node, leaf or block
};
table_target table_slot_target(const table_view &view, std::uint32_t word);  // empty, node, leaf or stray
table_target table_block_target(const table_view &view, std::uint32_t word); // empty, block or stray

constexpr std::uint32_t table_node_at(std::uint32_t index) { return HW_NODES + index * HW_NODE_BYTES; }
constexpr std::uint32_t table_leaf_at(std::uint32_t index) { return HW_LEAVES + index * HW_LEAF_BYTES; }
constexpr std::uint32_t table_block_at(std::uint32_t index) { return HW_ECMPS + index * HW_ECMP_BYTES; }

// A leaf with its block, as they were when read.
struct table_leaf {
    std::uint32_t index;
    std::uint32_t adjacency;
    std::uint32_t pointer; // second word: the block's address, 0 for none
    table_target block;
    std::array<std::uint32_t, ECMP_WORDS> words; // of the block, when there is one
};
table_leaf table_read_leaf(const table_view &view, std::uint32_t index);

constexpr unsigned TABLE_LEVELS = 4;

// What the table answers for one address.
struct table_answer {
    unsigned steps;                       // words read on the way, the root's among them
    std::uint32_t at[TABLE_LEVELS + 1];   // their offsets in the table, bytes
    std::uint32_t word[TABLE_LEVELS + 1]; // their contents
    bool has_leaf;
    table_leaf leaf;   // when has_leaf
    const char *fault; // null, or why the words cannot be followed
};
table_answer table_find(const table_view &view, std::uint32_t tree, std::uint32_t address);

// Elements that can be reached from the roots, and words that name none.
struct table_use {
    unsigned nodes, leaves, blocks; // of HW_NODE_COUNT, HW_LEAF_COUNT, HW_ECMP_COUNT
    unsigned roots;                 // trees that have one
    unsigned faults;                // words that name no element
};
table_use table_count(const table_view &view);

// Compares the table with what `last` holds of it, which is brought up to date (an empty one is filled). Returns how
// many words differ.
std::size_t table_changed_words(const table_view &view, std::vector<std::uint32_t> &last);
