// doctor_counts.cpp - compares what the route manager counts and lists with each other, the slots and the interfaces.
//
// Each count has a second one that should be equal.
// Always: a finding says what of the difference is known, and what cannot be known from outside.
// Elsewhere: the slots themselves (doctor_tables.cpp), what a finding means (doctor_finding.h).
#include <algorithm>
#include <numeric>
#include <set>

#include <fmt/format.h>

#include "card_tool/address_text.h"
#include "card_view/pools_view.h"
#include "doctor_judge.h"
#include "if_mgr.h"
#include "interface_db.h"
#include "route_entry.h"

namespace
{
constexpr unsigned NEARLY_FULL_PERCENT = 90;

std::string name_of(const route_record &route) { return prefix_text(route.prefix, route.length); }
bool is_static(const route_record &route) { return (route.flags & RIB_F_GATEWAY) != 0; }
bool is_other(const route_record &route) { return (route.flags & (RIB_F_GATEWAY | RIB_F_NAT)) == 0; }

std::string counted(std::uint64_t number, const char *one, const char *many)
{
    return fmt::format("{} {}", number, number == 1 ? one : many);
}

// What slots lead to, as the counts of a context have it.
context_summary reached(const tree_view &tree)
{
    std::set<std::uint32_t> blocks;
    for (const auto &[number, leaf] : tree.leaves)
        if (leaf.block.kind == table_kind::block)
            blocks.insert(leaf.block.index);
    context_summary counts{};
    counts.nodes = static_cast<std::int32_t>(tree.nodes.size());
    counts.leaves = static_cast<std::int32_t>(tree.leaves.size());
    counts.blocks = static_cast<std::int32_t>(blocks.size());
    return counts;
}

// One kind of record: where its counts stand, what it is called, and from how many paths on a hidden route has one.
struct record_kind {
    std::int32_t context_summary::*count;
    const doctor_kind &lost;
    const char *one, *many;
    std::size_t least_paths;
};
constexpr record_kind KINDS[] = {
    {&context_summary::nodes, DOCTOR_NODES_LOST, "node", "nodes", SIZE_MAX},
    {&context_summary::leaves, DOCTOR_LEAVES_LOST, "leaf", "leaves", 0},
    {&context_summary::blocks, DOCTOR_BLOCKS_LOST, "ECMP block", "ECMP blocks", 2},
};

// What a context holds beyond what is accounted for is lost, as far as all contexts together hold too much: a tree that
// several contexts use may be charged to any of them, so a context may also hold less than it should.
void judge_kind(const doctor_look &look, const std::vector<doctor_hidden> &hidden, const record_kind &kind,
                doctor_findings &findings)
{
    std::array<std::int64_t, ROUTE_CONTEXTS> left{};
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx) {
        const std::int64_t counted_there = look.counts->contexts[ctx].*kind.count;
        left[ctx] = counted_there - reached(look.copies[0]->trees[ctx]).*kind.count;
    }
    for (const doctor_hidden &route : hidden)
        left[static_cast<std::size_t>(route.route.ctx)] -= route.route.paths.size() >= kind.least_paths ? 1 : 0;
    std::int64_t sum = std::accumulate(left.begin(), left.end(), std::int64_t{0});
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS && sum > 0; ++ctx) {
        if (left[ctx] <= 0)
            continue;
        const auto lost = static_cast<std::uint64_t>(std::min(left[ctx], sum));
        const auto held =
            static_cast<std::uint64_t>(look.counts->contexts[ctx].*kind.count); // more than can be reached
        sum -= left[ctx];
        findings.push_back(
            {&kind.lost, static_cast<int>(ctx), "",
             fmt::format("the route manager counts {}; tables and listed routes account for {}",
                         counted(held, kind.one, kind.many), held - lost),
             counted(lost, kind.one, kind.many) + (lost == 1 ? " of the context is" : " of the context are"), lost});
    }
}

std::uint64_t count_listed(const doctor_look &look, bool (*is_wanted)(const route_record &))
{
    std::uint64_t number = 0;
    for (const std::vector<route_record> &routes : look.listing->contexts)
        number += static_cast<std::uint64_t>(std::count_if(routes.begin(), routes.end(), is_wanted));
    return number;
}

// Whether the listing shows one path of a set: the others wait.
bool has_waiting_paths(const doctor_group &group) { return group.size() == 1 && (group[0]->flags & RIB_F_ECMP) != 0; }

std::vector<std::string> sets_with_waiting_paths(const doctor_look &look)
{
    std::vector<std::string> names;
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        for (const auto &[prefix, group] : look.groups[ctx])
            if (has_waiting_paths(group))
                names.push_back(fmt::format("{} of context {}", name_of(*group[0]), ctx));
    return names;
}
} // namespace

void doctor_judge_pools(const doctor_look &look, doctor_findings &findings)
{
    if (!look.is_served && look.copies.empty())
        return;
    const pools_view pools = look.is_served ? pools_from_summary(*look.counts) : pools_from_table(look.copies[0]->view);
    for (const pool_use &pool : pools.pools)
        if (pool.used * 100 >= pool.total * NEARLY_FULL_PERCENT)
            findings.push_back({pool.used >= pool.total ? &DOCTOR_POOL_FULL : &DOCTOR_POOL_LOW, DOCTOR_WHOLE_CARD,
                                pool.name, fmt::format("{} of {} in use ({})", pool.used, pool.total, pools.source)});
}

void doctor_judge_held(const doctor_look &look, const std::vector<doctor_hidden> &hidden, doctor_findings &findings)
{
    if (!look.is_served || look.copies.empty())
        return;
    for (const record_kind &kind : KINDS)
        judge_kind(look, hidden, kind, findings);
}

void doctor_judge_unlisted(const doctor_look &look, doctor_findings &findings)
{
    const auto hosts = look.blocks.find(MTRACK_ROUTE_ENTRY_1), statics = look.blocks.find(MTRACK_ROUTE_ENTRY_3);
    if (!look.is_served || hosts == look.blocks.end() || statics == look.blocks.end())
        return;
    const std::uint64_t listed_hosts = count_listed(look, is_other), listed_statics = count_listed(look, is_static);
    if (hosts->second > listed_hosts) {
        const std::uint64_t lost = hosts->second - listed_hosts;
        findings.push_back({&DOCTOR_HOSTS_LOST, DOCTOR_WHOLE_CARD, "",
                            fmt::format("memory holds {}, the listings {}", hosts->second, listed_hosts),
                            counted(lost, "host or interface route is", "host or interface routes are"), lost});
    }
    if (statics->second > listed_statics) {
        const std::vector<std::string> sets = sets_with_waiting_paths(look);
        const std::uint64_t unlisted = statics->second - listed_statics;
        findings.push_back(
            {&DOCTOR_STATICS_UNLISTED, DOCTOR_WHOLE_CARD, "",
             fmt::format("memory holds {}, the listings {}; waiting and lost ones look alike from outside{}",
                         statics->second, listed_statics,
                         sets.empty() ? "" : fmt::format("; a path of {} waits", fmt::join(sets, ", "))),
             std::to_string(unlisted), unlisted});
    }
}

namespace
{
const doctor_kind &mixed_kind(route_kind head)
{
    switch (head) {
    case route_kind::host:
        return DOCTOR_MIXED_HOST;
    case route_kind::connected:
        return DOCTOR_MIXED_CONNECTED;
    case route_kind::interface:
        return DOCTOR_MIXED_INTERFACE;
    default:
        return DOCTOR_MIXED_OTHER;
    }
}

void judge_mixed(const doctor_group &group, int ctx, doctor_findings &findings)
{
    std::vector<const char *> names; // of the kinds in the group, each once
    for (const route_record *route : group)
        if (const char *const name = route_kind_name(route_kind_of(route->flags));
            std::find(names.begin(), names.end(), name) == names.end())
            names.push_back(name);
    const route_record &head = *group[0];
    if (names.size() > 1)
        findings.push_back({&mixed_kind(route_kind_of(head.flags)), ctx, name_of(head),
                            fmt::format("listed: {}", fmt::join(names, ", then "))});
    else if (has_waiting_paths(group) && !is_static(head))
        findings.push_back({route_kind_of(head.flags) == route_kind::interface ? &DOCTOR_MIXED_WAITING_INTERFACE
                                                                               : &DOCTOR_MIXED_WAITING,
                            ctx, name_of(head),
                            fmt::format("listed: {}; with it a static route that waits", names[0])});
}

// A gateway is the first host of its address, as the route manager looks for it.
void judge_gateway(const doctor_groups &groups, const route_record &route, int ctx, doctor_findings &findings)
{
    const auto found = groups.find({route.nexthop, 32});
    const std::string name = fmt::format("{} via {}", name_of(route), address_text(route.nexthop));
    const std::string used = fmt::format("it forwards to interface {} encap 0x{:04x}", route.ifid, route.encap);
    if (found == groups.end() || (found->second[0]->flags & RIB_F_ARP_HOST) == 0)
        findings.push_back({&DOCTOR_GATEWAY_GONE, ctx, name, used});
    else if (const route_record &host = *found->second[0]; host.encap != route.encap || host.ifid != route.ifid)
        findings.push_back(
            {&DOCTOR_GATEWAY_STALE, ctx, name,
             fmt::format("{}, the gateway has interface {} encap 0x{:04x}", used, host.ifid, host.encap)});
}
} // namespace

void doctor_judge_listing(const doctor_look &look, doctor_findings &findings)
{
    if (!look.is_served)
        return;
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx) {
        for (const auto &[prefix, group] : look.groups[ctx])
            judge_mixed(group, static_cast<int>(ctx), findings);
        for (const route_record &route : look.listing->contexts[ctx])
            if (is_static(route) && route.route_id < ROUTE_CONTEXTS)
                judge_gateway(look.groups[route.route_id], route, static_cast<int>(ctx), findings);
    }
}

namespace
{
struct interface_state {
    std::uint32_t address = 0, mask = 0;
    std::int32_t ctx = -1;
};

// Whether the routes of the interface are in the listing: its address, subnet, first and last address.
bool has_routes(const doctor_look &look, const interface_state &i)
{
    const std::uint32_t first = i.address & i.mask;
    const doctor_prefix wanted[] = {
        {i.address, 32}, {first, address_mask_length(i.mask)}, {first, 32}, {i.address | ~i.mask, 32}};
    const doctor_groups &groups = look.groups[static_cast<std::size_t>(i.ctx)];
    return std::all_of(std::begin(wanted), std::end(wanted), [&](const doctor_prefix &prefix) {
        const auto found = groups.find(prefix);
        return found != groups.end() &&
               std::any_of(found->second.begin(), found->second.end(),
                           [](const route_record *r) { return (r->flags & RIB_F_INTERFACE) != 0; });
    });
}

// An interface that is up, routes by itself, and has an address and a context. Returns false when it is none.
bool is_in_service(std::uint32_t ifid, interface_state &state)
{
    std::uint32_t mode = 0;
    if (if_get_status(ifid) != 1 || if_get_address(ifid, &mode, nullptr) != 0 || mode != IF_RMODE_ROUTED)
        return false;
    state.ctx = if_get_context_id(ifid);
    return if_get_ip(ifid, &state.address, &state.mask) == 0 && address_is_mask(state.mask) && state.ctx >= 0 &&
           state.ctx < static_cast<std::int32_t>(ROUTE_CONTEXTS);
}
} // namespace

void doctor_judge_interfaces(const doctor_look &look, doctor_findings &findings)
{
    if (!look.is_served || !look.has_interfaces)
        return;
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        for (const route_record &route : look.listing->contexts[ctx])
            if ((route.flags & RIB_F_INTERFACE) != 0 && if_get_status(route.ifid) != 1)
                findings.push_back(
                    {&DOCTOR_INTERFACE_STALE, static_cast<int>(ctx), name_of(route),
                     fmt::format("in the interface database, interface {} is down or missing", route.ifid)});
    for (std::uint32_t ifid = 0; ifid < IFDB_RECORDS; ++ifid) {
        interface_state state;
        if (!is_in_service(ifid, state) || has_routes(look, state))
            continue;
        const unsigned length = address_mask_length(state.mask);
        findings.push_back(
            {length > 0 && length < 31 ? &DOCTOR_INTERFACE_MISSING : &DOCTOR_INTERFACE_REFUSED, state.ctx,
             fmt::format("interface {}", ifid),
             fmt::format("in the interface database it is up with {} in the context; the listing lacks routes of it",
                         prefix_text(state.address, length))});
    }
}
