// norvik_mtrie_test.cpp - the trie: insertion, spreading, back links, deletion, folding, and all that it prints.
//
// Trees are built here by the trie's own functions, without the layers above: a leaf carries only its prefix and mask.
// The links are checked by name, leaf by leaf, and by the audits after each test.

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "norvik_mtrie.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_pool.h"

using namespace harness;

namespace
{
constexpr std::uint32_t TREE = 6;

constexpr std::uint32_t mask_of(unsigned length) { return length == 0 ? 0 : 0xFFFFFFFFu << (32 - length); }

// A tree with a default leaf.
struct trie : testing::Test {
    fake_card card{2};
    mtrie_node *root = nullptr;
    mtrie_leaf *standard = nullptr; // the default leaf, 0.0.0.0/0

    void SetUp() override
    {
        ASSERT_EQ(mtrie_pool_init(), 0);
        root = mtrie_node_alloc(TREE);
        standard = mtrie_leaf_alloc(TREE, root);
        ASSERT_NE(root, nullptr);
        ASSERT_NE(standard, nullptr);
        mtrie_init(root, standard, 8);
        mtrie_hw_set_root(TREE, root);
        card.forget();
    }

    mtrie_leaf *leaf(std::uint32_t prefix, unsigned length)
    {
        mtrie_leaf *made = mtrie_leaf_alloc(TREE, root);
        made->prefix = prefix;
        made->mask = mask_of(length);
        return made;
    }
    mtrie_leaf *insert(std::uint32_t prefix, unsigned length)
    {
        mtrie_leaf *made = leaf(prefix, length);
        EXPECT_EQ(mtrie_leaf_insert(TREE, root, made), 1);
        return made;
    }
    void expect_sound()
    {
        EXPECT_EQ(mtrie_pool_check(), 0);
        EXPECT_EQ(mtrie_check(root, nullptr), 0);
        EXPECT_EQ(mtrie_hw_check(), 0);
    }
    // The leaf that answers in the trie and, by index, in every copy.
    void expect_answer(std::uint32_t address, const mtrie_leaf *expected)
    {
        EXPECT_EQ(mtrie_longest_match(root, address), expected);
        for (unsigned copy = 0; copy < NP_COPIES; ++copy)
            EXPECT_EQ(np_find(card, copy, TREE, address).leaf, hw_leaf(expected))
                << "copy " << copy << " address " << address;
    }
    // Where the hardware node stands in the table, and what was stored to a copy, by its place in the table.
    static std::uint32_t node_at(const mtrie_node *node)
    {
        return HW_NODES + (card_addr_of(node) - 4 - mtrie_pools[MTRIE_POOL_NODE].start) / 1036 * HW_NODE_BYTES;
    }
    std::vector<std::uint32_t> offsets_stored(unsigned copy) const
    {
        std::vector<std::uint32_t> offsets;
        for (const fake_store &store : card.journal)
            if (store.address - card.memory(copy) < HW_TABLE_BYTES)
                offsets.push_back(store.address - card.memory(copy));
        return offsets;
    }
    std::int32_t nodes() const { return mtrie_pools[MTRIE_POOL_NODE].count; }
    std::int32_t leaves() const { return mtrie_pools[MTRIE_POOL_LEAF].count; }
};

std::string linking(std::uint32_t a, unsigned a_length, std::uint32_t b, unsigned b_length)
{
    return text("\nmtrie_leaf_link_to_back_leaf[356] :: Linking mtrie_leaf 0x%x/%u to back leaf 0x%x/%u", a, a_length,
                b, b_length);
}
std::string linking_to_null(std::uint32_t a, unsigned a_length)
{
    return text("\nmtrie_leaf_link_to_back_leaf[363] :: Linking mtrie_leaf 0x%x/%u to back leaf NULL", a, a_length);
}
std::string adding(std::uint32_t a, unsigned a_length, std::uint32_t b, unsigned b_length)
{
    return text("\nmtrie_add_to_fwd_list[210] :: Adding mtrie_leaf 0x%x/%u to fwd_list of 0x%x/%u", a, a_length, b,
                b_length);
}
std::string removing(const mtrie_leaf *leaf, std::uint32_t a, unsigned a_length)
{
    return text("\nmtrie_remove_from_fwd_list[265] :: Removing mtrie_leaf 0x%x/%u @ %p from forward list", a, a_length,
                shown(leaf));
}
std::string freeing(const mtrie_leaf *leaf, std::uint32_t a, unsigned a_length, const std::string &warnings = "")
{
    return text("\nmtrie_leaf_free[95] :: Removing mtrie_leaf structure: 0x%x/%u\n", a, a_length) + warnings +
           text("\nmtrie_leaf_free_pool: Freeing leaf node %p\n", shown(leaf));
}
} // namespace

// --- The new tree

TEST_F(trie, after_init_the_default_leaf_answers_every_address_and_has_256_references)
{
    for (std::uint32_t top = 0; top < 256; ++top)
        expect_answer(top << 24 | 0x00FFEE01, standard);
    EXPECT_EQ(standard->refcount, 256);
    EXPECT_EQ(root->stride, 8u);
    EXPECT_EQ(root->count, 0);
    EXPECT_EQ(card.printed(), "");
    expect_sound();
}

TEST_F(trie, a_tree_without_a_default_leaf_answers_nothing)
{
    mtrie_node *bare = mtrie_node_alloc(9);
    mtrie_init(bare, nullptr, 8);
    mtrie_hw_set_root(9, bare);
    for (unsigned copy = 0; copy < NP_COPIES; ++copy)
        EXPECT_EQ(np_find(card, copy, 9, IP(1, 2, 3, 4)).leaf, NP_MISS);
    EXPECT_EQ(mtrie_longest_match(bare, IP(1, 2, 3, 4)), nullptr);
    EXPECT_EQ(mtrie_lookup_exact(bare, 0, 0), nullptr);
}

TEST_F(trie, a_new_node_has_stride_8_and_a_new_leaf_has_no_reference)
{
    const mtrie_node *node = mtrie_node_alloc(TREE);
    const mtrie_leaf *made = mtrie_leaf_alloc(TREE, root);
    EXPECT_EQ(node->stride, 8u);
    EXPECT_EQ(node->count, 0);
    EXPECT_EQ(made->refcount, 0);
}

TEST_F(trie, a_block_is_stored_in_its_leaf_and_given_back_without_it)
{
    mtrie_leaf *made = leaf(0, 0);
    mtrie_ecmp *block = mtrie_ecmp_alloc(TREE, made);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(made->ecmp.get(), block);
    mtrie_ecmp_free(TREE, block);
    EXPECT_EQ(made->ecmp.get(), block);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_ECMP].count, 0);
}

TEST_F(trie, no_block_leaves_the_leaf_unchanged)
{
    while (mtrie_pools[MTRIE_POOL_ECMP].count < 128)
        ASSERT_NE(mtrie_ecmp_alloc_pool(0), nullptr);
    mtrie_leaf *made = leaf(0, 0);
    EXPECT_EQ(mtrie_ecmp_alloc(TREE, made), nullptr);
    EXPECT_EQ(made->ecmp.addr(), 0u);
}

// --- Insertion

TEST_F(trie, a_slash_8_stands_in_one_root_slot_only)
{
    mtrie_leaf *eight = insert(IP(10, 0, 0, 0), 8);
    for (std::uint32_t slot = 0; slot < 256; ++slot)
        EXPECT_EQ(root->children[slot], card_addr_of(slot == 10 ? eight : standard)) << "slot " << slot;
    EXPECT_EQ(eight->back.get(), standard);
    EXPECT_EQ(eight->refcount, 2);          // its slot, and the default leaf's fwd
    EXPECT_EQ(standard->refcount, 255 + 1); // its slots, and the back of the /8
    EXPECT_EQ(card.printed(), linking(IP(10, 0, 0, 0), 8, 0, 0) + adding(IP(10, 0, 0, 0), 8, 0, 0));
    expect_sound();
}

TEST_F(trie, a_slash_16_pushes_the_slash_8_down_into_the_slots_of_a_new_node)
{
    mtrie_leaf *eight = insert(IP(10, 0, 0, 0), 8);
    card.forget();
    mtrie_leaf *sixteen = insert(IP(10, 1, 0, 0), 16);

    ASSERT_TRUE(mtrie_is_child(root->children[10]));
    const mtrie_node *child = mtrie_child_of(root->children[10]);
    EXPECT_EQ(child->count, 256);
    for (std::uint32_t slot = 0; slot < 256; ++slot)
        EXPECT_EQ(child->children[slot], card_addr_of(slot == 1 ? sixteen : eight)) << "slot " << slot;
    EXPECT_EQ(sixteen->back.get(), eight);
    EXPECT_EQ(eight->fwd.get(), sixteen);
    EXPECT_EQ(sixteen->refcount, 2);
    EXPECT_EQ(eight->refcount, 255 + 1 + 1); // slots, the back of the /16, the default leaf's fwd
    EXPECT_EQ(nodes(), 2);
    EXPECT_EQ(card.printed(),
              linking(IP(10, 1, 0, 0), 16, IP(10, 0, 0, 0), 8) + adding(IP(10, 1, 0, 0), 16, IP(10, 0, 0, 0), 8));
    expect_answer(IP(10, 1, 2, 3), sixteen);
    expect_answer(IP(10, 2, 2, 3), eight);
    expect_sound();
}

TEST_F(trie, a_prefix_of_many_slots_is_linked_to_what_it_displaces_once)
{
    insert(IP(8, 0, 0, 0), 5);
    EXPECT_EQ(card.printed(), linking(IP(8, 0, 0, 0), 5, 0, 0) + adding(IP(8, 0, 0, 0), 5, 0, 0));
}

TEST_F(trie, a_displaced_leaf_gives_up_its_slot_after_the_slot_was_stored)
{
    mtrie_leaf *seven = leaf(IP(10, 0, 0, 0), 7);
    std::vector<std::int32_t> references;
    card.after_each_store([&] { references.push_back(standard->refcount); });
    ASSERT_EQ(mtrie_leaf_insert(TREE, root, seven), 1);
    card.after_each_store(nullptr);
    // Of slot 10 in each copy, then of slot 11, when the new leaf's back counts too.
    EXPECT_EQ(references, (std::vector<std::int32_t>{256, 256, 256, 256, 256, 256}));
    EXPECT_EQ(standard->refcount, 254 + 1);
}

TEST_F(trie, a_slash_32_takes_three_more_nodes_and_one_slot_of_the_last)
{
    mtrie_leaf *host = insert(IP(10, 1, 2, 3), 32);
    EXPECT_EQ(nodes(), 4);
    EXPECT_EQ(host->back.get(), standard);
    expect_answer(IP(10, 1, 2, 3), host);
    expect_answer(IP(10, 1, 2, 2), standard);
    expect_answer(IP(10, 1, 2, 4), standard);
    expect_answer(IP(10, 1, 3, 3), standard);
    expect_sound();
}

TEST_F(trie, each_length_stands_in_as_many_slots_as_its_range_has_at_its_level)
{
    for (unsigned length = 1; length <= 32; ++length) {
        mtrie_leaf *made = insert(IP(170, 170, 170, 170) & mask_of(length), length);
        const std::int32_t slots = 1 << (8 * ((length + 7) / 8) - length);
        EXPECT_EQ(made->refcount, slots + 1) << "length " << length; // and the fwd of the leaf before
        EXPECT_EQ(mtrie_lookup_exact(root, IP(170, 170, 170, 170) & mask_of(length), mask_of(length)), made);
        expect_sound();
    }
}

TEST_F(trie, the_stored_prefix_is_masked)
{
    mtrie_leaf *made = leaf(IP(10, 1, 2, 3), 8);
    EXPECT_EQ(mtrie_leaf_insert(TREE, root, made), 1);
    EXPECT_EQ(made->prefix, IP(10, 0, 0, 0));
}

TEST_F(trie, a_prefix_that_is_there_already_is_answered_with_2_and_changes_nothing)
{
    mtrie_leaf *sixteen = insert(IP(10, 1, 0, 0), 16);
    mtrie_leaf *again = leaf(IP(10, 1, 0, 0), 16);
    card.forget();
    card.journal_on = true;
    EXPECT_EQ(mtrie_leaf_insert(TREE, root, again), 2);
    EXPECT_EQ(again->refcount, 0);
    EXPECT_EQ(sixteen->refcount, 2);
    EXPECT_TRUE(card.journal.empty());
    EXPECT_EQ(card.printed(), "");
    expect_answer(IP(10, 1, 0, 1), sixteen);
}

TEST_F(trie, a_less_specific_prefix_inserted_later_takes_only_the_slots_that_no_longer_prefix_holds)
{
    mtrie_leaf *host = insert(IP(10, 1, 2, 3), 32);
    card.forget();
    mtrie_leaf *eight = insert(IP(10, 0, 0, 0), 8);
    EXPECT_EQ(host->back.get(), eight);
    EXPECT_EQ(eight->back.get(), standard);
    expect_answer(IP(10, 1, 2, 3), host);
    expect_answer(IP(10, 1, 2, 4), eight);
    expect_answer(IP(10, 255, 0, 0), eight);
    expect_answer(IP(11, 0, 0, 0), standard);
    expect_sound();
}

TEST_F(trie, a_slash_24_over_two_slash_25s_keeps_a_null_back_and_becomes_theirs)
{
    mtrie_leaf *low = insert(IP(10, 1, 1, 0), 25), *high = insert(IP(10, 1, 1, 128), 25);
    card.forget();
    mtrie_leaf *over = insert(IP(10, 1, 1, 0), 24);
    EXPECT_EQ(over->back.get(), nullptr);
    EXPECT_EQ(low->back.get(), over);
    EXPECT_EQ(high->back.get(), over);
    EXPECT_EQ(over->fwd.get(), high); // the last one linked is the head
    EXPECT_EQ(over->refcount, 2);     // the backs of the two; no slot holds it
    expect_answer(IP(10, 1, 1, 1), low);
    expect_answer(IP(10, 1, 1, 200), high);
}

TEST_F(trie, after_its_longer_prefixes_went_a_prefix_with_a_null_back_falls_back_to_no_leaf)
{
    mtrie_leaf *low = insert(IP(10, 1, 1, 0), 25), *high = insert(IP(10, 1, 1, 128), 25);
    mtrie_leaf *over = insert(IP(10, 1, 1, 0), 24);
    mtrie_leaf_delete(TREE, root, low);
    expect_answer(IP(10, 1, 1, 1), over);
    mtrie_leaf_delete(TREE, root, high);
    expect_answer(IP(10, 1, 1, 200), over);
    expect_sound();

    mtrie_leaf_delete(TREE, root, over);
    expect_answer(IP(10, 1, 1, 1), nullptr); // and not the default leaf
    expect_answer(IP(10, 1, 2, 1), standard);
    expect_sound();
}

TEST_F(trie, an_insert_that_finds_no_node_is_answered_with_0_and_leaves_all_answers_as_they_were)
{
    while (mtrie_pools[MTRIE_POOL_NODE].count < 1023)
        ASSERT_NE(mtrie_node_alloc_pool(0), nullptr);
    mtrie_leaf *host = leaf(IP(10, 1, 2, 3), 32);
    card.forget();
    EXPECT_EQ(mtrie_leaf_insert(TREE, root, host), 0);
    EXPECT_EQ(card.printed(), "\nmtrie_node_alloc_pool[245] :: Allocation of MTrie node failed.\n");

    ASSERT_TRUE(mtrie_is_child(root->children[10])); // the node that there was stays, full of the default leaf
    EXPECT_EQ(mtrie_child_of(root->children[10])->count, 256);
    EXPECT_EQ(standard->refcount, 255 + 256);
    EXPECT_EQ(host->refcount, 0);
    expect_answer(IP(10, 1, 2, 3), standard);
    EXPECT_EQ(mtrie_hw_check(), 0);
}

TEST_F(trie, a_node_under_an_empty_slot_is_empty_but_for_the_new_prefix)
{
    mtrie_node *bare = mtrie_node_alloc(9);
    mtrie_init(bare, nullptr, 8);
    mtrie_hw_set_root(9, bare);
    mtrie_leaf *sixteen = mtrie_leaf_alloc(9, bare);
    sixteen->prefix = IP(10, 1, 0, 0);
    sixteen->mask = mask_of(16);
    ASSERT_EQ(mtrie_leaf_insert(9, bare, sixteen), 1);

    const mtrie_node *child = mtrie_child_of(bare->children[10]);
    EXPECT_EQ(child->count, 1);
    EXPECT_EQ(child->children[1], card_addr_of(sixteen));
    EXPECT_EQ(sixteen->back.get(), nullptr);
    EXPECT_EQ(sixteen->refcount, 1);
    EXPECT_EQ(mtrie_longest_match(bare, IP(10, 2, 0, 0)), nullptr);

    card.forget();
    EXPECT_EQ(mtrie_leaf_delete(9, bare, sixteen), 0); // the node becomes empty and goes
    EXPECT_EQ(bare->children[10], 0u);
    EXPECT_EQ(nodes(), 2); // the two roots
    EXPECT_EQ(mtrie_hw_check(), 0);
}

TEST_F(trie, a_node_under_an_empty_slot_is_stored_empty_before_its_parent_names_it)
{
    mtrie_node *bare = mtrie_node_alloc(9);
    mtrie_init(bare, nullptr, 8);
    mtrie_leaf *sixteen = mtrie_leaf_alloc(9, bare);
    sixteen->prefix = IP(10, 1, 0, 0);
    sixteen->mask = mask_of(16);
    card.journal_on = true;
    ASSERT_EQ(mtrie_leaf_insert(9, bare, sixteen), 1);
    const std::uint32_t parent_slot = node_at(bare) + 4 * 10, child = node_at(mtrie_child_of(bare->children[10]));
    for (unsigned copy = 0; copy < NP_COPIES; ++copy) {
        std::vector<std::uint32_t> stores = offsets_stored(copy);
        ASSERT_EQ(stores.size(), 256u + 256u + 2u) << "cleared when taken, reported empty, named, and the leaf";
        for (std::uint32_t i = 0; i < 512; ++i)
            ASSERT_EQ(stores[i], child + 4 * (i % 256)) << "copy " << copy;
        EXPECT_EQ(stores[512], parent_slot) << "copy " << copy;
        EXPECT_EQ(stores[513], child + 4) << "copy " << copy;
    }
}

// --- Exact lookup

TEST_F(trie, the_exact_lookup_finds_a_prefix_by_its_own_address_and_mask_only)
{
    mtrie_leaf *eight = insert(IP(10, 0, 0, 0), 8), *sixteen = insert(IP(10, 1, 0, 0), 16);
    EXPECT_EQ(mtrie_lookup_exact(root, IP(10, 1, 0, 0), mask_of(16)), sixteen);
    EXPECT_EQ(mtrie_lookup_exact(root, IP(10, 0, 0, 0), mask_of(8)), eight);
    EXPECT_EQ(mtrie_lookup_exact(root, IP(10, 1, 0, 0), mask_of(8)), nullptr);
    EXPECT_EQ(mtrie_lookup_exact(root, IP(10, 1, 2, 3), mask_of(16)), nullptr); // the address is not masked
    EXPECT_EQ(mtrie_lookup_exact(root, 0, 0), standard);
}

TEST_F(trie, the_exact_lookup_walks_back_from_the_longest_match_of_the_address)
{
    mtrie_leaf *eight = insert(IP(10, 0, 0, 0), 8), *sixteen = insert(IP(10, 0, 0, 0), 16);
    insert(IP(10, 0, 0, 0), 32);
    EXPECT_EQ(mtrie_lookup_exact(root, IP(10, 0, 0, 0), mask_of(16)), sixteen);
    EXPECT_EQ(mtrie_lookup_exact(root, IP(10, 0, 0, 0), mask_of(8)), eight);
    EXPECT_EQ(mtrie_lookup_exact(root, IP(10, 0, 0, 0), mask_of(24)), nullptr);
}

// --- Deletion

// The picture in the heading of norvik_mtrie.cpp.
TEST_F(trie, three_nested_prefixes_stand_in_three_nodes_and_are_linked_one_to_the_next)
{
    mtrie_leaf *const a = insert(IP(10, 0, 0, 0), 8), *const b = insert(IP(10, 1, 0, 0), 16),
                      *const c = insert(IP(10, 1, 2, 0), 24);
    const mtrie_node *const second = mtrie_child_of(root->children[10]);
    const mtrie_node *const third = mtrie_child_of(second->children[1]);
    for (unsigned i = 0; i < MTRIE_SLOTS; ++i) {
        EXPECT_TRUE(i == 10 || mtrie_leaf_of(root->children[i]) == standard) << i;
        EXPECT_TRUE(i == 1 || mtrie_leaf_of(second->children[i]) == a) << i;
        EXPECT_EQ(mtrie_leaf_of(third->children[i]), i == 2 ? c : b) << i;
    }
    EXPECT_TRUE(c->back == b && b->back == a && a->back == standard);
    EXPECT_TRUE(standard->fwd == a && a->fwd == b && b->fwd == c);
    EXPECT_EQ(a->refcount, 255 + 1 + 1);

    const mtrie_leaf *const sibling = insert(IP(10, 9, 0, 0), 16);
    EXPECT_TRUE(a->fwd == sibling && sibling->right == b && b->left == sibling);

    const mtrie_leaf *const between = insert(IP(10, 0, 0, 0), 15);
    EXPECT_EQ(mtrie_leaf_of(second->children[0]), between);
    EXPECT_TRUE(between->back == a && b->back == between && c->back == b);
    EXPECT_EQ(mtrie_leaf_of(third->children[0]), b);
}

TEST_F(trie, deleting_the_slash_16_folds_its_node_back_into_the_root_slot)
{
    mtrie_leaf *eight = insert(IP(10, 0, 0, 0), 8), *sixteen = insert(IP(10, 1, 0, 0), 16);
    const card_addr node = card_addr_of(mtrie_child_of(root->children[10])) - MTRIE_POOL_LINK;
    EXPECT_EQ(mtrie_leaf_delete(TREE, root, sixteen), 0);

    EXPECT_EQ(root->children[10], card_addr_of(eight));
    EXPECT_EQ(eight->refcount, 2);
    EXPECT_EQ(eight->fwd.addr(), 0u);
    EXPECT_EQ(nodes(), 1);
    EXPECT_EQ(leaves(), 2);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_NODE].free_tail, node);
    expect_answer(IP(10, 1, 2, 3), eight);
    expect_sound();
}

TEST_F(trie, deleting_a_prefix_prints_its_way_out_of_the_list_in_the_order_of_the_steps)
{
    mtrie_leaf *sixteen = insert(IP(10, 1, 0, 0), 16);
    card.forget();
    mtrie_leaf_delete(TREE, root, sixteen);
    const std::string back_is_set =
        text("\nmtrie_leaf_free[114] :: refcount of leaf reached 0 while back pointer set prefix 0x%x bits in mask %u.",
             IP(10, 1, 0, 0), 16u);
    EXPECT_EQ(card.printed(), linking_to_null(IP(10, 1, 0, 0), 16) + removing(sixteen, IP(10, 1, 0, 0), 16) +
                                  freeing(sixteen, IP(10, 1, 0, 0), 16, back_is_set));
}

TEST_F(trie, the_prefixes_below_a_deleted_one_are_linked_to_what_covered_it)
{
    mtrie_leaf *eight = insert(IP(10, 0, 0, 0), 8), *sixteen = insert(IP(10, 1, 0, 0), 16);
    mtrie_leaf *one = insert(IP(10, 1, 1, 0), 24), *two = insert(IP(10, 1, 2, 0), 24);
    EXPECT_EQ(one->back.get(), sixteen);
    mtrie_leaf_delete(TREE, root, sixteen);
    EXPECT_EQ(one->back.get(), eight);
    EXPECT_EQ(two->back.get(), eight);
    expect_answer(IP(10, 1, 1, 1), one);
    expect_answer(IP(10, 1, 3, 1), eight);
    EXPECT_EQ(leaves(), 4);
    expect_sound();
}

TEST_F(trie, a_deleted_leaf_gives_up_its_slots_after_they_were_stored)
{
    mtrie_leaf *seven = insert(IP(10, 0, 0, 0), 7);
    std::vector<std::int32_t> references;
    card.after_each_store([&] { references.push_back(seven->refcount); });
    mtrie_leaf_delete(TREE, root, seven);
    card.after_each_store(nullptr);
    EXPECT_EQ(references, (std::vector<std::int32_t>{3, 3, 3, 2, 2, 2})); // two slots, and the default leaf's fwd
}

TEST_F(trie, a_leaf_that_nothing_else_names_is_gone_after_its_slot_was_stored)
{
    mtrie_node *bare = mtrie_node_alloc(9);
    mtrie_init(bare, nullptr, 8);
    mtrie_leaf *eight = mtrie_leaf_alloc(9, bare);
    eight->prefix = IP(10, 0, 0, 0);
    eight->mask = mask_of(8);
    ASSERT_EQ(mtrie_leaf_insert(9, bare, eight), 1);
    card.after_each_store([&] { EXPECT_EQ(leaves(), 2) << "released before its slot was stored"; });
    mtrie_leaf_delete(9, bare, eight);
    card.after_each_store(nullptr);
    EXPECT_EQ(leaves(), 1);
}

TEST_F(trie, a_node_that_folds_is_unnamed_then_stored_empty_and_then_free)
{
    mtrie_leaf *eight = insert(IP(10, 0, 0, 0), 8), *sixteen = insert(IP(10, 1, 0, 0), 16);
    const std::uint32_t parent_slot = node_at(root) + 4 * 10, child = node_at(mtrie_child_of(root->children[10]));
    card.journal_on = true;
    std::vector<std::int32_t> references;
    card.after_each_store([&] {
        EXPECT_EQ(nodes(), 2) << "released before it was stored empty";
        if (card.journal.back().address == card.memory(0) + parent_slot)
            references.push_back(eight->refcount);
    });
    mtrie_leaf_delete(TREE, root, sixteen);
    card.after_each_store(nullptr);
    EXPECT_EQ(references, std::vector<std::int32_t>{256 + 1 + 1}) << "slots, the /16's back, the default leaf's fwd";
    for (unsigned copy = 0; copy < NP_COPIES; ++copy) {
        const std::vector<std::uint32_t> stores = offsets_stored(copy);
        ASSERT_EQ(stores.size(), 1u + 1u + 256u) << "the /16's slot, the parent's, the folded node's";
        EXPECT_EQ(stores[0], child + 4) << "copy " << copy;
        EXPECT_EQ(stores[1], parent_slot) << "copy " << copy;
        for (std::uint32_t i = 0; i < 256; ++i)
            ASSERT_EQ(stores[2 + i], child + 4 * i) << "copy " << copy;
    }
}

TEST_F(trie, a_node_that_becomes_empty_is_unnamed_and_then_free)
{
    mtrie_node *bare = mtrie_node_alloc(9);
    mtrie_init(bare, nullptr, 8);
    mtrie_leaf *sixteen = mtrie_leaf_alloc(9, bare);
    sixteen->prefix = IP(10, 1, 0, 0);
    sixteen->mask = mask_of(16);
    ASSERT_EQ(mtrie_leaf_insert(9, bare, sixteen), 1);
    card.after_each_store([&] { EXPECT_EQ(nodes(), 3) << "released before its parent's slot was stored"; });
    mtrie_leaf_delete(9, bare, sixteen);
    card.after_each_store(nullptr);
    EXPECT_EQ(nodes(), 2);
}

TEST_F(trie, the_order_of_deletion_does_not_matter_for_what_is_left)
{
    mtrie_leaf *made[] = {insert(IP(10, 0, 0, 0), 8), insert(IP(10, 1, 0, 0), 16), insert(IP(10, 1, 1, 0), 24),
                          insert(IP(10, 1, 1, 1), 32), insert(IP(128, 0, 0, 0), 1)};
    for (const int i : {2, 0, 4, 3, 1}) {
        mtrie_leaf_delete(TREE, root, made[i]);
        expect_sound();
    }
    EXPECT_EQ(nodes(), 1);
    EXPECT_EQ(leaves(), 1);
    EXPECT_EQ(standard->refcount, 256);
    expect_answer(IP(10, 1, 1, 1), standard);
    expect_answer(IP(200, 1, 1, 1), standard);
}

TEST_F(trie, every_single_store_of_a_fold_leaves_the_address_answered)
{
    mtrie_leaf *eight = insert(IP(10, 0, 0, 0), 8), *host = insert(IP(10, 1, 2, 3), 32);
    const np_answer answer_of_eight = np_find(card, 1, TREE, IP(10, 1, 2, 4));
    const np_answer answer_of_host = np_find(card, 1, TREE, IP(10, 1, 2, 3));
    unsigned stores = 0;
    card.after_each_store([&] {
        ++stores;
        for (unsigned copy = 0; copy < NP_COPIES; ++copy) {
            EXPECT_EQ(np_find(card, copy, TREE, IP(10, 1, 2, 4)), np_find(card, copy, TREE, IP(10, 200, 0, 0)));
            const np_answer now = np_find(card, copy, TREE, IP(10, 1, 2, 3));
            EXPECT_TRUE(now == answer_of_eight || now == answer_of_host) << "copy " << copy << " store " << stores;
        }
    });
    mtrie_leaf_delete(TREE, root, host);
    card.after_each_store(nullptr);
    EXPECT_EQ(nodes(), 1);
    EXPECT_GE(stores, 3u * 3u * 257u); // three nodes folded and cleared, in three copies
    expect_answer(IP(10, 1, 2, 3), eight);
}

TEST_F(trie, the_hook_is_called_with_a_leaf_whose_last_reference_goes)
{
    static std::vector<std::uint32_t> gone;
    gone.clear();
    const mtrie_leaf_gone_hook kept = mtrie_leaf_gone;
    mtrie_leaf_gone = [](mtrie_leaf *leaf) { gone.push_back(leaf->prefix); };
    mtrie_leaf *sixteen = insert(IP(10, 1, 0, 0), 16);
    EXPECT_TRUE(gone.empty());
    mtrie_leaf_delete(TREE, root, sixteen);
    mtrie_leaf_gone = kept;
    EXPECT_EQ(gone, std::vector<std::uint32_t>{IP(10, 1, 0, 0)});
}

// --- Releasing

TEST_F(trie, releasing_no_leaf_does_nothing)
{
    mtrie_leaf_free(TREE, root, nullptr);
    EXPECT_EQ(card.printed(), "");
}

TEST_F(trie, only_the_last_release_gives_the_leaf_back)
{
    mtrie_leaf *made = leaf(IP(10, 0, 0, 0), 8);
    made->refcount = 2;
    mtrie_leaf_free(TREE, root, made);
    EXPECT_EQ(made->refcount, 1);
    EXPECT_EQ(card.printed(), "");
    EXPECT_EQ(leaves(), 2);
    mtrie_leaf_free(TREE, root, made);
    EXPECT_EQ(card.printed(), freeing(made, IP(10, 0, 0, 0), 8));
    EXPECT_EQ(leaves(), 1);
}

TEST_F(trie, a_leaf_without_a_reference_is_given_back_by_one_release)
{
    mtrie_leaf *made = leaf(IP(10, 0, 0, 0), 8);
    mtrie_leaf_free(TREE, root, made);
    EXPECT_EQ(leaves(), 1);
}

TEST_F(trie, a_leaf_given_back_with_links_warns_of_each_and_follows_none)
{
    mtrie_leaf *made = leaf(IP(10, 0, 0, 0), 8), *other = leaf(IP(11, 0, 0, 0), 8);
    other->refcount = 7;
    made->refcount = 1;
    made->back = made->fwd = made->left = made->right = card_ptr<mtrie_leaf>(other);
    mtrie_leaf_free(TREE, root, made);
    const std::string warnings =
        text("\nmtrie_leaf_free[103] ::  refcount of leaf reached 0 while fwd_list non-empty prefix 0x%x bits in mask "
             "%u.",
             IP(10, 0, 0, 0), 8u) +
        text("\nmtrie_leaf_free[114] :: refcount of leaf reached 0 while back pointer set prefix 0x%x bits in mask %u.",
             IP(10, 0, 0, 0), 8u) +
        text("\nmtrie_leaf_free[125] :: refcount of leaf reached 0 while left pointer set prefix 0x%x bits in mask %u",
             IP(10, 0, 0, 0), 8u) +
        text("\nmtrie_leaf_free[136] :: refcount of leaf reached 0 while right pointer set prefix 0x%x bits in mask %u",
             IP(10, 0, 0, 0), 8u);
    EXPECT_EQ(card.printed(), freeing(made, IP(10, 0, 0, 0), 8, warnings));
    EXPECT_EQ(other->refcount, 7);
}

// --- Broken lists: each is printed, and the operation stops there

TEST_F(trie, a_leaf_that_has_a_left_or_a_right_peer_already_is_not_added_to_a_list)
{
    mtrie_leaf *other = leaf(IP(99, 0, 0, 0), 8);
    mtrie_leaf *made = leaf(IP(10, 1, 0, 0), 16);
    made->left = other;
    EXPECT_EQ(mtrie_leaf_insert(TREE, root, made), 1);
    EXPECT_EQ(card.printed(),
              linking(IP(10, 1, 0, 0), 16, 0, 0) + adding(IP(10, 1, 0, 0), 16, 0, 0) +
                  text("\nmtrie_add_to_fwd_list[219] :: add failed as leaf already has a left peer prefix 0x%x bits in "
                       "mask %u.\n",
                       IP(10, 1, 0, 0), 16u));
    EXPECT_EQ(standard->fwd.addr(), 0u);

    mtrie_leaf *second = leaf(IP(10, 2, 0, 0), 16);
    second->right = other;
    EXPECT_EQ(mtrie_leaf_insert(TREE, root, second), 1);
    EXPECT_EQ(card.printed(),
              linking(IP(10, 2, 0, 0), 16, 0, 0) + adding(IP(10, 2, 0, 0), 16, 0, 0) +
                  text("\nmtrie_add_to_fwd_list[227] :: add failed as leaf already has a right peer prefix 0x%x bits "
                       "in mask %u.\n",
                       IP(10, 2, 0, 0), 16u));
    EXPECT_EQ(standard->fwd.addr(), 0u);
}

TEST_F(trie, nothing_is_added_before_a_head_that_has_a_left_peer)
{
    mtrie_leaf *head = insert(IP(10, 0, 0, 0), 8);
    head->left = standard;
    card.forget();
    mtrie_leaf *made = leaf(IP(11, 0, 0, 0), 8);
    EXPECT_EQ(mtrie_leaf_insert(TREE, root, made), 1);
    EXPECT_EQ(card.printed(), linking(IP(11, 0, 0, 0), 8, 0, 0) + adding(IP(11, 0, 0, 0), 8, 0, 0) +
                                  text("\nmtrie_add_to_fwd_list[238] :: add failed as this first forward leaf already "
                                       "has a left peer, prefix 0x%x bits in mask %u.\n",
                                       IP(10, 0, 0, 0), 8u));
    EXPECT_EQ(standard->fwd.get(), head);
    EXPECT_EQ(made->right.addr(), 0u);
}

TEST_F(trie, the_newest_leaf_is_the_head_of_the_list_and_counts_its_neighbours_references)
{
    mtrie_leaf *first = insert(IP(10, 0, 0, 0), 8), *second = insert(IP(11, 0, 0, 0), 8);
    mtrie_leaf *third = insert(IP(12, 0, 0, 0), 8);
    EXPECT_EQ(standard->fwd.get(), third);
    EXPECT_EQ(third->right.get(), second);
    EXPECT_EQ(second->right.get(), first);
    EXPECT_EQ(first->left.get(), second);
    EXPECT_EQ(second->left.get(), third);
    EXPECT_EQ(third->left.addr(), 0u);
    EXPECT_EQ(third->refcount, 1 + 1 + 1);  // slot, fwd, the second's left
    EXPECT_EQ(second->refcount, 1 + 1 + 1); // slot, the third's right, the first's left
    EXPECT_EQ(first->refcount, 1 + 1);      // slot, the second's right

    mtrie_leaf_delete(TREE, root, second);
    EXPECT_EQ(third->right.get(), first);
    EXPECT_EQ(first->left.get(), third);
    expect_sound();
}

TEST_F(trie, a_left_neighbour_that_does_not_name_the_leaf_stops_its_removal)
{
    insert(IP(10, 0, 0, 0), 8);
    mtrie_leaf *second = insert(IP(11, 0, 0, 0), 8), *third = insert(IP(12, 0, 0, 0), 8);
    third->right = standard;
    card.forget();
    mtrie_leaf_delete(TREE, root, second);
    EXPECT_EQ(card.printed(),
              linking_to_null(IP(11, 0, 0, 0), 8) + removing(second, IP(11, 0, 0, 0), 8) +
                  text("\nmtrie_remove_from_fwd_list[303] :: leaf->left->right not equal to leaf prefix 0x%x bits in "
                       "mask %u.\n",
                       IP(11, 0, 0, 0), 8u));
    EXPECT_EQ(second->left.get(), third); // as it was
}

TEST_F(trie, a_right_neighbour_that_does_not_name_the_leaf_stops_its_removal)
{
    mtrie_leaf *first = insert(IP(10, 0, 0, 0), 8), *second = insert(IP(11, 0, 0, 0), 8);
    insert(IP(12, 0, 0, 0), 8);
    first->left = standard;
    card.forget();
    mtrie_leaf_delete(TREE, root, second);
    EXPECT_EQ(
        card.printed(),
        linking_to_null(IP(11, 0, 0, 0), 8) + removing(second, IP(11, 0, 0, 0), 8) +
            text("\nmtrie_remove_from_fwd_list[321] :: cannot remove from fwd list as leaf->right->left not equal "
                 "to leaf prefix 0x%x bits in mask %u.\n",
                 IP(11, 0, 0, 0), 8u));
    EXPECT_EQ(second->right.get(), first);
}
