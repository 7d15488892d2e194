// ixp_lookup.cpp - the scalar and the batch body, and the choice among the three.
//
// The batch takes a block of addresses level by level. The loads of one level do not depend on each other, so a
// processor has as many of them in flight as it can; addresses that have reached their leaf leave the list, which is
// kept without branches.
// Elsewhere: the walk of one address (ixp_walk.h), the gathers (ixp_avx2.cpp).
#include "ixp_lookup.h"

#include <algorithm>

#include "ixp_walk.h"

namespace
{
constexpr std::size_t BLOCK = 64; // addresses in flight

// The slot words of a block, and which of its addresses are still on their way.
struct batch {
    std::uint32_t slot[BLOCK];
    std::uint32_t open[BLOCK];
    std::size_t open_count;
};

// Reads the root's slots; the first level has no list to keep.
void batch_enter(const ixp_table &table, const ixp_trees &trees, const std::uint32_t *addresses, std::size_t count,
                 batch &b)
{
    const std::uint32_t one = ixp_load(table, trees.one & IXP_TREE_MASK);
    std::size_t open = 0;
    for (std::size_t i = 0; i < count; ++i) {
        std::uint32_t word = trees.each == nullptr ? one : ixp_load(table, trees.each[i] & IXP_TREE_MASK);
        if (ixp_is_node(word))
            word = ixp_load(table, ixp_index(table, word) + (addresses[i] >> IXP_TOP_SHIFT));
        b.slot[i] = word;
        b.open[open] = static_cast<std::uint32_t>(i);
        open += word & HW_NODE_TAG;
    }
    b.open_count = open;
}

void batch_descend(const ixp_table &table, const std::uint32_t *addresses, unsigned shift, batch &b)
{
    std::size_t open = 0;
    for (std::size_t k = 0; k < b.open_count; ++k) {
        const std::uint32_t i = b.open[k];
        const std::uint32_t word =
            ixp_load(table, ixp_index(table, b.slot[i]) + (addresses[i] >> shift & IXP_SLOT_MASK));
        b.slot[i] = word;
        b.open[open] = i;
        open += word & HW_NODE_TAG;
    }
    b.open_count = open;
}

void batch_walk(const ixp_table &table, const ixp_trees &trees, const std::uint32_t *addresses, std::size_t count,
                batch &b)
{
    batch_enter(table, trees, addresses, count, b);
    for (unsigned shift = IXP_TOP_SHIFT - IXP_STRIDE; b.open_count > 0; shift -= IXP_STRIDE) {
        batch_descend(table, addresses, shift, b);
        if (shift == 0)
            break;
    }
}

void batch_lookup(const ixp_table &table, const ixp_trees &trees, const std::uint32_t *addresses, std::uint32_t *words,
                  std::size_t count)
{
    batch b;
    batch_walk(table, trees, addresses, count, b);
    for (std::size_t i = 0; i < count; ++i)
        words[i] = ixp_is_leaf(b.slot[i]) ? ixp_load(table, ixp_index(table, b.slot[i]))
                                          : ixp_adjacency(table, ixp_tree_of(trees, i), addresses[i], IXP_WALKS - 1);
}

void batch_forward(const ixp_table &table, const ixp_trees &trees, const ixp_packets &p)
{
    batch b;
    batch_walk(table, trees, p.addresses, p.count, b);
    for (std::size_t i = 0; i < p.count; ++i)
        p.words[i] = ixp_is_leaf(b.slot[i]) ? ixp_load(table, ixp_index(table, b.slot[i])) : 0;
    for (std::size_t i = 0; i < p.count; ++i) {
        const ixp_choice choice =
            ixp_is_leaf(b.slot[i]) ? ixp_choose(table, b.slot[i], p.words[i], p.hashes[i])
                                   : ixp_path(table, ixp_tree_of(trees, i), p.addresses[i], p.hashes[i], IXP_WALKS - 1);
        p.words[i] = choice.word;
        p.paths[i] = choice.path;
    }
}

void scalar_lookup(const ixp_table &table, const ixp_trees &trees, const std::uint32_t *addresses, std::uint32_t *words,
                   std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        words[i] = ixp_adjacency(table, ixp_tree_of(trees, i), addresses[i], IXP_WALKS);
}

void scalar_forward(const ixp_table &table, const ixp_trees &trees, const ixp_packets &p)
{
    for (std::size_t i = 0; i < p.count; ++i) {
        const ixp_choice choice = ixp_path(table, ixp_tree_of(trees, i), p.addresses[i], p.hashes[i], IXP_WALKS);
        p.words[i] = choice.word;
        p.paths[i] = choice.path;
    }
}

ixp_packets packets_from(const ixp_packets &p, std::size_t at, std::size_t count)
{
    return {p.addresses + at, p.hashes + at, p.words + at, p.paths + at, count};
}

void lookup(const ixp_table &table, ixp_body body, const ixp_trees &trees, const std::uint32_t *addresses,
            std::uint32_t *words, std::size_t count)
{
    if (body == IXP_AVX2 && ixp_avx2_runs())
        return ixp_avx2_lookup(table, trees, addresses, words, count);
    if (body == IXP_SCALAR)
        return scalar_lookup(table, trees, addresses, words, count);
    for (std::size_t at = 0; at < count; at += BLOCK)
        batch_lookup(table, ixp_trees_from(trees, at), addresses + at, words + at, std::min(BLOCK, count - at));
}

void forward(const ixp_table &table, ixp_body body, const ixp_trees &trees, const ixp_packets &p)
{
    if (body == IXP_AVX2 && ixp_avx2_runs())
        return ixp_avx2_forward(table, trees, p);
    if (body == IXP_SCALAR)
        return scalar_forward(table, trees, p);
    for (std::size_t at = 0; at < p.count; at += BLOCK)
        batch_forward(table, ixp_trees_from(trees, at), packets_from(p, at, std::min(BLOCK, p.count - at)));
}
} // namespace

const char *ixp_body_name(ixp_body body)
{
    constexpr const char *NAMES[IXP_BODIES] = {"scalar", "batch", "avx2"};
    return body < IXP_BODIES ? NAMES[body] : "none";
}

bool ixp_body_runs(ixp_body body) { return body < IXP_AVX2 || (body == IXP_AVX2 && ixp_avx2_runs()); }

ixp_body ixp_best_body() { return ixp_avx2_runs() ? IXP_AVX2 : IXP_BATCH; }

void ixp_lookup(const ixp_table &table, ixp_body body, std::uint32_t tree, const std::uint32_t *addresses,
                std::uint32_t *words, std::size_t count)
{
    lookup(table, body, {nullptr, tree}, addresses, words, count);
}

void ixp_lookup_trees(const ixp_table &table, ixp_body body, const std::uint32_t *trees, const std::uint32_t *addresses,
                      std::uint32_t *words, std::size_t count)
{
    lookup(table, body, {trees, 0}, addresses, words, count);
}

void ixp_forward(const ixp_table &table, ixp_body body, std::uint32_t tree, const ixp_packets &packets)
{
    forward(table, body, {nullptr, tree}, packets);
}

void ixp_forward_trees(const ixp_table &table, ixp_body body, const std::uint32_t *trees, const ixp_packets &packets)
{
    forward(table, body, {trees, 0}, packets);
}

ixp_hop ixp_hop_of(std::uint32_t word, std::uint32_t path)
{
    return {path == 0 ? adj_ifid(word) : ecmp_entry_ifid(word), adj_encap(word)};
}
