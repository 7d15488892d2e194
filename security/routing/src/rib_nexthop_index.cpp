// rib_nexthop_index.cpp - the static routes of each context by next hop, beside the table.
//
// A host that is added or removed changes only the routes through it, which may be a handful among a hundred thousand.
// The table is ordered by prefix and would have to be visited whole, so this index has the same entries by gateway.
// Within a gateway they have the order of that visit, which is the order of a change's log lines.
// Always: an entry is in the index exactly while it is a static route that a visit of its context finds, until a signal
// freezes the index (rib_check proves it). A key consists of what never changes in an entry.
//
// Odd, and meant: where a chain entry is unlinked and the members of its set with it, nobody frees the members. They
// leave the index, so that no host completes or withdraws them any more; what they have in the tables stays there.
//
// Elsewhere: the table (rib_table.cpp), which routes are added and removed (rib_static.cpp).
#include "rib_nexthop_index.h"

#include <new>

#include "rib_table.h"

// Never destroyed: the process may be ended by a signal in the middle of a change, and nothing may be freed then.
std::map<rib_nexthop_index_key, route_entry *> &rib_nexthop_index_routes =
    *new std::map<rib_nexthop_index_key, route_entry *>;

namespace
{

bool is_frozen = false;

constexpr unsigned PLACE_LEN_SHIFT = 40, PLACE_BUCKET_SHIFT = 32;

rib_nexthop_index_key key_of(const route_entry *route)
{
    rib_nexthop_index_key key = rib_nexthop_index_first(route->ctx, route->nexthop);
    const std::uint32_t bucket = slowpath_route_hashing_ip_key(route->prefix, route->len) % RIB_BUCKETS;
    key.place =
        std::uint64_t{route->len} << PLACE_LEN_SHIFT | std::uint64_t{bucket} << PLACE_BUCKET_SHIFT | route->prefix;
    return key;
}

} // namespace

rib_nexthop_index_key rib_nexthop_index_first(std::uint32_t ctx, std::uint32_t gateway)
{
    return {std::uint64_t{ctx % ROUTE_CONTEXTS} << 32 | gateway, 0};
}

bool rib_nexthop_index_add(route_entry *route)
{
    try {
        return rib_nexthop_index_routes.emplace(key_of(route), route).second;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

bool rib_nexthop_index_has(const route_entry *route)
{
    const auto at = rib_nexthop_index_routes.find(key_of(route));
    return at != rib_nexthop_index_routes.end() && at->second == route;
}

void rib_nexthop_index_remove(const route_entry *route)
{
    if (is_frozen)
        return;
    const auto at = rib_nexthop_index_routes.find(key_of(route));
    if (at != rib_nexthop_index_routes.end() && at->second == route)
        rib_nexthop_index_routes.erase(at);
}

void rib_nexthop_index_freeze() { is_frozen = true; }

void rib_nexthop_index_remove_set(const route_entry *head)
{
    rib_nexthop_index_remove(head);
    for (const route_entry *member = head->ecmp; member != nullptr; member = member->next)
        rib_nexthop_index_remove(member);
}
