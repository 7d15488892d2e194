// tnrpc.h - remote procedure calls between the card's processes.
//
// A server opens an endpoint, registers procedures by name and dispatches one event a call of tnrpc_process. A client
// calls a procedure by name and waits for its result.
#pragma once

#include <cstddef>
#include <cstdint>

#include "card_space.h"
#include "rpc_record.h"

constexpr std::uint32_t TNRPC_FAILED = 0xFFFFFFFF; // a call that could not be made or answered

struct tnrpc_block {
    std::uint32_t length;     // bytes
    card_ptr<std::byte> data; // null when there is none
};
static_assert(sizeof(tnrpc_block) == 8);

// One decoded argument as a procedure gets it: `value` for codes 0 to 2; `ref` (a 32-bit word that holds the caller's
// 2 or 4 bytes as a number) for code 8; `block` for code 9.
struct tnrpc_arg {
    std::uint32_t value;
    std::uint32_t *ref;
    tnrpc_block *block;
};

using tnrpc_function = std::uint32_t (*)(const tnrpc_arg *args);

// Opens the server's endpoint. Returns a descriptor that polls readable when there is something for tnrpc_process,
// or -1 (another live process owns the endpoint, the card directory is refused, ...), which standard error says.
[[nodiscard]] int tnrpc_serv_init(std::uint32_t endpoint);

// Registers a procedure: its argument count and that many type codes follow (unsigned each). Also kept, without
// effect for callers, when the endpoint is another process's. A name registered again replaces the earlier one, its
// bounds included. Returns 0, or -1 (too many; a name that is empty or too long, holds a slash or anything but ASCII,
// or begins with a dot; an unknown type code).
int tnrpc_register(const char *name, tnrpc_function function, unsigned arg_count, ...);

// Bounds argument `index` (from 0) of a registered procedure: a call in which it is over `max`, judged over its whole
// width, is answered with status 3 and does not run. Returns 0, or -1 for an unknown name or index, or a block.
int tnrpc_limit(const char *name, unsigned index, std::uint32_t max);

// Takes a procedure back. Returns 0, or -1 for a name that this process does not serve.
int tnrpc_unregister(const char *name);

// Serves one event: a new connection, one call, or a connection's end. Returns 0, or -1 when there was none.
int tnrpc_process(int descriptor);

// Opens the client side. Returns 0, or -1 when the card directory is refused.
[[nodiscard]] int tnrpc_clnt_init(std::uint32_t endpoint);

// Calls `name` with `arg_count` arguments and waits for the reply, rpc_timeout_ms at most. Each argument is its type
// code (unsigned), then: for codes 0 to 2 the value (std::uint32_t); for code 8 a std::uint32_t * and its size in
// bytes (unsigned, 2 or 4; only that many low bytes travel, the others stay); for code 9 a tnrpc_block * and a
// memory-tracking type (unsigned): it is filled with a block of that type, which the caller frees with mtrack_free.
// Returns the procedure's result, or TNRPC_FAILED with by-reference values and blocks untouched.
// A procedure that serves a call must not call one of its own process: that call ends with the time-out.
std::uint32_t tnrpc_call(const char *name, unsigned arg_count, ...);
