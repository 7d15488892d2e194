// walk_machine.h - a processor's walk taken apart: one load at a time, with all that it keeps between two loads.
//
// The lookups of tools/ixp run from their first load to their last. To ask what a reader can see that falls asleep
// between any two of them, the walk is written down here a second time, as a machine: a state says which word is
// loaded next, and a loaded word says which states may follow. The flow's hash is left open, so at a header the
// machine goes on with every path that a hash can choose.
// Always: no more than 25 loads lead from the first state to an answer.
// Elsewhere: carrying sets of these states along a journal of stores (explorer.h).
#pragma once

#include <compare>
#include <cstdint>
#include <set>
#include <vector>

#include "mtrie_records.h"
#include "route_table.h"

namespace harness
{
// One copy of the table as a reader has it, and the address form of its words.
struct table_copy {
    std::uint32_t base = 0;
    std::vector<std::uint32_t> words;
};

enum walk_stage : std::uint8_t {
    WALK_ROOT,
    WALK_SLOT,
    WALK_LEAF,
    WALK_POINTER,
    WALK_HEADER,
    WALK_ENTRY,
    WALK_AGAIN, // the header once more
    WALK_MISS,
    WALK_DONE,
};

struct walker {
    walk_stage stage = WALK_ROOT;
    std::uint8_t level = 0;                         // slots read in this walk
    std::uint8_t walks = 4;                         // left, this one included
    std::uint8_t path = 0;                          // chosen
    std::uint32_t index = 0;                        // of the word to load next
    std::uint32_t own = 0;                          // the leaf's word; when done, the answer's
    std::uint32_t block = 0, header = 0, entry = 0; // of the set
    auto operator<=>(const walker &) const = default;
    bool ended() const { return stage >= WALK_MISS; }
};

// What is looked up.
struct walk_key {
    std::uint32_t tree, address;
};

walker walk_start(const walk_key &key);
// The states that follow `at` when the word that it asks for is `word`.
void walk_step(const walk_key &key, std::uint32_t base, const walker &at, std::uint32_t word,
               std::vector<walker> &next);

// An answer as it is compared: which path number the reader came to does not matter, for paths move between the leaf
// and the entries.
struct walk_answer {
    bool miss = false;
    bool own = false;       // the leaf's word, whole but for its ECMP flag
    std::uint32_t word = 0; // that word, or interface << 16 and encap id of an entry
    auto operator<=>(const walk_answer &) const = default;
};
using walk_answers = std::set<walk_answer>;

walk_answer walk_answer_of(const walker &ended);
// Whether `answer` is one of `legal`: a path is, wherever it stands.
bool walk_is_legal(const walk_answer &answer, const walk_answers &legal);
// Everything that a table at rest answers.
walk_answers walk_at_rest(const table_copy &copy, const walk_key &key);

// The leaf that answers at rest: the index of its first word, 0 for a miss.
std::uint32_t walk_leaf_at_rest(const table_copy &copy, const walk_key &key);
// The words of one leaf and of the set that it names, whether its word sends a reader there or not.
void walk_add_leaf(const table_copy &copy, std::uint32_t leaf, walk_answers &answers);
} // namespace harness
