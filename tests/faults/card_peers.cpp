// card_peers.cpp - peers of the daemon for the tests of its faults. They speak the card's forms byte by byte.
#include "card_peers.h"

#include <csignal>
#include <new>
#include <vector>

#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace harness
{
namespace
{
byte_string reply_to(const byte_string &call, arp_manner manner)
{
    const std::uint32_t transaction = get32(call, 4) - (manner == arp_manner::old_transaction ? 1 : 0);
    byte_string reply = rpc_reply_record(transaction, 0, 0);
    if (manner == arp_manner::garbage)
        reply.assign(40, 0xA5);
    if (manner == arp_manner::cut)
        reply.resize(8);
    if (manner == arp_manner::huge)
        reply.resize(100000);
    return reply;
}

// Answers one call on `connection` by the manner of the moment. Returns whether it stays open.
bool answer_one(int connection, arp_service::shared_state &shared)
{
    byte_string call(4096);
    const ssize_t got = ::recv(connection, call.data(), call.size(), 0);
    if (got < 12)
        return false;
    ++shared.count;
    const auto manner = static_cast<arp_manner>(shared.manner.load());
    if (manner == arp_manner::silent || manner == arp_manner::closing)
        return manner == arp_manner::silent;
    const byte_string reply = reply_to(call, manner);
    return ::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(reply.size());
}

// The service's process: serves until it is killed.
[[noreturn]] void serve(int listener, arp_service::shared_state &shared)
{
    std::vector<pollfd> set = {{listener, POLLIN, 0}};
    for (;;) {
        if (::poll(set.data(), set.size(), -1) < 0)
            continue;
        for (std::size_t i = set.size(); i-- > 1;) {
            if (set[i].revents == 0)
                continue;
            if (answer_one(set[i].fd, shared))
                continue;
            ::close(set[i].fd);
            set.erase(set.begin() + static_cast<std::ptrdiff_t>(i));
        }
        if (set[0].revents != 0)
            set.push_back({::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), POLLIN, 0});
    }
}
} // namespace

arp_service::arp_service(const card_dir &card) : server(card, 10, "tn_arp_add_entry")
{
    void *const memory =
        ::mmap(nullptr, sizeof(shared_state), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    shared = new (memory) shared_state{0, 0};
    const pid_t parent = ::getpid();
    pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that is killed leaves nobody behind
        if (::getppid() != parent)
            ::_exit(0);
        serve(server.listener, *shared);
    }
}

arp_service::~arp_service()
{
    if (pid > 0) {
        ::kill(pid, SIGKILL);
        (void)::waitpid(pid, nullptr, 0); // nothing to learn from it
    }
    ::munmap(shared, sizeof *shared);
}

std::uint32_t arp_service::served() const { return shared->count.load(); }

// A call that the daemon gave up on may reach the service later.
bool arp_service::has_served_more_than(std::uint32_t calls) const
{
    for (int waited_ms = 0; served() <= calls && waited_ms < DAEMON_WAIT_MS; ++waited_ms)
        (void)::poll(nullptr, 0, 1);
    return served() > calls;
}

void arp_service::answer(arp_manner manner) { shared->manner = static_cast<std::uint32_t>(manner); }

void interface_database(const card_dir &card)
{
    interfaces_write(card, {{IFID, IF_USUAL, 1, 0, IF_ADDR, MASK24, CTX, 0}});
}

std::string daemon_trouble(const card_dir &card, const mts_queue &manager, const arp_service &arp)
{
    constexpr std::uint32_t PREFIX = IP(22, 0, 0, 0); // of no other call here
    const rpc_client client(card);
    const std::uint32_t before = arp.served();
    mts_send(manager, EVENT_UP, state_payload());
    if (counters_of(manager).find("calls_served") == std::string::npos)
        return "no counters";
    const remote_call look = {"mtrie_lookup_exact_stub", {arg32(CTX), arg32(PREFIX), arg32(MASK8), arg_ref(0)}};
    for (const remote_call &call : {call_route_add(PREFIX, MASK8, GATEWAY), call_host_add(GATEWAY), look,
                                    call_route_remove(PREFIX, MASK8, GATEWAY), call_host_remove(GATEWAY)}) {
        const rpc_reply reply = rpc_call(client.fd, call);
        if (!reply.arrived)
            return call.name + ": no reply";
        if (reply.status != 0 || reply.result != 0 || (call.name == look.name && get32(reply.record, 24) != IFID))
            return call.name + ": status " + std::to_string(reply.status) + ", result " + std::to_string(reply.result);
        if (!arp.has_served_more_than(before))
            return "the ARP service was not asked";
    }
    mts_send(manager, EVENT_DOWN, state_payload());
    return "";
}

// Broadcasts come into the same queue, and an answer that finds it full is lost: then it is asked for again.
std::string counters_of(const mts_queue &manager)
{
    constexpr int ANSWER_MS = 1000;
    const byte_string request = message_bytes(DEBUG_REQUEST, manager.sap, word_bytes({5, 0, 0, 0}));
    byte_string dropped(2048);
    const auto make_room = [&] {
        while (::recv(manager.fd, dropped.data(), dropped.size(), MSG_DONTWAIT) > 0) {
        }
        return true;
    };
    for (int asked = 0; asked < DAEMON_WAIT_MS / ANSWER_MS; ++asked) {
        while (make_room() && !mts_offer(manager, request))
            (void)::poll(nullptr, 0, 1);
        for (pollfd waited = {manager.fd, POLLIN, 0}; ::poll(&waited, 1, ANSWER_MS) == 1;) {
            const received_message message = mts_receive(manager);
            if (message.opcode == DEBUG_ANSWER)
                return message.payload;
        }
    }
    return "";
}

byte_string random_call(std::mt19937 &random, std::uint32_t transaction)
{
    const auto below = [&random](std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); };
    const std::uint32_t ctx = below(4), host = IF_ADDR + below(12), encap = below(9);
    const std::uint32_t len = 8 * (1 + below(4)), mask = ~std::uint32_t{0} << (32 - len);
    const std::uint32_t prefix = (0x14000000 + (below(5) << 20)) & mask;
    const std::uint32_t pool = 0x1E000000 + below(64), count = below(40), kind = below(8);
    const remote_call calls[] = {
        call_route_add(prefix, mask, host, ctx),    call_route_add(prefix, mask, host, ctx),
        call_route_remove(prefix, mask, host, ctx), call_host_add(host, encap, IFID, ctx),
        call_host_add(host, encap, IFID, ctx),      call_host_remove(host, encap, IFID, ctx),
        call_pool_add(pool, count, 9, IFID, ctx),   call_pool_remove(pool, count, 9, IFID, ctx)};
    return rpc_record(transaction, calls[kind]);
}
} // namespace harness
