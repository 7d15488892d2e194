// slowpath_lookup.cpp - the next hop of a packet that the processors could not forward, from the RIB.
//
// The longest prefix that covers the address is the candidate. Whether its encapsulation has a MAC address is asked of
// the slow path, with a call.
// Odd, and meant: a candidate whose check fails is still answered with its next hop; a longer match without an
// encapsulation never falls back to a shorter one, only to the default.
#include "slowpath_lookup.h"

#include "prefix_mgr.h"
#include "rib_table.h"
#include "route_log.h"
#include "route_rpc_client.h"

namespace
{
enum lookup_result : std::uint32_t { LOOKUP_FOUND = 0, LOOKUP_NONE = 1 };

void log_lookup(std::uint16_t ctx, const char *what, std::uint32_t addr)
{
    route_log(ROUTE_DBG_INFO, ctx, "%s%d.%d.%d.%d\n", what, static_cast<int>(addr >> 24),
              static_cast<int>(addr >> 16 & 0xFF), static_cast<int>(addr >> 8 & 0xFF), static_cast<int>(addr & 0xFF));
}

// Tries the chain from `entry` on, as long as `belongs`. The last entry examined decides when none is accepted.
template <class Belongs>
std::uint32_t try_chain(const route_entry *entry, std::uint32_t *nexthop, const Belongs &belongs)
{
    std::uint32_t result = LOOKUP_NONE;
    for (; entry != nullptr && belongs(entry); entry = entry->next) {
        const std::uint16_t encap = static_cast<std::uint16_t>(entry->encap_id);
        result = encap == 0 ? LOOKUP_NONE : LOOKUP_FOUND;
        if (encap == 0)
            continue;
        *nexthop = entry->nexthop;
        if (slowpath_valid_mac(encap) != 0)
            return LOOKUP_FOUND;
    }
    return result;
}
} // namespace

std::uint32_t slowpath_no_default_route_lookup(std::uint16_t ctx, std::uint32_t addr, std::uint32_t *nexthop)
{
    for (std::uint32_t len = 32; len >= 1; --len)
        if (const route_entry *const entry = rib_chain_entry(ctx, addr, len))
            return try_chain(entry, nexthop, [addr, len](const route_entry *candidate) {
                return rib_key(candidate->prefix, len) == rib_key(addr, len);
            });
    return LOOKUP_NONE;
}

std::uint32_t slowpath_default_route_lookup(std::uint16_t ctx, std::uint32_t *nexthop)
{
    return try_chain(norvik_get_t(ctx)->table[0][0], nexthop, [](const route_entry *) { return true; });
}

std::uint32_t slowpath_route_lookup(std::uint16_t ctx, std::uint32_t addr, std::uint32_t *nexthop)
{
    if (slowpath_no_default_route_lookup(ctx, addr, nexthop) == LOOKUP_FOUND) {
        log_lookup(ctx, "route lookup: using non-default route for ip=", addr);
        return LOOKUP_FOUND;
    }
    if (slowpath_default_route_lookup(ctx, nexthop) == LOOKUP_FOUND) {
        log_lookup(ctx, "route lookup: using default route for ip=", addr);
        return LOOKUP_FOUND;
    }
    log_lookup(ctx, "could not find route for ip=", addr);
    *nexthop = 0;
    return LOOKUP_NONE;
}
