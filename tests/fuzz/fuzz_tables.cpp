// fuzz_tables.cpp - a table memory that a stranger wrote, read by the tools' views.
//
// An input is: the copy, a context, then words to be stored over a table of 16 trees as a start leaves them, each with
// its place and what it names. Walks, counts, drawing and export must end, stay in the table (it lies in a block of
// just its size) and agree with each other.
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "card_view/hw_walk.h"
#include "card_view/pools_view.h"
#include "card_view/table_tree.h"
#include "fuzz_input.h"
#include "hw_text.h"
#include "output.h"

namespace
{
constexpr std::uint32_t WORDS = HW_TABLE_BYTES / 4, WIRED_BASE = 0x08000000;
constexpr std::size_t MAX_STORES = 256;
constexpr std::uint32_t TREES = 16; // that a table has at first: counting what all of them reach takes the most time

// A view of a table in memory of our own.
struct own_table {
    std::unique_ptr<std::uint32_t[]> words{new std::uint32_t[WORDS]()};
    std::vector<std::pair<std::uint32_t, std::uint32_t>> before; // place and word, for putting back
    table_view view;
    explicit own_table(table_copy copy)
    {
        view.copy = copy;
        view.base = copy == COPY_WIRED ? WIRED_BASE : HW_IXP_BASE;
        view.file.bytes = words.get();
        view.file.size = HW_TABLE_BYTES;
        for (std::uint32_t tree = 0; tree < TREES; ++tree) {
            words[tree] = (view.base + table_node_at(tree)) | HW_NODE_TAG;
            for (std::uint32_t slot = 0; slot < MTRIE_SLOTS; ++slot)
                words[table_node_at(tree) / 4 + slot] = view.base + table_leaf_at(slot < 224 ? tree : 256 + tree);
            words[table_leaf_at(256 + tree) / 4] = 0x8001;
        }
    }
    ~own_table() { view.file.bytes = nullptr; } // it is no map
    own_table(const own_table &) = delete;
    own_table &operator=(const own_table &) = delete;

    void store(std::uint32_t at, std::uint32_t word)
    {
        before.emplace_back(at, words[at]);
        words[at] = word;
    }
    void put_back()
    {
        for (; !before.empty(); before.pop_back())
            words[before.back().first] = before.back().second;
    }
};

own_table &table_of(unsigned copy)
{
    static own_table tables[TABLE_COPIES] = {own_table(COPY_WIRED), own_table(COPY_IXP1), own_table(COPY_IXP2)};
    return tables[copy % TABLE_COPIES];
}

// A word that names an element, or any.
std::uint32_t word_of(fuzz_input &input, const own_table &table, unsigned kind)
{
    const std::uint32_t index = input.half();
    switch (kind % 4) {
    case 0:
        return (table.view.base + table_node_at(index % (HW_NODE_COUNT + 1))) | HW_NODE_TAG;
    case 1:
        return table.view.base + table_leaf_at(index % (HW_LEAF_COUNT + 1));
    case 2:
        return table.view.base + table_block_at(index % (HW_ECMP_COUNT + 1));
    default:
        return index << 16 | input.half();
    }
}

void store_one(fuzz_input &input, own_table &table)
{
    const unsigned what = input.byte();
    const std::uint32_t index = input.half();
    std::uint32_t at = 0;
    switch (what % 4) {
    case 0:
        at = index % HW_ROOT_COUNT;
        break;
    case 1:
        at = table_node_at(index % HW_NODE_COUNT) / 4 + input.byte();
        break;
    case 2:
        at = table_leaf_at(index % HW_LEAF_COUNT) / 4 + (index >> 15);
        break;
    default:
        at = table_block_at(index % HW_ECMP_COUNT) / 4 + (index >> 13);
    }
    table.store(at, word_of(input, table, what >> 2));
}

void check_tree(const tree_view &tree)
{
    std::set<std::uint32_t> seen;
    for (const tree_node &node : tree.nodes) {
        if (node.index >= HW_NODE_COUNT || !seen.insert(node.index).second || node.level >= TABLE_LEVELS)
            fuzz_fail("a node twice, or none of the table");
        unsigned next = 0;
        for (const tree_run &run : node.runs) {
            if (run.first != next || run.last < run.first)
                fuzz_fail("runs that do not follow each other");
            next = run.last + 1;
        }
        if (next != MTRIE_SLOTS)
            fuzz_fail("slots left out");
    }
    for (const auto &[index, leaf] : tree.leaves)
        if (index >= HW_LEAF_COUNT || leaf.index != index)
            fuzz_fail("a leaf that is none of the table");
}

void check_walk(const own_table &table, const tree_view &tree, std::uint32_t ctx, std::uint32_t address)
{
    const hw_walk walk = hw_walk_direct(table.view, ctx, address);
    if (walk.steps.size() > TABLE_LEVELS || walk.paths.size() > 8)
        fuzz_fail("a walk that is too long");
    if (tree.faults.empty() && !tree.nodes.empty() && walk.has_leaf && !tree.leaves.contains(walk.leaf.value_or(~0u)))
        fuzz_fail("a walk to a leaf that the tree has not");
    (void)hw_walk_text(walk);
    (void)output_json(hw_walk_facts(walk));
    (void)output_json(hw_walk_records(walk));
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input input{{data, size}};
    own_table &table = table_of(input.byte());
    const std::uint32_t ctx = input.byte() % TREES, addresses[] = {input.word(), input.word()};
    for (std::size_t i = 0; i < MAX_STORES && !input.at_end(); ++i)
        store_one(input, table);
    const tree_view tree = tree_read(table.view, ctx);
    check_tree(tree);
    for (const std::uint32_t address : addresses)
        check_walk(table, tree, ctx, address);
    if (tree_dot(tree).empty() || !nlohmann::json::accept(hw_tree_json(tree).dump()))
        fuzz_fail("an export that is none");
    const table_use use = table_count(table.view);
    if (use.nodes < tree.nodes.size() || use.leaves < tree.leaves.size() || use.nodes > HW_NODE_COUNT ||
        use.leaves > HW_LEAF_COUNT || use.blocks > HW_ECMP_COUNT)
        fuzz_fail("counts that cannot be");
    table.put_back();
    return 0;
}
