// live_set.h - a live card beside the kernel's own routes, for the benchmarks of live_bench.cpp and live_traffic.cpp.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench.h"
#include "live_maps.h"
#include "peer_lpm.h"

struct bpf_object;

constexpr std::size_t LIVE_PACKETS = 1 << 14, LIVE_FRAME_BYTES = 64;

// The value of the map peer_packets, as live_peers.bpf.c has it.
struct packets_value {
    std::uint32_t destinations[LIVE_PACKETS]; // network order
    std::uint32_t next, came_out;
    std::uint64_t to, out;
};

// A way to find a packet's way: its program, and that program's descriptor.
struct live_side {
    const char *program;
    int descriptor = -1;
};

// Ports are the devices p5 (packets come in) and p6 (they leave), each a veth whose pair has an x behind its name.
struct live_set {
    live_maps maps;
    bpf_object *peers = nullptr;
    packets_value *packets = nullptr;
    std::uint32_t in_device = 0;
    std::vector<peer_route> routes;
    live_side base{"peer_packet"}, walk{"peer_walk"}, trie{"peer_trie_lookup"}, fib{"peer_fib_lookup"};
};

void live_command(const std::string &line);                 // by the shell; ends the program when it fails
int live_map(const live_set &set, const char *name);        // descriptor of a map of the peers' programs
int live_program_of(const live_set &set, const char *name); // and of a program
std::vector<std::uint8_t> live_frame(const live_set &set);  // that all packets are written over

// Frames that come in, are forwarded and come out, by each of the ways.
void live_measure_traffic(const bench_options &options, live_set &set, std::vector<bench_row> &rows);
