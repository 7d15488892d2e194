// supervisor.cpp - decodes, keeps and lists route advertisements.

#include "supervisor.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include <sys/socket.h>

#include "big_endian.h"
#include "card_dir.h"
#include "scenario.h"

namespace
{
constexpr std::size_t OPCODE_AT = 16, PREFIX_AT = 18, MASK_AT = 22, HOP_AT = 26, VLAN_AT = 30, METRIC_AT = 34;
constexpr std::uint8_t ADVERTISE = 0x22, WITHDRAW = 0x23;
constexpr std::uint8_t HEAD[] = {0, 0x12, 0x12, 4, 1, 0x4A, 0, 1, 0}; // bytes 2 to 10 of the protocol's header

std::string advert_text(const sup_advert &a)
{
    return prefix_text(a.prefix, a.mask) + " via " + dotted_text(a.hop) + " vlan " + std::to_string(a.vlan) +
           " metric " + std::to_string(a.metric) + " slot " + std::to_string(a.slot);
}
} // namespace

int sup_decode(const std::uint8_t *bytes, std::size_t length, sup_advert *out)
{
    if (length != SUP_ADVERT_BYTES || !std::equal(std::begin(HEAD), std::end(HEAD), bytes + 2) ||
        (bytes[OPCODE_AT] != ADVERTISE && bytes[OPCODE_AT] != WITHDRAW))
        return 1;
    *out = {bytes[OPCODE_AT] == WITHDRAW,
            bytes[0],
            bytes[1],
            get_be32(bytes + PREFIX_AT),
            get_be32(bytes + MASK_AT),
            get_be32(bytes + HOP_AT),
            get_be32(bytes + METRIC_AT),
            static_cast<std::int32_t>(get_be32(bytes + VLAN_AT))};
    return 0;
}

int sup_open(supervisor *sup)
{
    sup->socket = card_dir_bind(SOCK_DGRAM, "scp/supervisor");
    if (sup->socket < 0)
        std::fprintf(stderr, "cardsim: scp/supervisor: %s\n", std::strerror(errno));
    return sup->socket < 0 ? -1 : 0;
}

long sup_receive(const supervisor &sup, std::uint8_t *bytes, std::size_t room)
{
    // With MSG_TRUNC a message that is too long for the room is known by its own length.
    ssize_t got = 0;
    do
        got = recv(sup.socket, bytes, room, MSG_DONTWAIT | MSG_TRUNC);
    while (got < 0 && errno == EINTR);
    return got;
}

std::string sup_take(supervisor &sup, const std::uint8_t *bytes, std::size_t length)
{
    sup_advert advert;
    if (sup_decode(bytes, length, &advert) != 0) {
        ++sup.malformed;
        return "supervisor: a message of " + std::to_string(length) + " bytes that is no advertisement";
    }
    const auto key = std::make_pair(advert.prefix, advert.mask);
    const std::string number = " (" + std::to_string(++sup.acknowledged) + ")";
    if (advert.is_withdrawal) {
        const bool was_there = sup.advertised.erase(key) != 0;
        return "supervisor: acknowledged withdrawal of " + prefix_text(advert.prefix, advert.mask) +
               (was_there ? "" : ", which was not advertised") + number;
    }
    sup.advertised[key] = advert;
    return "supervisor: acknowledged " + advert_text(advert) + number;
}

std::string sup_text(const supervisor &sup)
{
    std::string text;
    for (const auto &[key, advert] : sup.advertised)
        text += advert_text(advert) + "\n";
    return text + "acknowledged " + std::to_string(sup.acknowledged) + ", malformed " + std::to_string(sup.malformed) +
           "\n";
}
