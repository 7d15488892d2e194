// provided_memory.h - a table memory that its provider hands out, for the route manager and for readers.
//
// Elsewhere: the records (memory_provider.h), which memories are provided (card_dir.h), the provider itself
// (tools/card_service).
#pragma once

#include <string>

#include "memory_provider.h"

// What a provider has given. Both descriptors are the caller's, and close-on-exec.
struct provided_memory {
    int connection = -1; // open as long as the memory is used; the provider's end, or another memory in place of this
                         // one, shows as its end
    int descriptor = -1; // of the memory, whose first bytes are to be mapped shared; not needed once they are
    memory_answer given = {};
};

// Asks the provider of the memory at `path` (such as /run/card/mem/ixp2). timeout_ms: for all of it, connecting
// included. Returns 0; or -1 with the reason in `why`, which names the memory, and nothing left open.
[[nodiscard]] int provided_memory_ask(const std::string &path, memory_purpose purpose, unsigned timeout_ms,
                                      provided_memory *memory, std::string *why);

// Judges an answer that came with `descriptors` of them. Returns an empty string with the memory in `given`, or what is
// wrong with it.
std::string provided_memory_judge(const std::uint8_t *record, std::size_t length, unsigned descriptors,
                                  memory_answer *given);
