// norvik_mtrie_dump_test.cpp - the walk of one copy of the hardware table as text, line by line.
//
// Each test asks through the served procedure's function and compares whole lists of lines.
#include "norvik_mtrie_dump.h"

#include <cstring>

#include "norvik_mtrie_hw.h"
#include "rib_card.h"
#include "rib_host.h"
#include "rib_nat.h"
#include "rib_static.h"
#include "route_table.h"

using namespace harness;

namespace
{

constexpr unsigned LINE = 128;
constexpr std::uint32_t NET8 = IP(20, 0, 0, 0);
const std::string FOUND = "\nSearch terminating successfully, Leaf found.\n";
const std::string NULL_LEAF = "\nSearch terminating unsuccessfully. Null leaf.\n";

text_lines dump(const fake_card &card, std::uint16_t copy, std::uint32_t address, std::uint32_t tree = CTX)
{
    const std::uint32_t before = card.blocks(MTRACK_FIB_DISPLAY);
    tnrpc_block reply{0, nullptr};
    EXPECT_EQ(mtrie_hw_dump_api(copy, tree, address, &reply), 0u);
    EXPECT_EQ(card.blocks(MTRACK_FIB_DISPLAY), before + 1);
    EXPECT_EQ(reply.length % LINE, 0u);
    text_lines lines;
    const auto *text = reinterpret_cast<const char *>(reply.data.get());
    for (std::uint32_t at = 0; at < reply.length; at += LINE) {
        EXPECT_LT(strnlen(text + at, LINE), LINE) << "a line has its NUL";
        lines.emplace_back(text + at);
    }
    mtrack_free(reply.data);
    return lines;
}

std::string level(int number, int index)
{
    return "\n level " + std::to_string(number) + " Mnode found, next_index=" + std::to_string(index) + ".\n";
}

std::string path(unsigned number, unsigned encap, const std::string &ifid)
{
    return "\n ECMP result #" + std::to_string(number) + "  encaps id " + std::to_string(encap) + " if_id " + ifid +
           " \n";
}

// Gateways 10.1.0.9 and up are known hosts with encap ids 4660 and up.
struct dump_card : rib_card {
    explicit dump_card(unsigned hosts = 1)
    {
        for (unsigned i = 0; i < hosts; ++i)
            EXPECT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY + i, 32, static_cast<std::uint16_t>(ENCAP + i),
                                               IFID, CTX),
                      0u);
        (void)printed();
    }
};

} // namespace

TEST(mtrie_dump, a_route_of_8_bits_is_one_level_and_the_leaf_in_every_copy)
{
    dump_card card;
    ASSERT_EQ(rib_add_route(CTX, CTX, NET8, MASK8, GATEWAY), 0u);
    for (const unsigned copy : {0u, 1u, 2u, 0xFFFFu})
        EXPECT_EQ(dump(card, static_cast<std::uint16_t>(copy), IP(20, 7, 8, 9)),
                  (text_lines{level(0, 20), FOUND, "\nip resolve flag 0, ecmp flag 0, nat flag 0\n",
                              "\nRoute/ECMP result #1 encaps id 4660 if_id 5 \n"}))
            << "copy " << copy;
}

TEST(mtrie_dump, a_host_is_four_levels_and_the_leaf)
{
    dump_card card;
    EXPECT_EQ(dump(card, 1, GATEWAY), (text_lines{level(0, 10), level(1, 1), level(2, 0), level(3, 9), FOUND,
                                                  "\nip resolve flag 0, ecmp flag 0, nat flag 0\n",
                                                  "\nRoute/ECMP result #1 encaps id 4660 if_id 5 \n"}));
}

TEST(mtrie_dump, a_destination_without_a_route_gets_the_trees_default_leaf)
{
    dump_card card;
    EXPECT_EQ(dump(card, 0, IP(30, 0, 0, 1)),
              (text_lines{level(0, 30), FOUND, "\nip resolve flag 0, ecmp flag 0, nat flag 0\n",
                          "\nRoute/ECMP result #1 encaps id 0 if_id 0 \n"}));
}

TEST(mtrie_dump, an_empty_slot_is_found_without_a_leaf)
{
    dump_card card;
    const std::uint32_t root = card.word(1, 4 * CTX) - HW_NODE_TAG - HW_IXP_BASE;
    platform_store32(card_at<std::uint32_t>(card.memory(1) + root + 4 * 30), 0);
    EXPECT_EQ(dump(card, 1, IP(30, 0, 0, 1)), (text_lines{level(0, 30), FOUND}));
}

TEST(mtrie_dump, an_ecmp_leaf_with_two_extra_paths_lists_seven_of_which_five_are_empty)
{
    dump_card card(3);
    for (unsigned i = 0; i < 3; ++i)
        ASSERT_EQ(rib_add_route(CTX, CTX, NET8, MASK8, GATEWAY + i), 0u);
    for (const std::uint16_t copy : {std::uint16_t{0}, std::uint16_t{1}, std::uint16_t{2}}) {
        // Where the block lies: the pointer in the leaf, in the copy's own form.
        const std::uint32_t form = copy == 0 ? card.wired_phys_base : HW_IXP_BASE;
        const std::uint32_t root = card.word(copy, 4 * CTX) - HW_NODE_TAG - form;
        const std::uint32_t leaf = card.word(copy, root + 4 * 20) - form;
        const std::uint32_t block = card.word(copy, leaf + 4) - form;
        char node[64];
        std::snprintf(node, sizeof node, "\n ixp %d  ecmp node 0x%x found.\n", static_cast<int>(copy),
                      card.memory(copy) + block);
        EXPECT_EQ(dump(card, copy, IP(20, 0, 0, 1)),
                  (text_lines{level(0, 20), FOUND, "\nip resolve flag 0, ecmp flag 1, nat flag 0\n",
                              "\nRoute/ECMP result #1 encaps id 4660 if_id 5 \n", node,
                              "\n valid 1, count 2, seq 2, \n", path(2, 4661, "5"), path(3, 4662, "5"), path(4, 0, "0"),
                              path(5, 0, "0"), path(6, 0, "0"), path(7, 0, "0"), path(8, 0, "0")}))
            << "copy " << copy;
    }
}

TEST(mtrie_dump, a_nat_leaf_shows_its_value_in_place_of_a_path)
{
    dump_card card;
    ASSERT_EQ(rib_add_nat_pool(CTX, IFID, IP(20, 0, 0, 1), 1, 60000), 0u);
    const text_lines lines = dump(card, 0, IP(20, 0, 0, 1));
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[4], FOUND);
    EXPECT_EQ(lines[5].substr(lines[5].find(", nat")), ", nat flag 1\n");
    EXPECT_EQ(lines[6], "\nNAT result,  IXP value 60000\n");
}

TEST(mtrie_dump, the_words_of_the_copy_are_shown_even_where_they_disagree_with_the_routes)
{
    dump_card card;
    ASSERT_EQ(rib_add_route(CTX, CTX, NET8, MASK8, GATEWAY), 0u);
    const std::uint32_t root = card.word(1, 4 * CTX) - HW_NODE_TAG - HW_IXP_BASE;
    const std::uint32_t leaf = card.word(1, root + 4 * 20) - HW_IXP_BASE;
    platform_store32(card_at<std::uint32_t>(card.memory(1) + leaf), 0x9FFFABCD);
    EXPECT_EQ(dump(card, 1, NET8), (text_lines{level(0, 20), FOUND, "\nip resolve flag 1, ecmp flag 0, nat flag 0\n",
                                               "\nRoute/ECMP result #1 encaps id 43981 if_id 1fff \n"}));
    EXPECT_EQ(dump(card, 2, NET8).back(), "\nRoute/ECMP result #1 encaps id 4660 if_id 5 \n");
}

TEST(mtrie_dump, a_fourth_slot_that_names_a_node_ends_without_a_leaf)
{
    dump_card card;
    std::uint32_t node = card.word(1, 4 * CTX) - HW_NODE_TAG - HW_IXP_BASE;
    for (const std::uint32_t index : {10u, 1u, 0u})
        node = card.word(1, node + 4 * index) - HW_NODE_TAG - HW_IXP_BASE;
    platform_store32(card_at<std::uint32_t>(card.memory(1) + node + 4 * 9), card.word(1, 4 * CTX));
    EXPECT_EQ(dump(card, 1, GATEWAY), (text_lines{level(0, 10), level(1, 1), level(2, 0), level(3, 9), NULL_LEAF}));
}

TEST(mtrie_dump, an_address_below_the_table_reads_as_a_null_leaf_or_block)
{
    dump_card card;
    ASSERT_EQ(rib_add_route(CTX, CTX, NET8, MASK8, GATEWAY), 0u);
    const std::uint32_t root = card.word(1, 4 * CTX) - HW_NODE_TAG - HW_IXP_BASE;
    const std::uint32_t leaf = card.word(1, root + 4 * 20) - HW_IXP_BASE;
    platform_store32(card_at<std::uint32_t>(card.memory(1) + leaf), ADJ_ECMP);
    platform_store32(card_at<std::uint32_t>(card.memory(1) + leaf + 4), HW_IXP_BASE - 32);
    const text_lines lines = dump(card, 1, NET8);
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(lines[4], "\n ixp 1  ecmp node 0x0 found.\n");
    EXPECT_EQ(lines[5], "\n valid 0, count 0, seq 0, \n");
    platform_store32(card_at<std::uint32_t>(card.memory(1) + root + 4 * 20), HW_IXP_BASE - 8);
    EXPECT_EQ(dump(card, 1, NET8), (text_lines{level(0, 20), FOUND}));
}

TEST(mtrie_dump, a_processor_that_the_card_does_not_have_has_no_root)
{
    fake_card card(1);
    ASSERT_EQ(card.start(), 0);
    EXPECT_EQ(dump(card, 2, IP(224, 0, 0, 1)), text_lines{FOUND});
    EXPECT_GT(dump(card, 1, IP(224, 0, 0, 1)).size(), 2u);
}

TEST(mtrie_dump, without_memory_the_answer_is_0_and_empty)
{
    dump_card card;
    card.memory_short = true;
    tnrpc_block reply{0, nullptr};
    EXPECT_EQ(mtrie_hw_dump_api(0, CTX, GATEWAY, &reply), 0u);
    EXPECT_EQ(reply.length, 0u);
    EXPECT_FALSE(reply.data);
    card.memory_short = false;
}

TEST(mtrie_dump, every_bit_of_a_leaf_and_of_its_block_has_its_place_in_the_lines)
{
    dump_card card(2);
    for (unsigned i = 0; i < 2; ++i)
        ASSERT_EQ(rib_add_route(CTX, CTX, NET8, MASK8, GATEWAY + i), 0u);
    const std::uint32_t root = card.word(2, 4 * CTX) - HW_NODE_TAG - HW_IXP_BASE;
    const std::uint32_t leaf = card.word(2, root + 4 * 20) - HW_IXP_BASE;
    const std::uint32_t block = card.word(2, leaf + 4) - HW_IXP_BASE;
    const auto store = [&card](std::uint32_t offset, std::uint32_t word) {
        platform_store32(card_at<std::uint32_t>(card.memory(2) + offset), word);
    };
    char node[64];
    std::snprintf(node, sizeof node, "\n ixp 2  ecmp node 0x%x found.\n", card.memory(2) + block);

    store(leaf, 0xE0051234);  // all three flags, ifid 5
    store(block, 0xFA000000); // valid, count 7, sequence 5
    for (std::uint32_t i = 1; i < 8; ++i)
        store(block + 4 * i, i << 18 | (60000 + i));
    store(block + 4, 0xFFFCFFFF); // 14 bits of interface id, two bits that no one shows, 16 bits of encap id
    EXPECT_EQ(dump(card, 2, NET8),
              (text_lines{level(0, 20), FOUND, "\nip resolve flag 1, ecmp flag 1, nat flag 1\n",
                          "\nNAT result,  IXP value 4660\n", node, "\n valid 1, count 7, seq 5, \n",
                          path(2, 65535, "3fff"), path(3, 60002, "2"), path(4, 60003, "3"), path(5, 60004, "4"),
                          path(6, 60005, "5"), path(7, 60006, "6"), path(8, 60007, "7")}));

    store(leaf, 0x40000000);  // an ECMP leaf whose block is being rewritten
    store(block, 0x3C000000); // not valid, count 3, sequence 6
    const text_lines lines = dump(card, 2, NET8);
    ASSERT_EQ(lines.size(), 13u) << "seven paths whatever the header says";
    EXPECT_EQ(lines[2], "\nip resolve flag 0, ecmp flag 1, nat flag 0\n");
    EXPECT_EQ(lines[3], "\nRoute/ECMP result #1 encaps id 0 if_id 0 \n");
    EXPECT_EQ(lines[5], "\n valid 0, count 3, seq 6, \n");
    EXPECT_EQ(lines[6], path(2, 65535, "3fff"));

    store(leaf, 0x20000000); // NAT alone
    EXPECT_EQ(dump(card, 2, NET8), (text_lines{level(0, 20), FOUND, "\nip resolve flag 0, ecmp flag 0, nat flag 1\n",
                                               "\nNAT result,  IXP value 0\n"}));
}

TEST(mtrie_dump, a_root_word_that_names_a_leaf_is_answered_without_a_level)
{
    dump_card card;
    const std::uint32_t root = card.word(0, 4 * CTX);
    const std::uint32_t leaf = card.word(0, root - HW_NODE_TAG - card.wired_phys_base + 4 * 224);
    platform_store32(card_at<std::uint32_t>(card.memory(0) + 4 * CTX), leaf);
    EXPECT_EQ(dump(card, 0, NET8), (text_lines{FOUND, "\nip resolve flag 0, ecmp flag 0, nat flag 0\n",
                                               "\nRoute/ECMP result #1 encaps id 0 if_id 0 \n"}));
    platform_store32(card_at<std::uint32_t>(card.memory(0) + 4 * CTX), root);
}

TEST(mtrie_dump, the_wired_copys_addresses_begin_at_its_physical_base)
{
    dump_card card;
    ASSERT_EQ(rib_add_route(CTX, CTX, NET8, MASK8, GATEWAY), 0u);
    const std::uint32_t root = card.word(0, 4 * CTX) - HW_NODE_TAG - card.wired_phys_base;
    platform_store32(card_at<std::uint32_t>(card.memory(0) + root + 4 * 20), card.wired_phys_base - 8);
    EXPECT_EQ(dump(card, 0, NET8), (text_lines{level(0, 20), FOUND}));
    platform_store32(card_at<std::uint32_t>(card.memory(0) + root + 4 * 20), card.word(1, 4 * CTX));
    EXPECT_EQ(dump(card, 0, NET8), (text_lines{level(0, 20), level(1, 0), FOUND})) << "a processor's address of a node";
}

TEST(mtrie_dump, a_null_word_is_null_in_every_copy_also_where_the_wired_regions_addresses_begin_at_0)
{
    fake_card card;
    card.wired_phys_base = 0;
    ASSERT_EQ(card.start(), 0);
    for (const std::uint16_t copy : {std::uint16_t{0}, std::uint16_t{1}, std::uint16_t{2}}) {
        const std::uint32_t form = copy == 0 ? 0 : HW_IXP_BASE;
        const std::uint32_t root = card.word(copy, 4 * CTX) - HW_NODE_TAG - form;
        const std::uint32_t leaf = card.word(copy, root + 4 * 224) - form;
        platform_store32(card_at<std::uint32_t>(card.memory(copy) + leaf), ADJ_ECMP); // it names no block
        const text_lines lines = dump(card, copy, IP(224, 0, 0, 1));
        ASSERT_EQ(lines.size(), 13u) << "copy " << copy;
        EXPECT_EQ(lines[4], "\n ixp " + std::to_string(copy) + "  ecmp node 0x0 found.\n");
        platform_store32(card_at<std::uint32_t>(card.memory(copy) + root + 4 * 30), 0);
        EXPECT_EQ(dump(card, copy, IP(30, 0, 0, 1)), (text_lines{level(0, 30), FOUND})) << "copy " << copy;
    }
}

TEST(mtrie_dump, a_line_ends_in_zeros_and_nothing_of_other_memory_goes_out)
{
    dump_card card;
    tnrpc_block reply{0, nullptr};
    ASSERT_EQ(mtrie_hw_dump_api(0, CTX, GATEWAY, &reply), 0u);
    EXPECT_EQ(card.heap.at(reply.data.addr()).bytes, 5120u);
    const auto *text = reinterpret_cast<const char *>(reply.data.get());
    for (std::uint32_t at = 0; at < reply.length; at += LINE)
        for (std::size_t i = strnlen(text + at, LINE); i < LINE; ++i)
            ASSERT_EQ(text[at + i], '\0') << "line at " << at << " byte " << i;
    mtrack_free(reply.data);
}
