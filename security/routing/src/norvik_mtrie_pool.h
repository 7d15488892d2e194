// norvik_mtrie_pool.h - the fixed pools of trie nodes, leaves and ECMP blocks.
#pragma once

#include <cstdint>

#include "card_space.h"
#include "mtrie_records.h"
#include "norvik_mtrie_slot.h"

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

void mtrie_get_stats(std::uint32_t tree, std::uint32_t counts[3]); // nodes, leaves, ECMP blocks that a tree holds

card_addr allocate_node_from_pool(std::uint32_t tree, std::int32_t type);
void free_node_to_pool(std::uint32_t tree, std::int32_t type, card_addr element);

// Audit: counts, free lists and per-tree sums of all pools. Returns 0, or the number of rules broken.
[[nodiscard]] int mtrie_pool_check();
