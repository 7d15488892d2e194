// bench.h - what every benchmark program does alike: rounds, medians, the machine, tables.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

enum class bench_clock {
    cpu,  // of this thread: what computes, on a machine that others use too
    wall, // what waits for another process
};

// One figure of the own side beside that of a peer, measured in turns with it.
struct bench_row {
    std::string what;             // what was measured
    std::string unit;             // "ns", "us", "ms", "/s"
    double own = 0;               // median
    std::string peer;             // who it is compared with; empty: nobody
    std::optional<double> theirs; // median; none when the peer is missing
    std::string missing;          // and why
    double wanted = 0;            // what `own` is to be at most ("/s": at least), or the ratio below; 0: nothing
    bool wanted_is_ratio = false; // `wanted` is a ratio in favour of the own side, at least
    std::string remark;
};

struct bench_options {
    bool json = false;
    bool brief = false; // built and run with the tests: one short round, no peers
};

// Takes --json and --brief. Ends the program with status 2 for anything else.
bench_options bench_start(int argc, char **argv);

// Nanoseconds of one run of `work`.
double bench_time(bench_clock clock, const std::function<void()> &work);

double bench_median(std::vector<double> values); // 0 of none

// Nanoseconds of processor time that another process (or this one's thread, for 0) has used.
double bench_cpu_ns(int pid);

// Runs each of the sides in turn, `rounds` times (once when brief), and a canary before each turn: a fixed computation,
// whose spread says how far the machine was disturbed. A side answers the figure of one round. Returns the medians.
std::vector<double> bench_rounds(const bench_options &options, unsigned rounds,
                                 const std::vector<std::function<double()>> &sides);

// Where the tables go: standard output, or what bench_card kept of it.
extern std::FILE *bench_report;

// Prints the table of a subject with machine, versions and canary; with --json as one object a line.
void bench_print(const bench_options &options, const std::string &subject, const std::vector<bench_row> &rows);

// Ends the program with status 1 unless `right`: a wrong answer is not timed.
void bench_require(bool right, const std::string &what);
