// answer_window.h - which answers were right while a lookup ran, told by whoever changes the routes.
//
// Changes are numbered. Before one is asked for, what each address answers after it is written down and its number is
// published as begun; when it is done, as completed. A reader notes the completed number before a lookup and the begun
// one after it: right is whatever was written down for one of the changes in between, and what stood before them.
// A path is a bit of a mask, so a set of paths is one word.
// Always: the record lies in memory that processes share, and every word of it is atomic.
// Elsewhere: the changes (random_changes.h), the lookups (window_reader.h), the named wrong answers
// (docs/interleavings.md).
#pragma once

#include <atomic>
#include <cstdint>

namespace harness
{
constexpr unsigned WINDOW_ADDRESSES = 256; // of all trees together
constexpr unsigned WINDOW_RECORDS = 1024;  // kept for an address; a power of 2

// What an address answers from one change on.
struct window_record {
    std::atomic<std::uint64_t> change;
    std::atomic<std::uint32_t> own;    // the word of the leaf that answers: one bit
    std::atomic<std::uint32_t> paths;  // its paths, the own one among them
    std::atomic<std::uint32_t> behind; // paths of every leaf that covers the address
};

struct window_address {
    std::uint32_t tree, address;
    std::atomic<std::uint64_t> written; // records so far; the n-th is at n modulo WINDOW_RECORDS
    window_record records[WINDOW_RECORDS];
};

// Records that changes have taken from the pools since the start, at most.
struct window_taken {
    std::uint64_t nodes, leaves, blocks;
};

struct window_board {
    std::atomic<std::uint64_t> begun, completed; // changes
    std::atomic<std::uint64_t> nodes, leaves, blocks;
    window_taken free; // that are never in use: so many must be taken before a freed one comes back
    std::uint32_t count;
    std::atomic<bool> stop;
    window_address addresses[WINDOW_ADDRESSES];
};

// One lookup's answer, as bits: `path` among the paths, or the leaf's own word, or a miss.
struct window_answer {
    bool miss, own;
    std::uint32_t bit; // 0: no path that there is
    bool empty;        // the word of an entry is 0
};

enum window_verdict : unsigned {
    WINDOW_RIGHT,
    WINDOW_OVERRUN,     // records that the walk stood in may have been taken again
    WINDOW_LEFT_BEHIND, // over two changes and more
    WINDOW_CAME_BACK,   // over two changes and more
    WINDOW_FOLDED,      // over three changes and more
    WINDOW_WRONG,
    WINDOW_VERDICTS,
};

// What a reader notes before a lookup, and what it has after it.
struct window_start {
    std::uint64_t completed;
    window_taken taken;
};
struct window_span {
    std::uint64_t first, last; // changes
    bool overrun;              // so many records were taken that the walk may have stood in a reused one
};
window_start window_begin(const window_board &board);
window_span window_end(const window_board &board, const window_start &start);
// Judges an answer of address `index`.
window_verdict window_judge(const window_board &board, const window_span &span, unsigned index,
                            const window_answer &answer);

// The driver's side. window_write is called for each address whose record changes, before window_change_begins.
void window_write(window_board &board, unsigned index, std::uint64_t change, std::uint32_t own, std::uint32_t paths,
                  std::uint32_t behind);
void window_change_begins(window_board &board, std::uint64_t change, const window_taken &taken);
void window_change_ends(window_board &board, std::uint64_t change);
} // namespace harness
