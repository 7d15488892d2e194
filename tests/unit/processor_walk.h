// processor_walk.h - a network processor's search of one copy of the route table, for tests.
//
// Written from the table's format alone: it shares hw_table.h's numbers with the process, and no code. It follows
// only what the copy itself holds and refuses each word that a processor could not follow.
// Always: reads go through the copy's memory one aligned word at a time, so it may run between two stores.
#pragma once

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

#include "fake_card.h"
#include "mtrie_records.h"
#include "route_table.h"

constexpr unsigned NP_COPIES = 3;                // wired region, then the two processors
constexpr std::uint32_t NP_MISS = 0;             // no leaf answers
constexpr std::uint32_t NP_UNSOUND = 0xFFFFFFFF; // a word led out of the tables

// What a processor has in hand at the end of a search.
struct np_answer {
    std::uint32_t leaf = NP_MISS; // table offset of the hardware leaf, NP_MISS or NP_UNSOUND
    std::uint32_t adjacency = 0;  // its word 0
    std::uint32_t block = 0;      // table offset of the ECMP block that the word 0 sends it to; 0 for none
    std::array<std::uint32_t, ECMP_WORDS> ecmp{}; // that block's words while its header is valid, else all 0
    bool operator==(const np_answer &) const = default;
};

// What is added to a table offset to make an address of this copy.
inline std::uint32_t np_base(const fake_card &card, unsigned copy)
{
    return copy == 0 ? card.wired_phys_base : HW_IXP_BASE;
}

inline std::uint32_t np_load(const fake_card &card, unsigned copy, std::uint32_t offset)
{
    std::uint32_t *word = card_at<std::uint32_t>(card.memory(copy) + offset);
    return std::atomic_ref<std::uint32_t>(*word).load(std::memory_order_acquire);
}

// Table offset of the element that an address of this copy names in the table [first, end), or NP_UNSOUND.
inline std::uint32_t np_offset(const fake_card &card, unsigned copy, std::uint32_t address, std::uint32_t first,
                               std::uint32_t end, std::uint32_t element_bytes)
{
    const std::uint32_t offset = address - np_base(card, copy);
    const bool inside = offset >= first && offset < end && (offset - first) % element_bytes == 0;
    return inside ? offset : NP_UNSOUND;
}

inline np_answer np_read_leaf(const fake_card &card, unsigned copy, std::uint32_t offset)
{
    np_answer answer;
    answer.leaf = offset;
    answer.adjacency = np_load(card, copy, offset);
    if ((answer.adjacency & ADJ_ECMP) == 0)
        return answer;

    const std::uint32_t pointer = np_load(card, copy, offset + 4);
    answer.block = np_offset(card, copy, pointer, HW_ECMPS, HW_TABLE_BYTES, HW_ECMP_BYTES);
    if (answer.block == NP_UNSOUND || (np_load(card, copy, answer.block) & ECMP_VALID) == 0)
        return answer;
    for (unsigned i = 0; i < ECMP_WORDS; ++i)
        answer.ecmp[i] = np_load(card, copy, answer.block + 4 * i);
    return answer;
}

// Searches `copy` for `address` in tree `tree`.
inline np_answer np_find(const fake_card &card, unsigned copy, std::uint32_t tree, std::uint32_t address)
{
    np_answer answer;
    std::uint32_t word = np_load(card, copy, 4 * tree);
    for (unsigned shift = 24; (word & HW_NODE_TAG) != 0; shift -= 8) {
        const std::uint32_t node = np_offset(card, copy, word & ~HW_NODE_TAG, HW_NODES, HW_LEAVES, HW_NODE_BYTES);
        if (node == NP_UNSOUND || shift > 24) {
            answer.leaf = NP_UNSOUND;
            return answer;
        }
        word = np_load(card, copy, node + 4 * (address >> shift & 0xFF));
    }
    if (word == 0)
        return answer;

    const std::uint32_t leaf = np_offset(card, copy, word, HW_LEAVES, HW_ECMPS, HW_LEAF_BYTES);
    if (leaf != NP_UNSOUND)
        return np_read_leaf(card, copy, leaf);
    answer.leaf = NP_UNSOUND;
    return answer;
}

// The address of a table offset as this copy writes it.
inline std::uint32_t np_pointer(const fake_card &card, unsigned copy, std::uint32_t offset)
{
    return np_base(card, copy) + offset;
}

// A text as printf makes it: what a test expects to be printed or logged.
[[gnu::format(printf, 1, 2)]] inline std::string text(const char *format, ...)
{
    std::array<char, 1024> line;
    va_list args;
    va_start(args, format);
    std::vsnprintf(line.data(), line.size(), format, args);
    va_end(args);
    return line.data();
}

// What the history shows for a line of context `ctx`.
inline std::string in_ctx(unsigned ctx, const std::string &message)
{
    return "<Ctx:" + std::to_string(ctx) + ">" + message;
}

// A record as %p shows it: its card address.
inline void *shown(const void *record)
{
    return reinterpret_cast<void *>(static_cast<std::uintptr_t>(card_addr_of(record)));
}
