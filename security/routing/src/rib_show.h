// rib_show.h - the resumable walk over a context's routes, and the listings and summaries that it makes.
#pragma once

#include <cstdint>

#include "route_entry.h"
#include "route_listing.h"
#include "tnrpc.h"

using route_filter = std::uint32_t (*)(route_entry *entry, void *arg); // non-zero: the action gets the entry
using route_action = std::uint32_t (*)(route_entry *entry, void *arg); // 0: no room; may unlink and free the entry

// Walks the lists from the cursor {list, bucket, position} on, and writes back where it stopped: at the entry for which
// the action had no room, when stop_allowed is non-zero, else at the end. Start with 0, 0, 0.
void route_traversal(std::uint16_t ctx, std::uint16_t *list, std::uint16_t *bucket, std::uint32_t *position,
                     std::int32_t stop_allowed, route_filter filter, route_action action, void *arg);

// A page of a listing, as it is filled.
struct route_page {
    std::uint16_t capacity;
    std::uint16_t count;
    std::uint8_t *records;
};

// Filters and actions of the listings; `arg` of the actions is a route_page.
std::uint32_t route_in_fib(const route_entry *entry);
std::uint32_t route_in_rib(const route_entry *entry);
std::uint32_t show_fib_filter(route_entry *entry, void *arg);
std::uint32_t show_rib_filter(route_entry *entry, void *arg);
std::uint32_t show_fib_action(route_entry *entry, void *page);
std::uint32_t show_rib_action(route_entry *entry, void *page);

// One page from the cursor on, in a new block. Returns its records; 0 with block and cursor untouched when memory is
// short.
std::uint32_t route_print(std::uint16_t ctx, std::uint16_t *list, std::uint16_t *bucket, std::uint32_t *position,
                          route_filter filter, route_action action, tnrpc_block *block);

// Remote procedures. The listings return the records in the block, the summaries 0, or 1 when memory is short.
std::uint32_t show_rib_print(std::uint16_t ctx, std::uint16_t *list, std::uint16_t *bucket, std::uint32_t *position,
                             tnrpc_block *block);
std::uint32_t show_fib_print(std::uint16_t ctx, std::uint16_t *list, std::uint16_t *bucket, std::uint32_t *position,
                             tnrpc_block *block);
std::uint32_t show_rib_summary(std::uint16_t ctx, tnrpc_block *block);
std::uint32_t show_fib_summary(std::uint16_t ctx, tnrpc_block *block);

// "%d.%d.%d.%d"; with pad non-zero, blanks up to 15 characters. dst: 16 bytes. Returns the length.
std::int32_t format_ip(std::uint32_t addr, char *dst, std::uint32_t pad);
