// window_reader.h - a processor that looks up without pause and has every answer judged.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "answer_window.h"
#include "ixp_lookup.h"

namespace harness
{
// What a reader has seen so far; other processes read it while it runs.
struct window_tally {
    std::atomic<std::uint64_t> lookups, checked;
    std::array<std::atomic<std::uint64_t>, WINDOW_VERDICTS> verdicts;
    std::array<std::atomic<std::uint64_t>, 8> paths; // answers by path number
    // The first wrong answer: where, what, and over which changes.
    std::atomic<std::uint32_t> wrong_index, wrong_word, wrong_path;
    std::atomic<std::uint64_t> wrong_from, wrong_to;
};

// Looks up every address of the board, with each implementation that runs here, until the board says stop.
void window_read(const window_board &board, const ixp_table &table, std::uint32_t seed, window_tally &tally);
// One pass over all addresses with one implementation, answers judged one by one or a batch at a time.
void window_read_pass(const window_board &board, const ixp_table &table, ixp_implementation implementation,
                      std::uint32_t hash, window_tally &tally);
} // namespace harness
