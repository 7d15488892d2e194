// session.cpp - the connections that the commands share, and what a call that did not run means.
//
// Always: a connection is made when a command first needs it, and kept for the next command.
#include "card_dir.h"
#include "routectl_commands.h"

card_rpc &routectl_route_manager(const routectl_call &call)
{
    if (!call.session.route_manager)
        call.session.route_manager = card_rpc_open("rib_add_route", call.options.timeout_ms);
    return *call.session.route_manager;
}

card_rpc &routectl_card(const routectl_call &call)
{
    if (!call.session.card)
        call.session.card = card_rpc_open("cardsim_if_create", call.options.timeout_ms);
    return *call.session.card;
}

card_rpc &routectl_live(const routectl_call &call)
{
    if (!call.session.live)
        call.session.live = card_rpc_open("cardlive_status", call.options.timeout_ms);
    return *call.session.live;
}

card_rpc_reply routectl_ask(const routectl_call &call, const std::string &procedure,
                            const std::vector<card_rpc_arg> &args)
{
    return card_rpc_call_wait(routectl_route_manager(call), procedure, args);
}

std::string routectl_where()
{
    return " in " + card_dir_path() + " (start it there, or name its card directory with -c or CARD_DIR)";
}

routectl_answer routectl_not_run(card_rpc_end end, const std::string &procedure)
{
    const std::string reason = card_rpc_reason(end, procedure);
    const std::string who = procedure.rfind("cardsim_", 0) == 0    ? "the card's other processes"
                            : procedure.rfind("cardlive_", 0) == 0 ? "cardlive"
                                                                   : "the route manager";
    switch (end) {
    case CARD_RPC_BAD_ARGUMENTS:
    case CARD_RPC_OUT_OF_RANGE:
        return routectl_error(ROUTECTL_USAGE, reason);
    case CARD_RPC_UNREACHABLE:
        return routectl_error(ROUTECTL_UNREACHABLE, who + " cannot be reached: " + reason + routectl_where());
    default:
        return routectl_error(ROUTECTL_UNREACHABLE, who + ": " + reason);
    }
}

routectl_answer routectl_query_wait(const routectl_call &call, const card_query &query)
{
    while (!query.is_over())
        card_rpc_wait(routectl_route_manager(call), 1);
    if (query.failed != CARD_RPC_RAN)
        return routectl_not_run(query.failed, query.procedure);
    if (!query.refused.empty())
        return routectl_error(ROUTECTL_REFUSED, "refused: the route manager " + query.refused);
    return {};
}
