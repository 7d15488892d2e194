// debug_commands.cpp - the debug service of the route manager, and how full the pools are.
//
// A switch is a message without an answer. So a question is sent after it, and messages are handled in order.
// Always: a switch is reported as done only once the question after it was answered.
#include "card_dir.h"
#include "card_view/history_view.h"
#include "card_view/pools_view.h"
#include "debug_ask.h"
#include "mts.h"
#include "route_ids.h"
#include "routectl_commands.h"

namespace
{
using json = nlohmann::ordered_json;

// Sends a switch and waits until it is known to be handled.
routectl_answer throw_switch(const routectl_call &call, const debug_request &request)
{
    routectl_answer answer;
    if (!debug_queue_open(call) || !debug_view_send(call.session.queue, request))
        return debug_silent("cannot be reached: its message queue has no reader or is full," + routectl_where());
    (void)debug_ask(call, DEBUG_SHOW_COUNTERS, answer);
    return answer;
}

// The choice "on|off" has "on" as its first.
bool is_on(const routectl_call &call) { return routectl_number(call, "on", 0) == 0; }

routectl_answer debug_switch(const routectl_call &call)
{
    const std::uint32_t ctx = routectl_number(call, "ctx", DEBUG_ALL_CONTEXTS);
    routectl_answer answer =
        throw_switch(call, {DEBUG_SWITCH_OUTPUT, routectl_number(call, "category", 0), ctx, is_on(call) ? 1u : 0u});
    if (answer.status == ROUTECTL_DONE)
        answer.facts = {{"category", routectl_given(call, "category")->text},
                        {"ctx", ctx == DEBUG_ALL_CONTEXTS ? json("all") : json(ctx)},
                        {"debug", is_on(call) ? "on" : "off"}};
    return answer;
}

routectl_answer keep_switch(const routectl_call &call)
{
    routectl_answer answer = throw_switch(
        call, {DEBUG_SWITCH_HISTORY, routectl_number(call, "category", 0), DEBUG_ALL_CONTEXTS, is_on(call) ? 1u : 0u});
    if (answer.status == ROUTECTL_DONE)
        answer.facts = {{"category", routectl_given(call, "category")->text}, {"history", is_on(call) ? "on" : "off"}};
    return answer;
}

routectl_answer syslog_level(const routectl_call &call)
{
    const std::uint32_t level = routectl_number(call, "level", 0);
    routectl_answer answer = throw_switch(call, {DEBUG_SET_THRESHOLD, 0, 0, level});
    if (answer.status == ROUTECTL_DONE)
        answer.facts = {{"level", level}};
    return answer;
}

routectl_answer memory_show(const routectl_call &call)
{
    routectl_answer answer;
    const std::optional<debug_answer> said = debug_ask(call, DEBUG_SHOW_MEMORY, answer);
    if (!said)
        return answer;
    answer.records_key = "types";
    answer.columns = {{"type", "TYPE"},
                      {"name", "NAME"},
                      {"live_blocks", "BLOCKS"},
                      {"live_bytes", "BYTES"},
                      {"peak_bytes", "PEAK BYTES"}};
    for (const debug_memory &m : said->memory)
        answer.records.push_back({{"type", m.type},
                                  {"name", m.name},
                                  {"live_blocks", m.live_blocks},
                                  {"live_bytes", m.live_bytes},
                                  {"peak_bytes", m.peak_bytes}});
    return answer;
}

routectl_answer counters_show(const routectl_call &call)
{
    routectl_answer answer;
    const std::optional<debug_answer> said = debug_ask(call, DEBUG_SHOW_COUNTERS, answer);
    if (!said)
        return answer;
    answer.records_key = "counters";
    answer.columns = {{"name", "NAME"}, {"value", "VALUE"}};
    for (const auto &[name, value] : said->counters)
        answer.records.push_back({{"name", name}, {"value", value}});
    return answer;
}

routectl_answer pools_answer(const pools_view &view)
{
    routectl_answer answer;
    answer.facts["source"] = view.source;
    answer.records_key = "pools";
    answer.columns = {{"pool", "POOL"}, {"used", "USED"}, {"free", "FREE"}, {"total", "TOTAL"}, {"percent", "%"}};
    for (const pool_use &pool : view.pools)
        answer.records.push_back({{"pool", pool.name},
                                  {"used", pool.used},
                                  {"free", pool.total - pool.used},
                                  {"total", pool.total},
                                  {"percent", pool.used * 100 / pool.total}});
    return answer;
}

routectl_answer pools_direct(const routectl_call &call)
{
    std::string why;
    const auto copy = static_cast<table_copy>(routectl_number(call, "copy", COPY_WIRED));
    const table_view view = table_open(card_dir_path(), copy, card_conf_get(), &why);
    if (!view.is_open())
        return routectl_error(ROUTECTL_UNREACHABLE, why);
    return pools_answer(pools_from_table(view));
}

routectl_answer pools_show(const routectl_call &call)
{
    if (routectl_given(call, "--direct") != nullptr || routectl_given(call, "copy") != nullptr)
        return pools_direct(call);
    const auto summary = card_summary_ask(routectl_route_manager(call));
    routectl_answer answer = routectl_query_wait(call, *summary);
    if (answer.status == ROUTECTL_UNREACHABLE)
        answer.error += ROUTECTL_TRY_DIRECT;
    return answer.status == ROUTECTL_DONE ? pools_answer(pools_from_summary(*summary)) : answer;
}

constexpr routectl_command ROWS[] = {
    {"debug", "CATEGORY on|off [ctx CTX]", "Switch the debug output of a category", debug_switch},
    {"keep", "CATEGORY on|off", "Switch whether the event history keeps a category", keep_switch},
    {"syslog", "LEVEL", "Set the least severe level that goes to syslog", syslog_level},
    {"memory", "", "Show the route manager's memory, by what it is for", memory_show},
    {"counters", "", "Show the platform's counters of the route manager", counters_show},
    {"pools", "[--direct] [copy COPY]", "Show how full the pools of the hardware tables are", pools_show},
};
} // namespace

std::span<const routectl_command> routectl_debug_commands() { return ROWS; }
