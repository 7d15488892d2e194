// doctor_counts.cpp - holds what the route manager counts against what it lists and what the slots lead to.
//
// Each count has a second one that should say the same; what is known of a difference, and what is not, is said.
#include "doctor_counts.h"

#include <algorithm>
#include <map>
#include <set>
#include <string_view>

#include <fmt/format.h>

#include "card_tool/address_text.h"
#include "card_view/pools_view.h"
#include "if_mgr.h"
#include "route_entry.h"

namespace
{
constexpr unsigned NEARLY_FULL_PERCENT = 90;

// A finding that no copy of the tables showed.
void add(doctor_findings &to, const char *kind, doctor_level level, int ctx, std::string object, std::string what,
         std::string seen, std::string todo, std::uint64_t amount = 0)
{
    to.push_back({kind, level, ctx, std::move(object), std::move(what), std::move(seen), std::move(todo), {}, amount});
}

std::string name_of(const route_record &route) { return prefix_text(route.prefix, route.length); }
bool is_static(const route_record &route) { return (route.flags & RIB_F_GATEWAY) != 0; }
bool is_host(const route_record &route) { return (route.flags & RIB_F_ARP_HOST) != 0; }

// What slots lead to, as the counts of a context have it.
context_summary reached(const tree_view &tree)
{
    std::set<std::uint32_t> blocks;
    for (const auto &[number, leaf] : tree.leaves)
        if (leaf.block.kind == table_kind::block)
            blocks.insert(leaf.block.index);
    return {0,
            0,
            0,
            static_cast<std::int32_t>(tree.nodes.size()),
            static_cast<std::int32_t>(tree.leaves.size()),
            static_cast<std::int32_t>(blocks.size())};
}

// One kind of record: where its counts stand, and what it is called.
struct record_kind {
    std::int32_t context_summary::*count;
    const char *kind, *name;
};
constexpr record_kind KINDS[] = {{&context_summary::nodes, "nodes-lost", "node"},
                                 {&context_summary::leaves, "leaves-lost", "leaf"},
                                 {&context_summary::blocks, "blocks-lost", "ECMP block"}};

std::string counted(std::uint64_t number, const std::string &name)
{
    const bool is_leaf = name == "leaf";
    return std::to_string(number) + " " + (number == 1 ? name : is_leaf ? "leaves" : name + "s");
}

using context_counts = std::array<std::int64_t, ROUTE_CONTEXTS>;

// What each context holds and cannot be accounted for. A tree that several contexts use may be charged to any of them,
// so a context may also have less than it should.
context_counts unaccounted(const doctor_look &look, const std::vector<doctor_hidden> &hidden, const record_kind &kind)
{
    context_counts left{};
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        left[ctx] = std::int64_t{look.counts->contexts[ctx].*kind.count} -
                    std::int64_t{reached(look.copies[0]->trees[ctx]).*kind.count};
    for (const doctor_hidden &route : hidden) {
        if (kind.count == &context_summary::leaves)
            left[static_cast<std::size_t>(route.route.ctx)] -= 1;
        if (kind.count == &context_summary::blocks && route.route.paths.size() > 1)
            left[static_cast<std::size_t>(route.route.ctx)] -= 1;
    }
    return left;
}

void judge_kind(const doctor_look &look, const std::vector<doctor_hidden> &hidden, const record_kind &kind,
                doctor_findings &findings)
{
    const context_counts left = unaccounted(look, hidden, kind);
    std::int64_t sum = 0;
    for (const std::int64_t number : left)
        sum += number;
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS && sum > 0; ++ctx) {
        if (left[ctx] <= 0)
            continue;
        const std::uint64_t lost = static_cast<std::uint64_t>(std::min(left[ctx], sum));
        sum -= left[ctx];
        const auto held = static_cast<std::uint64_t>(look.counts->contexts[ctx].*kind.count); // more than reached
        add(findings, kind.kind, doctor_level::fault, static_cast<int>(ctx), "",
            counted(lost, kind.name) + " of the context " + (lost == 1 ? "is" : "are") + " used up and in no slot",
            "the route manager counts " + counted(held, kind.name) + ", of which slots and listed routes explain " +
                std::to_string(held - lost),
            "only a restart of the route manager gives them back; withdraw a host before it is reported again, use one "
            "context for each route id",
            lost);
    }
}
} // namespace

void doctor_judge_pools(const doctor_look &look, doctor_findings &findings)
{
    if (!look.is_served && look.copies.empty())
        return;
    const pools_view pools = look.is_served ? pools_from_summary(*look.counts) : pools_from_table(look.copies[0]->view);
    for (const pool_use &pool : pools.pools) {
        const bool is_full = pool.used >= pool.total;
        if (pool.used * 100 < pool.total * NEARLY_FULL_PERCENT)
            continue;
        add(findings, is_full ? "pool-full" : "pool-low", is_full ? doctor_level::fault : doctor_level::warning,
            DOCTOR_WHOLE_CARD, pool.name,
            is_full ? std::string("the pool of ") + pool.name + " is empty: the next route that needs one is refused"
                    : std::string("the pool of ") + pool.name + " is nearly empty",
            std::to_string(pool.used) + " of " + std::to_string(pool.total) + " in use (" + pools.source + ")",
            "remove routes; a host that is reported again with an empty pool is removed itself");
    }
}

void doctor_judge_held(const doctor_look &look, const std::vector<doctor_hidden> &hidden, doctor_findings &findings)
{
    if (!look.is_served || look.copies.empty())
        return;
    for (const record_kind &kind : KINDS)
        judge_kind(look, hidden, kind, findings);
}

namespace
{
std::uint64_t count_listed(const doctor_look &look, bool (*is_wanted)(const route_record &))
{
    std::uint64_t number = 0;
    for (const std::vector<route_record> &routes : look.listing->contexts)
        number += static_cast<std::uint64_t>(std::count_if(routes.begin(), routes.end(), is_wanted));
    return number;
}

// Sets of which the listing shows one path: the others wait.
std::string sets_with_waiting_paths(const doctor_look &look)
{
    std::string names;
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx) {
        const std::vector<route_record> &routes = look.listing->contexts[ctx];
        for (const route_record &route : routes) {
            const auto shown = std::count_if(routes.begin(), routes.end(), [&](const route_record &r) {
                return r.prefix == route.prefix && r.length == route.length;
            });
            if ((route.flags & RIB_F_ECMP) != 0 && shown == 1)
                names += (names.empty() ? "" : ", ") + name_of(route) + " of context " + std::to_string(ctx);
        }
    }
    return names;
}

// "1 static route is", "2 static routes are".
std::string number_of(std::uint64_t number, const char *name)
{
    return counted(number, name) + (number == 1 ? " is" : " are");
}

bool is_other_than_static_and_nat(const route_record &route)
{
    return (route.flags & (RIB_F_GATEWAY | RIB_F_NAT)) == 0;
}
} // namespace

void doctor_judge_unlisted(const doctor_look &look, doctor_findings &findings)
{
    const auto hosts = look.blocks.find(MTRACK_ROUTE_ENTRY_1), statics = look.blocks.find(MTRACK_ROUTE_ENTRY_3);
    if (!look.is_served || hosts == look.blocks.end() || statics == look.blocks.end())
        return;
    const std::uint64_t listed_hosts = count_listed(look, is_other_than_static_and_nat);
    const std::uint64_t listed_statics = count_listed(look, is_static);
    if (hosts->second > listed_hosts)
        add(findings, "hosts-lost", doctor_level::fault, DOCTOR_WHOLE_CARD, "",
            number_of(hosts->second - listed_hosts, "host or interface route") + " in no list any more",
            "memory holds " + std::to_string(hosts->second) + ", the listings " + std::to_string(listed_hosts),
            "they went with an entry of the same prefix in front of them; only a restart gives their memory back",
            hosts->second - listed_hosts);
    if (statics->second <= listed_statics)
        return;
    const std::string sets = sets_with_waiting_paths(look);
    add(findings, "statics-unlisted", doctor_level::warning, DOCTOR_WHOLE_CARD, "",
        std::to_string(statics->second - listed_statics) + " static route(s) are in no table: their gateway is not "
                                                           "there, or they were lost with a host of their prefix",
        "memory holds " + std::to_string(statics->second) + ", the listings " + std::to_string(listed_statics) +
            "; which of the two it is cannot be seen from outside" +
            (sets.empty() ? "" : "; a path of " + sets + " waits"),
        "look that each gateway is reported; `route del` of one that was lost answers that it is not there",
        statics->second - listed_statics);
}

namespace
{
// The entries that share a prefix, in the order of the route manager: the head first.
using prefix_key = std::pair<std::uint32_t, std::uint32_t>;
using prefix_groups = std::map<prefix_key, std::vector<const route_record *>>;

prefix_groups groups_of(const std::vector<route_record> &routes)
{
    prefix_groups groups;
    for (const route_record &route : routes)
        groups[{route.prefix, route.length}].push_back(&route);
    return groups;
}

// A static route that waits leaves its mark on the head of its set.
bool has_unlisted(const std::vector<const route_record *> &group)
{
    return group.size() == 1 && (group[0]->flags & RIB_F_ECMP) != 0 && !is_static(*group[0]);
}

const char *mixed_consequence(std::string_view head, bool is_order_known)
{
    if (!is_order_known)
        return "the one that came first hides the other, which is lost or cannot be removed";
    if (head == "host")
        return "the withdrawal of the host takes the others out of the list with it";
    if (head == "interface" || head == "connected")
        return "the host behind it cannot be withdrawn, and is lost when the interface goes down";
    return "what stands behind it can neither be withdrawn nor serve as a gateway";
}

void judge_mixed(const prefix_groups &groups, int ctx, doctor_findings &findings)
{
    for (const auto &[key, group] : groups) {
        std::set<std::string> kinds;
        std::string names;
        for (const route_record *route : group)
            if (kinds.insert(route_record_kind(route->flags)).second)
                names += (names.empty() ? "" : ", then ") + std::string(route_record_kind(route->flags));
        if (kinds.size() < 2 && !has_unlisted(group))
            continue;
        if (kinds.size() < 2)
            names += "; with it a static route that waits";
        const std::string head = route_record_kind(group[0]->flags);
        add(findings, "kinds-mixed", doctor_level::warning, ctx, name_of(*group[0]),
            "routes of several kinds share " + name_of(*group[0]) + ": " + mixed_consequence(head, kinds.size() > 1),
            "listed: " + names,
            head == "interface" ? "take the interface down; the ARP service should not report the card's own addresses"
                                : "remove the static route before the host is withdrawn");
    }
}

// The host that a gateway is: the first of its address, as the route manager looks for it.
const route_record *host_of(const prefix_groups &groups, std::uint32_t address)
{
    const auto found = groups.find({address, 32});
    return found != groups.end() && is_host(*found->second[0]) ? found->second[0] : nullptr;
}

void judge_gateway(const prefix_groups &hosts, const route_record &route, int ctx, doctor_findings &findings)
{
    const route_record *const host = host_of(hosts, route.nexthop);
    const std::string name = name_of(route) + " via " + address_text(route.nexthop);
    const std::string used =
        "interface " + std::to_string(route.ifid) + " encap " + fmt::format("0x{:04x}", route.encap);
    if (host == nullptr)
        add(findings, "gateway-gone", doctor_level::warning, ctx, name,
            name + " is in the tables and its gateway is not reported", "it forwards to " + used,
            "let the ARP service report the gateway, or remove the route");
    else if (host->encap != route.encap || host->ifid != route.ifid)
        add(findings, "gateway-stale", doctor_level::fault, ctx, name,
            name + " goes on using what its gateway had before",
            "it forwards to " + used + ", the gateway has interface " + std::to_string(host->ifid) + " encap " +
                fmt::format("0x{:04x}", host->encap),
            "withdraw the gateway and report it again");
}
} // namespace

void doctor_judge_listing(const doctor_look &look, doctor_findings &findings)
{
    if (!look.is_served)
        return;
    std::vector<prefix_groups> groups;
    for (const std::vector<route_record> &routes : look.listing->contexts)
        groups.push_back(groups_of(routes));
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx) {
        judge_mixed(groups[ctx], static_cast<int>(ctx), findings);
        for (const route_record &route : look.listing->contexts[ctx])
            if (is_static(route) && route.route_id < ROUTE_CONTEXTS)
                judge_gateway(groups[route.route_id], route, static_cast<int>(ctx), findings);
    }
}

namespace
{
struct interface_state {
    std::uint32_t ifid, address, mask;
    std::int32_t ctx;
};

// Whether the routes of the interface are in the listing: its address, subnet, first and last address.
bool has_routes(const doctor_look &look, const interface_state &i)
{
    const unsigned length = address_mask_length(i.mask);
    const prefix_key wanted[] = {
        {i.address, 32}, {i.address & i.mask, length}, {i.address & i.mask, 32}, {i.address | ~i.mask, 32}};
    const auto &routes = look.listing->contexts[static_cast<std::size_t>(i.ctx)];
    return std::all_of(std::begin(wanted), std::end(wanted), [&](const prefix_key &key) {
        return std::any_of(routes.begin(), routes.end(), [&](const route_record &r) {
            return r.prefix == key.first && r.length == key.second && (r.flags & RIB_F_INTERFACE) != 0;
        });
    });
}

// An interface that is up, routes by itself, and has an address and a context. Returns false when it is none.
bool is_in_service(std::uint32_t ifid, interface_state &state)
{
    std::uint32_t mode = 0;
    if (if_get_status(ifid) != 1 || if_get_address(ifid, &mode, nullptr) != 0 || mode != IF_RMODE_ROUTED)
        return false;
    state.ifid = ifid;
    state.ctx = if_get_context_id(ifid);
    return if_get_ip(ifid, &state.address, &state.mask) == 0 && address_is_mask(state.mask) && state.ctx >= 0 &&
           state.ctx < static_cast<std::int32_t>(ROUTE_CONTEXTS);
}
} // namespace

namespace
{
// Routes that an interface left behind when it went.
void judge_left_behind(const doctor_look &look, doctor_findings &findings)
{
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        for (const route_record &route : look.listing->contexts[ctx])
            if ((route.flags & RIB_F_INTERFACE) != 0 && if_get_status(route.ifid) != 1)
                add(findings, "interface-stale", doctor_level::fault, static_cast<int>(ctx), name_of(route),
                    name_of(route) + " is still there of interface " + std::to_string(route.ifid) + ", which is not up",
                    "the interface database has the interface down, or has none of this number",
                    "if it stays, remove static routes to the interface's addresses, and let it go up and down again");
}
} // namespace

void doctor_judge_interfaces(const doctor_look &look, doctor_findings &findings)
{
    if (!look.is_served || !look.has_interfaces)
        return;
    judge_left_behind(look, findings);
    for (std::uint32_t ifid = 0; ifid < IFDB_RECORDS; ++ifid) {
        interface_state state{};
        if (!is_in_service(ifid, state) || has_routes(look, state))
            continue;
        const unsigned length = address_mask_length(state.mask);
        const bool is_usable = length > 0 && length < 31;
        add(findings, "interface-missing", doctor_level::fault, state.ctx, "interface " + std::to_string(ifid),
            "interface " + std::to_string(ifid) + " is up and its routes are not all there",
            "the interface database has it up with " + address_text(state.address) + "/" + std::to_string(length) +
                " in the context, the listing lacks routes of it",
            is_usable ? "let the interface manager report it again: down, then up"
                      : "give it a mask of 1 to 30 bits: with any other the route manager refuses its routes");
    }
}
