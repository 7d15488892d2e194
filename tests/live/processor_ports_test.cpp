// processor_ports_test.cpp - the packet program attached to devices: real frames between veth pairs.
//
// A pair is a port (a0) and what is plugged into it (a1); all are in one namespace of the test's own.
#include <unistd.h>

#include <gtest/gtest.h>

#include "packet_card.h"
#include "tables.h"

using namespace harness;

namespace
{
constexpr std::uint32_t IN_PORT = 5, OUT_PORT = 6, CONTEXT = 3, ENCAP = 100;
constexpr int SOON_MS = 5000, LONG_ENOUGH_MS = 50;

struct ports : testing::Test {
    std::string why;
    std::string folder;
    void SetUp() override
    {
        if (!packet_card_missing().empty())
            GTEST_SKIP() << packet_card_missing();
    }
    void TearDown() override
    {
        if (!folder.empty()) {
            EXPECT_EQ(live_maps_remove(folder, why), 0) << why;
        }
    }
    // Maps that outlive their process; false where there is no file system for them.
    bool pinned()
    {
        folder = "/sys/fs/bpf/live_ports_" + std::to_string(getpid());
        live_maps opened;
        const bool there = live_maps_open(opened, folder, why) == 0;
        live_maps_close(opened);
        return there;
    }
};

void make_pair(const std::string &name)
{
    command("ip link add " + name + "0 type veth peer name " + name + "1");
    command("ip link set " + name + "0 up && ip link set " + name + "1 up");
}

// A veth takes frames from native programs while its pair polls for them.
void take_frames(const std::string &name)
{
    for (const char *end : {"0", "1"})
        set_gro(name + end, true);
}

live_port port_of(const std::string &device, std::uint32_t ifid)
{
    return {ifid, index_of(device), mac_of_device(device), CONTEXT, 1500};
}

// From a0 to b0 for all addresses.
model_card filled(packet_card &card)
{
    model_card model;
    const live_port in = port_of("a0", IN_PORT), out = port_of("b0", OUT_PORT);
    model.ports[IN_PORT] = {in.ifindex, in.mac, CONTEXT, 1500};
    model.ports[OUT_PORT] = {out.ifindex, out.mac, CONTEXT, 1500};
    model.encaps[ENCAP] = mac_of(0x99);
    card.take(model);
    std::vector<std::uint32_t> words(TABLE_WORDS);
    words[root_at(CONTEXT) / 4] = TABLE_IXP + leaf_at(0);
    words[leaf_at(0) / 4] = adjacency(OUT_PORT, ENCAP);
    card.take_table(0, {words.data(), TABLE_IXP});
    live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
    return model;
}

frame_bytes good_packet()
{
    packet_form form;
    form.to = mac_of_device("a0");
    form.destination = 0x14010203;
    form.trailing_bytes = 3;
    return packet_of(form);
}

// What the model says of a packet into a0 that leaves.
frame_bytes as_it_leaves(const frame_bytes &frame)
{
    frame_bytes out = frame;
    out.resize(out.size() - 3);
    const std::uint64_t macs[] = {mac_of(0x99), mac_of_device("b0")};
    for (unsigned i = 0; i < 12; ++i)
        out[i] = live_mac_byte(macs[i / 6], i % 6);
    --out[22];
    packet_fix_checksum(out);
    return out;
}

// A frame that goes in at a1 and comes out at b1, or does not.
void expect_through(bool through)
{
    const frame_socket in("a1"), out("b1");
    in.send(good_packet());
    const frame_bytes seen = out.receive(through ? SOON_MS : LONG_ENOUGH_MS);
    EXPECT_EQ(seen, through ? as_it_leaves(good_packet()) : frame_bytes{});
}
} // namespace

TEST_F(ports, native_on_veth_send_frames_to_each_other)
{
    const net_space space;
    make_pair("a");
    make_pair("b");
    take_frames("a");
    take_frames("b");
    packet_card card;
    filled(card);
    live_attachment attachment{};
    for (const char *device : {"a0", "b0"}) {
        ASSERT_EQ(live_maps_attach(card.maps, index_of(device), attachment, why), 0) << why;
        EXPECT_EQ(attachment.mode, live_mode::native) << attachment.why;
        EXPECT_EQ(attachment.why, "");
    }
    expect_through(true);
    EXPECT_EQ(card.counters(IN_PORT).reasons[LIVE_FORWARDED], 1u);
    EXPECT_EQ(card.counters(OUT_PORT).out_packets, 1u);
    EXPECT_EQ(card.counters(OUT_PORT).out_bytes, good_packet().size() - 3);
    EXPECT_EQ(live_maps_attachments(card.maps).size(), 2u);
    live_maps_detach(card.maps, index_of("a0"));
    EXPECT_EQ(live_maps_attachments(card.maps).size(), 1u);
    expect_through(false);
}

TEST_F(ports, whose_driver_takes_no_frames_are_generic_and_nothing_is_lost)
{
    const net_space space;
    make_pair("a");
    make_pair("b");
    EXPECT_FALSE(live_maps_takes_frames(index_of("b0")));
    packet_card card;
    filled(card);
    live_attachment attachment{};
    for (const char *device : {"a0", "b0"}) {
        ASSERT_EQ(live_maps_attach(card.maps, index_of(device), attachment, why), 0) << why;
        EXPECT_EQ(attachment.mode, live_mode::generic);
        EXPECT_NE(attachment.why, "");
    }
    EXPECT_FALSE(live_maps_has_native(card.maps));
    expect_through(true);
}

TEST_F(ports, that_take_no_frames_stay_closed_beside_a_native_one)
{
    const net_space space;
    make_pair("a");
    make_pair("b");
    take_frames("a");
    EXPECT_TRUE(live_maps_takes_frames(index_of("a0")));
    packet_card card;
    live_attachment attachment{};
    ASSERT_EQ(live_maps_attach(card.maps, index_of("a0"), attachment, why), 0) << why;
    EXPECT_EQ(attachment.mode, live_mode::native) << attachment.why;
    EXPECT_EQ(live_maps_open_port(card.maps, port_of("b0", OUT_PORT), why), 1);
    EXPECT_NE(why.find("takes no frames"), std::string::npos) << why;
    EXPECT_EQ(live_maps_egress(card.maps, OUT_PORT), 0u);
    EXPECT_EQ(live_maps_open_port(card.maps, port_of("a0", IN_PORT), why), 0) << why;
    take_frames("b");
    EXPECT_EQ(live_maps_open_port(card.maps, port_of("b0", OUT_PORT), why), 0) << why;
}

TEST_F(ports, are_generic_while_one_is_open_that_takes_no_frames)
{
    const net_space space;
    make_pair("a");
    make_pair("b");
    take_frames("a");
    packet_card card;
    filled(card); // b0 is open
    live_attachment attachment{};
    ASSERT_EQ(live_maps_attach(card.maps, index_of("a0"), attachment, why), 0) << why;
    EXPECT_EQ(attachment.mode, live_mode::generic);
    EXPECT_EQ(attachment.why, "a port is open whose driver takes no frames from native programs");
    expect_through(true);
}

TEST_F(ports, that_take_frames_no_more_are_generic_when_they_are_attached_again)
{
    const net_space space;
    make_pair("a");
    take_frames("a");
    packet_card card;
    live_attachment attachment{};
    ASSERT_EQ(live_maps_attach(card.maps, index_of("a0"), attachment, why), 0) << why;
    EXPECT_EQ(attachment.mode, live_mode::native) << attachment.why;
    set_gro("a1", false);
    ASSERT_EQ(live_maps_attach(card.maps, index_of("a0"), attachment, why), 0) << why;
    EXPECT_EQ(attachment.mode, live_mode::generic);
    EXPECT_EQ(live_maps_attachments(card.maps).size(), 1u);
}

TEST_F(ports, that_the_driver_refuses_are_generic_and_say_why)
{
    const net_space space;
    make_pair("a");
    make_pair("b");
    take_frames("a");
    take_frames("b");
    command("ip link set a1 mtu 9000"); // frames from there may be longer than a native program's memory
    packet_card card;
    filled(card);
    live_attachment attachment{};
    ASSERT_EQ(live_maps_attach(card.maps, index_of("a0"), attachment, why), 0) << why;
    EXPECT_EQ(attachment.mode, live_mode::generic);
    EXPECT_EQ(attachment.why, "the driver refuses it at this MTU or with these settings");
    ASSERT_EQ(live_maps_attach(card.maps, LOOPBACK, attachment, why), 0) << why;
    EXPECT_EQ(attachment.mode, live_mode::generic);
    EXPECT_EQ(attachment.why, "the driver has no native mode");
    expect_through(true);
    const std::vector<live_attachment> all = live_maps_attachments(card.maps);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].mode, live_mode::generic);
}

TEST_F(ports, with_another_program_are_left_alone)
{
    const net_space space;
    make_pair("a");
    packet_card first, second;
    live_attachment attachment{};
    ASSERT_EQ(live_maps_attach(first.maps, index_of("a0"), attachment, why), 0) << why;
    EXPECT_EQ(live_maps_attach(second.maps, index_of("a0"), attachment, why), 1);
    EXPECT_NE(why.find("another packet program is attached"), std::string::npos) << why;
}

TEST_F(ports, go_on_without_the_process)
{
    if (!pinned())
        GTEST_SKIP() << why;
    const net_space space;
    make_pair("a");
    make_pair("b");
    command("ip link set a1 mtu 9000");
    live_attachment attachment{};
    {
        packet_card card(folder);
        filled(card);
        ASSERT_EQ(live_maps_attach(card.maps, index_of("a0"), attachment, why), 0) << why;
    }
    expect_through(true);
    {
        packet_card card(folder);
        ASSERT_EQ(live_maps_attach(card.maps, index_of("a0"), attachment, why), 0) << why; // the new program
        expect_through(true);
        ASSERT_EQ(live_maps_attachments(card.maps).size(), 1u);
        EXPECT_EQ(card.counters(IN_PORT).reasons[LIVE_FORWARDED], 2u);
    }
    expect_through(true);
    EXPECT_EQ(live_maps_remove(folder, why), 0) << why;
    EXPECT_NE(access(folder.c_str(), F_OK), 0);
    expect_through(false);
}

TEST_F(ports, whose_device_goes_are_forgotten)
{
    if (!pinned())
        GTEST_SKIP() << why;
    const net_space space;
    make_pair("a");
    make_pair("b");
    packet_card card(folder);
    filled(card);
    live_attachment attachment{};
    const std::uint32_t gone = index_of("b0");
    ASSERT_EQ(live_maps_attach(card.maps, index_of("a0"), attachment, why), 0) << why;
    ASSERT_EQ(live_maps_attach(card.maps, gone, attachment, why), 0) << why;
    command("ip link del b0");
    EXPECT_EQ(live_maps_attachments(card.maps).size(), 1u);
    EXPECT_EQ(live_maps_device(card.maps, OUT_PORT), 0u);
    frame_bytes frame = good_packet();
    EXPECT_STREQ(LIVE_REASON_NAMES[card.trace(frame, index_of("a0")).reason], "no-device");
    EXPECT_EQ(frame, good_packet());
}
