// rib_nexthop_index_test.cpp - the next hop index: in the table's order, and nothing that has left the table.
#include "rib_nexthop_index.h"

#include <cstdio>
#include <random>

#include "mtrack.h"
#include "rib_card.h"
#include "rib_check.h"
#include "rib_host.h"
#include "rib_interface.h"
#include "rib_nat.h"
#include "rib_static.h"

using namespace harness;

namespace
{

constexpr std::uint32_t NET = IP(20, 9, 0, 0);

using route_list = std::vector<const route_entry *>;

route_list by_gateway(std::uint32_t gateway)
{
    route_list found;
    (void)rib_nexthop_index_find(CTX, gateway, [&found](const route_entry *route) {
        found.push_back(route);
        return false;
    });
    return found;
}

// The same by a visit of every entry.
route_list by_visit(std::uint32_t gateway)
{
    route_list found;
    (void)rib_find_entry(CTX, [&found, gateway](const route_entry *head) {
        const auto judge = [&found, gateway](const route_entry *route) {
            if ((route->flags & RIB_F_GATEWAY) != 0 && route->nexthop == gateway)
                found.push_back(route);
        };
        judge(head);
        for (const route_entry *member = head->ecmp; member != nullptr; member = member->next)
            judge(member);
        return false;
    });
    return found;
}

std::uint32_t add_host(std::uint32_t addr)
{
    return arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, addr, 32, ENCAP, IFID, CTX);
}

std::uint32_t remove_host(std::uint32_t addr)
{
    return arp_prefix_mgr_remove_route(RIB_OBJ_ARP_HOST, addr, 32, 0, ENCAP, IFID, CTX);
}

std::string number(std::uint32_t prefix)
{
    char text[16];
    std::snprintf(text, sizeof text, "=0x%x ", prefix);
    return text;
}

} // namespace

TEST(rib_nexthop_index, a_gateways_routes_come_in_the_order_of_a_visit_whatever_came_and_went)
{
    rib_card card;
    card.open_all_history(false);
    std::mt19937 engine(20240610);
    const auto random = [&engine] { return static_cast<std::uint32_t>(engine()); };
    for (unsigned step = 0; step < 4000; ++step) {
        const std::uint32_t len = random() % 4 == 0 ? 32 - random() % 33 : 24;
        const std::uint32_t second = random() % 3, third = random() % 40, last = random() % 7; // in this order
        const std::uint32_t prefix = IP(20, second, third, last) & rib_mask_table[len];
        const std::uint32_t gateway = GATEWAY + random() % 4;
        if (random() % 3 != 0)
            (void)rib_add_route(CTX, CTX, prefix, rib_mask_table[len], gateway);
        else
            (void)rib_remove_route(CTX, CTX, prefix, rib_mask_table[len], gateway);
        if (step % 100 != 0)
            continue;
        for (std::uint32_t i = 0; i < 4; ++i)
            ASSERT_EQ(by_gateway(GATEWAY + i), by_visit(GATEWAY + i)) << "step " << step;
        ASSERT_EQ(rib_check(CTX), 0);
    }
    EXPECT_GT(by_gateway(GATEWAY).size(), 50u);
    EXPECT_EQ(by_gateway(GATEWAY + 4), route_list{});
}

TEST(rib_nexthop_index, lines_of_a_host_follow_the_visit)
{
    rib_card card;
    for (const std::uint32_t i : {40u, 3u, 34u, 9u, 0u}) // some share a bucket
        ASSERT_EQ(rib_add_route(CTX, CTX, NET + (i << 8), MASK24, GATEWAY), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK32, GATEWAY), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, 0xFF000000, GATEWAY), 0u);
    std::vector<std::string> expected;
    for (const route_entry *route : by_visit(GATEWAY))
        expected.push_back(number(route->prefix));
    ASSERT_EQ(expected.size(), 7u);
    const auto follow = [&](const char *what) {
        const text_lines lines = card.with(ROUTE_DBG_INFO, what);
        ASSERT_EQ(lines.size(), expected.size());
        for (std::size_t i = 0; i < lines.size(); ++i)
            EXPECT_NE(lines[i].find(expected[i]), std::string::npos) << lines[i] << " and not " << expected[i];
    };
    card.forget();
    ASSERT_EQ(add_host(GATEWAY), 0u);
    follow("add_host route");
    ASSERT_EQ(remove_host(GATEWAY), 0u);
    follow("rem_host route");
}

TEST(rib_nexthop_index, a_member_that_became_the_head_is_a_chain_entry)
{
    rib_card card;
    for (std::uint32_t i = 0; i < 3; ++i)
        ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK24, GATEWAY + i), 0u);
    ASSERT_EQ(rib_remove_route(CTX, CTX, NET, MASK24, GATEWAY), 0u);
    card.forget();
    ASSERT_EQ(add_host(GATEWAY + 1), 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "add_host route").size(), 1u) << "the head of a set";
    EXPECT_EQ(route_lookup_by_nexthop(CTX, GATEWAY + 1), on_chain(CTX, NET, 24));
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "static route =0x").size(), 1u);
    card.forget();
    ASSERT_EQ(add_host(GATEWAY + 2), 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "add_host route").size(), 0u) << "a member";
    EXPECT_EQ(route_lookup_by_nexthop(CTX, GATEWAY + 2), on_chain(CTX, NET, 24)->ecmp.get());
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "static ecmp_route =0x").size(), 1u);
}

// A static route that hung off an entry which went is out of the table, though it lives on: no host finds it.
TEST(rib_nexthop_index, routes_that_went_with_a_hosts_entry_are_found_no_more)
{
    rib_card card;
    ASSERT_EQ(add_host(NET), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK32, GATEWAY), 0u);
    ASSERT_EQ(by_gateway(GATEWAY).size(), 1u);
    const route_entry *const lost = by_gateway(GATEWAY)[0];
    ASSERT_EQ(remove_host(NET), 0u);
    EXPECT_EQ(rib_check(CTX), 0);
    EXPECT_EQ(by_gateway(GATEWAY), route_list{});
    ASSERT_EQ(add_host(GATEWAY), 0u);
    EXPECT_EQ(lost->flags & RIB_F_IN_MTRIE, 0) << "not completed";
    EXPECT_EQ(rib_add_route(CTX, CTX, NET, MASK32, GATEWAY), 0u) << "the same again";
    EXPECT_EQ(by_gateway(GATEWAY), by_visit(GATEWAY));
}

TEST(rib_nexthop_index, routes_that_went_with_a_host_of_an_interface_that_went_down_are_found_no_more)
{
    rib_card card;
    ASSERT_EQ(add_host(NET), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK32, GATEWAY), 0u);
    ASSERT_EQ(by_gateway(GATEWAY).size(), 1u);
    norvik_remove_host_ifdown(CTX, IF_ADDR);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(by_gateway(GATEWAY), route_list{});
}

TEST(rib_nexthop_index, routes_that_went_with_a_nat_entry_are_found_no_more)
{
    rib_card card;
    ASSERT_EQ(rib_add_nat_route(CTX, CTX, IFID, NET, MASK24, 0x77), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK24, GATEWAY), 0u);
    ASSERT_EQ(by_gateway(GATEWAY).size(), 1u);
    ASSERT_EQ(rib_remove_nat_route(CTX, CTX, NET, MASK24, 0x77), 0u);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(by_gateway(GATEWAY), route_list{});
}

// A host-type add that the forwarding table refuses takes out the chain's entry, whoever it belongs to.
TEST(rib_nexthop_index, a_route_that_a_refused_drop_entry_took_out_is_found_no_more)
{
    rib_card card;
    ASSERT_EQ(rib_add_route(CTX, CTX, 0xE0000000, 0xE0000000, GATEWAY), 0u);
    ASSERT_EQ(by_gateway(GATEWAY).size(), 1u);
    card.take_tree(CTX);
    EXPECT_EQ(route_add_rib_and_mtrie_entry(RIB_F_MCAST_DROP, 0x8001, RIB_OBJ_MCAST_DROP, 0xE0000000, 3, 0, CTX),
              nullptr);
    card.give_tree_back(CTX);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(by_gateway(GATEWAY), route_list{});
}

TEST(rib_nexthop_index, the_audit_sees_a_route_too_few_or_too_many)
{
    rib_card card;
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK24, GATEWAY), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK24, GATEWAY + 1), 0u);
    ASSERT_EQ(rib_check(CTX), 0);
    route_entry *const member = on_chain(CTX, NET, 24)->ecmp;
    rib_nexthop_index_remove(member);
    EXPECT_NE(rib_check(CTX), 0) << "one is missing";
    ASSERT_TRUE(rib_nexthop_index_add(member));
    EXPECT_EQ(rib_check(CTX), 0);
    route_entry stray = *member;
    stray.nexthop = GATEWAY + 7;
    ASSERT_TRUE(rib_nexthop_index_add(&stray));
    EXPECT_NE(rib_check(CTX), 0) << "one is not in the table";
    EXPECT_EQ(rib_check(CTX + 1), 0) << "each context by itself";
    rib_nexthop_index_remove(&stray);
    EXPECT_EQ(rib_check(CTX), 0);
}
