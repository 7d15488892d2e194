// route_commands.cpp - what the route manager itself is asked: routes, hosts, NAT pools, advertisements.
//
// A listing is read page by page while routes may change: what changes meanwhile may show twice or not at all.
// Always: a change is one remote call, so that a batch can have many outstanding.
// Elsewhere: why a change was refused (refusal.cpp), the words (grammar.cpp), how it is printed (output.cpp).
#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "card_tool/address_text.h"
#include "card_view/card_summary.h"
#include "card_view/route_record.h"
#include "route_entry.h"
#include "route_ids.h"
#include "routectl_commands.h"
#include "supervisor_advert.h"

namespace
{
using json = nlohmann::ordered_json;
constexpr std::uint32_t DEFAULT_METRIC = 1;
constexpr std::uint32_t HOST_LENGTH = 32;

std::uint32_t context_of(const routectl_call &call) { return routectl_number(call, "ctx", 0); }

json flag_names(std::uint32_t flags)
{
    constexpr const char *NAMES[] = {"arp-host",  "arp-installed", "gateway", "in-mtrie",   "interface",
                                     "connected", "ecmp",          "nat",     "mcast-drop", "nat-in-mtrie"};
    json names = json::array();
    for (unsigned i = 0; i < std::size(NAMES); ++i)
        if ((flags >> i & 1) != 0)
            names.push_back(NAMES[i]);
    return names;
}

json record_json(const route_record &r, std::uint32_t ctx)
{
    return {{"ctx", ctx},
            {"prefix", prefix_text(r.prefix, r.length)},
            {"kind", route_kind_name(route_kind_of(r.flags))},
            {"nexthop", r.nexthop == 0 ? json(nullptr) : json(address_text(r.nexthop))},
            {"ifid", r.ifid},
            {"encap", r.encap},
            {"route_id", r.route_id},
            {"flags", flag_names(r.flags)}};
}

// Which records of a listing are wanted.
struct route_wanted {
    const routectl_value *prefix; // null: all
    bool operator()(const route_record &r) const
    {
        if (prefix == nullptr)
            return true;
        if (prefix->text == "default")
            return r.length == 0;
        return r.length >= address_mask_length(prefix->mask) && (r.prefix & prefix->mask) == prefix->number;
    }
};

// The contexts that the words ask for.
context_range contexts_of(const routectl_call &call)
{
    if (routectl_given(call, "all") != nullptr)
        return {};
    return {context_of(call), context_of(call)};
}

// The routes, by context, prefix and length; the paths of a set stay in their order.
routectl_answer list_routes(const routectl_call &call, const char *procedure)
{
    const context_range range = contexts_of(call);
    const auto listing = route_listing_ask(routectl_route_manager(call), procedure, range);
    routectl_answer answer = routectl_query_wait(call, *listing);
    if (answer.status != ROUTECTL_DONE)
        return answer;
    answer.records_key = "routes";
    answer.columns = {{"ctx", "CTX"},        {"prefix", "PREFIX"}, {"kind", "KIND"},  {"nexthop", "NEXT HOP"},
                      {"ifid", "INTERFACE"}, {"encap", "ENCAP"},   {"flags", "FLAGS"}};
    const route_wanted wanted{routectl_given(call, "prefix")};
    for (unsigned ctx = range.first; ctx <= range.last; ++ctx) {
        std::vector<route_record> &routes = listing->contexts[ctx];
        std::stable_sort(routes.begin(), routes.end(), [](const route_record &a, const route_record &b) {
            return std::pair(a.prefix, a.length) < std::pair(b.prefix, b.length);
        });
        for (const route_record &route : routes)
            if (wanted(route))
                answer.records.push_back(record_json(route, ctx));
    }
    return answer;
}

routectl_answer route_show(const routectl_call &call) { return list_routes(call, "show_rib_print"); }
routectl_answer fib_show(const routectl_call &call) { return list_routes(call, "show_fib_print"); }

json summary_json(const context_summary &summary, std::uint32_t ctx)
{
    return {{"ctx", ctx},
            {"static", summary.statics},
            {"connected_nat", summary.connected_nat},
            {"in_fib", summary.in_fib},
            {"nodes", summary.nodes},
            {"leaves", summary.leaves},
            {"ecmp", summary.blocks}};
}

routectl_answer route_summary(const routectl_call &call)
{
    const context_range range = contexts_of(call);
    const auto summary = card_summary_ask(routectl_route_manager(call), range);
    routectl_answer answer = routectl_query_wait(call, *summary);
    if (answer.status != ROUTECTL_DONE)
        return answer;
    answer.records_key = "contexts";
    answer.columns = {{"ctx", "CTX"},         {"static", "STATIC"}, {"connected_nat", "CONNECTED+NAT"},
                      {"in_fib", "IN FIB"},   {"nodes", "NODES"},   {"leaves", "LEAVES"},
                      {"ecmp", "ECMP BLOCKS"}};
    for (unsigned ctx = range.first; ctx <= range.last; ++ctx)
        answer.records.push_back(summary_json(summary->contexts[ctx], ctx));
    return answer;
}

routectl_answer route_get(const routectl_call &call)
{
    const routectl_value &address = *routectl_given(call, "addr");
    const card_rpc_reply reply =
        routectl_ask(call, "slowpath_route_lookup", {rpc_u16(context_of(call)), rpc_u32(address.number), rpc_ref32(0)});
    if (!reply.ran())
        return routectl_not_run(reply.end, "slowpath_route_lookup");
    if (reply.result != 0)
        return routectl_error(ROUTECTL_REFUSED,
                              fmt::format("refused: no route to {} in context {}", address.text, context_of(call)));
    routectl_answer answer;
    answer.facts = {{"ctx", context_of(call)}, {"address", address.text}, {"nexthop", address_text(reply.refs[0])}};
    return answer;
}

routectl_answer fib_get(const routectl_call &call)
{
    const routectl_value &prefix = *routectl_given(call, "prefix");
    const card_rpc_reply reply =
        routectl_ask(call, "mtrie_lookup_exact_stub",
                     {rpc_u32(context_of(call)), rpc_u32(prefix.number), rpc_u32(prefix.mask), rpc_ref32(0)});
    const std::string name = prefix_text(prefix.number, address_mask_length(prefix.mask));
    if (!reply.ran())
        return routectl_not_run(reply.end, "mtrie_lookup_exact_stub");
    if (reply.result != 0)
        return routectl_error(ROUTECTL_REFUSED, fmt::format("refused: the trie of context {} has no leaf for {}",
                                                            context_of(call), name));
    routectl_answer answer;
    answer.facts = {{"ctx", context_of(call)}, {"prefix", name}, {"ifid", reply.refs[0]}};
    return answer;
}

routectl_answer route_full(const routectl_call &call)
{
    const routectl_value &prefix = *routectl_given(call, "prefix");
    const std::uint32_t ctx = context_of(call);
    const card_rpc_reply reply = routectl_ask(
        call, "rib_max_ecmp_route",
        {rpc_u16(ctx), rpc_u32(routectl_number(call, "id", ctx)), rpc_u32(prefix.number), rpc_u32(prefix.mask)});
    if (!reply.ran())
        return routectl_not_run(reply.end, "rib_max_ecmp_route");
    routectl_answer answer;
    answer.facts = {{"ctx", ctx},
                    {"prefix", prefix_text(prefix.number, address_mask_length(prefix.mask))},
                    {"full", reply.result != 0}};
    return answer;
}

// A change that concerns the addresses from `address` to `last`.
routectl_change change_of(const routectl_call &call, const char *procedure, std::vector<card_rpc_arg> args,
                          std::uint32_t address, std::uint32_t last)
{
    routectl_change change;
    change.procedure = procedure;
    change.args = std::move(args);
    change.ctx = context_of(call);
    change.address = address;
    change.last = last;
    return change;
}

routectl_change route_change(const routectl_call &call, const char *procedure)
{
    const routectl_value &prefix = *routectl_given(call, "prefix");
    const std::uint32_t ctx = context_of(call);
    return change_of(call, procedure,
                     {rpc_u16(ctx), rpc_u32(routectl_number(call, "id", ctx)), rpc_u32(prefix.number),
                      rpc_u32(prefix.mask), rpc_u32(routectl_number(call, "via", 0))},
                     prefix.number, prefix.number);
}

routectl_change route_add(const routectl_call &call) { return route_change(call, "rib_add_route"); }
routectl_change route_del(const routectl_call &call) { return route_change(call, "rib_remove_route"); }

routectl_change arp_add(const routectl_call &call)
{
    const std::uint32_t address = routectl_number(call, "addr", 0);
    return change_of(call, "arp_prefix_mgr_add_route",
                     {rpc_u16(RIB_OBJ_ARP_HOST), rpc_u32(address), rpc_u32(HOST_LENGTH),
                      rpc_u16(routectl_number(call, "encap", 0)), rpc_u16(routectl_number(call, "if", 0)),
                      rpc_u32(context_of(call))},
                     address, address);
}

routectl_change arp_del(const routectl_call &call)
{
    const std::uint32_t address = routectl_number(call, "addr", 0);
    return change_of(call, "arp_prefix_mgr_remove_route",
                     {rpc_u16(RIB_OBJ_ARP_HOST), rpc_u32(address), rpc_u32(HOST_LENGTH), rpc_u32(0),
                      rpc_u16(routectl_number(call, "encap", 0)), rpc_u16(routectl_number(call, "if", 0)),
                      rpc_u32(context_of(call))},
                     address, address);
}

routectl_change nat_change(const routectl_call &call, const char *procedure)
{
    const std::uint32_t address = routectl_number(call, "addr", 0), count = routectl_number(call, "count", 0);
    routectl_change change = change_of(call, procedure,
                                       {rpc_u16(context_of(call)), rpc_u16(routectl_number(call, "if", 0)),
                                        rpc_u32(address), rpc_u32(count), rpc_u16(routectl_number(call, "ixp", 0))},
                                       address, address + (count - 1));
    if (count == 0)
        change.error = "count 0: a pool has at least one address";
    else if (change.last < address)
        change.error = fmt::format("count {}: the pool would end behind 255.255.255.255; from {} on there are {}",
                                   count, address_text(address), 0xFFFFFFFF - address + 1);
    return change;
}

routectl_change nat_add(const routectl_call &call) { return nat_change(call, "rib_add_nat_pool"); }

routectl_change nat_del(const routectl_call &call)
{
    routectl_change change = nat_change(call, "rib_remove_nat_pool");
    change.answers_nothing = true;
    return change;
}

routectl_change advert_change(const routectl_call &call, std::uint32_t metric)
{
    const routectl_value &prefix = *routectl_given(call, "prefix");
    return change_of(call, "norvik_send_route_advert",
                     {rpc_u32(prefix.number), rpc_u32(prefix.mask), rpc_u32(routectl_number(call, "if", 0)),
                      rpc_u32(routectl_number(call, "via", 0)), rpc_u16(metric), rpc_u16(context_of(call))},
                     prefix.number, prefix.number);
}

routectl_change advertise(const routectl_call &call)
{
    return advert_change(call, routectl_number(call, "metric", DEFAULT_METRIC));
}
routectl_change withdraw(const routectl_call &call) { return advert_change(call, ROUTE_ADVERT_WITHDRAW); }

constexpr routectl_command ROWS[] = {
    {"route add", "PREFIX via NEXTHOP [ctx CTX] [id RID]", "Add a static route, or a further path to one", nullptr,
     route_add},
    {"route del", "PREFIX via NEXTHOP [ctx CTX] [id RID]", "Remove a static route, or one path of it", nullptr,
     route_del},
    {"route show", "[PREFIX] [ctx CTX] [all]", "List connected subnets and installed static and NAT routes",
     route_show},
    {"route get", "ADDR [ctx CTX]", "Ask for the next hop of an address, as the slow path does", route_get},
    {"route full", "PREFIX [ctx CTX] [id RID]", "Ask whether a route has all the paths it can have", route_full},
    {"route summary", "[ctx CTX] [all]", "Count routes, and what their tree holds of the pools", route_summary},
    {"fib show", "[PREFIX] [ctx CTX] [all]", "List all that is in the forwarding table", fib_show},
    {"fib get", "PREFIX [ctx CTX]", "Ask for the interface of exactly this prefix in the trie", fib_get},
    {"arp add", "ADDR if IFID encap ENCAP [ctx CTX]", "Announce a host, as the ARP service does", nullptr, arp_add},
    {"arp del", "ADDR [if IFID] [encap ENCAP] [ctx CTX]", "Take an announced host back", nullptr, arp_del},
    {"nat add", "ADDR count COUNT if IFID ixp IXP [ctx CTX]", "Add a NAT pool of COUNT addresses from ADDR on", nullptr,
     nat_add},
    {"nat del", "ADDR count COUNT ixp IXP [if IFID] [ctx CTX]", "Remove a NAT pool", nullptr, nat_del},
    {"advertise", "PREFIX via NEXTHOP if IFID [metric METRIC] [ctx CTX]", "Advertise a route to the supervisor",
     nullptr, advertise},
    {"withdraw", "PREFIX if IFID [via NEXTHOP] [ctx CTX]", "Withdraw an advertised route", nullptr, withdraw},
};
} // namespace

std::span<const routectl_command> routectl_route_commands() { return ROWS; }
