// live_sync_steps.cpp - what is due in a context, and in which order it is done.
//
// A step looks at what is due, issues the changes that may run side by side, and leaves the rest to the steps after
// their answers. What is due is found anew each time, so a change of plan in between needs no rule of its own.
// Elsewhere: why these orders (live_sync.h), the changes themselves (live_sync_changes.cpp).
#include "live_sync_steps.h"

#include <algorithm>

#include "live_sync_changes.h"

namespace
{
// Whether something can be said about what was told: it is sure, or its time has come.
template <typename Told> bool is_ready(const live_sync &s, const Told &told)
{
    return told.is_sure || told.retry_ms <= s.now_ms;
}

bool is_port_right(const live_sync &s, std::uint32_t ifid, const sync_port &told)
{
    const auto wanted = s.ports.find(ifid);
    return wanted != s.ports.end() && wanted->second == told;
}

} // namespace

bool sync_is_port_told(const live_sync &s, std::uint32_t ifid)
{
    return std::any_of(s.contexts.begin(), s.contexts.end(),
                       [ifid](const sync_context &c) { return c.told.ports.count(ifid) != 0; });
}

bool sync_are_ports_right(const live_sync &s, std::uint32_t ctx)
{
    const sync_context &c = s.contexts[ctx];
    return std::all_of(c.told.ports.begin(), c.told.ports.end(),
                       [&s](const auto &told) { return is_port_right(s, told.first, told.second); }) &&
           std::all_of(s.ports.begin(), s.ports.end(), [&c, ctx](const auto &port) {
               return port.second.ctx != ctx || !sync_is_event_port(port.second) || c.told.ports.count(port.first) != 0;
           });
}

const sync_gateways &sync_wanted_route(const sync_context &c, const kernel_prefix &prefix)
{
    static const sync_gateways NONE;
    const auto found = c.routes.find(prefix);
    return found == c.routes.end() ? NONE : found->second;
}

const std::map<std::uint32_t, sync_told_path> &sync_told_route(const sync_context &c, const kernel_prefix &prefix)
{
    static const std::map<std::uint32_t, sync_told_path> NONE;
    const auto found = c.told.routes.find(prefix);
    return found == c.told.routes.end() ? NONE : found->second;
}

namespace
{

std::size_t missing_paths(const std::map<std::uint32_t, sync_told_path> &told, const sync_gateways &wanted)
{
    return static_cast<std::size_t>(std::count_if(wanted.begin(), wanted.end(),
                                                  [&told](std::uint32_t gateway) { return told.count(gateway) == 0; }));
}
} // namespace

// A prefix that no packet needs, and that would leave a gap if it came now: longer ones fill it.
bool sync_is_needless(const live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix)
{
    return s.contexts[ctx].told.routes.count(prefix) == 0 && told_is_filled_as_wanted(s, ctx, prefix);
}

namespace
{
// What the changes that are due add, with nothing taken before.
live_need need_of(const live_sync &s, std::uint32_t ctx)
{
    const sync_context &c = s.contexts[ctx];
    live_need need;
    for (const std::uint32_t address : c.hosts_due)
        if (c.hosts.count(address) != 0)
            told_need_add(c, sync_host_prefix(address), 1, need);
    for (const kernel_prefix &prefix : c.routes_due) {
        const sync_gateways &wanted = sync_wanted_route(c, prefix);
        const auto &told = sync_told_route(c, prefix);
        if (!wanted.empty())
            told_need_add(c, prefix, told.size() + missing_paths(told, wanted), need);
    }
    return need;
}

// Why the route of a prefix cannot change while its context forwards; null: it can.
const char *why_route_waits(const live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix)
{
    const sync_context &c = s.contexts[ctx];
    const sync_gateways &wanted = sync_wanted_route(c, prefix);
    const auto &told = sync_told_route(c, prefix);
    if (std::any_of(told.begin(), told.end(), [](const auto &path) { return !path.second.is_sure; }))
        return "a change of a route was refused or not answered";
    if (wanted.empty())
        return nullptr;
    if (std::any_of(wanted.begin(), wanted.end(), [&c](std::uint32_t gateway) { return c.hosts.count(gateway) == 0; }))
        return "a gateway is not announced";
    if (!told.empty())
        return told.size() + missing_paths(told, wanted) > SYNC_SET_PATHS ? "the paths of a full route change"
                                                                          : nullptr;
    if (c.told.kinds.count(prefix) != 0)
        return "the kind of a prefix changes";
    return told_is_filled(c, prefix) && !sync_is_needless(s, ctx, prefix) ? "longer prefixes fill one that comes"
                                                                          : nullptr;
}

const char *why_host_waits(const sync_context &c, std::uint32_t address)
{
    const auto wanted = c.hosts.find(address);
    const auto told = c.told.hosts.find(address);
    if (told == c.told.hosts.end())
        return c.told.kinds.count(sync_host_prefix(address)) != 0 ? "the kind of a prefix changes" : nullptr;
    if (!told->second.is_sure)
        return "a change of a host was refused or not answered";
    return wanted != c.hosts.end() && wanted->second.ifid != told->second.ifid ? "a neighbour moves" : nullptr;
}
} // namespace

// Why what is due has a moment that no packet may see; null: it has none.
const char *sync_why_waits(const live_sync &s, std::uint32_t ctx)
{
    const sync_context &c = s.contexts[ctx];
    if (!sync_are_ports_right(s, ctx))
        return "an interface changes";
    for (const std::uint32_t address : c.hosts_due)
        if (const char *const why = why_host_waits(c, address))
            return why;
    for (const kernel_prefix &prefix : c.routes_due)
        if (const char *const why = why_route_waits(s, ctx, prefix))
            return why;
    if (c.hosts_due.empty() && c.routes_due.empty())
        return nullptr;
    live_need need = need_of(s, ctx);
    need.sum.blocks = 0; // blocks are given back on the way
    return told_has_room(s, ctx, need) ? nullptr : "old and new routes together have no room";
}

namespace
{
bool is_host_sure(const sync_context &c, std::uint32_t address)
{
    const auto host = c.told.hosts.find(address);
    return host != c.told.hosts.end() && host->second.is_sure;
}

// Adds the paths of a prefix that are missing, as far as there is room. Returns whether any was.
bool add_missing(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix)
{
    const sync_context &c = s.contexts[ctx];
    bool has_added = false;
    const sync_gateways wanted = sync_wanted_route(c, prefix);
    for (const std::uint32_t gateway : wanted) {
        const auto &told = sync_told_route(c, prefix);
        if (told.count(gateway) != 0 || told.size() >= SYNC_SET_PATHS || !is_host_sure(c, gateway))
            continue;
        live_need need;
        told_need_add(c, prefix, told.size() + 1, need);
        if (!told_has_room(s, ctx, need))
            break;
        sync_add_path(s, ctx, prefix, gateway);
        has_added = true;
    }
    return has_added;
}

// Takes the paths of a prefix that are not wanted. Returns whether there was any.
bool take_unwanted(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix)
{
    const sync_gateways &wanted = sync_wanted_route(s.contexts[ctx], prefix);
    std::vector<std::uint32_t> gateways;
    for (const auto &path : sync_told_route(s.contexts[ctx], prefix))
        if (wanted.count(path.first) == 0)
            gateways.push_back(path.first);
    for (const std::uint32_t gateway : gateways)
        sync_take_path(s, ctx, prefix, gateway);
    return !gateways.empty();
}

bool announce_missing(live_sync &s, std::uint32_t ctx)
{
    const sync_context &c = s.contexts[ctx];
    const std::set<std::uint32_t> due = c.hosts_due;
    const unsigned before = c.pending;
    for (const std::uint32_t address : due) {
        const auto wanted = c.hosts.find(address);
        live_need need;
        told_need_add(c, sync_host_prefix(address), 1, need);
        if (wanted != c.hosts.end() && c.told.hosts.count(address) == 0 && told_has_room(s, ctx, need))
            sync_announce(s, ctx, address, wanted->second);
    }
    return c.pending != before;
}

// Hosts that are not wanted and that no route goes through.
bool withdraw_unwanted(live_sync &s, std::uint32_t ctx)
{
    const sync_context &c = s.contexts[ctx];
    const std::set<std::uint32_t> due = c.hosts_due;
    const unsigned before = c.pending;
    for (const std::uint32_t address : due)
        if (c.hosts.count(address) == 0 && c.told.hosts.count(address) != 0 && c.told.via.count(address) == 0)
            sync_withdraw(s, ctx, address);
    return c.pending != before;
}

using prefixes_by_length = std::array<std::vector<kernel_prefix>, SYNC_ADDRESS_BITS + 1>;

prefixes_by_length by_length(const sync_context &c)
{
    prefixes_by_length lists;
    for (const kernel_prefix &prefix : c.routes_due)
        lists[prefix.length].push_back(prefix);
    return lists;
}
} // namespace

// One step of a context that forwards; sync_why_waits has nothing against it. Returns whether there was anything to do.
bool sync_gentle_step(live_sync &s, std::uint32_t ctx)
{
    if (announce_missing(s, ctx))
        return true;
    const sync_context &c = s.contexts[ctx];
    const prefixes_by_length due = by_length(c);
    bool has_done = false;
    for (auto list = due.rbegin(); list != due.rend() && !has_done; ++list) {
        bool is_whole = true; // of this length nothing is missing
        for (const kernel_prefix &prefix : *list) {
            if (sync_is_needless(s, ctx, prefix))
                continue;
            has_done = add_missing(s, ctx, prefix) || has_done;
            is_whole = is_whole && missing_paths(sync_told_route(c, prefix), sync_wanted_route(c, prefix)) == 0;
        }
        if (has_done)
            break;
        for (const kernel_prefix &prefix : *list)
            if (c.routes.count(prefix) != 0 &&
                missing_paths(sync_told_route(c, prefix), sync_wanted_route(c, prefix)) == 0)
                has_done = take_unwanted(s, ctx, prefix) || has_done; // which may make room for the next
        if (!is_whole)
            return has_done;
    }
    for (auto list = due.begin(); list != due.end() && !has_done; ++list)
        for (const kernel_prefix &prefix : *list)
            has_done = take_unwanted(s, ctx, prefix) || has_done;
    return has_done || withdraw_unwanted(s, ctx);
}

namespace
{
// Hosts that have to go before anything comes: not wanted, on another port, on a port that changes, or not sure.
std::set<std::uint32_t> leaving_hosts(const live_sync &s, std::uint32_t ctx)
{
    const sync_context &c = s.contexts[ctx];
    std::set<std::uint32_t> leaving;
    for (const std::uint32_t address : c.hosts_due) {
        const auto told = c.told.hosts.find(address);
        if (told == c.told.hosts.end())
            continue;
        const auto wanted = c.hosts.find(address);
        const bool is_right =
            wanted != c.hosts.end() && wanted->second.ifid == told->second.ifid && told->second.is_sure;
        if (!is_right && is_ready(s, told->second))
            leaving.insert(address);
    }
    for (const auto &[ifid, port] : c.told.ports) {
        if (is_port_right(s, ifid, port))
            continue;
        for (const auto &[address, host] : c.told.hosts)
            if (host.ifid == ifid && is_ready(s, host))
                leaving.insert(address);
    }
    return leaving;
}

// Routes below the subnet of a port that is to come up and that they would fill.
void add_fillers(const live_sync &s, std::uint32_t ctx, std::set<std::pair<kernel_prefix, std::uint32_t>> *paths)
{
    const sync_context &c = s.contexts[ctx];
    for (const auto &[ifid, port] : s.ports) {
        if (port.ctx != ctx || !sync_is_event_port(port) || c.told.ports.count(ifid) != 0)
            continue;
        const kernel_prefix subnet = told_port_prefixes(port)[1];
        // The port's own address comes first, and may be what fills it.
        const bool may_fill = told_is_filled(c, subnet) || c.told.kinds.count(sync_host_prefix(port.address)) == 0;
        for (auto route = c.told.routes.lower_bound(subnet);
             may_fill && route != c.told.routes.end() && kernel_prefix_covers(subnet, route->first.address); ++route)
            for (const auto &path : route->second)
                paths->emplace(route->first, path.first);
    }
}

// Takes paths that are not wanted, not sure, or in the way. Returns whether there was any.
bool clear_routes(live_sync &s, std::uint32_t ctx, const std::set<std::uint32_t> &leaving)
{
    const sync_context &c = s.contexts[ctx];
    std::set<std::pair<kernel_prefix, std::uint32_t>> paths;
    for (const kernel_prefix &prefix : c.routes_due)
        for (const auto &[gateway, path] : sync_told_route(c, prefix))
            if (sync_wanted_route(c, prefix).count(gateway) == 0 || !path.is_sure)
                paths.emplace(prefix, gateway);
    for (const std::uint32_t address : leaving)
        if (const auto via = c.told.via.find(address); via != c.told.via.end())
            for (const kernel_prefix &prefix : via->second)
                paths.emplace(prefix, address);
    add_fillers(s, ctx, &paths);
    const unsigned before = c.pending;
    for (const auto &[prefix, gateway] : paths)
        if (is_ready(s, sync_told_route(c, prefix).at(gateway)))
            sync_take_path(s, ctx, prefix, gateway);
    return c.pending != before;
}

bool take_ports_down(live_sync &s, std::uint32_t ctx)
{
    bool has_done = false;
    for (const auto &[ifid, port] : s.contexts[ctx].told.ports)
        if (!is_port_right(s, ifid, port)) {
            sync_port_down(s, ifid, port);
            has_done = true;
        }
    return has_done;
}

bool take_ports_up(live_sync &s, std::uint32_t ctx)
{
    bool has_done = false;
    for (const auto &[ifid, port] : s.ports) {
        if (port.ctx != ctx || !sync_is_event_port(port) || sync_is_port_told(s, ifid))
            continue;
        live_need need;
        for (const kernel_prefix &prefix : told_port_prefixes(port))
            told_need_add(s.contexts[ctx], prefix, 1, need);
        if (!told_has_room(s, ctx, need))
            continue;
        sync_port_up(s, ifid, port);
        has_done = true;
    }
    return has_done;
}
} // namespace

// One step of a context that no packet is answered by. Returns whether there was anything to do.
bool sync_strict_step(live_sync &s, std::uint32_t ctx)
{
    const std::set<std::uint32_t> leaving = leaving_hosts(s, ctx);
    if (clear_routes(s, ctx, leaving))
        return true;
    const sync_context &c = s.contexts[ctx];
    for (const std::uint32_t address : leaving)
        if (c.told.via.count(address) == 0) // else a route through it waits for its next try
            sync_withdraw(s, ctx, address);
    if (!leaving.empty())
        return c.pending != 0;
    if (take_ports_down(s, ctx) || take_ports_up(s, ctx))
        return true;
    if (!sync_are_ports_right(s, ctx))
        return false; // one is another context's still, or there is no room for it
    if (announce_missing(s, ctx))
        return true;
    bool has_done = false;
    for (const std::vector<kernel_prefix> &list : by_length(c)) // shorter ones first: none is filled
        for (const kernel_prefix &prefix : list)
            if (!sync_is_needless(s, ctx, prefix))
                has_done = add_missing(s, ctx, prefix) || has_done;
    return has_done;
}
