// watch_frame.h - one picture of the card, and how it is drawn.
//
// Always: the drawing depends on the picture, the size and the colour alone, so it is tested without a terminal.
// Elsewhere: gathering the picture (watch_data.cpp), the terminal (watch_term.cpp).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "card_view/card_summary.h"
#include "card_view/pools_view.h"

enum class manager_state {
    running,    // answers
    silent,     // has its sockets, does not answer in time
    starting,   // was not asked yet, or has not answered for the first time
    not_running // no process holds its sockets
};

struct watch_context {
    std::uint32_t ctx;
    context_summary counts;
};

// Changes a second, from the picture before this one.
struct watch_rates {
    double calls;    // served by the route manager, our own not counted
    double messages; // received by it, our own not counted
    double records;  // written to its history
    double words;    // of the table that differ
};

struct watch_error {
    std::uint64_t time_ns;
    int context; // -1: none
    std::string text;
};

// Live routes by kind, from the route manager's memory tracking.
struct watch_kinds {
    std::uint64_t hosts, statics, nat; // hosts: ARP hosts, addresses of interfaces, multicast drop entries
};

struct watch_frame {
    std::uint64_t time_ns = 0;
    std::string card; // the card directory
    manager_state state = manager_state::starting;
    std::string note; // why something is missing; empty: nothing is
    std::optional<pools_view> pools;
    std::optional<watch_kinds> kinds;
    std::optional<context_summary> total;
    std::vector<watch_context> contexts; // those that were ever given a route, in order
    std::optional<watch_rates> rates;
    std::vector<watch_error> errors; // newest last
};

struct watch_size {
    unsigned columns, rows;
};
constexpr watch_size WATCH_SIZE = {80, 24}; // when there is no terminal

enum class watch_colour { off, on };

// The picture as at most size.rows lines of at most size.columns columns, without line ends.
std::vector<std::string> watch_draw(const watch_frame &frame, watch_size size, watch_colour colour);

// The picture as data; what is not known is null.
nlohmann::ordered_json watch_json(const watch_frame &frame);

const char *manager_state_name(manager_state state);
