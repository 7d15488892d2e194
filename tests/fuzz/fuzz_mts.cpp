// fuzz_mts.cpp - datagrams for the message queue: whole ones, and event payloads behind a right header.
//
// An input is a sequence of datagrams, each with a byte that says how to send it (an opcode of the table with the bytes
// as payload, or the bytes alone) and a length byte in front.
#include <cstdint>
#include <vector>

#include <sys/socket.h>

#include "fuzz_card.h"
#include "mts.h"

namespace
{
constexpr std::uint32_t OPCODES[] = {
    MTS_OPC_NORVIK_IF_CREATED,    MTS_OPC_NORVIK_IF_DELETED,    MTS_OPC_NORVIK_IF_UP,      MTS_OPC_NORVIK_IF_DOWN,
    MTS_OPC_NORVIK_ENCAP_ACQUIRE, MTS_OPC_NORVIK_ENCAP_RELEASE, MTS_OPC_NORVIK_IF_CHANGED, MTS_OPC_DEBUG_REQUEST,
};
constexpr std::size_t OPCODE_COUNT = sizeof OPCODES / sizeof OPCODES[0], MAX_DATAGRAMS = 64;
constexpr std::uint32_t MAGIC = 0x4D545331;

// What the card is told comes here too: read, so that the queue never fills.
void drain(int queue)
{
    std::uint8_t datagram[2048];
    ssize_t got = 0;
    while ((got = recv(queue, datagram, sizeof datagram, MSG_DONTWAIT)) >= 0)
        if (got < 16 || got > 16 + static_cast<ssize_t>(MTS_MAX_PAYLOAD))
            fuzz_fail("a datagram of another form");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_card_boot();
    static const int queue = fuzz_queue();
    fuzz_input input{{data, size}};
    for (std::size_t n = 0; n < MAX_DATAGRAMS && !input.at_end(); ++n) {
        const std::uint8_t kind = input.byte(), length = input.byte();
        std::vector<std::uint8_t> datagram;
        if (kind % 16 < OPCODE_COUNT)
            for (const std::uint32_t word : {MAGIC, OPCODES[kind % 16], 0u, 600u})
                fuzz_put32(datagram, word);
        const std::span<const std::uint8_t> bytes = input.run(kind >= 0xF0 ? length * 8u : length);
        datagram.insert(datagram.end(), bytes.begin(), bytes.end());
        fuzz_send_message(queue, datagram.data(), datagram.size());
        fuzz_card_serve();
        drain(queue);
        fuzz_card_check();
    }
    fuzz_card_check_all();
    fuzz_card_restore();
    return 0;
}
