// kernel_world.h - a kernel's state as a test writes it down, and how such a kernel forwards, in the plainest form.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kernel_state.h"
#include "live_plan.h"

namespace harness
{
std::uint32_t ip(const std::string &dotted);
kernel_prefix net(const std::string &slashed); // "10.1.0.0/16"

// A kernel with loopback and the three standard rules.
struct kernel_world {
    kernel_state state;
    live_conf conf;
    kernel_world();

    // An Ethernet link that is up, has a carrier and forwards.
    kernel_link &link(int ifindex, const std::string &name);
    // An address with what the kernel makes of it: its entries in the table local, and its subnet in main.
    void address(int ifindex, const std::string &slashed);
    void neighbour(int ifindex, const std::string &address, bool is_known = true);
    // The routes of a prefix, instead of those that it has.
    void routes(std::uint32_t table, const std::string &prefix, std::vector<kernel_route> routes);
    void via(const std::string &prefix, const std::vector<std::pair<std::string, int>> &hops,
             std::uint32_t table = KERNEL_TABLE_MAIN);
    void own_rules(); // those that the plan wants
    void add_rule(const kernel_rule &rule);
    void statements(const std::string &text);

    live_plan plan(const live_room &room = LIVE_ROOM_ALL) const;
};
kernel_route route_of(std::uint8_t type, const std::vector<std::pair<std::string, int>> &hops = {});
kernel_rule rule_of(std::uint32_t preference, std::uint32_t table, const std::string &iif = "");

// Where a packet that comes in over `link` leaves: the neighbours, any of which may be chosen. None: it does not leave
// as a plain forwarded packet. Every entry of every table is looked at in turn.
using kernel_exits = std::set<std::pair<std::uint32_t, int>>; // address of the neighbour, ifindex
kernel_exits exits_of(const kernel_state &state, const std::string &link, std::uint32_t address, std::uint8_t tos);

// The first and the last address of every prefix of tables and plan, and those just outside.
std::set<std::uint32_t> boundaries_of(const kernel_state &state, const live_plan &plan);

// For a failure's text: what a plan says, line by line; the routes of a prefix.
std::string shown(const live_plan &plan);
std::string shown(const std::vector<kernel_route> &routes);
} // namespace harness
