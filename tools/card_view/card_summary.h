// card_summary.h - what the route manager counts, context by context: its routes and what their trees hold of the
// pools.
//
// Asked for with the two summary procedures: 512 calls for all contexts, of which a window is outstanding at a time.
// Always: the sums over all contexts are what the pools have handed out, though a single context may count below 0.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "card_tool/card_query.h"
#include "route_ids.h"

struct context_summary {
    std::uint32_t connected_nat;        // connected subnets and installed NAT prefixes
    std::uint32_t statics;              // installed static routes, paths of ECMP sets counted each
    std::uint32_t in_fib;               // routes that are programmed, of every kind; one is the multicast drop entry
    std::int32_t nodes, leaves, blocks; // charged to it and not given back; below 0 when another one was charged
    bool operator==(const context_summary &) const = default;
};

// A context that no route was ever given: the multicast drop entry, the root, and a leaf for that entry and one for "no
// route".
constexpr context_summary CONTEXT_UNUSED = {0, 0, 1, 1, 2, 0};

struct card_summary : card_query {
    std::array<context_summary, ROUTE_CONTEXTS> contexts{};
};

// Queues the calls, two a context.
std::shared_ptr<card_summary> card_summary_ask(card_rpc &rpc, context_range range = {});

context_summary card_summary_total(const card_summary &summary);

// Decodes the blocks of the two procedures. Return false when a block has another length than expected.
bool context_summary_rib(const std::vector<std::uint8_t> &block, context_summary &to);
bool context_summary_fib(const std::vector<std::uint8_t> &block, context_summary &to);
