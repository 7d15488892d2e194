// card_look.cpp - the host's figures of a process, the daemon's own, and every comparison with the model.
#include "card_look.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "card_view/table_view.h"
#include "route_ids.h"
#include "side_changes.h"

namespace harness
{
namespace
{
constexpr std::uint32_t CONTEXTS = 256, DEBUG_MEMORY = 3;

// Of /proc/PID/smaps_rollup: the sum of the lines that begin with `name`, in bytes.
std::uint64_t rollup(pid_t pid, const std::string &name)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    std::uint64_t bytes = 0;
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(name))
            bytes += 1024 * std::stoull(line.substr(line.find(':') + 1));
    return bytes;
}

unsigned descriptors_of(pid_t pid)
{
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<unsigned>(std::distance(begin(all), end(all)));
}

byte_string block_of(int connection, const char *procedure, std::uint32_t ctx)
{
    constexpr std::ptrdiff_t BLOCK_AT = 24; // behind the result and the head of the only argument
    const rpc_reply reply = rpc_call(connection, procedure, {arg16(ctx), arg_block()});
    if (!reply.arrived || reply.status != 0 || reply.result != 0 || reply.record.size() < std::size_t{BLOCK_AT})
        throw std::runtime_error(std::string(procedure) + ": no answer");
    return byte_string(reply.record.begin() + BLOCK_AT, reply.record.end());
}

void count_pools(card_figures &figures, int connection)
{
    for (std::uint32_t ctx = 0; ctx < CONTEXTS; ++ctx) {
        const byte_string block = block_of(connection, "show_fib_summary", ctx);
        figures.nodes += get32(block, 0);
        figures.leaves += get32(block, 4);
        figures.blocks += get32(block, 8);
    }
}

std::string differ(const std::string &what, std::uint64_t got, std::uint64_t expected)
{
    return got == expected ? "" : what + ": " + std::to_string(got) + ", not " + std::to_string(expected) + "\n";
}

// Memory by type: entries as the model has them, everything else as a start leaves it.
std::string compare_memory(card_figures &figures, const std::string &answer, const plain_model &model)
{
    std::uint64_t expected[MTRACK_ROUTE_ENTRY_MAX] = {};
    expected[MTRACK_ROUTE_TABLE] = expected[MTRACK_PREFIX_TREE] = CONTEXTS;
    expected[MTRACK_PREFIX_MGR] = expected[MTRACK_PREFIX_MGR_TREES] = 1;
    expected[MTRACK_CP_POOL] = 3;
    expected[MTRACK_ROUTE_ENTRY_1] = model.entries(MODEL_HOST);
    expected[MTRACK_ROUTE_ENTRY_2] = model.entries(MODEL_NAT);
    expected[MTRACK_ROUTE_ENTRY_3] = model.entries(MODEL_STATIC);
    std::string drift;
    std::istringstream lines(answer);
    std::size_t seen = 0, type = 0;
    std::string name;
    for (std::uint64_t blocks = 0, bytes = 0, peak = 0; lines >> type >> name >> blocks >> bytes >> peak; ++seen) {
        figures.tracked_blocks += blocks;
        figures.tracked_bytes += bytes;
        drift += type < std::size(expected) ? differ("blocks of " + name, blocks, expected[type]) : "unknown " + name;
    }
    return drift + differ("types of memory", seen, std::size(expected));
}

// A context that the model does not follow has the multicast drop entry and nothing else.
model_page expected_page(const plain_model &model, std::uint32_t ctx, bool fib)
{
    constexpr std::uint32_t CAPACITY = 2550;
    model_cursor cursor;
    if (model.rib.contains(ctx))
        return model_list(model, ctx, cursor, fib, CAPACITY);
    model_page page = {fib ? 1u : 0u, {}};
    if (fib)
        for (const std::uint32_t word : {0xE0000000u, 3u, 0u, ctx, 0x0100u, 0x8001u})
            put32(page.records, word);
    return page;
}

// A listing of a whole context, byte by byte.
std::string compare_listing(card_compared &compared, int connection, const plain_model &model, std::uint32_t ctx,
                            bool fib)
{
    constexpr std::uint32_t END_LIST = 33, END_POSITION = 0xFFFFFFFF, BLOCK_CODE = 9;
    constexpr std::ptrdiff_t RESULT_AT = 12;
    const char *const procedure = fib ? "show_fib_print" : "show_rib_print";
    model_page page = expected_page(model, ctx, fib);
    byte_string expected;
    put32(expected, page.count);
    for (const rpc_arg &reference : {arg_ref16(END_LIST), arg_ref16(0), arg_ref(END_POSITION)})
        put_argument(expected, reference);
    put_argument(expected, {BLOCK_CODE, std::move(page.records)});
    const rpc_reply reply =
        rpc_call(connection, procedure, {arg16(ctx), arg_ref16(0), arg_ref16(0), arg_ref(0), arg_block()});
    if (!reply.arrived || reply.status != 0)
        throw std::runtime_error(std::string(procedure) + ": no answer");
    compared.records += page.count;
    const bool same = byte_string(reply.record.begin() + RESULT_AT, reply.record.end()) == expected;
    return same ? "" : std::string(procedure) + " of context " + std::to_string(ctx) + " is not as it should be\n";
}

bool same_answer(const table_answer &got, const plain_leaf *expected)
{
    if (got.fault != nullptr || !got.has_leaf || expected == nullptr)
        return got.fault == nullptr && !got.has_leaf && expected == nullptr;
    const bool uses_block = (expected->adjacency & ADJ_ECMP) != 0 && (expected->block.words[0] & ECMP_VALID) != 0;
    return got.leaf.adjacency == expected->adjacency &&
           (!uses_block || (got.leaf.block.kind == table_kind::block &&
                            std::equal(got.leaf.words.begin(), got.leaf.words.end(), expected->block.words)));
}

// What the ranges of a tree answer in one copy, at the first and the last address of each.
std::string compare_tree(card_compared &compared, const table_view &view, std::uint32_t ctx, const plain_tree &tree)
{
    std::string drift;
    for (auto range = tree.ranges.begin(); range != tree.ranges.end(); ++range) {
        const auto next = std::next(range);
        for (const std::uint32_t address : {range->first, next == tree.ranges.end() ? ~0u : next->first - 1}) {
            ++compared.addresses;
            if (!same_answer(table_find(view, ctx, address), range->second))
                drift += text("%s: context %u, address %08x\n", TABLE_COPY_NAMES[view.copy], ctx, address);
        }
    }
    return drift;
}

// A word of a copy as it would be in a copy that stood at 0.
std::uint32_t word_from_0(const table_view &view, std::uint32_t at)
{
    const std::uint32_t word = table_load(view, at);
    const bool is_address = at < HW_LEAVES || (at < HW_ECMPS && at % HW_LEAF_BYTES != 0);
    return is_address && word != 0 ? word - view.base : word;
}

std::string compare_copies(card_compared &compared, const table_view &wired, const table_view &other)
{
    for (std::uint32_t at = 0; at < HW_TABLE_BYTES; at += 4, ++compared.words)
        if (word_from_0(wired, at) != word_from_0(other, at))
            return text("%s: the word at %x is not that of the wired copy\n", TABLE_COPY_NAMES[other.copy], at);
    return "";
}

std::string compare_tables(card_compared &compared, const card_dir &card, const plain_model &model)
{
    std::string drift;
    table_view views[TABLE_COPIES];
    for (const table_copy copy : {COPY_WIRED, COPY_IXP1, COPY_IXP2}) {
        views[copy] = table_open(card.path, copy, card_conf{}, &drift);
        if (!views[copy].is_open())
            return drift;
        for (const auto &[ctx, tree] : model.trees)
            drift += compare_tree(compared, views[copy], ctx, tree);
        if (copy != COPY_WIRED)
            drift += compare_copies(compared, views[COPY_WIRED], views[copy]);
    }
    return drift;
}
} // namespace

card_look card_look_at(const card_dir &card, pid_t pid, int connection, const mts_queue &queue,
                       const plain_model &model)
{
    card_look look;
    for (std::uint32_t ctx = 0; ctx < CONTEXTS; ++ctx)
        for (const bool fib : {false, true})
            look.drift += compare_listing(look.compared, connection, model, ctx, fib);
    look.drift += compare_tables(look.compared, card, model);
    count_pools(look.figures, connection);
    look.drift += compare_memory(look.figures, side_debug_answer(queue, DEBUG_MEMORY), model);
    look.drift += differ("nodes in use", look.figures.nodes, model.pools.nodes);
    look.drift += differ("leaves in use", look.figures.leaves, model.pools.leaves);
    look.drift += differ("ECMP blocks in use", look.figures.blocks, model.pools.blocks);
    look.figures.resident = rollup(pid, "Rss:");
    look.figures.own = rollup(pid, "Private_");
    look.figures.descriptors = descriptors_of(pid);
    return look;
}
} // namespace harness
