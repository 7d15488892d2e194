// live_barrier.h - waits, in a thread of its own, until no packet is under way by what was stored before.
//
// A barrier takes milliseconds, in which the card has links to close and calls to answer.
// Always: a ticket has passed only when a barrier that began after it was asked for has ended; asking several times
// while one is under way makes one more, not several.
#pragma once

#include <cstdint>
#include <memory>

struct live_barrier;
struct live_barrier_close {
    void operator()(live_barrier *barrier) const; // waits for the one under way
};
using live_barrier_ptr = std::unique_ptr<live_barrier, live_barrier_close>;

live_barrier_ptr live_barrier_open(); // null when there is no descriptor

int live_barrier_fd(const live_barrier &barrier); // readable when a ticket has passed
void live_barrier_ask(live_barrier &barrier, std::uint64_t ticket);
std::uint64_t live_barrier_passed(live_barrier &barrier); // the last ticket that has; clears the descriptor
