// prefix_mgr.h - the manager of the 256 trees: it adds routes to the trie and removes them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "card_space.h"
#include "route_entry.h"

struct prefix_mgr {
    card_ptr<card_ptr<prefix_tree>> trees; // by tree id
    card_addr base;                        // the mapped wired region
    std::uint32_t root_stride;
    std::uint32_t node_stride;
    std::uint32_t settings[2]; // kept, not used
    std::uint32_t num_trees;
    std::uint32_t setting; // kept, not used
    char name[50];
    char unused[2];
};
static_assert(sizeof(prefix_mgr) == 84 && offsetof(prefix_mgr, name) == 32);

extern card_ptr<prefix_mgr> wired_table_mgr; // null until norvik_init_ixp_fib has made it

// The record of the context in the low 16 bits (0 to 255, not checked). Before the manager exists, an empty one.
prefix_tree *norvik_get_t(std::uint32_t context);

// 0 with the manager stored, 3 on any failure.
[[nodiscard]] int prefix_mgr_init(card_ptr<prefix_mgr> *out, card_addr base, std::uint32_t size,
                                  std::uint32_t root_stride, std::uint32_t stride, std::uint32_t num_trees,
                                  std::uint32_t setting_a, std::uint32_t setting_b, std::uint32_t setting_c,
                                  const char *name);
// 0; 5 for a null slot; 3 when memory, a root node or a pool record is lacking.
[[nodiscard]] int prefix_mgr_tree_create(card_ptr<prefix_tree> *slot, const char *name, std::uint32_t tree_id,
                                         std::uint32_t stride, std::uint32_t print_a, std::uint32_t print_b);
// 1 inserted or path added, 2 the prefix was there; 0 failed.
[[nodiscard]] std::uint32_t prefix_mgr_route_add(prefix_mgr *manager, const route_entry *route);
// 1 removed, 0 not found or failed.
[[nodiscard]] std::uint32_t prefix_mgr_route_remove(prefix_mgr *manager, const route_entry *route);
