// plain_model.h - a slow, plain picture of the route manager: maps of prefixes, nothing shared, nothing linked.
//
// It answers the same operations as the process and says what the tables hold afterwards. What the process does that
// a reader would not expect is written down here as a rule of its own, marked "odd".
// Holds only while no prefix is wholly covered by longer ones when it is added, no host route is a /0, and route ids
// equal contexts; the random test keeps to that.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "mtrie_records.h"
#include "route_entry.h"

struct model_path {
    bool is_static;
    std::uint32_t nexthop;
    std::uint16_t ifid;
    std::uint32_t encap;
    std::uint16_t flags;
};

struct model_leaf {
    std::uint32_t adjacency = 0;
    bool has_block = false;
    std::uint32_t npaths = 0;
    std::uint32_t hw[ECMP_WORDS] = {};
};

struct model_interface {
    bool up;
    std::uint32_t address;
};

using model_key = std::pair<std::uint32_t, std::uint32_t>; // length, prefix

struct plain_model {
    std::map<std::uint32_t, model_interface> interfaces;
    std::map<std::uint32_t, std::map<model_key, std::vector<model_path>>> rib; // by context; a set's head is first
    std::map<std::uint32_t, std::map<model_key, model_leaf>> fib;              // by tree; (0, 0) is the default leaf
    std::uint32_t leaves_lost = 0;                  // taken for a repeat and never given back
    std::uint32_t hosts_lost = 0, statics_lost = 0; // entries that went with the head of their set
    bool memory_short = false;                      // the next entry cannot be allocated

    explicit plain_model(unsigned contexts);
    std::uint32_t arp_add(std::uint32_t ctx, std::uint32_t addr, std::uint32_t len, std::uint16_t encap,
                          std::uint16_t ifid);
    std::uint32_t arp_remove(std::uint32_t ctx, std::uint32_t addr, std::uint32_t len);
    std::uint32_t static_add(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len, std::uint32_t nexthop);
    std::uint32_t static_remove(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len, std::uint32_t nexthop);
    std::uint32_t set_is_full(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len) const;

    std::vector<std::string> rib_text(std::uint32_t ctx) const; // one line a path, in the order of the table
    std::uint32_t entries(bool is_static) const;                // allocated
    std::uint32_t leaves_in_use() const;
    std::uint32_t blocks_in_use() const;
    const model_leaf *longest_match(std::uint32_t ctx, std::uint32_t address) const;
};

// The table's order of a prefix: row, bucket, place in the chain.
std::uint32_t model_bucket(std::uint32_t prefix, std::uint32_t len);
std::uint32_t model_mask(std::uint32_t len);
std::string model_line(std::uint32_t len, std::uint32_t prefix, unsigned place, const model_path &path,
                       std::uint32_t count);
