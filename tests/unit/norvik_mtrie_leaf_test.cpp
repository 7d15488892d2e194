// norvik_mtrie_leaf_test.cpp - routes as leaves and ECMP blocks, and the default leaf; record and hardware together.
//
// Each refusal is pinned with its text, with its result, and with what it leaves behind.

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "norvik_mtrie.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "route_ids.h"

using namespace harness;

namespace
{
constexpr std::uint32_t TREE = 5;
constexpr std::uint32_t NET = IP(10, 1, 0, 0), MASK = 0xFFFF0000;
using texts = std::vector<std::string>;

struct leaves : testing::Test {
    fake_card card{2};
    mtrie_node *root = nullptr;

    void SetUp() override
    {
        ASSERT_EQ(card.start_tables(), 0);
        root = mtrie_get_root_node(TREE);
        ASSERT_NE(root, nullptr);
        card.forget();
    }
    // The route NET with encap id 1 and ifid 1; its leaf.
    mtrie_leaf *route()
    {
        EXPECT_EQ(mtrie_leaf_insert_stub(root, NET, MASK, 1, 1, 0, TREE), 1u);
        card.forget();
        return mtrie_lookup_exact(root, NET, MASK);
    }
    // The same with the extra paths 2 to `paths` (path n: encap id n, ifid n).
    mtrie_leaf *route_of(std::uint32_t paths)
    {
        mtrie_leaf *leaf = route();
        for (std::uint32_t path = 2; path <= paths; ++path)
            EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, path, path, 0x40), 1u);
        card.forget();
        return leaf;
    }
    void expect_hardware(const mtrie_leaf *leaf)
    {
        for (unsigned copy = 0; copy < NP_COPIES; ++copy) {
            EXPECT_EQ(card.word(copy, hw_leaf(leaf)), leaf->adjacency) << "copy " << copy;
            const std::uint32_t block = leaf->ecmp ? (card.table(copy).base + hw_block(leaf->ecmp)) : 0;
            EXPECT_EQ(card.word(copy, hw_leaf(leaf) + 4), block) << "copy " << copy;
            for (unsigned i = 0; leaf->ecmp && i < ECMP_WORDS; ++i)
                EXPECT_EQ(card.word(copy, hw_block(leaf->ecmp) + 4 * i), leaf->ecmp->hw[i]) << copy << " word " << i;
        }
        EXPECT_EQ(mtrie_hw_check(), 0);
        EXPECT_EQ(mtrie_pool_check(), 0);
    }
    mtrie_leaf *default_leaf() { return norvik_leaf_default[TREE]; }
    // The stores of the journal to one copy of a leaf and its block, in order: words of the leaf as L0 and L1, of the
    // block as B0 to B7. An address of the block is written as "block".
    std::string stores_of(unsigned copy, const mtrie_leaf *leaf, std::uint32_t block) const
    {
        std::string all;
        for (const fake_store &store : card.journal) {
            const std::uint32_t in_leaf = store.address - card.memory(copy) - hw_leaf(leaf);
            const std::uint32_t in_block = store.address - card.memory(copy) - block;
            const bool is_address = store.value == (card.table(copy).base + block);
            const std::string value = is_address ? "block" : text("%x", store.value);
            if (in_leaf < HW_LEAF_BYTES)
                all += text("L%u=", in_leaf / 4) + value + " ";
            else if (in_block < HW_ECMP_BYTES)
                all += text("B%u=", in_block / 4) + value + " ";
        }
        return all;
    }
    void expect_stores(const mtrie_leaf *leaf, std::uint32_t block, const std::string &expected) const
    {
        for (unsigned copy = 0; copy < NP_COPIES; ++copy)
            EXPECT_EQ(stores_of(copy, leaf, block), expected) << "copy " << copy;
    }
    texts line(const std::string &message) const { return {in_ctx(TREE, message)}; }
};

constexpr std::uint32_t entry(std::uint32_t path) { return path << 18 | path; } // ifid and encap id both `path`
} // namespace

// --- Leaves

TEST_F(leaves, a_new_leaf_is_printed_and_its_adjacency_word_stands_in_hardware_before_a_slot_names_it)
{
    card.journal_on = true;
    ASSERT_EQ(mtrie_leaf_insert_stub(root, NET, MASK, 0x1234, 7, 0x20 | 0x80, TREE), 1u);
    const mtrie_leaf *leaf = mtrie_lookup_exact(root, NET, MASK);
    ASSERT_NE(leaf, nullptr);
    EXPECT_EQ(leaf->adjacency, 0xA0071234u);
    const std::string out = card.printed();
    const std::string expected = text("\nmtrie_leaf_insert_stub[202] :: leaf allocated 0x%x.\n", card_addr_of(leaf));
    EXPECT_EQ(out.substr(0, expected.size()), expected);

    for (unsigned copy = 0; copy < NP_COPIES; ++copy) {
        std::size_t adjacency_at = 0, slot_at = 0;
        for (std::size_t i = 0; i < card.journal.size(); ++i) {
            if (card.journal[i].address == card.memory(copy) + hw_leaf(leaf) && card.journal[i].value != 0)
                adjacency_at = i;
            if (slot_at == 0 && card.journal[i].value == (card.table(copy).base + hw_leaf(leaf)))
                slot_at = i;
        }
        EXPECT_GT(adjacency_at, 0u) << "copy " << copy;
        EXPECT_LT(adjacency_at, slot_at) << "copy " << copy;
    }
    expect_hardware(leaf);
}

TEST_F(leaves, the_route_flags_set_the_ip_resolve_and_nat_bits_and_no_other)
{
    const std::uint32_t flags[] = {0, 0x20, 0x80, 0x40, 0xFFFF};
    const std::uint32_t bits[] = {0, 0x80000000, 0x20000000, 0, 0xA0000000};
    for (unsigned i = 0; i < 5; ++i) {
        ASSERT_EQ(mtrie_leaf_insert_stub(root, IP(20 + i, 0, 0, 0), 0xFF000000, 2, 3, flags[i], TREE), 1u);
        const mtrie_leaf *leaf = mtrie_lookup_exact(root, IP(20 + i, 0, 0, 0), 0xFF000000);
        EXPECT_EQ(leaf->adjacency, bits[i] | 0x00030002) << "flags " << flags[i];
    }
}

TEST_F(leaves, the_ifid_is_cut_to_13_bits_and_the_encap_id_to_16)
{
    ASSERT_EQ(mtrie_leaf_insert_stub(root, NET, MASK, 0x54321, 0xFFFF, 0, TREE), 1u);
    EXPECT_EQ(mtrie_lookup_exact(root, NET, MASK)->adjacency, 0x1FFF4321u);
}

TEST_F(leaves, a_prefix_that_is_there_already_is_logged_and_its_new_leaf_stays_allocated)
{
    const mtrie_leaf *first = route();
    const std::int32_t before = mtrie_pools[MTRIE_POOL_LEAF].tree_count[TREE];
    EXPECT_EQ(mtrie_leaf_insert_stub(root, NET, MASK, 9, 9, 0, TREE), 2u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), line("leaf insert fail(2):0xa010000/16"));
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_LEAF].tree_count[TREE], before + 1);
    EXPECT_EQ(mtrie_lookup_exact(root, NET, MASK), first);
    EXPECT_EQ(first->adjacency, 0x00010001u);
}

TEST_F(leaves, a_leaf_that_cannot_be_allocated_is_printed_as_0_and_logged)
{
    while (mtrie_pools[MTRIE_POOL_LEAF].count < 1024)
        ASSERT_NE(mtrie_leaf_alloc_pool(0), nullptr);
    EXPECT_EQ(mtrie_leaf_insert_stub(root, NET, MASK, 1, 1, 0, TREE), 0u);
    EXPECT_EQ(card.printed(), "\nmtrie_leaf_alloc_pool[285] :: Allocation of MTrie leaf failed.\n"
                              "\nmtrie_leaf_insert_stub[202] :: leaf allocated 0x0.\n");
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), line("leaf alloc fail:0xa010000/16"));
}

TEST_F(leaves, an_insert_without_a_node_is_logged_with_0_and_its_leaf_stays_allocated)
{
    while (mtrie_pools[MTRIE_POOL_NODE].count < 1024)
        ASSERT_NE(mtrie_node_alloc_pool(0), nullptr);
    const std::int32_t before = mtrie_pools[MTRIE_POOL_LEAF].count;
    EXPECT_EQ(mtrie_leaf_insert_stub(root, NET, MASK, 1, 1, 0, TREE), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), line("leaf insert fail(0):0xa010000/16"));
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_LEAF].count, before + 1);
    EXPECT_EQ(mtrie_lookup_exact(root, NET, MASK), nullptr);
}

TEST_F(leaves, deleting_a_route_takes_it_out_and_answers_1)
{
    route();
    EXPECT_EQ(mtrie_leaf_delete_stub(TREE, root, NET, MASK), 1u);
    EXPECT_EQ(mtrie_lookup_exact(root, NET, MASK), nullptr);
    EXPECT_EQ(mtrie_check(root, nullptr), 0);
}

TEST_F(leaves, deleting_a_route_that_is_not_there_is_printed_and_answers_0)
{
    EXPECT_EQ(mtrie_leaf_delete_stub(TREE, root, NET, MASK), 0u);
    EXPECT_EQ(card.printed(), "\nRoute to delete not found.\n");
}

TEST_F(leaves, the_exact_lookup_stores_the_ifid_of_a_route_that_is_found_and_logs_it)
{
    const mtrie_leaf *leaf = route();
    std::uint32_t ifid = 99;
    EXPECT_EQ(mtrie_lookup_exact_stub(TREE, NET, MASK, &ifid), 0u);
    EXPECT_EQ(ifid, 1u);
    EXPECT_EQ(card.lines(), texts{text("105 <Ctx:5>\nRequested route found, root 0x%x leaf 0x%x, encaps 1 ifid 1.\n",
                                       card_addr_of(root), card_addr_of(leaf))});
}

TEST_F(leaves, the_exact_lookup_of_a_route_that_is_not_there_is_logged_and_stores_nothing)
{
    std::uint32_t ifid = 99;
    EXPECT_EQ(mtrie_lookup_exact_stub(TREE, NET, MASK, &ifid), 1u);
    EXPECT_EQ(ifid, 99u);
    EXPECT_EQ(card.lines(),
              texts{text("100 <Ctx:5>\nRequested route a010000/ffff0000 not found at root 0x%x in table.\n",
                         card_addr_of(root))});
}

// --- ECMP: more paths

TEST_F(leaves, the_first_extra_path_makes_a_block_and_marks_the_leaf)
{
    mtrie_leaf *leaf = route();
    EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 0x2222, 3, 0x40), 1u);
    const mtrie_ecmp *block = leaf->ecmp;
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->prefix, NET);
    EXPECT_EQ(block->mask, MASK);
    EXPECT_EQ(block->npaths, 1);
    EXPECT_EQ(block->hw[0], 0x92000000u);
    EXPECT_EQ(block->hw[1], 3u << 18 | 0x2222);
    EXPECT_EQ(leaf->adjacency, 0x40010001u);
    EXPECT_EQ(card.lines(),
              texts{text("105 <Ctx:5>\nmtrie_ecmp_insert_stub[60] :: ecmp allocated 0x%x.\n", card_addr_of(block))});
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_ECMP].tree_count[TREE], 1);
    expect_hardware(leaf);
}

TEST_F(leaves, a_further_path_takes_the_next_entry_and_raises_count_and_sequence)
{
    mtrie_leaf *leaf = route_of(2);
    EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 3, 3, 0x40), 1u);
    EXPECT_EQ(leaf->ecmp->npaths, 2);
    EXPECT_EQ(leaf->ecmp->hw[0], 0xA4000000u);
    EXPECT_EQ(leaf->ecmp->hw[1], entry(2));
    EXPECT_EQ(leaf->ecmp->hw[2], entry(3));
    EXPECT_EQ(card.lines(), texts{"105 <Ctx:5>\n ecmp exists , flags 40, ifid 3. encap 3\n"});
    expect_hardware(leaf);
}

TEST_F(leaves, a_further_path_is_stored_under_an_invalid_header_entries_first)
{
    mtrie_leaf *leaf = route_of(3);
    const std::uint32_t block = hw_block(leaf->ecmp);
    card.journal_on = true;
    EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 4, 4, 0x40), 1u);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy) {
        std::vector<std::uint32_t> headers;
        for (const fake_store &store : card.journal) {
            const bool is_entry = store.address == card.memory(copy) + block + 12;
            if (is_entry && store.value == entry(4)) {
                EXPECT_EQ(headers, std::vector<std::uint32_t>{0x24000000}) << "copy " << copy;
            }
            if (store.address == card.memory(copy) + block)
                headers.push_back(store.value);
        }
        EXPECT_EQ(headers, (std::vector<std::uint32_t>{0x24000000, 0xB6000000})) << "copy " << copy;
    }
}

TEST_F(leaves, a_first_block_is_cleared_named_filled_and_only_then_used_by_its_leaf)
{
    mtrie_leaf *leaf = route();
    card.journal_on = true;
    ASSERT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 2, 2, 0x40), 1u);
    expect_stores(leaf, hw_block(leaf->ecmp),
                  "B0=0 B1=0 B2=0 B3=0 B4=0 B5=0 B6=0 B7=0 L1=block "
                  "B1=80002 B2=0 B3=0 B4=0 B5=0 B6=0 B7=0 B0=92000000 L0=40010001 ");
}

TEST_F(leaves, a_path_without_the_ecmp_flag_is_refused)
{
    mtrie_leaf *leaf = route();
    EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 0x1A, 0x1B, 0x20), 0u);
    EXPECT_EQ(card.lines(), texts{"100 <Ctx:5>\n ecmp_insert invalid, flags 20, leaf flag 0, ifid 1b. encap 1a\n"});
    EXPECT_EQ(leaf->ecmp.addr(), 0u);

    EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 2, 2, 0x40), 1u);
    card.forget();
    EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 3, 3, 0), 0u);
    EXPECT_EQ(card.lines(), texts{"100 <Ctx:5>\n ecmp_insert invalid, flags 0, leaf flag 1, ifid 3. encap 3\n"});
}

TEST_F(leaves, a_path_without_a_block_left_is_refused_and_leaves_the_leaf)
{
    mtrie_leaf *leaf = route();
    while (mtrie_pools[MTRIE_POOL_ECMP].count < 128)
        ASSERT_NE(mtrie_ecmp_alloc_pool(0), nullptr);
    EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 2, 3, 0x40), 0u);
    EXPECT_EQ(card.lines(), texts{"100 <Ctx:5>\n Cannot allocate memory for ecmp , flags 40, ifid 3. encap 2\n"});
    EXPECT_EQ(card.printed(), "\nmtrie_ecmp_alloc_pool[322] :: Allocation of MTrie ecmp failed.\n");
    EXPECT_EQ(leaf->adjacency, 0x00010001u);
    EXPECT_EQ(leaf->ecmp.addr(), 0u);
}

TEST_F(leaves, seven_extra_paths_fill_the_block_and_an_eighth_is_refused_with_nothing_changed)
{
    mtrie_leaf *leaf = route_of(8);
    EXPECT_EQ(leaf->ecmp->npaths, 7);
    EXPECT_EQ(leaf->ecmp->hw[0], 0xFE000000u);
    EXPECT_EQ(leaf->ecmp->hw[7], entry(8));
    const mtrie_ecmp before = *leaf->ecmp;
    card.journal_on = true;
    EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 9, 9, 0x40), 0u);
    EXPECT_EQ(card.lines(), (texts{"105 <Ctx:5>\n ecmp exists , flags 40, ifid 9. encap 9\n",
                                   "100 <Ctx:5>\n ecmp full, flags 40, ifid 9. encap 9\n"}));
    EXPECT_TRUE(card.journal.empty());
    EXPECT_EQ(std::memcmp(&before, leaf->ecmp.get(), sizeof(before)), 0);
}

// --- ECMP: fewer paths

TEST_F(leaves, removing_the_leafs_own_path_moves_the_last_entry_into_the_leaf)
{
    mtrie_leaf *leaf = route_of(4);
    EXPECT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 1, 1, 0x40), 1u);
    EXPECT_EQ(leaf->adjacency, 0x40040004u);
    EXPECT_EQ(leaf->ecmp->npaths, 2);
    EXPECT_EQ(leaf->ecmp->hw[0], 0xA4000000u);
    EXPECT_EQ(leaf->ecmp->hw[1], entry(2));
    EXPECT_EQ(leaf->ecmp->hw[2], entry(3));
    EXPECT_EQ(leaf->ecmp->hw[3], 0u);
    EXPECT_TRUE(card.history.empty());
    expect_hardware(leaf);
}

TEST_F(leaves, removing_a_middle_path_moves_the_last_entry_into_the_hole)
{
    mtrie_leaf *leaf = route_of(4);
    EXPECT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 2, 2, 0x40), 1u);
    EXPECT_EQ(leaf->adjacency, 0x40010001u);
    EXPECT_EQ(leaf->ecmp->hw[1], entry(4));
    EXPECT_EQ(leaf->ecmp->hw[2], entry(3));
    EXPECT_EQ(leaf->ecmp->hw[3], 0u);
    expect_hardware(leaf);
}

TEST_F(leaves, removing_the_last_path_clears_its_entry)
{
    mtrie_leaf *leaf = route_of(3);
    EXPECT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 3, 3, 0x40), 1u);
    EXPECT_EQ(leaf->ecmp->hw[0], 0x92000000u);
    EXPECT_EQ(leaf->ecmp->hw[1], entry(2));
    EXPECT_EQ(leaf->ecmp->hw[2], 0u);
    expect_hardware(leaf);
}

TEST_F(leaves, removing_the_only_extra_path_frees_the_block_and_unmarks_the_leaf)
{
    mtrie_leaf *leaf = route_of(2);
    EXPECT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 2, 2, 0x40), 1u);
    EXPECT_EQ(leaf->adjacency, 0x00010001u);
    EXPECT_EQ(leaf->ecmp.addr(), 0u);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_ECMP].count, 0);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy) {
        EXPECT_EQ(card.word(copy, hw_leaf(leaf)), 0x00010001u);
        EXPECT_EQ(card.word(copy, hw_leaf(leaf) + 4), 0u);
        EXPECT_EQ(card.word(copy, ecmp_at(0)) & ECMP_VALID, 0u) << "the freed block is not valid in hardware";
    }
}

TEST_F(leaves, removing_the_leafs_own_path_of_two_leaves_the_other_in_the_leaf)
{
    mtrie_leaf *leaf = route_of(2);
    EXPECT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 1, 1, 0x40), 1u);
    EXPECT_EQ(leaf->adjacency, 0x00020002u);
    EXPECT_EQ(leaf->ecmp.addr(), 0u);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_ECMP].count, 0);
}

TEST_F(leaves, a_removed_own_path_is_replaced_in_the_leaf_while_the_block_is_invalid)
{
    mtrie_leaf *leaf = route_of(3);
    card.journal_on = true;
    ASSERT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 1, 1, 0x40), 1u);
    expect_stores(leaf, hw_block(leaf->ecmp),
                  "B1=80002 B2=c0003 B3=0 B4=0 B5=0 B6=0 B7=0 B0=24000000 L0=40030003 "
                  "B1=80002 B2=0 B3=0 B4=0 B5=0 B6=0 B7=0 B0=92000000 ");
}

TEST_F(leaves, a_removed_middle_path_is_replaced_while_the_block_is_invalid)
{
    mtrie_leaf *leaf = route_of(4);
    card.journal_on = true;
    ASSERT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 2, 2, 0x40), 1u);
    expect_stores(leaf, hw_block(leaf->ecmp),
                  "B1=80002 B2=c0003 B3=100004 B4=0 B5=0 B6=0 B7=0 B0=36000000 "
                  "B1=100004 B2=c0003 B3=0 B4=0 B5=0 B6=0 B7=0 B0=a4000000 ");
}

TEST_F(leaves, a_block_is_invalid_then_unused_then_unnamed_and_then_free)
{
    for (const std::uint32_t removed : {2u, 1u}) { // the entry of the block, and the leaf's own
        mtrie_leaf *leaf = route_of(2);
        const std::uint32_t block = hw_block(leaf->ecmp);
        card.journal_on = true;
        card.after_each_store(
            [] { EXPECT_EQ(mtrie_pools[MTRIE_POOL_ECMP].count, 1) << "freed before the last store"; });
        ASSERT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, removed, removed, 0x40), 1u);
        card.after_each_store(nullptr);
        const std::string invalidated = "B1=80002 B2=0 B3=0 B4=0 B5=0 B6=0 B7=0 B0=12000000 ";
        expect_stores(leaf, block, invalidated + (removed == 2 ? "L0=10001 L1=0 " : "L0=40020002 L0=20002 L1=0 "));
        card.journal_on = false;
        ASSERT_EQ(mtrie_leaf_delete_stub(TREE, root, NET, MASK), 1u);
    }
}

TEST_F(leaves, removing_an_unknown_path_is_refused_and_leaves_the_block_invalid)
{
    mtrie_leaf *leaf = route_of(3);
    EXPECT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 0x77, 0x78, 0x40), 0u);
    EXPECT_EQ(card.lines(), texts{"100 <Ctx:5>\n remove ecmp but can't locate entry, flags 40, ifid 78. encap 77\n"});
    EXPECT_EQ(leaf->ecmp->npaths, 2);
    EXPECT_EQ(leaf->ecmp->hw[0], 0x24000000u);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        EXPECT_EQ(card.word(copy, hw_block(leaf->ecmp)), 0x24000000u) << "copy " << copy;
    EXPECT_EQ(leaf->adjacency, 0x40010001u);
}

TEST_F(leaves, an_invalid_block_refuses_a_further_path_and_a_removal)
{
    mtrie_leaf *leaf = route_of(3);
    EXPECT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 0x77, 0x78, 0x40), 0u);
    card.forget();
    EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 5, 6, 0x40), 0u);
    EXPECT_EQ(card.lines(), (texts{"105 <Ctx:5>\n ecmp exists , flags 40, ifid 6. encap 5\n",
                                   "100 <Ctx:5>\n ecmp exists but invalid, flags 40, leaf flag 1, ifid 6. encap 5\n"}));
    card.forget();
    EXPECT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 2, 2, 0x40), 0u);
    EXPECT_EQ(card.lines(), texts{"100 <Ctx:5>\n remove ecmp but invlaid, flags 40, ifid 2. encap 2\n"});
    EXPECT_EQ(leaf->ecmp->npaths, 2);
}

TEST_F(leaves, a_full_and_invalid_block_is_refused_as_invalid)
{
    mtrie_leaf *leaf = route_of(8);
    ASSERT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 0x77, 0x78, 0x40), 0u);
    card.forget();
    EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 5, 6, 0x40), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              line("\n ecmp exists but invalid, flags 40, leaf flag 1, ifid 6. encap 5\n"));
}

TEST_F(leaves, an_ifid_is_stored_cut_and_compared_uncut)
{
    mtrie_leaf *leaf = route();
    EXPECT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 2, 0x4003, 0x40), 1u);
    EXPECT_EQ(leaf->ecmp->hw[1], 3u << 18 | 2);
    EXPECT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 2, 0x4003, 0x40), 0u); // not what is stored
}

TEST_F(leaves, a_path_of_ifid_0_and_encap_id_0_is_found_in_an_unused_entry_too)
{
    mtrie_leaf *leaf = route_of(3);
    EXPECT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 0, 0, 0x40), 1u); // entries 1 to 7 are searched
    EXPECT_EQ(leaf->ecmp->npaths, 1);
    EXPECT_EQ(leaf->ecmp->hw[0], 0x92000000u);
    EXPECT_EQ(leaf->ecmp->hw[1], entry(2));
    EXPECT_EQ(leaf->ecmp->hw[2], 0u);       // the last entry went
    EXPECT_EQ(leaf->ecmp->hw[3], entry(3)); // into the hole
}

TEST_F(leaves, the_sequence_goes_up_on_an_insertion_and_down_on_a_removal)
{
    mtrie_leaf *leaf = route_of(2);
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(mtrie_ecmp_insert_stub(TREE, leaf, NET, MASK, 3, 3, 0x40), 1u);
        EXPECT_EQ(leaf->ecmp->hw[0], ecmp_header(2, 2));
        ASSERT_EQ(mtrie_ecmp_remove_stub(TREE, leaf, NET, MASK, 3, 3, 0x40), 1u);
        EXPECT_EQ(leaf->ecmp->hw[0], ecmp_header(1, 1));
    }
}

// --- The default leaf

TEST_F(leaves, a_new_default_leaf_is_empty_printed_and_charged_to_its_tree)
{
    const mtrie_leaf *made = mtrie_alloc_default_leaf_stub(TREE);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->prefix, 0u);
    EXPECT_EQ(made->mask, 0u);
    EXPECT_EQ(made->adjacency, 0u);
    EXPECT_EQ(card.printed(), text("\nmtrie_alloc_default_leaf_stub[299] :: norvik_leaf_default allocated 0x%x.\n",
                                   card_addr_of(made)));
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_LEAF].tree_count[TREE], 2);
}

TEST_F(leaves, a_default_leaf_that_cannot_be_allocated_is_printed_as_0_and_logged)
{
    while (mtrie_pools[MTRIE_POOL_LEAF].count < 1024)
        ASSERT_NE(mtrie_leaf_alloc_pool(0), nullptr);
    EXPECT_EQ(mtrie_alloc_default_leaf_stub(TREE), nullptr);
    EXPECT_EQ(card.printed(), "\nmtrie_leaf_alloc_pool[285] :: Allocation of MTrie leaf failed.\n"
                              "\nmtrie_alloc_default_leaf_stub[299] :: norvik_leaf_default allocated 0x0.\n");
    EXPECT_EQ(card.lines(), texts{"100 <Ctx:5>\n Failed to allocate default leaf.\n"});
}

TEST_F(leaves, a_default_route_is_written_into_the_default_leaf)
{
    EXPECT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 0x12, 0x34, 0, 1), 1u);
    EXPECT_EQ(default_leaf()->adjacency, 0x00340012u);
    EXPECT_EQ(card.lines(), texts{"105 <Ctx:5>update non-ECMP default, flags 0, leaf ecmp 0, ifid 34. encap 12"});
    EXPECT_EQ(np_find(card, 2, TREE, IP(8, 8, 8, 8)).adjacency, 0x00340012u);
    expect_hardware(default_leaf());
}

TEST_F(leaves, a_reset_default_route_has_ifid_and_encap_id_0)
{
    ASSERT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 0x12, 0x34, 0, 1), 1u);
    card.forget();
    EXPECT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 0x12, 0x34, 0x20, 0), 1u);
    EXPECT_EQ(default_leaf()->adjacency, 0u);
    EXPECT_EQ(card.lines(), texts{"105 <Ctx:5>update non-ECMP default, flags 20, leaf ecmp 0, ifid 0. encap 0"});
    expect_hardware(default_leaf());
}

TEST_F(leaves, only_the_low_8_bits_say_whether_the_default_route_is_added)
{
    ASSERT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 1, 2, 0, 0x101), 1u);
    EXPECT_EQ(default_leaf()->adjacency, 0x00020001u);
    ASSERT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 1, 2, 0, 0x100), 1u);
    EXPECT_EQ(default_leaf()->adjacency, 0u);
}

TEST_F(leaves, an_update_keeps_the_nat_flag_and_clears_the_ip_resolve_and_ecmp_flags)
{
    default_leaf()->adjacency = 0xE0010001;
    ASSERT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 5, 6, 0x20, 1), 1u);
    EXPECT_EQ(default_leaf()->adjacency, 0x20060005u);
    EXPECT_EQ(card.lines(), texts{"105 <Ctx:5>update non-ECMP default, flags 20, leaf ecmp 1, ifid 6. encap 5"});
}

TEST_F(leaves, an_ecmp_path_on_an_empty_default_leaf_goes_into_the_leaf_and_not_into_a_block)
{
    EXPECT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 3, 4, 0x40, 1), 1u);
    EXPECT_EQ(default_leaf()->adjacency, 0x00040003u);
    EXPECT_EQ(default_leaf()->ecmp.addr(), 0u);
    EXPECT_EQ(card.lines(), texts{"105 <Ctx:5>update non-ECMP default, flags 40, leaf ecmp 0, ifid 4. encap 3"});
}

TEST_F(leaves, an_ecmp_path_on_a_default_leaf_that_forwards_goes_into_a_block_and_out_of_it)
{
    ASSERT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 3, 4, 0, 1), 1u);
    card.forget();
    EXPECT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 5, 6, 0x40, 1), 1u);
    ASSERT_NE(default_leaf()->ecmp.addr(), 0u);
    EXPECT_EQ(card.lines(), (texts{"105 <Ctx:5>\n add ECMP default route, flags 40, leaf ecmp 0, ifid 6. encap 5\n",
                                   text("105 <Ctx:5>\nmtrie_ecmp_insert_stub[60] :: ecmp allocated 0x%x.\n",
                                        default_leaf()->ecmp.addr())}));
    EXPECT_EQ(default_leaf()->adjacency, 0x40040003u);
    expect_hardware(default_leaf());

    card.forget();
    EXPECT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 5, 6, 0x40, 0), 1u);
    EXPECT_EQ(card.lines(), texts{"105 <Ctx:5>\n remove ECMP default route, flags 40, leaf ecmp 1, ifid 6. encap 5\n"});
    EXPECT_EQ(default_leaf()->adjacency, 0x00040003u);
    EXPECT_EQ(default_leaf()->ecmp.addr(), 0u);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_ECMP].count, 0);
}

TEST_F(leaves, a_default_leaf_forwards_when_any_of_bits_28_to_0_of_its_adjacency_word_is_set)
{
    for (unsigned bit = 0; bit < 32; ++bit) {
        default_leaf()->adjacency = 1u << bit;
        card.forget();
        ASSERT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 5, 6, 0x40, 1), 1u);
        EXPECT_EQ(default_leaf()->ecmp.addr() != 0, bit <= 28) << "bit " << bit;
        EXPECT_EQ(card.lines()[0].find("add ECMP default route") != std::string::npos, bit <= 28) << "bit " << bit;
        if (default_leaf()->ecmp) {
            ASSERT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 5, 6, 0x40, 0), 1u);
        }
    }
}

TEST_F(leaves, an_update_leaves_the_block_of_a_default_leaf_in_place)
{
    ASSERT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 3, 4, 0, 1), 1u);
    ASSERT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 5, 6, 0x40, 1), 1u);
    const card_addr block = default_leaf()->ecmp.addr();
    ASSERT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 7, 8, 0, 1), 1u);
    EXPECT_EQ(default_leaf()->adjacency, 0x00080007u);
    EXPECT_EQ(default_leaf()->ecmp.addr(), block);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_ECMP].count, 1);
}

TEST_F(leaves, a_route_id_whose_default_leaf_was_never_made_is_refused)
{
    norvik_leaf_default[TREE] = nullptr;
    for (const std::uint32_t add : {0u, 1u}) {
        card.forget();
        EXPECT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 1, 2, 0, add), 0u);
        EXPECT_EQ(card.lines(), texts{"100 <Ctx:5>set FAILED, norvik_leaf_default is NULL for routeId 5 \n"});
    }
}

TEST_F(leaves, deleting_the_slash_0_empties_the_default_leafs_place)
{
    EXPECT_EQ(mtrie_leaf_delete_stub(TREE, root, 0, 0), 1u);
    EXPECT_EQ(norvik_leaf_default[TREE].addr(), 0u);
    EXPECT_EQ(mtrie_set_default_leaf_stub(TREE, 0, 0, 1, 2, 0, 1), 0u);
    EXPECT_NE(norvik_leaf_default[TREE + 1].addr(), 0u);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        EXPECT_EQ(np_find(card, copy, TREE, IP(1, 2, 3, 4)).leaf, NP_MISS);
}

// --- The table that nobody reads

TEST_F(leaves, a_rib_table_is_a_tracked_block_of_4092_bytes_whose_address_is_stored)
{
    const std::uint32_t before = card.blocks(MTRACK_ROUTE_TABLE);
    std::uint32_t word = 0;
    EXPECT_EQ(norvik_rib_table_alloc(&word), 0);
    ASSERT_TRUE(card.heap.count(word));
    EXPECT_EQ(card.heap[word].bytes, 4092u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_TABLE), before + 1);
}

TEST_F(leaves, a_rib_table_for_which_memory_is_short_has_address_0)
{
    card.fail_alloc(MTRACK_ROUTE_TABLE, 1);
    std::uint32_t word = 5;
    EXPECT_EQ(norvik_rib_table_alloc(&word), 0);
    EXPECT_EQ(word, 0u);
}
