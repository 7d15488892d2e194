// tables_bench.cpp - a route change in the tables: add and delete of one prefix, in all three copies.
//
// The context holds a subtree in use: a /8 below the prefixes that come and go, and routes beside them. Without new
// nodes the nodes of the prefix are there already, held by a neighbour. The floor is what the change has to store,
// word by word, in three copies: the words are counted by comparing the memories before and after, each of them stored
// once and stored back. What a change prints is part of it; the same program without the lines is tables_silent_bench.
#include <cstring>

#include "bench.h"
#include "bench_card.h"
#include "hw_store.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "peer_lpm.h"
#include "prefix_mgr.h"
#include "rib_table.h"
#include "route_table.h"

#ifndef TABLES_LINES
#define TABLES_LINES "lines laid down"
#endif

namespace
{
constexpr std::uint16_t CTX = 9;
constexpr bench_clock CPU = bench_clock::cpu;
constexpr unsigned PEER_VALUE = 77;

struct change {
    const char *what;
    std::uint32_t prefix;
    unsigned len;
    bool new_nodes;
    double wanted; // ratio against rte_lpm; 0: against the floor
};

// The prefixes of 10/8 have nodes down to the last level at 10.1.1/24, and none under 10.2/16.
constexpr change CHANGES[] = {
    {"/8, no new node", 0x0B000000, 8, false, 100},          {"/16, no new node", 0x0A030000, 16, false, 5},
    {"/24, no new node", 0x0A010200, 24, false, 5},          {"/32, no new node", 0x0A010109, 32, false, 5},
    {"/16 over a subtree in use", 0x0A010000, 16, false, 5}, {"/24, one new node", 0x0A020300, 24, true, 0},
    {"/32, two new nodes", 0x0A020304, 32, true, 0},
};

route_entry entry_of(std::uint32_t prefix, unsigned len, std::uint32_t encap)
{
    route_entry entry{};
    entry.prefix = prefix;
    entry.len = len;
    entry.ctx = CTX;
    entry.route_id = CTX;
    entry.ifid = 5;
    entry.encap_id = encap;
    return entry;
}

void add(const route_entry &entry) { bench_require(prefix_mgr_route_add(wired_table_mgr, &entry) != 0, "an add"); }
void remove(const route_entry &entry)
{
    bench_require(prefix_mgr_route_remove(wired_table_mgr, &entry) != 0, "a removal");
}

constexpr peer_route BESIDE[] = {{0x0A000000, 8, 1}, {0x0A010100, 24, 2}, {0x0A010101, 32, 3}, {0x0A018000, 17, 4}};

// The words of a copy, read as a processor reads them.
using copy_words = std::vector<std::uint32_t>;
copy_words words_of(card_addr base)
{
    const auto *const from = card_at<const std::uint32_t>(base);
    return {from, from + HW_TABLE_BYTES / 4};
}

struct changed_word {
    std::uint32_t *word;
    std::uint32_t before, after;
};

// What the add of a prefix changes in all copies.
std::vector<changed_word> changed_by(const route_entry &entry)
{
    copy_words before[MTRIE_HW_COPIES];
    for (unsigned copy = 0; copy < MTRIE_HW_COPIES; ++copy)
        before[copy] = words_of(mtrie_hw_copies[copy].base);
    add(entry);
    std::vector<changed_word> changed;
    for (unsigned copy = 0; copy < MTRIE_HW_COPIES; ++copy) {
        const card_addr base = mtrie_hw_copies[copy].base;
        const copy_words after = words_of(base);
        for (std::size_t i = 0; i < after.size(); ++i)
            if (after[i] != before[copy][i])
                changed.push_back({card_at<std::uint32_t>(base) + i, before[copy][i], after[i]});
    }
    remove(entry);
    return changed;
}

// Each word stored and stored back, by the platform's single store.
double store_floor(const std::vector<changed_word> &words, unsigned runs)
{
    return bench_time(CPU,
                      [&] {
                          for (unsigned i = 0; i < runs; ++i) {
                              for (const changed_word &w : words)
                                  platform_store32(w.word, w.after);
                              for (const changed_word &w : words)
                                  platform_store32(w.word, w.before);
                          }
                      }) /
           runs;
}

void measure(const bench_options &options, const change &c, void *lpm, const std::string &missing,
             std::vector<bench_row> &rows)
{
    const unsigned runs = options.brief ? 10 : 2000, lpm_runs = c.len <= 8 ? 5 : 2000;
    const route_entry entry = entry_of(c.prefix, c.len, 0x55);
    const std::vector<changed_word> words = changed_by(entry);
    std::vector<std::function<double()>> sides = {
        [&] {
            bench_card_drop_output();
            return bench_time(CPU,
                              [&] {
                                  for (unsigned i = 0; i < runs; ++i) {
                                      add(entry);
                                      remove(entry);
                                  }
                                  std::fflush(stdout);
                              }) /
                   runs;
        },
        [&] { return store_floor(words, runs); },
    };
    const peer_route route = {c.prefix, c.len, PEER_VALUE};
    if (lpm != nullptr)
        sides.push_back([&] {
            return bench_time(CPU,
                              [&] {
                                  for (unsigned i = 0; i < lpm_runs; ++i) {
                                      bench_require(peer_lpm_add(lpm, route) == 0, "the peer's add");
                                      bench_require(peer_lpm_delete(lpm, route) == 0, "the peer's removal");
                                  }
                              }) /
                   lpm_runs;
        });
    const std::vector<double> m = bench_rounds(options, 9, sides);
    const std::string what = std::string("add and delete ") + c.what;
    const std::string remark = std::to_string(words.size()) + " words differ";
    rows.push_back({what, "ns", m[0], "rte_lpm", lpm == nullptr ? std::optional<double>() : m[2], missing, c.wanted,
                    c.wanted != 0, remark});
    rows.push_back({what, "ns", m[0], "the stores alone", m[1], "", c.new_nodes ? 1 / 1.3 : 0, c.new_nodes, remark});
}
} // namespace

int main(int argc, char **argv)
{
    const bench_options options = bench_start(argc, argv);
    bench_card_start();
    for (const peer_route &route : BESIDE)
        add(entry_of(route.prefix, route.len, route.value));
    const std::string missing = options.brief ? "brief" : peer_lpm_start();
    void *const lpm = missing.empty() ? peer_lpm_new("tables", 1024, 256) : nullptr;
    for (const peer_route &route : BESIDE)
        bench_require(lpm == nullptr || peer_lpm_add(lpm, route) == 0, "the peer's table");
    std::vector<bench_row> rows;
    for (const change &c : CHANGES)
        measure(options, c, lpm, missing, rows);
    bench_require(mtrie_pool_check() == 0, "the audit of the pools");
    bench_print(options, "Route change in the tables, " TABLES_LINES, rows);
    return 0;
}
