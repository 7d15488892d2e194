// card_rpc.h - calling the card's procedures from a tool: many calls outstanding, nothing waits but card_rpc_wait.
//
// One connection to one server of procedures. Calls are queued, sent as the socket takes them, and answered in order;
// at most CARD_RPC_WINDOW are outstanding. A tool that serves calls itself polls card_rpc_fd beside its own
// descriptors and hands the events to card_rpc_process, so it never blocks on a peer that may be calling it.
// Always: a call that was sent is never sent twice. When the connection ends, or an answer is late or malformed, every
// outstanding call is answered with the failure, and the next call connects anew.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "rpc_record.h"

constexpr unsigned CARD_RPC_WINDOW = 128; // calls outstanding

// How a call ended.
enum card_rpc_end : unsigned {
    CARD_RPC_RAN,           // the procedure ran: `result`, `values` and `blocks` hold
    CARD_RPC_NO_PROCEDURE,  // status 1
    CARD_RPC_BAD_ARGUMENTS, // status 2
    CARD_RPC_OUT_OF_RANGE,  // status 3
    CARD_RPC_UNREACHABLE,   // no process serves the procedure: the call was not sent
    CARD_RPC_TIMED_OUT,     // sent or waiting to be sent, and not answered in time: it may have run
    CARD_RPC_LOST,          // the connection ended before the answer: it may have run
    CARD_RPC_GARBLED,       // the answer was malformed, or another call's
};

// One argument: a number of 1, 2 or 4 bytes, a by-reference number of 2 or 4 bytes, or a block to be filled.
struct card_rpc_arg {
    unsigned type;       // tnrpc_type
    unsigned bytes;      // of a number; 0 for a block
    std::uint32_t value; // of a number
};
constexpr card_rpc_arg rpc_small(std::uint32_t value) { return {RPC_ARG_SMALL, 1, value}; }
constexpr card_rpc_arg rpc_u16(std::uint32_t value) { return {RPC_ARG_U16, 2, value}; }
constexpr card_rpc_arg rpc_u32(std::uint32_t value) { return {RPC_ARG_U32, 4, value}; }
constexpr card_rpc_arg rpc_ref16(std::uint32_t value) { return {RPC_ARG_REF, 2, value}; }
constexpr card_rpc_arg rpc_ref32(std::uint32_t value) { return {RPC_ARG_REF, 4, value}; }
constexpr card_rpc_arg rpc_block() { return {RPC_ARG_BLOCK, 0, 0}; }

struct card_rpc_reply {
    card_rpc_end end = CARD_RPC_UNREACHABLE;
    std::uint32_t result = 0;
    std::vector<std::uint32_t> refs;               // by-reference values, in argument order
    std::vector<std::vector<std::uint8_t>> blocks; // in argument order
    bool ran() const { return end == CARD_RPC_RAN; }
};
using card_rpc_done = std::function<void(const card_rpc_reply &reply)>;

struct card_rpc; // a connection, its state in card_rpc.cpp
struct card_rpc_delete {
    void operator()(card_rpc *rpc) const;
};
using card_rpc_ptr = std::unique_ptr<card_rpc, card_rpc_delete>;

// A connection to the server of `procedure` (found by its link in the card directory when it is first needed, and again
// after a failure). timeout_ms: for each call, from card_rpc_call or the last answer on the connection,
// whichever is later, to its own answer: a server that works through a full window is slow, not silent.
card_rpc_ptr card_rpc_open(std::string procedure, unsigned timeout_ms);

// Queues a call; `done` runs once, inside a later card_rpc_process or card_rpc_wait (never in here).
void card_rpc_call(card_rpc &rpc, const std::string &procedure, const std::vector<card_rpc_arg> &args,
                   card_rpc_done done);

// Calls that have not been answered: queued and outstanding.
std::size_t card_rpc_pending(const card_rpc &rpc);

// What to poll: the descriptor (-1: none at the moment), its events, and the time until card_rpc_process must be called
// at the latest (-1: no call is waiting).
int card_rpc_fd(const card_rpc &rpc);
short card_rpc_events(const card_rpc &rpc);
int card_rpc_timeout_ms(const card_rpc &rpc);

// Sends and receives what can be without waiting, and ends the calls that are answered or late.
void card_rpc_process(card_rpc &rpc);

// Processes until fewer than `below` calls are pending.
void card_rpc_wait(card_rpc &rpc, std::size_t below);

// One call, waited for.
card_rpc_reply card_rpc_call_wait(card_rpc &rpc, const std::string &procedure, const std::vector<card_rpc_arg> &args);

// What the end of a call that did not run means, for a message: "no process serves rib_add_route" and the like.
std::string card_rpc_reason(card_rpc_end end, const std::string &procedure);
