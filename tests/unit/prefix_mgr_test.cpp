// prefix_mgr_test.cpp - the manager of the trees: set-up, and the two ways by which the RIB changes a tree.
//
// The manager only chooses: what leaves and blocks then hold is pinned with the leaf operations. Here are its results,
// its texts in their contexts, and what is charged to whom.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "norvik_mtrie.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "prefix_mgr.h"
#include "route_ids.h"

using namespace harness;

namespace
{
using texts = std::vector<std::string>;

route_entry route(std::uint32_t prefix, std::uint32_t length, std::uint16_t encap, std::uint16_t ifid,
                  std::uint16_t flags = 0)
{
    route_entry entry{};
    entry.prefix = prefix;
    entry.len = length;
    entry.ctx = 3;
    entry.route_id = 17; // unlike the context, to tell the two apart
    entry.encap_id = encap;
    entry.ifid = ifid;
    entry.flags = flags;
    return entry;
}

struct manager : testing::Test {
    fake_card card{2};
    void SetUp() override
    {
        ASSERT_EQ(card.start_tables(), 0);
        card.forget();
    }
    void TearDown() override { EXPECT_EQ(mtrie_pool_check(), 0); }

    static std::uint32_t add(const route_entry &entry) { return prefix_mgr_route_add(wired_table_mgr, &entry); }
    static std::uint32_t remove(const route_entry &entry) { return prefix_mgr_route_remove(wired_table_mgr, &entry); }
    static mtrie_leaf *leaf(std::uint32_t prefix, std::uint32_t mask)
    {
        return mtrie_lookup_exact(mtrie_get_root_node(17), prefix, mask);
    }
};

// A manager of `trees` trees on pools without any.
int set_up(card_ptr<prefix_mgr> *made, std::uint32_t trees)
{
    return prefix_mgr_init(made, va_wired_base, 0x1400000, 8, 9, trees, 10, 11, 12, "wired_Route");
}
} // namespace

// --- Set-up

TEST_F(manager, tree_17_is_named_after_its_number_and_every_tree_is_there)
{
    EXPECT_STREQ(wired_table_mgr->name, "wired_Route");
    EXPECT_EQ(wired_table_mgr->num_trees, 256u);
    EXPECT_EQ(wired_table_mgr->base, va_wired_base);
    EXPECT_EQ(wired_table_mgr->root_stride, 8u);
    EXPECT_EQ(wired_table_mgr->node_stride, 8u);
    for (std::uint32_t id = 0; id < 256; ++id) {
        const prefix_tree *tree = wired_table_mgr->trees.get()[id];
        ASSERT_NE(tree, nullptr);
        EXPECT_EQ(std::string(tree->name), "wired_Route" + std::to_string(id));
    }
    EXPECT_STREQ(wired_table_mgr->trees.get()[17]->name, "wired_Route17");
}

TEST_F(manager, every_tree_takes_one_node_and_one_leaf_and_answers_with_its_default_leaf)
{
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_NODE].count, 256);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_LEAF].count, 256);
    for (std::uint32_t id = 0; id < 256; ++id) {
        std::uint32_t counts[3];
        mtrie_get_stats(id, counts);
        EXPECT_EQ(counts[0], 1u);
        EXPECT_EQ(counts[1], 1u);
        EXPECT_EQ(counts[2], 0u);
        mtrie_node *root = mtrie_get_root_node(id);
        ASSERT_NE(root, nullptr);
        EXPECT_EQ(root->stride, 8u);
        EXPECT_EQ(mtrie_longest_match(root, IP(1, 2, 3, 4)), norvik_leaf_default[id].get());
        EXPECT_EQ(mtrie_check(root, nullptr), 0);
    }
    EXPECT_EQ(mtrie_hw_check(), 0);
}

TEST_F(manager, the_table_of_a_new_tree_is_empty_and_the_block_made_for_it_is_left_alone)
{
    for (std::uint32_t id = 0; id < 256; ++id)
        for (const auto &row : wired_table_mgr->trees.get()[id]->table)
            for (const card_ptr<route_entry> bucket : row)
                ASSERT_EQ(bucket.addr(), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_TABLE), 256u);
    EXPECT_EQ(card.blocks(MTRACK_PREFIX_TREE), 256u);
    EXPECT_EQ(card.blocks(MTRACK_PREFIX_MGR), 1u);
    EXPECT_EQ(card.blocks(MTRACK_PREFIX_MGR_TREES), 1u);
    EXPECT_EQ(card.heap[card_addr_of(wired_table_mgr)].bytes, 84u);
    EXPECT_EQ(card.heap[wired_table_mgr->trees.addr()].bytes, 1024u);
    EXPECT_EQ(card.heap[card_addr_of(wired_table_mgr->trees.get()[0])].bytes, 4152u);
}

TEST_F(manager, each_tree_carries_the_print_callback_twice)
{
    const prefix_tree *tree = wired_table_mgr->trees.get()[8];
    EXPECT_NE(tree->print[0], 0u);
    EXPECT_EQ(tree->print[0], tree->print[1]);
}

TEST(manager_set_up, the_settings_are_kept_in_their_order_and_no_tree_is_made_for_0_trees)
{
    fake_card card(2);
    ASSERT_EQ(mtrie_pool_init(), 0);
    card_ptr<prefix_mgr> made;
    ASSERT_EQ(set_up(&made, 0), 0);
    ASSERT_NE(made.addr(), 0u);
    EXPECT_EQ(made->root_stride, 8u);
    EXPECT_EQ(made->node_stride, 9u);
    EXPECT_EQ(made->num_trees, 0u);
    EXPECT_EQ(card.blocks(MTRACK_PREFIX_TREE), 0u);
    EXPECT_STREQ(made->name, "wired_Route");
}

TEST(manager_set_up, a_name_is_cut_to_49_characters)
{
    fake_card card(2);
    ASSERT_EQ(mtrie_pool_init(), 0);
    card_ptr<prefix_mgr> made;
    const std::string name(60, 'n');
    ASSERT_EQ(prefix_mgr_init(&made, va_wired_base, 0x1400000, 8, 8, 1, 8, 1, 1, name.c_str()), 0);
    EXPECT_EQ(std::string(made->name), std::string(49, 'n'));
    EXPECT_EQ(std::string(made->trees.get()[0]->name), std::string(49, 'n'));
}

TEST(manager_set_up, a_null_slot_is_refused_with_5)
{
    fake_card card(2);
    ASSERT_EQ(mtrie_pool_init(), 0);
    card.forget();
    EXPECT_EQ(prefix_mgr_tree_create(nullptr, "some name", 4, 8, 1, 1), 5);
    EXPECT_EQ(card.lines(), texts{"100 <Ctx:0>Invalid argument passed to prefix_mgr_tree_create, tree some name\n"});
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_NODE].count, 0);
}

TEST(manager_set_up, a_tree_without_memory_for_its_record_is_refused_with_3)
{
    fake_card card(2);
    ASSERT_EQ(mtrie_pool_init(), 0);
    card_ptr<prefix_tree> slot;
    card.fail_alloc(MTRACK_PREFIX_TREE, 1);
    EXPECT_EQ(prefix_mgr_tree_create(&slot, "wired_Route4", 4, 8, 1, 1), 3);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              texts{"<Ctx:0>Cannot allocate memory for tree creationg, tree wired_Route4\n"});
    EXPECT_EQ(slot.addr(), 0u);
}

TEST(manager_set_up, a_tree_without_a_root_is_refused_with_3_and_its_record_stays_allocated)
{
    fake_card card(2);
    ASSERT_EQ(mtrie_pool_init(), 0);
    while (mtrie_pools[MTRIE_POOL_NODE].count < 1024)
        ASSERT_NE(mtrie_node_alloc_pool(0), nullptr);
    card_ptr<prefix_tree> slot;
    EXPECT_EQ(prefix_mgr_tree_create(&slot, "wired_Route4", 4, 8, 1, 1), 3);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), texts{"<Ctx:0>Cannot allocate memory for root .\n"});
    EXPECT_EQ(slot.addr(), 0u);
    EXPECT_EQ(card.blocks(MTRACK_PREFIX_TREE), 1u);
}

TEST(manager_set_up, a_tree_without_a_default_leaf_is_made_with_empty_slots)
{
    fake_card card(2);
    ASSERT_EQ(mtrie_pool_init(), 0);
    while (mtrie_pools[MTRIE_POOL_LEAF].count < 1024)
        ASSERT_NE(mtrie_leaf_alloc_pool(0), nullptr);
    card_ptr<prefix_tree> slot;
    EXPECT_EQ(prefix_mgr_tree_create(&slot, "wired_Route4", 4, 8, 1, 1), 0);
    EXPECT_NE(slot.addr(), 0u);
    EXPECT_EQ(norvik_leaf_default[4].addr(), 0u);
    ASSERT_NE(mtrie_get_root_node(4), nullptr);
    EXPECT_EQ(mtrie_longest_match(mtrie_get_root_node(4), IP(1, 2, 3, 4)), nullptr);
}

TEST(manager_set_up, a_trees_root_is_filled_in_a_copy_before_its_root_word_is_stored_there)
{
    fake_card card(2);
    ASSERT_EQ(mtrie_pool_init(), 0);
    card.journal_on = true;
    card_ptr<prefix_tree> slot;
    ASSERT_EQ(prefix_mgr_tree_create(&slot, "wired_Route5", 5, 8, 1, 1), 0);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy) {
        unsigned named = 0;
        for (const fake_store &store : card.journal) {
            const std::uint32_t offset = store.address - card.memory(copy);
            if (offset == 4 * 5)
                break;
            named += offset >= HW_NODES && offset < HW_NODES + HW_NODE_BYTES && store.value != 0 ? 1u : 0u;
        }
        EXPECT_EQ(named, 256u) << "copy " << copy;
    }
}

TEST(manager_set_up, a_third_tree_that_cannot_be_made_frees_the_manager_but_not_the_trees)
{
    fake_card card(2);
    ASSERT_EQ(mtrie_pool_init(), 0);
    card.fail_alloc(MTRACK_PREFIX_TREE, 3);
    card_ptr<prefix_mgr> made;
    EXPECT_EQ(set_up(&made, 256), 3);
    EXPECT_EQ(made.addr(), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (texts{"<Ctx:0>Cannot allocate memory for tree creationg, tree wired_Route2\n",
                     "<Ctx:0>mgr_init: free tree \n"}));
    EXPECT_EQ(card.blocks(MTRACK_PREFIX_TREE), 2u);
    EXPECT_EQ(card.blocks(MTRACK_PREFIX_MGR), 0u);
    EXPECT_EQ(card.blocks(MTRACK_PREFIX_MGR_TREES), 0u);
}

TEST(manager_set_up, a_manager_or_an_array_without_memory_is_refused_with_3_and_nothing_is_held)
{
    for (const std::uint32_t type : {MTRACK_PREFIX_MGR, MTRACK_PREFIX_MGR_TREES}) {
        fake_card card(2);
        ASSERT_EQ(mtrie_pool_init(), 0);
        card.fail_alloc(type, 1);
        card_ptr<prefix_mgr> made;
        EXPECT_EQ(set_up(&made, 256), 3);
        EXPECT_EQ(made.addr(), 0u);
        EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), texts{"<Ctx:0>mgr_init: free tree \n"});
        EXPECT_EQ(card.blocks(MTRACK_PREFIX_MGR), 0u);
        EXPECT_EQ(card.blocks(MTRACK_PREFIX_MGR_TREES), 0u);
    }
}

// --- Adding

TEST_F(manager, a_new_route_is_inserted_in_the_tree_of_its_route_id_and_charged_to_its_context)
{
    EXPECT_EQ(add(route(IP(10, 1, 0, 0), 16, 21, 22)), 1u);
    const mtrie_leaf *made = leaf(IP(10, 1, 0, 0), 0xFFFF0000);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->adjacency, 0x00160015u);
    EXPECT_EQ(mtrie_lookup_exact(mtrie_get_root_node(3), IP(10, 1, 0, 0), 0xFFFF0000), nullptr);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_LEAF].tree_count[3], 2);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_NODE].tree_count[3], 2);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_LEAF].tree_count[17], 1);
    EXPECT_EQ(card.lines(),
              (texts{"105 <Ctx:3>prefix_mgr_route_add: enter w/ address and mask: 0a010000/16, route_id 17 encap 21 "
                     "ifid 22\n",
                     "105 <Ctx:3>prefix_mgr_route_add: tree_add  OK w/ address and mask: 0a010000/16, tree "
                     "wired_Route17 routeid 17\n"}));
    EXPECT_EQ(np_find(card, 1, 17, IP(10, 1, 9, 9)).adjacency, 0x00160015u);
    EXPECT_EQ(mtrie_hw_check(), 0);
}

TEST_F(manager, the_same_route_again_is_answered_with_2_reported_as_added_and_takes_a_leaf_each_time)
{
    ASSERT_EQ(add(route(IP(10, 1, 0, 0), 16, 21, 22)), 1u);
    for (std::int32_t repeat = 1; repeat <= 3; ++repeat) {
        card.forget();
        EXPECT_EQ(add(route(IP(10, 1, 0, 0), 16, 23, 24)), 2u);
        EXPECT_EQ(card.lines(),
                  (texts{"105 <Ctx:3>prefix_mgr_route_add: enter w/ address and mask: 0a010000/16, route_id 17 encap "
                         "23 ifid 24\n",
                         "100 <Ctx:3>leaf insert fail(2):0xa010000/16",
                         "105 <Ctx:3>prefix_mgr_route_add: tree_add  OK w/ address and mask: 0a010000/16, tree "
                         "wired_Route17 routeid 17\n"}));
        EXPECT_EQ(mtrie_pools[MTRIE_POOL_LEAF].tree_count[3], 2 + repeat);
    }
    EXPECT_EQ(leaf(IP(10, 1, 0, 0), 0xFFFF0000)->adjacency, 0x00160015u);
}

TEST_F(manager, an_ecmp_route_that_is_there_becomes_an_extra_path_of_its_leaf)
{
    ASSERT_EQ(add(route(IP(10, 1, 0, 0), 16, 21, 22)), 1u);
    card.forget();
    EXPECT_EQ(add(route(IP(10, 1, 0, 0), 16, 23, 24, RIB_F_ECMP)), 1u);
    const mtrie_leaf *made = leaf(IP(10, 1, 0, 0), 0xFFFF0000);
    ASSERT_NE(made->ecmp.addr(), 0u);
    EXPECT_EQ(made->ecmp->hw[1], 24u << 18 | 23);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_ECMP].tree_count[3], 1);
    EXPECT_EQ(card.lines(),
              (texts{"105 <Ctx:3>prefix_mgr_route_add: enter w/ address and mask: 0a010000/16, route_id 17 encap 23 "
                     "ifid 24\n",
                     text("105 <Ctx:3>\nmtrie_ecmp_insert_stub[60] :: ecmp allocated 0x%x.\n", made->ecmp.addr())}));
}

TEST_F(manager, an_ecmp_route_that_is_not_there_is_inserted_as_a_leaf_of_its_own)
{
    EXPECT_EQ(add(route(IP(10, 1, 0, 0), 16, 23, 24, RIB_F_ECMP)), 1u);
    EXPECT_EQ(leaf(IP(10, 1, 0, 0), 0xFFFF0000)->adjacency, 0x00180017u);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_ECMP].count, 0);
}

TEST_F(manager, an_ecmp_slash_0_becomes_a_path_of_the_default_leaf)
{
    EXPECT_EQ(add(route(0, 0, 23, 24, RIB_F_ECMP)), 1u);
    const mtrie_leaf *standard = norvik_leaf_default[17];
    ASSERT_NE(standard->ecmp.addr(), 0u);
    EXPECT_EQ(standard->ecmp->hw[1], 24u << 18 | 23);
    EXPECT_EQ(standard->adjacency, 0x40000000u);
}

TEST_F(manager, the_flags_of_a_route_reach_its_leaf)
{
    EXPECT_EQ(add(route(IP(10, 1, 0, 0), 16, 1, 2, RIB_F_CONNECTED)), 1u);
    EXPECT_EQ(add(route(IP(10, 2, 0, 0), 16, 1, 2, RIB_F_NAT)), 1u);
    EXPECT_EQ(leaf(IP(10, 1, 0, 0), 0xFFFF0000)->adjacency, 0x80020001u);
    EXPECT_EQ(leaf(IP(10, 2, 0, 0), 0xFFFF0000)->adjacency, 0x20020001u);
}

TEST_F(manager, a_host_route_has_a_mask_of_32_bits)
{
    EXPECT_EQ(add(route(IP(10, 1, 2, 3), 32, 1, 2)), 1u);
    EXPECT_NE(leaf(IP(10, 1, 2, 3), 0xFFFFFFFF), nullptr);
    EXPECT_EQ(remove(route(IP(10, 1, 2, 3), 32, 1, 2)), 1u);
}

TEST_F(manager, adding_to_a_route_id_without_a_root_reports_a_null_mtrie_and_answers_0)
{
    *card_at<std::uint32_t>(card.memory(0) + 17 * 4) = 0;
    EXPECT_EQ(add(route(IP(10, 1, 0, 0), 16, 21, 22)), 0u);
    EXPECT_EQ(card.lines(),
              (texts{"105 <Ctx:3>prefix_mgr_route_add: enter w/ address and mask: 0a010000/16, route_id 17 encap 21 "
                     "ifid 22\n",
                     "100 <Ctx:3>prefix_mgr_route_add: Null MTrie, cannot insert route. w/ address and mask: "
                     "0a010000/16, treeid 11\n"}));
    EXPECT_EQ(card.printed(), "");
}

TEST_F(manager, an_add_without_a_node_is_reported_and_cleaned_up)
{
    while (mtrie_pools[MTRIE_POOL_NODE].count < 1024)
        ASSERT_NE(mtrie_node_alloc_pool(0), nullptr);
    card.forget();
    EXPECT_EQ(add(route(IP(10, 1, 0, 0), 16, 21, 22)), 0u);
    EXPECT_EQ(card.lines(),
              (texts{"105 <Ctx:3>prefix_mgr_route_add: enter w/ address and mask: 0a010000/16, route_id 17 encap 21 "
                     "ifid 22\n",
                     "100 <Ctx:3>leaf insert fail(0):0xa010000/16",
                     "100 <Ctx:3>prefix_mgr_route_add: tree_add  FAILED w/ address and mask: 0a010000/16, treeid "
                     "11\n"}));
    const std::string out = card.printed(), end = "\nRoute to delete not found.\n";
    ASSERT_GE(out.size(), end.size());
    EXPECT_EQ(out.substr(out.size() - end.size()), end);
    EXPECT_EQ(np_find(card, 0, 17, IP(10, 1, 0, 0)).adjacency, 0u);
}

TEST_F(manager, a_repeat_for_which_no_leaf_is_left_takes_the_route_itself_away)
{
    ASSERT_EQ(add(route(IP(10, 1, 0, 0), 16, 21, 22)), 1u);
    while (mtrie_pools[MTRIE_POOL_LEAF].count < 1024)
        ASSERT_NE(mtrie_leaf_alloc_pool(0), nullptr);
    card.forget();
    EXPECT_EQ(add(route(IP(10, 1, 0, 0), 16, 23, 24)), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (texts{"<Ctx:3>leaf alloc fail:0xa010000/16",
                     "<Ctx:3>prefix_mgr_route_add: tree_add  FAILED w/ address and mask: 0a010000/16, treeid 11\n"}));
    EXPECT_EQ(leaf(IP(10, 1, 0, 0), 0xFFFF0000), nullptr); // the clean-up finds the route that was there
}

TEST_F(manager, the_clean_up_of_a_failed_add_gives_the_records_back_for_the_routes_context)
{
    ASSERT_EQ(add(route(IP(10, 1, 0, 0), 16, 21, 22)), 1u);
    while (mtrie_pools[MTRIE_POOL_LEAF].count < 1024)
        ASSERT_NE(mtrie_leaf_alloc_pool(0), nullptr);
    ASSERT_EQ(add(route(IP(10, 1, 0, 0), 16, 23, 24)), 0u);
    for (const std::int32_t type : {MTRIE_POOL_NODE, MTRIE_POOL_LEAF})
        for (const unsigned tree : {3u, 17u})
            EXPECT_EQ(mtrie_pools[type].tree_count[tree], 1) << "pool " << type << " tree " << tree;
}

// --- Removing

TEST_F(manager, a_removed_route_is_gone_and_its_records_are_free)
{
    ASSERT_EQ(add(route(IP(10, 1, 0, 0), 16, 21, 22)), 1u);
    card.forget();
    EXPECT_EQ(remove(route(IP(10, 1, 0, 0), 16, 21, 22)), 1u);
    EXPECT_EQ(card.lines(),
              (texts{"105 <Ctx:3>prefix_mgr_route_remove: enter w/ address and mask: 0a010000/16, route_id 17 encap 21 "
                     "ifid 22\n",
                     "105 <Ctx:3>prefix_mgr_route_remove: tree_remove  OK w/ address and mask: 0a010000/16, tree "
                     "wired_Route17\n"}));
    EXPECT_EQ(leaf(IP(10, 1, 0, 0), 0xFFFF0000), nullptr);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_NODE].count, 256);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_LEAF].count, 256);
    EXPECT_EQ(mtrie_hw_check(), 0);
}

TEST_F(manager, removing_a_route_that_is_not_there_is_printed_and_reported)
{
    EXPECT_EQ(remove(route(IP(10, 1, 0, 0), 16, 21, 22)), 0u);
    EXPECT_EQ(card.printed(), "\nRoute to delete not found.\n");
    EXPECT_EQ(card.lines(),
              (texts{"105 <Ctx:3>prefix_mgr_route_remove: enter w/ address and mask: 0a010000/16, route_id 17 encap 21 "
                     "ifid 22\n",
                     "100 <Ctx:3>prefix_mgr_route_remove: tree_remove  FAILED w/ address and mask: 0a010000/16, treeid "
                     "11\n"}));
}

TEST_F(manager, removing_from_a_route_id_without_a_root_reports_a_null_mtrie_and_answers_0)
{
    *card_at<std::uint32_t>(card.memory(0) + 17 * 4) = 0;
    EXPECT_EQ(remove(route(IP(10, 1, 0, 0), 16, 21, 22)), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              texts{"<Ctx:3>prefix_mgr_route_remove: Null MTrie, cannot remove route. w/ address and mask: "
                    "0a010000/16, treeid 11\n"});
    EXPECT_EQ(card.printed(), "");
}

TEST_F(manager, removing_from_a_leaf_with_a_block_removes_one_path_whatever_the_flags)
{
    ASSERT_EQ(add(route(IP(10, 1, 0, 0), 16, 21, 22)), 1u);
    ASSERT_EQ(add(route(IP(10, 1, 0, 0), 16, 23, 24, RIB_F_ECMP)), 1u);
    card.forget();
    EXPECT_EQ(remove(route(IP(10, 1, 0, 0), 16, 21, 22)), 1u);
    EXPECT_EQ(card.lines(),
              texts{"105 <Ctx:3>prefix_mgr_route_remove: enter w/ address and mask: 0a010000/16, route_id "
                    "17 encap 21 ifid 22\n"});
    const mtrie_leaf *made = leaf(IP(10, 1, 0, 0), 0xFFFF0000);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->adjacency, 0x00180017u);
    EXPECT_EQ(remove(route(IP(10, 1, 0, 0), 16, 99, 99)), 1u); // a leaf without a block goes whatever its path
    EXPECT_EQ(leaf(IP(10, 1, 0, 0), 0xFFFF0000), nullptr);
}

TEST_F(manager, removing_an_unknown_path_answers_0)
{
    ASSERT_EQ(add(route(IP(10, 1, 0, 0), 16, 21, 22)), 1u);
    ASSERT_EQ(add(route(IP(10, 1, 0, 0), 16, 23, 24, RIB_F_ECMP)), 1u);
    card.forget();
    EXPECT_EQ(remove(route(IP(10, 1, 0, 0), 16, 50, 51, RIB_F_ECMP)), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              texts{"<Ctx:3>\n remove ecmp but can't locate entry, flags 40, ifid 33. encap 32\n"});
}
