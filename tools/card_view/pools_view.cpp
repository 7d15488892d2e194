// pools_view.cpp - the three pools, from either source.
//
// Elsewhere: asking for the counts (card_summary.cpp), counting in a table (table_view.cpp).
#include "pools_view.h"

namespace
{
pools_view pools_of(unsigned nodes, unsigned leaves, unsigned blocks, std::string source)
{
    return {{{{"nodes", nodes, HW_NODE_COUNT}, {"leaves", leaves, HW_LEAF_COUNT}, {"ecmp", blocks, HW_ECMP_COUNT}}},
            std::move(source)};
}

unsigned in_use(std::int32_t total) { return static_cast<unsigned>(total); } // of all contexts: never below 0
} // namespace

pools_view pools_from_summary(const card_summary &summary)
{
    const context_summary total = card_summary_total(summary);
    return pools_of(in_use(total.nodes), in_use(total.leaves), in_use(total.blocks), "route manager");
}

pools_view pools_from_table(const table_view &view)
{
    const table_use use = table_count(view);
    return pools_of(use.nodes, use.leaves, use.blocks, std::string("reachable in ") + TABLE_COPY_NAMES[view.copy]);
}
