// rib_scale_test.cpp - a context that holds 100,000 static routes which wait for their gateways, listed and summarised.
//
// The waiting routes are linked in by hand, the largest first, so that each finds its place at the front of its chain:
// what is tested here is the walk over them, not their arrival.
#include <map>
#include <random>
#include <set>

#include "rib_host.h"
#include "rib_interface.h"
#include "rib_lists.h"
#include "rib_nat.h"
#include "rib_static.h"
#include "route_ids.h"

using namespace harness;

namespace
{

constexpr std::uint32_t WAITING = 100000, LAST_OCTET = 256;
constexpr std::uint32_t FIRST_NET = IP(20, 0, 0, 0); // of the waiting routes, all /24

// A path that a listing shows: length, prefix, gateway.
struct path {
    std::uint32_t len, prefix, nexthop;
    auto operator<=>(const path &) const = default;
};
void PrintTo(const path &p, std::ostream *out)
{
    *out << std::hex << p.prefix << "/" << std::dec << p.len << " by " << std::hex << p.nexthop << std::dec;
}
using path_list = std::vector<path>;

path_list paths_in(const std::vector<std::uint8_t> &records)
{
    path_list found;
    for (std::size_t at = 0; at < records.size(); at += ROUTE_RECORD_BYTES)
        found.push_back({get_be32(&records[at + 4]), get_be32(&records[at]), get_be32(&records[at + 8])});
    return found;
}

// A card whose context has an interface, hosts on it, static routes through them (every fifth with two paths) and a NAT
// pool, and among all that the routes that wait. Lines are not kept: there would be millions.
struct crowded_card : rib_card {
    static constexpr std::uint32_t HOSTS = 20, INSTALLED = 60;
    crowded_card()
    {
        open_all_history(false);
        EXPECT_EQ(norvik_add_interface(IF_ADDR, MASK24, IFID, CTX, 0), 0u);
        for (std::uint32_t i = 0; i < HOSTS; ++i)
            EXPECT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY + i, 32, ENCAP, IFID, CTX), 0u);
        for (std::uint32_t i = 0; i < INSTALLED; ++i) {
            EXPECT_EQ(rib_add_route(CTX, CTX, installed(i), MASK24, GATEWAY + i % HOSTS), 0u);
            if (i % 5 == 0) {
                EXPECT_EQ(rib_add_route(CTX, CTX, installed(i), MASK24, GATEWAY + (i + 1) % HOSTS), 0u);
            }
        }
        EXPECT_EQ(rib_add_nat_pool(CTX, IFID, IP(9, 0, 0, 0), 256, 0x77), 0u);
        for (std::uint32_t i = WAITING; i-- > 0;)
            put(waiting(i), 24, RIB_F_GATEWAY, IP(10, 200, 0, 1));
    }
    // Every 1000th of the nets is free for an installed route.
    static std::uint32_t installed(std::uint32_t i) { return FIRST_NET + i * 1000 * LAST_OCTET; }
    static std::uint32_t waiting(std::uint32_t i) { return FIRST_NET + (i + i / 999 + 1) * LAST_OCTET; }
    static path_list installed_paths()
    {
        path_list paths;
        for (std::uint32_t i = 0; i < INSTALLED; ++i) {
            paths.push_back({24, installed(i), GATEWAY + i % HOSTS});
            if (i % 5 == 0)
                paths.push_back({24, installed(i), GATEWAY + (i + 1) % HOSTS});
        }
        return paths;
    }
};

path_list sorted(path_list paths)
{
    std::sort(paths.begin(), paths.end());
    return paths;
}

} // namespace

TEST(rib_scale, among_100000_waiting_routes_the_listings_show_what_is_installed)
{
    crowded_card card;
    ASSERT_EQ(entries_of(CTX), 100000u + 4 + 20 + 72 + 1);
    path_list in_rib = crowded_card::installed_paths();
    in_rib.push_back({24, IP(10, 1, 0, 0), 0});
    in_rib.push_back({24, IP(9, 0, 0, 0), 0});
    path_list in_fib = in_rib;
    for (std::uint32_t i = 0; i < crowded_card::HOSTS; ++i)
        in_fib.push_back({32, GATEWAY + i, IF_ADDR});
    for (const std::uint32_t own : {IF_ADDR, IP(10, 1, 0, 0), IP(10, 1, 0, 255)})
        in_fib.push_back({32, own, 0});
    cursor at;
    EXPECT_EQ(sorted(paths_in(print(show_rib_print, &at))), sorted(in_rib));
    EXPECT_EQ(at, FINISHED);
    at = {};
    EXPECT_EQ(sorted(paths_in(print(show_fib_print, &at))), sorted(in_fib));
    EXPECT_EQ(at, FINISHED);
}

TEST(rib_scale, among_100000_waiting_routes_the_summaries_count_what_is_installed)
{
    crowded_card card;
    const std::vector<std::uint8_t> rib = summary(show_rib_summary), fib = summary(show_fib_summary);
    EXPECT_EQ(get_be32(&rib[0]), 2u) << "a subnet and a NAT prefix";
    EXPECT_EQ(get_be32(&rib[4]), 72u) << "static paths";
    EXPECT_EQ(get_be32(&fib[12]), 72u + 2 + 20 + 3);
}

TEST(rib_scale, full_pages_among_100000_routes_hold_each_installed_one_once)
{
    rib_card card;
    card.open_all_history(false);
    path_list expected;
    for (std::uint32_t i = WAITING; i-- > 0;) { // every 19th is installed: 5264, two full pages and some
        put(FIRST_NET + i * LAST_OCTET, 24, i % 19 == 0 ? STATIC_IN : RIB_F_GATEWAY, GATEWAY);
        if (i % 19 == 0)
            expected.push_back({24, FIRST_NET + i * LAST_OCTET, GATEWAY});
    }
    for (const print_procedure procedure : {show_rib_print, show_fib_print}) {
        path_list listed;
        std::vector<std::size_t> sizes;
        for (cursor at; at != FINISHED && sizes.size() < 10;) {
            const path_list page = paths_in(print(procedure, &at));
            sizes.push_back(page.size());
            listed.insert(listed.end(), page.begin(), page.end());
        }
        EXPECT_EQ(sizes, (std::vector<std::size_t>{2550, 2550, 164}));
        EXPECT_EQ(sorted(listed), sorted(expected));
    }
    EXPECT_EQ(get_be32(&summary(show_rib_summary)[4]), 5264u);
    EXPECT_EQ(get_be32(&summary(show_fib_summary)[12]), 5264u);
}

// A route that stands during the whole walk is listed just once, whatever comes and goes around it; one that never
// stood is not listed. What came or went meanwhile may be listed or not, but not twice.
TEST(rib_scale, pages_stay_right_while_routes_come_and_go_between_them)
{
    crowded_card card;
    const path_list steady = crowded_card::installed_paths();
    std::mt19937 random(20260114);
    std::set<std::uint32_t> came; // installed routes that the test put in
    const auto come_and_go = [&] {
        for (int step = 0; step < 12; ++step) {
            const std::uint32_t i = static_cast<std::uint32_t>(random() % WAITING), prefix = card.waiting(i);
            if (on_chain(CTX, prefix, 24) == nullptr) {
                put(prefix, 24, STATIC_IN, IP(10, 200, 0, 2)); // back, and installed now
                came.insert(prefix);
            } else {
                drop(prefix, 24);
            }
        }
        if (came.empty() || random() % 3 != 0)
            return;
        const std::uint32_t gone = *came.begin();
        came.erase(gone);
        if (on_chain(CTX, gone, 24) != nullptr)
            drop(gone, 24);
    };
    for (int round = 0; round < 300; ++round) // some stand as installed before the first page
        come_and_go();
    for (const std::uint16_t capacity : {std::uint16_t{2}, std::uint16_t{3}, std::uint16_t{7}, std::uint16_t{50}}) {
        SCOPED_TRACE("pages of " + std::to_string(capacity));
        std::map<path, unsigned> listed;
        std::vector<std::uint8_t> records(capacity * ROUTE_RECORD_BYTES);
        unsigned pages = 0;
        for (cursor at; at != FINISHED && pages < 2000; ++pages) {
            route_page page = {capacity, 0, records.data()};
            route_traversal(CTX, &at.list, &at.bucket, &at.position, 1, show_rib_filter, show_rib_action, &page);
            const path_list paths = paths_in({records.begin(), records.begin() + page.count * 24});
            for (std::size_t i = 0; i < paths.size(); ++i)
                ++listed[paths[i]];
            if (!paths.empty() && at != FINISHED && random() % 4 == 0)
                if (const route_entry *next = on_chain(CTX, at.position, at.list);
                    next != nullptr && next->nexthop == IP(10, 200, 0, 2))
                    drop(at.position, at.list); // the very entry that waits for the next page
            come_and_go();
        }
        EXPECT_GT(pages, 10u / capacity);
        EXPECT_LT(pages, 2000u);
        for (const path &p : steady)
            EXPECT_EQ(listed[p], 1u) << testing::PrintToString(p);
        for (const auto &[p, times] : listed) {
            EXPECT_EQ(times, 1u) << testing::PrintToString(p);
            EXPECT_NE(p.nexthop, IP(10, 200, 0, 1)) << "a route that waits: " << testing::PrintToString(p);
        }
    }
}
