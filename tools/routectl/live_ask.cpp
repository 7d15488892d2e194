// live_ask.cpp - calls of cardlive, and what their answers mean.
#include "live_ask.h"

namespace
{
using json = nlohmann::ordered_json;

constexpr std::uint32_t VERIFY_END = 0xFFFFFFFF; // the part behind the last one

// One context, part by part.
routectl_answer compare_context(const routectl_call &call, std::uint32_t ctx, live_compared *compared)
{
    for (std::uint32_t at = 0; at != VERIFY_END;) {
        json part;
        routectl_answer asked =
            live_ask(call, "cardlive_verify", {rpc_u32(ctx), rpc_ref32(at), rpc_block()}, &part, &at);
        if (asked.status != ROUTECTL_DONE)
            return asked;
        compared->looked_at += part.value("looked_at", 0u);
        compared->forwarded += part.value("forwarded", 0u);
        for (const json &difference : part["differences"])
            compared->differences.push_back(difference);
    }
    return {};
}
} // namespace

routectl_answer live_ask(const routectl_call &call, const char *procedure, const std::vector<card_rpc_arg> &args,
                         json *document, std::uint32_t *ref)
{
    const card_rpc_reply reply = card_rpc_call_wait(routectl_live(call), procedure, args);
    if (!reply.ran())
        return routectl_not_run(reply.end, procedure);
    *document = reply.blocks.empty() ? json() : json::parse(reply.blocks[0], nullptr, false);
    if (!document->is_object() || (ref != nullptr && reply.refs.empty()))
        return routectl_not_run(CARD_RPC_GARBLED, procedure);
    if (document->contains("error"))
        return routectl_error(ROUTECTL_REFUSED, "refused: " + document->value("error", ""));
    if (ref != nullptr)
        *ref = reply.refs[0];
    return {};
}

routectl_answer live_compare(const routectl_call &call, const routectl_value *ctx, live_compared *compared)
{
    json document;
    routectl_answer answer = live_ask(call, "cardlive_status", {rpc_block()}, &document);
    if (answer.status != ROUTECTL_DONE)
        return answer;
    for (const json &context : document["contexts"]) {
        const auto number = context.value("context", 0u);
        if (ctx != nullptr && ctx->number != number)
            continue;
        answer = compare_context(call, number, compared);
        if (answer.status != ROUTECTL_DONE)
            return answer;
    }
    return {};
}
