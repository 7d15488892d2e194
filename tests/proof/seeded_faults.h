// seeded_faults.h - the three ways of storing in a wrong order that every proof must notice.
//
// Each keeps some words back and stores them after the one that they belong in front of. What is stored in the end is
// the same; only the order is wrong. Tests with a card of their own and the daemon of the large proof share them.
#pragma once

#include <cstdint>
#include <vector>

#include "route_table.h"

namespace harness
{
enum store_fault : unsigned {
    FAULT_NONE,
    FAULT_HEADER_FIRST,      // a set's header before its entries
    FAULT_SLOT_BEFORE_CHILD, // a slot switched to a node before that node is filled
    FAULT_WORD_AFTER_SLOT,   // a leaf's adjacency word after the slot that names the leaf
    FAULTS,
};
constexpr const char *STORE_FAULT_NAMES[FAULTS] = {"none", "header first", "slot before child", "word after slot"};

// A store into one copy: offset in bytes from the table's start.
struct faulty_word {
    std::uint32_t offset, value;
};

// One copy's order of stores, with the fault in it. Only records that have just been taken are stored wrongly: their
// slot was cleared by the stores right before. So at rest the copy is always right.
struct fault_order {
    store_fault fault = FAULT_NONE;
    std::uint32_t base = 0;        // of the copy's addresses
    std::vector<faulty_word> kept; // stores that are owed
    faulty_word last[2] = {};      // stores that were asked for before, the latest first
    std::uint32_t fresh_node = 0;  // offset of the node that was cleared last and that no slot names yet
};

constexpr bool fault_in_nodes(std::uint32_t offset) { return offset >= HW_NODES && offset < HW_LEAVES; }
constexpr bool fault_in_leaves(std::uint32_t offset) { return offset >= HW_LEAVES && offset < HW_ECMPS; }
constexpr std::uint32_t fault_node_of(std::uint32_t offset) { return offset - (offset - HW_NODES) % HW_NODE_BYTES; }

// Whether a store is kept back. Every store of the copy is asked for here, once and in order.
inline bool fault_keeps(fault_order &order, const faulty_word &store)
{
    const faulty_word before = order.last[0], first = order.last[1];
    order.last[1] = before;
    order.last[0] = store;
    const bool node = fault_in_nodes(store.offset), ends_node = node && (store.offset & 0x3FF) == 0x3FC;
    if (ends_node && store.value == 0)
        order.fresh_node = fault_node_of(store.offset);
    if (order.fault == FAULT_HEADER_FIRST)
        return store.offset >= HW_ECMPS && store.offset % HW_ECMP_BYTES != 0;
    if (order.fault == FAULT_SLOT_BEFORE_CHILD)
        return node && store.value != 0 && fault_node_of(store.offset) == order.fresh_node;
    const bool cleared =
        first.offset == store.offset && before.offset == store.offset + 4 && (first.value | before.value) == 0;
    return order.fault == FAULT_WORD_AFTER_SLOT && fault_in_leaves(store.offset) && cleared;
}

// Whether a store that was made lets the kept ones go.
inline bool fault_frees(fault_order &order, const faulty_word &store)
{
    const std::uint32_t named = (store.value & ~HW_NODE_TAG) - order.base;
    if (order.fault == FAULT_HEADER_FIRST)
        return store.offset >= HW_ECMPS && store.offset % HW_ECMP_BYTES == 0;
    if (store.offset >= HW_LEAVES)
        return false;
    if (order.fault == FAULT_SLOT_BEFORE_CHILD && named == order.fresh_node && order.fresh_node != 0) {
        order.fresh_node = 0;
        return true;
    }
    return order.fault == FAULT_WORD_AFTER_SLOT && !order.kept.empty() && order.kept.back().offset == named;
}
} // namespace harness
