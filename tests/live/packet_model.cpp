// packet_model.cpp - the plain model of a live card's decision, and packets to ask it about.
#include "packet_model.h"

#include <algorithm>

#include "ixp_walk.h"

namespace harness
{
namespace
{
constexpr std::size_t ETH = 14, IP = 20;

std::uint32_t number(const frame_bytes &frame, std::size_t at, unsigned bytes)
{
    std::uint32_t value = 0;
    for (unsigned i = 0; i < bytes; ++i)
        value = value << 8 | frame[at + i];
    return value;
}
void put(frame_bytes &frame, std::size_t at, unsigned bytes, std::uint64_t value)
{
    for (unsigned i = 0; i < bytes; ++i)
        frame[at + i] = static_cast<std::uint8_t>(value >> 8 * (bytes - 1 - i));
}
std::uint64_t mac(const frame_bytes &frame, std::size_t at) { return live_mac(frame.data() + at); }
void put_mac(frame_bytes &frame, std::size_t at, std::uint64_t value)
{
    for (unsigned i = 0; i < 6; ++i)
        frame[at + i] = live_mac_byte(value, i);
}

// Ones' complement sum of the header's ten numbers.
std::uint32_t header_sum(const frame_bytes &frame)
{
    std::uint32_t sum = 0;
    for (std::size_t at = ETH; at < ETH + IP; at += 2)
        sum += number(frame, at, 2);
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return sum;
}

live_reason header_reason(const frame_bytes &frame)
{
    if (frame.size() < ETH + IP || frame[ETH] >> 4 != 4 || (frame[ETH] & 15) < 5)
        return LIVE_BROKEN;
    if ((frame[ETH] & 15) > 5)
        return LIVE_OPTIONS;
    const std::uint32_t bytes = number(frame, ETH + 2, 2);
    return bytes < IP || bytes > frame.size() - ETH || header_sum(frame) != 0xFFFF ? LIVE_BROKEN : LIVE_FORWARDED;
}

bool is_special(std::uint32_t address)
{
    const std::uint32_t first = address >> 24;
    return first == 0 || first == 127 || first >= 224;
}

std::uint32_t hash_of(const frame_bytes &frame)
{
    constexpr std::uint32_t WITH_PORTS[] = {6, 17, 33, 132, 136};
    const std::uint32_t protocol = frame[ETH + 9];
    const bool whole = (number(frame, ETH + 6, 2) & 0x3FFF) == 0;
    const bool has = whole && number(frame, ETH + 2, 2) >= IP + 4 &&
                     std::find(std::begin(WITH_PORTS), std::end(WITH_PORTS), protocol) != std::end(WITH_PORTS);
    return live_flow_hash(number(frame, ETH + 12, 4), number(frame, ETH + 16, 4), protocol,
                          has ? number(frame, ETH + IP, 4) : 0);
}

// Up to the search of the table.
live_reason admitted(const model_card &card, const model_port *in, const frame_bytes &frame)
{
    if (in == nullptr)
        return LIVE_UNBOUND;
    if (frame.size() < ETH || number(frame, 12, 2) != 0x0800)
        return LIVE_NOT_IPV4;
    if (mac(frame, 0) != in->mac)
        return LIVE_NOT_OURS;
    if (card.held.contains(in->ctx))
        return LIVE_HELD;
    if (const live_reason broken = header_reason(frame); broken != LIVE_FORWARDED)
        return broken;
    const std::uint32_t source = number(frame, ETH + 12, 4);
    const auto shares_bit = [source](std::uint32_t own) { return live_source_bit(own) == live_source_bit(source); };
    if (is_special(source) || std::any_of(card.own.begin(), card.own.end(), shares_bit))
        return LIVE_SOURCE;
    return is_special(number(frame, ETH + 16, 4)) ? LIVE_DESTINATION : LIVE_FORWARDED;
}

live_reason looked_up(const model_card &card, std::uint32_t tree, const frame_bytes &frame, model_decision &d)
{
    const std::uint32_t slot = ixp_walk(card.table, tree, number(frame, ETH + 16, 4), IXP_WALKS);
    if (slot == 0)
        return LIVE_NO_ROUTE;
    const std::uint32_t own = ixp_load(card.table, ixp_index(card.table, slot));
    if (own == 0)
        return LIVE_NO_ROUTE;
    if ((own & ADJ_IP_RESOLVE) != 0)
        return LIVE_RESOLVE;
    if ((own & ADJ_NAT) != 0)
        return LIVE_NAT;
    const ixp_choice choice = ixp_choose(card.table, slot, own, hash_of(frame));
    const ixp_hop hop = ixp_hop_of(choice.word, choice.path);
    d.path = choice.path;
    d.ifid = hop.ifid;
    d.encap = hop.encap;
    return LIVE_FORWARDED;
}

live_reason sent_on(const model_card &card, const frame_bytes &frame, const model_decision &d)
{
    if (d.encap >= 0x8000)
        return d.encap == 0x8001 ? LIVE_OWN : LIVE_SENT_UP;
    if (frame[ETH + 8] <= 1)
        return LIVE_TTL;
    if (!card.encaps.contains(d.encap))
        return LIVE_NO_ENCAP;
    const auto out = card.ports.find(d.ifid);
    if (out == card.ports.end() || !out->second.open)
        return LIVE_NO_PORT;
    if (number(frame, ETH + 2, 2) > out->second.mtu)
        return LIVE_TOO_LONG;
    if (d.ifid == d.in_port)
        return LIVE_SAME_PORT;
    return out->second.ifindex == 0 ? LIVE_NO_DEVICE : LIVE_FORWARDED;
}
} // namespace

model_decision model_judge(const model_card &card, std::uint32_t ifindex, const frame_bytes &frame)
{
    model_decision d{LIVE_FORWARDED, 0, 0, 0, 0, frame};
    const model_port *in = nullptr;
    for (const auto &[ifid, port] : card.ports)
        if (port.ifindex == ifindex && port.bound) {
            in = &port;
            d.in_port = ifid;
        }
    d.reason = admitted(card, in, frame);
    if (d.reason == LIVE_FORWARDED)
        d.reason = looked_up(card, in->ctx, frame, d);
    if (d.reason == LIVE_FORWARDED)
        d.reason = sent_on(card, frame, d);
    if (d.reason != LIVE_FORWARDED)
        return d;
    d.frame.resize(ETH + number(frame, ETH + 2, 2));
    put_mac(d.frame, 0, card.encaps.at(d.encap));
    put_mac(d.frame, 6, card.ports.at(d.ifid).mac);
    --d.frame[ETH + 8];
    packet_fix_checksum(d.frame);
    return d;
}

frame_bytes packet_of(const packet_form &form)
{
    const std::size_t bytes = IP + form.payload_bytes;
    frame_bytes frame(ETH + bytes + form.trailing_bytes);
    put_mac(frame, 0, form.to);
    put_mac(frame, 6, form.from);
    put(frame, 12, 2, 0x0800);
    frame[ETH] = 0x45;
    put(frame, ETH + 2, 2, bytes);
    put(frame, ETH + 4, 2, form.id);
    put(frame, ETH + 6, 2, form.fragment);
    frame[ETH + 8] = form.ttl;
    frame[ETH + 9] = form.protocol;
    put(frame, ETH + 12, 4, form.source);
    put(frame, ETH + 16, 4, form.destination);
    packet_fix_checksum(frame);
    if (form.payload_bytes >= 4)
        put(frame, ETH + IP, 4, std::uint32_t{form.source_port} << 16 | form.destination_port);
    if (form.payload_bytes >= 8 + 4) // behind the header of a UDP packet, whose checksum of 0 says that it has none
        put(frame, ETH + IP + 8, 4, form.tag);
    if (form.protocol == 17 && form.payload_bytes >= 8)
        put(frame, ETH + IP + 4, 2, form.payload_bytes);
    for (std::size_t at = ETH + bytes; at < frame.size(); ++at)
        frame[at] = 0xEE;
    return frame;
}

void packet_fix_checksum(frame_bytes &frame)
{
    put(frame, ETH + 10, 2, 0);
    put(frame, ETH + 10, 2, ~header_sum(frame) & 0xFFFF);
}

std::uint64_t mac_of(std::uint8_t last) { return 0x02 | std::uint64_t{last} << 40; }
} // namespace harness
