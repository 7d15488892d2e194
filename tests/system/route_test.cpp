// route_test.cpp - routes given over RPC, and what then stands in the three tables, word for word.

#include <gtest/gtest.h>

#include <unistd.h>

#include "daemon.h"
#include "tables.h"

namespace
{
constexpr std::uint32_t ip(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d)
{
    return a << 24 | b << 16 | c << 8 | d;
}

constexpr std::uint32_t CTX = 3, LEN_HOST = 32;
constexpr std::uint32_t IF_A = 5, IF_B = 6, IF_DOWN = 7;
constexpr std::uint32_t HOST_A = ip(10, 1, 1, 2), ENCAP_A = 0x1001;
constexpr std::uint32_t HOST_B = ip(10, 1, 2, 2), ENCAP_B = 0x1002;
constexpr std::uint32_t STATIC = ip(10, 20, 0, 0), STATIC_MASK = ip(255, 255, 0, 0);

class daemon_routes : public testing::Test
{
protected:
    void SetUp() override
    {
        const std::uint32_t up = IF_EXISTS | IF_UP | IF_ADDRESS | IF_CONTEXT, mask = ip(255, 255, 255, 0);
        interfaces_write(card, {{IF_A, up, 1, 0, ip(10, 1, 1, 1), mask, CTX, 0},
                                {IF_B, up, 1, 0, ip(10, 1, 2, 1), mask, CTX, 0},
                                {IF_DOWN, up & ~IF_UP, 1, 0, ip(10, 1, 3, 1), mask, CTX, 0}});
        ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
        connection = rpc_connect(card, "rpc/9");
        ASSERT_GE(connection, 0);
    }
    void TearDown() override { ::close(connection); }

    std::uint32_t result(const char *name, const std::vector<rpc_arg> &args) const
    {
        const rpc_reply reply = rpc_call(connection, name, args);
        EXPECT_TRUE(reply.arrived && reply.status == 0) << name << ": status " << reply.status;
        return reply.result;
    }
    std::uint32_t host_add(std::uint32_t host, std::uint32_t encap, std::uint32_t ifid) const
    {
        return result("arp_prefix_mgr_add_route",
                      {arg16(1), arg32(host), arg32(LEN_HOST), arg16(encap), arg16(ifid), arg32(CTX)});
    }
    std::uint32_t host_remove(std::uint32_t host, std::uint32_t encap, std::uint32_t ifid) const
    {
        return result("arp_prefix_mgr_remove_route",
                      {arg16(1), arg32(host), arg32(LEN_HOST), arg32(0), arg16(encap), arg16(ifid), arg32(CTX)});
    }
    std::uint32_t route_add(std::uint32_t prefix, std::uint32_t mask, std::uint32_t hop) const
    {
        return result("rib_add_route", {arg16(CTX), arg32(CTX), arg32(prefix), arg32(mask), arg32(hop)});
    }
    std::uint32_t route_remove(std::uint32_t prefix, std::uint32_t mask, std::uint32_t hop) const
    {
        return result("rib_remove_route", {arg16(CTX), arg32(CTX), arg32(prefix), arg32(mask), arg32(hop)});
    }
    std::uint32_t is_full(std::uint32_t prefix, std::uint32_t mask) const
    {
        return result("rib_max_ecmp_route", {arg16(CTX), arg32(CTX), arg32(prefix), arg32(mask)});
    }
    void expect_tables(void (*change)(table_image &)) const
    {
        for (const char *name : {"mem/wired", "mem/ixp1", "mem/ixp2"}) {
            table_image expected = table_at_start(name == std::string("mem/wired") ? TABLE_WIRED : TABLE_IXP);
            change(expected);
            EXPECT_EQ(table_difference(memory_words(card, name), expected.words), "") << name;
        }
    }

    const card_dir card;
    daemon_process daemon{card};
    int connection = -1;
};

// Trees take the first 256 nodes and leaves, the drop entries leaves 256 to 511; what a test gives comes after.
constexpr std::uint32_t FIRST_NODE = 256, FIRST_LEAF = 512;

// Host A alone: three nodes down to its /32.
void with_host_a(table_image &t)
{
    table_child(t, CTX, 10, FIRST_NODE, CTX);
    table_child(t, FIRST_NODE, 1, FIRST_NODE + 1, CTX);
    table_child(t, FIRST_NODE + 1, 1, FIRST_NODE + 2, CTX);
    table_leaf_slot(t, FIRST_NODE + 2, 2, FIRST_LEAF);
    table_word(t, leaf_at(FIRST_LEAF), adjacency(IF_A, ENCAP_A));
}

// Host B next to it: one node more.
void with_hosts(table_image &t)
{
    with_host_a(t);
    table_child(t, FIRST_NODE + 1, 2, FIRST_NODE + 3, CTX);
    table_leaf_slot(t, FIRST_NODE + 3, 2, FIRST_LEAF + 1);
    table_word(t, leaf_at(FIRST_LEAF + 1), adjacency(IF_B, ENCAP_B));
}

// And the static route over both: the leaf is path 1, ECMP block 0 holds path 2.
void with_two_paths(table_image &t)
{
    with_hosts(t);
    table_leaf_slot(t, FIRST_NODE, 20, FIRST_LEAF + 2);
    table_word(t, leaf_at(FIRST_LEAF + 2), ADJACENCY_ECMP | adjacency(IF_A, ENCAP_A));
    table_word(t, leaf_at(FIRST_LEAF + 2) + 4, t.base + ecmp_at(0));
    table_word(t, ecmp_at(0), 0x92000000);
    table_word(t, ecmp_at(0) + 4, path_entry(IF_B, ENCAP_B));
}
} // namespace

TEST_F(daemon_routes, an_arp_host_stands_in_every_copy)
{
    EXPECT_EQ(host_add(HOST_A, ENCAP_A, IF_A), 0u);
    expect_tables(with_host_a);
}

TEST_F(daemon_routes, a_static_route_with_two_paths_stands_word_for_word_in_every_copy)
{
    EXPECT_EQ(host_add(HOST_A, ENCAP_A, IF_A), 0u);
    EXPECT_EQ(host_add(HOST_B, ENCAP_B, IF_B), 0u);
    expect_tables(with_hosts);
    EXPECT_EQ(route_add(STATIC, STATIC_MASK, HOST_A), 0u);
    EXPECT_EQ(route_add(STATIC, STATIC_MASK, HOST_B), 0u);
    expect_tables(with_two_paths);
}

TEST_F(daemon_routes, a_static_route_waits_for_its_gateway_and_is_installed_when_the_host_is_learned)
{
    EXPECT_EQ(route_add(STATIC, STATIC_MASK, HOST_A), 0u);
    expect_tables([](table_image &) {});
    EXPECT_EQ(host_add(HOST_A, ENCAP_A, IF_A), 0u);
    expect_tables([](table_image &t) {
        with_host_a(t);
        table_leaf_slot(t, FIRST_NODE, 20, FIRST_LEAF + 1);
        table_word(t, leaf_at(FIRST_LEAF + 1), adjacency(IF_A, ENCAP_A));
    });
}

TEST_F(daemon_routes, removing_the_second_path_leaves_the_first_alone_in_the_leaf)
{
    EXPECT_EQ(host_add(HOST_A, ENCAP_A, IF_A), 0u);
    EXPECT_EQ(host_add(HOST_B, ENCAP_B, IF_B), 0u);
    EXPECT_EQ(route_add(STATIC, STATIC_MASK, HOST_A), 0u);
    EXPECT_EQ(route_add(STATIC, STATIC_MASK, HOST_B), 0u);
    EXPECT_EQ(route_remove(STATIC, STATIC_MASK, HOST_B), 0u);
    for (const char *name : {"mem/wired", "mem/ixp1", "mem/ixp2"}) {
        const std::vector<std::uint32_t> words = memory_words(card, name);
        EXPECT_EQ(words[leaf_at(FIRST_LEAF + 2) / 4], adjacency(IF_A, ENCAP_A)) << name;
        EXPECT_EQ(words[leaf_at(FIRST_LEAF + 2) / 4 + 1], 0u) << name;
    }
    EXPECT_EQ(route_remove(STATIC, STATIC_MASK, HOST_B), 1u);
}

TEST_F(daemon_routes, a_removed_host_takes_its_words_out_of_every_slot)
{
    EXPECT_EQ(host_add(HOST_A, ENCAP_A, IF_A), 0u);
    EXPECT_EQ(host_remove(HOST_A, ENCAP_A, IF_A), 0u);
    for (const char *name : {"mem/wired", "mem/ixp1", "mem/ixp2"}) {
        const std::uint32_t base = name == std::string("mem/wired") ? TABLE_WIRED : TABLE_IXP;
        EXPECT_EQ(memory_words(card, name)[slot_at(CTX, 10) / 4], base + leaf_at(CTX)) << name;
    }
    EXPECT_EQ(host_remove(HOST_A, ENCAP_A, IF_A), 1u);
}

TEST_F(daemon_routes, a_host_on_an_interface_that_is_down_or_unknown_is_refused_and_changes_nothing)
{
    EXPECT_EQ(host_add(ip(10, 1, 3, 2), 0x1003, IF_DOWN), 1u);
    EXPECT_EQ(host_add(ip(10, 1, 4, 2), 0x1004, 999), 1u);
    expect_tables([](table_image &) {});
    EXPECT_TRUE(history_has(history_read(card), 100,
                            "<Ctx:3>rib_add_host_route, if 7 DOWN, obj 1 addr 0xa010302/32 add Fails, encapid "
                            "0x1003\n"));
}

TEST_F(daemon_routes, a_default_route_changes_the_default_leaf_and_needs_no_node)
{
    EXPECT_EQ(host_add(HOST_A, ENCAP_A, IF_A), 0u);
    EXPECT_EQ(host_add(HOST_B, ENCAP_B, IF_B), 0u);
    EXPECT_EQ(route_add(0, 0, HOST_A), 0u);
    expect_tables([](table_image &t) {
        with_hosts(t);
        table_word(t, leaf_at(CTX), adjacency(IF_A, ENCAP_A));
    });
    EXPECT_EQ(route_add(0, 0, HOST_B), 0u);
    expect_tables([](table_image &t) {
        with_hosts(t);
        table_word(t, leaf_at(CTX), ADJACENCY_ECMP | adjacency(IF_A, ENCAP_A));
        table_word(t, leaf_at(CTX) + 4, t.base + ecmp_at(0));
        table_word(t, ecmp_at(0), 0x92000000);
        table_word(t, ecmp_at(0) + 4, path_entry(IF_B, ENCAP_B));
    });
}

TEST_F(daemon_routes, the_ninth_path_is_refused_and_its_line_stands_in_the_history)
{
    for (std::uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(is_full(STATIC, STATIC_MASK), 0u) << i;
        EXPECT_EQ(route_add(STATIC, STATIC_MASK, ip(10, 1, 1, 10) + i), 0u) << i;
    }
    EXPECT_EQ(is_full(STATIC, STATIC_MASK), 1u);
    EXPECT_EQ(route_add(STATIC, STATIC_MASK, ip(10, 1, 1, 99)), 1u);
    EXPECT_TRUE(history_has(history_read(card), 100,
                            "<Ctx:3>rib_add_route: MAX ECMP exceed route/maskbits 0a140000/16-> nexthop 0a010163 \n"));
    expect_tables([](table_image &) {}); // no gateway is known, so no processor sees any of it
}

TEST_F(daemon_routes, eight_installed_paths_fill_the_leaf_and_the_seven_entries_of_its_block)
{
    for (std::uint32_t i = 0; i < 8; ++i) {
        const std::uint32_t gateway = ip(10, 1, 1, 10) + i;
        EXPECT_EQ(host_add(gateway, 0x2000 + i, IF_A), 0u) << i;
        EXPECT_EQ(route_add(STATIC, STATIC_MASK, gateway), 0u) << i;
    }
    const std::vector<std::uint32_t> words = memory_words(card, "mem/ixp2");
    const std::uint32_t leaf = words[slot_at(FIRST_NODE, 20) / 4] - TABLE_IXP;
    EXPECT_EQ(words[leaf / 4], ADJACENCY_ECMP | adjacency(IF_A, 0x2000));
    EXPECT_EQ(words[leaf / 4 + 1], TABLE_IXP + ecmp_at(0));
    EXPECT_EQ(words[ecmp_at(0) / 4], 0x80000000u | 7u << 28 | 7u << 25);
    for (std::uint32_t i = 1; i < 8; ++i)
        EXPECT_EQ(words[ecmp_at(0) / 4 + i], path_entry(IF_A, 0x2000 + i)) << i;
}

TEST_F(daemon_routes, a_path_given_twice_is_refused_with_its_line)
{
    EXPECT_EQ(route_add(STATIC | 0x1234, STATIC_MASK, HOST_A), 0u);
    EXPECT_EQ(route_add(STATIC, STATIC_MASK, HOST_A), 1u);
    EXPECT_TRUE(history_has(history_read(card), 100,
                            "<Ctx:3>rib_add_route: DUPLICATE route/maskbits 0a140000/16-> nexthop 0a010102 \n"));
}

TEST_F(daemon_routes, a_gateway_is_asked_of_the_arp_service_and_taken_back_on_removal)
{
    rpc_server arp(card, 10, "tn_arp_add_entry");
    const auto expected = [](std::uint32_t transaction, std::uint32_t sense) {
        return rpc_record(transaction, "tn_arp_add_entry",
                          {arg16(CTX), arg32(0), arg32(HOST_A), arg32(HOST_A), arg_small(2), arg_small(sense)});
    };
    rpc_send(connection, rpc_record(1, "rib_add_route",
                                    {arg16(CTX), arg32(CTX), arg32(STATIC), arg32(STATIC_MASK), arg32(HOST_A)}));
    const byte_string asked = rpc_serve_one(arp, 0);
    EXPECT_EQ(asked, expected(get32(asked, 4), 1));
    EXPECT_EQ(rpc_receive(connection).result, 0u);

    rpc_send(connection, rpc_record(2, "rib_remove_route",
                                    {arg16(CTX), arg32(CTX), arg32(STATIC), arg32(STATIC_MASK), arg32(HOST_A)}));
    const byte_string withdrawn = rpc_serve_one(arp, 0);
    EXPECT_EQ(withdrawn, expected(get32(withdrawn, 4), 0));
    EXPECT_EQ(rpc_receive(connection).result, 0u);
}

TEST_F(daemon_routes, a_route_stands_without_an_arp_service_and_the_failed_call_is_logged)
{
    EXPECT_EQ(route_add(STATIC, STATIC_MASK, HOST_A), 0u);
    EXPECT_TRUE(history_has(history_read(card), 100,
                            "<Ctx:3>request_gwy_resolution:TN RPC call tn_arp_add_entry() return err code -1\n"));
    const mts_queue queue(card, 1024);
    const std::string counters = debug_answer(queue, 5);
    EXPECT_EQ(counter_value(counters, "remote_calls"), 1u);
    EXPECT_EQ(counter_value(counters, "remote_calls_failed"), 1u);
}

TEST(daemon_one_processor, routes_go_to_the_wired_copy_and_the_first_processor_and_an_old_second_table_stays)
{
    const card_dir card;
    file_write(card.at("card.conf"), "num_ixp = 1\n");
    make_folder(card.at("mem"));
    const std::string old_table(std::size_t{TABLE_WORDS} * 4, 'x');
    file_write(card.at("mem/ixp2"), old_table);
    interfaces_write(card, {{IF_A, IF_EXISTS | IF_UP | IF_ADDRESS, 1, 0, ip(10, 1, 1, 1), 0xFFFFFF00, 0, 0}});
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    const rpc_client client(card);
    EXPECT_EQ(rpc_call(client.fd, "arp_prefix_mgr_add_route",
                       {arg16(1), arg32(HOST_A), arg32(32), arg16(ENCAP_A), arg16(IF_A), arg32(CTX)})
                  .result,
              0u);
    table_image expected = table_at_start(TABLE_IXP);
    with_host_a(expected);
    EXPECT_EQ(table_difference(memory_words(card, "mem/ixp1"), expected.words), "");
    EXPECT_TRUE(file_text(card.at("mem/ixp2")) == old_table);
}
