// bench_daemon.h - the daemon as a process, and around it what it meets on a card: a caller, an ARP service, a sender
// of events, a reader of the tables. Also a bare peer that answers over the same sockets and does nothing else.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "card_bytes.h"
#include "tables.h"

// Calls of the daemon's one context, 0.
using harness::byte_string;
byte_string bench_route_add(std::uint32_t prefix, std::uint32_t mask, std::uint32_t nexthop);
byte_string bench_route_remove(std::uint32_t prefix, std::uint32_t mask, std::uint32_t nexthop);
byte_string bench_host_add(std::uint32_t address, std::uint32_t encap);

// A fresh card directory with interface 5 up (10.1.0.1/16, context 0), in CARD_DIR from now on; removed at exit, when
// the processes started here end too. Ends the program with status 1 when something cannot be had.
std::string bench_folder();

struct bench_process {
    pid_t pid = -1;
    double ready_ms = 0; // exec to READY=1
};
// Starts the daemon, its output to files of the card directory, and waits for READY=1. It runs on the last processor.
bench_process bench_daemon_start();
// Starts the bare peer at rpc/`endpoint`: it receives a record and answers with 16 bytes; with_arp: between the two it
// sends a record of an ARP request's size to the ARP service and receives the answer. Runs on the last processor.
bench_process bench_echo_start(unsigned endpoint, bool with_arp);
// Starts an ARP service that answers every request with 0. Runs on the first processor.
bench_process bench_arp_start();
void bench_end(bench_process &process, int signo);

int bench_connect(unsigned endpoint);
// Sends the calls, `window` outstanding, and receives the replies. Returns the number of those that answered 0.
std::size_t bench_call_all(int connection, const std::vector<byte_string> &calls, unsigned window);

void bench_send_if_down(); // IF_DOWN of interface 5

std::array<harness::np_table, 3> bench_memories(); // wired, ixp1, ixp2, mapped to be read
// The word of the leaf (its adjacency) that `address` finds in tree 0; 0 when there is none.
std::uint32_t bench_find(const harness::np_table &memory, std::uint32_t address);

// Writes a configuration of bird with `count` static /24 routes from 20.0.0.0 on, through 10.1.0.9, for the kernel.
void bench_bird_conf(unsigned count);
// Starts bird and waits until birdc gets an answer; ready_ms is that time. pid -1: it did not start.
bench_process bench_bird_start();
int bench_birdc(const std::string &command); // exit status
// A connection to bird's control socket, and whether bird's own table holds `count` of the static routes by now, asked
// over it as birdc does, without starting a process.
int bench_bird_control();
bool bench_bird_holds(int control, unsigned count);

// Runs a command and returns its exit status; output is dropped.
int bench_run(const std::vector<std::string> &command);
// A network namespace of this process's own, with the interface d0 up (10.1.0.1/16). Empty, or why there is none.
std::string bench_own_network();
