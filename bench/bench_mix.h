// bench_mix.h - prefixes as a card has them, of several lengths and within each other.
#pragma once

#include <cstdint>
#include <vector>

#include "peer_lpm.h"

// `count` prefixes: one in 25 a /8, one in 5 a /16, three in 10 hosts, the rest /24, in ever fewer larger ones. The
// value of the n-th is n, from 1.
std::vector<peer_route> bench_mix(std::uint32_t count);
