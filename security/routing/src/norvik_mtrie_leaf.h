// norvik_mtrie_leaf.h - leaf, ECMP and default-leaf operations: a route becomes leaves and blocks.
#pragma once

#include <cstdint>

#include "card_space.h"
#include "mtrie_records.h"
#include "route_ids.h"

extern card_ptr<mtrie_leaf> norvik_leaf_default[ROUTE_CONTEXTS]; // each tree's /0 leaf, by route id
static_assert(sizeof(norvik_leaf_default) == 1024);

[[nodiscard]] std::uint32_t mtrie_ecmp_insert_stub(std::uint32_t tree, mtrie_leaf *leaf, std::uint32_t prefix,
                                                   std::uint32_t mask, std::uint32_t encap, std::uint32_t ifid,
                                                   std::uint32_t flags); // 1 added, 0 refused
[[nodiscard]] std::uint32_t mtrie_ecmp_remove_stub(std::uint32_t tree, mtrie_leaf *leaf, std::uint32_t prefix,
                                                   std::uint32_t mask, std::uint32_t encap, std::uint32_t ifid,
                                                   std::uint32_t flags); // 1 removed, 0 refused
// Result of mtrie_leaf_insert; 0 when there is no leaf.
[[nodiscard]] std::uint32_t mtrie_leaf_insert_stub(mtrie_node *root, std::uint32_t prefix, std::uint32_t mask,
                                                   std::uint32_t encap, std::uint32_t ifid, std::uint32_t flags,
                                                   std::uint32_t tree);
// 0 found, its ifid stored; 1 not found.
std::uint32_t mtrie_lookup_exact_stub(std::uint32_t route_id, std::uint32_t prefix, std::uint32_t mask,
                                      std::uint32_t *ifid);
std::uint32_t mtrie_leaf_delete_stub(std::uint32_t tree, mtrie_node *root, std::uint32_t prefix,
                                     std::uint32_t mask); // 1 deleted, 0 not found
[[nodiscard]] mtrie_leaf *mtrie_alloc_default_leaf_stub(std::uint32_t tree);
// add: only its low 8 bits; 0 resets. 1 done, 0 refused.
[[nodiscard]] std::uint32_t mtrie_set_default_leaf_stub(std::uint32_t route_id, std::uint32_t prefix,
                                                        std::uint32_t mask, std::uint32_t encap, std::uint32_t ifid,
                                                        std::uint32_t flags, std::uint32_t add);
int norvik_rib_table_alloc(std::uint32_t *word); // stores a new 4092-byte table's address; 0
