// live_sync_told.cpp - the books of what the route manager was told.
//
// Elsewhere: what a prefix needs of the pools (live_room.h).
#include "live_sync_told.h"

#include <algorithm>

namespace
{
std::uint32_t mask_of(std::uint32_t length) { return length == 0 ? 0 : 0xFFFFFFFFu << (SYNC_ADDRESS_BITS - length); }

// Counts one more or one less in the context's pools and in the sum of all.
void count(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix,
           void (*change)(live_need &, const kernel_prefix &, std::size_t))
{
    live_need &need = s.contexts[ctx].told.need;
    s.used = s.used - need.sum;
    change(need, prefix, 1);
    s.used = s.used + need.sum;
}

void count_block(live_sync &s, std::uint32_t ctx, std::int32_t more)
{
    s.contexts[ctx].told.need.sum.blocks += more;
    s.used.blocks += more;
}

void kind_add(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, unsigned kind)
{
    unsigned &kinds = s.contexts[ctx].told.kinds[prefix];
    const bool is_new = kinds == 0;
    kinds |= kind;
    if (is_new)
        count(s, ctx, prefix, live_need_add);
}

void kind_take(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, unsigned kind)
{
    auto &kinds = s.contexts[ctx].told.kinds;
    const auto found = kinds.find(prefix);
    if (found == kinds.end() || (found->second &= ~kind) != 0)
        return;
    kinds.erase(found);
    count(s, ctx, prefix, live_need_take);
}

kernel_prefix host_prefix(std::uint32_t address) { return {address, SYNC_ADDRESS_BITS}; }

std::uint64_t last_of(const kernel_prefix &prefix) { return prefix.address | ~mask_of(prefix.length); }

// next(start, length): the shortest of the prefixes that begin at `start` and are longer than `length`; 0: none.
template <typename Next> bool is_filled(const kernel_prefix &prefix, Next next)
{
    std::uint64_t start = prefix.address;
    while (start <= last_of(prefix)) {
        const std::uint32_t length = next(static_cast<std::uint32_t>(start), prefix.length);
        if (length == 0)
            return false;
        start += std::uint64_t{1} << (SYNC_ADDRESS_BITS - length);
    }
    return true;
}

template <typename Map> std::uint32_t next_in(const Map &map, std::uint32_t start, std::uint32_t length)
{
    const auto found = map.lower_bound(kernel_prefix{start, length + 1});
    return found == map.end() || found->first.address != start ? 0 : found->first.length;
}
} // namespace

std::array<kernel_prefix, 4> told_port_prefixes(const sync_port &port)
{
    const std::uint32_t network = port.address & port.mask;
    std::uint32_t length = 0;
    while (length < SYNC_ADDRESS_BITS && (port.mask & 0x80000000u >> length) != 0)
        ++length;
    return {host_prefix(port.address), kernel_prefix{network, length}, host_prefix(network),
            host_prefix(network | ~port.mask)};
}

void told_look_route(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix)
{
    sync_context &c = s.contexts[ctx];
    const auto wanted = c.routes.find(prefix);
    const auto told = c.told.routes.find(prefix);
    s.has_changed = true;
    c.is_compared = false;
    bool is_same = (wanted == c.routes.end()) == (told == c.told.routes.end());
    if (is_same && told != c.told.routes.end())
        is_same = wanted->second.size() == told->second.size() &&
                  std::all_of(told->second.begin(), told->second.end(), [wanted](const auto &path) {
                      return path.second.is_sure && wanted->second.count(path.first) != 0;
                  });
    if (is_same)
        c.routes_due.erase(prefix);
    else
        c.routes_due.insert(prefix);
}

void told_look_host(live_sync &s, std::uint32_t ctx, std::uint32_t address)
{
    sync_context &c = s.contexts[ctx];
    const auto wanted = c.hosts.find(address);
    const auto told = c.told.hosts.find(address);
    s.has_changed = true;
    c.is_compared = false;
    const bool has_wanted = wanted != c.hosts.end(), has_told = told != c.told.hosts.end();
    const bool is_same =
        has_wanted == has_told && (!has_told || (told->second.is_sure && told->second.ifid == wanted->second.ifid));
    if (is_same)
        c.hosts_due.erase(address);
    else
        c.hosts_due.insert(address);
}

void told_set_path(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway,
                   const sync_told_path &path)
{
    sync_told &told = s.contexts[ctx].told;
    auto &paths = told.routes[prefix];
    if (paths.empty())
        kind_add(s, ctx, prefix, SYNC_ROUTE);
    if (paths.count(gateway) == 0 && paths.size() == 1)
        count_block(s, ctx, 1);
    paths[gateway] = path;
    told.via[gateway].insert(prefix);
    told_look_route(s, ctx, prefix);
}

void told_drop_path(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway)
{
    sync_told &told = s.contexts[ctx].told;
    const auto route = told.routes.find(prefix);
    if (route == told.routes.end() || route->second.erase(gateway) == 0)
        return;
    const auto via = told.via.find(gateway);
    via->second.erase(prefix);
    if (via->second.empty())
        told.via.erase(via);
    if (route->second.size() == 1)
        count_block(s, ctx, -1);
    if (route->second.empty()) {
        told.routes.erase(route);
        kind_take(s, ctx, prefix, SYNC_ROUTE);
    }
    told_look_route(s, ctx, prefix);
}

void told_set_host(live_sync &s, std::uint32_t ctx, std::uint32_t address, const sync_told_host &host)
{
    kind_add(s, ctx, host_prefix(address), SYNC_HOST);
    s.contexts[ctx].told.hosts[address] = host;
    told_look_host(s, ctx, address);
}

void told_drop_host(live_sync &s, std::uint32_t ctx, std::uint32_t address)
{
    if (s.contexts[ctx].told.hosts.erase(address) == 0)
        return;
    kind_take(s, ctx, host_prefix(address), SYNC_HOST);
    told_look_host(s, ctx, address);
}

void told_set_port(live_sync &s, std::uint32_t ifid, const sync_port &port)
{
    for (const kernel_prefix &prefix : told_port_prefixes(port))
        kind_add(s, port.ctx, prefix, SYNC_INTERFACE);
    s.contexts[port.ctx].told.ports[ifid] = port;
    s.contexts[port.ctx].is_compared = false;
    s.has_changed = true;
}

void told_drop_port(live_sync &s, std::uint32_t ctx, std::uint32_t ifid)
{
    sync_told &told = s.contexts[ctx].told;
    const auto found = told.ports.find(ifid);
    if (found == told.ports.end())
        return;
    for (const kernel_prefix &prefix : told_port_prefixes(found->second))
        kind_take(s, ctx, prefix, SYNC_INTERFACE);
    told.ports.erase(found);
    s.contexts[ctx].is_compared = false;
    s.has_changed = true;
}

void told_clear(live_sync &s)
{
    for (sync_context &c : s.contexts) {
        c.told = {};
        c.pending = 0;
        c.refusals.clear();
        c.routes_due.clear();
        c.hosts_due.clear();
        c.is_compared = false;
        for (const auto &route : c.routes)
            c.routes_due.insert(route.first);
        for (const auto &host : c.hosts)
            c.hosts_due.insert(host.first);
    }
    s.used = {};
    s.has_changed = true;
}

bool told_is_filled(const sync_context &c, const kernel_prefix &prefix)
{
    return is_filled(prefix, [&c](std::uint32_t start, std::uint32_t length) {
        return length == SYNC_ADDRESS_BITS ? 0 : next_in(c.told.kinds, start, length);
    });
}

bool told_is_filled_as_wanted(const live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix)
{
    const sync_context &c = s.contexts[ctx];
    std::map<kernel_prefix, unsigned> own;
    for (const auto &[ifid, port] : s.ports)
        if (port.ctx == ctx && port.has_event && port.is_up)
            for (const kernel_prefix &made : told_port_prefixes(port))
                own[made] = SYNC_INTERFACE;
    return is_filled(prefix, [&](std::uint32_t start, std::uint32_t length) {
        if (length == SYNC_ADDRESS_BITS)
            return 0u;
        std::uint32_t least = next_in(c.routes, start, length);
        for (const std::uint32_t other :
             {next_in(own, start, length), c.hosts.count(start) != 0 ? SYNC_ADDRESS_BITS : 0u})
            if (other != 0 && (least == 0 || other < least))
                least = other;
        return least;
    });
}

void told_need_add(const sync_context &c, const kernel_prefix &prefix, std::size_t paths, live_need &need)
{
    if (c.told.kinds.count(prefix) == 0)
        live_need_add(need, prefix, paths);
    else if (const auto told = c.told.routes.find(prefix);
             told != c.told.routes.end() && told->second.size() == 1 && paths > 1)
        ++need.sum.blocks;
}

bool told_has_room(const live_sync &s, std::uint32_t ctx, const live_need &need)
{
    live_room more = need.sum;
    for (const auto &node : need.nodes)
        more.nodes -= static_cast<std::int32_t>(s.contexts[ctx].told.need.nodes.count(node.first));
    return live_room_fits(s.used + more, LIVE_ROOM_ALL + LIVE_ROOM_SPARE);
}
