// kernel_state.cpp - the kernel's own rules over its records: which route of a prefix counts, and what a lookup finds.
//
// A lookup goes through the tables in the order of the rules. In a table the longest prefix counts, and of its routes
// the one with the lowest metric; a route with a TOS comes before those without, and only for packets that have it.
// Always: where the records do not tell how a packet leaves, the answer is `other`, never a guess.
#include "kernel_state.h"

#include <algorithm>

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

namespace
{
constexpr std::uint16_t NUD_HAS_MAC =
    NUD_PERMANENT | NUD_NOARP | NUD_REACHABLE | NUD_PROBE | NUD_STALE | NUD_DELAY; // the kernel's NUD_VALID

std::uint32_t mask_of(std::uint32_t length) { return length == 0 ? 0 : 0xFFFFFFFFu << (32 - length); }

void count_gateways(kernel_table &table, const kernel_prefix &prefix, const std::vector<kernel_route> &routes, int by)
{
    for (const kernel_route &route : routes)
        for (const kernel_hop &hop : route.hops) {
            if (hop.gateway == 0)
                continue;
            auto &prefixes = table.gateways[hop.gateway];
            if ((prefixes[prefix] += by) == 0)
                prefixes.erase(prefix);
            if (prefixes.empty())
                table.gateways.erase(hop.gateway);
        }
}

// The keys of two maps whose values differ.
template <typename Map, typename Note> void note_differences(const Map &from, const Map &to, Note note)
{
    auto a = from.begin();
    auto b = to.begin();
    while (a != from.end() || b != to.end()) {
        if (b == to.end() || (a != from.end() && a->first < b->first)) {
            note(a->first);
            ++a;
        } else if (a == from.end() || b->first < a->first) {
            note(b->first);
            ++b;
        } else {
            if (!(a->second == b->second))
                note(a->first);
            ++a;
            ++b;
        }
    }
}

// Whether the kernel takes a path at all. is_clear: becomes false when that is not sure.
bool is_used(const kernel_state &state, const kernel_hop &hop, bool *is_clear)
{
    const auto link = state.links.find(hop.ifindex);
    const bool is_up = link != state.links.end() && link->second.is_up;
    // A path over a link that is down is dead, else it goes or comes to life any moment. One that is to be passed over
    // without carrier is told as dead too, but a set of paths keeps to it until the kernel weighs the set again.
    if (is_up == hop.is_dead || (is_up && !link->second.has_carrier && kernel_ignores_linkdown(state, hop.ifindex)))
        *is_clear = false;
    return !hop.is_dead;
}

kernel_answer other(const char *reason) { return {kernel_verdict::other, {}, reason}; }

kernel_answer unicast_answer(const kernel_state &state, const kernel_route &route)
{
    if (!route.is_plain)
        return other("an MTU, an encapsulation or another attribute");
    kernel_answer answer{kernel_verdict::paths, {}, ""};
    bool is_clear = true;
    for (const kernel_hop &hop : route.hops) {
        if (!is_used(state, hop, &is_clear))
            continue;
        if (!hop.is_plain)
            return other("an encapsulation, or a gateway of another family");
        answer.hops.push_back(hop);
    }
    if (route.hops.empty())
        return other("a next hop that is not told");
    if (answer.hops.empty() || !is_clear)
        return other("over a link that is down");
    std::sort(answer.hops.begin(), answer.hops.end());
    for (const kernel_hop &hop : answer.hops)
        if (hop.weight != answer.hops.front().weight)
            return other("paths of different weights");
    for (kernel_hop &hop : answer.hops)
        hop.weight = 1;
    return answer;
}

bool is_alike(const kernel_route &a, const kernel_route &b)
{
    return a.type == b.type && a.is_plain == b.is_plain && a.hops == b.hops;
}
} // namespace

kernel_prefix kernel_prefix_of(std::uint32_t address, std::uint32_t length)
{
    return {address & mask_of(length), length};
}

bool kernel_prefix_covers(const kernel_prefix &prefix, std::uint32_t address)
{
    return ((address ^ prefix.address) & mask_of(prefix.length)) == 0;
}

std::uint32_t kernel_prefix_last(const kernel_prefix &prefix) { return prefix.address | ~mask_of(prefix.length); }

bool kernel_neighbour_is_known(const kernel_neighbour &neighbour)
{
    return (neighbour.state & NUD_HAS_MAC) != 0 && neighbour.mac != 0;
}

bool kernel_link_is_alike(const kernel_link &a, const kernel_link &b)
{
    kernel_link like_a = b;
    like_a.has_carrier = a.has_carrier;
    like_a.is_running = a.is_running;
    like_a.mac = a.mac;
    like_a.mtu = a.mtu;
    return like_a == a;
}

bool kernel_ignores_linkdown(const kernel_state &state, int ifindex)
{
    const auto ignores = [&state](int index) {
        const auto found = state.netconfs.find(index);
        return found != state.netconfs.end() && found->second.ignores_linkdown;
    };
    return ignores(ifindex) || ignores(KERNEL_ALL_LINKS);
}

void kernel_changes_add_link(kernel_changes &to, int ifindex, bool is_carrier_only)
{
    const bool is_new = to.links.insert(ifindex).second;
    if (!is_carrier_only)
        to.carriers.erase(ifindex);
    else if (is_new)
        to.carriers.insert(ifindex);
}

void kernel_changes_add(kernel_changes &to, const kernel_changes &from)
{
    for (const int link : from.links)
        kernel_changes_add_link(to, link, from.carriers.count(link) != 0);
    to.neighbours.insert(from.neighbours.begin(), from.neighbours.end());
    to.routes.insert(from.routes.begin(), from.routes.end());
    to.rules = to.rules || from.rules;
}

kernel_changes kernel_state_difference(const kernel_state &from, const kernel_state &to)
{
    kernel_changes changes;
    const auto note_link = [&changes](int ifindex) { kernel_changes_add_link(changes, ifindex, false); };
    note_differences(from.links, to.links, [&](int ifindex) {
        const auto a = from.links.find(ifindex), b = to.links.find(ifindex);
        const bool is_in_both = a != from.links.end() && b != to.links.end();
        kernel_changes_add_link(changes, ifindex, is_in_both && kernel_link_is_alike(a->second, b->second));
    });
    note_differences(from.netconfs, to.netconfs, note_link);
    note_differences(from.addresses, to.addresses, note_link);
    note_differences(from.neighbours, to.neighbours, [&changes](const auto &key) { changes.neighbours.insert(key); });
    static const kernel_table NO_TABLE;
    const auto table_of = [](const kernel_state &state, std::uint32_t id) -> const kernel_table & {
        const auto found = state.tables.find(id);
        return found == state.tables.end() ? NO_TABLE : found->second;
    };
    note_differences(from.tables, to.tables, [&](std::uint32_t id) {
        note_differences(table_of(from, id).routes, table_of(to, id).routes, [&](const kernel_prefix &prefix) {
            changes.routes.insert({id, prefix});
        });
    });
    changes.rules = from.rules != to.rules;
    return changes;
}

bool kernel_table_set(kernel_table &table, const kernel_prefix &prefix, std::vector<kernel_route> routes)
{
    const auto found = table.routes.find(prefix);
    if (found == table.routes.end()) {
        if (routes.empty())
            return false;
        count_gateways(table, prefix, routes, 1);
        ++table.lengths[prefix.length];
        table.routes.emplace(prefix, std::move(routes));
        return true;
    }
    if (found->second == routes)
        return false;
    count_gateways(table, prefix, routes, 1);
    count_gateways(table, prefix, found->second, -1);
    if (routes.empty()) {
        --table.lengths[prefix.length];
        table.routes.erase(found);
    } else {
        found->second = std::move(routes);
    }
    return true;
}

const std::vector<kernel_route> *kernel_table_find(const kernel_table &table, const kernel_prefix &prefix)
{
    const auto found = table.routes.find(prefix);
    return found == table.routes.end() ? nullptr : &found->second;
}

const std::pair<const kernel_prefix, std::vector<kernel_route>> *
kernel_table_match(const kernel_table &table, std::uint32_t address, std::uint32_t max_length)
{
    for (std::uint32_t length = max_length + 1; length-- > 0;) {
        if (table.lengths[length] == 0)
            continue;
        const auto found = table.routes.find(kernel_prefix_of(address, length));
        if (found != table.routes.end())
            return &*found;
    }
    return nullptr;
}

kernel_answer kernel_routes_answer(const kernel_state &state, const std::vector<kernel_route> &routes)
{
    const kernel_route *best = nullptr;
    for (const kernel_route &route : routes) {
        if (route.tos != 0)
            return other("a route with a TOS");
        if (best == nullptr || route.metric < best->metric)
            best = &route;
    }
    if (best == nullptr)
        return {};
    for (const kernel_route &route : routes)
        if (route.metric == best->metric && !is_alike(route, *best))
            return other("several routes of one metric");
    switch (best->type) {
    case RTN_UNICAST:
        return unicast_answer(state, *best);
    case RTN_THROW:
        return {kernel_verdict::no_path, {}, "throw"};
    case RTN_LOCAL:
        return other("an address of this host");
    case RTN_BROADCAST:
        return other("a broadcast address of this host");
    case RTN_BLACKHOLE:
        return other("blackhole");
    case RTN_UNREACHABLE:
        return other("unreachable");
    case RTN_PROHIBIT:
        return other("prohibit");
    default:
        return other("a route of a special type");
    }
}

kernel_answer kernel_table_lookup(const kernel_state &state, std::uint32_t table, std::uint32_t address)
{
    const auto found = state.tables.find(table);
    if (found == state.tables.end())
        return other("a table that is not followed");
    const auto *const match = kernel_table_match(found->second, address);
    return match == nullptr ? kernel_answer{} : kernel_routes_answer(state, match->second);
}

kernel_answer kernel_lookup(const kernel_state &state, const std::vector<std::uint32_t> &tables, std::uint32_t address)
{
    for (const std::uint32_t table : tables) {
        kernel_answer answer = kernel_table_lookup(state, table, address);
        if (answer.verdict != kernel_verdict::no_path)
            return answer;
    }
    return {};
}
