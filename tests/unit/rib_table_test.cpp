// rib_table_test.cpp - the hash table of routes: helpers, search and its lines, ECMP sets, predicates, the audit.
#include "rib_card.h"

#include <cstdio>
#include <cstring>
#include <random>

#include "mtrack.h"
#include "prefix_mgr.h"
#include "rib_check.h"
#include "route_ids.h"

using namespace harness;

namespace
{

// Three /32 addresses of one bucket: the last byte weighs 1, and there are 31 buckets.
constexpr std::uint32_t A = IP(10, 0, 0, 1), B = IP(10, 0, 0, 32), C = IP(10, 0, 0, 63);

route_entry *make(std::uint32_t prefix, std::uint32_t len, std::uint32_t nexthop = 0)
{
    route_entry *const entry = rib_entry_alloc(MTRACK_ROUTE_ENTRY_3);
    entry->prefix = prefix;
    entry->len = len;
    entry->nexthop = nexthop;
    entry->ctx = CTX;
    entry->route_id = CTX;
    return entry;
}

route_entry *put(std::uint32_t prefix, std::uint32_t len, std::uint32_t nexthop = 0)
{
    rib_search_result search;
    (void)rib_route_search(CTX, prefix, len, &nexthop, rib_nexthop_match, &search);
    route_entry *const entry = make(prefix, len, nexthop);
    (void)rib_link(entry, search, rib_set_at(search, prefix, len));
    return entry;
}

std::string hex(card_addr address)
{
    char text[9];
    std::snprintf(text, sizeof text, "%x", address);
    return text;
}

std::string lnk(const card_ptr<route_entry> *link)
{
    return "<Ctx:3>lnk:" + hex(card_addr_of(link)) + " *lnk:" + hex(link->addr()) + "\n";
}

bool has_flags(const route_entry *entry, unsigned flags) { return (entry->flags & flags) == flags; }

} // namespace

TEST(rib_table, a_prefix_of_length_0_or_32_is_compared_and_hashed_without_any_shift)
{
    EXPECT_EQ(rib_key(0x0A010203, 32), 0x0A010203u);
    EXPECT_EQ(rib_key(0x0A010203, 0), 0x0A010203u);
    EXPECT_EQ(rib_key(0x0A010203, 16), 0x0A01u);
    EXPECT_EQ(slowpath_route_hashing_ip_key(0x0A010203, 32), 729u * 10 + 81 + 9 * 2 + 3);
    EXPECT_EQ(slowpath_route_hashing_ip_key(0x0A010203, 0), 729u * 10 + 81 + 9 * 2 + 3);
    EXPECT_EQ(slowpath_route_hashing_ip_key(0x0A010203, 16), 9u * 10 + 1);
    EXPECT_EQ(slowpath_route_hashing_ip_key(0xFFFFFFFF, 32), 209100u);
}

TEST(rib_table, the_default_route_lives_in_row_0_bucket_0)
{
    rib_card card;
    EXPECT_EQ(rib_bucket(CTX, 0, 0), &norvik_get_t(CTX)->table[0][0]);
    EXPECT_EQ(rib_bucket(CTX, A, 32), &norvik_get_t(CTX)->table[32][(7290 + 1) % 31]);
}

TEST(rib_table, leading_ones_are_counted_up_to_the_first_zero)
{
    EXPECT_EQ(count_mask_bit(0), 0);
    EXPECT_EQ(count_mask_bit(0xFFFFFFFF), 32);
    EXPECT_EQ(count_mask_bit(0xFFFFFF00), 24);
    EXPECT_EQ(count_mask_bit(0xFF00FF00), 8);
    EXPECT_EQ(count_mask_bit(0xFFFF00FF), 16);
    EXPECT_EQ(count_mask_bit(0x7FFFFFFF), 0);
}

TEST(rib_table, entry_n_of_the_mask_table_has_n_leading_ones)
{
    for (std::uint32_t n = 0; n <= 32; ++n) {
        EXPECT_EQ(count_mask_bit(rib_mask_table[n]), n);
        EXPECT_EQ(rib_mask_table[n] & (n == 32 ? 0 : 0xFFFFFFFFu >> n), 0u) << n;
    }
}

TEST(rib_table, the_kinds_of_route_have_their_names)
{
    const char *const names[9] = {"INVALID", "INTERFACE", "GATEWAY", "VSERVER", "RSERVER",
                                  "NAT",     "ALIAS",     "LEARNED", "STATIC"};
    for (unsigned kind = 0; kind < 9; ++kind)
        EXPECT_STREQ(rib_route_kind_names[kind], names[kind]);
}

TEST(rib_table, the_exported_globals_are_zero)
{
    EXPECT_EQ(route_entry_list.addr(), 0u);
    EXPECT_EQ(entry_list.addr(), 0u);
    EXPECT_EQ(if_stats_table_dp[0] | if_stats_table_dp[1], 0u);
}

TEST(rib_table, in_a_fresh_context_every_bucket_is_empty)
{
    rib_card card;
    EXPECT_EQ(rib_find_entry(CTX, [](const route_entry *) { return true; }), nullptr);
    rib_search_result search;
    EXPECT_EQ(rib_route_search(CTX, 0, 0, nullptr, nullptr, &search), 0u);
    EXPECT_EQ(search.prev, rib_bucket(CTX, 0, 0));
    put(0, 0);
    EXPECT_EQ(rib_route_search(CTX, 0, 0, nullptr, nullptr, &search), 1u);
}

TEST(rib_table, a_search_of_an_empty_bucket_logs_its_start_and_its_end)
{
    rib_card card;
    rib_search_result search;
    (void)rib_route_search(CTX, A, 32, nullptr, nullptr, &search);
    EXPECT_EQ(card.lines(), (text_lines{"101 <Ctx:3>---srch start:a000001/32----\n",
                                        "101 <Ctx:3>---srch end:a000001/32-0 res:0 prev:<" +
                                            hex(card_addr_of(rib_bucket(CTX, A, 32))) + ",0> ecmp:0---\n"}));
}

TEST(rib_table, a_search_logs_each_link_that_it_follows_and_none_for_the_end_of_the_chain)
{
    rib_card card;
    card_ptr<route_entry> *const bucket = rib_bucket(CTX, A, 32);
    route_entry *const a = put(A, 32);
    route_entry *const b = put(B, 32);
    card.forget();

    rib_search_result search;
    EXPECT_EQ(rib_route_search(CTX, B, 32, nullptr, nullptr, &search), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_EVENTS),
              (text_lines{"<Ctx:3>---srch start:a000020/32----\n", lnk(bucket), lnk(&a->next),
                          "<Ctx:3>---srch end:a000020/32-1 res:" + hex(card_addr_of(b)) + " prev:<" +
                              hex(card_addr_of(&a->next)) + "," + hex(card_addr_of(b)) + "> ecmp:0---\n"}));

    card.forget();
    EXPECT_EQ(rib_route_search(CTX, C, 32, nullptr, nullptr, &search), 0u);
    EXPECT_EQ(search.prev, &b->next);
    EXPECT_EQ(
        card.texts(ROUTE_DBG_EVENTS),
        (text_lines{"<Ctx:3>---srch start:a00003f/32----\n", lnk(bucket), lnk(&a->next),
                    "<Ctx:3>---srch end:a00003f/32-0 res:0 prev:<" + hex(card_addr_of(&b->next)) + ",0> ecmp:0---\n"}));
}

TEST(rib_table, a_miss_stops_at_the_first_larger_key)
{
    rib_card card;
    card_ptr<route_entry> *const bucket = rib_bucket(CTX, A, 32);
    route_entry *const b = put(B, 32);
    put(C, 32);
    card.forget();
    rib_search_result search;
    EXPECT_EQ(rib_route_search(CTX, A, 32, nullptr, nullptr, &search), 0u);
    EXPECT_EQ(search.prev, bucket);
    EXPECT_EQ(search.prev->get(), b);
    EXPECT_EQ(card.with(ROUTE_DBG_EVENTS, "lnk:"), (text_lines{lnk(bucket)}));
}

TEST(rib_table, a_chain_is_in_ascending_order_whatever_the_order_of_arrival)
{
    rib_card card;
    put(C, 32);
    put(A, 32);
    put(B, 32);
    const route_entry *entry = *rib_bucket(CTX, A, 32);
    for (const std::uint32_t expected : {A, B, C}) {
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->prefix, expected);
        entry = entry->next;
    }
    EXPECT_EQ(entry, nullptr);
}

TEST(rib_table, a_search_whose_predicate_accepts_no_path_leaves_prev_at_the_candidate)
{
    rib_card card;
    route_entry *const a = put(A, 32, 7);
    put(A, 32, 8);
    const std::uint32_t unknown = 9;
    rib_search_result search;
    EXPECT_EQ(rib_route_search(CTX, A, 32, &unknown, rib_nexthop_match, &search), 0u);
    EXPECT_EQ(search.entry, nullptr);
    EXPECT_EQ(search.ecmp_head, nullptr);
    EXPECT_EQ(search.prev->get(), a);
    EXPECT_EQ(rib_set_at(search, A, 32), a);
}

TEST(rib_table, a_member_is_found_with_its_head_and_the_link_that_points_at_it)
{
    rib_card card;
    route_entry *const head = put(A, 32, 7);
    route_entry *const first = put(A, 32, 8);
    route_entry *const second = put(A, 32, 9);
    card.forget();
    std::uint32_t wanted = 8;
    rib_search_result search;
    EXPECT_EQ(rib_route_search(CTX, A, 32, &wanted, rib_nexthop_match, &search), 1u);
    EXPECT_EQ(search.entry, first);
    EXPECT_EQ(search.ecmp_head, head);
    EXPECT_EQ(search.prev, &head->ecmp);
    EXPECT_EQ(card.texts(ROUTE_DBG_EVENTS).back(), "<Ctx:3>---srch end:a000001/32-1 res:" + hex(card_addr_of(first)) +
                                                       " prev:<" + hex(card_addr_of(&head->ecmp)) + "," +
                                                       hex(card_addr_of(first)) + "> ecmp:" + hex(card_addr_of(head)) +
                                                       "---\n");
    wanted = 9;
    EXPECT_EQ(rib_route_search(CTX, A, 32, &wanted, rib_nexthop_match, &search), 1u);
    EXPECT_EQ(search.entry, second);
    EXPECT_EQ(search.prev, &first->next);
}

TEST(rib_table, a_second_entry_of_a_prefix_joins_the_set_and_not_the_chain)
{
    rib_card card;
    route_entry *const head = put(A, 32, 7);
    EXPECT_EQ(head->ecmp_count, 0);
    route_entry *const member = make(A, 32, 8);
    EXPECT_EQ(rib_ecmp_link(member, head), &head->ecmp);
    EXPECT_EQ(head->ecmp_count, 2);
    EXPECT_TRUE(has_flags(head, RIB_F_ECMP) && has_flags(member, RIB_F_ECMP));
    EXPECT_EQ(head->next.get(), nullptr);

    route_entry *const third = make(A, 32, 9);
    EXPECT_EQ(rib_ecmp_link(third, head), &member->next);
    EXPECT_EQ(head->ecmp_count, 3);
    EXPECT_EQ(gateways(CTX, A, 32), (std::vector<std::uint32_t>{7, 8, 9}));
}

TEST(rib_table, a_removed_head_leaves_its_place_in_the_chain_to_its_first_member)
{
    rib_card card;
    route_entry *const before = put(A, 32);
    route_entry *const head = put(B, 32, 7);
    route_entry *const after = put(C, 32);
    route_entry *const first = put(B, 32, 8);
    put(B, 32, 9);

    rib_ecmp_unlink(head, &before->next, nullptr);
    EXPECT_EQ(before->next.get(), first);
    EXPECT_EQ(first->next.get(), after);
    EXPECT_EQ(first->ecmp_count, 2);
    EXPECT_TRUE(has_flags(first, RIB_F_ECMP));
    EXPECT_EQ(gateways(CTX, B, 32), (std::vector<std::uint32_t>{8, 9}));
    EXPECT_EQ(head->ecmp_count, 3) << "the removed entry's own fields stay";
    EXPECT_TRUE(has_flags(head, RIB_F_ECMP));
}

TEST(rib_table, the_survivor_of_a_set_is_single_again_when_a_member_goes)
{
    rib_card card;
    route_entry *const head = put(A, 32, 7);
    route_entry *const member = put(A, 32, 8);
    rib_ecmp_unlink(member, &head->ecmp, head);
    EXPECT_EQ(head->ecmp_count, 0);
    EXPECT_FALSE(has_flags(head, RIB_F_ECMP));
    EXPECT_EQ(head->ecmp.get(), nullptr);
}

TEST(rib_table, the_survivor_of_a_set_is_single_again_when_the_head_goes)
{
    rib_card card;
    route_entry *const head = put(A, 32, 7);
    route_entry *const member = put(A, 32, 8);
    rib_ecmp_unlink(head, rib_bucket(CTX, A, 32), nullptr);
    EXPECT_EQ(on_chain(CTX, A, 32), member);
    EXPECT_EQ(member->ecmp_count, 0);
    EXPECT_FALSE(has_flags(member, RIB_F_ECMP));
}

TEST(rib_table, a_middle_member_leaves_the_order_of_the_others)
{
    rib_card card;
    route_entry *const head = put(A, 32, 7);
    route_entry *const first = put(A, 32, 8);
    route_entry *const second = put(A, 32, 9);
    put(A, 32, 10);
    rib_ecmp_unlink(second, &first->next, head);
    EXPECT_EQ(gateways(CTX, A, 32), (std::vector<std::uint32_t>{7, 8, 10}));
    EXPECT_EQ(head->ecmp_count, 3);
}

TEST(rib_table, hosts_and_interface_routes_are_distinguished_by_their_object)
{
    const std::uint32_t host = RIB_OBJ_ARP_HOST, interface = RIB_OBJ_INTERFACE, drop = RIB_OBJ_MCAST_DROP;
    route_entry entry{};
    for (const std::uint16_t flags : {RIB_F_ARP_HOST, RIB_F_ARP_INSTALLED}) {
        entry.flags = flags;
        EXPECT_TRUE(rib_host_match(&entry, &host));
        EXPECT_FALSE(rib_host_match(&entry, &interface));
    }
    entry.flags = RIB_F_INTERFACE;
    EXPECT_FALSE(rib_host_match(&entry, &host));
    EXPECT_TRUE(rib_host_match(&entry, &interface));
    entry.flags = 0xFFFF;
    EXPECT_FALSE(rib_host_match(&entry, &drop));
}

TEST(rib_table, a_static_route_matches_its_gateway_and_any_interface_route)
{
    const std::uint32_t gateway = 7, other = 8;
    route_entry entry{};
    entry.nexthop = 7;
    EXPECT_TRUE(rib_static_match(&entry, &gateway));
    EXPECT_FALSE(rib_static_match(&entry, &other));
    EXPECT_TRUE(rib_nexthop_match(&entry, &gateway));
    entry.flags = RIB_F_INTERFACE;
    EXPECT_TRUE(rib_static_match(&entry, &other));
    EXPECT_FALSE(rib_nexthop_match(&entry, &other));
}

TEST(rib_table, nat_routes_are_matched_by_pool_by_interface_and_by_learned_host)
{
    const std::uint16_t encap = 0x1234, ifid = 5, other = 6;
    route_entry entry{};
    entry.encap_id = 0x1234;
    entry.ifid = 5;
    EXPECT_FALSE(rib_nat_encap_match(&entry, &encap));
    EXPECT_FALSE(rib_nat_ifid_match(&entry, &ifid));
    entry.flags = RIB_F_NAT;
    EXPECT_TRUE(rib_nat_encap_match(&entry, &encap));
    EXPECT_FALSE(rib_nat_encap_match(&entry, &other));
    EXPECT_TRUE(rib_nat_ifid_match(&entry, &ifid));
    EXPECT_FALSE(rib_nat_ifid_match(&entry, &other));
    entry.encap_id = 0x11234; // compared whole
    EXPECT_FALSE(rib_nat_encap_match(&entry, &encap));

    const std::uint32_t range[2] = {A, C};
    entry.prefix = B;
    entry.len = 32;
    EXPECT_FALSE(rib_nat_learned_match(&entry, range));
    entry.flags = RIB_F_ARP_INSTALLED;
    for (const std::uint32_t inside : {A, B, C}) {
        entry.prefix = inside;
        EXPECT_TRUE(rib_nat_learned_match(&entry, range)) << inside;
    }
    for (const std::uint32_t outside : {A - 1, C + 1}) {
        entry.prefix = outside;
        EXPECT_FALSE(rib_nat_learned_match(&entry, range)) << outside;
    }
    entry.prefix = B;
    entry.len = 31;
    EXPECT_FALSE(rib_nat_learned_match(&entry, range));
}

TEST(rib_table, an_entry_is_charged_to_its_type_and_is_null_when_memory_is_short)
{
    rib_card card;
    const std::uint32_t before = card.blocks(MTRACK_ROUTE_ENTRY_2);
    EXPECT_NE(rib_entry_alloc(MTRACK_ROUTE_ENTRY_2), nullptr);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_2), before + 1);
    card.fail_alloc(MTRACK_ROUTE_ENTRY_2, 1);
    EXPECT_EQ(rib_entry_alloc(MTRACK_ROUTE_ENTRY_2), nullptr);
}

TEST(rib_table, a_walk_visits_rows_then_buckets_then_chains_and_stops_at_the_first_accepted)
{
    rib_card card;
    put(B, 32);
    put(A, 32);
    put(IP(10, 0, 0, 0), 8);
    put(0, 0);
    std::vector<std::uint32_t> seen;
    const auto until_a = [&seen](const route_entry *entry) {
        seen.push_back(entry->prefix);
        return entry->prefix == A;
    };
    EXPECT_EQ(rib_find_entry(CTX, until_a), on_chain(CTX, A, 32));
    EXPECT_EQ(seen, (std::vector<std::uint32_t>{0, IP(10, 0, 0, 0), A}));
}

TEST(rib_table, the_audit_sees_each_broken_rule)
{
    rib_card card;
    route_entry *const a = put(A, 32, 7);
    route_entry *const b = put(B, 32, 7);
    route_entry *const member = put(B, 32, 8);
    ASSERT_EQ(rib_check(CTX), 0);

    const auto expect_fault = [](const char *rule, auto &field, auto wrong) {
        const auto kept = field;
        field = static_cast<std::remove_reference_t<decltype(field)>>(wrong);
        EXPECT_GT(rib_check(CTX), 0) << rule;
        field = kept;
        EXPECT_EQ(rib_check(CTX), 0) << rule;
    };
    expect_fault("order", a->prefix, C);
    expect_fault("bucket", a->prefix, A - 1);
    expect_fault("row", a->len, 31);
    expect_fault("context", a->ctx, CTX + 1);
    expect_fault("member's context", member->ctx, CTX + 1);
    expect_fault("route id", a->route_id, 256);
    expect_fault("count of a set", b->ecmp_count, 3);
    expect_fault("count of a single entry", a->ecmp_count, 1);
    expect_fault("head's flag", b->flags, 0);
    expect_fault("single entry's flag", a->flags, RIB_F_ECMP);
    expect_fault("member's flag", member->flags, 0);
    expect_fault("member's prefix", member->prefix, A);
    expect_fault("member's own set", member->ecmp_count, 2);
    expect_fault("programmed but not static", a->flags, RIB_F_IN_MTRIE);
    expect_fault("programmed but not NAT", a->flags, RIB_F_NAT_IN_MTRIE);

    route_entry *const net = put(IP(10, 0, 0, 0), 8);
    expect_fault("masked", net->prefix, IP(10, 0, 0, 1));
    a->next = a; // a ring of links ends the audit, too
    EXPECT_GT(rib_check(CTX), 0);
    a->next = b;
}

namespace
{
// What rib_find_entry and rib_find_prefix have to answer, by the plain walk over every bucket.
template <class Visit> void walk_all_buckets(Visit visit)
{
    for (auto &row : norvik_get_t(CTX)->table)
        for (const card_ptr<route_entry> head : row)
            for (const route_entry *entry = head; entry != nullptr; entry = entry->next)
                visit(entry);
}

// A prefix of few addresses and all lengths, so that chains are shared and buckets empty again.
void toggle(std::uint32_t drawn)
{
    const std::uint32_t len = drawn % RIB_ROWS;
    const std::uint32_t prefix = (IP(10, 0, 0, 0) | (drawn >> 8 & 0x30F)) & rib_mask_table[len];
    rib_search_result search;
    if (rib_route_search(CTX, prefix, len, nullptr, nullptr, &search) == 0) {
        route_entry *const entry = make(prefix, len);
        entry->flags = (drawn & 1u << 30) != 0 ? RIB_F_ARP_HOST : std::uint16_t{0};
        (void)rib_link(entry, search, nullptr);
        return;
    }
    *search.prev = search.entry->next;
    mtrack_free(search.entry);
}
} // namespace

TEST(rib_table, a_visit_meets_what_a_walk_over_every_bucket_meets_in_its_order)
{
    rib_card card;
    std::mt19937 random(20240608);
    for (int step = 0; step < 600; ++step) {
        toggle(static_cast<std::uint32_t>(random()));
        std::vector<const route_entry *> seen, there;
        EXPECT_EQ(rib_find_entry(CTX,
                                 [&seen](const route_entry *entry) {
                                     seen.push_back(entry);
                                     return false;
                                 }),
                  nullptr);
        walk_all_buckets([&there](const route_entry *entry) { there.push_back(entry); });
        ASSERT_EQ(seen, there) << "step " << step;
        ASSERT_EQ(rib_check(CTX), 0) << "step " << step;
    }
}

TEST(rib_table, a_prefix_is_found_where_a_walk_over_every_bucket_finds_it_first)
{
    rib_card card;
    std::mt19937 random(20240609);
    const auto is_host = [](const route_entry *entry) { return (entry->flags & RIB_F_ARP_HOST) != 0; };
    for (int step = 0; step < 600; ++step) {
        toggle(static_cast<std::uint32_t>(random()));
        for (const std::uint32_t prefix : {0u, IP(10, 0, 0, 0), IP(10, 0, 0, 8), IP(10, 0, 3, 0), IP(10, 0, 3, 15)}) {
            const route_entry *first = nullptr;
            walk_all_buckets([&](const route_entry *entry) {
                if (first == nullptr && entry->prefix == prefix && is_host(entry))
                    first = entry;
            });
            ASSERT_EQ(rib_find_prefix(CTX, prefix, is_host), first) << "step " << step << ", prefix " << prefix;
        }
    }
}

TEST(rib_table, the_audit_sees_a_bucket_that_visits_would_pass_by)
{
    rib_card card;
    put(A, 32);
    const rib_occupancy kept = rib_occupied[CTX];
    rib_occupied[CTX].buckets[32] = 0;
    EXPECT_GT(rib_check(CTX), 0);
    rib_occupied[CTX] = kept;
    rib_occupied[CTX].rows = 0;
    EXPECT_GT(rib_check(CTX), 0);
    rib_occupied[CTX] = kept;
}

TEST(rib_table, a_visit_forgets_the_buckets_that_it_finds_empty)
{
    rib_card card;
    route_entry *const entry = put(A, 32);
    *rib_bucket(CTX, A, 32) = nullptr;
    mtrack_free(entry);
    EXPECT_NE(rib_occupied[CTX].buckets[32], 0u);
    (void)rib_find_entry(CTX, [](const route_entry *) { return false; });
    EXPECT_EQ(rib_occupied[CTX].buckets[32], 0u);
    EXPECT_EQ(rib_occupied[CTX].rows >> 32, 0u);
}
