// watch_data.cpp - the rounds in which the picture is gathered.
//
// Pools come from the route manager while it answers, else from counting in the mapped table of the first copy that is
// there. Rates are differences between rounds divided by the time between them, without what these rounds themselves
// cause. Errors are followed in the history's ring, so they stay on the picture when the ring has overwritten
// them.
#include "watch_data.h"

#include <algorithm>
#include <deque>
#include <map>

#include "card_dir.h"
#include "card_view/debug_view.h"
#include "card_view/history_view.h"
#include "card_view/table_view.h"
#include "route_ids.h"

using steady = std::chrono::steady_clock;

namespace
{
constexpr std::size_t ERRORS_KEPT = 100;

// The counts of a round, kept for the rates of the next.
struct round_marks {
    steady::time_point time;
    std::optional<std::map<std::string, std::uint64_t>> counters;
    std::uint64_t own_calls = 0, own_messages = 0;
};
} // namespace

struct watch_data {
    std::string card;
    card_rpc_ptr rpc;
    std::chrono::milliseconds timeout;
    int queue = -1; // for the debug service

    bool is_running = false;               // a round is under way
    std::shared_ptr<card_summary> summary; // asked for first in a round
    bool asked_debug = false;              // after it, so that the counters hold all of our own calls
    steady::time_point asked_debug_at;
    debug_answer answer;
    std::uint64_t own_calls = 0, own_messages = 0;

    table_view table;
    std::vector<std::uint32_t> words; // of the table, in the last round
    std::size_t changed_words = 0;
    history_view history;
    std::deque<watch_error> errors;

    std::optional<round_marks> last;
    watch_frame frame;
};

void watch_data_delete::operator()(watch_data *data) const { delete data; }

namespace
{
bool has_owner() { return card_dir_owner(("rpc/" + std::to_string(ROUTE_RPC_ENDPOINT)).c_str()) == card_owner::other; }

// Opens the first copy that is there, or opens it again when its file was replaced.
void look_at_table(watch_data &data)
{
    if (!mapped_file_is_current(data.table.file, table_path(data.card, data.table.copy))) {
        std::string why;
        data.words.clear();
        for (const table_copy copy : {COPY_WIRED, COPY_IXP1, COPY_IXP2}) {
            data.table = table_open(data.card, copy, card_conf_get(), &why);
            if (data.table.is_open())
                break;
        }
    }
    data.changed_words = data.table.is_open() ? table_changed_words(data.table, data.words) : 0;
}

void look_at_history(watch_data &data)
{
    std::string why;
    std::vector<history_entry> entries;
    if (!data.history.is_open())
        data.history = history_open_errors(data.card, ROUTE_HIST_ID, &why);
    if (data.history.is_open() && history_read(data.history, entries) == history_end::replaced)
        data.history = history_open_errors(data.card, ROUTE_HIST_ID, &why);
    for (const history_entry &entry : entries)
        if (entry.category == ROUTE_DBG_ERRORS)
            data.errors.push_back({entry.time_ns, entry.context, history_line(entry)});
    while (data.errors.size() > ERRORS_KEPT)
        data.errors.pop_front();
}

void ask_debug_service(watch_data &data)
{
    data.asked_debug_at = steady::now();
    data.asked_debug = data.queue >= 0 && debug_view_send(data.queue, {DEBUG_SHOW_MEMORY, 0, 0, 0}) &&
                       debug_view_send(data.queue, {DEBUG_SHOW_COUNTERS, 0, 0, 0});
    data.own_messages += data.asked_debug ? 2 : 0;
}

bool is_debug_over(const watch_data &data)
{
    return !data.asked_debug || (!data.answer.memory.empty() && !data.answer.counters.empty()) ||
           steady::now() - data.asked_debug_at >= data.timeout;
}

watch_kinds kinds_of(const std::vector<debug_memory> &memory)
{
    const auto live = [&](std::uint32_t type) {
        for (const debug_memory &m : memory)
            if (m.type == type)
                return m.live_blocks;
        return std::uint64_t{0};
    };
    return {live(MTRACK_ROUTE_ENTRY_1), live(MTRACK_ROUTE_ENTRY_3), live(MTRACK_ROUTE_ENTRY_2)};
}

double per_second(std::uint64_t from, std::uint64_t to, std::uint64_t own, double seconds)
{
    const std::uint64_t difference = to >= from ? to - from : 0; // a route manager that was started anew counts from 0
    return static_cast<double>(difference > own ? difference - own : 0) / seconds;
}

std::uint64_t value_of(const std::map<std::string, std::uint64_t> &counters, const char *name)
{
    const auto found = counters.find(name);
    return found == counters.end() ? 0 : found->second;
}

std::optional<watch_rates> rates_of(const watch_data &data, const round_marks &marks)
{
    if (!data.last)
        return std::nullopt;
    const double seconds = std::max(std::chrono::duration<double>(marks.time - data.last->time).count(), 0.001);
    watch_rates rates = {0, 0, 0, static_cast<double>(data.changed_words) / seconds};
    if (!marks.counters || !data.last->counters)
        return rates;
    const auto rate = [&](const char *name, std::uint64_t own) {
        return per_second(value_of(*data.last->counters, name), value_of(*marks.counters, name), own, seconds);
    };
    rates.calls = rate("calls_served", marks.own_calls - data.last->own_calls);
    rates.messages = rate("messages_received", marks.own_messages - data.last->own_messages);
    rates.records = rate("history_records", 0);
    return rates;
}

void show_summary(watch_data &data)
{
    watch_frame &frame = data.frame;
    frame.contexts.clear();
    frame.total.reset();
    frame.pools.reset();
    if (data.summary->is_good()) {
        frame.pools = pools_from_summary(*data.summary);
        frame.total = card_summary_total(*data.summary);
        for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
            if (!(data.summary->contexts[ctx] == CONTEXT_UNUSED))
                frame.contexts.push_back({ctx, data.summary->contexts[ctx]});
    } else if (data.table.is_open()) {
        frame.pools = pools_from_table(data.table);
    }
}

// Says why the answers are missing.
void show_state(watch_data &data)
{
    watch_frame &frame = data.frame;
    frame.note.clear();
    if (data.summary->is_good()) {
        frame.state = manager_state::running;
        return;
    }
    frame.state = has_owner() ? manager_state::silent : manager_state::not_running;
    frame.note = !data.summary->refused.empty() ? "the route manager " + data.summary->refused
                                                : card_rpc_reason(data.summary->failed, data.summary->procedure);
    frame.note += data.table.is_open() ? "; pools are counted in the tables it left" : "; there are no tables";
}

void end_round(watch_data &data)
{
    data.is_running = false;
    round_marks marks = {steady::now(), std::nullopt, data.own_calls, data.own_messages};
    if (!data.answer.counters.empty())
        marks.counters = data.answer.counters;
    data.frame.time_ns = history_time_before(0);
    data.frame.kinds.reset();
    if (!data.answer.memory.empty())
        data.frame.kinds = kinds_of(data.answer.memory);
    data.frame.rates = rates_of(data, marks);
    data.last = std::move(marks);
    show_summary(data);
    show_state(data);
    data.frame.errors.assign(data.errors.begin(), data.errors.end());
}
} // namespace

watch_data_ptr watch_data_open(unsigned timeout_ms, int queue)
{
    watch_data_ptr data(new watch_data);
    data->card = card_dir_path();
    data->queue = queue;
    data->timeout = std::chrono::milliseconds(timeout_ms);
    data->rpc = card_rpc_open("show_fib_summary", timeout_ms);
    data->frame.card = data->card;
    data->frame.time_ns = history_time_before(0);
    return data;
}

void watch_data_start(watch_data &data)
{
    if (data.is_running)
        return;
    data.is_running = true;
    data.asked_debug = false;
    data.answer = {};
    look_at_table(data);
    look_at_history(data);
    data.summary = card_summary_ask(*data.rpc);
    data.own_calls += data.summary->waiting;
}

bool watch_data_is_over(const watch_data &data) { return !data.is_running; }

int watch_data_poll(const watch_data &data, std::vector<pollfd> &set)
{
    if (card_rpc_fd(*data.rpc) >= 0)
        set.push_back({card_rpc_fd(*data.rpc), card_rpc_events(*data.rpc), 0});
    if (data.queue >= 0)
        set.push_back({data.queue, POLLIN, 0});
    if (!data.is_running || !data.asked_debug)
        return card_rpc_timeout_ms(*data.rpc);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(data.asked_debug_at + data.timeout - steady::now());
    return std::max(0, static_cast<int>(left.count()));
}

bool watch_data_process(watch_data &data)
{
    card_rpc_process(*data.rpc);
    while (data.queue >= 0) {
        const std::optional<debug_answer> answer = debug_view_take(data.queue);
        if (!answer)
            break;
        if (!answer->memory.empty())
            data.answer.memory = answer->memory;
        if (!answer->counters.empty())
            data.answer.counters = answer->counters;
    }
    if (!data.is_running || !data.summary->is_over())
        return false;
    if (data.summary->is_good() && !data.asked_debug)
        ask_debug_service(data);
    if (!is_debug_over(data))
        return false;
    end_round(data);
    return true;
}

const watch_frame &watch_data_frame(const watch_data &data) { return data.frame; }
