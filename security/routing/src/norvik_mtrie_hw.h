// norvik_mtrie_hw.h - the hardware tables: mapping, writers, the trie's hooks, debug walks.
#pragma once

#include <cstdint>

#include "card_space.h"
#include "mtrie_records.h"

extern card_addr va_wired_base, va_ixp1_dram_base, va_ixp2_dram_base; // where the three copies are mapped
extern std::uint32_t wired_route_phys_base;

// A copy of the table.
struct mtrie_hw_copy {
    card_addr &base;           // where it is mapped; 0 while it is not
    const std::uint32_t &form; // address of the table's first byte as the words of this copy have it
};
constexpr unsigned MTRIE_HW_WIRED = 0, MTRIE_HW_IXP1 = 1, MTRIE_HW_COPIES = 3; // IXP2 behind IXP1
extern const mtrie_hw_copy mtrie_hw_copies[MTRIE_HW_COPIES];

// Writers, each given a destination in the mapped wired region. Null for a card without processors.
struct mtrie_hw_writers {
    void (*copy_pairs)(card_addr to, const std::uint32_t *from, std::uint32_t pairs);
    void (*copy_words)(card_addr to, const std::uint32_t *from, std::uint32_t words);
    void (*fill_pairs_wired)(card_addr to, std::uint32_t a, std::uint32_t b, std::uint32_t pairs);
    void (*fill_words_wired)(card_addr to, std::uint32_t word, std::uint32_t words);
    void (*fill_pairs_ixp)(card_addr to, std::uint32_t a, std::uint32_t b, std::uint32_t pairs);
    void (*fill_words_ixp)(card_addr to, std::uint32_t word, std::uint32_t words);
};
extern mtrie_hw_writers mtrie_hw_ops;

[[nodiscard]] int mtrie_hw_init(); // maps and clears the tables, chooses the writers: 0 or -1
void mtrie_hw_clear_node(std::int32_t type, std::int32_t index);
void mtrie_hw_write_adjacency(const mtrie_leaf *leaf, const std::uint32_t *source);
void mtrie_hw_write_ecmp(const mtrie_ecmp *block, const std::uint32_t *source);
void mtrie_hw_set_ecmp(const mtrie_leaf *leaf, const mtrie_ecmp *block);
void mtrie_hw_reset_ecmp(const mtrie_leaf *leaf);
void mtrie_hw_set_root(std::uint32_t tree, const mtrie_node *root);
mtrie_node *mtrie_get_root_node(std::uint32_t tree); // the tree's root as the wired copy names it, or null
int mtrie_hw_write_children(const mtrie_node *node, std::uint32_t word, std::uint32_t first, std::uint32_t last);

// Hooks of the trie. `ok` is set to 1 to accept.
void reg_invoke_hw_mtrie_node_alloc(mtrie_node *node, int *ok);
void reg_invoke_hw_mtrie_leaf_alloc(mtrie_leaf *leaf, int *ok);
void reg_invoke_hw_mtrie_node_free(mtrie_node *node);
void reg_invoke_hw_mtrie_leaf_free();
int reg_invoke_hw_add_child_to_mnode(const mtrie_node *node, std::uint32_t word, std::uint32_t index);
int reg_invoke_hw_add_child_block_to_mnode(const mtrie_node *node, std::uint32_t word, std::uint32_t first,
                                           std::uint32_t count);

// Debug walks of one copy, as a processor does them; printed to standard output.
void mtrie_hw_lookup(std::uint32_t tree, std::uint32_t address);
void mtrie_hw_lookup_ixp_1(std::uint32_t tree, std::uint32_t address);
void mtrie_hw_lookup_ixp_2(std::uint32_t tree, std::uint32_t address);
