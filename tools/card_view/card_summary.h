// card_summary.h - what the route manager counts, context by context: its routes and what their trees hold of the
// pools.
//
// Asked for with the two summary procedures, 512 calls of which a window is outstanding at a time, so nothing waits.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "card_tool/card_rpc.h"
#include "route_ids.h"

struct context_summary {
    std::uint32_t connected_nat;        // connected subnets and installed NAT prefixes
    std::uint32_t statics;              // installed static routes, paths of ECMP sets counted each
    std::uint32_t in_fib;               // routes that are programmed, of every kind; one is the multicast drop entry
    std::int32_t nodes, leaves, blocks; // charged to it and not given back; below 0 when another one was charged
    bool operator==(const context_summary &) const = default;
};

// A context that no route was ever given: the multicast drop entry, the root, and a leaf for each of that and "no
// route".
constexpr context_summary CONTEXT_UNUSED = {0, 0, 1, 1, 2, 0};

struct card_summary {
    std::array<context_summary, ROUTE_CONTEXTS> contexts{};
    unsigned waiting = 0;            // calls that have not ended
    card_rpc_end end = CARD_RPC_RAN; // of the first call that failed
    std::string why;                 // then: a sentence's end
    bool is_refused = false;         // a procedure ran and had no memory
    bool is_over() const { return waiting == 0; }
    bool is_good() const { return waiting == 0 && end == CARD_RPC_RAN && !is_refused; }
};

// Queues the calls; the summary is filled inside later card_rpc_process or card_rpc_wait calls.
std::shared_ptr<card_summary> card_summary_ask(card_rpc &rpc);

context_summary card_summary_total(const card_summary &summary);

// Decodes the blocks of the two procedures. Return false when a block is not as long as it has to be.
bool context_summary_rib(const std::vector<std::uint8_t> &block, context_summary &to);
bool context_summary_fib(const std::vector<std::uint8_t> &block, context_summary &to);
