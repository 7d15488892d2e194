// live_sync.h - from the plan to the card: what the route manager was told, and the next changes towards the plan.
//
// Plain state and rules, without sockets or clocks. Whatever leaves goes through sync_outside; what comes back
// (answers, barriers) is handed in. A rule never waits: it issues changes that may run side by side, and goes on when
// all of a context's are answered. What is left to do is found anew each time, from what is wanted and what was told.
//
// Always, of every context that is not held back: at each moment each of its addresses is answered by the table that is
// searched as before the change under way, or as after it, or goes to the kernel.
// - Without holding it back only this is done: hosts are announced; routes come and get paths, longest prefixes first;
//   then prefixes go, shortest first; then hosts are withdrawn. In between no address meets a prefix that is neither
//   its old nor its new one. A path is taken after the paths that stay were added.
// - For all else the context's word is stored and a barrier passed: an interface's events, a host that moves, a prefix
//   whose kind changes, a full set, a prefix that longer ones fill, pools without room for old and new together, a call
//   that was refused or not answered. Then routes go, hosts go, interfaces go, and all comes again in reverse order.
// - A route's gateway is announced before it and withdrawn after it, so no route waits.
// - An encap id names one neighbour on one port. It is given back when no table names it, its word is clear and a
//   barrier has passed.
// - A host is told once. What may have been told (a call that was not answered) is taken back first.
// Elsewhere: what is wanted (live_plan.h), sockets and maps (cardlive.cpp), what the route manager does with repeated
// reports, gaps and mixed kinds (docs/known-behaviour.md), the order in full (docs/live-card.md).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "card_service/if_db.h"
#include "card_tool/card_rpc.h"
#include "kernel_state.h"
#include "live_card.h"
#include "live_room.h"

constexpr std::uint32_t SYNC_UP_GATEWAY = 0x7F000001; // 127.0.0.1: routes through it go to the kernel
constexpr std::uint32_t SYNC_UP_IFID = 8190;          // interface id of that gateway, in no event
constexpr std::uint32_t SYNC_UP_ENCAP = 0x8002;       // its encap id: none that the route manager gives
constexpr std::uint32_t SYNC_FIRST_ENCAP = 1, SYNC_LAST_ENCAP = LIVE_ENCAPS - 1;
constexpr std::size_t SYNC_SET_PATHS = 8;                  // of a route at most
constexpr std::uint64_t SYNC_RETRY_MS = 1000;              // after a refusal; doubled each time, to 64 times that
constexpr unsigned SYNC_FLUSH_CALLS = 2 * CARD_RPC_WINDOW; // after a call that was not answered

// ---- What is wanted ----

struct sync_port {
    std::uint32_t ctx = 0, address = 0, mask = 0; // address 0: none
    bool is_up = false;
    bool has_event = false; // its routes are the route manager's: told by IF_UP
    bool operator==(const sync_port &) const = default;
};

struct sync_host {
    std::uint32_t ifid = 0;
    std::uint64_t mac = 0; // as live_mac gives it; 0: not known now
    bool operator==(const sync_host &) const = default;
};

using sync_gateways = std::set<std::uint32_t>; // 1 to 8; SYNC_UP_GATEWAY among them goes up

// ---- What the route manager was told ----

// is_sure: the route manager has it. Otherwise it may have it, and nothing is said about it before retry_ms.
struct sync_told_path {
    bool is_sure = false;
    std::uint64_t retry_ms = 0;
};
struct sync_told_host {
    std::uint32_t ifid = 0, encap = 0;
    bool is_sure = false;
    std::uint64_t retry_ms = 0;
};

// What may stand at a prefix of the tables.
constexpr unsigned SYNC_ROUTE = 1, SYNC_HOST = 2, SYNC_INTERFACE = 4;

struct sync_told {
    std::map<kernel_prefix, std::map<std::uint32_t, sync_told_path>> routes; // paths by gateway
    std::map<std::uint32_t, sync_told_host> hosts;
    std::map<std::uint32_t, std::set<kernel_prefix>> via; // routes by gateway
    std::map<std::uint32_t, sync_port> ports;             // by interface id, those that IF_UP was sent for
    std::map<kernel_prefix, unsigned> kinds;              // what stands where
    live_need need;                                       // of the pools
};

struct sync_context {
    // Wanted.
    bool is_bound = false;
    std::string held_by_plan; // why the plan holds it back; empty: it does not
    std::map<kernel_prefix, sync_gateways> routes;
    std::map<std::uint32_t, sync_host> hosts;
    // Told.
    sync_told told;
    // What the table holds that is searched, while the route manager writes the other one or is away.
    std::optional<sync_told> frozen;
    std::set<kernel_prefix> routes_due; // wanted and told differ
    std::set<std::uint32_t> hosts_due;
    unsigned pending = 0;                                                 // changes that are not answered
    std::map<std::pair<kernel_prefix, std::uint32_t>, unsigned> refusals; // in a row, by prefix and gateway (0: a host)
    // Its word.
    bool forwards = false;         // as stored
    std::uint64_t held_ticket = 0; // barrier after which no packet is under way by its table
    std::string why_held;          // in words
    bool is_compared = false;      // `frozen` with what is wanted, since either changed
};

struct sync_encap {
    std::uint32_t ctx = 0, address = 0, ifid = 0;
    std::uint64_t mac = 0;           // as stored
    std::uint64_t retire_ticket = 0; // 0: in use; else given back when this barrier has passed
};

enum class sync_phase {
    away,    // no route manager
    telling, // it is told everything, into a table that is not searched
    serving, // its table is searched
};
// The steps before the route manager's table is searched.
enum class sync_stage { telling, extra, told, verifying, verified };

// What leaves. Nothing is called back from inside.
struct sync_outside {
    std::function<void(std::uint32_t encap, std::uint64_t mac)> encap; // mac 0: its packets go to the kernel
    std::function<void(std::uint32_t ctx, bool forwards)> forwards;
    // Asks for sync_barrier_passed with this or a later ticket, when every run of the program that began before this
    // call has ended.
    std::function<void(std::uint64_t ticket)> barrier;
    std::function<void(std::uint32_t ifid, const if_db_record &record)> record;
    std::function<void(std::uint32_t opcode, const std::vector<std::uint8_t> &payload)> event;
    std::function<void(std::function<void()> passed)> mark; // behind the events before it
    std::function<void(const std::string &procedure, const std::vector<card_rpc_arg> &args, card_rpc_done done)> call;
    std::function<void()> give_extra; // the operator's own routes; sync_extra_given follows
    std::function<void()> verify;     // the route manager's table against the kernel; sync_verified follows
    std::function<void()> search;     // the route manager's table from now on
    std::function<void(const std::string &line)> say;
};

struct live_sync {
    sync_outside out;
    std::uint64_t now_ms = 0; // set before the rules are used
    sync_phase phase = sync_phase::away;
    sync_stage stage = sync_stage::telling;
    bool has_changed = false; // what was told, since it was verified
    std::array<sync_context, LIVE_CONTEXTS> contexts;
    std::map<std::uint32_t, sync_port> ports;                        // wanted, by interface id
    std::map<std::uint32_t, sync_encap> encaps;                      // by id
    std::map<std::array<std::uint32_t, 3>, std::uint32_t> encap_ids; // by context, address, interface id
    std::uint32_t next_encap = SYNC_FIRST_ENCAP;
    std::uint64_t epoch = 0; // of the route manager: counts its starts and ends
    std::uint64_t last_ticket = 0, passed_ticket = 0;
    std::uint64_t switch_ticket = 0; // of the last switch between the tables
    unsigned flushes = 0;            // calls behind which no earlier one can still run
    bool needs_flush = false;
    live_room used; // by all that was told
};

// Starts: every context is held back until the barrier has passed. The maps and the database are as they were left.
void sync_open(live_sync &s);

// ---- What is wanted. Null: no more. ----
void sync_want_context(live_sync &s, std::uint32_t ctx, bool is_bound, const std::string &held_by_plan);
void sync_want_port(live_sync &s, std::uint32_t ifid, const sync_port *port);
void sync_want_host(live_sync &s, std::uint32_t ctx, std::uint32_t address, const sync_host *host);
void sync_want_route(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, const sync_gateways *gateways);

// ---- What comes back ----
void sync_arrived(live_sync &s); // a route manager has started: it knows nothing, and writes the other table
void sync_departed(live_sync &s);
void sync_barrier_passed(live_sync &s, std::uint64_t ticket);
void sync_extra_given(live_sync &s);
void sync_verified(live_sync &s, bool is_right);

// A route manager that was there before us. is_searched: the table that it writes is the one that is searched. What it
// lists follows; nothing is told before sync_run.
void sync_adopt(live_sync &s, bool is_searched);
void sync_adopt_port(live_sync &s, std::uint32_t ifid, const sync_port &port);
void sync_adopt_host(live_sync &s, std::uint32_t ctx, std::uint32_t address, const sync_told_host &host,
                     std::uint64_t mac);
void sync_adopt_route(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway);

// Goes on as far as can be without waiting.
void sync_run(live_sync &s);
// The time at which sync_run has something to do of its own; UINT64_MAX: none.
std::uint64_t sync_next_ms(const live_sync &s);

// Whether everything wanted is told and answered, in one context and in all.
bool sync_is_settled(const live_sync &s, std::uint32_t ctx);
bool sync_is_settled(const live_sync &s);
