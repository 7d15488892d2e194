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

namespace
{
constexpr std::uint32_t IF_EVENT_UP = 4065, IF_EVENT_DOWN = 4066;

byte_string reply_to(const byte_string &call, arp_manner manner)
{
    byte_string reply;
    const std::uint32_t transaction = get32(call, 4) - (manner == arp_manner::old_transaction ? 1 : 0);
    for (const std::uint32_t word : {0x544E5250u, transaction, 0u, 0u})
        put32(reply, word);
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

std::string refused(const char *what, const rpc_reply &reply)
{
    return std::string(what) +
           (reply.arrived ? ": status " + std::to_string(reply.status) + ", result " + std::to_string(reply.result)
                          : ": no reply");
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

void arp_service::answer(arp_manner manner) { shared->manner = static_cast<std::uint32_t>(manner); }

void interface_database(const card_dir &card)
{
    interfaces_write(
        card, {{PEER_IFID, IF_EXISTS | IF_UP | IF_ADDRESS | IF_CONTEXT, 1, 0, PEER_ADDRESS, PEER_MASK, PEER_CTX, 0}});
}

byte_string interface_event(std::uint32_t ifid, std::uint32_t address)
{
    byte_string payload;
    put16(payload, ifid);
    put16(payload, PEER_CTX);
    put32(payload, address);
    payload.resize(21);
    put32(payload, PEER_MASK);
    payload.resize(44);
    put32(payload, 1);
    return payload;
}

std::string daemon_trouble(const card_dir &card, const mts_queue &manager, const arp_service &arp)
{
    const rpc_client client(card);
    const std::uint32_t gateway = PEER_ADDRESS + 8, before = arp.served();
    mts_send(manager, IF_EVENT_UP, interface_event());
    if (counters_of(manager).find("calls_served") == std::string::npos)
        return "no counters";
    const std::vector<rpc_arg> route = {arg16(PEER_CTX), arg32(PEER_CTX), arg32(0x14000000), arg32(0xFF000000),
                                        arg32(gateway)};
    rpc_reply reply = rpc_call(client.fd, "rib_add_route", route);
    if (!reply.arrived || reply.result != 0)
        return refused("rib_add_route", reply);
    if (arp.served() == before)
        return "the ARP service was not asked";
    reply = rpc_call(client.fd, "arp_prefix_mgr_add_route",
                     {arg16(1), arg32(gateway), arg32(32), arg16(7), arg16(PEER_IFID), arg32(PEER_CTX)});
    if (!reply.arrived || reply.result != 0)
        return refused("arp_prefix_mgr_add_route", reply);
    reply = rpc_call(client.fd, "mtrie_lookup_exact_stub",
                     {arg32(PEER_CTX), arg32(0x14000000), arg32(0xFF000000), arg_ref(0)});
    if (!reply.arrived || reply.result != 0 || get32(reply.record, 24) != PEER_IFID)
        return refused("mtrie_lookup_exact_stub", reply);
    reply = rpc_call(client.fd, "rib_remove_route", route);
    if (!reply.arrived || reply.result != 0)
        return refused("rib_remove_route", reply);
    reply = rpc_call(client.fd, "arp_prefix_mgr_remove_route",
                     {arg16(1), arg32(gateway), arg32(32), arg32(0), arg16(7), arg16(PEER_IFID), arg32(PEER_CTX)});
    mts_send(manager, IF_EVENT_DOWN, interface_event());
    return reply.arrived && reply.result == 0 ? "" : refused("arp_prefix_mgr_remove_route", reply);
}

// Broadcasts come into the same queue, and an answer that finds it full is lost: then it is asked for again.
std::string counters_of(const mts_queue &manager)
{
    constexpr int ANSWER_MS = 250;
    byte_string datagram(2048);
    for (int asked = 0; asked < DAEMON_WAIT_MS / ANSWER_MS; ++asked) {
        while (::recv(manager.fd, datagram.data(), datagram.size(), MSG_DONTWAIT) > 0) {
        }
        debug_request(manager, 5, 0, 0, 0);
        for (pollfd waited = {manager.fd, POLLIN, 0}; ::poll(&waited, 1, ANSWER_MS) == 1;) {
            const mts_message message = mts_receive(manager);
            if (message.opcode == 1531)
                return message.payload;
        }
    }
    return "";
}

byte_string random_call(std::mt19937 &random, std::uint32_t transaction)
{
    const auto below = [&random](std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); };
    const std::uint32_t ctx = below(4), host = PEER_ADDRESS + below(12), encap = below(9);
    const std::uint32_t len = 8 * (1 + below(4)), mask = ~std::uint32_t{0} << (32 - len);
    const std::uint32_t prefix = (0x14000000 + (below(5) << 20)) & mask;
    switch (below(8)) {
    case 0:
    case 1:
        return rpc_record(transaction, "rib_add_route",
                          {arg16(ctx), arg32(ctx), arg32(prefix), arg32(mask), arg32(host)});
    case 2:
        return rpc_record(transaction, "rib_remove_route",
                          {arg16(ctx), arg32(ctx), arg32(prefix), arg32(mask), arg32(host)});
    case 3:
    case 4:
        return rpc_record(transaction, "arp_prefix_mgr_add_route",
                          {arg16(1), arg32(host), arg32(32), arg16(encap), arg16(PEER_IFID), arg32(ctx)});
    case 5:
        return rpc_record(transaction, "arp_prefix_mgr_remove_route",
                          {arg16(1), arg32(host), arg32(32), arg32(0), arg16(encap), arg16(PEER_IFID), arg32(ctx)});
    case 6:
        return rpc_record(transaction, "rib_add_nat_pool",
                          {arg16(ctx), arg16(PEER_IFID), arg32(0x1E000000 + below(64)), arg32(below(40)), arg16(9)});
    default:
        return rpc_record(transaction, "rib_remove_nat_pool",
                          {arg16(ctx), arg16(PEER_IFID), arg32(0x1E000000 + below(64)), arg32(below(40)), arg16(9)});
    }
}
