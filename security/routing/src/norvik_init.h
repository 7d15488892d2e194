// norvik_init.h - the per-context trees at start-up, and the way to a context's table.
#pragma once

#include <cstdint>

#include "route_entry.h"

[[nodiscard]] int norvik_init_ixp_fib(); // 0, or the result of prefix_mgr_init

// The record of the context in the low 16 bits (0 to 255, not checked). Before the manager exists, an empty one.
prefix_tree *norvik_get_t(std::uint32_t context);
