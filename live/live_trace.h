// live_trace.h - what the packet program does with a packet, run and not guessed, beside what the kernel would do.
//
// Nothing is sent and nothing is counted. The two agree when the packet leaves by a link and to a neighbour that the
// kernel's own lookup names, or goes to the kernel: that is slow, never wrong.
// Elsewhere: the program (xdp/card.bpf.c), the kernel's lookup (kernel_ask.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kernel_ask.h"
#include "kernel_state.h"
#include "live_maps.h"
#include "live_plan.h"

struct live_view {
    const live_maps &maps;
    const live_plan &plan;
    const kernel_state &state;
    kernel_ask &ask;
};

// An address from which a packet may come in by the port, so that the kernel does not refuse it for its source: another
// host of the port's subnet, a neighbour where the port has none of its own, else one of the range for tests of
// networks.
std::uint32_t live_trace_source(const kernel_state &state, int ifindex, const live_plan_port &port);

struct live_traced {
    kernel_packet packet;            // that was asked about: UDP, TTL 64
    live_trace trace;                // what the program found
    std::vector<std::uint8_t> frame; // as it would leave
    kernel_way way;
    bool agrees = false;
    std::string card, kernel; // what each of them does, in words
};
// table: as for live_maps_trace. Returns 0, or 1 and one line in `why`.
[[nodiscard]] int live_trace_packet(const live_view &view, const kernel_packet &packet, live_searched table,
                                    live_traced *traced, std::string *why);

// Every boundary of every prefix of a context, in the kernel's tables and in the card: the addresses where an answer
// may change.
struct live_verify {
    std::uint32_t ctx = 0;
    std::vector<std::uint32_t> addresses; // ascending
    std::size_t at = 0;                   // the next one
    std::vector<kernel_prefix> given;     // what an operator gave the route manager besides: it may differ
    std::size_t forwarded = 0;            // that left by a port
    std::vector<live_traced> differences;
};
live_verify live_verify_begin(const live_plan &plan, const kernel_state &state, std::uint32_t ctx,
                              std::vector<kernel_prefix> given);
// Looks at up to `most` addresses. A set of paths is tried with several flows. A context without a port that is up has
// nothing to be looked at. Returns as above.
[[nodiscard]] int live_verify_some(const live_view &view, live_searched table, std::size_t most, live_verify *verify,
                                   std::string *why);
