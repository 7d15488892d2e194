// supervisor.h - the supervisor: takes route advertisements and keeps what is advertised.
//
// Always: one advertisement a prefix, the last that came.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "supervisor_advert.h"

// A route advertisement.
struct sup_advert {
    bool is_withdrawal;
    std::uint32_t slot;       // of the card that sends it, counted from 0
    std::uint32_t supervisor; // address that it is sent to
    std::uint32_t prefix, mask, hop, metric;
    std::int32_t vlan;
};

// Decodes a message. Returns 0, or 1 when it is not an advertisement.
[[nodiscard]] int sup_decode(const std::uint8_t *bytes, std::size_t length, sup_advert *out);

struct supervisor {
    int socket = -1;
    std::map<std::pair<std::uint32_t, std::uint32_t>, sup_advert> advertised; // by prefix and mask
    std::uint64_t acknowledged = 0;                                           // messages taken
    std::uint64_t malformed = 0;                                              // messages that were not advertisements
};

// Binds scp/supervisor. Returns 0, or -1 with a line on standard error.
[[nodiscard]] int sup_open(supervisor *sup);

// Takes what has come in; `say` gets a line for each message. An acknowledgement is that line and the count: the sender
// has no address to which one could be sent.
template <class Say> void sup_process(supervisor &sup, const Say &say);

// The counts and what is advertised, as a JSON object (cardsim(1)).
std::string sup_listing(const supervisor &sup);

// One message, as it was received. Returns the line about it.
std::string sup_take(supervisor &sup, const std::uint8_t *bytes, std::size_t length);
// The next message that waits. Returns its length, or -1 when none does.
long sup_receive(const supervisor &sup, std::uint8_t *bytes, std::size_t room);

template <class Say> void sup_process(supervisor &sup, const Say &say)
{
    std::uint8_t bytes[256];
    for (long got; (got = sup_receive(sup, bytes, sizeof bytes)) >= 0;)
        say(sup_take(sup, bytes, static_cast<std::size_t>(got)));
}
