// rib_show.cpp - the resumable walk over a context's routes, and the listings and summaries that it makes.
//
// The caller keeps the cursor and nothing is kept here between two pages, so routes may be added and removed meanwhile.
// A page never splits an ECMP set: one that does not fit whole starts the next page.
// Elsewhere: the lists (rib_table.cpp); the walk's other users (rib_nat.cpp, rib_interface.cpp).
#include "rib_show.h"

#include <cstdio>
#include <cstring>

#include "big_endian.h"
#include "mtrack.h"
#include "norvik_mtrie_pool.h"
#include "prefix_mgr.h"
#include "rib_table.h"
#include "route_log.h"
#include "route_table.h"

namespace
{
constexpr std::int32_t STOP_ALLOWED = 1, NEVER_STOP = 0;

bool is_installed_static(std::uint16_t flags)
{
    return (flags & (RIB_F_GATEWAY | RIB_F_IN_MTRIE)) == (RIB_F_GATEWAY | RIB_F_IN_MTRIE);
}

bool is_connected_subnet(std::uint16_t flags)
{
    return (flags & (RIB_F_INTERFACE | RIB_F_CONNECTED)) == (RIB_F_INTERFACE | RIB_F_CONNECTED);
}

bool is_installed_nat(std::uint16_t flags)
{
    return (flags & (RIB_F_NAT | RIB_F_NAT_IN_MTRIE)) == (RIB_F_NAT | RIB_F_NAT_IN_MTRIE);
}

bool is_set_head(const route_entry *entry) { return (entry->flags & RIB_F_ECMP) != 0; }

// A set's room is checked by its head's count before; whatever that says, a page is not written past its end.
void append(route_page *page, const route_entry *entry)
{
    if (page->count >= page->capacity)
        return;
    std::uint8_t *record = page->records + page->count * ROUTE_RECORD_BYTES;
    put_be32(record + ROUTE_AT_PREFIX, entry->prefix);
    put_be32(record + ROUTE_AT_LEN, entry->len);
    put_be32(record + ROUTE_AT_NEXTHOP, entry->nexthop);
    put_be32(record + ROUTE_AT_ROUTE_ID, entry->route_id);
    put_be16(record + ROUTE_AT_IFID, entry->ifid);
    put_be16(record + ROUTE_AT_FLAGS, entry->flags);
    put_be32(record + ROUTE_AT_ENCAP, entry->encap_id);
    page->count = static_cast<std::uint16_t>(page->count + 1);
}

using route_test = std::uint32_t (*)(const route_entry *entry);

std::uint32_t append_tested(route_entry *entry, route_page *page, route_test test)
{
    const std::int32_t room = page->capacity - page->count;
    if (!is_set_head(entry)) {
        if (room <= 0)
            return 0;
        append(page, entry);
        return 1;
    }
    if (room < entry->ecmp_count)
        return 0;
    if (test(entry) != 0)
        append(page, entry);
    for (const route_entry *member = entry->ecmp; member != nullptr; member = member->next)
        if (test(member) != 0)
            append(page, member);
    return 1;
}

struct rib_counts {
    std::uint32_t connected; // connected subnets and installed NAT prefixes
    std::uint32_t statics;   // installed static routes
};

void count_in_rib(const route_entry *entry, rib_counts *counts)
{
    counts->statics += is_installed_static(entry->flags);
    counts->connected += is_connected_subnet(entry->flags) || is_installed_nat(entry->flags);
}

std::uint32_t rib_summary_action(route_entry *entry, void *arg)
{
    auto *counts = static_cast<rib_counts *>(arg);
    count_in_rib(entry, counts);
    for (const route_entry *member = entry->ecmp; member != nullptr; member = member->next)
        count_in_rib(member, counts);
    return 1;
}

std::uint32_t fib_summary_action(route_entry *entry, void *arg)
{
    auto *count = static_cast<std::uint32_t *>(arg);
    *count += route_in_fib(entry);
    if (is_set_head(entry))
        for (const route_entry *member = entry->ecmp; member != nullptr; member = member->next)
            *count += route_in_fib(member);
    return 1;
}

void walk_all(std::uint16_t ctx, route_filter filter, route_action action, void *arg)
{
    std::uint16_t list = 0, bucket = 0;
    std::uint32_t position = 0;
    route_traversal(ctx, &list, &bucket, &position, NEVER_STOP, filter, action, arg);
}

// A zeroed block for a caller's listing, or null (logged).
std::uint8_t *alloc_block(std::uint16_t ctx, const char *procedure, std::size_t bytes)
{
    auto *data = static_cast<std::uint8_t *>(mtrack_alloc(ROUTE_MGR_UUID, MTRACK_CLI_ROUTE, bytes));
    if (data == nullptr)
        route_log(ROUTE_DBG_ERRORS, ctx, "%s: out of memory\n", procedure);
    return data;
}

void hand_over(tnrpc_block *block, std::uint8_t *data, std::uint32_t bytes)
{
    block->length = bytes;
    block->data = reinterpret_cast<std::byte *>(data);
}

// First entry of the list at or above `position`; null (logged) when there is none any more.
route_entry *resume(std::uint16_t ctx, route_entry *entry, std::uint32_t position, unsigned list, unsigned bucket)
{
    while (entry != nullptr && entry->prefix < position)
        entry = entry->next;
    if (entry == nullptr)
        route_log(ROUTE_DBG_INFO, ctx, "Route list (%d, %d) changed during consecutive calls!\n",
                  static_cast<int>(list), static_cast<int>(bucket));
    return entry;
}
} // namespace

void route_traversal(std::uint16_t ctx, std::uint16_t *list, std::uint16_t *bucket, std::uint32_t *position,
                     std::int32_t stop_allowed, route_filter filter, route_action action, void *arg)
{
    unsigned l = *list, b = *bucket;
    std::uint32_t start = *position;
    route_log(ROUTE_DBG_INFO, ctx, "%s: Start with route list (%d,%d) at position %x\n", "route_traversal",
              static_cast<int>(l), static_cast<int>(b), start);
    if (l >= RIB_ROWS) {
        *position = ROUTE_WALK_DONE;
        return;
    }
    if (b >= RIB_BUCKETS) {
        ++l;
        b = 0;
    }
    // Walks one list. Returns true when the action had no room, with the cursor at that entry.
    const auto stops_in = [=](route_entry *entry) {
        while (entry != nullptr) {
            route_entry *const successor = entry->next; // first: the action may free the entry
            if (filter(entry, arg) != 0 && action(entry, arg) == 0 && stop_allowed != 0) {
                *position = entry->prefix;
                return true;
            }
            entry = successor;
        }
        return false;
    };
    bool stopped = false;
    if (start != 0 && l < RIB_ROWS) {
        stopped = stops_in(resume(ctx, norvik_get_t(ctx)->table[l][b], start, l, b));
        b += stopped ? 0 : 1;
    }
    rib_place place = {l, b};
    while (!stopped) {
        const card_ptr<route_entry> *const head = rib_next_bucket(ctx, &place);
        if (head == nullptr)
            break;
        stopped = stops_in(*head);
        place.bucket += stopped ? 0 : 1;
    }
    *list = static_cast<std::uint16_t>(stopped ? place.row : RIB_ROWS);
    *bucket = static_cast<std::uint16_t>(stopped ? place.bucket : 0);
    if (!stopped)
        *position = ROUTE_WALK_DONE;
}

std::uint32_t route_in_fib(const route_entry *entry)
{
    return (entry->flags & (RIB_F_GATEWAY | RIB_F_IN_MTRIE)) != RIB_F_GATEWAY &&
           (entry->flags & (RIB_F_NAT | RIB_F_NAT_IN_MTRIE)) != RIB_F_NAT;
}

std::uint32_t route_in_rib(const route_entry *entry)
{
    return is_installed_static(entry->flags) || is_connected_subnet(entry->flags) || is_installed_nat(entry->flags);
}

std::uint32_t show_fib_filter(route_entry *entry, void *) { return is_set_head(entry) || route_in_fib(entry) != 0; }
std::uint32_t show_rib_filter(route_entry *entry, void *) { return is_set_head(entry) || route_in_rib(entry) != 0; }

std::uint32_t show_fib_action(route_entry *entry, void *page)
{
    return append_tested(entry, static_cast<route_page *>(page), route_in_fib);
}

std::uint32_t show_rib_action(route_entry *entry, void *page)
{
    return append_tested(entry, static_cast<route_page *>(page), route_in_rib);
}

std::uint32_t route_print(std::uint16_t ctx, std::uint16_t *list, std::uint16_t *bucket, std::uint32_t *position,
                          route_filter filter, route_action action, tnrpc_block *block)
{
    route_page page = {ROUTE_PAGE_RECORDS, 0, alloc_block(ctx, "route_print", ROUTE_PAGE_RECORDS * ROUTE_RECORD_BYTES)};
    if (page.records == nullptr)
        return 0;
    route_traversal(ctx, list, bucket, position, STOP_ALLOWED, filter, action, &page);
    hand_over(block, page.records, page.count * ROUTE_RECORD_BYTES);
    return page.count;
}

std::uint32_t show_rib_print(std::uint16_t ctx, std::uint16_t *list, std::uint16_t *bucket, std::uint32_t *position,
                             tnrpc_block *block)
{
    return route_print(ctx, list, bucket, position, show_rib_filter, show_rib_action, block);
}

std::uint32_t show_fib_print(std::uint16_t ctx, std::uint16_t *list, std::uint16_t *bucket, std::uint32_t *position,
                             tnrpc_block *block)
{
    return route_print(ctx, list, bucket, position, show_fib_filter, show_fib_action, block);
}

std::uint32_t show_rib_summary(std::uint16_t ctx, tnrpc_block *block)
{
    std::uint8_t *record = alloc_block(ctx, "show_rib_summary", RIB_SUMMARY_BYTES);
    if (record == nullptr)
        return 1;
    std::memset(record, 0, RIB_SUMMARY_BYTES);
    rib_counts counts{};
    walk_all(ctx, show_rib_filter, rib_summary_action, &counts);
    put_be32(record + RIB_SUMMARY_AT_CONNECTED, counts.connected);
    put_be32(record + RIB_SUMMARY_AT_STATICS, counts.statics);
    put_be16(record + RIB_SUMMARY_AT_ENTRY_BYTES, sizeof(route_entry));
    hand_over(block, record, RIB_SUMMARY_BYTES);
    return 0;
}

std::uint32_t show_fib_summary(std::uint16_t ctx, tnrpc_block *block)
{
    std::uint8_t *record = alloc_block(ctx, "show_fib_summary", FIB_SUMMARY_BYTES);
    if (record == nullptr)
        return 1;
    std::uint32_t held[3];
    mtrie_get_stats(ctx, held);
    put_be32(record + FIB_SUMMARY_AT_NODES, held[0]);
    put_be32(record + FIB_SUMMARY_AT_LEAVES, held[1]);
    put_be32(record + FIB_SUMMARY_AT_BLOCKS, held[2]);
    put_be16(record + FIB_SUMMARY_AT_NODE_BYTES, HW_NODE_BYTES);
    put_be16(record + FIB_SUMMARY_AT_LEAF_BYTES, HW_LEAF_BYTES);
    put_be16(record + FIB_SUMMARY_AT_BLOCK_BYTES, HW_ECMP_BYTES);
    std::uint32_t count = 0;
    walk_all(ctx, show_fib_filter, fib_summary_action, &count);
    put_be32(record + FIB_SUMMARY_AT_ROUTES, count);
    hand_over(block, record, FIB_SUMMARY_BYTES);
    return 0;
}

std::int32_t format_ip(std::uint32_t addr, char *dst, std::uint32_t pad)
{
    constexpr std::size_t WIDTH = 15;
    const int length =
        std::snprintf(dst, WIDTH + 1, "%d.%d.%d.%d", static_cast<int>(addr >> 24), static_cast<int>(addr >> 16 & 0xFF),
                      static_cast<int>(addr >> 8 & 0xFF), static_cast<int>(addr & 0xFF));
    const std::size_t used = static_cast<std::size_t>(length);
    if (pad == 0 || used >= WIDTH)
        return length;
    std::memset(dst + used, ' ', WIDTH - used);
    dst[WIDTH] = '\0';
    return static_cast<std::int32_t>(WIDTH);
}
