// rib_check.h - the audit of a context's routes.
#pragma once

#include <cstdint>

// Chain order, buckets, sets, flags, and the next hop index beside them. Returns 0, or the number of rules broken.
[[nodiscard]] int rib_check(std::uint32_t ctx);
