// watch_commands.cpp - the live view: pictures of the card on the whole screen until a key or a signal ends it.
//
// One loop waits for everything at once: a key, a signal, an answer, the time for the next round.
// Always: a silent route manager delays no key, and the terminal is restored before a signal ends the process.
#include <algorithm>
#include <cerrno>
#include <chrono>

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include "card_view/debug_view.h"
#include "routectl_commands.h"
#include "run_signals.h"
#include "watch_data.h"
#include "watch_term.h"

namespace
{
using steady = std::chrono::steady_clock;
constexpr std::uint32_t EVERY_S = 1, EVERY_MOST_S = 3600;
constexpr int LOOK_MS = 1000; // at the latest, whatever else is waited for

struct watch_state {
    watch_data_ptr data;
    watch_term term;
    watch_colour colour;
    std::chrono::seconds every;
    steady::time_point next; // round
    bool is_over = false;
    int ended_by = 0; // signal
};

bool show(watch_state &state)
{
    const watch_size size = watch_term_size();
    std::vector<std::string> lines =
        watch_draw(watch_data_frame(*state.data), {size.columns, size.rows - 1}, state.colour);
    const std::string keys = fmt::format("q: quit   r: look again now   every {} s", state.every.count());
    lines.push_back(keys.substr(0, size.columns));
    return watch_term_show(lines);
}

void start_when_due(watch_state &state)
{
    if (steady::now() < state.next || !watch_data_is_over(*state.data))
        return;
    watch_data_start(*state.data);
    state.next = steady::now() + state.every;
}

int wait_ms(const watch_state &state, int data_ms)
{
    int wait = data_ms < 0 ? LOOK_MS : std::min(data_ms, LOOK_MS);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(state.next - steady::now()).count();
    if (watch_data_is_over(*state.data))
        wait = static_cast<int>(std::clamp<long long>(left, 0, wait));
    return wait;
}

// A key, or the end of the keyboard.
void take_keys(watch_state &state)
{
    char keys[64];
    const ssize_t count = read(STDIN_FILENO, keys, sizeof keys);
    state.is_over = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
    for (ssize_t i = 0; i < count; ++i) {
        if (keys[i] == 'q' || keys[i] == 'Q')
            state.is_over = true;
        if (keys[i] == 'r' || keys[i] == 'R')
            state.next = steady::now();
    }
}

void take_signal(watch_state &state, int signo)
{
    if (signo == SIGTSTP) {
        (void)watch_term_leave(state.term);
        (void)raise(SIGSTOP); // goes on here
        (void)watch_term_enter(state.term);
    }
    if (signo == SIGTSTP || signo == SIGWINCH) {
        state.is_over = !show(state) || state.is_over;
        return;
    }
    state.is_over = true;
    state.ended_by = signo;
}

void watch_loop(watch_state &state, const run_signals &signals)
{
    state.is_over = !watch_term_enter(state.term) || !show(state);
    while (!state.is_over) {
        start_when_due(state);
        if (watch_data_process(*state.data) && !show(state))
            break;
        std::vector<pollfd> set = {{signals.fd, POLLIN, 0}, {state.term.has_keys ? STDIN_FILENO : -1, POLLIN, 0}};
        const int data_ms = watch_data_poll(*state.data, set);
        if (poll(set.data(), set.size(), wait_ms(state, data_ms)) <= 0)
            continue;
        if (set[1].revents != 0)
            take_keys(state);
        for (int signo = run_signals_take(signals); signo != 0; signo = run_signals_take(signals))
            take_signal(state, signo);
    }
}

watch_data_ptr open_data(const routectl_call &call)
{
    if (call.session.queue < 0)
        call.session.queue = debug_view_open(); // without one, what the debug service knows is missing
    return watch_data_open(call.options.timeout_ms, call.session.queue);
}

// One round, whether or not the route manager answers.
routectl_answer watch_once(const routectl_call &call)
{
    constexpr unsigned HEAD_ROWS = 10, ERROR_ROWS = 10;
    const watch_data_ptr data = open_data(call);
    watch_data_start(*data);
    while (!watch_data_process(*data)) {
        std::vector<pollfd> set;
        const int data_ms = watch_data_poll(*data, set);
        (void)poll(set.data(), set.size(), data_ms < 0 ? LOOK_MS : std::min(data_ms, LOOK_MS));
    }
    const watch_frame &frame = watch_data_frame(*data);
    routectl_answer answer;
    answer.facts = watch_json(frame);
    if (call.options.oneline)
        return answer;
    const auto rows = static_cast<unsigned>(HEAD_ROWS + frame.contexts.size() + ERROR_ROWS);
    for (const std::string &line : watch_draw(frame, {watch_term_size().columns, rows},
                                              call.options.colour ? watch_colour::on : watch_colour::off))
        answer.text += line + "\n";
    return answer;
}

routectl_answer watch_on(const routectl_call &call, std::uint32_t every)
{
    watch_state state = {open_data(call), {}, watch_colour::off, std::chrono::seconds(every), steady::now()};
    state.colour = call.options.colour ? watch_colour::on : watch_colour::off;
    {
        const run_signals signals;
        watch_loop(state, signals);
        (void)watch_term_leave(state.term); // before a signal ends the process
    }
    run_signals_end_by(state.ended_by);
    routectl_answer answer;
    answer.is_printed = true;
    return answer;
}

routectl_answer watch_run(const routectl_call &call)
{
    const std::uint32_t every = routectl_number(call, "every", EVERY_S);
    if (every < 1 || every > EVERY_MOST_S)
        return routectl_error(ROUTECTL_USAGE, fmt::format("every {}: 1 to 3600 seconds", every));
    if (routectl_given(call, "--once") != nullptr || call.options.json || call.options.oneline)
        return watch_once(call);
    if (isatty(STDOUT_FILENO) != 1)
        return routectl_error(ROUTECTL_USAGE, "watch needs a terminal; watch --once prints one picture");
    return watch_on(call, every);
}

constexpr routectl_command ROWS[] = {
    {"watch", "[--once] [every N]", "Show pools, routes, rates and errors live, looking again every N seconds",
     watch_run},
};
} // namespace

std::span<const routectl_command> routectl_watch_commands() { return ROWS; }
