// kernel_follow_test.cpp - the state that is followed over netlink is the kernel's, whoever changes it and however.
//
// In namespaces of the test's own. What is expected is waited for, never for a time.
#include <random>

#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "card_tool/address_text.h"
#include "kernel_space.h"
#include "live_card.h"

using namespace harness;

namespace
{
std::uint64_t mac_ending_in(std::uint8_t last)
{
    const std::uint8_t bytes[6] = {2, 0, 0, 0, 0, last};
    return live_mac(bytes);
}

struct kernel_follow : testing::Test {
    std::optional<kernel_space> space;
    std::optional<kernel_follower> follower;
    live_conf conf;

    void SetUp() override
    {
        if (!kernel_space_missing().empty())
            GTEST_SKIP() << kernel_space_missing();
        space.emplace();
        run("ip addr add 10.1.0.1/24 dev eth1; ip addr add 10.2.0.1/24 dev eth2; ip addr add 10.3.0.1/24 dev eth3");
        space->there("ip addr add 10.1.0.9/24 dev eth1; ip addr add 10.2.0.9/24 dev eth2");
        std::string error;
        ASSERT_EQ(live_conf_parse("live.conf",
                                  "context 3 table 100\nport eth1 ctx 0\nport eth2 ctx 0\nport eth3 ctx 3\n"
                                  "port eth4 ctx 3\n",
                                  &conf, &error),
                  0);
        follower.emplace();
    }
    void TearDown() override
    {
        follower.reset();
        space.reset();
    }
    const kernel_state &state() const { return follower->state(); }
    std::vector<kernel_route> routes(const std::string &prefix, std::uint32_t table = KERNEL_TABLE_MAIN) const
    {
        const auto *const found = kernel_table_find(state().tables.at(table), net(prefix));
        return found == nullptr ? std::vector<kernel_route>{} : *found;
    }
    bool has(const std::string &prefix, std::uint32_t table = KERNEL_TABLE_MAIN) const
    {
        return !routes(prefix, table).empty();
    }
    void until(const std::string &what, const std::function<bool()> &is_so) { follower->until(what, is_so); }
    live_plan plan() const { return live_plan_make(state(), conf, {}, LIVE_ROOM_ALL); }

    // The plan and the plain model against the kernel's own lookup, at every boundary.
    void expect_as_the_kernel_looks_up()
    {
        const live_plan now = plan();
        for (const std::uint32_t address : boundaries_of(state(), now))
            for (const auto &[ifindex, port] : now.ports) {
                if (!port.is_up || live_plan_is_passed_by(kernel_prefix_of(address, 32)))
                    continue;
                const kernel_way way = kernel_way_of(port.name, ip("192.0.2.1"), address);
                const std::pair<std::uint32_t, int> exit = {way.neighbour, way.ifindex};
                const kernel_exits model = exits_of(state(), port.name, address, 0);
                const auto paths = live_plan_lookup(now, port.ctx, address);
                const live_path path = {way.neighbour, way.ifindex};
                const std::string said = address_text(address) + " from " + port.name + " leaves to " +
                                         address_text(way.neighbour) + " by " + std::to_string(way.ifindex) + "\n" +
                                         shown(now);
                if (!model.empty()) {
                    EXPECT_TRUE(way.is_forwarded && model.count(exit) == 1) << said;
                }
                if (!paths.empty()) {
                    EXPECT_TRUE(way.is_forwarded && std::count(paths.begin(), paths.end(), path) == 1) << said;
                }
            }
    }
};
} // namespace

TEST_F(kernel_follow, links_settings_addresses_and_rules_are_read)
{
    const int eth1 = index_of_link("eth1");
    const kernel_link &link = state().links.at(eth1);
    EXPECT_EQ(link.name, "eth1");
    EXPECT_EQ(link.kind, "veth");
    EXPECT_TRUE(link.is_ethernet && link.is_up && link.has_carrier && link.has_arp);
    EXPECT_EQ(link.mtu, 1500u);
    EXPECT_FALSE(state().links.at(1).is_ethernet);
    EXPECT_TRUE(state().netconfs.at(eth1).forwards);
    EXPECT_EQ(state().addresses.at(eth1).at(0).address, ip("10.1.0.1"));
    ASSERT_EQ(state().rules.size(), 3u);
    EXPECT_EQ(state().rules[0].table, KERNEL_TABLE_LOCAL);
    EXPECT_TRUE(has("10.1.0.0/24"));
    EXPECT_TRUE(has("10.1.0.1/32", KERNEL_TABLE_LOCAL));
    follower->until_as_fresh();
}

TEST_F(kernel_follow, routes_are_told_as_they_change)
{
    run("ip route add 20.0.0.0/8 via 10.1.0.9");
    until("a route", [&] { return has("20.0.0.0/8"); });
    EXPECT_EQ(routes("20.0.0.0/8")[0].hops[0].gateway, ip("10.1.0.9"));
    EXPECT_EQ(follower->changes.routes.count({KERNEL_TABLE_MAIN, net("20.0.0.0/8")}), 1u);
    run("ip route replace 20.0.0.0/8 nexthop via 10.1.0.9 nexthop via 10.2.0.9");
    until("two paths", [&] { return routes("20.0.0.0/8")[0].hops.size() == 2; });
    EXPECT_EQ(plan().contexts.at(0).card.routes.at(net("20.0.0.0/8")).paths.size(), 2u);
    run("ip route add 20.0.0.0/8 via 10.2.0.9 metric 5");
    until("a second metric", [&] { return routes("20.0.0.0/8").size() == 2; });
    run("ip route del 20.0.0.0/8 metric 0; ip route add blackhole 21.0.0.0/8 table 100");
    until("one route and another table", [&] { return has("21.0.0.0/8", 100); });
    EXPECT_EQ(routes("20.0.0.0/8").size(), 1u);
    EXPECT_EQ(routes("20.0.0.0/8")[0].metric, 5u);
    run("ip route append 20.0.0.0/8 via 10.1.0.77 metric 5; ip route prepend 20.0.0.0/8 via 10.1.0.66 metric 5");
    until("three of one metric", [&] { return routes("20.0.0.0/8").size() == 3; });
    EXPECT_EQ(routes("20.0.0.0/8")[0].hops[0].gateway, ip("10.1.0.66"));
    EXPECT_EQ(routes("20.0.0.0/8")[2].hops[0].gateway, ip("10.1.0.77"));
    follower->until_as_fresh();
}

TEST_F(kernel_follow, attributes_that_have_an_effect_are_not_plain)
{
    run("ip route add 20.0.0.0/8 via 10.1.0.9 mtu 1300; ip route add 21.0.0.0/8 via 10.1.0.9 advmss 1300;"
        "ip route add 22.0.0.0/8 via inet6 fe80::1 dev eth1; ip route add 23.0.0.0/8 via 10.1.0.9 tos 0x10");
    until("the routes", [&] { return has("23.0.0.0/8"); });
    EXPECT_FALSE(routes("20.0.0.0/8")[0].is_plain);
    EXPECT_TRUE(routes("21.0.0.0/8")[0].is_plain);
    EXPECT_FALSE(routes("22.0.0.0/8")[0].hops[0].is_plain);
    EXPECT_EQ(routes("23.0.0.0/8")[0].tos, 0x10);
    for (const char *const prefix : {"20.0.0.0/8", "22.0.0.0/8", "23.0.0.0/8"})
        EXPECT_TRUE(plan().contexts.at(0).card.routes.at(net(prefix)).paths.empty()) << prefix;
}

TEST_F(kernel_follow, a_link_that_goes_down_takes_its_routes_along_and_is_told_first)
{
    run("ip route add 20.0.0.0/8 via 10.1.0.9");
    until("a route", [&] { return has("20.0.0.0/8"); });
    follower->changes = {};
    run("ip link set eth1 down");
    until("the link", [&] { return !state().links.at(index_of_link("eth1")).is_up; });
    EXPECT_EQ(follower->changes.links.count(index_of_link("eth1")), 1u);
    EXPECT_TRUE(has("20.0.0.0/8")); // no message has told of it
    EXPECT_FALSE(netlink_kernel_is_current(*follower->kernel));
    until("the routes", [&] { return !has("20.0.0.0/8") && !has("10.1.0.0/24"); });
    EXPECT_EQ(follower->changes.routes.count({KERNEL_TABLE_MAIN, net("20.0.0.0/8")}), 1u);
    follower->until_as_fresh();
}

TEST_F(kernel_follow, a_path_dies_and_comes_back_with_its_link)
{
    run("ip route add 20.0.0.0/8 nexthop via 10.1.0.9 nexthop via 10.2.0.9");
    until("a route", [&] { return has("20.0.0.0/8"); });
    run("ip link set eth1 down");
    until("one path",
          [&] { return has("20.0.0.0/8") && kernel_routes_answer(state(), routes("20.0.0.0/8")).hops.size() == 1; });
    run("ip link set eth1 up");
    follower->until_as_fresh();
    // The connected route is back, and with it the path; as the kernel has it.
    expect_as_the_kernel_looks_up();
}

TEST_F(kernel_follow, loss_of_carrier_leaves_the_routes)
{
    run("ip route add 20.0.0.0/8 via 10.1.0.9");
    follower->changes = {};
    space->there("ip link set eth1 down");
    until("no carrier", [&] { return !state().links.at(index_of_link("eth1")).has_carrier; });
    EXPECT_EQ(follower->changes.carriers.count(index_of_link("eth1")), 1u);
    follower->until_as_fresh();
    EXPECT_TRUE(has("20.0.0.0/8"));
    EXPECT_EQ(plan().contexts.at(0).card.routes.at(net("20.0.0.0/8")).paths.size(), 1u);
    expect_as_the_kernel_looks_up();
    run("sysctl -q -w net.ipv4.conf.eth1.ignore_routes_with_linkdown=1");
    until("the setting", [&] { return state().netconfs.at(index_of_link("eth1")).ignores_linkdown; });
    EXPECT_TRUE(plan().contexts.at(0).card.routes.at(net("20.0.0.0/8")).paths.empty());
    expect_as_the_kernel_looks_up();
}

TEST_F(kernel_follow, an_address_that_goes_takes_routes_along)
{
    run("ip addr add 10.1.0.5/24 dev eth1; ip route add 20.0.0.0/8 via 10.1.0.9 src 10.1.0.5");
    until("a route and an address",
          [&] { return has("20.0.0.0/8") && state().addresses.at(index_of_link("eth1")).size() == 2; });
    EXPECT_TRUE(state().addresses.at(index_of_link("eth1"))[1].is_secondary);
    run("ip addr del 10.1.0.5/24 dev eth1");
    until("no route", [&] { return !has("20.0.0.0/8"); });
    follower->until_as_fresh();
}

TEST_F(kernel_follow, a_route_whose_gateway_was_an_address_of_the_host_is_none_through_it)
{
    const int eth1 = index_of_link("eth1");
    const auto has_addresses = [&](std::size_t count) {
        return state().addresses.at(eth1).size() == count && netlink_kernel_is_current(*follower->kernel);
    };
    run("ip addr add 10.1.0.50/32 dev eth1; ip route add 20.0.0.0/8 via 10.1.0.50 dev eth1");
    until("a route", [&] { return has("20.0.0.0/8") && has_addresses(2); });
    EXPECT_TRUE(live_plan_lookup(plan(), 0, ip("20.1.1.1")).empty());
    run("ip addr del 10.1.0.50/32 dev eth1");
    until("no address", [&] { return has_addresses(1); });
    EXPECT_EQ(routes("20.0.0.0/8")[0].hops[0].gateway, ip("10.1.0.50"));                         // so it is told
    EXPECT_EQ(kernel_way_of("eth2", ip("192.0.2.1"), ip("20.1.1.1")).neighbour, ip("20.1.1.1")); // and so it is
    EXPECT_TRUE(live_plan_lookup(plan(), 0, ip("20.1.1.1")).empty());
    run("ip route del 20.0.0.0/8; ip addr add 10.1.0.51/32 dev eth1");
    until("read again", [&] { return has_addresses(2); });
    EXPECT_TRUE(state().former_addresses.empty());
    run("ip route add 20.0.0.0/8 via 10.1.0.50");
    until("a route through it", [&] { return has("20.0.0.0/8"); });
    EXPECT_EQ(live_plan_lookup(plan(), 0, ip("20.1.1.1")), (std::vector<live_path>{{ip("10.1.0.50"), eth1}}));
    EXPECT_EQ(kernel_way_of("eth2", ip("192.0.2.1"), ip("20.1.1.1")).neighbour, ip("10.1.0.50"));
    expect_as_the_kernel_looks_up();
}

TEST_F(kernel_follow, next_hop_objects_and_groups)
{
    run("ip nexthop add id 1 via 10.1.0.9 dev eth1; ip nexthop add id 2 via 10.2.0.9 dev eth2;"
        "ip nexthop add id 10 group 1/2; ip nexthop add id 20 blackhole;"
        "ip route add 20.0.0.0/8 nhid 10; ip route add 21.0.0.0/8 nhid 1; ip route add 22.0.0.0/8 nhid 20");
    until("the routes", [&] { return has("22.0.0.0/8"); });
    EXPECT_EQ(routes("20.0.0.0/8")[0].hops.size(), 2u);
    EXPECT_EQ(routes("20.0.0.0/8")[0].nexthop_id, 10u);
    EXPECT_EQ(plan().contexts.at(0).card.routes.at(net("20.0.0.0/8")).paths.size(), 2u);
    EXPECT_EQ(plan().contexts.at(0).card.routes.at(net("22.0.0.0/8")).why_up, "blackhole");
    run("ip nexthop replace id 1 via 10.1.0.77 dev eth1");
    until("another gateway", [&] { return routes("21.0.0.0/8")[0].hops[0].gateway == ip("10.1.0.77"); });
    follower->until_as_fresh();
    run("ip nexthop del id 1");
    until("the route of the object gone", [&] { return !has("21.0.0.0/8"); });
    follower->until_as_fresh();
    EXPECT_EQ(routes("20.0.0.0/8")[0].hops.size(), 1u);
    expect_as_the_kernel_looks_up();
}

TEST_F(kernel_follow, forwarding_is_told_when_it_changes)
{
    run("sysctl -q -w net.ipv4.conf.eth2.forwarding=0");
    until("off", [&] { return !state().netconfs.at(index_of_link("eth2")).forwards; });
    EXPECT_EQ(plan().ports.at(index_of_link("eth2")).why_not, "its forwarding is off");
    run("sysctl -q -w net.ipv4.ip_forward=0");
    until("all off", [&] { return !state().netconfs.at(index_of_link("eth1")).forwards; });
    follower->until_as_fresh();
}

TEST_F(kernel_follow, links_come_go_and_are_enslaved)
{
    run("ip link add br0 type bridge; ip link set eth4 master br0");
    until("a bridge with a member", [&] { return state().links.at(index_of_link("eth4")).master != 0; });
    EXPECT_EQ(state().links.at(index_of_link("eth4")).master_kind, "bridge");
    EXPECT_EQ(plan().ports.at(index_of_link("eth4")).why_not, "it belongs to br0");
    run("ip link set eth4 nomaster");
    until("free again", [&] { return state().links.at(index_of_link("eth4")).master == 0; });
    run("ip link del br0; ip link set eth3 name uplink 2>/dev/null || { ip link set eth3 down; ip link set eth3 name "
        "uplink; }");
    until("another name", [&] { return plan().missing == std::vector<std::string>{"eth3"}; });
    run("ip link del eth4");
    until("gone", [&] { return plan().missing.size() == 2; });
    follower->until_as_fresh();
}

TEST_F(kernel_follow, a_managed_neighbour_is_found_kept_and_given_up)
{
    const int eth1 = index_of_link("eth1");
    const std::pair<int, std::uint32_t> key = {eth1, ip("10.1.0.9")};
    const auto is_known = [&] {
        const auto found = state().neighbours.find(key);
        return found != state().neighbours.end() && kernel_neighbour_is_known(found->second);
    };
    netlink_kernel_manage(*follower->kernel, key.first, key.second);
    until("its MAC address", is_known);
    EXPECT_TRUE(state().neighbours.at(key).is_managed);
    run("ip neigh del 10.1.0.9 dev eth1");
    until("found again", [&] { return is_known() && state().neighbours.at(key).is_managed; });
    space->there("ip link set eth1 down");
    until("no carrier", [&] { return !state().links.at(eth1).has_carrier; });
    space->there("ip link set eth1 up");
    until("found after the carrier", [&] { return state().links.at(eth1).has_carrier && is_known(); });
    run("ip link set eth1 down");
    until("down", [&] { return !state().links.at(eth1).is_up && !is_known(); });
    run("ip link set eth1 up");
    until("found after the link", is_known);
    run("ip neigh replace 10.1.0.9 dev eth1 lladdr 02:00:00:00:00:55 nud stale");
    until("managed again", [&] {
        return is_known() && state().neighbours.at(key).mac == mac_ending_in(0x55) &&
               state().neighbours.at(key).is_managed;
    });
    netlink_kernel_unmanage(*follower->kernel, key.first, key.second);
    until("left to itself", [&] { return !state().neighbours.at(key).is_managed; });
    EXPECT_TRUE(is_known());
}

TEST_F(kernel_follow, a_stale_neighbour_is_looked_after_when_it_is_used)
{
    const std::pair<int, std::uint32_t> key = {index_of_link("eth1"), ip("10.1.0.9")};
    const auto state_is = [&](std::uint16_t wanted) {
        const auto found = state().neighbours.find(key);
        return found != state().neighbours.end() && found->second.state == wanted;
    };
    run("cd /proc/sys/net/ipv4/neigh/eth1; echo 0 > delay_first_probe_time; echo 100 > retrans_time_ms");
    netlink_kernel_manage(*follower->kernel, key.first, key.second);
    until("there", [&] { return state_is(NUD_REACHABLE); });
    netlink_kernel_unmanage(*follower->kernel, key.first, key.second);
    until("on its own", [&] { return !state().neighbours.at(key).is_managed; });
    const std::uint64_t mac = state().neighbours.at(key).mac;
    run("ip neigh change 10.1.0.9 dev eth1 nud stale");
    until("stale", [&] { return state_is(NUD_STALE); });
    netlink_kernel_use(*follower->kernel, key.first, key.second);
    until("there again", [&] { return state_is(NUD_REACHABLE); });
    EXPECT_EQ(state().neighbours.at(key).mac, mac);
    // It has another MAC address since, and has told no one.
    space->there("ip link set eth1 arp off; ip link set eth1 address 02:00:00:00:00:77");
    run("ip neigh change 10.1.0.9 dev eth1 nud stale");
    until("stale", [&] { return state_is(NUD_STALE); });
    netlink_kernel_use(*follower->kernel, key.first, key.second);
    until("failed", [&] { return state_is(NUD_FAILED) || state().neighbours.count(key) == 0; });
}

TEST_F(kernel_follow, a_permanent_neighbour_stays_permanent)
{
    const std::pair<int, std::uint32_t> key = {index_of_link("eth1"), ip("10.1.0.9")};
    run("ip neigh add 10.1.0.9 dev eth1 lladdr 02:00:00:00:00:55 nud permanent");
    until("the entry", [&] { return state().neighbours.count(key) == 1; });
    netlink_kernel_manage(*follower->kernel, key.first, key.second);
    follower->until_as_fresh();
    EXPECT_EQ(state().neighbours.at(key).state, NUD_PERMANENT);
    EXPECT_EQ(state().neighbours.at(key).mac, mac_ending_in(0x55));
}

TEST_F(kernel_follow, the_cards_rules_are_made_found_again_and_removed)
{
    EXPECT_NE(plan().contexts.at(3).held_back, "");
    std::string error;
    ASSERT_EQ(netlink_kernel_set_rules(*follower->kernel, LIVE_RULE_PROTOCOL, plan().rules, &error), 0) << error;
    until("the rules", [&] { return plan().contexts.at(3).held_back.empty(); });
    ASSERT_EQ(netlink_kernel_set_rules(*follower->kernel, LIVE_RULE_PROTOCOL, plan().rules, &error), 0) << error;
    EXPECT_EQ(state().rules.size(), 5u);
    {
        kernel_follower after_restart;
        EXPECT_EQ(after_restart.state().rules, state().rules);
        ASSERT_EQ(netlink_kernel_set_rules(*after_restart.kernel, LIVE_RULE_PROTOCOL, {plan().rules[1]}, &error), 0);
    }
    until("one rule gone", [&] { return state().rules.size() == 4; });
    EXPECT_NE(plan().contexts.at(3).held_back, "");
    run("ip rule add pref 77 iif eth1 lookup 100");
    ASSERT_EQ(netlink_kernel_set_rules(*follower->kernel, LIVE_RULE_PROTOCOL, {}, &error), 0) << error;
    until("none of the card's", [&] {
        return state().rules.size() == 4 && state().rules[1].preference == 77; // which is not the card's
    });
    follower->until_as_fresh();
}

TEST_F(kernel_follow, by_the_cards_rule_the_kernel_searches_the_contexts_table)
{
    std::string error;
    ASSERT_EQ(netlink_kernel_set_rules(*follower->kernel, LIVE_RULE_PROTOCOL, plan().rules, &error), 0) << error;
    run("ip route add 20.0.0.0/8 via 10.1.0.9; ip route add 20.0.0.0/8 via 10.3.0.9 table 100;"
        "ip route add default via 10.3.0.8 dev eth3 table 100");
    until("the routes", [&] { return has("0.0.0.0/0", 100) && plan().contexts.at(3).held_back.empty(); });
    EXPECT_EQ(kernel_way_of("eth4", ip("192.0.2.1"), ip("20.1.1.1")).neighbour, ip("10.3.0.9"));
    EXPECT_EQ(kernel_way_of("eth2", ip("192.0.2.1"), ip("20.1.1.1")).neighbour, ip("10.1.0.9"));
    EXPECT_EQ(live_plan_lookup(plan(), 3, ip("20.1.1.1")), std::vector<live_path>{}); // 10.3.0.9 goes by the default
    EXPECT_EQ(live_plan_lookup(plan(), 3, ip("21.1.1.1")).size(), 1u);                // whose gateway is its own way
    run("ip route add 10.3.0.0/24 dev eth3 table 100");
    until("a subnet of its own", [&] { return has("10.3.0.0/24", 100); });
    EXPECT_EQ(live_plan_lookup(plan(), 3, ip("20.1.1.1")).size(), 1u);
    expect_as_the_kernel_looks_up();
}

TEST_F(kernel_follow, messages_that_found_no_room_are_made_up_for)
{
    // More than the socket holds, while nobody listens.
    const std::string batch = testing::TempDir() + "kernel_follow." + std::to_string(getpid());
    const auto write = [&batch](const char *verb) {
        std::ofstream file(batch);
        for (unsigned i = 0; i < 220'000; ++i)
            file << "route " << verb << " " << address_text(0x14000000 + (i << 4)) << "/28 via 10.1.0.9\n";
    };
    write("add");
    run("ip -batch " + batch);
    until("all of them", [&] { return state().tables.at(KERNEL_TABLE_MAIN).routes.size() >= 220'000; });
    (void)unlink(batch.c_str());
    follower->until_as_fresh();
    EXPECT_GE(netlink_kernel_counts(*follower->kernel).lost, 1u);
}

TEST_F(kernel_follow, whatever_changes_it_is_the_kernels_state_and_the_plan_forwards_as_the_kernel)
{
    std::string error;
    ASSERT_EQ(netlink_kernel_set_rules(*follower->kernel, LIVE_RULE_PROTOCOL, plan().rules, &error), 0) << error;
    std::mt19937 random(20261122);
    const auto up_to = [&random](unsigned bound) { return static_cast<unsigned>(random() % bound); };
    const auto any = [&](const std::vector<std::string> &of) { return of[up_to(static_cast<unsigned>(of.size()))]; };
    const auto link = [&] { return any({"eth1", "eth2", "eth3", "eth4"}); };
    const auto gateway = [&] {
        const unsigned subnet = 1 + up_to(4);
        return "10." + std::to_string(subnet) + ".0." + std::to_string(7 + up_to(4));
    };
    // Never a gateway: a route that came while its gateway was an address of the host itself is no route through it.
    const auto address = [&] {
        return "10." + std::to_string(1 + up_to(4)) + ".0." + std::to_string(20 + up_to(4)) +
               any({"/24", "/31", "/32", "/28"}) + " dev " + link();
    };
    const auto prefix = [&] {
        return any({"20.0.0.0/8", "20.1.0.0/16", "20.1.2.0/24", "20.1.2.128/25", "20.1.2.3/32", "10.1.0.8/30",
                    "10.2.0.9/32", "default", "128.0.0.0/1", "10.3.0.0/25"});
    };
    const auto route = [&]() -> std::string {
        switch (up_to(8)) {
        case 0:
            return any({"blackhole ", "unreachable ", "prohibit ", "throw "}) + prefix();
        case 1:
            return prefix() + " nexthop via " + gateway() + " nexthop via " + gateway();
        case 2:
            return prefix() + " via " + gateway() + " dev " + link() + " onlink";
        case 3:
            return prefix() + " nhid " + std::to_string(1 + up_to(4));
        case 4:
            return prefix() + " dev " + link();
        case 5:
            return prefix() + " via " + gateway() + any({" mtu 1400", " metric 7", " tos 0x10", " src 10.1.0.1"});
        default:
            return prefix() + " via " + gateway();
        }
    };
    std::vector<std::string> added;
    std::map<std::string, bool> peers_up = {{"eth1", true}, {"eth2", true}, {"eth3", true}, {"eth4", true}};
    const auto command = [&]() -> std::string {
        switch (up_to(20)) {
        case 0:
            return "ip link set " + link() + " down";
        case 1:
        case 2:
            return "ip link set " + link() + " up";
        case 3:
            added.push_back(address());
            return "ip addr add " + added.back();
        case 4:
            return added.empty() ? "true" : "ip addr del " + any(added);
        case 5:
            return "ip neigh replace " + gateway() + " dev " + link() + " lladdr 02:00:00:00:00:0" +
                   std::to_string(up_to(9)) + any({" nud permanent", " nud stale", " nud reachable"});
        case 6:
            return "ip neigh del " + gateway() + " dev " + link();
        case 7:
            return "ip nexthop replace id " + std::to_string(1 + up_to(3)) + " via " + gateway() + " dev " + link();
        case 8:
            return "ip nexthop replace id 4 group " + any({"1/2", "1/2/3", "3", "2/3"});
        case 9:
            return up_to(3) == 0 ? "ip nexthop del id " + std::to_string(1 + up_to(4)) : "true";
        case 10:
            return up_to(3) == 0 ? any({"ip rule add pref 77 iif eth1 lookup 100", "ip rule del pref 77"}) : "true";
        case 11:
            return "sysctl -q -w net.ipv4.conf." + link() + "." + any({"forwarding=", "ignore_routes_with_linkdown="}) +
                   any({"0", "1", "1"});
        case 12:
            return "ip route del " + prefix() + any({"", " table 100"});
        default:
            return "ip route " + any({"add ", "replace ", "append ", "prepend ", "replace "}) + route() +
                   any({"", "", " table 100"});
        }
    };
    run("ip addr add 10.4.0.1/24 dev eth4");
    for (unsigned round = 0; round < 60 && !HasFailure(); ++round) {
        std::string lines;
        for (unsigned i = 0; i < 8; ++i)
            lines += command() + "\n";
        (void)try_run("{ " + lines + "}"); // many of them are refused
        if (round % 5 == 4) {
            const std::string peer = link();
            const bool is_up = up_to(3) != 0;
            space->there("ip link set " + peer + (is_up ? " up" : " down"));
            peers_up[peer] = is_up;
        }
        // The kernel takes its time over a carrier.
        until("the carriers", [&] {
            return std::all_of(state().links.begin(), state().links.end(), [&](const auto &entry) {
                const kernel_link &of = entry.second;
                return !of.is_up || !of.is_ethernet || of.is_running == peers_up.at(of.name);
            });
        });
        follower->until_as_fresh();
        expect_as_the_kernel_looks_up();
        if (HasFailure())
            std::printf("round %u:\n%s\n", round, lines.c_str());
    }
}

TEST_F(kernel_follow, the_plan_by_steps_is_the_plan_at_once_in_a_kernel_that_changes)
{
    live_plan steps = plan();
    follower->changes = {};
    const char *const commands[] = {
        "ip route add 20.0.0.0/8 via 10.1.0.9",
        "ip route add 20.1.0.0/16 nexthop via 10.1.0.9 nexthop via 10.2.0.9",
        "ip neigh add 10.1.0.9 dev eth1 lladdr 02:00:00:00:00:55 nud reachable",
        "ip neigh add 10.1.0.10 dev eth1 lladdr 02:00:00:00:00:56 nud reachable",
        "ip route add 10.1.0.8/29 via 10.2.0.9",
        "ip route del 10.1.0.8/29",
        "ip link set eth2 down",
        "ip link set eth2 up",
        "ip route add default via 10.2.0.9",
        "ip neigh del 10.1.0.10 dev eth1",
        "ip route del 20.1.0.0/16",
    };
    for (const char *const command : commands) {
        run(command);
        follower->until_as_fresh();
        (void)live_plan_update(steps, state(), conf, {}, LIVE_ROOM_ALL, follower->changes);
        follower->changes = {};
        EXPECT_EQ(steps, plan()) << command << "\n" << shown(steps) << "---\n" << shown(plan());
    }
    expect_as_the_kernel_looks_up();
}

// ---- routing daemons ----

namespace
{
// A program in the namespace of the test, ended with it.
struct child {
    pid_t pid = -1;
    explicit child(const std::string &line)
    {
        pid = fork();
        if (pid == 0) {
            execl("/bin/sh", "sh", "-c", ("exec " + line).c_str(), nullptr);
            _exit(127);
        }
    }
    void end(int signal = SIGTERM)
    {
        if (pid > 0) {
            (void)kill(pid, signal);
            (void)waitpid(pid, nullptr, 0);
        }
        pid = -1;
    }
    ~child() { end(SIGKILL); }
};

std::string folder_of_test()
{
    const std::string folder = testing::TempDir() + "kernel_follow." + std::to_string(getpid());
    (void)mkdir(folder.c_str(), 0755);
    return folder;
}
} // namespace

TEST_F(kernel_follow, routes_of_bird)
{
    if (!try_run("command -v bird"))
        GTEST_SKIP() << "bird is missing (package bird2)";
    const std::string folder = folder_of_test();
    const auto configure = [&folder](const std::string &routes) {
        std::ofstream(folder + "/bird.conf")
            << "router id 10.1.0.1;\nprotocol device { scan time 1; }\n"
               "ipv4 table t100;\n"
               "protocol kernel { ipv4 { export all; }; merge paths on; metric 33; learn off; persist off; }\n"
               "protocol kernel k100 { ipv4 { table t100; export all; }; kernel table 100; metric 33; }\n"
               "protocol static { ipv4; "
            << routes << " }\nprotocol static s100 { ipv4 { table t100; }; route 31.0.0.0/8 via 10.2.0.9; }\n";
    };
    configure("route 30.0.0.0/8 via 10.1.0.9 via 10.2.0.9; route 30.1.0.0/16 blackhole;");
    child bird("bird -f -c " + folder + "/bird.conf -s " + folder + "/bird.ctl >" + folder + "/log 2>&1");
    until("its routes", [&] { return has("30.0.0.0/8") && has("30.1.0.0/16") && has("31.0.0.0/8", 100); });
    EXPECT_EQ(routes("30.0.0.0/8")[0].hops.size(), 2u);
    EXPECT_EQ(routes("30.0.0.0/8")[0].metric, 33u);
    EXPECT_EQ(plan().contexts.at(0).card.routes.at(net("30.0.0.0/8")).paths.size(), 2u);
    EXPECT_EQ(plan().contexts.at(0).card.routes.at(net("30.1.0.0/16")).why_up, "blackhole");
    configure("route 30.0.0.0/8 via 10.1.0.9; route 30.2.0.0/16 via 10.2.0.9;");
    run("birdc -s " + folder + "/bird.ctl configure >/dev/null");
    until("other routes",
          [&] { return has("30.2.0.0/16") && !has("30.1.0.0/16") && routes("30.0.0.0/8")[0].hops.size() == 1; });
    follower->until_as_fresh();
    expect_as_the_kernel_looks_up();
    bird.end();
    until("none", [&] { return !has("30.0.0.0/8") && !has("30.2.0.0/16") && !has("31.0.0.0/8", 100); });
    follower->until_as_fresh();
    (void)try_run("rm -r " + folder);
}

TEST_F(kernel_follow, routes_of_frr)
{
    const std::string daemons = "/usr/lib/frr/";
    if (access((daemons + "zebra").c_str(), X_OK) != 0 || access((daemons + "staticd").c_str(), X_OK) != 0)
        GTEST_SKIP() << "zebra and staticd are missing (package frr)";
    const std::string folder = folder_of_test();
    std::ofstream(folder + "/zebra.conf") << "";
    std::ofstream(folder + "/staticd.conf")
        << "ip route 30.0.0.0/8 10.1.0.9\nip route 30.0.0.0/8 10.2.0.9\n"
           "ip route 30.1.0.0/16 blackhole\nip route 31.0.0.0/8 10.2.0.9 table 100\n";
    run("chown frr:frr " + folder); // as which the daemons run
    const std::string common = " -z " + folder + "/zserv --vty_socket " + folder + " -P 0 >" + folder;
    child zebra(daemons + "zebra -f " + folder + "/zebra.conf -i " + folder + "/zebra.pid" + common +
                "/zebra.log 2>&1");
    until("zebra", [&] { return access((folder + "/zserv").c_str(), F_OK) == 0; });
    child statics(daemons + "staticd -f " + folder + "/staticd.conf -i " + folder + "/staticd.pid" + common +
                  "/staticd.log 2>&1");
    until("its routes", [&] { return has("30.0.0.0/8") && has("30.1.0.0/16") && has("31.0.0.0/8", 100); });
    until("both paths", [&] { return has("30.0.0.0/8") && routes("30.0.0.0/8")[0].hops.size() == 2; });
    EXPECT_NE(routes("30.0.0.0/8")[0].nexthop_id, 0u);
    EXPECT_EQ(plan().contexts.at(0).card.routes.at(net("30.0.0.0/8")).paths.size(), 2u);
    run("ip link set eth2 down");
    until("one path",
          [&] { return has("30.0.0.0/8") && kernel_routes_answer(state(), routes("30.0.0.0/8")).hops.size() == 1; });
    follower->until_as_fresh();
    expect_as_the_kernel_looks_up();
    statics.end(); // so soon after the link went it does not always take the route back
    follower->until_as_fresh();
    zebra.end();
    follower->until_as_fresh();
    (void)try_run("rm -r " + folder);
}
