// random_run.h - a card under random operations, beside the plain model: what the random tests and the soak share.
//
// A run draws a remote call or a message, with its arguments now and then wrong, the card's interfaces and peers now
// and then changed, memory now and then short; hands it to the process and to the model; and compares what comes of it.
// Always: the same seed, kind and processors give the same steps.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <poll.h>

#include "fake_card.h"
#include "plain_model.h"

namespace harness
{
// What prefixes a run is about.
enum class run_kind : unsigned {
    APART,    // none wholly covered by longer ones
    COVERING, // they cover each other
    WIDE,     // hosts all over the place, until the nodes are used up
    CROWDED,  // few, with more paths than a set takes
    FOREIGN,  // as COVERING, and many a static route goes into another context's tree
};
constexpr unsigned RUN_KINDS = 5;

struct random_step {
    bool is_call = true; // else a message
    std::string procedure;
    std::vector<std::uint32_t> args;
    std::uint32_t opcode = 0;
    byte_string payload;
};

struct random_run {
    random_run(std::uint32_t seed, run_kind its_kind, unsigned processors);
    random_run(const random_run &) = delete;

    fake_card card;
    plain_model model;
    std::mt19937 engine;
    run_kind kind;
    pollfd set[2] = {};
    model_cursor cursors[3][2]; // of a reader with short pages, by context and table
    std::uint32_t steps = 0;

    std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(engine() % n); }
    bool one_in(std::uint32_t n) { return below(n) == 0; }
};

extern const std::vector<std::uint32_t> RUN_CONTEXTS;

// Takes one step in both. Returns the first difference in the answer, the error lines, what went out, a page of the
// reader, and memory; empty when there is none. The text begins with the step.
std::string random_run_step(random_run &run);
// Compares RIB, forwarding table in every copy and memory by type of all contexts. Empty when there is no difference.
std::string random_run_compare(random_run &run);
// The audits of all contexts and pools; 0 when every rule holds.
int random_run_audit();
} // namespace harness
