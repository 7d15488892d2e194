// prefix_mgr.cpp - the manager of the 256 trees: it adds routes to the trie and removes them.
//
// A route's route id chooses the tree; its context is what the pools are charged to and what the lines carry. The
// manager chooses between a new leaf, an extra path, the removal of a leaf and of a path.
// Always: once made, trees live until the process ends.
// Elsewhere: what a leaf and a path are, and the default route's leaf (norvik_mtrie_leaf.cpp); the routes (rib_*.cpp).
#include "prefix_mgr.h"

#include <cstdio>
#include <cstring>

#include "mtrack.h"
#include "norvik_mtrie.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "route_log.h"

card_ptr<prefix_mgr> wired_table_mgr;

namespace
{
// Handle of the standard output print function: a host function does not fit the record's 32-bit words.
constexpr std::uint32_t PRINT_STDOUT = 1;

// A name field always ends in a NUL.
template <std::size_t Size> void set_name(char (&field)[Size], const char *name)
{
    std::snprintf(field, Size, "%s", name);
}

int create_trees(prefix_mgr *manager)
{
    for (std::uint32_t id = 0; id < manager->num_trees; ++id) {
        char name[sizeof manager->name + 12];
        std::snprintf(name, sizeof name, "%s%i", manager->name, static_cast<int>(id));
        if (prefix_mgr_tree_create(manager->trees + id, name, id, manager->root_stride, PRINT_STDOUT, PRINT_STDOUT) !=
            0)
            return 3;
    }
    return 0;
}

std::uint32_t mask_of(const route_entry *route) { return route->len == 0 ? 0 : 0xFFFFFFFFu << (32 - route->len); }
} // namespace

prefix_tree *norvik_get_t(std::uint32_t context)
{
    // A start-up that fails before the manager exists is cleaned up too; no route can have been added by then.
    static prefix_tree empty{};
    if (!wired_table_mgr)
        return &empty;
    return wired_table_mgr->trees[context & 0xFFFF];
}

int prefix_mgr_init(card_ptr<prefix_mgr> *out, card_addr base, std::uint32_t, std::uint32_t root_stride,
                    std::uint32_t stride, std::uint32_t num_trees, std::uint32_t setting_a, std::uint32_t setting_b,
                    std::uint32_t setting_c, const char *name)
{
    auto *manager = static_cast<prefix_mgr *>(mtrack_alloc(ROUTE_MGR_UUID, MTRACK_PREFIX_MGR, sizeof(prefix_mgr)));
    void *trees = nullptr;
    if (manager != nullptr) {
        manager->base = base;
        manager->root_stride = root_stride;
        manager->node_stride = stride;
        manager->settings[0] = setting_b;
        manager->settings[1] = setting_c;
        manager->num_trees = num_trees;
        manager->setting = setting_a;
        set_name(manager->name, name);
        trees = mtrack_alloc(ROUTE_MGR_UUID, MTRACK_PREFIX_MGR_TREES, std::size_t{4} * num_trees);
        manager->trees = static_cast<card_ptr<prefix_tree> *>(trees);
    }
    if (trees == nullptr || create_trees(manager) != 0) {
        // Trees already made are not freed.
        route_log(ROUTE_DBG_ERRORS, 0, "mgr_init: free tree \n");
        mtrack_free(trees);
        mtrack_free(manager);
        return 3;
    }
    *out = manager;
    return 0;
}

int prefix_mgr_tree_create(card_ptr<prefix_tree> *slot, const char *name, std::uint32_t tree_id, std::uint32_t stride,
                           std::uint32_t print_a, std::uint32_t print_b)
{
    if (slot == nullptr) {
        route_log(ROUTE_DBG_ERRORS, 0, "Invalid argument passed to prefix_mgr_tree_create, tree %s\n", name);
        return 5;
    }
    auto *tree = static_cast<prefix_tree *>(mtrack_alloc(ROUTE_MGR_UUID, MTRACK_PREFIX_TREE, sizeof(prefix_tree)));
    if (tree == nullptr) {
        route_log(ROUTE_DBG_ERRORS, 0, "Cannot allocate memory for tree creationg, tree %s\n", name);
        return 3;
    }
    tree->print[0] = print_a;
    tree->print[1] = print_b;
    set_name(tree->name, name);
    // Odd, and meant: the table that is made here is overwritten at once and unused from then on.
    std::uint32_t table = 0;
    (void)norvik_rib_table_alloc(&table); // always 0
    tree->table[0][0] = card_ptr<route_entry>::at(table);
    for (auto &row : tree->table)
        for (card_ptr<route_entry> &head : row)
            head = nullptr;
    mtrie_node *root = mtrie_node_alloc(tree_id);
    if (root == nullptr) {
        route_log(ROUTE_DBG_ERRORS, 0, "Cannot allocate memory for root .\n");
        return 3;
    }
    mtrie_leaf *leaf = mtrie_alloc_default_leaf_stub(tree_id);
    norvik_leaf_default[tree_id] = leaf;
    mtrie_init(root, leaf, stride);
    mtrie_hw_set_root(tree_id, root);
    *slot = tree;
    return 0;
}

std::uint32_t prefix_mgr_route_add(prefix_mgr *manager, const route_entry *route)
{
    const std::uint32_t address = route->prefix, encap = route->encap_id & ADJ_ENCAP_MASK, mask = mask_of(route);
    const int len = static_cast<int>(route->len);
    route_log(ROUTE_DBG_INFO, route->ctx,
              "prefix_mgr_route_add: enter w/ address and mask: %08x/%d, route_id %d encap %d ifid %d\n", address, len,
              route->route_id, static_cast<int>(encap), route->ifid);
    mtrie_node *root = mtrie_get_root_node(route->route_id);
    if (root == nullptr) {
        route_log(ROUTE_DBG_ERRORS, route->ctx,
                  "prefix_mgr_route_add: Null MTrie, cannot insert route. w/ address and mask: %08x/%d, treeid %x\n",
                  address, len, route->route_id);
        return 0;
    }
    mtrie_leaf *leaf = mtrie_lookup_exact(root, address, mask);
    if (leaf != nullptr && (route->flags & MTRIE_F_ECMP) != 0)
        return mtrie_ecmp_insert_stub(route->ctx, leaf, address, mask, encap, route->ifid, route->flags);
    const std::uint32_t result =
        mtrie_leaf_insert_stub(root, address, mask, encap, route->ifid, route->flags, route->ctx);
    if (result != 0) {
        route_log(ROUTE_DBG_INFO, route->ctx,
                  "prefix_mgr_route_add: tree_add  OK w/ address and mask: %08x/%d, tree %s routeid %d\n", address, len,
                  manager->trees[route->route_id]->name, route->route_id);
        return result;
    }
    route_log(ROUTE_DBG_ERRORS, route->ctx,
              "prefix_mgr_route_add: tree_add  FAILED w/ address and mask: %08x/%d, treeid %x\n", address, len,
              route->route_id);
    (void)mtrie_leaf_delete_stub(route->ctx, mtrie_get_root_node(route->route_id), address, mask); // mostly finds none
    return 0;
}

std::uint32_t prefix_mgr_route_remove(prefix_mgr *manager, const route_entry *route)
{
    const std::uint32_t address = route->prefix, encap = route->encap_id & ADJ_ENCAP_MASK, mask = mask_of(route);
    const int len = static_cast<int>(route->len);
    route_log(ROUTE_DBG_INFO, route->ctx,
              "prefix_mgr_route_remove: enter w/ address and mask: %08x/%d, route_id %d encap %d ifid %d\n", address,
              len, route->route_id, static_cast<int>(encap), route->ifid);
    mtrie_node *root = mtrie_get_root_node(route->route_id);
    if (root == nullptr) {
        route_log(ROUTE_DBG_ERRORS, route->ctx,
                  "prefix_mgr_route_remove: Null MTrie, cannot remove route. w/ address and mask: %08x/%d, treeid %x\n",
                  address, len, route->route_id);
        return 0;
    }
    mtrie_leaf *leaf = mtrie_lookup_exact(root, address, mask);
    if (leaf != nullptr && (leaf->adjacency & ADJ_ECMP) != 0 && leaf->ecmp)
        return mtrie_ecmp_remove_stub(route->ctx, leaf, address, mask, encap, route->ifid, route->flags);
    const std::uint32_t result = mtrie_leaf_delete_stub(route->ctx, root, address, mask);
    if (result != 0)
        route_log(ROUTE_DBG_INFO, route->ctx,
                  "prefix_mgr_route_remove: tree_remove  OK w/ address and mask: %08x/%d, tree %s\n", address, len,
                  manager->trees[route->route_id]->name);
    else
        route_log(ROUTE_DBG_ERRORS, route->ctx,
                  "prefix_mgr_route_remove: tree_remove  FAILED w/ address and mask: %08x/%d, treeid %x\n", address,
                  len, route->route_id);
    return result;
}
