// card_look.h - a daemon as it stands at one moment, between two changes: what it costs, and whether it has drifted.
//
// What it costs is read from the host (memory, descriptors) and asked of it (pools, memory by type). Whether it has
// drifted is told by the model: its listings of every context, the pools, the memory by type, and what each range of
// addresses answers in each copy of the tables must be the model's, and the copies must be alike word by word.
#pragma once

#include <cstdint>
#include <string>

#include "daemon.h"
#include "plain_model.h"

namespace harness
{
struct card_figures {
    std::uint64_t resident = 0, own = 0; // bytes: all that is mapped and present, and of it what nobody else has
    unsigned descriptors = 0;
    unsigned nodes = 0, leaves = 0, blocks = 0;          // of the pools, in use
    std::uint64_t tracked_blocks = 0, tracked_bytes = 0; // memory by type, added up
};

// What was compared.
struct card_compared {
    std::uint64_t records = 0;   // of listings
    std::uint64_t addresses = 0; // in all copies together
    std::uint64_t words = 0;     // of copies, with the same of the wired one
};

struct card_look {
    card_figures figures;
    card_compared compared;
    std::string drift; // empty: none
};

// Asks on `connection` and `queue`. Throws when the daemon does not answer.
card_look card_look_at(const card_dir &card, pid_t pid, int connection, const mts_queue &queue,
                       const plain_model &model);
} // namespace harness
