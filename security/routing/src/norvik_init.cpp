// norvik_init.cpp - the trees of all contexts at start-up.
#include "norvik_init.h"

#include "norvik_mtrie_hw.h"
#include "prefix_mgr.h"
#include "route_log.h"
#include "route_table.h"

int norvik_init_ixp_fib()
{
    const int result =
        prefix_mgr_init(&wired_table_mgr, va_wired_base, HW_WIRED_BYTES, 8, 8, ROUTE_CONTEXTS, 8, 1, 1, "wired_Route");
    if (result != 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "norvik_init_ixp_fib: wired_region_init failed\n");
        return result;
    }
    // The error category carries these progress lines, so that the history always shows where the region is mapped.
    route_log(ROUTE_DBG_ERRORS, 0, "main: init wired region - %d tree done. \n", static_cast<int>(ROUTE_CONTEXTS));
    route_log(ROUTE_DBG_ERRORS, 0, "main: init wired region. va_wired_base 0x%x, wired_route_phys_base 0x%x\n",
              va_wired_base, wired_route_phys_base);
    for (unsigned copy = MTRIE_HW_IXP1; copy < MTRIE_HW_COPIES; ++copy)
        route_log(ROUTE_DBG_ERRORS, 0, "main: init wired region. va_ixp%u_dram_base 0x%x\n", copy,
                  mtrie_hw_copies[copy].base);
    return 0;
}
