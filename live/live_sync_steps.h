// live_sync_steps.h - the next changes of one context, and whether they may be made while it forwards.
//
// For the files of live_sync only. Always: the changes of one step may take effect in any order.
#pragma once

#include "live_sync.h"

// Why what is due has a moment that no packet may see; null: it has none.
const char *sync_why_waits(const live_sync &s, std::uint32_t ctx);

// One step of a context that forwards; sync_why_waits has nothing against it. Returns whether there was anything to do.
bool sync_gentle_step(live_sync &s, std::uint32_t ctx);

// One step of a context that no packet is answered by: it is held back, or its table is not searched.
bool sync_strict_step(live_sync &s, std::uint32_t ctx);

// A prefix that no packet needs, and that would leave a gap if it came now: longer ones fill it.
bool sync_is_needless(const live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix);

// Whether the route manager has the context's ports as they are wanted.
bool sync_are_ports_right(const live_sync &s, std::uint32_t ctx);

bool sync_is_port_told(const live_sync &s, std::uint32_t ifid); // in any context

// The paths of a prefix that were told; none when it was not.
const std::map<std::uint32_t, sync_told_path> &sync_told_route(const sync_context &c, const kernel_prefix &prefix);
// The gateways of a prefix; none when it is not wanted.
const sync_gateways &sync_wanted_route(const sync_context &c, const kernel_prefix &prefix);
