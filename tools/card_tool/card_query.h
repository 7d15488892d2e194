// card_query.h - many calls that make one answer together, such as the listings of all contexts.
//
// The record of the answer is derived from card_query. The calls are queued at once and the record is filled inside
// later card_rpc_process or card_rpc_wait calls, so nothing waits.
// Always: the first call that did not run is kept; what other calls brought stays in the record.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "card_rpc.h"
#include "route_ids.h"

struct card_query {
    unsigned waiting = 0;               // calls that have not ended
    card_rpc_end failed = CARD_RPC_RAN; // how the first call ended that did not run
    const char *procedure = "";         // of that call
    std::string refused;                // what the route manager, whose procedure ran, did not do; empty: nothing
    bool is_over() const { return waiting == 0; }
    bool is_good() const { return waiting == 0 && failed == CARD_RPC_RAN && refused.empty(); }
};

struct context_range {
    unsigned first = 0, last = ROUTE_CONTEXTS - 1;
};

// Queues a call. `take` gets the reply of a call that ran and returns what `refused` is to say; it may queue further
// calls.
void card_query_call(card_rpc &rpc, const std::shared_ptr<card_query> &query, const char *procedure,
                     const std::vector<card_rpc_arg> &args, std::function<std::string(const card_rpc_reply &)> take);
