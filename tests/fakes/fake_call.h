// fake_call.h - how the fakes write their entries of a card's list of calls. For the fakes only.
#pragma once

#include <cstdarg>
#include <string>

#include "card_space.h"

namespace harness
{
// Appends one formatted entry to the calls, then runs the test's on_call.
[[gnu::format(printf, 1, 2)]] void fake_called(const char *format, ...);

// How entries name what has no fixed number: the queue "q", the RPC descriptor "rpc", any other its number; a mapped
// memory "wired", "ixp1", "ixp2", address 0 "0", any other "unmapped".
std::string fake_descriptor_name(int descriptor);
const char *fake_copy_name(card_addr addr);

// Whether a card lives: poll(2) is also called by others than the process.
bool fake_card_lives();
} // namespace harness
