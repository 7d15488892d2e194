// live_sync_changes.h - the single changes: a route's path, a host, an interface, an encapsulation.
//
// For the files of live_sync only. Always: a change is written down as not sure when it is issued, and made sure, or
// taken out, by its answer; an answer to a route manager that has gone changes nothing.
#pragma once

#include "live_sync.h"
#include "live_sync_told.h"

constexpr std::uint64_t SYNC_NEVER = UINT64_MAX;

constexpr kernel_prefix sync_host_prefix(std::uint32_t address) { return {address, SYNC_ADDRESS_BITS}; }
// Whether the route manager gets events of the port.
constexpr bool sync_is_event_port(const sync_port &port) { return port.has_event && port.is_up; }

std::uint64_t sync_ask_barrier(live_sync &s); // its ticket

// ---- Calls. Each is counted in the context's `pending` until it is answered. ----
void sync_add_path(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway);
void sync_take_path(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway);
void sync_announce(live_sync &s, std::uint32_t ctx, std::uint32_t address, const sync_host &host);
void sync_withdraw(live_sync &s, std::uint32_t ctx, std::uint32_t address);

// ---- Events, each behind the record of the database ----
void sync_port_up(live_sync &s, std::uint32_t ifid, const sync_port &port);
void sync_port_down(live_sync &s, std::uint32_t ifid, const sync_port &told);
void sync_write_record(live_sync &s, std::uint32_t ifid); // as it is wanted

// ---- Encapsulations ----
// The words of an address: on the port where it is wanted its MAC address, on any other nothing.
void sync_store_words(live_sync &s, std::uint32_t ctx, std::uint32_t address);
// Starts to give an id back when no table names it, and gives back those whose barrier has passed.
void sync_review_encap(live_sync &s, std::uint32_t id);
void sync_review_encaps(live_sync &s);
void sync_retire_encaps(live_sync &s);
