// live_adopt.cpp - asks the route manager for its routes, and writes them into the books.
//
// Static routes that wait for their gateway stand in no listing; the debug service names them.
#include "live_adopt.h"

#include <chrono>
#include <sstream>
#include <vector>

#include <poll.h>
#include <unistd.h>

#include "card_tool/address_text.h"
#include "card_tool/card_rpc.h"
#include "card_view/debug_view.h"
#include "card_view/route_record.h"
#include "debug_service.h"
#include "mts.h"
#include "route_ids.h"

namespace
{
kernel_prefix prefix_of(const address_prefix &read)
{
    return kernel_prefix_of(read.address, address_mask_length(read.mask));
}

// The answer to a request, waited for; empty when none comes in time.
std::string ask(int queue, const debug_request &request, unsigned timeout_ms)
{
    constexpr mts_recv_options OPTIONS = {};
    if (!debug_view_send(queue, request))
        return "";
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        pollfd waited = {queue, POLLIN, 0};
        if (left <= 0 || poll(&waited, 1, static_cast<int>(left)) == 0)
            return "";
        mts_message message;
        if (mts_recv(queue, &message, &OPTIONS) != 0)
            continue;
        const bool is_answer = message.opcode == MTS_OPC_DEBUG_ANSWER && message.source.sap == ROUTE_MGR_SAP;
        std::string text(reinterpret_cast<const char *>(message.payload), message.length);
        mts_drop(queue, &message);
        if (is_answer)
            return text;
    }
}

struct static_path {
    std::uint32_t ctx;
    kernel_prefix prefix;
    std::uint32_t gateway;
};

// The static routes of a context that stand in an answer. Returns the number to go on with, 0 at the end, -1 for an
// answer of another form.
long take_statics(const std::string &text, std::uint32_t ctx, std::vector<static_path> *paths)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string first, second;
        words >> first >> second;
        if (first == "end")
            return 0;
        if (first == "more")
            return static_cast<long>(number_parse(second, 0x7FFFFFFF).value_or(0));
        const address_prefix prefix = prefix_parse(first, "");
        const auto gateway = address_parse(second);
        if (prefix.error.empty() && gateway)
            paths->push_back({ctx, prefix_of(prefix), *gateway});
    }
    return -1;
}

// All static routes, waiting ones too. Returns 0, or 1 when an answer did not come.
int ask_statics(unsigned timeout_ms, std::vector<static_path> *paths)
{
    const int queue = debug_view_open();
    if (queue < 0)
        return 1;
    int result = 0;
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS && result == 0; ++ctx)
        for (long next = 0, first = 1; result == 0 && (next != 0 || first != 0); first = 0) {
            next = take_statics(ask(queue, {DEBUG_SHOW_ROUTES, 0, ctx, static_cast<std::uint32_t>(next)}, timeout_ms),
                                ctx, paths);
            result = next < 0 ? 1 : 0;
        }
    (void)close(queue);
    return result;
}

// Earlier calls have run when as many as can have been left behind were answered after them.
bool flush(card_rpc &rpc)
{
    unsigned answered = 0;
    for (unsigned i = 0; i < SYNC_FLUSH_CALLS; ++i)
        card_rpc_call(rpc, "rib_max_ecmp_route", {rpc_u16(0), rpc_u32(0), rpc_u32(0), rpc_u32(0)},
                      [&answered](const card_rpc_reply &reply) { answered += reply.ran() ? 1u : 0u; });
    card_rpc_wait(rpc, 1);
    return answered == SYNC_FLUSH_CALLS;
}

// The port of a connected subnet, with the address that is neither its first nor its last.
void adopt_port(live_sync &sync, std::uint32_t ctx, const std::vector<route_record> &records,
                const route_record &subnet)
{
    sync_port port = {ctx, 0, address_mask_of(subnet.length), true, true};
    const std::uint32_t last = subnet.prefix | ~port.mask;
    for (const route_record &record : records)
        if (route_kind_of(record.flags) == route_kind::interface && record.ifid == subnet.ifid && record.length == 32 &&
            record.prefix != subnet.prefix && record.prefix != last)
            port.address = record.prefix;
    sync_adopt_port(sync, subnet.ifid, port);
}
} // namespace

live_extra_routes live_extra_read(const std::string &text)
{
    live_extra_routes routes;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string route, add, prefix, via, gateway, word, value;
        words >> route >> add >> prefix >> via >> gateway;
        std::uint32_t ctx = 0;
        while (words >> word >> value)
            if (word == "ctx")
                ctx = number_parse(value, ROUTE_CONTEXTS - 1).value_or(0);
        const address_prefix read = prefix_parse(prefix, "");
        const auto hop = address_parse(gateway);
        if (route == "route" && add == "add" && via == "via" && read.error.empty() && hop)
            routes.emplace(ctx, prefix_of(read), *hop);
    }
    return routes;
}

int live_adopt(live_sync &sync, const live_maps &maps, const live_extra_routes &extra, bool is_searched,
               unsigned timeout_ms, std::string *why)
{
    const card_rpc_ptr rpc = card_rpc_open("rib_add_route", timeout_ms);
    std::vector<static_path> statics;
    *why = "the route manager does not answer";
    if (!flush(*rpc) || ask_statics(timeout_ms, &statics) != 0)
        return 1;
    const std::shared_ptr<route_listing> listing = route_listing_ask(*rpc, "show_fib_print");
    card_rpc_wait(*rpc, 1);
    if (!listing->is_good())
        return 1;
    sync_adopt(sync, is_searched);
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        for (const route_record &record : listing->contexts[ctx]) {
            if (route_kind_of(record.flags) == route_kind::host)
                sync_adopt_host(sync, ctx, record.prefix, {record.ifid, record.encap, true, 0},
                                record.encap < LIVE_ENCAPS ? live_maps_encap(maps, record.encap) & LIVE_MAC_MASK : 0);
            else if (route_kind_of(record.flags) == route_kind::connected)
                adopt_port(sync, ctx, listing->contexts[ctx], record);
        }
    for (const static_path &path : statics)
        if (extra.count({path.ctx, path.prefix, path.gateway}) == 0)
            sync_adopt_route(sync, path.ctx, path.prefix, path.gateway);
    return 0;
}
