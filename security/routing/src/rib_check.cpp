// rib_check.cpp - the audit of a context's routes: the table, and the next hop index beside it.
//
// It recomputes from the chains and sets what the records, the occupied buckets and the index claim, and changes
// nothing. The index is compared only when the table is in order, since a broken chain can not be visited safely.
#include "rib_check.h"

#include "prefix_mgr.h"
#include "rib_nexthop_index.h"
#include "rib_table.h"

namespace
{

int broken(bool rule_holds) { return rule_holds ? 0 : 1; }

// Rules that hold for every entry, on the chain or in a set.
int check_entry(const route_entry *entry, std::uint32_t ctx, std::uint32_t len)
{
    const auto has = [entry](std::uint16_t bits) { return (entry->flags & bits) == bits; };
    int faults = broken(entry->len == len) + broken((entry->prefix & ~rib_mask_table[len]) == 0);
    faults += broken(entry->ctx == ctx) + broken(entry->route_id < ROUTE_CONTEXTS);
    faults += broken(!has(RIB_F_IN_MTRIE) || has(RIB_F_GATEWAY));
    return faults + broken(!has(RIB_F_NAT_IN_MTRIE) || has(RIB_F_NAT));
}

// The set of a chain entry: its members have its prefix, the flag and no members of their own, and the head counts
// them.
int check_set(const route_entry *head, std::uint32_t ctx)
{
    int faults = 0;
    std::uint32_t members = 0;
    for (const route_entry *member = head->ecmp; member != nullptr && members < RIB_SET_MOST; member = member->next) {
        ++members;
        faults += check_entry(member, ctx, head->len) + broken(member->prefix == head->prefix);
        faults += broken((member->flags & RIB_F_ECMP) != 0);
        faults += broken(member->ecmp.get() == nullptr && member->ecmp_count == 0);
    }
    faults += broken(((head->flags & RIB_F_ECMP) != 0) == (members != 0));
    return faults + broken(head->ecmp_count == (members == 0 ? 0 : members + 1));
}

// One chain. An entry out of order ends the walk, so that a ring of links cannot keep the audit from ending.
int check_chain(const card_ptr<route_entry> *bucket, std::uint32_t ctx, std::uint32_t len)
{
    int faults = 0;
    const route_entry *before = nullptr;
    for (const route_entry *entry = *bucket; entry != nullptr; before = entry, entry = entry->next) {
        if (before != nullptr && rib_key(before->prefix, len) >= rib_key(entry->prefix, len))
            return faults + 1;
        faults += check_entry(entry, ctx, len) + check_set(entry, ctx);
        faults += broken(rib_bucket(ctx, entry->prefix, len) == bucket);
    }
    return faults;
}

// Each bucket that holds entries has its bit, and so has its row.
int check_occupancy(const prefix_tree *tree, std::uint32_t ctx)
{
    const rib_occupancy &occupied = rib_occupied[ctx % ROUTE_CONTEXTS];
    int faults = 0;
    for (std::uint32_t len = 0; len < RIB_ROWS; ++len)
        for (std::uint32_t bucket = 0; bucket < RIB_BUCKETS; ++bucket) {
            const bool marked = (occupied.rows >> len & 1) != 0 && (occupied.buckets[len] >> bucket & 1) != 0;
            faults += broken(marked || !tree->table[len][bucket]);
        }
    return faults;
}

// A static route is in the index, and no other entry is. Counts the static routes.
int check_indexed(const route_entry *entry, std::size_t *statics)
{
    const bool is_static = (entry->flags & RIB_F_GATEWAY) != 0;
    *statics += is_static ? 1u : 0u;
    return broken(rib_nexthop_index_has(entry) == is_static);
}

// What a visit of every entry of the context finds is what the index holds for it.
int check_index(std::uint32_t ctx)
{
    int faults = 0;
    std::size_t statics = 0;
    (void)rib_find_entry(ctx, [&faults, &statics](const route_entry *head) {
        faults += check_indexed(head, &statics);
        for (const route_entry *member = head->ecmp; member != nullptr; member = member->next)
            faults += check_indexed(member, &statics);
        return false;
    });
    const auto from = rib_nexthop_index_routes.lower_bound(rib_nexthop_index_first(ctx, 0));
    const auto to =
        rib_nexthop_index_routes.upper_bound({rib_nexthop_index_first(ctx, 0xFFFFFFFF).gateway, ~std::uint64_t{0}});
    std::size_t entered = 0;
    for (auto at = from; at != to; ++at)
        ++entered;
    return faults + broken(entered == statics);
}

} // namespace

int rib_check(std::uint32_t ctx)
{
    prefix_tree *const tree = norvik_get_t(ctx);
    int faults = check_occupancy(tree, ctx);
    for (std::uint32_t len = 0; len < RIB_ROWS; ++len)
        for (std::uint32_t bucket = 0; bucket < RIB_BUCKETS; ++bucket)
            faults += check_chain(&tree->table[len][bucket], ctx, len);
    return faults != 0 ? faults : check_index(ctx); // which follows the links
}
