// decode_test.cpp - messages of the kernel's, written down by hand, into its state; and bytes that no kernel sends.
#include <cstring>
#include <random>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/fib_rules.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/netconf.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include "kernel_world.h"
#include "netlink_decode.h"

using namespace harness;

namespace
{
using message = std::vector<std::uint8_t>;

template <typename Thing> void append(message &to, const Thing &thing)
{
    const auto *const bytes = reinterpret_cast<const std::uint8_t *>(&thing);
    to.insert(to.end(), bytes, bytes + sizeof thing);
    to.resize((to.size() + 3) & ~std::size_t{3});
}

message bytes_of(std::uint16_t type, const message &payload, bool is_nested = false)
{
    message m;
    rtattr head{};
    head.rta_type = static_cast<std::uint16_t>(is_nested ? type | NLA_F_NESTED : type);
    head.rta_len = static_cast<std::uint16_t>(sizeof head + payload.size());
    append(m, head);
    m.insert(m.end(), payload.begin(), payload.end());
    m.resize((m.size() + 3) & ~std::size_t{3});
    return m;
}
message u32_of(std::uint16_t type, std::uint32_t value)
{
    message payload;
    append(payload, value);
    return bytes_of(type, payload);
}
message ip_of(std::uint16_t type, const std::string &address) { return u32_of(type, htonl(ip(address))); }
message text_of(std::uint16_t type, const std::string &text)
{
    message payload(text.begin(), text.end());
    payload.push_back(0);
    return bytes_of(type, payload);
}
message mac_of(std::uint16_t type, std::uint8_t last) { return bytes_of(type, {2, 0, 0, 0, 1, last}); }

template <typename Head> message message_of(std::uint16_t type, const Head &head,
                                            const std::vector<message> &attributes, std::uint16_t flags = 0)
{
    message m(sizeof(nlmsghdr));
    append(m, head);
    for (const message &attribute : attributes)
        m.insert(m.end(), attribute.begin(), attribute.end());
    nlmsghdr top{};
    top.nlmsg_len = static_cast<std::uint32_t>(m.size());
    top.nlmsg_type = type;
    top.nlmsg_flags = flags;
    std::memcpy(m.data(), &top, sizeof top);
    return m;
}

struct decode : testing::Test {
    kernel_state state;
    netlink_news news;
    decode()
    {
        for (const std::uint32_t table : {KERNEL_TABLE_MAIN, KERNEL_TABLE_LOCAL, 100u})
            state.tables[table];
    }
    void take(const message &m)
    {
        news = {};
        netlink_decode(m, state, news);
    }

    static message link(std::uint32_t flags, const std::vector<message> &more = {}, std::uint16_t type = RTM_NEWLINK,
                        std::uint8_t family = AF_UNSPEC)
    {
        ifinfomsg head{};
        head.ifi_family = family;
        head.ifi_type = ARPHRD_ETHER;
        head.ifi_index = 5;
        head.ifi_flags = flags;
        std::vector<message> attributes = {text_of(IFLA_IFNAME, "eth1"), mac_of(IFLA_ADDRESS, 7),
                                           u32_of(IFLA_MTU, 1400)};
        attributes.insert(attributes.end(), more.begin(), more.end());
        return message_of(type, head, attributes);
    }
    static message route(const std::string &prefix, const std::vector<message> &attributes,
                         std::uint16_t flags = NLM_F_CREATE | NLM_F_EXCL, std::uint16_t type = RTM_NEWROUTE)
    {
        rtmsg head{};
        head.rtm_family = AF_INET;
        head.rtm_dst_len = static_cast<std::uint8_t>(net(prefix).length);
        head.rtm_table = RT_TABLE_MAIN;
        head.rtm_type = RTN_UNICAST;
        std::vector<message> all = {ip_of(RTA_DST, prefix.substr(0, prefix.find('/')))};
        all.insert(all.end(), attributes.begin(), attributes.end());
        return message_of(type, head, all, flags);
    }
    static std::vector<message> via(const std::string &gateway, std::uint32_t metric = 0)
    {
        return {ip_of(RTA_GATEWAY, gateway), u32_of(RTA_OIF, 5), u32_of(RTA_PRIORITY, metric)};
    }
    std::vector<kernel_route> routes(const std::string &prefix, std::uint32_t table = KERNEL_TABLE_MAIN) const
    {
        const auto *const found = kernel_table_find(state.tables.at(table), net(prefix));
        return found == nullptr ? std::vector<kernel_route>{} : *found;
    }
    std::vector<std::uint32_t> gateways(const std::string &prefix) const
    {
        std::vector<std::uint32_t> found;
        for (const kernel_route &r : routes(prefix))
            for (const kernel_hop &hop : r.hops)
                found.push_back(hop.gateway - ip("10.1.0.0"));
        return found;
    }
    static message rule(const std::vector<message> &attributes, std::uint32_t flags = 0,
                        std::uint16_t type = RTM_NEWRULE)
    {
        fib_rule_hdr head{};
        head.family = AF_INET;
        head.action = FR_ACT_TO_TBL;
        head.flags = flags;
        return message_of(type, head, attributes);
    }
};
constexpr std::uint32_t UP = IFF_UP | IFF_RUNNING;
} // namespace

TEST_F(decode, a_link_with_its_master_and_kinds)
{
    const message info = bytes_of(
        IFLA_LINKINFO,
        [] {
            message kinds = text_of(IFLA_INFO_KIND, "macvlan"), slave = text_of(IFLA_INFO_SLAVE_KIND, "bridge");
            kinds.insert(kinds.end(), slave.begin(), slave.end());
            return kinds;
        }(),
        true);
    take(link(UP, {u32_of(IFLA_MASTER, 9), u32_of(IFLA_LINK, 4), info}));
    kernel_link expected;
    expected.name = "eth1";
    expected.kind = "macvlan";
    expected.master_kind = "bridge";
    expected.mac = 0x070100000002; // the first byte lowest, as the maps have it
    expected.mtu = 1400;
    expected.master = 9;
    expected.lower = 4;
    expected.is_ethernet = expected.is_up = expected.has_carrier = expected.is_running = expected.has_arp = true;
    EXPECT_EQ(state.links.at(5), expected);
    EXPECT_EQ(news.changes.links, std::set<int>{5});
    EXPECT_TRUE(news.changes.carriers.empty());
    EXPECT_TRUE(news.read_again);
}

TEST_F(decode, a_link_that_goes_up_or_down_or_loses_its_carrier_is_read_again)
{
    take(link(UP));
    take(link(IFF_UP));
    EXPECT_FALSE(state.links.at(5).has_carrier);
    EXPECT_TRUE(news.read_again);
    EXPECT_EQ(news.changes.carriers, std::set<int>{5});
    take(link(UP));
    EXPECT_TRUE(news.read_again);
    take(link(0));
    EXPECT_FALSE(state.links.at(5).is_up);
    EXPECT_TRUE(news.read_again);
    EXPECT_TRUE(news.changes.carriers.empty());
    take(link(0));
    EXPECT_TRUE(news.changes.empty());
    EXPECT_FALSE(news.read_again);
    take(link(0, {}, RTM_DELLINK));
    EXPECT_TRUE(state.links.empty());
    EXPECT_TRUE(news.read_again);
}

TEST_F(decode, a_new_mac_or_mtu_is_a_small_change)
{
    take(link(UP));
    take(link(UP, {u32_of(IFLA_MTU, 1500), mac_of(IFLA_ADDRESS, 8)}));
    EXPECT_EQ(state.links.at(5).mtu, 1500u);
    EXPECT_EQ(news.changes.carriers, std::set<int>{5});
    EXPECT_FALSE(news.read_again);
    take(link(UP | IFF_NOARP));
    EXPECT_TRUE(news.changes.carriers.empty());
}

TEST_F(decode, a_message_of_a_wireless_device_about_its_own_affairs_says_nothing_of_the_link)
{
    take(link(UP));
    ifinfomsg head{};
    head.ifi_type = ARPHRD_ETHER;
    head.ifi_index = 5;
    head.ifi_flags = UP;
    take(message_of(RTM_NEWLINK, head, {u32_of(IFLA_WIRELESS, 1)}));
    EXPECT_EQ(state.links.at(5).name, "eth1");
    EXPECT_EQ(state.links.at(5).mtu, 1400u);
    EXPECT_TRUE(news.changes.empty());
}

TEST_F(decode, what_a_bridge_tells_of_its_ports_is_not_about_the_link)
{
    take(link(UP));
    take(link(UP, {}, RTM_DELLINK, AF_BRIDGE));
    EXPECT_EQ(state.links.size(), 1u);
}

TEST_F(decode, a_setting_changes_alone)
{
    netconfmsg head{};
    head.ncm_family = AF_INET;
    take(message_of(RTM_NEWNETCONF, head, {u32_of(NETCONFA_IFINDEX, 5), u32_of(NETCONFA_FORWARDING, 1)}));
    EXPECT_TRUE(state.netconfs.at(5).forwards);
    EXPECT_EQ(news.changes.links, std::set<int>{5});
    take(message_of(RTM_NEWNETCONF, head,
                    {u32_of(NETCONFA_IFINDEX, 5), u32_of(NETCONFA_IGNORE_ROUTES_WITH_LINKDOWN, 1)}));
    EXPECT_TRUE(state.netconfs.at(5).forwards && state.netconfs.at(5).ignores_linkdown);
    take(message_of(RTM_NEWNETCONF, head,
                    {u32_of(NETCONFA_IFINDEX, static_cast<std::uint32_t>(NETCONFA_IFINDEX_ALL)),
                     u32_of(NETCONFA_IGNORE_ROUTES_WITH_LINKDOWN, 1)}));
    EXPECT_TRUE(state.netconfs.at(KERNEL_ALL_LINKS).ignores_linkdown);
    take(message_of(RTM_DELNETCONF, head, {u32_of(NETCONFA_IFINDEX, 5)}));
    EXPECT_EQ(state.netconfs.count(5), 0u);
}

TEST_F(decode, addresses_come_and_go)
{
    ifaddrmsg head{};
    head.ifa_family = AF_INET;
    head.ifa_prefixlen = 24;
    head.ifa_index = 5;
    take(message_of(RTM_NEWADDR, head, {ip_of(IFA_ADDRESS, "10.1.0.1"), ip_of(IFA_LOCAL, "10.1.0.1")}));
    EXPECT_TRUE(news.read_again);
    take(
        message_of(RTM_NEWADDR, head,
                   {ip_of(IFA_ADDRESS, "10.1.0.9"), ip_of(IFA_LOCAL, "10.1.0.2"), u32_of(IFA_FLAGS, IFA_F_SECONDARY)}));
    ASSERT_EQ(state.addresses.at(5).size(), 2u);
    EXPECT_EQ(state.addresses.at(5)[0].address, ip("10.1.0.1"));
    EXPECT_EQ(state.addresses.at(5)[0].length, 24u);
    EXPECT_EQ(state.addresses.at(5)[1].peer, ip("10.1.0.9"));
    EXPECT_TRUE(state.addresses.at(5)[1].is_secondary);
    take(message_of(RTM_DELADDR, head, {ip_of(IFA_ADDRESS, "10.1.0.1"), ip_of(IFA_LOCAL, "10.1.0.1")}));
    EXPECT_EQ(state.addresses.at(5).size(), 1u);
    EXPECT_EQ(news.changes.links, std::set<int>{5});
    EXPECT_TRUE(news.read_again); // its routes have gone without a message
}

TEST_F(decode, neighbours_come_change_and_go)
{
    ndmsg head{};
    head.ndm_family = AF_INET;
    head.ndm_ifindex = 5;
    head.ndm_state = NUD_REACHABLE;
    const std::pair<int, std::uint32_t> key = {5, ip("10.1.0.9")};
    take(message_of(RTM_NEWNEIGH, head,
                    {ip_of(NDA_DST, "10.1.0.9"), mac_of(NDA_LLADDR, 9), u32_of(NDA_FLAGS_EXT, NTF_EXT_MANAGED)}));
    EXPECT_EQ(state.neighbours.at(key).mac, 0x090100000002u);
    EXPECT_TRUE(state.neighbours.at(key).is_managed);
    EXPECT_TRUE(kernel_neighbour_is_known(state.neighbours.at(key)));
    EXPECT_EQ(news.changes.neighbours.count(key), 1u);
    head.ndm_state = NUD_FAILED;
    take(message_of(RTM_NEWNEIGH, head, {ip_of(NDA_DST, "10.1.0.9")}));
    EXPECT_FALSE(kernel_neighbour_is_known(state.neighbours.at(key)));
    take(message_of(RTM_DELNEIGH, head, {ip_of(NDA_DST, "10.1.0.9")}));
    EXPECT_TRUE(state.neighbours.empty());
    head.ndm_flags = NTF_PROXY;
    take(message_of(RTM_NEWNEIGH, head, {ip_of(NDA_DST, "10.1.0.9")}));
    head.ndm_flags = 0;
    head.ndm_family = AF_BRIDGE;
    take(message_of(RTM_NEWNEIGH, head, {ip_of(NDA_DST, "10.1.0.9")}));
    EXPECT_TRUE(state.neighbours.empty());
}

TEST_F(decode, a_route_through_one_gateway)
{
    take(route("20.0.0.0/8", via("10.1.0.9", 20)));
    ASSERT_EQ(routes("20.0.0.0/8").size(), 1u);
    const kernel_route found = routes("20.0.0.0/8")[0];
    EXPECT_EQ(found.metric, 20u);
    EXPECT_TRUE(found.is_plain);
    EXPECT_EQ(found.hops, (std::vector<kernel_hop>{{ip("10.1.0.9"), 5, 1, false, true}}));
    EXPECT_EQ(news.changes.routes.count({KERNEL_TABLE_MAIN, net("20.0.0.0/8")}), 1u);
    EXPECT_EQ(state.tables.at(KERNEL_TABLE_MAIN).gateways.count(ip("10.1.0.9")), 1u);
    take(route("20.0.0.0/8", via("10.1.0.9", 20), 0, RTM_DELROUTE));
    EXPECT_TRUE(state.tables.at(KERNEL_TABLE_MAIN).gateways.empty());
    EXPECT_TRUE(routes("20.0.0.0/8").empty());
}

TEST_F(decode, a_route_of_a_table_that_is_not_followed_is_left_out)
{
    std::vector<message> attributes = via("10.1.0.9");
    attributes.push_back(u32_of(RTA_TABLE, 77));
    take(route("20.0.0.0/8", attributes));
    EXPECT_TRUE(news.changes.empty());
    EXPECT_EQ(state.tables.count(77), 0u);
    attributes.back() = u32_of(RTA_TABLE, 100);
    take(route("20.0.0.0/8", attributes));
    EXPECT_EQ(routes("20.0.0.0/8", 100).size(), 1u);
}

TEST_F(decode, paths_with_weights_flags_and_encapsulation)
{
    message paths;
    for (unsigned i = 0; i < 4; ++i) {
        message attributes = ip_of(RTA_GATEWAY, "10.1.0." + std::to_string(9 + i));
        if (i == 2)
            for (const message &more : {bytes_of(RTA_ENCAP_TYPE, {1, 0}), bytes_of(RTA_ENCAP, {0, 0, 0, 0})})
                attributes.insert(attributes.end(), more.begin(), more.end());
        if (i == 3)
            attributes = bytes_of(RTA_VIA, message(18));
        rtnexthop head{};
        head.rtnh_len = static_cast<std::uint16_t>(sizeof head + attributes.size());
        head.rtnh_hops = static_cast<std::uint8_t>(i);
        head.rtnh_flags = i == 1 ? RTNH_F_DEAD | RTNH_F_LINKDOWN : RTNH_F_ONLINK;
        head.rtnh_ifindex = 5;
        append(paths, head);
        paths.insert(paths.end(), attributes.begin(), attributes.end());
    }
    take(route("20.0.0.0/8", {bytes_of(RTA_MULTIPATH, paths), u32_of(RTA_NH_ID, 7)}));
    ASSERT_EQ(routes("20.0.0.0/8").size(), 1u);
    const std::vector<kernel_hop> expected = {{ip("10.1.0.9"), 5, 1, false, true},
                                              {ip("10.1.0.10"), 5, 2, true, true},
                                              {ip("10.1.0.11"), 5, 3, false, false},
                                              {0, 5, 4, false, false}};
    EXPECT_EQ(routes("20.0.0.0/8")[0].hops, expected);
    EXPECT_EQ(routes("20.0.0.0/8")[0].nexthop_id, 7u);
    paths.pop_back(); // the last one is cut
    take(route("21.0.0.0/8", {bytes_of(RTA_MULTIPATH, message(paths.begin(), paths.end() - 3))}));
    EXPECT_FALSE(routes("21.0.0.0/8")[0].is_plain);
}

TEST_F(decode, an_mtu_a_source_or_an_unknown_attribute_is_not_plain)
{
    const auto is_plain = [this](const message &attribute) {
        std::vector<message> attributes = via("10.1.0.9");
        attributes.push_back(attribute);
        take(route("20.0.0.0/8", attributes, NLM_F_REPLACE));
        return routes("20.0.0.0/8").at(0).is_plain && routes("20.0.0.0/8").at(0).hops.at(0).is_plain;
    };
    EXPECT_TRUE(is_plain(ip_of(RTA_PREFSRC, "10.1.0.1")));
    EXPECT_TRUE(is_plain(bytes_of(RTA_METRICS, u32_of(RTAX_ADVMSS, 1400), true)));
    EXPECT_TRUE(is_plain(u32_of(RTA_FLOW, 5)));
    EXPECT_FALSE(is_plain(bytes_of(RTA_METRICS, u32_of(RTAX_MTU, 1400), true)));
    EXPECT_FALSE(is_plain(bytes_of(RTA_METRICS, u32_of(RTAX_LOCK, 1 << RTAX_MTU), true)));
    EXPECT_FALSE(is_plain(bytes_of(RTA_METRICS, u32_of(RTAX_MAX + 1, 1), true)));
    EXPECT_FALSE(is_plain(bytes_of(RTA_VIA, message(18))));
    EXPECT_FALSE(is_plain(bytes_of(RTA_ENCAP_TYPE, {1, 0})));
    EXPECT_FALSE(is_plain(bytes_of(RTA_GATEWAY, {1, 2, 3})));
    EXPECT_FALSE(is_plain(u32_of(RTA_MAX + 1, 0)));
}

TEST_F(decode, routes_of_a_prefix_stand_in_the_kernels_order)
{
    take(route("20.0.0.0/8", via("10.1.0.3", 20)));
    take(route("20.0.0.0/8", via("10.1.0.1")));
    take(route("20.0.0.0/8", via("10.1.0.4", 20), NLM_F_CREATE | NLM_F_APPEND));
    take(route("20.0.0.0/8", via("10.1.0.2", 20), NLM_F_CREATE)); // in front of its like
    EXPECT_EQ(gateways("20.0.0.0/8"), (std::vector<std::uint32_t>{1, 2, 3, 4}));
    take(route("20.0.0.0/8", via("10.1.0.3", 20), 0, RTM_DELROUTE));
    EXPECT_EQ(gateways("20.0.0.0/8"), (std::vector<std::uint32_t>{1, 2, 4}));
    take(route("20.0.0.0/8", via("10.1.0.9"), NLM_F_REPLACE | NLM_F_CREATE));
    EXPECT_EQ(gateways("20.0.0.0/8"), (std::vector<std::uint32_t>{9, 2, 4}));
    EXPECT_FALSE(news.read_again);
    take(route("20.0.0.0/8", via("10.1.0.9"), NLM_F_CREATE | NLM_F_EXCL)); // told twice
    EXPECT_EQ(gateways("20.0.0.0/8"), (std::vector<std::uint32_t>{9, 2, 4}));
    take(route("20.0.0.0/8", via("10.1.0.5", 20), NLM_F_REPLACE | NLM_F_CREATE)); // which of the two, who knows
    EXPECT_TRUE(news.read_again);
    take(route("20.0.0.0/8", via("10.1.0.77", 20), 0, RTM_DELROUTE));
    EXPECT_TRUE(news.read_again);
}

TEST_F(decode, a_next_hop_object_that_goes_takes_routes_without_a_message)
{
    nhmsg head{};
    take(message_of(RTM_DELNEXTHOP, head, {}));
    EXPECT_TRUE(news.read_again);
    take(message_of(RTM_NEWNEXTHOP, head, {}));
    EXPECT_FALSE(news.read_again);
}

TEST_F(decode, rules_stand_by_their_preference_and_say_what_they_are)
{
    take(rule({u32_of(FRA_TABLE, RT_TABLE_MAIN), u32_of(FRA_PRIORITY, 32766), u32_of(FRA_SUPPRESS_PREFIXLEN, ~0u)}));
    take(rule({u32_of(FRA_TABLE, RT_TABLE_LOCAL)}));
    take(rule({u32_of(FRA_TABLE, 100), u32_of(FRA_PRIORITY, 20000), text_of(FRA_IIFNAME, "eth1"),
               bytes_of(FRA_PROTOCOL, {202})}));
    ASSERT_EQ(state.rules.size(), 3u);
    EXPECT_EQ(state.rules[0], rule_of(0, KERNEL_TABLE_LOCAL));
    kernel_rule own = rule_of(20000, 100, "eth1");
    own.protocol = 202;
    EXPECT_EQ(state.rules[1], own);
    EXPECT_EQ(state.rules[2], rule_of(32766, KERNEL_TABLE_MAIN));
    EXPECT_TRUE(news.changes.rules);
    take(rule({u32_of(FRA_TABLE, RT_TABLE_LOCAL)}, 0, RTM_DELRULE));
    EXPECT_EQ(state.rules.size(), 2u);
}

TEST_F(decode, a_rule_that_asks_for_anything_else_is_not_plain)
{
    const auto only = [this](const message &m) {
        state.rules.clear();
        take(m);
        return state.rules.at(0);
    };
    EXPECT_TRUE(only(rule({u32_of(FRA_TABLE, 7), text_of(FRA_OIFNAME, "eth1")})).is_for_output);
    EXPECT_TRUE(only(rule({u32_of(FRA_PRIORITY, 1000), bytes_of(FRA_L3MDEV, {1})})).is_for_output);
    EXPECT_FALSE(only(rule({u32_of(FRA_TABLE, 7), u32_of(FRA_SUPPRESS_PREFIXLEN, 0)})).is_plain);
    EXPECT_FALSE(only(rule({u32_of(FRA_TABLE, 7), u32_of(FRA_FWMARK, 1)})).is_plain);
    EXPECT_FALSE(only(rule({u32_of(FRA_TABLE, 7), u32_of(200, 1)})).is_plain);
    const kernel_rule inverted = only(rule({u32_of(FRA_TABLE, 7), text_of(FRA_IIFNAME, "eth1")}, FIB_RULE_INVERT));
    EXPECT_FALSE(inverted.is_plain);
    EXPECT_EQ(inverted.iif, "");
    message blackhole = rule({u32_of(FRA_TABLE, 7)});
    blackhole[sizeof(nlmsghdr) + 7] = FR_ACT_BLACKHOLE;
    EXPECT_EQ(only(blackhole).table, 0u);
}

TEST_F(decode, chance_bytes_do_no_harm)
{
    std::mt19937 random(1);
    const std::vector<message> good = {
        link(UP), route("20.0.0.0/8", via("10.1.0.9", 20)),
        rule({u32_of(FRA_TABLE, 100), text_of(FRA_IIFNAME, "eth1")}),
        message_of(RTM_NEWNEIGH, ndmsg{AF_INET, 0, 0, 5, NUD_STALE, 0, 0},
                   {ip_of(NDA_DST, "10.1.0.9"), mac_of(NDA_LLADDR, 9)}),
        message_of(RTM_NEWADDR, ifaddrmsg{AF_INET, 24, 0, 0, 5}, {ip_of(IFA_LOCAL, "10.1.0.1")})};
    for (unsigned round = 0; round < 40'000; ++round) {
        // In memory of exactly its size, so that a read behind it is seen.
        message m = good[random() % good.size()];
        for (unsigned changes = static_cast<unsigned>(random() % 4); changes > 0; --changes)
            m[random() % m.size()] = static_cast<std::uint8_t>(random() % 3 == 0 ? random() % 8 : random());
        if (random() % 2 == 0)
            m.resize(random() % (m.size() + 1));
        if (random() % 4 != 0 && m.size() >= 4) {
            const auto length = static_cast<std::uint32_t>(m.size());
            std::memcpy(m.data(), &length, sizeof length);
        }
        const message exact(m);
        netlink_decode(exact, state, news);
    }
    for (const auto &[id, table] : state.tables)
        for (const auto &[prefix, routes] : table.routes) {
            EXPECT_LE(prefix.length, 32u);
            EXPECT_EQ(kernel_prefix_of(prefix.address, prefix.length), prefix);
            EXPECT_FALSE(routes.empty());
        }
}
