// proof_card.h - a card whose every store is judged: after it, and for every reader that it may fall upon.
//
// A change of the tables is made on the test's card, which keeps the journal of its stores. Each copy is then replayed
// from what it held before. After each store every watched address is looked up with the scalar lookup of tools/ixp,
// and the set of reader states of each address is carried on. Every answer met either way must be one that the table
// before the change or the table after it gives at rest.
// Elsewhere: the states (walk_machine.h), the sets of them (explorer.h).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "explorer.h"
#include "fake_card.h"
#include "route_entry.h"

namespace harness
{
constexpr unsigned PROOF_COPIES = 3; // wired region, then the two processors

// One store into one copy.
struct copy_store {
    std::uint32_t index, value;
};

// What a proof has found: answers that no table of the window gives. `first` describes the first of them.
// Those of readers that the stores fell upon are told apart by the ways in which they come about
// (docs/interleavings.md).
struct proof_finding {
    unsigned after_stores = 0; // of lookups between two stores
    unsigned came_back = 0;    // an empty entry, between two headers that are the same
    unsigned left_behind = 0;  // a word that a leaf got after the address had been taken from it
    unsigned folded = 0;       // a miss
    unsigned unnamed = 0;      // any other
    std::string first;
    unsigned interleavings() const { return came_back + left_behind + folded + unnamed; }
    bool clean() const { return after_stores + interleavings() == 0; }
};

struct proof_card {
    fake_card card{2};
    std::array<table_copy, PROOF_COPIES> copies; // as they stand after the last change that was judged
    std::uint64_t stores = 0, states = 0;        // judged so far

    proof_card();  // trees made, nothing in them
    void settle(); // takes the copies over as they stand now: what came before is not judged

    // Makes `change` and gives its stores, copy by copy, without judging them.
    std::array<std::vector<copy_store>, PROOF_COPIES> journal_of(const std::function<void()> &change);
    // Makes and judges `changes`, one after the other, as one window: a reader may sleep through all of them, and may
    // answer what any table from the first to the last gives. `addresses` are looked up in tree `tree`.
    proof_finding judge(std::uint32_t tree, const std::vector<std::uint32_t> &addresses,
                        const std::vector<std::function<void()>> &changes);
};

// First and last address of a prefix, their neighbours and its middle.
void add_boundaries(std::vector<std::uint32_t> &addresses, std::uint32_t prefix, std::uint32_t len);
// The boundaries of every leaf that is in some slot of the tree.
std::vector<std::uint32_t> tree_boundaries(std::uint32_t tree);

// Changes of a tree. Each returns what the process answered.
struct proof_path {
    std::uint32_t ifid, encap;
};
std::uint32_t proof_add(std::uint32_t tree, std::uint32_t prefix, std::uint32_t len, proof_path path, unsigned flags);
std::uint32_t proof_remove(std::uint32_t tree, std::uint32_t prefix, std::uint32_t len, proof_path path);
std::uint32_t proof_default(std::uint32_t tree, proof_path path, unsigned flags);
std::uint32_t proof_default_reset(std::uint32_t tree, proof_path path);
} // namespace harness
