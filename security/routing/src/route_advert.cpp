// route_advert.cpp - routes advertised to the supervisor card: one message of 46 bytes each.
//
// The route tables are not touched. A send that fails is logged, and the caller gets the failure; it is not repeated.
#include "route_advert.h"

#include <iterator>

#include "big_endian.h"
#include "if_mgr.h"
#include "route_log.h"
#include "scp.h"
#include "sysmgr.h"

std::uint32_t scphandle;

namespace
{
struct route_advert {
    std::uint32_t prefix, mask, next_hop, ifid;
    std::int32_t vlan;
    std::uint16_t metric;
};

#define BYTES_OF(addr)                                                                                                 \
    static_cast<int>((addr) >> 24), static_cast<int>((addr) >> 16 & 0xFF), static_cast<int>((addr) >> 8 & 0xFF),       \
        static_cast<int>((addr)&0xFF)

void log_advert(std::uint16_t ctx, const route_advert &a)
{
    static const char *const NAME = "norvik_send_route_advert";
    if (a.metric != ROUTE_ADVERT_WITHDRAW)
        route_log(ROUTE_DBG_INFO, ctx,
                  "%s: Advertising route/mask %d.%d.%d.%d/%d.%d.%d.%d with next-hop %d.%d.%d.%d on ifid %d vlan %d "
                  "metric %d\n",
                  NAME, BYTES_OF(a.prefix), BYTES_OF(a.mask), BYTES_OF(a.next_hop), static_cast<int>(a.ifid), a.vlan,
                  static_cast<int>(a.metric));
    else
        route_log(ROUTE_DBG_INFO, ctx,
                  "%s: Removing advertised route/mask %d.%d.%d.%d/%d.%d.%d.%d with next-hop %d.%d.%d.%d on ifid %d "
                  "vlan %d\n",
                  NAME, BYTES_OF(a.prefix), BYTES_OF(a.mask), BYTES_OF(a.next_hop), static_cast<int>(a.ifid), a.vlan);
}

void build(std::uint8_t (&message)[ADVERT_BYTES], const route_advert &a)
{
    message[ADVERT_AT_SLOT] = static_cast<std::uint8_t>(norvik_get_myslot() - 1);
    message[ADVERT_AT_SUPERVISOR] = scp_sup_rp_addr_get(scphandle);
    for (std::size_t i = 0; i < std::size(ADVERT_HEADER); ++i)
        message[ADVERT_AT_HEADER + i] = ADVERT_HEADER[i];
    message[ADVERT_AT_OPCODE] = a.metric == ROUTE_ADVERT_WITHDRAW ? ADVERT_WITHDRAW : ADVERT_ADVERTISE;
    put_be32(message + ADVERT_AT_PREFIX, a.prefix);
    put_be32(message + ADVERT_AT_MASK, a.mask);
    put_be32(message + ADVERT_AT_NEXT_HOP, a.next_hop);
    put_be32(message + ADVERT_AT_VLAN, static_cast<std::uint32_t>(a.vlan));
    put_be32(message + ADVERT_AT_METRIC, a.metric);
}
} // namespace

std::int32_t norvik_get_myslot()
{
    module_info info{};
    (void)get_module_info(&info); // always 0
    return info.slot;
}

std::int32_t norvik_send_route_advert(std::uint32_t prefix, std::uint32_t mask, std::uint32_t ifid,
                                      std::uint32_t next_hop, std::uint16_t metric, std::uint16_t ctx)
{
    const std::int32_t vlan = static_cast<std::int16_t>(if_get_vlanid(ifid));
    if (vlan < 0) {
        route_log(ROUTE_DBG_ERRORS, ctx, "%s: Cannot resolve ifid %d to vlan id.", "norvik_send_route_advert",
                  static_cast<int>(ifid));
        return -1;
    }
    const route_advert advert = {prefix, mask, next_hop, ifid, vlan, metric};
    log_advert(ctx, advert);
    std::uint8_t message[ADVERT_BYTES] = {};
    build(message, advert);
    const int error = scp_send(scphandle, message, sizeof message);
    if (error == 0) {
        route_log(ROUTE_DBG_INFO, ctx, "Sending route advertise SCP message success. opcode %d\n",
                  static_cast<int>(message[ADVERT_AT_OPCODE]));
        return 0;
    }
    route_log(ROUTE_DBG_ERRORS, ctx, "Sending route advertise SCP message failed err=%d, opcode %d\n", error,
              static_cast<int>(message[ADVERT_AT_OPCODE]));
    return -1;
}
