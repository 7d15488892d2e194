// norvik_mtrie_pool.h - the fixed pools of trie nodes, leaves and ECMP blocks.
#pragma once

#include <cstdint>

#include "card_space.h"
#include "mtrie_records.h"
#include "route_ids.h"

constexpr std::int32_t MTRIE_POOL_NODE = 0, MTRIE_POOL_LEAF = 1, MTRIE_POOL_ECMP = 2, MTRIE_POOL_NONE = 3;
constexpr std::uint32_t MTRIE_POOL_LINK = 4; // bytes of the link word in front of a record

struct mtrie_pool {
    std::int32_t type;
    std::uint32_t elem_size;                 // bytes, with the link word
    card_addr start;                         // first element
    card_addr end;                           // last element, not one past it
    card_addr free_head;                     // 0 when the pool is exhausted
    card_addr free_tail;                     // 0 when the pool is exhausted
    std::int32_t count;                      // elements in use, 0 to nelem
    std::int32_t nelem;                      // capacity
    std::int32_t tree_count[ROUTE_CONTEXTS]; // elements that each tree holds
};
extern mtrie_pool mtrie_pools[3]; // by type

// Maps and clears the hardware tables, then builds the pools. Returns 0, -1 (hardware), -2 (memory).
[[nodiscard]] int mtrie_pool_init();

// A zeroed record charged to `tree` (0 to 255), its hardware slot cleared; null, with a printed line, when none is
// left.
[[nodiscard]] mtrie_node *mtrie_node_alloc_pool(std::uint32_t tree);
[[nodiscard]] mtrie_leaf *mtrie_leaf_alloc_pool(std::uint32_t tree);
[[nodiscard]] mtrie_ecmp *mtrie_ecmp_alloc_pool(std::uint32_t tree);

// Return a record to the tail of its pool. A record outside the pool is reported and changes nothing.
void mtrie_node_free_pool(std::uint32_t tree, mtrie_node *node);
void mtrie_leaf_free_pool(std::uint32_t tree, mtrie_leaf *leaf);
void mtrie_ecmp_free_pool(std::uint32_t tree, mtrie_ecmp *block);

std::int32_t mtrie_node_offset(std::int32_t type, card_addr element); // index of an element; 0 for type 3 and more
std::int32_t mtrie_node_type(card_addr element);                    // MTRIE_POOL_*, MTRIE_POOL_NONE with a logged line
card_addr mtrie_get_cp_node(std::int32_t type, std::int32_t index); // element address; 0 beyond the pool
void mtrie_get_stats(std::uint32_t tree, std::uint32_t counts[3]);  // nodes, leaves, ECMP blocks that a tree holds

card_addr allocate_node_from_pool(std::uint32_t tree, std::int32_t type);
void free_node_to_pool(std::uint32_t tree, std::int32_t type, card_addr element);

// Audit: counts, free lists and per-tree sums of all pools. Returns 0, or the number of rules broken.
[[nodiscard]] int mtrie_pool_check();
