// norvik_mtrie_slot.cpp - where a trie record stands: its element in its pool, and the hardware slot of the same index.
//
// Elsewhere: which elements are in use (norvik_mtrie_pool.cpp), what is written into a slot (norvik_mtrie_hw.cpp).
#include "norvik_mtrie_slot.h"

#include "route_log.h"

mtrie_pool mtrie_pools[3];

std::int32_t mtrie_node_type(card_addr element)
{
    for (const mtrie_pool &pool : mtrie_pools)
        if (element >= pool.start && element <= pool.end)
            return pool.type;
    route_log(ROUTE_DBG_ERRORS, 0,
              "\n%s[%d] :: Problem, node is not Mnode, Mleaf, ecmp -node 0x%x node start/end 0x%x/0x%x leaf start/end "
              "0x%x/0x%x.\necmp start/end 0x%x/0x%x.\n",
              "mtrie_node_type", 400, element, mtrie_pools[0].start, mtrie_pools[0].end, mtrie_pools[1].start,
              mtrie_pools[1].end, mtrie_pools[2].start, mtrie_pools[2].end);
    return MTRIE_POOL_NONE;
}

card_addr mtrie_get_cp_node(std::int32_t type, std::int32_t index)
{
    if (type < MTRIE_POOL_NODE || type > MTRIE_POOL_ECMP || index >= MTRIE_SLOT_SHAPES[type].nelem)
        return 0;
    // Odd, and meant: only the upper bound is checked, a negative index counts backwards from the start.
    return mtrie_pools[type].start + static_cast<std::uint32_t>(index) * mtrie_pools[type].elem_size;
}
