// ixp_walk.h - the walk of one address, and the pieces that the implementations share.
//
// Always: every load is one aligned word with acquire order, at an index inside the table.
// Elsewhere: the rules (ixp_lookup.h), the implementations that do many addresses at once (ixp_lookup.cpp,
// ixp_avx2.cpp).
#pragma once

#include <atomic>
#include <cstdint>

#include "ixp_lookup.h"
#include "mtrie_records.h"
#include "route_table.h"

constexpr std::uint32_t IXP_LAST_WORD = HW_TABLE_BYTES / 4 - 1;
constexpr std::uint32_t IXP_SLOT_MASK = 0xFF, IXP_TREE_MASK = 0xFF;
constexpr unsigned IXP_LEVELS = 4, IXP_WALKS = 4, IXP_TOP_SHIFT = 24, IXP_STRIDE = 8;

inline std::uint32_t ixp_load_word(const std::uint32_t *word)
{
    return std::atomic_ref<std::uint32_t>(*const_cast<std::uint32_t *>(word)).load(std::memory_order_acquire);
}
inline std::uint32_t ixp_load(const ixp_table &table, std::uint32_t index)
{
    return ixp_load_word(table.words + (index < IXP_LAST_WORD ? index : IXP_LAST_WORD));
}

// Index of the word that an address of this copy names, tagged or not.
inline std::uint32_t ixp_index(const ixp_table &table, std::uint32_t word) { return (word - table.base) >> 2; }

inline bool ixp_is_node(std::uint32_t word) { return (word & HW_NODE_TAG) != 0; }
inline bool ixp_is_leaf(std::uint32_t word) { return word != 0 && !ixp_is_node(word); }

// One walk from the root word: the last slot word, which is no leaf's when the walk has failed.
inline std::uint32_t ixp_walk_once(const ixp_table &table, std::uint32_t tree, std::uint32_t address)
{
    std::uint32_t word = ixp_load(table, tree & IXP_TREE_MASK);
    for (unsigned level = 0; level < IXP_LEVELS && ixp_is_node(word); ++level) {
        const unsigned shift = IXP_TOP_SHIFT - IXP_STRIDE * level;
        word = ixp_load(table, ixp_index(table, word) + (address >> shift & IXP_SLOT_MASK));
    }
    return word;
}

// Up to `walks` of them: a leaf's slot word, or 0.
inline std::uint32_t ixp_walk(const ixp_table &table, std::uint32_t tree, std::uint32_t address, unsigned walks)
{
    for (; walks > 0; --walks) {
        const std::uint32_t word = ixp_walk_once(table, tree, address);
        if (ixp_is_leaf(word))
            return word;
    }
    return 0;
}

// A word and the path that it stands for.
struct ixp_choice {
    std::uint32_t word, path;
};

// The path of a flow at the leaf that `slot` names and whose adjacency word is `own`.
inline ixp_choice ixp_choose(const ixp_table &table, std::uint32_t slot, std::uint32_t own, std::uint32_t hash)
{
    if ((own & ADJ_ECMP) == 0)
        return {own, 0};
    const std::uint32_t pointer = ixp_load(table, ixp_index(table, slot) + 1);
    if (pointer == 0)
        return {own, 0};
    const std::uint32_t block = ixp_index(table, pointer), header = ixp_load(table, block);
    const std::uint32_t path = hash % (ecmp_count(header) + 1);
    if ((header & ECMP_VALID) == 0 || path == 0)
        return {own, 0};
    const std::uint32_t entry = ixp_load(table, block + path);
    return ixp_load(table, block) == header ? ixp_choice{entry, path} : ixp_choice{own, 0};
}

// A whole lookup with `walks` walks to go.
inline std::uint32_t ixp_adjacency(const ixp_table &table, std::uint32_t tree, std::uint32_t address, unsigned walks)
{
    const std::uint32_t slot = ixp_walk(table, tree, address, walks);
    return slot == 0 ? IXP_MISS : ixp_load(table, ixp_index(table, slot));
}
inline ixp_choice ixp_path(const ixp_table &table, std::uint32_t tree, std::uint32_t address, std::uint32_t hash,
                           unsigned walks)
{
    const std::uint32_t slot = ixp_walk(table, tree, address, walks);
    if (slot == 0)
        return {IXP_MISS, 0};
    return ixp_choose(table, slot, ixp_load(table, ixp_index(table, slot)), hash);
}

// The trees of a run of addresses: one for all, or one each.
struct ixp_trees {
    const std::uint32_t *each; // null: `one` for all
    std::uint32_t one;
};
inline std::uint32_t ixp_tree_of(const ixp_trees &trees, std::size_t i)
{
    return trees.each == nullptr ? trees.one : trees.each[i];
}
inline ixp_trees ixp_trees_from(const ixp_trees &trees, std::size_t i)
{
    return {trees.each == nullptr ? nullptr : trees.each + i, trees.one};
}

// The vector implementation. Only called where ixp_avx2_runs.
bool ixp_avx2_runs();
void ixp_avx2_lookup(const ixp_table &table, const ixp_trees &trees, const std::uint32_t *addresses,
                     std::uint32_t *words, std::size_t count);
void ixp_avx2_forward(const ixp_table &table, const ixp_trees &trees, const ixp_packets &packets);
