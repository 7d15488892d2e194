// rib_lists.h - route entries put into a context's lists by hand, and the listings of them page by page.
//
// Flags are given, not earned, so a test makes any mixture of routes at once and pages of a few records meet every rule
// that a page of 2550 would.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <vector>

#include "big_endian.h"
#include "mtrack.h"
#include "rib_card.h"
#include "rib_nexthop_index.h"
#include "rib_show.h"

namespace harness
{
constexpr std::uint16_t STATIC_IN = RIB_F_GATEWAY | RIB_F_IN_MTRIE, NAT_IN = RIB_F_NAT | RIB_F_NAT_IN_MTRIE;
constexpr std::uint16_t SUBNET = RIB_F_INTERFACE | RIB_F_CONNECTED;

inline bool no_match(const route_entry *, const void *) { return false; }

// Puts an entry into its list; a second one of a prefix joins the first's set.
inline route_entry *put(std::uint32_t prefix, std::uint32_t len, std::uint16_t flags, std::uint32_t nexthop = 0)
{
    rib_search_result search;
    (void)rib_route_search(CTX, prefix, len, nullptr, no_match, &search);
    route_entry *const entry = rib_entry_alloc(MTRACK_ROUTE_ENTRY_3);
    entry->prefix = prefix;
    entry->len = len;
    entry->nexthop = nexthop;
    entry->ctx = CTX;
    entry->route_id = CTX;
    entry->flags = flags;
    if ((flags & RIB_F_GATEWAY) != 0) {
        EXPECT_TRUE(rib_nexthop_index_add(entry));
    }
    (void)rib_link(entry, search, rib_set_at(search, prefix, len));
    return entry;
}

// Takes an entry without a set out of its list and frees it.
inline void drop(std::uint32_t prefix, std::uint32_t len)
{
    rib_search_result search;
    ASSERT_EQ(rib_route_search(CTX, prefix, len, nullptr, nullptr, &search), 1u);
    *search.prev = search.entry->next;
    rib_nexthop_index_remove(search.entry);
    mtrack_free(search.entry);
}

struct cursor {
    std::uint16_t list = 0, bucket = 0;
    std::uint32_t position = 0;
    bool operator==(const cursor &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const cursor &at)
{
    return out << "(" << at.list << ", " << at.bucket << ", 0x" << std::hex << at.position << std::dec << ")";
}

constexpr cursor FINISHED = {33, 0, ROUTE_WALK_DONE};
using prefix_list = std::vector<std::uint32_t>;

inline prefix_list prefixes_in(const std::uint8_t *records, std::size_t count)
{
    prefix_list found;
    for (std::size_t i = 0; i < count; ++i)
        found.push_back(get_be32(records + i * ROUTE_RECORD_BYTES));
    return found;
}

// One page of `capacity` records from the cursor on: the prefixes listed. Nothing may be written behind the page.
inline prefix_list page_of(std::uint16_t capacity, cursor *at, route_filter filter = show_fib_filter,
                           route_action action = show_fib_action)
{
    std::vector<std::uint8_t> records((capacity + 1u) * ROUTE_RECORD_BYTES, 0xEE);
    route_page page = {capacity, 0, records.data()};
    route_traversal(CTX, &at->list, &at->bucket, &at->position, 1, filter, action, &page);
    EXPECT_LE(page.count, capacity);
    EXPECT_TRUE(std::all_of(records.begin() + page.count * std::ptrdiff_t{ROUTE_RECORD_BYTES}, records.end(),
                            [](std::uint8_t byte) { return byte == 0xEE; }));
    return prefixes_in(page.records, page.count);
}

inline prefix_list rib_page_of(std::uint16_t capacity, cursor *at)
{
    return page_of(capacity, at, show_rib_filter, show_rib_action);
}

using print_procedure = std::uint32_t (*)(std::uint16_t, std::uint16_t *, std::uint16_t *, std::uint32_t *,
                                          tnrpc_block *);

// A page of a served listing: its bytes. The block is freed as the server does it.
inline std::vector<std::uint8_t> print(print_procedure procedure, cursor *at)
{
    tnrpc_block block = {0xAAAA, nullptr};
    const std::uint32_t count = procedure(CTX, &at->list, &at->bucket, &at->position, &block);
    EXPECT_EQ(block.length, count * 24);
    const auto *const data = reinterpret_cast<const std::uint8_t *>(block.data.get());
    EXPECT_NE(data, nullptr);
    std::vector<std::uint8_t> bytes(data, data + block.length);
    mtrack_free(block.data);
    return bytes;
}

inline std::vector<std::uint8_t> summary(std::uint32_t (*procedure)(std::uint16_t, tnrpc_block *))
{
    tnrpc_block block = {};
    EXPECT_EQ(procedure(CTX, &block), 0u);
    const auto *const data = reinterpret_cast<const std::uint8_t *>(block.data.get());
    std::vector<std::uint8_t> bytes(data, data + block.length);
    mtrack_free(block.data);
    return bytes;
}
} // namespace harness
