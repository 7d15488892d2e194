// norvik_init_test.cpp - the per-context trees at start-up and the way to a context's table.
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "norvik_init.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_pool.h"
#include "prefix_mgr.h"
#include "route_log.h"

using namespace harness;

namespace
{

using strings = std::vector<std::string>;

std::string hex(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

} // namespace

TEST(norvik_init, every_context_has_a_tree_of_its_own)
{
    fake_card card;
    ASSERT_EQ(card.start_tables(), 0);
    std::set<prefix_tree *> trees;
    for (std::uint32_t ctx = 0; ctx < 256; ++ctx) {
        prefix_tree *tree = norvik_get_t(ctx);
        ASSERT_NE(tree, nullptr) << "context " << ctx;
        EXPECT_EQ(std::string(tree->name), "wired_Route" + std::to_string(ctx));
        trees.insert(tree);
    }
    EXPECT_EQ(trees.size(), 256u);
}

TEST(norvik_init, only_the_low_16_bits_of_a_context_count)
{
    fake_card card;
    ASSERT_EQ(card.start_tables(), 0);
    EXPECT_EQ(norvik_get_t(0x10005), norvik_get_t(5));
    EXPECT_EQ(norvik_get_t(0xFFFF00FF), norvik_get_t(255));
}

TEST(norvik_init, before_the_manager_exists_every_context_is_empty)
{
    fake_card card;
    for (const std::uint32_t ctx : {0u, 5u, 255u}) {
        const prefix_tree *tree = norvik_get_t(ctx);
        ASSERT_NE(tree, nullptr);
        for (const auto &row : tree->table)
            for (const card_ptr<route_entry> &bucket : row)
                EXPECT_EQ(bucket.addr(), 0u);
    }
}

TEST(norvik_init, success_reports_the_regions_addresses_as_errors)
{
    fake_card card;
    card.wired_phys_base = 0x0A000000;
    ASSERT_EQ(mtrie_pool_init(), 0);
    card.forget();
    EXPECT_EQ(norvik_init_ixp_fib(), 0);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (strings{"<Ctx:0>main: init wired region - 256 tree done. \n",
                       "<Ctx:0>main: init wired region. va_wired_base " + hex(va_wired_base) +
                           ", wired_route_phys_base 0xa000000\n",
                       "<Ctx:0>main: init wired region. va_ixp1_dram_base " + hex(va_ixp1_dram_base) + "\n",
                       "<Ctx:0>main: init wired region. va_ixp2_dram_base " + hex(va_ixp2_dram_base) + "\n"}));
    EXPECT_EQ(va_wired_base, card.memory(0));
    EXPECT_EQ(va_ixp1_dram_base, card.memory(1));
    EXPECT_EQ(va_ixp2_dram_base, card.memory(2));
}

TEST(norvik_init, with_one_processor_the_second_base_is_reported_as_0)
{
    fake_card card(1);
    ASSERT_EQ(card.start_tables(), 0);
    EXPECT_TRUE(card.has_line(ROUTE_DBG_ERRORS, "<Ctx:0>main: init wired region. va_ixp2_dram_base 0x0\n"));
}

TEST(norvik_init, the_manager_keeps_the_geometry_that_it_was_given)
{
    fake_card card;
    ASSERT_EQ(card.start_tables(), 0);
    const prefix_mgr *manager = wired_table_mgr;
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(manager->base, va_wired_base);
    EXPECT_EQ(manager->root_stride, 8u);
    EXPECT_EQ(manager->node_stride, 8u);
    EXPECT_EQ(manager->num_trees, 256u);
    EXPECT_EQ(manager->settings[0], 1u);
    EXPECT_EQ(manager->settings[1], 1u);
    EXPECT_EQ(manager->setting, 8u);
    EXPECT_EQ(std::string(manager->name), "wired_Route");
}

TEST(norvik_init, a_third_tree_that_cannot_be_made_is_logged_by_the_manager_and_then_here)
{
    fake_card card;
    ASSERT_EQ(mtrie_pool_init(), 0);
    card.forget();
    card.fail_alloc(MTRACK_PREFIX_TREE, 3);
    EXPECT_EQ(norvik_init_ixp_fib(), 3);
    const strings errors = card.texts(ROUTE_DBG_ERRORS);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors[0].substr(errors[0].find('>') + 1),
              "Cannot allocate memory for tree creationg, tree wired_Route2\n");
    EXPECT_EQ(errors[1], "<Ctx:0>mgr_init: free tree \n");
    EXPECT_EQ(errors[2], "<Ctx:0>norvik_init_ixp_fib: wired_region_init failed\n");
    EXPECT_EQ(wired_table_mgr.addr(), 0u);
    EXPECT_EQ(card.blocks(MTRACK_PREFIX_MGR), 0u);
    EXPECT_EQ(card.blocks(MTRACK_PREFIX_MGR_TREES), 0u);
    EXPECT_EQ(card.blocks(MTRACK_PREFIX_TREE), 2u) << "trees already made are not freed";
}

TEST(norvik_init, a_manager_without_memory_is_result_3)
{
    for (const std::uint32_t type : {MTRACK_PREFIX_MGR, MTRACK_PREFIX_MGR_TREES}) {
        fake_card card;
        ASSERT_EQ(mtrie_pool_init(), 0);
        card.forget();
        card.fail_alloc(type, 1);
        EXPECT_EQ(norvik_init_ixp_fib(), 3) << "type " << type;
        EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).back(), "<Ctx:0>norvik_init_ixp_fib: wired_region_init failed\n");
        EXPECT_EQ(card.blocks(MTRACK_PREFIX_MGR), 0u);
    }
}
