// table_view.cpp - the walk from a tree's root to a leaf, and what can be reached from all roots.
//
// The walk is written anew here and shares no code with the process that writes the tables, so that a mistake there
// shows. Elsewhere: the numbers of the format (route_table.h).
#include "table_view.h"

#include <bitset>

std::string table_path(const std::string &card, table_copy copy) { return card + "/mem/" + TABLE_COPY_NAMES[copy]; }

table_view table_open(const std::string &card, table_copy copy, const card_conf &conf, std::string *why)
{
    const bool is_provided = copy != COPY_WIRED && conf.ixp_is_provided[copy - COPY_IXP1];
    table_view view;
    view.copy = copy;
    view.base = copy == COPY_WIRED ? conf.wired_phys_base : HW_IXP_BASE;
    view.file = mapped_memory_open(table_path(card, copy), is_provided ? memory_source::provider : memory_source::file,
                                   conf.rpc_timeout_ms, why);
    return view;
}

std::uint32_t table_load(const table_view &view, std::uint32_t at)
{
    return __atomic_load_n(static_cast<const std::uint32_t *>(view.file.bytes) + at / 4, __ATOMIC_ACQUIRE);
}

namespace
{
// A part of the table.
struct section {
    table_kind kind;
    std::uint32_t first, count, bytes;
};
constexpr section NODES = {table_kind::node, HW_NODES, HW_NODE_COUNT, HW_NODE_BYTES};
constexpr section LEAVES = {table_kind::leaf, HW_LEAVES, HW_LEAF_COUNT, HW_LEAF_BYTES};
constexpr section BLOCKS = {table_kind::block, HW_ECMPS, HW_ECMP_COUNT, HW_ECMP_BYTES};

table_target target_in(const table_view &view, const section &part, std::uint32_t address)
{
    const std::uint32_t at = address - view.base - part.first; // below the part it wraps, far beyond its end
    const bool inside = at < part.count * part.bytes && at % part.bytes == 0;
    return inside ? table_target{part.kind, at / part.bytes} : table_target{table_kind::stray, 0};
}
} // namespace

table_target table_slot_target(const table_view &view, std::uint32_t word)
{
    if (word == 0)
        return {table_kind::empty, 0};
    return (word & HW_NODE_TAG) != 0 ? target_in(view, NODES, word & ~HW_NODE_TAG) : target_in(view, LEAVES, word);
}

table_target table_block_target(const table_view &view, std::uint32_t word)
{
    return word == 0 ? table_target{table_kind::empty, 0} : target_in(view, BLOCKS, word);
}

table_leaf table_read_leaf(const table_view &view, std::uint32_t index)
{
    table_leaf leaf{};
    leaf.index = index;
    leaf.adjacency = table_load(view, table_leaf_at(index));
    leaf.pointer = table_load(view, table_leaf_at(index) + 4);
    leaf.block = table_block_target(view, leaf.pointer);
    for (unsigned i = 0; leaf.block.kind == table_kind::block && i < ECMP_WORDS; ++i)
        leaf.words[i] = table_load(view, table_block_at(leaf.block.index) + 4 * i);
    return leaf;
}

table_answer table_find(const table_view &view, std::uint32_t tree, std::uint32_t address)
{
    table_answer answer{};
    std::uint32_t at = 4 * (tree % HW_ROOT_COUNT);
    for (unsigned level = 0;; ++level) {
        const std::uint32_t word = table_load(view, at);
        answer.at[level] = at;
        answer.word[level] = word;
        answer.steps = level + 1;
        const table_target target = table_slot_target(view, word);
        if (target.kind == table_kind::leaf) {
            answer.has_leaf = true;
            answer.leaf = table_read_leaf(view, target.index);
            if (answer.leaf.block.kind == table_kind::stray)
                answer.fault = "the leaf names an ECMP block outside the table";
        } else if (target.kind == table_kind::stray) {
            answer.fault = (word & HW_NODE_TAG) != 0 ? "a word names a node outside the table"
                                                     : "a word names a leaf outside the table";
        } else if (target.kind == table_kind::node && level == TABLE_LEVELS) {
            answer.fault = "the last level names a node";
        }
        if (target.kind != table_kind::node || level == TABLE_LEVELS)
            return answer;
        at = table_node_at(target.index) + 4 * (address >> (24 - 8 * level) & 0xFF);
    }
}

namespace
{
struct reach {
    std::bitset<HW_NODE_COUNT> nodes;
    std::bitset<HW_LEAF_COUNT> leaves;
    std::bitset<HW_ECMP_COUNT> blocks;
    std::vector<std::uint32_t> waiting; // nodes seen whose slots were not
    unsigned faults = 0;
};

void reach_leaf(const table_view &view, reach &seen, std::uint32_t index)
{
    if (seen.leaves.test(index))
        return;
    seen.leaves.set(index);
    const table_target block = table_block_target(view, table_load(view, table_leaf_at(index) + 4));
    if (block.kind == table_kind::block)
        seen.blocks.set(block.index);
    seen.faults += block.kind == table_kind::stray ? 1 : 0;
}

void reach_word(const table_view &view, reach &seen, std::uint32_t word)
{
    const table_target target = table_slot_target(view, word);
    seen.faults += target.kind == table_kind::stray ? 1 : 0;
    if (target.kind == table_kind::leaf)
        reach_leaf(view, seen, target.index);
    if (target.kind != table_kind::node || seen.nodes.test(target.index))
        return;
    seen.nodes.set(target.index);
    seen.waiting.push_back(target.index);
}
} // namespace

table_use table_count(const table_view &view)
{
    reach seen;
    unsigned roots = 0;
    for (std::uint32_t tree = 0; tree < HW_ROOT_COUNT; ++tree) {
        const std::uint32_t word = table_load(view, 4 * tree);
        roots += word != 0 ? 1 : 0;
        reach_word(view, seen, word);
    }
    while (!seen.waiting.empty()) {
        const std::uint32_t node = seen.waiting.back();
        seen.waiting.pop_back();
        for (std::uint32_t slot = 0; slot < MTRIE_SLOTS; ++slot)
            reach_word(view, seen, table_load(view, table_node_at(node) + 4 * slot));
    }
    return {static_cast<unsigned>(seen.nodes.count()), static_cast<unsigned>(seen.leaves.count()),
            static_cast<unsigned>(seen.blocks.count()), roots, seen.faults};
}

std::size_t table_changed_words(const table_view &view, std::vector<std::uint32_t> &last)
{
    const bool is_first = last.empty();
    last.resize(HW_TABLE_BYTES / 4);
    std::size_t changed = 0;
    for (std::uint32_t i = 0; i < last.size(); ++i) {
        const std::uint32_t word = table_load(view, 4 * i);
        if (!is_first && word != last[i])
            ++changed;
        last[i] = word;
    }
    return changed;
}
