// route_entry.h - the route entry: one record for every route that the RIB knows.
#pragma once

#include <cstddef>
#include <cstdint>

#include "card_space.h"
#include "route_listing.h"

// What a host route was created for.
constexpr std::uint16_t RIB_OBJ_ARP_HOST = 1, RIB_OBJ_INTERFACE = 2, RIB_OBJ_MCAST_DROP = 4;

constexpr std::uint16_t RIB_SET_MOST = 0xFFFF; // paths that the head of a set can count

struct route_entry {
    card_ptr<route_entry> next; // next in the bucket chain; for a member of an ECMP set, the next member
    std::uint32_t prefix;       // masked to len bits, host order
    std::uint32_t len;          // 0 to 32
    std::uint32_t nexthop;      // static: gateway; ARP host: the interface's address; else 0
    card_ptr<route_entry> ecmp; // head of a set: its first member
    std::uint16_t ecmp_count;   // head: paths with itself, 2 to RIB_SET_MOST; 0 when there is no set
    std::uint16_t ctx;          // 0 to 255
    std::uint16_t route_id;     // tree that it is programmed in, 0 to 255
    std::uint16_t ifid;
    std::uint32_t encap_id; // adjacency of the FIB leaf; for NAT entries the key of their pool
    std::uint16_t flags;    // RIB_F_*, as in a listing
    std::uint16_t unused;
};
static_assert(sizeof(route_entry) == 36 && offsetof(route_entry, ecmp) == 16 && offsetof(route_entry, ctx) == 22 &&
              offsetof(route_entry, encap_id) == 28 && offsetof(route_entry, flags) == 32);

// The record of one context: its RIB, and the name of its tree.
constexpr unsigned RIB_ROWS = 33;    // one a prefix length
constexpr unsigned RIB_BUCKETS = 31; // of a row
struct prefix_tree {
    char name[50]; // "wired_Route" and the tree id; NUL-terminated
    char unused[2];
    card_ptr<route_entry> table[RIB_ROWS][RIB_BUCKETS]; // chains ascending by prefix
    std::uint32_t print[2];                             // handles of print callbacks
};
static_assert(sizeof(prefix_tree) == 4152 && offsetof(prefix_tree, table) == 52 &&
              offsetof(prefix_tree, print) == 4144 && sizeof(prefix_tree::table) == 4092);
