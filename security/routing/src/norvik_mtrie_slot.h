// norvik_mtrie_slot.h - where a trie record stands: its element in its pool, and the hardware slot of the same index.
#pragma once

#include <cstdint>

#include "card_space.h"
#include "mtrie_records.h"
#include "route_ids.h"
#include "route_table.h"

constexpr std::int32_t MTRIE_POOL_NODE = 0, MTRIE_POOL_LEAF = 1, MTRIE_POOL_ECMP = 2, MTRIE_POOL_NONE = 3;
constexpr std::uint32_t MTRIE_POOL_LINK = 4; // bytes of the link word in front of a record

// What a type's records are in their pool, and what their slots are in a hardware table.
struct mtrie_slot_shape {
    std::uint32_t elem_size; // bytes, with the link word
    std::int32_t nelem;      // capacity
    std::uint32_t hw_start;  // offset of the first slot in the table
    std::uint32_t hw_bytes;  // of a slot
};
constexpr mtrie_slot_shape MTRIE_SLOT_SHAPES[3] = {
    // by type
    {sizeof(mtrie_node) + MTRIE_POOL_LINK, HW_NODE_COUNT, HW_NODES, HW_NODE_BYTES},
    {sizeof(mtrie_leaf) + MTRIE_POOL_LINK, HW_LEAF_COUNT, HW_LEAVES, HW_LEAF_BYTES},
    {sizeof(mtrie_ecmp) + MTRIE_POOL_LINK, HW_ECMP_COUNT, HW_ECMPS, HW_ECMP_BYTES},
};
static_assert(MTRIE_SLOT_SHAPES[MTRIE_POOL_NODE].elem_size == 1036 &&
              MTRIE_SLOT_SHAPES[MTRIE_POOL_LEAF].elem_size == 40 && MTRIE_SLOT_SHAPES[MTRIE_POOL_ECMP].elem_size == 48);

struct mtrie_pool {
    std::int32_t type;
    std::uint32_t elem_size;                 // bytes, with the link word
    card_addr start;                         // first element
    card_addr end;                           // last element, not one past it
    card_addr free_head;                     // 0 when the pool is exhausted
    card_addr free_tail;                     // 0 when the pool is exhausted
    std::int32_t count;                      // elements in use, 0 to nelem
    std::int32_t nelem;                      // capacity
    std::int32_t tree_count[ROUTE_CONTEXTS]; // elements charged to each tree and not given back in its name
};
extern mtrie_pool mtrie_pools[3]; // by type

std::int32_t mtrie_node_type(card_addr element);                    // MTRIE_POOL_*, MTRIE_POOL_NONE with a logged line
card_addr mtrie_get_cp_node(std::int32_t type, std::int32_t index); // element address; 0 beyond the pool

// Index of an element; 0 for type 3 and more.
inline std::int32_t mtrie_node_offset(std::int32_t type, card_addr element)
{
    if (type >= MTRIE_POOL_NONE)
        return 0;
    return static_cast<std::int32_t>(element - mtrie_pools[type].start) /
           static_cast<std::int32_t>(MTRIE_SLOT_SHAPES[type].elem_size);
}

inline card_addr mtrie_element_of(const void *record) { return card_addr_of(record) - MTRIE_POOL_LINK; }
template <class T> T *mtrie_record_of(card_addr element) // null for no element
{
    return element == 0 ? nullptr : card_at<T>(element + MTRIE_POOL_LINK);
}

// Offset of a slot in every hardware table. type: 0 to 2.
inline std::uint32_t mtrie_slot_at(std::int32_t type, std::int32_t index)
{
    return MTRIE_SLOT_SHAPES[type].hw_start + static_cast<std::uint32_t>(index) * MTRIE_SLOT_SHAPES[type].hw_bytes;
}
inline std::uint32_t mtrie_slot_of(std::int32_t type, const void *record)
{
    return mtrie_slot_at(type, mtrie_node_offset(type, mtrie_element_of(record)));
}
inline std::uint32_t mtrie_slot_of(const mtrie_node *node) { return mtrie_slot_of(MTRIE_POOL_NODE, node); }
inline std::uint32_t mtrie_slot_of(const mtrie_leaf *leaf) { return mtrie_slot_of(MTRIE_POOL_LEAF, leaf); }
inline std::uint32_t mtrie_slot_of(const mtrie_ecmp *block) { return mtrie_slot_of(MTRIE_POOL_ECMP, block); }
