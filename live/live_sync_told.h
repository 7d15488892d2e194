// live_sync_told.h - the books of what the route manager was told: sets, what stands where, what the pools hold.
//
// For live_sync.cpp only. Always: `via`, `kinds`, the counts of the pools and what is due follow from routes, hosts and
// ports; only the functions here change them.
#pragma once

#include "live_sync.h"

constexpr std::uint32_t SYNC_ADDRESS_BITS = 32;

void told_set_path(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway,
                   const sync_told_path &path);
void told_drop_path(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway);
void told_set_host(live_sync &s, std::uint32_t ctx, std::uint32_t address, const sync_told_host &host);
void told_drop_host(live_sync &s, std::uint32_t ctx, std::uint32_t address);
void told_set_port(live_sync &s, std::uint32_t ifid, const sync_port &port);
void told_drop_port(live_sync &s, std::uint32_t ctx, std::uint32_t ifid);
// The route manager knows nothing: of any context.
void told_clear(live_sync &s);

// What is wanted has changed.
void told_look_route(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix);
void told_look_host(live_sync &s, std::uint32_t ctx, std::uint32_t address);

// The prefixes that the route manager makes for a port: address, subnet, its first and its last address.
std::array<kernel_prefix, 4> told_port_prefixes(const sync_port &port);

// Whether longer prefixes that were told, or that are wanted, leave no address to `prefix`.
bool told_is_filled(const sync_context &c, const kernel_prefix &prefix);
bool told_is_filled_as_wanted(const live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix);

// Adds what a route of so many paths would need beside what was told; a host is a route of one path.
void told_need_add(const sync_context &c, const kernel_prefix &prefix, std::size_t paths, live_need &need);
bool told_has_room(const live_sync &s, std::uint32_t ctx, const live_need &need);
