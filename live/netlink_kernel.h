// netlink_kernel.h - the kernel's state as it is and as it changes, and what is asked of the kernel, over netlink.
//
// One socket hears every change in the kernel's own order, one reads whole tables, one makes requests, which the kernel
// answers before the call returns. Nothing waits: there is a descriptor to poll, and a function that does what there is
// to do.
// Always: what changed is told once the state has it. Where the kernel drops routes without a word (a link or an
// address that goes, a next hop object, messages lost), everything is read again at once, and what differs is told.
// Elsewhere: the messages (netlink_decode.h), the records (kernel_state.h).
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kernel_state.h"

struct netlink_kernel;
struct netlink_kernel_close {
    void operator()(netlink_kernel *kernel) const;
};
using netlink_kernel_ptr = std::unique_ptr<netlink_kernel, netlink_kernel_close>;

// Opens the sockets in the network namespace of the caller and begins to read.
//   tables: those to be followed beside main, local and default.
// Returns null and one line in `error` when that is not possible.
netlink_kernel_ptr netlink_kernel_open(const std::set<std::uint32_t> &tables, std::string *error);

// Readable when there is something to do.
int netlink_kernel_fd(const netlink_kernel &kernel);

// Does some of what there is to do, and adds to `changes` what is different in the state since. Links come first: a
// call that tells of one that went down has not yet read the tables again. Returns 0, or 1 and one line in `error` when
// the kernel can not be followed any more.
[[nodiscard]] int netlink_kernel_process(netlink_kernel &kernel, kernel_changes *changes, std::string *error);

const kernel_state &netlink_kernel_state(const netlink_kernel &kernel);

// Whether the state is all that the kernel has told. False until the first reading is through, and while everything is
// read again.
bool netlink_kernel_is_current(const netlink_kernel &kernel);
void netlink_kernel_read_again(netlink_kernel &kernel);

struct netlink_counts {
    std::uint64_t messages = 0; // changes heard
    std::uint64_t readings = 0; // of everything
    std::uint64_t repeated = 0; // readings of one kind that a change interrupted
    std::uint64_t lost = 0;     // times that the kernel had no room for messages
};
netlink_counts netlink_kernel_counts(const netlink_kernel &kernel);

// A neighbour whose address the kernel finds and keeps fresh by itself, for as long as it is wanted: it is asked for
// again when its link was down. One with a permanent entry is left alone.
void netlink_kernel_manage(netlink_kernel &kernel, int ifindex, std::uint32_t address);
void netlink_kernel_unmanage(netlink_kernel &kernel, int ifindex, std::uint32_t address);

// Has the kernel look whether a stale neighbour is still there, as it does when it sends a packet to one: packets that
// the card sends are none of the kernel's, and without this it would never find out.
void netlink_kernel_use(netlink_kernel &kernel, int ifindex, std::uint32_t address);

// Makes the rules that are missing, by the state or in fact, and removes other ones of the same protocol. With none
// wanted, the card leaves none behind. Returns 0, or 1 and one line in `error`; then it may be called again.
[[nodiscard]] int netlink_kernel_set_rules(netlink_kernel &kernel, std::uint8_t protocol,
                                           const std::vector<kernel_rule> &wanted, std::string *error);
