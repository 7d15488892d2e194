// route_mts.cpp - the process's message queue.
//
// Elsewhere: who binds it (route_mgr.cpp), receives from it (route_handler.cpp) and sends (rib_interface.cpp).
#include "route_mts.h"

#include "mts.h"

std::int32_t route_mts_q = -1;

namespace
{
// Messages whose option word gets bit 0x10: the interface events, and the debug service's requests.
constexpr std::uint32_t MTS_OPCODES[] = {
    MTS_OPC_NORVIK_IF_CREATED, MTS_OPC_NORVIK_IF_DELETED,    MTS_OPC_NORVIK_IF_UP,         MTS_OPC_NORVIK_IF_DOWN,
    MTS_OPC_NORVIK_IF_CHANGED, MTS_OPC_NORVIK_ENCAP_ACQUIRE, MTS_OPC_NORVIK_ENCAP_RELEASE, MTS_OPC_DEBUG_REQUEST,
};
constexpr std::uint32_t MTS_OPTION = 0x10;
} // namespace

void route_mts_set_options()
{
    for (const std::uint32_t opcode : MTS_OPCODES) {
        const std::uint32_t word = mts_options_get(route_mts_q, opcode) | MTS_OPTION;
        (void)mts_options_set(route_mts_q, opcode, static_cast<std::uint16_t>(word)); // delivery needs no option
    }
}
