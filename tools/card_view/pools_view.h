// pools_view.h - how full the hardware tables are.
//
// A running route manager is asked what it has handed out: the sum over the trees is exactly what is in use. Without
// one, what can be reached from the roots of a mapped table is counted; that may be less, since a leaf that more
// specific routes hide wholly is in use and cannot be reached. Always: `source` says which of the two counts it is.
#pragma once

#include <array>
#include <string>

#include "card_summary.h"
#include "table_view.h"

struct pool_use {
    const char *name; // "nodes", "leaves", "ecmp"
    unsigned used, total;
};

struct pools_view {
    std::array<pool_use, 3> pools;
    std::string source; // "route manager", or "reachable in ixp1" and the like
};

pools_view pools_from_summary(const card_summary &summary);
pools_view pools_from_table(const table_view &view);
