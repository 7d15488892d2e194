// route_ids.h - the fixed numbers by which the route manager is known, and its debug categories.
#pragma once

#include <cstdint>

constexpr std::uint32_t ROUTE_MGR_UUID = 340;   // towards the system manager and the memory tracker
constexpr std::uint32_t ROUTE_MGR_SAP = 514;    // service access point of its message queue
constexpr std::uint32_t ROUTE_RPC_ENDPOINT = 9; // server and client
constexpr std::uint32_t ROUTE_HIST_ID = 0x73;   // component of its event history
constexpr std::uint32_t ROUTE_HIST_EVENT = ROUTE_HIST_ID << 16;
constexpr unsigned ROUTE_CONTEXTS = 256; // routing contexts, and route ids

// Debug categories; the id is also the subtype of the history record.
enum route_dbg : std::uint32_t {
    ROUTE_DBG_ERRORS = 100,
    ROUTE_DBG_EVENTS = 101,
    ROUTE_DBG_MTS = 102,
    ROUTE_DBG_LOCK = 103,
    ROUTE_DBG_WARNING = 104,
    ROUTE_DBG_INFO = 105,
    ROUTE_DBG_MAIN_LOOP = 106,
    ROUTE_DBG_ADJ_EVENTS = 107,
    ROUTE_DBG_ADJ_ERRORS = 108,
    ROUTE_DBG_ADJ_READS = 109,
    ROUTE_DBG_ADJ_WRITES = 110,
    ROUTE_DBG_ADJ_DETAILS = 111,
};
constexpr unsigned ROUTE_DBG_COUNT = 12;

// Memory-tracking types: what a block was allocated for.
enum mtrack_type : std::uint32_t {
    MTRACK_ROUTE_TABLE = 0,
    MTRACK_PREFIX_TREE = 1,
    MTRACK_PREFIX_MGR = 2,
    MTRACK_PREFIX_MGR_TREES = 3,
    MTRACK_CP_POOL = 4,
    MTRACK_ROUTE_TREE_DISPLAY = 5,
    MTRACK_ROUTE_TABLE_DISPLAY = 6,
    MTRACK_CLI_ROUTE = 7,
    MTRACK_FIB_DISPLAY = 8,
    MTRACK_ROUTE_ENTRY_1 = 9,  // host routes
    MTRACK_ROUTE_ENTRY_2 = 10, // NAT routes
    MTRACK_ROUTE_ENTRY_3 = 11, // static routes
    MTRACK_ROUTE_ENTRY_MAX = 12,
};
