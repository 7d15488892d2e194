// random_compare.cpp - what a random step changed, and what the tables hold, against the plain model.
//
// The card is looked at from outside where that is possible (answers, lines, calls, the words of each copy), and in its
// records where it is not (RIB chains, ways back of leaves).
#include "random_compare.h"

#include <algorithm>
#include <iterator>
#include <tuple>

#include "norvik_mtrie.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "prefix_mgr.h"
#include "rib_check.h"
#include "rib_show.h"
#include "rib_table.h"
#include "route_ids.h"

namespace harness
{
namespace
{

std::string hex(const byte_string &bytes)
{
    std::string all;
    for (const std::uint8_t byte : bytes)
        all += text("%02x", unsigned{byte});
    return all;
}

std::string differ(const std::string &what, const std::string &got, const std::string &expected)
{
    return got == expected ? "" : what + "\n     got: " + got + "\nexpected: " + expected;
}

std::string differ(const std::string &what, std::uint32_t got, std::uint32_t expected)
{
    return got == expected ? "" : differ(what, std::to_string(got), std::to_string(expected));
}

std::string differ(const std::string &what, const text_lines &got, const text_lines &expected)
{
    if (got == expected)
        return "";
    const std::size_t shared = std::min(got.size(), expected.size());
    std::size_t at = 0;
    while (at < shared && got[at] == expected[at])
        ++at;
    return differ(what + " " + std::to_string(at), at < got.size() ? got[at] : "(none)",
                  at < expected.size() ? expected[at] : "(none)");
}

// A text with the address behind `mark` written as 0: the model does not know where records lie.
std::string without_address(const std::string &text, const std::string &mark)
{
    const std::size_t found = text.find(mark);
    if (found == std::string::npos)
        return text;
    const std::size_t at = found + mark.size(), end = text.find_first_not_of("0123456789abcdef", at);
    return text.substr(0, at) + "0" + (end == std::string::npos ? "" : text.substr(end));
}

// The lines of a walk through a copy, each up to its end.
text_lines dump_lines(const byte_string &bytes)
{
    text_lines lines;
    for (std::size_t at = 0; at + 128 <= bytes.size(); at += 128) {
        const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(at);
        lines.push_back(without_address(std::string(from, std::find(from, from + 128, 0)), "ecmp node 0x"));
    }
    return lines;
}

text_lines error_lines(const fake_card &card)
{
    text_lines lines = card.texts(ROUTE_DBG_ERRORS);
    for (std::string &line : lines)
        line = without_address(line, "not found at root 0x");
    return lines;
}

bool begins(const std::string &text, const char *with) { return text.rfind(with, 0) == 0; }

// The calls that leave the process; descriptors are not compared.
text_lines outgoing_calls(const fake_card &card)
{
    text_lines calls;
    for (const std::string &call : card.calls)
        if (begins(call, "syscall_close"))
            calls.push_back("syscall_close");
        else if (begins(call, "tnrpc_call") || begins(call, "mts_send") || begins(call, "scp_send") ||
                 begins(call, "syscall_open") || begins(call, "tn_flush_rt_cache"))
            calls.push_back(call);
    return calls;
}

text_lines sent_messages(const fake_card &card)
{
    text_lines all;
    for (const fake_message &message : card.sent)
        all.push_back(text("%x to %x/%u ", message.opcode, message.address.node, message.address.sap) +
                      hex(message.payload));
    return all;
}

text_lines sent_messages(const plain_model &model)
{
    text_lines all;
    for (const auto &[opcode, payload] : model.sent)
        all.push_back(text("%x to fe000000/0 ", opcode) + hex(payload));
    return all;
}

std::string first_of(std::initializer_list<std::string> differences)
{
    for (const std::string &difference : differences)
        if (!difference.empty())
            return difference;
    return "";
}

std::uint32_t used(std::int32_t pool) { return static_cast<std::uint32_t>(mtrie_pools[pool].count); }

// Blocks of the process's memory, by type.
std::vector<std::uint32_t> blocks_held(const fake_card &card)
{
    std::vector<std::uint32_t> held(MTRACK_ROUTE_ENTRY_MAX);
    for (const auto &[addr, block] : card.heap)
        if (block.type < held.size())
            ++held[block.type];
    return held;
}

std::vector<std::uint32_t> blocks_expected(const plain_model &model)
{
    std::vector<std::uint32_t> held(MTRACK_ROUTE_ENTRY_MAX);
    held[MTRACK_ROUTE_TABLE] = held[MTRACK_PREFIX_TREE] = 256; // of the tables none is reached, and none is freed
    held[MTRACK_PREFIX_MGR] = held[MTRACK_PREFIX_MGR_TREES] = 1;
    held[MTRACK_CP_POOL] = 3;
    held[MTRACK_ROUTE_ENTRY_1] = model.entries(MODEL_HOST);
    held[MTRACK_ROUTE_ENTRY_2] = model.entries(MODEL_NAT);
    held[MTRACK_ROUTE_ENTRY_3] = model.entries(MODEL_STATIC);
    return held;
}

std::string compare_memory(const random_run &run)
{
    const std::vector<std::uint32_t> held = blocks_held(run.card), expected = blocks_expected(run.model);
    for (std::size_t type = 0; type < held.size(); ++type)
        if (held[type] != expected[type])
            return differ(text("blocks of memory type %zu", type), held[type], expected[type]);
    return first_of({differ("nodes in use", used(MTRIE_POOL_NODE), run.model.pools.nodes),
                     differ("leaves in use", used(MTRIE_POOL_LEAF), run.model.pools.leaves),
                     differ("ECMP blocks in use", used(MTRIE_POOL_ECMP), run.model.pools.blocks)});
}

text_lines rib_of_card(std::uint32_t ctx)
{
    text_lines lines;
    for (const auto &row : norvik_get_t(ctx)->table)
        for (const card_ptr<route_entry> &bucket : row)
            for (const route_entry *head = bucket; head != nullptr; head = head->next) {
                unsigned place = 0;
                for (const route_entry *entry = head; entry != nullptr;
                     entry = place++ == 0 ? head->ecmp : entry->next) {
                    if (entry->ctx != ctx)
                        return {"an entry of another context"};
                    const model_path path = {MODEL_HOST,      entry->nexthop, entry->ifid,
                                             entry->encap_id, entry->flags,   entry->route_id};
                    lines.push_back(model_line({entry->len, entry->prefix}, place, path, entry->ecmp_count));
                }
            }
    return lines;
}

std::string leaf_line(std::uint32_t prefix, std::uint32_t mask, std::uint32_t adjacency, const std::uint32_t *block,
                      std::uint32_t npaths)
{
    std::string line = text("%08x/%08x %08x", prefix, mask, adjacency);
    if (block != nullptr)
        for (unsigned i = 0; i < ECMP_WORDS; ++i)
            line += text("%s%08x", i == 0 ? text(" block of %u: ", npaths).c_str() : " ", block[i]);
    return line;
}

// A leaf and its way back.
std::string leaf_of_card(const mtrie_leaf *leaf)
{
    std::string all;
    for (; leaf != nullptr; leaf = leaf->back)
        all += leaf_line(leaf->prefix, leaf->mask, leaf->adjacency, leaf->ecmp ? leaf->ecmp->hw : nullptr,
                         leaf->ecmp ? leaf->ecmp->npaths : 0) +
               "; ";
    return all;
}

std::string leaf_of_model(const plain_leaf *leaf)
{
    std::string all;
    for (; leaf != nullptr; leaf = leaf->back)
        all += leaf_line(leaf->prefix, leaf->mask, leaf->adjacency, leaf->has_block ? leaf->block.words : nullptr,
                         leaf->block.npaths) +
               "; ";
    return all;
}

// What a processor has in hand: the leaf's word, and the block's words when it is sent there and may use them.
std::string answer_of_copy(const np_answer &answer)
{
    if (answer.leaf == NP_UNSOUND || answer.block == NP_UNSOUND)
        return "unsound";
    std::string all = answer.leaf == NP_MISS ? "none" : text("%08x", answer.adjacency);
    for (const std::uint32_t word : answer.ecmp)
        all += text(" %x", word);
    return all;
}

bool same_block(const std::uint32_t *got, const std::uint32_t *expected)
{
    return std::equal(got, got + ECMP_WORDS, expected);
}

bool same_leaf(const mtrie_leaf *got, const plain_leaf *expected)
{
    if (got->prefix != expected->prefix || got->mask != expected->mask || got->adjacency != expected->adjacency ||
        (got->ecmp.addr() != 0) != expected->has_block)
        return false;
    return !expected->has_block ||
           (got->ecmp->npaths == expected->block.npaths && same_block(got->ecmp->hw, expected->block.words));
}

// The leaf, and its way back.
bool same_way(const mtrie_leaf *got, const plain_leaf *expected)
{
    for (; got != nullptr && expected != nullptr; got = got->back, expected = expected->back)
        if (!same_leaf(got, expected))
            return false;
    return got == nullptr && expected == nullptr;
}

// The texts are made for a difference only: a run compares a great many leaves.
std::string compare_leaf(const std::string &where, const mtrie_leaf *got, const plain_leaf *expected)
{
    return same_way(got, expected) ? "" : differ(where, leaf_of_card(got), leaf_of_model(expected));
}

bool same_answer(const np_answer &got, const plain_leaf *leaf)
{
    static constexpr std::uint32_t NOTHING[ECMP_WORDS] = {};
    if (leaf == nullptr || got.leaf == NP_MISS || got.leaf == NP_UNSOUND || got.block == NP_UNSOUND)
        return leaf == nullptr && got.leaf == NP_MISS;
    const bool uses_block = (leaf->adjacency & ADJ_ECMP) != 0 && leaf->block.words[0] >> 31 == 1;
    return got.adjacency == leaf->adjacency && same_block(got.ecmp.data(), uses_block ? leaf->block.words : NOTHING);
}

std::string compare_address(const random_run &run, std::uint32_t ctx, std::uint32_t address, const plain_leaf *leaf)
{
    const mtrie_leaf *found = mtrie_longest_match(mtrie_get_root_node(ctx), address);
    if (!same_way(found, leaf))
        return compare_leaf(text("context %u address %08x", ctx, address), found, leaf);
    for (unsigned copy = 0; copy <= run.card.num_ixp; ++copy) {
        const np_answer got = np_find(run.card, copy, ctx, address);
        if (!same_answer(got, leaf))
            return differ(text("context %u address %08x copy %u", ctx, address, copy), answer_of_copy(got),
                          leaf == nullptr ? "none" : leaf_of_model(leaf));
    }
    return "";
}

// Every range of addresses that has one answer, at both of its ends.
std::string compare_tree(const random_run &run, std::uint32_t ctx)
{
    const plain_tree &tree = run.model.trees.at(ctx);
    const std::array<std::int32_t, 3> &held = run.model.pools.held.at(ctx);
    for (auto range = tree.ranges.begin(); range != tree.ranges.end(); ++range) {
        const auto next = std::next(range);
        const std::uint32_t last = next == tree.ranges.end() ? 0xFFFFFFFF : next->first - 1;
        for (const std::uint32_t address : {range->first, last})
            if (std::string difference = compare_address(run, ctx, address, range->second); !difference.empty())
                return difference;
    }
    mtrie_census reached{};
    std::uint32_t charged[3];
    (void)mtrie_check(mtrie_get_root_node(ctx), &reached); // judged by the audit
    mtrie_get_stats(ctx, charged);
    return first_of({differ("nodes reached", reached.nodes, plain_nodes_held(tree)),
                     differ("nodes charged", charged[0], static_cast<std::uint32_t>(held[PLAIN_NODE])),
                     differ("leaves charged", charged[1], static_cast<std::uint32_t>(held[PLAIN_LEAF])),
                     differ("blocks charged", charged[2], static_cast<std::uint32_t>(held[PLAIN_BLOCK])),
                     compare_leaf("default leaf", norvik_leaf_default[ctx], tree.standard)});
}

} // namespace

std::string text_of_step(const random_step &step)
{
    std::string all = step.is_call ? step.procedure : text("message %u ", step.opcode) + hex(step.payload);
    for (const std::uint32_t arg : step.args)
        all += text(" %x", arg);
    return all;
}

std::string compare_reply(const std::string &procedure, const fake_reply &got, const model_reply &expected)
{
    const std::string name = procedure + " ";
    const std::string difference = first_of({differ(name + "status", got.status, expected.status),
                                             differ(name + "result", got.result, expected.result),
                                             differ(name + "references", static_cast<std::uint32_t>(got.refs.size()),
                                                    static_cast<std::uint32_t>(expected.refs.size())),
                                             differ(name + "blocks", static_cast<std::uint32_t>(got.blocks.size()),
                                                    static_cast<std::uint32_t>(expected.blocks.size()))});
    if (!difference.empty())
        return difference;
    for (std::size_t i = 0; i < got.refs.size(); ++i)
        if (got.refs[i] != expected.refs[i])
            return differ(name + text("reference %zu", i), got.refs[i], expected.refs[i]);
    for (std::size_t i = 0; i < got.blocks.size(); ++i) {
        if (procedure == "mtrie_hw_dump_api")
            return differ(name + "line", dump_lines(got.blocks[i]), dump_lines(expected.blocks[i]));
        byte_string block = got.blocks[i];
        if (procedure == "show_fib_summary" && block.size() == 24)
            block.resize(22); // the last two bytes say nothing
        if (block != expected.blocks[i])
            return differ(name + "block", hex(block), hex(expected.blocks[i]));
    }
    return "";
}

std::string compare_effects(random_run &run)
{
    return first_of({differ("error line", error_lines(run.card), run.model.pools.errors),
                     differ("outgoing call", outgoing_calls(run.card), run.model.calls),
                     differ("message", sent_messages(run.card), sent_messages(run.model)),
                     differ("advertisement", run.card.scp_messages, run.model.adverts), compare_memory(run)});
}

std::string compare_short_page(random_run &run)
{
    constexpr std::uint32_t MOST = 12;
    const std::uint32_t of = run.below(3), capacity = 1 + run.below(MOST);
    const bool fib = run.below(2) == 1;
    model_cursor &cursor = run.cursors[of][fib ? 1 : 0];
    if (cursor.list >= 33)
        cursor = {};
    auto list = static_cast<std::uint16_t>(cursor.list), bucket = static_cast<std::uint16_t>(cursor.bucket);
    std::uint32_t position = cursor.position;
    byte_string records(MOST * ROUTE_RECORD_BYTES);
    route_page page = {static_cast<std::uint16_t>(capacity), 0, records.data()};
    const auto ctx = static_cast<std::uint16_t>(RUN_CONTEXTS[of]);
    route_traversal(ctx, &list, &bucket, &position, 1, fib ? show_fib_filter : show_rib_filter,
                    fib ? show_fib_action : show_rib_action, &page);

    const model_page expected = model_list(run.model, ctx, cursor, fib, capacity);
    records.resize(page.count * ROUTE_RECORD_BYTES);
    const std::string difference =
        first_of({differ("page of the reader", hex(records), hex(expected.records)),
                  differ("cursor of the reader", text("%u %u %x", unsigned{list}, unsigned{bucket}, position),
                         text("%u %u %x", cursor.list, cursor.bucket, cursor.position))});
    if (page.count == 0 && cursor.list < 33)
        cursor = {}; // a set that no page of the reader can hold
    return difference;
}

std::string memory_report(const random_run &run)
{
    static const char *const names[] = {
        "MTRACK_ROUTE_TABLE", "MTRACK_PREFIX_TREE",        "MTRACK_PREFIX_MGR",          "MTRACK_PREFIX_MGR_TREES",
        "MTRACK_CP_POOL",     "MTRACK_ROUTE_TREE_DISPLAY", "MTRACK_ROUTE_TABLE_DISPLAY", "MTRACK_CLI_ROUTE",
        "MTRACK_FIB_DISPLAY", "MTRACK_ROUTE_ENTRY_1",      "MTRACK_ROUTE_ENTRY_2",       "MTRACK_ROUTE_ENTRY_3"};
    static_assert(std::size(names) == MTRACK_ROUTE_ENTRY_MAX);
    const std::vector<std::uint32_t> held = blocks_held(run.card), expected = blocks_expected(run.model);
    std::string report;
    for (std::size_t type = 0; type < held.size(); ++type)
        report += text("  %-27s %5u blocks, %5u predicted\n", names[type], held[type], expected[type]);
    for (const auto &[name, pool, predicted] : {std::tuple("nodes", MTRIE_POOL_NODE, run.model.pools.nodes),
                                                std::tuple("leaves", MTRIE_POOL_LEAF, run.model.pools.leaves),
                                                std::tuple("ECMP blocks", MTRIE_POOL_ECMP, run.model.pools.blocks)})
        report += text("  %-27s %5u in use, %5u predicted\n", name, used(pool), predicted);
    return report;
}

std::string random_run_compare(random_run &run)
{
    for (const std::uint32_t ctx : RUN_CONTEXTS) {
        const std::string difference = first_of(
            {differ(text("context %u route", ctx), rib_of_card(ctx), run.model.rib_text(ctx)), compare_tree(run, ctx)});
        if (!difference.empty())
            return "after step " + std::to_string(run.steps) + ": " + difference;
    }
    const std::string difference = compare_memory(run);
    return difference.empty() ? difference : "after step " + std::to_string(run.steps) + ": " + difference;
}

int random_run_audit()
{
    int broken = mtrie_pool_check() + mtrie_hw_check();
    for (const std::uint32_t ctx : RUN_CONTEXTS)
        broken += rib_check(ctx) + mtrie_check(mtrie_get_root_node(ctx), nullptr);
    return broken;
}
} // namespace harness
