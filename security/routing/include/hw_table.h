// hw_table.h - the route table as the network processors read it.
//
// The table is the start of the wired region and the whole of each processor's table memory. The wired copy holds
// physical addresses, a processor's copy that processor's own; 0 is 0 in both.
#pragma once

#include <cstdint>

constexpr std::uint32_t HW_ROOT_COUNT = 256;
constexpr std::uint32_t HW_NODES = 0x400, HW_NODE_COUNT = 1024, HW_NODE_BYTES = 1024;
constexpr std::uint32_t HW_LEAVES = HW_NODES + HW_NODE_COUNT * HW_NODE_BYTES, HW_LEAF_COUNT = 1024, HW_LEAF_BYTES = 8;
constexpr std::uint32_t HW_ECMPS = HW_LEAVES + HW_LEAF_COUNT * HW_LEAF_BYTES, HW_ECMP_COUNT = 128, HW_ECMP_BYTES = 32;
constexpr std::uint32_t HW_TABLE_BYTES = HW_ECMPS + HW_ECMP_COUNT * HW_ECMP_BYTES;
static_assert(HW_LEAVES == 0x100400 && HW_ECMPS == 0x102400 && HW_TABLE_BYTES == 0x103400);

constexpr std::uint32_t HW_WIRED_BYTES = 0x1400000; // the whole wired region
constexpr std::uint32_t HW_IXP_BASE = 0x202000;     // the table's address as a processor sees it
constexpr std::uint32_t HW_IXP1_PCI = 0x48202000, HW_IXP2_PCI = 0x50202000;
constexpr std::uint32_t HW_NODE_TAG = 1; // bit 0 of a slot word: a node, not a leaf
