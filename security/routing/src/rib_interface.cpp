// rib_interface.cpp - an interface's own routes, and what is removed with them when it goes down.
//
// Four routes an interface: its address, its subnet, and the subnet's first and last address, added in this order and
// taken back in reverse when one is refused. Each change is announced to the card.
// Elsewhere: the routes themselves (rib_host.cpp), the events that call this file (route_events.cpp).
#include "rib_interface.h"

#include "big_endian.h"
#include "if_mgr.h"
#include "interface_events.h"
#include "mtrack.h"
#include "mts.h"
#include "prefix_mgr.h"
#include "rib_host.h"
#include "rib_mtrie.h"
#include "rib_nexthop_index.h"
#include "rib_show.h"
#include "rib_table.h"
#include "route_log.h"
#include "route_mts.h"

namespace
{
constexpr std::uint16_t LOCAL_ENCAP = 0x8001; // packets to the card itself
constexpr std::uint16_t SUBNET_FLAGS = RIB_F_INTERFACE | RIB_F_CONNECTED;

struct interface_route {
    std::uint32_t prefix;
    std::uint32_t len;
    std::uint16_t flags;
    std::uint16_t encap_id;
};

std::uint32_t network_of(std::uint32_t addr, std::uint32_t len)
{
    // Odd, and meant: for length 0 nothing is shifted, and the "network" is the address itself.
    return addr & (0xFFFFFFFFu << (32 - len) % 32);
}

// head: start of the line; the two operations differ in a blank.
void log_interface(const char *head, std::uint16_t ctx, std::uint16_t ifid, std::uint32_t addr, std::uint32_t len)
{
    route_log(ROUTE_DBG_INFO, ctx, "%sifid =%d, ip=%d.%d.%d.%d  maskbits =%d\n", head, static_cast<int>(ifid),
              static_cast<int>(addr >> 24), static_cast<int>(addr >> 16 & 0xFF), static_cast<int>(addr >> 8 & 0xFF),
              static_cast<int>(addr & 0xFF), static_cast<int>(len));
}

void remove_route(const interface_route &route, std::uint16_t ctx)
{
    (void)route_remove_rib_and_mtrie_entry(RIB_OBJ_INTERFACE, route.flags, route.prefix, route.len, ctx,
                                           RIB_FREE_ENTRY); // freed there; a missing one is logged there
}

void announce(std::uint32_t opcode, std::uint32_t ctx, std::uint32_t addr, std::uint32_t mask, std::uint16_t ifid)
{
    std::uint8_t record[IFANN_BYTES];
    put_be32(record + IFANN_AT_CTX, ctx);
    put_be32(record + IFANN_AT_ADDR, addr);
    put_be32(record + IFANN_AT_MASK, mask);
    put_be32(record + IFANN_AT_IFID, ifid);
    const mts_address everyone = {MTS_NODE_BROADCAST, 0};
    (void)mts_send(route_mts_q, &everyone, opcode, record, sizeof record); // a receiver that missed it is counted
}

// Unlinks a host that was learned on the interface, takes it out of the forwarding table and frees it.
void drop_host(card_ptr<route_entry> *link)
{
    route_entry *host = *link;
    *link = host->next;
    rib_nexthop_index_remove_set(host);
    if ((host->flags & RIB_F_ARP_INSTALLED) != 0) {
        if (prefix_mgr_route_remove(wired_table_mgr, host) != 0)
            route_log(ROUTE_DBG_INFO, host->ctx,
                      "norvik_remove_host_ifdown: (1) Removed OK routeid (%d) %08x/%d nexthop %08x encapid %04x\n",
                      static_cast<int>(host->route_id), host->prefix, static_cast<int>(host->len), host->nexthop,
                      host->encap_id);
        else
            route_log(ROUTE_DBG_ERRORS, host->ctx,
                      "norvik_remove_host_ifdown: (1) Unable to remove routeid (%d) %08x/%d nexthop %08x encapid "
                      "%04x\n",
                      static_cast<int>(host->route_id), host->prefix, static_cast<int>(host->len), host->nexthop,
                      host->encap_id);
    }
    mtrack_free(host);
}

// A static route that is programmed through a gateway strictly between `net` and `broadcast`.
bool goes_through(const route_entry *entry, std::uint32_t net, std::uint32_t broadcast)
{
    constexpr std::uint16_t INSTALLED = RIB_F_GATEWAY | RIB_F_IN_MTRIE;
    return (entry->flags & INSTALLED) == INSTALLED && entry->nexthop > net && entry->nexthop < broadcast;
}

void withdraw(route_entry *entry)
{
    rib_remove_mtrie_route(entry);
    entry->ifid = 0;
    entry->encap_id = 0;
}

std::uint32_t is_nat_of(route_entry *entry, void *ifid) { return rib_nat_ifid_match(entry, ifid); }

std::uint32_t nat_up(route_entry *entry, void *)
{
    if ((entry->flags & RIB_F_NAT_IN_MTRIE) != 0) {
        route_log(ROUTE_DBG_ERRORS, entry->ctx, "NAT entry up for down intf %x/%d ifid:%d\n", entry->prefix,
                  static_cast<int>(entry->len), static_cast<int>(entry->ifid));
        return 0;
    }
    if (prefix_mgr_route_add(wired_table_mgr, entry) != 0) {
        entry->flags |= RIB_F_NAT_IN_MTRIE;
        return 1;
    }
    route_log(ROUTE_DBG_ERRORS, entry->ctx, "NAT entry mtrie add failed %x/%d ifid:%d (%d)\n", entry->prefix,
              static_cast<int>(entry->len), static_cast<int>(entry->ifid), 0);
    return 0;
}

std::uint32_t nat_down(route_entry *entry, void *)
{
    if ((entry->flags & RIB_F_NAT_IN_MTRIE) == 0) {
        route_log(ROUTE_DBG_ERRORS, entry->ctx, "NAT entry down for up intf %x/%d ifid:%d\n", entry->prefix,
                  static_cast<int>(entry->len), static_cast<int>(entry->ifid));
        return 0;
    }
    if (prefix_mgr_route_remove(wired_table_mgr, entry) != 0) {
        entry->flags &= static_cast<std::uint16_t>(~RIB_F_NAT_IN_MTRIE);
        return 1;
    }
    route_log(ROUTE_DBG_ERRORS, entry->ctx, "NAT entry mtrie remove failed %x/%d ifid:%d (%d)\n", entry->prefix,
              static_cast<int>(entry->len), static_cast<int>(entry->ifid), 0);
    return 0;
}

void walk_nat(std::uint16_t ctx, std::uint16_t ifid, route_action action)
{
    std::uint16_t list = 0, bucket = 0;
    std::uint32_t position = 0;
    route_traversal(ctx, &list, &bucket, &position, 0, is_nat_of, action, &ifid);
}
} // namespace

std::uint32_t norvik_add_interface(std::uint32_t addr, std::uint32_t mask, std::uint16_t ifid, std::uint16_t ctx,
                                   std::uint32_t notify)
{
    const std::uint32_t len = count_mask_bit(mask);
    log_interface("norvik_add_interface:", ctx, ifid, addr, len);
    const interface_route routes[] = {
        {addr, 32, RIB_F_INTERFACE, LOCAL_ENCAP},
        {addr, len, SUBNET_FLAGS, 0},
        {network_of(addr, len), 32, RIB_F_INTERFACE, LOCAL_ENCAP},
        {addr | ~mask, 32, RIB_F_INTERFACE, LOCAL_ENCAP},
    };
    for (unsigned i = 0; i < 4; ++i) {
        if (route_add_rib_and_mtrie_entry(routes[i].flags, routes[i].encap_id, RIB_OBJ_INTERFACE, routes[i].prefix,
                                          routes[i].len, ifid, ctx) != nullptr)
            continue;
        while (i > 0)
            remove_route(routes[--i], ctx);
        return 1;
    }
    norvik_add_nat_ifup(ctx, ifid);
    if (notify != 0)
        announce(MTS_OPC_ROUTE_IF_ADDED, static_cast<std::uint32_t>(if_get_context_id(ifid)), addr, mask, ifid);
    return 0;
}

std::uint32_t norvik_remove_interface(std::uint32_t addr, std::uint32_t mask, std::uint16_t ifid, std::uint16_t ctx,
                                      std::uint32_t cleanup, std::uint32_t)
{
    const std::uint32_t len = count_mask_bit(mask);
    log_interface("norvik_remove_interface: ", ctx, ifid, addr, len);
    remove_route({addr, 32, RIB_F_INTERFACE, LOCAL_ENCAP}, ctx);
    remove_route({network_of(addr, len), 32, RIB_F_INTERFACE, LOCAL_ENCAP}, ctx);
    remove_route({addr | ~mask, 32, RIB_F_INTERFACE, LOCAL_ENCAP}, ctx);
    remove_route({addr, len, SUBNET_FLAGS, 0}, ctx);
    if (cleanup != 0) {
        norvik_remove_host_ifdown(ctx, addr);
        norvik_remove_static_ifdown(ctx, addr, mask);
        announce(MTS_OPC_ROUTE_IF_REMOVED, ctx, addr, mask, ifid);
    }
    (void)route_flush_rt_cache(); // prints its own failure
    return 0;
}

void norvik_remove_host_ifdown(std::uint16_t ctx, std::uint32_t addr)
{
    route_log(ROUTE_DBG_INFO, ctx, "norvik_remove_host_ifdown(ip 0x%x)\n", addr);
    rib_place place;
    for (; card_ptr<route_entry> *link = rib_next_bucket(ctx, &place); ++place.bucket)
        while (route_entry *entry = *link) {
            if ((entry->flags & RIB_F_ARP_HOST) != 0 && entry->nexthop == addr)
                drop_host(link);
            else
                link = &entry->next;
        }
    route_log(ROUTE_DBG_INFO, ctx, "DONE: norvik_remove_host_ifdown(ip 0x%x)\n", addr);
}

void norvik_remove_static_ifdown(std::uint16_t ctx, std::uint32_t addr, std::uint32_t mask)
{
    route_log(ROUTE_DBG_INFO, ctx, "norvik_remove_static_ifdown(ip 0x%x)\n", addr);
    const std::uint32_t net = addr & mask, broadcast = net | ~mask;
    (void)rib_find_entry(ctx, [net, broadcast](route_entry *entry) {
        if (goes_through(entry, net, broadcast)) {
            route_log(ROUTE_DBG_INFO, entry->ctx, "remove_static_ifdown route =0x%x found, ifid %d, encapid %d\n",
                      entry->prefix, static_cast<int>(entry->ifid), static_cast<int>(entry->encap_id));
            withdraw(entry);
        }
        for (route_entry *member = entry->ecmp; member != nullptr; member = member->next)
            if (goes_through(member, net, broadcast))
                withdraw(member);
        return false;
    });
    route_log(ROUTE_DBG_INFO, ctx, "DONE: norvik_remove_static_ifdown(ip 0x%x)\n", addr);
}

void norvik_remove_nat_ifdown(std::uint16_t ctx, std::uint16_t ifid) { walk_nat(ctx, ifid, nat_down); }

void norvik_add_nat_ifup(std::uint16_t ctx, std::uint16_t ifid) { walk_nat(ctx, ifid, nat_up); }
