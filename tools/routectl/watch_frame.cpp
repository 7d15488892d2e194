// watch_frame.cpp - draws a picture of the card as text.
//
// From the top: state, pools, routes, rates; the rest of the height is shared by contexts and errors, errors last.
// Always: no line is wider and no picture higher than asked for; a line that counts the others ends a cut list.
#include "watch_frame.h"

#include <algorithm>

#include <fmt/format.h>

#include "card_view/history_view.h"

namespace
{
constexpr const char *BOLD = "\033[1m", *RED = "\033[31m", *YELLOW = "\033[33m", *GREEN = "\033[32m", *DIM = "\033[2m",
                     *PLAIN = "\033[0m";

// The text cut to `columns`. A character of several bytes is one column, and is not cut in the middle.
std::string cut(const std::string &text, unsigned columns)
{
    std::size_t at = 0;
    for (unsigned used = 0; at < text.size(); ++at) {
        const bool is_start = (static_cast<unsigned char>(text[at]) & 0xC0) != 0x80;
        if (is_start && used++ == columns)
            break;
    }
    return text.substr(0, at);
}

struct painter {
    watch_size size;
    watch_colour colour;
    std::vector<std::string> lines;
};

std::string paint(const painter &p, const char *style, const std::string &text)
{
    return p.colour == watch_colour::on && *style != '\0' ? style + text + PLAIN : text;
}

// Adds a line, one style for all of it.
void add(painter &p, const std::string &text, const char *style = "")
{
    if (p.lines.size() < p.size.rows)
        p.lines.push_back(paint(p, style, cut(text, p.size.columns)));
}

const char *state_style(manager_state state)
{
    return state == manager_state::running ? GREEN : state == manager_state::starting ? YELLOW : RED;
}

void draw_head(painter &p, const watch_frame &frame)
{
    add(p,
        fmt::format("route manager: {}   card {}   {:.19}Z", manager_state_name(frame.state), frame.card,
                    history_time(frame.time_ns)),
        state_style(frame.state));
    add(p, frame.note, YELLOW);
}

void draw_pool(painter &p, const pool_use &pool)
{
    constexpr unsigned AROUND = 36; // columns of a line beside its bar
    const unsigned width = p.size.columns > AROUND + 10 ? std::min(p.size.columns - AROUND, 60u) : 10;
    const unsigned used = std::min(pool.used, pool.total);
    const unsigned filled = (used * width + pool.total - 1) / pool.total; // one element is seen
    const char *const style = used * 10 >= pool.total * 9 ? RED : used * 10 >= pool.total * 7 ? YELLOW : GREEN;
    add(p,
        fmt::format("  {:7}[{}{}] {:4} of {:4}  {:5.1f}%", pool.name, std::string(filled, '#'),
                    std::string(width - filled, '.'), pool.used, pool.total, 100.0 * pool.used / pool.total),
        style);
}

void draw_pools(painter &p, const watch_frame &frame)
{
    if (!frame.pools) {
        add(p, "Pools: not known", BOLD);
        return;
    }
    add(p, "Pools (" + frame.pools->source + ")", BOLD);
    for (const pool_use &pool : frame.pools->pools)
        draw_pool(p, pool);
}

void draw_routes(painter &p, const watch_frame &frame)
{
    std::string text = "Routes ";
    if (frame.kinds)
        text += fmt::format(" hosts {}  static {}  NAT {}", frame.kinds->hosts, frame.kinds->statics, frame.kinds->nat);
    if (frame.total)
        text += fmt::format("  in the FIB {}", frame.total->in_fib);
    add(p, frame.kinds || frame.total ? text : text + " not known", BOLD);
    if (frame.rates)
        add(p, fmt::format("Rates   calls {:.1f}/s  messages {:.1f}/s  history {:.1f}/s  table words {:.1f}/s",
                           frame.rates->calls, frame.rates->messages, frame.rates->records, frame.rates->words));
    else
        add(p, "Rates   from the second look on");
}

void draw_contexts(painter &p, const watch_frame &frame, std::size_t rows)
{
    if (frame.contexts.empty() || rows < 2)
        return;
    add(p,
        fmt::format(" {:>4} {:>14} {:>7} {:>7} {:>6} {:>7} {:>5}", "CTX", "CONNECTED+NAT", "STATIC", "IN FIB", "NODES",
                    "LEAVES", "ECMP"),
        BOLD);
    const bool all_fit = frame.contexts.size() <= rows - 1;
    const std::size_t shown = all_fit ? frame.contexts.size() : rows - 2;
    for (std::size_t i = 0; i < shown; ++i) {
        const context_summary &c = frame.contexts[i].counts;
        add(p, fmt::format(" {:4} {:14} {:7} {:7} {:6} {:7} {:5}", frame.contexts[i].ctx, c.connected_nat, c.statics,
                           c.in_fib, c.nodes, c.leaves, c.blocks));
    }
    if (!all_fit)
        add(p, fmt::format("  and {} contexts more", frame.contexts.size() - shown), DIM);
}

void draw_errors(painter &p, const watch_frame &frame, std::size_t rows)
{
    if (rows == 0 || (rows == 1 && !frame.errors.empty()))
        return;
    add(p, frame.errors.empty() ? "No errors in the history" : "Last errors", BOLD);
    const std::size_t shown = std::min(frame.errors.size(), rows - 1);
    for (std::size_t i = frame.errors.size() - shown; i < frame.errors.size(); ++i) {
        const watch_error &error = frame.errors[i];
        const std::string who = error.context < 0 ? "" : fmt::format("ctx {}: ", error.context);
        add(p, fmt::format("  {}  {}{}", history_time(error.time_ns).substr(11, 8), who, error.text), RED);
    }
}
} // namespace

const char *manager_state_name(manager_state state)
{
    switch (state) {
    case manager_state::running:
        return "running";
    case manager_state::silent:
        return "not answering";
    case manager_state::not_running:
        return "not running";
    default:
        return "starting";
    }
}

std::vector<std::string> watch_draw(const watch_frame &frame, watch_size size, watch_colour colour)
{
    painter p = {size, colour, {}};
    draw_head(p, frame);
    draw_pools(p, frame);
    draw_routes(p, frame);
    const std::size_t used = p.lines.size();
    const std::size_t left = size.rows > used ? size.rows - used : 0;
    // Errors get what they need up to a third; contexts the rest.
    const std::size_t wanted = frame.contexts.empty() ? left : std::max<std::size_t>(left / 3, 2);
    const std::size_t errors = std::min({wanted, frame.errors.size() + 1, left});
    draw_contexts(p, frame, left - errors);
    draw_errors(p, frame, errors);
    return p.lines;
}

namespace
{
using json = nlohmann::ordered_json;

json counts_json(const context_summary &c)
{
    return {{"connected_nat", c.connected_nat},
            {"static", c.statics},
            {"in_fib", c.in_fib},
            {"nodes", c.nodes},
            {"leaves", c.leaves},
            {"ecmp", c.blocks}};
}

json pools_json(const pools_view &pools)
{
    json list = json::array();
    for (const pool_use &pool : pools.pools)
        list.push_back({{"pool", pool.name}, {"used", pool.used}, {"total", pool.total}});
    return list;
}
} // namespace

json watch_json(const watch_frame &frame)
{
    json contexts = json::array(), errors = json::array();
    for (const watch_context &c : frame.contexts) {
        json row = {{"ctx", c.ctx}};
        row.update(counts_json(c.counts));
        contexts.push_back(row);
    }
    for (const watch_error &e : frame.errors)
        errors.push_back({{"time", history_time(e.time_ns)},
                          {"ctx", e.context < 0 ? json(nullptr) : json(e.context)},
                          {"text", e.text}});
    json picture = {{"time", history_time(frame.time_ns)},
                    {"card", frame.card},
                    {"route_manager", manager_state_name(frame.state)},
                    {"note", frame.note}};
    picture["pools_source"] = frame.pools ? json(frame.pools->source) : json(nullptr);
    picture["pools"] = frame.pools ? pools_json(*frame.pools) : json(nullptr);
    picture["kinds"] =
        frame.kinds ? json({{"hosts", frame.kinds->hosts}, {"static", frame.kinds->statics}, {"nat", frame.kinds->nat}})
                    : json(nullptr);
    picture["total"] = frame.total ? counts_json(*frame.total) : json(nullptr);
    picture["contexts"] = contexts;
    picture["rates"] = frame.rates ? json({{"calls", frame.rates->calls},
                                           {"messages", frame.rates->messages},
                                           {"history_records", frame.rates->records},
                                           {"table_words", frame.rates->words}})
                                   : json(nullptr);
    picture["errors"] = errors;
    return picture;
}
