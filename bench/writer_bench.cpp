// writer_bench.cpp - the processors' lookup beside a daemon that changes routes without pause.
//
// A caller and the daemon share the last processor, with many calls outstanding, so the changes come as fast as remote
// calls can bring them; the reader has the first processor to itself. A third of the looked-up addresses belong to
// routes that come and go below a /8 that stays, the others to routes that stay. Every answer is either the route's own
// or, for those that come and go, the /8's: judged over separate passes beside the same writer, before and after.
#include <algorithm>
#include <array>
#include <random>

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench.h"
#include "bench_daemon.h"
#include "ixp_lookup.h"
#include "mtrie_records.h"
#include "route_table.h"

namespace
{
constexpr unsigned DAEMON = 9, STAYING = 128, CHANGING = 64, WINDOW = 64;
constexpr std::uint32_t GATEWAY = 0x0A010009, OTHER_GATEWAY = 0x0A01000A, BASE = 0x14000000, MASK_24 = 0xFFFFFF00;
constexpr std::uint16_t ENCAP = 0x1234, OTHER_ENCAP = 0x1235;
constexpr std::size_t ADDRESSES = 1 << 12;

std::uint32_t staying(unsigned i) { return BASE + (i << 8); }
std::uint32_t changing(unsigned i) { return BASE + 0x00800000 + (i << 8); }

// Adds and removes the changing routes for ever, in a process of its own.
pid_t start_writer(int connection)
{
    const pid_t pid = fork();
    if (pid != 0) {
        usleep(20000); // it starts on the reader's processor, and has to leave it
        return pid;
    }
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    cpu_set_t last;
    CPU_ZERO(&last);
    CPU_SET(static_cast<std::size_t>(sysconf(_SC_NPROCESSORS_ONLN) - 1), &last);
    (void)sched_setaffinity(0, sizeof last, &last);
    std::vector<byte_string> calls;
    for (const auto call : {bench_route_add, bench_route_remove})
        for (unsigned i = 0; i < CHANGING; ++i)
            calls.push_back(call(changing(i), MASK_24, OTHER_GATEWAY));
    for (;;)
        bench_require(bench_call_all(connection, calls, WINDOW) == calls.size(), "the writer's calls answer 0");
}

struct reader {
    ixp_table table;
    std::vector<std::uint32_t> addresses, words;
    std::vector<bool> changes;
};

void look_up(reader &r)
{
    ixp_lookup(r.table, ixp_best_implementation(), 0, r.addresses.data(), r.words.data(), ADDRESSES);
}

// Answers of one pass that no moment of the table could have given, and how many were those of changing routes there.
struct judged {
    unsigned wrong = 0, there = 0;
};
judged judge(reader &r, unsigned passes)
{
    judged j;
    for (unsigned pass = 0; pass < passes; ++pass) {
        look_up(r);
        for (std::size_t i = 0; i < ADDRESSES; ++i) {
            const std::uint32_t encap = r.words[i] == IXP_MISS ? 0 : adj_encap(r.words[i]);
            const bool there = r.changes[i] && encap == OTHER_ENCAP;
            j.there += there ? 1u : 0u;
            j.wrong += there || encap == ENCAP ? 0u : 1u;
        }
    }
    return j;
}

double per_lookup(reader &r, unsigned runs)
{
    return bench_time(bench_clock::cpu,
                      [&] {
                          for (unsigned i = 0; i < runs; ++i)
                              look_up(r);
                      }) /
           (runs * static_cast<double>(ADDRESSES));
}
} // namespace

int main(int argc, char **argv)
{
    const bench_options options = bench_start(argc, argv);
    (void)bench_folder();
    bench_process daemon = bench_daemon_start();
    const int connection = bench_connect(DAEMON);
    std::vector<byte_string> calls = {bench_host_add(GATEWAY, ENCAP), bench_host_add(OTHER_GATEWAY, OTHER_ENCAP),
                                      bench_route_add(BASE, 0xFF000000, GATEWAY)};
    for (unsigned i = 0; i < STAYING; ++i)
        calls.push_back(bench_route_add(staying(i), MASK_24, GATEWAY));
    bench_require(bench_call_all(connection, calls, WINDOW) == calls.size(), "the routes are added");

    reader r;
    r.table = {bench_memories()[1].words, HW_IXP_BASE};
    r.words.resize(ADDRESSES);
    std::mt19937 random(20240613);
    for (std::size_t i = 0; i < ADDRESSES; ++i) {
        const auto drawn = static_cast<std::uint32_t>(random());
        r.changes.push_back(drawn % 3 == 0);
        r.addresses.push_back(
            (r.changes[i] ? changing(drawn >> 8 & (CHANGING - 1)) : staying(drawn >> 8 & (STAYING - 1))) | drawn >> 24);
    }
    const pid_t writer = start_writer(connection);
    const unsigned passes = options.brief ? 20 : 2000, runs = options.brief ? 1 : 1000;
    const judged before = judge(r, passes);
    bench_require(before.wrong == 0, "an answer beside the writer");
    const std::size_t of_changing =
        passes * static_cast<std::size_t>(std::count(r.changes.begin(), r.changes.end(), true));
    bench_require(options.brief || (before.there > 0 && before.there < of_changing),
                  "the routes come and go meanwhile: " + std::to_string(before.there) + " of " +
                      std::to_string(of_changing));

    const std::vector<double> m = bench_rounds(options, 9,
                                               {[&] {
                                                    (void)kill(writer, SIGCONT);
                                                    return per_lookup(r, runs);
                                                },
                                                [&] {
                                                    (void)kill(writer, SIGSTOP);
                                                    usleep(20000); // its last calls are served
                                                    return per_lookup(r, runs);
                                                }});
    (void)kill(writer, SIGCONT);
    const judged after = judge(r, passes);
    bench_require(after.wrong == 0, "an answer beside the writer");
    const double cpu = bench_cpu_ns(daemon.pid);
    usleep(options.brief ? 1000 : 200000);
    const bool busy = bench_cpu_ns(daemon.pid) > cpu;
    bench_print(options, "Processor lookup beside a writer",
                {{std::string("beside the daemon changing routes without pause, ") +
                      ixp_implementation_name(ixp_best_implementation()),
                  "ns", m[0], "the same while it is idle", m[1], "", 1 / 1.1, true,
                  std::to_string(2 * passes * ADDRESSES) + " answers judged, none wrong" +
                      (busy ? "" : "; the writer stood still")}});
    (void)kill(writer, SIGKILL);
    (void)waitpid(writer, nullptr, 0);
    bench_end(daemon, SIGINT);
    return 0;
}
