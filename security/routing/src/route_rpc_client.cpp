// route_rpc_client.cpp - the calls that the process makes to the slow path.
//
// Each waits for its answer; the loop does not run meanwhile. After a line that ends with STOP the process goes on.
#include "route_rpc_client.h"

#include <cstring>

#include "route_log.h"
#include "tnrpc.h"

std::uint32_t norvik_route_tnrpc_client()
{
    if (tnrpc_clnt_init(ROUTE_RPC_ENDPOINT) != 0)
        route_log(ROUTE_DBG_ERRORS, 0, "tnrpc_clnt_init failed\n");
    return 0;
}

std::uint32_t route_find_interface_route(std::uint16_t a, std::uint32_t b, std::uint32_t c)
{
    std::uint32_t result = 0; // what a failed call leaves
    const std::uint32_t code =
        tnrpc_call("slowpath_find_interface_route", 4, unsigned{RPC_ARG_U16}, std::uint32_t{a}, unsigned{RPC_ARG_U32},
                   b, unsigned{RPC_ARG_U32}, c, unsigned{RPC_ARG_REF}, &result, 4u);
    if (code != 0)
        route_log(ROUTE_DBG_ERRORS, 0, "route_find_interface_route: bad rpc retcode %d. STOP\n",
                  static_cast<int>(code));
    return result;
}

std::uint32_t route_slowpath_realign_arp()
{
    const std::uint32_t code = tnrpc_call("slowpath_relaign_arp", 0); // spelled as the slow path spells it
    if (code != 0)
        route_log(ROUTE_DBG_ERRORS, 0, "route_slowpath_realign_arp: bad rpc retcode %d. STOP\n",
                  static_cast<int>(code));
    return code;
}

std::uint32_t slowpath_valid_mac(std::uint16_t encap)
{
    std::uint32_t result = 0;
    const std::uint32_t code = tnrpc_call("encap_valid_mac", 2, unsigned{RPC_ARG_U16}, std::uint32_t{encap},
                                          unsigned{RPC_ARG_REF}, &result, 2u);
    if (code != 0) {
        // Odd, and meant: a failed call answers non-zero, which callers take for a valid address.
        route_log(ROUTE_DBG_ERRORS, 0, "slowpath_valid_mac: bad rpc retcode %d. STOP\n", static_cast<int>(code));
        return code;
    }
    return result & 0xFFFF;
}

void slowpath_encaps_to_mac(const std::uint8_t *record, std::uint8_t mac[6])
{
    constexpr std::size_t MAC_OFFSET = 10;
    std::memcpy(mac, record + MAC_OFFSET, 6);
}
