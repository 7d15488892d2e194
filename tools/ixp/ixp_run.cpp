// ixp_run.cpp - lookups without pause: how fast, how many misses, which paths.
//
// Always: only the lookups are timed; what they answered is counted between the passes.
#include <chrono>
#include <cstdio>

#include <unistd.h>

#include "ixp_tool.h"

namespace
{
constexpr std::size_t PASS = 1 << 16; // addresses of a pass
constexpr double DEFAULT_SECONDS = 5, PROGRESS_EVERY = 0.5;
using seconds_clock = std::chrono::steady_clock;

struct tally {
    std::uint64_t lookups = 0, misses = 0, paths[IXP_PATHS] = {};
    double busy = 0; // seconds inside lookups
};

double since(seconds_clock::time_point start)
{
    return std::chrono::duration<double>(seconds_clock::now() - start).count();
}

std::vector<std::uint32_t> run_addresses(const ixp_options &options, const ixp_table &table)
{
    if (options.source == "random")
        return ixp_random_addresses(PASS, options.seed);
    if (options.source == "zipf")
        return ixp_zipf_addresses(table, options.tree, PASS, options.seed);
    const std::vector<std::uint32_t> listed = ixp_read_addresses(options.source);
    std::vector<std::uint32_t> addresses(PASS);
    for (std::size_t i = 0; i < PASS; ++i)
        addresses[i] = listed[i % listed.size()];
    return addresses;
}

void count_answers(const std::vector<std::uint32_t> &words, const std::vector<std::uint32_t> &paths, tally &sum)
{
    for (std::size_t i = 0; i < words.size(); ++i) {
        const bool missed = words[i] == IXP_MISS;
        sum.misses += missed;
        sum.paths[paths[i]] += !missed;
    }
    sum.lookups += words.size();
}

double ns_each(const tally &sum) { return sum.lookups == 0 ? 0 : sum.busy * 1e9 / static_cast<double>(sum.lookups); }
double rate(const tally &sum) { return sum.busy > 0 ? static_cast<double>(sum.lookups) / sum.busy : 0; }

void show_progress(const tally &sum, double at, double limit)
{
    std::fprintf(stderr, "\r%.1f of %.1f s, %llu lookups, %.2f ns each, %llu misses ", at, limit,
                 static_cast<unsigned long long>(sum.lookups), ns_each(sum),
                 static_cast<unsigned long long>(sum.misses));
}

void print_table(const ixp_options &options, ixp_implementation implementation, const tally &sum)
{
    std::printf("memory          %s, tree %u\nimplementation  %s\naddresses       %s\n", options.memory.c_str(),
                options.tree, ixp_implementation_name(implementation), options.source.c_str());
    std::printf(
        "lookups         %llu\nrate            %.1f million a second\neach            %.2f ns\nmisses          %llu\n",
        static_cast<unsigned long long>(sum.lookups), rate(sum) / 1e6, ns_each(sum),
        static_cast<unsigned long long>(sum.misses));
    for (unsigned path = 0; path < IXP_PATHS; ++path)
        if (sum.paths[path] != 0)
            std::printf("path %u          %llu\n", path, static_cast<unsigned long long>(sum.paths[path]));
}

void print_json(const ixp_options &options, ixp_implementation implementation, const tally &sum)
{
    const nlohmann::json json{{"memory", options.memory},
                              {"tree", options.tree},
                              {"implementation", ixp_implementation_name(implementation)},
                              {"addresses", options.source},
                              {"lookups", sum.lookups},
                              {"lookups_per_second", rate(sum)},
                              {"ns_per_lookup", ns_each(sum)},
                              {"misses", sum.misses},
                              {"paths", sum.paths}};
    std::printf("%s\n", json.dump(2).c_str());
}
} // namespace

int ixp_mode_run(const ixp_options &options, ixp_memory &memory, ixp_implementation implementation)
{
    const std::vector<std::uint32_t> addresses = run_addresses(options, memory.table);
    const std::vector<std::uint32_t> hashes = ixp_random_addresses(PASS, options.seed + 1);
    std::vector<std::uint32_t> words(PASS), paths(PASS);
    const double limit = options.seconds == 0 ? DEFAULT_SECONDS : options.seconds;
    const bool has_progress = ::isatty(STDERR_FILENO) != 0;
    tally sum;
    double at = 0, next = PROGRESS_EVERY;
    for (const auto start = seconds_clock::now(); at < limit; at = since(start)) {
        ixp_memory_follow(memory);
        const auto before = seconds_clock::now();
        ixp_forward(memory.table, implementation, options.tree,
                    {addresses.data(), hashes.data(), words.data(), paths.data(), addresses.size()});
        sum.busy += since(before);
        count_answers(words, paths, sum);
        if (has_progress && at >= next) {
            show_progress(sum, at, limit);
            next += PROGRESS_EVERY;
        }
    }
    if (has_progress)
        std::fprintf(stderr, "\r%79s\r", "");
    options.json ? print_json(options, implementation, sum) : print_table(options, implementation, sum);
    return 0;
}
