// rib_host.cpp - host routes: ARP-learned hosts, an interface's own routes, the multicast drop entry.
//
// A host route enters the RIB and the forwarding table together: a failed add takes the RIB's entry out again. A static
// route waits until its next hop is a known ARP host: the host's arrival programs the routes through it, its departure
// withdraws them and leaves them in the RIB. A host's entry holds the address of the interface that it was learned on,
// by which it is found when that interface goes down.
// Odd, and meant: a host entry's route id is its context; a removal takes the chain's entry with all members of its
// set; an ARP host that is added again is refreshed in place; the combined pair logs under context 0, and takes a /0
// for a prefix like any other.
// Elsewhere: static routes (rib_static.cpp) and how they are programmed (rib_mtrie.cpp).
#include "rib_host.h"

#include <cstdio>
#include <cstring>

#include "if_mgr.h"
#include "mtrack.h"
#include "platform_mem.h"
#include "prefix_mgr.h"
#include "rib_mtrie.h"
#include "rib_nexthop_index.h"
#include "rib_table.h"
#include "route_log.h"

namespace
{

constexpr int IF_STATUS_UP = 1;
constexpr std::uint32_t MAX_LEN = 32, COMBINED_LOG_CTX = 0;

// Address of the interface through which `ifid` routes: its own, or its bridge interface's. Returns 0, or 1 (logged)
// when the interface has no routing mode. An interface without an address gives 0; so does one without a bridge
// interface: the id that stands for none is looked up like any other.
int interface_address(std::uint16_t ifid, std::uint32_t ctx, std::uint32_t *address)
{
    std::uint32_t rmode = 0;
    std::uint32_t scratch = 0;
    if (if_get_address(ifid, &rmode, &scratch) < 0) {
        route_log(ROUTE_DBG_ERRORS, ctx, "Failed to get route mode for ifId %d", ifid);
        return 1;
    }
    const std::uint32_t routed = rmode == IF_RMODE_ROUTED ? ifid : static_cast<std::uint32_t>(if_get_bvi(ifid));
    std::uint32_t found = 0;
    std::uint32_t mask = 0;
    *address = if_get_ip(routed, &found, &mask) < 0 ? 0 : found;
    return 0;
}

// Fills what depends on the object. Returns 0, or 1 when an ARP host's interface has no routing mode (logged).
int fill_for_object(route_entry *entry, std::uint16_t obj, std::uint32_t ctx)
{
    if (obj == RIB_OBJ_ARP_HOST) {
        std::uint32_t address = 0;
        if (interface_address(entry->ifid, ctx, &address) != 0)
            return 1;
        entry->nexthop = address;
        entry->flags |= RIB_F_ARP_HOST;
    } else if (obj == RIB_OBJ_INTERFACE) {
        entry->flags |= RIB_F_INTERFACE;
    }
    return 0;
}

bool is_removable_as(const route_entry *entry, std::uint16_t obj)
{
    switch (obj) {
    case RIB_OBJ_ARP_HOST:
        return (entry->flags & RIB_F_ARP_HOST) != 0;
    case RIB_OBJ_INTERFACE:
        return (entry->flags & RIB_F_INTERFACE) != 0;
    default:
        return true;
    }
}

// Odd, and meant: a change of a chain entry is logged, one of a member of a set is not.
bool is_member(const route_entry *route) { return (route->flags & RIB_F_ECMP) != 0 && !route->ecmp; }

// A static route whose gateway is `host` is programmed, unless it is already.
void host_added(route_entry *route, const route_entry *host)
{
    if ((route->flags & RIB_F_IN_MTRIE) != 0)
        return;
    route->ifid = host->ifid;
    route->encap_id = host->encap_id;
    if (!is_member(route))
        route_log(ROUTE_DBG_INFO, route->ctx, "\nadd_host route =0x%x found, ifid %d, encapid %d\n", route->prefix,
                  route->ifid, route->encap_id);
    (void)rib_add_mtrie_route(route); // logged there; on failure the route keeps waiting
}

// A programmed one is taken out of the forwarding table. Its interface and encapsulation are cleared also when the
// forwarding table refused.
void host_removed(route_entry *route)
{
    if ((route->flags & RIB_F_IN_MTRIE) == 0)
        return;
    if (!is_member(route))
        route_log(ROUTE_DBG_INFO, route->ctx, "rem_host route =0x%x found, ifid %d, encapid %d\n", route->prefix,
                  route->ifid, route->encap_id);
    rib_remove_mtrie_route(route);
    route->ifid = 0;
    route->encap_id = 0;
}

} // namespace

route_entry *rib_add_host_route(std::uint16_t obj, std::uint32_t ctx, std::uint16_t ifid, std::uint32_t addr,
                                std::uint32_t len, std::uint16_t encap_id)
{
    if (len > MAX_LEN) {
        route_log(ROUTE_DBG_ERRORS, ctx, "rib_add_host_route, wrong mask, host addr 0x%x/%d add Fails, encapid 0x%x\n",
                  addr, len, encap_id);
        return nullptr;
    }
    if (obj == RIB_OBJ_ARP_HOST && if_get_status(ifid) != IF_STATUS_UP) {
        route_log(ROUTE_DBG_ERRORS, ctx,
                  "rib_add_host_route, if %d DOWN, obj %d addr 0x%x/%d add Fails, encapid 0x%x\n", ifid, obj, addr, len,
                  encap_id);
        return nullptr;
    }

    const std::uint32_t prefix = addr & rib_mask_table[len];
    const std::uint32_t object = obj;
    const std::uint16_t context = static_cast<std::uint16_t>(ctx);
    rib_search_result search;
    if (rib_route_search(ctx, prefix, len, &object, rib_host_match, &search) != 0) {
        if (obj != RIB_OBJ_ARP_HOST) {
            route_log(ROUTE_DBG_ERRORS, ctx, "%s:rejecting duplicate entry:%x/%u\n", "rib_add_host_route", prefix, len);
            return nullptr;
        }
        search.entry->route_id = context;
        search.entry->encap_id = encap_id;
        search.entry->ifid = ifid;
        return search.entry;
    }

    route_entry *const head = rib_set_at(search, prefix, len);
    route_entry *const entry = rib_set_is_full(head) ? nullptr : rib_entry_alloc(MTRACK_ROUTE_ENTRY_1);
    if (entry == nullptr)
        return nullptr; // the caller logs
    entry->prefix = prefix;
    entry->len = len;
    entry->ctx = context;
    entry->route_id = context;
    entry->ifid = ifid;
    entry->encap_id = encap_id;
    if (fill_for_object(entry, obj, ctx) != 0) {
        mtrack_free(entry);
        return nullptr;
    }
    (void)rib_link(entry, search, head); // the link is not needed any more
    return entry;
}

route_entry *rib_remove_host_route(std::uint16_t obj, std::uint32_t ctx, std::uint32_t addr, std::uint32_t len)
{
    if (len > MAX_LEN) {
        route_log(ROUTE_DBG_ERRORS, ctx, "rib_remove_host_route, wrong mask, host addr 0x%x/%d remove Fails\n", addr,
                  len);
        return nullptr;
    }
    const std::uint32_t prefix = addr & rib_mask_table[len];
    card_ptr<route_entry> *const link = rib_chain_link(ctx, prefix, len);
    if (link == nullptr) {
        route_log(ROUTE_DBG_INFO, ctx, "rib_remove_host_route: fail to find routeid %d ip 0x%x/%d obj %d \n", ctx,
                  prefix, len, obj);
        return nullptr;
    }
    route_entry *const entry = *link;
    if (!is_removable_as(entry, obj)) {
        route_log(ROUTE_DBG_ERRORS, ctx,
                  "rib_remove_host_route, wrong entry 0x%x/%d flags %x, host addr 0x%x/%d remove obj %d Fails\n",
                  entry->prefix, entry->len, entry->flags, prefix, len, obj);
        return nullptr;
    }

    *link = entry->next; // the members of its set, if it has any, go with it
    rib_nexthop_index_remove_set(entry);
    if (obj == RIB_OBJ_ARP_HOST)
        entry->flags &= static_cast<std::uint16_t>(~RIB_F_ARP_HOST);
    route_log(ROUTE_DBG_INFO, ctx, "rib_remove_host_route: deleting route 0x%x/%d (flags 0x%x) \n", entry->prefix,
              entry->len, entry->flags);
    return entry;
}

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
    entry->flags &= static_cast<std::uint16_t>(~clear_bits);

    // A refusal is only logged: the entry does not come back to the RIB.
    if (prefix_mgr_route_remove(wired_table_mgr, entry) != 0)
        route_log(ROUTE_DBG_INFO, COMBINED_LOG_CTX, "%s:remove from rib and Mtrie SUCCESS 0x%x/%d\n",
                  "route_remove_rib_and_mtrie_entry", addr, len);
    else
        route_log(ROUTE_DBG_ERRORS, COMBINED_LOG_CTX, "%s:remove Mtrie FAILURE 0x%x/%d\n",
                  "route_remove_rib_and_mtrie_entry", addr, len);

    if (free_it == RIB_KEEP_ENTRY)
        return entry;
    mtrack_free(entry);
    return nullptr;
}

void route_lookup_by_hostaddr(route_entry *host, int op)
{
    (void)rib_nexthop_index_find(host->route_id, host->prefix, [host, op](route_entry *route) {
        if (op == RIB_HOST_ADDED)
            host_added(route, host);
        else if (op == RIB_HOST_REMOVED)
            host_removed(route);
        return false; // every route through the host
    });
}

int route_flush_rt_cache()
{
    const int fd = syscall_open();
    if (fd < 0) {
        std::printf("Error %d from syscall_open: %s\n", fd, std::strerror(-fd));
        return 0;
    }
    const int result = tn_flush_rt_cache(fd);
    (void)syscall_close(fd); // nothing to do about a descriptor that will not close
    if (result == 0)
        return 1;
    std::printf("Error %d from tn_flush_rt_cache: %s\n", result, std::strerror(-result));
    return 0;
}

std::uint32_t arp_prefix_mgr_add_route(std::uint16_t obj, std::uint32_t addr, std::uint32_t len, std::uint16_t encap_id,
                                       std::uint16_t ifid, std::uint32_t ctx)
{
    if (obj != RIB_OBJ_ARP_HOST) {
        route_log(ROUTE_DBG_ERRORS, ctx,
                  "arp_prefix_mgr_add_route, Object NOT supported, addr 0x%x/%d, encapid 0x%x, ifid 0x%x\n", addr, len,
                  encap_id, ifid);
        return 1;
    }
    route_entry *const host =
        route_add_rib_and_mtrie_entry(RIB_F_ARP_INSTALLED, encap_id, RIB_OBJ_ARP_HOST, addr, len, ifid, ctx);
    if (host == nullptr)
        return 1;
    route_lookup_by_hostaddr(host, RIB_HOST_ADDED);
    return 0;
}

std::uint32_t arp_prefix_mgr_remove_route(std::uint16_t obj, std::uint32_t addr, std::uint32_t len, std::uint32_t,
                                          std::uint16_t encap_id, std::uint16_t ifid, std::uint32_t ctx)
{
    if (obj != RIB_OBJ_ARP_HOST) {
        route_log(ROUTE_DBG_ERRORS, ctx,
                  "arp_prefix_mgr_remove_route, object NOT supported, addr 0x%x, encapid 0x%x, ifid 0x%x\n", addr,
                  encap_id, ifid);
        return 1;
    }
    route_entry *const host =
        route_remove_rib_and_mtrie_entry(RIB_OBJ_ARP_HOST, RIB_F_ARP_INSTALLED, addr, len, ctx, RIB_KEEP_ENTRY);
    if (host == nullptr)
        return 1;
    route_lookup_by_hostaddr(host, RIB_HOST_REMOVED);
    mtrack_free(host);
    (void)route_flush_rt_cache(); // prints its own failure; the host is gone either way
    return 0;
}
