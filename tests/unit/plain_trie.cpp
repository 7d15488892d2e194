// plain_trie.cpp - the picture of a tree: its ranges, the ways back, the nodes, the paths.
#include "plain_trie.h"

#include <array>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <iterator>

namespace harness
{
namespace
{

using range_place = std::map<std::uint32_t, plain_leaf *>::iterator;

plain_leaf *answer_of(const plain_tree &tree, std::uint32_t address)
{
    return std::prev(tree.ranges.upper_bound(address))->second;
}

void split(plain_tree &tree, std::uint32_t at) { tree.ranges.emplace(at, answer_of(tree, at)); }

// First and last range of a prefix, cut so that they end with it.
std::pair<range_place, range_place> cut_out(plain_tree &tree, std::uint32_t prefix, std::uint32_t mask)
{
    const std::uint32_t first = prefix & mask, last = first | ~mask;
    split(tree, first);
    if (last != 0xFFFFFFFF)
        split(tree, last + 1);
    return {tree.ranges.find(first), last == 0xFFFFFFFF ? tree.ranges.end() : tree.ranges.find(last + 1)};
}

void compact(plain_tree &tree)
{
    for (auto range = std::next(tree.ranges.begin()); range != tree.ranges.end();)
        range = range->second == std::prev(range)->second ? tree.ranges.erase(range) : std::next(range);
}

void charge(plain_pools &pools, std::uint32_t ctx, plain_record kind, std::int32_t count)
{
    std::uint32_t *const totals[] = {&pools.nodes, &pools.leaves, &pools.blocks};
    *totals[kind] += static_cast<std::uint32_t>(count);
    pools.held[ctx][kind] += count;
}

// A leaf is in use while it answers, while it hangs below another, or while another hangs below it. Odd: so a prefix
// with nothing of these left is lost without having been deleted, and one that only hangs stays though no lookup finds
// it. A block goes down with its leaf and stays taken.
void release_unused(plain_tree &tree, std::uint32_t ctx)
{
    std::set<const plain_leaf *> used;
    for (const auto &[first, leaf] : tree.ranges)
        used.insert(leaf);
    for (const plain_leaf &leaf : tree.leaves)
        if (leaf.back != nullptr) {
            used.insert(&leaf);
            used.insert(leaf.back);
        }
    for (auto leaf = tree.leaves.begin(); leaf != tree.leaves.end();) {
        if (used.count(&*leaf) != 0) {
            ++leaf;
            continue;
        }
        if (tree.standard == &*leaf)
            tree.standard = nullptr;
        charge(*tree.pools, ctx, PLAIN_LEAF, -1);
        leaf = tree.leaves.erase(leaf);
    }
}

void spread(plain_tree &tree, plain_leaf *leaf)
{
    const auto [first, end] = cut_out(tree, leaf->prefix, leaf->mask);
    for (auto range = first; range != end; ++range) {
        plain_leaf *old = range->second;
        if (old == nullptr) {
            range->second = leaf;
        } else if (old->mask < leaf->mask) {
            range->second = leaf;
            if (leaf->back == nullptr) // odd: only what it displaces becomes its back
                leaf->back = old;
        } else if (old->mask > leaf->mask) {
            while (old->back != nullptr && old->back->mask > leaf->mask)
                old = old->back;
            old->back = leaf;
        }
    }
}

std::uint32_t node_mask(unsigned level) { return plain_mask(8 * level); }

// The nodes on the way to a prefix. False when one was lacking; odd: those made until then stay.
bool make_nodes(plain_tree &tree, std::uint32_t ctx, std::uint32_t prefix, std::uint32_t mask)
{
    const auto length = static_cast<unsigned>(std::popcount(mask));
    for (unsigned level = 1; 8 * level < length; ++level) {
        if (tree.nodes.count({level, prefix & node_mask(level)}) != 0)
            continue;
        if (tree.pools->nodes == plain_pools::NODES)
            return false;
        charge(*tree.pools, ctx, PLAIN_NODE, 1);
        tree.nodes.insert({level, prefix & node_mask(level)});
    }
    return true;
}

bool has_node_below(const plain_tree &tree, unsigned level, std::uint32_t first)
{
    if (level == 3)
        return false;
    const auto below = tree.nodes.lower_bound({level + 1, first});
    return below != tree.nodes.end() && below->first == level + 1 && (below->second & node_mask(level)) == first;
}

bool answers_alike(const plain_tree &tree, std::uint32_t first, std::uint32_t last)
{
    const plain_leaf *leaf = answer_of(tree, first);
    for (auto range = tree.ranges.upper_bound(first); range != tree.ranges.end() && range->first <= last; ++range)
        if (range->second != leaf)
            return false;
    return true;
}

// Nodes on the way to a deleted prefix and below it fold when all of their addresses have one answer, or none. Odd: an
// insertion folds nothing, so a gap that it fills keeps its node.
void fold_nodes(plain_tree &tree, std::uint32_t ctx, std::uint32_t prefix, std::uint32_t mask)
{
    for (unsigned level = 3; level >= 1; --level)
        for (auto node = tree.nodes.begin(); node != tree.nodes.end();) {
            const auto [its_level, first] = *node;
            const std::uint32_t shared = node_mask(its_level) & mask;
            if (its_level == level && ((first ^ prefix) & shared) == 0 && !has_node_below(tree, level, first) &&
                answers_alike(tree, first, first | ~node_mask(level))) {
                node = tree.nodes.erase(node);
                charge(*tree.pools, ctx, PLAIN_NODE, -1);
            } else {
                ++node;
            }
        }
}

bool is_linked(const plain_tree &tree, const plain_leaf *leaf)
{
    if (leaf->back != nullptr)
        return true;
    for (const auto &[first, answer] : tree.ranges)
        if (answer == leaf)
            return true;
    for (const plain_leaf &other : tree.leaves)
        if (other.back == leaf)
            return true;
    return false;
}

// The trie's own result: 1, 2 or 0. The leaf is charged by the caller.
std::uint32_t insert(plain_tree &tree, std::uint32_t ctx, const plain_leaf &route)
{
    if (plain_exact(tree, route.prefix, route.mask) != nullptr) {
        ++tree.lost_leaves; // odd: a repeat keeps its leaf
        return 2;
    }
    if (!make_nodes(tree, ctx, route.prefix, route.mask)) {
        ++tree.lost_leaves; // odd: as above
        return 0;
    }
    plain_leaf *leaf = &tree.leaves.emplace_back(route);
    leaf->prefix &= leaf->mask;
    spread(tree, leaf);
    if (!is_linked(tree, leaf)) { // odd: nothing of its range was free for it, and nothing is longer
        tree.leaves.pop_back();
        ++tree.lost_leaves;
    }
    release_unused(tree, ctx);
    compact(tree);
    return 1;
}

std::uint32_t remove(plain_tree &tree, std::uint32_t ctx, std::uint32_t prefix, std::uint32_t mask)
{
    plain_leaf *leaf = plain_exact(tree, prefix, mask);
    if (leaf == nullptr)
        return 0;
    const std::uint32_t first_address = leaf->prefix, its_mask = leaf->mask;
    const auto [first, end] = cut_out(tree, first_address, its_mask);
    for (auto range = first; range != end; ++range) {
        if (range->second == leaf) {
            range->second = leaf->back; // odd: a prefix without a back leaves nothing, whatever covers it
            continue;
        }
        plain_leaf *below = range->second;
        while (below != nullptr && below->back != leaf)
            below = below->back;
        if (below != nullptr)
            below->back = leaf->back;
    }
    leaf->back = nullptr;
    compact(tree);
    fold_nodes(tree, ctx, first_address, its_mask);
    release_unused(tree, ctx);
    return 1;
}

std::uint32_t ecmp_flag(const plain_leaf *leaf) { return leaf->adjacency >> 30 & 1; }

std::string path_text(const plain_way &way) { return text("ifid %x. encap %x\n", way.ifid, way.encap & 0xFFFF); }

std::uint32_t refuse(plain_tree &tree, std::uint32_t ctx, const std::string &message)
{
    plain_error(*tree.pools, ctx, message);
    return 0;
}

std::uint32_t first_block(plain_tree &tree, plain_leaf *leaf, const plain_way &added)
{
    if (tree.pools->blocks == plain_pools::BLOCKS)
        return refuse(tree, added.ctx,
                      text("\n Cannot allocate memory for ecmp , flags %x, ", added.flags) + path_text(added));
    charge(*tree.pools, added.ctx, PLAIN_BLOCK, 1);
    leaf->has_block = true;
    leaf->block = {1, {0x92000000, ecmp_entry(added.ifid, added.encap)}};
    leaf->adjacency |= ADJ_ECMP;
    return 1;
}

std::uint32_t add_path(plain_tree &tree, plain_leaf *leaf, const plain_way &added)
{
    if ((added.flags & MTRIE_F_ECMP) == 0)
        return refuse(tree, added.ctx,
                      text("\n ecmp_insert invalid, flags %x, leaf flag %x, ", added.flags, ecmp_flag(leaf)) +
                          path_text(added));
    if (!leaf->has_block)
        return first_block(tree, leaf, added);
    plain_block &block = leaf->block;
    if (block.words[0] >> 31 == 0)
        return refuse(tree, added.ctx,
                      text("\n ecmp exists but invalid, flags %x, leaf flag %x, ", added.flags, ecmp_flag(leaf)) +
                          path_text(added));
    if (block.npaths == 7)
        return refuse(tree, added.ctx, text("\n ecmp full, flags %x, ", added.flags) + path_text(added));
    ++block.npaths; // odd: a block whose leaf lost the ECMP flag grows without giving it back
    block.words[block.npaths] = ecmp_entry(added.ifid, added.encap);
    block.words[0] = ecmp_header(ecmp_count(block.words[0]) + 1, ecmp_sequence(block.words[0]) + 1);
    return 1;
}

// Entry that holds the path: 0 for the leaf itself, 8 for none. Odd: the ifid is cut when it is stored and compared
// uncut, so a large one is not found again.
unsigned entry_of(const plain_leaf *leaf, const plain_way &sought)
{
    const std::uint32_t encap = sought.encap & 0xFFFF;
    if (adj_encap(leaf->adjacency) == encap && adj_ifid(leaf->adjacency) == sought.ifid)
        return 0;
    for (unsigned i = 1; i < ECMP_WORDS; ++i)
        if ((leaf->block.words[i] & 0xFFFF) == encap && leaf->block.words[i] >> 18 == sought.ifid)
            return i;
    return 8;
}

std::uint32_t remove_path(plain_tree &tree, plain_leaf *leaf, const plain_way &removed)
{
    plain_block &block = leaf->block;
    if (block.words[0] >> 31 == 0)
        return refuse(tree, removed.ctx,
                      text("\n remove ecmp but invlaid, flags %x, ", removed.flags) + path_text(removed));
    block.words[0] &= 0x7FFFFFFF; // odd: an unknown path leaves the block invalid for good
    const unsigned entry = entry_of(leaf, removed);
    if (entry == 8)
        return refuse(tree, removed.ctx,
                      text("\n remove ecmp but can't locate entry, flags %x, ", removed.flags) + path_text(removed));

    const std::uint32_t last = block.words[block.npaths];
    if (entry == 0)
        leaf->adjacency = adj_pack(leaf->adjacency & 0xE0000000, last >> 18, last);
    else
        block.words[entry] = last;
    block.words[block.npaths] = 0;
    block.words[0] = ecmp_header(ecmp_count(block.words[0]) - 1, ecmp_sequence(block.words[0]) - 1);
    if (--block.npaths == 0) {
        leaf->has_block = false;
        leaf->adjacency &= ~ADJ_ECMP;
        charge(*tree.pools, removed.ctx, PLAIN_BLOCK, -1);
    }
    return 1;
}

std::string prefix_text(std::uint32_t prefix, std::uint32_t mask)
{
    return text("0x%x/%d", prefix, std::popcount(mask));
}

} // namespace

plain_tree::plain_tree(std::uint32_t route_id, plain_pools *shared) : id(route_id), pools(shared)
{
    standard = &leaves.emplace_back();
    ranges[0] = standard;
    charge(*pools, id, PLAIN_LEAF, 1);
    charge(*pools, id, PLAIN_NODE, 1);
}

std::uint32_t plain_mask(std::uint32_t length) { return length == 0 ? 0 : 0xFFFFFFFFu << (32 - length); }

const plain_leaf *plain_find(const plain_tree &tree, std::uint32_t address) { return answer_of(tree, address); }

// Odd: it starts at whatever answers the address as given, so a prefix that is not on that one's way back is missed.
plain_leaf *plain_exact(const plain_tree &tree, std::uint32_t prefix, std::uint32_t mask)
{
    plain_leaf *leaf = answer_of(tree, prefix);
    while (leaf != nullptr && (leaf->prefix != prefix || leaf->mask != mask))
        leaf = leaf->back;
    return leaf;
}

unsigned plain_levels(const plain_tree &tree, std::uint32_t address)
{
    unsigned levels = 1;
    while (levels < 4 && tree.nodes.count({levels, address & node_mask(levels)}) != 0)
        ++levels;
    return levels;
}

std::uint32_t plain_nodes_held(const plain_tree &tree) { return static_cast<std::uint32_t>(tree.nodes.size()) + 1; }

std::uint32_t plain_route_add(plain_tree &tree, std::uint32_t prefix, std::uint32_t mask, const plain_way &way)
{
    plain_leaf *leaf = plain_exact(tree, prefix, mask);
    if (leaf != nullptr && (way.flags & MTRIE_F_ECMP) != 0)
        return add_path(tree, leaf, way);
    std::uint32_t result = 0;
    if (tree.pools->leaves == plain_pools::LEAVES) {
        plain_error(*tree.pools, way.ctx, "leaf alloc fail:" + prefix_text(prefix, mask));
    } else {
        charge(*tree.pools, way.ctx, PLAIN_LEAF, 1);
        plain_leaf route;
        route.prefix = prefix;
        route.mask = mask;
        const std::uint32_t resolve = (way.flags & MTRIE_F_IP_RESOLVE) != 0 ? ADJ_IP_RESOLVE : 0,
                            nat = (way.flags & MTRIE_F_NAT) != 0 ? ADJ_NAT : 0;
        route.adjacency = adj_pack(resolve | nat, way.ifid, way.encap);
        result = insert(tree, way.ctx, route);
        if (result != 1)
            plain_error(*tree.pools, way.ctx, text("leaf insert fail(%u):", result) + prefix_text(prefix, mask));
    }
    if (result != 0)
        return result;
    plain_error(*tree.pools, way.ctx,
                text("prefix_mgr_route_add: tree_add  FAILED w/ address and mask: %08x/%d, treeid %x\n", prefix,
                     std::popcount(mask), tree.id));
    (void)remove(tree, way.ctx, prefix, mask); // odd: the clean-up finds the route that was there before
    return 0;
}

std::uint32_t plain_route_remove(plain_tree &tree, std::uint32_t prefix, std::uint32_t mask, const plain_way &way)
{
    plain_leaf *leaf = plain_exact(tree, prefix, mask);
    if (leaf != nullptr && ecmp_flag(leaf) != 0 && leaf->has_block)
        return remove_path(tree, leaf, way);
    if (remove(tree, way.ctx, prefix, mask) != 0)
        return 1;
    return refuse(tree, way.ctx,
                  text("prefix_mgr_route_remove: tree_remove  FAILED w/ address and mask: %08x/%d, treeid %x\n", prefix,
                       std::popcount(mask), tree.id));
}

std::uint32_t plain_set_default(plain_tree &tree, const plain_way &way, bool add)
{
    const plain_way of_tree = {way.encap, way.ifid, way.flags, tree.id}; // the route id is all that it is told
    plain_leaf *leaf = tree.standard;
    if (leaf == nullptr)
        return refuse(tree, tree.id, text("set FAILED, norvik_leaf_default is NULL for routeId %u \n", tree.id));
    if (!add && ecmp_flag(leaf) != 0 && leaf->has_block)
        return remove_path(tree, leaf, of_tree);
    if (add && (way.flags & MTRIE_F_ECMP) != 0 && (leaf->adjacency & 0x1FFFFFFF) != 0)
        return add_path(tree, leaf, of_tree);
    // Odd: the ECMP flag goes and a block stays.
    leaf->adjacency = adj_pack(leaf->adjacency & ADJ_NAT, add ? way.ifid : 0, add ? way.encap : 0);
    return 1;
}

void plain_error(plain_pools &pools, std::uint32_t ctx, const std::string &message)
{
    pools.errors.push_back("<Ctx:" + std::to_string(static_cast<std::int32_t>(ctx)) + ">" + message);
}
} // namespace harness
