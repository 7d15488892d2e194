// view_dump_test.cpp - the lines of the dump procedure, decoded.
#include <gtest/gtest.h>

#include "card_view/card_summary.h"
#include "card_view/debug_view.h"
#include "card_view/hw_walk.h"

namespace
{
std::string dump_of(const std::vector<std::string> &lines)
{
    std::string text;
    for (std::string line : lines) {
        line.resize(HW_DUMP_LINE_BYTES, '\0');
        text += line;
    }
    return text;
}

const std::vector<std::string> LEVELS = {"\n level 0 Mnode found, next_index=10.\n",
                                         "\n level 1 Mnode found, next_index=20.\n"};
constexpr const char *FOUND = "\nSearch terminating successfully, Leaf found.\n";

std::vector<std::string> lines_of(std::vector<std::string> lines, const std::vector<std::string> &more)
{
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

hw_walk walk_of_lines(const std::vector<std::string> &lines)
{
    return hw_walk_from_dump(dump_of(lines), COPY_IXP1, 3, 0);
}
} // namespace

TEST(view_dump, an_ecmp_leaf_is_decoded_whole)
{
    std::vector<std::string> lines = lines_of(
        LEVELS, {FOUND, "\nip resolve flag 0, ecmp flag 1, nat flag 0\n",
                 "\nRoute/ECMP result #1 encaps id 4097 if_id 1f \n", "\n ixp 1  ecmp node 0xabc024e0 found.\n",
                 "\n valid 1, count 1, seq 1, \n", "\n ECMP result #2  encaps id 4098 if_id a \n"});
    for (int i = 3; i <= 8; ++i)
        lines.push_back("\n ECMP result #" + std::to_string(i) + "  encaps id 0 if_id 0 \n");
    const hw_walk walk = walk_of_lines(lines);
    EXPECT_EQ(walk.fault, "");
    ASSERT_EQ(walk.steps.size(), 2u);
    EXPECT_EQ(walk.steps[1].index, 20u);
    EXPECT_TRUE(walk.has_leaf && walk.ecmp);
    ASSERT_EQ(walk.paths.size(), 2u);
    EXPECT_EQ(walk.paths[0].ifid, 31u); // printed in hexadecimal
    EXPECT_EQ(walk.paths[1].ifid, 10u);
    EXPECT_EQ(walk.paths[1].encap, 4098u);
    ASSERT_TRUE(walk.block.has_value());
    EXPECT_EQ(walk.block->address, 0xabc024e0u);
    EXPECT_EQ(walk.block->entries.size(), 7u);
}

TEST(view_dump, a_nat_leaf_gives_its_value_and_no_interface)
{
    const hw_walk walk = walk_of_lines(
        lines_of(LEVELS, {FOUND, "\nip resolve flag 0, ecmp flag 0, nat flag 1\n", "\nNAT result,  IXP value 7\n"}));
    EXPECT_EQ(walk.fault, "");
    EXPECT_TRUE(walk.nat);
    ASSERT_EQ(walk.paths.size(), 1u);
    EXPECT_FALSE(walk.paths[0].ifid.has_value());
    EXPECT_EQ(walk.paths[0].encap, 7u);
}

TEST(view_dump, a_search_that_ends_without_a_leaf_has_none)
{
    EXPECT_FALSE(walk_of_lines(lines_of(LEVELS, {FOUND})).has_leaf);
    EXPECT_EQ(walk_of_lines(lines_of(LEVELS, {FOUND})).fault, "");
    EXPECT_EQ(walk_of_lines({"\nSearch terminating unsuccessfully. Null leaf.\n"}).fault,
              "the last level names a node");
}

TEST(view_dump, lines_of_another_form_are_refused_and_not_guessed_at)
{
    const std::string WRONG = "the dump holds an unknown line";
    EXPECT_EQ(walk_of_lines({"\n level 1 Mnode found, next_index=10.\n"}).fault, WRONG); // a level is missing
    EXPECT_EQ(walk_of_lines({"\n level 0 Mnode found, next_index=256.\n"}).fault, WRONG);
    EXPECT_EQ(walk_of_lines({"\n level 0 Mnode found, next_index=10.\nand more"}).fault, WRONG);
    EXPECT_EQ(walk_of_lines({"\n valid 1, count 1, seq 1, \n"}).fault, WRONG); // of no block
    EXPECT_EQ(walk_of_lines({""}).fault, WRONG);
    EXPECT_EQ(walk_of_lines({std::string(128, 'x')}).fault, WRONG);
    EXPECT_EQ(walk_of_lines(LEVELS).fault, "the dump is incomplete");
    EXPECT_EQ(walk_of_lines({}).fault, "the route manager had no memory for the dump");
}

TEST(view_summary, blocks_are_decoded_and_other_lengths_refused)
{
    context_summary summary{};
    EXPECT_TRUE(context_summary_rib({0, 0, 0, 4, 0, 0, 1, 0, 0, 36, 0, 0}, summary));
    EXPECT_TRUE(
        context_summary_fib({0, 0, 0, 5, 0, 0, 0, 6, 0, 0, 0, 7, 0, 0, 2, 0, 4, 0, 0, 8, 0, 32, 0, 0}, summary));
    EXPECT_EQ(summary, (context_summary{4, 256, 512, 5, 6, 7}));
    EXPECT_TRUE(context_summary_fib({0, 0, 0, 5, 0, 0, 0, 6, 255, 255, 255, 255, 0, 0, 2, 0, 4, 0, 0, 8, 0, 32, 0, 0},
                                    summary));
    EXPECT_EQ(summary.blocks, -1);
    EXPECT_FALSE(context_summary_rib({}, summary));
    EXPECT_FALSE(context_summary_fib(std::vector<std::uint8_t>(25), summary));
}

TEST(view_debug, memory_and_counter_lines_are_told_apart)
{
    const debug_answer memory = debug_view_parse("0 MTRACK_ROUTE_TABLE 256 1047552 1047552\n9 MTRACK_X 1 2 3\n");
    ASSERT_EQ(memory.memory.size(), 2u);
    EXPECT_EQ(memory.memory[0].live_bytes, 1047552u);
    EXPECT_TRUE(memory.counters.empty());
    const debug_answer counters = debug_view_parse("calls_served 12\nmessages_lost 0\n\nnonsense\n");
    EXPECT_EQ(counters.counters.size(), 2u);
    EXPECT_EQ(counters.counters.at("calls_served"), 12u);
    EXPECT_TRUE(counters.memory.empty());
}
