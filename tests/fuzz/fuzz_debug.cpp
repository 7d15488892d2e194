// fuzz_debug.cpp - requests of the debug service, and the lines that come while its gates stand as they say.
//
// An input is a sequence of requests: a byte with the payload's length and who asks, then the payload. An answer is
// held against its form: whole lines, no NUL, never longer than a message. After each request something is logged.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include <sys/socket.h>

#include "fuzz_card.h"
#include "mts.h"
#include "route_ids.h"
#include "route_log.h"
#include "sdwrap.h"

namespace
{
constexpr std::uint32_t MAGIC = 0x4D545331;
constexpr std::size_t MAX_REQUESTS = 64;

void take_answers(int queue)
{
    std::uint8_t answer[2048];
    ssize_t got = 0;
    while ((got = recv(queue, answer, sizeof answer, MSG_DONTWAIT)) >= 0) {
        if (got < 16 || got > 16 + static_cast<ssize_t>(MTS_MAX_PAYLOAD))
            fuzz_fail("an answer of another length");
        if (got > 16 && (answer[got - 1] != '\n' || std::memchr(answer + 16, 0, static_cast<std::size_t>(got - 16))))
            fuzz_fail("an answer that is not whole lines");
    }
}

void check_gates()
{
    for (unsigned i = 0; i < SDWRAP_MAX_CATEGORIES; ++i) {
        if (sdwrap_gates.history[i] > 1 || (i >= ROUTE_DBG_COUNT && sdwrap_gates.history[i] != 1))
            fuzz_fail("a history gate that nobody has");
        for (const std::uint8_t open : sdwrap_gates.debug[i])
            if (open > 1 || (i >= ROUTE_DBG_COUNT && open != 0))
                fuzz_fail("a debug gate that nobody has");
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_card_boot();
    static const int queue = fuzz_queue();
    fuzz_input input{{data, size}};
    for (std::size_t n = 0; n < MAX_REQUESTS && !input.at_end(); ++n) {
        const std::uint8_t head = input.byte();
        const std::uint32_t sap = (head & 0x80) != 0 ? 600u : (head & 0x40) != 0 ? 0u : 77u;
        std::vector<std::uint8_t> datagram;
        for (const std::uint32_t word : {MAGIC, MTS_OPC_DEBUG_REQUEST, 0u, sap})
            fuzz_put32(datagram, word);
        const std::span<const std::uint8_t> payload = input.run(head & 0x3F);
        datagram.insert(datagram.end(), payload.begin(), payload.end());
        fuzz_send_message(queue, datagram.data(), datagram.size());
        fuzz_card_serve();
        take_answers(queue);
        check_gates();
        const std::uint32_t category = payload.size() >= 8 ? 100u + payload[7] % 16 : 100u;
        route_log(category, payload.empty() ? 0u : payload.back(), "\nline %s of %u\n\n", "one", 5u);
    }
    fuzz_card_check_all();
    fuzz_card_restore();
    return 0;
}
