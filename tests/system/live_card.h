// live_card.h - a daemon with two interfaces, a caller of its procedures and an operator at its message queue.
//
// Interface 5 is 10.1.0.1/24 and 6 is 10.2.0.1/24, both up, in context 3; 5 has VLAN 0x123. The card sits in slot 4.
// The history takes categories 100, 105 and 106, but not 101, whose lines are many. Always: what the daemon says is
// compared with texts and bytes written down in the tests, never with its own headers.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon.h"
#include "tables.h"

constexpr std::uint32_t address(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d)
{
    return a << 24 | b << 16 | c << 8 | d;
}

constexpr std::uint32_t LIVE_CTX = 3, LIVE_IF = 5, LIVE_IF_2 = 6, LIVE_ENCAP = 0x1234, LIVE_ENCAP_2 = 0x4321;
constexpr std::uint32_t LIVE_ADDR = address(10, 1, 0, 1), LIVE_HOST = address(10, 1, 0, 9);
constexpr std::uint32_t LIVE_ADDR_2 = address(10, 2, 0, 1), LIVE_HOST_2 = address(10, 2, 0, 9);
constexpr std::uint32_t LIVE_MASK = 0xFFFFFF00;
constexpr std::uint32_t EVENT_CREATED = 4063, EVENT_DELETED = 4064, EVENT_UP = 4065, EVENT_DOWN = 4066,
                        EVENT_ENCAP_ACQUIRE = 4069, EVENT_ENCAP_RELEASE = 4070, EVENT_CHANGED = 4089;

using text_lines = std::vector<std::string>;

struct live_card {
    const card_dir card;
    const unsigned num_ixp;
    const bool prepared; // settings and interfaces stand before the daemon starts
    daemon_process daemon{card};
    const bool ready;
    const rpc_client caller{card};
    const mts_queue queue{card, 1024};
    std::uint64_t mark = 0; // end of the history when the test last looked away

    // settings: further lines of card.conf.
    explicit live_card(unsigned processors = 2, const std::string &settings = "");

    std::uint32_t result(const char *name, const std::vector<rpc_arg> &args) const; // of a call with status 0
    // What comes back behind the four words of the reply's head, with the result in front.
    byte_string answer(const char *name, const std::vector<rpc_arg> &args) const;
    void settle() const; // every message before has had its effect
    void forget();       // the history's lines so far
    // Lines since then as "105 <Ctx:3>text", the event loop's own left out: all of them, or those that contain `part`.
    text_lines lines(const std::string &part = "") const;
    // Names of the copies of the table that this card has, and the address at which each stands.
    std::vector<std::pair<const char *, std::uint32_t>> copies() const;
    // The adjacency word that a processor finds for an address in each copy; 0xFFFFFFFF when they differ.
    std::uint32_t found(std::uint32_t tree, std::uint32_t addr) const;

    std::uint32_t host_add(std::uint32_t host, std::uint32_t encap, std::uint32_t ifid = LIVE_IF) const;
    std::uint32_t host_remove(std::uint32_t host, std::uint32_t encap, std::uint32_t ifid = LIVE_IF) const;
    std::uint32_t route_add(std::uint32_t prefix, std::uint32_t mask, std::uint32_t hop) const;
    std::uint32_t route_remove(std::uint32_t prefix, std::uint32_t mask, std::uint32_t hop) const;
    std::uint32_t pool_add(std::uint32_t first, std::uint32_t count, std::uint32_t encap) const;
    std::uint32_t pool_remove(std::uint32_t first, std::uint32_t count, std::uint32_t encap) const;
};

// The interfaces as the card starts with them, for a test that changes one.
std::vector<interface_record> live_interfaces();

// Payloads of events.
byte_string state_payload(std::uint32_t addr = LIVE_ADDR, std::uint32_t rmode = 1, std::uint32_t ifid = LIVE_IF,
                          std::uint32_t ctx = LIVE_CTX, std::uint32_t mask = LIVE_MASK);
byte_string change_payload(std::uint32_t old_addr, std::uint32_t word = 0x80000000, std::uint32_t ifid = LIVE_IF);

// Bytes of 32-bit numbers, most significant first.
byte_string words(const std::vector<std::uint32_t> &numbers);
byte_string joined(const std::vector<byte_string> &parts);
