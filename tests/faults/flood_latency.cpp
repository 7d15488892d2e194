// flood_latency.cpp - what one caller waits for while others flood the daemon.
//
// The caller makes one call after another and notes how long each takes; meanwhile nobody, one or four others keep 128
// calls outstanding, or one never reads its replies and comes back each time that it is cut off. Times are from a
// monotonic clock around send and receive, so they hold the scheduler's share too.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon.h"

using namespace harness;

namespace
{
constexpr unsigned WINDOW = 128;

byte_string question(std::uint32_t transaction)
{
    return rpc_record(transaction, "rib_max_ecmp_route", {arg16(3), arg32(3), arg32(0x14000000), arg32(0xFF000000)});
}

// Keeps WINDOW calls under way until it is killed.
[[noreturn]] void flood(const card_dir &card)
{
    const int fd = rpc_connect(card, "rpc/9");
    const byte_string call = question(1);
    byte_string reply(4096);
    for (unsigned under_way = 0;;) {
        for (; under_way < WINDOW; ++under_way)
            rpc_send(fd, call);
        if (::recv(fd, reply.data(), reply.size(), 0) <= 0)
            ::_exit(1);
        --under_way;
    }
}

// Sends without reading, over and over.
[[noreturn]] void flood_deaf(const card_dir &card)
{
    const byte_string call = question(1);
    for (;;) {
        const int fd = rpc_connect(card, "rpc/9");
        while (::send(fd, call.data(), call.size(), MSG_NOSIGNAL) > 0) {
        }
        ::close(fd);
    }
}

pid_t start(void (*flooder)(const card_dir &card), const card_dir &card)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        flooder(card);
    }
    return child;
}

// Times of `calls` calls in microseconds, ascending.
std::vector<double> measure(const card_dir &card, unsigned calls)
{
    const rpc_client client(card);
    std::vector<double> times;
    for (unsigned i = 0; i < calls; ++i) {
        const byte_string call = question(i);
        const auto from = std::chrono::steady_clock::now();
        rpc_send(client.fd, call);
        if (!rpc_receive(client.fd).arrived)
            std::exit(1);
        times.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - from).count());
    }
    std::sort(times.begin(), times.end());
    return times;
}

void report(const char *what, const std::vector<double> &times)
{
    const auto at = [&times](double share) {
        return times[std::min(times.size() - 1, static_cast<std::size_t>(share * static_cast<double>(times.size())))];
    };
    std::printf("%-32s %8zu calls  median %8.1f us  p99 %8.1f us  p99.9 %8.1f us  longest %8.1f us\n", what,
                times.size(), at(0.5), at(0.99), at(0.999), times.back());
}

void under(const char *what, const card_dir &card, unsigned calls, void (*flooder)(const card_dir &card),
           unsigned count)
{
    std::vector<pid_t> flooders;
    for (unsigned i = 0; i < count; ++i)
        flooders.push_back(start(flooder, card));
    (void)measure(card, calls / 20); // until all are under way
    report(what, measure(card, calls));
    for (const pid_t child : flooders) {
        ::kill(child, SIGKILL);
        (void)::waitpid(child, nullptr, 0); // it has nothing to tell
    }
}
} // namespace

// Argument: calls a row, 20000 unless given.
int main(int count, char **arguments)
{
    const unsigned calls = count > 1 ? static_cast<unsigned>(std::strtoul(arguments[1], nullptr, 10)) : 20000;
    const card_dir card;
    const daemon_process daemon(card);
    if (calls < 20 || daemon_notification(daemon) != "READY=1")
        return 1;
    under("no other caller", card, calls, flood, 0);
    under("1 caller, 128 calls outstanding", card, calls, flood, 1);
    under("4 callers, 128 calls each", card, calls, flood, 4);
    under("1 caller that never reads", card, calls, flood_deaf, 1);
    return 0;
}
