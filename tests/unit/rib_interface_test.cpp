// rib_interface_test.cpp - an interface's own routes, and what goes with it when it goes down.
#include "rib_interface.h"

#include <algorithm>

#include "mtrack.h"
#include "rib_card.h"
#include "rib_host.h"
#include "rib_nat.h"
#include "rib_static.h"
#include "route_ids.h"

using namespace harness;

namespace
{

constexpr std::uint32_t MASK31 = 0xFFFFFFFE;
constexpr std::uint32_t NET = IP(10, 9, 0, 0), POOL = IP(10, 8, 0, 16), NOTIFY = 1, QUIET = 0, CLEANUP = 1, KEEP = 0;

std::uint32_t bring_up(std::uint32_t mask = MASK24, std::uint32_t notify = NOTIFY, std::uint32_t addr = IF_ADDR)
{
    return norvik_add_interface(addr, mask, IFID, CTX, notify);
}

std::uint32_t bring_down(std::uint32_t cleanup = CLEANUP, std::uint32_t mask = MASK24)
{
    return norvik_remove_interface(IF_ADDR, mask, IFID, CTX, cleanup, 0);
}

std::uint32_t learn(std::uint32_t addr = GATEWAY)
{
    return arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, addr, 32, ENCAP, IFID, CTX);
}

// Chain entries as "prefix/len flags encap ifid", sorted.
text_lines routes(std::uint32_t ctx = CTX)
{
    text_lines found;
    (void)rib_find_entry(ctx, [&found](const route_entry *entry) {
        char text[80];
        (void)std::snprintf(text, sizeof text, "%08x/%u %04x %04x %u", entry->prefix, entry->len,
                            static_cast<unsigned>(entry->flags), entry->encap_id, static_cast<unsigned>(entry->ifid));
        found.push_back(text);
        return false;
    });
    std::sort(found.begin(), found.end());
    return found;
}

// Flags, encap id, interface and contexts of an entry that stands alone.
void expect_route(std::uint32_t prefix, std::uint32_t len, std::uint16_t flags)
{
    const route_entry *const entry = on_chain(CTX, prefix, len);
    ASSERT_NE(entry, nullptr) << std::hex << prefix << "/" << std::dec << len;
    EXPECT_EQ(entry->flags, flags);
    EXPECT_EQ(entry->nexthop, 0u);
    EXPECT_EQ(entry->ctx, CTX);
    EXPECT_EQ(entry->route_id, CTX);
    EXPECT_EQ(entry->ecmp_count, 0);
}

// Whether a processor ends at the tree's default leaf, as for an address that no test routes.
bool has_no_route(const fake_card &card, unsigned copy, std::uint32_t tree, std::uint32_t addr)
{
    return np_find(card, copy, tree, addr) == np_find(card, copy, tree, IP(99, 0, 0, 1));
}

const text_lines UP_ROUTES = {"0a010000/24 0030 0000 5", "0a010000/32 0010 8001 5", "0a010001/32 0010 8001 5",
                              "0a0100ff/32 0010 8001 5"};

std::vector<std::uint8_t> event_record(std::uint32_t ctx, std::uint32_t addr, std::uint32_t mask, std::uint32_t ifid)
{
    std::vector<std::uint8_t> bytes;
    for (const std::uint32_t word : {ctx, addr, mask, ifid})
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<std::uint8_t>(word >> shift));
    return bytes;
}

// One announcement to every sap of the card.
void expect_sent(const fake_card &card, std::uint32_t opcode, const std::vector<std::uint8_t> &record)
{
    ASSERT_EQ(card.sent.size(), 1u);
    EXPECT_EQ(card.sent[0].opcode, opcode);
    EXPECT_EQ(card.sent[0].address.node, 0xFE000000u);
    EXPECT_EQ(card.sent[0].address.sap, 0u);
    EXPECT_EQ(card.sent[0].payload, record);
}

} // namespace

TEST(rib_interface, an_interface_brings_its_address_its_subnet_and_the_subnets_first_and_last_address)
{
    rib_card card;
    EXPECT_EQ(bring_up(), 0u);
    EXPECT_EQ(routes(), UP_ROUTES);
    expect_route(IF_ADDR, 32, 0x0010);
    expect_route(IP(10, 1, 0, 0), 24, 0x0030);
    expect_route(IP(10, 1, 0, 0), 32, 0x0010);
    expect_route(IP(10, 1, 0, 255), 32, 0x0010);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 4u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
}

TEST(rib_interface, the_processors_find_the_address_locally_and_ask_for_the_hosts_of_the_subnet)
{
    rib_card card;
    ASSERT_EQ(bring_up(), 0u);
    constexpr std::uint32_t LOCAL = 0x00058001, RESOLVE = 0x80050000;
    for (unsigned copy = 0; copy < NP_COPIES; ++copy) {
        EXPECT_EQ(np_find(card, copy, CTX, IF_ADDR).adjacency, LOCAL) << "copy " << copy;
        EXPECT_EQ(np_find(card, copy, CTX, IP(10, 1, 0, 0)).adjacency, LOCAL) << "copy " << copy;
        EXPECT_EQ(np_find(card, copy, CTX, IP(10, 1, 0, 255)).adjacency, LOCAL) << "copy " << copy;
        EXPECT_EQ(np_find(card, copy, CTX, IP(10, 1, 0, 77)).adjacency, RESOLVE) << "copy " << copy;
        EXPECT_TRUE(has_no_route(card, copy, CTX, IP(10, 1, 1, 1))) << "copy " << copy;
        EXPECT_TRUE(has_no_route(card, copy, CTX + 1, IF_ADDR)) << "copy " << copy;
    }
}

TEST(rib_interface, the_routes_are_added_in_their_order_after_the_first_line)
{
    rib_card card;
    ASSERT_EQ(bring_up(), 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "norvik_add_interface"),
              (text_lines{"<Ctx:3>norvik_add_interface:ifid =5, ip=10.1.0.1  maskbits =24\n"}));
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).front(), "<Ctx:3>norvik_add_interface:ifid =5, ip=10.1.0.1  maskbits =24\n");
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "SUCCESS"),
              (text_lines{"<Ctx:0>add to rib and Mtrie SUCCESS 0xa010001/32->8001\n",
                          "<Ctx:0>add to rib and Mtrie SUCCESS 0xa010000/24->0000\n",
                          "<Ctx:0>add to rib and Mtrie SUCCESS 0xa010000/32->8001\n",
                          "<Ctx:0>add to rib and Mtrie SUCCESS 0xa0100ff/32->8001\n"}));
}

TEST(rib_interface, the_add_announces_the_context_that_the_interface_manager_reports)
{
    rib_card card;
    card.interfaces[IFID].ctx = 7;
    ASSERT_EQ(bring_up(), 0u);
    expect_sent(card, 0x1005, event_record(7, IF_ADDR, MASK24, IFID));
    EXPECT_EQ(card.calls.size(), 1u) << "an announcement and nothing else";
    EXPECT_EQ(card.queries, text_lines{"if_get_context_id 5"});
}

TEST(rib_interface, the_add_announces_all_ones_when_the_interface_manager_has_no_context)
{
    rib_card card;
    card.interfaces[IFID].ctx = -1;
    ASSERT_EQ(bring_up(), 0u);
    expect_sent(card, 0x1005, event_record(0xFFFFFFFF, IF_ADDR, MASK24, IFID));
}

TEST(rib_interface, a_quiet_add_announces_nothing)
{
    rib_card card;
    EXPECT_EQ(bring_up(MASK24, QUIET), 0u);
    EXPECT_EQ(routes(), UP_ROUTES);
    EXPECT_EQ(card.sent.size(), 0u);
    EXPECT_EQ(card.queries, text_lines{}) << "the context is not asked for";
}

TEST(rib_interface, the_removal_announces_the_context_that_it_was_given)
{
    rib_card card;
    ASSERT_EQ(bring_up(), 0u);
    card.interfaces[IFID].ctx = 7;
    card.forget();
    EXPECT_EQ(bring_down(), 0u);
    expect_sent(card, 0x1006, event_record(CTX, IF_ADDR, MASK24, IFID));
}

TEST(rib_interface, a_removal_takes_all_four_routes_and_frees_them)
{
    rib_card card;
    ASSERT_EQ(bring_up(), 0u);
    card.forget();
    EXPECT_EQ(bring_down(), 0u);
    EXPECT_EQ(routes(), text_lines{});
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        EXPECT_TRUE(has_no_route(card, copy, CTX, IF_ADDR)) << "copy " << copy;
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).front(),
              "<Ctx:3>norvik_remove_interface: ifid =5, ip=10.1.0.1  maskbits =24\n");
    const std::string removed = "<Ctx:0>route_remove_rib_and_mtrie_entry:remove from rib and Mtrie SUCCESS ";
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "SUCCESS"),
              (text_lines{removed + "0xa010001/32\n", removed + "0xa010000/32\n", removed + "0xa0100ff/32\n",
                          removed + "0xa010001/24\n"}));
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "deleting"),
              (text_lines{"<Ctx:3>rib_remove_host_route: deleting route 0xa010001/32 (flags 0x10) \n",
                          "<Ctx:3>rib_remove_host_route: deleting route 0xa010000/32 (flags 0x10) \n",
                          "<Ctx:3>rib_remove_host_route: deleting route 0xa0100ff/32 (flags 0x10) \n",
                          "<Ctx:3>rib_remove_host_route: deleting route 0xa010000/24 (flags 0x30) \n"}));
}

TEST(rib_interface, a_removal_of_what_is_not_there_skips_each_route_and_still_announces_and_flushes)
{
    rib_card card;
    EXPECT_EQ(bring_down(), 0u);
    const std::string missing = "<Ctx:0>route_remove_rib_and_mtrie_entry: rib remove failed, addr ";
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), (text_lines{missing + "0xa010001/32\n", missing + "0xa010000/32\n",
                                                        missing + "0xa0100ff/32\n", missing + "0xa010001/24\n"}));
    ASSERT_EQ(card.calls.size(), 4u);
    EXPECT_EQ(card.calls[0].rfind("mts_send", 0), 0u) << card.calls[0];
    EXPECT_EQ(card.calls[1].rfind("syscall_open", 0), 0u) << card.calls[1];
    EXPECT_EQ(card.calls[2].rfind("tn_flush_rt_cache", 0), 0u) << card.calls[2];
    EXPECT_EQ(card.calls[3].rfind("syscall_close", 0), 0u) << card.calls[3];
}

TEST(rib_interface, a_removal_never_fails_even_when_the_flush_does)
{
    rib_card card;
    ASSERT_EQ(bring_up(), 0u);
    (void)card.printed();
    card.forget();
    card.flush_result = -5;
    EXPECT_EQ(bring_down(), 0u);
    EXPECT_NE(card.printed().find("Error -5 from tn_flush_rt_cache: "), std::string::npos);
    EXPECT_EQ(routes(), text_lines{});
}

TEST(rib_interface, a_removal_without_cleanup_takes_only_the_interfaces_own_routes)
{
    rib_card card;
    ASSERT_EQ(bring_up(), 0u);
    ASSERT_EQ(learn(), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    card.forget();
    EXPECT_EQ(bring_down(KEEP), 0u);
    EXPECT_EQ(routes(), (text_lines{"0a010009/32 0003 1234 5", "0a090000/16 000c 1234 5"}));
    EXPECT_EQ(card.sent.size(), 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "ifdown"), text_lines{});
    EXPECT_EQ(card.calls_of("tn_flush_rt_cache").size(), 1u);
}

TEST(rib_interface, the_deleted_flag_of_a_removal_changes_nothing)
{
    text_lines lines[2];
    for (const std::uint32_t deleted : {0u, 1u}) {
        rib_card card;
        ASSERT_EQ(bring_up(), 0u);
        card.forget();
        EXPECT_EQ(norvik_remove_interface(IF_ADDR, MASK24, IFID, CTX, CLEANUP, deleted), 0u);
        EXPECT_EQ(routes(), text_lines{});
        lines[deleted] = card.lines();
    }
    EXPECT_EQ(lines[0], lines[1]);
    EXPECT_FALSE(lines[0].empty());
}

TEST(rib_interface, a_host_mask_fails_at_the_subnet_and_takes_the_address_back)
{
    rib_card card;
    EXPECT_EQ(bring_up(MASK32), 1u);
    EXPECT_EQ(routes(), text_lines{});
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>rib_add_host_route:rejecting duplicate entry:a010001/32\n",
                          "<Ctx:0>route_add_rib_and_mtrie_entry: rib add failed, addr 0xa010001/32, ifid 0x5\n"}));
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "SUCCESS"),
              (text_lines{"<Ctx:0>add to rib and Mtrie SUCCESS 0xa010001/32->8001\n",
                          "<Ctx:0>route_remove_rib_and_mtrie_entry:remove from rib and Mtrie SUCCESS 0xa010001/32\n"}));
    EXPECT_EQ(card.calls, text_lines{}) << "neither announced nor flushed";
}

TEST(rib_interface, a_mask_of_31_bits_fails_at_the_broadcast_address_when_the_address_is_the_upper_one)
{
    rib_card card;
    EXPECT_EQ(bring_up(MASK31), 1u);
    EXPECT_EQ(routes(), text_lines{});
    const std::string removed = "<Ctx:0>route_remove_rib_and_mtrie_entry:remove from rib and Mtrie SUCCESS ";
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "remove from"),
              (text_lines{removed + "0xa010000/32\n", removed + "0xa010001/31\n", removed + "0xa010001/32\n"}))
        << "in reverse order";
    EXPECT_EQ(card.calls, text_lines{});
}

TEST(rib_interface, a_mask_of_31_bits_fails_at_the_network_address_when_the_address_is_the_lower_one)
{
    rib_card card;
    EXPECT_EQ(bring_up(MASK31, NOTIFY, IP(10, 1, 0, 4)), 1u);
    EXPECT_EQ(routes(), text_lines{});
    const std::string removed = "<Ctx:0>route_remove_rib_and_mtrie_entry:remove from rib and Mtrie SUCCESS ";
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "remove from"),
              (text_lines{removed + "0xa010004/31\n", removed + "0xa010004/32\n"}));
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "rejecting"),
              (text_lines{"<Ctx:3>rib_add_host_route:rejecting duplicate entry:a010004/32\n"}));
}

TEST(rib_interface, without_a_mask_the_network_address_is_the_address_itself_and_is_refused)
{
    rib_card card;
    EXPECT_EQ(bring_up(0), 1u);
    EXPECT_EQ(routes(), text_lines{});
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "SUCCESS"),
              (text_lines{"<Ctx:0>add to rib and Mtrie SUCCESS 0xa010001/32->8001\n",
                          "<Ctx:0>add to rib and Mtrie SUCCESS 0x0/0->0000\n",
                          "<Ctx:0>route_remove_rib_and_mtrie_entry:remove from rib and Mtrie SUCCESS 0xa010001/0\n",
                          "<Ctx:0>route_remove_rib_and_mtrie_entry:remove from rib and Mtrie SUCCESS 0xa010001/32\n"}));
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "rejecting"),
              (text_lines{"<Ctx:3>rib_add_host_route:rejecting duplicate entry:a010001/32\n"}));
}

TEST(rib_interface, an_interface_brought_up_twice_loses_nothing_of_the_first_time)
{
    rib_card card;
    ASSERT_EQ(bring_up(), 0u);
    card.forget();
    EXPECT_EQ(bring_up(), 1u);
    EXPECT_EQ(routes(), UP_ROUTES);
    EXPECT_EQ(card.sent.size(), 0u);
}

TEST(rib_interface, memory_short_at_any_of_the_four_routes_leaves_none)
{
    for (unsigned nth = 1; nth <= 4; ++nth) {
        rib_card card;
        card.fail_alloc(MTRACK_ROUTE_ENTRY_1, nth);
        EXPECT_EQ(bring_up(), 1u) << "route " << nth;
        EXPECT_EQ(routes(), text_lines{}) << "route " << nth;
        EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u) << "route " << nth;
        EXPECT_EQ(card.with(ROUTE_DBG_INFO, "remove from").size(), nth - 1) << "route " << nth;
        EXPECT_EQ(card.calls, text_lines{}) << "route " << nth;
        EXPECT_EQ(bring_up(), 0u) << "route " << nth;
        EXPECT_EQ(routes(), UP_ROUTES);
    }
}

TEST(rib_interface, a_forwarding_table_that_refuses_fails_the_add_without_touching_the_nat_routes)
{
    rib_card card;
    card.interfaces[IFID].up = false;
    ASSERT_EQ(rib_add_nat_pool(CTX, IFID, POOL, 4, 0x77), 0u);
    card.take_tree(CTX);
    EXPECT_EQ(bring_up(), 1u);
    card.give_tree_back(CTX);
    EXPECT_EQ(routes(), (text_lines{"0a080010/30 0080 0077 5"}));
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "FAILURE"), (text_lines{"<Ctx:0>adding Mtrie FAILURE 0xa010001/32->8001\n"}));
    EXPECT_EQ(card.sent.size(), 0u);
}

TEST(rib_interface, an_interface_going_down_withdraws_static_routes_through_its_subnet_and_keeps_them_for_the_next_arp)
{
    rib_card card;
    ASSERT_EQ(bring_up(), 0u);
    ASSERT_EQ(learn(), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    card.forget();
    EXPECT_EQ(bring_down(), 0u);
    EXPECT_EQ(routes(), (text_lines{"0a090000/16 0004 0000 0"}));
    EXPECT_EQ(on_chain(CTX, NET, 16)->nexthop, GATEWAY);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        EXPECT_TRUE(has_no_route(card, copy, CTX, NET + 1)) << "copy " << copy;

    ASSERT_EQ(bring_up(), 0u);
    EXPECT_EQ(on_chain(CTX, NET, 16)->flags, RIB_F_GATEWAY) << "the subnet alone does not complete it";
    ASSERT_EQ(learn(), 0u);
    EXPECT_EQ(on_chain(CTX, NET, 16)->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        EXPECT_EQ(np_find(card, copy, CTX, NET + 1).adjacency, 0x00051234u) << "copy " << copy;
}

TEST(rib_interface, the_cleanup_runs_hosts_then_static_routes_then_the_announcement_then_the_flush)
{
    rib_card card;
    card.log_in_calls = true;
    EXPECT_EQ(bring_down(), 0u);
    text_lines tail;
    for (const std::string &call : card.calls)
        if (call.find("ifdown") != std::string::npos || call.rfind("mts_send", 0) == 0 ||
            call.rfind("tn_flush", 0) == 0)
            tail.push_back(call.substr(0, call.find(" 0xfe")));
    ASSERT_EQ(tail.size(), 6u);
    EXPECT_EQ(tail[0], "log 105 <Ctx:3>norvik_remove_host_ifdown(ip 0xa010001)\n");
    EXPECT_EQ(tail[1], "log 105 <Ctx:3>DONE: norvik_remove_host_ifdown(ip 0xa010001)\n");
    EXPECT_EQ(tail[2], "log 105 <Ctx:3>norvik_remove_static_ifdown(ip 0xa010001)\n");
    EXPECT_EQ(tail[3], "log 105 <Ctx:3>DONE: norvik_remove_static_ifdown(ip 0xa010001)\n");
    EXPECT_EQ(tail[4].rfind("mts_send", 0), 0u) << tail[4];
    EXPECT_EQ(tail[5].rfind("tn_flush_rt_cache", 0), 0u) << tail[5];
}

TEST(rib_interface, host_cleanup_drops_the_hosts_learned_on_the_address_and_no_others)
{
    rib_card card;
    card.add_interface(6, IP(10, 2, 0, 1), CTX);
    ASSERT_EQ(learn(), 0u);
    ASSERT_EQ(learn(IP(10, 1, 0, 40)), 0u); // 31 apart: the same chain as GATEWAY
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, IP(10, 2, 0, 9), 32, 0x55, 6, CTX), 0u);
    card.forget();
    norvik_remove_host_ifdown(CTX, IF_ADDR);
    EXPECT_EQ(routes(), (text_lines{"0a020009/32 0003 0055 6"}));
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 1u);
    EXPECT_TRUE(has_no_route(card, 1, CTX, GATEWAY));
    EXPECT_EQ(np_find(card, 1, CTX, IP(10, 2, 0, 9)).adjacency, 0x00060055u);
    text_lines removed = card.with(ROUTE_DBG_INFO, "Removed OK");
    std::sort(removed.begin(), removed.end());
    EXPECT_EQ(removed, (text_lines{"<Ctx:3>norvik_remove_host_ifdown: (1) Removed OK routeid (3) 0a010009/32 nexthop "
                                   "0a010001 encapid 1234\n",
                                   "<Ctx:3>norvik_remove_host_ifdown: (1) Removed OK routeid (3) 0a010028/32 nexthop "
                                   "0a010001 encapid 1234\n"}));
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).front(), "<Ctx:3>norvik_remove_host_ifdown(ip 0xa010001)\n");
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).back(), "<Ctx:3>DONE: norvik_remove_host_ifdown(ip 0xa010001)\n");
    EXPECT_EQ(card.calls, text_lines{}) << "nothing is flushed or announced";
}

TEST(rib_interface, host_cleanup_drops_a_host_also_when_the_forwarding_table_refuses)
{
    rib_card card;
    ASSERT_EQ(learn(), 0u);
    card.forget();
    card.take_tree(CTX);
    norvik_remove_host_ifdown(CTX, IF_ADDR);
    card.give_tree_back(CTX);
    EXPECT_EQ(routes(), text_lines{});
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "ifdown"),
              (text_lines{"<Ctx:3>norvik_remove_host_ifdown: (1) Unable to remove routeid (3) 0a010009/32 nexthop "
                          "0a010001 encapid 1234\n"}));
}

TEST(rib_interface, host_cleanup_frees_a_host_that_was_never_programmed_without_a_line)
{
    rib_card card;
    ASSERT_NE(rib_add_host_route(RIB_OBJ_ARP_HOST, CTX, IFID, GATEWAY, 32, ENCAP), nullptr);
    card.forget();
    norvik_remove_host_ifdown(CTX, IF_ADDR);
    EXPECT_EQ(card.lines(), (text_lines{"105 <Ctx:3>norvik_remove_host_ifdown(ip 0xa010001)\n",
                                        "105 <Ctx:3>DONE: norvik_remove_host_ifdown(ip 0xa010001)\n"}));
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
}

TEST(rib_interface, host_cleanup_does_not_look_at_the_members_of_a_set)
{
    rib_card card;
    ASSERT_NE(route_add_rib_and_mtrie_entry(RIB_F_INTERFACE, 0x8001, RIB_OBJ_INTERFACE, GATEWAY, 32, IFID, CTX),
              nullptr);
    ASSERT_EQ(learn(), 0u); // joins the interface's entry as a member
    card.forget();
    norvik_remove_host_ifdown(CTX, IF_ADDR);
    ASSERT_NE(on_chain(CTX, GATEWAY, 32), nullptr);
    EXPECT_EQ(on_chain(CTX, GATEWAY, 32)->ecmp_count, 2);
    EXPECT_EQ(entries_of(CTX), 2u);
}

TEST(rib_interface, host_cleanup_of_a_sets_head_takes_the_members_off_the_chain_with_it)
{
    rib_card card;
    ASSERT_EQ(learn(), 0u);
    ASSERT_NE(route_add_rib_and_mtrie_entry(RIB_F_INTERFACE, 0x8001, RIB_OBJ_INTERFACE, GATEWAY, 32, IFID, CTX),
              nullptr);                     // joins the host's entry as a member
    ASSERT_EQ(learn(IP(10, 1, 0, 40)), 0u); // the next of the same chain
    ASSERT_EQ(on_chain(CTX, GATEWAY, 32)->ecmp_count, 2);
    card.forget();
    norvik_remove_host_ifdown(CTX, IF_ADDR);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 1u) << "the member is not given back";
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "Removed OK").size(), 2u) << "the head and its chain neighbour";
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
}

TEST(rib_interface, host_cleanup_leaves_static_routes_through_the_hosts_programmed)
{
    rib_card card;
    ASSERT_EQ(learn(), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    norvik_remove_host_ifdown(CTX, IF_ADDR);
    EXPECT_EQ(routes(), (text_lines{"0a090000/16 000c 1234 5"}));
}

TEST(rib_interface, static_cleanup_counts_neither_the_network_nor_the_broadcast_address_as_inside)
{
    rib_card card;
    constexpr std::uint32_t EDGES[] = {IP(10, 1, 0, 0),   IP(10, 1, 0, 1), IP(10, 1, 0, 254),
                                       IP(10, 1, 0, 255), IP(10, 1, 1, 1), IP(10, 0, 255, 254)};
    for (std::uint32_t i = 0; i < 6; ++i) {
        ASSERT_EQ(learn(EDGES[i]), 0u);
        ASSERT_EQ(rib_add_route(CTX, CTX, IP(20, i, 0, 0), MASK16, EDGES[i]), 0u);
        ASSERT_EQ(on_chain(CTX, IP(20, i, 0, 0), 16)->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE) << "route " << i;
    }
    card.forget();
    norvik_remove_static_ifdown(CTX, IF_ADDR, MASK24);
    for (std::uint32_t i = 0; i < 6; ++i)
        EXPECT_EQ((on_chain(CTX, IP(20, i, 0, 0), 16)->flags & RIB_F_IN_MTRIE) != 0, i != 1 && i != 2) << "route " << i;
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).front(), "<Ctx:3>norvik_remove_static_ifdown(ip 0xa010001)\n");
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).back(), "<Ctx:3>DONE: norvik_remove_static_ifdown(ip 0xa010001)\n");
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "remove_static_ifdown route").size(), 2u);
    EXPECT_EQ(entries_of(CTX), 12u) << "hosts and routes stay";
}

TEST(rib_interface, static_cleanup_logs_a_route_before_it_leaves_the_table_and_a_member_not_at_all)
{
    rib_card card;
    ASSERT_EQ(learn(), 0u);
    ASSERT_EQ(learn(IP(10, 1, 0, 8)), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, IP(10, 1, 0, 8)), 0u);
    card.forget();
    norvik_remove_static_ifdown(CTX, IF_ADDR, MASK24);
    const route_entry *const head = on_chain(CTX, NET, 16);
    EXPECT_EQ(head->flags, RIB_F_GATEWAY | RIB_F_ECMP);
    EXPECT_EQ(head->ifid, 0);
    EXPECT_EQ(head->encap_id, 0u);
    ASSERT_TRUE(head->ecmp != nullptr);
    EXPECT_EQ(head->ecmp->flags, RIB_F_GATEWAY | RIB_F_ECMP);
    EXPECT_EQ(head->ecmp->ifid, 0);
    EXPECT_EQ(head->ecmp->encap_id, 0u);
    EXPECT_EQ(head->ecmp_count, 2);
    const text_lines route_lines = card.with(ROUTE_DBG_INFO, "oute");
    text_lines about;
    for (const std::string &line : route_lines)
        if (line.find("remove_static_ifdown route") != std::string::npos ||
            line.find("rib_remove_mtrie_route") != std::string::npos)
            about.push_back(line);
    EXPECT_EQ(about, (text_lines{"<Ctx:3>remove_static_ifdown route =0xa090000 found, ifid 5, encapid 4660\n",
                                 "<Ctx:3>rib_remove_mtrie_route: (1) Removed OK routeid (3) 0a090000/16 nexthop "
                                 "0a010009 encapid 1234\n",
                                 "<Ctx:3>rib_remove_mtrie_route: (1) Removed OK routeid (3) 0a090000/16 nexthop "
                                 "0a010008 encapid 1234\n"}));
}

TEST(rib_interface, static_cleanup_withdraws_a_member_also_when_the_head_stays)
{
    rib_card card;
    card.add_interface(6, IP(10, 2, 0, 1), CTX);
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, IP(10, 2, 0, 9), 32, 0x55, 6, CTX), 0u);
    ASSERT_EQ(learn(), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, IP(10, 2, 0, 9)), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    card.forget();
    norvik_remove_static_ifdown(CTX, IF_ADDR, MASK24);
    const route_entry *const head = on_chain(CTX, NET, 16);
    EXPECT_EQ(head->flags, RIB_F_GATEWAY | RIB_F_ECMP | RIB_F_IN_MTRIE);
    EXPECT_EQ(head->ifid, 6);
    EXPECT_EQ(head->ecmp->flags, RIB_F_GATEWAY | RIB_F_ECMP);
    EXPECT_EQ(head->ecmp->ifid, 0);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "remove_static_ifdown route"), text_lines{});
}

TEST(rib_interface, static_cleanup_forgets_the_way_also_when_the_forwarding_table_refuses)
{
    rib_card card;
    ASSERT_EQ(learn(), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    card.take_tree(CTX);
    norvik_remove_static_ifdown(CTX, IF_ADDR, MASK24);
    card.give_tree_back(CTX);
    const route_entry *const route = on_chain(CTX, NET, 16);
    EXPECT_EQ(route->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    EXPECT_EQ(route->ifid, 0);
    EXPECT_EQ(route->encap_id, 0u);
}

TEST(rib_interface, static_cleanup_withdraws_the_default_route_too)
{
    rib_card card;
    ASSERT_EQ(learn(), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, 0, 0, GATEWAY), 0u);
    ASSERT_EQ(on_chain(CTX, 0, 0)->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    norvik_remove_static_ifdown(CTX, IF_ADDR, MASK24);
    EXPECT_EQ(on_chain(CTX, 0, 0)->flags, RIB_F_GATEWAY);
    EXPECT_EQ(on_chain(CTX, 0, 0)->encap_id, 0u);
}

TEST(rib_interface, cleanup_leaves_other_contexts_alone)
{
    rib_card card;
    card.add_interface(6, IF_ADDR, CTX + 1); // the same address, in another context
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY, 32, ENCAP, 6, CTX + 1), 0u);
    ASSERT_EQ(rib_add_route(CTX + 1, CTX + 1, NET, MASK16, GATEWAY), 0u);
    EXPECT_EQ(bring_down(), 0u);
    EXPECT_EQ(routes(CTX + 1), (text_lines{"0a010009/32 0003 1234 6", "0a090000/16 000c 1234 6"}));
}

TEST(rib_interface, an_interface_coming_up_programs_its_nat_routes_and_going_down_keeps_them_in_the_rib)
{
    rib_card card;
    card.interfaces[IFID].up = false;
    card.add_interface(6, IP(10, 2, 0, 1), CTX).up = false;
    ASSERT_EQ(rib_add_nat_pool(CTX, IFID, POOL, 8, 0x77), 0u);
    ASSERT_EQ(rib_add_nat_pool(CTX, 6, POOL + 0x100, 8, 0x78), 0u);
    ASSERT_EQ(rib_add_nat_pool(CTX + 1, IFID, POOL, 8, 0x79), 0u);
    card.forget();
    ASSERT_EQ(bring_up(), 0u);
    EXPECT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT | RIB_F_NAT_IN_MTRIE);
    EXPECT_EQ(on_chain(CTX, POOL + 0x100, 29)->flags, RIB_F_NAT) << "another interface's";
    EXPECT_EQ(on_chain(CTX + 1, POOL, 29)->flags, RIB_F_NAT) << "another context's";
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        EXPECT_EQ(np_find(card, copy, CTX, POOL + 3).adjacency, 0x20050077u) << "copy " << copy;

    norvik_remove_nat_ifdown(CTX, IFID);
    EXPECT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT);
    EXPECT_EQ(on_chain(CTX, POOL, 29)->encap_id, 0x77u);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        EXPECT_TRUE(has_no_route(card, copy, CTX, POOL + 3)) << "copy " << copy;
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
}

TEST(rib_interface, an_interface_removal_does_not_touch_nat_routes)
{
    rib_card card;
    ASSERT_EQ(rib_add_nat_pool(CTX, IFID, POOL, 8, 0x77), 0u);
    ASSERT_EQ(bring_down(), 0u);
    EXPECT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT | RIB_F_NAT_IN_MTRIE);
}

TEST(rib_interface, a_nat_route_that_is_up_already_is_complained_about_and_left)
{
    rib_card card;
    ASSERT_EQ(rib_add_nat_pool(CTX, IFID, POOL, 8, 0x77), 0u);
    card.forget();
    norvik_add_nat_ifup(CTX, IFID);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), (text_lines{"<Ctx:3>NAT entry up for down intf a080010/29 ifid:5\n"}));
    EXPECT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT | RIB_F_NAT_IN_MTRIE);
}

TEST(rib_interface, a_nat_route_that_is_down_already_is_complained_about_and_left)
{
    rib_card card;
    card.interfaces[IFID].up = false;
    ASSERT_EQ(rib_add_nat_pool(CTX, IFID, POOL, 8, 0x77), 0u);
    card.forget();
    norvik_remove_nat_ifdown(CTX, IFID);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), (text_lines{"<Ctx:3>NAT entry down for up intf a080010/29 ifid:5\n"}));
    EXPECT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT);
}

TEST(rib_interface, a_nat_route_that_the_forwarding_table_refuses_stays_as_it_was)
{
    rib_card card;
    card.interfaces[IFID].up = false;
    ASSERT_EQ(rib_add_nat_pool(CTX, IFID, POOL, 8, 0x77), 0u);
    card.forget();
    card.take_tree(CTX);
    norvik_add_nat_ifup(CTX, IFID);
    card.give_tree_back(CTX);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "NAT entry"),
              (text_lines{"<Ctx:3>NAT entry mtrie add failed a080010/29 ifid:5 (0)\n"}));
    EXPECT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT);

    norvik_add_nat_ifup(CTX, IFID);
    ASSERT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT | RIB_F_NAT_IN_MTRIE);
    card.forget();
    card.take_tree(CTX);
    norvik_remove_nat_ifdown(CTX, IFID);
    card.give_tree_back(CTX);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "NAT entry"),
              (text_lines{"<Ctx:3>NAT entry mtrie remove failed a080010/29 ifid:5 (0)\n"}));
    EXPECT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT | RIB_F_NAT_IN_MTRIE);
}
