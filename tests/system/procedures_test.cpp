// procedures_test.cpp - every remote procedure of the daemon, on a card with one processor and on one with two.
//
// Bytes that come back are written down here field by field from the callers' contract.

#include <gtest/gtest.h>

#include "serving_card.h"

using namespace harness;

namespace
{
constexpr std::uint32_t NET = IP(10, 9, 0, 0), POOL = IP(10, 8, 0, 16);
constexpr std::uint32_t HOST_WORD = 0x00051234, NAT_WORD = 0x20050077;

class daemon_procedures : public testing::TestWithParam<unsigned>
{
protected:
    serving_card live{GetParam(), "supervisor_address = 9\n"};

    // Interface, host, static route through it and NAT pool.
    void fill()
    {
        mts_send(live.queue, EVENT_UP, state_payload());
        ASSERT_EQ(mts_receive(live.queue).opcode, 0x1005u);
        ASSERT_EQ(live.result(call_host_add(GATEWAY, ENCAP)), 0u);
        ASSERT_EQ(live.result(call_route_add(NET, MASK16, GATEWAY)), 0u);
        ASSERT_EQ(live.result(call_pool_add(POOL, 8, 0x77)), 0u);
        live.forget();
    }
    byte_string dump(std::uint32_t copy, std::uint32_t addr) const
    {
        return live.answer({"mtrie_hw_dump_api", {arg16(copy), arg32(CTX), arg32(addr), arg_block()}});
    }
};

INSTANTIATE_TEST_SUITE_P(processors, daemon_procedures, testing::Values(1u, 2u));

// A record of a listing.
byte_string listed(std::uint32_t prefix, std::uint32_t len, std::uint32_t hop, std::uint32_t ifid, std::uint32_t flags,
                   std::uint32_t encap)
{
    return word_bytes({prefix, len, hop, CTX, ifid << 16 | flags, encap});
}

const std::vector<rpc_arg> FROM_START = {arg16(CTX), arg_ref16(0), arg_ref16(0), arg_ref(0), arg_block()};

// The reply of a finished listing behind its status: the result, the cursor (33, 0, all ones) in the widths that the
// caller chose, the records.
byte_string finished_listing(const std::vector<byte_string> &records)
{
    const std::uint32_t count = static_cast<std::uint32_t>(records.size());
    return joined({word_bytes({count}),
                   {0, 8, 0, 0, 0, 0, 0, 2, 0, 33},
                   {0, 8, 0, 0, 0, 0, 0, 2, 0, 0},
                   {0, 8, 0, 0, 0, 0, 0, 4, 0xFF, 0xFF, 0xFF, 0xFF},
                   {0, 9, 0, 0},
                   word_bytes({24 * count}),
                   joined(records)});
}

const byte_string SUBNET = listed(IP(10, 1, 0, 0), 24, 0, 5, 0x0030, 0),
                  STATIC = listed(NET, 16, GATEWAY, 5, 0x000C, 0x1234), NAT = listed(POOL, 29, 0, 5, 0x0280, 0x77);

// A dump's reply behind its status: the result 0 and lines of 128 bytes, filled up with zeros.
byte_string dumped(const text_lines &lines)
{
    byte_string text;
    for (const std::string &line : lines) {
        text.insert(text.end(), line.begin(), line.end());
        text.resize((text.size() + 127) / 128 * 128, 0);
    }
    return joined({word_bytes({0}), {0, 9, 0, 0}, word_bytes({static_cast<std::uint32_t>(text.size())}), text});
}

const std::string FOUND = "\nSearch terminating successfully, Leaf found.\n";

byte_string advertisement(std::uint32_t opcode, std::uint32_t metric)
{
    return joined({{3, 9, 0, 18, 18, 4, 1, 0x4A, 0, 1, 0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(opcode), 0},
                   word_bytes({NET, MASK16, GATEWAY, 0x123, metric, 0, 0})});
}

std::vector<rpc_arg> advert(std::uint32_t metric, std::uint32_t ifid = IFID)
{
    return {arg32(NET), arg32(MASK16), arg32(ifid), arg32(GATEWAY), arg16(metric), arg16(CTX)};
}
} // namespace

TEST_P(daemon_procedures, an_arp_host_is_added_refreshed_and_removed)
{
    EXPECT_EQ(live.result(call_host_add(GATEWAY, ENCAP)), 0u);
    EXPECT_EQ(live.found(CTX, GATEWAY), HOST_WORD);
    EXPECT_EQ(live.lines("SUCCESS"), (text_lines{"105 <Ctx:0>add to rib and Mtrie SUCCESS 0xa010009/32->1234\n"}));
    EXPECT_EQ(live.result(call_host_add(GATEWAY, OTHER_ENCAP)), 0u);
    EXPECT_EQ(live.result({"show_fib_print", FROM_START}), 2u) << "the drop entry and one host";
    EXPECT_EQ(live.result(call_host_remove(GATEWAY, OTHER_ENCAP)), 0u);
    EXPECT_EQ(live.result(call_host_remove(GATEWAY, OTHER_ENCAP)), 1u);
    EXPECT_EQ(live.lines("rib remove failed"),
              (text_lines{"100 <Ctx:0>route_remove_rib_and_mtrie_entry: rib remove failed, addr 0xa010009/32\n"}));
    EXPECT_EQ(counter_value(debug_answer(live.queue, 5), "route_cache_flushes"), 1u);
}

TEST_P(daemon_procedures, a_host_of_another_object_is_refused_by_both_procedures)
{
    for (const std::uint32_t object : {0u, 2u, 4u, 0xFFFFu}) {
        EXPECT_EQ(live.result({"arp_prefix_mgr_add_route",
                               {arg16(object), arg32(GATEWAY), arg32(32), arg16(0x1234), arg16(5), arg32(CTX)}}),
                  1u);
        EXPECT_EQ(
            live.result({"arp_prefix_mgr_remove_route",
                         {arg16(object), arg32(GATEWAY), arg32(32), arg32(0), arg16(0x1234), arg16(5), arg32(CTX)}}),
            1u);
    }
    const text_lines refused = live.lines("NOT supported");
    ASSERT_EQ(refused.size(), 8u);
    EXPECT_EQ(refused[0],
              "100 <Ctx:3>arp_prefix_mgr_add_route, Object NOT supported, addr 0xa010009/32, encapid 0x1234, "
              "ifid 0x5\n");
    EXPECT_EQ(
        refused[1],
        "100 <Ctx:3>arp_prefix_mgr_remove_route, object NOT supported, addr 0xa010009, encapid 0x1234, ifid 0x5\n");
}

TEST_P(daemon_procedures, a_static_route_waits_is_programmed_withdrawn_with_its_gateway_and_removed)
{
    EXPECT_EQ(live.result(call_route_add(NET, MASK16, GATEWAY)), 0u);
    EXPECT_EQ(live.found(CTX, NET), 0u);
    EXPECT_EQ(live.result(call_host_add(GATEWAY, ENCAP)), 0u);
    EXPECT_EQ(live.found(CTX, NET), HOST_WORD);
    EXPECT_EQ(live.result(call_host_remove(GATEWAY, ENCAP)), 0u);
    EXPECT_EQ(live.found(CTX, NET), 0u);
    EXPECT_EQ(live.result(call_route_remove(NET, MASK16, GATEWAY)), 0u);
    EXPECT_EQ(live.result(call_route_remove(NET, MASK16, GATEWAY)), 1u);
    EXPECT_EQ(live.lines("could not find"), (text_lines{"100 <Ctx:3>could not find static route for ip=a090000/16"}));
}

TEST_P(daemon_procedures, a_set_of_eight_paths_is_full_and_the_ninth_is_refused)
{
    const std::vector<rpc_arg> set = {arg16(CTX), arg32(CTX), arg32(NET), arg32(MASK16)};
    for (std::uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(live.result({"rib_max_ecmp_route", set}), 0u) << i;
        EXPECT_EQ(live.result(call_host_add(GATEWAY + i, ENCAP + i)), 0u) << i;
        EXPECT_EQ(live.result(call_route_add(NET, MASK16, GATEWAY + i)), 0u) << i;
    }
    EXPECT_EQ(live.result({"rib_max_ecmp_route", set}), 1u);
    EXPECT_EQ(live.result(call_route_add(NET, MASK16, GATEWAY + 8)), 1u);
    EXPECT_EQ(live.found(CTX, NET), ADJACENCY_ECMP | HOST_WORD);
    std::vector<byte_string> paths;
    for (std::uint32_t i = 0; i < 8; ++i)
        paths.push_back(listed(NET, 16, GATEWAY + i, 5, 0x004C, ENCAP + i));
    EXPECT_EQ(live.answer({"show_rib_print", FROM_START}), finished_listing(paths)) << "head first, then by arrival";
    const byte_string text = dump(1, NET);
    const std::string seen(text.begin(), text.end());
    EXPECT_NE(seen.find("\n valid 1, count 7, seq 7, \n"), std::string::npos);
    EXPECT_NE(seen.find("\n ECMP result #8  encaps id 4667 if_id 5 \n"), std::string::npos);
    EXPECT_EQ(text.size(), 12u + 14 * 128) << "two levels, seven lines before the paths, seven paths";
}

TEST_P(daemon_procedures, a_lookup_answers_the_next_hop_of_the_longest_prefix_or_the_default)
{
    rpc_server slow_path(live.card, 10, "encap_valid_mac");
    fill();
    const auto lookup = [this](std::uint32_t addr) {
        rpc_send(live.caller.fd, rpc_record(7, "slowpath_route_lookup", {arg16(CTX), arg32(addr), arg_ref(99)}));
    };
    lookup(NET + 77);
    const byte_string asked = rpc_serve_one(slow_path, 0, {arg_ref16(1)});
    EXPECT_EQ(asked, rpc_record(get32(asked, 4), "encap_valid_mac", {arg16(0x1234), arg_ref16(0)}));
    EXPECT_EQ(rpc_receive(live.caller.fd).record,
              joined({word_bytes({0x544E5250, 7, 0, 0}), {0, 8, 0, 0, 0, 0, 0, 4, 10, 1, 0, 9}}));
    lookup(IP(30, 0, 0, 1));
    EXPECT_EQ(rpc_receive(live.caller.fd).record,
              joined({word_bytes({0x544E5250, 7, 0, 1}), {0, 8, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0}}));
    ASSERT_EQ(live.result(call_route_add(0, 0, GATEWAY)), 0u);
    lookup(IP(30, 0, 0, 1));
    (void)rpc_serve_one(slow_path, 0, {arg_ref16(0)}); // no valid MAC address: answered all the same
    EXPECT_EQ(get32(rpc_receive(live.caller.fd).record, 24), GATEWAY);
    EXPECT_EQ(live.lines("route for ip="),
              (text_lines{"105 <Ctx:3>route lookup: using non-default route for ip=10.9.0.77\n",
                          "105 <Ctx:3>could not find route for ip=30.0.0.1\n",
                          "105 <Ctx:3>route lookup: using default route for ip=30.0.0.1\n"}));
}

TEST_P(daemon_procedures, the_rib_listing_has_installed_static_routes_subnets_and_nat_prefixes)
{
    EXPECT_EQ(live.answer({"show_rib_print", FROM_START}), finished_listing({}));
    fill();
    EXPECT_EQ(live.answer({"show_rib_print", FROM_START}), finished_listing({STATIC, SUBNET, NAT}));
}

TEST_P(daemon_procedures, the_fib_listing_has_all_that_the_processors_have_by_length_and_bucket)
{
    const byte_string drop = listed(0xE0000000, 3, 0, 0, 0x0100, 0x8001);
    EXPECT_EQ(live.answer({"show_fib_print", FROM_START}), finished_listing({drop}));
    fill();
    ASSERT_EQ(live.result(call_route_add(IP(10, 10, 0, 0), MASK16, IP(10, 1, 0, 50))), 0u); // waits, so it is left out
    EXPECT_EQ(live.answer({"show_fib_print", FROM_START}),
              finished_listing({drop, STATIC, SUBNET, NAT, listed(IP(10, 1, 0, 255), 32, 0, 5, 0x0010, 0x8001),
                                listed(GATEWAY, 32, IF_ADDR, 5, 0x0003, 0x1234),
                                listed(IP(10, 1, 0, 0), 32, 0, 5, 0x0010, 0x8001),
                                listed(IF_ADDR, 32, 0, 5, 0x0010, 0x8001)}));
}

TEST_P(daemon_procedures, a_listing_resumes_at_its_cursor_and_is_finished_at_list_33)
{
    fill();
    const byte_string from_28 =
        live.answer({"show_rib_print", {arg16(CTX), arg_ref16(25), arg_ref16(0), arg_ref(0), arg_block()}});
    EXPECT_EQ(from_28, finished_listing({NAT}));
    const byte_string finished =
        live.answer({"show_rib_print", {arg16(CTX), arg_ref16(33), arg_ref16(7), arg_ref(5), arg_block()}});
    EXPECT_EQ(finished, joined({word_bytes({0}),
                                {0, 8, 0, 0, 0, 0, 0, 2, 0, 33},
                                {0, 8, 0, 0, 0, 0, 0, 2, 0, 7},
                                {0, 8, 0, 0, 0, 0, 0, 4, 0xFF, 0xFF, 0xFF, 0xFF},
                                {0, 9, 0, 0, 0, 0, 0, 0}}));
    EXPECT_EQ(live.lines("Start with"),
              (text_lines{"105 <Ctx:3>route_traversal: Start with route list (25,0) at position 0\n",
                          "105 <Ctx:3>route_traversal: Start with route list (33,7) at position 5\n"}));
}

TEST_P(daemon_procedures, a_by_reference_value_comes_back_in_the_width_that_the_caller_chose)
{
    fill();
    const std::vector<rpc_arg> address_args = {arg16(CTX), arg32(NET)};
    const auto lookup = [&](const rpc_arg &next_hop) {
        return live.answer({"slowpath_route_lookup", {address_args[0], address_args[1], next_hop}});
    };
    EXPECT_EQ(lookup(arg_ref(0)), (byte_string{0, 0, 0, 0, 0, 8, 0, 0, 0, 0, 0, 4, 10, 1, 0, 9}));
    EXPECT_EQ(lookup(arg_ref16(0)), (byte_string{0, 0, 0, 0, 0, 8, 0, 0, 0, 0, 0, 2, 0, 9})) << "its low half";
    // list 2 bytes, bucket 4, position 2: each as it came, the walk from the position's 16 bits.
    EXPECT_EQ(live.answer({"show_rib_print", {arg16(CTX), arg_ref16(29), arg_ref(0), arg_ref16(0), arg_block()}}),
              joined({word_bytes({1}),
                      {0, 8, 0, 0, 0, 0, 0, 2, 0, 33},
                      {0, 8, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0},
                      {0, 8, 0, 0, 0, 0, 0, 2, 0xFF, 0xFF},
                      {0, 9, 0, 0, 0, 0, 0, 24},
                      NAT}));
}

TEST_P(daemon_procedures, a_cursor_of_four_bytes_keeps_the_upper_halves_of_list_and_bucket)
{
    const byte_string reply = live.answer(
        {"show_fib_print", {arg16(CTX), arg_ref(0xABCD0021), arg_ref(0x12340007), arg_ref(5), arg_block()}});
    EXPECT_EQ(reply, joined({word_bytes({0}),
                             {0, 8, 0, 0, 0, 0, 0, 4, 0xAB, 0xCD, 0, 33},
                             {0, 8, 0, 0, 0, 0, 0, 4, 0x12, 0x34, 0, 7},
                             {0, 8, 0, 0, 0, 0, 0, 4, 0xFF, 0xFF, 0xFF, 0xFF},
                             {0, 9, 0, 0, 0, 0, 0, 0}}));
}

TEST_P(daemon_procedures, the_summaries_are_12_and_24_bytes)
{
    const std::vector<rpc_arg> args = {arg16(CTX), arg_block()};
    EXPECT_EQ(live.answer({"show_rib_summary", args}),
              joined({{0, 0, 0, 0, 0, 9, 0, 0, 0, 0, 0, 12}, word_bytes({0, 0}), {0, 36, 0, 0}}));
    EXPECT_EQ(live.answer({"show_fib_summary", args}),
              joined({{0, 0, 0, 0, 0, 9, 0, 0, 0, 0, 0, 24}, word_bytes({1, 2, 0, 1}), {4, 0, 0, 8, 0, 32, 0, 0}}));
    fill();
    EXPECT_EQ(live.answer({"show_rib_summary", args}),
              joined({{0, 0, 0, 0, 0, 9, 0, 0, 0, 0, 0, 12}, word_bytes({2, 1}), {0, 36, 0, 0}}));
    // Nodes: the root, 10, 10.1, 10.8, 10.1.0, 10.8.0. Leaves: the default, one for each of the eight routes.
    EXPECT_EQ(live.answer({"show_fib_summary", args}),
              joined({{0, 0, 0, 0, 0, 9, 0, 0, 0, 0, 0, 24}, word_bytes({6, 9, 0, 8}), {4, 0, 0, 8, 0, 32, 0, 0}}));
}

TEST_P(daemon_procedures, an_exact_lookup_answers_the_interface_of_a_prefix)
{
    fill();
    const auto lookup = [this](std::uint32_t prefix, std::uint32_t mask) {
        return live.answer({"mtrie_lookup_exact_stub", {arg32(CTX), arg32(prefix), arg32(mask), arg_ref(0x77777777)}});
    };
    EXPECT_EQ(lookup(NET, MASK16), (byte_string{0, 0, 0, 0, 0, 8, 0, 0, 0, 0, 0, 4, 0, 0, 0, 5}));
    EXPECT_EQ(lookup(NET, 0xFFFFFF00), (byte_string{0, 0, 0, 1, 0, 8, 0, 0, 0, 0, 0, 4, 0x77, 0x77, 0x77, 0x77}));
}

TEST_P(daemon_procedures, a_nat_pool_goes_in_and_out_prefix_by_prefix)
{
    EXPECT_EQ(live.result(call_pool_add(IP(10, 0, 0, 1), 6, 0x77)), 0u);
    for (std::uint32_t host = 1; host <= 6; ++host)
        EXPECT_EQ(live.found(CTX, IP(10, 0, 0, host)), NAT_WORD) << host;
    EXPECT_EQ(live.found(CTX, IP(10, 0, 0, 7)), 0u);
    EXPECT_EQ(live.lines("nat added"), (text_lines{"105 <Ctx:3>nat added route_id:3 0a000001/32 encap 119 \n",
                                                   "105 <Ctx:3>nat added route_id:3 0a000002/31 encap 119 \n",
                                                   "105 <Ctx:3>nat added route_id:3 0a000004/31 encap 119 \n",
                                                   "105 <Ctx:3>nat added route_id:3 0a000006/32 encap 119 \n"}));
    EXPECT_EQ(live.result(call_pool_remove(IP(10, 0, 0, 1), 6, 0x77)), 0u);
    EXPECT_EQ(live.found(CTX, IP(10, 0, 0, 1)), 0u);
    EXPECT_EQ(live.result(call_pool_remove(IP(10, 0, 0, 1), 6, 0x77)), 0u) << "nothing there is no failure";
    EXPECT_EQ(live.lines("delete NAT failed").size(), 4u);
    EXPECT_EQ(live.lines("delete NAT failed")[1],
              "100 <Ctx:3>rib_remove_nat_pool: delete NAT failed, addr 0xa000002/0xfffffffe, ixp 119\n");
}

TEST_P(daemon_procedures, a_nat_pool_over_a_learned_host_is_rolled_back)
{
    fill();
    EXPECT_EQ(live.result(call_pool_add(IP(10, 1, 0, 7), 4, 0x78)), 1u); // 7, 8 to 9, 10
    EXPECT_EQ(live.lines("nat range"),
              (text_lines{"100 <Ctx:3>nat range includes learned entry0a010008/31 encap 120\n"}));
    EXPECT_EQ(live.answer({"show_rib_print", FROM_START}), finished_listing({STATIC, SUBNET, NAT}));
    EXPECT_EQ(live.found(CTX, IP(10, 1, 0, 7)), 0x80050000u) << "the subnet's leaf";
    const std::string out = file_text(live.daemon.out);
    EXPECT_NE(out.find("print_pfxlist: --> n(3)\nprefix: mask(0xffffffff) len(32) net(10.1.0.7)\n"
                       "prefix: mask(0xfffffffe) len(31) net(10.1.0.8)\n"
                       "prefix: mask(0xffffffff) len(32) net(10.1.0.10)\n"),
              std::string::npos);
}

TEST_P(daemon_procedures, a_dump_is_lines_of_128_bytes_of_the_copy_asked_for)
{
    fill();
    const byte_string host =
        dumped({"\n level 0 Mnode found, next_index=10.\n", "\n level 1 Mnode found, next_index=1.\n",
                "\n level 2 Mnode found, next_index=0.\n", "\n level 3 Mnode found, next_index=9.\n", FOUND,
                "\nip resolve flag 0, ecmp flag 0, nat flag 0\n", "\nRoute/ECMP result #1 encaps id 4660 if_id 5 \n"});
    EXPECT_EQ(dump(0, GATEWAY), host);
    EXPECT_EQ(dump(1, GATEWAY), host);
    for (const std::uint32_t second : {2u, 3u, 0xFFFFu})
        EXPECT_EQ(dump(second, GATEWAY), GetParam() == 2 ? host : dumped({FOUND})) << second;
    EXPECT_EQ(dump(1, POOL + 3),
              dumped({"\n level 0 Mnode found, next_index=10.\n", "\n level 1 Mnode found, next_index=8.\n",
                      "\n level 2 Mnode found, next_index=0.\n", "\n level 3 Mnode found, next_index=19.\n", FOUND,
                      "\nip resolve flag 0, ecmp flag 0, nat flag 1\n", "\nNAT result,  IXP value 119\n"}));
    EXPECT_EQ(dump(1, IP(224, 1, 2, 3)), dumped({"\n level 0 Mnode found, next_index=224.\n", FOUND,
                                                 "\nip resolve flag 0, ecmp flag 0, nat flag 0\n",
                                                 "\nRoute/ECMP result #1 encaps id 32769 if_id 0 \n"}));
}

TEST_P(daemon_procedures, a_block_is_given_back_when_its_reply_was_sent)
{
    fill();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(live.result({"show_fib_print", FROM_START}), 8u);
        EXPECT_EQ(live.result({"show_fib_summary", {arg16(CTX), arg_block()}}), 0u);
        EXPECT_EQ(dump(1, GATEWAY).size(), 12u + 7 * 128);
    }
    const std::string memory = debug_answer(live.queue, 3);
    EXPECT_NE(memory.find("\n7 MTRACK_CLI_ROUTE 0 0 61200\n8 MTRACK_FIB_DISPLAY 0 0 5120\n"), std::string::npos)
        << memory;
}

TEST_P(daemon_procedures, an_advertisement_is_46_bytes_to_the_supervisor_and_a_withdrawal_too)
{
    const supervisor_socket supervisor(live.card);
    EXPECT_EQ(live.result({"norvik_send_route_advert", advert(0x1234)}), 0u);
    EXPECT_EQ(supervisor_receive(supervisor), advertisement(0x22, 0x1234));
    EXPECT_EQ(live.result({"norvik_send_route_advert", advert(0)}), 0u);
    EXPECT_EQ(supervisor_receive(supervisor), advertisement(0x22, 0));
    EXPECT_EQ(live.result({"norvik_send_route_advert", advert(0xFFFF)}), 0u);
    EXPECT_EQ(supervisor_receive(supervisor), advertisement(0x23, 0xFFFF));
    EXPECT_EQ(advertisement(0x23, 0xFFFF).size(), 46u);
    const std::string route = "route/mask 10.9.0.0/255.255.0.0 with next-hop 10.1.0.9 on ifid 5 vlan 291";
    EXPECT_EQ(live.lines(), (text_lines{"105 <Ctx:3>norvik_send_route_advert: Advertising " + route + " metric 4660\n",
                                        "105 <Ctx:3>Sending route advertise SCP message success. opcode 34\n",
                                        "105 <Ctx:3>norvik_send_route_advert: Advertising " + route + " metric 0\n",
                                        "105 <Ctx:3>Sending route advertise SCP message success. opcode 34\n",
                                        "105 <Ctx:3>norvik_send_route_advert: Removing advertised " + route + "\n",
                                        "105 <Ctx:3>Sending route advertise SCP message success. opcode 35\n"}));
}

TEST_P(daemon_procedures, an_interface_without_a_vlan_is_advertised_nowhere)
{
    const supervisor_socket supervisor(live.card);
    EXPECT_EQ(live.result({"norvik_send_route_advert", advert(1, OTHER_IFID)}), 0xFFFFFFFFu);
    EXPECT_EQ(live.result({"norvik_send_route_advert", advert(1, 0xFFFFFFFE)}), 0xFFFFFFFFu);
    EXPECT_EQ(live.result({"norvik_send_route_advert", advert(2)}), 0u);
    EXPECT_EQ(supervisor_receive(supervisor), advertisement(0x22, 2)) << "the first that was sent";
    EXPECT_EQ(live.lines("Cannot"),
              (text_lines{"100 <Ctx:3>norvik_send_route_advert: Cannot resolve ifid 6 to vlan id.",
                          "100 <Ctx:3>norvik_send_route_advert: Cannot resolve ifid -2 to vlan id."}));
}
