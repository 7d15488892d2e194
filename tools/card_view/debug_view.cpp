// debug_view.cpp - asks the debug service and decodes its lines.
//
// Always: only what the route manager's own address sent counts as an answer; other messages are read and dropped.
#include "debug_view.h"

#include <array>
#include <sstream>

#include "mts.h"
#include "route_ids.h"

int debug_view_open()
{
    std::uint32_t sap = 0;
    return mts_bind_free(&sap, "routectl");
}

bool debug_view_send(int queue, const debug_request &request)
{
    constexpr mts_address ROUTE_MANAGER = {MTS_NODE_LOCAL, ROUTE_MGR_SAP};
    std::array<std::uint8_t, DEBUG_REQUEST_BYTES> payload;
    debug_request_put(payload.data(), request);
    return mts_send(queue, &ROUTE_MANAGER, MTS_OPC_DEBUG_REQUEST, payload.data(), payload.size()) == 0;
}

std::optional<debug_answer> debug_view_take(int queue)
{
    constexpr mts_recv_options OPTIONS{};
    constexpr unsigned TRIES = 64; // a queue holds some ten
    mts_message message;
    for (unsigned i = 0; i < TRIES && mts_recv(queue, &message, &OPTIONS) == 0; ++i) {
        const bool is_answer = message.opcode == MTS_OPC_DEBUG_ANSWER && message.source.sap == ROUTE_MGR_SAP;
        const std::string text(reinterpret_cast<const char *>(message.payload), message.length);
        mts_drop(queue, &message);
        if (is_answer)
            return debug_view_parse(text);
    }
    return std::nullopt;
}

debug_answer debug_view_parse(std::string_view text)
{
    debug_answer answer;
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        debug_memory memory{};
        std::string name, rest;
        std::uint64_t value = 0;
        std::istringstream as_memory(line), as_counter(line);
        if (as_memory >> memory.type >> memory.name >> memory.live_blocks >> memory.live_bytes >> memory.peak_bytes &&
            !(as_memory >> rest))
            answer.memory.push_back(std::move(memory));
        else if (as_counter >> name >> value && !(as_counter >> rest))
            answer.counters[name] = value;
    }
    return answer;
}
