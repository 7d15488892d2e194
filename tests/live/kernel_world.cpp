// kernel_world.cpp - writes a kernel's state down, and forwards by it without an index or a short cut.
#include "kernel_world.h"

#include <algorithm>
#include <optional>

#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include "card_tool/address_text.h"

namespace harness
{
std::uint32_t ip(const std::string &dotted) { return address_parse(dotted).value(); }

kernel_prefix net(const std::string &slashed)
{
    const std::size_t slash = slashed.find('/');
    return kernel_prefix_of(ip(slashed.substr(0, slash)),
                            static_cast<std::uint32_t>(std::stoul(slashed.substr(slash + 1))));
}

kernel_route route_of(std::uint8_t type, const std::vector<std::pair<std::string, int>> &hops)
{
    kernel_route route;
    route.type = type;
    for (const auto &[gateway, ifindex] : hops) {
        kernel_hop hop;
        hop.gateway = gateway.empty() ? 0 : ip(gateway);
        hop.ifindex = ifindex;
        route.hops.push_back(hop);
    }
    return route;
}

kernel_rule rule_of(std::uint32_t preference, std::uint32_t table, const std::string &iif)
{
    kernel_rule rule;
    rule.preference = preference;
    rule.table = table;
    rule.iif = iif;
    return rule;
}

kernel_world::kernel_world()
{
    for (const std::uint32_t table : {KERNEL_TABLE_DEFAULT, KERNEL_TABLE_MAIN, KERNEL_TABLE_LOCAL})
        state.tables[table];
    link(1, "lo").is_ethernet = false;
    address(1, "127.0.0.1/8");
    add_rule(rule_of(0, KERNEL_TABLE_LOCAL));
    add_rule(rule_of(32766, KERNEL_TABLE_MAIN));
    add_rule(rule_of(32767, KERNEL_TABLE_DEFAULT));
}

kernel_link &kernel_world::link(int ifindex, const std::string &name)
{
    kernel_link &made = state.links[ifindex];
    made.name = name;
    made.mac = 0x020000000000u + static_cast<unsigned>(ifindex);
    made.mtu = 1500;
    made.is_ethernet = made.is_up = made.has_carrier = made.is_running = true;
    state.netconfs[ifindex].forwards = true;
    return made;
}

void kernel_world::address(int ifindex, const std::string &slashed)
{
    const std::uint32_t given = ip(slashed.substr(0, slashed.find('/')));
    const kernel_prefix subnet = net(slashed);
    kernel_address made;
    made.address = made.peer = given;
    made.length = subnet.length;
    state.addresses[ifindex].push_back(made);
    kernel_table &local = state.tables[KERNEL_TABLE_LOCAL];
    (void)kernel_table_set(local, kernel_prefix_of(given, 32), {route_of(RTN_LOCAL, {{"", ifindex}})});
    if (ifindex == 1)
        (void)kernel_table_set(local, subnet, {route_of(RTN_LOCAL, {{"", ifindex}})});
    if (subnet.length < 31)
        (void)kernel_table_set(local, kernel_prefix_of(kernel_prefix_last(subnet), 32),
                               {route_of(RTN_BROADCAST, {{"", ifindex}})});
    if (subnet.length < 32 && ifindex != 1)
        (void)kernel_table_set(state.tables[KERNEL_TABLE_MAIN], subnet, {route_of(RTN_UNICAST, {{"", ifindex}})});
}

void kernel_world::neighbour(int ifindex, const std::string &address, bool is_known)
{
    kernel_neighbour &made = state.neighbours[{ifindex, ip(address)}];
    made.state = is_known ? NUD_REACHABLE : NUD_FAILED;
    made.mac = is_known ? 0x020000001000u : 0;
}

void kernel_world::routes(std::uint32_t table, const std::string &prefix, std::vector<kernel_route> routes)
{
    (void)kernel_table_set(state.tables[table], net(prefix), std::move(routes));
}

void kernel_world::via(const std::string &prefix, const std::vector<std::pair<std::string, int>> &hops,
                       std::uint32_t table)
{
    routes(table, prefix, {route_of(RTN_UNICAST, hops)});
}

void kernel_world::add_rule(const kernel_rule &rule)
{
    const auto at = std::upper_bound(state.rules.begin(), state.rules.end(), rule,
                                     [](const auto &a, const auto &b) { return a.preference < b.preference; });
    state.rules.insert(at, rule);
}

void kernel_world::own_rules()
{
    for (const kernel_rule &rule : plan().rules)
        add_rule(rule);
}

void kernel_world::statements(const std::string &text)
{
    std::string error;
    EXPECT_EQ(live_conf_parse("live.conf", text, &conf, &error), 0) << error;
    for (const auto &[ctx, table] : conf.tables)
        state.tables[table];
}

live_plan kernel_world::plan(const live_room &room) const { return live_plan_make(state, conf, {}, room); }

namespace
{
enum class step { leaves, stays, next_prefix, next_table };

// What one route does with a packet.
step take(const kernel_state &state, const kernel_route &route, std::uint32_t address, kernel_exits *exits)
{
    if (route.type == RTN_THROW)
        return step::next_table;
    if (route.type != RTN_UNICAST)
        return step::stays;
    bool is_odd = !route.is_plain;
    for (const kernel_hop &hop : route.hops) {
        const kernel_link &link = state.links.at(hop.ifindex);
        const auto conf = state.netconfs.find(hop.ifindex), all = state.netconfs.find(KERNEL_ALL_LINKS);
        const bool ignores = (conf != state.netconfs.end() && conf->second.ignores_linkdown) ||
                             (all != state.netconfs.end() && all->second.ignores_linkdown);
        // Whether a set of paths still has one over a link without carrier depends on what came before.
        is_odd = is_odd || !hop.is_plain || (link.is_up && (hop.is_dead || (ignores && !link.has_carrier)));
        if (!hop.is_dead)
            exits->insert({hop.gateway == 0 ? address : hop.gateway, hop.ifindex});
    }
    if (is_odd) {
        exits->clear(); // by another size or an encapsulation, or who knows
        return step::stays;
    }
    if (exits->empty())
        return step::next_prefix;
    return step::leaves;
}

step search(const kernel_state &state, const kernel_table &table, std::uint32_t address, std::uint8_t tos,
            kernel_exits *exits)
{
    for (std::uint32_t length = 33; length-- > 0;)
        for (const auto &[prefix, routes] : table.routes) {
            if (prefix.length != length || !kernel_prefix_covers(prefix, address))
                continue;
            std::vector<kernel_route> order;
            for (const kernel_route &route : routes)
                if (route.tos == 0 || route.tos == tos)
                    order.push_back(route);
            std::stable_sort(order.begin(), order.end(), [](const kernel_route &a, const kernel_route &b) {
                return a.tos != b.tos ? a.tos > b.tos : a.metric < b.metric;
            });
            for (const kernel_route &route : order) {
                const step taken = take(state, route, address, exits);
                if (taken != step::next_prefix)
                    return taken;
            }
        }
    return step::next_table;
}
} // namespace

kernel_exits exits_of(const kernel_state &state, const std::string &link, std::uint32_t address, std::uint8_t tos)
{
    kernel_exits exits;
    for (const kernel_rule &rule : state.rules) {
        if (rule.is_for_output || (!rule.iif.empty() && rule.iif != link))
            continue;
        if (!rule.is_plain || rule.table == 0)
            return {}; // who knows
        const auto table = state.tables.find(rule.table);
        const step taken =
            table == state.tables.end() ? step::next_table : search(state, table->second, address, tos, &exits);
        if (taken != step::next_table)
            return exits;
    }
    return {};
}

std::set<std::uint32_t> boundaries_of(const kernel_state &state, const live_plan &plan)
{
    std::set<std::uint32_t> found;
    const auto add = [&found](const kernel_prefix &prefix) {
        const std::uint32_t last = kernel_prefix_last(prefix);
        found.insert({prefix.address, last, prefix.address - 1, last + 1});
    };
    for (const auto &[id, table] : state.tables)
        for (const auto &[prefix, routes] : table.routes)
            add(prefix);
    for (const auto &[ctx, context] : plan.contexts) {
        for (const auto &[prefix, route] : context.card.routes)
            add(prefix);
        for (const auto &[address, host] : context.card.hosts)
            add(kernel_prefix_of(address, 32));
    }
    for (const auto &[key, neighbour] : state.neighbours)
        add(kernel_prefix_of(key.second, 32));
    return found;
}

std::string shown(const live_plan &plan)
{
    std::string text;
    for (const auto &[ifindex, port] : plan.ports)
        text += port.name + " ctx " + std::to_string(port.ctx) + " id " + std::to_string(port.id) + " " +
                address_text(port.address) + "/" + std::to_string(port.length) + " " + port.why_not + "\n";
    for (const auto &[ctx, context] : plan.contexts) {
        text += "context " + std::to_string(ctx) + ": " + context.held_back + "\n";
        for (const auto &[prefix, route] : context.card.routes) {
            text += "  " + prefix_text(prefix.address, prefix.length);
            for (const live_path &path : route.paths)
                text += " " + address_text(path.gateway) + "@" + std::to_string(path.ifindex);
            text += route.paths.empty() ? " up: " + route.why_up + "\n" : "\n";
        }
        for (const auto &[address, host] : context.card.hosts)
            text += "  host " + address_text(address) + "@" + std::to_string(host.ifindex) + " uses " +
                    std::to_string(host.uses) + "\n";
    }
    return text;
}

std::string shown(const std::vector<kernel_route> &routes)
{
    std::string text;
    for (const kernel_route &route : routes) {
        text += "[type " + std::to_string(route.type) + " metric " + std::to_string(route.metric) + " tos " +
                std::to_string(route.tos) + " scope " + std::to_string(route.scope) + " protocol " +
                std::to_string(route.protocol) + " nhid " + std::to_string(route.nexthop_id) +
                (route.is_plain ? "" : " odd");
        for (const kernel_hop &hop : route.hops)
            text += ", " + address_text(hop.gateway) + "@" + std::to_string(hop.ifindex) + " weight " +
                    std::to_string(hop.weight) + (hop.is_dead ? " dead" : "") + (hop.is_plain ? "" : " odd");
        text += "]";
    }
    return text;
}
} // namespace harness
