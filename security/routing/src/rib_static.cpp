// rib_static.cpp - static routes, their ECMP sets, and the resolution of their gateways.
//
// A static route can be programmed once its gateway is a known ARP host, because its leaf needs the host's interface
// and encapsulation. Until then it waits in the RIB, and the ARP service has been asked to find the gateway.
// Odd, and meant: the gateway is looked for in the context that the route id names, and its resolution is asked for
// under the entry's context and withdrawn under its route id. A removal does not mask its prefix.
// Always: a set of static routes alone has RIB_MAX_ECMP paths at most; a refused route leaves both tables as they were.
// Elsewhere: the hosts for which a route waits (rib_host.cpp), how a route is programmed (rib_mtrie.cpp).
#include "rib_static.h"

#include "mtrack.h"
#include "rib_host.h"
#include "rib_mtrie.h"
#include "rib_nexthop_index.h"
#include "rib_table.h"
#include "route_log.h"
#include "tnrpc.h"

namespace
{

constexpr std::uint32_t MAX_LEN = 32;
constexpr std::uint8_t SENSE_RESOLVE = 1, SENSE_WITHDRAW = 0;
constexpr std::uint32_t ARP_ENTRY_KIND = 2; // fixed fifth argument of the ARP service's procedure

bool has_all(const route_entry *entry, std::uint16_t bits) { return (entry->flags & bits) == bits; }

// Logs why a route is refused that is there already.
void log_refusal(std::uint16_t ctx, const route_entry *found, std::uint32_t prefix, std::uint32_t len,
                 std::uint32_t nexthop)
{
    if (has_all(found, RIB_F_INTERFACE))
        route_log(ROUTE_DBG_ERRORS, ctx, "%s: Collide with interface %08x/%d \n", "rib_add_route", found->prefix,
                  found->len);
    else
        route_log(ROUTE_DBG_ERRORS, ctx, "%s: DUPLICATE route/maskbits %08x/%d-> nexthop %08x \n", "rib_add_route",
                  prefix, len, nexthop);
}

// Asks for the gateway, and programs a linked route when it is known already. Returns 0, also for a route that has to
// wait; 1 when the forwarding table refused.
int resolve_and_install(route_entry *entry, std::uint32_t route_id)
{
    const route_entry *const host = host_lookup_by_nexthop(route_id, entry->nexthop);
    const std::uint16_t ifid = host == nullptr ? std::uint16_t{0} : host->ifid;
    (void)request_gwy_resolution(&entry->nexthop, entry->ctx, ifid, SENSE_RESOLVE); // a failed call is logged there
    if (host == nullptr)
        return 0;
    entry->encap_id = host->encap_id;
    entry->ifid = host->ifid;
    return rib_add_mtrie_route(entry);
}

struct static_route {
    std::uint16_t ctx;
    std::uint16_t route_id;
    std::uint32_t prefix; // masked
    std::uint32_t len;
    std::uint32_t nexthop;
};

// A new entry, already in the next hop index and not linked yet; or null when memory is short.
route_entry *static_entry(const static_route &route)
{
    route_entry *const entry = rib_entry_alloc(MTRACK_ROUTE_ENTRY_3);
    if (entry == nullptr)
        return nullptr;
    entry->prefix = route.prefix;
    entry->len = route.len;
    entry->nexthop = route.nexthop;
    entry->ctx = route.ctx;
    entry->route_id = route.route_id;
    entry->flags = RIB_F_GATEWAY;
    if (rib_nexthop_index_add(entry))
        return entry;
    mtrack_free(entry);
    return nullptr;
}

} // namespace

std::uint32_t rib_add_route(std::uint16_t ctx, std::uint32_t route_id, std::uint32_t prefix, std::uint32_t mask,
                            std::uint32_t nexthop)
{
    const std::uint32_t len = count_mask_bit(mask);
    route_log(ROUTE_DBG_INFO, ctx, "%s: route_id (%d) route/maskbits %08x/%d-> nexthop %08x \n", "rib_add_route",
              route_id, prefix, len, nexthop);
    if (len > MAX_LEN)
        return 1;

    const std::uint32_t masked = prefix & rib_mask_table[len];
    rib_search_result search;
    if (rib_route_search(ctx, masked, len, &nexthop, rib_static_match, &search) != 0) {
        log_refusal(ctx, search.entry, masked, len, nexthop);
        return 1;
    }
    route_entry *const head = rib_set_at(search, masked, len);
    if (head != nullptr && head->ecmp_count == RIB_MAX_ECMP) {
        route_log(ROUTE_DBG_ERRORS, ctx, "%s: MAX ECMP exceed route/maskbits %08x/%d-> nexthop %08x \n",
                  "rib_add_route", masked, len, nexthop);
        return 1;
    }

    route_entry *const entry = rib_set_is_full(head)
                                   ? nullptr
                                   : static_entry({ctx, static_cast<std::uint16_t>(route_id), masked, len, nexthop});
    if (entry == nullptr) {
        route_log(ROUTE_DBG_ERRORS, ctx, "%s: Failed to allocate route entry\n", "rib_add_route");
        return 1;
    }

    card_ptr<route_entry> *const link = rib_link(entry, search, head);
    if (resolve_and_install(entry, route_id) == 0)
        return 0;

    if (head != nullptr)
        rib_ecmp_unlink(entry, link, head);
    else
        *link = entry->next;
    rib_static_discard(entry);
    return 1;
}

std::uint32_t rib_remove_route(std::uint16_t ctx, std::uint32_t, std::uint32_t prefix, std::uint32_t mask,
                               std::uint32_t nexthop)
{
    const std::uint32_t len = count_mask_bit(mask);
    rib_search_result search;
    if (rib_route_search(ctx, prefix, len, &nexthop, rib_nexthop_match, &search) == 0) {
        route_log(ROUTE_DBG_ERRORS, ctx, "could not find static route for ip=%x/%u", prefix, len);
        return 1;
    }

    if (!has_all(search.entry, RIB_F_ECMP)) {
        route_log(ROUTE_DBG_INFO, ctx, "unlinking non ecmp route for ip=%x/%u\n", prefix, len);
        *search.prev = search.entry->next;
    } else {
        route_log(ROUTE_DBG_INFO, ctx, "unlinking ecmp route for ip=%x/%u first:%s\n", prefix, len,
                  search.ecmp_head == nullptr ? "TRUE" : "FALSE");
        rib_ecmp_unlink(search.entry, search.prev, search.ecmp_head);
    }
    rib_static_discard(search.entry);
    route_log(ROUTE_DBG_INFO, ctx, "removed static route for ip=%x/%u\n", prefix, len);
    (void)route_flush_rt_cache(); // prints its own failure; the route is gone either way
    return 0;
}

std::uint32_t rib_max_ecmp_route(std::uint16_t ctx, std::uint32_t route_id, std::uint32_t prefix, std::uint32_t mask)
{
    const std::uint32_t len = count_mask_bit(mask);
    route_log(ROUTE_DBG_INFO, ctx, "rib_max_ecmp_route:  route_id (%d) ip/mask %08x/%d \n", route_id, prefix, len);
    if (len > MAX_LEN)
        return 1;

    const std::uint32_t masked = prefix & rib_mask_table[len];
    const route_entry *const head = rib_chain_entry(route_id, masked, len);
    if (head == nullptr || !head->ecmp || head->ecmp_count != RIB_MAX_ECMP)
        return 0;
    route_log(ROUTE_DBG_ERRORS, ctx, "rib_max_ecmp_route:  MAX ECMP exceeded for route_id (%d) ip/mask %08x/%d \n",
              route_id, masked, len);
    return 1;
}

int request_gwy_resolution(const std::uint32_t *gateway, std::uint16_t ctx, std::uint16_t ifid, std::uint8_t sense)
{
    const std::uint32_t address = *gateway;
    route_log(ROUTE_DBG_INFO, ctx, "call ARP_RESOLUTION for ifid =%d, ctxid=%d, ip=%d.%d.%d.%d sense = %d \n", ifid,
              ctx, address >> 24, address >> 16 & 0xff, address >> 8 & 0xff, address & 0xff, sense);
    const std::uint32_t result =
        tnrpc_call("tn_arp_add_entry", 6u, unsigned{RPC_ARG_U16}, std::uint32_t{ctx}, unsigned{RPC_ARG_U32},
                   std::uint32_t{ifid}, unsigned{RPC_ARG_U32}, address, unsigned{RPC_ARG_U32}, address,
                   unsigned{RPC_ARG_SMALL}, ARP_ENTRY_KIND, unsigned{RPC_ARG_SMALL}, std::uint32_t{sense});
    if (result != TNRPC_FAILED)
        return 0;
    route_log(ROUTE_DBG_ERRORS, ctx, "%s:TN RPC call tn_arp_add_entry() return err code %d\n", "request_gwy_resolution",
              -1);
    return -1;
}

route_entry *host_lookup_by_nexthop(std::uint32_t ctx, std::uint32_t nexthop)
{
    route_entry *const host = rib_find_prefix(
        ctx, nexthop, [](const route_entry *entry) { return has_all(entry, RIB_F_ARP_HOST | RIB_F_ARP_INSTALLED); });
    if (host == nullptr)
        route_log(ROUTE_DBG_INFO, ctx, "Host route entry not found for nexthop 0x%x ", nexthop);
    else
        route_log(ROUTE_DBG_INFO, ctx, "nexthop host =0x%x found, ifid %d, encapid %d\n", host->prefix, host->ifid,
                  host->encap_id);
    return host;
}

void rib_static_discard(route_entry *entry)
{
    rib_nexthop_index_remove(entry);
    entry->flags &= static_cast<std::uint16_t>(~RIB_F_GATEWAY);
    rib_remove_mtrie_route(entry);
    const std::uint32_t gateway = entry->nexthop;
    (void)request_gwy_resolution(&gateway, entry->route_id, entry->ifid, SENSE_WITHDRAW); // logged there
    mtrack_free(entry);
}

route_entry *int_lookup_by_addr(std::uint32_t ctx, std::uint32_t addr)
{
    route_entry *const entry =
        rib_find_prefix(ctx, addr, [](const route_entry *candidate) { return has_all(candidate, RIB_F_INTERFACE); });
    if (entry == nullptr)
        route_log(ROUTE_DBG_INFO, ctx, "interface route entry not found for addr 0x%x ", addr);
    else
        route_log(ROUTE_DBG_INFO, entry->ctx, "interface =0x%x found, ifid %d, encapid %d\n", entry->prefix,
                  entry->ifid, entry->encap_id);
    return entry;
}

route_entry *route_lookup_by_nexthop(std::uint32_t ctx, std::uint32_t nexthop)
{
    route_entry *const path =
        rib_nexthop_index_find(ctx, nexthop, [](const route_entry *route) { return has_all(route, RIB_F_IN_MTRIE); });
    if (path == nullptr)
        route_log(ROUTE_DBG_INFO, ctx, "static route entry not found for nextHop 0x%x ", nexthop);
    else if (!has_all(path, RIB_F_ECMP) || path->ecmp) // not a member of a set
        route_log(ROUTE_DBG_INFO, path->ctx, "static route =0x%x found, ifid %d, encapid %d\n", path->prefix,
                  path->ifid, path->encap_id);
    else
        route_log(ROUTE_DBG_INFO, path->ctx, "static ecmp_route =0x%x found, ifid %d, encapid %d\n", path->prefix,
                  path->ifid, path->encap_id);
    return path;
}
