// live_plan.h - what the card should hold, from what the kernel has and what the operator says.
//
// For each context: its ports, the gateways and other hosts to announce, and for each prefix the gateways of its route
// or that its packets go up, to the kernel. Pure: the same state gives the same plan, in whatever steps it came about.
// Always: an address that the plan answers with a port leaves as the kernel would send it at that moment; whatever can
// not be told exactly goes up, or its context is held back.
// The entries that an interface makes by its IF_UP event (LIVE_OWN_ROUTES) are not among the routes, nor is what the
// program sends up by itself (live_plan_is_passed_by).
// Elsewhere: the kernel's own rules (kernel_state.h), how the card is brought there (live_sync.h).
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kernel_state.h"
#include "live_conf.h"
#include "live_room.h"

constexpr std::uint32_t LIVE_UP_GATEWAY = 0x7F000001;  // the card's own gateway of what goes up: 127.0.0.1
constexpr std::size_t LIVE_MAX_PATHS = 8;              // of one route
constexpr std::uint8_t LIVE_RULE_PROTOCOL = 202;       // by which the card's rules are found again
constexpr std::uint32_t LIVE_RULE_PREFERENCE = 20'000; // of the card's rules, before that of main

struct live_plan_port {
    std::string name;
    std::uint32_t ctx = 0;
    std::uint32_t id = 0; // interface id; 0 while it is not bound
    bool is_bound = false;
    std::string why_not; // it is not bound, in words
    bool is_up = false;  // bound, and administratively up
    // The address that IF_UP is sent for. Length 0: no event, the port stands in the database only.
    std::uint32_t address = 0;
    std::uint32_t length = 0;
    bool operator==(const live_plan_port &) const = default;
};

struct live_path {
    std::uint32_t gateway = 0;
    int ifindex = 0;
    auto operator<=>(const live_path &) const = default;
};

struct live_route {
    std::vector<live_path> paths; // sorted, 1 to LIVE_MAX_PATHS; empty: it goes up
    std::string why_up;           // in words; empty where there are paths
    bool operator==(const live_route &other) const { return paths == other.paths; }
};

struct live_host {
    int ifindex = 0;
    std::uint32_t uses = 0; // routes with a path through it; 0: no gateway, but a known neighbour
    bool operator==(const live_host &) const = default;
};

struct live_contents {
    std::map<kernel_prefix, live_route> routes;
    std::map<std::uint32_t, live_host> hosts; // gateways, known or not, and known neighbours
    bool operator==(const live_contents &) const = default;
};

struct live_context {
    std::uint32_t table = KERNEL_TABLE_MAIN;
    std::vector<std::uint32_t> tables; // as the kernel searches them for its packets, while that is known
    std::string held_back;             // why all its packets have to go up, in words; empty: they need not
    bool has_room = true;              // false: not even for `own`; the card holds nothing of it
    std::set<kernel_prefix> own;       // the entries that the interfaces of its ports make, all of which go up
    live_contents wanted;              // what it would hold if there were room for all
    live_contents card;                // what it is to hold
    std::vector<kernel_prefix> cut;    // wanted routes that were sent up or left out for want of room
    live_need own_need, need;          // of `own` and the card's gateway; of these and `wanted`
    bool operator==(const live_context &) const = default;
};

struct live_plan {
    std::map<int, live_plan_port> ports;            // by ifindex: what exists, bound or not
    std::vector<std::string> missing;               // links that the operator named and that do not exist
    std::map<std::uint32_t, live_context> contexts; // those that have a bound port
    std::vector<kernel_rule> rules;                 // that the kernel has to have, in no order
    live_room need;                                 // of all that is wanted
    live_room used;                                 // by what the card is to hold
    bool operator==(const live_plan &) const = default;
};

// Interface ids that links have had, by ifindex: they keep them.
using live_ids = std::map<int, std::uint32_t>;

// The whole plan. room: what the pools have for it.
live_plan live_plan_make(const kernel_state &state, const live_conf &conf, const live_ids &ids, const live_room &room);

// The prefixes and hosts of contexts of which a plan says something else than before.
struct live_scope {
    bool is_whole = false;                                    // ports, rules or contexts held back may have, too
    std::set<std::pair<std::uint32_t, kernel_prefix>> routes; // context and prefix
    std::set<std::pair<std::uint32_t, std::uint32_t>> hosts;  // context and address
    bool empty() const { return !is_whole && routes.empty() && hosts.empty(); }
};

// Takes the changes of the state into the plan, which is then what live_plan_make gives. A changed route costs what
// depends on it and no walk of all routes; a changed port, address or rule costs a new plan.
live_scope live_plan_update(live_plan &plan, const kernel_state &state, const live_conf &conf, const live_ids &ids,
                            const live_room &room, const kernel_changes &changes);

// --- The parts.

// Ports, contexts and rules, without hosts and routes. A context for whose ports there is no room is held back, and
// they get no event.
live_plan live_plan_frame(const kernel_state &state, const live_conf &conf, const live_ids &ids, const live_room &room);
// The wanted route of one prefix. Returns whether there is one.
bool live_plan_route(const kernel_state &state, const live_plan &frame, std::uint32_t ctx, const kernel_prefix &prefix,
                     live_route *route);
// Whether a neighbour of this address is to be announced although no route goes through it, and its port.
bool live_plan_neighbour(const kernel_state &state, const live_plan &frame, std::uint32_t ctx, std::uint32_t address,
                         int *ifindex);
// Makes `card` and `cut` of each context, and `used`, from `wanted`. What does not fit is sent up with the smallest
// range around it for which there is an entry; where no entry covers it, it is left out, and goes up as a miss.
void live_plan_fit(live_plan &plan, const live_room &room);

// Whether every packet to this prefix is sent up by the program itself, before it searches.
bool live_plan_is_passed_by(const kernel_prefix &prefix);

// The entries that the route manager makes for an interface: its address, its subnet, its network and its broadcast.
constexpr std::size_t LIVE_OWN_ROUTES = 4;
std::array<kernel_prefix, LIVE_OWN_ROUTES> live_plan_own_routes(std::uint32_t address, std::uint32_t length);

// How the card answers an address by this plan: the paths, or none when it goes up.
std::vector<live_path> live_plan_lookup(const live_plan &plan, std::uint32_t ctx, std::uint32_t address);
