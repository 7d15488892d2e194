// tables.h - the route table that a processor should read, written down word for word from its format.
//
// No code is shared with the daemon: offsets and word forms are typed here again, so that both sides must be right.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "daemon.h"

constexpr std::uint32_t TABLE_WORDS = 0x103400 / 4, WIRED_WORDS = 0x1400000 / 4;
constexpr std::uint32_t TABLE_WIRED = 0x08000000, TABLE_IXP = 0x202000; // where a copy stands, as its reader sees it

// Offsets in bytes from the table's start.
constexpr std::uint32_t root_at(std::uint32_t tree) { return 4 * tree; }
constexpr std::uint32_t slot_at(std::uint32_t node, std::uint32_t slot) { return 0x400 + 1024 * node + 4 * slot; }
constexpr std::uint32_t leaf_at(std::uint32_t leaf) { return 0x100400 + 8 * leaf; }
constexpr std::uint32_t ecmp_at(std::uint32_t block) { return 0x102400 + 32 * block; }

// Words.
constexpr std::uint32_t adjacency(std::uint32_t ifid, std::uint32_t encap) { return ifid << 16 | encap; }
constexpr std::uint32_t ADJACENCY_ECMP = 0x40000000;
constexpr std::uint32_t path_entry(std::uint32_t ifid, std::uint32_t encap) { return ifid << 18 | encap; }

// One copy of the table, standing at `base`.
struct table_image {
    std::uint32_t base;
    std::vector<std::uint32_t> words;
};

// The table of a daemon that has just started: 256 trees, each answering 0 but for the multicast drop entry.
inline table_image table_at_start(std::uint32_t base)
{
    table_image t{base, std::vector<std::uint32_t>(TABLE_WORDS)};
    for (std::uint32_t tree = 0; tree < 256; ++tree) {
        t.words[root_at(tree) / 4] = base + slot_at(tree, 0) + 1;
        for (std::uint32_t slot = 0; slot < 256; ++slot)
            t.words[slot_at(tree, slot) / 4] = base + leaf_at(slot < 224 ? tree : 256 + tree);
        t.words[leaf_at(256 + tree) / 4] = 0x8001;
    }
    return t;
}

inline void table_word(table_image &t, std::uint32_t at, std::uint32_t word) { t.words[at / 4] = word; }
inline void table_leaf_slot(table_image &t, std::uint32_t node, std::uint32_t slot, std::uint32_t leaf)
{
    table_word(t, slot_at(node, slot), t.base + leaf_at(leaf));
}

// Node `child` under a slot, all its slots with `leaf`.
inline void table_child(table_image &t, std::uint32_t node, std::uint32_t slot, std::uint32_t child, std::uint32_t leaf)
{
    table_word(t, slot_at(node, slot), t.base + slot_at(child, 0) + 1);
    for (std::uint32_t i = 0; i < 256; ++i)
        table_leaf_slot(t, child, i, leaf);
}

// Words of `seen` that differ from `expected`, or stand behind it and are not 0: the first few, in a readable form.
inline std::string table_difference(const std::vector<std::uint32_t> &seen, const std::vector<std::uint32_t> &expected)
{
    std::string text;
    unsigned told = 0;
    for (std::size_t i = 0; i < seen.size() && told < 8; ++i) {
        const std::uint32_t want = i < expected.size() ? expected[i] : 0;
        if (seen[i] == want)
            continue;
        char line[64];
        std::snprintf(line, sizeof line, "at 0x%06zx: 0x%08x, not 0x%08x\n", 4 * i, seen[i], want);
        text += line;
        ++told;
    }
    return seen.size() < expected.size() ? text + "memory too short\n" : text;
}
