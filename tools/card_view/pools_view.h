// pools_view.h - how full the hardware tables are.
//
// A running route manager tells what it has handed out (exact: the sum over the trees is what is in use). Without one
// the mapped table tells what can be reached from the roots: a leaf that more specific routes hide wholly is handed
// out and not reachable, so that count may be lower. Which of the two it is, the source says.
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
