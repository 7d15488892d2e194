// norvik_mtrie_pool.cpp - the fixed pools of trie nodes, leaves and ECMP blocks.
//
// A record's index in its pool is its slot in every hardware table, so taking a record also clears that slot. Freed
// records join the tail: a slot is reused as late as possible, since a processor may still be walking it.
// Always: count + free list length == nelem; the sum of tree_count == count (mtrie_pool_check proves both). The count
// of one tree may be below 0: a record is charged to the context that asks for it, and given back by the one that does
// not need it any more, which is another one where two contexts use one tree. Elsewhere: the slot of a record
// (norvik_mtrie_slot.cpp), what a slot's words mean (norvik_mtrie_hw.cpp), when a record is freed (norvik_mtrie.cpp).
#include "norvik_mtrie_pool.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "line_format.h"
#include "mtrack.h"
#include "norvik_mtrie_hw.h"

namespace
{
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
} // namespace

int mtrie_pool_init()
{
    if (mtrie_hw_init() != 0)
        return -1;
    for (std::int32_t type = MTRIE_POOL_NODE; type <= MTRIE_POOL_ECMP; ++type) {
        mtrie_pool &pool = mtrie_pools[type];
        const mtrie_slot_shape &shape = MTRIE_SLOT_SHAPES[type];
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
    return mtrie_record_of<mtrie_node>(element);
}

mtrie_leaf *mtrie_leaf_alloc_pool(std::uint32_t tree)
{
    const card_addr element = allocate_node_from_pool(tree, MTRIE_POOL_LEAF);
    if (element == 0)
        line_print<"\n%s[%d] :: Allocation of MTrie leaf failed.\n">("mtrie_leaf_alloc_pool", 285);
    return mtrie_record_of<mtrie_leaf>(element);
}

mtrie_ecmp *mtrie_ecmp_alloc_pool(std::uint32_t tree)
{
    const card_addr element = allocate_node_from_pool(tree, MTRIE_POOL_ECMP);
    if (element == 0)
        line_print<"\n%s[%d] :: Allocation of MTrie ecmp failed.\n">("mtrie_ecmp_alloc_pool", 322);
    return mtrie_record_of<mtrie_ecmp>(element);
}

void mtrie_node_free_pool(std::uint32_t tree, mtrie_node *node)
{
    free_node_to_pool(tree, MTRIE_POOL_NODE, mtrie_element_of(node));
}

void mtrie_leaf_free_pool(std::uint32_t tree, mtrie_leaf *leaf)
{
    line_print<"\n%s: Freeing leaf node 0x%x\n">("mtrie_leaf_free_pool", card_addr_of(leaf));
    free_node_to_pool(tree, MTRIE_POOL_LEAF, mtrie_element_of(leaf));
}

void mtrie_ecmp_free_pool(std::uint32_t tree, mtrie_ecmp *block)
{
    free_node_to_pool(tree, MTRIE_POOL_ECMP, mtrie_element_of(block));
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
        for (const std::int32_t held : pool.tree_count)
            charged += held;
        broken += pool.count < 0 || pool.count > pool.nelem;
        broken += free_count != pool.nelem - pool.count;
        broken += last != pool.free_tail;
        broken += charged != pool.count;
    }
    return broken;
}
