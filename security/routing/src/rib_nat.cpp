// rib_nat.cpp - NAT pools: one route entry a prefix, programmed while its interface is up.
//
// A pool is added whole or not at all. The roll-back of a failed add removes every prefix of the range that has the
// pool's encap id, also those that were there before.
// Odd, and meant: a NAT entry is removed by its chain link alone, so that the members of a set that formed behind it
// are unlinked with it.
// Elsewhere: the prefixes (nat_range.cpp), an interface that comes up or goes down (rib_interface.cpp).
#include "rib_nat.h"

#include <cstdio>

#include "if_mgr.h"
#include "mtrack.h"
#include "nat_range.h"
#include "prefix_mgr.h"
#include "rib_nexthop_index.h"
#include "rib_show.h"
#include "rib_table.h"
#include "route_log.h"

namespace
{
constexpr std::size_t ADDRESS_BYTES = 20;
constexpr int IF_UP = 1;

struct learned_search {
    std::uint32_t range[2]; // low, high
    bool seen;
};

std::uint32_t is_learned(route_entry *entry, void *arg)
{
    return rib_nat_learned_match(entry, static_cast<learned_search *>(arg)->range);
}

std::uint32_t note_learned(route_entry *, void *arg)
{
    static_cast<learned_search *>(arg)->seen = true;
    return 1;
}

bool covers_learned_host(std::uint16_t ctx, std::uint32_t low, std::uint32_t high)
{
    learned_search search = {{low, high}, false};
    std::uint16_t list = 0, bucket = 0;
    std::uint32_t position = 0;
    route_traversal(ctx, &list, &bucket, &position, 0, is_learned, note_learned, &search);
    return search.seen;
}

// The pool's prefixes, logged and printed under the procedure's name.
std::int32_t pool_prefixes(std::uint16_t ctx, const char *procedure, std::uint32_t nat_addr, std::uint32_t range,
                           nat_prefix *list)
{
    std::int32_t count = 0;
    (void)ipv4_range2prefix(ctx, nat_addr, nat_addr + range - 1, list, &count); // always 0
    route_log(ROUTE_DBG_INFO, ctx, "%s: context_id (%d) number of prefix(%i)\n", procedure, static_cast<int>(ctx),
              count);
    print_pfxlist(ctx, list, count);
    return count;
}
} // namespace

std::uint32_t rib_add_nat_pool(std::uint16_t ctx, std::uint16_t ifid, std::uint32_t nat_addr, std::uint32_t range,
                               std::uint16_t ixp)
{
    char address[ADDRESS_BYTES];
    (void)format_ip(nat_addr, address, 0);
    route_log(ROUTE_DBG_INFO, ctx, "%s: **context_id (%d) natAddr/range %s/%d ixp %d \n", "rib_add_nat_pool",
              static_cast<int>(ctx), address, static_cast<int>(range), static_cast<int>(ixp));
    nat_prefix list[NAT_PREFIX_MAX];
    const std::int32_t count = pool_prefixes(ctx, "rib_add_nat_pool", nat_addr, range, list);
    for (std::int32_t i = 0; i < count; ++i) {
        if (rib_add_nat_route(ctx, ctx, ifid, list[i].net, list[i].mask, ixp) == 0)
            continue;
        route_log(ROUTE_DBG_ERRORS, ctx, "%s: add NAT failed, addr 0x%x/0x%x, ixp %d\n", "rib_add_nat_pool",
                  list[i].net, list[i].mask, static_cast<int>(ixp));
        (void)rib_remove_nat_pool(ctx, ifid, nat_addr, range, ixp); // always 0
        return 1;
    }
    return 0;
}

std::uint32_t rib_remove_nat_pool(std::uint16_t ctx, std::uint16_t, std::uint32_t nat_addr, std::uint32_t range,
                                  std::uint16_t ixp)
{
    char address[ADDRESS_BYTES];
    (void)format_ip(nat_addr, address, 0);
    route_log(ROUTE_DBG_INFO, ctx, "%s: context_id (%d) natAddr/range %s/%d ixp %d \n", "rib_remove_nat_pool",
              static_cast<int>(ctx), address, static_cast<int>(range), static_cast<int>(ixp));
    nat_prefix list[NAT_PREFIX_MAX];
    const std::int32_t count = pool_prefixes(ctx, "rib_remove_nat_pool", nat_addr, range, list);
    for (std::int32_t i = 0; i < count; ++i)
        if (rib_remove_nat_route(ctx, ctx, list[i].net, list[i].mask, ixp) != 0)
            route_log(ROUTE_DBG_ERRORS, ctx, "%s: delete NAT failed, addr 0x%x/0x%x, ixp %d\n", "rib_remove_nat_pool",
                      list[i].net, list[i].mask, static_cast<int>(ixp));
    return 0;
}

std::uint32_t rib_add_nat_route(std::uint16_t ctx, std::uint16_t route_id, std::uint16_t ifid, std::uint32_t addr,
                                std::uint32_t mask, std::uint16_t encap)
{
    const std::uint32_t len = count_mask_bit(mask);
    const int status = if_get_status(ifid);
    if (len > 32)
        return 1;
    const std::uint32_t net = addr & rib_mask_table[len];
    if (covers_learned_host(ctx, net & mask, net | ~mask)) {
        route_log(ROUTE_DBG_ERRORS, ctx, "nat range includes learned entry%08x/%d encap %d\n", net,
                  static_cast<int>(len), static_cast<int>(encap));
        return 1;
    }
    rib_search_result search;
    if (rib_route_search(route_id, net, len, nullptr, nullptr, &search) != 0) {
        route_log(ROUTE_DBG_ERRORS, ctx, "nat DUPLICATE %08x/%d encap %d \n", net, static_cast<int>(len),
                  static_cast<int>(encap));
        return 1;
    }
    route_entry *entry = rib_entry_alloc(MTRACK_ROUTE_ENTRY_2);
    if (entry == nullptr) {
        route_log(ROUTE_DBG_ERRORS, ctx, "nat rib malloc fail %08x/%d encap %d \n", net, static_cast<int>(len),
                  static_cast<int>(encap));
        return 1;
    }
    entry->prefix = net;
    entry->len = len;
    entry->ctx = ctx;
    entry->route_id = route_id;
    entry->ifid = ifid;
    entry->encap_id = encap;
    entry->flags = RIB_F_NAT;
    rib_chain_insert(route_id, entry, search.prev);
    if (status == IF_UP) {
        if (prefix_mgr_route_add(wired_table_mgr, entry) == 0) {
            route_log(ROUTE_DBG_ERRORS, ctx, "mtrie add nat fail: rte_id:%d %08x/%d encap %04x\n",
                      static_cast<int>(route_id), entry->prefix, static_cast<int>(len), static_cast<unsigned>(encap));
            *search.prev = entry->next;
            mtrack_free(entry);
            return 1;
        }
        entry->flags |= RIB_F_NAT_IN_MTRIE;
    }
    route_log(ROUTE_DBG_INFO, ctx, "nat added route_id:%d %08x/%d encap %d \n", static_cast<int>(route_id), net,
              static_cast<int>(len), static_cast<int>(encap));
    return 0;
}

std::uint32_t rib_remove_nat_route(std::uint16_t ctx, std::uint16_t route_id, std::uint32_t addr, std::uint32_t mask,
                                   std::uint16_t encap)
{
    const std::uint32_t len = count_mask_bit(mask);
    if (len > 32)
        return 1;
    const std::uint32_t net = addr & rib_mask_table[len];
    rib_search_result search;
    if (rib_route_search(route_id, net, len, &encap, rib_nat_encap_match, &search) == 0) {
        route_log(ROUTE_DBG_ERRORS, ctx, "nat entry not found in rib 0x%x/%d encap %d\n", net, static_cast<int>(len),
                  static_cast<int>(encap));
        return 1;
    }
    route_entry *entry = search.entry;
    if ((entry->flags & RIB_F_NAT_IN_MTRIE) != 0 && prefix_mgr_route_remove(wired_table_mgr, entry) == 0)
        route_log(ROUTE_DBG_ERRORS, entry->ctx, "NAT remove from mtrie failed rte_id:%d %08x/%d encapid %04x\n",
                  static_cast<int>(route_id), entry->prefix, static_cast<int>(entry->len), entry->encap_id);
    entry->flags &= static_cast<std::uint16_t>(~RIB_F_NAT);
    *search.prev = entry->next;
    rib_nexthop_index_remove_set(entry);
    mtrack_free(entry);
    route_log(ROUTE_DBG_INFO, ctx, "removed nat entry:0x%x/%d, encap %d\n", net, static_cast<int>(len),
              static_cast<int>(encap));
    return 0;
}
