// history_commands.cpp - the event history, as it is now or as it grows.
//
// Read from the ring in the card directory, so it can be read after the route manager has died as well.
// Always: a follower says once what is missing, and each time how much was overwritten before it could be read.
#include <cstdio>

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_view/history_view.h"
#include "output.h"
#include "route_ids.h"
#include "routectl_commands.h"
#include "run_signals.h"

namespace
{
using json = nlohmann::ordered_json;
constexpr int LOOK_MS = 100; // how often the ring is looked at while it is followed

history_filter filter_of(const routectl_call &call)
{
    history_filter filter;
    if (const std::uint32_t category = routectl_number(call, "category", 0); category != 0) // 0: all
        filter.categories.push_back(category);
    if (const routectl_value *ctx = routectl_given(call, "ctx"))
        filter.contexts.push_back(ctx->number);
    filter.since_ns = routectl_since(call);
    return filter;
}

json record_json(const history_entry &entry)
{
    return {{"time", history_time(entry.time_ns)},
            {"category", entry.category},
            {"name", history_category_name(entry.category)},
            {"ctx", entry.context < 0 ? json(nullptr) : json(entry.context)},
            {"text", history_line(entry)}};
}

std::string record_plain(const history_entry &entry, bool colour)
{
    const char *const on = !colour                               ? ""
                           : entry.category == ROUTE_DBG_ERRORS  ? "\033[31m"
                           : entry.category == ROUTE_DBG_WARNING ? "\033[33m"
                                                                 : "";
    return fmt::format("{}  {:<11}  ctx {:>3}  {}{}{}\n", history_time(entry.time_ns),
                       history_category_name(entry.category), entry.context < 0 ? "-" : std::to_string(entry.context),
                       on, history_line(entry), *on != '\0' ? "\033[0m" : "");
}

std::string record_text(const routectl_options &options, const history_entry &entry)
{
    if (options.json)
        return output_json(record_json(entry)) + "\n";
    if (!options.oneline)
        return record_plain(entry, options.colour);
    routectl_answer one;
    one.records_key = "records";
    one.records.push_back(record_json(entry));
    return output_lines(one);
}

// Errors alone are read from their own ring, where traces do not push them out.
history_view open_for(const history_filter &filter, std::string *why)
{
    const bool errors_alone = filter.categories == std::vector<std::uint32_t>{ROUTE_DBG_ERRORS};
    return (errors_alone ? history_open_errors : history_open)(card_dir_path(), ROUTE_HIST_ID, why);
}

// The newest `last` of those that pass.
std::vector<history_entry> chosen(const std::vector<history_entry> &entries, const history_filter &filter,
                                  std::size_t last)
{
    std::vector<history_entry> passing;
    for (const history_entry &entry : entries)
        if (history_passes(filter, entry))
            passing.push_back(entry);
    if (passing.size() > last)
        passing.erase(passing.begin(), passing.end() - static_cast<std::ptrdiff_t>(last));
    return passing;
}

routectl_answer history_print(const routectl_call &call, const history_filter &filter, std::size_t last)
{
    std::string why;
    history_view view = open_for(filter, &why);
    if (!view.is_open())
        return routectl_error(ROUTECTL_UNREACHABLE, why);
    std::vector<history_entry> entries;
    const bool is_damaged = history_read(view, entries) == history_end::damaged;
    routectl_answer answer;
    answer.facts = {{"damaged", is_damaged}};
    answer.records_key = "records";
    for (const history_entry &entry : chosen(entries, filter, last)) {
        answer.records.push_back(record_json(entry));
        answer.text += record_plain(entry, call.options.colour);
    }
    if (is_damaged)
        answer.text += "the history is damaged: what follows cannot be read\n";
    if (answer.text.empty())
        answer.text = "no records\n";
    return answer;
}

// What has been reported about the file, so that it is reported once.
struct follow_state {
    history_view view;
    std::uint64_t lost_reported = 0;
    bool absent_reported = false;
};

bool write_text(const std::string &text)
{
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
}

// Reads what is new. Opens the history once it exists, and again when it was replaced.
std::vector<history_entry> follow_step(follow_state &state, const history_filter &filter)
{
    std::vector<history_entry> entries;
    std::string why;
    if (!state.view.is_open()) {
        state.view = open_for(filter, &why);
        if (!state.view.is_open()) {
            if (!state.absent_reported)
                std::fprintf(stderr, "routectl: %s; waiting for it\n", why.c_str());
            state.absent_reported = true;
            return entries;
        }
        state.lost_reported = 0;
    }
    const history_end end = history_read(state.view, entries);
    if (state.view.lost > state.lost_reported)
        std::fprintf(stderr, "routectl: %s bytes of the history %s\n",
                     std::to_string(state.view.lost - state.lost_reported).c_str(),
                     end == history_end::damaged ? "are damaged" : "were overwritten before they could be read");
    state.lost_reported = state.view.lost;
    if (end == history_end::replaced)
        state.view = {};
    return entries;
}

routectl_answer history_follow(const routectl_call &call, const history_filter &filter, std::size_t last)
{
    follow_state state;
    int ended_by = 0;
    {
        const run_signals signals;
        bool is_over = false;
        while (!is_over) {
            for (const history_entry &entry : chosen(follow_step(state, filter), filter, last))
                is_over = is_over || !write_text(record_text(call.options, entry));
            last = SIZE_MAX; // only of what was there at the start
            // A pipe whose reader has gone is reported as an error without being asked for.
            pollfd set[] = {{signals.fd, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
            (void)poll(set, 2, LOOK_MS);
            is_over = is_over || (set[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
            for (int signo = run_signals_take(signals); signo != 0; signo = run_signals_take(signals)) {
                if (signo == SIGTSTP)
                    (void)raise(SIGSTOP); // goes on here
                else if (signo != SIGWINCH)
                    ended_by = signo, is_over = true;
            }
        }
    }
    run_signals_end_by(ended_by);
    routectl_answer answer;
    answer.is_printed = true;
    return answer;
}

routectl_answer history_run(const routectl_call &call)
{
    const history_filter filter = filter_of(call);
    const std::size_t last = routectl_given(call, "last") == nullptr ? SIZE_MAX : routectl_number(call, "last", 0);
    return routectl_given(call, "follow") != nullptr ? history_follow(call, filter, last)
                                                     : history_print(call, filter, last);
}

constexpr routectl_command ROWS[] = {
    {"history", "[follow] [category CATEGORY] [age AGE] [ctx CTX] [last N]",
     "Show the event history, or follow it until interrupted", history_run},
};
} // namespace

std::span<const routectl_command> routectl_history_commands() { return ROWS; }
