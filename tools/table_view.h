// table_view.h - one copy of the hardware route table, read as a network processor reads it.
#pragma once

#include <cstddef>
#include <cstdint>

// A copy, mapped read-only.
struct table_view {
    const char *name;           // such as "mem/ixp1"
    std::uint32_t base;         // address of the table's start as its words give it
    const std::uint32_t *words; // HW_TABLE_BYTES of them in bytes; null when it is not open
};

constexpr unsigned TABLE_LEVELS = 4, TABLE_BLOCK_WORDS = 8;

// What the table answers for one address.
struct table_answer {
    unsigned steps;                         // words read on the way, the root's among them
    std::uint32_t at[TABLE_LEVELS + 1];     // their offsets in the table, bytes
    std::uint32_t word[TABLE_LEVELS + 1];   // their contents
    std::uint32_t leaf;                     // offset of the leaf; 0 when the walk ended without one
    std::uint32_t adjacency;                // the leaf's adjacency word
    std::uint32_t ecmp;                     // offset of its ECMP block; 0 when it has none
    std::uint32_t block[TABLE_BLOCK_WORDS]; // the block's words
    const char *fault;                      // null, or why the words cannot be followed
};

// Maps the copy `name` of the card directory. Returns 0, or -1 with a line on standard error.
[[nodiscard]] int table_open(table_view *view, const char *name, std::uint32_t base);
void table_close(table_view *view);

table_answer table_find(const table_view &view, std::uint32_t tree, std::uint32_t address);
void table_answer_print(const table_view &view, const table_answer &answer);
