// fuzz_reply.cpp - replies of other processes to the calls that this process makes.
//
// The first byte says whether the call's transaction is written into the reply, the rest is the reply. A reply that is
// taken must be one by its form; for any other the caller's variables stay as they were.
#include <cstdint>

#include "fuzz_card.h"
#include "mtrack.h"
#include "rpc_record.h"
#include "tnrpc.h"

namespace
{
struct results {
    std::uint32_t half = 0xAAAA5555, word = 0x12345678;
    tnrpc_block block = {7, nullptr};
};

bool untouched(const results &r)
{
    return r.half == 0xAAAA5555 && r.word == 0x12345678 && r.block.length == 7 && r.block.data == nullptr;
}

// Whether the reply is 16 bytes of a call that ran, and a value each of 2 bytes, 4 bytes and any length.
bool is_reply(std::span<const std::uint8_t> reply)
{
    if (reply.size() < TNRPC_REPLY_HEAD || tnrpc_get(reply.data(), 4) != TNRPC_REPLY_MAGIC ||
        tnrpc_get(reply.data() + 8, 4) != TNRPC_RAN)
        return false;
    tnrpc_rest rest{reply.data() + TNRPC_REPLY_HEAD, reply.size() - TNRPC_REPLY_HEAD};
    tnrpc_value half{}, word{}, block{};
    return tnrpc_take_value(rest, half) == 0 && tnrpc_take_value(rest, word) == 0 &&
           tnrpc_take_value(rest, block) == 0 && rest.length == 0 && half.type == RPC_ARG_REF && half.length == 2 &&
           word.type == RPC_ARG_REF && word.length == 4 && block.type == RPC_ARG_BLOCK;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_card_boot();
    if (size == 0)
        return 0;
    fuzz_peer.answer = fuzz_answer::raw;
    fuzz_peer.raw.assign(data + 1, data + size);
    fuzz_peer.own_transaction = (data[0] & 1) != 0;
    results r;
    const std::uint32_t result = tnrpc_call(FUZZ_PEER_PROCEDURE, 4, RPC_ARG_U16, 5u, RPC_ARG_REF, &r.half, 2u,
                                            RPC_ARG_REF, &r.word, 4u, RPC_ARG_BLOCK, &r.block, 7u);
    if (!is_reply(fuzz_peer.raw) && (result != TNRPC_FAILED || !untouched(r)))
        fuzz_fail("took what is no reply");
    if (!untouched(r)) {
        if ((r.half & 0xFFFF0000) != 0xAAAA0000)
            fuzz_fail("a value of two bytes changed the other two");
        mtrack_free(r.block.data.get());
    }
    fuzz_card_check_all();
    fuzz_card_restore();
    return 0;
}
