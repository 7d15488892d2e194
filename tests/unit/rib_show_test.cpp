// rib_show_test.cpp - the resumable walk, the listings page by page, the summaries, addresses as text.
//
// Most routes here are put into the lists by hand, with the flags that a test needs, so that a page of a few records
// meets every rule that a page of 2550 would.
#include "rib_show.h"

#include <algorithm>

#include "big_endian.h"
#include "mtrack.h"
#include "norvik_mtrie_pool.h"
#include "rib_card.h"
#include "rib_host.h"
#include "rib_lists.h"
#include "rib_static.h"
#include "route_ids.h"

using namespace harness;

namespace
{

// Third octets 31 apart share a chain of row 24.
constexpr std::uint32_t ROUTE_A = IP(10, 9, 1, 0), ROUTE_B = IP(10, 9, 32, 0), ROUTE_C = IP(10, 9, 63, 0);
constexpr std::uint16_t CHAIN_BUCKET = (81 * 10 + 9 * 9 + 1) % 31;

std::uint32_t accept_all(route_entry *, void *) { return 1; }
std::uint32_t accept_none(route_entry *, void *) { return 0; }

// An action that notes what it gets and has no room for anything.
std::uint32_t note_and_refuse(route_entry *entry, void *seen)
{
    static_cast<prefix_list *>(seen)->push_back(entry->prefix);
    return 0;
}

prefix_list walk(cursor *at, std::int32_t stop_allowed, route_filter filter, route_action action)
{
    prefix_list seen;
    route_traversal(CTX, &at->list, &at->bucket, &at->position, stop_allowed, filter, action, &seen);
    return seen;
}

std::string padded(std::uint32_t addr, std::uint32_t pad, std::int32_t *length)
{
    char text[20];
    std::fill(std::begin(text), std::end(text), '#');
    *length = format_ip(addr, text, pad);
    return text;
}

} // namespace

TEST(rib_show, an_empty_context_liness_nothing_and_is_finished_at_the_first_call)
{
    rib_card card;
    for (const print_procedure procedure : {show_rib_print, show_fib_print}) {
        card.forget();
        cursor at;
        EXPECT_EQ(print(procedure, &at).size(), 0u);
        EXPECT_EQ(at, FINISHED);
        EXPECT_EQ(card.lines(),
                  (text_lines{"105 <Ctx:3>route_traversal: Start with route list (0,0) at position 0\n"}));
        EXPECT_EQ(card.printed(), "");
    }
    EXPECT_EQ(card.blocks(MTRACK_CLI_ROUTE), 0u);
}

TEST(rib_show, a_page_is_one_block_of_61200_bytes_that_goes_to_the_caller)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN);
    cursor at;
    tnrpc_block block = {};
    EXPECT_EQ(show_fib_print(CTX, &at.list, &at.bucket, &at.position, &block), 1u);
    EXPECT_EQ(block.length, 24u);
    ASSERT_EQ(card.blocks(MTRACK_CLI_ROUTE), 1u);
    EXPECT_EQ(card.heap.at(block.data.addr()).bytes, 61200u);
    mtrack_free(block.data);
}

TEST(rib_show, a_record_gives_every_field_with_its_most_significant_byte_first)
{
    rib_card card;
    route_entry *const entry = put(ROUTE_A, 24, STATIC_IN, IP(172, 16, 254, 3));
    entry->route_id = 0xA7;
    entry->ifid = 0x1F02;
    entry->encap_id = 0x8001BEEF;
    const std::vector<std::uint8_t> record = {10,   9,    1,    0,    0,    0,    0,    24,   172,  16,   254,  3,
                                              0x00, 0x00, 0x00, 0xA7, 0x1F, 0x02, 0x00, 0x0C, 0x80, 0x01, 0xBE, 0xEF};
    for (const print_procedure procedure : {show_rib_print, show_fib_print}) {
        cursor at;
        EXPECT_EQ(print(procedure, &at), record);
        EXPECT_EQ(at, FINISHED);
    }
}

TEST(rib_show, the_walk_goes_by_length_then_bucket_then_address)
{
    rib_card card;
    for (const std::uint32_t prefix : {ROUTE_C, ROUTE_A, ROUTE_B, ROUTE_A + 0x100})
        put(prefix, 24, STATIC_IN);
    put(IP(250, 0, 0, 0), 8, STATIC_IN);
    put(IP(1, 1, 1, 1), 32, STATIC_IN);
    put(0, 0, STATIC_IN);
    cursor at;
    EXPECT_EQ(walk(&at, 0, accept_all, note_and_refuse),
              (prefix_list{0, IP(250, 0, 0, 0), ROUTE_A, ROUTE_B, ROUTE_C, ROUTE_A + 0x100, IP(1, 1, 1, 1)}));
    EXPECT_EQ(at, FINISHED);
}

TEST(rib_show, a_walk_that_may_not_stop_visits_everything_whatever_the_action_answers)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN);
    put(ROUTE_B, 24, STATIC_IN);
    cursor at;
    EXPECT_EQ(walk(&at, 0, accept_all, note_and_refuse), (prefix_list{ROUTE_A, ROUTE_B}));
    EXPECT_EQ(at, FINISHED);
    at = {};
    EXPECT_EQ(walk(&at, 1, accept_all, note_and_refuse), (prefix_list{ROUTE_A}));
    EXPECT_EQ(at, (cursor{24, CHAIN_BUCKET, ROUTE_A}));
}

TEST(rib_show, the_action_gets_no_entry_that_the_filter_refuses)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN);
    cursor at;
    EXPECT_EQ(walk(&at, 1, accept_none, note_and_refuse), prefix_list{});
    EXPECT_EQ(at, FINISHED);
}

TEST(rib_show, the_walk_meets_a_set_at_its_head_only)
{
    rib_card card;
    for (std::uint32_t i = 0; i < 3; ++i)
        put(ROUTE_A, 24, STATIC_IN, GATEWAY + i);
    cursor at;
    EXPECT_EQ(walk(&at, 0, accept_all, note_and_refuse), (prefix_list{ROUTE_A}));
}

TEST(rib_show, the_action_may_unlink_and_free_its_entry)
{
    rib_card card;
    for (const std::uint32_t prefix : {ROUTE_A, ROUTE_B, ROUTE_C})
        put(prefix, 24, STATIC_IN);
    cursor at;
    const route_action take = [](route_entry *entry, void *arg) -> std::uint32_t {
        ++*static_cast<unsigned *>(arg);
        drop(entry->prefix, entry->len);
        return 1;
    };
    unsigned taken = 0;
    route_traversal(CTX, &at.list, &at.bucket, &at.position, 0, accept_all, take, &taken);
    EXPECT_EQ(taken, 3u);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), 0u);
}

TEST(rib_show, a_finished_cursor_lists_nothing_and_keeps_its_bucket)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN);
    card.forget();
    for (const std::uint16_t list : {std::uint16_t{33}, std::uint16_t{0xFFFF}}) {
        cursor at = {list, 7, 0};
        EXPECT_EQ(print(show_fib_print, &at).size(), 0u);
        EXPECT_EQ(at, (cursor{list, 7, ROUTE_WALK_DONE}));
    }
    EXPECT_EQ(card.lines(),
              (text_lines{"105 <Ctx:3>route_traversal: Start with route list (33,7) at position 0\n",
                          "105 <Ctx:3>route_traversal: Start with route list (65535,7) at position 0\n"}));
}

TEST(rib_show, a_bucket_behind_the_last_begins_the_next_length)
{
    rib_card card;
    put(IP(10, 9, 0, 0), 23, STATIC_IN);
    put(ROUTE_A, 24, STATIC_IN);
    for (const std::uint16_t bucket : {std::uint16_t{31}, std::uint16_t{0xFFFF}}) {
        cursor at = {23, bucket, 0};
        EXPECT_EQ(page_of(9, &at), (prefix_list{ROUTE_A}));
        EXPECT_EQ(at, FINISHED);
        at = {32, bucket, 0};
        EXPECT_EQ(page_of(9, &at), prefix_list{});
        EXPECT_EQ(at, FINISHED);
    }
}

TEST(rib_show, a_position_counts_in_the_first_list_of_the_walk_also_when_that_begins_the_next_length)
{
    rib_card card;
    put(IP(62, 0, 0, 0), 8, STATIC_IN); // with the next two the first chain of row 8
    put(IP(93, 0, 0, 0), 8, STATIC_IN);
    put(IP(10, 9, 0, 0), 16, STATIC_IN);
    for (const cursor start : {cursor{8, 0, IP(63, 0, 0, 0)}, cursor{7, 31, IP(63, 0, 0, 0)}}) {
        cursor at = start;
        EXPECT_EQ(page_of(9, &at), (prefix_list{IP(93, 0, 0, 0), IP(10, 9, 0, 0)}));
        EXPECT_EQ(at, FINISHED);
    }
}

TEST(rib_show, a_walk_that_stopped_at_the_last_address_of_all_can_be_resumed_there)
{
    rib_card card;
    put(0xFFFFFFFE, 32, STATIC_IN);
    put(0xFFFFFFFF, 32, STATIC_IN);
    cursor at;
    EXPECT_EQ(page_of(1, &at).size(), 1u);
    const bool last_waits = at.position == 0xFFFFFFFF;
    EXPECT_EQ(at.list, 32) << "the list, not the position, tells that the walk is not complete";
    EXPECT_EQ(page_of(1, &at), (prefix_list{last_waits ? 0xFFFFFFFF : 0xFFFFFFFE}));
    EXPECT_EQ(at, FINISHED);
    at = {32, 0, 0xFFFFFFFF};
    EXPECT_EQ(page_of(9, &at).size(), 2u) << "bucket 0 is below both: nothing is skipped behind it";
}

TEST(rib_show, an_entry_of_the_stopping_entrys_prefix_that_stands_before_it_is_listed_again)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN, GATEWAY);
    route_entry *const first = put(ROUTE_B, 24, STATIC_IN, GATEWAY + 1);
    // No caller puts two entries of a prefix on one chain; it is done here by hand, and undone.
    route_entry *const second = rib_entry_alloc(MTRACK_ROUTE_ENTRY_3);
    *second = *first;
    second->next = first->next;
    first->next = second;
    cursor at;
    EXPECT_EQ(page_of(2, &at), (prefix_list{ROUTE_A, ROUTE_B}));
    EXPECT_EQ(at.position, ROUTE_B);
    EXPECT_EQ(page_of(2, &at), (prefix_list{ROUTE_B, ROUTE_B}));
    EXPECT_EQ(at, FINISHED);
    first->next = second->next;
    mtrack_free(second);
}

TEST(rib_show, a_page_filled_exactly_by_an_ordinary_entry_stops_at_the_next_entry)
{
    rib_card card;
    for (const std::uint32_t prefix : {ROUTE_A, ROUTE_B, ROUTE_C})
        put(prefix, 24, STATIC_IN);
    cursor at;
    EXPECT_EQ(page_of(2, &at), (prefix_list{ROUTE_A, ROUTE_B}));
    EXPECT_EQ(at, (cursor{24, CHAIN_BUCKET, ROUTE_C}));
    EXPECT_EQ(page_of(2, &at), (prefix_list{ROUTE_C}));
    EXPECT_EQ(at, FINISHED);
}

TEST(rib_show, a_page_filled_exactly_by_the_last_entry_finishes_the_walk)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN);
    put(ROUTE_B, 24, STATIC_IN);
    cursor at;
    EXPECT_EQ(page_of(2, &at), (prefix_list{ROUTE_A, ROUTE_B}));
    EXPECT_EQ(at, FINISHED);
}

TEST(rib_show, a_set_that_its_head_counts_too_small_is_not_written_past_the_page)
{
    rib_card card;
    for (std::uint32_t path = 0; path < 5; ++path)
        put(ROUTE_A, 24, STATIC_IN, GATEWAY + path);
    route_entry *const head = on_chain(CTX, ROUTE_A, 24);
    head->ecmp_count = 2;
    cursor at;
    EXPECT_EQ(page_of(3, &at), (prefix_list{ROUTE_A, ROUTE_A, ROUTE_A}));
    head->ecmp_count = 5;
}

TEST(rib_show, a_full_page_passes_over_entries_that_are_not_listed)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN);
    put(ROUTE_B, 24, RIB_F_GATEWAY); // waits for its gateway
    put(ROUTE_C, 24, STATIC_IN);
    cursor at;
    EXPECT_EQ(page_of(1, &at), (prefix_list{ROUTE_A}));
    EXPECT_EQ(at.position, ROUTE_C);
}

TEST(rib_show, an_ecmp_set_that_does_not_fit_whole_stops_the_page_at_its_head)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN);
    for (std::uint32_t i = 0; i < 3; ++i)
        put(ROUTE_B, 24, STATIC_IN, GATEWAY + i);
    put(ROUTE_C, 24, STATIC_IN);
    cursor at;
    EXPECT_EQ(page_of(3, &at), (prefix_list{ROUTE_A})) << "two records of room, three paths";
    EXPECT_EQ(at, (cursor{24, CHAIN_BUCKET, ROUTE_B}));
    EXPECT_EQ(page_of(3, &at), (prefix_list{ROUTE_B, ROUTE_B, ROUTE_B})) << "just the room";
    EXPECT_EQ(at.position, ROUTE_C);
    EXPECT_EQ(page_of(3, &at), (prefix_list{ROUTE_C}));
    EXPECT_EQ(at, FINISHED);
}

TEST(rib_show, a_set_asks_for_room_for_all_its_paths_also_for_those_that_are_not_listed)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN);
    put(ROUTE_B, 24, STATIC_IN, GATEWAY);
    put(ROUTE_B, 24, RIB_F_GATEWAY, GATEWAY + 1);
    put(ROUTE_B, 24, RIB_F_GATEWAY, GATEWAY + 2);
    for (const auto list_page : {+[](std::uint16_t n, cursor *at) { return page_of(n, at); }, rib_page_of}) {
        cursor at;
        EXPECT_EQ(list_page(3, &at), (prefix_list{ROUTE_A}));
        EXPECT_EQ(at.position, ROUTE_B);
        EXPECT_EQ(list_page(3, &at), (prefix_list{ROUTE_B})) << "of the set only the installed path";
        EXPECT_EQ(at, FINISHED);
    }
}

TEST(rib_show, a_set_of_paths_that_wait_stops_a_full_page_though_it_lists_nothing)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN);
    put(ROUTE_B, 24, RIB_F_GATEWAY, GATEWAY);
    put(ROUTE_B, 24, RIB_F_GATEWAY, GATEWAY + 1);
    cursor at;
    EXPECT_EQ(page_of(1, &at), (prefix_list{ROUTE_A}));
    EXPECT_EQ(at.position, ROUTE_B);
    EXPECT_EQ(page_of(2, &at), prefix_list{});
    EXPECT_EQ(at, FINISHED);
}

TEST(rib_show, a_set_lists_its_head_first_and_its_members_in_order_of_arrival)
{
    rib_card card;
    put(ROUTE_A, 24, RIB_F_GATEWAY, GATEWAY + 9); // the head waits, and is left out
    for (const std::uint32_t offset : {5u, 2u, 7u})
        put(ROUTE_A, 24, offset == 2 ? RIB_F_GATEWAY : STATIC_IN, GATEWAY + offset);
    cursor at;
    const std::vector<std::uint8_t> listed = print(show_rib_print, &at);
    ASSERT_EQ(listed.size(), 48u);
    EXPECT_EQ(get_be32(&listed[8]), GATEWAY + 5);
    EXPECT_EQ(get_be32(&listed[24 + 8]), GATEWAY + 7);
    EXPECT_EQ(get_be16(&listed[18]), STATIC_IN | RIB_F_ECMP);
}

TEST(rib_show, a_page_of_2550_records_is_full_and_the_next_entry_waits)
{
    rib_card card;
    for (std::uint32_t i = 0; i < 2552; ++i)
        put(IP(10, 0, 0, 0) + i, 32, STATIC_IN);
    cursor at;
    prefix_list listed;
    std::vector<std::uint8_t> page = print(show_fib_print, &at);
    EXPECT_EQ(page.size(), 61200u);
    listed = prefixes_in(page.data(), page.size() / 24);
    EXPECT_EQ(at.list, 32);
    EXPECT_NE(at.position, ROUTE_WALK_DONE);
    const std::uint32_t waits = at.position;
    page = print(show_fib_print, &at);
    EXPECT_EQ(page.size(), 2 * 24u);
    EXPECT_EQ(get_be32(page.data()), waits);
    EXPECT_EQ(at, FINISHED);
    const prefix_list rest = prefixes_in(page.data(), 2);
    listed.insert(listed.end(), rest.begin(), rest.end());
    std::sort(listed.begin(), listed.end());
    for (std::uint32_t i = 0; i < 2552; ++i)
        ASSERT_EQ(listed[i], IP(10, 0, 0, 0) + i) << "each once";
}

TEST(rib_show, resuming_after_the_stopping_entry_went_goes_on_at_the_next_larger_prefix_of_its_list)
{
    rib_card card;
    for (const std::uint32_t prefix : {ROUTE_A, ROUTE_B, ROUTE_C})
        put(prefix, 24, STATIC_IN);
    cursor at;
    EXPECT_EQ(page_of(1, &at), (prefix_list{ROUTE_A}));
    ASSERT_EQ(at.position, ROUTE_B);
    drop(ROUTE_B, 24);
    card.forget();
    EXPECT_EQ(page_of(1, &at), (prefix_list{ROUTE_C}));
    EXPECT_EQ(at, FINISHED);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "changed"), text_lines{});
}

TEST(rib_show, resuming_in_a_list_with_nothing_left_logs_the_change_and_moves_on)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN);
    put(ROUTE_B, 24, STATIC_IN);
    put(IP(1, 1, 1, 1), 32, STATIC_IN);
    cursor at;
    EXPECT_EQ(page_of(1, &at), (prefix_list{ROUTE_A}));
    const cursor stopped = at;
    drop(ROUTE_B, 24);
    card.forget();
    EXPECT_EQ(page_of(1, &at), (prefix_list{IP(1, 1, 1, 1)})) << "below the old position, in another list";
    EXPECT_EQ(at, FINISHED);
    const text_lines changed = {"105 <Ctx:3>route_traversal: Start with route list (24,24) at position a092000\n",
                                "105 <Ctx:3>Route list (24, 24) changed during consecutive calls!\n"};
    ASSERT_EQ(CHAIN_BUCKET, 24);
    EXPECT_EQ(card.lines(), changed);

    drop(ROUTE_A, 24); // now the list is empty
    at = stopped;
    card.forget();
    EXPECT_EQ(page_of(1, &at), (prefix_list{IP(1, 1, 1, 1)}));
    EXPECT_EQ(card.lines(), changed);
}

TEST(rib_show, a_smaller_prefix_that_came_between_two_pages_is_not_listed)
{
    rib_card card;
    put(ROUTE_B, 24, STATIC_IN);
    put(ROUTE_C, 24, STATIC_IN);
    cursor at;
    EXPECT_EQ(page_of(1, &at), (prefix_list{ROUTE_B}));
    put(ROUTE_A, 24, STATIC_IN);
    EXPECT_EQ(page_of(1, &at), (prefix_list{ROUTE_C}));
}

TEST(rib_show, positions_are_compared_without_a_sign)
{
    rib_card card;
    // On both sides of 0x80000000, and 31 apart: one chain of row 8.
    put(IP(127, 0, 0, 0), 8, STATIC_IN);
    put(IP(158, 0, 0, 0), 8, STATIC_IN);
    cursor at;
    EXPECT_EQ(page_of(1, &at), (prefix_list{IP(127, 0, 0, 0)}));
    EXPECT_EQ(at.position, IP(158, 0, 0, 0));
    EXPECT_EQ(page_of(1, &at), (prefix_list{IP(158, 0, 0, 0)}));
    EXPECT_EQ(at, FINISHED);
}

TEST(rib_show, a_walk_that_stopped_at_address_0_resumes_at_the_start_of_that_list)
{
    rib_card card;
    put(0, 0, STATIC_IN);
    put(0, 8, STATIC_IN);
    put(IP(31, 0, 0, 0), 8, STATIC_IN);
    cursor at;
    EXPECT_EQ(page_of(1, &at), (prefix_list{0}));
    EXPECT_EQ(at, (cursor{8, 0, 0}));
    EXPECT_EQ(page_of(2, &at), (prefix_list{0, IP(31, 0, 0, 0)}));
    EXPECT_EQ(at, FINISHED);
}

TEST(rib_show, two_callers_page_through_a_context_side_by_side)
{
    rib_card card;
    for (std::uint32_t i = 0; i < 40; ++i)
        put(IP(10, i, 0, 0), 16, STATIC_IN);
    cursor whole_at;
    const prefix_list whole = page_of(40, &whole_at);
    cursor first, second;
    prefix_list by_first, by_second;
    for (int guard = 0; guard < 50 && (first != FINISHED || second != FINISHED); ++guard) {
        const prefix_list a = page_of(3, &first), b = page_of(7, &second);
        by_first.insert(by_first.end(), a.begin(), a.end());
        by_second.insert(by_second.end(), b.begin(), b.end());
    }
    EXPECT_EQ(by_first, whole);
    EXPECT_EQ(by_second, whole);
    EXPECT_EQ(whole.size(), 40u);
}

TEST(rib_show, the_listings_show_entries_by_their_flags)
{
    struct flag_case {
        std::uint16_t flags;
        bool in_fib, in_rib;
    };
    constexpr flag_case CASES[] = {
        {0, true, false},
        {RIB_F_ARP_HOST | RIB_F_ARP_INSTALLED, true, false},
        {RIB_F_GATEWAY, false, false},
        {STATIC_IN, true, true},
        {RIB_F_IN_MTRIE, true, false},
        {RIB_F_INTERFACE, true, false},
        {RIB_F_CONNECTED, true, false},
        {SUBNET, true, true},
        {RIB_F_NAT, false, false},
        {NAT_IN, true, true},
        {RIB_F_NAT_IN_MTRIE, true, false},
        {RIB_F_MCAST_DROP, true, false},
        {RIB_F_GATEWAY | NAT_IN, false, true},
        {STATIC_IN | RIB_F_NAT, false, true},
        {RIB_F_GATEWAY | SUBNET, false, true},
    };
    for (const flag_case &expected : CASES) {
        route_entry entry = {};
        entry.flags = expected.flags;
        EXPECT_EQ(route_in_fib(&entry) != 0, expected.in_fib) << std::hex << expected.flags;
        EXPECT_EQ(route_in_rib(&entry) != 0, expected.in_rib) << std::hex << expected.flags;
        EXPECT_EQ(show_fib_filter(&entry, nullptr) != 0, expected.in_fib) << std::hex << expected.flags;
        EXPECT_EQ(show_rib_filter(&entry, nullptr) != 0, expected.in_rib) << std::hex << expected.flags;
        entry.flags |= RIB_F_ECMP;
        EXPECT_NE(show_fib_filter(&entry, nullptr), 0u) << "a set's head always passes";
        EXPECT_NE(show_rib_filter(&entry, nullptr), 0u) << "a set's head always passes";
    }
}

TEST(rib_show, the_rib_summary_counts_subnets_nat_prefixes_and_static_paths)
{
    rib_card card;
    put(IP(10, 1, 0, 0), 16, SUBNET);
    put(IP(10, 2, 0, 0), 16, NAT_IN);
    put(IP(10, 3, 0, 0), 16, RIB_F_NAT);       // its interface is down
    put(IP(10, 4, 0, 0), 16, RIB_F_INTERFACE); // an address, no subnet
    put(GATEWAY, 32, RIB_F_ARP_HOST | RIB_F_ARP_INSTALLED);
    put(ROUTE_A, 24, STATIC_IN);
    put(ROUTE_B, 24, RIB_F_GATEWAY);
    put(ROUTE_C, 24, RIB_F_GATEWAY, GATEWAY); // a set whose head waits
    put(ROUTE_C, 24, STATIC_IN, GATEWAY + 1);
    put(ROUTE_C, 24, STATIC_IN, GATEWAY + 2);
    put(IP(10, 5, 0, 0), 16, SUBNET); // a set of both kinds
    put(IP(10, 5, 0, 0), 16, NAT_IN);
    EXPECT_EQ(summary(show_rib_summary), (std::vector<std::uint8_t>{0, 0, 0, 4, 0, 0, 0, 3, 0, 36, 0, 0}));
}

TEST(rib_show, an_entry_of_two_kinds_counts_in_both_counts_of_the_rib_summary_once)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN | SUBNET | NAT_IN);
    EXPECT_EQ(summary(show_rib_summary), (std::vector<std::uint8_t>{0, 0, 0, 1, 0, 0, 0, 1, 0, 36, 0, 0}));
}

TEST(rib_show, the_fib_summary_counts_what_the_processors_have)
{
    rib_card card;
    put(IP(10, 1, 0, 0), 16, SUBNET);
    put(IP(10, 3, 0, 0), 16, RIB_F_NAT);
    put(GATEWAY, 32, RIB_F_ARP_HOST | RIB_F_ARP_INSTALLED);
    put(ROUTE_B, 24, RIB_F_GATEWAY);
    put(ROUTE_C, 24, RIB_F_GATEWAY, GATEWAY); // a head that waits is not counted, its members are
    put(ROUTE_C, 24, STATIC_IN, GATEWAY + 1);
    put(ROUTE_C, 24, STATIC_IN, GATEWAY + 2);
    put(ROUTE_C, 24, RIB_F_GATEWAY, GATEWAY + 3);
    const std::vector<std::uint8_t> record = summary(show_fib_summary);
    ASSERT_EQ(record.size(), 24u);
    EXPECT_EQ(get_be32(&record[12]), 4u);
    EXPECT_EQ(get_be16(&record[16]), 1024);
    EXPECT_EQ(get_be16(&record[18]), 8);
    EXPECT_EQ(get_be16(&record[20]), 32);
}

TEST(rib_show, the_fib_summary_begins_with_the_nodes_leaves_and_blocks_of_its_own_tree)
{
    rib_card card;
    const auto counts = [] {
        const std::vector<std::uint8_t> record = summary(show_fib_summary);
        return std::vector<std::uint32_t>{get_be32(&record[0]), get_be32(&record[4]), get_be32(&record[8])};
    };
    EXPECT_EQ(counts(), (std::vector<std::uint32_t>{1, 1, 0})) << "the root and the default leaf";
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY, 32, ENCAP, IFID, CTX), 0u);
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY + 1, 32, ENCAP, IFID, CTX), 0u);
    EXPECT_EQ(counts(), (std::vector<std::uint32_t>{4, 3, 0}));
    ASSERT_EQ(rib_add_route(CTX, CTX, ROUTE_A, 0xFFFF0000, GATEWAY), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, ROUTE_A, 0xFFFF0000, GATEWAY + 1), 0u);
    EXPECT_EQ(counts(), (std::vector<std::uint32_t>{4, 4, 1}));
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY, 32, ENCAP, IFID, CTX + 1), 0u);
    EXPECT_EQ(counts(), (std::vector<std::uint32_t>{4, 4, 1})) << "another context's tree";
}

TEST(rib_show, an_empty_context_has_summaries_of_zero)
{
    rib_card card;
    EXPECT_EQ(summary(show_rib_summary), (std::vector<std::uint8_t>{0, 0, 0, 0, 0, 0, 0, 0, 0, 36, 0, 0}));
    EXPECT_EQ(get_be32(&summary(show_fib_summary)[12]), 0u);
    EXPECT_EQ(card.blocks(MTRACK_CLI_ROUTE), 0u);
}

TEST(rib_show, a_summary_is_charged_to_the_listings_and_handed_over)
{
    rib_card card;
    tnrpc_block rib = {}, fib = {};
    EXPECT_EQ(show_rib_summary(CTX, &rib), 0u);
    EXPECT_EQ(show_fib_summary(CTX, &fib), 0u);
    EXPECT_EQ(card.blocks(MTRACK_CLI_ROUTE), 2u);
    EXPECT_EQ(rib.length, 12u);
    EXPECT_EQ(fib.length, 24u);
    EXPECT_EQ(card.heap.at(rib.data.addr()).bytes, 12u);
    EXPECT_EQ(card.heap.at(fib.data.addr()).bytes, 24u);
    mtrack_free(rib.data);
    mtrack_free(fib.data);
}

TEST(rib_show, a_listing_without_memory_logs_and_leaves_block_and_cursor_alone)
{
    rib_card card;
    put(ROUTE_A, 24, STATIC_IN);
    for (const print_procedure procedure : {show_rib_print, show_fib_print}) {
        card.forget();
        card.fail_alloc(MTRACK_CLI_ROUTE, 1);
        cursor at = {24, 2, ROUTE_A};
        tnrpc_block block = {77, nullptr};
        EXPECT_EQ(procedure(CTX, &at.list, &at.bucket, &at.position, &block), 0u);
        EXPECT_EQ(at, (cursor{24, 2, ROUTE_A}));
        EXPECT_EQ(block.length, 77u);
        EXPECT_EQ(block.data.addr(), 0u);
        EXPECT_EQ(card.lines(), (text_lines{"100 <Ctx:3>route_print: out of memory\n"}));
    }
}

TEST(rib_show, a_summary_without_memory_logs_and_answers_1)
{
    rib_card card;
    tnrpc_block block = {77, nullptr};
    card.fail_alloc(MTRACK_CLI_ROUTE, 1);
    EXPECT_EQ(show_rib_summary(CTX, &block), 1u);
    card.fail_alloc(MTRACK_CLI_ROUTE, 1);
    EXPECT_EQ(show_fib_summary(CTX, &block), 1u);
    EXPECT_EQ(card.lines(), (text_lines{"100 <Ctx:3>show_rib_summary: out of memory\n",
                                        "100 <Ctx:3>show_fib_summary: out of memory\n"}));
    EXPECT_EQ(block.length, 77u);
    EXPECT_EQ(block.data.addr(), 0u);
}

TEST(rib_show, an_address_is_written_with_its_most_significant_byte_first)
{
    std::int32_t length = 0;
    EXPECT_EQ(padded(IP(10, 1, 0, 9), 0, &length), "10.1.0.9");
    EXPECT_EQ(length, 8);
    EXPECT_EQ(padded(IP(255, 254, 253, 252), 0, &length), "255.254.253.252");
    EXPECT_EQ(length, 15);
    EXPECT_EQ(padded(0, 0, &length), "0.0.0.0");
    EXPECT_EQ(length, 7);
}

TEST(rib_show, a_padded_address_is_15_characters_long)
{
    std::int32_t length = 0;
    EXPECT_EQ(padded(0, 1, &length), "0.0.0.0        ");
    EXPECT_EQ(length, 15);
    EXPECT_EQ(padded(IP(200, 100, 50, 254), 9, &length), "200.100.50.254 ");
    EXPECT_EQ(length, 15);
    EXPECT_EQ(padded(IP(255, 254, 253, 252), 1, &length), "255.254.253.252");
    EXPECT_EQ(length, 15);
}
