// live_wants.h - what is wanted of the card, from the plan in the form that is told.
//
// Pure. Always: after live_wants_all the rules want what the plan says and nothing else; live_wants_scope brings them
// there when only what the scope names has changed.
// Elsewhere: the plan (live_plan.h), what becomes of it (live_sync.h).
#pragma once

#include <cstdint>
#include <string>

#include "kernel_state.h"
#include "live_plan.h"
#include "live_sync.h"

// held: why every context has to be held back, besides what the plan says; empty: none.
void live_wants_all(live_sync &sync, const live_plan &plan, const kernel_state &state, const std::string &held);
void live_wants_scope(live_sync &sync, const live_plan &plan, const kernel_state &state, const live_scope &scope);
// The MAC addresses of these neighbours may have changed.
void live_wants_neighbours(live_sync &sync, const live_plan &plan, const kernel_state &state,
                           const std::set<std::pair<int, std::uint32_t>> &neighbours);
