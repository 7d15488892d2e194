// sdwrap.cpp - the gates, debug lines and syslog.
//
// Before the history is set up a failure can only be seen on standard error, so the debug gate of the first category
// (errors) starts open.
// Always: a closed gate costs its caller one load; errno is left as it was, since a line's arguments are evaluated
// again for the next gate.
// Elsewhere: who switches the gates (debug_service.cpp), the history's records (sdwrap_history.cpp).
#include "sdwrap.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <syslog.h>
#include <unistd.h>

#include "mts_host.h"
#include "sdwrap_gates.h"

namespace
{
constexpr std::size_t TEXT_BYTES = 2048;

constexpr sdwrap_gate_table start_gates()
{
    sdwrap_gate_table gates = {};
    for (std::uint8_t &closed : gates.history)
        closed = 1;
    for (std::uint8_t &open : gates.debug[0])
        open = 1;
    return gates;
}

unsigned registered = 0; // categories, from SDWRAP_FIRST_CATEGORY on
bool syslog_is_open = false;

void open_syslog(const char *ident)
{
    openlog(ident, 0, LOG_DAEMON);
    syslog_is_open = true;
}

// The moment as "2026-01-31T23:59:59.000001Z".
void print_time(char *text, std::size_t room)
{
    timespec now = {};
    tm utc = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    (void)gmtime_r(&now.tv_sec, &utc);
    (void)std::snprintf(text, room, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", utc.tm_year + 1900, utc.tm_mon + 1,
                        utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, now.tv_nsec / 1000);
}

// Makes one line of a text: newlines at its ends go, those inside become blanks. Returns its start, ended by a NUL.
char *as_one_line(char *text)
{
    while (*text == '\n')
        ++text;
    char *end = text + std::strlen(text);
    while (end > text && end[-1] == '\n')
        --end;
    *end = '\0';
    std::replace(text, end, '\n', ' ');
    return text;
}

// First and past the last index in the tables that `category` means; both 0 for one that is not registered.
struct index_range {
    unsigned first, end;
};
index_range categories(std::uint32_t category)
{
    if (category == DEBUG_ALL_CATEGORIES)
        return {0, registered};
    const std::uint32_t i = category - SDWRAP_FIRST_CATEGORY;
    return i < registered ? index_range{i, i + 1} : index_range{0, 0};
}
} // namespace

constinit sdwrap_gate_table sdwrap_gates = start_gates();
const char *sdwrap_dbg_modname = "ROUTE Mgr";
syslog_facility *sdwrap_sys_facility = nullptr;

bool sdwrap_is_registered(std::uint32_t category) { return category - SDWRAP_FIRST_CATEGORY < registered; }

void sdwrap_switch_debug(std::uint32_t category, std::uint32_t context, bool open)
{
    const index_range range = categories(category);
    for (unsigned i = range.first; i < range.end; ++i) {
        if (context == DEBUG_ALL_CONTEXTS)
            std::memset(sdwrap_gates.debug[i], open ? 1 : 0, sizeof sdwrap_gates.debug[i]);
        else if (context < SDWRAP_CONTEXTS)
            sdwrap_gates.debug[i][context] = open ? 1 : 0;
    }
}

void sdwrap_switch_history(std::uint32_t category, bool open)
{
    const index_range range = categories(category);
    for (unsigned i = range.first; i < range.end; ++i)
        sdwrap_gates.history[i] = open ? 0 : 1;
}

void sdwrap_close_early_gate() { std::memset(sdwrap_gates.debug[0], 0, sizeof sdwrap_gates.debug[0]); }

int sdwrap_dbg_init(int queue, const char *module, const char *, unsigned count, const char *const *, unsigned,
                    unsigned, unsigned)
{
    if (!mts_is_bound(queue) || count > SDWRAP_MAX_CATEGORIES)
        return -1;
    sdwrap_dbg_modname = module;
    registered = count;
    return 0;
}

void sdwrap_dbg_clean(int) { std::memset(sdwrap_gates.debug, 0, sizeof sdwrap_gates.debug); }

int sdwrap_sys_init_helper(int queue, const char *ident, const char *, std::uint32_t, unsigned, unsigned, unsigned)
{
    if (!mts_is_bound(queue))
        return -1;
    open_syslog(ident);
    return 0;
}

void sdwrap_sys_clean(int)
{
    closelog();
    syslog_is_open = false;
}

void zumo_syslog(unsigned severity, const char *format, ...)
{
    const int error = errno;
    if (!syslog_is_open)
        open_syslog(sdwrap_dbg_modname); // a start-up that fails before its syslog is set up
    va_list args;
    va_start(args, format);
    vsyslog(static_cast<int>(std::min(severity, 7u)), format, args);
    va_end(args);
    errno = error;
}

void buginf_vcid(std::int32_t context, unsigned, const char *module, unsigned, const char *format, ...)
{
    const int error = errno;
    char text[TEXT_BYTES];
    va_list args;
    va_start(args, format);
    if (std::vsnprintf(text, sizeof text, format, args) < 0)
        text[0] = '\0';
    va_end(args);

    char moment[96];
    print_time(moment, sizeof moment);
    char line[TEXT_BYTES + 128];
    const int length =
        std::snprintf(line, sizeof line, "%s %.48s ctx %d: %s\n", moment, module, context, as_one_line(text));
    // One write a line, so that lines of several processes on one terminal do not mix.
    if (length > 0 && write(STDERR_FILENO, line, static_cast<std::size_t>(length)) < 0) {
        // Not reported: standard error is where a report would go.
    }
    errno = error;
}
