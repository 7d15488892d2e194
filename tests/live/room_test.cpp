// room_test.cpp - the room that is counted beforehand is what the route manager's tables take.
#include <algorithm>
#include <map>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "live_plan.h"
#include "live_room.h"
#include "norvik_mtrie_pool.h"
#include "rib_host.h"
#include "rib_interface.h"
#include "rib_static.h"
#include "rib_table.h"
#include "route_ids.h"

using namespace harness;

namespace
{
constexpr std::uint32_t CARD_CTX = 3, PORT_IFID = 5, UP_IFID = 1024, GATEWAYS = 12;
constexpr std::uint32_t INTERFACE = 0x0A010001, FIRST_GATEWAY = 0x0A010002; // 10.1.0.1, 10.1.0.2 and on

live_room held_by(std::uint32_t tree)
{
    std::uint32_t counts[3] = {};
    mtrie_get_stats(tree, counts);
    return {static_cast<std::int32_t>(counts[0]), static_cast<std::int32_t>(counts[1]),
            static_cast<std::int32_t>(counts[2])};
}
live_room held_by_all()
{
    live_room sum;
    for (std::uint32_t tree = 0; tree < ROUTE_CONTEXTS; ++tree)
        sum = sum + held_by(tree);
    return sum;
}
std::string text(const live_room &room)
{
    return std::to_string(room.nodes) + " nodes, " + std::to_string(room.leaves) + " leaves, " +
           std::to_string(room.blocks) + " blocks";
}

std::uint32_t mask_of(std::uint32_t length) { return length == 0 ? 0 : 0xFFFFFFFFu << (32 - length); }

// Entries longer than `prefix` that cover `address`, the longest first.
std::vector<kernel_prefix> longer_around(const std::set<kernel_prefix> &held, const kernel_prefix &prefix,
                                         std::uint32_t address)
{
    std::vector<kernel_prefix> found;
    for (std::uint32_t length = 32; length > prefix.length; --length)
        if (held.count(kernel_prefix_of(address, length)) != 0)
            found.push_back(kernel_prefix_of(address, length));
    return found;
}

// What it means to take entries out for a moment: a host takes the routes through it along.
std::size_t cost_of(const std::vector<kernel_prefix> &entries, const std::set<kernel_prefix> &fixed)
{
    constexpr std::size_t FIXED = 10'000, HOST = 100, ROUTE = 1;
    std::size_t cost = 0;
    for (const kernel_prefix &entry : entries)
        cost += fixed.count(entry) != 0 ? FIXED : entry.length == 32 ? HOST : ROUTE;
    return cost;
}

// Which entries have to be out of a tree while `prefix` is added, the longest first; none, unless longer ones fill its
// range. The tree links a new leaf to the shorter one whose slot it takes, and where it takes none, it does not.
//   fixed: of what is held, what can not be taken out alone.
std::vector<kernel_prefix> fillers_of(const std::set<kernel_prefix> &held, const std::set<kernel_prefix> &fixed,
                                      const kernel_prefix &prefix)
{
    std::vector<kernel_prefix> best;
    std::uint64_t next = prefix.address; // the first address that none covers so far
    const std::uint32_t last = kernel_prefix_last(prefix);
    for (auto at = held.lower_bound(prefix); at != held.end() && at->address <= last; ++at) {
        if (at->length <= prefix.length)
            continue;
        if (at->address > next)
            return {};
        next = std::max<std::uint64_t>(next, std::uint64_t{kernel_prefix_last(*at)} + 1);
        std::vector<kernel_prefix> around = longer_around(held, prefix, at->address);
        if (best.empty() || cost_of(around, fixed) < cost_of(best, fixed))
            best = std::move(around);
    }
    return next > last ? best : std::vector<kernel_prefix>{};
}

// A card as it starts, with what a context of a live card has: a port, gateways, the host of what goes up.
struct room : testing::Test {
    fake_card card{1};
    live_room at_start;
    live_need need;
    std::map<kernel_prefix, std::vector<std::uint32_t>> routes; // gateways of a prefix
    std::set<kernel_prefix> held, fixed;                        // all entries; those of the port and the hosts

    void SetUp() override
    {
        card.open_all_history(false);
        ASSERT_EQ(card.start(), 0);
        at_start = held_by(CARD_CTX);
        card.add_interface(PORT_IFID, INTERFACE, CARD_CTX);
        card.add_interface(UP_IFID, LIVE_UP_GATEWAY, 0);
        ASSERT_EQ(norvik_add_interface(INTERFACE, mask_of(24), PORT_IFID, CARD_CTX, 0), 0u);
        for (const kernel_prefix &prefix : live_plan_own_routes(INTERFACE, 24)) {
            live_need_add(need, prefix, 1);
            fixed.insert(prefix);
        }
        announce(LIVE_UP_GATEWAY, UP_IFID);
        for (std::uint32_t i = 0; i < GATEWAYS; ++i)
            announce(FIRST_GATEWAY + i, PORT_IFID);
        held = fixed;
    }
    static std::uint32_t encap_of(std::uint32_t address)
    {
        return address == LIVE_UP_GATEWAY ? 0x8002 : 0x100 + (address & 0xFF);
    }
    static std::uint32_t word_of(std::uint32_t gateway) { return PORT_IFID << 16 | encap_of(gateway); }
    void announce(std::uint32_t address, std::uint16_t ifid)
    {
        const auto encap = static_cast<std::uint16_t>(encap_of(address));
        ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, address, 32, encap, ifid, CARD_CTX), 0u);
        fixed.insert(kernel_prefix_of(address, 32));
        live_need_add(need, kernel_prefix_of(address, 32), 1);
    }
    void add(const kernel_prefix &prefix, const std::vector<std::uint32_t> &gateways)
    {
        for (const std::uint32_t gateway : gateways)
            ASSERT_EQ(rib_add_route(CARD_CTX, CARD_CTX, prefix.address, mask_of(prefix.length), gateway), 0u);
        live_need_add(need, prefix, gateways.size());
        routes[prefix] = gateways;
        held.insert(prefix);
    }
    void add_rightly(const kernel_prefix &prefix, const std::vector<std::uint32_t> &gateways)
    {
        const std::vector<kernel_prefix> fillers = fillers_of(held, fixed, prefix);
        std::vector<std::pair<kernel_prefix, std::vector<std::uint32_t>>> back;
        for (const kernel_prefix &filler : fillers) {
            back.emplace_back(filler, routes.at(filler));
            take(filler);
        }
        add(prefix, gateways);
        for (auto at = back.rbegin(); at != back.rend(); ++at)
            add(at->first, at->second);
    }
    static std::vector<std::uint32_t> any_gateways(std::mt19937 &random)
    {
        std::vector<std::uint32_t> gateways;
        const auto first = static_cast<std::uint32_t>(random() % 4);
        for (std::uint32_t i = 0, count = random() % 3 == 0 ? 1 + random() % 8 : 1; i < count; ++i)
            gateways.push_back(FIRST_GATEWAY + first + i);
        return gateways;
    }
    // Every boundary of every route, by the route of the longest prefix.
    void expect_answers(unsigned seed) const
    {
        for (const auto &[of, unused] : routes)
            for (const std::uint32_t address :
                 {of.address, of.address - 1, kernel_prefix_last(of), kernel_prefix_last(of) + 1}) {
                if (live_plan_is_passed_by(kernel_prefix_of(address, 32)))
                    continue;
                std::uint32_t expected = 0, length = 33;
                while (length-- > 0 && expected == 0) {
                    const auto found = routes.find(kernel_prefix_of(address, length));
                    if (found != routes.end())
                        expected = word_of(found->second[0]) | (found->second.size() > 1 ? 0x40000000 : 0);
                }
                ASSERT_EQ(np_find(card, 1, CARD_CTX, address).adjacency, expected)
                    << "seed " << seed << std::hex << " at " << address;
            }
    }
    void take(kernel_prefix prefix) // not a reference to what goes
    {
        for (const std::uint32_t gateway : routes.at(prefix))
            ASSERT_EQ(rib_remove_route(CARD_CTX, CARD_CTX, prefix.address, mask_of(prefix.length), gateway), 0u);
        live_need_take(need, prefix, routes.at(prefix).size());
        routes.erase(prefix);
        held.erase(prefix);
    }
    void expect_alike(const std::string &after)
    {
        ASSERT_EQ(text(held_by(CARD_CTX) - at_start), text(need.sum)) << "after " << after;
        ASSERT_EQ(mtrie_pool_check(), 0);
        (void)card.printed();
        card.forget();
    }
};
} // namespace

TEST_F(room, all_that_there_is_is_what_the_pools_have_beside_the_trees)
{
    const live_room in_use = held_by_all() - need.sum;
    EXPECT_EQ(LIVE_ROOM_ALL.nodes, 1024 - in_use.nodes);
    EXPECT_EQ(LIVE_ROOM_ALL.leaves + 4, 1024 - in_use.leaves); // some for changes under way
    EXPECT_EQ(LIVE_ROOM_ALL.blocks + 1, 128 - in_use.blocks);
}

TEST_F(room, a_port_and_its_gateways_take_what_is_counted) { expect_alike("start"); }

TEST_F(room, the_default_route_has_its_leaf)
{
    add({0, 0}, {FIRST_GATEWAY});
    expect_alike("0.0.0.0/0");
    add({0, 1}, {FIRST_GATEWAY});
    expect_alike("0.0.0.0/1");
}

TEST_F(room, a_second_path_takes_a_block)
{
    add({0, 0}, {FIRST_GATEWAY, FIRST_GATEWAY + 1});
    add({0x14000000, 8}, {FIRST_GATEWAY, FIRST_GATEWAY + 1, FIRST_GATEWAY + 2});
    EXPECT_EQ(need.sum.blocks, 2);
    expect_alike("two sets");
    take({0, 0});
    expect_alike("the removal of one");
}

TEST_F(room, a_prefix_that_longer_ones_fill_loses_touch_with_the_shorter_ones)
{
    add({0x14000000, 14}, {FIRST_GATEWAY}); // 20.0.0.0/14
    add({0x14000000, 16}, {FIRST_GATEWAY + 1});
    add({0x14010000, 16}, {FIRST_GATEWAY + 1});
    EXPECT_EQ(fillers_of(held, fixed, {0x14000000, 15}), (std::vector<kernel_prefix>{{0x14000000, 16}}));
    add({0x14000000, 15}, {FIRST_GATEWAY + 2});
    take({0x14000000, 14});                                                              // is answered with 0
    EXPECT_EQ(np_find(card, 1, CARD_CTX, 0x14020000).adjacency, word_of(FIRST_GATEWAY)); // and goes on forwarding
}

TEST_F(room, routes_that_come_and_go_in_any_order_take_what_is_counted_and_answer_as_they_should)
{
    for (unsigned seed = 1; seed <= 12; ++seed) {
        std::mt19937 random(seed);
        const auto up_to = [&random](std::uint32_t bound) { return static_cast<std::uint32_t>(random() % bound); };
        for (unsigned step = 0; step < 400; ++step) {
            const std::uint32_t address =
                (20 + up_to(2)) << 24 | up_to(4) << 22 | up_to(3) << 15 | up_to(4) << 7 | up_to(4);
            const kernel_prefix prefix = kernel_prefix_of(address, up_to(33));
            if (live_plan_is_passed_by(prefix))
                continue;
            if (routes.count(prefix) != 0)
                take(prefix);
            else if (up_to(3) != 0 || routes.size() < 30)
                add_rightly(prefix, any_gateways(random));
            else
                take(std::next(routes.begin(), up_to(static_cast<std::uint32_t>(routes.size())))->first);
            expect_alike("step " + std::to_string(step) + " of seed " + std::to_string(seed));
            expect_answers(seed);
            if (HasFailure())
                return;
        }
        while (!routes.empty())
            take(routes.begin()->first);
        expect_alike("the end of seed " + std::to_string(seed));
    }
}
