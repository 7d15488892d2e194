// route_record.h - a route as the listings of the route manager give it, and the listings of all contexts at once.
//
// A listing holds what is in the forwarding table: a static route that waits for its gateway, or a NAT prefix whose
// interface is down, is in no listing.
// Always: the entries of a context keep the order of the route manager, which says what was in front of what.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "card_tool/card_query.h"
#include "route_ids.h"
#include "route_listing.h"

struct route_record {
    std::uint32_t prefix, length, nexthop, route_id, ifid, flags, encap;
};
route_record route_record_decode(const std::uint8_t *from); // ROUTE_RECORD_BYTES of them

// What a route is, by its flags, and the word for it: "drop", "nat", "static", "host", "connected", "interface",
// "other".
enum class route_kind { drop, nat, static_route, host, connected, interface, other };
route_kind route_kind_of(std::uint32_t flags);
const char *route_kind_name(route_kind kind);

// What a procedure lists, context by context, in the order of the route manager: a set's head, then its paths.
struct route_listing : card_query {
    std::array<std::vector<route_record>, ROUTE_CONTEXTS> contexts;
};

// Queues the calls of show_rib_print or show_fib_print, which is kept by its address.
std::shared_ptr<route_listing> route_listing_ask(card_rpc &rpc, const char *procedure, context_range range = {});
