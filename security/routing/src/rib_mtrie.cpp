// rib_mtrie.cpp - routes in the RIB and in the forwarding table together.
//
// The combined pair serves host-type routes: both tables change, or a failed add takes the RIB's entry out again. The
// other pair moves an entry that stays in the RIB in and out of the forwarding table; it alone sets and clears
// RIB_F_IN_MTRIE, and it alone knows the default route as a context's default leaf. A /0 that goes through the combined
// pair is a prefix like any other.
// Odd, and meant: the combined pair logs under context 0, whatever the entry's.
// Elsewhere: what a host route is and how it is unlinked (rib_host.cpp), how leaves are made (prefix_mgr.cpp).
#include "rib_mtrie.h"

#include "mtrack.h"
#include "norvik_mtrie_leaf.h"
#include "prefix_mgr.h"
#include "rib_host.h"
#include "route_log.h"

namespace
{

constexpr std::uint32_t COMBINED_LOG_CTX = 0;
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

route_entry *route_add_rib_and_mtrie_entry(std::uint16_t flag_bits, std::uint16_t encap_id, std::uint16_t obj,
                                           std::uint32_t addr, std::uint32_t len, std::uint16_t ifid, std::uint32_t ctx)
{
    route_entry *const entry = rib_add_host_route(obj, ctx, ifid, addr, len, encap_id);
    if (entry == nullptr) {
        route_log(ROUTE_DBG_ERRORS, COMBINED_LOG_CTX, "%s: rib add failed, addr 0x%x/%d, ifid 0x%x\n",
                  "route_add_rib_and_mtrie_entry", addr, len, ifid);
        return nullptr;
    }
    entry->flags |= flag_bits;

    if (prefix_mgr_route_add(wired_table_mgr, entry) != 0) {
        route_log(ROUTE_DBG_INFO, COMBINED_LOG_CTX, "add to rib and Mtrie SUCCESS 0x%x/%d->%04x\n", entry->prefix,
                  entry->len, entry->encap_id);
        return entry;
    }
    route_log(ROUTE_DBG_ERRORS, COMBINED_LOG_CTX, "adding Mtrie FAILURE 0x%x/%d->%04x\n", entry->prefix, entry->len,
              entry->encap_id);

    // By address and object, not by the entry: a member of a set stays, and nothing is freed when nothing is found.
    mtrack_free(rib_remove_host_route(obj, ctx, addr, len));
    return nullptr;
}

route_entry *route_remove_rib_and_mtrie_entry(std::uint16_t obj, std::uint16_t clear_bits, std::uint32_t addr,
                                              std::uint32_t len, std::uint32_t ctx, std::uint32_t free_it)
{
    route_entry *const entry = rib_remove_host_route(obj, ctx, addr, len);
    if (entry == nullptr) {
        route_log(ROUTE_DBG_ERRORS, COMBINED_LOG_CTX, "%s: rib remove failed, addr 0x%x/%d\n",
                  "route_remove_rib_and_mtrie_entry", addr, len);
        return nullptr;
    }
    clear_flags(entry, clear_bits);

    // A refusal is only logged: the entry does not come back to the RIB.
    if (prefix_mgr_route_remove(wired_table_mgr, entry) != 0)
        route_log(ROUTE_DBG_INFO, COMBINED_LOG_CTX, "%s:remove from rib and Mtrie SUCCESS 0x%x/%d\n",
                  "route_remove_rib_and_mtrie_entry", addr, len);
    else
        route_log(ROUTE_DBG_ERRORS, COMBINED_LOG_CTX, "%s:remove Mtrie FAILURE 0x%x/%d\n",
                  "route_remove_rib_and_mtrie_entry", addr, len);

    if (free_it == 0)
        return entry;
    mtrack_free(entry);
    return nullptr;
}

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
        (void)change_default_leaf(entry, DEFAULT_LEAF_RESET); // not programmed any more, whatever the leaf said
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
