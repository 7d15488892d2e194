// live_room.cpp - counts what entries need of the shared pools.
#include "live_room.h"

#include <algorithm>

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

// Entries longer than `prefix` that cover `address`, the longest first.
std::vector<kernel_prefix> longer_around(const std::set<kernel_prefix> &held, const kernel_prefix &prefix,
                                         std::uint32_t address)
{
    std::vector<kernel_prefix> found;
    for (std::uint32_t length = 32; length > prefix.length; --length)
        if (held.count(kernel_prefix_of(address, length)) != 0)
            found.push_back(kernel_prefix_of(address, length));
    return found;
}

// What it means to take entries out for a moment: a host takes the routes through it along.
std::size_t cost_of(const std::vector<kernel_prefix> &entries, const std::set<kernel_prefix> &fixed)
{
    constexpr std::size_t FIXED = 10'000, HOST = 100, ROUTE = 1;
    std::size_t cost = 0;
    for (const kernel_prefix &entry : entries)
        cost += fixed.count(entry) != 0 ? FIXED : entry.length == 32 ? HOST : ROUTE;
    return cost;
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

std::vector<kernel_prefix> live_room_fillers(const std::set<kernel_prefix> &held, const std::set<kernel_prefix> &fixed,
                                             const kernel_prefix &prefix)
{
    std::vector<kernel_prefix> best;
    std::uint64_t next = prefix.address; // the first address that none covers so far
    const std::uint32_t last = kernel_prefix_last(prefix);
    for (auto at = held.lower_bound(prefix); at != held.end() && at->address <= last; ++at) {
        if (at->length <= prefix.length)
            continue;
        if (at->address > next)
            return {};
        next = std::max<std::uint64_t>(next, std::uint64_t{kernel_prefix_last(*at)} + 1);
        std::vector<kernel_prefix> around = longer_around(held, prefix, at->address);
        if (best.empty() || cost_of(around, fixed) < cost_of(best, fixed))
            best = std::move(around);
    }
    return next > last ? best : std::vector<kernel_prefix>{};
}
