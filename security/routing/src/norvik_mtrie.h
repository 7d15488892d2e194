// norvik_mtrie.h - the multibit trie of a tree: strides 8-8-8-8, one leaf a prefix.
#pragma once

#include <cstdint>

#include "mtrie_records.h"

void mtrie_init(mtrie_node *root, mtrie_leaf *default_leaf, std::uint32_t stride);

[[nodiscard]] mtrie_node *mtrie_node_alloc(std::uint32_t tree);
[[nodiscard]] mtrie_leaf *mtrie_leaf_alloc(std::uint32_t tree, mtrie_node *node);
[[nodiscard]] mtrie_ecmp *mtrie_ecmp_alloc(std::uint32_t tree, mtrie_leaf *leaf);
void mtrie_leaf_free(std::uint32_t tree, mtrie_node *node, mtrie_leaf *leaf); // releases one reference
void mtrie_ecmp_free(std::uint32_t tree, mtrie_ecmp *block);

// 1 inserted; 2 the prefix is there already, nothing changed; 0 no node left (lookups unchanged).
[[nodiscard]] int mtrie_leaf_insert(std::uint32_t tree, mtrie_node *root, mtrie_leaf *leaf);
int mtrie_leaf_delete(std::uint32_t tree, mtrie_node *root, mtrie_leaf *leaf); // 0

mtrie_leaf *mtrie_longest_match(mtrie_node *root, std::uint32_t address);
mtrie_leaf *mtrie_lookup_exact(mtrie_node *root, std::uint32_t prefix, std::uint32_t mask);

unsigned mtrie_mask_len(std::uint32_t mask); // one bits of a contiguous mask

// Called with a leaf whose last reference goes, before its record returns to the pool. The layer above sets it.
using mtrie_leaf_gone_hook = void (*)(mtrie_leaf *leaf);
extern mtrie_leaf_gone_hook mtrie_leaf_gone;
