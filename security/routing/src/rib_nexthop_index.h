// rib_nexthop_index.h - the static routes of each context by next hop, beside the table.
#pragma once

#include <compare>
#include <cstdint>
#include <map>

#include "route_entry.h"

// Ordered as a visit of the whole context finds the routes of a gateway: by row, bucket, and place on the chain.
// A set has one path a gateway at most, so its paths need no order among themselves.
struct rib_nexthop_index_key {
    std::uint64_t gateway; // context in the upper word, address in the lower
    std::uint64_t place;   // length, bucket and prefix, from the top
    auto operator<=>(const rib_nexthop_index_key &) const = default;
};
extern std::map<rib_nexthop_index_key, route_entry *> &rib_nexthop_index_routes;

rib_nexthop_index_key rib_nexthop_index_first(std::uint32_t ctx,
                                              std::uint32_t gateway); // where a gateway's routes start

// Enters a static route that is, or is about to be, in the table of its context. Returns false when memory is short.
[[nodiscard]] bool rib_nexthop_index_add(route_entry *route);
[[nodiscard]] bool rib_nexthop_index_has(const route_entry *route); // whether this entry was entered
void rib_nexthop_index_remove(const route_entry *route);            // no effect on an entry that was not entered
// For the clean-up of a signal, which may have interrupted a change of the index: from here on nothing is taken out.
void rib_nexthop_index_freeze();
// Takes out a chain entry and the members of its set, which leave the table together.
void rib_nexthop_index_remove_set(const route_entry *head);

// Visits the static routes of a context through a gateway, chain entries and members of sets, in the table's order.
// Stops at the first that `visit` answers true for and returns it, else null. A visit may change flags, not links.
template <class Visit> route_entry *rib_nexthop_index_find(std::uint32_t ctx, std::uint32_t gateway, Visit visit)
{
    const rib_nexthop_index_key first = rib_nexthop_index_first(ctx, gateway);
    for (auto at = rib_nexthop_index_routes.lower_bound(first);
         at != rib_nexthop_index_routes.end() && at->first.gateway == first.gateway; ++at)
        if (visit(at->second))
            return at->second;
    return nullptr;
}
