// slow_path.cpp - the slow path: encapsulations, and the interface through which an address is reached.
//
// Always: an encapsulation belongs to one neighbour. Its MAC address is valid unless it is all zeros or a group's.

#include "big_endian.h"
#include "card_model.h"
#include "mts.h"

namespace
{
constexpr std::uint64_t MAC_GROUP = 0x010000000000;

void send_event(card_model &m, std::uint32_t opcode, std::uint32_t ifid, std::uint32_t encap)
{
    std::vector<std::uint8_t> payload(8);
    put_be32(payload.data(), ifid);
    put_be32(payload.data() + 4, encap);
    m.out.event(opcode, payload);
}

std::uint32_t free_encap(card_model &m)
{
    for (std::uint32_t tries = CARD_FIRST_ENCAP; tries <= CARD_LAST_ENCAP; ++tries) {
        const std::uint32_t encap = m.next_encap;
        m.next_encap = encap == CARD_LAST_ENCAP ? CARD_FIRST_ENCAP : encap + 1;
        if (m.encaps.count(encap) == 0)
            return encap;
    }
    return 0;
}
} // namespace

std::uint32_t card_encap_take(card_model &m, std::uint32_t encap, const card_encap &neighbour)
{
    if (encap == 0)
        encap = free_encap(m);
    if (encap == 0 || !m.encaps.emplace(encap, neighbour).second)
        return 0;
    send_event(m, MTS_OPC_NORVIK_ENCAP_ACQUIRE, neighbour.ifid, encap);
    return encap;
}

void card_encap_give(card_model &m, std::uint32_t encap)
{
    const auto found = m.encaps.find(encap);
    if (found == m.encaps.end())
        return;
    send_event(m, MTS_OPC_NORVIK_ENCAP_RELEASE, found->second.ifid, encap);
    m.encaps.erase(found);
}

bool card_encap_is_valid(const card_model &m, std::uint32_t encap)
{
    const auto found = m.encaps.find(encap);
    return found != m.encaps.end() && found->second.mac != 0 && (found->second.mac & MAC_GROUP) == 0;
}

std::uint32_t card_interface_of(const card_model &m, std::uint32_t ctx, std::uint32_t address)
{
    std::uint32_t best = 0, best_mask = 0;
    for (const auto &[ifid, i] : m.interfaces) {
        const bool is_in = i.is_up && i.ctx == ctx && i.address != 0 && ((address ^ i.address) & i.mask) == 0;
        if (is_in && (best == 0 || i.mask > best_mask)) {
            best = ifid;
            best_mask = i.mask;
        }
    }
    return best;
}

const char *card_result_text(std::uint32_t result)
{
    static constexpr const char *TEXTS[] = {"done", "unknown interface", "exists already", "bad argument", "not there"};
    return result < std::size(TEXTS) ? TEXTS[result] : "no such result";
}
