// table_tree.cpp - reads a context's trie node by node.
//
// Always: a node is read once, so a damaged table in which nodes name each other cannot make the reading long.
// Elsewhere: the drawing (table_tree_dot.cpp).
#include "table_tree.h"

#include <bitset>
#include <deque>

#include <fmt/format.h>

namespace
{
struct tree_reader {
    const table_view *view;
    tree_view *tree;
    std::bitset<HW_NODE_COUNT> seen;
    std::deque<tree_node> waiting; // nodes known by number, level and prefix
};

void add_fault(tree_reader &reader, const tree_node &at, unsigned slot, const char *what)
{
    reader.tree->faults.push_back(fmt::format("node {} slot {}: {}", at.index, slot, what));
}

void meet_leaf(tree_reader &reader, const tree_node &at, unsigned slot, std::uint32_t index)
{
    const auto [place, is_new] = reader.tree->leaves.try_emplace(index);
    if (!is_new)
        return;
    place->second = table_read_leaf(*reader.view, index);
    if (place->second.block.kind == table_kind::stray)
        add_fault(reader, at, slot, "the leaf names an ECMP block outside the table");
}

void meet(tree_reader &reader, const tree_node &at, unsigned slot, table_target target)
{
    if (target.kind == table_kind::leaf) {
        meet_leaf(reader, at, slot, target.index);
    } else if (target.kind == table_kind::stray) {
        add_fault(reader, at, slot, "the word names nothing in the table");
    } else if (target.kind == table_kind::node && at.level + 1 == TABLE_LEVELS) {
        add_fault(reader, at, slot, "the last level names a node");
    } else if (target.kind == table_kind::node && reader.seen.test(target.index)) {
        add_fault(reader, at, slot, "the node is named twice");
    } else if (target.kind == table_kind::node) {
        reader.seen.set(target.index);
        reader.waiting.push_back({target.index, at.level + 1, at.prefix | slot << (24 - 8 * at.level), {}});
    }
}

void read_node(tree_reader &reader, tree_node node)
{
    for (unsigned slot = 0; slot < MTRIE_SLOTS; ++slot) {
        const std::uint32_t word = table_load(*reader.view, table_node_at(node.index) + 4 * slot);
        if (!node.runs.empty() && node.runs.back().word == word) {
            node.runs.back().last = slot;
            continue;
        }
        const table_target target = table_slot_target(*reader.view, word);
        node.runs.push_back({slot, slot, target, word});
        meet(reader, node, slot, target);
    }
    reader.tree->nodes.push_back(std::move(node));
}
} // namespace

tree_view tree_read(const table_view &view, std::uint32_t ctx)
{
    tree_view tree;
    tree.ctx = ctx;
    tree.copy = view.copy;
    tree.root = table_load(view, 4 * (ctx % HW_ROOT_COUNT));
    tree_reader reader = {&view, &tree, {}, {}};
    const table_target root = table_slot_target(view, tree.root);
    if (root.kind == table_kind::node) {
        reader.seen.set(root.index);
        reader.waiting.push_back({root.index, 0, 0, {}});
    } else if (root.kind != table_kind::empty) {
        tree.faults.push_back("the root word names no node");
    }
    while (!reader.waiting.empty()) {
        tree_node node = std::move(reader.waiting.front());
        reader.waiting.pop_front();
        read_node(reader, std::move(node));
    }
    return tree;
}
