// card_query.cpp - counts the calls of a query and keeps how the first failure ended.
//
// Always: a query is kept alive by each of its calls, so whoever asked may drop it before the answers come.
#include "card_query.h"

#include <utility>

void card_query_call(card_rpc &rpc, const std::shared_ptr<card_query> &query, const char *procedure,
                     const std::vector<card_rpc_arg> &args, std::function<std::string(const card_rpc_reply &)> take)
{
    query->waiting += 1;
    card_rpc_call(rpc, procedure, args, [query, procedure, take = std::move(take)](const card_rpc_reply &reply) {
        query->waiting -= 1;
        if (reply.ran()) {
            if (const std::string refused = take(reply); !refused.empty())
                query->refused = refused;
        } else if (query->failed == CARD_RPC_RAN) {
            query->failed = reply.end, query->procedure = procedure;
        }
    });
}
