// slowpath_lookup.h - the next hop of a packet that the processors could not forward, from the RIB.
#pragma once

#include <cstdint>

// Remote procedure. Returns 0 with the next hop (host order), or 1 with *nexthop 0.
std::uint32_t slowpath_route_lookup(std::uint16_t ctx, std::uint32_t addr, std::uint32_t *nexthop);
std::uint32_t slowpath_no_default_route_lookup(std::uint16_t ctx, std::uint32_t addr, std::uint32_t *nexthop);
std::uint32_t slowpath_default_route_lookup(std::uint16_t ctx, std::uint32_t *nexthop);
