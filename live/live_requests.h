// live_requests.h - the gateways that the route manager has asked the ARP service for.
//
// Each request counts; the first makes the gateway a neighbour that the kernel keeps known, the last that is withdrawn
// ends that. The requests of a route manager that has gone are dropped once the next one has made its own, so that what
// both want stays known.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <utility>

struct live_requests {
    std::map<std::pair<std::uint32_t, std::uint32_t>, unsigned> counts;   // by context and address
    std::map<std::pair<std::uint32_t, std::uint32_t>, int> managed;       // the link that the kernel looks for it on
    std::function<int(std::uint32_t ctx, std::uint32_t address)> link_of; // its ifindex; 0: none
    std::function<void(int ifindex, std::uint32_t address, bool is_wanted)> manage;
};

void live_requests_change(live_requests &requests, std::uint32_t ctx, std::uint32_t address, bool is_wanted);
// A route manager has started: it makes its own requests.
void live_requests_forget(live_requests &requests);
// Makes what is asked for managed where it is to be found now, and no other.
void live_requests_run(live_requests &requests);
