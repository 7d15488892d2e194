// live_ports_test.cpp - ports as the plan has them, on devices of a network namespace of the test's own.
#include <gtest/gtest.h>

#include <linux/rtnetlink.h>

#include "live_ports.h"
#include "packet_card.h"

using namespace harness;

namespace
{
constexpr std::uint32_t CONTEXT = 3, ID = 5;

// Two pairs, of which a0 and b0 are the card's ports.
struct live_port_rules : testing::Test {
    std::string said;
    kernel_state state;
    live_plan plan;
    live_ports ports;

    void SetUp() override
    {
        if (!packet_card_missing().empty())
            GTEST_SKIP() << packet_card_missing();
        ports.say = [this](const std::string &line) { said += line + "\n"; };
    }
    void make_port(const std::string &name, std::uint32_t id)
    {
        command("ip link add " + name + "0 type veth peer name " + name + "1");
        command("ip link set " + name + "0 up && ip link set " + name + "1 up");
        const int ifindex = static_cast<int>(index_of(name + "0"));
        kernel_link &link = state.links[ifindex];
        link.name = name + "0";
        link.mac = mac_of_device(name + "0");
        link.mtu = 1500;
        link.is_ethernet = link.is_up = link.has_carrier = true;
        live_plan_port &port = plan.ports[ifindex];
        port.name = link.name;
        port.ctx = CONTEXT;
        port.id = id;
        port.is_bound = port.is_up = true;
    }
    kernel_link &link(const std::string &name) { return state.links.at(static_cast<int>(index_of(name))); }
    live_plan_port &planned(const std::string &name) { return plan.ports.at(static_cast<int>(index_of(name))); }
};
} // namespace

TEST_F(live_port_rules, a_port_is_bound_and_open_while_its_link_has_a_carrier)
{
    const net_space space;
    packet_card card;
    make_port("a", ID);
    live_ports_apply(ports, card.maps, plan, state);
    EXPECT_EQ(live_maps_egress(card.maps, ID), live_egress_word(mac_of_device("a0"), 1500));
    EXPECT_EQ(live_maps_ingress(card.maps, index_of("a0")).word, live_ingress_word(mac_of_device("a0"), CONTEXT));
    EXPECT_NE(said.find("a0: generic mode: "), std::string::npos) << said;
    link("a0").has_carrier = false;
    live_ports_close(ports, card.maps, state, {static_cast<int>(index_of("a0"))});
    EXPECT_EQ(live_maps_egress(card.maps, ID), 0u);
    EXPECT_NE(live_maps_ingress(card.maps, index_of("a0")).word, 0u);
    link("a0").has_carrier = true;
    link("a0").mtu = 1400;
    live_ports_apply(ports, card.maps, plan, state);
    EXPECT_EQ(live_maps_egress(card.maps, ID), live_egress_word(mac_of_device("a0"), 1400));
}

TEST_F(live_port_rules, a_port_that_gets_another_id_leaves_nothing_under_the_one_before)
{
    const net_space space;
    packet_card card;
    make_port("a", ID);
    live_ports_apply(ports, card.maps, plan, state);
    planned("a0").id = ID + 1;
    live_ports_apply(ports, card.maps, plan, state);
    EXPECT_EQ(live_maps_egress(card.maps, ID), 0u);
    EXPECT_EQ(live_maps_device(card.maps, ID), 0u);
    EXPECT_NE(live_maps_egress(card.maps, ID + 1), 0u);
    EXPECT_EQ(live_maps_ingress(card.maps, index_of("a0")).ifid, ID + 1u);
}

TEST_F(live_port_rules, a_native_port_that_takes_frames_no_more_is_closed_and_attached_anew)
{
    const net_space space;
    packet_card card;
    for (const char *const name : {"a", "b"}) {
        make_port(name, name[0] == 'a' ? ID : ID + 1);
        set_gro(std::string(name) + "0", true);
        set_gro(std::string(name) + "1", true);
    }
    live_ports_apply(ports, card.maps, plan, state);
    EXPECT_EQ(said, "a0: native mode\nb0: native mode\n");
    EXPECT_FALSE(live_ports_check(ports, card.maps));
    set_gro("b1", false);
    EXPECT_TRUE(live_ports_check(ports, card.maps));
    EXPECT_EQ(live_maps_egress(card.maps, ID + 1), 0u);
    EXPECT_NE(live_maps_egress(card.maps, ID), 0u);
    said.clear();
    live_ports_apply(ports, card.maps, plan, state);
    EXPECT_NE(said.find("b0: generic mode: the driver takes no frames"), std::string::npos) << said;
    EXPECT_EQ(live_maps_egress(card.maps, ID + 1), 0u) << "a0 is native still";
    EXPECT_FALSE(live_ports_check(ports, card.maps));
}

TEST_F(live_port_rules, a_change_that_cannot_be_opened_closes)
{
    const net_space space;
    packet_card card;
    for (const char *const name : {"a", "b"}) {
        make_port(name, name[0] == 'a' ? ID : ID + 1);
        set_gro(std::string(name) + "0", true);
        set_gro(std::string(name) + "1", true);
    }
    live_ports_apply(ports, card.maps, plan, state);
    ASSERT_NE(live_maps_egress(card.maps, ID + 1), 0u);
    set_gro("b1", false);
    link("b0").mtu = 1400;
    live_ports_apply(ports, card.maps, plan, state);
    EXPECT_EQ(live_maps_egress(card.maps, ID + 1), 0u);
}

TEST_F(live_port_rules, whatever_the_table_local_answers_is_the_hosts_own)
{
    const net_space space;
    packet_card card;
    kernel_address address;
    address.address = 0x0A010001;
    state.addresses[2] = {address};
    kernel_route route;
    route.type = RTN_BROADCAST;
    kernel_table &local = state.tables[KERNEL_TABLE_LOCAL];
    (void)kernel_table_set(local, kernel_prefix_of(0x0A0100FF, 32), {route});
    route.type = RTN_LOCAL;
    (void)kernel_table_set(local, kernel_prefix_of(0xC0000200, 30), {route});
    (void)kernel_table_set(local, kernel_prefix_of(0x7F000000, 8), {route}); // sent up by itself
    live_ports_set_own(card.maps, state);
    const auto is_own = [&card](std::uint32_t source) {
        const auto *const bits = static_cast<const std::uint64_t *>(card.maps.values[LIVE_MAP_SOURCES]);
        return (bits[live_source_bit(source) / 64] >> live_source_bit(source) % 64 & 1) != 0;
    };
    for (const std::uint32_t own : {0x0A010001u, 0x0A0100FFu, 0xC0000200u, 0xC0000203u})
        EXPECT_TRUE(is_own(own)) << std::hex << own;
    for (const std::uint32_t other : {0x0A010002u, 0xC0000204u, 0x08080808u})
        EXPECT_FALSE(is_own(other)) << std::hex << other;
    (void)kernel_table_set(local, kernel_prefix_of(0x0B000000, 8), {route}); // more than can be told apart
    live_ports_set_own(card.maps, state);
    EXPECT_TRUE(is_own(0x08080808));
}
