// live_adopt.h - what a route manager that was there before us knows, from its own listings.
//
// Waits for the answers: it is asked before the loop begins. Always: a call or event of an earlier process of ours that
// is still on its way runs before the listings are made.
// Elsewhere: what becomes of it (live_sync.h).
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <tuple>

#include "live_maps.h"
#include "live_sync.h"

// Static routes of the operator's own file, which stay as they are: context, prefix, gateway.
using live_extra_routes = std::set<std::tuple<std::uint32_t, kernel_prefix, std::uint32_t>>;
// The `route add` lines of a batch for routectl; any other line has no part in it.
live_extra_routes live_extra_read(const std::string &text);

// Takes what the route manager lists. is_searched: its table is the one that is searched. Returns 0, or 1 with a
// reason; then nothing is known of it.
[[nodiscard]] int live_adopt(live_sync &sync, const live_maps &maps, const live_extra_routes &extra, bool is_searched,
                             unsigned timeout_ms, std::string *why);
