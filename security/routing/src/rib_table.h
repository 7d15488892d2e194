// rib_table.h - a context's hash table of route entries: search, ECMP sets, predicates, mask and hash helpers.
#pragma once

#include <cstdint>

#include "route_entry.h"
#include "route_ids.h"

struct rib_search_result {
    std::uint32_t found;         // 0 or 1
    route_entry *entry;          // the entry found, or null
    card_ptr<route_entry> *prev; // the link that points, or would point, at the position
    route_entry *ecmp_head;      // head of the set when `entry` is a member, else null
};

using rib_match = bool (*)(const route_entry *entry, const void *key);

extern const std::uint32_t rib_mask_table[33]; // entry n: n leading one bits
extern const char *const rib_route_kind_names[9];

extern card_ptr<route_entry> route_entry_list; // exported, not used
extern card_ptr<route_entry> entry_list;       // exported, not used
extern std::uint32_t if_stats_table_dp[2];     // exported, not used

std::uint32_t slowpath_route_hashing_ip_key(std::uint32_t addr, std::uint32_t len); // callers take it modulo 31
std::uint8_t count_mask_bit(std::uint32_t mask);                                    // leading one bits, 0 to 32
std::uint32_t rib_key(std::uint32_t prefix, std::uint32_t len);                     // the compared bits, right-aligned
card_ptr<route_entry> *rib_bucket(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len); // head of its chain

// len: 0 to 32; prefix: masked. match may be null. Returns result->found.
std::uint32_t rib_route_search(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len, const void *key,
                               rib_match match, rib_search_result *result);
// After a search that found nothing: the chain entry of the same prefix and length that it stopped at, or null.
route_entry *rib_set_at(const rib_search_result &search, std::uint32_t prefix, std::uint32_t len);
// Links a new entry where the search in its context stopped: into the set of `head`, or into the chain when it is null.
// Returns the link that now points at it.
card_ptr<route_entry> *rib_link(route_entry *entry, const rib_search_result &search, route_entry *head);
// Puts a new entry into the chain of `ctx` at the link `prev`, where a search in that context stopped.
void rib_chain_insert(std::uint32_t ctx, route_entry *entry, card_ptr<route_entry> *prev);
// The chain entry of a prefix (host bits do not matter), and the link that points at it; null when there is none.
// Members of sets are not looked at, and no line is logged.
route_entry *rib_chain_entry(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len);
card_ptr<route_entry> *rib_chain_link(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len);
// Whether the set of `head`, which may be null, can count no further path: adding one fails as for lack of memory.
bool rib_set_is_full(const route_entry *head);
// A zeroed entry charged to the memory type, or null when memory is short.
[[nodiscard]] route_entry *rib_entry_alloc(mtrack_type type);
// Joins `entry` to the set of `head`; returns the link that now points at it. No limit is checked.
card_ptr<route_entry> *rib_ecmp_link(route_entry *entry, route_entry *head);
// Takes `entry` out of its set. head: null when `entry` is the head itself (with members).
void rib_ecmp_unlink(route_entry *entry, card_ptr<route_entry> *prev, route_entry *head);

bool rib_host_match(const route_entry *entry, const void *object);       // key: std::uint32_t object number
bool rib_static_match(const route_entry *entry, const void *nexthop);    // key: std::uint32_t
bool rib_nexthop_match(const route_entry *entry, const void *nexthop);   // key: std::uint32_t
bool rib_nat_encap_match(const route_entry *entry, const void *encap);   // key: std::uint16_t
bool rib_nat_learned_match(const route_entry *entry, const void *range); // key: std::uint32_t[2], low and high
bool rib_nat_ifid_match(const route_entry *entry, const void *ifid);     // key: std::uint16_t

// Which buckets of a context may hold entries, one bit each, beside the fixed table: a context of few routes is visited
// without touching a thousand empty heads. Set when a chain gets an entry, cleared when a visit finds the bucket empty.
struct rib_occupancy {
    std::uint64_t rows;              // bit n: a bit of row n is set
    std::uint32_t buckets[RIB_ROWS]; // bit n: bucket n of the row
};
extern rib_occupancy rib_occupied[ROUTE_CONTEXTS];

// A place on the way through a context's buckets: row by row, in each bucket by bucket.
struct rib_place {
    unsigned row = 0;
    unsigned bucket = 0; // 0 to 31
};

// The first bucket at or behind `place` that holds entries; `place` becomes its place. Returns null when there is none.
card_ptr<route_entry> *rib_next_bucket(std::uint32_t ctx, rib_place *place);

// Visits the chain entries of a context (set heads and single entries, no members): rows 0 to 32, in each the buckets
// 0 to 30, in each the chain. Stops at the first entry that `visit` answers true for and returns it, else null.
// The successor is read before the visit, so a visit may free its entry.
template <class Visit> route_entry *rib_find_entry(std::uint32_t ctx, Visit visit)
{
    rib_place place;
    for (; const card_ptr<route_entry> *const head = rib_next_bucket(ctx, &place); ++place.bucket)
        for (route_entry *entry = head->get(), *next = nullptr; entry != nullptr; entry = next) {
            next = entry->next.get();
            if (visit(entry))
                return entry;
        }
    return nullptr;
}

// The first chain entry, in that order, whose prefix is `prefix` and for which `wanted` answers true, or null. It looks
// only where such an entry can be: for each length that leaves the prefix as it is, at one place of one chain.
template <class Wanted> route_entry *rib_find_prefix(std::uint32_t ctx, std::uint32_t prefix, Wanted wanted)
{
    for (std::uint32_t len = 0; len < RIB_ROWS; ++len) {
        if ((prefix & ~rib_mask_table[len]) != 0)
            continue;
        route_entry *const entry = rib_chain_entry(ctx, prefix, len);
        if (entry != nullptr && wanted(entry))
            return entry;
    }
    return nullptr;
}
