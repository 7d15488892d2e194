// norvik_mtrie_pool.cpp - the fixed pools of trie nodes, leaves and ECMP blocks.
//
// A record's index in its pool is its slot in every hardware table, so taking a record also clears that slot. Freed
// records join the tail: a slot is reused as late as possible, since a processor may still be walking it.
// Always: count + free list length == nelem; the sum of tree_count == count (mtrie_pool_check proves both).
// Elsewhere: what a slot's words mean (norvik_mtrie_hw.cpp), when a record is given up (norvik_mtrie.cpp).
#include "norvik_mtrie_pool.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "line_format.h"
#include "mtrack.h"
#include "norvik_mtrie_hw.h"
#include "route_log.h"

mtrie_pool mtrie_pools[3];

namespace
{
struct pool_shape {
    std::uint32_t elem_size;
    std::int32_t nelem;
};
constexpr pool_shape POOL_SHAPES[3] = {
    {sizeof(mtrie_node) + MTRIE_POOL_LINK, 1024},
    {sizeof(mtrie_leaf) + MTRIE_POOL_LINK, 1024},
    {sizeof(mtrie_ecmp) + MTRIE_POOL_LINK, 128},
};
static_assert(POOL_SHAPES[0].elem_size == 1036 && POOL_SHAPES[1].elem_size == 40 && POOL_SHAPES[2].elem_size == 48);

std::uint32_t &link_of(card_addr element) { return *card_at<std::uint32_t>(element); }

[[noreturn]] void assertion_failed(const char *text, int line, const char *function)
{
    std::fprintf(stderr, "security/routing/src/norvik_mtrie_pool:%d: %s: Assertion `%s' failed.\n", line, function,
                 text);
    std::abort();
}

void thread_free_list(mtrie_pool &pool)
{
    pool.free_head = pool.start;
    for (std::int32_t i = 0; i < pool.nelem - 1; ++i) {
        const card_addr element = pool.start + static_cast<std::uint32_t>(i) * pool.elem_size;
        link_of(element) = element + pool.elem_size;
    }
    pool.end = pool.start + static_cast<std::uint32_t>(pool.nelem - 1) * pool.elem_size;
    pool.free_tail = pool.end;
    link_of(pool.end) = 0;
}

template <class T> T *record_of(card_addr element)
{
    return element == 0 ? nullptr : card_at<T>(element + MTRIE_POOL_LINK);
}

card_addr element_of(const void *record) { return card_addr_of(record) - MTRIE_POOL_LINK; }
} // namespace

int mtrie_pool_init()
{
    if (mtrie_hw_init() != 0)
        return -1;
    for (std::int32_t type = MTRIE_POOL_NODE; type <= MTRIE_POOL_ECMP; ++type) {
        mtrie_pool &pool = mtrie_pools[type];
        const pool_shape &shape = POOL_SHAPES[type];
        pool.type = type;
        pool.elem_size = shape.elem_size;
        const std::size_t bytes = static_cast<std::size_t>(shape.nelem) * shape.elem_size;
        const void *storage = mtrack_alloc(ROUTE_MGR_UUID, MTRACK_CP_POOL, bytes);
        if (storage == nullptr) {
            line_print<"\n%s[%d] :: failed to allocate memory for CP route pool type %d (%d).\n">("mtrie_pool_init",
                                                                                                  221, type, errno);
            return -2;
        }
        pool.start = card_addr_of(storage);
        pool.nelem = shape.nelem;
        pool.count = 0;
        std::memset(pool.tree_count, 0, sizeof pool.tree_count);
        thread_free_list(pool);
    }
    return 0;
}

card_addr allocate_node_from_pool(std::uint32_t tree, std::int32_t type)
{
    mtrie_pool &pool = mtrie_pools[type];
    const card_addr element = pool.free_head;
    if (element == 0)
        return 0;
    pool.free_head = link_of(element);
    pool.count += 1;
    if (pool.count > pool.nelem)
        assertion_failed("pool->count <= pool->nelem", 136, "allocate_node_from_pool");
    pool.tree_count[tree] += 1;
    std::memset(card_at<void>(element), 0, pool.elem_size);
    if (pool.free_head == 0)
        pool.free_tail = 0;
    mtrie_hw_clear_node(type, mtrie_node_offset(type, element));
    return element;
}

void free_node_to_pool(std::uint32_t tree, std::int32_t type, card_addr element)
{
    mtrie_pool &pool = mtrie_pools[type];
    if (element < pool.start || element > pool.end) {
        line_print<"\n%s[%d] :: node 0x%x being freed is not in range - type %d start 0x%x end 0x%x.\n">(
            "free_node_to_pool", 159, element, type, pool.start, pool.end);
        return;
    }
    if (pool.count == 0)
        assertion_failed("pool->count", 162, "free_node_to_pool");
    if (pool.free_tail != 0)
        link_of(pool.free_tail) = element;
    else
        pool.free_head = element;
    pool.free_tail = element;
    pool.tree_count[tree] -= 1;
    pool.count -= 1;
}

mtrie_node *mtrie_node_alloc_pool(std::uint32_t tree)
{
    const card_addr element = allocate_node_from_pool(tree, MTRIE_POOL_NODE);
    if (element == 0)
        line_print<"\n%s[%d] :: Allocation of MTrie node failed.\n">("mtrie_node_alloc_pool", 245);
    return record_of<mtrie_node>(element);
}

mtrie_leaf *mtrie_leaf_alloc_pool(std::uint32_t tree)
{
    const card_addr element = allocate_node_from_pool(tree, MTRIE_POOL_LEAF);
    if (element == 0)
        line_print<"\n%s[%d] :: Allocation of MTrie leaf failed.\n">("mtrie_leaf_alloc_pool", 285);
    return record_of<mtrie_leaf>(element);
}

mtrie_ecmp *mtrie_ecmp_alloc_pool(std::uint32_t tree)
{
    const card_addr element = allocate_node_from_pool(tree, MTRIE_POOL_ECMP);
    if (element == 0)
        line_print<"\n%s[%d] :: Allocation of MTrie ecmp failed.\n">("mtrie_ecmp_alloc_pool", 322);
    return record_of<mtrie_ecmp>(element);
}

void mtrie_node_free_pool(std::uint32_t tree, mtrie_node *node)
{
    free_node_to_pool(tree, MTRIE_POOL_NODE, element_of(node));
}

void mtrie_leaf_free_pool(std::uint32_t tree, mtrie_leaf *leaf)
{
    line_print<"\n%s: Freeing leaf node 0x%x\n">("mtrie_leaf_free_pool", card_addr_of(leaf));
    free_node_to_pool(tree, MTRIE_POOL_LEAF, element_of(leaf));
}

void mtrie_ecmp_free_pool(std::uint32_t tree, mtrie_ecmp *block)
{
    free_node_to_pool(tree, MTRIE_POOL_ECMP, element_of(block));
}

std::int32_t mtrie_node_offset(std::int32_t type, card_addr element)
{
    if (type >= MTRIE_POOL_NONE)
        return 0;
    const mtrie_pool &pool = mtrie_pools[type];
    return static_cast<std::int32_t>(element - pool.start) / static_cast<std::int32_t>(pool.elem_size);
}

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
    if (type < MTRIE_POOL_NODE || type > MTRIE_POOL_ECMP || index >= POOL_SHAPES[type].nelem)
        return 0;
    // Odd, and meant: only the upper bound is checked, a negative index counts backwards from the start.
    return mtrie_pools[type].start + static_cast<std::uint32_t>(index) * mtrie_pools[type].elem_size;
}

void mtrie_get_stats(std::uint32_t tree, std::uint32_t counts[3])
{
    for (unsigned type = 0; type < 3; ++type)
        counts[type] = static_cast<std::uint32_t>(mtrie_pools[type].tree_count[tree]);
}

int mtrie_pool_check()
{
    int broken = 0;
    for (const mtrie_pool &pool : mtrie_pools) {
        std::int32_t free_count = 0, charged = 0;
        card_addr last = 0;
        for (card_addr e = pool.free_head; e != 0 && free_count <= pool.nelem; e = link_of(e), ++free_count) {
            broken += e < pool.start || e > pool.end || (e - pool.start) % pool.elem_size != 0;
            last = e;
        }
        for (const std::int32_t held : pool.tree_count) {
            broken += held < 0;
            charged += held;
        }
        broken += pool.count < 0 || pool.count > pool.nelem;
        broken += free_count != pool.nelem - pool.count;
        broken += last != pool.free_tail;
        broken += charged != pool.count;
    }
    return broken;
}
