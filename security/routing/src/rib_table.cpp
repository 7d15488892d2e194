// rib_table.cpp - a context's hash table of route entries.
//
// A row for each prefix length, 31 chains a row, each ascending by network address: a search looks at one length only
// and stops at the first larger address. A second route of the same prefix is never on the chain: it is a member of the
// ECMP set of the first, in order of arrival, linked by the members' own `next`.
// Always: what rib_check proves (rib_check.cpp). Only rib_entry_alloc allocates, and nothing here frees: a caller that
// unlinks an entry frees it.
// Elsewhere: which routes are added (rib_static.cpp, rib_host.cpp, rib_nat.cpp), how they are programmed
// (rib_mtrie.cpp).
#include "rib_table.h"

#include <bit>
#include <new>

#include "mtrack.h"
#include "prefix_mgr.h"
#include "route_log.h"

const std::uint32_t rib_mask_table[33] = {
    0x00000000, 0x80000000, 0xc0000000, 0xe0000000, 0xf0000000, 0xf8000000, 0xfc000000, 0xfe000000, 0xff000000,
    0xff800000, 0xffc00000, 0xffe00000, 0xfff00000, 0xfff80000, 0xfffc0000, 0xfffe0000, 0xffff0000, 0xffff8000,
    0xffffc000, 0xffffe000, 0xfffff000, 0xfffff800, 0xfffffc00, 0xfffffe00, 0xffffff00, 0xffffff80, 0xffffffc0,
    0xffffffe0, 0xfffffff0, 0xfffffff8, 0xfffffffc, 0xfffffffe, 0xffffffff,
};

const char *const rib_route_kind_names[9] = {
    "INVALID", "INTERFACE", "GATEWAY", "VSERVER", "RSERVER", "NAT", "ALIAS", "LEARNED", "STATIC",
};

card_ptr<route_entry> route_entry_list;
card_ptr<route_entry> entry_list;
std::uint32_t if_stats_table_dp[2];

rib_occupancy rib_occupied[ROUTE_CONTEXTS];

namespace
{

// Reduced as by norvik_get_t, so that both are of the same context.
rib_occupancy &occupancy_of(std::uint32_t ctx) { return rib_occupied[ctx % ROUTE_CONTEXTS]; }

std::uint32_t bucket_of(std::uint32_t prefix, std::uint32_t len)
{
    return slowpath_route_hashing_ip_key(prefix, len) % RIB_BUCKETS;
}

// Moves `link` along its chain to the entry of the prefix, or to where it would have to be. Returns the entry, or null.
// `step` is called with each link on the way that has an entry.
template <class Step>
route_entry *walk_chain(card_ptr<route_entry> *&link, std::uint32_t prefix, std::uint32_t len, Step step)
{
    const std::uint32_t wanted = rib_key(prefix, len);
    while (route_entry *const entry = link->get()) {
        step(link);
        const std::uint32_t key = rib_key(entry->prefix, len);
        if (key == wanted)
            return entry;
        if (wanted < key)
            return nullptr;
        link = &entry->next;
    }
    return nullptr;
}

// Picks the candidate or the first member of its set that the predicate accepts. Without one the result stays "not
// found", with `prev` at the candidate: the caller sees that the prefix is there.
void choose_path(route_entry *candidate, const void *key, rib_match match, rib_search_result *result)
{
    if (match == nullptr || match(candidate, key)) {
        result->found = 1;
        result->entry = candidate;
        return;
    }
    for (card_ptr<route_entry> *link = &candidate->ecmp; route_entry *const member = link->get(); link = &member->next)
        if (match(member, key)) {
            *result = {1, member, link, candidate};
            return;
        }
}

template <class Key> const Key &key_as(const void *key) { return *static_cast<const Key *>(key); }

} // namespace

// Lengths 0 and 32 are not shifted at all: the amount is taken modulo the word's width.
std::uint32_t rib_key(std::uint32_t prefix, std::uint32_t len) { return prefix >> ((32 - len) % 32); }

std::uint32_t slowpath_route_hashing_ip_key(std::uint32_t addr, std::uint32_t len)
{
    const std::uint32_t v = rib_key(addr, len);
    return (((v >> 24) * 9 + (v >> 16 & 0xff)) * 9 + (v >> 8 & 0xff)) * 9 + (v & 0xff);
}

std::uint8_t count_mask_bit(std::uint32_t mask) { return static_cast<std::uint8_t>(std::countl_one(mask)); }

card_ptr<route_entry> *rib_bucket(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len)
{
    return &norvik_get_t(ctx)->table[len][bucket_of(prefix, len)];
}

std::uint32_t rib_route_search(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len, const void *key,
                               rib_match match, rib_search_result *result)
{
    *result = {0, nullptr, nullptr, nullptr};
    card_ptr<route_entry> *const bucket = rib_bucket(ctx, prefix, len);
    route_log(ROUTE_DBG_EVENTS, ctx, "---srch start:%x/%d----\n", prefix, len);

    result->prev = bucket;
    route_entry *const candidate = walk_chain(result->prev, prefix, len, [ctx](const card_ptr<route_entry> *link) {
        route_log(ROUTE_DBG_EVENTS, ctx, "lnk:%x *lnk:%x\n", card_addr_of(link), link->addr());
    });
    if (candidate != nullptr)
        choose_path(candidate, key, match, result);

    route_log(ROUTE_DBG_EVENTS, ctx, "---srch end:%x/%d-%u res:%x prev:<%x,%x> ecmp:%x---\n", prefix, len,
              result->found, card_addr_of(result->entry), card_addr_of(result->prev), result->prev->addr(),
              card_addr_of(result->ecmp_head));
    return result->found;
}

route_entry *rib_set_at(const rib_search_result &search, std::uint32_t prefix, std::uint32_t len)
{
    route_entry *const at = search.prev->get();
    return at != nullptr && at->prefix == prefix && at->len == len ? at : nullptr;
}

card_ptr<route_entry> *rib_link(route_entry *entry, const rib_search_result &search, route_entry *head)
{
    if (head != nullptr)
        return rib_ecmp_link(entry, head);
    rib_chain_insert(entry->ctx, entry, search.prev);
    return search.prev;
}

void rib_chain_insert(std::uint32_t ctx, route_entry *entry, card_ptr<route_entry> *prev)
{
    entry->next = *prev;
    *prev = entry;
    rib_occupancy &occupied = occupancy_of(ctx);
    occupied.rows |= std::uint64_t{1} << entry->len;
    occupied.buckets[entry->len] |= 1u << bucket_of(entry->prefix, entry->len);
}

card_ptr<route_entry> *rib_chain_link(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len)
{
    if ((occupancy_of(ctx).rows >> len & 1) == 0)
        return nullptr;
    card_ptr<route_entry> *link = rib_bucket(ctx, prefix, len);
    return walk_chain(link, prefix, len, [](const card_ptr<route_entry> *) {}) == nullptr ? nullptr : link;
}

route_entry *rib_chain_entry(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len)
{
    const card_ptr<route_entry> *const link = rib_chain_link(ctx, prefix, len);
    return link == nullptr ? nullptr : link->get();
}

card_ptr<route_entry> *rib_next_bucket(std::uint32_t ctx, rib_place *place)
{
    rib_occupancy &occupied = occupancy_of(ctx);
    prefix_tree *const tree = norvik_get_t(ctx);
    std::uint64_t rows = place->row < RIB_ROWS ? occupied.rows >> place->row << place->row : 0;
    for (; rows != 0; rows &= rows - 1) {
        const auto row = static_cast<unsigned>(std::countr_zero(rows));
        const unsigned first = row == place->row ? place->bucket : 0;
        std::uint32_t &bits = occupied.buckets[row];
        for (std::uint32_t left = bits >> first << first; left != 0; left &= left - 1) {
            const auto bucket = static_cast<unsigned>(std::countr_zero(left));
            card_ptr<route_entry> *const head = &tree->table[row][bucket];
            if (*head) {
                *place = {row, bucket};
                return head;
            }
            bits &= ~(1u << bucket);
        }
        if (bits == 0)
            occupied.rows &= ~(std::uint64_t{1} << row);
    }
    return nullptr;
}

bool rib_set_is_full(const route_entry *head) { return head != nullptr && head->ecmp_count == RIB_SET_MOST; }

route_entry *rib_entry_alloc(mtrack_type type)
{
    void *const block = mtrack_alloc(ROUTE_MGR_UUID, type, sizeof(route_entry));
    if (block == nullptr)
        return nullptr;
    return new (block) route_entry{};
}

card_ptr<route_entry> *rib_ecmp_link(route_entry *entry, route_entry *head)
{
    card_ptr<route_entry> *link = &head->ecmp;
    if ((head->flags & RIB_F_ECMP) != 0) {
        while (route_entry *const member = link->get())
            link = &member->next;
        head->ecmp_count = static_cast<std::uint16_t>(head->ecmp_count + 1);
    } else {
        head->flags |= RIB_F_ECMP;
        head->ecmp_count = static_cast<std::uint16_t>(head->ecmp_count + 2); // the head and its first member
    }
    *link = entry;
    entry->flags |= RIB_F_ECMP;
    return link;
}

void rib_ecmp_unlink(route_entry *entry, card_ptr<route_entry> *prev, route_entry *head)
{
    route_entry *left_head = head; // head of the set that is left
    std::uint32_t left = 0;        // and its paths
    if (head != nullptr) {
        *prev = entry->next;
        left = head->ecmp_count - 1u;
    } else {
        left_head = entry->ecmp;
        left_head->ecmp = left_head->next; // before `next` becomes the chain's link
        left_head->next = entry->next;
        *prev = left_head;
        left = entry->ecmp_count - 1u;
    }

    left_head->ecmp_count = static_cast<std::uint16_t>(left == 1 ? 0 : left);
    if (left == 1)
        left_head->flags &= static_cast<std::uint16_t>(~RIB_F_ECMP);
}

bool rib_host_match(const route_entry *entry, const void *object)
{
    switch (key_as<std::uint32_t>(object)) {
    case RIB_OBJ_ARP_HOST:
        return (entry->flags & (RIB_F_ARP_HOST | RIB_F_ARP_INSTALLED)) != 0;
    case RIB_OBJ_INTERFACE:
        return (entry->flags & RIB_F_INTERFACE) != 0;
    default:
        return false;
    }
}

// An interface's entry matches whatever the gateway: a static route may not share its prefix.
bool rib_static_match(const route_entry *entry, const void *nexthop)
{
    return (entry->flags & RIB_F_INTERFACE) != 0 || rib_nexthop_match(entry, nexthop);
}

bool rib_nexthop_match(const route_entry *entry, const void *nexthop)
{
    return entry->nexthop == key_as<std::uint32_t>(nexthop);
}

bool rib_nat_encap_match(const route_entry *entry, const void *encap)
{
    return entry->encap_id == key_as<std::uint16_t>(encap) && (entry->flags & RIB_F_NAT) != 0;
}

bool rib_nat_learned_match(const route_entry *entry, const void *range)
{
    const std::uint32_t *const bounds = static_cast<const std::uint32_t *>(range);
    return entry->len == 32 && (entry->flags & (RIB_F_ARP_HOST | RIB_F_ARP_INSTALLED)) != 0 &&
           bounds[0] <= entry->prefix && entry->prefix <= bounds[1];
}

bool rib_nat_ifid_match(const route_entry *entry, const void *ifid)
{
    return (entry->flags & RIB_F_NAT) != 0 && entry->ifid == key_as<std::uint16_t>(ifid);
}
