// live_status.cpp - gathers what each part knows.
#include "live_status.h"

#include <nlohmann/json.hpp>

#include "card_tool/address_text.h"
#include "kernel_bypass.h"

namespace
{
using nlohmann::json;

const char *phase_text(sync_phase phase)
{
    switch (phase) {
    case sync_phase::away:
        return "away";
    case sync_phase::telling:
        return "telling";
    case sync_phase::serving:
        break;
    }
    return "serving";
}

json counters_of(const live_maps &maps, std::uint32_t ifid)
{
    live_counters sum = {};
    json counters = json::object();
    if (live_maps_counters(maps, ifid, sum) != 0)
        return counters;
    for (unsigned reason = 0; reason < LIVE_REASONS; ++reason)
        if (sum.reasons[reason] != 0)
            counters[LIVE_REASON_NAMES[reason]] = sum.reasons[reason];
    counters["out_packets"] = sum.out_packets;
    counters["out_bytes"] = sum.out_bytes;
    return counters;
}

json port_of(const live_maps &maps, const live_ports &ports, int ifindex, const live_plan_port &port)
{
    json j = {{"name", port.name}, {"bound", port.is_bound}};
    if (!port.is_bound) {
        j["why"] = port.why_not;
        return j;
    }
    j["interface"] = port.id;
    j["context"] = port.ctx;
    j["up"] = port.is_up;
    if (port.length != 0)
        j["address"] = prefix_text(port.address, port.length);
    if (const auto state = ports.ports.find(ifindex); state != ports.ports.end()) {
        const live_port_state &s = state->second;
        j["mode"] = !s.is_attached ? "none" : s.mode == live_mode::native ? "native" : "generic";
        j["open"] = s.is_open;
        if (!s.why_generic.empty() || !s.failed.empty())
            j["why"] = s.failed.empty() ? s.why_generic : s.failed;
    }
    j["counters"] = counters_of(maps, port.id);
    return j;
}

json context_of(const live_plan &plan, const live_sync &sync, std::uint32_t ctx)
{
    const sync_context &c = sync.contexts[ctx];
    const live_context &planned = plan.contexts.at(ctx);
    json j = {{"context", ctx},
              {"table", planned.table},
              {"forwards", c.forwards},
              {"settled", sync_is_settled(sync, ctx)},
              {"routes", c.routes.size()},
              {"hosts", c.hosts.size()},
              {"cut", planned.cut.size()}};
    if (!c.forwards)
        j["why"] = c.why_held;
    return j;
}

// Changes that are wanted and not made, or not answered.
std::size_t waiting_of(const live_sync &sync)
{
    std::size_t waiting = 0;
    for (const sync_context &context : sync.contexts)
        waiting += context.routes_due.size() + context.hosts_due.size() + context.pending;
    return waiting;
}

json passed_by(const live_plan &plan)
{
    std::map<int, std::string> ports;
    for (const auto &[ifindex, port] : plan.ports)
        if (port.is_bound)
            ports[ifindex] = port.name;
    return kernel_bypass_find(ports);
}
} // namespace

std::string live_status(const live_maps &maps, const live_ports &ports, const live_plan &plan, const live_sync &sync,
                        const netlink_kernel &kernel)
{
    const netlink_counts counts = netlink_kernel_counts(kernel);
    json j = {{"route_manager", phase_text(sync.phase)},
              {"settled", sync_is_settled(sync)},
              {"waiting", waiting_of(sync)},
              {"passed_by", passed_by(plan)},
              {"searched", live_maps_searched(maps)},
              {"kernel",
               {{"current", netlink_kernel_is_current(kernel)},
                {"messages", counts.messages},
                {"readings", counts.readings},
                {"lost", counts.lost}}},
              {"pools", {{"nodes", sync.used.nodes}, {"leaves", sync.used.leaves}, {"blocks", sync.used.blocks}}},
              {"no_port", counters_of(maps, 0)},
              {"contexts", json::array()},
              {"ports", json::array()}};
    for (const auto &context : plan.contexts)
        j["contexts"].push_back(context_of(plan, sync, context.first));
    for (const auto &[ifindex, port] : plan.ports)
        j["ports"].push_back(port_of(maps, ports, ifindex, port));
    return j.dump();
}
