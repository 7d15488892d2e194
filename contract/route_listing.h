// route_listing.h - what the listing and summary procedures of the route manager answer.
//
// A listing is turned page by page with a cursor of three values, {list, bucket, position}: {0, 0, 0} at first, then
// what the last page left. A page's block is an array of records; integers are big-endian.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::uint16_t ROUTE_PAGE_RECORDS = 2550;    // of a page at most
constexpr std::uint32_t ROUTE_WALK_DONE = 0xFFFFFFFF; // position of the cursor behind the last page

// A record: 32-bit fields, but the interface id and the flags, which have 16 bits.
constexpr std::size_t ROUTE_AT_PREFIX = 0, ROUTE_AT_LEN = 4, ROUTE_AT_NEXTHOP = 8, ROUTE_AT_ROUTE_ID = 12,
                      ROUTE_AT_IFID = 16, ROUTE_AT_FLAGS = 18, ROUTE_AT_ENCAP = 20;
constexpr std::uint32_t ROUTE_RECORD_BYTES = 24;

// Flag bits of a route.
constexpr std::uint16_t RIB_F_ARP_HOST = 0x0001;      // learned from ARP; nexthop is the interface's address
constexpr std::uint16_t RIB_F_ARP_INSTALLED = 0x0002; // host entry installed through the ARP prefix manager
constexpr std::uint16_t RIB_F_GATEWAY = 0x0004;       // static route whose gateway was handed to ARP
constexpr std::uint16_t RIB_F_IN_MTRIE = 0x0008;      // static route whose leaf or path is programmed
constexpr std::uint16_t RIB_F_INTERFACE = 0x0010;     // belongs to an interface
constexpr std::uint16_t RIB_F_CONNECTED = 0x0020;     // the interface's connected subnet; ip-resolve in the FIB
constexpr std::uint16_t RIB_F_ECMP = 0x0040;          // head or member of an ECMP set
constexpr std::uint16_t RIB_F_NAT = 0x0080;           // NAT pool prefix
constexpr std::uint16_t RIB_F_MCAST_DROP = 0x0100;    // the context's multicast drop entry
constexpr std::uint16_t RIB_F_NAT_IN_MTRIE = 0x0200;  // NAT entry that is programmed

// show_rib_summary: 32-bit counts, then the bytes of a route entry in 16 bits.
constexpr std::size_t RIB_SUMMARY_AT_CONNECTED = 0, RIB_SUMMARY_AT_STATICS = 4, RIB_SUMMARY_AT_ENTRY_BYTES = 8;
constexpr std::uint32_t RIB_SUMMARY_BYTES = 12;

// show_fib_summary: 32-bit counts, then the bytes of a node, a leaf and a block in 16 bits each.
constexpr std::size_t FIB_SUMMARY_AT_NODES = 0, FIB_SUMMARY_AT_LEAVES = 4, FIB_SUMMARY_AT_BLOCKS = 8,
                      FIB_SUMMARY_AT_ROUTES = 12, FIB_SUMMARY_AT_NODE_BYTES = 16, FIB_SUMMARY_AT_LEAF_BYTES = 18,
                      FIB_SUMMARY_AT_BLOCK_BYTES = 20;
constexpr std::uint32_t FIB_SUMMARY_BYTES = 24;

// mtrie_hw_dump_api: lines of this many bytes, each NUL-terminated.
constexpr std::size_t HW_DUMP_LINE_BYTES = 128;
