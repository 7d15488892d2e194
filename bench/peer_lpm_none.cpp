// peer_lpm_none.cpp - where the DPDK libraries are not: no peer, and why.
#include "peer_lpm.h"

std::string peer_lpm_start() { return "built without libdpdk-dev"; }
void *peer_lpm_new(const char *, std::uint32_t, std::uint32_t) { return nullptr; }
int peer_lpm_add(void *, const peer_route &) { return -1; }
int peer_lpm_delete(void *, const peer_route &) { return -1; }
void peer_lpm_find(void *, const std::uint32_t *, std::uint32_t *, std::size_t, std::uint32_t) {}
void peer_lpm_find_scalar(void *, const std::uint32_t *, std::uint32_t *, std::size_t, std::uint32_t) {}
void peer_lpm_delete_table(void *) {}
void *peer_fib_new(const char *, std::uint32_t, std::uint32_t, std::uint32_t) { return nullptr; }
int peer_fib_add(void *, const peer_route &) { return -1; }
void peer_fib_find(void *, const std::uint32_t *, std::uint64_t *, std::size_t) {}
void peer_fib_find_scalar(void *) {}
void peer_fib_delete_table(void *) {}
const char *peer_lpm_version() { return ""; }
