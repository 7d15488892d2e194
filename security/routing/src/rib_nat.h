// rib_nat.h - NAT pools: a run of addresses becomes prefixes, each a route of its own.
#pragma once

#include <cstdint>

constexpr unsigned NAT_PREFIX_MAX = 64; // of one pool; a range never needs more than 62

struct nat_prefix {
    std::uint32_t mask;
    std::uint32_t net;
    std::uint32_t len;
};

// Remote procedures. range: number of addresses; ixp: encap id of the pool's routes.
std::uint32_t rib_add_nat_pool(std::uint16_t ctx, std::uint16_t ifid, std::uint32_t nat_addr, std::uint32_t range,
                               std::uint16_t ixp); // 0, or 1 with nothing of the pool left
std::uint32_t rib_remove_nat_pool(std::uint16_t ctx, std::uint16_t ifid, std::uint32_t nat_addr, std::uint32_t range,
                                  std::uint16_t ixp); // always 0

std::uint32_t rib_add_nat_route(std::uint16_t ctx, std::uint16_t route_id, std::uint16_t ifid, std::uint32_t addr,
                                std::uint32_t mask, std::uint16_t encap); // 0 added, 1 refused or failed
std::uint32_t rib_remove_nat_route(std::uint16_t ctx, std::uint16_t route_id, std::uint32_t addr, std::uint32_t mask,
                                   std::uint16_t encap); // 0 removed, 1 not found

// The smallest list of aligned prefixes for from..to, appended to `list` (NAT_PREFIX_MAX elements); adds to *count.
std::uint32_t ipv4_range2prefix(std::int32_t ctx, std::uint32_t from, std::uint32_t to, nat_prefix *list,
                                std::int32_t *count); // always 0
void print_pfxlist(std::int32_t ctx, const nat_prefix *list, std::int32_t n);
std::int32_t ip_integer2ip(std::uint32_t addr, char *dst, std::uint32_t size); // 0, or -1
