// sdwrap.h - debug output, syslog and event history, and the debug service that switches them.
//
// The two gates are a load and a test, in line here over a table that the linked implementation owns: a closed gate
// costs a caller nothing else.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mts.h"

constexpr unsigned SDWRAP_FIRST_CATEGORY = 100; // id of the first registered category
constexpr unsigned SDWRAP_MAX_CATEGORIES = 32;
constexpr unsigned SDWRAP_CONTEXTS = 256; // contexts with a gate of their own

// Gates by category (id - SDWRAP_FIRST_CATEGORY). history: 0 when open. debug: non-zero when open, by context, the
// last for every context outside 0 to 255.
struct sdwrap_gate_table {
    std::uint8_t history[SDWRAP_MAX_CATEGORIES];
    std::uint8_t debug[SDWRAP_MAX_CATEGORIES][SDWRAP_CONTEXTS + 1];
};
extern sdwrap_gate_table sdwrap_gates;

// Facility and message records of syslog.
struct syslog_facility {
    const char *name;
    std::uint32_t code;
    std::uint8_t default_level;
    std::uint8_t level; // threshold of the messages sent; the debug service sets it
};
struct syslog_message {
    const char *name;
    const syslog_facility *facility;
    const char *format;
    std::uint8_t severity;
};

extern const char *sdwrap_dbg_modname;       // module name of the debug lines, set by sdwrap_dbg_init
extern syslog_facility *sdwrap_sys_facility; // set by the process before sdwrap_sys_init_helper

// Registers the debug categories SDWRAP_FIRST_CATEGORY onwards by name. Returns 0, or -1 (queue not bound, or more than
// SDWRAP_MAX_CATEGORIES). The three words at the end are not used on a host.
[[nodiscard]] int sdwrap_dbg_init(int queue, const char *module, const char *title, unsigned count,
                                  const char *const *names, unsigned, unsigned, unsigned);
void sdwrap_dbg_clean(int queue); // closes every debug gate

[[nodiscard]] int sdwrap_sys_init_helper(int queue, const char *ident, const char *title, std::uint32_t facility,
                                         unsigned, unsigned, unsigned);
void sdwrap_sys_clean(int queue);

// Sends one syslog message: severity 0 to 7, then a printf format with its arguments.
[[gnu::format(printf, 2, 3)]] void zumo_syslog(unsigned severity, const char *format, ...);

// The history's default size, and the history of a component with `bytes` of ring (0: the default). The second closes
// the debug gate of the first category once there is a history. Return 0 or -1.
int sdwrap_hist_init(std::size_t bytes);
int sdwrap_hist_init_for_uuid(std::uint32_t component, std::size_t bytes);

// Switches a subtype (a category) of an event type on (1) or off (0).
int sdwrap_hist_set_event_subtype(std::uint32_t event_type, std::uint32_t subtype, unsigned on);

// 0 when records of this subtype are kept.
inline int sdwrap_hist_event_subtype_check(std::uint32_t event_type, std::uint32_t subtype)
{
    (void)event_type; // one component a process
    const std::uint32_t i = subtype - SDWRAP_FIRST_CATEGORY;
    return i < SDWRAP_MAX_CATEGORIES ? sdwrap_gates.history[i] : 1;
}

// Appends a record of `bytes` bytes to the history of the event type's component (its upper 16 bits).
int sdwrap_hist_event(std::uint32_t event_type, std::size_t bytes, const void *record);

// Non-zero when debug output of `category` is on for `context`.
inline int sdwrap_chk_int_vcid(std::uint32_t category, unsigned, unsigned, unsigned, std::int32_t context)
{
    const std::uint32_t i = category - SDWRAP_FIRST_CATEGORY;
    const std::uint32_t ctx = static_cast<std::uint32_t>(context);
    return i < SDWRAP_MAX_CATEGORIES ? sdwrap_gates.debug[i][ctx < SDWRAP_CONTEXTS ? ctx : SDWRAP_CONTEXTS] : 0;
}

// Writes one debug line: time, module, context and the formatted text.
[[gnu::format(printf, 5, 6)]] void buginf_vcid(std::int32_t context, unsigned, const char *module, unsigned,
                                               const char *format, ...);

// Defined by a process that has routes, for the debug service: writes the answer to DEBUG_SHOW_ROUTES (debug_service.h)
// for `context`, any number, from its `first`-th route on. room: at least 64 bytes. Returns the bytes written, no NUL.
[[gnu::weak]] std::size_t sdwrap_routes_text(std::uint32_t context, std::uint32_t first, char *text, std::size_t room);

// Handles a message that is the platform's own. Returns 1 when it is not and the caller has to, else 0.
[[nodiscard]] int sdwrap_process_msg(int queue, const mts_message *message);
