// live_wants.cpp - the plan's ports, hosts and routes with interface ids and MAC addresses.
//
// Elsewhere: what always holds (live_wants.h).
#include "live_wants.h"

#include "card_tool/address_text.h"

namespace
{
const live_plan_port *port_of(const live_plan &plan, int ifindex)
{
    const auto found = plan.ports.find(ifindex);
    return found == plan.ports.end() || !found->second.is_bound ? nullptr : &found->second;
}

void want_host(live_sync &sync, const live_plan &plan, const kernel_state &state, std::uint32_t ctx,
               std::uint32_t address)
{
    if (address == SYNC_UP_GATEWAY)
        return;
    const auto context = plan.contexts.find(ctx);
    const live_host *host = nullptr;
    if (context != plan.contexts.end())
        if (const auto found = context->second.card.hosts.find(address); found != context->second.card.hosts.end())
            host = &found->second;
    const live_plan_port *const port = host == nullptr ? nullptr : port_of(plan, host->ifindex);
    if (port == nullptr)
        return sync_want_host(sync, ctx, address, nullptr);
    const auto neighbour = state.neighbours.find({host->ifindex, address});
    const bool is_known = neighbour != state.neighbours.end() && kernel_neighbour_is_known(neighbour->second);
    const sync_host wanted = {port->id, is_known ? neighbour->second.mac : 0};
    sync_want_host(sync, ctx, address, &wanted);
}

void want_route(live_sync &sync, const live_plan &plan, std::uint32_t ctx, const kernel_prefix &prefix)
{
    const auto context = plan.contexts.find(ctx);
    if (context == plan.contexts.end() || context->second.card.routes.count(prefix) == 0)
        return sync_want_route(sync, ctx, prefix, nullptr);
    sync_gateways gateways;
    for (const live_path &path : context->second.card.routes.at(prefix).paths)
        gateways.insert(path.gateway);
    if (gateways.empty())
        gateways.insert(SYNC_UP_GATEWAY);
    sync_want_route(sync, ctx, prefix, &gateways);
}

void want_ports(live_sync &sync, const live_plan &plan)
{
    std::map<std::uint32_t, sync_port> ports;
    for (const auto &[ifindex, port] : plan.ports)
        if (port.is_bound)
            ports[port.id] = {port.ctx, port.address, port.length == 0 ? 0 : address_mask_of(port.length), port.is_up,
                              port.length != 0};
    const std::map<std::uint32_t, sync_port> before = sync.ports;
    for (const auto &port : before)
        if (ports.count(port.first) == 0)
            sync_want_port(sync, port.first, nullptr);
    for (const auto &[ifid, port] : ports)
        sync_want_port(sync, ifid, &port);
}

void want_context(live_sync &sync, const live_plan &plan, const kernel_state &state, std::uint32_t ctx,
                  const std::string &held)
{
    sync_context &c = sync.contexts[ctx];
    const auto context = plan.contexts.find(ctx);
    const bool is_bound = context != plan.contexts.end();
    if (!is_bound && !c.is_bound)
        return;
    std::set<kernel_prefix> prefixes;
    std::set<std::uint32_t> addresses;
    for (const auto &route : c.routes)
        prefixes.insert(route.first);
    for (const auto &host : c.hosts)
        addresses.insert(host.first);
    if (is_bound) {
        for (const auto &route : context->second.card.routes)
            prefixes.insert(route.first);
        for (const auto &host : context->second.card.hosts)
            addresses.insert(host.first);
    }
    for (const std::uint32_t address : addresses)
        want_host(sync, plan, state, ctx, address);
    for (const kernel_prefix &prefix : prefixes)
        want_route(sync, plan, ctx, prefix);
    if (!is_bound)
        sync_want_context(sync, ctx, false, "");
    else
        sync_want_context(sync, ctx, true, held.empty() ? context->second.held_back : held);
}
} // namespace

void live_wants_all(live_sync &sync, const live_plan &plan, const kernel_state &state, const std::string &held)
{
    want_ports(sync, plan);
    for (std::uint32_t ctx = 0; ctx < LIVE_CONTEXTS; ++ctx)
        want_context(sync, plan, state, ctx, held);
}

void live_wants_scope(live_sync &sync, const live_plan &plan, const kernel_state &state, const live_scope &scope)
{
    for (const auto &[ctx, address] : scope.hosts)
        want_host(sync, plan, state, ctx, address);
    for (const auto &[ctx, prefix] : scope.routes)
        want_route(sync, plan, ctx, prefix);
}

void live_wants_neighbours(live_sync &sync, const live_plan &plan, const kernel_state &state,
                           const std::set<std::pair<int, std::uint32_t>> &neighbours)
{
    for (const auto &[ifindex, address] : neighbours)
        if (const live_plan_port *const port = port_of(plan, ifindex))
            want_host(sync, plan, state, port->ctx, address);
}
