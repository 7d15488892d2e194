// rib_bench.cpp - the routing information base: visits, searches, changes, listings, in contexts of 10 to 100,000
// routes.
//
// The statics are /24 and /32 routes through a gateway that nobody has learned, so they wait, as most of a large
// context does. Lines are laid down with the gates as at start-up: a search logs each step along its chain.
#include <algorithm>
#include <cstring>
#include <random>

#include "bench.h"
#include "bench_card.h"
#include "mtrack.h"
#include "prefix_mgr.h"
#include "rib_check.h"
#include "rib_host.h"
#include "rib_show.h"
#include "rib_static.h"
#include "rib_table.h"

namespace
{
constexpr std::uint16_t EMPTY_CTX = 200, SILENT_CTX = 1, CTX = 0, IFID = 5;
constexpr std::uint32_t GATEWAY = 0x0A010009, OTHER_GATEWAY = 0x0A010100, HOST_MASK = 0xFFFFFFFF;
constexpr bench_clock CPU = bench_clock::cpu;

std::string with_count(const char *what, std::size_t count) { return what + std::to_string(count) + " routes"; }

// `count` different prefixes, half of them /24, in no order.
struct prefix {
    std::uint32_t address, mask;
};
std::vector<prefix> prefixes_of(std::size_t count)
{
    std::vector<prefix> all;
    for (std::uint32_t i = 0; all.size() < count; ++i) {
        all.push_back({0x14000000 + (i << 8), 0xFFFFFF00});
        if (all.size() < count)
            all.push_back({0x50000000 + i * 7, HOST_MASK});
    }
    std::shuffle(all.begin(), all.end(), std::mt19937(20240610));
    return all;
}

void add(const prefix &p, std::uint32_t gateway, std::uint16_t ctx = CTX)
{
    bench_require(rib_add_route(ctx, ctx, p.address, p.mask, gateway) == 0, "a static route is added");
}
void remove(const prefix &p, std::uint32_t gateway)
{
    bench_require(rib_remove_route(CTX, CTX, p.address, p.mask, gateway) == 0, "a static route is removed");
}

std::size_t entries_in(std::uint32_t ctx)
{
    std::size_t count = 0;
    (void)rib_find_entry(ctx, [&count](const route_entry *) {
        ++count;
        return false;
    });
    return count;
}

// The visit of a context as it is without the bits: every bucket.
std::size_t entries_by_walk(std::uint32_t ctx)
{
    std::size_t count = 0;
    for (const auto &row : norvik_get_t(ctx)->table)
        for (const card_ptr<route_entry> &head : row)
            for (const route_entry *entry = head; entry != nullptr; entry = entry->next)
                ++count;
    return count;
}

template <class Work> double per_run(unsigned runs, Work work)
{
    return bench_time(CPU,
                      [&] {
                          for (unsigned i = 0; i < runs; ++i)
                              work();
                      }) /
           runs;
}

void keep(std::size_t value) { asm volatile("" ::"r"(value) : "memory"); }

bench_row empty_context(const bench_options &options)
{
    bench_require(entries_in(EMPTY_CTX) == 1 && entries_by_walk(EMPTY_CTX) == 1, "an empty context has one entry");
    const auto m = bench_rounds(options, 15,
                                {[] { return per_run(10000, [] { keep(entries_in(EMPTY_CTX)); }); },
                                 [] { return per_run(10000, [] { keep(entries_by_walk(EMPTY_CTX)); }); }});
    return {"visit of a context with its multicast entry alone",
            "ns",
            m[0],
            "a walk over every bucket",
            m[1],
            "",
            300,
            false,
            ""};
}

// A page of a listing, from the start; the block goes as the server lets it go.
std::uint32_t list_all(bool fib)
{
    std::uint16_t list = 0, bucket = 0;
    std::uint32_t position = 0, count = 0;
    while (position != ROUTE_WALK_DONE) {
        tnrpc_block block{};
        count += fib ? show_fib_print(CTX, &list, &bucket, &position, &block)
                     : show_rib_print(CTX, &list, &bucket, &position, &block);
        mtrack_free(block.data);
    }
    return count;
}

std::uint32_t summary(std::uint32_t (*procedure)(std::uint16_t, tnrpc_block *))
{
    tnrpc_block block{};
    bench_require(procedure(CTX, &block) == 0, "a summary");
    mtrack_free(block.data);
    return block.length;
}

// Rows for a context that holds `all` waiting routes (added before).
void measure_context(const bench_options &options, const std::vector<prefix> &all, std::vector<bench_row> &rows)
{
    const std::size_t n = all.size();
    const double entries = static_cast<double>(entries_in(CTX));
    bench_require(entries_in(CTX) == entries_by_walk(CTX), "the visit meets every entry");
    const unsigned runs = n >= 10000 ? 1 : 100;
    std::size_t at = 0;
    const auto next = [&]() -> const prefix & { return all[at = (at + 7919) % n]; };
    const auto search = [&] {
        const prefix &p = next();
        rib_search_result found;
        bench_require(rib_route_search(CTX, p.address, count_mask_bit(p.mask), nullptr, nullptr, &found) == 1, "found");
    };
    const auto add_and_remove = [&] {
        const prefix &p = next();
        remove(p, GATEWAY);
        add(p, GATEWAY);
    };
    const auto m =
        bench_rounds(options, 7,
                     {[&] { return per_run(100 * runs, search); }, [&] { return per_run(50 * runs, add_and_remove); },
                      [&] { return per_run(10 * runs, [] { keep(list_all(false)); }); },
                      [&] { return per_run(10 * runs, [] { keep(list_all(true)); }); },
                      [&] { return per_run(10 * runs, [] { keep(summary(show_rib_summary)); }); }});
    const bool large = n >= 100000;
    const double wanted = large ? 20e6 : 0;
    rows.push_back({with_count("search, hit, ", n), "us", m[0] / 1000, "", {}, "", 0, false, "a line a step"});
    rows.push_back({with_count("remove and add, no ARP service, ", n), "us", m[1] / 1000, "", {}, "", 0, false, ""});
    rows.push_back({with_count("entries walked by show_rib_print, ", n),
                    "/s",
                    entries / m[2] * 1e9,
                    "",
                    {},
                    "",
                    wanted,
                    false,
                    ""});
    rows.push_back({with_count("entries walked by show_fib_print, ", n),
                    "/s",
                    entries / m[3] * 1e9,
                    "",
                    {},
                    "",
                    wanted,
                    false,
                    ""});
    rows.push_back({with_count("entries walked by show_rib_summary, ", n),
                    "/s",
                    entries / m[4] * 1e9,
                    "",
                    {},
                    "",
                    wanted,
                    false,
                    ""});
}

// An ARP add that completes `waiting` routes of a context that holds `all` besides, and the removal that ends them.
bench_row complete(const bench_options &options, std::size_t waiting, std::size_t in_context)
{
    for (std::uint32_t i = 0; i < waiting; ++i)
        add({0x60000000 + (i << 8), 0xFFFFFF00}, OTHER_GATEWAY);
    const auto host_added = [] {
        return arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, OTHER_GATEWAY, 32, 0x1234, IFID, CTX);
    };
    const auto host_removed = [] {
        return arp_prefix_mgr_remove_route(RIB_OBJ_ARP_HOST, OTHER_GATEWAY, 32, 0, 0x1234, IFID, CTX);
    };
    const auto m = bench_rounds(options, 7, {[&] {
                                    const double ns = bench_time(CPU, [&] { bench_require(host_added() == 0, "ARP"); });
                                    bench_require(host_removed() == 0, "the host goes");
                                    bench_card_drop_output();
                                    return ns;
                                }});
    for (std::uint32_t i = 0; i < waiting; ++i)
        remove({0x60000000 + (i << 8), 0xFFFFFF00}, OTHER_GATEWAY);
    return {"ARP add that completes " + std::to_string(waiting) + " routes, " + std::to_string(in_context) +
                " in the context",
            "us",
            m[0] / 1000,
            "",
            {},
            "",
            0,
            false,
            "programmed in all three copies"};
}
} // namespace

int main(int argc, char **argv)
{
    const bench_options options = bench_start(argc, argv);
    bench_card_start();
    std::vector<bench_row> rows = {empty_context(options)};
    std::vector<std::size_t> sizes = {10, 1000, 10000, 100000};
    if (options.brief)
        sizes = {10, 1000};
    for (const std::size_t n : sizes) {
        const std::vector<prefix> all = prefixes_of(n);
        const double ns = bench_time(bench_clock::wall, [&] {
            for (const prefix &p : all)
                add(p, GATEWAY);
        });
        rows.push_back({"adding " + std::to_string(n) + " statics to one context",
                        "ms",
                        ns / 1e6,
                        "",
                        {},
                        "",
                        n == 100000 ? 60000.0 : 0,
                        false,
                        "wall time, one run; no ARP service"});
        if (n == 100000) {
            bench_card_history(ROUTE_DBG_EVENTS, false);
            const double silent = bench_time(bench_clock::wall, [&] {
                for (const prefix &p : all)
                    add(p, GATEWAY, SILENT_CTX);
            });
            bench_card_history(ROUTE_DBG_EVENTS, true);
            rows.push_back(
                {"the same with the searches' history closed", "ms", silent / 1e6, "", {}, "", 0, false, ""});
        }
        measure_context(options, all, rows);
        for (const std::size_t waiting : {std::size_t{1}, std::size_t{100}})
            rows.push_back(complete(options, waiting, n));
        bench_require(rib_check(CTX) == 0, "the audit of the context");
        if (n != sizes.back())
            for (const prefix &p : all)
                remove(p, GATEWAY);
        bench_card_drop_output();
    }
    bench_print(options, "Routing information base", rows);
    return 0;
}
