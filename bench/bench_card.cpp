// bench_card.cpp - the route manager inside the benchmark's own process, on a card directory of its own.
//
// The start-up is the process's (route_mgr.cpp), less what needs a caller: no procedure is served and the loop is not
// entered. No ARP service answers, so a request for a gateway fails after its link has been looked for.
#include "bench_card.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <unistd.h>

#include "bench.h"
#include "daemon.h"
#include "mtrack.h"
#include "mts.h"
#include "norvik_init.h"
#include "norvik_mtrie_pool.h"
#include "rib_host.h"
#include "route_ids.h"
#include "route_mts.h"
#include "sdwrap.h"
#include "sdwrap_gates.h"

using namespace harness;

namespace
{
card_dir *card = nullptr;
constexpr const char *NAMES[ROUTE_DBG_COUNT] = {};
constexpr const char *TYPES[MTRACK_ROUTE_ENTRY_MAX] = {};

void remove_card() { delete card; }

void start_logging()
{
    constexpr std::size_t HISTORY_BYTES = 0x10000;
    bench_require(sdwrap_dbg_init(route_mts_q, "ROUTE Mgr", "ROUTE Mgr", ROUTE_DBG_COUNT, NAMES, 0, 0, 0) == 0,
                  "debug categories");
    bench_require(sdwrap_hist_init(HISTORY_BYTES) == 0 && sdwrap_hist_init_for_uuid(ROUTE_HIST_ID, HISTORY_BYTES) == 0,
                  "event history");
    for (const std::uint32_t category : {ROUTE_DBG_ERRORS, ROUTE_DBG_EVENTS})
        bench_require(sdwrap_hist_set_event_subtype(ROUTE_HIST_EVENT, category, 1) == 0, "history gates");
}
} // namespace

void bench_card_start()
{
    card = new card_dir;
    (void)std::atexit(remove_card);
    (void)setenv("CARD_DIR", card->path.c_str(), 1);
    interfaces_write(*card, {{IFID, IF_USUAL, 1, 0, IF_ADDR, MASK16, 0, 0}});

    bench_report = fdopen(dup(STDOUT_FILENO), "w");
    bench_require(bench_report != nullptr && std::freopen(bench_card_file("stdout").c_str(), "a", stdout) != nullptr,
                  "standard output to a file");

    const mts_bind_options options = {{1, 0, 1024, 0, 0}};
    route_mts_q = mts_bind(4, ROUTE_MGR_SAP, &options, "Route Manager");
    bench_require(route_mts_q >= 0, "the message queue");
    start_logging();
    bench_require(mtrack_init("ROUTE Manager", ROUTE_MGR_UUID, TYPES, MTRACK_ROUTE_ENTRY_MAX) == 0, "memory types");
    bench_require(mtrie_pool_init() == 0 && norvik_init_ixp_fib() == 0, "pools and trees");
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        bench_require(route_add_rib_and_mtrie_entry(RIB_F_MCAST_DROP, 0x8001, RIB_OBJ_MCAST_DROP, 0xE0000000, 3, 0,
                                                    ctx) != nullptr,
                      "multicast drop entries");
}

std::string bench_card_file(const char *name) { return card->at(name); }

void bench_card_drop_output()
{
    std::fflush(stdout);
    (void)!ftruncate(STDOUT_FILENO, 0); // opened for appending, so the next line goes to its start
}

std::uint64_t bench_card_output_lines()
{
    std::fflush(stdout);
    std::ifstream in(bench_card_file("stdout"));
    std::uint64_t lines = 0;
    for (std::string line; std::getline(in, line);)
        lines += line.empty() ? 0u : 1u;
    return lines;
}

void bench_card_history(std::uint32_t category, bool open) { sdwrap_switch_history(category, open); }
