// rib_nat.h - NAT pools: a run of addresses becomes prefixes, each a route of its own.
#pragma once

#include <cstdint>

// Remote procedures. range: number of addresses; ixp: encap id of the pool's routes.
std::uint32_t rib_add_nat_pool(std::uint16_t ctx, std::uint16_t ifid, std::uint32_t nat_addr, std::uint32_t range,
                               std::uint16_t ixp); // 0, or 1 with nothing of the pool left
std::uint32_t rib_remove_nat_pool(std::uint16_t ctx, std::uint16_t ifid, std::uint32_t nat_addr, std::uint32_t range,
                                  std::uint16_t ixp); // always 0

std::uint32_t rib_add_nat_route(std::uint16_t ctx, std::uint16_t route_id, std::uint16_t ifid, std::uint32_t addr,
                                std::uint32_t mask, std::uint16_t encap); // 0 added, 1 refused or failed
std::uint32_t rib_remove_nat_route(std::uint16_t ctx, std::uint16_t route_id, std::uint32_t addr, std::uint32_t mask,
                                   std::uint16_t encap); // 0 removed, 1 not found
