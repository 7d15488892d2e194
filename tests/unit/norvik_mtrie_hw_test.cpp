// norvik_mtrie_hw_test.cpp - the hardware tables: mapping, each writer word by word, the debug walks.
//
// The journal shows every single store in order, so the tests pin not only what a copy holds at the end but also the
// order in which a processor sees it come.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "norvik_mtrie.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_pool.h"
#include "route_ids.h"
#include "route_table.h"

using namespace harness;

namespace
{
constexpr unsigned WIRED = 0, IXP1 = 1, IXP2 = 2;

struct tables : testing::Test {
    fake_card card{2};
    void SetUp() override
    {
        ASSERT_EQ(mtrie_pool_init(), 0);
        card.forget();
        card.journal_on = true;
    }

    // The store of `value` at table offset `offset` of a copy.
    fake_store store(unsigned copy, std::uint32_t offset, std::uint32_t value) const
    {
        return {card.memory(copy) + offset, value};
    }
    // The store of a pointer to table offset `to`, in the copy's own form, with `tag` set.
    fake_store link(unsigned copy, std::uint32_t offset, std::uint32_t to, std::uint32_t tag = 0) const
    {
        return store(copy, offset, (card.table(copy).base + to) | tag);
    }
    mtrie_node *node()
    {
        mtrie_node *taken = mtrie_node_alloc_pool(0);
        card.journal.clear();
        return taken;
    }
    mtrie_leaf *leaf()
    {
        mtrie_leaf *taken = mtrie_leaf_alloc_pool(0);
        card.journal.clear();
        return taken;
    }
    mtrie_ecmp *block()
    {
        mtrie_ecmp *taken = mtrie_ecmp_alloc_pool(0);
        card.journal.clear();
        return taken;
    }
    void expect_every_copy(std::uint32_t offset, std::uint32_t value) const
    {
        for (unsigned copy = 0; copy < NP_COPIES; ++copy)
            EXPECT_EQ(card.word(copy, offset), value) << "copy " << copy << " offset " << offset;
    }
    void expect_every_pointer(std::uint32_t offset, std::uint32_t to, std::uint32_t tag = 0) const
    {
        for (unsigned copy = 0; copy < NP_COPIES; ++copy)
            EXPECT_EQ(card.word(copy, offset), (card.table(copy).base + to) | tag) << "copy " << copy;
    }
};

std::string found_text(const fake_card &card, unsigned copy, std::uint32_t index, unsigned encap, unsigned ifid)
{
    return text("\nSearch terminating successfully, Leaf 0x%x found.\n", card.memory(copy) + leaf_at(index)) +
           text("\nencaps id %u if_id %u\n", encap, ifid);
}
constexpr char UNSUCCESSFUL[] = "\nSearch terminating unsuccessfully. Null leaf.";
} // namespace

// --- Mapping

TEST(tables_map, a_system_library_that_cannot_be_opened_is_printed)
{
    fake_card card(2);
    card.syscall_open_result = -2;
    EXPECT_EQ(mtrie_hw_init(), -1);
    EXPECT_EQ(card.printed(), "\nmtrie_hw_map[100] :: Error opening Norvik system library.\n");
}

TEST(tables_map, a_wired_region_that_cannot_be_mapped_is_printed)
{
    fake_card card(2);
    card.map_wired_fails = true;
    EXPECT_EQ(mtrie_hw_init(), -1);
    EXPECT_EQ(card.printed(), "\nmtrie_hw_map[107] :: Error mapping wired route table.\n");
}

TEST(tables_map, a_wired_region_without_a_description_is_printed)
{
    fake_card card(2);
    card.wired_info_result = -1;
    EXPECT_EQ(mtrie_hw_init(), -1);
    EXPECT_EQ(card.printed(), "\nmtrie_hw_map[142] :: Error getting wired region info.\n");
}

TEST(tables_map, a_first_table_at_0_or_at_all_ones_is_printed_as_a_failure)
{
    for (const card_addr answer : {0u, 0xFFFFFFFFu}) {
        fake_card card(2);
        card.map_ixp_result[0] = answer;
        EXPECT_EQ(mtrie_hw_init(), -1);
        EXPECT_EQ(card.printed(), "\nmtrie_hw_map[174] :: Error mapping IXP1 DRAM route table.\n");
    }
}

TEST(tables_map, a_second_table_at_0_or_at_all_ones_is_printed_as_a_failure)
{
    for (const card_addr answer : {0u, 0xFFFFFFFFu}) {
        fake_card card(2);
        card.map_ixp_result[1] = answer;
        EXPECT_EQ(mtrie_hw_init(), -1);
        EXPECT_EQ(card.printed(), "\nmtrie_hw_map[201] :: Error mapping IXP2 DRAM route table.\n");
    }
}

TEST(tables_map, the_bases_are_what_the_platform_answers_and_are_reported)
{
    fake_card card(2);
    card.wired_phys_base = 0x0A000000;
    ASSERT_EQ(mtrie_hw_init(), 0);
    EXPECT_EQ(va_wired_base, card.memory(WIRED));
    EXPECT_EQ(va_ixp1_dram_base, card.memory(IXP1));
    EXPECT_EQ(va_ixp2_dram_base, card.memory(IXP2));
    EXPECT_EQ(wired_route_phys_base, 0x0A000000u);
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO),
              (std::vector<std::string>{"<Ctx:0>\nPhysical: wired 0xa000000 dram 0x202000",
                                        text("<Ctx:0>\nVirtual: wired 0x%x dram1 0x%x dram2 0x%x\n", card.memory(WIRED),
                                             card.memory(IXP1), card.memory(IXP2))}));
    EXPECT_EQ(card.printed(), "");
}

TEST(tables_map, the_whole_wired_region_and_both_tables_are_cleared_word_by_word)
{
    fake_card card(2);
    card.journal_on = true;
    ASSERT_EQ(mtrie_hw_init(), 0);

    ASSERT_EQ(card.journal.size(), card.wired_bytes / 4 + 2 * 0x40D00u);
    for (std::size_t i = 0; i < card.wired_bytes / 4; ++i)
        ASSERT_EQ(card.journal[i], (fake_store{card.memory(WIRED) + static_cast<card_addr>(4 * i), 0}));
    for (std::size_t i = 0; i < 0x40D00; ++i) {
        const std::size_t first = card.wired_bytes / 4 + i;
        const auto byte = static_cast<card_addr>(4 * i);
        ASSERT_EQ(card.journal[first], (fake_store{card.memory(IXP1) + byte, 0}));
        ASSERT_EQ(card.journal[first + 0x40D00], (fake_store{card.memory(IXP2) + byte, 0}));
    }
}

TEST(tables_map, a_card_with_one_processor_leaves_the_second_table_alone)
{
    fake_card card(1);
    card.journal_on = true;
    ASSERT_EQ(mtrie_pool_init(), 0);
    EXPECT_EQ(card.memory(IXP2), 0u);
    EXPECT_EQ(va_ixp2_dram_base, 0u);

    mtrie_node *root = mtrie_node_alloc_pool(0);
    mtrie_leaf *leaf = mtrie_leaf_alloc_pool(0);
    leaf->adjacency = adj_pack(0, 3, 4);
    mtrie_hw_write_adjacency(leaf, &leaf->adjacency);
    EXPECT_EQ(reg_invoke_hw_add_child_to_mnode(root, card_addr_of(leaf), 10), 0);
    mtrie_hw_set_root(7, root);
    for (const fake_store &store : card.journal) {
        const bool in_wired = store.address - card.memory(WIRED) < card.wired_bytes;
        ASSERT_TRUE(in_wired || store.address - card.memory(IXP1) < HW_TABLE_BYTES) << store.address;
    }
    for (const unsigned copy : {WIRED, IXP1})
        EXPECT_EQ(np_find(card, copy, 7, IP(10, 0, 0, 1)).leaf, leaf_at(0)) << "copy " << copy;
}

TEST(tables_map, only_one_or_two_processors_have_writers)
{
    for (const unsigned processors : {0u, 1u, 2u, 3u}) {
        fake_card card(processors);
        ASSERT_EQ(mtrie_hw_init(), 0);
        const bool any = processors == 1 || processors == 2;
        EXPECT_EQ(mtrie_hw_ops.copy_pairs != nullptr, any) << processors;
        EXPECT_EQ(mtrie_hw_ops.copy_words != nullptr, any) << processors;
        EXPECT_EQ(mtrie_hw_ops.fill_pairs_wired != nullptr, any) << processors;
        EXPECT_EQ(mtrie_hw_ops.fill_words_wired != nullptr, any) << processors;
        EXPECT_EQ(mtrie_hw_ops.fill_pairs_ixp != nullptr, any) << processors;
        EXPECT_EQ(mtrie_hw_ops.fill_words_ixp != nullptr, any) << processors;
    }
}

// --- The six writers

TEST_F(tables, words_are_copied_to_both_processors_before_the_wired_copy_word_by_word)
{
    const std::uint32_t from[] = {0x11, 0x22};
    mtrie_hw_ops.copy_words(va_wired_base + 0x100400, from, 2);
    EXPECT_EQ(card.journal, (std::vector<fake_store>{store(IXP1, 0x100400, 0x11), store(IXP2, 0x100400, 0x11),
                                                     store(WIRED, 0x100400, 0x11), store(IXP1, 0x100404, 0x22),
                                                     store(IXP2, 0x100404, 0x22), store(WIRED, 0x100404, 0x22)}));
}

TEST_F(tables, pairs_are_copied_to_both_processors_before_the_wired_copy_pair_by_pair)
{
    const std::uint32_t from[] = {1, 2, 3, 4};
    mtrie_hw_ops.copy_pairs(va_wired_base + 0x400, from, 2);
    std::vector<fake_store> expected;
    for (std::uint32_t pair = 0; pair < 2; ++pair)
        for (const unsigned copy : {IXP1, IXP2, WIRED})
            for (std::uint32_t half = 0; half < 2; ++half)
                expected.push_back(store(copy, 0x400 + 8 * pair + 4 * half, from[2 * pair + half]));
    EXPECT_EQ(card.journal, expected);
}

TEST_F(tables, a_fill_of_the_wired_copy_touches_no_processor_and_the_other_way_round)
{
    mtrie_hw_ops.fill_words_wired(va_wired_base + 0x400, 7, 3);
    mtrie_hw_ops.fill_pairs_wired(va_wired_base + 0x800, 8, 9, 2);
    for (const fake_store &store : card.journal)
        EXPECT_LT(store.address - card.memory(WIRED), HW_TABLE_BYTES);
    EXPECT_EQ(card.journal.size(), 7u);
    EXPECT_EQ(card.word(WIRED, 0x408), 7u);
    EXPECT_EQ(card.word(WIRED, 0x80C), 9u);

    card.journal.clear();
    mtrie_hw_ops.fill_words_ixp(va_wired_base + 0x400, 5, 3);
    mtrie_hw_ops.fill_pairs_ixp(va_wired_base + 0x800, 6, 4, 2);
    for (const fake_store &store : card.journal)
        EXPECT_GE(store.address - card.memory(WIRED), HW_TABLE_BYTES);
    EXPECT_EQ(card.journal.size(), 14u);
    for (const unsigned copy : {IXP1, IXP2}) {
        EXPECT_EQ(card.word(copy, 0x408), 5u);
        EXPECT_EQ(card.word(copy, 0x40C), 0u);
        EXPECT_EQ(card.word(copy, 0x808), 6u);
        EXPECT_EQ(card.word(copy, 0x80C), 4u);
    }
    EXPECT_EQ(card.word(WIRED, 0x408), 7u);
}

TEST(tables_one_processor, words_and_pairs_are_copied_to_the_processor_before_the_wired_copy)
{
    fake_card card(1);
    ASSERT_EQ(mtrie_hw_init(), 0);
    card.journal_on = true;
    card.forget();
    const std::uint32_t from[] = {1, 2};
    const card_addr wired = card.memory(WIRED) + 0x400, ixp = card.memory(IXP1) + 0x400;
    mtrie_hw_ops.copy_words(va_wired_base + 0x400, from, 2);
    EXPECT_EQ(card.journal, (std::vector<fake_store>{{ixp, 1}, {wired, 1}, {ixp + 4, 2}, {wired + 4, 2}}));
    card.journal.clear();
    mtrie_hw_ops.copy_pairs(va_wired_base + 0x400, from, 1);
    EXPECT_EQ(card.journal, (std::vector<fake_store>{{ixp, 1}, {ixp + 4, 2}, {wired, 1}, {wired + 4, 2}}));
}

// --- Elements

TEST_F(tables, clearing_node_3_clears_its_256_words_in_every_copy_and_no_other)
{
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        for (std::uint32_t i = 0; i < HW_TABLE_BYTES; i += 4)
            *card_at<std::uint32_t>(card.memory(copy) + i) = ~i;
    mtrie_hw_clear_node(MTRIE_POOL_NODE, 3);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        for (std::uint32_t i = 0; i < HW_TABLE_BYTES; i += 4)
            ASSERT_EQ(card.word(copy, i), i >= 0x400 + 3 * 1024 && i < 0x400 + 4 * 1024 ? 0 : ~i) << copy << " " << i;
}

TEST_F(tables, clearing_a_leaf_or_a_block_clears_its_2_or_8_words_in_every_copy_wired_first)
{
    mtrie_hw_clear_node(MTRIE_POOL_LEAF, 1023);
    std::vector<fake_store> expected;
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        for (std::uint32_t i = 0; i < 2; ++i)
            expected.push_back(store(copy, 0x1023F8 + 4 * i, 0));
    ASSERT_EQ(card.journal.size(), expected.size());
    EXPECT_EQ(std::vector<fake_store>(card.journal.begin(), card.journal.begin() + 2),
              std::vector<fake_store>(expected.begin(), expected.begin() + 2));

    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        for (std::uint32_t i = ecmp_at(127) - 4; i < HW_TABLE_BYTES; i += 4)
            *card_at<std::uint32_t>(card.memory(copy) + i) = 5;
    card.journal.clear();
    mtrie_hw_clear_node(MTRIE_POOL_ECMP, 127);
    EXPECT_EQ(card.journal.size(), 24u);
    expect_every_copy(ecmp_at(127) - 4, 5);
    for (std::uint32_t i = ecmp_at(127); i < HW_TABLE_BYTES; i += 4)
        expect_every_copy(i, 0);
}

TEST_F(tables, a_node_a_leaf_and_a_block_are_cleared_copy_by_copy_the_wired_one_first_from_the_first_word_on)
{
    const std::uint32_t first[3] = {slot_at(3), leaf_at(4), ecmp_at(5)}, words[3] = {256, 2, 8};
    for (std::int32_t type = MTRIE_POOL_NODE; type <= MTRIE_POOL_ECMP; ++type) {
        card.journal.clear();
        mtrie_hw_clear_node(type, 3 + type);
        std::vector<fake_store> expected;
        for (const unsigned copy : {WIRED, IXP1, IXP2})
            for (std::uint32_t i = 0; i < words[type]; ++i)
                expected.push_back(store(copy, first[type] + 4 * i, 0));
        EXPECT_TRUE(card.journal == expected) << "type " << type;
    }
}

TEST_F(tables, clearing_an_element_of_no_pool_stores_nothing)
{
    mtrie_hw_clear_node(MTRIE_POOL_NONE, 0);
    mtrie_hw_clear_node(17, 0);
    EXPECT_TRUE(card.journal.empty());
}

TEST_F(tables, an_adjacency_word_is_copied_unchanged_into_the_leaf_of_the_same_index)
{
    leaf();
    mtrie_leaf *second = leaf();
    const std::uint32_t word = 0xBADC0DE5;
    mtrie_hw_write_adjacency(second, &word);
    EXPECT_EQ(card.journal, (std::vector<fake_store>{store(IXP1, leaf_at(1), word), store(IXP2, leaf_at(1), word),
                                                     store(WIRED, leaf_at(1), word)}));
}

TEST_F(tables, an_ecmp_block_gets_its_entries_first_and_its_header_last_in_every_copy)
{
    block();
    mtrie_ecmp *second = block();
    const std::uint32_t source[8] = {0x92000000, 1, 2, 3, 4, 5, 6, 7};
    mtrie_hw_write_ecmp(second, source);

    std::vector<fake_store> expected;
    for (const std::uint32_t i : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 0u})
        for (const unsigned copy : {IXP1, IXP2, WIRED})
            expected.push_back(store(copy, ecmp_at(1) + 4 * i, source[i]));
    EXPECT_EQ(card.journal, expected);
}

TEST_F(tables, a_leaf_points_to_its_block_in_each_copys_own_form)
{
    block();
    mtrie_ecmp *second = block();
    mtrie_leaf *first = leaf();
    mtrie_hw_set_ecmp(first, second);
    EXPECT_EQ(card.journal,
              (std::vector<fake_store>{link(WIRED, leaf_at(0) + 4, ecmp_at(1)), link(IXP1, leaf_at(0) + 4, ecmp_at(1)),
                                       link(IXP2, leaf_at(0) + 4, ecmp_at(1))}));
    mtrie_hw_reset_ecmp(first);
    expect_every_copy(leaf_at(0) + 4, 0);
    EXPECT_EQ(card.journal.size(), 6u);
}

TEST_F(tables, pointing_a_leaf_to_no_block_stores_nothing)
{
    mtrie_hw_set_ecmp(leaf(), nullptr);
    EXPECT_TRUE(card.journal.empty());
}

// --- Roots

TEST_F(tables, the_root_of_tree_7_stands_in_root_word_7_in_each_copys_own_form_and_is_found_again)
{
    node();
    mtrie_node *root = node();
    mtrie_hw_set_root(7, root);
    EXPECT_EQ(card.journal, (std::vector<fake_store>{link(WIRED, 28, slot_at(1), 1), link(IXP1, 28, slot_at(1), 1),
                                                     link(IXP2, 28, slot_at(1), 1)}));
    EXPECT_EQ(card.word(WIRED, 28), 0x08000000u + 0x800 + 1);
    EXPECT_EQ(card.word(IXP2, 28), 0x202000u + 0x800 + 1);
    EXPECT_EQ(mtrie_get_root_node(7), root);
}

TEST_F(tables, setting_no_root_stores_nothing_and_a_tree_without_a_root_has_none)
{
    mtrie_hw_set_root(7, nullptr);
    EXPECT_TRUE(card.journal.empty());
    EXPECT_EQ(mtrie_get_root_node(7), nullptr);
}

TEST_F(tables, the_root_is_read_from_the_wired_copy_each_time)
{
    mtrie_node *first = node(), *second = node();
    mtrie_hw_set_root(255, first);
    *card_at<std::uint32_t>(card.memory(WIRED) + 255 * 4) = (card.table(WIRED).base + slot_at(1)) | 1;
    EXPECT_EQ(mtrie_get_root_node(255), second);
    *card_at<std::uint32_t>(card.memory(WIRED) + 255 * 4) = 0;
    EXPECT_EQ(mtrie_get_root_node(255), nullptr);
}

// --- Slots

TEST_F(tables, a_leaf_in_slot_10_of_node_0_stands_in_word_10_of_hardware_node_0_in_every_copy)
{
    mtrie_node *root = node();
    leaf();
    mtrie_leaf *second = leaf();
    EXPECT_EQ(reg_invoke_hw_add_child_to_mnode(root, card_addr_of(second), 10), 0);
    EXPECT_EQ(card.journal,
              (std::vector<fake_store>{link(WIRED, 0x400 + 40, leaf_at(1)), link(IXP1, 0x400 + 40, leaf_at(1)),
                                       link(IXP2, 0x400 + 40, leaf_at(1))}));
}

TEST_F(tables, a_child_node_in_a_slot_is_tagged_and_an_empty_slot_is_0_in_every_copy)
{
    mtrie_node *root = node(), *child = node();
    EXPECT_EQ(reg_invoke_hw_add_child_to_mnode(root, mtrie_child_word(child), 255), 0);
    expect_every_pointer(slot_at(0, 255), slot_at(1), 1);
    EXPECT_EQ(reg_invoke_hw_add_child_to_mnode(root, 0, 255), 0);
    expect_every_copy(slot_at(0, 255), 0);
}

TEST_F(tables, a_block_of_slots_is_written_from_the_first_to_the_last_and_not_beyond)
{
    node();
    mtrie_node *second = node();
    mtrie_leaf *first = leaf();
    EXPECT_EQ(reg_invoke_hw_add_child_block_to_mnode(second, card_addr_of(first), 16, 8), 0);
    std::vector<fake_store> expected;
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        for (std::uint32_t slot = 16; slot < 24; ++slot)
            expected.push_back(link(copy, slot_at(1, slot), leaf_at(0)));
    ASSERT_EQ(card.journal.size(), expected.size());
    EXPECT_EQ(std::vector<fake_store>(card.journal.begin(), card.journal.begin() + 8),
              std::vector<fake_store>(expected.begin(), expected.begin() + 8)); // the wired copy comes first
    for (std::uint32_t slot = 16; slot < 24; ++slot)
        expect_every_pointer(slot_at(1, slot), leaf_at(0));
}

TEST_F(tables, a_slot_word_that_names_neither_a_node_nor_a_leaf_is_not_written)
{
    mtrie_node *root = node();
    const card_addr block_address = card_addr_of(block());
    for (const std::uint32_t word : {block_address, 0x00000010u}) {
        EXPECT_EQ(mtrie_hw_write_children(root, word, 0, 3), 1);
        EXPECT_EQ(reg_invoke_hw_add_child_to_mnode(root, word, 0), 1);
        EXPECT_EQ(reg_invoke_hw_add_child_block_to_mnode(root, word, 0, 2), 1);
    }
    EXPECT_TRUE(card.journal.empty());
}

TEST_F(tables, the_allocation_hooks_accept_and_the_release_hooks_do_nothing)
{
    mtrie_node *some_node = node();
    mtrie_leaf *some_leaf = leaf();
    int node_ok = 0, leaf_ok = 0;
    reg_invoke_hw_mtrie_node_alloc(some_node, &node_ok);
    reg_invoke_hw_mtrie_leaf_alloc(some_leaf, &leaf_ok);
    reg_invoke_hw_mtrie_node_free(some_node);
    reg_invoke_hw_mtrie_leaf_free();
    EXPECT_EQ(node_ok, 1);
    EXPECT_EQ(leaf_ok, 1);
    EXPECT_TRUE(card.journal.empty());
    EXPECT_EQ(card.printed(), "");
}

// --- Debug walks

TEST_F(tables, each_walk_finds_the_leaf_in_its_own_copy_and_prints_it)
{
    mtrie_node *root = node();
    mtrie_leaf *first = leaf();
    const std::uint32_t word = adj_pack(ADJ_NAT | ADJ_IP_RESOLVE, 0x1FFF, 0xABCD);
    mtrie_hw_write_adjacency(first, &word);
    mtrie_hw_set_root(4, root);
    ASSERT_EQ(reg_invoke_hw_add_child_to_mnode(root, card_addr_of(first), 10), 0);

    mtrie_hw_lookup(4, IP(10, 9, 8, 7));
    EXPECT_EQ(card.printed(), found_text(card, WIRED, 0, 0xABCD, 0x1FFF));
    mtrie_hw_lookup_ixp_1(4, IP(10, 9, 8, 7));
    EXPECT_EQ(card.printed(), found_text(card, IXP1, 0, 0xABCD, 0x1FFF));
    mtrie_hw_lookup_ixp_2(4, IP(10, 9, 8, 7));
    EXPECT_EQ(card.printed(), found_text(card, IXP2, 0, 0xABCD, 0x1FFF));
}

TEST_F(tables, a_walk_that_ends_at_an_empty_slot_prints_a_null_leaf_without_its_ids)
{
    mtrie_hw_set_root(4, node());
    const std::string expected = "\nSearch terminating successfully, Leaf 0x0 found.\n";
    mtrie_hw_lookup(4, IP(10, 0, 0, 1));
    EXPECT_EQ(card.printed(), expected);
    mtrie_hw_lookup_ixp_1(4, IP(10, 0, 0, 1));
    EXPECT_EQ(card.printed(), expected);
    mtrie_hw_lookup_ixp_2(4, IP(10, 0, 0, 1));
    EXPECT_EQ(card.printed(), expected);
}

TEST(tables_of_one_processor, the_second_processors_copy_reads_as_zeros)
{
    fake_card card(1);
    ASSERT_EQ(mtrie_pool_init(), 0);
    (void)card.printed();
    mtrie_hw_lookup_ixp_2(255, IP(10, 0, 0, 1));
    EXPECT_EQ(card.printed(), "\nSearch terminating successfully, Leaf 0x0 found.\n");
}

TEST_F(tables, a_walk_reaches_a_leaf_below_four_nodes_and_gives_up_below_the_fourth)
{
    mtrie_node *levels[4];
    for (mtrie_node *&level : levels)
        level = node();
    mtrie_hw_set_root(0, levels[0]);
    const std::uint32_t slots[] = {10, 20, 30, 40};
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(reg_invoke_hw_add_child_to_mnode(levels[i], mtrie_child_word(levels[i + 1]), slots[i]), 0);
    ASSERT_EQ(reg_invoke_hw_add_child_to_mnode(levels[3], card_addr_of(leaf()), 40), 0);
    mtrie_hw_lookup_ixp_2(0, IP(10, 20, 30, 40));
    EXPECT_EQ(card.printed(), found_text(card, IXP2, 0, 0, 0));

    ASSERT_EQ(reg_invoke_hw_add_child_to_mnode(levels[3], mtrie_child_word(levels[0]), 40), 0);
    mtrie_hw_lookup(0, IP(10, 20, 30, 40));
    EXPECT_EQ(card.printed(), UNSUCCESSFUL);
    mtrie_hw_lookup_ixp_1(0, IP(10, 20, 30, 40));
    EXPECT_EQ(card.printed(), UNSUCCESSFUL);
    mtrie_hw_lookup_ixp_2(0, IP(10, 20, 30, 40));
    EXPECT_EQ(card.printed(), UNSUCCESSFUL);
}

// --- The audit

TEST(tables_audit, the_audit_sees_a_single_wrong_word_in_any_copy)
{
    fake_card card(2);
    ASSERT_EQ(card.start_tables(), 0);
    ASSERT_EQ(mtrie_hw_check(), 0);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        for (const std::uint32_t offset : {28u, slot_at(5, 9), leaf_at(6)}) {
            std::uint32_t *word = card_at<std::uint32_t>(card.memory(copy) + offset);
            const std::uint32_t kept = *word;
            *word = kept ^ 0x40;
            EXPECT_GE(mtrie_hw_check(), 1) << "copy " << copy << " offset " << offset;
            *word = kept;
        }
    EXPECT_EQ(mtrie_hw_check(), 0);
}
