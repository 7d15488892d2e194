// fuzz_rpc.cpp - records of callers: each goes through the socket, the decoding and the procedure that it names.
//
// An input is a sequence of records, each with its length (16 bits) in front. Every reply is held against the form that
// callers rely on: one a call, in order, with the call's transaction, 16 bytes when the procedure did not run.
#include <cstdint>

#include <sys/socket.h>
#include <unistd.h>

#include "fuzz_card.h"
#include "rpc_record.h"

namespace
{
constexpr std::size_t LONGEST = TNRPC_CALL_BYTES + 64, MAX_RECORDS = 32;
int connection = -1;

bool is_call(std::span<const std::uint8_t> record)
{
    return record.size() >= TNRPC_CALL_HEAD && record.size() <= TNRPC_CALL_BYTES &&
           tnrpc_get(record.data(), 4) == TNRPC_CALL_MAGIC;
}

void end_connection()
{
    close(connection);
    connection = -1;
    fuzz_card_serve();
}

void take_reply(std::span<const std::uint8_t> record)
{
    static std::uint8_t reply[1 << 20];
    const ssize_t got = recv(connection, reply, sizeof reply, MSG_DONTWAIT);
    if (!is_call(record)) {
        if (got != 0)
            fuzz_fail("a record that is no call did not end its connection");
        end_connection();
        return;
    }
    if (got < static_cast<ssize_t>(TNRPC_REPLY_HEAD))
        fuzz_fail("a call has no reply");
    if (tnrpc_get(reply, 4) != TNRPC_REPLY_MAGIC || tnrpc_get(reply + 4, 4) != tnrpc_get(record.data() + 4, 4))
        fuzz_fail("a reply of another form");
    const std::uint32_t status = tnrpc_get(reply + 8, 4);
    if (status > TNRPC_OUT_OF_RANGE || (status != TNRPC_RAN && (got != 16 || tnrpc_get(reply + 12, 4) != 0)))
        fuzz_fail("a refusal of another form");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_card_boot();
    fuzz_input input{{data, size}};
    for (std::size_t n = 0; n < MAX_RECORDS && !input.at_end(); ++n) {
        const std::span<const std::uint8_t> record = input.run(1 + input.half() % LONGEST);
        if (record.empty())
            break;
        if (connection < 0)
            connection = fuzz_connect();
        if (send(connection, record.data(), record.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
            fuzz_fail("send");
        fuzz_card_serve();
        take_reply(record);
        fuzz_card_check();
    }
    fuzz_card_check_all();
    fuzz_card_restore();
    return 0;
}
