// route_advert.cpp - routes advertised to the supervisor card: one message of 46 bytes each.
//
// The route tables are not touched; a send that fails is logged and answered, never repeated.
#include "route_advert.h"

#include "big_endian.h"
#include "if_mgr.h"
#include "route_log.h"
#include "route_mgr.h"
#include "scp.h"
#include "sysmgr.h"

namespace
{
constexpr std::size_t ADVERT_BYTES = 46;
constexpr std::uint8_t ADVERTISE = 0x22, WITHDRAW = 0x23;
// Bytes 2 to 10: the protocol's own header words, with fixed values.
constexpr std::uint8_t FIXED_HEADER[] = {0, 0x12, 0x12, 4, 1, 0x4A, 0, 1, 0};
constexpr std::size_t AT_SLOT = 0, AT_SUPERVISOR = 1, AT_HEADER = 2, AT_OPCODE = 16, AT_PREFIX = 18, AT_MASK = 22,
                      AT_NEXT_HOP = 26, AT_VLAN = 30, AT_METRIC = 34;
static_assert(AT_HEADER + sizeof FIXED_HEADER == 11);

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
    message[AT_SLOT] = static_cast<std::uint8_t>(norvik_get_myslot() - 1);
    message[AT_SUPERVISOR] = scp_sup_rp_addr_get(scphandle);
    for (std::size_t i = 0; i < sizeof FIXED_HEADER; ++i)
        message[AT_HEADER + i] = FIXED_HEADER[i];
    message[AT_OPCODE] = a.metric == ROUTE_ADVERT_WITHDRAW ? WITHDRAW : ADVERTISE;
    put_be32(message + AT_PREFIX, a.prefix);
    put_be32(message + AT_MASK, a.mask);
    put_be32(message + AT_NEXT_HOP, a.next_hop);
    put_be32(message + AT_VLAN, static_cast<std::uint32_t>(a.vlan));
    put_be32(message + AT_METRIC, a.metric);
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
                  static_cast<int>(message[AT_OPCODE]));
        return 0;
    }
    route_log(ROUTE_DBG_ERRORS, ctx, "Sending route advertise SCP message failed err=%d, opcode %d\n", error,
              static_cast<int>(message[AT_OPCODE]));
    return -1;
}
