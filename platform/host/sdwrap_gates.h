// sdwrap_gates.h - switching the debug and history gates. For platform/host only.
#pragma once

#include <cstdint>

#include "debug_service.h"

// Whether `category` is one of those registered with sdwrap_dbg_init.
bool sdwrap_is_registered(std::uint32_t category);

// Opens or closes the debug gate of `category` (DEBUG_ALL_CATEGORIES: every registered one) for `context` (0 to 255,
// or DEBUG_ALL_CONTEXTS). A category that is not registered or another context: nothing.
void sdwrap_switch_debug(std::uint32_t category, std::uint32_t context, bool open);

// The same for the history gate of a category.
void sdwrap_switch_history(std::uint32_t category, bool open);

// Closes the debug gate of the first category, which is open for failures before the history is set up.
void sdwrap_close_early_gate();
