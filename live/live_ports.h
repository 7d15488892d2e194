// live_ports.h - the ports of the card in the maps: the program on its links, what binds them and what closes them.
//
// Always: a link is bound only when the program is on it; a port is open only while its link is up and has a carrier.
// Elsewhere: which links are ports (live_plan.h), the maps (live_maps.h).
#pragma once

#include <functional>
#include <map>
#include <string>

#include "kernel_state.h"
#include "live_maps.h"
#include "live_plan.h"

struct live_port_state {
    bool is_attached = false;
    live_mode mode = live_mode::generic;
    std::string why_generic; // empty when it is native
    std::string failed;      // why it is not on its link; empty when it is
    bool is_bound = false, is_open = false;
    live_port stored = {}; // as bound and opened
};

struct live_ports {
    std::map<int, live_port_state> ports; // by ifindex
    std::function<void(const std::string &line)> say;
};

// What an earlier process left: its attachments stay until the plan says otherwise.
void live_ports_adopt(live_ports &ports, const live_maps &maps);
// The interface ids that links had, from the maps.
live_ids live_ports_ids(const live_maps &maps);

// Closes what is down, at once. `links`: those that may have changed.
void live_ports_close(live_ports &ports, live_maps &maps, const kernel_state &state, const std::set<int> &links);
// Brings attachments and words to what the plan says.
void live_ports_apply(live_ports &ports, live_maps &maps, const live_plan &plan, const kernel_state &state);
// Closes ports that were attached natively and whose drivers take frames of other ports no more, which no message
// tells. Returns whether there was one: live_ports_apply attaches it anew.
[[nodiscard]] bool live_ports_check(live_ports &ports, live_maps &maps);
// Tells the program the host's own addresses: those of its links, and all that the table local answers. The kernel
// drops what names one of them as its source, or may do so.
void live_ports_set_own(live_maps &maps, const kernel_state &state);
