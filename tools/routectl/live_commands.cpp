// live_commands.cpp - a card that is this host: its ports and counters, a packet traced, the tables against the kernel.
//
// What is counted is looked at twice, a second apart, for the rates.
// Elsewhere: asking for it (live_ask.cpp), how it is found out (live/), the documents' fields (docs/interface.md).
#include <algorithm>
#include <chrono>
#include <thread>

#include <fmt/format.h>

#include "card_dir.h"
#include "card_tool/address_text.h"
#include "card_view/hw_walk.h"
#include "hw_text.h"
#include "live_ask.h"
#include "routectl_commands.h"

namespace
{
using json = nlohmann::ordered_json;

constexpr std::chrono::seconds BETWEEN{1}; // the two looks of a rate

// ---- live ----

std::uint64_t count_of(const json &port, const char *name)
{
    return port.contains("counters") ? port["counters"].value(name, std::uint64_t{0}) : 0;
}

// Packets that came in by a port and went to the kernel, for whatever reason.
std::uint64_t sent_up(const json &port)
{
    std::uint64_t sum = 0;
    if (port.contains("counters"))
        for (const auto &[name, count] : port["counters"].items())
            if (name != "forwarded" && name != "out_packets" && name != "out_bytes")
                sum += count.get<std::uint64_t>();
    return sum;
}

std::string state_of(const json &port)
{
    if (!port.value("bound", false))
        return "not bound";
    return !port.value("up", false) ? "down" : port.value("open", false) ? "open" : "closed";
}

// A port with its rates since the look before. One that was not there then has none.
json port_record(const json &port, const json &before, double seconds)
{
    const auto rate = [&](std::uint64_t now, std::uint64_t then) {
        return before.is_null() || now < then ? 0
                                              : static_cast<std::uint64_t>(static_cast<double>(now - then) / seconds);
    };
    const std::uint64_t in = count_of(port, "forwarded"), out = count_of(port, "out_packets"), up = sent_up(port);
    json record = port;
    record["state"] = state_of(port);
    record["forwarded"] = in;
    record["forwarded_rate"] = rate(in, count_of(before, "forwarded"));
    record["sent_up"] = up;
    record["sent_up_rate"] = rate(up, sent_up(before));
    record["out"] = out;
    record["out_rate"] = rate(out, count_of(before, "out_packets"));
    return record;
}

json find_port(const json &document, const std::string &name)
{
    for (const json &port : document["ports"])
        if (port.value("name", "") == name)
            return port;
    return nullptr;
}

std::string context_text(const json &context)
{
    return context.value("forwards", false) ? "forwards" : "held back: " + context.value("why", "");
}

routectl_answer live_run(const routectl_call &call)
{
    json before, now;
    routectl_answer answer = live_ask(call, "cardlive_status", {rpc_block()}, &before);
    if (answer.status != ROUTECTL_DONE)
        return answer;
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(BETWEEN);
    answer = live_ask(call, "cardlive_status", {rpc_block()}, &now);
    if (answer.status != ROUTECTL_DONE)
        return answer;
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    for (const json &port : now["ports"])
        answer.records.push_back(port_record(port, find_port(before, port.value("name", "")), seconds.count()));
    now.erase("ports");
    answer.facts = now;
    if (!call.options.json) { // a line each
        answer.facts.erase("contexts");
        answer.facts.erase("passed_by");
        for (const json &context : now["contexts"])
            answer.facts[fmt::format("context {}", context.value("context", 0))] =
                fmt::format("{}; {} routes, {} neighbours, {} without room", context_text(context),
                            context.value("routes", 0), context.value("hosts", 0), context.value("cut", 0));
        for (const json &what : now["passed_by"])
            answer.facts[fmt::format("warning {}", answer.facts.size())] =
                fmt::format("{} is passed by: forwarded packets do not meet it", what.get<std::string>());
    }
    answer.records_key = "ports";
    answer.columns = {{"name", "PORT"},
                      {"context", "CTX"},
                      {"mode", "MODE"},
                      {"state", "STATE"},
                      {"forwarded", "FORWARDED"},
                      {"forwarded_rate", "A SECOND"},
                      {"sent_up", "SENT UP"},
                      {"sent_up_rate", "A SECOND"},
                      {"out", "OUT"},
                      {"out_rate", "A SECOND"},
                      {"why", "WHY"}};
    return answer;
}

// ---- live trace ----

// The interface id of a port by its name; 0: there is none.
std::uint32_t port_of(const json &document, const std::string &name)
{
    const json port = find_port(document, name);
    return port.is_null() ? 0 : port.value("interface", 0u);
}

std::string walk_text(const json &traced)
{
    std::string why;
    const table_view view = table_open(card_dir_path(), COPY_IXP2, card_conf_get(), &why);
    if (!view.is_open())
        return why + "\n";
    return hw_walk_text(
        hw_walk_direct(view, traced.value("context", 0u), address_parse(traced.value("address", "")).value_or(0)));
}

std::string traced_text(const json &traced)
{
    std::string text = fmt::format("{} from {} in by {}, context {}\n  the card    {}\n  the kernel  {}\n",
                                   traced.value("address", ""), traced.value("source", ""), traced.value("in", ""),
                                   traced.value("context", 0), traced.value("card", ""), traced.value("kernel", ""));
    return text + (traced.value("agrees", false) ? "" : "  they differ\n");
}

routectl_answer trace_run(const routectl_call &call)
{
    routectl_answer answer;
    json traced;
    std::uint32_t port = 0;
    if (const routectl_value *const name = routectl_given(call, "in")) {
        json document;
        answer = live_ask(call, "cardlive_status", {rpc_block()}, &document);
        if (answer.status != ROUTECTL_DONE)
            return answer;
        port = port_of(document, name->text);
        if (port == 0)
            return routectl_error(ROUTECTL_USAGE, name->text + " is no port of the card (live lists them)");
    }
    answer = live_ask(call, "cardlive_trace",
                      {rpc_u32(routectl_number(call, "addr", 0)), rpc_u32(routectl_number(call, "from", 0)),
                       rpc_u32(port), rpc_block()},
                      &traced);
    if (answer.status != ROUTECTL_DONE)
        return answer;
    answer.facts = traced;
    answer.text = traced_text(traced) + walk_text(traced);
    if (!traced.value("agrees", false)) {
        answer.status = ROUTECTL_REFUSED;
        answer.error = "the card and the kernel differ";
    }
    return answer;
}

// ---- live verify ----

routectl_answer verify_run(const routectl_call &call)
{
    live_compared compared;
    routectl_answer answer = live_compare(call, routectl_given(call, "ctx"), &compared);
    if (answer.status != ROUTECTL_DONE)
        return answer;
    answer.facts = {
        {"looked_at", compared.looked_at}, {"forwarded", compared.forwarded}, {"differ", compared.differences.size()}};
    answer.records = compared.differences;
    answer.records_key = "differences";
    answer.columns = {
        {"context", "CTX"}, {"address", "ADDRESS"}, {"in", "IN BY"}, {"card", "THE CARD"}, {"kernel", "THE KERNEL"}};
    if (!answer.records.empty()) {
        answer.status = ROUTECTL_REFUSED;
        answer.error = fmt::format("the card and the kernel differ at {} addresses", answer.records.size());
    }
    return answer;
}

constexpr routectl_command ROWS[] = {
    {"live", "", "Show the ports of this host's card, what they forward, and what is held back", live_run},
    {"live trace", "ADDR [from ADDR] [in PORT]", "Run the packet program on a packet, beside the kernel's own lookup",
     trace_run},
    {"live verify", "[ctx CTX]", "Compare the packet program with the kernel at every boundary of every prefix",
     verify_run},
};
} // namespace

std::span<const routectl_command> routectl_live_commands() { return ROWS; }
