// route_events.cpp - the interface manager's events: decoded, checked and carried out.
//
// No event is answered. A payload that is too short, or a context out of range, is logged and changes nothing.
// Elsewhere: what changes when an interface comes up or goes down (rib_interface.cpp).
#include "route_events.h"

#include "big_endian.h"
#include "if_mgr.h"
#include "rib_interface.h"
#include "route_log.h"

namespace
{
constexpr std::uint32_t NOTIFY = 1, QUIET = 0, NO_CLEANUP = 0, NOT_DELETED = 0;

bool context_in_range(std::uint32_t opcode, std::int32_t ctx)
{
    if (ctx < static_cast<std::int32_t>(ROUTE_CONTEXTS))
        return true;
    route_log(ROUTE_DBG_ERRORS, 0, "Ignoring event %s: context %d out of range\n", mts_opc_name_get(opcode), ctx);
    return false;
}

bool payload_in_range(const mts_message *message, std::size_t least)
{
    const std::uint32_t length = mts_payload_length_get(message);
    if (length >= least)
        return true;
    route_log(ROUTE_DBG_ERRORS, 0, "Ignoring event %s: %d byte payload\n", mts_opc_name_get(mts_opc_get(message)),
              static_cast<int>(length));
    return false;
}

void interface_up(const if_event &event)
{
    route_log(ROUTE_DBG_MAIN_LOOP, event.ctx, "Got MTS_OPC_NORVIK_IF_UP.\n");
    if (event.rmode != IF_RMODE_ROUTED) {
        route_log(ROUTE_DBG_INFO, event.ctx, "IF_UP, Not L3 interface, contextid=%d, ifid=%d\n, rmode =%d",
                  static_cast<int>(event.ctx), static_cast<int>(event.ifid), static_cast<int>(event.rmode));
        return;
    }
    // Odd, and meant: a bad interface is logged, and added all the same.
    if (event.addr == 0 || event.mask == 0)
        route_log(ROUTE_DBG_ERRORS, event.ctx, "IF_UP, Bad L3 interface, contextid=%d, ipaddr =%x, mask=%x",
                  static_cast<int>(event.ctx), event.addr, event.mask);
    (void)norvik_add_interface(event.addr, event.mask, event.ifid, event.ctx, NOTIFY); // logged there
}

// Down and deleted differ in the flag, and in that a deleted interface keeps its NAT routes.
void interface_gone(std::uint32_t opcode, const if_event &event)
{
    const bool deleted = opcode == MTS_OPC_NORVIK_IF_DELETED;
    if (deleted)
        route_log(ROUTE_DBG_MAIN_LOOP, event.ctx, "Got MTS_OPC_NORVIK_IF_DELETED.\n");
    else
        route_log(ROUTE_DBG_MAIN_LOOP, event.ctx, "Got MTS_OPC_NORVIK_IF_DOWN.\n");
    if (event.rmode != IF_RMODE_ROUTED) {
        route_log(ROUTE_DBG_INFO, event.ctx, "IF_DOWN, Not L3 interface, contextid=%d, ifid=%d\n, rmode =%d",
                  static_cast<int>(event.ctx), static_cast<int>(event.ifid), static_cast<int>(event.rmode));
        return;
    }
    route_log(ROUTE_DBG_INFO, event.ctx, "IF_DOWN, L3 interface, contextid=%d, ipaddr =%x, mask=%x, ifid =%d\n",
              static_cast<int>(event.ctx), event.addr, event.mask, static_cast<int>(event.ifid));
    if (!deleted)
        norvik_remove_nat_ifdown(event.ctx, event.ifid);
    (void)norvik_remove_interface(event.addr, event.mask, event.ifid, event.ctx, event.rmode, deleted ? 1 : 0);
}

void interface_state(const mts_message *message, std::uint32_t opcode)
{
    if (!payload_in_range(message, IFEV_BYTES))
        return;
    const if_event event = if_event_decode(mts_payload_get(message));
    if (opcode == MTS_OPC_NORVIK_IF_CREATED) {
        route_log(ROUTE_DBG_MAIN_LOOP, event.ctx, "Got MTS_OPC_NORVIK_IF_CREATED.\n");
        return;
    }
    if (!context_in_range(opcode, event.ctx))
        return;
    if (opcode == MTS_OPC_NORVIK_IF_UP)
        interface_up(event);
    else
        interface_gone(opcode, event);
}
} // namespace

if_event if_event_decode(const std::uint8_t *payload)
{
    return {get_be16(payload + IFEV_AT_IFID), get_be16(payload + IFEV_AT_CTX), get_be32(payload + IFEV_AT_ADDR),
            get_be32(payload + IFEV_AT_MASK), get_be32(payload + IFEV_AT_RMODE)};
}

int route_msg_process(const mts_message *message)
{
    const std::uint32_t opcode = mts_opc_get(message);
    switch (opcode) {
    case MTS_OPC_NORVIK_IF_CREATED:
    case MTS_OPC_NORVIK_IF_UP:
    case MTS_OPC_NORVIK_IF_DOWN:
    case MTS_OPC_NORVIK_IF_DELETED:
        interface_state(message, opcode);
        break;
    case MTS_OPC_NORVIK_IF_CHANGED:
        if (payload_in_range(message, IFEV_CHANGED_BYTES)) {
            route_log(ROUTE_DBG_MAIN_LOOP, 0, "Got MTS_OPC_NORVIK_IF_CHANGED.\n");
            route_if_changed_process(mts_payload_get(message));
        }
        break;
    case MTS_OPC_NORVIK_ENCAP_ACQUIRE:
        route_log(ROUTE_DBG_MAIN_LOOP, 0, "Got MTS_OPC_NORVIK_ENCAP_ACQUIRE.\n");
        break;
    case MTS_OPC_NORVIK_ENCAP_RELEASE:
        route_log(ROUTE_DBG_MAIN_LOOP, 0, "Got MTS_OPC_NORVIK_ENCAP_RELEASE.\n");
        break;
    default:
        route_log(ROUTE_DBG_MAIN_LOOP, 0, "Ignoring Message: %s\n", mts_opc_name_get(opcode));
    }
    return 0;
}

void route_if_changed_process(const std::uint8_t *payload)
{
    const std::uint32_t ifid = get_be32(payload + IFEV_CHANGED_AT_IFID);
    const bool changed = (get_be32(payload + IFEV_CHANGED_AT_CHANGE) & IFEV_CHANGED_ADDRESS) != 0;
    if (!changed)
        return;
    std::uint32_t rmode = 0, scratch = 0, addr = 0, mask = 0;
    if (if_get_address(ifid, &rmode, &scratch) < 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "ifid to rmode mapping failed for %d", static_cast<int>(ifid));
        return;
    }
    if (rmode != IF_RMODE_ROUTED)
        return;
    if (if_get_ip(ifid, &addr, &mask) < 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "ifid to ipaddr mapping failed for %d", static_cast<int>(ifid));
        return;
    }
    const std::int32_t context = if_get_context_id(ifid);
    if (context < 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "ifid to context_id mapping failed for %d", static_cast<int>(ifid));
        return;
    }
    if (!context_in_range(MTS_OPC_NORVIK_IF_CHANGED, context))
        return;
    const std::uint16_t ctx = static_cast<std::uint16_t>(context), id = static_cast<std::uint16_t>(ifid & 0xFFFF);
    const std::uint32_t old_addr = get_be32(payload + IFEV_CHANGED_AT_OLD_ADDR),
                        old_mask = get_be32(payload + IFEV_CHANGED_AT_OLD_MASK);
    if (old_addr != 0) {
        norvik_remove_nat_ifdown(ctx, id);
        (void)norvik_remove_interface(old_addr, old_mask, id, ctx, NO_CLEANUP, NOT_DELETED); // always 0
    }
    if (addr != 0)
        (void)norvik_add_interface(addr, mask, id, ctx, QUIET); // logged there
}
