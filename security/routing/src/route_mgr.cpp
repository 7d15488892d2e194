// route_mgr.cpp - start-up in its one fixed order, and the clean-up that undoes it.
//
// The clean-up is registered first and runs at exit whatever step start-up had reached; after a signal it runs twice,
// which does no harm. Every failing step logs one line and ends the process with status 255.
// Elsewhere: the loop (route_handler.cpp), the pools and tables (norvik_*.cpp), the first routes (rib_host.cpp).
#include "route_mgr.h"

#include <cctype>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "mtrack.h"
#include "mts.h"
#include "norvik_init.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "platform_mem.h"
#include "rib_host.h"
#include "rib_nexthop_index.h"
#include "route_advert.h"
#include "route_handler.h"
#include "route_log.h"
#include "route_mts.h"
#include "route_rpc_client.h"
#include "route_rpc_serv.h"
#include "scp.h"
#include "sdwrap.h"
#include "sysmgr.h"

std::int32_t route_sysfd;

namespace
{
constexpr char FACILITY_NAME[] = "ROUTE Mgr";
constexpr char INIT_FAILED_FORMAT[] = "<<%%%s-%d-INIT_FAILED>> Initialization failed. Component %s";
constexpr std::uint32_t FACILITY_CODE = 1984;

constexpr const char *DBG_NAMES[ROUTE_DBG_COUNT] = {
    "route manager errors",
    "route manager events",
    "route manager MTS messages",
    "route manager lock msg",
    "route manager warning",
    "route manager info messages",
    "route manager main loop messages",
    "route manager adj-events",
    "route manager adj-errors",
    "route manager adj-reads",
    "route manager adj-writes",
    "route manager adj-details",
};

constexpr const char *MTRACK_NAMES[MTRACK_ROUTE_ENTRY_MAX + 1] = {
    "MTRACK_ROUTE_TABLE",     "MTRACK_PREFIX_TREE",        "MTRACK_PREFIX_MGR",          "MTRACK_PREFIX_MGR_TREES",
    "MTRACK_CP_POOL",         "MTRACK_ROUTE_TREE_DISPLAY", "MTRACK_ROUTE_TABLE_DISPLAY", "MTRACK_CLI_ROUTE",
    "MTRACK_FIB_DISPLAY",     "MTRACK_ROUTE_ENTRY_1",      "MTRACK_ROUTE_ENTRY_2",       "MTRACK_ROUTE_ENTRY_3",
    "MTRACK_ROUTE_ENTRY_MAX", // closes the table, not counted
};

} // namespace

syslog_facility syslog_fac_LOG_ROUTE_MGR = {FACILITY_NAME, FACILITY_CODE, 2, 2};
const syslog_message syslog_msg_INIT_FAILED = {"INIT_FAILED", &syslog_fac_LOG_ROUTE_MGR, INIT_FAILED_FORMAT, 3};

namespace
{
// The multicast drop entry, 224.0.0.0/3.
constexpr std::uint32_t MCAST_PREFIX = 0xE0000000, MCAST_LEN = 3;
constexpr std::uint16_t MCAST_ENCAP = 0x8001;
constexpr std::uint32_t IXP_UNMAP_BYTES = 0x104000; // more than was mapped; the platform unmaps what there is

void syslog_init_failed(const char *component)
{
    const syslog_message &message = syslog_msg_INIT_FAILED;
    if (message.facility->level < message.severity)
        return;
    static char upper[sizeof FACILITY_NAME];
    const std::size_t length = std::strlen(message.facility->name);
    for (std::size_t i = 0; i < length; ++i)
        upper[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(message.facility->name[i])));
    upper[length] = '\0';
    zumo_syslog(message.severity, INIT_FAILED_FORMAT, upper, message.severity, component);
}

// Debug categories, syslog and history. Returns 0 or -1.
int init_logging()
{
    int result = sdwrap_dbg_init(route_mts_q, FACILITY_NAME, FACILITY_NAME, ROUTE_DBG_COUNT, DBG_NAMES, 0, 0, 0);
    if (result != 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "Couldn't initialize sdwrap. retval = %d\n", result);
        syslog_init_failed("DEBUG");
        return -1;
    }
    sdwrap_sys_facility = &syslog_fac_LOG_ROUTE_MGR;
    result = sdwrap_sys_init_helper(route_mts_q, FACILITY_NAME, "ROUTE Manager", FACILITY_CODE, 0, 0, 0);
    if (result != 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "Couldn't initialize syslog. retval = %d\n", result);
        syslog_init_failed("SYSLOG");
        return -1;
    }
    // The process serves routes without a history, too.
    constexpr std::size_t HISTORY_BYTES = 0x10000;
    (void)sdwrap_hist_init(HISTORY_BYTES);
    (void)sdwrap_hist_init_for_uuid(ROUTE_HIST_ID, HISTORY_BYTES);
    (void)sdwrap_hist_set_event_subtype(ROUTE_HIST_EVENT, ROUTE_DBG_ERRORS, 1);
    (void)sdwrap_hist_set_event_subtype(ROUTE_HIST_EVENT, ROUTE_DBG_EVENTS, 1);
    return 0;
}

// The pools, the trees and their first route. Returns 0 or -1.
int init_tables()
{
    if (mtrie_pool_init() != 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "main: mtrie_pool_init failed\n");
        return -1;
    }
    if (norvik_init_ixp_fib() != 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "main: norvik_init_ixp_fib failed\n");
        return -1;
    }
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        if (route_add_rib_and_mtrie_entry(RIB_F_MCAST_DROP, MCAST_ENCAP, RIB_OBJ_MCAST_DROP, MCAST_PREFIX, MCAST_LEN, 0,
                                          ctx) == nullptr) {
            route_log(ROUTE_DBG_ERRORS, 0, "couldn't add entry for multicast pkt drop\n");
            return -1;
        }
    return 0;
}

// The supervisor and the adjacency library. Returns 0 or -1.
int init_peers()
{
    constexpr std::uint32_t SCP_SERVICE = 4;
    scphandle = scp_init(SCP_SERVICE, route_mts_q);
    if (scphandle == 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "Couldn't initialize SCP.\n");
        return -1;
    }
    if (fb_adj_init(route_mts_q, 0, ROUTE_DBG_ADJ_EVENTS, ROUTE_DBG_ADJ_ERRORS, ROUTE_DBG_ADJ_READS,
                    ROUTE_DBG_ADJ_WRITES, ROUTE_DBG_ADJ_DETAILS) != 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "main: fb_adj_init failed\n");
        return -1;
    }
    return 0;
}
} // namespace

int route_mgr_main()
{
    const mts_bind_options options = {{1, 0, 1024, 0, 0}};
    std::atexit(route_mgr_cleanup);
    std::memset(static_cast<void *>(norvik_leaf_default), 0, sizeof norvik_leaf_default);
    (void)norvik_route_tnrpc_serv();   // always 0
    (void)norvik_route_tnrpc_client(); // always 0
    (void)std::signal(SIGINT, route_mgr_sig_handler);
    (void)std::signal(SIGHUP, route_mgr_sig_handler);
    (void)std::signal(SIGQUIT, route_mgr_sig_handler);
    constexpr std::uint32_t BIND_MODE = 4;
    route_mts_q = mts_bind(BIND_MODE, ROUTE_MGR_SAP, &options, "Route Manager");
    if (route_mts_q == -1) {
        route_log(ROUTE_DBG_ERRORS, 0, "Routemgr: couldn't bind to MTS, Routemgr might already be running.\n");
        return -1;
    }
    route_mts_set_options();
    if (init_logging() != 0)
        return -1;
    (void)mtrack_init("ROUTE Manager", ROUTE_MGR_UUID, MTRACK_NAMES, MTRACK_ROUTE_ENTRY_MAX); // only names types
    if (init_tables() != 0 || init_peers() != 0)
        return -1;
    route_log(ROUTE_DBG_MAIN_LOOP, 0, "main: norvik_route_mgr process init DONE\n");
    (void)sysmgr_handshake(route_mts_q, ROUTE_MGR_UUID); // there may be no system manager
    norvik_route_handler();
    std::exit(0); // never reached: the loop does not return
}

void route_mgr_cleanup()
{
    sdwrap_dbg_clean(route_mts_q);
    sdwrap_sys_clean(route_mts_q);
    norvik_route_tnrpc_unregister();
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        (void)route_remove_rib_and_mtrie_entry(RIB_OBJ_MCAST_DROP, RIB_F_MCAST_DROP, MCAST_PREFIX, MCAST_LEN, ctx,
                                               RIB_FREE_ENTRY); // freed there
    // Odd, and meant: route_sysfd is never assigned, so these pass descriptor 0, and the last closes it.
    unmap_wired_route(route_sysfd, va_wired_base);
    for (unsigned copy = MTRIE_HW_IXP1; copy < MTRIE_HW_COPIES; ++copy) {
        unmap_pci_xram_to_uspace(mtrie_hw_copies[copy].base, IXP_UNMAP_BYTES);
        mtrie_hw_copies[copy].base = 0;
    }
    fb_adj_cleanup(route_sysfd);
    (void)syscall_close(route_sysfd);
}

void route_mgr_sig_handler(int)
{
    // The signal may have come in the middle of a change of the index or of the heap: neither is changed any more.
    rib_nexthop_index_freeze();
    mtrack_freeze();
    route_mgr_cleanup();
    std::exit(1);
}
