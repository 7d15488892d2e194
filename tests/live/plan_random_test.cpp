// plan_random_test.cpp - the plan on random kernels: it never forwards otherwise than the kernel would, the steps to it
// do not matter, and what has no room goes up.
#include <random>

#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include "card_tool/address_text.h"
#include "kernel_world.h"

using namespace harness;

namespace
{
constexpr int PORTS = 5; // links 2 to 6
constexpr std::uint32_t OTHER_TABLE = 100;

// A kernel whose every part is drawn, and changes of it.
struct chance_world {
    std::mt19937 random;
    kernel_world world;

    explicit chance_world(unsigned seed) : random(seed)
    {
        for (int ifindex = 2; ifindex < 2 + PORTS; ++ifindex)
            world.link(ifindex, "eth" + std::to_string(ifindex));
        world.link(7, "tun0").is_ethernet = false;
        world.statements("context 3 table 100\nport eth2 ctx 0\nport eth3 ctx 0\nport eth4 ctx 0\n"
                         "port eth5 ctx 3\nport eth6 ctx 3\n");
        for (int ifindex = 2; ifindex < 2 + PORTS; ++ifindex) {
            world.address(ifindex, address_text(subnet_of(ifindex) + 1) + "/24");
            if (chance(3))
                world.address(ifindex, address_text(subnet_of(ifindex) + 0x8001) + (chance(2) ? "/31" : "/28"));
        }
        world.own_rules();
        for (unsigned i = 0; i < 40; ++i)
            change_something();
    }

    bool chance(unsigned one_in) { return random() % one_in == 0; }
    unsigned up_to(unsigned bound) { return static_cast<unsigned>(random() % bound); }
    static std::uint32_t subnet_of(int ifindex) { return ip("10.0.0.0") + (static_cast<unsigned>(ifindex) << 16); }
    int any_port() { return 2 + static_cast<int>(up_to(PORTS)); }

    std::uint32_t any_neighbour(int ifindex) { return subnet_of(ifindex) + 2 + up_to(3); }
    kernel_prefix any_prefix()
    {
        // Few addresses, so that prefixes lie in one another; among them neighbours and the subnets of the ports.
        static const char *const NEAR[] = {"20.1.2.0", "20.1.3.7",  "20.128.0.0", "21.0.0.0",
                                           "0.0.0.0",  "127.0.0.0", "64.0.0.0"};
        const std::uint32_t address = chance(3) ? any_neighbour(any_port()) : ip(NEAR[up_to(std::size(NEAR))]);
        static constexpr std::uint32_t LENGTHS[] = {0, 1, 7, 8, 9, 15, 16, 17, 20, 24, 25, 30, 31, 32, 32, 24, 16, 8};
        return kernel_prefix_of(address, LENGTHS[up_to(std::size(LENGTHS))]);
    }
    kernel_hop any_hop()
    {
        kernel_hop hop;
        hop.ifindex = chance(20) ? 7 : any_port();
        hop.gateway = chance(12) ? 0 : any_neighbour(chance(10) ? any_port() : hop.ifindex);
        hop.weight = chance(15) ? 3 : 1;
        hop.is_dead = chance(25);
        hop.is_plain = !chance(30);
        return hop;
    }
    kernel_route any_route()
    {
        static constexpr std::uint8_t TYPES[] = {RTN_BLACKHOLE, RTN_UNREACHABLE, RTN_PROHIBIT, RTN_THROW, RTN_THROW};
        kernel_route route;
        route.type = chance(6) ? TYPES[up_to(std::size(TYPES))] : std::uint8_t{RTN_UNICAST};
        route.metric = chance(3) ? 20 : 0;
        route.tos = chance(20) ? 0x10 : 0;
        route.is_plain = !chance(25);
        if (route.type == RTN_UNICAST)
            for (unsigned paths = chance(3) ? 1 + up_to(10) : 1; paths > 0; --paths)
                route.hops.push_back(any_hop());
        return route;
    }

    // One change, and what a listener is told of it.
    kernel_changes change_something()
    {
        const kernel_state before = world.state;
        const int ifindex = any_port();
        switch (up_to(24)) {
        case 0:
            world.state.links.at(ifindex).has_carrier = !chance(3);
            break;
        case 1:
            world.state.links.at(ifindex).is_up = !chance(5);
            break;
        case 2:
            world.state.netconfs[ifindex].forwards = !chance(6);
            break;
        case 3:
            world.state.netconfs[chance(3) ? KERNEL_ALL_LINKS : ifindex].ignores_linkdown = chance(3);
            break;
        case 4:
        case 5:
        case 6:
        case 7: {
            kernel_neighbour &neighbour = world.state.neighbours[{ifindex, any_neighbour(ifindex)}];
            neighbour.state = chance(3) ? NUD_FAILED : NUD_STALE;
            neighbour.mac = neighbour.state == NUD_FAILED ? 0 : 2;
            break;
        }
        case 8:
            if (chance(4))
                change_rules();
            break;
        case 9:
            change_routes(KERNEL_TABLE_LOCAL);
            break;
        default:
            change_routes(chance(2) ? OTHER_TABLE : KERNEL_TABLE_MAIN);
        }
        return kernel_state_difference(before, world.state);
    }
    void change_rules()
    {
        kernel_rule rule = rule_of(100 + up_to(2) * 32800, chance(2) ? OTHER_TABLE : 50, chance(2) ? "eth5" : "");
        rule.is_plain = !chance(3);
        const auto known = std::find(world.state.rules.begin(), world.state.rules.end(), rule);
        for (auto at = world.state.rules.begin(); at != world.state.rules.end();)
            at = at->preference == 100 || at->preference == 32900 ? world.state.rules.erase(at) : at + 1;
        if (known == world.state.rules.end() && chance(2))
            world.add_rule(rule);
    }
    void change_routes(std::uint32_t table)
    {
        const kernel_prefix prefix = any_prefix();
        std::vector<kernel_route> routes;
        if (table == KERNEL_TABLE_LOCAL) {
            if (chance(2) && prefix.length > 8)
                routes.push_back(route_of(RTN_LOCAL, {{"", any_port()}}));
        } else {
            for (unsigned count = up_to(4); count > 0; --count)
                routes.push_back(any_route());
        }
        std::stable_sort(routes.begin(), routes.end(), [](const kernel_route &a, const kernel_route &b) {
            return a.tos != b.tos ? a.tos > b.tos : a.metric < b.metric;
        });
        (void)kernel_table_set(world.state.tables.at(table), prefix, routes);
    }
    live_room any_room()
    {
        const live_room less = {static_cast<std::int32_t>(up_to(12)), static_cast<std::int32_t>(up_to(16)),
                                static_cast<std::int32_t>(up_to(4))};
        live_room room = world.plan().need - less;
        room.blocks = std::max(room.blocks, 0);
        return room;
    }
};

kernel_exits exits_of_plan(const std::vector<live_path> &paths)
{
    kernel_exits exits;
    for (const live_path &path : paths)
        exits.insert({path.gateway, path.ifindex});
    return exits;
}

struct tally {
    unsigned forwarded = 0, all = 0;
};

// Compares a plan's answers with the kernel's, at every boundary, for every port and with and without a TOS.
void expect_as_the_kernel(const kernel_state &state, const live_plan &plan, tally *counts, unsigned seed)
{
    for (const std::uint32_t address : boundaries_of(state, plan))
        for (const auto &[ifindex, port] : plan.ports) {
            if (!port.is_bound)
                continue;
            const auto paths = live_plan_lookup(plan, port.ctx, address);
            ++counts->all;
            if (paths.empty())
                continue;
            ++counts->forwarded;
            for (const std::uint8_t tos : {std::uint8_t{0}, std::uint8_t{0x10}})
                ASSERT_EQ(exits_of(state, port.name, address, tos), exits_of_plan(paths))
                    << "seed " << seed << ", " << address_text(address) << " from " << port.name << " with TOS "
                    << unsigned{tos} << "\n"
                    << shown(plan);
        }
}

live_room need_of(const live_plan &plan)
{
    live_room sum;
    for (const auto &[ctx, context] : plan.contexts) {
        live_need need = context.own_need;
        for (const auto &[prefix, route] : context.card.routes)
            live_need_add(need, prefix, std::max<std::size_t>(1, route.paths.size()));
        for (const auto &[address, host] : context.card.hosts)
            live_need_add(need, kernel_prefix_of(address, 32), 1);
        sum = sum + need.sum;
    }
    return sum;
}

// No prefix twice, and each gateway counted as often as it is used.
void expect_sound(const live_plan &plan, unsigned seed)
{
    for (const auto &[ctx, context] : plan.contexts) {
        std::map<std::uint32_t, std::uint32_t> uses;
        for (const auto &[prefix, route] : context.card.routes) {
            EXPECT_EQ(context.own.count(prefix), 0u) << "seed " << seed;
            EXPECT_FALSE(live_plan_is_passed_by(prefix)) << "seed " << seed;
            EXPECT_LE(route.paths.size(), LIVE_MAX_PATHS);
            for (const live_path &path : route.paths) {
                ++uses[path.gateway];
                EXPECT_EQ(context.card.hosts.at(path.gateway).ifindex, path.ifindex) << "seed " << seed;
                EXPECT_EQ(plan.ports.at(path.ifindex).ctx, ctx);
            }
        }
        for (const auto &[address, host] : context.card.hosts) {
            EXPECT_EQ(host.uses, uses[address]) << "seed " << seed;
            EXPECT_EQ(context.card.routes.count(kernel_prefix_of(address, 32)), 0u) << "seed " << seed;
            EXPECT_EQ(context.own.count(kernel_prefix_of(address, 32)), 0u) << "seed " << seed;
        }
    }
}
} // namespace

TEST(plan_random, no_address_is_forwarded_otherwise_than_by_the_kernel)
{
    tally counts;
    for (unsigned seed = 1; seed <= 150; ++seed) {
        chance_world chances(seed);
        const live_plan plan = chances.world.plan();
        expect_as_the_kernel(chances.world.state, plan, &counts, seed);
        expect_sound(plan, seed);
        if (HasFatalFailure())
            return;
    }
    EXPECT_GT(counts.forwarded * 40, counts.all); // and it does forward
}

TEST(plan_random, changes_taken_one_by_one_give_the_plan_made_at_once)
{
    for (unsigned seed = 1; seed <= 60; ++seed) {
        chance_world chances(seed);
        const bool is_tight = seed % 2 == 0;
        const live_room room = is_tight ? chances.any_room() : LIVE_ROOM_ALL;
        live_plan plan = chances.world.plan(room);
        kernel_changes changes;
        for (unsigned step = 0; step < 120; ++step) {
            kernel_changes_add(changes, chances.change_something());
            if (chances.chance(3))
                continue; // several at once
            live_plan before = plan;
            const live_scope scope = live_plan_update(plan, chances.world.state, chances.world.conf, {}, room, changes);
            const live_plan whole = live_plan_make(chances.world.state, chances.world.conf, {}, room);
            ASSERT_TRUE(plan == whole) << "seed " << seed << ", step " << step << "\n"
                                       << shown(plan) << "---\n"
                                       << shown(whole);
            changes = {};
            if (scope.is_whole)
                continue;
            // What is not in the scope has not changed.
            for (const auto &[ctx, context] : plan.contexts) {
                live_contents was = before.contexts.at(ctx).card, is = context.card;
                for (const auto &[c, prefix] : scope.routes)
                    if (c == ctx)
                        was.routes.erase(prefix), is.routes.erase(prefix);
                for (const auto &[c, address] : scope.hosts)
                    if (c == ctx)
                        was.hosts.erase(address), is.hosts.erase(address);
                ASSERT_TRUE(was == is) << "seed " << seed << ", step " << step;
            }
        }
    }
}

TEST(plan_random, what_has_no_room_goes_up_and_the_rest_is_as_the_kernel_does_it)
{
    tally counts;
    unsigned cuts = 0;
    for (unsigned seed = 1; seed <= 200; ++seed) {
        chance_world chances(seed);
        const live_room room = chances.any_room();
        const live_plan plan = chances.world.plan(room), whole = chances.world.plan();
        ASSERT_TRUE(live_room_fits(plan.used, room)) << "seed " << seed;
        ASSERT_EQ(plan.used, need_of(plan)) << "seed " << seed;
        expect_sound(plan, seed);
        expect_as_the_kernel(chances.world.state, plan, &counts, seed);
        if (HasFatalFailure())
            return;
        for (const auto &[ctx, context] : plan.contexts) {
            cuts += static_cast<unsigned>(context.cut.size());
            for (const std::uint32_t address : boundaries_of(chances.world.state, whole)) {
                const auto cut = live_plan_lookup(plan, ctx, address);
                if (!cut.empty()) {
                    ASSERT_EQ(cut, live_plan_lookup(whole, ctx, address)) << "seed " << seed;
                }
            }
        }
    }
    EXPECT_GT(cuts, 200u);
    EXPECT_GT(counts.forwarded * 50, counts.all);
}
