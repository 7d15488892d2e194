// live_room.h - what the card's contents need of the pools that all trees share: nodes, leaves, blocks of paths.
//
// A tree has strides 8-8-8-8 and starts with its root. A prefix needs a leaf, and the nodes on its way: one for its
// first 8 bits when it is longer, one for 16 and one for 24. /0 has its leaf from the start. A second path needs a
// block. Counted, because an add that the pools refuse keeps a leaf until the route manager restarts.
// Elsewhere: what is held when not all fits (live_fit.cpp).
#pragma once

#include <cstdint>
#include <map>

#include "kernel_state.h"

struct live_room {
    std::int32_t nodes = 0, leaves = 0, blocks = 0;
    bool operator==(const live_room &) const = default;
};
constexpr live_room operator+(const live_room &a, const live_room &b)
{
    return {a.nodes + b.nodes, a.leaves + b.leaves, a.blocks + b.blocks};
}
constexpr live_room operator-(const live_room &a, const live_room &b)
{
    return {a.nodes - b.nodes, a.leaves - b.leaves, a.blocks - b.blocks};
}
constexpr bool live_room_fits(const live_room &need, const live_room &room)
{
    return need.nodes <= room.nodes && need.leaves <= room.leaves && need.blocks <= room.blocks;
}

// What there is for all contexts together, when no one else adds routes, hosts or NAT prefixes.
extern const live_room LIVE_ROOM_ALL;
// What there is beside that, for changes under way.
extern const live_room LIVE_ROOM_SPARE;

// The need of one tree, beside what it has when it is made.
struct live_need {
    live_room sum;
    std::map<kernel_prefix, std::uint32_t> nodes; // by the bits before the node: how many prefixes go through it
    bool operator==(const live_need &) const = default;
};
// One entry more, or one less that was added. paths: 1 also for what goes up.
void live_need_add(live_need &need, const kernel_prefix &prefix, std::size_t paths);
void live_need_take(live_need &need, const kernel_prefix &prefix, std::size_t paths);

// The longest range around a prefix that needs no node that is not there. The prefix itself, when it needs none.
kernel_prefix live_need_reach(const live_need &need, const kernel_prefix &prefix);
