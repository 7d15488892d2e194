// route_rpc_test.cpp - the procedures that the process serves, and its calls to the slow path.
//
// The table below is the callers' view: names, type codes, and which arguments are bound to 0 to 255.
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "rib_table.h"
#include "route_log.h"
#include "route_rpc_client.h"
#include "route_rpc_serv.h"

using namespace harness;

namespace
{

using strings = std::vector<std::string>;

const strings ALL_NAMES = {"arp_prefix_mgr_add_route", "arp_prefix_mgr_remove_route",
                           "rib_max_ecmp_route",       "rib_add_route",
                           "rib_remove_route",         "slowpath_route_lookup",
                           "show_rib_print",           "show_rib_summary",
                           "show_fib_print",           "show_fib_summary",
                           "mtrie_lookup_exact_stub",  "rib_add_nat_pool",
                           "rib_remove_nat_pool",      "mtrie_hw_dump_api",
                           "norvik_send_route_advert", "route_print_debug"};

// A call of each served procedure with arguments in range; `types` are the callers' type codes, `bound` the positions
// of contexts, route ids and the dump's root index.
struct served_call {
    const char *name;
    std::vector<unsigned> types;
    std::vector<std::uint32_t> args;
    std::vector<unsigned> bound;
};
const served_call SERVED[] = {
    {"arp_prefix_mgr_add_route", {1, 2, 2, 1, 1, 2}, {2, IP(10, 0, 0, 1), 32, 5, 7, 3}, {5}},
    {"arp_prefix_mgr_remove_route", {1, 2, 2, 2, 1, 1, 2}, {2, IP(10, 0, 0, 1), 32, 0, 5, 7, 3}, {6}},
    {"rib_max_ecmp_route", {1, 2, 2, 2}, {3, 3, IP(10, 0, 0, 0), 0xFF000000}, {0, 1}},
    {"rib_add_route", {1, 2, 2, 2, 2}, {3, 3, IP(10, 0, 0, 0), 0xFF000000, IP(10, 0, 0, 1)}, {0, 1}},
    {"rib_remove_route", {1, 2, 2, 2, 2}, {3, 3, IP(10, 0, 0, 0), 0xFF000000, IP(10, 0, 0, 1)}, {0, 1}},
    {"slowpath_route_lookup", {1, 2, 8}, {3, IP(10, 0, 0, 1), 0}, {0}},
    {"show_rib_print", {1, 8, 8, 8, 9}, {3, 0, 0, 0, 0}, {0}},
    {"show_rib_summary", {1, 9}, {3, 0}, {0}},
    {"show_fib_print", {1, 8, 8, 8, 9}, {3, 0, 0, 0, 0}, {0}},
    {"show_fib_summary", {1, 9}, {3, 0}, {0}},
    {"mtrie_lookup_exact_stub", {2, 2, 2, 8}, {3, IP(224, 0, 0, 0), 0xE0000000, 0}, {0}},
    {"rib_add_nat_pool", {1, 1, 2, 2, 1}, {3, 7, IP(20, 0, 0, 1), 1, 9}, {0}},
    {"rib_remove_nat_pool", {1, 1, 2, 2, 1}, {3, 7, IP(20, 0, 0, 1), 1, 9}, {0}},
    {"mtrie_hw_dump_api", {1, 2, 2, 9}, {1, 3, IP(10, 0, 0, 1), 0}, {1}},
    {"norvik_send_route_advert", {2, 2, 2, 2, 1, 1}, {IP(10, 0, 0, 0), 0xFF000000, 7, IP(10, 0, 0, 1), 1, 3}, {5}},
};

// "tnrpc_register <name> <count>: <codes>" of each procedure, in the table's order.
strings registrations()
{
    strings entries;
    for (const served_call &served : SERVED) {
        std::string entry = std::string("tnrpc_register ") + served.name + " " + std::to_string(served.types.size());
        entry += ':';
        for (const unsigned type : served.types)
            entry += " " + std::to_string(type);
        entries.push_back(entry);
    }
    return entries;
}

} // namespace

TEST(route_rpc, the_server_opens_endpoint_9_and_registers_its_procedures_in_order)
{
    fake_card card;
    EXPECT_EQ(norvik_route_tnrpc_serv(), 0u);
    strings expected = registrations();
    expected.insert(expected.begin(), "tnrpc_serv_init 9");
    EXPECT_EQ(card.calls, expected);
    EXPECT_EQ(expected.size(), 16u);
    EXPECT_EQ(rpcfd, card.rpc_fd);
}

TEST(route_rpc, a_refused_endpoint_still_registers_every_name_and_returns_0)
{
    fake_card card;
    card.tnrpc_serv_fails = true;
    EXPECT_EQ(norvik_route_tnrpc_serv(), 0u);
    EXPECT_EQ(rpcfd, -1);
    EXPECT_EQ(card.calls_of("tnrpc_register "), registrations());
    EXPECT_EQ(card.procedures.size(), 15u);
    EXPECT_TRUE(card.history.empty());
}

TEST(route_rpc, clean_up_takes_back_sixteen_names_in_order_the_last_one_never_registered)
{
    fake_card card;
    (void)norvik_route_tnrpc_serv();
    card.forget();
    norvik_route_tnrpc_unregister();
    strings expected;
    for (const std::string &name : ALL_NAMES)
        expected.push_back("tnrpc_unregister " + name);
    EXPECT_EQ(card.calls, expected);
    EXPECT_EQ(card.calls.size(), 16u);
    EXPECT_TRUE(card.procedures.empty());
}

TEST(route_rpc, every_context_route_id_and_root_index_is_bound_to_255_and_no_other_argument_is)
{
    fake_card card;
    (void)norvik_route_tnrpc_serv();
    for (const served_call &served : SERVED) {
        std::map<unsigned, std::uint32_t> limits;
        for (const unsigned index : served.bound)
            limits[index] = 255;
        ASSERT_EQ(card.procedures.count(served.name), 1u) << served.name;
        EXPECT_EQ(card.procedures[served.name].limits, limits) << served.name;
    }
}

TEST(route_rpc, contexts_route_ids_and_root_indices_over_255_never_reach_a_procedure)
{
    fake_card card;
    ASSERT_EQ(card.start(), 0);
    (void)norvik_route_tnrpc_serv();
    for (const served_call &served : SERVED) {
        card.forget();
        EXPECT_EQ(card.call(served.name, served.args).status, 0u) << served.name;
        for (const unsigned index : served.bound)
            for (const std::uint32_t value : {256u, 0x10005u, 0xFFFFFFFFu}) {
                card.forget();
                std::vector<std::uint32_t> args = served.args;
                args[index] = value;
                EXPECT_EQ(card.call(served.name, args).status, 3u) << served.name << " argument " << index;
                EXPECT_TRUE(card.history.empty()) << served.name << " argument " << index;
                args[index] = 255;
                EXPECT_EQ(card.call(served.name, args).status, 0u) << served.name << " argument " << index;
            }
    }
}

TEST(route_rpc, 16_bit_arguments_of_a_procedure_are_its_low_16_bits)
{
    fake_card card;
    card.add_interface(7, IP(10, 0, 0, 254));
    ASSERT_EQ(card.start(), 0);
    (void)norvik_route_tnrpc_serv();
    const std::vector<std::uint32_t> args = {0xABCD0001, IP(10, 0, 0, 1), 32, 0xABCD1234, 0xABCD0007, 3};
    const fake_reply reply = card.call("arp_prefix_mgr_add_route", args);
    EXPECT_EQ(reply.status, 0u);
    EXPECT_EQ(reply.result, 0u);
    rib_search_result found;
    ASSERT_EQ(rib_route_search(3, IP(10, 0, 0, 1), 32, nullptr, nullptr, &found), 1u);
    EXPECT_EQ(found.entry->encap_id, 0x1234u);
    EXPECT_EQ(found.entry->ifid, 7u);
}

TEST(route_rpc, the_arguments_of_a_removal_are_handed_on_in_their_places)
{
    fake_card card;
    ASSERT_EQ(card.start(), 0);
    (void)norvik_route_tnrpc_serv();
    card.forget();
    const std::vector<std::uint32_t> args = {2, IP(10, 0, 0, 1), 32, 99, 0x1234, 7, 3};
    EXPECT_EQ(card.call("arp_prefix_mgr_remove_route", args).result, 1u);
    EXPECT_EQ(card.lines(), strings{"100 <Ctx:3>arp_prefix_mgr_remove_route, object NOT supported, addr 0xa000001, "
                                    "encapid 0x1234, ifid 0x7\n"});
}

TEST(route_rpc, an_exact_lookup_answers_the_interface_id_by_reference)
{
    fake_card card;
    card.add_interface(0x1FF7, IP(10, 0, 0, 254));
    ASSERT_EQ(card.start(), 0);
    (void)norvik_route_tnrpc_serv();
    ASSERT_EQ(card.call("arp_prefix_mgr_add_route", {1, IP(10, 0, 0, 1), 32, 5, 0x1FF7, 3}).result, 0u);
    const fake_reply hit = card.call("mtrie_lookup_exact_stub", {3, IP(10, 0, 0, 1), 0xFFFFFFFF, 0xFFFFFFFF});
    EXPECT_EQ(hit.result, 0u);
    EXPECT_EQ(hit.refs, std::vector<std::uint32_t>{0x1FF7});
    const fake_reply miss = card.call("mtrie_lookup_exact_stub", {4, IP(10, 0, 0, 1), 0xFFFFFFFF, 0x5A5A5A5A});
    EXPECT_EQ(miss.result, 1u);
    EXPECT_EQ(miss.refs, std::vector<std::uint32_t>{0x5A5A5A5A}) << "a miss writes nothing";
}

TEST(route_rpc, a_listing_takes_the_low_halves_of_list_and_bucket_and_leaves_their_upper_halves)
{
    fake_card card;
    ASSERT_EQ(card.start(), 0);
    (void)norvik_route_tnrpc_serv();
    for (const char *name : {"show_rib_print", "show_fib_print"}) {
        const fake_reply reply = card.call(name, {3, 0xABCD0000, 0x12340000, 0, 0});
        EXPECT_EQ(reply.status, 0u) << name;
        ASSERT_EQ(reply.refs.size(), 3u) << name;
        EXPECT_EQ(reply.refs[0] >> 16, 0xABCDu) << name;
        EXPECT_EQ(reply.refs[1] >> 16, 0x1234u) << name;
        EXPECT_EQ(reply.refs[2], 0xFFFFFFFFu) << name << ": the walk is complete";
        EXPECT_EQ(reply.blocks.size(), 1u) << name;
    }
}

TEST(route_rpc, an_advertisement_that_fails_answers_all_ones)
{
    fake_card card;
    (void)norvik_route_tnrpc_serv();
    const fake_reply reply = card.call("norvik_send_route_advert", {IP(10, 0, 0, 0), 0xFF000000, 7, 0, 1, 3});
    EXPECT_EQ(reply.status, 0u);
    EXPECT_EQ(reply.result, 0xFFFFFFFFu);
}

TEST(route_rpc, the_client_opens_endpoint_9)
{
    fake_card card;
    EXPECT_EQ(norvik_route_tnrpc_client(), 0u);
    EXPECT_EQ(card.calls, strings{"tnrpc_clnt_init 9"});
    EXPECT_TRUE(card.history.empty());
}

TEST(route_rpc, a_failed_client_set_up_is_logged_once_and_start_up_goes_on)
{
    fake_card card;
    card.tnrpc_clnt_result = -1;
    EXPECT_EQ(norvik_route_tnrpc_client(), 0u);
    EXPECT_EQ(card.lines(), strings{"100 <Ctx:0>tnrpc_clnt_init failed\n"});
}

TEST(route_rpc, finding_an_interface_route_returns_the_result_word)
{
    fake_card card;
    card.call_results["slowpath_find_interface_route"] = 0;
    card.call_refs["slowpath_find_interface_route"] = 0xCAFE0001;
    EXPECT_EQ(route_find_interface_route(7, 0x01020304, 0x05060708), 0xCAFE0001u);
    EXPECT_EQ(card.calls, strings{"tnrpc_call slowpath_find_interface_route 1:7 2:0x1020304 2:0x5060708 8:0/4"});
    EXPECT_TRUE(card.history.empty());
}

TEST(route_rpc, finding_an_interface_route_returns_0_when_the_call_fails)
{
    fake_card card;
    EXPECT_EQ(route_find_interface_route(7, 1, 2), 0u);
    EXPECT_EQ(card.lines(), strings{"100 <Ctx:0>route_find_interface_route: bad rpc retcode -1. STOP\n"});
}

TEST(route_rpc, finding_an_interface_route_keeps_the_word_of_a_call_that_answers_an_error)
{
    fake_card card;
    card.call_results["slowpath_find_interface_route"] = 4;
    card.call_refs["slowpath_find_interface_route"] = 99;
    EXPECT_EQ(route_find_interface_route(7, 1, 2), 99u);
    EXPECT_EQ(card.lines(), strings{"100 <Ctx:0>route_find_interface_route: bad rpc retcode 4. STOP\n"});
}

TEST(route_rpc, realigning_arp_returns_the_calls_own_result)
{
    fake_card card;
    card.call_results["slowpath_relaign_arp"] = 0;
    EXPECT_EQ(route_slowpath_realign_arp(), 0u);
    EXPECT_TRUE(card.history.empty());
    card.call_results["slowpath_relaign_arp"] = 12;
    EXPECT_EQ(route_slowpath_realign_arp(), 12u);
    EXPECT_EQ(card.calls, (strings{"tnrpc_call slowpath_relaign_arp", "tnrpc_call slowpath_relaign_arp"}));
    EXPECT_EQ(card.lines(), strings{"100 <Ctx:0>route_slowpath_realign_arp: bad rpc retcode 12. STOP\n"});
}

TEST(route_rpc, a_checked_encapsulation_answers_the_remote_16_bits)
{
    fake_card card;
    card.call_results["encap_valid_mac"] = 0;
    card.call_refs["encap_valid_mac"] = 0xFFFF;
    EXPECT_EQ(slowpath_valid_mac(0xABCD), 0xFFFFu);
    EXPECT_EQ(card.calls, strings{"tnrpc_call encap_valid_mac 1:43981 8:0/2"});
    card.call_refs["encap_valid_mac"] = 0;
    EXPECT_EQ(slowpath_valid_mac(0xABCD), 0u);
    EXPECT_TRUE(card.history.empty());
}

TEST(route_rpc, an_encapsulation_whose_check_fails_counts_as_valid)
{
    fake_card card;
    EXPECT_EQ(slowpath_valid_mac(5), 0xFFFFFFFFu);
    EXPECT_EQ(card.lines(), strings{"100 <Ctx:0>slowpath_valid_mac: bad rpc retcode -1. STOP\n"});
}

TEST(route_rpc, the_mac_of_an_encapsulation_is_its_bytes_10_to_15_and_nothing_else)
{
    std::uint8_t record[20];
    for (std::uint8_t i = 0; i < sizeof record; ++i)
        record[i] = static_cast<std::uint8_t>(0xA0 + i);
    std::uint8_t around[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    slowpath_encaps_to_mac(record, around + 1);
    const std::uint8_t expected[8] = {1, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF, 1};
    EXPECT_TRUE(std::equal(around, around + 8, expected));
}
