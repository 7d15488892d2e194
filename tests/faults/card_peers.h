// card_peers.h - the daemon's peers as a test of its faults needs them: an ARP service in a process of its own, an
// interface that comes up, random calls.
#pragma once

#include <atomic>
#include <cstdint>
#include <random>

#include "daemon.h"

namespace harness
{
// How the ARP service answers a call.
enum class arp_manner : std::uint32_t {
    well,            // result 0
    silent,          // not at all
    garbage,         // with bytes that are no reply
    old_transaction, // to an earlier call
    cut,             // with half a reply
    huge,            // with 100,000 bytes
    closing,         // by closing the connection
};

// An ARP service in a process that lives until its record goes.
struct arp_service {
    explicit arp_service(const card_dir &card);
    ~arp_service();
    arp_service(const arp_service &) = delete;
    arp_service &operator=(const arp_service &) = delete;
    std::uint32_t served() const;                         // calls taken so far
    bool has_served_more_than(std::uint32_t calls) const; // waits for it
    void answer(arp_manner manner);

    struct shared_state {
        std::atomic<std::uint32_t> count, manner;
    };
    rpc_server server;
    shared_state *shared; // with the process
    pid_t pid = -1;
};

void interface_database(const card_dir &card); // IFID is up, routed, with IF_ADDR in CTX

// Whether the daemon serves all that it should: a message taken from `manager`, a route whose gateway the ARP service
// is asked for, a host, a listing. Leaves no route behind. Empty, or what does not work.
std::string daemon_trouble(const card_dir &card, const mts_queue &manager, const arp_service &arp);

std::string counters_of(const mts_queue &manager); // of the daemon; what waited in the queue is dropped

// One call with random arguments, most of them sensible.
byte_string random_call(std::mt19937 &random, std::uint32_t transaction);
} // namespace harness
