// live_room.cpp - counts what entries need of the shared pools.
#include "live_room.h"

#include "card_view/card_summary.h"
#include "route_ids.h"
#include "route_table.h"

namespace
{
constexpr std::int32_t TREES = ROUTE_CONTEXTS;
// A path is added before one is taken, so a set comes about where there was one path; a few leaves for what is
// announced before its predecessor is withdrawn.
constexpr live_room SPARE = {0, 4, 1};

constexpr std::uint32_t STRIDE = 8, LAST_NODE = 24;

// Calls `visit` with the bits before each node, below the root, on the way to a prefix.
template <typename Visit> void visit_nodes(const kernel_prefix &prefix, Visit visit)
{
    for (std::uint32_t length = STRIDE; length <= LAST_NODE && length < prefix.length; length += STRIDE)
        visit(kernel_prefix_of(prefix.address, length));
}

std::int32_t leaves_of(const kernel_prefix &prefix) { return prefix.length == 0 ? 0 : 1; }
std::int32_t blocks_of(std::size_t paths) { return paths > 1 ? 1 : 0; }
} // namespace

const live_room LIVE_ROOM_ALL =
    live_room{HW_NODE_COUNT - TREES * CONTEXT_UNUSED.nodes, HW_LEAF_COUNT - TREES *CONTEXT_UNUSED.leaves,
              HW_ECMP_COUNT - TREES *CONTEXT_UNUSED.blocks} -
    SPARE;
const live_room LIVE_ROOM_SPARE = SPARE;

void live_need_add(live_need &need, const kernel_prefix &prefix, std::size_t paths)
{
    visit_nodes(prefix, [&need](const kernel_prefix &node) {
        if (++need.nodes[node] == 1)
            ++need.sum.nodes;
    });
    need.sum.leaves += leaves_of(prefix);
    need.sum.blocks += blocks_of(paths);
}

void live_need_take(live_need &need, const kernel_prefix &prefix, std::size_t paths)
{
    visit_nodes(prefix, [&need](const kernel_prefix &node) {
        const auto found = need.nodes.find(node);
        if (--found->second != 0)
            return;
        need.nodes.erase(found);
        --need.sum.nodes;
    });
    need.sum.leaves -= leaves_of(prefix);
    need.sum.blocks -= blocks_of(paths);
}

kernel_prefix live_need_reach(const live_need &need, const kernel_prefix &prefix)
{
    kernel_prefix reach = prefix;
    bool is_whole = true;
    visit_nodes(prefix, [&](const kernel_prefix &node) {
        if (is_whole && need.nodes.count(node) == 0) {
            reach = node;
            is_whole = false;
        }
    });
    return reach;
}
