// trace_test.cpp - what the packet program is said to do with a packet, beside what the kernel says of it.
#include "live_trace.h"

#include <poll.h>

#include <gtest/gtest.h>

#include "netlink_kernel.h"
#include "packet_card.h"

using namespace harness;

namespace
{
constexpr std::uint32_t WEST_ID = 1, EAST_ID = 2, ENCAP = 5;
constexpr std::uint32_t FAR = 0x14000001; // 20.0.0.1
constexpr std::uint64_t NEIGHBOUR = 0x020000000002, OTHER_NEIGHBOUR = 0x030000000002;

// A router of two ports in a namespace of its own, and a card whose table has a default route to the east.
struct traced_router {
    net_space space;
    packet_card card;
    netlink_kernel_ptr kernel;
    kernel_ask_ptr ask;
    live_plan plan;

    traced_router()
    {
        command("ip link set lo up");
        command("ip link add west type veth peer name west1 && ip link add east type veth peer name east1");
        for (const char *const link : {"west", "west1", "east", "east1"})
            command(std::string("ip link set ") + link + " up");
        command("sysctl -qw net.ipv4.ip_forward=1 net.ipv4.conf.all.rp_filter=0");
        command("ip address add 10.1.0.1/24 dev west && ip address add 10.2.0.1/24 dev east");
        command("ip neigh add 10.2.0.2 lladdr 02:00:00:00:00:02 dev east nud permanent");
        command("ip route add default via 10.2.0.2");
        std::string why;
        kernel = netlink_kernel_open({}, &why);
        EXPECT_NE(kernel, nullptr) << why;
        ask = kernel_ask_open();
        EXPECT_NE(ask, nullptr);
        fill();
        read();
    }

    void fill()
    {
        std::uint32_t *const table = live_maps_table(card.maps, 0);
        table[0] = HW_IXP_BASE + HW_LEAVES;
        table[HW_LEAVES / 4] = adj_pack(0, EAST_ID, ENCAP);
        live_maps_set_encap(card.maps, ENCAP, NEIGHBOUR);
        std::string why;
        const live_port ports[] = {{WEST_ID, index_of("west"), mac_of_device("west"), 0, 1500},
                                   {EAST_ID, index_of("east"), mac_of_device("east"), 0, 1500}};
        for (const live_port &port : ports) {
            EXPECT_EQ(live_maps_bind(card.maps, port, why), 0) << why;
            EXPECT_EQ(live_maps_open_port(card.maps, port, why), 0) << why;
        }
        live_maps_set_stale_after(card.maps, 3'600'000'000'000);
        live_maps_renew(card.maps);
        live_maps_release(card.maps, 0);
        live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
    }

    // Takes all that the kernel has told by now.
    void read()
    {
        kernel_changes changes;
        std::string why;
        netlink_kernel_read_again(*kernel);
        do {
            pollfd waited{netlink_kernel_fd(*kernel), POLLIN, 0};
            ASSERT_EQ(poll(&waited, 1, 10'000), 1);
            ASSERT_EQ(netlink_kernel_process(*kernel, &changes, &why), 0) << why;
        } while (!netlink_kernel_is_current(*kernel));
        live_conf conf;
        conf.ports = {{"west", 0, WEST_ID}, {"east", 0, EAST_ID}};
        plan = live_plan_make(netlink_kernel_state(*kernel), conf, {}, LIVE_ROOM_ALL);
    }

    live_view view() const { return {card.maps, plan, netlink_kernel_state(*kernel), *ask}; }
    live_traced trace(std::uint32_t destination, live_searched table = LIVE_SEARCHED_NONE) const
    {
        const auto west = static_cast<int>(index_of("west"));
        live_traced traced;
        std::string why;
        const kernel_packet packet = {live_trace_source(view().state, west, plan.ports.at(west)), destination, west};
        EXPECT_EQ(live_trace_packet(view(), packet, table, &traced, &why), 0) << why;
        return traced;
    }
    live_verify verify(std::vector<kernel_prefix> given = {}) const
    {
        live_verify verify = live_verify_begin(plan, view().state, 0, std::move(given));
        std::string why;
        while (verify.at < verify.addresses.size())
            EXPECT_EQ(live_verify_some(view(), LIVE_SEARCHED_NONE, 3, &verify, &why), 0) << why;
        return verify;
    }
};

struct trace_test : testing::Test {
    void SetUp() override
    {
        if (!packet_card_missing().empty())
            GTEST_SKIP() << packet_card_missing();
    }
};

TEST_F(trace_test, a_packet_that_leaves_as_the_kernel_would_send_it)
{
    const traced_router router;
    const live_traced t = router.trace(FAR);
    EXPECT_TRUE(t.agrees);
    EXPECT_EQ(t.card, "east to 02:00:00:00:00:02, encap 5");
    EXPECT_EQ(t.kernel, "10.2.0.2 on east by 0.0.0.0/0");
    EXPECT_EQ(t.packet.source, 0x0A010002u); // the first of the subnet that is no own address
    EXPECT_EQ(router.card.forwarded(), 0u) << "it counts nothing";
}

TEST_F(trace_test, a_port_without_a_subnet_is_asked_with_a_neighbour_that_its_reverse_path_filter_takes)
{
    traced_router router;
    command("ip address del 10.1.0.1/24 dev west && ip address add 10.1.0.0/31 dev west");
    command("ip neigh add 10.1.0.1 lladdr 02:00:00:00:00:07 dev west nud permanent");
    command("sysctl -qw net.ipv4.conf.west.rp_filter=1");
    router.read();
    const live_traced t = router.trace(FAR);
    EXPECT_EQ(t.packet.source, 0x0A010001u);
    EXPECT_TRUE(t.agrees) << t.kernel;
}

TEST_F(trace_test, whatever_goes_to_the_kernel_agrees_with_it)
{
    traced_router router;
    const live_traced own = router.trace(0x7F000001);
    EXPECT_TRUE(own.agrees);
    EXPECT_EQ(own.card, "to the kernel: destination");
    live_maps_hold(router.card.maps, 0);
    EXPECT_EQ(router.trace(FAR).card, "to the kernel: held");
    EXPECT_EQ(router.trace(FAR, LIVE_SEARCHED_TABLE_0).card, "east to 02:00:00:00:00:02, encap 5")
        << "a table is asked about although no packet may use it";
    EXPECT_EQ(router.trace(FAR, LIVE_SEARCHED_TABLE_1).card, "to the kernel: no-route");
}

TEST_F(trace_test, another_neighbour_another_link_and_a_packet_that_the_kernel_refuses_are_differences)
{
    traced_router router;
    live_maps_set_encap(router.card.maps, ENCAP, OTHER_NEIGHBOUR);
    EXPECT_FALSE(router.trace(FAR).agrees);
    live_maps_set_encap(router.card.maps, ENCAP, NEIGHBOUR);
    EXPECT_TRUE(router.trace(FAR).agrees);

    command("ip route add blackhole 20.0.0.0/24");
    const live_traced refused = router.trace(FAR);
    EXPECT_FALSE(refused.agrees);
    EXPECT_NE(refused.way.error, 0);
    command("ip route del blackhole 20.0.0.0/24 && ip route add 20.0.0.0/24 dev east");
    EXPECT_FALSE(router.trace(FAR).agrees) << "on the link itself, where nobody is known";
    const live_traced local = router.trace(0x0A020001);
    EXPECT_FALSE(local.agrees);
    EXPECT_EQ(local.kernel, "delivered here (10.2.0.1/32)");
}

TEST_F(trace_test, a_verification_looks_at_every_boundary_and_names_what_differs)
{
    traced_router router;
    // The hand-made table knows no subnet and no address of the host, which the kernel has.
    std::uint32_t *const table = live_maps_table(router.card.maps, 0);
    live_verify all = router.verify();
    EXPECT_EQ(all.at, all.addresses.size());
    EXPECT_GT(all.forwarded, 0u);
    const auto differs = [](const live_verify &v, std::uint32_t address) {
        return std::any_of(v.differences.begin(), v.differences.end(),
                           [address](const live_traced &t) { return t.packet.destination == address; });
    };
    EXPECT_TRUE(differs(all, 0x0A020001)) << "the port's own address";
    EXPECT_TRUE(differs(all, 0x0A0200FF)) << "its broadcast address";
    EXPECT_FALSE(differs(all, 0x0A020100)) << "the first address behind the subnet";
    all = router.verify({{0x0A020000, 24}});
    EXPECT_FALSE(differs(all, 0x0A020001)) << "the operator's own route";
    // Without a table all goes to the kernel.
    table[0] = 0;
    all = router.verify();
    EXPECT_EQ(all.forwarded, 0u);
    EXPECT_TRUE(all.differences.empty());
}
} // namespace
