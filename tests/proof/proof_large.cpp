// proof_large.cpp - the real daemon under random changes, while other processes look up in both processors' memories.
//
// This process drives: it makes each change by a remote call, and publishes before and after it what every address
// answers from then on. Two readers, one a processor's memory, look up without pause with all bodies and judge each
// answer by what was right during its window. The run prints what they did, and ends with status 0 when no answer was
// wrong (with --expect-wrong: when one was).
// Always: daemon, readers and card directory are gone when it ends.
// Elsewhere: the changes (random_changes.h), what is right (answer_window.h), the lookups (window_reader.h).
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

#include "daemon.h"
#include "hw_table.h"
#include "ixp_memory.h"
#include "random_changes.h"
#include "window_reader.h"

namespace
{
constexpr unsigned READERS = 2;
constexpr const char *MEMORIES[READERS] = {"mem/ixp1", "mem/ixp2"};
constexpr double READER_START_SECONDS = 30;
using seconds_clock = std::chrono::steady_clock;

struct shared_state {
    window_board board;
    window_tally tallies[READERS];
};

struct proof_options {
    std::uint64_t changes = 0; // 0: until the seconds are over
    double seconds = 10;
    std::uint32_t seed = 1;
    bool expect_wrong = false; // ends at the first
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
        const ixp_memory memory(card.at(MEMORIES[number]), HW_IXP_BASE);
        if (!memory.error.empty())
            ::_exit(3);
        window_read(shared.board, memory.table, number + 1, shared.tallies[number]);
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

std::uint32_t change_by_rpc(int connection, const random_change &change)
{
    const std::uint32_t mask = plain_mask(change.len);
    std::vector<rpc_arg> args;
    const char *procedure = "";
    switch (change.kind) {
    case CHANGE_HOST_ADD:
        procedure = "arp_prefix_mgr_add_route";
        args = {arg16(1),           arg32(change.prefix), arg32(change.len), arg16(change.encap),
                arg16(change.ifid), arg32(change.ctx)};
        break;
    case CHANGE_HOST_REMOVE:
        procedure = "arp_prefix_mgr_remove_route";
        args = {arg16(1),           arg32(change.prefix), arg32(change.len), arg32(0), arg16(change.encap),
                arg16(change.ifid), arg32(change.ctx)};
        break;
    case CHANGE_ROUTE_ADD:
    case CHANGE_ROUTE_REMOVE:
        procedure = change.kind == CHANGE_ROUTE_ADD ? "rib_add_route" : "rib_remove_route";
        args = {arg16(change.ctx), arg32(change.ctx), arg32(change.prefix), arg32(mask), arg32(change.nexthop)};
        break;
    }
    const rpc_reply reply = rpc_call(connection, procedure, args);
    if (!reply.arrived || reply.status != 0)
        throw std::runtime_error(std::string(procedure) + ": no answer");
    return reply.result;
}

void write_interfaces(const card_dir &card)
{
    std::vector<interface_record> interfaces;
    const std::uint32_t up = IF_EXISTS | IF_UP | IF_ADDRESS | IF_CONTEXT;
    for (unsigned n = 0; n < CHANGE_INTERFACES; ++n)
        interfaces.push_back({CHANGE_FIRST_IFID + n, up, 1, 0, change_interface_address(n), plain_mask(24), 0, 0});
    interfaces_write(card, interfaces);
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

// Makes changes until there were enough. Returns how many.
std::uint64_t drive(shared_state &shared, random_changes &all, const proof_options &options)
{
    const auto start = seconds_clock::now();
    const bool told = ::isatty(STDERR_FILENO) != 0;
    for (;;) {
        const double at = since(start);
        const bool wrong = options.expect_wrong && sum_of(shared, WINDOW_WRONG) > 0;
        if (wrong || (options.changes > 0 ? all.changes >= options.changes : at >= options.seconds))
            break;
        if (options.expect_wrong && at >= options.seconds)
            break;
        if (!all.next())
            throw std::runtime_error(all.error);
        if (told && all.changes % 4096 == 0)
            tell_progress(shared, all.changes, at);
    }
    if (told)
        std::fprintf(stderr, "\r%79s\r", "");
    return all.changes;
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

void print_result(const shared_state &shared, std::uint64_t changes, double seconds)
{
    std::uint64_t lookups = 0, checked = 0, over_paths = 0;
    for (const window_tally &tally : shared.tallies) {
        lookups += tally.lookups.load();
        checked += tally.checked.load();
        for (unsigned path = 1; path < 8; ++path)
            over_paths += tally.paths[path].load();
    }
    print_count("lookups", lookups);
    print_count("changes", changes);
    std::printf("%-26s %.1f\n", "seconds", seconds);
    print_count("answers checked", checked);
    print_count("  by an entry of a set", over_paths);
    print_count("overruns", sum_of(shared, WINDOW_OVERRUN));
    print_count("astray over more changes",
                sum_of(shared, WINDOW_LEFT_BEHIND) + sum_of(shared, WINDOW_CAME_BACK) + sum_of(shared, WINDOW_FOLDED));
    print_count("  leaf left behind", sum_of(shared, WINDOW_LEFT_BEHIND));
    print_count("  header came back", sum_of(shared, WINDOW_CAME_BACK));
    print_count("  folded four times", sum_of(shared, WINDOW_FOLDED));
    print_count("violations", sum_of(shared, WINDOW_WRONG));
    print_wrong(shared);
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
    random_changes all(shared.board, options.seed,
                       [&client](const random_change &change) { return change_by_rpc(client.fd, change); });
    reader_process first(shared, card, 0), second(shared, card, 1);
    wait_for_readers(shared);
    const auto start = seconds_clock::now();
    const std::uint64_t changes = drive(shared, all, options);
    const double seconds = since(start);
    shared.board.stop.store(true);
    const bool ended = first.ended_well() && second.ended_well();
    print_result(shared, changes, seconds);
    if (!ended)
        throw std::runtime_error("a reader has died");
    return (sum_of(shared, WINDOW_WRONG) > 0) == options.expect_wrong ? 0 : 1;
}

int usage()
{
    std::fprintf(stderr, "usage: proof_large [--changes N | --seconds N] [--seed N] [--expect-wrong]\n");
    return 2;
}
} // namespace

int main(int argc, char **argv)
{
    proof_options options;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--expect-wrong") {
            options.expect_wrong = true;
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
