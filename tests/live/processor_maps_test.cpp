// processor_maps_test.cpp - what a store into the maps does to packets, and what outlives the process.
#include <atomic>
#include <thread>

#include <linux/bpf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "doc_tables.h"
#include "packet_card.h"
#include "tables.h"

using namespace harness;

namespace
{
constexpr std::uint32_t IN_PORT = 5, OUT_A = 6, OUT_B = 7, CONTEXT = 3;

// A table in which the leaf 0 answers for every address of CONTEXT.
std::vector<std::uint32_t> table_to(std::uint32_t ifid)
{
    std::vector<std::uint32_t> words(TABLE_WORDS);
    words[root_at(CONTEXT) / 4] = TABLE_IXP + leaf_at(0);
    words[leaf_at(0) / 4] = adjacency(ifid, 100 + ifid);
    return words;
}

frame_bytes good_packet()
{
    packet_form form;
    form.to = mac_of(IN_PORT);
    form.destination = 0x14010203;
    return packet_of(form);
}

void fill(packet_card &card)
{
    model_card model;
    for (const std::uint32_t ifid : {IN_PORT, OUT_A, OUT_B}) {
        model.ports[ifid] = {LOOPBACK, mac_of(static_cast<std::uint8_t>(ifid)), CONTEXT, 1500, ifid == IN_PORT};
        model.encaps[100 + ifid] = mac_of(static_cast<std::uint8_t>(100 + ifid));
    }
    card.take(model);
    card.take_table(0, {table_to(OUT_A).data(), TABLE_IXP});
    card.take_table(1, {table_to(OUT_B).data(), TABLE_IXP});
}

struct maps : testing::Test {
    std::string why;
    void SetUp() override
    {
        if (!packet_card_missing().empty())
            GTEST_SKIP() << packet_card_missing();
    }
};

const char *reason(const packet_card &card)
{
    frame_bytes frame = good_packet();
    return LIVE_REASON_NAMES[card.trace(frame).reason];
}

// A folder of its own in the BPF file system, which is gone with the test.
struct pin_folder {
    std::string path = "/sys/fs/bpf/live_test_" + std::to_string(getpid());
    ~pin_folder()
    {
        std::string why;
        EXPECT_EQ(live_maps_remove(path, why), 0) << why;
    }
};
bool bpf_file_system_missing()
{
    live_maps opened;
    std::string why;
    const pin_folder pins;
    if (live_maps_open(opened, pins.path, why) != 0)
        return true;
    live_maps_close(opened);
    return false;
}
} // namespace

TEST_F(maps, send_everything_to_the_kernel_as_they_are_made)
{
    packet_card card;
    EXPECT_STREQ(reason(card), "no-table");
    live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
    EXPECT_STREQ(reason(card), "unbound");
    EXPECT_EQ(live_maps_bind(card.maps, {IN_PORT, LOOPBACK, mac_of(IN_PORT), CONTEXT, 1500}, why), 0) << why;
    EXPECT_STREQ(reason(card), "held");
    live_maps_release(card.maps, CONTEXT);
    EXPECT_STREQ(reason(card), "no-route");
    card.take_table(0, {table_to(OUT_A).data(), TABLE_IXP});
    EXPECT_STREQ(reason(card), "no-encap");
    live_maps_set_encap(card.maps, 100 + OUT_A, mac_of(1));
    EXPECT_STREQ(reason(card), "no-port");
    EXPECT_EQ(live_maps_open_port(card.maps, {OUT_A, LOOPBACK, mac_of(2), CONTEXT, 1500}, why), 0) << why;
    EXPECT_STREQ(reason(card), "forwarded");
}

TEST_F(maps, take_each_thing_back_with_one_store)
{
    packet_card card;
    fill(card);
    live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
    EXPECT_STREQ(reason(card), "forwarded");
    live_maps_clear_encap(card.maps, 100 + OUT_A);
    EXPECT_STREQ(reason(card), "no-encap");
    live_maps_set_encap(card.maps, 100 + OUT_A, mac_of(1));
    live_maps_remove_device(card.maps, OUT_A);
    EXPECT_STREQ(reason(card), "no-device");
    live_maps_close_port(card.maps, OUT_A);
    EXPECT_STREQ(reason(card), "no-port");
    live_maps_hold(card.maps, CONTEXT);
    EXPECT_STREQ(reason(card), "held");
    live_maps_unbind(card.maps, LOOPBACK);
    EXPECT_STREQ(reason(card), "unbound");
    live_maps_search(card.maps, LIVE_SEARCHED_NONE);
    EXPECT_STREQ(reason(card), "no-table");
}

TEST_F(maps, give_back_what_was_set)
{
    packet_card card;
    fill(card);
    EXPECT_EQ(live_maps_encap(card.maps, 100 + OUT_A), live_encap_word(mac_of(100 + OUT_A)));
    EXPECT_EQ(live_maps_egress(card.maps, OUT_B), live_egress_word(mac_of(OUT_B), 1500));
    EXPECT_EQ(live_maps_device(card.maps, OUT_B), LOOPBACK);
    EXPECT_EQ(live_maps_ingress(card.maps, LOOPBACK).word, live_ingress_word(mac_of(IN_PORT), CONTEXT));
    EXPECT_EQ(live_maps_ingress(card.maps, LOOPBACK).ifid, IN_PORT);
    EXPECT_FALSE(live_maps_is_held(card.maps, CONTEXT));
    live_maps_hold(card.maps, CONTEXT);
    EXPECT_TRUE(live_maps_is_held(card.maps, CONTEXT));
    live_maps_set_generation(card.maps, 1, 77);
    EXPECT_EQ(live_maps_generation(card.maps, 1), 77u);
    EXPECT_EQ(live_maps_generation(card.maps, 0), 0u);
}

TEST_F(maps, refuse_ports_that_have_no_place)
{
    packet_card card;
    EXPECT_EQ(live_maps_bind(card.maps, {IN_PORT, LIVE_IFINDEXES, 0, 0, 0}, why), 1);
    EXPECT_EQ(live_maps_bind(card.maps, {LIVE_PORTS, LOOPBACK, 0, 0, 0}, why), 1);
    EXPECT_EQ(live_maps_bind(card.maps, {0, LOOPBACK, 0, 0, 0}, why), 1);
    EXPECT_EQ(live_maps_open_port(card.maps, {IN_PORT, 0x7FFFFFF, 0, 0, 0}, why), 1); // no such device
    EXPECT_EQ(live_maps_open_port(card.maps, {LIVE_IFIDS, LOOPBACK, 0, 0, 0}, why), 1);
    EXPECT_EQ(live_maps_ingress(card.maps, LIVE_IFINDEXES).word, 0u);
}

TEST_F(maps, a_renewal_that_is_too_old_sends_everything_up)
{
    packet_card card;
    fill(card);
    live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
    EXPECT_STREQ(reason(card), "forwarded");
    live_maps_set_stale_after(card.maps, 1);
    frame_bytes frame = good_packet();
    while (card.trace(frame).reason == LIVE_FORWARDED) // the program's clock moves with the tick
        frame = good_packet();
    EXPECT_STREQ(reason(card), "stale");
    live_maps_set_stale_after(card.maps, 1'000'000'000'000);
    EXPECT_STREQ(reason(card), "forwarded");
}

TEST_F(maps, own_addresses_are_replaced_as_a_whole)
{
    packet_card card;
    fill(card);
    live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
    const std::uint32_t source = packet_form{}.source;
    live_maps_set_own_addresses(card.maps, std::vector<std::uint32_t>{1, source});
    EXPECT_STREQ(reason(card), "source");
    live_maps_set_own_addresses(card.maps, std::vector<std::uint32_t>{1, 2});
    EXPECT_STREQ(reason(card), "forwarded");
}

// The switch is made while packets run. Each of them is searched in one table or the other.
TEST_F(maps, a_switch_of_tables_loses_no_packet)
{
    packet_card card;
    fill(card);
    live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
    std::atomic<bool> ended = false;
    std::uint64_t runs = 0;
    std::thread packets([&] {
        for (; !ended; ++runs) {
            frame_bytes frame = good_packet();
            EXPECT_EQ(card.run(frame), XDP_REDIRECT);
        }
    });
    const auto both_searched = [&] {
        return card.counters(OUT_A).out_packets > 0 && card.counters(OUT_B).out_packets > 0;
    };
    for (unsigned switches = 0; switches % 1000 != 0 || switches < 20'000 || !both_searched(); ++switches)
        live_maps_search(card.maps, switches % 2 == 0 ? LIVE_SEARCHED_TABLE_1 : LIVE_SEARCHED_TABLE_0);
    ended = true;
    packets.join();
    const std::uint64_t a = card.counters(OUT_A).out_packets, b = card.counters(OUT_B).out_packets;
    EXPECT_EQ(card.counters(IN_PORT).reasons[LIVE_FORWARDED], runs);
    EXPECT_EQ(a + b, runs);
}

TEST_F(maps, behind_the_barrier_no_packet_goes_by_what_was_stored_before)
{
    packet_card card;
    fill(card);
    live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
    std::atomic<bool> ended = false;
    std::thread packets([&] {
        while (!ended) {
            frame_bytes frame = good_packet();
            (void)card.run(frame);
        }
    });
    for (unsigned round = 0; round < 20; ++round) {
        live_maps_hold(card.maps, CONTEXT);
        ASSERT_EQ(live_maps_barrier(why), 0) << why;
        const std::uint64_t forwarded = card.forwarded(), held = card.counters(IN_PORT).reasons[LIVE_HELD];
        while (card.counters(IN_PORT).reasons[LIVE_HELD] < held + 100)
            std::this_thread::yield();
        EXPECT_EQ(card.forwarded(), forwarded);
        live_maps_release(card.maps, CONTEXT);
        while (card.forwarded() == forwarded)
            std::this_thread::yield();
    }
    ended = true;
    packets.join();
}

TEST_F(maps, outlive_the_process_in_their_folder)
{
    if (bpf_file_system_missing())
        GTEST_SKIP() << "no BPF file system at /sys/fs/bpf";
    const pin_folder pins;
    {
        packet_card card(pins.path);
        fill(card);
        live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
        live_maps_set_generation(card.maps, 0, 5);
        frame_bytes frame = good_packet();
        EXPECT_EQ(card.run(frame), XDP_REDIRECT);
    }
    struct stat folder {
    };
    EXPECT_EQ(stat(pins.path.c_str(), &folder), 0);
    EXPECT_EQ(folder.st_mode & 0777, 0700u);
    packet_card again(pins.path);
    EXPECT_EQ(live_maps_searched(again.maps), LIVE_SEARCHED_TABLE_0);
    EXPECT_EQ(live_maps_generation(again.maps, 0), 5u);
    EXPECT_STREQ(reason(again), "forwarded");
    EXPECT_EQ(again.counters(IN_PORT).reasons[LIVE_FORWARDED], 1u);
}

TEST_F(maps, of_another_version_are_refused)
{
    if (bpf_file_system_missing())
        GTEST_SKIP() << "no BPF file system at /sys/fs/bpf";
    const pin_folder pins;
    {
        packet_card card(pins.path);
        static_cast<live_control *>(card.maps.values[LIVE_MAP_CONTROL])->version = LIVE_VERSION + 1;
    }
    live_maps refused;
    EXPECT_EQ(live_maps_open(refused, pins.path, why), 1);
    EXPECT_NE(why.find("of version 2, expected 1"), std::string::npos) << why;
}

TEST_F(maps, need_a_folder_in_a_bpf_file_system)
{
    live_maps refused;
    EXPECT_EQ(live_maps_open(refused, "/tmp/live_test_" + std::to_string(getpid()), why), 1);
    EXPECT_NE(why.find("not in a BPF file system"), std::string::npos) << why;
    char somebodys[] = "/tmp/live_test_XXXXXX";
    ASSERT_NE(mkdtemp(somebodys), nullptr);
    EXPECT_EQ(live_maps_open(refused, somebodys, why), 1);
    EXPECT_EQ(rmdir(somebodys), 0) << "it is still there";
    EXPECT_EQ(live_maps_open(refused, "/nowhere/at/all", why), 1);
    EXPECT_EQ(live_maps_remove("/sys/fs/bpf/live_test_none", why), 0) << why;
}

TEST(live_card_page, names_every_reason_in_the_order_in_which_they_hold)
{
    const doc_page page = doc_read(DOCS_DIR "/live-card.md");
    const doc_table &reasons = page.tables.at("What the program does with a packet");
    EXPECT_EQ(reasons.column("reason"),
              std::vector<std::string>(std::begin(LIVE_REASON_NAMES), std::end(LIVE_REASON_NAMES)));
}

TEST(live_card_page, names_every_map)
{
    const doc_page page = doc_read(DOCS_DIR "/live-card.md");
    std::string pinned;
    for (const std::string &cell : page.tables.at("The maps").column("pinned as"))
        pinned += cell;
    for (const char *name : LIVE_MAP_NAMES)
        EXPECT_NE(pinned.find("`" + std::string(name) + "`"), std::string::npos) << name;
}
