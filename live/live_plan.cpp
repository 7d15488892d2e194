// live_plan.cpp - which links are ports, which contexts may forward, and what the card should hold of hosts and routes.
//
// A route is programmed only where the kernel's records leave no doubt: each of its paths is a gateway on a port of the
// context, and the kernel itself reaches that gateway directly on that port, so that a packet to the gateway's own
// address leaves alike. Every other route is an entry that goes up, so that no shorter prefix answers in its place.
// Always: one prefix has entries of one kind. Those of an interface come first, then those of the table local, then the
// route of the context's table; a gateway or another host is announced only where none of these has its address.
// Elsewhere: what is held when not all fits (live_fit.cpp).
#include "live_plan.h"

#include <algorithm>
#include <optional>

#include <fmt/format.h>

#include "card_tool/address_text.h"
#include "live_card.h"

namespace
{
constexpr std::uint32_t UNKNOWN_TABLE = 0; // in the order of a context's tables: what follows is not known
constexpr std::uint32_t MULTICAST = 0xE0000000;

const kernel_table &plan_table(const kernel_state &state, std::uint32_t id)
{
    static const kernel_table NONE;
    const auto found = state.tables.find(id);
    return found == state.tables.end() ? NONE : found->second;
}

// ---- ports ----

std::string name_of(const kernel_state &state, int ifindex)
{
    const auto found = state.links.find(ifindex);
    return found == state.links.end() ? fmt::format("link {}", ifindex) : found->second.name;
}

// Why a link can be no port; empty when it can.
std::string why_not_bound(const kernel_state &state, int ifindex, const kernel_link &link)
{
    if (!link.is_ethernet)
        return "it is no Ethernet link";
    if (link.master != 0)
        return "it belongs to " + name_of(state, link.master);
    if (!link.has_arp)
        return "it does not use ARP";
    if (ifindex >= static_cast<int>(LIVE_IFINDEXES))
        return fmt::format("its index is over {}", LIVE_IFINDEXES - 1);
    for (const auto &[above, other] : state.links) {
        if (other.lower != ifindex)
            continue;
        if (other.kind == "ipvlan" || other.kind == "ipvtap")
            return other.name + " shares its MAC address";
        if (other.kind == "vlan") // many a device takes the tag out of the frame, and the program does not see it
            return other.name + " takes frames from it by their tag";
    }
    const auto conf = state.netconfs.find(ifindex);
    if (conf == state.netconfs.end() || !conf->second.forwards)
        return "its forwarding is off";
    return "";
}

void add_ports(live_plan &plan, const kernel_state &state, const live_conf &conf)
{
    for (const auto &[ifindex, entry] : state.links) {
        const kernel_link &link = entry; // a lambda can not take the other name
        live_plan_port port;
        port.name = link.name;
        const auto named = std::find_if(conf.ports.begin(), conf.ports.end(),
                                        [&link](const live_conf_port &p) { return p.name == link.name; });
        if (named != conf.ports.end()) {
            port.ctx = named->ctx;
            port.id = named->id.value_or(0);
        } else if (!conf.ports.empty() || !link.is_ethernet || (link.master != 0 && link.master_kind != "vrf")) {
            continue;
        }
        port.why_not = why_not_bound(state, ifindex, link);
        port.is_bound = port.why_not.empty();
        port.is_up = port.is_bound && link.is_up;
        plan.ports.emplace(ifindex, port);
    }
    for (const live_conf_port &named : conf.ports)
        if (std::none_of(plan.ports.begin(), plan.ports.end(),
                         [&named](const auto &p) { return p.second.name == named.name; }))
            plan.missing.push_back(named.name);
}

// The ids that the operator gave, then those that links have had, then free ones.
void add_ids(live_plan &plan, const live_conf &conf, const live_ids &ids)
{
    std::set<std::uint32_t> taken;
    for (const live_conf_port &named : conf.ports)
        taken.insert(named.id.value_or(0));
    for (auto &[ifindex, port] : plan.ports) {
        const auto had = ids.find(ifindex);
        if (port.id == 0 && had != ids.end() && had->second >= 1 && had->second <= LIVE_MAX_PORT_ID &&
            taken.insert(had->second).second)
            port.id = had->second;
    }
    std::uint32_t next = 1;
    for (auto &[ifindex, port] : plan.ports) {
        if (port.id == 0 && port.is_bound) {
            while (taken.count(next) != 0)
                ++next;
            port.id = next;
            taken.insert(next);
        }
        if (port.id > LIVE_MAX_PORT_ID) {
            port.is_bound = port.is_up = false;
            port.why_not = "there are too many ports";
        }
        if (!port.is_bound)
            port.id = 0;
    }
}

// ---- rules ----

// The tables that the kernel searches for a packet from a link, in order. `before`: a rule that comes before the
// context's table and can send packets elsewhere; null when there is none.
std::vector<std::uint32_t> tables_for(const kernel_state &state, const std::string &link, std::uint32_t table,
                                      const kernel_rule **before)
{
    std::vector<std::uint32_t> tables;
    *before = nullptr;
    for (const kernel_rule &rule : state.rules) {
        if (rule.is_for_output || (!rule.iif.empty() && rule.iif != link))
            continue;
        const bool is_reached = std::find(tables.begin(), tables.end(), table) != tables.end();
        if (!rule.is_plain || rule.table == 0) {
            if (!is_reached)
                *before = &rule;
            tables.push_back(UNKNOWN_TABLE);
            return tables;
        }
        if (std::find(tables.begin(), tables.end(), rule.table) == tables.end())
            tables.push_back(rule.table);
    }
    return tables;
}

std::string table_text(std::uint32_t table)
{
    return table == KERNEL_TABLE_MAIN      ? "main"
           : table == KERNEL_TABLE_LOCAL   ? "local"
           : table == KERNEL_TABLE_DEFAULT ? "default"
                                           : std::to_string(table);
}

// Finds the order of tables for a context, which is that of each of its ports; or why its packets have to go up.
void add_tables(live_context &context, const kernel_state &state, const std::string &port)
{
    const kernel_rule *before = nullptr;
    const std::vector<std::uint32_t> tables = tables_for(state, port, context.table, &before);
    if (!context.held_back.empty())
        return;
    if (before != nullptr)
        context.held_back =
            fmt::format("the kernel's rule {} can send packets from {} elsewhere", before->preference, port);
    else if (tables.size() < 2 || tables[0] != KERNEL_TABLE_LOCAL || tables[1] != context.table)
        context.held_back = fmt::format("the kernel's rules do not search local and then {} for packets from {}",
                                        table_text(context.table), port);
    else if (!context.tables.empty() && context.tables != tables)
        context.held_back = "the kernel's rules search different tables for its ports";
    context.tables = tables;
}

// ---- the entries of interfaces ----

// Whether the route manager would take an address for an interface, beside what it has in the context.
bool is_possible(const live_context &context, const kernel_address &address)
{
    if (address.length < 1 || address.length > 30 || address.peer != address.address)
        return false;
    const auto routes = live_plan_own_routes(address.address, address.length);
    if (routes[0] == routes[2] || routes[0] == routes[3] || kernel_prefix_covers(routes[1], LIVE_UP_GATEWAY) ||
        address.address >= MULTICAST)
        return false;
    return std::none_of(routes.begin(), routes.end(),
                        [&context](const kernel_prefix &route) { return context.own.count(route) != 0; });
}

void choose_address(live_plan_port &port, live_context &context, const kernel_state &state, int ifindex)
{
    const auto found = state.addresses.find(ifindex);
    if (!port.is_up || found == state.addresses.end())
        return;
    const auto chosen = std::find_if(found->second.begin(), found->second.end(),
                                     [&context](const kernel_address &a) { return is_possible(context, a); });
    if (chosen == found->second.end())
        return;
    port.address = chosen->address;
    port.length = chosen->length;
    for (const kernel_prefix &route : live_plan_own_routes(port.address, port.length)) {
        context.own.insert(route);
        live_need_add(context.own_need, route, 1);
    }
}

// A context for which there is no room gets none of its own entries.
void hold_back_for_room(live_plan &plan, std::uint32_t ctx, const live_room &left)
{
    live_context &context = plan.contexts.at(ctx);
    context.held_back = fmt::format("the entries of its ports need {} nodes and {} leaves, and {} and {} are left",
                                    context.own_need.sum.nodes, context.own_need.sum.leaves, left.nodes, left.leaves);
    context.has_room = false;
    context.own.clear();
    context.own_need = {};
    for (auto &[ifindex, port] : plan.ports)
        if (port.ctx == ctx)
            port.address = port.length = 0;
}

// ---- routes and hosts ----

// What the kernel has for this prefix itself: as an address of this host, or in the context's table.
bool has_entry(const kernel_state &state, const live_context &context, const kernel_prefix &prefix)
{
    return context.own.count(prefix) != 0 ||
           kernel_table_find(plan_table(state, KERNEL_TABLE_LOCAL), prefix) != nullptr ||
           kernel_table_find(plan_table(state, context.table), prefix) != nullptr;
}

const live_plan_port *port_of(const live_plan &frame, std::uint32_t ctx, int ifindex)
{
    const auto found = frame.ports.find(ifindex);
    return found == frame.ports.end() || !found->second.is_up || found->second.ctx != ctx ? nullptr : &found->second;
}

// Whether a packet to `address` itself leaves to the neighbour of this address, by which link. Then the card may have
// an entry of its own for the address.
bool is_direct(const kernel_state &state, const live_context &context, std::uint32_t address, int *ifindex)
{
    const kernel_prefix host = kernel_prefix_of(address, 32);
    if (live_plan_is_passed_by(host) || has_entry(state, context, host) || state.former_addresses.count(address) != 0)
        return false;
    const kernel_answer answer = kernel_lookup(state, context.tables, address);
    if (answer.verdict != kernel_verdict::paths || answer.hops.size() != 1)
        return false;
    const kernel_hop &hop = answer.hops.front();
    *ifindex = hop.ifindex;
    return hop.gateway == 0 || hop.gateway == address;
}

// Fills the paths of a route, or says why it goes up.
std::string paths_of(const kernel_state &state, const live_plan &frame, std::uint32_t ctx, const kernel_answer &answer,
                     std::vector<live_path> *paths)
{
    const live_context &context = frame.contexts.at(ctx);
    for (const kernel_hop &hop : answer.hops) {
        int direct = 0;
        if (hop.gateway == 0)
            return "without a gateway";
        if (port_of(frame, ctx, hop.ifindex) == nullptr)
            return fmt::format("over {}, which is no port of the context", name_of(state, hop.ifindex));
        if (!is_direct(state, context, hop.gateway, &direct) || direct != hop.ifindex)
            return fmt::format("the kernel does not reach gateway {} directly on {}", address_text(hop.gateway),
                               name_of(state, hop.ifindex));
        paths->push_back({hop.gateway, hop.ifindex});
    }
    std::sort(paths->begin(), paths->end());
    if (std::adjacent_find(paths->begin(), paths->end()) != paths->end())
        return "one path twice";
    return paths->size() > LIVE_MAX_PATHS ? "more than eight paths" : "";
}

std::size_t path_count(const live_route &route) { return std::max<std::size_t>(1, route.paths.size()); }

// ---- the wanted contents, with the counts that depend on them ----

using route_key = std::pair<std::uint32_t, kernel_prefix>; // context and prefix
using host_key = std::pair<std::uint32_t, std::uint32_t>;  // context and address

void count_need(live_plan &plan, std::uint32_t ctx, const kernel_prefix &prefix, std::size_t paths,
                void (*change)(live_need &, const kernel_prefix &, std::size_t))
{
    live_need &need = plan.contexts.at(ctx).need;
    const live_room before = need.sum;
    change(need, prefix, paths);
    plan.need = plan.need + (need.sum - before);
}

void take_route(live_plan &plan, const route_key &key, const live_route &route)
{
    live_contents &wanted = plan.contexts.at(key.first).wanted;
    for (const live_path &path : route.paths)
        --wanted.hosts.at(path.gateway).uses;
    count_need(plan, key.first, key.second, path_count(route), live_need_take);
    wanted.routes.erase(key.second);
}

void add_route(live_plan &plan, const route_key &key, const live_route &route)
{
    live_contents &wanted = plan.contexts.at(key.first).wanted;
    for (const live_path &path : route.paths) {
        const auto [host, is_new] = wanted.hosts.try_emplace(path.gateway);
        if (is_new)
            count_need(plan, key.first, kernel_prefix_of(path.gateway, 32), 1, live_need_add);
        host->second.ifindex = path.ifindex;
        ++host->second.uses;
    }
    count_need(plan, key.first, key.second, path_count(route), live_need_add);
    wanted.routes.emplace(key.second, route);
}

// Settles whether an address is announced, once its routes are.
void settle_host(live_plan &plan, const kernel_state &state, const host_key &key)
{
    auto &hosts = plan.contexts.at(key.first).wanted.hosts;
    const auto found = hosts.find(key.second);
    int ifindex = 0;
    const bool is_neighbour = live_plan_neighbour(state, plan, key.first, key.second, &ifindex);
    if (found != hosts.end() && found->second.uses != 0)
        return;
    const bool was_there = found != hosts.end();
    if (is_neighbour)
        hosts.insert_or_assign(key.second, live_host{ifindex, 0});
    else if (was_there)
        hosts.erase(found);
    if (was_there != is_neighbour)
        count_need(plan, key.first, kernel_prefix_of(key.second, 32), 1, is_neighbour ? live_need_add : live_need_take);
}

template <typename Map>
std::optional<typename Map::mapped_type> entry_of(const Map &map, const typename Map::key_type &key)
{
    const auto found = map.find(key);
    return found == map.end() ? std::nullopt : std::optional<typename Map::mapped_type>(found->second);
}

// Plans what the scope names anew. Answers what of it, and of the gateways with it, is different since.
live_scope plan_scope(live_plan &plan, const kernel_state &state, const live_scope &scope)
{
    const auto wanted = [&plan](std::uint32_t ctx) -> const live_contents & { return plan.contexts.at(ctx).wanted; };
    live_scope changed;
    std::map<route_key, std::optional<live_route>> before, after;
    std::map<host_key, std::optional<live_host>> hosts;
    const auto note_hosts = [&](std::uint32_t ctx, const std::optional<live_route> &route) {
        if (route)
            for (const live_path &path : route->paths)
                hosts[{ctx, path.gateway}] = entry_of(wanted(ctx).hosts, path.gateway);
    };
    for (const auto &[ctx, address] : scope.hosts)
        hosts[{ctx, address}] = entry_of(wanted(ctx).hosts, address);
    for (const route_key &key : scope.routes) {
        live_route route;
        const bool is_there = live_plan_route(state, plan, key.first, key.second, &route);
        const auto now = is_there ? std::optional<live_route>(route) : std::nullopt;
        const auto was = entry_of(wanted(key.first).routes, key.second);
        if (was == now && (!now || was->why_up == now->why_up))
            continue;
        note_hosts(key.first, was);
        note_hosts(key.first, now);
        before[key] = was;
        after[key] = now;
        changed.routes.insert(key);
    }
    // All old paths go before new ones come: a gateway that moves to another port has no path on both.
    for (const auto &[key, route] : before)
        if (route)
            take_route(plan, key, *route);
    for (const auto &[key, route] : after)
        if (route)
            add_route(plan, key, *route);
    for (const auto &[key, was] : hosts) {
        settle_host(plan, state, key);
        if (entry_of(wanted(key.first).hosts, key.second) != was)
            changed.hosts.insert(key);
    }
    return changed;
}

// Calls `visit` with the prefixes of a table that lie in `range`.
template <typename Visit> void visit_inside(const kernel_table &table, const kernel_prefix &range, Visit visit)
{
    const std::uint32_t last = kernel_prefix_last(range);
    for (auto at = table.routes.lower_bound(range); at != table.routes.end() && at->first.address <= last; ++at)
        if (at->first.length >= range.length)
            visit(at->first);
}

// What depends on the routes of one prefix in one of a context's tables.
void add_dependents(live_scope &scope, const live_plan &plan, const kernel_state &state, std::uint32_t ctx,
                    std::uint32_t table, const kernel_prefix &prefix)
{
    const live_context &context = plan.contexts.at(ctx);
    const kernel_table &changed = plan_table(state, table), &own = plan_table(state, context.table);
    const auto add_route = [&](const kernel_prefix &route) { scope.routes.insert({ctx, route}); };
    if (table == context.table || table == KERNEL_TABLE_LOCAL)
        add_route(prefix);
    if (table == KERNEL_TABLE_LOCAL) {
        // What lies in a prefix of this table is answered by it.
        visit_inside(own, prefix, add_route);
        visit_inside(changed, prefix, add_route);
    }
    const auto is_longest = [&](std::uint32_t address) {
        const auto *const match = kernel_table_match(changed, address);
        return match == nullptr || match->first.length <= prefix.length;
    };
    const std::uint32_t last = kernel_prefix_last(prefix);
    const auto &gateways = own.gateways;
    for (auto at = gateways.lower_bound(prefix.address); at != gateways.end() && at->first <= last; ++at)
        if (is_longest(at->first))
            for (const auto &route : at->second)
                add_route(route.first);
    for (const auto &[ifindex, port] : plan.ports) {
        if (port.ctx != ctx || !port.is_up)
            continue;
        const auto &all = state.neighbours;
        for (auto at = all.lower_bound({ifindex, prefix.address});
             at != all.end() && at->first.first == ifindex && at->first.second <= last; ++at)
            if (is_longest(at->first.second))
                scope.hosts.insert({ctx, at->first.second});
    }
}

void add_neighbour(live_scope &scope, const live_plan &plan, int ifindex, std::uint32_t address)
{
    const auto port = plan.ports.find(ifindex);
    if (port != plan.ports.end() && port->second.is_up && plan.contexts.at(port->second.ctx).has_room)
        scope.hosts.insert({port->second.ctx, address});
}

live_scope scope_of(const live_plan &plan, const kernel_state &state, const kernel_changes &changes)
{
    live_scope scope;
    for (const auto &[ctx, context] : plan.contexts) {
        if (!context.has_room)
            continue;
        for (const auto &[table, prefix] : changes.routes)
            if (std::find(context.tables.begin(), context.tables.end(), table) != context.tables.end() ||
                table == context.table || table == KERNEL_TABLE_LOCAL)
                add_dependents(scope, plan, state, ctx, table, prefix);
    }
    for (const auto &[ifindex, address] : changes.neighbours)
        add_neighbour(scope, plan, ifindex, address);
    return scope;
}

// Whether the ports, rules or contexts may differ, or a route that is passed over without carrier.
bool is_for_all(const kernel_state &state, const kernel_changes &changes)
{
    if (changes.rules || changes.links.size() != changes.carriers.size())
        return true;
    return std::any_of(changes.carriers.begin(), changes.carriers.end(),
                       [&state](int ifindex) { return kernel_ignores_linkdown(state, ifindex); });
}

// Adds to the scope what differs between what the card held and what it is to hold.
void add_card_differences(live_scope &scope, std::uint32_t ctx, const live_contents &from, const live_contents &to)
{
    for (const auto &[prefix, route] : from.routes) {
        const auto now = to.routes.find(prefix);
        if (now == to.routes.end() || !(now->second == route))
            scope.routes.insert({ctx, prefix});
    }
    for (const auto &[prefix, route] : to.routes)
        if (from.routes.count(prefix) == 0)
            scope.routes.insert({ctx, prefix});
    for (const auto &[address, host] : from.hosts) {
        const auto now = to.hosts.find(address);
        if (now == to.hosts.end() || !(now->second == host))
            scope.hosts.insert({ctx, address});
    }
    for (const auto &[address, host] : to.hosts)
        if (from.hosts.count(address) == 0)
            scope.hosts.insert({ctx, address});
}

template <typename Map> void copy_entry(const Map &from, Map &to, const typename Map::key_type &key)
{
    const auto found = from.find(key);
    if (found == from.end())
        to.erase(key);
    else
        to.insert_or_assign(key, found->second);
}
} // namespace

live_plan live_plan_frame(const kernel_state &state, const live_conf &conf, const live_ids &ids, const live_room &room)
{
    live_plan plan;
    add_ports(plan, state, conf);
    add_ids(plan, conf, ids);
    for (auto &[ifindex, port] : plan.ports) {
        if (!port.is_bound)
            continue;
        live_context &context = plan.contexts[port.ctx];
        context.table = live_conf_table(conf, port.ctx);
        if (context.table != KERNEL_TABLE_MAIN) {
            kernel_rule rule;
            rule.preference = LIVE_RULE_PREFERENCE;
            rule.table = context.table;
            rule.protocol = LIVE_RULE_PROTOCOL;
            rule.iif = port.name;
            plan.rules.push_back(rule);
        }
        add_tables(context, state, port.name);
        choose_address(port, context, state, ifindex);
    }
    for (auto &[ctx, context] : plan.contexts) {
        live_need_add(context.own_need, kernel_prefix_of(LIVE_UP_GATEWAY, 32), 1);
        if (!live_room_fits(plan.need + context.own_need.sum, room))
            hold_back_for_room(plan, ctx, room - plan.need);
        context.need = context.own_need;
        plan.need = plan.need + context.need.sum;
    }
    plan.used = plan.need;
    return plan;
}

bool live_plan_route(const kernel_state &state, const live_plan &frame, std::uint32_t ctx, const kernel_prefix &prefix,
                     live_route *route)
{
    const live_context &context = frame.contexts.at(ctx);
    if (live_plan_is_passed_by(prefix) || context.own.count(prefix) != 0)
        return false;
    const kernel_table &local = plan_table(state, KERNEL_TABLE_LOCAL);
    if (prefix.length > 0 && kernel_table_match(local, prefix.address, prefix.length - 1) != nullptr)
        return false; // answered by the one that covers it
    *route = {};
    if (kernel_table_find(local, prefix) != nullptr) {
        route->why_up = "an address of this host";
        return true;
    }
    const auto *const routes = kernel_table_find(plan_table(state, context.table), prefix);
    if (routes == nullptr)
        return false;
    const kernel_answer answer = kernel_routes_answer(state, *routes);
    route->why_up =
        answer.verdict == kernel_verdict::paths ? paths_of(state, frame, ctx, answer, &route->paths) : answer.reason;
    if (!route->why_up.empty())
        route->paths.clear();
    return true;
}

bool live_plan_neighbour(const kernel_state &state, const live_plan &frame, std::uint32_t ctx, std::uint32_t address,
                         int *ifindex)
{
    if (!is_direct(state, frame.contexts.at(ctx), address, ifindex) || port_of(frame, ctx, *ifindex) == nullptr)
        return false;
    const auto found = state.neighbours.find({*ifindex, address});
    return found != state.neighbours.end() && kernel_neighbour_is_known(found->second);
}

live_plan live_plan_make(const kernel_state &state, const live_conf &conf, const live_ids &ids, const live_room &room)
{
    live_plan plan = live_plan_frame(state, conf, ids, room);
    live_scope all;
    for (const auto &[ctx, context] : plan.contexts) {
        if (!context.has_room)
            continue;
        for (const std::uint32_t table : {KERNEL_TABLE_LOCAL, context.table})
            for (const auto &[prefix, routes] : plan_table(state, table).routes)
                all.routes.insert({ctx, prefix});
    }
    for (const auto &[key, neighbour] : state.neighbours)
        add_neighbour(all, plan, key.first, key.second);
    (void)plan_scope(plan, state, all);
    live_plan_fit(plan, room);
    return plan;
}

live_scope live_plan_update(live_plan &plan, const kernel_state &state, const live_conf &conf, const live_ids &ids,
                            const live_room &room, const kernel_changes &changes)
{
    live_scope scope;
    if (is_for_all(state, changes)) {
        live_plan next = live_plan_make(state, conf, ids, room);
        scope.is_whole = true;
        std::swap(plan, next);
        return scope;
    }
    const bool was_cut = !live_room_fits(plan.need, room);
    live_scope wanted = plan_scope(plan, state, scope_of(plan, state, changes));
    if (wanted.empty())
        return scope;
    if (was_cut || !live_room_fits(plan.need, room)) {
        std::map<std::uint32_t, live_contents> before;
        for (auto &[ctx, context] : plan.contexts)
            before[ctx] = std::move(context.card);
        live_plan_fit(plan, room);
        for (const auto &[ctx, context] : plan.contexts)
            add_card_differences(scope, ctx, before[ctx], context.card);
        return scope;
    }
    for (const auto &[ctx, prefix] : wanted.routes)
        copy_entry(plan.contexts.at(ctx).wanted.routes, plan.contexts.at(ctx).card.routes, prefix);
    for (const auto &[ctx, address] : wanted.hosts)
        copy_entry(plan.contexts.at(ctx).wanted.hosts, plan.contexts.at(ctx).card.hosts, address);
    plan.used = plan.need;
    return wanted;
}

bool live_plan_is_passed_by(const kernel_prefix &prefix)
{
    const std::uint32_t first = prefix.address >> 24;
    return prefix.address >= MULTICAST || (prefix.length >= 8 && (first == 0 || first == 127));
}

std::array<kernel_prefix, LIVE_OWN_ROUTES> live_plan_own_routes(std::uint32_t address, std::uint32_t length)
{
    const kernel_prefix subnet = kernel_prefix_of(address, length);
    return {kernel_prefix_of(address, 32), subnet, kernel_prefix_of(subnet.address, 32),
            kernel_prefix_of(kernel_prefix_last(subnet), 32)};
}

std::vector<live_path> live_plan_lookup(const live_plan &plan, std::uint32_t ctx, std::uint32_t address)
{
    const auto found = plan.contexts.find(ctx);
    if (found == plan.contexts.end() || !found->second.held_back.empty() ||
        live_plan_is_passed_by(kernel_prefix_of(address, 32)))
        return {};
    const live_context &context = found->second;
    for (std::uint32_t length = 33; length-- > 0;) {
        const kernel_prefix prefix = kernel_prefix_of(address, length);
        if (context.own.count(prefix) != 0)
            return {};
        const auto host = context.card.hosts.find(address);
        if (length == 32 && host != context.card.hosts.end())
            return {{address, host->second.ifindex}};
        const auto route = context.card.routes.find(prefix);
        if (route != context.card.routes.end())
            return route->second.paths;
    }
    return {};
}
