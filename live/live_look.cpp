// live_look.cpp - chooses a port, asks, and puts the answer into an object.
#include "live_look.h"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "card_tool/address_text.h"

namespace
{
using nlohmann::ordered_json;

constexpr std::size_t IP_TTL_AT = 14 + 8;

ordered_json error_of(const std::string &why) { return {{"error", why}}; }

const char *table_text(std::uint32_t table)
{
    switch (table) {
    case LIVE_SEARCHED_TABLE_0:
        return "0";
    case LIVE_SEARCHED_TABLE_1:
        return "1";
    default:
        return "none";
    }
}

std::string port_name(const live_view &view, std::uint32_t ifid)
{
    for (const auto &[ifindex, port] : view.plan.ports)
        if (port.is_bound && port.id == ifid)
            return port.name;
    return "";
}

ordered_json traced_json(const live_view &view, const live_traced &t)
{
    ordered_json j = {{"address", address_text(t.packet.destination)},
                      {"source", address_text(t.packet.source)},
                      {"in", port_name(view, t.trace.port)},
                      {"context", t.trace.ctx},
                      {"table", table_text(t.trace.table)},
                      {"result", LIVE_REASON_NAMES[std::min<std::size_t>(t.trace.reason, LIVE_REASONS - 1)]},
                      {"card", t.card},
                      {"kernel", t.kernel},
                      {"agrees", t.agrees}};
    if (t.trace.adjacency != 0) {
        j["adjacency"] = t.trace.adjacency;
        j["path"] = t.trace.path + 1; // as they are counted in a walk
        j["interface"] = t.trace.ifid;
        j["encap"] = t.trace.encap;
    }
    if (t.trace.reason == LIVE_FORWARDED) {
        j["out"] = port_name(view, t.trace.ifid);
        j["ttl"] = t.frame[IP_TTL_AT];
    }
    return j;
}

// The ports by which the packet may come in, the one that is to be tried first in front.
std::vector<int> ports_of(const live_plan &plan, std::uint32_t ifid)
{
    std::vector<int> ports;
    for (const auto &[ifindex, port] : plan.ports)
        if (port.is_up && (ifid == 0 || port.id == ifid))
            ports.push_back(ifindex);
    return ports;
}
} // namespace

std::string live_look_trace(const live_view &view, std::uint32_t address, std::uint32_t source, std::uint32_t ifid)
{
    const std::vector<int> ports = ports_of(view.plan, ifid);
    if (ports.empty())
        return error_of(ifid == 0 ? "no port is up" : fmt::format("interface {} is no port that is up", ifid)).dump();
    live_traced traced;
    for (const int ifindex : ports) {
        const std::uint32_t from =
            source != 0 ? source : live_trace_source(view.state, ifindex, view.plan.ports.at(ifindex));
        std::string why;
        if (live_trace_packet(view, {from, address, ifindex}, LIVE_SEARCHED_NONE, &traced, &why) != 0)
            return error_of(why).dump();
        if (traced.trace.reason != LIVE_SAME_PORT)
            break;
    }
    return traced_json(view, traced).dump();
}

std::string live_look_verify(const live_view &view, live_verify &run, std::uint32_t ctx,
                             const std::vector<kernel_prefix> &given, std::uint32_t *at)
{
    if (*at == 0 || run.ctx != ctx)
        run = live_verify_begin(view.plan, view.state, ctx, given);
    run.at = std::min<std::size_t>(*at, run.addresses.size());
    run.forwarded = 0;
    run.differences.clear();
    const std::size_t begin = run.at;
    std::string why;
    if (live_verify_some(view, LIVE_SEARCHED_NONE, LIVE_LOOK_ADDRESSES, &run, &why) != 0)
        return error_of(why).dump();
    *at = run.at < run.addresses.size() ? static_cast<std::uint32_t>(run.at) : LIVE_LOOK_END;
    ordered_json j = {
        {"looked_at", run.at - begin}, {"forwarded", run.forwarded}, {"differences", ordered_json::array()}};
    for (const live_traced &t : run.differences)
        j["differences"].push_back(traced_json(view, t));
    return j.dump();
}
