// live_fit.cpp - what the card is to hold when the pools have no room for all that is wanted.
//
// Routes are taken in by their length, shorter ones first, gateways with the first route that needs them, other hosts
// last. What finds no room goes up, and so does the smallest range around it for which there is an entry.
// Always: nothing is left out under an entry that forwards. A host is left out without more: the route by which the
// kernel reaches it goes up, or leads to the same neighbour.
#include <algorithm>
#include <array>
#include <vector>

#include "live_plan.h"

namespace
{
struct fit {
    live_plan &plan;
    const live_room &room;
    std::map<std::uint32_t, live_need> needs;       // by context
    std::map<std::uint32_t, std::uint64_t> lengths; // a bit for each length that an entry of the context has had
};

std::size_t path_count(const live_route &route) { return std::max<std::size_t>(1, route.paths.size()); }

bool has_room(const fit &f) { return live_room_fits(f.plan.used, f.room); }

// Adds an entry to the counts, or takes it out.
void count(fit &f, std::uint32_t ctx, const kernel_prefix &prefix, std::size_t paths,
           void (*change)(live_need &, const kernel_prefix &, std::size_t))
{
    live_need &need = f.needs.at(ctx);
    const live_room before = need.sum;
    change(need, prefix, paths);
    f.plan.used = f.plan.used + (need.sum - before);
}

void put(fit &f, std::uint32_t ctx, const kernel_prefix &prefix, const live_route &route)
{
    live_contents &card = f.plan.contexts.at(ctx).card;
    count(f, ctx, prefix, path_count(route), live_need_add);
    for (const live_path &path : route.paths) {
        const auto [host, is_new] = card.hosts.try_emplace(path.gateway, live_host{path.ifindex, 0});
        ++host->second.uses;
        if (is_new)
            count(f, ctx, kernel_prefix_of(path.gateway, 32), 1, live_need_add);
    }
    card.routes.emplace(prefix, route);
    f.lengths[ctx] |= std::uint64_t{1} << prefix.length;
}

void take(fit &f, std::uint32_t ctx, const kernel_prefix &prefix)
{
    live_contents &card = f.plan.contexts.at(ctx).card;
    const auto route = card.routes.find(prefix);
    count(f, ctx, prefix, path_count(route->second), live_need_take);
    for (const live_path &path : route->second.paths) {
        const auto host = card.hosts.find(path.gateway);
        if (--host->second.uses != 0)
            continue;
        card.hosts.erase(host);
        count(f, ctx, kernel_prefix_of(path.gateway, 32), 1, live_need_take);
    }
    card.routes.erase(route);
}

// Whether the entry found room; if not, all is as before.
bool try_put(fit &f, std::uint32_t ctx, const kernel_prefix &prefix, const live_route &route)
{
    if (prefix.length != 0 && f.plan.used.leaves >= f.room.leaves)
        return false; // soon told, for the many that come when nothing is left
    put(f, ctx, prefix, route);
    if (has_room(f))
        return true;
    take(f, ctx, prefix);
    return false;
}

live_route up(const char *why) { return {{}, why}; }

// Sends the longest entry around `prefix` up that there is, if there is one.
void send_cover_up(fit &f, std::uint32_t ctx, const kernel_prefix &prefix)
{
    const live_context &context = f.plan.contexts.at(ctx);
    for (std::uint32_t length = prefix.length; length-- > 0;) {
        if ((f.lengths[ctx] >> length & 1) == 0)
            continue;
        const kernel_prefix cover = kernel_prefix_of(prefix.address, length);
        if (context.own.count(cover) != 0)
            return;
        const auto found = context.card.routes.find(cover);
        if (found == context.card.routes.end())
            continue;
        if (!found->second.paths.empty()) {
            take(f, ctx, cover);
            put(f, ctx, cover, up("a longer prefix has no room"));
        }
        return;
    }
}

void cut(fit &f, std::uint32_t ctx, const kernel_prefix &prefix)
{
    const live_context &context = f.plan.contexts.at(ctx);
    const kernel_prefix reach = live_need_reach(f.needs.at(ctx), prefix);
    const bool is_new = context.card.routes.count(reach) == 0 && context.own.count(reach) == 0;
    if (!is_new || !try_put(f, ctx, reach, up("a longer prefix has no room")))
        send_cover_up(f, ctx, prefix);
}

void take_in(fit &f, std::uint32_t ctx, const kernel_prefix &prefix, const live_route &route)
{
    if (try_put(f, ctx, prefix, route))
        return;
    f.plan.contexts.at(ctx).cut.push_back(prefix);
    if (route.paths.empty() || !try_put(f, ctx, prefix, up("no room for its paths")))
        cut(f, ctx, prefix);
}

void take_in_routes(fit &f)
{
    struct entry {
        std::uint32_t ctx;
        const kernel_prefix *prefix;
        const live_route *route;
    };
    std::array<std::vector<entry>, 33> by_length;
    for (const auto &[ctx, context] : f.plan.contexts)
        for (const auto &[prefix, route] : context.wanted.routes)
            by_length[prefix.length].push_back({ctx, &prefix, &route});
    for (const std::vector<entry> &entries : by_length)
        for (const entry &e : entries)
            take_in(f, e.ctx, *e.prefix, *e.route);
}

void take_in_hosts(fit &f)
{
    for (auto &[ctx, context] : f.plan.contexts)
        for (const auto &[address, host] : context.wanted.hosts) {
            if (context.card.hosts.count(address) != 0)
                continue;
            const kernel_prefix prefix = kernel_prefix_of(address, 32);
            count(f, ctx, prefix, 1, live_need_add);
            if (has_room(f))
                context.card.hosts.emplace(address, live_host{host.ifindex, 0});
            else
                count(f, ctx, prefix, 1, live_need_take);
        }
}
} // namespace

void live_plan_fit(live_plan &plan, const live_room &room)
{
    const bool is_all = live_room_fits(plan.need, room);
    fit f{plan, room, {}, {}};
    plan.used = {};
    for (auto &[ctx, context] : plan.contexts) {
        context.cut.clear();
        context.card = is_all ? context.wanted : live_contents{};
        f.needs[ctx] = context.own_need;
        for (const kernel_prefix &own : context.own)
            f.lengths[ctx] |= std::uint64_t{1} << own.length;
        plan.used = plan.used + context.own_need.sum;
    }
    if (is_all) {
        plan.used = plan.need;
        return;
    }
    take_in_routes(f);
    take_in_hosts(f);
}
