// netlink_decode.h - a message of the kernel's, as bytes, into the state.
//
// Pure: bytes and a state in, the state out, and what changed in it. A message that is cut, of another family or of an
// unknown kind changes nothing; an unknown attribute of a route or rule makes it one that can not be told exactly.
// Only the tables that the state has are followed.
// Elsewhere: where the messages come from (netlink_kernel.h).
#pragma once

#include <cstdint>
#include <span>

#include "kernel_state.h"

struct netlink_news {
    kernel_changes changes;
    bool read_again = false; // the state can not be told from this message: all of it is to be read again
};

// message: a header and what belongs to it, as the kernel sends them to listeners and as answers to a dump.
void netlink_decode(std::span<const std::uint8_t> message, kernel_state &state, netlink_news &news);
