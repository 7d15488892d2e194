// pages_test.cpp - listings that do not fit a page, over the socket.
//
// The forwarding tables hold too few routes for that. But when the pool of leaves is used up, an ARP host whose address
// a static route waits for is refused and stays in the listing all the same, as a member of that route's set: a record
// that no table has, of which a caller can make as many as it likes. Each such set is one record, and asks for room for
// two.
#include <algorithm>

#include "serving_card.h"

using namespace harness;

namespace
{
constexpr std::uint32_t PAGE = 2550, SETS = 2600, RECORD_BYTES = 24, HOST_LEN = 32, WALK_DONE = 0xFFFFFFFF;
constexpr std::uint32_t FIRST_SET = IP(30, 0, 0, 1), ELSEWHERE = IP(10, 1, 0, 77), MULTICAST = 0xE0000000;
constexpr std::uint32_t LAST_BUCKET = 30;

std::uint32_t bucket_of(std::uint32_t host)
{
    const std::uint32_t upper = (host >> 24) * 9 + (host >> 16 & 0xFF);
    return ((upper * 9 + (host >> 8 & 0xFF)) * 9 + (host & 0xFF)) % 31;
}

struct cursor {
    std::uint32_t list = 0, bucket = 0, position = 0;
    bool operator==(const cursor &) const = default;
};

std::ostream &operator<<(std::ostream &out, const cursor &at)
{
    return out << "(" << at.list << ", " << at.bucket << ", " << at.position << ")";
}

constexpr cursor FINISHED = {33, 0, WALK_DONE};

// A page from `at` on, which becomes the cursor that came back: the prefixes of its records.
std::vector<std::uint32_t> page(const serving_card &live, cursor &at)
{
    const byte_string reply = live.answer(
        {"show_fib_print", {arg16(CTX), arg_ref16(at.list), arg_ref16(at.bucket), arg_ref(at.position), arg_block()}});
    constexpr std::size_t LIST = 12, BUCKET = 22, POSITION = 32, BYTES = 40, RECORDS = 44;
    at = {get32(reply, LIST - 2) & 0xFFFF, get32(reply, BUCKET - 2) & 0xFFFF, get32(reply, POSITION)};
    const std::uint32_t count = get32(reply, 0);
    EXPECT_EQ(get32(reply, BYTES), count * RECORD_BYTES);
    EXPECT_EQ(reply.size(), RECORDS + count * RECORD_BYTES);
    std::vector<std::uint32_t> prefixes;
    for (std::size_t record = RECORDS; record + RECORD_BYTES <= reply.size(); record += RECORD_BYTES)
        prefixes.push_back(get32(reply, record));
    return prefixes;
}

// What the listing has, in its order: the drop entry, then the hosts by bucket and address.
struct listing {
    std::vector<std::uint32_t> prefixes = {MULTICAST};
    void add(std::uint32_t host) { prefixes.push_back(host); }
    void sort()
    {
        std::sort(prefixes.begin() + 1, prefixes.end(), [](std::uint32_t a, std::uint32_t b) {
            return std::pair(bucket_of(a), a) < std::pair(bucket_of(b), b);
        });
    }
    std::vector<std::uint32_t> part(std::size_t from, std::size_t count) const
    {
        const auto first = prefixes.begin() + static_cast<std::ptrdiff_t>(from);
        return {first, first + static_cast<std::ptrdiff_t>(std::min(count, prefixes.size() - from))};
    }
};

cursor at_host(std::uint32_t host) { return {HOST_LEN, bucket_of(host), host}; }

// Three hosts at the end of the last list, a host that uses up the leaves, and the sets.
struct crowded_card : serving_card {
    listing all;
    crowded_card()
    {
        for (std::uint32_t host = IP(200, 0, 0, 1); all.prefixes.size() < 4; ++host)
            if (bucket_of(host) == LAST_BUCKET) {
                EXPECT_EQ(result(call_host_add(host)), 0u);
                all.add(host);
            }
        while (result(call_host_add(GATEWAY)) == 0) {
        }
        EXPECT_EQ(result(call_host_add(GATEWAY)), 0u) << "the refusal gave back one leaf";
        all.add(GATEWAY);
        for (std::uint32_t i = 0; i < SETS; ++i) {
            const std::uint32_t host = FIRST_SET + i;
            EXPECT_EQ(result(call_route_add(host, MASK32, ELSEWHERE)), 0u);
            EXPECT_EQ(result(call_host_add(host)), 1u);
            all.add(host);
        }
        all.sort();
        forget();
    }
};
} // namespace

TEST(daemon_pages, a_host_refused_for_want_of_a_leaf_stays_listed_beside_a_waiting_route_and_in_no_table)
{
    crowded_card live;
    EXPECT_EQ(live.found(CTX, FIRST_SET), 0u) << "the default leaf's word";
    cursor at = at_host(FIRST_SET);
    const std::vector<std::uint32_t> listed = page(live, at);
    EXPECT_EQ(listed.at(0), FIRST_SET);
    EXPECT_EQ(live.result(call_host_remove(FIRST_SET)), 1u) << "it can not be withdrawn";
    EXPECT_EQ(live.result(call_route_remove(FIRST_SET, MASK32, ELSEWHERE)), 0u);
    EXPECT_EQ(live.result(call_host_remove(FIRST_SET)), 0u) << "until the route is gone";
}

TEST(daemon_pages, a_page_stops_at_a_set_that_does_not_fit_whole_and_the_next_one_begins_with_it)
{
    crowded_card live;
    cursor at;
    EXPECT_EQ(page(live, at), live.all.part(0, PAGE - 1)) << "one record is left, and a set asks for two";
    const std::uint32_t stopped = live.all.prefixes.at(PAGE - 1);
    EXPECT_EQ(at, at_host(stopped));
    const cursor second = at;
    EXPECT_EQ(page(live, at), live.all.part(PAGE - 1, PAGE));
    EXPECT_EQ(at, FINISHED);

    // Between two pages the entry at the cursor goes, and then all that stands behind it in its list.
    EXPECT_EQ(live.result(call_route_remove(stopped, MASK32, ELSEWHERE)), 0u);
    EXPECT_EQ(live.result(call_host_remove(stopped)), 0u);
    live.all.prefixes.erase(live.all.prefixes.begin() + (PAGE - 1));
    at = second;
    EXPECT_EQ(page(live, at), live.all.part(PAGE - 1, PAGE));
    EXPECT_TRUE(live.lines("changed during").empty());
    at = {HOST_LEN, LAST_BUCKET - 1, WALK_DONE - 1};
    const auto last_list = std::find_if(live.all.prefixes.begin() + 1, live.all.prefixes.end(),
                                        [](std::uint32_t host) { return bucket_of(host) == LAST_BUCKET; });
    EXPECT_EQ(page(live, at), std::vector<std::uint32_t>(last_list, live.all.prefixes.end()));
    EXPECT_EQ(live.lines("changed during"),
              (text_lines{"105 <Ctx:3>Route list (32, 29) changed during consecutive calls!\n"}));
}

TEST(daemon_pages, a_page_that_a_single_entry_fills_stops_at_the_next_one)
{
    crowded_card live;
    const std::size_t hosts = live.all.prefixes.size() - 3, first = hosts - (PAGE - 2); // two hosts are room for
    cursor at = at_host(live.all.prefixes.at(first));
    EXPECT_EQ(page(live, at), live.all.part(first, PAGE));
    EXPECT_EQ(at, at_host(live.all.prefixes.back()));
    EXPECT_EQ(page(live, at), live.all.part(hosts + 2, 1));
    EXPECT_EQ(at, FINISHED);
}
