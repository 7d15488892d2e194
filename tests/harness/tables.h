// tables.h - the route table as a processor reads it: written down word for word from its format, and searched.
//
// No code is shared with the daemon: offsets and word forms are typed here again, so that both sides must be right.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace harness
{
constexpr std::uint32_t TABLE_BYTES = 0x103400, TABLE_WORDS = TABLE_BYTES / 4, WIRED_WORDS = 0x1400000 / 4;
constexpr std::uint32_t TABLE_WIRED = 0x08000000, TABLE_IXP = 0x202000; // where a copy stands, as its reader sees it

// Offsets in bytes from the table's start.
constexpr std::uint32_t root_at(std::uint32_t tree) { return 4 * tree; }
constexpr std::uint32_t slot_at(std::uint32_t node, std::uint32_t slot = 0) { return 0x400 + 1024 * node + 4 * slot; }
constexpr std::uint32_t leaf_at(std::uint32_t leaf) { return 0x100400 + 8 * leaf; }
constexpr std::uint32_t ecmp_at(std::uint32_t block) { return 0x102400 + 32 * block; }

// Words.
constexpr std::uint32_t adjacency(std::uint32_t ifid, std::uint32_t encap) { return ifid << 16 | encap; }
constexpr std::uint32_t ADJACENCY_ECMP = 0x40000000, HEADER_VALID = 0x80000000;
constexpr std::uint32_t path_entry(std::uint32_t ifid, std::uint32_t encap) { return ifid << 18 | encap; }

// One copy of the table, standing at `base`.
struct table_image {
    std::uint32_t base;
    std::vector<std::uint32_t> words;
};

// The table of a daemon that has just started: 256 trees, each answering 0 but for the multicast drop entry.
table_image table_at_start(std::uint32_t base);
void table_word(table_image &t, std::uint32_t at, std::uint32_t word);
void table_leaf_slot(table_image &t, std::uint32_t node, std::uint32_t slot, std::uint32_t leaf);
// Node `child` under a slot, all its slots with `leaf`.
void table_child(table_image &t, std::uint32_t node, std::uint32_t slot, std::uint32_t child, std::uint32_t leaf);
// Words of `seen` that differ from `expected`, or stand behind it and are not 0: the first few, in a readable form.
std::string table_difference(const std::vector<std::uint32_t> &seen, const std::vector<std::uint32_t> &expected);

// --- A processor's search of one copy. It follows only what the copy itself holds and refuses each word that a
// processor could not follow. Every word is one aligned load, so it may run between two stores.

struct np_table {
    const std::uint32_t *words;
    std::uint32_t base; // what is added to an offset to make an address of this copy
};
constexpr std::uint32_t NP_MISS = 0;             // no leaf answers
constexpr std::uint32_t NP_UNSOUND = 0xFFFFFFFF; // a word led out of the tables

// What a processor has in hand at the end of a search.
struct np_answer {
    std::uint32_t leaf = NP_MISS;        // offset of the leaf, NP_MISS or NP_UNSOUND
    std::uint32_t adjacency = 0;         // its word 0
    std::uint32_t block = 0;             // offset of the ECMP block that the word 0 sends it to; 0 for none
    std::array<std::uint32_t, 8> ecmp{}; // that block's words while its header is valid, else all 0
    bool operator==(const np_answer &) const = default;
};
np_answer np_find(const np_table &table, std::uint32_t tree, std::uint32_t address);
} // namespace harness
