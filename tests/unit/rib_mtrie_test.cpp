// rib_mtrie_test.cpp - an entry of the RIB in and out of the forwarding table.
#include "rib_mtrie.h"

#include "mtrack.h"
#include "norvik_mtrie_leaf.h"
#include "rib_card.h"
#include "route_ids.h"
#include "route_table.h"

using namespace harness;

namespace
{

constexpr std::uint32_t NET = IP(10, 9, 0, 0);

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
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "prefix_mgr"), text_lines{}) << "the trie's prefixes are left alone";
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "rib_remove_mtrie_route"), text_lines{});
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
    EXPECT_EQ(card.lines(), text_lines{});
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
