// kernel_space.h - a network namespace of a test's own, the kernel's answers in it, and a follower of its state.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "kernel_world.h"
#include "netlink_kernel.h"

namespace harness
{
// Why this process can make no namespaces; empty: it can.
const std::string &kernel_space_missing();

// The process is in two new namespaces while this stands: in the one that the test is about, with links eth1 to eth4 to
// the other one, whose ends eth1 to eth4 answer for the addresses that they are given.
struct kernel_space {
    kernel_space();
    ~kernel_space();
    kernel_space(const kernel_space &) = delete;
    kernel_space &operator=(const kernel_space &) = delete;
    void there(const std::string &line) const; // a command in the other namespace
    int before = -1, here = -1, other = -1;
};

// By the shell. `run` is a test failure when the command fails, `try_run` is not.
void run(const std::string &line);
bool try_run(const std::string &line);
int index_of_link(const std::string &name);

// Where the kernel would send a packet that comes in over `link`. The first is true when it forwards it.
struct kernel_way {
    bool is_forwarded = false;
    std::uint32_t neighbour = 0;
    int ifindex = 0;
};
kernel_way kernel_way_of(const std::string &link, std::uint32_t source, std::uint32_t address, std::uint8_t tos = 0);

// Follows the state of the namespace that it was made in.
struct kernel_follower {
    netlink_kernel_ptr kernel;
    kernel_changes changes; // since they were last taken
    explicit kernel_follower(const std::set<std::uint32_t> &tables = {100});
    const kernel_state &state() const { return netlink_kernel_state(*kernel); }
    // Follows until it is so; a test failure when that takes over ten seconds.
    void until(const std::string &what, const std::function<bool()> &is_so);
    void until_as_fresh(); // until the state is what a new follower reads
};
} // namespace harness
