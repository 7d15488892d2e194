// norvik_mtrie_slot_test.cpp - from a record's address to its type, index and back, at the edges of the pools.
#include "norvik_mtrie_slot.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "norvik_mtrie_pool.h"
#include "route_ids.h"

using namespace harness;

namespace
{
// A card with pools and no trees.
struct slots : testing::Test {
    fake_card card{2};
    void SetUp() override
    {
        ASSERT_EQ(mtrie_pool_init(), 0);
        card.forget();
    }
};

std::string no_pool_text(card_addr address)
{
    return text("<Ctx:0>\nmtrie_node_type[400] :: Problem, node is not Mnode, Mleaf, ecmp -node 0x%x node start/end "
                "0x%x/0x%x leaf start/end 0x%x/0x%x.\necmp start/end 0x%x/0x%x.\n",
                address, mtrie_pools[0].start, mtrie_pools[0].end, mtrie_pools[1].start, mtrie_pools[1].end,
                mtrie_pools[2].start, mtrie_pools[2].end);
}
} // namespace

TEST_F(slots, the_index_of_an_element_of_no_pool_is_0)
{
    EXPECT_EQ(mtrie_node_offset(3, mtrie_pools[2].end), 0);
    EXPECT_EQ(mtrie_node_offset(100, 1), 0);
    EXPECT_EQ(mtrie_node_offset(MTRIE_POOL_ECMP, mtrie_pools[2].end), 127);
    EXPECT_EQ(mtrie_node_offset(MTRIE_POOL_LEAF, mtrie_pools[1].end), 1023);
}

TEST_F(slots, the_index_of_an_address_below_the_pool_is_negative)
{
    EXPECT_EQ(mtrie_node_offset(MTRIE_POOL_LEAF, mtrie_pools[1].start - 80), -2);
}

TEST_F(slots, an_index_beyond_the_pool_has_no_element)
{
    EXPECT_EQ(mtrie_get_cp_node(MTRIE_POOL_ECMP, 128), 0u);
    EXPECT_EQ(mtrie_get_cp_node(MTRIE_POOL_ECMP, 127), mtrie_pools[2].end);
    EXPECT_EQ(mtrie_get_cp_node(MTRIE_POOL_NODE, 1024), 0u);
    EXPECT_EQ(mtrie_get_cp_node(MTRIE_POOL_NODE, 1023), mtrie_pools[0].end);
    EXPECT_EQ(mtrie_get_cp_node(MTRIE_POOL_LEAF, 1024), 0u);
    EXPECT_EQ(mtrie_get_cp_node(MTRIE_POOL_LEAF, 1023), mtrie_pools[1].end);
    EXPECT_EQ(mtrie_get_cp_node(MTRIE_POOL_NONE, 0), 0u);
    EXPECT_EQ(mtrie_get_cp_node(-1, 0), 0u);
}

TEST_F(slots, a_negative_index_is_not_refused)
{
    EXPECT_EQ(mtrie_get_cp_node(MTRIE_POOL_LEAF, -1), mtrie_pools[1].start - 40);
}

TEST_F(slots, an_address_one_element_past_the_end_is_in_no_pool_and_is_logged)
{
    const card_addr past = mtrie_pools[2].end + 48;
    EXPECT_EQ(mtrie_node_type(past), MTRIE_POOL_NONE);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), std::vector<std::string>{no_pool_text(past)});
    EXPECT_EQ(card.printed(), "");
}

TEST_F(slots, the_first_and_the_last_element_of_each_pool_are_of_its_type_and_nothing_is_logged)
{
    for (int type = 0; type < 3; ++type) {
        EXPECT_EQ(mtrie_node_type(mtrie_pools[type].start), type);
        EXPECT_EQ(mtrie_node_type(mtrie_pools[type].end), type);
    }
    EXPECT_TRUE(card.history.empty());
}

TEST_F(slots, the_classification_goes_to_the_debug_output_without_the_context_prefix)
{
    card.open_history(ROUTE_DBG_ERRORS, false);
    card.open_debug(ROUTE_DBG_ERRORS, true);
    EXPECT_EQ(mtrie_node_type(1), MTRIE_POOL_NONE);
    ASSERT_EQ(card.debug.size(), 1u);
    EXPECT_EQ(card.debug[0].ctx, 0);
    EXPECT_EQ("<Ctx:0>" + card.debug[0].text, no_pool_text(1));
    EXPECT_TRUE(card.history.empty());
}
