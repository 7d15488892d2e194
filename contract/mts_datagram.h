// mts_datagram.h - a message between the card's processes: one datagram to mts/<sap>.
//
// Big-endian: magic, opcode, source node, source sap (0: the sender is bound to none), then the payload.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::uint32_t MTS_MAGIC = 0x4D545331; // "MTS1"
constexpr std::size_t MTS_AT_MAGIC = 0, MTS_AT_OPCODE = 4, MTS_AT_NODE = 8, MTS_AT_SAP = 12, MTS_HEADER_BYTES = 16;
constexpr std::size_t MTS_MAX_PAYLOAD = 1024; // bytes

constexpr std::uint32_t MTS_NODE_LOCAL = 0;              // this card
constexpr std::uint32_t MTS_NODE_BROADCAST = 0xFE000000; // with sap 0: every sap bound on the card but the sender's
constexpr std::uint32_t MTS_FIRST_SERVICE_SAP = 515, MTS_FIRST_TOOL_SAP = 1024; // the card's services; free ones

constexpr std::uint32_t MTS_OPC_NORVIK_IF_CREATED = 4063, MTS_OPC_NORVIK_IF_DELETED = 4064, MTS_OPC_NORVIK_IF_UP = 4065,
                        MTS_OPC_NORVIK_IF_DOWN = 4066, MTS_OPC_NORVIK_ENCAP_ACQUIRE = 4069,
                        MTS_OPC_NORVIK_ENCAP_RELEASE = 4070, MTS_OPC_NORVIK_IF_CHANGED = 4089,
                        MTS_OPC_DEBUG_REQUEST = 1530, MTS_OPC_DEBUG_ANSWER = 1531, MTS_OPC_ROUTE_IF_ADDED = 0x1005,
                        MTS_OPC_ROUTE_IF_REMOVED = 0x1006;
