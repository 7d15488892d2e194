// nat_range.h - a range of addresses as the smallest list of aligned prefixes.
#pragma once

#include <cstdint>

constexpr unsigned NAT_PREFIX_MAX = 64; // of one pool; a range never needs more than 62

struct nat_prefix {
    std::uint32_t mask;
    std::uint32_t net;
    std::uint32_t len;
};

// The smallest list of aligned prefixes for from..to, appended to `list` (NAT_PREFIX_MAX elements); adds to *count.
std::uint32_t ipv4_range2prefix(std::int32_t ctx, std::uint32_t from, std::uint32_t to, nat_prefix *list,
                                std::int32_t *count); // always 0
void print_pfxlist(std::int32_t ctx, const nat_prefix *list, std::int32_t n);
std::int32_t ip_integer2ip(std::uint32_t addr, char *dst, std::uint32_t size); // 0, or -1
