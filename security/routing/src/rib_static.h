// rib_static.h - static routes, their ECMP sets, and the resolution of their gateways.
#pragma once

#include <cstdint>

#include "route_entry.h"

constexpr unsigned RIB_MAX_ECMP = 8; // paths of a set, its head included

// Remote procedures. mask: dotted, as a number.
std::uint32_t rib_add_route(std::uint16_t ctx, std::uint32_t route_id, std::uint32_t prefix, std::uint32_t mask,
                            std::uint32_t nexthop); // 0 accepted, 1 refused or failed
std::uint32_t rib_remove_route(std::uint16_t ctx, std::uint32_t route_id, std::uint32_t prefix, std::uint32_t mask,
                               std::uint32_t nexthop); // 0 removed, 1 not found
std::uint32_t rib_max_ecmp_route(std::uint16_t ctx, std::uint32_t route_id, std::uint32_t prefix,
                                 std::uint32_t mask); // 1 the set is full, 0 it is not

int request_gwy_resolution(const std::uint32_t *gateway, std::uint16_t ctx, std::uint16_t ifid,
                           std::uint8_t sense); // 0, or -1 when the call failed
route_entry *host_lookup_by_nexthop(std::uint32_t ctx, std::uint32_t nexthop);
void rib_static_discard(route_entry *entry); // the last steps of a removal: FIB, resolution, memory
route_entry *int_lookup_by_addr(std::uint32_t ctx, std::uint32_t addr);
route_entry *route_lookup_by_nexthop(std::uint32_t ctx, std::uint32_t nexthop);
