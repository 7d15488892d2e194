// live_procedures.h - what a live card answers the route manager, and its tools.
//
// Always: a procedure calls nothing: the route manager waits for its answer inside a procedure of its own.
// Elsewhere: their arguments for a caller (docs/interface.md).
#pragma once

#include <cstdint>
#include <functional>
#include <string>

constexpr std::uint32_t LIVE_FIRST_ENDPOINT = 10; // of the card's services beside the route manager

struct live_procedures {
    std::function<void(std::uint32_t ctx, std::uint32_t address, bool is_wanted)> request;
    std::function<std::uint32_t(std::uint32_t ctx, std::uint32_t address)> interface_of; // in whose subnet; 0: none
    std::function<bool(std::uint32_t encap)> is_encap_valid;
    // Each answers a JSON document.
    std::function<std::string()> status;
    std::function<std::string(std::uint32_t address, std::uint32_t source, std::uint32_t ifid)> trace;
    std::function<std::string(std::uint32_t ctx, std::uint32_t *at)> verify;
};

// Opens a server at the first free endpoint and registers the procedures, which work on these until the process ends.
// Returns the descriptor for tnrpc_process, or -1 with a line on standard error.
[[nodiscard]] int live_procedures_open(const live_procedures *procedures);
void live_procedures_close();
