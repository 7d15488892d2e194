// kernel_ask.h - the kernel's own lookup for one packet, asked for over netlink.
//
// The kernel answers before the call returns. Elsewhere: its state as the card follows it (kernel_state.h).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kernel_state.h"

struct kernel_ask;
struct kernel_ask_close {
    void operator()(kernel_ask *ask) const;
};
using kernel_ask_ptr = std::unique_ptr<kernel_ask, kernel_ask_close>;

// Opens a socket in the network namespace of the caller. Returns null, with errno, when that is not possible.
kernel_ask_ptr kernel_ask_open();

struct kernel_packet {
    std::uint32_t source = 0, destination = 0; // host order
    int ifindex = 0;                           // of the link by which it comes in
};

// What the kernel would do with it.
struct kernel_way {
    int error = 0; // it is refused, with this error number; 0: `route` holds
    std::uint32_t table = 0;
    kernel_prefix prefix;
    kernel_route route; // that it matches, with all its paths
};

// Returns 0, or 1 and one line in `why` when the kernel did not answer.
[[nodiscard]] int kernel_ask_way(kernel_ask &ask, const kernel_packet &packet, kernel_way *way, std::string *why);
