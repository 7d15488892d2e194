// view_table_test.cpp - the views of the mapped tables against tables written down word for word.
#include "view_support.h"

#include <cstdlib>
#include <functional>

#include "card_tool/address_text.h"
#include "card_view/hw_walk.h"
#include "card_view/pools_view.h"
#include "card_view/table_tree.h"
#include "card_view/table_view.h"

using namespace harness;

namespace
{
constexpr table_copy COPIES[] = {COPY_WIRED, COPY_IXP1, COPY_IXP2};

table_view open_copy(const card_dir &card, table_copy copy)
{
    std::string why;
    table_view view = table_open(card.path, copy, card_conf{}, &why);
    EXPECT_TRUE(view.is_open()) << why;
    return view;
}

std::string path_text(const hw_walk &walk)
{
    std::string text;
    for (const hw_path &path : walk.paths)
        text += std::to_string(path.number) + ":" + (path.ifid ? std::to_string(*path.ifid) : "?") + "/" +
                std::to_string(path.encap) + " ";
    return text;
}

// A walk of the known table in every copy.
void each_walk(std::uint32_t ctx, std::uint32_t address, const std::function<void(const hw_walk &)> &check)
{
    const card_dir card;
    tables_write(card, known_tables());
    for (const table_copy copy : COPIES) {
        SCOPED_TRACE(TABLE_COPY_NAMES[copy]);
        check(hw_walk_direct(open_copy(card, copy), ctx, address));
    }
}
} // namespace

TEST(view_table, a_host_is_found_through_four_levels_in_every_copy)
{
    each_walk(3, ip(10, 1, 1, 2), [](const hw_walk &walk) {
        ASSERT_EQ(walk.steps.size(), 4u);
        const unsigned nodes[] = {3, 256, 257, 258}, slots[] = {10, 1, 1, 2};
        for (unsigned i = 0; i < 4; ++i) {
            EXPECT_EQ(walk.steps[i].level, i);
            EXPECT_EQ(walk.steps[i].node, nodes[i]);
            EXPECT_EQ(walk.steps[i].index, slots[i]);
        }
        EXPECT_EQ(walk.leaf, 601u);
        EXPECT_EQ(path_text(walk), "1:5/4097 ");
        EXPECT_EQ(walk.fault, "");
        EXPECT_FALSE(walk.ecmp || walk.nat || walk.ip_resolve);
    });
}

TEST(view_table, an_ecmp_leaf_gives_as_many_paths_as_its_block_counts)
{
    each_walk(3, ip(10, 20, 99, 1), [](const hw_walk &walk) {
        EXPECT_EQ(walk.leaf, 600u);
        EXPECT_TRUE(walk.ecmp);
        ASSERT_TRUE(walk.block.has_value());
        EXPECT_EQ(walk.block->index, 7u);
        EXPECT_TRUE(walk.block->valid);
        EXPECT_EQ(walk.block->count, 2u);
        EXPECT_EQ(walk.block->sequence, 4u);
        EXPECT_EQ(walk.block->entries.size(), 7u);
        EXPECT_EQ(path_text(walk), "1:5/4097 2:6/4098 3:7/4099 ");
    });
}

TEST(view_table, of_a_block_that_is_not_valid_no_path_is_taken)
{
    each_walk(3, ip(10, 21, 0, 1), [](const hw_walk &walk) {
        ASSERT_TRUE(walk.block.has_value());
        EXPECT_EQ(walk.block->index, 8u);
        EXPECT_FALSE(walk.block->valid);
        EXPECT_EQ(path_text(walk), "1:5/4097 ");
        EXPECT_EQ(walk.fault, "");
    });
}

TEST(view_table, nat_and_connected_leaves_show_their_flags)
{
    each_walk(3, ip(198, 51, 100, 0), [](const hw_walk &walk) {
        EXPECT_TRUE(walk.nat);
        EXPECT_EQ(path_text(walk), "1:9/7 ");
    });
    each_walk(3, ip(10, 1, 2, 200), [](const hw_walk &walk) {
        EXPECT_TRUE(walk.ip_resolve);
        EXPECT_FALSE(walk.nat);
        EXPECT_EQ(path_text(walk), "1:6/0 ");
    });
}

TEST(view_table, an_address_without_a_route_answers_the_blank_leaf)
{
    each_walk(4, ip(10, 20, 0, 1), [](const hw_walk &walk) {
        EXPECT_EQ(walk.leaf, 4u);
        EXPECT_TRUE(hw_walk_is_blank(walk));
    });
    each_walk(4, ip(224, 0, 0, 5), [](const hw_walk &walk) {
        EXPECT_FALSE(hw_walk_is_blank(walk));
        EXPECT_EQ(path_text(walk), "1:0/32769 ");
    });
}

TEST(view_table, a_word_that_leads_out_of_the_table_is_a_fault_and_is_not_followed)
{
    const card_dir card;
    card_tables tables = known_tables();
    table_word(tables.ixp1, root_at(0), TABLE_IXP + 0x103400 + 1);          // behind the table
    table_word(tables.ixp1, root_at(1), TABLE_IXP + slot_at(5, 1) + 1);     // inside a node
    table_word(tables.ixp1, slot_at(2, 10), TABLE_IXP + leaf_at(1024));     // the leaf after the last
    table_word(tables.ixp1, slot_at(2, 11), 4);                             // below the table
    table_word(tables.ixp1, leaf_at(601) + 4, TABLE_IXP + ecmp_at(7) + 16); // inside a block
    table_word(tables.ixp1, root_at(5), 0);
    tables_write(card, tables);
    const table_view view = open_copy(card, COPY_IXP1);
    EXPECT_EQ(hw_walk_direct(view, 0, 0).fault, "a word names a node outside the table");
    EXPECT_EQ(hw_walk_direct(view, 1, 0).fault, "a word names a node outside the table");
    EXPECT_EQ(hw_walk_direct(view, 2, ip(10, 0, 0, 0)).fault, "a word names a leaf outside the table");
    EXPECT_EQ(hw_walk_direct(view, 2, ip(11, 0, 0, 0)).fault, "a word names a leaf outside the table");
    EXPECT_EQ(hw_walk_direct(view, 3, ip(10, 1, 1, 2)).fault, "the leaf names an ECMP block outside the table");
    EXPECT_EQ(hw_walk_direct(view, 5, 0).fault, "the context has no tree");
    EXPECT_EQ(table_count(view).faults, 5u);
    EXPECT_EQ(hw_walk_direct(open_copy(card, COPY_WIRED), 0, 0).fault, "") << "the other copies are as they were";
}

TEST(view_table, a_walk_and_a_tree_end_in_a_table_whose_nodes_name_each_other)
{
    const card_dir card;
    card_tables tables = known_tables();
    for (std::uint32_t slot = 0; slot < 256; ++slot)
        table_word(tables.ixp1, slot_at(9, slot), TABLE_IXP + slot_at(9, 0) + 1);
    tables_write(card, tables);
    const table_view view = open_copy(card, COPY_IXP1);
    EXPECT_EQ(hw_walk_direct(view, 9, ip(1, 2, 3, 4)).fault, "the last level names a node");
    const tree_view tree = tree_read(view, 9);
    EXPECT_EQ(tree.nodes.size(), 1u);
    ASSERT_EQ(tree.faults.size(), 1u);
    EXPECT_EQ(tree.faults[0], "node 9 slot 0: the node is named twice");
}

TEST(view_table, what_can_be_reached_is_counted)
{
    const card_dir card;
    tables_write(card, known_tables());
    const table_use use = table_count(open_copy(card, COPY_IXP2));
    EXPECT_EQ(use.nodes, 256u + 5);
    EXPECT_EQ(use.leaves, 512u + 5);
    EXPECT_EQ(use.blocks, 2u);
    EXPECT_EQ(use.roots, 256u);
    EXPECT_EQ(use.faults, 0u);
    const pools_view pools = pools_from_table(open_copy(card, COPY_IXP2));
    EXPECT_EQ(pools.pools[2].used, 2u);
    EXPECT_EQ(pools.pools[2].total, 128u);
    EXPECT_EQ(pools.source, "reachable in ixp2");
}

TEST(view_table, words_that_changed_are_counted_from_one_look_to_the_next)
{
    const card_dir card;
    tables_write(card, known_tables());
    const table_view view = open_copy(card, COPY_WIRED);
    std::vector<std::uint32_t> last;
    EXPECT_EQ(table_changed_words(view, last), 0u) << "the first look has nothing to compare with";
    last[100] ^= 1;
    last[5000] ^= 1;
    EXPECT_EQ(table_changed_words(view, last), 2u);
    EXPECT_EQ(table_changed_words(view, last), 0u);
}

TEST(view_table, a_memory_that_is_missing_or_short_is_not_opened)
{
    const card_dir card;
    std::string why;
    EXPECT_FALSE(table_open(card.path, COPY_IXP1, card_conf{}, &why).is_open());
    EXPECT_EQ(why, card.at("mem/ixp1") + ": missing: no route manager has run on this card");
    make_folder(card.at("mem"));
    file_write(card.at("mem/ixp1"), "short");
    EXPECT_FALSE(table_open(card.path, COPY_IXP1, card_conf{}, &why).is_open());
    EXPECT_EQ(why, card.at("mem/ixp1") + ": not a regular file of at least 1061888 bytes");
}

TEST(view_tree, equal_neighbours_are_one_run)
{
    const card_dir card;
    tables_write(card, known_tables());
    const tree_view tree = tree_read(open_copy(card, COPY_WIRED), 3);
    EXPECT_TRUE(tree.faults.empty());
    ASSERT_EQ(tree.nodes.size(), 6u);
    const tree_node &root = tree.nodes[0];
    EXPECT_EQ(root.index, 3u);
    ASSERT_EQ(root.runs.size(), 6u); // 0-9, 10, 11-197, 198, 199-223, 224-255
    EXPECT_EQ(root.runs[2].first, 11u);
    EXPECT_EQ(root.runs[2].last, 197u);
    EXPECT_EQ(root.runs[5].target.index, 259u);
    EXPECT_EQ(root.runs[5].last, 255u);
    for (const tree_node &node : tree.nodes) {
        unsigned next = 0;
        for (const tree_run &run : node.runs) {
            EXPECT_EQ(run.first, next) << "node " << node.index;
            next = run.last + 1;
        }
        EXPECT_EQ(next, 256u);
    }
    EXPECT_EQ(prefix_text(tree.nodes.back().prefix, 8 * tree.nodes.back().level), "10.1.1.0/24");
    EXPECT_EQ(tree.leaves.size(), 7u); // the five, "no route", multicast
}

TEST(view_tree, the_drawing_names_every_node_leaf_and_path_and_graphviz_takes_it)
{
    const card_dir card;
    tables_write(card, known_tables());
    const std::string dot = tree_dot(tree_read(open_copy(card, COPY_IXP1), 3));
    for (const char *part : {"root: node 3", "node 258</b>  10.1.1.0/24", "0-9, 11-197, 199-223: leaf 3, no route",
                             "leaf 600</b>  ECMP", "path 3: interface 7, encap 0x1003", "block 8, NOT valid",
                             "interface 9, NAT value 7", "ip-resolve", "n257:r1:e -> n258"})
        EXPECT_NE(dot.find(part), std::string::npos) << part << " is missing in\n" << dot;
    file_write(card.at("tree.dot"), dot);
    if (std::system("command -v dot > /dev/null 2>&1") != 0)
        GTEST_SKIP() << "graphviz is not installed: the drawing was not put through it";
    EXPECT_EQ(
        std::system(
            ("dot -Tsvg -o " + card.at("tree.svg") + " " + card.at("tree.dot") + " 2> " + card.at("dot.err")).c_str()),
        0);
    EXPECT_EQ(file_text(card.at("dot.err")), "");
    EXPECT_NE(file_text(card.at("tree.svg")).find("10.1.1.0/24"), std::string::npos);
}

TEST(view_tree, a_context_without_a_tree_is_drawn_as_such)
{
    const card_dir card;
    card_tables tables = known_tables();
    table_word(tables.ixp1, root_at(3), 0);
    tables_write(card, tables);
    const tree_view tree = tree_read(open_copy(card, COPY_IXP1), 3);
    EXPECT_TRUE(tree.nodes.empty());
    EXPECT_NE(tree_dot(tree).find("the context has no tree"), std::string::npos);
}
