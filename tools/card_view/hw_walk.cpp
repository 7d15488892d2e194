// hw_walk.cpp - decodes a walk from the words of a copy, or from the lines that the dump procedure gives.
//
// A line is decoded by the format that it was printed with. An unknown line makes the walk faulty, so a change of the
// procedure's texts cannot be misread.
// Elsewhere: the walk through the memory (table_view.cpp).
#include "hw_walk.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>

namespace
{
hw_walk walk_of(hw_source source, table_copy copy, std::uint32_t ctx, std::uint32_t address)
{
    hw_walk walk;
    walk.source = source;
    walk.copy = copy;
    walk.ctx = ctx;
    walk.address = address;
    return walk;
}

// The paths in use: the leaf's own, and as many of a valid block as its header counts.
void collect_paths(hw_walk &walk, const hw_path &own)
{
    walk.paths.push_back(own);
    if (!walk.ecmp || !walk.block || !walk.block->valid)
        return;
    for (const hw_path &entry : walk.block->entries)
        if (entry.number <= walk.block->count + 1)
            walk.paths.push_back(entry);
}

hw_block block_of(const table_leaf &leaf)
{
    const std::uint32_t header = leaf.words[0];
    hw_block block = {leaf.block.index,   std::nullopt,          (header & ECMP_VALID) != 0,
                      ecmp_count(header), ecmp_sequence(header), {}};
    for (unsigned i = 1; i < ECMP_WORDS; ++i)
        block.entries.push_back({i + 1, ecmp_entry_ifid(leaf.words[i]), adj_encap(leaf.words[i])});
    return block;
}

void decode_leaf(hw_walk &walk, const table_leaf &leaf)
{
    walk.has_leaf = true;
    walk.leaf = leaf.index;
    walk.adjacency = leaf.adjacency;
    walk.ip_resolve = (leaf.adjacency & ADJ_IP_RESOLVE) != 0;
    walk.ecmp = (leaf.adjacency & ADJ_ECMP) != 0;
    walk.nat = (leaf.adjacency & ADJ_NAT) != 0;
    if (leaf.block.kind == table_kind::block)
        walk.block = block_of(leaf);
    else if (walk.ecmp && leaf.block.kind == table_kind::empty)
        walk.fault = "the leaf has the ECMP flag and names no block";
    collect_paths(walk, {1, adj_ifid(leaf.adjacency), adj_encap(leaf.adjacency)});
}
} // namespace

hw_walk hw_walk_direct(const table_view &view, std::uint32_t ctx, std::uint32_t address)
{
    const table_answer answer = table_find(view, ctx, address);
    hw_walk walk = walk_of(HW_FROM_MEMORY, view.copy, ctx, address);
    walk.root = answer.word[0];
    for (unsigned i = 1; i < answer.steps; ++i) {
        const std::uint32_t at = answer.at[i] - HW_NODES;
        walk.steps.push_back({i - 1, at % HW_NODE_BYTES / 4, at / HW_NODE_BYTES, answer.word[i]});
    }
    if (answer.has_leaf)
        decode_leaf(walk, answer.leaf);
    if (answer.fault != nullptr)
        walk.fault = answer.fault;
    else if (answer.word[0] == 0)
        walk.fault = "the context has no tree";
    return walk;
}

namespace
{
// What the lines have said so far.
struct dump_state {
    hw_walk *walk;
    hw_path own = {1, std::nullopt, 0};
    bool is_over = false; // a line that ends the search was read
    const char *line = "";
    int used = 0; // bytes of it that a format matched
};

// Whether `format`, which ends with %n for `used`, matches the whole line with `count` numbers.
[[gnu::format(scanf, 2, 4)]] bool fits(dump_state &state, const char *format, int count, ...)
{
    state.used = 0;
    va_list args;
    va_start(args, count);
    const bool is_fit = std::vsscanf(state.line, format, args) == count;
    va_end(args);
    return is_fit && state.used > 0 && state.line[state.used] == '\0';
}

bool level_line(dump_state &state)
{
    unsigned level = 0, index = 0;
    if (!fits(state, "\n level %u Mnode found, next_index=%u.\n%n", 2, &level, &index, &state.used) ||
        level != state.walk->steps.size() || index > 255)
        return false;
    state.walk->steps.push_back({level, index, std::nullopt, std::nullopt});
    return true;
}

bool end_line(dump_state &state)
{
    const std::string_view text = state.line;
    const bool is_null = text == "\nSearch terminating unsuccessfully. Null leaf.\n";
    if (!is_null && text != "\nSearch terminating successfully, Leaf found.\n")
        return false;
    if (is_null)
        state.walk->fault = "the last level names a node";
    state.is_over = true;
    return true;
}

bool flags_line(dump_state &state)
{
    unsigned resolve = 0, ecmp = 0, nat = 0;
    if (!fits(state, "\nip resolve flag %x, ecmp flag %x, nat flag %x\n%n", 3, &resolve, &ecmp, &nat, &state.used))
        return false;
    state.walk->has_leaf = true;
    state.walk->ip_resolve = resolve != 0;
    state.walk->ecmp = ecmp != 0;
    state.walk->nat = nat != 0;
    return true;
}

bool nat_line(dump_state &state)
{
    return fits(state, "\nNAT result,  IXP value %u\n%n", 1, &state.own.encap, &state.used);
}

bool result_line(dump_state &state)
{
    unsigned ifid = 0;
    if (!fits(state, "\nRoute/ECMP result #1 encaps id %u if_id %x \n%n", 2, &state.own.encap, &ifid, &state.used))
        return false;
    state.own.ifid = ifid;
    return true;
}

bool block_line(dump_state &state)
{
    unsigned copy = 0, address = 0;
    if (!fits(state, "\n ixp %u  ecmp node 0x%x found.\n%n", 2, &copy, &address, &state.used))
        return false;
    state.walk->block = hw_block{std::nullopt, address, false, 0, 0, {}};
    if (address == 0)
        state.walk->fault = "the leaf names an ECMP block outside the table";
    return true;
}

bool header_line(dump_state &state)
{
    unsigned valid = 0;
    hw_block *const block = state.walk->block ? &*state.walk->block : nullptr;
    if (block == nullptr ||
        !fits(state, "\n valid %x, count %u, seq %u, \n%n", 3, &valid, &block->count, &block->sequence, &state.used))
        return false;
    block->valid = valid != 0;
    return true;
}

bool entry_line(dump_state &state)
{
    unsigned number = 0, encap = 0, ifid = 0;
    if (!state.walk->block ||
        !fits(state, "\n ECMP result #%u  encaps id %u if_id %x \n%n", 3, &number, &encap, &ifid, &state.used))
        return false;
    state.walk->block->entries.push_back({number, ifid, encap});
    return true;
}

using dump_line = bool (*)(dump_state &state);
constexpr dump_line DUMP_LINES[] = {level_line,  end_line,   flags_line,  nat_line,
                                    result_line, block_line, header_line, entry_line};
} // namespace

hw_walk hw_walk_from_dump(std::string_view text, table_copy copy, std::uint32_t ctx, std::uint32_t address)
{
    hw_walk walk = walk_of(HW_FROM_DUMP, copy, ctx, address);
    dump_state state = {&walk};
    for (std::size_t at = 0; at < text.size(); at += HW_DUMP_LINE_BYTES) {
        std::string line(text.substr(at, HW_DUMP_LINE_BYTES));
        line.resize(line.find('\0') == std::string::npos ? line.size() : line.find('\0'));
        state.line = line.c_str();
        if (std::none_of(std::begin(DUMP_LINES), std::end(DUMP_LINES), [&](dump_line take) { return take(state); })) {
            walk.fault = "the dump holds an unknown line";
            return walk;
        }
    }
    if (!state.is_over)
        walk.fault = text.empty() ? "the route manager had no memory for the dump" : "the dump is incomplete";
    if (walk.has_leaf)
        collect_paths(walk, state.own);
    return walk;
}

bool hw_walk_is_blank(const hw_walk &walk)
{
    return walk.has_leaf && !walk.ip_resolve && !walk.ecmp && !walk.nat && walk.paths.size() == 1 &&
           walk.paths[0].encap == 0 && walk.paths[0].ifid.value_or(0) == 0;
}
