// rib_mtrie_test.cpp - routes in the RIB and in the forwarding table together.
#include "rib_mtrie.h"

#include "mtrack.h"
#include "norvik_mtrie_leaf.h"
#include "rib_card.h"
#include "route_ids.h"
#include "route_table.h"

namespace
{

constexpr std::uint32_t HOST = IP(10, 1, 0, 9), NET = IP(10, 9, 0, 0);

route_entry *add_host(std::uint32_t addr = HOST, std::uint16_t encap = ENCAP)
{
    return route_add_rib_and_mtrie_entry(RIB_F_ARP_INSTALLED, encap, RIB_OBJ_ARP_HOST, addr, 32, IFID, CTX);
}

// A static route that is in no table yet.
route_entry make_static(std::uint32_t prefix, std::uint32_t len)
{
    route_entry entry{};
    entry.prefix = prefix;
    entry.len = len;
    entry.nexthop = GATEWAY;
    entry.ctx = CTX;
    entry.route_id = CTX + 1;
    entry.ifid = IFID;
    entry.encap_id = ENCAP;
    entry.flags = RIB_F_GATEWAY;
    return entry;
}

} // namespace

TEST(rib_mtrie, a_combined_add_returns_the_entry_with_the_callers_flags_and_logs_under_context_0)
{
    rib_card card;
    const route_entry *const entry = route_add_rib_and_mtrie_entry(RIB_F_INTERFACE | RIB_F_CONNECTED, 0x21,
                                                                   RIB_OBJ_INTERFACE, NET + 5, 16, IFID, CTX);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->prefix, NET);
    EXPECT_EQ(entry->flags, RIB_F_INTERFACE | RIB_F_CONNECTED);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "add to rib"),
              (text_list{"<Ctx:0>add to rib and Mtrie SUCCESS 0xa090000/16->0021\n"}));
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_list{});
}

TEST(rib_mtrie, a_combined_add_that_the_rib_refuses_logs_the_address_as_given)
{
    rib_card card;
    EXPECT_EQ(route_add_rib_and_mtrie_entry(0, ENCAP, RIB_OBJ_INTERFACE, NET + 5, 33, IFID, CTX), nullptr);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_list{"<Ctx:3>rib_add_host_route, wrong mask, host addr 0xa090005/33 add Fails, encapid 0x1234\n",
                         "<Ctx:0>route_add_rib_and_mtrie_entry: rib add failed, addr 0xa090005/33, ifid 0x5\n"}));
}

TEST(rib_mtrie, a_combined_add_that_the_forwarding_table_refuses_takes_the_entry_out_again)
{
    rib_card card;
    card.take_tree(CTX);
    EXPECT_EQ(route_add_rib_and_mtrie_entry(0, ENCAP, RIB_OBJ_INTERFACE, NET + 5, 16, IFID, CTX), nullptr);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "adding"), (text_list{"<Ctx:0>adding Mtrie FAILURE 0xa090000/16->1234\n"}));
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).back(),
              "<Ctx:3>rib_remove_host_route: deleting route 0xa090000/16 (flags 0x10) \n");
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    card.give_tree_back(CTX);
}

TEST(rib_mtrie, a_failed_combined_add_of_a_host_that_refreshed_its_entry_removes_that_entry_too)
{
    rib_card card;
    ASSERT_NE(add_host(), nullptr);
    card.take_tree(CTX);
    EXPECT_EQ(add_host(), nullptr);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    card.give_tree_back(CTX);
}

TEST(rib_mtrie, an_undo_that_finds_another_kind_of_entry_on_the_chain_frees_nothing)
{
    rib_card card;
    ASSERT_NE(route_add_rib_and_mtrie_entry(0, ENCAP, RIB_OBJ_INTERFACE, HOST, 32, IFID, CTX), nullptr);
    card.take_tree(CTX);
    EXPECT_EQ(add_host(), nullptr); // joined the interface entry's set, and stays there
    EXPECT_EQ(entries_of(CTX), 2u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 2u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).back(),
              "<Ctx:3>rib_remove_host_route, wrong entry 0xa010009/32 flags 50, host addr 0xa010009/32 remove obj 1 "
              "Fails\n");
    card.give_tree_back(CTX);
}

TEST(rib_mtrie, a_combined_remove_frees_the_entry_or_hands_it_over)
{
    rib_card card;
    ASSERT_NE(add_host(), nullptr);
    route_entry *const kept = route_remove_rib_and_mtrie_entry(RIB_OBJ_ARP_HOST, RIB_F_ARP_INSTALLED, HOST, 32, CTX, 0);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->flags, 0);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 1u);
    mtrack_free(kept);

    ASSERT_NE(add_host(), nullptr);
    card.forget();
    EXPECT_EQ(route_remove_rib_and_mtrie_entry(RIB_OBJ_ARP_HOST, RIB_F_ARP_INSTALLED, HOST, 32, CTX, 1), nullptr);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).back(),
              "<Ctx:0>route_remove_rib_and_mtrie_entry:remove from rib and Mtrie SUCCESS 0xa010009/32\n");
}

TEST(rib_mtrie, a_combined_remove_of_nothing_is_an_error_with_the_address_as_given)
{
    rib_card card;
    EXPECT_EQ(route_remove_rib_and_mtrie_entry(RIB_OBJ_INTERFACE, 0, NET + 5, 16, CTX, 0), nullptr);
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO),
              (text_list{"<Ctx:3>rib_remove_host_route: fail to find routeid 3 ip 0xa090000/16 obj 2 \n"}));
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_list{"<Ctx:0>route_remove_rib_and_mtrie_entry: rib remove failed, addr 0xa090005/16\n"}));
}

TEST(rib_mtrie, a_combined_remove_that_the_forwarding_table_refuses_stands_in_the_rib)
{
    rib_card card;
    ASSERT_NE(add_host(), nullptr);
    card.take_tree(CTX);
    EXPECT_EQ(route_remove_rib_and_mtrie_entry(RIB_OBJ_ARP_HOST, RIB_F_ARP_INSTALLED, HOST, 32, CTX, 1), nullptr);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).back(),
              "<Ctx:0>route_remove_rib_and_mtrie_entry:remove Mtrie FAILURE 0xa010009/32\n");
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    card.give_tree_back(CTX);
}

TEST(rib_mtrie, a_default_route_of_the_combined_pair_reaches_the_prefix_manager)
{
    rib_card card;
    ASSERT_NE(route_add_rib_and_mtrie_entry(0, ENCAP, RIB_OBJ_INTERFACE, NET, 0, IFID, CTX), nullptr);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "prefix_mgr_route_add: enter").size(), 1u);
}

TEST(rib_mtrie, an_install_sets_the_flag_and_logs_under_the_entrys_context)
{
    rib_card card;
    route_entry entry = make_static(NET, 16);
    EXPECT_EQ(rib_add_mtrie_route(&entry), 0);
    EXPECT_EQ(entry.flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).back(), "<Ctx:3>rib_add_mtrie_route: Added mtrie for route_id (4) route/mask "
                                                 "0a090000/16->nexthop 0a010009 encap 1234\n");
}

TEST(rib_mtrie, an_install_that_fails_leaves_the_flags)
{
    rib_card card;
    route_entry entry = make_static(NET, 16);
    card.take_tree(CTX + 1);
    EXPECT_EQ(rib_add_mtrie_route(&entry), 1);
    EXPECT_EQ(entry.flags, RIB_F_GATEWAY);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).back(),
              "<Ctx:3>rib_add_mtrie_route: Failed to add mtrie for route_id (4) route/mask 0a090000/16->nexthop "
              "0a010009 encap 1234\n");
    card.give_tree_back(CTX + 1);
}

TEST(rib_mtrie, a_default_route_sets_and_resets_the_default_leaf_of_its_route_id)
{
    rib_card card;
    route_entry entry = make_static(0, 0);
    const mtrie_leaf *const leaf = norvik_leaf_default[CTX + 1];
    EXPECT_EQ(rib_add_mtrie_route(&entry), 0);
    EXPECT_EQ(leaf->adjacency, adj_pack(0, IFID, ENCAP));
    EXPECT_EQ(norvik_leaf_default[CTX]->adjacency, 0u);
    EXPECT_EQ(entry.flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);

    rib_remove_mtrie_route(&entry);
    EXPECT_EQ(leaf->adjacency, 0u);
    EXPECT_EQ(entry.flags, RIB_F_GATEWAY);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "prefix_mgr"), text_list{}) << "the trie's prefixes are left alone";
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "rib_remove_mtrie_route"), text_list{});
}

TEST(rib_mtrie, a_default_route_without_a_default_leaf_is_not_programmed)
{
    rib_card card;
    route_entry entry = make_static(0, 0);
    const card_ptr<mtrie_leaf> kept = norvik_leaf_default[CTX + 1];
    norvik_leaf_default[CTX + 1] = nullptr;
    EXPECT_EQ(rib_add_mtrie_route(&entry), 1);
    EXPECT_EQ(entry.flags, RIB_F_GATEWAY);
    entry.flags |= RIB_F_IN_MTRIE;
    rib_remove_mtrie_route(&entry); // the reset is refused too, and the flag goes all the same
    EXPECT_EQ(entry.flags, RIB_F_GATEWAY);
    norvik_leaf_default[CTX + 1] = kept;
}

TEST(rib_mtrie, an_entry_that_is_not_programmed_is_left_alone_without_a_line)
{
    rib_card card;
    route_entry entry = make_static(NET, 16);
    rib_remove_mtrie_route(&entry);
    route_entry by_default = make_static(0, 0);
    rib_remove_mtrie_route(&by_default);
    EXPECT_EQ(card.lines(), text_list{});
    EXPECT_EQ(card.printed(), "");
}

TEST(rib_mtrie, a_removal_clears_the_flag_and_logs_under_the_entrys_context)
{
    rib_card card;
    route_entry entry = make_static(NET, 16);
    ASSERT_EQ(rib_add_mtrie_route(&entry), 0);
    rib_remove_mtrie_route(&entry);
    EXPECT_EQ(entry.flags, RIB_F_GATEWAY);
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).back(),
              "<Ctx:3>rib_remove_mtrie_route: (1) Removed OK routeid (4) 0a090000/16 nexthop 0a010009 encapid 1234\n");
}

TEST(rib_mtrie, a_removal_that_the_forwarding_table_refuses_keeps_the_flag)
{
    rib_card card;
    route_entry entry = make_static(NET, 16);
    entry.flags |= RIB_F_IN_MTRIE;
    rib_remove_mtrie_route(&entry);
    EXPECT_EQ(entry.flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).back(), "<Ctx:3>rib_remove_mtrie_route: (1) Unable to remove routeid (4) "
                                                   "0a090000/16 nexthop 0a010009 encapid 1234\n");
}
