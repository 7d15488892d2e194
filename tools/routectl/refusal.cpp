// refusal.cpp - finds the history line of a refused call.
//
// The route manager answers a refusal with a number and logs the reason before it answers. So the line is among those
// logged since the call was made. Others may have called meanwhile, hence a line of the same context that names an
// address of the change is preferred.
// Always: lines are used in the order of the calls, in which the route manager works; a line that was found uses up all
// before it.
#include "refusal.h"

#include <algorithm>

#include "card_dir.h"
#include "route_ids.h"

namespace
{
// The messages of an install that failed are logged under this context, whatever the route's is.
constexpr int INSTALL_CONTEXT = 0;

void errors_read(refusal_watch &watch)
{
    if (!watch.view.is_open())
        return;
    std::vector<history_entry> records;
    (void)history_read(watch.view, records); // however it ended, what was read is used
    for (history_entry &record : records)
        if (record.category == ROUTE_DBG_ERRORS)
            watch.errors.push_back(std::move(record));
}

// Whether a number in the text, hexadecimal as all addresses of the log are, is one of the change's addresses. Shorter
// numbers are other things: lengths, encapsulation ids.
bool names_address(const std::string &text, const routectl_change &change)
{
    constexpr const char *DIGITS = "0123456789abcdef";
    constexpr std::size_t SHORTEST = 5, LONGEST = 8;
    for (std::size_t at = text.find_first_of(DIGITS); at != std::string::npos;) {
        const std::size_t end = std::min(text.find_first_not_of(DIGITS, at), text.size());
        if (end - at >= SHORTEST && end - at <= LONGEST) {
            const std::uint64_t number = std::stoull(text.substr(at, end - at), nullptr, 16);
            if (number >= change.address && number <= change.last)
                return true;
        }
        at = text.find_first_of(DIGITS, end);
    }
    return false;
}

bool is_of_context(const history_entry &record, const routectl_change &change)
{
    return record.context == static_cast<int>(change.ctx) || record.context == INSTALL_CONTEXT;
}

std::string line_of(const history_entry &record, const std::string &procedure)
{
    std::string line = history_line(record);
    if (line.rfind(procedure + ":", 0) == 0)
        line.erase(0, procedure.size() + 1);
    line.erase(0, line.find_first_not_of(' '));
    while (!line.empty() && line.back() == ' ')
        line.pop_back();
    return line;
}
} // namespace

refusal_watch refusal_watch_start()
{
    refusal_watch watch;
    watch.view = history_open_errors(card_dir_path(), ROUTE_HIST_ID, &watch.why);
    if (watch.view.is_open())
        watch.view.next = history_head(watch.view);
    return watch;
}

std::string refusal_line(refusal_watch &watch, const routectl_change &change, refusal_match match)
{
    errors_read(watch);
    auto found = watch.errors.end();
    for (auto at = watch.errors.begin(); at != watch.errors.end(); ++at) {
        if (!is_of_context(*at, change))
            continue;
        if (names_address(history_line(*at), change)) {
            found = at;
            break;
        }
        if (match == refusal_match::alone && found == watch.errors.end())
            found = at;
    }
    if (found == watch.errors.end())
        return "";
    std::string line = line_of(*found, change.procedure);
    watch.errors.erase(watch.errors.begin(), found + 1);
    return line;
}

routectl_answer change_judge(const routectl_change &change, const card_rpc_reply &reply, refusal_watch &watch,
                             refusal_match match)
{
    if (!reply.ran())
        return routectl_not_run(reply.end, change.procedure);
    if (reply.result == 0 && !change.answers_nothing)
        return {};
    const std::string line = refusal_line(watch, change, reply.result == 0 ? refusal_match::one_of_many : match);
    if (reply.result == 0 && line.empty())
        return {};
    routectl_answer answer = routectl_error(ROUTECTL_REFUSED, "refused: " + line);
    if (line.empty())
        answer.error = watch.view.is_open() ? "refused; the event history has no line that says why"
                                            : "refused; there is no event history that says why: " + watch.why;
    answer.facts["reason"] = line.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(line);
    return answer;
}

routectl_answer change_run(const routectl_call &call)
{
    const routectl_change change = call.command.change(call);
    if (!change.error.empty())
        return routectl_error(ROUTECTL_USAGE, change.error);
    refusal_watch watch = refusal_watch_start();
    const card_rpc_reply reply = routectl_ask(call, change.procedure, change.args);
    return change_judge(change, reply, watch, refusal_match::alone);
}
