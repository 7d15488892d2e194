// side_changes.h - what else happens on a card while its routes change: NAT pools and an interface that goes and comes.
//
// They keep to a context of their own, which no reader looks into: an event changes many prefixes one after the other,
// so there is no single change between which and the next a reader's answer could be judged. What they leave behind is
// exact all the same, since the model follows them.
// Always: an event has had all its effect before the next change is made.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "daemon.h"
#include "random_changes.h"

namespace harness
{
enum side_kind : unsigned {
    SIDE_EVENT,  // interface up or down
    SIDE_POOL,   // NAT pool added or removed
    SIDE_HOST,   // a host of that interface
    SIDE_STATIC, // a route by way of such a host
    SIDE_KINDS,
};

struct side_changes {
    random_changes &all;
    int connection; // of remote calls
    const mts_queue &queue;
    std::string interfaces; // path of the database
    std::mt19937 random;
    bool is_up = false;
    std::vector<bool> pools = {}; // those that stand
    std::uint64_t made[SIDE_KINDS] = {};
};

// Makes one more of them. False with all.error set.
bool side_next(side_changes &side);

// Makes a call and gives its result. Throws when it is not answered, or refused.
std::uint32_t change_by_call(int connection, const remote_call &call);

// The interface, as the database has it at the start: down.
interface_record side_interface();

// The next message of `opcode`, other ones dropped. Throws at the limit of the wait.
std::string side_message(const mts_queue &queue, std::uint32_t opcode);
// The answer of the debug service, whatever else waits in the queue.
std::string side_debug_answer(const mts_queue &queue, std::uint32_t verb);
} // namespace harness
