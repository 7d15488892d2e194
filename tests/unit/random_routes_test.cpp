// random_routes_test.cpp - long runs of random operations against the plain model, with every audit after each step.
//
// The first kind of run keeps to prefixes that the model can follow: result, RIB, leaves, blocks and longest matches
// must be the model's after each step, up to and beyond the last leaf of the pool. The second kind takes prefixes that
// cover each other wholly and /0 hosts, where only the audits and the entries can tell right from wrong.
// Always: the seed is fixed and stands in every failure line.
#include <array>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "norvik_init.h"
#include "norvik_mtrie.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "plain_model.h"
#include "rib_host.h"
#include "rib_static.h"
#include "rib_table.h"

namespace
{

constexpr unsigned CONTEXTS = 3;

struct prefix {
    std::uint32_t addr, len;
};

// No prefix here is wholly covered by longer ones.
constexpr prefix PREFIXES[] = {
    {0, 0},
    {IP(10, 0, 0, 0), 8},
    {IP(10, 0, 0, 0), 12},
    {IP(10, 1, 0, 0), 16},
    {IP(10, 1, 2, 0), 23},
    {IP(10, 1, 2, 0), 24},
    {IP(10, 1, 2, 64), 26},
    {IP(10, 1, 128, 0), 17},
    {IP(128, 0, 0, 0), 2},
    {IP(10, 1, 4, 0), 24},
    {IP(192, 168, 4, 0), 22},
};
constexpr std::uint32_t HOSTS[] = {IP(10, 1, 2, 1),   IP(10, 1, 2, 2),  IP(10, 1, 2, 65), IP(10, 1, 2, 66),
                                   IP(10, 1, 4, 9),   IP(10, 9, 9, 9),  IP(10, 9, 9, 10), IP(192, 168, 4, 1),
                                   IP(172, 16, 0, 1), IP(172, 16, 0, 2)};
constexpr prefix COVERING[] = {
    {0, 0},
    {0, 1},
    {IP(128, 0, 0, 0), 1},
    {IP(10, 0, 0, 0), 8},
    {IP(10, 0, 0, 0), 9},
    {IP(10, 128, 0, 0), 9},
    {IP(10, 1, 2, 0), 24},
    {IP(10, 1, 2, 0), 25},
    {IP(10, 1, 2, 128), 25},
    {IP(10, 1, 2, 128), 26},
    {IP(10, 1, 2, 192), 26},
    {IP(10, 1, 2, 0), 31},
    {IP(10, 1, 2, 0), 32},
    {IP(10, 1, 2, 1), 32},
    {IP(224, 0, 0, 0), 3},
    {IP(192, 0, 0, 0), 3},
};

struct random_source {
    std::mt19937 engine;
    std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(engine() % n); }
    template <class T, std::size_t N> const T &of(const T (&all)[N]) { return all[below(N)]; }
};

// The interfaces of the card, the last one down. Two ids do not fit the 13 bits of an adjacency word.
constexpr std::uint16_t IFIDS[] = {5, 6, 0x2005, 0x4006, 9};

void add_interfaces(fake_card &card, plain_model &model)
{
    for (const std::uint16_t ifid : IFIDS) {
        const std::uint32_t address = IP(10, 200, 0, ifid & 0xFF);
        card.add_interface(ifid, address).up = ifid != 9;
        model.interfaces[ifid] = {ifid != 9, address};
    }
}

std::vector<std::string> rib_text(std::uint32_t ctx)
{
    std::vector<std::string> lines;
    for (const auto &row : norvik_get_t(ctx)->table)
        for (const card_ptr<route_entry> &bucket : row)
            for (const route_entry *head = bucket; head != nullptr; head = head->next) {
                unsigned place = 0;
                const route_entry *entry = head;
                while (entry != nullptr) {
                    EXPECT_EQ(entry->ctx, ctx);
                    EXPECT_EQ(entry->route_id, ctx);
                    const model_path path{false, entry->nexthop, entry->ifid, entry->encap_id, entry->flags};
                    lines.push_back(model_line(entry->len, entry->prefix, place, path, entry->ecmp_count));
                    entry = place++ == 0 ? head->ecmp : entry->next;
                }
            }
    return lines;
}

int audit_tables()
{
    int broken = mtrie_pool_check() + mtrie_hw_check();
    for (std::uint32_t ctx = 0; ctx < CONTEXTS; ++ctx)
        broken += rib_check(ctx) + mtrie_check(mtrie_get_root_node(ctx), nullptr);
    return broken;
}

std::string leaf_text(std::uint32_t adjacency, bool has_block, std::uint32_t npaths, const std::uint32_t *hw)
{
    char text[200];
    int n = std::snprintf(text, sizeof text, "%08x", adjacency);
    if (has_block)
        std::snprintf(text + n, sizeof text - static_cast<std::size_t>(n),
                      " %u: %08x %08x %08x %08x %08x %08x %08x %08x", npaths, hw[0], hw[1], hw[2], hw[3], hw[4], hw[5],
                      hw[6], hw[7]);
    return text;
}

std::string text_of(const mtrie_leaf *leaf)
{
    if (leaf == nullptr)
        return "none";
    const mtrie_ecmp *block = leaf->ecmp;
    return leaf_text(leaf->adjacency, block != nullptr, block == nullptr ? 0 : block->npaths,
                     block == nullptr ? nullptr : block->hw);
}

std::string text_of(const model_leaf *leaf)
{
    return leaf == nullptr ? "none" : leaf_text(leaf->adjacency, leaf->has_block, leaf->npaths, leaf->hw);
}

// The process's tables against the model's.
void compare(const fake_card &card, const plain_model &model, random_source &random)
{
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), model.entries(false));
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), model.entries(true));
    EXPECT_EQ(static_cast<std::uint32_t>(mtrie_pools[MTRIE_POOL_LEAF].count), model.leaves_in_use());
    EXPECT_EQ(static_cast<std::uint32_t>(mtrie_pools[MTRIE_POOL_ECMP].count), model.blocks_in_use());
    for (std::uint32_t ctx = 0; ctx < CONTEXTS; ++ctx) {
        EXPECT_EQ(rib_text(ctx), model.rib_text(ctx)) << "context " << ctx;
        mtrie_node *root = mtrie_get_root_node(ctx);
        for (const auto &[key, leaf] : model.fib.at(ctx))
            EXPECT_EQ(text_of(mtrie_lookup_exact(root, key.second, model_mask(key.first))), text_of(&leaf))
                << "context " << ctx << " prefix " << std::hex << key.second << std::dec << "/" << key.first;
        for (unsigned i = 0; i < 8; ++i) {
            const std::uint32_t near = i % 2 == 0 ? random.of(HOSTS) : random.of(PREFIXES).addr;
            const std::uint32_t address = near ^ (1u << random.below(32)) ^ random.below(4);
            EXPECT_EQ(text_of(mtrie_longest_match(root, address)), text_of(model.longest_match(ctx, address)))
                << "context " << ctx << " address " << std::hex << address;
        }
    }
}

// One random operation on both. Returns its text; the two results are expected to be equal.
std::string step(fake_card &card, plain_model &model, random_source &random)
{
    const std::uint32_t ctx = random.below(CONTEXTS);
    const prefix route = random.of(PREFIXES);
    const std::uint32_t host = random.of(HOSTS), mask = model_mask(route.len);
    const auto id = static_cast<std::uint16_t>(ctx);
    const auto encap = static_cast<std::uint16_t>(random.below(4) == 0 ? 0x8000 + random.below(9) : random.below(9));
    const std::uint16_t ifid = random.of(IFIDS);
    const bool short_prefix = random.below(12) == 0 && route.len > 0; // a host that is no /32
    const std::uint32_t addr = short_prefix ? route.addr : host, len = short_prefix ? route.len : 32;
    const std::uint32_t nexthop = random.below(10) == 0 ? IP(10, 200, 0, 5) : host;
    model.memory_short = random.below(40) == 0;
    if (model.memory_short) {
        card.fail_alloc(MTRACK_ROUTE_ENTRY_1, 1);
        card.fail_alloc(MTRACK_ROUTE_ENTRY_3, 1);
    }
    std::uint32_t got = 0, expected = 0;
    char text[120];
    const std::uint32_t kind = random.below(20);
    if (kind < 7) {
        std::snprintf(text, sizeof text, "arp add %u %08x/%u encap %x ifid %x", ctx, addr, len, unsigned{encap},
                      unsigned{ifid});
        expected = model.arp_add(ctx, addr, len, encap, ifid);
        got = arp_prefix_mgr_add_route(1, addr, len, encap, ifid, ctx);
    } else if (kind < 10) {
        std::snprintf(text, sizeof text, "arp remove %u %08x/%u", ctx, addr, len);
        expected = model.arp_remove(ctx, addr, len);
        got = arp_prefix_mgr_remove_route(1, addr, len, 0, encap, ifid, ctx);
    } else if (kind < 16) {
        std::snprintf(text, sizeof text, "static add %u %08x/%u by %08x", ctx, route.addr, route.len, nexthop);
        expected = model.static_add(ctx, route.addr, route.len, nexthop);
        got = rib_add_route(id, ctx, route.addr | (random.below(256) & ~mask), mask, nexthop);
    } else {
        std::snprintf(text, sizeof text, "static remove %u %08x/%u by %08x", ctx, route.addr, route.len, nexthop);
        expected = model.static_remove(ctx, route.addr, route.len, nexthop);
        got = rib_remove_route(id, ctx, route.addr, mask, nexthop);
    }
    card.alloc_countdown.clear();
    EXPECT_EQ(got, expected);
    EXPECT_EQ(rib_max_ecmp_route(id, ctx, route.addr, mask), model.set_is_full(ctx, route.addr, route.len));
    return text;
}

// What the process wrote is not kept: a long run is a great deal of it.
void quiet(fake_card &card)
{
    card.open_all_history(false);
    card.forget();
}

struct random_routes : testing::TestWithParam<std::uint32_t> {
};

} // namespace

TEST_P(random_routes, leave_the_tables_as_the_plain_model_says)
{
    std::printf("seed %u\n", GetParam());
    fake_card card;
    ASSERT_EQ(card.start(), 0);
    plain_model model(CONTEXTS);
    random_source random{std::mt19937(GetParam())};
    add_interfaces(card, model);
    for (unsigned i = 0; i < 400; ++i) {
        quiet(card);
        const std::string text = step(card, model, random);
        EXPECT_EQ(audit_tables(), 0);
        compare(card, model, random);
        ASSERT_FALSE(HasFailure()) << "seed " << GetParam() << " step " << i << ": " << text;
    }
}

TEST_P(random_routes, that_use_up_the_leaves_fail_as_the_plain_model_says)
{
    std::printf("seed %u\n", GetParam());
    fake_card card;
    ASSERT_EQ(card.start(), 0);
    plain_model model(CONTEXTS);
    random_source random{std::mt19937(GetParam() + 1000)};
    add_interfaces(card, model);
    // Each report of a known host takes a leaf for good: one host, until few are left.
    while (model.leaves_in_use() < 1021) {
        quiet(card);
        ASSERT_EQ(model.arp_add(2, HOSTS[0], 32, 1, 5), 0u);
        ASSERT_EQ(arp_prefix_mgr_add_route(1, HOSTS[0], 32, 1, 5, 2), 0u);
    }
    EXPECT_EQ(audit_tables(), 0);
    for (unsigned i = 0; i < 150; ++i) {
        quiet(card);
        const std::string text = step(card, model, random);
        EXPECT_EQ(audit_tables(), 0);
        compare(card, model, random);
        ASSERT_FALSE(HasFailure()) << "seed " << GetParam() << " step " << i << ": " << text;
    }
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_LEAF].count, 1024) << "the run did not reach the last leaf";
}

TEST_P(random_routes, that_cover_each_other_wholly_break_no_rule)
{
    std::printf("seed %u\n", GetParam());
    fake_card card;
    ASSERT_EQ(card.start(), 0);
    plain_model ignored(0);
    random_source random{std::mt19937(GetParam() + 2000)};
    add_interfaces(card, ignored);
    for (unsigned i = 0; i < 300; ++i) {
        quiet(card);
        const std::uint32_t ctx = random.below(CONTEXTS);
        const prefix route = random.of(COVERING);
        const auto encap = static_cast<std::uint16_t>(random.below(9));
        const std::uint32_t nexthop = IP(10, 1, 2, random.below(10));
        const auto id = static_cast<std::uint16_t>(ctx);
        switch (random.below(4)) {
        case 0:
            (void)arp_prefix_mgr_add_route(1, route.addr, route.len, encap, 5, ctx);
            break;
        case 1:
            (void)arp_prefix_mgr_remove_route(1, route.addr, route.len, 0, encap, 5, ctx);
            break;
        case 2:
            (void)rib_add_route(id, ctx, route.addr, model_mask(route.len), nexthop);
            break;
        default:
            (void)rib_remove_route(id, ctx, route.addr, model_mask(route.len), nexthop);
            break;
        }
        ASSERT_EQ(audit_tables(), 0) << "seed " << GetParam() << " step " << i << " context " << ctx << " prefix "
                                     << std::hex << route.addr << std::dec << "/" << route.len;
    }
}

TEST_P(random_routes, that_use_up_the_nodes_break_no_rule)
{
    std::printf("seed %u\n", GetParam());
    fake_card card;
    ASSERT_EQ(card.start(), 0);
    plain_model ignored(0);
    random_source random{std::mt19937(GetParam() + 3000)};
    add_interfaces(card, ignored);
    bool refused = false;
    unsigned after = 0; // steps since the first refusal
    for (unsigned i = 0; i < 1000 && after < 100; ++i) {
        const std::uint32_t addr = IP(20 + random.below(3), random.below(256), random.below(8), random.below(256));
        quiet(card);
        if (random.below(30) == 0)
            (void)arp_prefix_mgr_remove_route(1, addr, 32, 0, 1, 5, 0);
        else if (arp_prefix_mgr_add_route(1, addr, 32, 1, 5, 0) != 0)
            refused = true;
        after += refused;
        if (i % 10 == 0 || refused) {
            ASSERT_EQ(audit_tables(), 0) << "seed " << GetParam() << " step " << i;
        }
    }
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_NODE].count, 1024);
    EXPECT_TRUE(refused) << "the run did not reach the last node";
}

INSTANTIATE_TEST_SUITE_P(seeds, random_routes, testing::Values(1u, 20u, 333u));
