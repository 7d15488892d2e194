// debug_ask.cpp - sends a question to the debug service and waits for its answer.
//
// Always: the wait is no longer than the time-out of the run, whatever else arrives at the queue.
#include "debug_ask.h"

#include <chrono>

#include <poll.h>

#include "card_dir.h"

namespace
{
using steady = std::chrono::steady_clock;

// Waits for the answer to a request of `verb`; late answers to earlier requests are skipped.
std::optional<debug_answer> answer_wait(const routectl_call &call, std::uint32_t verb)
{
    const auto deadline = steady::now() + std::chrono::milliseconds(call.options.timeout_ms);
    for (;;) {
        while (std::optional<debug_answer> answer = debug_view_take(call.session.queue))
            if (verb == DEBUG_SHOW_MEMORY ? !answer->memory.empty() : !answer->counters.empty())
                return answer;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady::now()).count();
        pollfd waited{call.session.queue, POLLIN, 0};
        if (left <= 0)
            return std::nullopt;
        (void)poll(&waited, 1, static_cast<int>(left)); // whatever ends it, the queue is read
    }
}
} // namespace

routectl_answer debug_silent(const std::string &what)
{
    return routectl_error(ROUTECTL_UNREACHABLE, "the route manager " + what);
}

bool debug_queue_open(const routectl_call &call)
{
    if (call.session.queue < 0)
        call.session.queue = debug_view_open();
    return call.session.queue >= 0;
}

std::optional<debug_answer> debug_ask(const routectl_call &call, std::uint32_t verb, routectl_answer &error)
{
    if (!debug_queue_open(call)) {
        error = routectl_error(ROUTECTL_UNREACHABLE, "no message queue can be opened in " + card_dir_path());
        return std::nullopt;
    }
    while (debug_view_take(call.session.queue))
        ; // answers to questions that were given up
    if (!debug_view_send(call.session.queue, {verb, 0, 0, 0})) {
        error = debug_silent("cannot be reached: its message queue has no reader or is full," + routectl_where());
        return std::nullopt;
    }
    std::optional<debug_answer> answer = answer_wait(call, verb);
    if (!answer)
        error = debug_silent("did not answer the debug service's request in time");
    return answer;
}
