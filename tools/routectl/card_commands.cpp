// card_commands.cpp - the card's other processes: interfaces, hosts, what was advertised to the supervisor.
//
// `if show` reads the interface database, which the interface manager writes for all; the rest are procedures of the
// program that plays these processes (cardsim).
// Always: an error number of theirs becomes a sentence about the interface or host that the command named.

#include <fmt/format.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_tool/address_text.h"
#include "if_mgr.h"
#include "routectl_commands.h"

namespace
{
using json = nlohmann::ordered_json;

json number_or_null(std::int32_t value) { return value < 0 ? json(nullptr) : json(value); }

// The record of an interface; null when there is none.
json interface_json(std::uint32_t ifid)
{
    std::uint32_t mode = 0, address = 0, mask = 0;
    if (if_get_address(ifid, &mode, nullptr) != 0)
        return nullptr;
    const bool has_address = if_get_ip(ifid, &address, &mask) == 0;
    return {{"ifid", ifid},
            {"state", if_get_status(ifid) == 1 ? "up" : "down"},
            {"address", has_address ? json(address_text(address)) : json(nullptr)},
            {"mask", has_address ? json(address_text(mask)) : json(nullptr)},
            {"ctx", number_or_null(if_get_context_id(ifid))},
            {"mode", mode},
            {"bridge", mode == IF_RMODE_ROUTED ? json(nullptr) : json(if_get_bvi(ifid))},
            {"vlan", number_or_null(if_get_vlanid(ifid))}};
}

routectl_answer if_show(const routectl_call &call)
{
    const std::string database = card_dir_path() + "/interfaces";
    if (access(database.c_str(), R_OK) != 0)
        return routectl_error(ROUTECTL_UNREACHABLE, database + ": there is no interface database; the card's other "
                                                               "processes (cardsim) write it");
    routectl_answer answer;
    answer.records_key = "interfaces";
    answer.columns = {{"ifid", "INTERFACE"}, {"state", "STATE"}, {"address", "ADDRESS"}, {"mask", "MASK"},
                      {"ctx", "CTX"},        {"mode", "MODE"},   {"bridge", "BRIDGE"},   {"vlan", "VLAN"}};
    const routectl_value *const one = routectl_given(call, "ifid");
    for (std::uint32_t ifid = one == nullptr ? 0 : one->number;
         ifid < (one == nullptr ? IFDB_RECORDS : one->number + 1); ++ifid)
        if (json record = interface_json(ifid); !record.is_null())
            answer.records.push_back(std::move(record));
    if (one != nullptr && answer.records.empty())
        return routectl_error(ROUTECTL_REFUSED, "refused: there is no interface " + one->text);
    return answer;
}

// What the error numbers of the card's other processes mean for a command. The numbers' first argument is the
// interface.
struct card_reasons {
    std::string exists, impossible, not_there;
};

// Calls a procedure of the card's other processes that answers with an error number.
routectl_answer card_change(const routectl_call &call, const std::string &procedure,
                            const std::vector<std::uint32_t> &numbers, const card_reasons &reasons = {})
{
    const std::string no_interface = fmt::format("there is no interface {} (if show lists them)", numbers[0]);
    const std::string errors[] = {"", no_interface, reasons.exists, reasons.impossible, reasons.not_there};
    std::vector<card_rpc_arg> args;
    args.reserve(numbers.size());
    for (const std::uint32_t number : numbers)
        args.push_back(rpc_u32(number));
    const card_rpc_reply reply = card_rpc_call_wait(routectl_card(call), procedure, args);
    if (!reply.ran())
        return routectl_not_run(reply.end, procedure);
    if (reply.result == 0)
        return {};
    return routectl_error(ROUTECTL_REFUSED,
                          "refused: " + (reply.result < std::size(errors) ? errors[reply.result]
                                                                          : fmt::format("error {}", reply.result)));
}

std::uint32_t interface_of(const routectl_call &call) { return routectl_number(call, "ifid", 0); }

routectl_answer if_create(const routectl_call &call)
{
    const routectl_value &address = *routectl_given(call, "address");
    return card_change(call, "cardsim_if_create",
                       {interface_of(call), routectl_number(call, "ctx", 0), address.number, address.mask,
                        routectl_number(call, "mode", IF_RMODE_ROUTED)},
                       {fmt::format("interface {} exists already (if address changes it)", interface_of(call)),
                        "expected an interface from 1 to 8191, and an address other than 0.0.0.0", ""});
}

routectl_answer if_up(const routectl_call &call)
{
    return card_change(call, "cardsim_if_state", {interface_of(call), 1});
}
routectl_answer if_down(const routectl_call &call)
{
    return card_change(call, "cardsim_if_state", {interface_of(call), 0});
}
routectl_answer if_delete(const routectl_call &call)
{
    return card_change(call, "cardsim_if_delete", {interface_of(call)});
}

routectl_answer if_address(const routectl_call &call)
{
    const routectl_value &address = *routectl_given(call, "address");
    return card_change(call, "cardsim_if_address", {interface_of(call), address.number, address.mask},
                       {"", "expected an address other than 0.0.0.0", ""});
}

std::string host_of(const routectl_call &call) { return address_text(routectl_number(call, "addr", 0)); }

routectl_answer host_add(const routectl_call &call)
{
    const std::uint32_t interface = routectl_number(call, "if", 0);
    const std::string host = host_of(call);
    return card_change(
        call, "cardsim_host_add", {interface, routectl_number(call, "addr", 0), routectl_number(call, "encap", 0)},
        {host + " is there already, with that encapsulation",
         fmt::format("{} is not in the subnet of interface {}, or the encapsulation is another host's or over 0x7fff",
                     host, interface),
         ""});
}

routectl_answer host_del(const routectl_call &call)
{
    const std::uint32_t interface = routectl_number(call, "if", 0);
    return card_change(call, "cardsim_host_del", {interface, routectl_number(call, "addr", 0)},
                       {"", "", fmt::format("interface {} has no host {}", interface, host_of(call))});
}

routectl_answer supervisor_show(const routectl_call &call)
{
    const char *const procedure = "cardsim_advertisements";
    const card_rpc_reply reply = card_rpc_call_wait(routectl_card(call), procedure, {rpc_block()});
    if (!reply.ran())
        return routectl_not_run(reply.end, procedure);
    routectl_answer answer;
    answer.records_key = "advertisements";
    answer.columns = {
        {"prefix", "PREFIX"}, {"nexthop", "NEXT HOP"}, {"vlan", "VLAN"}, {"metric", "METRIC"}, {"slot", "SLOT"}};
    answer.facts = json::parse(reply.blocks[0], nullptr, false);
    if (!answer.facts.is_object() || !answer.facts.contains(answer.records_key))
        return routectl_not_run(CARD_RPC_GARBLED, procedure);
    answer.records = answer.facts[answer.records_key];
    answer.facts.erase(answer.records_key);
    return answer;
}

constexpr routectl_command ROWS[] = {
    {"if show", "[IFID]", "List the interfaces of the card", if_show},
    {"if create", "IFID ADDRESS [ctx CTX] [mode MODE]", "Make an interface; it is down at first", if_create},
    {"if up", "IFID", "Bring an interface up", if_up},
    {"if down", "IFID", "Take an interface down", if_down},
    {"if delete", "IFID", "Delete an interface", if_delete},
    {"if address", "IFID ADDRESS", "Give an interface another address", if_address},
    {"host add", "ADDR if IFID [encap ENCAP]", "Let a neighbour appear on an interface", host_add},
    {"host del", "ADDR if IFID", "Let a neighbour go", host_del},
    {"supervisor", "", "List what was advertised to the supervisor", supervisor_show},
};
} // namespace

std::span<const routectl_command> routectl_card_commands() { return ROWS; }
