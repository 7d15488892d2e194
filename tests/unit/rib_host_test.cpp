// rib_host_test.cpp - host routes in the RIB and in both tables, the ARP service's procedures, and the static routes
// that a host completes.
#include "rib_host.h"

#include <cerrno>
#include <cstring>

#include "mtrack.h"
#include "rib_card.h"
#include "rib_mtrie.h"
#include "rib_static.h"
#include "route_ids.h"

using namespace harness;

namespace
{

constexpr std::uint32_t NET = IP(10, 9, 0, 0), OTHER_GATEWAY = IP(10, 1, 0, 8);

std::uint32_t add_host(std::uint32_t addr = GATEWAY, std::uint16_t encap = ENCAP)
{
    return arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, addr, 32, encap, IFID, CTX);
}

std::uint32_t remove_host(std::uint32_t addr = GATEWAY)
{
    return arp_prefix_mgr_remove_route(RIB_OBJ_ARP_HOST, addr, 32, 0, ENCAP, IFID, CTX);
}

route_entry *add_combined()
{
    return route_add_rib_and_mtrie_entry(RIB_F_ARP_INSTALLED, ENCAP, RIB_OBJ_ARP_HOST, GATEWAY, 32, IFID, CTX);
}

} // namespace

TEST(rib_host, an_arp_host_is_entered_with_the_address_of_its_interface)
{
    rib_card card;
    EXPECT_EQ(add_host(), 0u);
    const route_entry *const host = on_chain(CTX, GATEWAY, 32);
    ASSERT_NE(host, nullptr);
    EXPECT_EQ(host->nexthop, IF_ADDR);
    EXPECT_EQ(host->ctx, CTX);
    EXPECT_EQ(host->route_id, CTX);
    EXPECT_EQ(host->ifid, IFID);
    EXPECT_EQ(host->encap_id, ENCAP);
    EXPECT_EQ(host->flags, RIB_F_ARP_HOST | RIB_F_ARP_INSTALLED);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
}

TEST(rib_host, an_arp_host_reported_twice_is_refreshed_and_not_doubled)
{
    rib_card card;
    card.add_interface(6, IP(10, 1, 0, 2), CTX);
    ASSERT_EQ(add_host(), 0u);
    card.forget();
    EXPECT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY, 32, 0x77, 6, CTX), 0u);
    const route_entry *const host = on_chain(CTX, GATEWAY, 32);
    EXPECT_EQ(host->encap_id, 0x77u);
    EXPECT_EQ(host->ifid, 6);
    EXPECT_EQ(host->nexthop, IF_ADDR) << "learned once";
    EXPECT_EQ(entries_of(CTX), 1u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "prefix_mgr_route_add: enter").size(), 1u) << "installed again";
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "SUCCESS"),
              (text_lines{"<Ctx:0>add to rib and Mtrie SUCCESS 0xa010009/32->0077\n"}));
}

TEST(rib_host, an_arp_host_on_an_interface_that_is_not_up_is_refused)
{
    rib_card card;
    card.interfaces[IFID].up = false;
    const text_lines refused = {
        "<Ctx:3>rib_add_host_route, if 5 DOWN, obj 1 addr 0xa010009/32 add Fails, encapid 0x1234\n",
        "<Ctx:0>route_add_rib_and_mtrie_entry: rib add failed, addr 0xa010009/32, ifid 0x5\n"};
    EXPECT_EQ(add_host(), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), refused);
    EXPECT_EQ(card.texts(ROUTE_DBG_EVENTS), text_lines{}) << "before any search";

    card.interfaces.erase(IFID); // an unknown interface is not up either
    card.forget();
    EXPECT_EQ(add_host(), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), refused);
    EXPECT_EQ(entries_of(CTX), 0u);
}

TEST(rib_host, only_an_arp_host_asks_whether_its_interface_is_up)
{
    rib_card card;
    card.interfaces[IFID].up = false;
    const route_entry *const entry = rib_add_host_route(RIB_OBJ_INTERFACE, CTX, IFID, IF_ADDR, 32, ENCAP);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->flags, RIB_F_INTERFACE);
    EXPECT_EQ(entry->nexthop, 0u);
}

TEST(rib_host, a_length_over_32_is_refused_by_add_and_remove)
{
    rib_card card;
    EXPECT_EQ(rib_add_host_route(RIB_OBJ_ARP_HOST, CTX, IFID, GATEWAY, 33, ENCAP), nullptr);
    EXPECT_EQ(rib_remove_host_route(RIB_OBJ_ARP_HOST, CTX, GATEWAY, 33), nullptr);
    EXPECT_EQ(
        card.lines(),
        (text_lines{"100 <Ctx:3>rib_add_host_route, wrong mask, host addr 0xa010009/33 add Fails, encapid 0x1234\n",
                    "100 <Ctx:3>rib_remove_host_route, wrong mask, host addr 0xa010009/33 remove Fails\n"}));
}

TEST(rib_host, an_interface_address_added_twice_is_rejected_as_a_duplicate)
{
    rib_card card;
    ASSERT_NE(rib_add_host_route(RIB_OBJ_INTERFACE, CTX, IFID, NET, 16, ENCAP), nullptr);
    card.forget();
    EXPECT_EQ(rib_add_host_route(RIB_OBJ_INTERFACE, CTX, IFID, NET + 5, 16, ENCAP), nullptr);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>rib_add_host_route:rejecting duplicate entry:a090000/16\n"}));
    EXPECT_EQ(entries_of(CTX), 1u);
}

TEST(rib_host, one_address_as_host_and_as_interface_address_becomes_a_pair)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    route_entry *const member = rib_add_host_route(RIB_OBJ_INTERFACE, CTX, IFID, GATEWAY, 32, 0x8001);
    ASSERT_NE(member, nullptr);
    const route_entry *const head = on_chain(CTX, GATEWAY, 32);
    EXPECT_EQ(head->ecmp.get(), member);
    EXPECT_EQ(head->ecmp_count, 2);
    EXPECT_EQ(member->flags, RIB_F_INTERFACE | RIB_F_ECMP);
}

TEST(rib_host, a_second_multicast_drop_entry_joins_the_first)
{
    rib_card card;
    for (int i = 0; i < 2; ++i)
        ASSERT_NE(rib_add_host_route(RIB_OBJ_MCAST_DROP, CTX, 0, IP(224, 0, 0, 0), 3, 0x8001), nullptr);
    EXPECT_EQ(on_chain(CTX, IP(224, 0, 0, 0), 3)->ecmp_count, 2);
    EXPECT_EQ(on_chain(CTX, IP(224, 0, 0, 0), 3)->flags, RIB_F_ECMP);
}

TEST(rib_host, an_interface_without_a_route_mode_refuses_the_host)
{
    rib_card card;
    card.interfaces[IFID].has_rmode = false;
    EXPECT_EQ(rib_add_host_route(RIB_OBJ_ARP_HOST, CTX, IFID, GATEWAY, 32, ENCAP), nullptr);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), (text_lines{"<Ctx:3>Failed to get route mode for ifId 5"}));
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    EXPECT_EQ(entries_of(CTX), 0u);
}

TEST(rib_host, a_bridged_interface_gives_the_address_of_its_bridge_interface)
{
    rib_card card;
    card.add_interface(40, IP(10, 1, 0, 40), CTX);
    card.interfaces[IFID].rmode = 2;
    card.interfaces[IFID].bvi = 40;
    const route_entry *const host = rib_add_host_route(RIB_OBJ_ARP_HOST, CTX, IFID, GATEWAY, 32, ENCAP);
    ASSERT_NE(host, nullptr);
    EXPECT_EQ(host->nexthop, IP(10, 1, 0, 40));
    EXPECT_EQ(host->ifid, IFID);
}

TEST(rib_host, a_missing_bridge_interface_is_asked_for_its_address_like_any_other)
{
    rib_card card;
    card.interfaces[IFID].rmode = 2;
    const route_entry *const without = rib_add_host_route(RIB_OBJ_ARP_HOST, CTX, IFID, GATEWAY, 32, ENCAP);
    ASSERT_NE(without, nullptr);
    EXPECT_EQ(without->nexthop, 0u);

    card.add_interface(0xFFFFFFFF, IP(10, 1, 0, 77), CTX);
    const route_entry *const with = rib_add_host_route(RIB_OBJ_ARP_HOST, CTX, IFID, GATEWAY + 1, 32, ENCAP);
    ASSERT_NE(with, nullptr);
    EXPECT_EQ(with->nexthop, IP(10, 1, 0, 77));
}

TEST(rib_host, an_interface_without_an_address_gives_next_hop_0)
{
    rib_card card;
    card.interfaces[IFID].has_address = false;
    const route_entry *const host = rib_add_host_route(RIB_OBJ_ARP_HOST, CTX, IFID, GATEWAY, 32, ENCAP);
    ASSERT_NE(host, nullptr);
    EXPECT_EQ(host->nexthop, 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
}

TEST(rib_host, a_host_without_memory_is_refused_in_silence)
{
    rib_card card;
    card.fail_alloc(MTRACK_ROUTE_ENTRY_1, 1);
    EXPECT_EQ(rib_add_host_route(RIB_OBJ_ARP_HOST, CTX, IFID, GATEWAY, 32, ENCAP), nullptr);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
    EXPECT_EQ(entries_of(CTX), 0u);
}

TEST(rib_host, removing_a_host_where_only_an_interface_entry_exists_leaves_it_in_place)
{
    rib_card card;
    ASSERT_NE(rib_add_host_route(RIB_OBJ_INTERFACE, CTX, IFID, GATEWAY, 32, ENCAP), nullptr);
    card.forget();
    EXPECT_EQ(rib_remove_host_route(RIB_OBJ_ARP_HOST, CTX, GATEWAY, 32), nullptr);
    EXPECT_EQ(card.lines(),
              (text_lines{"100 <Ctx:3>rib_remove_host_route, wrong entry 0xa010009/32 flags 10, host addr "
                          "0xa010009/32 remove obj 1 Fails\n"}));
    EXPECT_EQ(entries_of(CTX), 1u);
}

TEST(rib_host, removing_an_interface_entry_where_only_a_host_exists_leaves_it_in_place)
{
    rib_card card;
    ASSERT_NE(rib_add_host_route(RIB_OBJ_ARP_HOST, CTX, IFID, GATEWAY, 32, ENCAP), nullptr);
    card.forget();
    EXPECT_EQ(rib_remove_host_route(RIB_OBJ_INTERFACE, CTX, GATEWAY, 32), nullptr);
    EXPECT_EQ(card.lines(), (text_lines{"100 <Ctx:3>rib_remove_host_route, wrong entry 0xa010009/32 flags 1, host addr "
                                        "0xa010009/32 remove obj 2 Fails\n"}));
}

TEST(rib_host, removing_any_other_object_takes_whatever_the_chain_holds)
{
    rib_card card;
    route_entry *const added = rib_add_host_route(RIB_OBJ_INTERFACE, CTX, IFID, NET, 16, ENCAP);
    card.forget();
    EXPECT_EQ(rib_remove_host_route(RIB_OBJ_MCAST_DROP, CTX, NET + 5, 16), added);
    EXPECT_EQ(card.lines(),
              (text_lines{"105 <Ctx:3>rib_remove_host_route: deleting route 0xa090000/16 (flags 0x10) \n"}));
    mtrack_free(added);
}

TEST(rib_host, a_removal_logs_the_flags_after_clearing_and_no_search)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    card.forget();
    route_entry *const host = rib_remove_host_route(RIB_OBJ_ARP_HOST, CTX, GATEWAY, 32);
    ASSERT_NE(host, nullptr);
    EXPECT_EQ(host->flags, RIB_F_ARP_INSTALLED);
    EXPECT_EQ(card.lines(),
              (text_lines{"105 <Ctx:3>rib_remove_host_route: deleting route 0xa010009/32 (flags 0x2) \n"}));
    mtrack_free(host);
}

TEST(rib_host, a_removal_that_finds_nothing_logs_the_masked_address)
{
    rib_card card;
    EXPECT_EQ(rib_remove_host_route(RIB_OBJ_INTERFACE, CTX, NET + 5, 16), nullptr);
    EXPECT_EQ(card.lines(),
              (text_lines{"105 <Ctx:3>rib_remove_host_route: fail to find routeid 3 ip 0xa090000/16 obj 2 \n"}));
}

TEST(rib_host, a_removal_keeps_the_neighbours_on_the_chain)
{
    rib_card card;
    for (const std::uint32_t addr : {GATEWAY, GATEWAY + 31, GATEWAY + 62})
        ASSERT_EQ(add_host(addr), 0u);
    EXPECT_EQ(remove_host(GATEWAY + 31), 0u);
    EXPECT_EQ(on_chain(CTX, GATEWAY, 32)->next.get(), on_chain(CTX, GATEWAY + 62, 32));
    EXPECT_EQ(remove_host(GATEWAY + 31), 1u) << "a larger address ends the walk";
    EXPECT_EQ(remove_host(GATEWAY + 93), 1u) << "so does the end of the chain";
}

TEST(rib_host, a_removed_head_takes_the_members_of_its_set_with_it)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    ASSERT_NE(rib_add_host_route(RIB_OBJ_INTERFACE, CTX, IFID, GATEWAY, 32, 0x8001), nullptr);
    EXPECT_EQ(remove_host(), 0u);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 1u) << "the member is not given back";
}

TEST(rib_host, a_combined_add_returns_the_entry_with_the_callers_flags_and_logs_under_context_0)
{
    rib_card card;
    const route_entry *const entry = route_add_rib_and_mtrie_entry(RIB_F_INTERFACE | RIB_F_CONNECTED, 0x21,
                                                                   RIB_OBJ_INTERFACE, NET + 5, 16, IFID, CTX);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->prefix, NET);
    EXPECT_EQ(entry->flags, RIB_F_INTERFACE | RIB_F_CONNECTED);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "add to rib"),
              (text_lines{"<Ctx:0>add to rib and Mtrie SUCCESS 0xa090000/16->0021\n"}));
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
}

TEST(rib_host, a_combined_add_that_the_rib_refuses_logs_the_address_as_given)
{
    rib_card card;
    EXPECT_EQ(route_add_rib_and_mtrie_entry(0, ENCAP, RIB_OBJ_INTERFACE, NET + 5, 33, IFID, CTX), nullptr);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>rib_add_host_route, wrong mask, host addr 0xa090005/33 add Fails, encapid 0x1234\n",
                          "<Ctx:0>route_add_rib_and_mtrie_entry: rib add failed, addr 0xa090005/33, ifid 0x5\n"}));
}

TEST(rib_host, a_combined_add_that_the_forwarding_table_refuses_takes_the_entry_out_again)
{
    rib_card card;
    card.take_tree(CTX);
    EXPECT_EQ(route_add_rib_and_mtrie_entry(0, ENCAP, RIB_OBJ_INTERFACE, NET + 5, 16, IFID, CTX), nullptr);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "adding"), (text_lines{"<Ctx:0>adding Mtrie FAILURE 0xa090000/16->1234\n"}));
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).back(),
              "<Ctx:3>rib_remove_host_route: deleting route 0xa090000/16 (flags 0x10) \n");
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    card.give_tree_back(CTX);
}

TEST(rib_host, a_failed_combined_add_of_a_host_that_refreshed_its_entry_removes_that_entry_too)
{
    rib_card card;
    ASSERT_NE(add_combined(), nullptr);
    card.take_tree(CTX);
    EXPECT_EQ(add_combined(), nullptr);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    card.give_tree_back(CTX);
}

TEST(rib_host, an_undo_that_finds_another_kind_of_entry_on_the_chain_frees_nothing)
{
    rib_card card;
    ASSERT_NE(route_add_rib_and_mtrie_entry(0, ENCAP, RIB_OBJ_INTERFACE, GATEWAY, 32, IFID, CTX), nullptr);
    card.take_tree(CTX);
    EXPECT_EQ(add_combined(), nullptr); // joined the interface entry's set, and stays there
    EXPECT_EQ(entries_of(CTX), 2u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 2u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).back(),
              "<Ctx:3>rib_remove_host_route, wrong entry 0xa010009/32 flags 50, host addr 0xa010009/32 remove obj 1 "
              "Fails\n");
    card.give_tree_back(CTX);
}

TEST(rib_host, a_combined_remove_frees_the_entry_or_hands_it_over)
{
    rib_card card;
    ASSERT_NE(add_combined(), nullptr);
    route_entry *const kept =
        route_remove_rib_and_mtrie_entry(RIB_OBJ_ARP_HOST, RIB_F_ARP_INSTALLED, GATEWAY, 32, CTX, 0);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->flags, 0);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 1u);
    mtrack_free(kept);

    ASSERT_NE(add_combined(), nullptr);
    card.forget();
    EXPECT_EQ(route_remove_rib_and_mtrie_entry(RIB_OBJ_ARP_HOST, RIB_F_ARP_INSTALLED, GATEWAY, 32, CTX, 1), nullptr);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).back(),
              "<Ctx:0>route_remove_rib_and_mtrie_entry:remove from rib and Mtrie SUCCESS 0xa010009/32\n");
}

TEST(rib_host, a_combined_remove_of_nothing_is_an_error_with_the_address_as_given)
{
    rib_card card;
    EXPECT_EQ(route_remove_rib_and_mtrie_entry(RIB_OBJ_INTERFACE, 0, NET + 5, 16, CTX, 0), nullptr);
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO),
              (text_lines{"<Ctx:3>rib_remove_host_route: fail to find routeid 3 ip 0xa090000/16 obj 2 \n"}));
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:0>route_remove_rib_and_mtrie_entry: rib remove failed, addr 0xa090005/16\n"}));
}

TEST(rib_host, a_combined_remove_that_the_forwarding_table_refuses_stands_in_the_rib)
{
    rib_card card;
    ASSERT_NE(add_combined(), nullptr);
    card.take_tree(CTX);
    EXPECT_EQ(route_remove_rib_and_mtrie_entry(RIB_OBJ_ARP_HOST, RIB_F_ARP_INSTALLED, GATEWAY, 32, CTX, 1), nullptr);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).back(),
              "<Ctx:0>route_remove_rib_and_mtrie_entry:remove Mtrie FAILURE 0xa010009/32\n");
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    card.give_tree_back(CTX);
}

TEST(rib_host, a_default_route_of_the_combined_pair_reaches_the_prefix_manager)
{
    rib_card card;
    ASSERT_NE(route_add_rib_and_mtrie_entry(0, ENCAP, RIB_OBJ_INTERFACE, NET, 0, IFID, CTX), nullptr);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "prefix_mgr_route_add: enter").size(), 1u);
}

TEST(rib_host, a_host_that_arrives_completes_the_routes_that_wait_for_it)
{
    rib_card card;
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET + 0x10000, MASK16, OTHER_GATEWAY), 0u);
    card.forget();
    ASSERT_EQ(add_host(), 0u);
    const route_entry *const route = on_chain(CTX, NET, 16);
    EXPECT_EQ(route->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    EXPECT_EQ(route->ifid, IFID);
    EXPECT_EQ(route->encap_id, ENCAP);
    EXPECT_EQ(on_chain(CTX, NET + 0x10000, 16)->flags, RIB_F_GATEWAY) << "it waits for another";
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "add_host"),
              (text_lines{"<Ctx:3>\nadd_host route =0xa090000 found, ifid 5, encapid 4660\n"}));
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "rib_add_mtrie_route").size(), 1u);
}

TEST(rib_host, a_waiting_member_is_completed_without_a_line_of_its_own)
{
    rib_card card;
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, OTHER_GATEWAY), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    card.forget();
    ASSERT_EQ(add_host(), 0u);
    const route_entry *const head = on_chain(CTX, NET, 16);
    EXPECT_EQ(head->flags, RIB_F_GATEWAY | RIB_F_ECMP);
    EXPECT_EQ(head->ecmp->flags, RIB_F_GATEWAY | RIB_F_ECMP | RIB_F_IN_MTRIE);
    EXPECT_EQ(head->ecmp->ifid, IFID);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "add_host"), text_lines{});
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "rib_add_mtrie_route").size(), 1u);
}

TEST(rib_host, a_removed_host_withdraws_its_routes_and_keeps_them_until_it_comes_again)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    ASSERT_EQ(add_host(OTHER_GATEWAY, 0x55), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET + 0x10000, MASK16, OTHER_GATEWAY), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET + 0x10000, MASK16, GATEWAY), 0u);
    card.forget();

    EXPECT_EQ(remove_host(), 0u);
    const route_entry *const single = on_chain(CTX, NET, 16);
    const route_entry *const head = on_chain(CTX, NET + 0x10000, 16);
    EXPECT_EQ(single->flags, RIB_F_GATEWAY);
    EXPECT_EQ(single->ifid, 0);
    EXPECT_EQ(single->encap_id, 0u);
    EXPECT_EQ(head->flags, RIB_F_GATEWAY | RIB_F_ECMP | RIB_F_IN_MTRIE) << "its own gateway is still there";
    EXPECT_EQ(head->ecmp->flags, RIB_F_GATEWAY | RIB_F_ECMP);
    EXPECT_EQ(head->ecmp->encap_id, 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "rem_host"),
              (text_lines{"<Ctx:3>rem_host route =0xa090000 found, ifid 5, encapid 4660\n"}));
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 1u);

    EXPECT_EQ(add_host(GATEWAY, 0x66), 0u);
    EXPECT_EQ(single->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    EXPECT_EQ(single->encap_id, 0x66u);
    EXPECT_EQ(head->ecmp->encap_id, 0x66u);
}

TEST(rib_host, a_withdrawn_route_loses_its_adjacency_also_when_the_forwarding_table_refuses)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    card.take_tree(CTX);
    EXPECT_EQ(remove_host(), 0u);
    const route_entry *const route = on_chain(CTX, NET, 16);
    EXPECT_EQ(route->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    EXPECT_EQ(route->ifid, 0);
    EXPECT_EQ(route->encap_id, 0u);
    card.give_tree_back(CTX);
}

TEST(rib_host, the_routes_of_other_contexts_do_not_see_the_host)
{
    rib_card card;
    ASSERT_EQ(rib_add_route(CTX + 1, CTX + 1, NET, MASK16, GATEWAY), 0u);
    ASSERT_EQ(add_host(), 0u);
    EXPECT_EQ(on_chain(CTX + 1, NET, 16)->flags, RIB_F_GATEWAY);
}

TEST(rib_host, the_arp_procedures_serve_arp_hosts_only)
{
    rib_card card;
    EXPECT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_INTERFACE, GATEWAY, 32, ENCAP, IFID, CTX), 1u);
    EXPECT_EQ(arp_prefix_mgr_remove_route(RIB_OBJ_INTERFACE, GATEWAY, 32, 9, ENCAP, IFID, CTX), 1u);
    EXPECT_EQ(
        card.lines(),
        (text_lines{"100 <Ctx:3>arp_prefix_mgr_add_route, Object NOT supported, addr 0xa010009/32, encapid 0x1234, "
                    "ifid 0x5\n",
                    "100 <Ctx:3>arp_prefix_mgr_remove_route, object NOT supported, addr 0xa010009, encapid 0x1234, "
                    "ifid 0x5\n"}));
    EXPECT_EQ(card.calls, text_lines{});
}

TEST(rib_host, a_host_removal_flushes_the_route_cache_and_frees_the_host)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    card.forget();
    card.flush_result = -EIO;
    EXPECT_EQ(remove_host(), 0u) << "whatever the flush reports";
    EXPECT_EQ(card.calls_of("tn_flush_rt_cache").size(), 1u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);

    card.forget();
    EXPECT_EQ(remove_host(), 1u);
    EXPECT_EQ(card.calls_of("tn_flush_rt_cache").size(), 0u) << "nothing was removed";
}

TEST(rib_host, a_removed_host_is_freed_before_the_route_cache_is_flushed)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    unsigned flushes = 0;
    card.on_call = [&](const std::string &call) {
        if (call != "syscall_open")
            return;
        ++flushes;
        EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    };
    EXPECT_EQ(remove_host(), 0u);
    EXPECT_EQ(flushes, 1u);
}

TEST(rib_host, a_flush_opens_flushes_and_closes)
{
    rib_card card;
    EXPECT_EQ(route_flush_rt_cache(), 1);
    ASSERT_EQ(card.calls.size(), 3u);
    EXPECT_EQ(card.calls[0].rfind("syscall_open", 0), 0u) << card.calls[0];
    EXPECT_EQ(card.calls[1].rfind("tn_flush_rt_cache", 0), 0u) << card.calls[1];
    EXPECT_EQ(card.calls[2].rfind("syscall_close", 0), 0u) << card.calls[2];
    EXPECT_EQ(card.printed(), "");
}

TEST(rib_host, a_flush_that_fails_is_printed)
{
    rib_card card;
    card.flush_result = -EIO;
    EXPECT_EQ(route_flush_rt_cache(), 0);
    EXPECT_EQ(card.printed(), "Error -5 from tn_flush_rt_cache: " + std::string(std::strerror(EIO)) + "\n");
    EXPECT_EQ(card.calls_of("syscall_close").size(), 1u) << "closed all the same";

    card.forget();
    card.syscall_open_result = -ENOENT;
    EXPECT_EQ(route_flush_rt_cache(), 0);
    EXPECT_EQ(card.printed(), "Error -2 from syscall_open: " + std::string(std::strerror(ENOENT)) + "\n");
    EXPECT_EQ(card.calls_of("tn_flush_rt_cache").size(), 0u);
}
