// debug_service.h - requests to a process's debug service, and its answers.
//
// A request is a message of opcode MTS_OPC_DEBUG_REQUEST with four big-endian words. An answer, MTS_OPC_DEBUG_ANSWER,
// is text: lines ended by a newline, no NUL, cut behind the last line that fits a message.
#pragma once

#include <cstddef>
#include <cstdint>

#include "big_endian.h"

enum debug_verb : std::uint32_t {
    DEBUG_SWITCH_OUTPUT = 1,  // debug output of `category` on (value 1) or off (0), for `context`
    DEBUG_SWITCH_HISTORY = 2, // history of `category` on or off
    DEBUG_SHOW_MEMORY = 3,    // answered: "<type> <name> <live blocks> <live bytes> <peak bytes>" for each type
    DEBUG_SET_THRESHOLD = 4,  // syslog threshold of the facility: `value`
    DEBUG_SHOW_COUNTERS = 5,  // answered: "<name> <value>" for each of the platform's counters
    // Answered with what an operator gave `context`, from the `value`-th route on (from 0), in the table's order
    // (length, bucket, chain; a set's members behind their head): "<a.b.c.d>/<length> <next hop> <route id>
    // waiting|installed" for a static route, "<a.b.c.d>/<length> nat <interface> <value> waiting|installed" for a NAT
    // prefix; behind as many as fit "more <number of the next>" or "end". What comes or goes between two requests may
    // be missed or told twice.
    DEBUG_SHOW_ROUTES = 6,
    DEBUG_SHOW_GATES = 7, // answered: "<category> <history 0|1> <debug: contexts open, 0 to 256>" for each category
};

constexpr std::uint32_t DEBUG_ALL_CATEGORIES = 0, DEBUG_ALL_CONTEXTS = 0xFFFFFFFF;

struct debug_request {
    std::uint32_t verb, category, context, value;
};

constexpr std::size_t DEBUG_AT_VERB = 0, DEBUG_AT_CATEGORY = 4, DEBUG_AT_CONTEXT = 8, DEBUG_AT_VALUE = 12,
                      DEBUG_REQUEST_BYTES = 16;

// A request as it travels: DEBUG_REQUEST_BYTES at `to`, or at least as many at `from`.
constexpr void debug_request_put(std::uint8_t *to, const debug_request &request)
{
    put_be32(to + DEBUG_AT_VERB, request.verb);
    put_be32(to + DEBUG_AT_CATEGORY, request.category);
    put_be32(to + DEBUG_AT_CONTEXT, request.context);
    put_be32(to + DEBUG_AT_VALUE, request.value);
}
constexpr debug_request debug_request_get(const std::uint8_t *from)
{
    return {get_be32(from + DEBUG_AT_VERB), get_be32(from + DEBUG_AT_CATEGORY), get_be32(from + DEBUG_AT_CONTEXT),
            get_be32(from + DEBUG_AT_VALUE)};
}
