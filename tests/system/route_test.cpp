// route_test.cpp - routes given over RPC, and what then stands in the three tables, word for word.

#include <gtest/gtest.h>

#include "serving_card.h"

using namespace harness;

namespace
{
constexpr std::uint32_t STATIC = IP(10, 20, 0, 0);

class daemon_routes : public testing::Test
{
protected:
    serving_card live;

    std::uint32_t host_a(remote_call (*call)(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t)) const
    {
        return live.result(call(GATEWAY, ENCAP, IFID, CTX));
    }
    void add_hosts() const
    {
        EXPECT_EQ(host_a(call_host_add), 0u);
        EXPECT_EQ(live.result(call_host_add(OTHER_HOST, OTHER_ENCAP, OTHER_IFID)), 0u);
    }
    std::uint32_t add_static(std::uint32_t nexthop) const
    {
        return live.result(call_route_add(STATIC, MASK16, nexthop));
    }
    std::uint32_t is_full() const
    {
        return live.result({"rib_max_ecmp_route", {arg16(CTX), arg32(CTX), arg32(STATIC), arg32(MASK16)}});
    }
    void expect_tables(void (*change)(table_image &)) const
    {
        for (const auto &[name, base] : live.copies()) {
            table_image expected = table_at_start(base);
            change(expected);
            EXPECT_EQ(table_difference(memory_words(live.card, name), expected.words), "") << name;
        }
    }
};

// Trees take the first 256 nodes and leaves, the drop entries leaves 256 to 511; what a test gives comes after.
constexpr std::uint32_t FIRST_NODE = 256, FIRST_LEAF = 512;

// The host on the first interface alone: three nodes down to its /32.
void with_host_a(table_image &t)
{
    table_child(t, CTX, 10, FIRST_NODE, CTX);
    table_child(t, FIRST_NODE, 1, FIRST_NODE + 1, CTX);
    table_child(t, FIRST_NODE + 1, 0, FIRST_NODE + 2, CTX);
    table_leaf_slot(t, FIRST_NODE + 2, 9, FIRST_LEAF);
    table_word(t, leaf_at(FIRST_LEAF), adjacency(IFID, ENCAP));
}

// And the one on the other interface: two nodes more.
void with_hosts(table_image &t)
{
    with_host_a(t);
    table_child(t, FIRST_NODE, 2, FIRST_NODE + 3, CTX);
    table_child(t, FIRST_NODE + 3, 0, FIRST_NODE + 4, CTX);
    table_leaf_slot(t, FIRST_NODE + 4, 9, FIRST_LEAF + 1);
    table_word(t, leaf_at(FIRST_LEAF + 1), adjacency(OTHER_IFID, OTHER_ENCAP));
}

// A leaf with both hosts as paths: it is path 1, ECMP block 0 holds path 2.
void with_two_paths(table_image &t, std::uint32_t leaf)
{
    with_hosts(t);
    table_word(t, leaf_at(leaf), ADJACENCY_ECMP | adjacency(IFID, ENCAP));
    table_word(t, leaf_at(leaf) + 4, t.base + ecmp_at(0));
    table_word(t, ecmp_at(0), 0x92000000);
    table_word(t, ecmp_at(0) + 4, path_entry(OTHER_IFID, OTHER_ENCAP));
}
} // namespace

TEST_F(daemon_routes, an_arp_host_stands_in_every_copy)
{
    EXPECT_EQ(host_a(call_host_add), 0u);
    expect_tables(with_host_a);
}

TEST_F(daemon_routes, a_static_route_with_two_paths_stands_word_for_word_in_every_copy)
{
    add_hosts();
    expect_tables(with_hosts);
    EXPECT_EQ(add_static(GATEWAY), 0u);
    EXPECT_EQ(add_static(OTHER_HOST), 0u);
    expect_tables([](table_image &t) {
        with_two_paths(t, FIRST_LEAF + 2);
        table_leaf_slot(t, FIRST_NODE, 20, FIRST_LEAF + 2);
    });
}

TEST_F(daemon_routes, a_static_route_waits_for_its_gateway_and_is_installed_when_the_host_is_learned)
{
    EXPECT_EQ(add_static(GATEWAY), 0u);
    expect_tables([](table_image &) {});
    EXPECT_EQ(host_a(call_host_add), 0u);
    expect_tables([](table_image &t) {
        with_host_a(t);
        table_leaf_slot(t, FIRST_NODE, 20, FIRST_LEAF + 1);
        table_word(t, leaf_at(FIRST_LEAF + 1), adjacency(IFID, ENCAP));
    });
}

TEST_F(daemon_routes, removing_the_second_path_leaves_the_first_alone_in_the_leaf)
{
    add_hosts();
    EXPECT_EQ(add_static(GATEWAY), 0u);
    EXPECT_EQ(add_static(OTHER_HOST), 0u);
    EXPECT_EQ(live.result(call_route_remove(STATIC, MASK16, OTHER_HOST)), 0u);
    for (const auto &[name, base] : live.copies()) {
        const std::vector<std::uint32_t> words = memory_words(live.card, name);
        EXPECT_EQ(words[leaf_at(FIRST_LEAF + 2) / 4], adjacency(IFID, ENCAP)) << name;
        EXPECT_EQ(words[leaf_at(FIRST_LEAF + 2) / 4 + 1], 0u) << name;
    }
    EXPECT_EQ(live.result(call_route_remove(STATIC, MASK16, OTHER_HOST)), 1u);
}

TEST_F(daemon_routes, a_removed_host_takes_its_words_out_of_every_slot)
{
    EXPECT_EQ(host_a(call_host_add), 0u);
    EXPECT_EQ(host_a(call_host_remove), 0u);
    for (const auto &[name, base] : live.copies())
        EXPECT_EQ(memory_words(live.card, name)[slot_at(CTX, 10) / 4], base + leaf_at(CTX)) << name;
    EXPECT_EQ(host_a(call_host_remove), 1u);
}

TEST_F(daemon_routes, a_host_on_an_interface_that_is_down_or_unknown_is_refused_and_changes_nothing)
{
    EXPECT_EQ(live.result(call_host_add(IP(10, 3, 0, 2), 0x1003, DOWN_IFID)), 1u);
    EXPECT_EQ(live.result(call_host_add(IP(10, 4, 0, 2), 0x1004, 999)), 1u);
    expect_tables([](table_image &) {});
    EXPECT_EQ(live.lines("if 7 DOWN"),
              (text_lines{"100 <Ctx:3>rib_add_host_route, if 7 DOWN, obj 1 addr 0xa030002/32 add Fails, encapid "
                          "0x1003\n"}));
}

TEST_F(daemon_routes, a_default_route_changes_the_default_leaf_and_needs_no_node)
{
    add_hosts();
    EXPECT_EQ(live.result(call_route_add(0, 0, GATEWAY)), 0u);
    expect_tables([](table_image &t) {
        with_hosts(t);
        table_word(t, leaf_at(CTX), adjacency(IFID, ENCAP));
    });
    EXPECT_EQ(live.result(call_route_add(0, 0, OTHER_HOST)), 0u);
    expect_tables([](table_image &t) { with_two_paths(t, CTX); });
}

TEST_F(daemon_routes, the_ninth_path_is_refused_and_its_line_stands_in_the_history)
{
    for (std::uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(is_full(), 0u) << i;
        EXPECT_EQ(add_static(GATEWAY + i), 0u) << i;
    }
    EXPECT_EQ(is_full(), 1u);
    EXPECT_EQ(add_static(IP(10, 1, 0, 99)), 1u);
    EXPECT_EQ(
        live.lines("MAX ECMP exceed route"),
        (text_lines{"100 <Ctx:3>rib_add_route: MAX ECMP exceed route/maskbits 0a140000/16-> nexthop 0a010063 \n"}));
    expect_tables([](table_image &) {}); // no gateway is known, so no processor sees any of it
}

TEST_F(daemon_routes, eight_installed_paths_fill_the_leaf_and_the_seven_entries_of_its_block)
{
    for (std::uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(live.result(call_host_add(GATEWAY + i, 0x2000 + i)), 0u) << i;
        EXPECT_EQ(add_static(GATEWAY + i), 0u) << i;
    }
    const std::vector<std::uint32_t> words = memory_words(live.card, "mem/ixp2");
    const std::uint32_t leaf = words[slot_at(FIRST_NODE, 20) / 4] - TABLE_IXP;
    EXPECT_EQ(words[leaf / 4], ADJACENCY_ECMP | adjacency(IFID, 0x2000));
    EXPECT_EQ(words[leaf / 4 + 1], TABLE_IXP + ecmp_at(0));
    EXPECT_EQ(words[ecmp_at(0) / 4], HEADER_VALID | 7u << 28 | 7u << 25);
    for (std::uint32_t i = 1; i < 8; ++i)
        EXPECT_EQ(words[ecmp_at(0) / 4 + i], path_entry(IFID, 0x2000 + i)) << i;
}

TEST_F(daemon_routes, a_path_given_twice_is_refused_with_its_line)
{
    EXPECT_EQ(live.result(call_route_add(STATIC | 0x1234, MASK16, GATEWAY)), 0u);
    EXPECT_EQ(add_static(GATEWAY), 1u);
    EXPECT_EQ(live.lines("DUPLICATE"),
              (text_lines{"100 <Ctx:3>rib_add_route: DUPLICATE route/maskbits 0a140000/16-> nexthop 0a010009 \n"}));
}

TEST_F(daemon_routes, a_gateway_is_asked_of_the_arp_service_and_taken_back_on_removal)
{
    rpc_server arp(live.card, 10, "tn_arp_add_entry");
    std::uint32_t sense = 1;
    for (const auto call : {call_route_add, call_route_remove}) {
        rpc_send(live.caller.fd, rpc_record(1, call(STATIC, MASK16, GATEWAY, CTX)));
        const byte_string asked = rpc_serve_one(arp, 0);
        EXPECT_EQ(asked,
                  rpc_record(get32(asked, 4), "tn_arp_add_entry",
                             {arg16(CTX), arg32(0), arg32(GATEWAY), arg32(GATEWAY), arg_small(2), arg_small(sense--)}));
        EXPECT_EQ(rpc_receive(live.caller.fd).result, 0u);
    }
}

TEST(daemon_one_processor, routes_go_to_the_wired_copy_and_the_first_processor_and_an_old_second_table_stays)
{
    const card_dir card;
    file_write(card.at("card.conf"), "num_ixp = 1\n");
    make_folder(card.at("mem"));
    const std::string old_table(std::size_t{TABLE_WORDS} * 4, 'x');
    file_write(card.at("mem/ixp2"), old_table);
    interfaces_write(card, {{IFID, IF_EXISTS | IF_UP | IF_ADDRESS, 1, 0, IF_ADDR, MASK24, 0, 0}});
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    const rpc_client client(card);
    EXPECT_EQ(rpc_call(client.fd, call_host_add(GATEWAY)).result, 0u);
    table_image expected = table_at_start(TABLE_IXP);
    with_host_a(expected);
    EXPECT_EQ(table_difference(memory_words(card, "mem/ixp1"), expected.words), "");
    EXPECT_TRUE(file_text(card.at("mem/ixp2")) == old_table);
}
