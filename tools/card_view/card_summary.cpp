// card_summary.cpp - asks for the summaries of contexts, decodes their blocks and adds them up.
//
// Elsewhere: the form of the blocks (route_listing.h), the counting of the calls (card_tool/card_query.h).
#include "card_summary.h"

#include "big_endian.h"
#include "route_listing.h"

bool context_summary_rib(const std::vector<std::uint8_t> &block, context_summary &to)
{
    if (block.size() != RIB_SUMMARY_BYTES)
        return false;
    to.connected_nat = get_be32(&block[RIB_SUMMARY_AT_CONNECTED]);
    to.statics = get_be32(&block[RIB_SUMMARY_AT_STATICS]);
    return true;
}

bool context_summary_fib(const std::vector<std::uint8_t> &block, context_summary &to)
{
    if (block.size() != FIB_SUMMARY_BYTES)
        return false;
    to.nodes = static_cast<std::int32_t>(get_be32(&block[FIB_SUMMARY_AT_NODES]));
    to.leaves = static_cast<std::int32_t>(get_be32(&block[FIB_SUMMARY_AT_LEAVES]));
    to.blocks = static_cast<std::int32_t>(get_be32(&block[FIB_SUMMARY_AT_BLOCKS]));
    to.in_fib = get_be32(&block[FIB_SUMMARY_AT_ROUTES]);
    return true;
}

std::shared_ptr<card_summary> card_summary_ask(card_rpc &rpc, context_range range)
{
    static constexpr struct {
        const char *procedure;
        bool (*decode)(const std::vector<std::uint8_t> &block, context_summary &to);
    } CALLS[] = {{"show_rib_summary", context_summary_rib}, {"show_fib_summary", context_summary_fib}};
    auto summary = std::make_shared<card_summary>();
    for (unsigned ctx = range.first; ctx <= range.last; ++ctx)
        for (const auto &call : CALLS)
            card_query_call(rpc, summary, call.procedure, {rpc_u16(ctx), rpc_block()},
                            [summary, ctx, &call](const card_rpc_reply &reply) {
                                const bool is_there =
                                    reply.result == 0 && call.decode(reply.blocks[0], summary->contexts[ctx]);
                                return is_there ? "" : "has no memory for a summary";
                            });
    return summary;
}

context_summary card_summary_total(const card_summary &summary)
{
    context_summary total{};
    for (const context_summary &c : summary.contexts) {
        total.connected_nat += c.connected_nat;
        total.statics += c.statics;
        total.in_fib += c.in_fib;
        total.nodes += c.nodes;
        total.leaves += c.leaves;
        total.blocks += c.blocks;
    }
    return total;
}
