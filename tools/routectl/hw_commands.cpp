// hw_commands.cpp - what the hardware tables hold: the walk of one address, the trie of a context.
//
// A walk asks the route manager's dump procedure, which reads the words it has mapped; --direct and the export read the
// memories of the card directory here, so they work after it has died.
// Always: an answer has the same form whichever way it was got (hw_text.cpp).
#include "card_dir.h"
#include "card_view/hw_walk.h"
#include "card_view/table_tree.h"
#include "hw_text.h"
#include "routectl_commands.h"

namespace
{
constexpr const char *DUMP = "mtrie_hw_dump_api";

table_copy copy_of(const routectl_call &call)
{
    return static_cast<table_copy>(routectl_number(call, "copy", COPY_WIRED));
}

table_view open_copy(const routectl_call &call, std::string *why)
{
    return table_open(card_dir_path(), copy_of(call), card_conf_get(), why);
}

routectl_answer walk_answer(const hw_walk &walk)
{
    routectl_answer answer;
    answer.facts = hw_walk_facts(walk);
    answer.records_key = "paths";
    answer.records = hw_walk_records(walk);
    answer.text = hw_walk_text(walk);
    if (!walk.fault.empty()) {
        answer.status = ROUTECTL_REFUSED;
        answer.error = "the table cannot be followed: " + walk.fault;
    }
    return answer;
}

routectl_answer walk_direct(const routectl_call &call, std::uint32_t ctx, std::uint32_t address)
{
    std::string why;
    const table_view view = open_copy(call, &why);
    return view.is_open() ? walk_answer(hw_walk_direct(view, ctx, address)) : routectl_error(ROUTECTL_UNREACHABLE, why);
}

routectl_answer walk_asked(const routectl_call &call, std::uint32_t ctx, std::uint32_t address)
{
    const card_rpc_reply reply =
        routectl_ask(call, DUMP, {rpc_u16(copy_of(call)), rpc_u32(ctx), rpc_u32(address), rpc_block()});
    if (!reply.ran()) {
        routectl_answer answer = routectl_not_run(reply.end, DUMP);
        answer.error += ROUTECTL_TRY_DIRECT;
        return answer;
    }
    const std::string text = reply.blocks.empty() ? "" : std::string(reply.blocks[0].begin(), reply.blocks[0].end());
    return walk_answer(hw_walk_from_dump(text, copy_of(call), ctx, address));
}

routectl_answer walk_run(const routectl_call &call)
{
    const std::uint32_t ctx = routectl_number(call, "ctx", 0), address = routectl_number(call, "addr", 0);
    return routectl_given(call, "--direct") != nullptr ? walk_direct(call, ctx, address)
                                                       : walk_asked(call, ctx, address);
}

routectl_answer export_run(const routectl_call &call)
{
    std::string why;
    const table_view view = open_copy(call, &why);
    if (!view.is_open())
        return routectl_error(ROUTECTL_UNREACHABLE, why);
    const tree_view tree = tree_read(view, routectl_number(call, "ctx", 0));
    routectl_answer answer;
    if (routectl_number(call, "--dot", 0) == 0) {
        answer.text = tree_dot(tree);
        answer.facts = {{"ctx", tree.ctx}, {"copy", TABLE_COPY_NAMES[tree.copy]}, {"dot", answer.text}};
    } else {
        answer.facts = hw_tree_json(tree);
        answer.text = answer.facts.dump(2) + "\n"; // the data is ours: ASCII only
    }
    return answer;
}

constexpr routectl_command ROWS[] = {
    {"hw walk", "ADDR [ctx CTX] [copy COPY] [--direct]", "Show the way of an address through the hardware tables",
     walk_run},
    {"hw export", "--dot|--json CTX [copy COPY]", "Print a context's trie as a drawing for Graphviz, or as data",
     export_run},
};
} // namespace

std::span<const routectl_command> routectl_hw_commands() { return ROWS; }
