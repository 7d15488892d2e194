// debug_view.h - what the route manager's debug service answers: memory by type and the platform's counters.
//
// A request and its answer are a message each, either of which may be lost, so nothing waits here: ask, poll the
// queue's descriptor, take what came.
// Elsewhere: the requests and the form of the lines (debug_service.h).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "debug_service.h"

struct debug_memory {
    std::uint32_t type;
    std::string name;
    std::uint64_t live_blocks, live_bytes, peak_bytes;
};

// One answer. The form of its lines says which of the two it is.
struct debug_answer {
    std::vector<debug_memory> memory;
    std::map<std::string, std::uint64_t> counters;
};

// A queue of our own; -1 when none can be opened.
int debug_view_open();

// Sends a request to the route manager. Returns false when its queue cannot take it.
bool debug_view_send(int queue, const debug_request &request);

// The next answer of the route manager that waits, without waiting. Other messages are dropped. Empty: none.
std::optional<debug_answer> debug_view_take(int queue);

// Decodes an answer's lines; lines of an unknown form are left out.
debug_answer debug_view_parse(std::string_view text);
