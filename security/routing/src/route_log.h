// route_log.h - the one logging step: a line to the event history, to the debug output, to both or to neither.
#pragma once

#include <cstdint>

#include "route_ids.h"
#include "sdwrap.h"

// Formats "<Ctx:%d>" and the message into one history record of `category`.
[[gnu::format(printf, 3, 4)]] void route_log_history(std::uint32_t category, std::uint32_t ctx, const char *format,
                                                     ...);

// A macro, because the arguments are evaluated once for each gate that is open and not at all when both are closed.
// The debug gate sees the 16-bit context sign-extended.
#define route_log(category, ctx, ...)                                                                                  \
    do {                                                                                                               \
        if (sdwrap_hist_event_subtype_check(ROUTE_HIST_EVENT, (category)) == 0)                                        \
            route_log_history((category), (ctx), __VA_ARGS__);                                                         \
        if (sdwrap_chk_int_vcid((category), 0, 0, 1, static_cast<std::int16_t>(ctx)) != 0)                             \
            buginf_vcid(static_cast<std::int16_t>(ctx), 1, sdwrap_dbg_modname, 0, __VA_ARGS__);                        \
    } while (0)

// Appends a formatted line to the debug file in /tmp and prints it. level: not used.
[[gnu::format(printf, 2, 3)]] void routemgr_mydebug(int level, const char *format, ...);
