// interface_events.h - payloads of the interface manager's events, and of the route manager's own.
//
// Big-endian. State events (created, up, down, deleted) have IFEV_BYTES, a change IFEV_CHANGED_BYTES; the route
// manager's broadcasts (routes of an interface added, removed) IFANN_BYTES.
#pragma once

#include <cstddef>

// Odd, and meant: the interface manager puts the mask at byte 21.
constexpr std::size_t IFEV_AT_IFID = 0, IFEV_AT_CTX = 2, IFEV_AT_ADDR = 4, IFEV_AT_MASK = 21, IFEV_AT_RMODE = 44,
                      IFEV_BYTES = 48; // 16-bit interface id and context, 32-bit fields

constexpr std::size_t IFEV_CHANGED_AT_IFID = 0, IFEV_CHANGED_AT_CHANGE = 4, IFEV_CHANGED_AT_OLD_ADDR = 8,
                      IFEV_CHANGED_AT_OLD_MASK = 12, IFEV_CHANGED_BYTES = 16; // 32-bit fields
constexpr unsigned IFEV_CHANGED_ADDRESS = 0x80000000; // bit of the change word: the address changed

constexpr std::size_t IFANN_AT_CTX = 0, IFANN_AT_ADDR = 4, IFANN_AT_MASK = 8, IFANN_AT_IFID = 12,
                      IFANN_BYTES = 16; // 32-bit fields
