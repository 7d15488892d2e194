// norvik_mtrie_pool_test.cpp - the three pools: order of handing out, charges, what is printed.
//
// The capacities and sizes are written here as numbers of their own, since they are limits of the hardware tables.

#include <cerrno>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "norvik_mtrie_pool.h"
#include "route_ids.h"
#include "route_table.h"

using namespace harness;

namespace
{
constexpr std::uint32_t ELEMENT_BYTES[3] = {1036, 40, 48};
constexpr std::int32_t CAPACITY[3] = {1024, 1024, 128};
constexpr std::uint32_t HW_FIRST[3] = {HW_NODES, HW_LEAVES, HW_ECMPS};
constexpr std::uint32_t HW_ELEMENT_BYTES[3] = {1024, 8, 32};

// A card with pools and no trees.
struct pools : testing::Test {
    fake_card card{2};
    void SetUp() override
    {
        ASSERT_EQ(mtrie_pool_init(), 0);
        card.forget();
    }
    void TearDown() override { EXPECT_EQ(mtrie_pool_check(), 0); }
};

// Takes a record of any type; its element address, 0 when none is left.
card_addr take(std::int32_t type, std::uint32_t tree)
{
    void *record = nullptr;
    if (type == MTRIE_POOL_NODE)
        record = mtrie_node_alloc_pool(tree);
    else if (type == MTRIE_POOL_LEAF)
        record = mtrie_leaf_alloc_pool(tree);
    else
        record = mtrie_ecmp_alloc_pool(tree);
    return record == nullptr ? 0 : card_addr_of(record) - 4;
}

void give_back(std::int32_t type, std::uint32_t tree, card_addr element)
{
    if (type == MTRIE_POOL_NODE)
        mtrie_node_free_pool(tree, card_at<mtrie_node>(element + 4));
    else if (type == MTRIE_POOL_LEAF)
        mtrie_leaf_free_pool(tree, card_at<mtrie_leaf>(element + 4));
    else
        mtrie_ecmp_free_pool(tree, card_at<mtrie_ecmp>(element + 4));
}

void take_all(std::int32_t type, std::uint32_t tree)
{
    while (mtrie_pools[type].count < CAPACITY[type])
        ASSERT_NE(take(type, tree), 0u);
}

std::string out_of_range_text(card_addr element, std::int32_t type)
{
    const mtrie_pool &pool = mtrie_pools[type];
    return text("\nfree_node_to_pool[159] :: node 0x%x being freed is not in range - type %d start 0x%x end 0x%x.\n",
                element, type, pool.start, pool.end);
}
} // namespace

TEST_F(pools, a_new_pool_has_its_capacity_free_and_is_charged_to_no_tree)
{
    for (int type = 0; type < 3; ++type) {
        const mtrie_pool &pool = mtrie_pools[type];
        const auto last = static_cast<std::uint32_t>(CAPACITY[type] - 1);
        EXPECT_EQ(pool.type, type);
        EXPECT_EQ(pool.elem_size, ELEMENT_BYTES[type]);
        EXPECT_EQ(pool.nelem, CAPACITY[type]);
        EXPECT_EQ(pool.count, 0);
        EXPECT_EQ(pool.end, pool.start + last * ELEMENT_BYTES[type]);
        EXPECT_EQ(pool.free_head, pool.start);
        EXPECT_EQ(pool.free_tail, pool.end);
        EXPECT_EQ(*card_at<std::uint32_t>(pool.start), pool.start + ELEMENT_BYTES[type]);
        EXPECT_EQ(*card_at<std::uint32_t>(pool.end), 0u);
        for (const std::int32_t charged : pool.tree_count)
            EXPECT_EQ(charged, 0);
    }
}

TEST_F(pools, the_storage_is_three_tracked_blocks_of_whole_elements)
{
    EXPECT_EQ(card.blocks(MTRACK_CP_POOL), 3u);
    EXPECT_EQ(card.all_blocks(), 3u);
    for (int type = 0; type < 3; ++type) {
        const auto block = card.heap.find(mtrie_pools[type].start);
        ASSERT_NE(block, card.heap.end()) << "pool " << type;
        EXPECT_EQ(block->second.bytes, static_cast<std::size_t>(CAPACITY[type]) * ELEMENT_BYTES[type]);
    }
}

TEST_F(pools, the_first_records_of_each_type_take_the_indices_from_0_in_address_order)
{
    for (int type = 0; type < 3; ++type)
        for (std::int32_t index = 0; index < 5; ++index) {
            const card_addr element = take(type, 9);
            EXPECT_EQ(mtrie_node_offset(type, element), index) << "pool " << type;
            EXPECT_EQ(mtrie_get_cp_node(type, index), element) << "pool " << type;
            EXPECT_EQ(mtrie_node_type(element), type);
        }
}

TEST_F(pools, the_node_after_the_1024th_is_refused_and_printed)
{
    take_all(MTRIE_POOL_NODE, 3);
    EXPECT_EQ(card.printed(), "");
    EXPECT_EQ(mtrie_pools[0].free_head, 0u);
    EXPECT_EQ(mtrie_pools[0].free_tail, 0u);

    EXPECT_EQ(mtrie_node_alloc_pool(3), nullptr);
    EXPECT_EQ(card.printed(), "\nmtrie_node_alloc_pool[245] :: Allocation of MTrie node failed.\n");
    EXPECT_EQ(mtrie_pools[0].count, 1024);
    EXPECT_EQ(mtrie_pools[0].tree_count[3], 1024);
}

TEST_F(pools, the_leaf_after_the_1024th_is_refused_and_printed)
{
    take_all(MTRIE_POOL_LEAF, 3);
    EXPECT_EQ(mtrie_leaf_alloc_pool(3), nullptr);
    EXPECT_EQ(card.printed(), "\nmtrie_leaf_alloc_pool[285] :: Allocation of MTrie leaf failed.\n");
    EXPECT_EQ(mtrie_pools[1].tree_count[3], 1024);
}

TEST_F(pools, the_ecmp_block_after_the_128th_is_refused_and_printed)
{
    take_all(MTRIE_POOL_ECMP, 3);
    EXPECT_EQ(mtrie_ecmp_alloc_pool(3), nullptr);
    EXPECT_EQ(card.printed(), "\nmtrie_ecmp_alloc_pool[322] :: Allocation of MTrie ecmp failed.\n");
    EXPECT_EQ(mtrie_pools[2].tree_count[3], 128);
}

TEST_F(pools, freeing_one_record_of_a_full_pool_makes_exactly_that_record_available_again)
{
    for (int type = 0; type < 3; ++type) {
        take_all(type, 1);
        const card_addr element = mtrie_get_cp_node(type, 77);
        give_back(type, 1, element);
        EXPECT_EQ(mtrie_pools[type].free_head, element);
        EXPECT_EQ(mtrie_pools[type].free_tail, element);
        EXPECT_EQ(take(type, 1), element);
        EXPECT_EQ(take(type, 1), 0u);
    }
}

TEST_F(pools, a_freed_record_is_handed_out_only_after_every_record_that_was_free_before_it)
{
    for (int type = 0; type < 3; ++type) {
        const card_addr first = take(type, 0), second = take(type, 0);
        give_back(type, 0, second);
        give_back(type, 0, first);
        for (std::int32_t index = 2; index < CAPACITY[type]; ++index)
            ASSERT_EQ(mtrie_node_offset(type, take(type, 0)), index) << "pool " << type;
        EXPECT_EQ(take(type, 0), second);
        EXPECT_EQ(take(type, 0), first);
    }
}

TEST_F(pools, the_charges_follow_the_tree_given_and_not_the_tree_that_took_the_record)
{
    mtrie_leaf *taken_by_5 = mtrie_leaf_alloc_pool(5);
    mtrie_leaf *taken_by_6 = mtrie_leaf_alloc_pool(6);
    ASSERT_NE(taken_by_5, nullptr);
    ASSERT_NE(taken_by_6, nullptr);

    mtrie_leaf_free_pool(5, taken_by_6);
    EXPECT_EQ(mtrie_pools[1].tree_count[5], 0);
    EXPECT_EQ(mtrie_pools[1].tree_count[6], 1);
    EXPECT_EQ(mtrie_pools[1].count, 1);
}

TEST_F(pools, the_statistics_of_a_tree_are_its_nodes_leaves_and_ecmp_blocks_in_this_order)
{
    take(MTRIE_POOL_NODE, 200);
    for (int i = 0; i < 2; ++i)
        take(MTRIE_POOL_LEAF, 200);
    for (int i = 0; i < 3; ++i)
        take(MTRIE_POOL_ECMP, 200);
    take(MTRIE_POOL_LEAF, 201);

    std::uint32_t counts[3] = {99, 99, 99};
    mtrie_get_stats(200, counts);
    EXPECT_EQ(counts[0], 1u);
    EXPECT_EQ(counts[1], 2u);
    EXPECT_EQ(counts[2], 3u);
}

TEST_F(pools, a_record_handed_out_again_is_zeroed_with_its_link_word)
{
    for (int type = 0; type < 3; ++type) {
        const card_addr element = take(type, 0);
        std::memset(card_at<std::byte>(element + 4), 0xA5, ELEMENT_BYTES[type] - 4);
        take_all(type, 0);
        give_back(type, 0, element);
        ASSERT_EQ(take(type, 0), element);
        for (std::uint32_t i = 0; i < ELEMENT_BYTES[type]; i += 4)
            ASSERT_EQ(*card_at<std::uint32_t>(element + i), 0u) << "pool " << type << " byte " << i;
    }
}

TEST_F(pools, taking_a_record_clears_its_hardware_slot_in_every_copy_and_nothing_beside_it)
{
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        for (std::uint32_t i = 0; i < HW_TABLE_BYTES; i += 4)
            *card_at<std::uint32_t>(card.memory(copy) + i) = 0xDEADBEE1;

    for (int type = 0; type < 3; ++type) {
        take(type, 0);
        take(type, 0);
        const std::uint32_t end = HW_FIRST[type] + 2 * HW_ELEMENT_BYTES[type];
        for (unsigned copy = 0; copy < NP_COPIES; ++copy) {
            for (std::uint32_t i = HW_FIRST[type]; i < end; i += 4)
                ASSERT_EQ(card.word(copy, i), 0u) << "copy " << copy << " offset " << i;
            EXPECT_EQ(card.word(copy, HW_FIRST[type] - 4), 0xDEADBEE1) << "copy " << copy << " pool " << type;
            EXPECT_EQ(card.word(copy, end), 0xDEADBEE1) << "copy " << copy << " pool " << type;
        }
    }
}

TEST_F(pools, freeing_a_leaf_is_printed_and_freeing_a_node_or_a_block_is_not)
{
    mtrie_leaf *leaf = mtrie_leaf_alloc_pool(0);
    mtrie_node_free_pool(0, mtrie_node_alloc_pool(0));
    mtrie_ecmp_free_pool(0, mtrie_ecmp_alloc_pool(0));
    EXPECT_EQ(card.printed(), "");

    mtrie_leaf_free_pool(0, leaf);
    EXPECT_EQ(card.printed(), text("\nmtrie_leaf_free_pool: Freeing leaf node %p\n", shown(leaf)));
}

TEST_F(pools, freeing_a_record_outside_its_pool_is_printed_and_changes_nothing)
{
    for (int type = 0; type < 3; ++type) {
        take(type, 0);
        const mtrie_pool before = mtrie_pools[type];
        const card_addr outside[] = {before.start - 4, before.end + ELEMENT_BYTES[type]};
        for (const card_addr element : outside) {
            card.forget();
            free_node_to_pool(0, type, element);
            EXPECT_EQ(card.printed(), out_of_range_text(element, type));
            EXPECT_EQ(std::memcmp(&before, &mtrie_pools[type], sizeof(before)), 0) << "pool " << type;
        }
    }
}

TEST(pools_death, a_count_over_the_capacity_ends_the_process_with_the_assertion)
{
    fake_card card(2);
    ASSERT_EQ(mtrie_pool_init(), 0);
    mtrie_pools[1].count = 1024;
    EXPECT_DEATH((void)mtrie_leaf_alloc_pool(0),
                 "norvik_mtrie_pool.*136.*allocate_node_from_pool.*pool->count <= pool->nelem");
}

TEST(pools_death, freeing_into_a_pool_with_nothing_in_use_ends_the_process_with_the_assertion)
{
    fake_card card(2);
    ASSERT_EQ(mtrie_pool_init(), 0);
    EXPECT_DEATH(mtrie_ecmp_free_pool(0, card_at<mtrie_ecmp>(mtrie_pools[2].start + 4)),
                 "norvik_mtrie_pool.*162.*free_node_to_pool.*pool->count");
}

TEST(pools_init, no_pool_is_built_when_the_hardware_set_up_fails)
{
    fake_card card(2);
    card.syscall_open_result = -ENOENT;
    EXPECT_EQ(mtrie_pool_init(), -1);
    EXPECT_EQ(card.all_blocks(), 0u);
    EXPECT_EQ(card.printed(), "\nmtrie_hw_map[100] :: Error opening Norvik system library.\n");
}

TEST(pools_init, storage_that_cannot_be_allocated_is_printed_and_the_pools_before_it_stay)
{
    for (unsigned type = 0; type < 3; ++type) {
        fake_card card(2);
        card.fail_alloc(MTRACK_CP_POOL, type + 1);
        errno = 0;
        EXPECT_EQ(mtrie_pool_init(), -2);
        const int reason = errno;
        EXPECT_EQ(card.printed(), text("\nmtrie_pool_init[221] :: failed to allocate memory for CP route pool type "
                                       "%u (%d).\n",
                                       type, reason));
        EXPECT_EQ(card.blocks(MTRACK_CP_POOL), type);
        for (unsigned built = 0; built < type; ++built)
            EXPECT_EQ(mtrie_pools[built].nelem, CAPACITY[built]);
    }
}
