// supervisor.cpp - decodes, keeps and lists route advertisements.
//
// Always: a message that is not an advertisement in every fixed byte is counted and changes nothing.
// Elsewhere: the form of the message (supervisor_advert.h).

#include "supervisor.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>

#include "big_endian.h"
#include "card_dir.h"
#include "card_files.h"
#include "card_tool/address_text.h"

namespace
{
std::string advert_text(const sup_advert &a)
{
    return fmt::format("{} via {} vlan {} metric {} slot {}", prefix_text(a.prefix, address_mask_length(a.mask)),
                       address_text(a.hop), a.vlan, a.metric, a.slot);
}
} // namespace

int sup_decode(const std::uint8_t *bytes, std::size_t length, sup_advert *out)
{
    if (length != ADVERT_BYTES ||
        !std::equal(std::begin(ADVERT_HEADER), std::end(ADVERT_HEADER), bytes + ADVERT_AT_HEADER) ||
        (bytes[ADVERT_AT_OPCODE] != ADVERT_ADVERTISE && bytes[ADVERT_AT_OPCODE] != ADVERT_WITHDRAW))
        return 1;
    *out = {bytes[ADVERT_AT_OPCODE] == ADVERT_WITHDRAW,
            bytes[ADVERT_AT_SLOT],
            bytes[ADVERT_AT_SUPERVISOR],
            get_be32(bytes + ADVERT_AT_PREFIX),
            get_be32(bytes + ADVERT_AT_MASK),
            get_be32(bytes + ADVERT_AT_NEXT_HOP),
            get_be32(bytes + ADVERT_AT_METRIC),
            static_cast<std::int32_t>(get_be32(bytes + ADVERT_AT_VLAN))};
    return 0;
}

int sup_open(supervisor *sup)
{
    sup->socket = card_dir_bind(SOCK_DGRAM, SUPERVISOR_SOCKET);
    if (sup->socket < 0)
        card_dir_say_not_bound(SUPERVISOR_SOCKET);
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
        return fmt::format("supervisor: ignored a message of {} bytes: not an advertisement", length);
    }
    const auto key = std::make_pair(advert.prefix, advert.mask);
    ++sup.acknowledged;
    if (advert.is_withdrawal) {
        const bool was_there = sup.advertised.erase(key) != 0;
        return fmt::format("supervisor: acknowledged withdrawal of {}{} ({})",
                           prefix_text(advert.prefix, address_mask_length(advert.mask)),
                           was_there ? "" : ", which was not advertised", sup.acknowledged);
    }
    sup.advertised[key] = advert;
    return fmt::format("supervisor: acknowledged {} ({})", advert_text(advert), sup.acknowledged);
}

std::string sup_listing(const supervisor &sup)
{
    nlohmann::ordered_json adverts = nlohmann::ordered_json::array();
    for (const auto &[key, a] : sup.advertised)
        adverts.push_back({{"prefix", prefix_text(a.prefix, address_mask_length(a.mask))},
                           {"nexthop", address_text(a.hop)},
                           {"vlan", a.vlan},
                           {"metric", a.metric},
                           {"slot", a.slot}});
    return nlohmann::ordered_json{
        {"acknowledged", sup.acknowledged}, {"malformed", sup.malformed}, {"advertisements", adverts}}
        .dump();
}
