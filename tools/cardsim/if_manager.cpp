// if_manager.cpp - the interface manager: keeps the interfaces, writes their records and sends their events.
//
// The events are those of the card, also where others would be expected: an interface that is deleted while it is up
// gets no IF_DOWN, and an address that changes while it is down is announced with the next IF_UP.
// Always: the record is written before its event is sent, so a receiver of the event reads the new record.
// Elsewhere: the form of the events (interface_events.h), the writing of records (if_db.cpp).

#include <algorithm>

#include <fmt/format.h>

#include "big_endian.h"
#include "card_model.h"
#include "card_tool/address_text.h"
#include "interface_events.h"
#include "mts.h"
#include "route_ids.h"

namespace
{
if_db_record record_of(const card_interface &i)
{
    const std::uint32_t flags = IFDB_EXISTS | IFDB_HAS_CONTEXT | (i.is_up ? IFDB_UP : 0) |
                                (i.address != 0 ? IFDB_HAS_ADDRESS : 0) | (i.vlan ? IFDB_HAS_VLAN : 0);
    return {flags, i.mode, i.bvi, i.address, i.mask, i.ctx, i.vlan.value_or(0)};
}

bool is_address_pair(std::uint32_t address, std::uint32_t mask)
{
    return address_is_mask(mask) && (address != 0 || mask == 0);
}

void send_state(card_model &m, std::uint32_t opcode, std::uint32_t ifid)
{
    const card_interface &i = m.interfaces.at(ifid);
    m.out.event(opcode, card_if_payload(ifid, i));
    m.out.say(fmt::format("interface {}: {}", ifid, mts_opc_name_get(opcode)));
}
} // namespace

std::vector<std::uint8_t> card_if_payload(std::uint32_t ifid, const card_interface &i)
{
    std::vector<std::uint8_t> payload(IFEV_BYTES);
    put_be16(payload.data() + IFEV_AT_IFID, ifid);
    put_be16(payload.data() + IFEV_AT_CTX, i.ctx);
    put_be32(payload.data() + IFEV_AT_ADDR, i.address);
    put_be32(payload.data() + IFEV_AT_MASK, i.mask);
    put_be32(payload.data() + IFEV_AT_RMODE, i.mode);
    return payload;
}

std::vector<std::uint8_t> card_if_changed_payload(std::uint32_t ifid, std::uint32_t address, std::uint32_t mask)
{
    std::vector<std::uint8_t> payload(IFEV_CHANGED_BYTES);
    put_be32(payload.data() + IFEV_CHANGED_AT_IFID, ifid);
    put_be32(payload.data() + IFEV_CHANGED_AT_CHANGE, IFEV_CHANGED_ADDRESS);
    put_be32(payload.data() + IFEV_CHANGED_AT_OLD_ADDR, address);
    put_be32(payload.data() + IFEV_CHANGED_AT_OLD_MASK, mask);
    return payload;
}

std::uint32_t card_if_create(card_model &m, std::uint32_t ifid, const card_interface &interface)
{
    if (ifid == 0 || ifid >= IFDB_RECORDS || interface.ctx >= ROUTE_CONTEXTS ||
        !is_address_pair(interface.address, interface.mask))
        return CARD_BAD_ARGUMENT;
    if (m.interfaces.count(ifid) != 0)
        return CARD_EXISTS;
    m.interfaces[ifid] = interface;
    m.out.record(ifid, record_of(interface));
    send_state(m, MTS_OPC_NORVIK_IF_CREATED, ifid);
    return CARD_DONE;
}

std::uint32_t card_if_state(card_model &m, std::uint32_t ifid, bool up)
{
    const auto found = m.interfaces.find(ifid);
    if (found == m.interfaces.end())
        return CARD_NO_INTERFACE;
    if (found->second.is_up == up)
        return CARD_DONE; // nothing changed, so no event
    found->second.is_up = up;
    m.out.record(ifid, record_of(found->second));
    send_state(m, up ? MTS_OPC_NORVIK_IF_UP : MTS_OPC_NORVIK_IF_DOWN, ifid);
    card_hosts_recheck(m, ifid, !up);
    return CARD_DONE;
}

std::uint32_t card_if_address(card_model &m, std::uint32_t ifid, std::uint32_t address, std::uint32_t mask)
{
    const auto found = m.interfaces.find(ifid);
    if (found == m.interfaces.end())
        return CARD_NO_INTERFACE;
    if (!is_address_pair(address, mask))
        return CARD_BAD_ARGUMENT;
    card_interface &i = found->second;
    if (i.address == address && i.mask == mask)
        return CARD_DONE;
    const std::uint32_t old_address = i.address, old_mask = i.mask;
    i.address = address;
    i.mask = mask;
    m.out.record(ifid, record_of(i));
    if (i.is_up) {
        m.out.event(MTS_OPC_NORVIK_IF_CHANGED, card_if_changed_payload(ifid, old_address, old_mask));
        m.out.say(fmt::format("interface {}: address {}", ifid, prefix_text(address, address_mask_length(mask))));
        card_hosts_recheck(m, ifid, true); // the route manager keeps a host under its interface's address
    }
    return CARD_DONE;
}

std::uint32_t card_if_delete(card_model &m, std::uint32_t ifid)
{
    if (m.interfaces.count(ifid) == 0)
        return CARD_NO_INTERFACE;
    m.out.record(ifid, {});
    send_state(m, MTS_OPC_NORVIK_IF_DELETED, ifid);
    m.interfaces.erase(ifid);
    for (auto &[key, host] : m.hosts)
        host.is_gone = host.is_gone || host.ifid == ifid;
    card_hosts_recheck(m, ifid, true);
    return CARD_DONE;
}

void card_announce_all(card_model &m)
{
    for (const auto &[ifid, interface] : m.interfaces)
        send_state(m, MTS_OPC_NORVIK_IF_CREATED, ifid);
    for (const auto &[ifid, interface] : m.interfaces)
        if (interface.is_up)
            send_state(m, MTS_OPC_NORVIK_IF_UP, ifid);
    m.asked.clear(); // it will ask again for what it still wants
    for (auto &[key, host] : m.hosts) {
        if (host.announced != ANNOUNCED_NO && host.announced_encap != host.encap)
            card_encap_give(m, host.announced_encap);
        host.announced = ANNOUNCED_NO;
        host.announced_encap = host.encap;
        host.is_asked = host.is_refused = host.is_refreshed = false;
        host.due_ms = m.now_ms + host.delay_ms;
        m.due.emplace(host.due_ms, key);
    }
}
