// rib_mtrie.cpp - an entry of the RIB in and out of the forwarding table.
//
// The entry stays in the RIB. RIB_F_IN_MTRIE is set and cleared here alone, and only here is the default route known as
// a context's default leaf.
// Elsewhere: the host routes, which enter and leave both tables together (rib_host.cpp), how leaves are made
// (prefix_mgr.cpp).
#include "rib_mtrie.h"

#include "norvik_mtrie_leaf.h"
#include "prefix_mgr.h"
#include "route_log.h"

namespace
{

constexpr std::uint32_t DEFAULT_LEAF_SET = 1, DEFAULT_LEAF_RESET = 0;

bool is_default_route(const route_entry *entry) { return entry->prefix == 0 && entry->len == 0; }

std::uint32_t change_default_leaf(const route_entry *entry, std::uint32_t set)
{
    return mtrie_set_default_leaf_stub(entry->route_id, 0, 0, entry->encap_id, entry->ifid, entry->flags, set);
}

void clear_flags(route_entry *entry, std::uint16_t bits)
{
    entry->flags = static_cast<std::uint16_t>(entry->flags & ~bits);
}

} // namespace

int rib_add_mtrie_route(route_entry *entry)
{
    const std::uint32_t added = is_default_route(entry) ? change_default_leaf(entry, DEFAULT_LEAF_SET)
                                                        : prefix_mgr_route_add(wired_table_mgr, entry);
    if (added == 0) {
        route_log(ROUTE_DBG_ERRORS, entry->ctx,
                  "%s: Failed to add mtrie for route_id (%d) route/mask %08x/%d->nexthop %08x encap %04x\n",
                  "rib_add_mtrie_route", entry->route_id, entry->prefix, entry->len, entry->nexthop, entry->encap_id);
        return 1;
    }
    route_log(ROUTE_DBG_INFO, entry->ctx,
              "%s: Added mtrie for route_id (%d) route/mask %08x/%d->nexthop %08x encap %04x\n", "rib_add_mtrie_route",
              entry->route_id, entry->prefix, entry->len, entry->nexthop, entry->encap_id);
    entry->flags |= RIB_F_IN_MTRIE;
    return 0;
}

void rib_remove_mtrie_route(route_entry *entry)
{
    if ((entry->flags & RIB_F_IN_MTRIE) == 0)
        return;
    if (is_default_route(entry)) {
        (void)change_default_leaf(entry, DEFAULT_LEAF_RESET); // counts as not programmed even when refused
        clear_flags(entry, RIB_F_IN_MTRIE);
        return;
    }

    if (prefix_mgr_route_remove(wired_table_mgr, entry) == 0) {
        route_log(ROUTE_DBG_ERRORS, entry->ctx,
                  "rib_remove_mtrie_route: (1) Unable to remove routeid (%d) %08x/%d nexthop %08x encapid %04x\n",
                  entry->route_id, entry->prefix, entry->len, entry->nexthop, entry->encap_id);
        return;
    }
    route_log(ROUTE_DBG_INFO, entry->ctx,
              "rib_remove_mtrie_route: (1) Removed OK routeid (%d) %08x/%d nexthop %08x encapid %04x\n",
              entry->route_id, entry->prefix, entry->len, entry->nexthop, entry->encap_id);
    clear_flags(entry, RIB_F_IN_MTRIE);
}
