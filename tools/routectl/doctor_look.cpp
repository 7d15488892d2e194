// doctor_look.cpp - gathers what can be looked at, and says what cannot.
//
// Always: the words of the tables are copied first and compared last, so a change during the look is counted.
#include "doctor_look.h"

#include <unistd.h>

#include "card_dir.h"
#include "card_tool/address_text.h"
#include "debug_ask.h"

namespace
{
// Maps the copies that the card has. One that cannot be read is reported.
void map_copies(doctor_look &look)
{
    const unsigned processors = card_conf_get().num_ixp;
    for (unsigned i = 0; i < TABLE_COPIES && i <= processors; ++i) {
        auto copy = std::make_unique<doctor_copy>();
        std::string why;
        copy->view = table_open(card_dir_path(), static_cast<table_copy>(i), card_conf_get(), &why);
        if (!copy->view.is_open()) {
            look.not_looked_at.push_back(why);
            continue;
        }
        (void)table_changed_words(copy->view, copy->words); // fills it
        look.copies.push_back(std::move(copy));
    }
}

// Asks the route manager for its listings and counts. Returns false when it did not answer.
bool ask_manager(const routectl_call &call, doctor_look &look)
{
    look.listing = route_listing_ask(routectl_route_manager(call), "show_fib_print");
    look.counts = card_summary_ask(routectl_route_manager(call));
    look.unserved = routectl_query_wait(call, *look.listing);
    if (look.unserved.status == ROUTECTL_DONE)
        look.unserved = routectl_query_wait(call, *look.counts);
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        for (const route_record &route : look.listing->contexts[ctx])
            look.groups[ctx][{route.prefix, route.length}].push_back(&route);
    return look.unserved.status == ROUTECTL_DONE;
}

void ask_memory(const routectl_call &call, doctor_look &look)
{
    routectl_answer error;
    const std::optional<debug_answer> said = debug_ask(call, DEBUG_SHOW_MEMORY, error);
    if (!said)
        look.not_looked_at.push_back("memory by type: " + error.error);
    else
        for (const debug_memory &memory : said->memory)
            look.blocks[memory.type] = memory.live_blocks;
}
} // namespace

doctor_look doctor_look_take(const routectl_call &call)
{
    doctor_look look;
    map_copies(look);
    const std::string interfaces = card_dir_path() + "/interfaces";
    look.has_interfaces = access(interfaces.c_str(), R_OK) == 0;
    if (!look.has_interfaces)
        look.not_looked_at.push_back(interfaces + ": there is no interface database");
    look.is_served = ask_manager(call, look);
    if (look.is_served)
        ask_memory(call, look);
    else
        look.not_looked_at.push_back("listings, counts and memory of the route manager: no answer");
    for (const auto &copy : look.copies)
        for (std::uint32_t tree = 0; tree < ROUTE_CONTEXTS; ++tree)
            copy->trees[tree] = tree_read(copy->view, tree);
    look.words_changed = doctor_look_changes(look);
    return look;
}

std::size_t doctor_look_changes(doctor_look &look)
{
    std::size_t changed = 0;
    for (const auto &copy : look.copies)
        changed += table_changed_words(copy->view, copy->words) +
                   (mapped_file_is_current(copy->view.file, table_path(card_dir_path(), copy->view.copy)) ? 0 : 1);
    return changed;
}

bool doctor_trie_holds(const routectl_call &call, std::uint32_t tree, doctor_prefix prefix)
{
    const card_rpc_reply reply =
        routectl_ask(call, "mtrie_lookup_exact_stub",
                     {rpc_u32(tree), rpc_u32(prefix.prefix), rpc_u32(address_mask_of(prefix.length)), rpc_ref32(0)});
    return reply.ran() && reply.result == 0;
}
