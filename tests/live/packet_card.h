// packet_card.h - a live card of a test: maps of its own, and frames run through the program one at a time.
#pragma once

#include <cstdint>
#include <string>

#include "live_maps.h"
#include "packet_model.h"

namespace harness
{
constexpr std::uint32_t LOOPBACK = 1; // its ifindex in every network namespace

// Why this process can have no packet program at all; empty: it can, and one that the kernel refuses is a failure.
const std::string &packet_card_missing();

struct packet_card {
    live_maps maps;
    explicit packet_card(const std::string &folder = "");
    ~packet_card() { live_maps_close(maps); }
    packet_card(const packet_card &) = delete;
    packet_card &operator=(const packet_card &) = delete;

    void take_table(unsigned table, const ixp_table &from); // its words
    void take(const model_card &card);                      // ports, neighbours, contexts and addresses

    // Runs the attached program `times` times on a frame that came in over a device of this network namespace. Answers
    // its action, -1 when it could not be run; `frame` becomes what it left.
    int run(frame_bytes &frame, std::uint32_t ifindex = LOOPBACK, std::uint32_t times = 1) const;
    live_trace trace(frame_bytes &frame, std::uint32_t ifindex = LOOPBACK) const;
    live_counters counters(std::uint32_t ifid) const;
    std::uint64_t forwarded() const; // by all ports
};

// A network namespace that the test is in while this stands.
struct net_space {
    net_space();
    ~net_space();
    net_space(const net_space &) = delete;
    net_space &operator=(const net_space &) = delete;
    int before;
};
void command(const std::string &line); // by the shell; a test failure when it fails
std::uint32_t index_of(const std::string &device);
std::uint64_t mac_of_device(const std::string &device);
void set_gro(const std::string &device, bool is_on); // as ethtool -K does

// A socket that sends frames on a device and takes those that come in by it.
struct frame_socket {
    explicit frame_socket(const std::string &device);
    ~frame_socket();
    frame_socket(const frame_socket &) = delete;
    frame_socket &operator=(const frame_socket &) = delete;
    void send(const frame_bytes &frame) const;
    frame_bytes receive(int wait_ms) const; // the next IPv4 frame; none: empty
    int descriptor;
};
} // namespace harness
