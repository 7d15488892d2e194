// route_record.cpp - decodes the records of a listing and turns the pages of all contexts.
//
// Each reply asks for the next page of its context, so the contexts are read side by side.
// Always: a page that brings no record and no new cursor ends the listing of its context, with the reason.
// Elsewhere: the form of records and cursor (route_listing.h).
#include "route_record.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

#include "big_endian.h"
#include "card_tool/address_text.h"

namespace
{
// A page without a record whose cursor is the one that was sent.
std::string stopped_at(unsigned ctx, const std::vector<std::uint32_t> &cursor)
{
    return fmt::format("does not go on with the listing of context {} at {}: it has no memory for a page, or a set of "
                       "more than {} paths stands there, which no page holds",
                       ctx, prefix_text(cursor[2], cursor[0]), ROUTE_PAGE_RECORDS);
}

// Asks for the page at the cursor, and from its reply on for the next one.
void ask_page(card_rpc &rpc, const std::shared_ptr<route_listing> &listing, const char *procedure, unsigned ctx,
              const std::vector<std::uint32_t> &cursor)
{
    const auto take = [&rpc, listing, procedure, ctx, cursor](const card_rpc_reply &reply) {
        const std::vector<std::uint8_t> &page = reply.blocks[0];
        if (reply.refs == cursor || page.size() != reply.result * ROUTE_RECORD_BYTES)
            return stopped_at(ctx, cursor);
        for (std::size_t at = 0; at < page.size(); at += ROUTE_RECORD_BYTES)
            listing->contexts[ctx].push_back(route_record_decode(&page[at]));
        if (reply.refs[2] != ROUTE_WALK_DONE)
            ask_page(rpc, listing, procedure, ctx, reply.refs);
        return std::string();
    };
    card_query_call(rpc, listing, procedure,
                    {rpc_u16(ctx), rpc_ref16(cursor[0]), rpc_ref16(cursor[1]), rpc_ref32(cursor[2]), rpc_block()},
                    take);
}
} // namespace

route_record route_record_decode(const std::uint8_t *from)
{
    return {get_be32(from + ROUTE_AT_PREFIX),   get_be32(from + ROUTE_AT_LEN),  get_be32(from + ROUTE_AT_NEXTHOP),
            get_be32(from + ROUTE_AT_ROUTE_ID), get_be16(from + ROUTE_AT_IFID), get_be16(from + ROUTE_AT_FLAGS),
            get_be32(from + ROUTE_AT_ENCAP)};
}

route_kind route_kind_of(std::uint32_t flags)
{
    constexpr std::uint32_t FLAGS[] = {RIB_F_MCAST_DROP, RIB_F_NAT,       RIB_F_GATEWAY,
                                       RIB_F_ARP_HOST,   RIB_F_CONNECTED, RIB_F_INTERFACE}; // in the order of the kinds
    const auto found = std::find_if(std::begin(FLAGS), std::end(FLAGS), [=](auto flag) { return (flags & flag) != 0; });
    return static_cast<route_kind>(found - std::begin(FLAGS));
}

const char *route_kind_name(route_kind kind)
{
    constexpr const char *NAMES[] = {"drop", "nat", "static", "host", "connected", "interface", "other"};
    return NAMES[static_cast<std::size_t>(kind)];
}

std::shared_ptr<route_listing> route_listing_ask(card_rpc &rpc, const char *procedure, context_range range)
{
    auto listing = std::make_shared<route_listing>();
    for (unsigned ctx = range.first; ctx <= range.last; ++ctx)
        ask_page(rpc, listing, procedure, ctx, {0, 0, 0});
    return listing;
}
