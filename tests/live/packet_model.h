// packet_model.h - what a live card does with a packet, said a second time and plainly.
//
// The model looks at bytes, one after the other, and counts every checksum anew; of the program it shares nothing but
// the names of the reasons and the flow's hash. The table is searched by the walk of tools/ixp.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "ixp_lookup.h"
#include "live_card.h"

namespace harness
{
using frame_bytes = std::vector<std::uint8_t>;

struct model_port {
    std::uint32_t ifindex; // of its device; 0: none
    std::uint64_t mac;     // as live_mac gives it
    std::uint32_t ctx, mtu;
    bool bound = true, open = true;
};

struct model_card {
    ixp_table table{};
    std::map<std::uint32_t, model_port> ports;     // by interface id
    std::map<std::uint32_t, std::uint64_t> encaps; // known neighbours: encap id -> MAC address
    std::set<std::uint32_t> held;                  // contexts
    std::set<std::uint32_t> own;                   // the host's own addresses
};

struct model_decision {
    live_reason reason;
    std::uint32_t in_port = 0; // under which it counts
    std::uint32_t ifid = 0, encap = 0, path = 0;
    frame_bytes frame; // what leaves, or what goes to the kernel
};

// What becomes of a frame that comes in over the device `ifindex`, while the table is searched and alive.
model_decision model_judge(const model_card &card, std::uint32_t ifindex, const frame_bytes &frame);

// A good packet to build others from.
struct packet_form {
    std::uint64_t to = 0, from = 0x222222222202; // MAC addresses
    std::uint32_t source = 0x0A090807, destination = 0;
    std::uint8_t ttl = 64, protocol = 17;
    std::uint16_t source_port = 1000, destination_port = 2000;
    std::uint16_t id = 1, fragment = 0;
    std::uint16_t payload_bytes = 26; // behind the IP header
    std::uint16_t trailing_bytes = 0; // behind the IP packet
    std::uint32_t tag = 0;            // the first payload bytes behind the ports
};
frame_bytes packet_of(const packet_form &form);
void packet_fix_checksum(frame_bytes &frame); // of a header of 20 bytes

std::uint64_t mac_of(std::uint8_t last); // 02:00:00:00:00:last
} // namespace harness
