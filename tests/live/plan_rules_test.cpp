// plan_rules_test.cpp - what the card is to hold, rule by rule.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include "kernel_world.h"

using namespace harness;

namespace
{
// Two ports with a gateway each, in context 0.
struct plan_rules : testing::Test {
    kernel_world world;
    plan_rules()
    {
        world.link(2, "eth1");
        world.link(3, "eth2");
        world.address(2, "10.1.0.1/24");
        world.address(3, "10.2.0.1/24");
    }
    std::vector<live_path> paths(const std::string &prefix, std::uint32_t ctx = 0) const
    {
        const live_plan plan = world.plan();
        const auto &routes = plan.contexts.at(ctx).card.routes;
        const auto found = routes.find(net(prefix));
        return found == routes.end() ? std::vector<live_path>{} : found->second.paths;
    }
    // Why a prefix goes up; "none" when it has no entry.
    std::string why_up(const std::string &prefix, std::uint32_t ctx = 0) const
    {
        const live_plan plan = world.plan();
        const auto &routes = plan.contexts.at(ctx).card.routes;
        const auto found = routes.find(net(prefix));
        return found == routes.end() ? "none" : found->second.why_up;
    }
    std::string held_back(std::uint32_t ctx = 0) const { return world.plan().contexts.at(ctx).held_back; }
    bool has_host(const std::string &address, std::uint32_t ctx = 0) const
    {
        return world.plan().contexts.at(ctx).card.hosts.count(ip(address)) != 0;
    }
};
} // namespace

// ---- ports ----

TEST_F(plan_rules, every_ethernet_link_that_belongs_to_no_other_is_a_port_of_context_0)
{
    world.link(4, "br0").kind = "bridge";
    kernel_link &member = world.link(5, "eth3");
    member.master = 4;
    member.master_kind = "bridge";
    world.link(6, "tun0").is_ethernet = false;
    const live_plan plan = world.plan();
    std::vector<std::string> names;
    for (const auto &[ifindex, port] : plan.ports) {
        EXPECT_TRUE(port.is_bound) << port.name << ": " << port.why_not;
        EXPECT_EQ(port.ctx, 0u);
        names.push_back(port.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"eth1", "eth2", "br0"}));
}

TEST_F(plan_rules, with_statements_only_the_named_links_are_ports)
{
    world.statements("port eth2 ctx 3 id 9\nport eth9 ctx 3\n");
    const live_plan plan = world.plan();
    ASSERT_EQ(plan.ports.size(), 1u);
    EXPECT_EQ(plan.ports.at(3).ctx, 3u);
    EXPECT_EQ(plan.ports.at(3).id, 9u);
    EXPECT_EQ(plan.missing, std::vector<std::string>{"eth9"});
}

TEST_F(plan_rules, a_port_that_can_not_be_bound_says_why)
{
    world.statements("port lo ctx 0\nport eth1 ctx 0\nport eth2 ctx 0\nport eth3 ctx 0\nport eth4 ctx 0\n"
                     "port eth5 ctx 0\nport eth6 ctx 0\nport eth6.100 ctx 0\n");
    world.state.netconfs[2].forwards = false;
    world.link(4, "eth3").has_arp = false;
    kernel_link &member = world.link(5, "eth4");
    member.master = 3;
    member.master_kind = "bond";
    world.link(6, "eth5");
    kernel_link &above = world.link(7, "ipvl0");
    above.kind = "ipvlan";
    above.lower = 6;
    world.link(8, "eth6");
    kernel_link &tagged = world.link(9, "eth6.100");
    tagged.kind = "vlan";
    tagged.lower = 8;
    const live_plan plan = world.plan();
    EXPECT_EQ(plan.ports.at(8).why_not, "eth6.100 takes frames from it by their tag");
    EXPECT_TRUE(plan.ports.at(9).is_bound);
    EXPECT_EQ(plan.ports.at(1).why_not, "it is no Ethernet link");
    EXPECT_EQ(plan.ports.at(2).why_not, "its forwarding is off");
    EXPECT_EQ(plan.ports.at(4).why_not, "it does not use ARP");
    EXPECT_EQ(plan.ports.at(5).why_not, "it belongs to eth2");
    EXPECT_EQ(plan.ports.at(6).why_not, "ipvl0 shares its MAC address");
    EXPECT_TRUE(plan.ports.at(3).is_bound);
    for (const int ifindex : {1, 2, 4, 5, 6})
        EXPECT_EQ(plan.ports.at(ifindex).id, 0u) << ifindex;
}

TEST_F(plan_rules, links_keep_the_ids_they_had_and_the_others_get_free_ones)
{
    world.link(4, "eth3");
    world.conf.ports = {{"eth1", 0, {}}, {"eth2", 0, {}}, {"eth3", 0, 2}};
    const live_plan plan = live_plan_make(world.state, world.conf, {{3, 1}, {2, 2}}, LIVE_ROOM_ALL);
    EXPECT_EQ(plan.ports.at(4).id, 2u); // as it is said, whatever eth1 had
    EXPECT_EQ(plan.ports.at(3).id, 1u); // as it had
    EXPECT_EQ(plan.ports.at(2).id, 3u); // the first free one
}

// ---- the address of IF_UP ----

TEST_F(plan_rules, the_event_is_for_the_first_address_of_1_to_30_bits)
{
    world.link(4, "eth3");
    world.address(4, "10.3.0.1/32");
    world.address(4, "10.4.0.0/31");
    world.address(4, "10.5.0.1/30");
    world.address(4, "10.6.0.1/24");
    const live_plan plan = world.plan();
    EXPECT_EQ(plan.ports.at(4).address, ip("10.5.0.1"));
    EXPECT_EQ(plan.ports.at(4).length, 30u);
    EXPECT_EQ(why_up("10.3.0.1/32"), "an address of this host");
    EXPECT_EQ(why_up("10.4.0.0/31"), "without a gateway");
    EXPECT_EQ(why_up("10.6.0.0/24"), "without a gateway");
    EXPECT_EQ(why_up("10.6.0.1/32"), "an address of this host");
    EXPECT_EQ(why_up("10.6.0.255/32"), "an address of this host");
}

TEST_F(plan_rules, a_port_that_is_down_gets_no_event)
{
    world.state.links.at(2).is_up = false;
    const live_plan_port port = world.plan().ports.at(2);
    EXPECT_TRUE(port.is_bound);
    EXPECT_FALSE(port.is_up);
    EXPECT_EQ(port.length, 0u);
}

TEST_F(plan_rules, loss_of_carrier_changes_nothing)
{
    world.via("20.0.0.0/8", {{"10.1.0.9", 2}});
    const live_plan before = world.plan();
    world.state.links.at(2).has_carrier = false;
    EXPECT_EQ(world.plan(), before);
}

TEST_F(plan_rules, addresses_whose_entries_another_port_has_get_no_event)
{
    world.link(4, "eth3");
    world.address(4, "10.1.0.2/24"); // the subnet of eth1
    world.address(4, "10.3.0.0/24"); // its own network address
    world.address(4, "10.3.0.255/24");
    world.address(4, "64.0.0.1/1"); // the card's own gateway would be in its subnet
    EXPECT_EQ(world.plan().ports.at(4).length, 0u);
    world.address(4, "10.3.0.9/24");
    EXPECT_EQ(world.plan().ports.at(4).address, ip("10.3.0.9"));
}

TEST_F(plan_rules, an_address_with_a_peer_gets_no_event)
{
    world.state.addresses[2].front().peer = ip("10.1.0.2");
    EXPECT_EQ(world.plan().ports.at(2).length, 0u);
}

TEST_F(plan_rules, what_the_event_makes_is_not_made_twice)
{
    EXPECT_EQ(why_up("10.1.0.0/24"), "none");
    EXPECT_EQ(why_up("10.1.0.1/32"), "none");
    EXPECT_EQ(why_up("10.1.0.255/32"), "none");
    EXPECT_EQ(world.plan().contexts.at(0).own.count(net("10.1.0.0/32")), 1u);
}

// ---- routes ----

TEST_F(plan_rules, a_route_over_gateways_on_ports_is_programmed)
{
    world.via("20.0.0.0/8", {{"10.2.0.9", 3}, {"10.1.0.9", 2}});
    EXPECT_EQ(paths("20.0.0.0/8"), (std::vector<live_path>{{ip("10.1.0.9"), 2}, {ip("10.2.0.9"), 3}}));
    const live_plan plan = world.plan();
    EXPECT_EQ(plan.contexts.at(0).card.hosts.at(ip("10.1.0.9")), (live_host{2, 1}));
}

TEST_F(plan_rules, the_default_route_is_a_route_like_any_other)
{
    world.via("0.0.0.0/0", {{"10.1.0.9", 2}});
    EXPECT_EQ(paths("0.0.0.0/0"), (std::vector<live_path>{{ip("10.1.0.9"), 2}}));
    world.routes(KERNEL_TABLE_MAIN, "0.0.0.0/0", {route_of(RTN_UNREACHABLE)});
    EXPECT_EQ(why_up("0.0.0.0/0"), "unreachable");
}

TEST_F(plan_rules, of_a_prefix_the_route_with_the_lowest_metric_counts)
{
    kernel_route good = route_of(RTN_UNICAST, {{"10.1.0.9", 2}}), other = route_of(RTN_UNICAST, {{"10.2.0.9", 3}});
    other.metric = 20;
    world.routes(KERNEL_TABLE_MAIN, "20.0.0.0/8", {good, other});
    EXPECT_EQ(paths("20.0.0.0/8"), (std::vector<live_path>{{ip("10.1.0.9"), 2}}));
    world.routes(KERNEL_TABLE_MAIN, "20.0.0.0/8", {other});
    EXPECT_EQ(paths("20.0.0.0/8"), (std::vector<live_path>{{ip("10.2.0.9"), 3}}));
}

TEST_F(plan_rules, a_tos_on_the_prefix_sends_it_up)
{
    kernel_route with_tos = route_of(RTN_UNICAST, {{"10.1.0.9", 2}});
    with_tos.tos = 0x10;
    world.routes(KERNEL_TABLE_MAIN, "20.0.0.0/8", {with_tos, route_of(RTN_UNICAST, {{"10.1.0.9", 2}})});
    EXPECT_EQ(why_up("20.0.0.0/8"), "a route with a TOS");
}

TEST_F(plan_rules, any_other_route_goes_up_and_no_shorter_prefix_answers)
{
    world.via("20.0.0.0/8", {{"10.1.0.9", 2}});
    world.link(4, "tun0").is_ethernet = false;
    kernel_route mtu = route_of(RTN_UNICAST, {{"10.1.0.9", 2}}), encap = mtu, weighted = mtu, nothing = mtu;
    mtu.is_plain = false;
    encap.hops[0].is_plain = false;
    weighted.hops.push_back({ip("10.2.0.9"), 3, 5, false, true});
    nothing.hops.clear();
    kernel_route nine = route_of(RTN_UNICAST);
    for (unsigned i = 0; i < 9; ++i)
        nine.hops.push_back({ip("10.1.0.10") + i, 2, 1, false, true});
    const std::pair<kernel_route, std::string> cases[] = {
        {route_of(RTN_BLACKHOLE), "blackhole"},
        {route_of(RTN_UNREACHABLE), "unreachable"},
        {route_of(RTN_PROHIBIT), "prohibit"},
        {route_of(RTN_THROW), "throw"},
        {route_of(RTN_NAT), "a route of a special type"},
        {route_of(RTN_UNICAST, {{"", 2}}), "without a gateway"},
        {route_of(RTN_UNICAST, {{"10.1.0.9", 4}}), "over tun0, which is no port of the context"},
        {mtu, "an MTU, an encapsulation or another attribute"},
        {encap, "an encapsulation, or a gateway of another family"},
        {weighted, "paths of different weights"},
        {nothing, "a next hop that is not told"},
        {nine, "more than eight paths"},
        {route_of(RTN_UNICAST, {{"10.1.0.9", 2}, {"10.1.0.9", 2}}), "one path twice"},
    };
    for (const auto &[route, why] : cases) {
        world.routes(KERNEL_TABLE_MAIN, "20.1.0.0/16", {route});
        EXPECT_EQ(why_up("20.1.0.0/16"), why);
        EXPECT_EQ(live_plan_lookup(world.plan(), 0, ip("20.1.2.3")), std::vector<live_path>{}) << why;
    }
}

TEST_F(plan_rules, eight_paths_are_programmed)
{
    kernel_route eight = route_of(RTN_UNICAST);
    for (unsigned i = 0; i < 8; ++i)
        eight.hops.push_back({ip("10.1.0.10") + i, 2, 7, false, true}); // of equal weight, whatever it is
    world.routes(KERNEL_TABLE_MAIN, "20.0.0.0/8", {eight});
    EXPECT_EQ(paths("20.0.0.0/8").size(), 8u);
}

TEST_F(plan_rules, a_dead_path_is_left_out)
{
    kernel_route route = route_of(RTN_UNICAST, {{"10.1.0.9", 2}, {"10.2.0.9", 3}});
    route.hops[0].is_dead = true;
    world.routes(KERNEL_TABLE_MAIN, "20.0.0.0/8", {route});
    world.state.links.at(2).is_up = false;
    EXPECT_EQ(paths("20.0.0.0/8"), (std::vector<live_path>{{ip("10.2.0.9"), 3}}));
    world.state.links.at(2).is_up = true; // dead for want of a carrier: not for every set
    EXPECT_EQ(why_up("20.0.0.0/8"), "over a link that is down");
}

TEST_F(plan_rules, a_path_that_the_kernel_passes_over_without_carrier_sends_its_route_up)
{
    world.via("20.0.0.0/8", {{"10.1.0.9", 2}});
    world.state.links.at(2).has_carrier = false;
    world.state.netconfs[2].ignores_linkdown = true;
    EXPECT_EQ(why_up("20.0.0.0/8"), "over a link that is down");
    world.state.netconfs[2].ignores_linkdown = false;
    EXPECT_EQ(paths("20.0.0.0/8").size(), 1u);
    world.state.netconfs[KERNEL_ALL_LINKS].ignores_linkdown = true;
    EXPECT_EQ(why_up("20.0.0.0/8"), "over a link that is down");
}

TEST_F(plan_rules, several_routes_of_one_metric_go_up_unless_they_are_alike)
{
    kernel_route a = route_of(RTN_UNICAST, {{"10.1.0.9", 2}}), b = route_of(RTN_UNICAST, {{"10.2.0.9", 3}});
    world.routes(KERNEL_TABLE_MAIN, "20.0.0.0/8", {a, b});
    EXPECT_EQ(why_up("20.0.0.0/8"), "several routes of one metric");
    b = a;
    b.protocol = 12;
    world.routes(KERNEL_TABLE_MAIN, "20.0.0.0/8", {a, b});
    EXPECT_EQ(paths("20.0.0.0/8").size(), 1u);
}

TEST_F(plan_rules, every_address_of_the_table_local_goes_up_and_hides_what_lies_in_it)
{
    world.via("20.0.0.0/8", {{"10.1.0.9", 2}});
    world.via("20.1.1.0/24", {{"10.1.0.9", 2}});
    world.routes(KERNEL_TABLE_LOCAL, "20.1.0.0/16", {route_of(RTN_LOCAL)});
    world.routes(KERNEL_TABLE_LOCAL, "20.1.1.9/32", {route_of(RTN_LOCAL)});
    EXPECT_EQ(why_up("20.1.0.0/16"), "an address of this host");
    EXPECT_EQ(why_up("20.1.1.0/24"), "none");
    EXPECT_EQ(why_up("20.1.1.9/32"), "none");
    EXPECT_EQ(live_plan_lookup(world.plan(), 0, ip("20.1.1.1")), std::vector<live_path>{});
    EXPECT_EQ(live_plan_lookup(world.plan(), 0, ip("20.2.1.1")).size(), 1u);
}

TEST_F(plan_rules, what_the_program_sends_up_by_itself_has_no_entry)
{
    for (const char *const prefix : {"0.0.0.0/8", "127.0.0.0/8", "127.0.0.1/32", "224.0.0.0/3", "239.1.1.1/32"})
        EXPECT_TRUE(live_plan_is_passed_by(net(prefix))) << prefix;
    for (const char *const prefix : {"0.0.0.0/0", "0.0.0.0/7", "126.0.0.0/7", "192.0.0.0/2", "1.0.0.0/8"})
        EXPECT_FALSE(live_plan_is_passed_by(net(prefix))) << prefix;
    world.via("239.0.0.0/8", {{"10.1.0.9", 2}});
    EXPECT_EQ(why_up("239.0.0.0/8"), "none");
    EXPECT_EQ(why_up("127.0.0.0/8"), "none");
    EXPECT_EQ(live_plan_lookup(world.plan(), 0, ip("239.1.1.1")), std::vector<live_path>{});
}

// ---- gateways ----

TEST_F(plan_rules, a_gateway_is_announced_before_its_address_is_known_and_while_a_route_uses_it)
{
    world.via("20.0.0.0/8", {{"10.1.0.9", 2}});
    world.via("21.0.0.0/8", {{"10.1.0.9", 2}});
    EXPECT_EQ(world.plan().contexts.at(0).card.hosts.at(ip("10.1.0.9")), (live_host{2, 2}));
    world.neighbour(2, "10.1.0.9", false);
    EXPECT_TRUE(has_host("10.1.0.9"));
    world.routes(KERNEL_TABLE_MAIN, "20.0.0.0/8", {});
    world.routes(KERNEL_TABLE_MAIN, "21.0.0.0/8", {});
    EXPECT_FALSE(has_host("10.1.0.9"));
    world.neighbour(2, "10.1.0.9");
    EXPECT_EQ(world.plan().contexts.at(0).card.hosts.at(ip("10.1.0.9")), (live_host{2, 0}));
}

TEST_F(plan_rules, a_gateway_that_the_kernel_does_not_reach_directly_on_that_port_sends_its_routes_up)
{
    world.via("20.0.0.0/8", {{"10.2.0.9", 2}}); // onlink on eth1, though it lies in the subnet of eth2
    EXPECT_EQ(why_up("20.0.0.0/8"), "the kernel does not reach gateway 10.2.0.9 directly on eth1");
    world.via("20.0.0.0/8", {{"10.1.0.9", 2}});
    world.via("10.1.0.8/30", {{"10.2.0.9", 3}}); // a longer route over the gateway
    EXPECT_EQ(why_up("20.0.0.0/8"), "the kernel does not reach gateway 10.1.0.9 directly on eth1");
    EXPECT_FALSE(has_host("10.1.0.9"));
}

TEST_F(plan_rules, a_gateway_whose_address_has_a_route_of_its_own_is_not_announced)
{
    world.via("20.0.0.0/8", {{"10.1.0.9", 2}});
    world.routes(KERNEL_TABLE_MAIN, "10.1.0.9/32", {route_of(RTN_UNICAST, {{"", 2}})});
    EXPECT_EQ(why_up("20.0.0.0/8"), "the kernel does not reach gateway 10.1.0.9 directly on eth1");
    EXPECT_EQ(why_up("10.1.0.9/32"), "without a gateway");
    EXPECT_FALSE(has_host("10.1.0.9"));
}

TEST_F(plan_rules, a_gateway_that_was_an_address_of_this_host_sends_its_routes_up)
{
    world.via("20.0.0.0/8", {{"10.1.0.9", 2}});
    world.state.former_addresses.insert(ip("10.1.0.9"));
    EXPECT_EQ(why_up("20.0.0.0/8"), "the kernel does not reach gateway 10.1.0.9 directly on eth1");
}

TEST_F(plan_rules, one_gateway_address_on_two_ports_is_used_on_the_one_that_the_kernel_takes_for_it)
{
    world.via("20.0.0.0/8", {{"10.1.0.9", 2}});
    world.via("21.0.0.0/8", {{"10.1.0.9", 3}});
    EXPECT_EQ(paths("20.0.0.0/8"), (std::vector<live_path>{{ip("10.1.0.9"), 2}}));
    EXPECT_EQ(why_up("21.0.0.0/8"), "the kernel does not reach gateway 10.1.0.9 directly on eth2");
}

TEST_F(plan_rules, a_gateway_with_an_address_of_an_interface_sends_its_routes_up)
{
    world.via("20.0.0.0/8", {{"10.1.0.255", 2}});
    world.via("21.0.0.0/8", {{"10.1.0.0", 2}});
    EXPECT_EQ(paths("20.0.0.0/8").size(), 0u);
    EXPECT_EQ(paths("21.0.0.0/8").size(), 0u);
}

// ---- other hosts ----

TEST_F(plan_rules, a_known_neighbour_is_announced_where_the_kernel_reaches_it_directly)
{
    world.neighbour(2, "10.1.0.9");
    world.neighbour(2, "10.1.0.10", false);
    world.neighbour(3, "10.1.0.11"); // on the wrong port
    world.neighbour(2, "10.1.0.12");
    world.via("10.1.0.12/31", {{"10.2.0.9", 3}});
    world.neighbour(2, "10.1.0.255");
    world.neighbour(2, "10.9.0.1"); // no route leads there
    EXPECT_TRUE(has_host("10.1.0.9"));
    for (const char *const address : {"10.1.0.10", "10.1.0.11", "10.1.0.12", "10.1.0.255", "10.9.0.1"})
        EXPECT_FALSE(has_host(address)) << address;
    world.routes(KERNEL_TABLE_MAIN, "10.1.0.9/32", {route_of(RTN_UNICAST, {{"", 2}})});
    EXPECT_FALSE(has_host("10.1.0.9")); // its prefix has a route: no second kind
}

TEST_F(plan_rules, a_neighbour_of_a_port_that_is_not_bound_is_not_announced)
{
    world.neighbour(2, "10.1.0.9");
    world.state.netconfs[2].forwards = false;
    EXPECT_FALSE(has_host("10.1.0.9"));
}

// ---- contexts, tables and rules ----

TEST_F(plan_rules, another_table_needs_a_rule_for_each_port_and_waits_for_it)
{
    world.statements("context 3 table 100\nport eth1 ctx 0\nport eth2 ctx 3\n");
    world.via("20.0.0.0/8", {{"10.2.0.9", 3}}, 100);
    const live_plan plan = world.plan();
    ASSERT_EQ(plan.rules.size(), 1u);
    EXPECT_EQ(plan.rules[0].iif, "eth2");
    EXPECT_EQ(plan.rules[0].table, 100u);
    EXPECT_EQ(held_back(3), "the kernel's rules do not search local and then 100 for packets from eth2");
    EXPECT_EQ(held_back(0), "");
    world.own_rules();
    EXPECT_EQ(held_back(3), "");
    EXPECT_EQ(paths("20.0.0.0/8", 3), (std::vector<live_path>{{ip("10.2.0.9"), 3}}));
    EXPECT_EQ(why_up("20.0.0.0/8", 0), "none");
}

TEST_F(plan_rules, a_gateway_of_another_table_may_be_reached_by_main)
{
    world.statements("context 3 table 100\nport eth2 ctx 3\n");
    world.own_rules();
    world.via("0.0.0.0/0", {{"10.2.0.9", 3}}, 100); // also the kernel's way to 10.2.0.9, which is the same
    EXPECT_EQ(paths("0.0.0.0/0", 3), (std::vector<live_path>{{ip("10.2.0.9"), 3}}));
    world.via("10.2.0.0/24", {{"10.2.0.77", 3}}, 100); // now another way
    EXPECT_EQ(paths("0.0.0.0/0", 3).size(), 0u);
    world.routes(100, "10.2.0.0/24", {route_of(RTN_THROW)}); // and main again
    EXPECT_EQ(paths("0.0.0.0/0", 3).size(), 1u);
}

TEST_F(plan_rules, a_path_over_a_port_of_another_context_goes_up)
{
    world.statements("port eth1 ctx 0\nport eth2 ctx 3\n");
    world.via("20.0.0.0/8", {{"10.2.0.9", 3}});
    EXPECT_EQ(why_up("20.0.0.0/8", 0), "over eth2, which is no port of the context");
    EXPECT_EQ(paths("20.0.0.0/8", 3).size(), 1u);
}

TEST_F(plan_rules, rules_beyond_the_standard_ones_hold_back_the_contexts_that_they_can_concern)
{
    world.statements("port eth1 ctx 0\nport eth2 ctx 3\n");
    kernel_rule from = rule_of(100, 50);
    from.is_plain = false;
    world.add_rule(from);
    EXPECT_EQ(held_back(0), "the kernel's rule 100 can send packets from eth1 elsewhere");
    EXPECT_EQ(held_back(3), "the kernel's rule 100 can send packets from eth2 elsewhere");
    world.state.rules[1].iif = "eth2"; // for packets from there alone
    EXPECT_EQ(held_back(0), "");
    EXPECT_NE(held_back(3), "");
    world.state.rules[1].iif = "eth7";
    EXPECT_EQ(held_back(3), "");
    world.state.rules[1].iif = "";
    world.state.rules[1].is_for_output = true;
    EXPECT_EQ(held_back(0) + held_back(3), "");
    world.state.rules[1] = rule_of(100, 50); // another table before main, for all
    EXPECT_EQ(held_back(0), "the kernel's rules do not search local and then main for packets from eth1");
    world.state.rules.erase(world.state.rules.begin() + 1);
    world.add_rule(rule_of(40000, 50)); // after main: only for what the card does not answer
    EXPECT_EQ(held_back(0), "");
}

TEST_F(plan_rules, without_the_standard_rules_a_context_is_held_back)
{
    world.state.rules.erase(world.state.rules.begin());
    EXPECT_EQ(held_back(), "the kernel's rules do not search local and then main for packets from eth1");
}

// ---- room ----

TEST_F(plan_rules, what_does_not_fit_is_sent_up_with_the_smallest_range_around_it)
{
    world.via("0.0.0.0/0", {{"10.1.0.9", 2}});
    world.via("20.1.0.0/16", {{"10.1.0.9", 2}});
    const live_plan whole = world.plan();
    world.via("20.1.2.0/24", {{"10.2.0.9", 3}});
    live_room room = whole.used;
    room.leaves += 10;
    const live_plan plan = world.plan(room); // no node for the longer one: its /16 has no slots
    const auto &card = plan.contexts.at(0).card;
    EXPECT_EQ(plan.contexts.at(0).cut, std::vector<kernel_prefix>{net("20.1.2.0/24")});
    EXPECT_TRUE(card.routes.at(net("20.1.0.0/16")).paths.empty());
    EXPECT_EQ(card.routes.at(net("0.0.0.0/0")).paths.size(), 1u);
    EXPECT_EQ(live_plan_lookup(plan, 0, ip("20.1.9.9")), std::vector<live_path>{});
    EXPECT_EQ(live_plan_lookup(plan, 0, ip("20.2.9.9")).size(), 1u);
}

TEST_F(plan_rules, the_range_is_one_that_needs_no_new_node)
{
    world.via("0.0.0.0/0", {{"10.1.0.9", 2}});
    world.via("20.0.0.0/9", {{"10.1.0.9", 2}});
    live_room room = world.plan().used;
    room.leaves += 10;
    world.via("20.1.2.0/24", {{"10.1.0.77", 2}});
    const live_plan plan = world.plan(room);
    const auto &card = plan.contexts.at(0).card;
    EXPECT_EQ(card.routes.at(net("20.1.0.0/16")).why_up, "a longer prefix has no room");
    EXPECT_EQ(card.routes.at(net("20.0.0.0/9")).paths.size(), 1u);
}

TEST_F(plan_rules, without_a_leaf_the_covering_route_goes_up)
{
    world.via("0.0.0.0/0", {{"10.1.0.9", 2}});
    world.via("20.0.0.0/9", {{"10.1.0.9", 2}});
    live_room room = world.plan().used;
    room.nodes += 10;
    world.via("20.1.2.0/24", {{"10.1.0.9", 2}});
    live_plan plan = world.plan(room);
    EXPECT_TRUE(plan.contexts.at(0).card.routes.at(net("20.0.0.0/9")).paths.empty());
    EXPECT_EQ(plan.contexts.at(0).card.routes.count(net("20.1.2.0/24")), 0u);
    world.routes(KERNEL_TABLE_MAIN, "20.0.0.0/9", {});
    world.routes(KERNEL_TABLE_MAIN, "0.0.0.0/0", {});
    room.leaves -= 2; // of the /9 and the gateway, which is gone with the routes
    plan = world.plan(room);
    EXPECT_EQ(plan.contexts.at(0).card.routes.count(net("20.1.2.0/24")), 0u);
    EXPECT_EQ(live_plan_lookup(plan, 0, ip("20.1.2.3")), std::vector<live_path>{}); // a miss, which goes up
}

TEST_F(plan_rules, a_set_without_a_block_goes_up_alone)
{
    world.via("0.0.0.0/0", {{"10.1.0.9", 2}});
    world.via("20.0.0.0/8", {{"10.1.0.9", 2}, {"10.2.0.9", 3}});
    live_room room = LIVE_ROOM_ALL;
    room.blocks = 0;
    const live_plan plan = world.plan(room);
    EXPECT_EQ(plan.contexts.at(0).card.routes.at(net("20.0.0.0/8")).why_up, "no room for its paths");
    EXPECT_EQ(plan.contexts.at(0).card.routes.at(net("0.0.0.0/0")).paths.size(), 1u);
}

TEST_F(plan_rules, a_context_whose_ports_have_no_room_is_held_back)
{
    world.statements("port eth1 ctx 0\nport eth2 ctx 3\n");
    world.via("20.0.0.0/8", {{"10.2.0.9", 3}});
    live_room room = world.plan().contexts.at(0).own_need.sum;
    room.leaves += 3;
    const live_plan plan = world.plan(room);
    EXPECT_EQ(plan.contexts.at(0).held_back, "");
    EXPECT_EQ(plan.contexts.at(3).held_back,
              "the entries of its ports need 6 nodes and 5 leaves, and 0 and 3 are left");
    EXPECT_FALSE(plan.contexts.at(3).has_room);
    EXPECT_TRUE(plan.contexts.at(3).card.routes.empty());
    EXPECT_EQ(plan.ports.at(3).length, 0u);
}

TEST_F(plan_rules, known_neighbours_are_left_out_last)
{
    world.via("20.0.0.0/8", {{"10.1.0.9", 2}});
    const live_room room = world.plan().used;
    world.neighbour(2, "10.1.0.77");
    const live_plan plan = world.plan(room);
    EXPECT_EQ(plan.contexts.at(0).card.hosts.count(ip("10.1.0.9")), 1u);
    EXPECT_EQ(plan.contexts.at(0).card.hosts.count(ip("10.1.0.77")), 0u);
    EXPECT_EQ(plan.contexts.at(0).wanted.hosts.count(ip("10.1.0.77")), 1u);
    EXPECT_TRUE(plan.contexts.at(0).cut.empty());
}
