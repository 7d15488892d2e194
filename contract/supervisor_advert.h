// supervisor_advert.h - the message by which a route is advertised to the supervisor card, or withdrawn.
//
// One datagram to scp/supervisor. Big-endian; bytes not named here are 0.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::size_t ADVERT_AT_SLOT = 0; // of the card, counted from 0
constexpr std::size_t ADVERT_AT_SUPERVISOR = 1, ADVERT_AT_HEADER = 2, ADVERT_AT_OPCODE = 16, ADVERT_AT_PREFIX = 18,
                      ADVERT_AT_MASK = 22, ADVERT_AT_NEXT_HOP = 26, ADVERT_AT_VLAN = 30, ADVERT_AT_METRIC = 34,
                      ADVERT_BYTES = 46;
constexpr std::uint8_t ADVERT_ADVERTISE = 0x22, ADVERT_WITHDRAW = 0x23; // opcodes, one byte
constexpr std::uint16_t ROUTE_ADVERT_WITHDRAW = 0xFFFF;                 // metric that withdraws

// Bytes 2 to 10: the protocol's own header words, with fixed values.
constexpr std::uint8_t ADVERT_HEADER[] = {0, 0x12, 0x12, 4, 1, 0x4A, 0, 1, 0};
static_assert(ADVERT_AT_HEADER + sizeof ADVERT_HEADER == 11);
