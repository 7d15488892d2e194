// live_ask.h - asks cardlive for what it knows: documents, and the comparison of the card with the kernel.
//
// Each answers what it means for the user when cardlive does not answer; else an answer with status 0.
// Elsewhere: the documents' fields (docs/interface.md).
#pragma once

#include <cstdint>
#include <vector>

#include "routectl_commands.h"

// ref: null, or a by-reference argument's value afterwards.
routectl_answer live_ask(const routectl_call &call, const char *procedure, const std::vector<card_rpc_arg> &args,
                         nlohmann::ordered_json *document, std::uint32_t *ref = nullptr);

struct live_compared {
    std::uint64_t looked_at = 0, forwarded = 0; // addresses
    nlohmann::ordered_json differences = nlohmann::ordered_json::array();
};
// Every boundary of every prefix of a context, or of all.
routectl_answer live_compare(const routectl_call &call, const routectl_value *ctx, live_compared *compared);
