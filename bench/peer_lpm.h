// peer_lpm.h - rte_lpm and rte_fib of the DPDK libraries as peers: route tables of the same prefixes in this process.
//
// Without the libraries peer_lpm_none.cpp stands in, and peer_lpm_start answers why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct peer_route {
    std::uint32_t prefix;
    unsigned len; // 1 to 32
    std::uint32_t value;
};

// Sets the libraries up, without huge pages, devices or files. Returns an empty text, or why there is no peer.
std::string peer_lpm_start();

// One rte_lpm table (24-8, with room for `tbl8s` groups). A value is 0 to 0xFFFFFF.
void *peer_lpm_new(const char *name, std::uint32_t rules, std::uint32_t tbl8s);
int peer_lpm_add(void *table, const peer_route &route);
int peer_lpm_delete(void *table, const peer_route &route);
// The value of each address, `missing` where no prefix covers it.
void peer_lpm_find(void *table, const std::uint32_t *addresses, std::uint32_t *values, std::size_t count,
                   std::uint32_t missing);
void peer_lpm_find_scalar(void *table, const std::uint32_t *addresses, std::uint32_t *values, std::size_t count,
                          std::uint32_t missing);
void peer_lpm_delete_table(void *table);

// One rte_fib table (the direct 24-8 kind, values of 4 bytes).
void *peer_fib_new(const char *name, std::uint32_t rules, std::uint32_t tbl8s, std::uint32_t missing);
int peer_fib_add(void *table, const peer_route &route);
void peer_fib_find(void *table, const std::uint32_t *addresses, std::uint64_t *values, std::size_t count);
void peer_fib_find_scalar(void *table); // from now on without vectors
void peer_fib_delete_table(void *table);

const char *peer_lpm_version();
