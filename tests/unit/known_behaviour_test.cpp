// known_behaviour_test.cpp - what the fixed rules entail and an operator should know, by the shortest way to it.
//
// Each test is one entry of docs/known-behaviour.md, driven through the procedures as a caller would. These are not
// wishes: a change that makes one of them fail changes what callers and operators have learned to expect.
#include <gtest/gtest.h>

#include "big_endian.h"
#include "mtrack.h"
#include "mtrie_records.h"
#include "norvik_mtrie_pool.h"
#include "rib_card.h"
#include "route_events.h"
#include "route_ids.h"
#include "route_listing.h"
#include "route_rpc_serv.h"

using namespace harness;

namespace
{
constexpr std::uint32_t MASK9 = 0xFF800000;
constexpr std::uint32_t NET = IP(20, 0, 0, 0), OTHER_HALF = IP(20, 128, 0, 0), ANY_GATEWAY = IP(10, 1, 0, 10);

// A card that serves, with interface 5 and a processor's tables.
struct served_card : rib_card {
    served_card() { EXPECT_EQ(norvik_route_tnrpc_serv(), 0u); }
};

std::uint32_t learn(fake_card &card, std::uint32_t address, std::uint32_t encap = ENCAP)
{
    return card.call(call_host_add(address, encap)).result;
}

std::uint32_t forget_host(fake_card &card, std::uint32_t address)
{
    return card.call(call_host_remove(address)).result;
}

std::uint32_t add_route(fake_card &card, std::uint32_t prefix, std::uint32_t mask, std::uint32_t gateway)
{
    return card.call(call_route_add(prefix, mask, gateway)).result;
}

std::uint32_t remove_route(fake_card &card, std::uint32_t prefix, std::uint32_t mask, std::uint32_t gateway)
{
    return card.call(call_route_remove(prefix, mask, gateway)).result;
}

std::uint32_t add_pool(fake_card &card, std::uint32_t first, std::uint32_t count, std::uint32_t encap = ENCAP)
{
    return card.call(call_pool_add(first, count, encap)).result;
}

std::uint32_t remove_pool(fake_card &card, std::uint32_t first, std::uint32_t count, std::uint32_t encap = ENCAP)
{
    return card.call(call_pool_remove(first, count, encap)).result;
}

std::uint32_t adjacency(const fake_card &card, std::uint32_t address)
{
    return np_find(card, 1, CTX, address).adjacency;
}
bool misses(const fake_card &card, std::uint32_t address) { return np_find(card, 1, CTX, address).leaf == NP_MISS; }

std::uint32_t free_leaves()
{
    return static_cast<std::uint32_t>(mtrie_pools[MTRIE_POOL_LEAF].nelem - mtrie_pools[MTRIE_POOL_LEAF].count);
}
} // namespace

TEST(known_behaviour, a_repeated_report_of_a_host_uses_a_leaf_and_the_one_that_finds_none_left_removes_the_host)
{
    served_card card;
    ASSERT_EQ(learn(card, GATEWAY), 0u);
    const std::uint32_t left = free_leaves();
    for (std::uint32_t i = 0; i < left; ++i)
        ASSERT_EQ(learn(card, GATEWAY), 0u) << i;
    EXPECT_EQ(free_leaves(), 0u);
    EXPECT_NE(adjacency(card, GATEWAY), 0u);
    EXPECT_EQ(learn(card, GATEWAY), 1u);
    EXPECT_EQ(adjacency(card, GATEWAY), 0u);
    EXPECT_EQ(on_chain(CTX, GATEWAY, 32), nullptr);
    EXPECT_EQ(free_leaves(), 1u) << "the host's own leaf comes back, those of the reports do not";
}

TEST(known_behaviour, a_report_with_a_new_encap_id_reaches_the_listing_but_not_the_processors)
{
    served_card card;
    ASSERT_EQ(learn(card, GATEWAY, 0x1111), 0u);
    ASSERT_EQ(learn(card, GATEWAY, 0x2222), 0u);
    EXPECT_EQ(on_chain(CTX, GATEWAY, 32)->encap_id, 0x2222u);
    EXPECT_EQ(adjacency(card, GATEWAY), adj_pack(0, IFID, 0x1111));
    ASSERT_EQ(forget_host(card, GATEWAY), 0u);
    ASSERT_EQ(learn(card, GATEWAY, 0x2222), 0u);
    EXPECT_EQ(adjacency(card, GATEWAY), adj_pack(0, IFID, 0x2222)) << "withdrawn first, it does";
}

TEST(known_behaviour, a_prefix_added_over_longer_ones_that_fill_it_leaves_a_gap_when_all_are_removed)
{
    served_card card;
    ASSERT_EQ(learn(card, GATEWAY), 0u);
    ASSERT_EQ(add_route(card, 0, 0, GATEWAY), 0u); // the default route
    ASSERT_EQ(add_route(card, NET, MASK9, GATEWAY), 0u);
    ASSERT_EQ(add_route(card, OTHER_HALF, MASK9, GATEWAY), 0u);
    ASSERT_EQ(add_route(card, NET, MASK8, GATEWAY), 0u);
    for (const std::uint32_t prefix : {NET, OTHER_HALF})
        ASSERT_EQ(remove_route(card, prefix, MASK9, GATEWAY), 0u);
    ASSERT_EQ(remove_route(card, NET, MASK8, GATEWAY), 0u);
    EXPECT_TRUE(misses(card, NET + 1)) << "the default route should answer, and does not";
    EXPECT_FALSE(misses(card, IP(21, 0, 0, 1)));
}

TEST(known_behaviour, added_before_the_longer_ones_the_same_prefix_leaves_none)
{
    served_card card;
    ASSERT_EQ(learn(card, GATEWAY), 0u);
    ASSERT_EQ(add_route(card, 0, 0, GATEWAY), 0u);
    ASSERT_EQ(add_route(card, NET, MASK8, GATEWAY), 0u);
    ASSERT_EQ(add_route(card, NET, MASK9, GATEWAY), 0u);
    ASSERT_EQ(add_route(card, OTHER_HALF, MASK9, GATEWAY), 0u);
    for (const std::uint32_t prefix : {NET, OTHER_HALF})
        ASSERT_EQ(remove_route(card, prefix, MASK9, GATEWAY), 0u);
    ASSERT_EQ(remove_route(card, NET, MASK8, GATEWAY), 0u);
    EXPECT_EQ(adjacency(card, NET + 1), adjacency(card, GATEWAY)) << "the default route";
}

TEST(known_behaviour, an_interface_with_mask_0_takes_the_default_leaf_with_it_and_no_default_route_can_be_set)
{
    served_card card;
    ASSERT_EQ(learn(card, GATEWAY), 0u);
    EXPECT_EQ(deliver(MTS_OPC_NORVIK_IF_UP, state_payload({.mask = 0})), 0);
    EXPECT_EQ(deliver(MTS_OPC_NORVIK_IF_DOWN, state_payload({.mask = 0})), 0);
    EXPECT_TRUE(misses(card, NET));
    ASSERT_EQ(learn(card, GATEWAY), 0u); // it went with its interface
    EXPECT_EQ(add_route(card, 0, 0, GATEWAY), 1u);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "set FAILED, norvik_leaf_default is NULL").size(), 1u);
}

TEST(known_behaviour, a_nat_pool_of_the_whole_space_takes_the_default_leaf_with_it)
{
    served_card card;
    ASSERT_EQ(learn(card, GATEWAY), 0u);
    ASSERT_EQ(forget_host(card, GATEWAY), 0u);
    EXPECT_FALSE(misses(card, NET));
    ASSERT_EQ(add_pool(card, 0, 0), 0u); // from 0.0.0.0, and round the end: every address
    ASSERT_EQ(remove_pool(card, 0, 0), 0u);
    EXPECT_TRUE(misses(card, NET));
}

TEST(known_behaviour, static_routes_to_a_hosts_own_address_are_lost_with_it)
{
    served_card card;
    ASSERT_EQ(learn(card, GATEWAY), 0u);
    ASSERT_EQ(add_route(card, GATEWAY, MASK32, ANY_GATEWAY), 0u);
    EXPECT_EQ(gateways(CTX, GATEWAY, 32), (std::vector<std::uint32_t>{IF_ADDR, ANY_GATEWAY}));
    const std::uint32_t held = card.blocks(MTRACK_ROUTE_ENTRY_3);
    ASSERT_EQ(forget_host(card, GATEWAY), 0u);
    EXPECT_EQ(entries_of(CTX), 0u) << "the member went with its head";
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), held) << "and its memory stays taken";
    EXPECT_EQ(remove_route(card, GATEWAY, MASK32, ANY_GATEWAY), 1u);
}

TEST(known_behaviour, a_host_at_the_address_of_an_interface_cannot_be_removed)
{
    served_card card;
    EXPECT_EQ(deliver(MTS_OPC_NORVIK_IF_UP, state_payload({.mask = MASK16})), 0);
    ASSERT_EQ(learn(card, IF_ADDR), 0u);
    EXPECT_EQ(forget_host(card, IF_ADDR), 1u);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "rib_remove_host_route, wrong entry").size(), 1u);
}

TEST(known_behaviour, a_removal_by_next_hop_0_or_by_an_interfaces_address_takes_any_entry_and_leaves_its_leaf)
{
    served_card card;
    EXPECT_EQ(deliver(MTS_OPC_NORVIK_IF_UP, state_payload({.mask = MASK16})), 0);
    ASSERT_EQ(learn(card, GATEWAY), 0u);
    ASSERT_EQ(add_pool(card, NET, 16), 0u);
    const unsigned before = entries_of(CTX);
    EXPECT_EQ(remove_route(card, IF_ADDR, MASK32, 0), 0u);
    EXPECT_EQ(remove_route(card, NET, 0xFFFFFFF0, 0), 0u);
    EXPECT_EQ(remove_route(card, GATEWAY, MASK32, IF_ADDR), 0u);
    EXPECT_EQ(entries_of(CTX), before - 3);
    EXPECT_EQ(adjacency(card, IF_ADDR), adj_pack(0, IFID, 0x8001));
    EXPECT_EQ(adjacency(card, NET), adj_pack(ADJ_NAT, IFID, ENCAP));
    EXPECT_EQ(adjacency(card, GATEWAY), adj_pack(0, IFID, ENCAP));
    EXPECT_EQ(forget_host(card, GATEWAY), 1u);
    const std::uint32_t left = free_leaves();
    EXPECT_EQ(learn(card, GATEWAY), 0u) << "a report brings it back";
    EXPECT_EQ(free_leaves(), left - 1) << "and costs a leaf";
}

TEST(known_behaviour, a_set_that_a_host_joined_as_the_ninth_path_takes_static_routes_without_a_limit)
{
    served_card card;
    for (std::uint32_t i = 0; i < 8; ++i)
        ASSERT_EQ(add_route(card, GATEWAY, MASK32, ANY_GATEWAY + i), 0u);
    EXPECT_EQ(add_route(card, GATEWAY, MASK32, ANY_GATEWAY + 8), 1u);
    ASSERT_EQ(learn(card, GATEWAY), 0u);
    for (std::uint32_t i = 8; i < 40; ++i)
        ASSERT_EQ(add_route(card, GATEWAY, MASK32, ANY_GATEWAY + i), 0u) << i;
    EXPECT_EQ(gateways(CTX, GATEWAY, 32).size(), 41u);
    EXPECT_EQ(card.call("rib_max_ecmp_route", {CTX, CTX, GATEWAY, MASK32}).result, 0u);

    for (std::uint32_t i = 0; i < 10; ++i)
        ASSERT_EQ(learn(card, ANY_GATEWAY + i), 0u);
    EXPECT_EQ(np_find(card, 1, CTX, GATEWAY).ecmp[0], ecmp_header(7, 7)) << "eight paths in the tables";
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "ecmp full").size(), 3u) << "the host and ten routes, less eight";
    EXPECT_EQ(card.call(call_route_add(GATEWAY, MASK32, ANY_GATEWAY + 9)).result, 1u) << "a duplicate: it waits";
    ASSERT_EQ(learn(card, IP(10, 1, 0, 77)), 0u);
    EXPECT_EQ(add_route(card, GATEWAY, MASK32, IP(10, 1, 0, 77)), 1u) << "refused while its gateway is known";
}

TEST(known_behaviour, a_host_that_found_no_leaf_stays_listed_beside_a_route_that_waits)
{
    served_card card;
    while (free_leaves() > 0)
        ASSERT_NE(mtrie_leaf_alloc_pool(CTX), nullptr);
    ASSERT_EQ(add_route(card, GATEWAY, MASK32, ANY_GATEWAY), 0u);
    EXPECT_EQ(learn(card, GATEWAY), 1u);
    EXPECT_EQ(card.call("show_fib_print", {CTX, 0, 0, 0, 0}).result, 1u) << "listed";
    EXPECT_EQ(adjacency(card, GATEWAY), 0u) << "and in no table";
    EXPECT_EQ(forget_host(card, GATEWAY), 1u);
    ASSERT_EQ(remove_route(card, GATEWAY, MASK32, ANY_GATEWAY), 0u);
    EXPECT_EQ(forget_host(card, GATEWAY), 0u);
    EXPECT_EQ(entries_of(CTX), 0u);
}

TEST(known_behaviour, a_route_of_another_context_in_the_same_tree_spoils_a_set_when_it_is_removed)
{
    served_card card;
    constexpr std::uint32_t OTHER_CTX = CTX + 1, SECOND = GATEWAY + 1, THIRD = GATEWAY + 2;
    ASSERT_EQ(learn(card, GATEWAY, 0x1111), 0u);
    ASSERT_EQ(learn(card, SECOND, 0x2222), 0u);
    ASSERT_EQ(learn(card, THIRD, 0x3333), 0u);
    ASSERT_EQ(add_route(card, NET, MASK16, GATEWAY), 0u);
    ASSERT_EQ(add_route(card, NET, MASK16, SECOND), 0u);
    ASSERT_EQ(card.call("rib_add_route", {OTHER_CTX, CTX, NET, MASK16, THIRD}).result, 0u) << "taken, and in no table";
    EXPECT_EQ(np_find(card, 1, CTX, NET).ecmp[0], ecmp_header(1, 1));

    EXPECT_EQ(card.call("rib_remove_route", {OTHER_CTX, CTX, NET, MASK16, THIRD}).result, 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "remove ecmp but can't locate entry").size(), 1u);
    EXPECT_EQ(np_find(card, 1, CTX, NET).ecmp[0], 0u) << "the block is not valid: one path is used";
    EXPECT_EQ(add_route(card, NET, MASK16, THIRD), 1u);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "ecmp exists but invalid").size(), 1u);
}

TEST(known_behaviour, a_block_charged_to_one_context_and_given_back_by_another_leaves_a_count_below_0)
{
    served_card card;
    constexpr std::uint32_t OTHER_CTX = CTX + 1, SECOND = GATEWAY + 1, THIRD = GATEWAY + 2;
    const auto blocks_of = [&card](std::uint32_t ctx) {
        return get_be32(&card.call("show_fib_summary", {ctx, 0}).blocks.at(0).at(FIB_SUMMARY_AT_BLOCKS));
    };
    for (const std::uint32_t gateway : {GATEWAY, SECOND, THIRD})
        ASSERT_EQ(learn(card, gateway), 0u);
    ASSERT_EQ(add_route(card, NET, MASK16, GATEWAY), 0u);
    ASSERT_EQ(card.call("rib_add_route", {OTHER_CTX, CTX, NET, MASK16, SECOND}).result, 0u);
    ASSERT_EQ(card.call("rib_add_route", {OTHER_CTX, CTX, NET, MASK16, THIRD}).result, 0u) << "a path of the leaf";
    EXPECT_EQ(blocks_of(OTHER_CTX), 1u);
    ASSERT_EQ(remove_route(card, NET, MASK16, GATEWAY), 0u);
    EXPECT_EQ(blocks_of(OTHER_CTX), 1u);
    EXPECT_EQ(blocks_of(CTX), 0xFFFFFFFFu);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_ECMP].count, 0);
    EXPECT_EQ(mtrie_pool_check(), 0);
}

TEST(known_behaviour, a_host_that_shares_its_address_with_a_static_route_leaves_its_old_encap_id_in_the_tables)
{
    served_card card;
    ASSERT_EQ(learn(card, GATEWAY, 0x1111), 0u);
    ASSERT_EQ(learn(card, ANY_GATEWAY, 0x2222), 0u);
    ASSERT_EQ(add_route(card, GATEWAY, MASK32, ANY_GATEWAY), 0u);
    ASSERT_EQ(learn(card, GATEWAY, 0x4444), 0u);
    EXPECT_EQ(np_find(card, 1, CTX, GATEWAY).ecmp[0], ecmp_header(2, 2)) << "old, static and new: three paths";
    ASSERT_EQ(forget_host(card, GATEWAY), 0u);
    EXPECT_EQ(adjacency(card, GATEWAY), adj_pack(ADJ_ECMP, IFID, 0x1111));
}

TEST(known_behaviour, an_interface_whose_subnet_has_no_first_and_last_address_of_its_own_is_refused)
{
    served_card card;
    EXPECT_EQ(deliver(MTS_OPC_NORVIK_IF_UP, state_payload({.mask = 0xFFFFFFFE})), 0);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "rib_add_host_route:rejecting duplicate entry").size(), 1u);
    EXPECT_TRUE(card.sent.empty());
}

TEST(known_behaviour, a_pool_that_is_refused_takes_the_pool_of_the_same_encap_id_along_that_stood_there)
{
    served_card card;
    ASSERT_EQ(add_pool(card, IP(10, 8, 0, 16), 16), 0u);
    EXPECT_EQ(add_pool(card, IP(10, 8, 0, 16), 16), 1u);
    EXPECT_EQ(entries_of(CTX), 0u);
}

TEST(known_behaviour, the_removal_of_a_pool_that_is_not_there_answers_0_and_says_so_in_the_history_alone)
{
    served_card card;
    EXPECT_EQ(remove_pool(card, IP(10, 8, 0, 16), 16), 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "nat entry not found in rib").size(), 1u);
}
