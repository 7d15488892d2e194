// fuzz_peer.cpp - the services that the process calls, and its time: nothing is ever waited for.
//
// The process waits for a reply in recv(2) and, on a connection that it has just made, in poll(2). Both are here, and
// the peer takes its turn in them, so one thread is enough. A wait that nothing would end is over at once: a poll that
// finds nothing lets the clock of the process, which is here too, run on by its time-out.
// Always: whatever the load of the machine, a run of an input takes the same way.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "fuzz_card.h"
#include "rpc_record.h"

fuzz_peer_script fuzz_peer;

namespace
{
constexpr std::int64_t NS_PER_MS = 1'000'000, NS_PER_S = 1'000'000'000;
constexpr std::int64_t STEP_NS = NS_PER_MS / 10; // a look at the clock: enough looks end any wait
int listener = -1, connection = -1;
std::int64_t clock_ns = NS_PER_S;

void put_reply(std::vector<std::uint8_t> &reply, const std::uint8_t *call, std::size_t length)
{
    fuzz_put32(reply, TNRPC_REPLY_MAGIC);
    fuzz_put32(reply, tnrpc_get(call + 4, 4));
    fuzz_put32(reply, fuzz_peer.answer == fuzz_answer::failing ? 1 : 0);
    fuzz_put32(reply, fuzz_peer.answer == fuzz_answer::failing ? 0 : fuzz_peer.result);
    // encap_valid_mac asks for one value of two bytes; its argument stands behind the name.
    constexpr std::size_t MAC_CALL = TNRPC_CALL_HEAD + 15 + 10 + 10;
    if (length == MAC_CALL && fuzz_peer.answer == fuzz_answer::well) {
        const std::uint8_t value[] = {0, 8, 0, 0, 0, 0, 0, 2, 0, static_cast<std::uint8_t>(fuzz_peer.result & 1)};
        reply.insert(reply.end(), std::begin(value), std::end(value));
    }
}

// The peer's turn: takes a call that waits, and answers it by the script.
void take_turn()
{
    const int fresh = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fresh >= 0) {
        if (connection >= 0)
            close(connection);
        connection = fresh;
    }
    std::uint8_t call[4096];
    const ssize_t got = connection < 0 ? -1 : recv(connection, call, sizeof call, MSG_DONTWAIT);
    if (got < static_cast<ssize_t>(TNRPC_CALL_HEAD) || fuzz_peer.answer == fuzz_answer::nothing)
        return;
    std::vector<std::uint8_t> reply = fuzz_peer.raw;
    if (fuzz_peer.answer != fuzz_answer::raw) {
        reply.clear();
        put_reply(reply, call, static_cast<std::size_t>(got));
    } else if (fuzz_peer.own_transaction && reply.size() >= 8) {
        std::copy(call + 4, call + 8, reply.begin() + 4);
    }
    if (fuzz_peer.answer != fuzz_answer::ending)
        (void)send(connection, reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (fuzz_peer.answer == fuzz_answer::ending || reply.empty()) {
        close(connection);
        connection = -1;
    }
}
} // namespace

void fuzz_peer_open()
{
    listener = fuzz_bound(SOCK_SEQPACKET, "rpc/20");
    if (listen(listener, 8) != 0)
        fuzz_fail("peer");
    for (const char *name : {"tn_arp_add_entry", "encap_valid_mac", FUZZ_PEER_PROCEDURE})
        if (symlink("../20", (fuzz_card_file("rpc/names/") + name).c_str()) != 0)
            fuzz_fail(name);
}

extern "C" int poll(pollfd *set, nfds_t count, int timeout)
{
    if (listener >= 0 && count == 1) // two are the event loop's, which waits for callers
        take_turn();
    const int ready = static_cast<int>(syscall(SYS_poll, set, count, 0));
    if (ready == 0)
        clock_ns += std::max(timeout, 0) * NS_PER_MS;
    return ready;
}

extern "C" ssize_t recv(int descriptor, void *to, std::size_t room, int flags)
{
    if (listener >= 0 && (flags & MSG_DONTWAIT) == 0)
        take_turn();
    return recvfrom(descriptor, to, room, flags | MSG_DONTWAIT, nullptr, nullptr);
}

extern "C" int clock_gettime(clockid_t clock, timespec *now)
{
    if (clock == CLOCK_REALTIME) // without a system call, for every line asks for it
        return timespec_get(now, TIME_UTC) == TIME_UTC ? 0 : -1;
    if (clock != CLOCK_MONOTONIC)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    clock_ns += STEP_NS;
    *now = {clock_ns / NS_PER_S, clock_ns % NS_PER_S};
    return 0;
}
