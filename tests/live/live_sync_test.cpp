// live_sync_test.cpp - the order of changes between what was told and what is wanted, beside the real routing library.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "card_bytes.h"
#include "card_tool/address_text.h"
#include "sync_card.h"

using namespace harness;

namespace
{
constexpr std::uint32_t A = 1, SLASH_24 = 0xFFFFFF00;

kernel_prefix prefix(const char *text)
{
    const address_prefix read = prefix_parse(text, "");
    return {read.address, address_mask_length(read.mask)};
}
std::uint32_t ip(const char *text) { return address_parse(text).value(); }

// Context 1 with two ports, 10.1.0.1/24 (interface 1) and 10.2.0.1/24 (2), and gateways .2 and .3 on each.
sync_plan two_ports()
{
    sync_plan plan;
    plan.ports[1] = {A, ip("10.1.0.1"), SLASH_24, true, true};
    plan.ports[2] = {A, ip("10.2.0.1"), SLASH_24, true, true};
    for (const char *address : {"10.1.0.2", "10.1.0.3", "10.1.0.4", "10.1.0.5", "10.1.0.6"})
        plan.hosts[A][ip(address)] = {1, std::uint64_t{ip(address)} << 8};
    for (const char *address : {"10.2.0.2", "10.2.0.3", "10.2.0.4", "10.2.0.5", "10.2.0.6"})
        plan.hosts[A][ip(address)] = {2, std::uint64_t{ip(address)} << 8};
    return plan;
}

struct standing_card : sync_card {
    explicit standing_card(const sync_plan &first = two_ports())
    {
        for (const char *address :
             {"10.1.0.0", "10.1.0.1", "10.1.0.2", "10.1.0.3", "10.1.0.77", "10.1.0.255", "10.2.0.2", "10.2.0.9",
              "20.0.0.1", "20.1.0.1", "20.1.1.1", "20.128.0.1", "20.200.0.1", "9.9.9.9"})
            addresses.push_back(ip(address));
        want(first);
        start_manager();
        settle();
        judge_at_rest();
        sent.clear();
        said.clear();
    }
    unsigned count(const std::string &what) const
    {
        return static_cast<unsigned>(std::count(sent.begin(), sent.end(), what));
    }
    bool was_held() const
    {
        return std::any_of(said.begin(), said.end(),
                           [](const std::string &line) { return line.find("held back") != std::string::npos; });
    }
};
} // namespace

TEST(live_sync, a_route_that_comes_and_goes_is_one_call_each_and_holds_nothing_back)
{
    standing_card card;
    sync_plan plan = two_ports();
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.1.0.2")};
    card.want(plan);
    card.settle();
    card.judge_at_rest();
    EXPECT_EQ(card.sent, std::vector<std::string>({"rib_add_route"}));
    card.want(two_ports());
    card.settle();
    card.judge_at_rest();
    EXPECT_EQ(card.count("rib_remove_route"), 1u);
    EXPECT_FALSE(card.was_held());
}

TEST(live_sync, a_path_is_added_before_its_predecessor_is_taken)
{
    sync_plan plan = two_ports();
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.1.0.2")};
    standing_card card(plan);
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.2.0.2")};
    card.want(plan);
    card.settle();
    card.judge_at_rest();
    EXPECT_EQ(card.sent, std::vector<std::string>({"rib_add_route", "rib_remove_route"}));
    EXPECT_FALSE(card.was_held());
}

TEST(live_sync, a_full_route_loses_a_path_first_with_its_context_held_back)
{
    sync_plan plan = two_ports();
    sync_gateways &paths = plan.routes[A][prefix("20.0.0.0/8")];
    for (const char *gateway :
         {"10.1.0.2", "10.1.0.3", "10.1.0.4", "10.1.0.5", "10.2.0.2", "10.2.0.3", "10.2.0.4", "10.2.0.5"})
        paths.insert(ip(gateway));
    standing_card card(plan);
    paths.erase(ip("10.1.0.2"));
    paths.insert(ip("10.1.0.6"));
    card.want(plan);
    card.settle();
    card.judge_at_rest();
    EXPECT_EQ(card.sent, std::vector<std::string>({"rib_remove_route", "rib_add_route"}));
    EXPECT_TRUE(card.was_held());
}

TEST(live_sync, more_routes_than_there_are_blocks_move_without_holding_back)
{
    sync_plan plan = two_ports();
    for (std::uint32_t i = 0; i < 200; ++i)
        plan.routes[A][{20u << 24 | i << 8, 24}] = {ip("10.1.0.2")};
    standing_card card(plan);
    for (auto &[prefix, paths] : plan.routes[A])
        paths = {ip("10.2.0.2")};
    card.want(plan);
    card.settle();
    card.judge_at_rest();
    EXPECT_FALSE(card.was_held());
}

TEST(live_sync, what_finds_no_room_holds_the_context_back_and_is_not_tried)
{
    standing_card card;
    sync_plan plan = two_ports();
    for (std::uint32_t i = 0; i < 200; ++i)
        plan.routes[A][{20u << 24 | i << 8, 24}] = {ip("10.1.0.2"), ip("10.2.0.2")};
    card.want(plan);
    for (unsigned i = 0; i < 1000; ++i) {
        card.run();
        card.take(); // a refusal would be a failure of the test
        card.pass_barriers();
    }
    EXPECT_FALSE(card.contexts[A].forwards);
    EXPECT_EQ(card.s.used.blocks, 128);
    for (auto &[prefix, paths] : plan.routes[A])
        paths = {ip("10.2.0.2")};
    card.want(plan);
    card.settle();
    card.judge_at_rest();
}

TEST(live_sync, a_mac_address_is_one_store_and_no_call)
{
    sync_plan plan = two_ports();
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.1.0.2")};
    standing_card card(plan);
    for (const std::uint64_t mac : {std::uint64_t{0x0A01000201}, std::uint64_t{0}, std::uint64_t{0x0A01000202}}) {
        plan.hosts[A][ip("10.1.0.2")].mac = mac;
        card.want(plan);
        card.settle();
        card.judge_at_rest();
    }
    EXPECT_TRUE(card.sent.empty());
    EXPECT_FALSE(card.was_held());
}

TEST(live_sync, an_encap_id_is_used_again_only_after_the_withdrawal_and_a_barrier)
{
    standing_card card;
    sync_plan plan = two_ports();
    const std::size_t before = card.s.encaps.size();
    plan.hosts[A].erase(ip("10.1.0.2"));
    card.want(plan);
    card.run();
    EXPECT_EQ(card.words[1], 0u) << "its packets go to the kernel at once";
    EXPECT_EQ(card.s.encaps.size(), before);
    card.take();
    card.run();
    EXPECT_EQ(card.s.encaps.size(), before) << "no barrier has passed";
    card.pass_barriers();
    card.run();
    EXPECT_EQ(card.s.encaps.size(), before - 1);
}

TEST(live_sync, an_address_that_changes_is_told_with_the_context_held_back)
{
    sync_plan plan = two_ports();
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.1.0.2")};
    standing_card card(plan);
    plan.ports[1].address = ip("10.1.0.77");
    card.want(plan);
    card.settle();
    card.judge_at_rest();
    EXPECT_EQ(card.count("event " + std::to_string(MTS_OPC_NORVIK_IF_DOWN)), 1u);
    EXPECT_EQ(card.count("event " + std::to_string(MTS_OPC_NORVIK_IF_UP)), 1u);
    EXPECT_TRUE(card.was_held());
}

TEST(live_sync, a_shorter_prefix_that_longer_ones_fill_is_not_added_and_comes_before_one_of_them_goes)
{
    sync_plan plan = two_ports();
    plan.routes[A][prefix("0.0.0.0/0")] = {ip("10.1.0.3")};
    plan.routes[A][prefix("20.0.0.0/9")] = {ip("10.1.0.2")};
    plan.routes[A][prefix("20.128.0.0/9")] = {ip("10.2.0.2")};
    standing_card card(plan);
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.2.0.3")};
    card.want(plan);
    card.settle();
    card.judge_at_rest();
    EXPECT_TRUE(card.sent.empty()) << "no packet needs it";
    plan.routes[A].erase(prefix("20.0.0.0/9"));
    card.want(plan);
    card.settle();
    card.judge_at_rest();
    plan.routes[A].erase(prefix("20.128.0.0/9"));
    card.want(plan);
    card.settle();
    card.judge_at_rest();
    plan.routes[A].erase(prefix("20.0.0.0/8"));
    card.want(plan);
    card.settle();
    card.judge_at_rest(); // the default route answers: there is no gap
}

TEST(live_sync, a_refused_call_holds_the_context_back_and_is_tried_again_later)
{
    standing_card card;
    sync_plan plan = two_ports();
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.1.0.2")};
    card.want(plan);
    card.run();
    card.take(sync_fault::refused);
    card.run();
    EXPECT_FALSE(card.contexts[A].forwards);
    card.pass_barriers();
    card.run();
    EXPECT_TRUE(card.queue.empty()) << "not at once";
    EXPECT_EQ(sync_next_ms(card.s), SYNC_RETRY_MS);
    card.settle();
    card.judge_at_rest();
}

TEST(live_sync, a_new_route_manager_is_told_everything_before_its_table_is_searched)
{
    sync_plan plan = two_ports();
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.1.0.2"), ip("10.2.0.2")};
    plan.routes[A][prefix("20.1.0.0/16")] = {SYNC_UP_GATEWAY};
    standing_card card(plan);
    const auto words = card.words;
    card.end_manager();
    card.run();
    EXPECT_TRUE(card.contexts[A].forwards) << "the table stays right";
    card.start_manager();
    while (card.s.phase != sync_phase::serving) {
        EXPECT_TRUE(card.contexts[A].forwards);
        card.run();
        card.take();
        card.pass_barriers();
    }
    card.settle();
    card.judge_at_rest();
    EXPECT_FALSE(card.was_held());
    EXPECT_EQ(card.words, words) << "encap ids stay as they were";
}

TEST(live_sync, a_context_that_changes_while_the_route_manager_is_away_is_held_back_until_the_next_one_knows)
{
    sync_plan plan = two_ports();
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.1.0.2")};
    standing_card card(plan);
    card.end_manager();
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.2.0.2")};
    card.want(plan);
    card.run();
    EXPECT_FALSE(card.contexts[A].forwards);
    card.start_manager();
    card.settle();
    card.judge_at_rest();
}

TEST(live_sync, a_context_forwards_by_the_new_table_only_when_no_packet_is_under_way_by_the_old_one)
{
    sync_plan plan = two_ports();
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.1.0.2")};
    standing_card card(plan);
    card.end_manager();
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.2.0.2")};
    card.want(plan);
    card.run();
    card.pass_barriers();
    card.start_manager();
    for (unsigned i = 0; i < 1000 && card.s.phase != sync_phase::serving; ++i) {
        card.run();
        card.take();
    }
    card.run();
    EXPECT_FALSE(card.contexts[A].forwards);
    card.pass_barriers();
    card.run();
    EXPECT_TRUE(card.contexts[A].forwards);
    card.judge_at_rest();
}

TEST(live_sync, a_context_whose_new_table_lacks_a_route_is_held_back_before_that_is_searched)
{
    sync_plan plan = two_ports();
    plan.routes[A][prefix("0.0.0.0/0")] = {ip("10.1.0.3")};
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.1.0.2")};
    standing_card card(plan);
    card.start_manager();
    for (unsigned i = 0; i < 1000 && card.s.phase != sync_phase::serving; ++i) {
        card.run();
        const bool is_last = !card.queue.empty() && card.queue.front().procedure == "rib_add_route" &&
                             card.queue.front().args.at(2).value == ip("20.0.0.0");
        card.take(is_last ? sync_fault::refused : sync_fault::none);
        card.pass_barriers();
    }
    EXPECT_EQ(card.s.phase, sync_phase::serving);
    EXPECT_FALSE(card.contexts[A].forwards);
    card.settle();
    card.judge_at_rest();
}

TEST(live_sync, a_route_manager_that_ends_before_the_switch_changes_nothing)
{
    sync_plan plan = two_ports();
    plan.routes[A][prefix("20.0.0.0/8")] = {ip("10.1.0.2")};
    standing_card card(plan);
    card.start_manager();
    card.run();
    for (unsigned i = 0; i < 5; ++i)
        card.take();
    card.end_manager();
    card.run();
    EXPECT_TRUE(card.contexts[A].forwards);
    card.start_manager();
    card.settle();
    card.judge_at_rest();
    EXPECT_FALSE(card.was_held());
}

namespace
{
// Random plans over prefixes that lie in each other.
struct random_plans {
    std::mt19937 random;
    explicit random_plans(unsigned seed) : random(seed) {}
    unsigned below(unsigned n) { return static_cast<unsigned>(random() % n); }

    static constexpr const char *PREFIXES[] = {
        "0.0.0.0/0",     "20.0.0.0/8",    "20.0.0.0/9",    "20.128.0.0/9",  "20.1.0.0/16",  "20.1.0.0/17",
        "20.1.128.0/17", "20.1.1.0/24",   "20.1.1.0/25",   "20.1.1.128/25", "20.1.1.0/30",  "20.1.1.1/32",
        "20.1.1.2/32",   "10.1.0.0/25",   "10.1.0.128/25", "10.0.0.0/8",    "10.1.0.64/26", "10.1.0.9/32",
        "20.200.0.0/13", "20.200.0.0/14", "20.204.0.0/14", "10.3.0.0/16",   "10.3.0.8/30"};

    void ports(sync_plan &plan)
    {
        for (std::uint32_t id = 1; id <= 4; ++id) {
            if (below(8) == 0) {
                plan.ports.erase(id);
                continue;
            }
            sync_port &port = plan.ports[id];
            port.ctx = id == 4 ? 2 : id == 3 ? 1 + below(2) : 1;
            port.address = 10u << 24 | id << 16 | (below(4) == 0 ? 77 : 1);
            port.mask = id == 3 && below(2) == 0 ? 0xFFFF0000 : SLASH_24;
            port.is_up = below(8) != 0;
            port.has_event = true;
        }
    }

    void hosts(sync_plan &plan)
    {
        plan.hosts.clear();
        for (const auto &[id, port] : plan.ports)
            for (std::uint32_t last = 2; last < 8 && port.is_up; ++last)
                if (below(6) != 0)
                    plan.hosts[port.ctx][(port.address & 0xFFFF0000) | last] = {
                        id, below(6) == 0
                                ? 0
                                : std::uint64_t{(port.address & 0xFFFF0000) | last} << 8 | (below(5) == 0 ? 1 : 0)};
    }

    void routes(sync_plan &plan)
    {
        for (std::uint32_t ctx = 1; ctx <= 2; ++ctx) {
            if (std::none_of(plan.ports.begin(), plan.ports.end(),
                             [ctx](const auto &port) { return port.second.ctx == ctx; })) {
                plan.routes.erase(ctx);
                continue;
            }
            std::vector<std::uint32_t> gateways = {SYNC_UP_GATEWAY};
            for (const auto &host : plan.hosts[ctx])
                gateways.push_back(host.first);
            std::set<kernel_prefix> taken; // by interfaces
            for (const auto &[id, port] : plan.ports)
                if (port.ctx == ctx)
                    for (const std::uint32_t length : {16u, 24u, 32u})
                        taken.insert({port.address & (0xFFFFFFFF << (32 - length)), length});
            for (const char *text : PREFIXES) {
                const kernel_prefix p = prefix(text);
                if (below(3) != 0 && plan.routes[ctx].count(p) != 0)
                    continue;
                plan.routes[ctx].erase(p);
                if (taken.count(p) != 0 || below(2) == 0)
                    continue;
                sync_gateways &paths = plan.routes[ctx][p];
                for (unsigned n = 1 + below(below(4) == 0 ? 8 : 3); n > 0; --n)
                    paths.insert(gateways[below(static_cast<unsigned>(gateways.size()))]);
            }
            // What has no gateway any more, or stands where an interface has its own.
            for (auto route = plan.routes[ctx].begin(); route != plan.routes[ctx].end();) {
                std::erase_if(route->second, [&gateways](std::uint32_t gateway) {
                    return std::find(gateways.begin(), gateways.end(), gateway) == gateways.end();
                });
                route = route->second.empty() || taken.count(route->first) != 0 ? plan.routes[ctx].erase(route)
                                                                                : std::next(route);
            }
        }
    }

    void change(sync_plan &plan)
    {
        if (below(4) == 0)
            ports(plan);
        if (below(2) == 0 || plan.hosts.empty())
            hosts(plan);
        const std::map<std::uint32_t, sync_port> &all = plan.ports;
        for (auto &[ctx, hosts] : plan.hosts) // no host on a port that is not there
            std::erase_if(hosts, [&all, c = ctx](const auto &host) {
                const auto port = all.find(host.second.ifid);
                return port == all.end() || !port->second.is_up || port->second.ctx != c;
            });
        routes(plan);
    }
};

constexpr unsigned SEEDS = 4;

void play(unsigned seed, unsigned steps, bool has_faults)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    random_plans plans(seed);
    standing_card card;
    for (const char *address : {"20.1.0.1", "20.1.130.1", "20.1.1.0", "20.1.1.2", "20.1.1.3", "20.1.1.129", "20.5.5.5",
                                "20.203.0.1", "20.204.0.1", "10.1.0.9", "10.1.0.65", "10.1.0.200", "10.3.0.2",
                                "10.3.0.9", "10.3.200.1", "10.4.0.3", "10.9.9.9"})
        card.addresses.push_back(ip(address));
    card.may_only(1);
    card.may_only(2);
    sync_plan plan = two_ports();
    for (unsigned step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
        plans.change(plan);
        card.want(plan);
        for (unsigned n = plans.below(60); n > 0 && !testing::Test::HasFailure(); --n) {
            card.run();
            const unsigned dice = plans.below(100);
            sync_fault fault = sync_fault::none;
            if (has_faults && dice < 4)
                fault = static_cast<sync_fault>(1 + dice);
            if (has_faults && dice == 99 && plans.below(4) == 0)
                card.start_manager();
            else if (has_faults && dice == 98 && plans.below(4) == 0)
                card.end_manager();
            else
                card.take(fault);
            if (plans.below(3) == 0)
                card.pass_barriers();
            card.s.now_ms += plans.below(300);
        }
        if (plans.below(3) != 0)
            continue;
        if (card.manager == nullptr)
            card.start_manager();
        card.settle();
        card.judge_at_rest();
    }
}
} // namespace

TEST(live_sync, no_packet_meets_anything_but_old_new_or_kernel_under_random_plans)
{
    for (unsigned seed = 1; seed <= SEEDS && !HasFailure(); ++seed)
        play(seed, 60, false);
}

TEST(live_sync, nor_with_calls_refused_and_lost_and_route_managers_that_restart)
{
    for (unsigned seed = 1; seed <= SEEDS && !HasFailure(); ++seed)
        play(seed, 60, true);
}
