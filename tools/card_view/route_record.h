// route_record.h - a route as the listings of the route manager give it, and the listings of all contexts at once.
//
// A listing holds what is in the forwarding table: a static route that waits for its gateway, or a NAT prefix whose
// interface is down, is in none.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "card_tool/card_rpc.h"
#include "route_ids.h"
#include "route_listing.h"

struct route_record {
    std::uint32_t prefix, length, nexthop, route_id, ifid, flags, encap;
};
route_record route_record_decode(const std::uint8_t *from); // ROUTE_RECORD_BYTES of them

// "static", "host", "connected", "interface", "nat", "drop" or "other".
const char *route_record_kind(std::uint32_t flags);

// What is in the forwarding table, context by context, in the order of the route manager: a set's head, then its paths.
struct route_listing {
    std::array<std::vector<route_record>, ROUTE_CONTEXTS> contexts;
    unsigned waiting = 0;    // contexts that are not read to their end
    card_rpc_reply failed;   // the first call that did not run; else it ran
    bool is_refused = false; // a procedure ran and had no memory
    bool is_good() const { return waiting == 0 && failed.ran() && !is_refused; }
};

// Queues the calls; the listing is filled inside later card_rpc_process or card_rpc_wait calls.
std::shared_ptr<route_listing> route_listing_ask(card_rpc &rpc);
