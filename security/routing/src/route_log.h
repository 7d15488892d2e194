// route_log.h - the one logging step: a line to the event history, to the debug output, to both or to neither.
#pragma once

#include <cstddef>
#include <cstdint>

#include "history_file.h"
#include "line_format.h"
#include "route_ids.h"
#include "sdwrap.h"

// Makes one history record of `category` with the line. The format comes a second time, since it leads the macro's
// arguments.
template <line_literal F, class... Args>
[[gnu::noinline]] void route_log_history(std::uint32_t category, std::uint32_t ctx, const char *, Args... args)
{
    struct history_record {
        std::uint32_t category;
        line_text<F, std::uint32_t, Args...> text;
    } record;
    static_assert(offsetof(history_record, text) == HISTORY_AT_TEXT && LINE_LIMIT == HISTORY_TEXT_BYTES);
    record.category = category;
    const std::size_t length = line_format<F>(record.text, ctx, args...);
    (void)sdwrap_hist_event(ROUTE_HIST_EVENT, HISTORY_AT_TEXT + length + 1, &record);
}

// A macro, because the arguments are evaluated once for each gate that is open and not at all when both are closed.
// The debug gate sees the 16-bit context sign-extended.
#define route_log(category, ctx, ...)                                                                                  \
    do {                                                                                                               \
        if (sdwrap_hist_event_subtype_check(ROUTE_HIST_EVENT, (category)) == 0)                                        \
            route_log_history<"<Ctx:%d>" ROUTE_LOG_FORMAT(__VA_ARGS__)>((category), (ctx), __VA_ARGS__);               \
        if (sdwrap_chk_int_vcid((category), 0, 0, 1, static_cast<std::int16_t>(ctx)) != 0)                             \
            buginf_vcid(static_cast<std::int16_t>(ctx), 1, sdwrap_dbg_modname, 0, __VA_ARGS__);                        \
    } while (0)
#define ROUTE_LOG_FORMAT(format, ...) format

// Appends a formatted line to the debug file in /tmp and prints it. level: not used.
[[gnu::format(printf, 2, 3)]] void routemgr_mydebug(int level, const char *format, ...);
