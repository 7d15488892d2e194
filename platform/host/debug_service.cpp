// debug_service.cpp - the requests that an operator sends to a running process: gates, threshold, memory,
// counters, routes.
//
// A request comes as a message like any other and is consumed whatever is in it, so a malformed one never reaches the
// process.
// Always: an answer is one message of whole lines, and sending it never waits.
// Elsewhere: the form of requests (debug_service.h), the gates (sdwrap.cpp), what is counted (counters.h, mtrack.cpp).
#include "sdwrap.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "counters.h"
#include "debug_service.h"
#include "mtrack.h"
#include "sdwrap_gates.h"

namespace
{
// An answer: whole lines only, as many as fit a message.
struct answer_text {
    char text[MTS_MAX_PAYLOAD];
    std::size_t bytes;
    bool full; // a line did not fit, so none follows it
};

[[gnu::format(printf, 2, 3)]] void add_line(answer_text &answer, const char *format, ...)
{
    char line[MTS_MAX_PAYLOAD + 1];
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    const auto bytes = static_cast<std::size_t>(length < 0 ? 0 : length);
    if (answer.full || bytes > sizeof answer.text - answer.bytes) {
        answer.full = true;
        return;
    }
    std::memcpy(answer.text + answer.bytes, line, bytes);
    answer.bytes += bytes;
}

struct named_counter {
    const char *name;
    std::uint64_t platform_counters_t::*value;
};
using counters = platform_counters_t;
constexpr named_counter COUNTERS[] = {
    {"calls_served", &counters::calls_served},
    {"calls_refused", &counters::calls_refused},
    {"calls_malformed", &counters::calls_malformed},
    {"replies_dropped", &counters::replies_dropped},
    {"connections", &counters::connections},
    {"connections_refused", &counters::connections_refused},
    {"messages_received", &counters::messages_received},
    {"messages_malformed", &counters::messages_malformed},
    {"messages_lost", &counters::messages_lost},
    {"remote_calls", &counters::remote_calls},
    {"remote_calls_failed", &counters::remote_calls_failed},
    {"scp_sent", &counters::scp_sent},
    {"scp_failed", &counters::scp_failed},
    {"route_cache_flushes", &counters::route_cache_flushes},
    {"history_records", &counters::history_records},
    {"interface_reads_torn", &counters::interface_reads_torn},
};
static_assert(sizeof COUNTERS / sizeof COUNTERS[0] == sizeof(counters) / sizeof(std::uint64_t));

void add_memory(answer_text &answer, const debug_request &)
{
    for (unsigned type = 0; type < mtrack_type_count(); ++type) {
        const mtrack_type_stats s = mtrack_stats(type);
        add_line(answer, "%u %s %" PRIu32 " %" PRIu64 " %" PRIu64 "\n", type, s.name, s.live_blocks, s.live_bytes,
                 s.peak_bytes);
    }
}

void add_counters(answer_text &answer, const debug_request &)
{
    for (const named_counter &c : COUNTERS)
        add_line(answer, "%s %" PRIu64 "\n", c.name, platform_counters.*c.value);
}

void add_routes(answer_text &answer, const debug_request &request)
{
    if (sdwrap_routes_text == nullptr)
        return add_line(answer, "end\n"); // a process without routes
    answer.bytes = sdwrap_routes_text(request.context, request.value, answer.text, sizeof answer.text);
}

void add_gates(answer_text &answer, const debug_request &)
{
    for (std::uint32_t id = SDWRAP_FIRST_CATEGORY; sdwrap_is_registered(id); ++id) {
        const std::uint32_t i = id - SDWRAP_FIRST_CATEGORY;
        const auto &contexts = sdwrap_gates.debug[i];
        const auto open = SDWRAP_CONTEXTS - std::count(contexts, contexts + SDWRAP_CONTEXTS, 0);
        add_line(answer, "%u %d %ld\n", id, sdwrap_gates.history[i] == 0 ? 1 : 0, static_cast<long>(open));
    }
}

void send_answer(int queue, std::uint32_t sap, const debug_request &request,
                 void (*add_lines)(answer_text &answer, const debug_request &request))
{
    if (sap == 0)
        return;
    answer_text answer;
    answer.bytes = 0;
    answer.full = false;
    add_lines(answer, request);
    const mts_address to = {MTS_NODE_LOCAL, sap};
    (void)mts_send(queue, &to, MTS_OPC_DEBUG_ANSWER, answer.text, answer.bytes); // a lost answer is counted
}

void serve(int queue, std::uint32_t sap, const debug_request &request)
{
    const bool is_switch = request.value <= 1;
    switch (request.verb) {
    case DEBUG_SWITCH_OUTPUT:
        if (is_switch)
            sdwrap_switch_debug(request.category, request.context, request.value == 1);
        break;
    case DEBUG_SWITCH_HISTORY:
        if (is_switch)
            sdwrap_switch_history(request.category, request.value == 1);
        break;
    case DEBUG_SHOW_MEMORY:
        send_answer(queue, sap, request, add_memory);
        break;
    case DEBUG_SET_THRESHOLD:
        if (sdwrap_sys_facility != nullptr)
            sdwrap_sys_facility->level = static_cast<std::uint8_t>(request.value);
        break;
    case DEBUG_SHOW_COUNTERS:
        send_answer(queue, sap, request, add_counters);
        break;
    case DEBUG_SHOW_ROUTES:
        send_answer(queue, sap, request, add_routes);
        break;
    case DEBUG_SHOW_GATES:
        send_answer(queue, sap, request, add_gates);
        break;
    default:
        break;
    }
}
} // namespace

int sdwrap_process_msg(int queue, const mts_message *message)
{
    if (message->opcode != MTS_OPC_DEBUG_REQUEST)
        return 1;
    if (message->length >= DEBUG_REQUEST_BYTES)
        serve(queue, message->source.sap, debug_request_get(message->payload));
    return 0;
}
