// rib_interface.h - an interface's own routes, and what is removed with them when it goes down.
#pragma once

#include <cstdint>

// Adds the interface's address, subnet, network and broadcast routes, programs its NAT routes, and with notify non-zero
// announces it to the card. Returns 0, or 1 with none of the routes left.
std::uint32_t norvik_add_interface(std::uint32_t addr, std::uint32_t mask, std::uint16_t ifid, std::uint16_t ctx,
                                   std::uint32_t notify);
// Removes them; with cleanup (the routing mode) non-zero also the hosts learned on it and the static routes through its
// subnet, and announces it. deleted: not used. Returns 0.
std::uint32_t norvik_remove_interface(std::uint32_t addr, std::uint32_t mask, std::uint16_t ifid, std::uint16_t ctx,
                                      std::uint32_t cleanup, std::uint32_t deleted);
void norvik_remove_host_ifdown(std::uint16_t ctx, std::uint32_t addr);
void norvik_remove_static_ifdown(std::uint16_t ctx, std::uint32_t addr, std::uint32_t mask);
void norvik_remove_nat_ifdown(std::uint16_t ctx, std::uint16_t ifid);
void norvik_add_nat_ifup(std::uint16_t ctx, std::uint16_t ifid);
