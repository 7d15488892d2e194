// proof_large.cpp - the real daemon under random changes, while other processes look up in both processors' memories.
//
// This process drives: it makes each change by a remote call, and publishes before and after it what every address
// answers from then on. Two readers, one a processor's memory, look up without pause with all implementations and judge
// each answer by what was right during its window. At the start, between and at the end the run prints what the daemon
// costs and compares what it lists and what its tables hold with what has to stand there (card_look.h). It ends with
// status 0 when no answer was wrong and nothing drifted or grew (with --expect-wrong: when an answer was wrong).
// Always: daemon, readers and card directory are gone when it ends.
// Elsewhere: the changes (random_changes.h, side_changes.h), what is right (answer_window.h), the lookups
// (window_reader.h).
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "card_look.h"
#include "card_view/mapped_file.h"
#include "daemon.h"
#include "random_changes.h"
#include "route_table.h"
#include "side_changes.h"
#include "window_reader.h"

using namespace harness;

namespace
{
constexpr unsigned READERS = 2;
constexpr const char *MEMORIES[READERS] = {"mem/ixp1", "mem/ixp2"};
constexpr std::uint32_t TOOL_SAP = 1024;
constexpr double READER_START_SECONDS = 30;
using seconds_clock = std::chrono::steady_clock;

struct shared_state {
    window_board board;
    window_tally tallies[READERS];
};

struct proof_options {
    std::uint64_t changes = 0; // 0: until the seconds are over
    std::uint64_t lookups = 0; // with changes: go on until there were so many, too
    double seconds = 10;
    std::uint32_t seed = 1;
    bool expect_wrong = false; // ends at the first
    bool any_memory = false;   // of a daemon built with a sanitizer, which keeps what was freed
};

double since(seconds_clock::time_point start)
{
    return std::chrono::duration<double>(seconds_clock::now() - start).count();
}

shared_state &make_shared_state()
{
    void *at = ::mmap(nullptr, sizeof(shared_state), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (at == MAP_FAILED)
        throw std::runtime_error(std::string("shared memory: ") + std::strerror(errno));
    return *new (at) shared_state{};
}

// Readers on the last processor, everything else on the first; on a machine with one they share it.
void stay_on(int processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(processor), &set);
    (void)::sched_setaffinity(0, sizeof set, &set); // where it is not allowed, the system decides
}

int processors() { return static_cast<int>(::sysconf(_SC_NPROCESSORS_ONLN)); }

// A process that looks up until the board says stop.
struct reader_process {
    pid_t pid;
    reader_process(shared_state &shared, const card_dir &card, unsigned number) : pid(::fork())
    {
        if (pid != 0)
            return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        stay_on(processors() - 1);
        std::string why;
        const mapped_file memory = mapped_file_open(card.at(MEMORIES[number]), HW_TABLE_BYTES, &why);
        if (!memory.is_open())
            ::_exit(3);
        window_read(shared.board, {static_cast<const std::uint32_t *>(memory.bytes), HW_IXP_BASE}, number + 1,
                    shared.tallies[number]);
        ::_exit(0);
    }
    ~reader_process()
    {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            (void)::waitpid(pid, nullptr, 0); // nothing to learn from one that was killed
        }
    }
    reader_process(const reader_process &) = delete;
    reader_process &operator=(const reader_process &) = delete;
    bool ended_well()
    {
        int status = 0;
        const bool waited = ::waitpid(pid, &status, 0) == pid;
        pid = -1;
        return waited && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
};

// Every so many changes one is made beside the readers: an event, a NAT pool, a route of that interface.
constexpr std::uint64_t SIDE_EVERY = 16;

// The daemon under change, and what looking at it has shown.
struct proof_run {
    const card_dir &card;
    const daemon_process &daemon;
    shared_state &shared;
    random_changes &all;
    side_changes &side;
    seconds_clock::time_point start;
    std::vector<card_figures> figures = {};
    card_compared compared = {};
    bool any_memory = false;
    std::string trouble = {}; // drift, or memory or descriptors that are not flat
};

void write_interfaces(const card_dir &card)
{
    std::vector<interface_record> interfaces;
    for (unsigned n = 0; n < CHANGE_INTERFACES; ++n)
        interfaces.push_back(
            {CHANGE_FIRST_IFID + n, IF_USUAL, 1, 0, change_interface_address(n), plain_mask(24), 0, 0});
    interfaces.push_back(side_interface());
    interfaces_write(card, interfaces);
}

std::uint64_t lookups_of(const shared_state &shared)
{
    std::uint64_t sum = 0;
    for (const window_tally &tally : shared.tallies)
        sum += tally.lookups.load();
    return sum;
}

void print_figures(const proof_run &run, const card_figures &figures)
{
    if (run.figures.size() == 1)
        std::printf("%7s %9s %11s %9s %9s %5s %5s %6s %5s %8s %9s\n", "seconds", "changes", "lookups", "resident",
                    "private", "files", "nodes", "leaves", "ecmp", "tracked", "bytes");
    std::printf("%7.0f %9llu %11llu %6llu KB %6llu KB %5u %5u %6u %5u %8llu %9llu\n", since(run.start),
                static_cast<unsigned long long>(run.all.changes),
                static_cast<unsigned long long>(lookups_of(run.shared)),
                static_cast<unsigned long long>(figures.resident / 1024),
                static_cast<unsigned long long>(figures.own / 1024), figures.descriptors, figures.nodes, figures.leaves,
                figures.blocks, static_cast<unsigned long long>(figures.tracked_blocks),
                static_cast<unsigned long long>(figures.tracked_bytes));
    std::fflush(stdout);
}

// Memory and descriptors against what they were after the first part: until then the heap takes what the routes need,
// the history's ring is written for the first time, and the interface database is opened.
std::string not_flat(const std::vector<card_figures> &figures, bool any_memory)
{
    constexpr std::uint64_t SLACK = 256 * 1024;
    if (figures.size() < 3)
        return "";
    const card_figures &settled = figures[1], &now = figures.back();
    std::string text = now.descriptors != settled.descriptors ? "the descriptors are not flat\n" : "";
    if (!any_memory && (now.own > settled.own + SLACK || now.resident > settled.resident + SLACK))
        text += "the memory is not flat\n";
    return text;
}

void look_at(proof_run &run)
{
    const card_look look = card_look_at(run.card, run.daemon.pid, run.side.connection, run.side.queue, run.all.model);
    run.compared.records += look.compared.records;
    run.compared.addresses += look.compared.addresses;
    run.compared.words += look.compared.words;
    run.figures.push_back(look.figures);
    print_figures(run, look.figures);
    run.trouble += look.drift + not_flat(run.figures, run.any_memory);
}

void wait_for_readers(const shared_state &shared)
{
    const auto start = seconds_clock::now();
    for (const window_tally &tally : shared.tallies)
        while (tally.lookups.load() == 0) {
            if (since(start) > READER_START_SECONDS)
                throw std::runtime_error("a reader does not start");
            ::sched_yield();
        }
}

std::uint64_t sum_of(const shared_state &shared, window_verdict verdict)
{
    std::uint64_t sum = 0;
    for (const window_tally &tally : shared.tallies)
        sum += tally.verdicts[verdict].load();
    return sum;
}

void tell_progress(const shared_state &shared, std::uint64_t changes, double at)
{
    std::fprintf(stderr, "\r%.0f s, %llu changes, %llu wrong ", at, static_cast<unsigned long long>(changes),
                 static_cast<unsigned long long>(sum_of(shared, WINDOW_WRONG)));
}

bool is_enough(const proof_run &run, const proof_options &options)
{
    const double at = since(run.start);
    const bool by_time = options.changes == 0 || options.expect_wrong;
    if (!run.trouble.empty() || (by_time && at >= options.seconds))
        return true;
    if (options.expect_wrong)
        return sum_of(run.shared, WINDOW_WRONG) > 0;
    return options.changes > 0 && run.all.changes >= options.changes && lookups_of(run.shared) >= options.lookups;
}

// How far the run is, of LOOKS parts.
constexpr unsigned LOOKS = 10;
unsigned part_of(const proof_run &run, const proof_options &options)
{
    const auto part = [](double done, double whole) { return whole > 0 ? LOOKS * done / whole : LOOKS; };
    const double parts =
        options.changes == 0
            ? part(since(run.start), options.seconds)
            : std::min(part(static_cast<double>(run.all.changes), static_cast<double>(options.changes)),
                       part(static_cast<double>(lookups_of(run.shared)), static_cast<double>(options.lookups)));
    return static_cast<unsigned>(parts);
}

// Makes changes until there were enough, and looks at the daemon at the start, between, and at the end.
void drive(proof_run &run, const proof_options &options)
{
    constexpr std::uint64_t LOOK_BETWEEN = 1024; // changes between two thoughts of looking
    const bool told = ::isatty(STDERR_FILENO) != 0;
    look_at(run);
    while (!is_enough(run, options)) {
        const bool side = run.all.changes % SIDE_EVERY == SIDE_EVERY - 1;
        if (!(side ? side_next(run.side) : run.all.next()))
            throw std::runtime_error(run.all.error);
        if (run.all.changes % LOOK_BETWEEN != 0)
            continue;
        if (told)
            tell_progress(run.shared, run.all.changes, since(run.start));
        const unsigned part = part_of(run, options);
        if (part < LOOKS && part >= run.figures.size())
            look_at(run);
    }
    if (run.trouble.empty())
        look_at(run);
    if (told)
        std::fprintf(stderr, "\r%79s\r", "");
}

void print_count(const char *name, std::uint64_t value)
{
    std::printf("%-26s %llu\n", name, static_cast<unsigned long long>(value));
}

void print_wrong(const shared_state &shared)
{
    for (unsigned reader = 0; reader < READERS; ++reader) {
        const window_tally &tally = shared.tallies[reader];
        if (tally.verdicts[WINDOW_WRONG].load() == 0)
            continue;
        const window_address &address = shared.board.addresses[tally.wrong_index.load()];
        std::printf("first in %s: tree %u, address %08x: word %08x, path %u, over the changes %llu to %llu\n",
                    MEMORIES[reader], address.tree, address.address, tally.wrong_word.load(), tally.wrong_path.load(),
                    static_cast<unsigned long long>(tally.wrong_from.load()),
                    static_cast<unsigned long long>(tally.wrong_to.load()));
    }
}

void print_result(const proof_run &run, double seconds)
{
    const shared_state &shared = run.shared;
    std::uint64_t checked = 0, over_paths = 0;
    for (const window_tally &tally : shared.tallies) {
        checked += tally.checked.load();
        for (unsigned path = 1; path < 8; ++path)
            over_paths += tally.paths[path].load();
    }
    print_count("lookups", lookups_of(shared));
    print_count("changes", run.all.changes);
    print_count("  interface up or down", run.side.made[SIDE_EVENT]);
    print_count("  NAT pools", run.side.made[SIDE_POOL]);
    print_count("  its hosts, their routes", run.side.made[SIDE_HOST] + run.side.made[SIDE_STATIC]);
    std::printf("%-26s %.1f\n", "seconds", seconds);
    print_count("answers checked", checked);
    print_count("  by an entry of a set", over_paths);
    print_count("overruns", sum_of(shared, WINDOW_OVERRUN));
    print_count("wrong over more changes",
                sum_of(shared, WINDOW_LEFT_BEHIND) + sum_of(shared, WINDOW_CAME_BACK) + sum_of(shared, WINDOW_FOLDED));
    print_count("  leaf left behind", sum_of(shared, WINDOW_LEFT_BEHIND));
    print_count("  header came back", sum_of(shared, WINDOW_CAME_BACK));
    print_count("  folded four times", sum_of(shared, WINDOW_FOLDED));
    print_count("violations", sum_of(shared, WINDOW_WRONG));
    print_wrong(shared);
    print_count("records compared", run.compared.records);
    print_count("addresses compared", run.compared.addresses);
    print_count("words compared", run.compared.words);
    std::printf("%-26s %s\n", "drift, growth", run.trouble.empty() ? "none" : run.trouble.c_str());
}

int prove(const proof_options &options)
{
    stay_on(0);
    shared_state &shared = make_shared_state();
    const card_dir card;
    write_interfaces(card);
    if (::symlink("/dev/null", card.at("first.out").c_str()) != 0) // a million traces are nobody's to read
        throw std::runtime_error(card.path + ": " + std::strerror(errno));
    const daemon_process daemon(card);
    if (daemon_notification(daemon) != "READY=1")
        throw std::runtime_error("the daemon does not start: " + file_text(daemon.err));
    const rpc_client client(card);
    const mts_queue queue(card, TOOL_SAP);
    random_changes all(shared.board, options.seed,
                       [&client](const remote_call &call) { return change_by_call(client.fd, call); });
    side_changes side{all, client.fd, queue, card.at("interfaces"), std::mt19937(options.seed)};
    reader_process first(shared, card, 0), second(shared, card, 1);
    wait_for_readers(shared);
    proof_run run{card, daemon, shared, all, side, seconds_clock::now()};
    run.any_memory = options.any_memory;
    drive(run, options);
    const double seconds = since(run.start);
    shared.board.stop.store(true);
    const bool ended = first.ended_well() && second.ended_well();
    print_result(run, seconds);
    if (!ended)
        throw std::runtime_error("a reader has died");
    const bool wrong = sum_of(shared, WINDOW_WRONG) > 0;
    return options.expect_wrong ? (wrong ? 0 : 1) : (wrong || !run.trouble.empty() ? 1 : 0);
}

int usage()
{
    std::fprintf(stderr, "usage: proof_large [--changes N [--lookups N] | --seconds N] [--seed N] [--expect-wrong]\n"
                         "                   [--any-memory]\n");
    return 2;
}
} // namespace

int main(int argc, char **argv)
{
    proof_options options;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--expect-wrong" || name == "--any-memory") {
            (name == "--any-memory" ? options.any_memory : options.expect_wrong) = true;
            continue;
        }
        if (i + 1 == argc)
            return usage();
        char *end = nullptr;
        const double value = std::strtod(argv[++i], &end);
        if (*end != '\0' || value < 0)
            return usage();
        if (name == "--changes")
            options.changes = static_cast<std::uint64_t>(value);
        else if (name == "--lookups")
            options.lookups = static_cast<std::uint64_t>(value);
        else if (name == "--seconds")
            options.seconds = value;
        else if (name == "--seed")
            options.seed = static_cast<std::uint32_t>(value);
        else
            return usage();
    }
    try {
        return prove(options);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "proof_large: %s\n", error.what());
        return 3;
    }
}
