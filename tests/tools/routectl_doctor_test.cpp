// routectl_doctor_test.cpp - what the doctor finds on the real route manager: each known behaviour by its shortest way.
//
// The sequences are those of docs/known-behaviour.md, made with the tool itself and with interface events on the queue.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <random>
#include <set>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "route_table.h"
#include "tool_run.h"

using namespace harness;

namespace
{
using json = nlohmann::json;
using words = std::multiset<std::string>;
constexpr std::uint32_t VERB_COUNTERS = 5, OWN_ADDRESS = IF_ADDR;

// A route manager with interface 5 up in context 3, and the hosts that a test reports.
struct sick_card : card_dir {
    daemon_process manager;
    mts_queue queue;

    // is_told: the interface manager's event has come.
    explicit sick_card(std::uint32_t mask = MASK16, bool is_told = true)
        : manager(with_interface(*this, mask)), queue(ready(), 1024)
    {
        if (is_told)
            event(EVENT_UP, OWN_ADDRESS, mask);
    }
    const card_dir &ready() const
    {
        EXPECT_EQ(daemon_notification(manager), "READY=1");
        return *this;
    }
    static const card_dir &with_interface(const card_dir &card, std::uint32_t mask)
    {
        interfaces_write(card, {{IFID, IF_USUAL, 1, 0, OWN_ADDRESS, mask, CTX, 0}});
        return card;
    }
    void event(std::uint32_t opcode, std::uint32_t address, std::uint32_t mask) const
    {
        mts_send(queue, opcode, state_payload({.addr = address, .mask = mask}));
        EXPECT_NE(debug_answer(queue, VERB_COUNTERS), "") << "the event was before it";
    }
    tool_result run(const std::string &line, const std::string &input = "") const
    {
        return routectl_run(*this, line, input);
    }
    // Runs lines, each of which may be refused.
    void play(const std::string &lines) const { (void)run("-f -b -", lines); }

    json ask(const std::string &more = "") const
    {
        const tool_result result = run("-j doctor" + more);
        const json document = json::parse(result.out, nullptr, false);
        EXPECT_FALSE(document.is_discarded()) << result.out << result.err;
        EXPECT_EQ(document.value("status", -1), result.status);
        return document;
    }
    // What it finds: "kind" of the whole card, "kind ctx" or "kind ctx object".
    words findings(const std::string &more = "") const
    {
        const json document = ask(more);
        words found;
        for (const json &f : document.at("findings"))
            found.insert(f.at("finding").get<std::string>() + (f.at("ctx").is_null() ? "" : " " + f.at("ctx").dump()) +
                         (f.at("object").is_null() ? "" : " " + f.at("object").get<std::string>()));
        EXPECT_EQ(document.at("status"), found.empty() ? 0 : 1) << document.dump(1);
        return found;
    }
};

constexpr const char *HOST = "arp add 10.1.0.9 if 5 encap 0x1111 ctx 3\n";
constexpr const char *HOST_GONE = "arp del 10.1.0.9 ctx 3\n";
constexpr const char *SECOND_HOST = "arp add 10.1.0.10 if 5 encap 0x2222 ctx 3\n";
constexpr const char *THIRD_HOST = "arp add 10.1.0.11 if 5 encap 0x3333 ctx 3\n";
} // namespace

TEST(routectl_doctor, a_card_in_service_has_nothing)
{
    const sick_card card;
    EXPECT_EQ(card.findings(), words{});
    card.play(std::string(HOST) + SECOND_HOST + "route add default via 10.1.0.9 ctx 3\n" +
              "route add 20/8 via 10.1.0.9 ctx 3\nroute add 20/8 via 10.1.0.10 ctx 3\n" +
              "route add 20.1/16 via 10.1.0.10 ctx 3\nroute add default via 10.1.0.10 ctx 3\n" +
              "nat add 198.51.100.1 count 6 if 5 ixp 7 ctx 3\n");
    EXPECT_EQ(card.findings(), words{});
    const tool_result plain = card.run("doctor");
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.out, "nothing found\n");
    EXPECT_EQ(plain.err, "");
    EXPECT_EQ(card.run("-o doctor ctx 3").out, "");
}

TEST(routectl_doctor, random_changes_of_prefixes_apart_leave_nothing)
{
    const sick_card card;
    std::mt19937 random(20260112);
    std::string lines = std::string(HOST) + SECOND_HOST + "route add default via 10.1.0.10 ctx 3\n";
    std::set<std::pair<unsigned, unsigned>> standing; // third byte, gateway
    for (unsigned i = 0; i < 800; ++i) {
        const auto byte = static_cast<unsigned>(random() % 60), gateway = static_cast<unsigned>(9 + random() % 2);
        const bool is_new = standing.insert({byte, gateway}).second;
        if (!is_new)
            standing.erase({byte, gateway});
        const unsigned length = 9 + byte % 24;
        const std::uint32_t prefix = (20 + byte) << 24;
        lines += std::string("route ") + (is_new ? "add " : "del ") + std::to_string(prefix >> 24) + ".0.0.0/" +
                 std::to_string(length) + " via 10.1.0." + std::to_string(gateway) + " ctx 3\n";
    }
    card.play(lines);
    EXPECT_EQ(card.findings(), words{});
}

TEST(routectl_doctor, routes_that_change_while_it_looks_are_not_taken_for_faults)
{
    const sick_card card;
    card.play(std::string(HOST) + SECOND_HOST);
    std::string lines;
    for (const char *gateway : {"9", "10"})
        for (const char *change : {"add ", "del "})
            for (unsigned byte = 20; byte < 80; ++byte)
                lines += std::string("route ") + change + std::to_string(byte) + ".0.0.0/" +
                         std::to_string(9 + byte % 24) + " via 10.1.0." + gateway + " ctx 3\n";
    std::atomic<bool> is_over = false;
    std::thread changes([&] {
        while (!is_over)
            card.play(lines);
    });
    EXPECT_EQ(card.findings(), words{});
    EXPECT_EQ(card.findings(), words{});
    card.play(std::string(THIRD_HOST) + "arp add 10.1.0.11 if 5 encap 0x4444 ctx 3\n");
    EXPECT_EQ(card.findings().count("encap-differs 3 10.1.0.11/32"), 1u) << "what stays is found all the same";
    is_over = true;
    changes.join();
    EXPECT_EQ(card.findings(), (words{"encap-differs 3 10.1.0.11/32", "leaves-lost 3"})) << "counts need a quiet card";
}

TEST(routectl_doctor, routes_that_longer_ones_hide_wholly_are_no_loss)
{
    const sick_card card;
    card.play(std::string(HOST) + "route add 20.0.0.0/8 via 10.1.0.9 ctx 3\nroute add 20.0.0.0/9 via 10.1.0.9 ctx 3\n" +
              "route add 20.128.0.0/9 via 10.1.0.9 ctx 3\n");
    EXPECT_EQ(card.findings(), words{});
}

TEST(routectl_doctor, routes_that_end_together_in_front_of_a_further_one_are_told_apart)
{
    const sick_card card;
    card.play(std::string(HOST) + SECOND_HOST + "route add 20.0.0.0/8 via 10.1.0.9 ctx 3\n" +
              "route add 20.128.0.0/9 via 10.1.0.10 ctx 3\nroute add 20.255.255.255/32 via 10.1.0.9 ctx 3\n" +
              "route add 21.0.0.0/8 via 10.1.0.10 ctx 3\nroute add 22.0.0.0/8 via 10.1.0.9 ctx 3\n" +
              "route add 255.255.255.255/32 via 10.1.0.9 ctx 3\n");
    EXPECT_EQ(card.findings(), words{});
}

TEST(routectl_doctor, repeated_reports_of_a_host_are_leaves_lost)
{
    const sick_card card;
    for (unsigned i = 0; i < 4; ++i)
        card.play(HOST);
    const json found = card.ask().at("findings");
    ASSERT_EQ(found.size(), 1u) << found.dump(1);
    EXPECT_EQ(found[0].at("finding"), "leaves-lost");
    EXPECT_EQ(found[0].at("level"), "fault");
    EXPECT_EQ(found[0].at("ctx"), 3);
    EXPECT_EQ(found[0].at("what"), "3 leaves of the context are in use and cannot be reached");
    EXPECT_EQ(card.findings(" ctx 4"), words{});
    EXPECT_EQ(card.findings(" ctx 3"), words{"leaves-lost 3"});
}

TEST(routectl_doctor, the_end_of_repeated_reports_is_an_empty_pool_and_a_host_that_is_gone)
{
    const sick_card card;
    std::string lines;
    for (unsigned i = 0; i < 509; ++i)
        lines += HOST;
    card.play(lines);
    EXPECT_EQ(card.run("arp del 10.1.0.9 ctx 3").status, 1) << "gone";
    EXPECT_EQ(card.findings(), (words{"install-refused", "leaves-lost 3", "pool-low leaves"}));
    card.play(HOST);
    EXPECT_EQ(card.findings(), (words{"install-refused", "leaves-lost 3", "pool-full leaves"}));
}

TEST(routectl_doctor, a_new_encap_id_that_did_not_reach_the_processors_is_named_with_the_routes_that_keep_the_old)
{
    const sick_card card;
    card.play(std::string(HOST) + "route add 20/8 via 10.1.0.9 ctx 3\n" + "arp add 10.1.0.9 if 5 encap 0x2222 ctx 3\n");
    const json found = card.ask().at("findings");
    EXPECT_EQ(card.findings(),
              (words{"encap-differs 3 10.1.0.9/32", "gateway-stale 3 20.0.0.0/8 via 10.1.0.9", "leaves-lost 3"}));
    EXPECT_EQ(found[0].at("copies"), (json{"wired", "ixp1", "ixp2"})) << found.dump(1);
    EXPECT_EQ(found[0].at("seen").get<std::string>().find("listed: interface 5 encap 0x2222; leaf"), 0u);
    EXPECT_NE(found[0].at("seen").get<std::string>().find(": interface 5 encap 0x1111"), std::string::npos);
}

TEST(routectl_doctor, a_gap_is_named_by_its_addresses)
{
    const sick_card card;
    card.play(std::string(HOST) + "route add default via 10.1.0.9 ctx 3\nroute add 20.0.0.0/9 via 10.1.0.9 ctx 3\n" +
              "route add 20.128.0.0/9 via 10.1.0.9 ctx 3\nroute add 20.0.0.0/8 via 10.1.0.9 ctx 3\n");
    EXPECT_EQ(card.findings(), words{}) << "not yet";
    card.play("route del 20.0.0.0/9 via 10.1.0.9 ctx 3\nroute del 20.128.0.0/9 via 10.1.0.9 ctx 3\n"
              "route del 20.0.0.0/8 via 10.1.0.9 ctx 3\n");
    EXPECT_EQ(card.findings(), words{"gap 3 20.0.0.0/8"});
    card.play("route add 20.0.0.0/8 via 10.1.0.9 ctx 3\n");
    EXPECT_EQ(card.findings(), words{}) << "mended";
}

TEST(routectl_doctor, a_default_leaf_that_went_with_an_interface_is_missed)
{
    const sick_card card(0);
    EXPECT_EQ(card.findings(), (words{"default-gone 3", "interface-missing 3 interface 5", "leaves-lost 3"}));
}

TEST(routectl_doctor, a_nat_pool_of_the_whole_space_is_warned_of_and_its_removal_found)
{
    const sick_card card;
    const rpc_client caller(card); // the tool makes no such pool
    const std::vector<rpc_arg> pool = {arg16(7), arg16(IFID), arg32(0), arg32(0), arg16(0x1111)};
    EXPECT_EQ(rpc_call(caller.fd, "rib_add_nat_pool", pool).result, 0u);
    EXPECT_EQ(card.findings(), (words{"leaves-lost 7", "zero-prefix 7"}));
    EXPECT_EQ(rpc_call(caller.fd, "rib_remove_nat_pool", pool).result, 0u);
    EXPECT_EQ(card.findings(), (words{"default-gone 7", "leaves-lost 7"}));
}

TEST(routectl_doctor, a_static_route_in_front_of_its_loss_is_warned_of_and_afterwards_counted)
{
    const sick_card card;
    card.play(std::string(HOST) + SECOND_HOST + "route add 10.1.0.9/32 via 10.1.0.10 ctx 3\n");
    EXPECT_EQ(card.findings(), words{"kinds-mixed 3 10.1.0.9/32"});
    card.play(HOST_GONE);
    const words found = card.findings();
    EXPECT_EQ(found.count("statics-unlisted"), 1u) << "lost, with its memory";
    EXPECT_EQ(found.count("stray-leaf 3 10.1.0.9/32"), 1u) << "its path goes on forwarding";
}

TEST(routectl_doctor, entries_that_a_removal_by_next_hop_0_took_are_stray_leaves)
{
    const sick_card card;
    card.play(std::string(HOST) + "nat add 198.51.100.16 count 16 if 5 ixp 7 ctx 3\n" +
              "route del 10.1.0.1/32 via 0.0.0.0 ctx 3\nroute del 198.51.100.16/28 via 0.0.0.0 ctx 3\n" +
              "route del 10.1.0.9/32 via 10.1.0.1 ctx 3\n");
    EXPECT_EQ(card.findings(), (words{"interface-missing 3 interface 5", "stray-leaf 3 10.1.0.1/32",
                                      "stray-leaf 3 10.1.0.9/32", "stray-leaf 3 198.51.100.16/28"}));
    card.play(HOST);
    EXPECT_EQ(card.findings().count("stray-leaf 3 10.1.0.9/32"), 0u);
    EXPECT_EQ(card.findings().count("leaves-lost 3"), 1u) << "the price of its report";
}

TEST(routectl_doctor, a_host_as_the_ninth_path_is_of_several_kinds_with_routes_in_no_table)
{
    const sick_card card;
    std::string lines;
    for (unsigned i = 21; i < 29; ++i)
        lines += "route add 10.1.0.9/32 via 10.1.0." + std::to_string(i) + " ctx 3\n";
    card.play(lines + HOST + "route add 10.1.0.9/32 via 10.1.0.29 ctx 3\n");
    EXPECT_EQ(card.findings(), (words{"kinds-mixed 3 10.1.0.9/32", "statics-unlisted"}));
    EXPECT_EQ(card.ask().at("findings")[0].at("what").get<std::string>().substr(0, 1), "9");
}

TEST(routectl_doctor, a_host_that_found_no_leaf_is_listed_and_not_in_the_tables)
{
    const sick_card card;
    std::string lines;
    for (unsigned i = 0; i < 510; ++i)
        lines += HOST; // the last but one takes the host away, the last takes the leaf that it gave back
    card.play(lines);
    EXPECT_EQ(card.findings(), (words{"install-refused", "leaves-lost 3", "pool-full leaves"}));
    card.play("route add 10.1.0.50/32 via 10.1.0.77 ctx 3\narp add 10.1.0.50 if 5 encap 0x5050 ctx 3\n");
    EXPECT_EQ(card.findings(), (words{"install-refused", "kinds-mixed 3 10.1.0.50/32", "leaves-lost 3",
                                      "not-in-tables 3 10.1.0.50/32", "pool-full leaves", "statics-unlisted"}));
    card.play("route del 10.1.0.50/32 via 10.1.0.77 ctx 3\narp del 10.1.0.50 ctx 3\n");
    EXPECT_EQ(card.findings(), (words{"install-refused", "leaves-lost 3", "pool-full leaves"})) << "mended";
}

TEST(routectl_doctor, a_static_route_that_waits_is_counted)
{
    const sick_card card;
    card.play("route add 20/8 via 10.1.0.77 ctx 3\nroute add 10.1.0.9/32 via 10.1.0.78 ctx 3\n");
    EXPECT_EQ(card.findings(), words{"statics-unlisted"});
    EXPECT_EQ(card.ask().at("findings")[0].at("what").get<std::string>().substr(0, 1), "2");
}

TEST(routectl_doctor, a_host_behind_the_address_of_an_interface_is_named)
{
    const sick_card card;
    card.play("arp add 10.1.0.1 if 5 encap 0x1111 ctx 3\n");
    EXPECT_EQ(card.run("arp del 10.1.0.1 ctx 3").status, 1);
    EXPECT_EQ(card.findings(), words{"kinds-mixed 3 10.1.0.1/32"});
    interfaces_write(card, {{IFID, IF_EXISTS | IF_ADDRESS | IF_CONTEXT, 1, 0, OWN_ADDRESS, MASK16, CTX, 0}});
    card.event(EVENT_DOWN, OWN_ADDRESS, MASK16);
    EXPECT_EQ(card.findings(), (words{"hosts-lost", "stray-leaf 3 10.1.0.1/32"}))
        << "it went with the interface's entry in front of it";
}

TEST(routectl_doctor, an_interface_that_cannot_go_from_behind_a_static_route_is_named)
{
    const sick_card card(MASK16, false);
    card.play("route add 10.1.0.1/32 via 10.1.0.10 ctx 3\n");
    card.event(EVENT_UP, OWN_ADDRESS, MASK16);
    EXPECT_EQ(card.findings(), (words{"kinds-mixed 3 10.1.0.1/32", "statics-unlisted"}));
    interfaces_write(card, {{IFID, IF_EXISTS | IF_ADDRESS | IF_CONTEXT, 1, 0, OWN_ADDRESS, MASK16, CTX, 0}});
    card.event(EVENT_DOWN, OWN_ADDRESS, MASK16);
    EXPECT_EQ(card.findings(),
              (words{"interface-stale 3 10.1.0.1/32", "kinds-mixed 3 10.1.0.1/32", "statics-unlisted"}));
}

TEST(routectl_doctor, a_set_that_another_contexts_route_spoiled_has_an_invalid_block)
{
    const sick_card card;
    card.play(std::string(HOST) + SECOND_HOST + THIRD_HOST + "route add 20.0/16 via 10.1.0.9 ctx 3\n" +
              "route add 20.0/16 via 10.1.0.10 ctx 3\nroute add 20.0/16 via 10.1.0.11 ctx 4 id 3\n");
    EXPECT_EQ(card.findings(), (words{"leaves-lost 4", "paths-differ 3 20.0.0.0/16"})) << "the third is in no table";
    card.play("route del 20.0/16 via 10.1.0.11 ctx 4 id 3\n");
    EXPECT_EQ(card.findings(), (words{"block-invalid 3 20.0.0.0/16", "leaves-lost 4"}));
}

TEST(routectl_doctor, a_block_that_another_context_gave_back_is_counted_below_0_and_no_loss)
{
    const sick_card card;
    card.play(std::string(HOST) + SECOND_HOST + THIRD_HOST + "route add 20.0/16 via 10.1.0.9 ctx 3\n" +
              "route add 20.0/16 via 10.1.0.10 ctx 4 id 3\nroute add 20.0/16 via 10.1.0.11 ctx 4 id 3\n" +
              "route del 20.0/16 via 10.1.0.9 ctx 3\n");
    const json summary = json::parse(card.run("-j route summary ctx 3").out);
    EXPECT_EQ(summary.at("contexts").at(0).at("ecmp"), -1) << summary.dump(1);
    EXPECT_EQ(card.findings(), (words{"leaves-lost 4", "paths-differ 4 20.0.0.0/16"})) << "no blocks-lost";
}

TEST(routectl_doctor, an_old_encap_id_that_forwards_with_no_route_behind_it_is_a_stray_leaf)
{
    const sick_card card;
    card.play(std::string(HOST) + SECOND_HOST + "route add 10.1.0.9/32 via 10.1.0.10 ctx 3\n" +
              "arp add 10.1.0.9 if 5 encap 0x4444 ctx 3\n");
    EXPECT_EQ(card.findings(), (words{"kinds-mixed 3 10.1.0.9/32", "paths-differ 3 10.1.0.9/32"}));
    card.play(HOST_GONE);
    EXPECT_EQ(card.findings(), (words{"statics-unlisted", "stray-leaf 3 10.1.0.9/32"}));
}

TEST(routectl_doctor, an_interface_that_is_refused_is_missed)
{
    const sick_card narrow(0xFFFFFFFE);
    EXPECT_EQ(narrow.findings(), words{"interface-missing 3 interface 5"});
    const sick_card untold(MASK16, false);
    EXPECT_EQ(untold.findings(), words{"interface-missing 3 interface 5"});
}

TEST(routectl_doctor, a_pool_that_went_with_a_refused_one_is_named_until_it_stands_again)
{
    const sick_card card;
    const std::string pool = "198.51.100.16 count 16 if 5 ixp 7 ctx 3\n";
    card.play("nat add " + pool + "nat add " + pool);
    EXPECT_EQ(card.findings(), words{"nat-twin-lost 3 198.51.100.16/28"});
    card.play("nat add " + pool);
    EXPECT_EQ(card.findings(), words{});
    card.play("nat add 198.51.100.16 count 16 if 5 ixp 8 ctx 3\n");
    EXPECT_EQ(card.findings(), words{}) << "another value: the one that stood stands";
}

TEST(routectl_doctor, the_removal_of_a_pool_that_was_not_there_is_a_note)
{
    const sick_card card;
    card.play("nat del 198.51.100.16 count 16 ixp 7 ctx 3\n");
    EXPECT_EQ(card.findings(), words{"nat-not-there 3 198.51.100.16/28"});
    EXPECT_EQ(card.findings(" ctx 4"), words{});
    EXPECT_EQ(card.findings(" age 0ms"), words{}) << "too long ago";
    card.play("nat add 198.51.100.16 count 16 if 5 ixp 7 ctx 3\n");
    EXPECT_EQ(card.findings(), words{}) << "it is there now";
}

TEST(routectl_doctor, a_history_that_keeps_no_errors_is_named)
{
    const sick_card card;
    card.play("keep errors off\n");
    EXPECT_EQ(card.findings(), words{"errors-not-kept"});
    card.play("keep errors on\n");
    EXPECT_EQ(card.findings(), words{});
}

TEST(routectl_doctor, a_word_that_differs_between_the_copies_is_named)
{
    const sick_card card;
    const int fd = ::open(card.at("mem/ixp2").c_str(), O_RDWR);
    const std::uint32_t header = 0xB2000000, at = HW_ECMPS + 5 * HW_ECMP_BYTES; // of a block that nobody uses
    ASSERT_EQ(::pwrite(fd, &header, sizeof header, at), static_cast<ssize_t>(sizeof header));
    ::close(fd);
    const json found = card.ask().at("findings");
    ASSERT_EQ(found.size(), 1u) << found.dump(1);
    EXPECT_EQ(found[0].at("what"), "the copies wired and ixp2 differ in 1 word(s)");
    EXPECT_EQ(found[0].at("seen"), "the first: ECMP block 5 word 0");
}

TEST(routectl_doctor, a_slot_that_one_copy_lost_is_named_with_that_copy)
{
    const sick_card card;
    card.play(std::string(HOST) + "route add 20/8 via 10.1.0.9 ctx 3\n");
    const std::uint32_t root = memory_words(card, "mem/wired")[CTX], nothing = 0;
    const std::uint32_t node = ((root & ~1u) - 0x08000000 - HW_NODES) / HW_NODE_BYTES;
    const int fd = ::open(card.at("mem/ixp1").c_str(), O_RDWR);
    ASSERT_EQ(::pwrite(fd, &nothing, sizeof nothing, HW_NODES + node * HW_NODE_BYTES + 4 * 20),
              static_cast<ssize_t>(sizeof nothing));
    ::close(fd);
    const json found = card.ask().at("findings");
    ASSERT_EQ(found.size(), 2u) << found.dump(1);
    EXPECT_EQ(found[0].at("finding"), "not-in-tables");
    EXPECT_EQ(found[0].at("object"), "20.0.0.0/8");
    EXPECT_EQ(found[0].at("copies"), json{"ixp1"});
    EXPECT_EQ(found[1].at("finding"), "copies-differ");
}

TEST(routectl_doctor, a_dead_route_manager_leaves_its_tables_and_its_history_to_look_at)
{
    sick_card card;
    card.play(std::string(HOST) +
              "route add 20.0.0.0/9 via 10.1.0.9 ctx 3\nroute add 20.128.0.0/9 via 10.1.0.9 ctx 3\n" +
              "route add 20.0.0.0/8 via 10.1.0.9 ctx 3\nroute del 20.0.0.0/9 via 10.1.0.9 ctx 3\n" +
              "route del 20.128.0.0/9 via 10.1.0.9 ctx 3\nroute del 20.0.0.0/8 via 10.1.0.9 ctx 3\n" +
              "nat del 198.51.100.16 count 16 ixp 7 ctx 3\n");
    daemon_signal(card.manager, SIGKILL);
    EXPECT_EQ(daemon_exit_status(card.manager), 1000 + SIGKILL);
    const json document = card.ask();
    EXPECT_EQ(document.at("status"), 3);
    EXPECT_EQ(document.at("route_manager"), "cannot be reached");
    EXPECT_EQ(document.at("not_looked_at").size(), 1u) << document.dump(1);
    ASSERT_EQ(document.at("findings").size(), 2u) << document.dump(1);
    EXPECT_EQ(document.at("findings")[0].at("finding"), "gap");
    EXPECT_EQ(document.at("findings")[0].at("object"), "20.0.0.0/8");
    EXPECT_EQ(document.at("findings")[1].at("finding"), "nat-not-there");
    const std::string error = document.at("error");
    EXPECT_NE(error.find("the mapped memories and the history were looked at: 2 findings"), std::string::npos) << error;
}

TEST(routectl_doctor, a_card_that_nothing_ever_ran_on_has_nothing_to_look_at)
{
    const card_dir card;
    const tool_result result = routectl_run(card, "-j doctor");
    EXPECT_EQ(result.status, 3);
    const json document = json::parse(result.out);
    EXPECT_EQ(document.at("not_looked_at").size(), 5u) << "three copies, the interfaces, what the route manager tells";
}

TEST(routectl_doctor, each_finding_says_what_it_is_how_it_was_seen_and_what_to_do)
{
    const sick_card card;
    card.play(HOST);
    card.play(HOST);
    const tool_result plain = card.run("doctor");
    EXPECT_EQ(plain.status, 1);
    EXPECT_EQ(plain.err, "1 finding\n");
    EXPECT_EQ(plain.out,
              "fault: leaves-lost, context 3\n"
              "  what  1 leaf of the context is in use and cannot be reached\n"
              "  seen  the route manager counts 8 leaves; tables and listed routes account for 7\n"
              "  do    restart the route manager: nothing else frees them; withdraw a host before it is reported "
              "again, use one context for each route id\n");
    const std::string line = card.run("-o doctor").out;
    EXPECT_EQ(line.find("finding=leaves-lost level=fault ctx=3 "), 0u) << line;
}
