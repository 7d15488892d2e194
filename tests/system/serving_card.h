// serving_card.h - a daemon with two interfaces, a caller of its procedures and an operator at its message queue.
//
// Interface 5 is 10.1.0.1/24 and 6 is 10.2.0.1/24, both up, 7 is 10.3.0.1/24 and down, all in context 3; 5 has VLAN
// 0x123. The card sits in slot 4.
// The history takes categories 100, 105 and 106, but not 101, whose lines are many. Always: what the daemon says is
// compared with texts and bytes written down in the tests, never with its own headers.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon.h"
#include "tables.h"

namespace harness
{
constexpr std::uint32_t OTHER_IFID = 6, DOWN_IFID = 7, OTHER_ENCAP = 0x4321;
constexpr std::uint32_t OTHER_ADDR = IP(10, 2, 0, 1), OTHER_HOST = IP(10, 2, 0, 9);

struct serving_card {
    const card_dir card;
    const unsigned num_ixp;
    const bool prepared; // settings and interfaces stand before the daemon starts
    daemon_process daemon{card};
    const bool ready;
    const rpc_client caller{card};
    const mts_queue queue{card, 1024};
    std::uint64_t mark = 0; // end of the history when the test last looked away

    // settings: further lines of card.conf.
    explicit serving_card(unsigned processors = 2, const std::string &settings = "");

    std::uint32_t result(const remote_call &call) const; // of a call with status 0
    // What comes back behind the three words of the reply's head: the result, then the values.
    byte_string answer(const remote_call &call) const;
    void settle() const; // every message before has had its effect
    void forget();       // the history's lines so far
    // Lines since then as "105 <Ctx:3>text", the event loop's own left out: all of them, or those that contain `part`.
    text_lines lines(const std::string &part = "") const;
    // Names of the copies of the table that this card has, and the address at which each stands.
    std::vector<std::pair<const char *, std::uint32_t>> copies() const;
    // The adjacency word that a processor finds for an address in each copy; 0xFFFFFFFF when they differ.
    std::uint32_t found(std::uint32_t tree, std::uint32_t addr) const;
};

// The interfaces as the card starts with them, for a test that changes one.
std::vector<interface_record> live_interfaces();
} // namespace harness
