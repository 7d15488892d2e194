// norvik_mtrie_leaf.cpp - leaf, ECMP and default-leaf operations: a route becomes leaves and blocks.
//
// A leaf's own adjacency word is path 1 of its route; an ECMP block holds paths 2 onwards. Every change of a block
// first takes its valid bit away in the hardware, then rewrites the entries, then the header.
// Always: header count == npaths modulo 8 while the header is valid.
// Elsewhere: which slots name a leaf (norvik_mtrie.cpp), how words are written to the processors (norvik_mtrie_hw.cpp).
#include "norvik_mtrie_leaf.h"

#include "line_format.h"
#include "mtrack.h"
#include "norvik_mtrie.h"
#include "norvik_mtrie_hw.h"
#include "route_entry.h"
#include "route_log.h"

card_ptr<mtrie_leaf> norvik_leaf_default[ROUTE_CONTEXTS];

namespace
{
std::uint32_t ecmp_flag(const mtrie_leaf *leaf) { return (leaf->adjacency & ADJ_ECMP) != 0 ? 1 : 0; }

void write_adjacency(mtrie_leaf *leaf, std::uint32_t word)
{
    leaf->adjacency = word;
    mtrie_hw_write_adjacency(leaf, &leaf->adjacency);
}

void write_block(mtrie_ecmp *block) { mtrie_hw_write_ecmp(block, block->hw); }

void set_header(mtrie_ecmp *block, std::uint32_t count, std::uint32_t sequence)
{
    block->hw[0] = ecmp_header(count, sequence);
}

// The processors stop using the block.
void invalidate(mtrie_ecmp *block)
{
    block->hw[0] &= ~ECMP_VALID;
    write_block(block);
}

// The leaf's second path: a block of its own.
std::uint32_t first_extra_path(std::uint32_t tree, mtrie_leaf *leaf, std::uint32_t prefix, std::uint32_t mask,
                               std::uint32_t encap, std::uint32_t ifid, std::uint32_t flags)
{
    mtrie_ecmp *block = mtrie_ecmp_alloc(tree, leaf);
    if (block == nullptr) {
        route_log(ROUTE_DBG_ERRORS, tree, "\n Cannot allocate memory for ecmp , flags %x, ifid %x. encap %x\n", flags,
                  ifid, encap);
        return 0;
    }
    mtrie_hw_set_ecmp(leaf, block);
    route_log(ROUTE_DBG_INFO, tree, "\n%s[%d] :: ecmp allocated 0x%x.\n", "mtrie_ecmp_insert_stub", 60,
              card_addr_of(block));
    block->prefix = prefix;
    block->mask = mask;
    block->npaths = 1;
    set_header(block, 1, 1);
    block->hw[1] = ecmp_entry(ifid, encap);
    write_block(block);
    write_adjacency(leaf, leaf->adjacency | ADJ_ECMP);
    return 1;
}

// Entry that holds the path, 1 to 7, or 0. All seven are searched, in use or not.
unsigned find_entry(const mtrie_ecmp *block, std::uint32_t ifid, std::uint32_t encap)
{
    for (unsigned i = 1; i < ECMP_WORDS; ++i)
        if (adj_encap(block->hw[i]) == encap && ecmp_entry_ifid(block->hw[i]) == ifid)
            return i;
    return 0;
}

// Gives the leaf's block back to the pool: the one path left is in the adjacency word.
void release_block(std::uint32_t tree, mtrie_leaf *leaf)
{
    mtrie_ecmp *block = leaf->ecmp;
    leaf->ecmp = nullptr;
    write_adjacency(leaf, leaf->adjacency & ~ADJ_ECMP);
    mtrie_hw_reset_ecmp(leaf);
    mtrie_ecmp_free(tree, block);
}

// Called when a leaf is freed: if it is a tree's default leaf, the tree has none from then on.
void forget_default_leaf(mtrie_leaf *leaf)
{
    if (leaf->mask != 0)
        return;
    for (card_ptr<mtrie_leaf> &entry : norvik_leaf_default)
        if (entry == leaf)
            entry = nullptr;
}
} // namespace

std::uint32_t mtrie_ecmp_insert_stub(std::uint32_t tree, mtrie_leaf *leaf, std::uint32_t prefix, std::uint32_t mask,
                                     std::uint32_t encap, std::uint32_t ifid, std::uint32_t flags)
{
    encap &= ADJ_ENCAP_MASK;
    if ((flags & MTRIE_F_ECMP) == 0) {
        route_log(ROUTE_DBG_ERRORS, tree, "\n ecmp_insert invalid, flags %x, leaf flag %x, ifid %x. encap %x\n", flags,
                  ecmp_flag(leaf), ifid, encap);
        return 0;
    }
    mtrie_ecmp *block = leaf->ecmp;
    if (block == nullptr)
        return first_extra_path(tree, leaf, prefix, mask, encap, ifid, flags);
    route_log(ROUTE_DBG_INFO, tree, "\n ecmp exists , flags %x, ifid %x. encap %x\n", flags, ifid, encap);
    if ((block->hw[0] & ECMP_VALID) == 0) {
        route_log(ROUTE_DBG_ERRORS, tree, "\n ecmp exists but invalid, flags %x, leaf flag %x, ifid %x. encap %x\n",
                  flags, ecmp_flag(leaf), ifid, encap);
        return 0;
    }
    if (block->npaths >= ECMP_WORDS - 1) {
        route_log(ROUTE_DBG_ERRORS, tree, "\n ecmp full, flags %x, ifid %x. encap %x\n", flags, ifid, encap);
        return 0;
    }
    const std::uint32_t header = block->hw[0];
    invalidate(block);
    set_header(block, ecmp_count(header) + 1, ecmp_sequence(header) + 1);
    block->npaths = static_cast<std::uint16_t>(block->npaths + 1);
    block->hw[block->npaths] = ecmp_entry(ifid, encap);
    write_block(block);
    return 1;
}

std::uint32_t mtrie_ecmp_remove_stub(std::uint32_t tree, mtrie_leaf *leaf, std::uint32_t, std::uint32_t,
                                     std::uint32_t encap, std::uint32_t ifid, std::uint32_t flags)
{
    encap &= ADJ_ENCAP_MASK;
    mtrie_ecmp *block = leaf->ecmp;
    const std::uint32_t header = block->hw[0];
    if ((header & ECMP_VALID) == 0) {
        route_log(ROUTE_DBG_ERRORS, tree, "\n remove ecmp but invlaid, flags %x, ifid %x. encap %x\n", flags, ifid,
                  encap);
        return 0;
    }
    invalidate(block);
    const bool own = adj_encap(leaf->adjacency) == encap && adj_ifid(leaf->adjacency) == ifid;
    const unsigned hole = own ? 0 : find_entry(block, ifid, encap);
    if (!own && hole == 0) {
        // Odd, and meant: the block stays invalid, in the record too, and refuses every later change.
        route_log(ROUTE_DBG_ERRORS, tree, "\n remove ecmp but can't locate entry, flags %x, ifid %x. encap %x\n", flags,
                  ifid, encap);
        return 0;
    }
    const std::uint32_t last = block->hw[block->npaths];
    if (own)
        write_adjacency(leaf, adj_pack(leaf->adjacency & (ADJ_IP_RESOLVE | ADJ_ECMP | ADJ_NAT), ecmp_entry_ifid(last),
                                       adj_encap(last)));
    else
        block->hw[hole] = last;
    block->hw[block->npaths] = 0;
    const std::uint16_t before = block->npaths;
    block->npaths = static_cast<std::uint16_t>(before - 1);
    set_header(block, ecmp_count(header) - 1, ecmp_sequence(header) - 1);
    if (before == 1 && ecmp_count(block->hw[0]) == 0)
        release_block(tree, leaf);
    else
        write_block(block);
    return 1;
}

std::uint32_t mtrie_leaf_insert_stub(mtrie_node *root, std::uint32_t prefix, std::uint32_t mask, std::uint32_t encap,
                                     std::uint32_t ifid, std::uint32_t flags, std::uint32_t tree)
{
    mtrie_leaf *leaf = mtrie_leaf_alloc(tree, root);
    line_print<"\n%s[%d] :: leaf allocated 0x%x.\n">("mtrie_leaf_insert_stub", 202, card_addr_of(leaf));
    if (leaf == nullptr) {
        route_log(ROUTE_DBG_ERRORS, tree, "leaf alloc fail:0x%x/%u", prefix, mtrie_mask_len(mask));
        return 0;
    }
    leaf->mask = mask;
    leaf->prefix = prefix;
    // The hardware leaf has its word before any slot names it.
    write_adjacency(leaf, adj_pack(((flags & MTRIE_F_IP_RESOLVE) != 0 ? ADJ_IP_RESOLVE : 0) |
                                       ((flags & MTRIE_F_NAT) != 0 ? ADJ_NAT : 0),
                                   ifid, encap));
    const int result = mtrie_leaf_insert(tree, root, leaf);
    if (result != 1) {
        // Odd, and meant: the leaf stays allocated, in no slot.
        route_log(ROUTE_DBG_ERRORS, tree, "leaf insert fail(%u):0x%x/%u", static_cast<unsigned>(result), prefix,
                  mtrie_mask_len(mask));
    }
    return static_cast<std::uint32_t>(result);
}

std::uint32_t mtrie_lookup_exact_stub(std::uint32_t route_id, std::uint32_t prefix, std::uint32_t mask,
                                      std::uint32_t *ifid)
{
    mtrie_node *root = mtrie_get_root_node(route_id);
    const mtrie_leaf *leaf = root == nullptr ? nullptr : mtrie_lookup_exact(root, prefix, mask);
    if (leaf == nullptr) {
        route_log(ROUTE_DBG_ERRORS, route_id, "\nRequested route %x/%x not found at root 0x%x in table.\n", prefix,
                  mask, card_addr_of(root));
        return 1;
    }
    route_log(ROUTE_DBG_INFO, route_id, "\nRequested route found, root 0x%x leaf 0x%x, encaps %u ifid %d.\n",
              card_addr_of(root), card_addr_of(leaf), adj_encap(leaf->adjacency),
              static_cast<int>(adj_ifid(leaf->adjacency)));
    *ifid = adj_ifid(leaf->adjacency);
    return 0;
}

std::uint32_t mtrie_leaf_delete_stub(std::uint32_t tree, mtrie_node *root, std::uint32_t prefix, std::uint32_t mask)
{
    mtrie_leaf *leaf = mtrie_lookup_exact(root, prefix, mask);
    if (leaf == nullptr) {
        line_print<"\nRoute to delete not found.\n">();
        return 0;
    }
    (void)mtrie_leaf_delete(tree, root, leaf); // always 0
    return 1;
}

mtrie_leaf *mtrie_alloc_default_leaf_stub(std::uint32_t tree)
{
    mtrie_leaf_gone = forget_default_leaf;
    mtrie_leaf *leaf = mtrie_leaf_alloc(tree, nullptr);
    line_print<"\n%s[%d] :: norvik_leaf_default allocated 0x%x.\n">("mtrie_alloc_default_leaf_stub", 299,
                                                                    card_addr_of(leaf));
    if (leaf == nullptr) {
        route_log(ROUTE_DBG_ERRORS, tree, "\n Failed to allocate default leaf.\n");
        return nullptr;
    }
    leaf->prefix = 0;
    leaf->mask = 0;
    write_adjacency(leaf, leaf->adjacency & ADJ_NAT);
    return leaf;
}

namespace
{
// Odd, and meant: ip-resolve and ECMP flags go, and a block that the leaf may hold stays with it.
std::uint32_t update_default(std::uint32_t route_id, mtrie_leaf *leaf, std::uint32_t encap, std::uint32_t ifid,
                             std::uint32_t flags)
{
    route_log(ROUTE_DBG_INFO, route_id, "update non-ECMP default, flags %x, leaf ecmp %x, ifid %x. encap %x", flags,
              ecmp_flag(leaf), ifid, encap);
    write_adjacency(leaf, adj_pack(leaf->adjacency & ADJ_NAT, ifid, encap));
    return 1;
}
} // namespace

std::uint32_t mtrie_set_default_leaf_stub(std::uint32_t route_id, std::uint32_t prefix, std::uint32_t mask,
                                          std::uint32_t encap, std::uint32_t ifid, std::uint32_t flags,
                                          std::uint32_t add)
{
    mtrie_leaf *leaf = norvik_leaf_default[route_id];
    encap &= ADJ_ENCAP_MASK;
    if (leaf == nullptr) {
        route_log(ROUTE_DBG_ERRORS, route_id, "set FAILED, norvik_leaf_default is NULL for routeId %d \n",
                  static_cast<int>(route_id));
        return 0;
    }
    if ((add & 0xFF) == 0) {
        if ((leaf->adjacency & ADJ_ECMP) == 0 || !leaf->ecmp)
            return update_default(route_id, leaf, 0, 0, flags);
        route_log(ROUTE_DBG_INFO, route_id, "\n remove ECMP default route, flags %x, leaf ecmp %x, ifid %x. encap %x\n",
                  flags, ecmp_flag(leaf), ifid, encap);
        return mtrie_ecmp_remove_stub(route_id, leaf, prefix, mask, encap, ifid, flags);
    }
    const bool forwards = (leaf->adjacency & (ADJ_IFID_MASK << ADJ_IFID_SHIFT | ADJ_ENCAP_MASK)) != 0;
    if ((flags & MTRIE_F_ECMP) == 0 || !forwards)
        return update_default(route_id, leaf, encap, ifid, flags);
    route_log(ROUTE_DBG_INFO, route_id, "\n add ECMP default route, flags %x, leaf ecmp %x, ifid %x. encap %x\n", flags,
              ecmp_flag(leaf), ifid, encap);
    return mtrie_ecmp_insert_stub(route_id, leaf, prefix, mask, encap, ifid, flags);
}

int norvik_rib_table_alloc(std::uint32_t *word)
{
    *word = card_addr_of(mtrack_alloc(ROUTE_MGR_UUID, MTRACK_ROUTE_TABLE, sizeof(prefix_tree::table)));
    return 0;
}
