// manager_link.h - the way to the route manager: events, calls, whether it is there, and what it has acknowledged.
//
// Events and calls reach the route manager on two ways, which it serves in turns. Here they are one queue: before an
// event is sent, the calls ahead of it are answered; before a call is sent, the events ahead of it are acknowledged by
// a barrier, a request of the debug service sent after them, which the route manager answers in order. Always: what was
// queued first takes effect first, and nothing waits: link_process does what can be done now.
//
// While no route manager is there, events are dropped and calls answered with CARD_RPC_UNREACHABLE: one that starts is
// sent everything anew. Calls that wait when it starts go to it, unless link_forget takes them back.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "card_tool/card_rpc.h"
#include "mts.h"

enum class link_kind { event, call, mark };

struct link_item {
    link_kind kind;
    std::uint32_t opcode;              // of an event
    std::vector<std::uint8_t> payload; // of an event
    std::string procedure;             // of a call, as the next two
    std::vector<card_rpc_arg> args;
    card_rpc_done done;
    std::function<void()> passed; // of a mark
};

struct manager_link {
    int queue = -1;   // our message queue
    int watch = -1;   // readable when a route manager starts or ends
    card_rpc_ptr rpc; // to the route manager
    unsigned timeout_ms = 0;
    std::deque<link_item> items;
    bool is_present = false;
    bool is_unacknowledged = false;     // events were sent and not acknowledged
    unsigned barriers_pending = 0;      // sent and not answered
    bool is_barrier_answered = false;   // one was answered since the last was sent
    std::uint64_t retry_ms = 0;         // no message is sent before: the route manager's queue is full
    std::uint64_t barrier_ms = 0;       // when the next barrier is sent
    std::function<void()> on_arrival;   // a route manager has started, or was found
    std::function<void()> on_departure; // it has ended; may be empty
    std::function<void(const mts_message &message)> on_message; // other than the link's own
};

constexpr std::uint32_t CARD_SERVICE_SAP = 515; // first of the card's services beside the route manager

struct link_options {
    const char *name; // of the program
    std::uint32_t sap;
    unsigned timeout_ms; // of a call
};

// Binds the queue and looks for a route manager. Returns 0, or -1 with a line on standard error.
[[nodiscard]] int link_open(manager_link *link, const link_options &options);

void link_event(manager_link &link, std::uint32_t opcode, const std::vector<std::uint8_t> &payload);
void link_call(manager_link &link, const std::string &procedure, const std::vector<card_rpc_arg> &args,
               card_rpc_done done);

// Calls `passed` when every event that was queued before is handled. Dropped like an event when there is no route
// manager, or another one.
void link_mark(manager_link &link, std::function<void()> passed);

// Takes back what was queued and is not sent, and closes the connection: no call of before reaches a route manager
// that starts, and none is answered any more. To be called in on_arrival.
void link_forget(manager_link &link);

// Whether events are on their way: what the route manager knows is about to change.
bool link_has_events(const manager_link &link);
// Whether the route manager is there and has handled everything.
bool link_is_at_rest(const manager_link &link);

// Handles what has come in and sends what can be sent.
void link_process(manager_link &link, std::uint64_t now_ms);
// The time at which link_process has something to do of its own; UINT64_MAX: none.
std::uint64_t link_next_ms(const manager_link &link, std::uint64_t now_ms);
