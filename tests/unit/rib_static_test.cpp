// rib_static_test.cpp - static routes: refusals, sets of paths, gateway resolution, removal, the exported lookups.
#include "rib_static.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <new>
#include <random>
#include <utility>

#include "norvik_mtrie.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_hw.h"
#include "prefix_mgr.h"
#include "rib_card.h"
#include "rib_check.h"
#include "rib_host.h"
#include "rib_interface.h"
#include "rib_nat.h"
#include "route_ids.h"

using namespace harness;

namespace
{

constexpr std::uint32_t NET = IP(10, 9, 0, 0);

std::uint32_t add(std::uint32_t gateway, std::uint32_t prefix = NET, std::uint32_t mask = MASK16)
{
    return rib_add_route(CTX, CTX, prefix, mask, gateway);
}

std::uint32_t remove(std::uint32_t gateway, std::uint32_t prefix = NET, std::uint32_t mask = MASK16)
{
    return rib_remove_route(CTX, CTX, prefix, mask, gateway);
}

std::uint32_t add_host(std::uint32_t addr = GATEWAY, std::uint16_t encap = ENCAP)
{
    return arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, addr, 32, encap, IFID, CTX);
}

// Eight paths: gateways 10.1.0.9 to 10.1.0.16.
void fill_set(std::uint32_t prefix = NET, std::uint32_t mask = MASK16)
{
    for (std::uint32_t i = 0; i < RIB_MAX_ECMP; ++i)
        ASSERT_EQ(add(GATEWAY + i, prefix, mask), 0u) << i;
}

// The process's own heap is short once, when so many static routes have their entries: of its users only the next hop
// index takes memory then, for the last of them. 0: never.
std::uint32_t heap_is_short_at_entries = 0;

} // namespace

// Not inlined: a compiler that sees malloc and free behind them takes the pair for mismatched.
[[gnu::noinline]] void *operator new(std::size_t bytes)
{
    const bool is_short =
        heap_is_short_at_entries != 0 && the_card().blocks(MTRACK_ROUTE_ENTRY_3) == heap_is_short_at_entries;
    if (is_short)
        heap_is_short_at_entries = 0;
    void *const at = is_short ? nullptr : std::malloc(bytes);
    if (at == nullptr)
        throw std::bad_alloc();
    return at;
}
[[gnu::noinline]] void operator delete(void *at) noexcept { std::free(at); }
[[gnu::noinline]] void operator delete(void *at, std::size_t) noexcept { std::free(at); }

TEST(rib_static, a_route_waits_while_its_gateway_is_unknown_and_asks_for_it)
{
    rib_card card;
    EXPECT_EQ(rib_add_route(CTX, 4, NET + 5, MASK16, GATEWAY), 0u);
    const route_entry *const entry = on_chain(CTX, NET, 16);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->len, 16u);
    EXPECT_EQ(entry->nexthop, GATEWAY);
    EXPECT_EQ(entry->ctx, CTX);
    EXPECT_EQ(entry->route_id, 4);
    EXPECT_EQ(entry->ifid, 0);
    EXPECT_EQ(entry->encap_id, 0u);
    EXPECT_EQ(entry->flags, RIB_F_GATEWAY);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO),
              (text_lines{"<Ctx:3>rib_add_route: route_id (4) route/maskbits 0a090005/16-> nexthop 0a010009 \n",
                          "<Ctx:4>Host route entry not found for nexthop 0xa010009 ",
                          "<Ctx:3>call ARP_RESOLUTION for ifid =0, ctxid=3, ip=10.1.0.9 sense = 1 \n"}));
    EXPECT_EQ(card.calls, (text_lines{"tnrpc_call tn_arp_add_entry 1:3 2:0x0 2:0xa010009 2:0xa010009 0:2 0:1"}));
}

TEST(rib_static, a_route_through_a_known_host_is_programmed_at_once)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    card.forget();
    EXPECT_EQ(add(GATEWAY), 0u);
    const route_entry *const entry = on_chain(CTX, NET, 16);
    EXPECT_EQ(entry->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    EXPECT_EQ(entry->ifid, IFID);
    EXPECT_EQ(entry->encap_id, ENCAP);
    EXPECT_EQ(card.calls, (text_lines{"tnrpc_call tn_arp_add_entry 1:3 2:0x5 2:0xa010009 2:0xa010009 0:2 0:1"}));
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "nexthop host"),
              (text_lines{"<Ctx:3>nexthop host =0xa010009 found, ifid 5, encapid 4660\n"}));
    EXPECT_EQ(mtrie_check(mtrie_get_root_node(CTX), nullptr), 0);
    EXPECT_EQ(mtrie_hw_check(), 0);
}

TEST(rib_static, a_host_that_arp_did_not_install_is_no_gateway)
{
    rib_card card;
    ASSERT_NE(rib_add_host_route(RIB_OBJ_ARP_HOST, CTX, IFID, GATEWAY, 32, ENCAP), nullptr);
    EXPECT_EQ(host_lookup_by_nexthop(CTX, GATEWAY), nullptr);
}

TEST(rib_static, a_route_of_another_route_id_goes_through_that_contexts_hosts_into_that_contexts_tree)
{
    rib_card card;
    constexpr std::uint32_t OTHER = CTX + 1;
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY, 32, ENCAP, IFID, OTHER), 0u);
    ASSERT_EQ(rib_add_route(CTX, OTHER, NET, MASK16, GATEWAY), 0u);
    const route_entry *const entry = on_chain(CTX, NET, 16);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(on_chain(OTHER, NET, 16), nullptr);
    EXPECT_EQ(entry->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    EXPECT_EQ(entry->encap_id, ENCAP);
    EXPECT_NE(mtrie_lookup_exact(mtrie_get_root_node(OTHER), NET, MASK16), nullptr);
    EXPECT_EQ(mtrie_lookup_exact(mtrie_get_root_node(CTX), NET, MASK16), nullptr);

    // The host that goes looks for its routes in its own context, where this one is not.
    ASSERT_EQ(arp_prefix_mgr_remove_route(RIB_OBJ_ARP_HOST, GATEWAY, 32, 0, ENCAP, IFID, OTHER), 0u);
    EXPECT_EQ(entry->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    EXPECT_EQ(remove(GATEWAY), 0u);
    EXPECT_EQ(mtrie_lookup_exact(mtrie_get_root_node(OTHER), NET, MASK16), nullptr);
}

TEST(rib_static, a_waiting_route_of_another_route_id_is_completed_by_a_host_of_its_own_context)
{
    rib_card card;
    constexpr std::uint32_t OTHER = CTX + 1;
    ASSERT_EQ(rib_add_route(CTX, OTHER, NET, MASK16, GATEWAY), 0u);
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY, 32, 0x77, IFID, OTHER), 0u);
    EXPECT_EQ(on_chain(CTX, NET, 16)->flags, RIB_F_GATEWAY) << "not through the host by which it would have been added";
    ASSERT_EQ(add_host(), 0u);
    EXPECT_EQ(on_chain(CTX, NET, 16)->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    const mtrie_leaf *const leaf = mtrie_lookup_exact(mtrie_get_root_node(OTHER), NET, MASK16);
    ASSERT_NE(leaf, nullptr);
    EXPECT_EQ(adj_encap(leaf->adjacency), ENCAP);
    EXPECT_EQ(route_lookup_by_nexthop(CTX, GATEWAY), on_chain(CTX, NET, 16));
    EXPECT_EQ(route_lookup_by_nexthop(OTHER, GATEWAY), nullptr);
}

TEST(rib_static, a_failed_resolution_call_is_only_logged)
{
    rib_card card;
    card.call_results["tn_arp_add_entry"] = TNRPC_FAILED;
    EXPECT_EQ(add(GATEWAY), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>request_gwy_resolution:TN RPC call tn_arp_add_entry() return err code -1\n"}));
    const std::uint32_t gateway = GATEWAY;
    EXPECT_EQ(request_gwy_resolution(&gateway, CTX, IFID, 1), -1);
    card.call_results["tn_arp_add_entry"] = 7;
    EXPECT_EQ(request_gwy_resolution(&gateway, CTX, IFID, 1), 0) << "any other result is an answer";
}

TEST(rib_static, the_same_path_twice_is_refused_as_a_duplicate)
{
    rib_card card;
    ASSERT_EQ(add(GATEWAY), 0u);
    ASSERT_EQ(add(GATEWAY + 1), 0u);
    card.forget();
    for (const std::uint32_t gateway : {GATEWAY, GATEWAY + 1}) // the head, and a member
        EXPECT_EQ(add(gateway, NET + 5), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>rib_add_route: DUPLICATE route/maskbits 0a090000/16-> nexthop 0a010009 \n",
                          "<Ctx:3>rib_add_route: DUPLICATE route/maskbits 0a090000/16-> nexthop 0a01000a \n"}));
    EXPECT_EQ(card.calls, text_lines{});
    EXPECT_EQ(entries_of(CTX), 2u);
}

TEST(rib_static, a_route_with_the_prefix_of_an_interface_entry_collides_with_it)
{
    rib_card card;
    ASSERT_NE(rib_add_host_route(RIB_OBJ_INTERFACE, CTX, IFID, NET, 16, ENCAP), nullptr);
    card.forget();
    EXPECT_EQ(add(GATEWAY, NET + 5), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>rib_add_route: Collide with interface 0a090000/16 \n"}));
    EXPECT_EQ(entries_of(CTX), 1u);
}

TEST(rib_static, a_set_that_a_host_took_beyond_eight_paths_is_not_full)
{
    rib_card card;
    fill_set();
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, NET, 16, ENCAP, IFID, CTX), 0u);
    EXPECT_EQ(on_chain(CTX, NET, 16)->ecmp_count, 9);
    EXPECT_EQ(rib_max_ecmp_route(CTX, CTX, NET, MASK16), 0u) << "only exactly eight is full";
    EXPECT_EQ(add(GATEWAY + 8), 0u);
    EXPECT_EQ(on_chain(CTX, NET, 16)->ecmp_count, 10);
}

TEST(rib_static, the_ninth_path_of_a_prefix_is_refused)
{
    rib_card card;
    fill_set();
    EXPECT_EQ(on_chain(CTX, NET, 16)->ecmp_count, 8);
    card.forget();
    EXPECT_EQ(add(GATEWAY + 8, NET + 5), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>rib_add_route: MAX ECMP exceed route/maskbits 0a090000/16-> nexthop 0a010011 \n"}));
    EXPECT_EQ(on_chain(CTX, NET, 16)->ecmp_count, 8);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), 8u);
}

TEST(rib_static, the_ninth_default_route_is_refused_like_any_other)
{
    rib_card card;
    fill_set(0, 0);
    EXPECT_EQ(norvik_get_t(CTX)->table[0][0]->ecmp_count, 8);
    EXPECT_EQ(add(GATEWAY + 8, 0, 0), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>rib_add_route: MAX ECMP exceed route/maskbits 00000000/0-> nexthop 0a010011 \n"}));
}

TEST(rib_static, a_full_set_is_reported_before_a_ninth_path_is_tried)
{
    rib_card card;
    fill_set();
    card.forget();
    EXPECT_EQ(rib_max_ecmp_route(CTX, CTX, NET + 5, MASK16), 1u);
    EXPECT_EQ(
        card.lines(),
        (text_lines{"105 <Ctx:3>rib_max_ecmp_route:  route_id (3) ip/mask 0a090005/16 \n",
                    "100 <Ctx:3>rib_max_ecmp_route:  MAX ECMP exceeded for route_id (3) ip/mask 0a090000/16 \n"}));
    EXPECT_EQ(remove(GATEWAY), 0u);
    EXPECT_EQ(rib_max_ecmp_route(CTX, CTX, NET, MASK16), 0u);
}

TEST(rib_static, the_full_set_is_looked_for_in_the_context_that_the_route_id_names)
{
    rib_card card;
    fill_set();
    EXPECT_EQ(rib_max_ecmp_route(CTX, CTX + 1, NET, MASK16), 0u);
    card.forget();
    EXPECT_EQ(rib_max_ecmp_route(CTX + 1, CTX, NET, MASK16), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:4>rib_max_ecmp_route:  MAX ECMP exceeded for route_id (3) ip/mask 0a090000/16 \n"}));
}

TEST(rib_static, a_larger_key_or_the_end_of_the_chain_means_that_no_set_is_full)
{
    rib_card card;
    fill_set(NET + 31, 0xFFFFFFFF); // same bucket as NET/32 and NET+62/32
    EXPECT_EQ(rib_max_ecmp_route(CTX, CTX, NET, 0xFFFFFFFF), 0u);
    EXPECT_EQ(rib_max_ecmp_route(CTX, CTX, NET + 62, 0xFFFFFFFF), 0u);
    EXPECT_EQ(rib_max_ecmp_route(CTX, CTX, NET + 31, 0xFFFFFFFF), 1u);
}

TEST(rib_static, a_route_without_memory_is_refused)
{
    rib_card card;
    card.fail_alloc(MTRACK_ROUTE_ENTRY_3, 1);
    EXPECT_EQ(add(GATEWAY), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), (text_lines{"<Ctx:3>rib_add_route: Failed to allocate route entry\n"}));
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.calls, text_lines{});
}

TEST(rib_static, a_route_without_memory_for_its_place_in_the_next_hop_index_is_refused_and_its_entry_freed)
{
    rib_card card;
    ASSERT_EQ(add(GATEWAY), 0u);
    for (const std::uint32_t prefix : {NET, IP(10, 10, 0, 0)}) { // a further path, and a new prefix
        card.forget();
        heap_is_short_at_entries = 2;
        EXPECT_EQ(add(GATEWAY + 1, prefix), 1u);
        EXPECT_EQ(heap_is_short_at_entries, 0u) << "the index asked for memory";
        EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), (text_lines{"<Ctx:3>rib_add_route: Failed to allocate route entry\n"}));
        EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), 1u);
        EXPECT_EQ(card.calls, text_lines{});
        EXPECT_EQ(entries_of(CTX), 1u);
        EXPECT_EQ(gateways(CTX, NET, 16), std::vector<std::uint32_t>{GATEWAY});
        EXPECT_EQ(rib_check(CTX), 0);
    }
    EXPECT_EQ(add(GATEWAY + 1), 0u);
}

TEST(rib_static, a_new_prefix_that_cannot_be_programmed_leaves_no_trace_and_withdraws_its_request)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    card.forget();
    card.take_tree(CTX);
    EXPECT_EQ(add(GATEWAY), 1u);
    EXPECT_EQ(on_chain(CTX, NET, 16), nullptr);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), 0u);
    EXPECT_EQ(card.calls, (text_lines{"tnrpc_call tn_arp_add_entry 1:3 2:0x5 2:0xa010009 2:0xa010009 0:2 0:1",
                                      "tnrpc_call tn_arp_add_entry 1:3 2:0x5 2:0xa010009 2:0xa010009 0:2 0:0"}));
    card.give_tree_back(CTX);
}

TEST(rib_static, a_further_path_that_cannot_be_programmed_leaves_the_set_as_it_was)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    ASSERT_EQ(add(GATEWAY + 1), 0u);
    card.take_tree(CTX);
    EXPECT_EQ(add(GATEWAY), 1u);
    EXPECT_EQ(gateways(CTX, NET, 16), (std::vector<std::uint32_t>{GATEWAY + 1}));
    EXPECT_EQ(on_chain(CTX, NET, 16)->flags, RIB_F_GATEWAY);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), 1u);
    card.give_tree_back(CTX);
}

TEST(rib_static, paths_of_a_set_stand_in_the_order_of_arrival)
{
    rib_card card;
    for (const std::uint32_t gateway : {GATEWAY + 4, GATEWAY, GATEWAY + 2})
        ASSERT_EQ(add(gateway), 0u);
    EXPECT_EQ(gateways(CTX, NET, 16), (std::vector<std::uint32_t>{GATEWAY + 4, GATEWAY, GATEWAY + 2}));
}

TEST(rib_static, removing_a_single_route_frees_it_and_flushes_the_route_cache)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    card.forget();
    EXPECT_EQ(remove(GATEWAY, NET + 5), 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_EVENTS, "srch start"), (text_lines{"<Ctx:3>---srch start:a090005/16----\n"}));
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "route for"), (text_lines{"<Ctx:3>unlinking non ecmp route for ip=a090005/16\n",
                                                                  "<Ctx:3>removed static route for ip=a090005/16\n"}));
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "Removed OK").size(), 1u);
    EXPECT_EQ(card.calls_of("tnrpc_call"),
              (text_lines{"tnrpc_call tn_arp_add_entry 1:3 2:0x5 2:0xa010009 2:0xa010009 0:2 0:0"}));
    EXPECT_EQ(card.calls_of("tn_flush_rt_cache").size(), 1u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), 0u);
    EXPECT_EQ(on_chain(CTX, NET, 16), nullptr);
}

TEST(rib_static, a_removed_route_is_freed_and_said_to_be_removed_before_the_route_cache_is_flushed)
{
    rib_card card;
    ASSERT_EQ(add(GATEWAY), 0u);
    card.forget();
    unsigned flushes = 0;
    card.on_call = [&](const std::string &call) {
        if (call != "syscall_open")
            return;
        ++flushes;
        EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), 0u);
        EXPECT_EQ(card.with(ROUTE_DBG_INFO, "removed static route").size(), 1u);
    };
    EXPECT_EQ(remove(GATEWAY), 0u);
    EXPECT_EQ(flushes, 1u);
}

TEST(rib_static, removing_a_route_that_is_not_there_is_an_error_with_the_prefix_as_given)
{
    rib_card card;
    ASSERT_EQ(add(GATEWAY), 0u);
    card.forget();
    EXPECT_EQ(remove(GATEWAY + 1, NET + 5), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), (text_lines{"<Ctx:3>could not find static route for ip=a090005/16"}));
    EXPECT_EQ(card.calls, text_lines{}) << "nothing to flush or to withdraw";
}

// An entry is known by its next hop alone, and every entry but a host's and a static route's has next hop 0.
TEST(rib_static, next_hop_0_takes_a_nat_pools_an_interfaces_and_a_drop_entry_and_leaves_them_in_the_tables)
{
    rib_card card;
    constexpr std::uint32_t POOL = IP(10, 8, 0, 16), MASK28 = 0xFFFFFFF0, MULTICAST = 0xE0000000;
    ASSERT_EQ(norvik_add_interface(IF_ADDR, MASK16, IFID, CTX, 0), 0u);
    ASSERT_EQ(rib_add_nat_pool(CTX, IFID, POOL, 16, ENCAP), 0u);
    ASSERT_NE(route_add_rib_and_mtrie_entry(RIB_F_MCAST_DROP, 0x8001, RIB_OBJ_MCAST_DROP, MULTICAST, 3, 0, CTX),
              nullptr);
    const struct {
        std::uint32_t prefix, mask;
        mtrack_type type;
    } taken[] = {{POOL, MASK28, MTRACK_ROUTE_ENTRY_2},
                 {IF_ADDR, 0xFFFFFFFF, MTRACK_ROUTE_ENTRY_1},
                 {IP(10, 1, 0, 0), MASK16, MTRACK_ROUTE_ENTRY_1}, // the subnet
                 {MULTICAST, MULTICAST, MTRACK_ROUTE_ENTRY_1}};
    for (const auto &[prefix, mask, type] : taken) {
        card.forget();
        card.journal_on = true;
        const std::uint32_t before = card.blocks(type);
        EXPECT_EQ(remove(0, prefix, mask), 0u) << std::hex << prefix;
        EXPECT_EQ(on_chain(CTX, prefix, count_mask_bit(mask)), nullptr) << std::hex << prefix;
        EXPECT_EQ(card.blocks(type), before - 1) << std::hex << prefix;
        EXPECT_TRUE(card.journal.empty()) << std::hex << prefix;
        EXPECT_NE(mtrie_lookup_exact(mtrie_get_root_node(CTX), prefix, mask), nullptr) << std::hex << prefix;
        EXPECT_EQ(card.calls_of("tnrpc_call").size(), 1u) << "the request for next hop 0 is withdrawn";
        EXPECT_EQ(remove(0, prefix, mask), 1u) << std::hex << prefix;
    }
    EXPECT_EQ(mtrie_check(mtrie_get_root_node(CTX), nullptr), 0);
}

TEST(rib_static, the_address_of_its_interface_takes_a_host_and_leaves_it_in_the_tables)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    ASSERT_EQ(add(GATEWAY), 0u);
    card.forget();
    EXPECT_EQ(remove(IF_ADDR, GATEWAY, 0xFFFFFFFF), 0u);
    EXPECT_EQ(on_chain(CTX, GATEWAY, 32), nullptr);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    EXPECT_NE(mtrie_lookup_exact(mtrie_get_root_node(CTX), GATEWAY, 0xFFFFFFFF), nullptr);
    EXPECT_EQ(on_chain(CTX, NET, 16)->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE) << "routes through it stay as they are";
    EXPECT_EQ(card.calls_of("tnrpc_call"),
              (text_lines{"tnrpc_call tn_arp_add_entry 1:3 2:0x5 2:0xa010001 2:0xa010001 0:2 0:0"}));
    EXPECT_EQ(card.calls_of("tn_flush_rt_cache").size(), 1u);
}

TEST(rib_static, only_prefix_0_finds_the_default_route)
{
    rib_card card;
    ASSERT_EQ(add(GATEWAY, 0, 0), 0u);
    EXPECT_EQ(remove(GATEWAY, NET, 0), 1u);
    EXPECT_EQ(remove(GATEWAY, 31, 0), 1u) << "in the same bucket";
    EXPECT_EQ(remove(GATEWAY, 0, 0), 0u);
}

TEST(rib_static, a_route_that_was_never_resolved_is_withdrawn_without_touching_the_forwarding_table)
{
    rib_card card;
    ASSERT_EQ(rib_add_route(CTX, 4, NET, MASK16, GATEWAY), 0u);
    card.forget();
    card.journal_on = true;
    EXPECT_EQ(remove(GATEWAY), 0u);
    EXPECT_TRUE(card.journal.empty());
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "mtrie"), text_lines{});
    EXPECT_EQ(card.calls_of("tnrpc_call"), // asked for under the context, withdrawn under the route id
              (text_lines{"tnrpc_call tn_arp_add_entry 1:4 2:0x0 2:0xa010009 2:0xa010009 0:2 0:0"}));
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "ARP_RESOLUTION"),
              (text_lines{"<Ctx:4>call ARP_RESOLUTION for ifid =0, ctxid=4, ip=10.1.0.9 sense = 0 \n"}));
}

TEST(rib_static, removing_the_head_of_a_set_keeps_the_other_paths)
{
    rib_card card;
    for (std::uint32_t i = 0; i < 3; ++i) {
        ASSERT_EQ(add_host(GATEWAY + i, static_cast<std::uint16_t>(ENCAP + i)), 0u);
        ASSERT_EQ(add(GATEWAY + i), 0u);
    }
    card.forget();
    EXPECT_EQ(remove(GATEWAY), 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "unlinking"),
              (text_lines{"<Ctx:3>unlinking ecmp route for ip=a090000/16 first:TRUE\n"}));
    EXPECT_EQ(gateways(CTX, NET, 16), (std::vector<std::uint32_t>{GATEWAY + 1, GATEWAY + 2}));
    const mtrie_leaf *const leaf = mtrie_lookup_exact(mtrie_get_root_node(CTX), NET, MASK16);
    ASSERT_NE(leaf, nullptr);
    ASSERT_NE(leaf->ecmp.get(), nullptr);
    std::vector<std::uint32_t> encaps = {adj_encap(leaf->adjacency), adj_encap(leaf->ecmp->hw[1])};
    std::sort(encaps.begin(), encaps.end());
    EXPECT_EQ(encaps, (std::vector<std::uint32_t>{ENCAP + 1, ENCAP + 2}));
    EXPECT_EQ(leaf->ecmp->npaths, 1);
    EXPECT_EQ(mtrie_hw_check(), 0);
}

TEST(rib_static, removing_a_member_says_that_it_is_not_the_first)
{
    rib_card card;
    ASSERT_EQ(add(GATEWAY), 0u);
    ASSERT_EQ(add(GATEWAY + 1), 0u);
    card.forget();
    EXPECT_EQ(remove(GATEWAY + 1), 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "route for"),
              (text_lines{"<Ctx:3>unlinking ecmp route for ip=a090000/16 first:FALSE\n",
                          "<Ctx:3>removed static route for ip=a090000/16\n"}));
    EXPECT_EQ(on_chain(CTX, NET, 16)->ecmp_count, 0);
}

TEST(rib_static, an_interface_entry_is_found_by_its_address_on_chains_only)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    ASSERT_NE(rib_add_host_route(RIB_OBJ_INTERFACE, CTX, IFID, IF_ADDR, 32, 0x8001), nullptr);
    ASSERT_NE(rib_add_host_route(RIB_OBJ_INTERFACE, CTX, IFID, GATEWAY, 32, 0x8001), nullptr); // a member
    card.forget();
    EXPECT_EQ(int_lookup_by_addr(CTX, IF_ADDR), on_chain(CTX, IF_ADDR, 32));
    EXPECT_EQ(int_lookup_by_addr(CTX, GATEWAY), nullptr);
    EXPECT_EQ(card.lines(), (text_lines{"105 <Ctx:3>interface =0xa010001 found, ifid 5, encapid 32769\n",
                                        "105 <Ctx:3>interface route entry not found for addr 0xa010009 "}));
}

TEST(rib_static, a_programmed_route_is_found_by_its_gateway_in_chains_and_in_sets)
{
    rib_card card;
    ASSERT_EQ(add_host(), 0u);
    ASSERT_EQ(add(GATEWAY + 1), 0u);
    ASSERT_EQ(add(GATEWAY), 0u); // a member
    card.forget();
    EXPECT_EQ(route_lookup_by_nexthop(CTX, GATEWAY), on_chain(CTX, NET, 16)->ecmp.get());
    EXPECT_EQ(route_lookup_by_nexthop(CTX, GATEWAY + 1), nullptr) << "it waits";
    EXPECT_EQ(card.lines(), (text_lines{"105 <Ctx:3>static ecmp_route =0xa090000 found, ifid 5, encapid 4660\n",
                                        "105 <Ctx:3>static route entry not found for nextHop 0xa01000a "}));

    ASSERT_EQ(add_host(GATEWAY + 1, 0x77), 0u);
    card.forget();
    EXPECT_EQ(route_lookup_by_nexthop(CTX, GATEWAY + 1), on_chain(CTX, NET, 16));
    EXPECT_EQ(card.lines(), (text_lines{"105 <Ctx:3>static route =0xa090000 found, ifid 5, encapid 119\n"}));
}

// Random static routes and hosts against a plain model: a list of gateways a prefix, and a set of known hosts.
TEST(rib_static, random_routes_and_hosts_agree_with_a_plain_model)
{
    constexpr unsigned SEED = 20240917, STEPS = 3000;
    SCOPED_TRACE("seed " + std::to_string(SEED));
    rib_card card;
    card.open_all_history(false);
    std::mt19937 random(SEED);
    const auto below = [&random](std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); };
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<std::uint32_t>> model; // by prefix and length
    std::map<std::uint32_t, std::uint32_t> hosts;                                        // encap id by address

    for (unsigned step = 0; step < STEPS; ++step) {
        const std::uint32_t gateway = GATEWAY + below(12);
        const std::uint32_t net = below(18);
        const std::uint32_t len = 14 + net % 3;
        const std::uint32_t prefix = IP(11 + net, 0, 0, 0); // none covers another
        auto &paths = model[{prefix, len}];
        const auto path = std::find(paths.begin(), paths.end(), gateway);
        switch (below(5)) {
        case 0:
        case 1: {
            const bool refused = path != paths.end() || paths.size() == RIB_MAX_ECMP;
            ASSERT_EQ(add(gateway, prefix + below(4), rib_mask_table[len]), refused ? 1u : 0u) << step;
            if (!refused)
                paths.push_back(gateway);
            break;
        }
        case 2:
            ASSERT_EQ(remove(gateway, prefix, rib_mask_table[len]), path == paths.end() ? 1u : 0u) << step;
            if (path != paths.end())
                paths.erase(path);
            break;
        case 3: {
            const std::uint32_t encap = hosts.count(gateway) != 0 ? hosts[gateway] : 1 + below(0xFFFE);
            ASSERT_EQ(add_host(gateway, static_cast<std::uint16_t>(encap)), 0u) << step;
            hosts[gateway] = encap;
            break;
        }
        default:
            ASSERT_EQ(arp_prefix_mgr_remove_route(RIB_OBJ_ARP_HOST, gateway, 32, 0, 0, IFID, CTX),
                      hosts.erase(gateway) != 0 ? 0u : 1u)
                << step;
        }

        ASSERT_EQ(rib_check(CTX), 0) << step;
        ASSERT_EQ(gateways(CTX, prefix, len), paths) << step;
        std::size_t routes = 0;
        for (const auto &[where, wanted] : model)
            routes += wanted.size();
        ASSERT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), routes) << step;
        ASSERT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), hosts.size()) << step;
        ASSERT_EQ(entries_of(CTX), routes + hosts.size()) << step;
        if (step % 64 == 0)
            card.forget();
    }
}

// A set of that many paths takes minutes to grow path by path, so the head's count is set by hand and put back.
TEST(rib_static, a_set_whose_head_counts_65535_takes_no_further_path_as_for_lack_of_memory)
{
    rib_card card;
    ASSERT_EQ(add(GATEWAY), 0u);
    ASSERT_EQ(add(GATEWAY + 1), 0u);
    route_entry *const head = on_chain(CTX, NET, 16);
    const std::uint32_t blocks = card.blocks(MTRACK_ROUTE_ENTRY_3), asked = card.blocks(MTRACK_ROUTE_ENTRY_1);
    head->ecmp_count = 0xFFFF;
    card.forget();
    EXPECT_EQ(add(GATEWAY + 2), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), (text_lines{"<Ctx:3>rib_add_route: Failed to allocate route entry\n"}));
    EXPECT_EQ(rib_add_host_route(RIB_OBJ_ARP_HOST, CTX, IFID, NET, 16, ENCAP), nullptr);
    EXPECT_EQ(head->ecmp_count, 0xFFFF);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), blocks);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), asked);
    head->ecmp_count = 0xFFFE;
    EXPECT_EQ(add(GATEWAY + 2), 0u) << "the last that the head can count";
    EXPECT_EQ(head->ecmp_count, 0xFFFF);
    head->ecmp_count = 3;
    EXPECT_EQ(rib_check(CTX), 0);
}
