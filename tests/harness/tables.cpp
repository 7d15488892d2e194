// tables.cpp - making, comparing and searching one copy of the route table.
#include "tables.h"

#include <cstdio>

namespace harness
{
table_image table_at_start(std::uint32_t base)
{
    table_image t{base, std::vector<std::uint32_t>(TABLE_WORDS)};
    for (std::uint32_t tree = 0; tree < 256; ++tree) {
        t.words[root_at(tree) / 4] = base + slot_at(tree, 0) + 1;
        for (std::uint32_t slot = 0; slot < 256; ++slot)
            t.words[slot_at(tree, slot) / 4] = base + leaf_at(slot < 224 ? tree : 256 + tree);
        t.words[leaf_at(256 + tree) / 4] = 0x8001;
    }
    return t;
}

void table_word(table_image &t, std::uint32_t at, std::uint32_t word) { t.words[at / 4] = word; }

void table_leaf_slot(table_image &t, std::uint32_t node, std::uint32_t slot, std::uint32_t leaf)
{
    table_word(t, slot_at(node, slot), t.base + leaf_at(leaf));
}

void table_child(table_image &t, std::uint32_t node, std::uint32_t slot, std::uint32_t child, std::uint32_t leaf)
{
    table_word(t, slot_at(node, slot), t.base + slot_at(child, 0) + 1);
    for (std::uint32_t i = 0; i < 256; ++i)
        table_leaf_slot(t, child, i, leaf);
}

std::string table_difference(const std::vector<std::uint32_t> &seen, const std::vector<std::uint32_t> &expected)
{
    std::string text;
    unsigned told = 0;
    for (std::size_t i = 0; i < seen.size() && told < 8; ++i) {
        const std::uint32_t want = i < expected.size() ? expected[i] : 0;
        if (seen[i] == want)
            continue;
        char line[64];
        std::snprintf(line, sizeof line, "at 0x%06zx: 0x%08x, not 0x%08x\n", 4 * i, seen[i], want);
        text += line;
        ++told;
    }
    return seen.size() < expected.size() ? text + "memory too short\n" : text;
}

namespace
{
constexpr std::uint32_t NODE_TAG = 1; // in a slot: a node, not a leaf

// A table of the copy: [first, end), records of so many bytes, a power of two.
struct record_table {
    std::uint32_t first, end, bytes;
};
constexpr record_table NODES = {slot_at(0, 0), leaf_at(0), 1024}, LEAVES = {leaf_at(0), ecmp_at(0), 8},
                       BLOCKS = {ecmp_at(0), TABLE_BYTES, 32};
static_assert(slot_at(1024, 0) == leaf_at(0) && leaf_at(1024) == ecmp_at(0) && ecmp_at(128) == TABLE_BYTES);

std::uint32_t load(const np_table &table, std::uint32_t offset)
{
    return __atomic_load_n(table.words + offset / 4, __ATOMIC_ACQUIRE);
}

// Offset of the record that an address of this copy names, or NP_UNSOUND.
std::uint32_t record_named(const np_table &table, std::uint32_t address, const record_table &records)
{
    const std::uint32_t offset = address - table.base;
    const bool inside =
        offset >= records.first && offset < records.end && ((offset - records.first) & (records.bytes - 1)) == 0;
    return inside ? offset : NP_UNSOUND;
}

np_answer read_leaf(const np_table &table, std::uint32_t offset)
{
    np_answer answer;
    answer.leaf = offset;
    if (offset == NP_UNSOUND)
        return answer;
    answer.adjacency = load(table, offset);
    if ((answer.adjacency & ADJACENCY_ECMP) == 0)
        return answer;
    answer.block = record_named(table, load(table, offset + 4), BLOCKS);
    if (answer.block == NP_UNSOUND || (load(table, answer.block) & HEADER_VALID) == 0)
        return answer;
    for (std::uint32_t i = 0; i < answer.ecmp.size(); ++i)
        answer.ecmp[i] = load(table, answer.block + 4 * i);
    return answer;
}
} // namespace

np_answer np_find(const np_table &table, std::uint32_t tree, std::uint32_t address)
{
    np_answer unsound;
    unsound.leaf = NP_UNSOUND;
    std::uint32_t word = load(table, root_at(tree));
    for (unsigned level = 0; (word & NODE_TAG) != 0; ++level) {
        const std::uint32_t node = record_named(table, word & ~NODE_TAG, NODES);
        if (node == NP_UNSOUND || level == 4)
            return unsound;
        word = load(table, node + 4 * (address >> (24 - 8 * level) & 0xFF));
    }
    return word == 0 ? np_answer{} : read_leaf(table, record_named(table, word, LEAVES));
}
} // namespace harness
