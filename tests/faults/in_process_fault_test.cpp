// in_process_fault_test.cpp - every call of the process to its platform that can fail, failing at every point in turn.
//
// Each operation runs on a card prepared for it, once for each point at which memory, a pool or a service can be short.
// Afterwards every audit holds, and when the routes are taken out again, no block more is allocated than before.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fake_card.h"
#include "norvik_init.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_dump.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_pool.h"
#include "rib_check.h"
#include "rib_host.h"
#include "rib_interface.h"
#include "rib_nat.h"
#include "rib_show.h"
#include "rib_static.h"
#include "rib_table.h"
#include "route_advert.h"
#include "slowpath_lookup.h"

using namespace harness;

namespace
{
constexpr std::uint16_t DOWN_IFID = 6;
constexpr std::uint32_t ROUTE = IP(20, 0, 0, 0), POOL = IP(30, 0, 0, 3), POOL_SIZE = 77;
constexpr std::uint32_t OTHER_TREE = 200; // whom the records of a drained pool are charged to

int audit()
{
    int broken = mtrie_pool_check() + mtrie_hw_check();
    for (std::uint32_t ctx = 0; ctx < 8; ++ctx)
        broken += rib_check(ctx) + mtrie_check(mtrie_get_root_node(ctx), nullptr);
    return broken;
}

std::uint32_t with_block(std::uint32_t (*summary)(std::uint16_t, tnrpc_block *))
{
    tnrpc_block block = {0, nullptr};
    const std::uint32_t result = summary(CTX, &block);
    mtrack_free(block.data);
    return result;
}

std::uint32_t list(decltype(&show_rib_print) print)
{
    tnrpc_block block = {0, nullptr};
    std::uint16_t rows = 0, bucket = 0;
    std::uint32_t position = 0;
    (void)print(CTX, &rows, &bucket, &position, &block);
    const bool is_empty = block.data == nullptr;
    mtrack_free(block.data);
    return is_empty;
}

std::uint32_t dump()
{
    tnrpc_block block = {0, nullptr};
    (void)mtrie_hw_dump_api(0, CTX, GATEWAY, &block);
    const bool is_empty = block.data == nullptr;
    mtrack_free(block.data);
    return is_empty;
}

std::uint32_t add_host() { return arp_prefix_mgr_add_route(1, GATEWAY, 32, ENCAP, IFID, CTX); }
std::uint32_t remove_host() { return arp_prefix_mgr_remove_route(1, GATEWAY, 32, 0, ENCAP, IFID, CTX); }
std::uint32_t add_path(std::uint32_t n) { return rib_add_route(CTX, CTX, ROUTE, MASK8, GATEWAY + n); }
std::uint32_t add_hosts()
{
    std::uint32_t failed = 0;
    for (std::uint32_t n = 0; n < 3; ++n)
        failed += arp_prefix_mgr_add_route(1, GATEWAY + n, 32, ENCAP, IFID, CTX);
    return failed;
}

struct fault_case {
    const char *name;
    std::function<void()> prepare;
    std::function<std::uint32_t()> run; // 0: all went well
};

const std::vector<fault_case> &cases()
{
    static const auto nothing = [] {};
    static const auto *const all = new std::vector<fault_case>{
        {"a host is added", nothing, add_host},
        {"a host is added again", [] { (void)add_host(); }, add_host},
        {"a host is removed", [] { (void)add_host(); }, remove_host},
        {"a host completes the routes that wait for it",
         [] {
             (void)add_path(0);
             (void)rib_add_route(CTX, CTX, IP(21, 0, 0, 0), MASK8, GATEWAY);
         },
         add_host},
        {"a static route is added", [] { (void)add_host(); }, [] { return add_path(0); }},
        {"a path is added to a set",
         [] {
             (void)add_hosts();
             (void)add_path(0);
             (void)add_path(1);
         },
         [] { return add_path(2); }},
        {"a path is removed from a set",
         [] {
             (void)add_hosts();
             (void)add_path(0);
             (void)add_path(1);
         },
         [] { return rib_remove_route(CTX, CTX, ROUTE, MASK8, GATEWAY); }},
        {"a default route is added", [] { (void)add_host(); }, [] { return rib_add_route(CTX, CTX, 0, 0, GATEWAY); }},
        {"a NAT pool is added", nothing, [] { return rib_add_nat_pool(CTX, IFID, POOL, POOL_SIZE, ENCAP); }},
        {"a NAT pool is removed", [] { (void)rib_add_nat_pool(CTX, IFID, POOL, POOL_SIZE, ENCAP); },
         [] { return rib_remove_nat_pool(CTX, IFID, POOL, POOL_SIZE, ENCAP); }},
        {"an interface comes up", [] { (void)rib_add_nat_pool(CTX, IFID, POOL, POOL_SIZE, ENCAP); },
         [] { return norvik_add_interface(IF_ADDR, MASK24, IFID, CTX, 1); }},
        {"an interface goes down",
         [] {
             (void)norvik_add_interface(IF_ADDR, MASK24, IFID, CTX, 1);
             (void)add_hosts();
             (void)add_path(0);
         },
         [] { return norvik_remove_interface(IF_ADDR, MASK24, IFID, CTX, 1, 0); }},
        {"the RIB is listed", nothing, [] { return list(show_rib_print); }},
        {"the FIB is listed", nothing, [] { return list(show_fib_print); }},
        {"the RIB is summed up", nothing, [] { return with_block(show_rib_summary); }},
        {"the FIB is summed up", nothing, [] { return with_block(show_fib_summary); }},
        {"the tables are dumped", nothing, dump},
    };
    return *all;
}

// Takes everything out again that a case can have left, memory being plenty.
void take_all_out()
{
    (void)norvik_remove_interface(IF_ADDR, MASK24, IFID, CTX, 1, 0);
    for (std::uint32_t n = 0; n < 3; ++n) {
        (void)rib_remove_route(CTX, CTX, ROUTE, MASK8, GATEWAY + n);
        (void)arp_prefix_mgr_remove_route(1, GATEWAY + n, 32, 0, ENCAP, IFID, CTX);
    }
    (void)rib_remove_route(CTX, CTX, IP(21, 0, 0, 0), MASK8, GATEWAY);
    (void)rib_remove_route(CTX, CTX, 0, 0, GATEWAY);
    (void)rib_remove_nat_pool(CTX, IFID, POOL, POOL_SIZE, ENCAP);
}

// A card on which a case runs: two interfaces, the second down.
struct fault_card : fake_card {
    std::uint32_t blocks_before = 0;
    fault_card()
    {
        EXPECT_EQ(start_tables(), 0);
        add_interface(IFID, IF_ADDR, CTX).vlan = 10;
        add_interface(DOWN_IFID, IP(10, 2, 0, 1), CTX).up = false;
        blocks_before = all_blocks();
        forget();
    }
    void check(const std::string &where)
    {
        alloc_countdown.clear();
        EXPECT_EQ(audit(), 0) << where;
        take_all_out();
        EXPECT_EQ(audit(), 0) << where << ", and taken out";
        EXPECT_EQ(all_blocks(), blocks_before) << where << ", and taken out";
        forget();
    }
    // Whether an error was told: in the history, or by the pools on standard output.
    bool has_told() { return !texts(100).empty() || printed().find("lloc") != std::string::npos; }
};

// Leaves `left` records of a pool.
void drain(std::int32_t pool, std::int32_t left)
{
    while (mtrie_pools[pool].nelem - mtrie_pools[pool].count > left) {
        const card_addr taken = allocate_node_from_pool(OTHER_TREE, pool);
        ASSERT_NE(taken, 0u);
    }
}
} // namespace

TEST(faults, memory_that_is_short_at_any_allocation_of_any_operation_breaks_no_rule_and_leaks_nothing)
{
    unsigned injected = 0;
    fault_card card;
    for (const fault_case &c : cases()) {
        bool reached = true;
        for (unsigned nth = 1; reached; ++nth) {
            const std::string where = std::string(c.name) + ", allocation " + std::to_string(nth);
            c.prepare();
            card.forget();
            card.fail_any_alloc(nth);
            const std::uint32_t result = c.run();
            reached = card.alloc_countdown.empty();
            injected += reached;
            // Told to the caller, or in the lines of the error category.
            EXPECT_TRUE(reached ? result != 0 || card.has_told() : result == 0) << where << ", result " << result;
            card.check(where);
            ASSERT_FALSE(HasFailure()) << where;
            ASSERT_LT(nth, 200u) << where;
        }
    }
    EXPECT_GT(injected, 15u);
    std::fprintf(stderr, "%u allocations failed, %zu operations\n", injected, cases().size());
}

TEST(faults, a_pool_with_any_number_of_records_left_breaks_no_rule_and_leaks_no_memory)
{
    unsigned injected = 0;
    for (const std::int32_t pool : {MTRIE_POOL_NODE, MTRIE_POOL_LEAF, MTRIE_POOL_ECMP})
        for (std::int32_t left = 0; left < 9; left += left < 4 ? 1 : 2) {
            // Leaves of a repeated report stay taken, so each number starts from a fresh card.
            fault_card card;
            for (const fault_case &c : cases()) {
                const std::string where =
                    std::string(c.name) + ", pool " + std::to_string(pool) + " with " + std::to_string(left) + " left";
                drain(pool, 64);
                c.prepare();
                drain(pool, left);
                (void)c.run();
                ++injected;
                EXPECT_EQ(audit(), 0) << where;
                card.check(where);
                ASSERT_FALSE(HasFailure()) << where;
            }
        }
    std::fprintf(stderr, "%u operations with a pool run short\n", injected);
}

TEST(faults, a_start_up_without_memory_for_a_record_that_it_needs_fails_with_its_result)
{
    struct shortage {
        std::uint32_t type;
        unsigned nth;
        int pools, trees; // results
    };
    // The table that a tree makes for itself is not referred to by anything: without it the tree serves.
    for (const shortage &s : {shortage{MTRACK_CP_POOL, 1, -2, 0},
                              {MTRACK_CP_POOL, 2, -2, 0},
                              {MTRACK_CP_POOL, 3, -2, 0},
                              {MTRACK_PREFIX_MGR, 1, 0, 3},
                              {MTRACK_PREFIX_MGR_TREES, 1, 0, 3},
                              {MTRACK_PREFIX_TREE, 1, 0, 3},
                              {MTRACK_PREFIX_TREE, 100, 0, 3},
                              {MTRACK_PREFIX_TREE, 256, 0, 3},
                              {MTRACK_ROUTE_TABLE, 1, 0, 0},
                              {MTRACK_ROUTE_TABLE, 256, 0, 0}}) {
        fake_card card;
        card.fail_alloc(s.type, s.nth);
        const int pools = mtrie_pool_init();
        const int trees = pools == 0 ? norvik_init_ixp_fib() : 0;
        EXPECT_TRUE(card.alloc_countdown.empty()) << "allocation " << s.nth << " of type " << s.type << " is not made";
        EXPECT_EQ(pools, s.pools) << "type " << s.type << ", allocation " << s.nth;
        EXPECT_EQ(trees, s.trees) << "type " << s.type << ", allocation " << s.nth;
        if (pools == 0) {
            EXPECT_EQ(mtrie_pool_check(), 0);
        }
        if (trees == 0 && pools == 0) {
            EXPECT_EQ(audit(), 0);
        }
    }
}

TEST(faults, services_that_fail_leave_every_operation_without_a_broken_rule)
{
    fault_card card;
    card.call_results["tn_arp_add_entry"] = TNRPC_FAILED;
    card.scp_send_result = ECONNREFUSED;
    card.flush_result = -EPERM;
    for (const bool has_interfaces : {true, false}) {
        if (!has_interfaces)
            card.interfaces.clear();
        for (const fault_case &c : cases()) {
            c.prepare();
            (void)c.run();
            card.check(std::string(c.name) + (has_interfaces ? "" : " without interfaces"));
        }
        EXPECT_EQ(norvik_send_route_advert(ROUTE, MASK8, IFID, GATEWAY, 1, CTX), -1);
    }
}
