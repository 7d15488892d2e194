// bench.cpp - rounds, medians, the machine, tables.
//
// The sides of a comparison run in turns, so that what disturbs the machine disturbs them alike, and the median of the
// rounds drops what struck one of them. The canary's spread (the middle half of its times over its median) is printed
// with each table: figures of a run with a wide one are not worth comparing with another run's, though the ratios in
// it may be.
#include "bench.h"
#include "bench_table.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace
{
constexpr unsigned CANARY_STEPS = 200000;

std::vector<double> canary_times;
bool real_time = false;

// A chain of multiplications: no memory, no branch that is not taken, the same work each time.
void canary()
{
    canary_times.push_back(bench_time(bench_clock::wall, [] {
        std::uint64_t x = 88172645463325252u;
        for (unsigned i = 0; i < CANARY_STEPS; ++i)
            x = x * 6364136223846793005u + 1442695040888963407u;
        asm volatile("" : : "r"(x)); // it is wanted
    }));
}

// Width of the middle half of the canary's times, in parts of their median.
double canary_spread()
{
    if (canary_times.empty())
        return 0;
    std::vector<double> sorted = canary_times;
    std::sort(sorted.begin(), sorted.end());
    const std::size_t n = sorted.size();
    return (sorted[n * 3 / 4] - sorted[n / 4]) / bench_median(sorted);
}

std::string processor()
{
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);)
        if (line.rfind("model name", 0) == 0)
            return line.substr(line.find(':') + 2);
    return "unknown processor";
}

std::string machine()
{
    utsname system{};
    (void)uname(&system);
    double load[1] = {0};
    (void)getloadavg(load, 1);
    char text[512];
    (void)std::snprintf(text, sizeof text, "%s, %ld of them, Linux %s, g++ %s, load %.1f, %s", processor().c_str(),
                        sysconf(_SC_NPROCESSORS_ONLN), system.release, __VERSION__, load[0],
                        real_time ? "real-time priority" : "usual priority");
    return text;
}

nlohmann::json object_of(const bench_row &row)
{
    nlohmann::json one = {{"what", row.what}, {"unit", row.unit}, {"own", row.own}};
    if (!row.peer.empty())
        one["peer"] = row.peer;
    if (row.theirs) {
        one["theirs"] = *row.theirs;
        if (row.own > 0 && *row.theirs > 0)
            one["ratio"] = row.unit == "/s" ? row.own / *row.theirs : *row.theirs / row.own;
    }
    if (!row.missing.empty())
        one["missing"] = row.missing;
    if (row.wanted != 0)
        one[row.wanted_is_ratio ? "wanted_ratio" : "wanted"] = row.wanted;
    if (!row.remark.empty())
        one["remark"] = row.remark;
    return one;
}
} // namespace

std::FILE *bench_report = stdout;

bench_options bench_start(int argc, char **argv)
{
    bench_options options;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) {
            options.json = true;
        } else if (std::strcmp(argv[i], "--brief") == 0) {
            options.brief = true;
        } else {
            std::fprintf(stderr, "usage: %s [--json] [--brief]\n", argv[0]);
            std::exit(2);
        }
    }
    // Where it is allowed, before whatever else the machine does; what is started from here inherits it.
    const sched_param first = {1};
    real_time = !options.brief && sched_setscheduler(0, SCHED_FIFO, &first) == 0;
    return options;
}

double bench_time(bench_clock clock, const std::function<void()> &work)
{
    const clockid_t id = clock == bench_clock::cpu ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC;
    timespec before{}, after{};
    (void)clock_gettime(id, &before);
    work();
    (void)clock_gettime(id, &after);
    return static_cast<double>(after.tv_sec - before.tv_sec) * 1e9 +
           static_cast<double>(after.tv_nsec - before.tv_nsec);
}

double bench_median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n == 0 ? 0 : (values[(n - 1) / 2] + values[n / 2]) / 2;
}

double bench_cpu_ns(int pid)
{
    clockid_t id = CLOCK_THREAD_CPUTIME_ID;
    timespec used{};
    if ((pid != 0 && clock_getcpuclockid(pid, &id) != 0) || clock_gettime(id, &used) != 0)
        return 0;
    return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

std::vector<double> bench_rounds(const bench_options &options, unsigned rounds,
                                 const std::vector<std::function<double()>> &sides)
{
    std::vector<std::vector<double>> figures(sides.size());
    for (unsigned round = 0; round < (options.brief ? 1 : rounds); ++round)
        for (std::size_t side = 0; side < sides.size(); ++side) {
            canary();
            figures[side].push_back(sides[side]());
        }
    std::vector<double> medians;
    for (const std::vector<double> &of_side : figures)
        medians.push_back(bench_median(of_side));
    return medians;
}

void bench_print(const bench_options &options, const std::string &subject, const std::vector<bench_row> &rows)
{
    nlohmann::json object = {{"subject", subject}, {"machine", machine()}, {"canary_spread", canary_spread()}};
    if (options.brief)
        object["brief"] = true;
    for (const bench_row &row : rows)
        object["rows"].push_back(object_of(row));
    if (options.json)
        std::fprintf(bench_report, "%s\n", object.dump().c_str());
    else
        std::fprintf(bench_report, "\n### %s\n\n%s", subject.c_str(), bench_table(object).c_str());
    std::fflush(bench_report);
}

void bench_require(bool right, const std::string &what)
{
    if (right)
        return;
    std::fprintf(stderr, "bench: wrong: %s; not timed\n", what.c_str());
    std::exit(1);
}
