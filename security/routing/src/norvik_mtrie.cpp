// norvik_mtrie.cpp - the multibit trie of a tree: strides 8-8-8-8, one leaf a prefix.
//
// A prefix is one leaf, named by every slot that its range covers at the level where it ends. `back` is the less
// specific leaf that covers it, `fwd` the first of the leaves whose back it is; these are a list by `left` and `right`.
// 10/8, 10.1/16 and 10.1.2/24 over a default leaf /0:
//
//   root, bits 31..24       A, bits 23..16         B, bits 15..8
//     0..9    /0              0       10/8           0..1    10.1/16
//     10      ----------->    1       ---------->    2       10.1.2/24
//     11..255 /0              2..255  10/8           3..255  10.1/16
//
//   /0  <--back--  10/8  <--back--  10.1/16  <--back--  10.1.2/24
//   /0  --fwd--->  10/8  --fwd--->  10.1/16  --fwd--->  10.1.2/24
//
// A leaf counts the words that name it: 10/8 has 255 slots, the fwd of /0 and the back of 10.1/16. The newest leaf is
// the head of its list: after an insert of 10.9/16, `fwd` of 10/8 is 10.9/16, the `right` of 10.9/16 is 10.1/16, and
// the `left` of 10.1/16 is 10.9/16.
//
// Where a slot on the way of an insert holds a leaf, a new node goes below it, with that leaf in all its slots. So the
// insert of 10.1/16 made A, and that of 10.1.2/24 made B. Then each slot of the range is visited, also in the nodes
// below. An empty slot takes the new leaf. Any other slot is one of two cases:
//   displace    The slot's leaf is less specific and is replaced: 10.1/16 replaced 10/8 in slot 1 of A, and 10/8 became
//               its back.
//   slip under  The slot's leaf is more specific and stays. An insert of 10.0/15 displaces 10/8 in slot 0 of A, and
//               finds 10.1/16 and 10.1.2/24 in B. From either, `back` leads to 10.1/16 as the last leaf that is more
//               specific than 10.0/15: the back of 10.1/16 becomes 10.0/15.
// Odd, and meant: a leaf that displaces none, such as a /24 over two /25s, has no back, and its removal leaves the
// leaves under it without one.
//
// A removal visits the same slots. A slot that holds the leaf takes the leaf's back. A more specific leaf stays:
//   relink past  A removal of 10.1/16 finds 10.1.2/24 in slot 2 of B: the back of 10.1.2/24 becomes 10/8.
// Afterwards a node that is empty, or holds one leaf in all its slots, is folded into its slot above: a removal of
// 10.1.2/24 too folds B into slot 1 of A, then A into slot 10 of the root.
//
// Every change of a slot is handed to the hardware hooks at once, before the reference that it replaces is released.
// Always: mtrie_check answers 0, unless a broken list was reported.
// Elsewhere: the records (norvik_mtrie_pool.cpp), their hardware slots (norvik_mtrie_hw.cpp), what a leaf forwards to
// (norvik_mtrie_leaf.cpp).
#include "norvik_mtrie.h"

#include <bit>

#include "line_format.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_pool.h"

mtrie_leaf_gone_hook mtrie_leaf_gone = nullptr;

namespace
{
unsigned len_of(const mtrie_leaf *leaf) { return mtrie_mask_len(leaf->mask); }
std::uint32_t word_of(const mtrie_leaf *leaf) { return card_addr_of(leaf); }

void set_slot(mtrie_node *node, std::uint32_t index, std::uint32_t word)
{
    node->children[index] = word;
    (void)reg_invoke_hw_add_child_to_mnode(node, word, index); // the word is a record of ours: never refused
}

void fill_slots(mtrie_node *node, std::uint32_t word)
{
    for (std::uint32_t &slot : node->children)
        slot = word;
    (void)reg_invoke_hw_add_child_block_to_mnode(node, word, 0, MTRIE_SLOTS);
}

void release_node(std::uint32_t tree, mtrie_node *node)
{
    reg_invoke_hw_mtrie_node_free(node);
    mtrie_node_free_pool(tree, node);
}

// The bits of `address` that a node `shift` bits above the bottom consumes.
std::uint32_t slot_index(std::uint32_t address, unsigned shift) { return address >> shift & (MTRIE_SLOTS - 1); }
} // namespace

unsigned mtrie_mask_len(std::uint32_t mask) { return static_cast<unsigned>(std::popcount(mask)); }

void mtrie_init(mtrie_node *root, mtrie_leaf *default_leaf, std::uint32_t stride)
{
    const std::uint32_t slots = 1u << stride;
    root->stride = stride;
    for (std::uint32_t i = 0; i < slots; ++i)
        root->children[i] = word_of(default_leaf);
    if (default_leaf != nullptr)
        default_leaf->refcount += static_cast<std::int32_t>(slots);
    (void)reg_invoke_hw_add_child_block_to_mnode(root, word_of(default_leaf), 0, slots);
}

mtrie_node *mtrie_node_alloc(std::uint32_t tree)
{
    mtrie_node *node = mtrie_node_alloc_pool(tree);
    if (node == nullptr)
        return nullptr;
    node->stride = MTRIE_STRIDE;
    int ok = 0;
    reg_invoke_hw_mtrie_node_alloc(node, &ok);
    if (ok == 1)
        return node;
    release_node(tree, node);
    return nullptr;
}

mtrie_leaf *mtrie_leaf_alloc(std::uint32_t tree, mtrie_node *node)
{
    mtrie_leaf *leaf = mtrie_leaf_alloc_pool(tree);
    if (leaf == nullptr)
        return nullptr;
    int ok = 0;
    reg_invoke_hw_mtrie_leaf_alloc(leaf, &ok);
    if (ok == 1)
        return leaf;
    mtrie_leaf_free(tree, node, leaf);
    return nullptr;
}

mtrie_ecmp *mtrie_ecmp_alloc(std::uint32_t tree, mtrie_leaf *leaf)
{
    mtrie_ecmp *block = mtrie_ecmp_alloc_pool(tree);
    if (block != nullptr)
        leaf->ecmp = block;
    return block;
}

void mtrie_ecmp_free(std::uint32_t tree, mtrie_ecmp *block) { mtrie_ecmp_free_pool(tree, block); }

void mtrie_leaf_free(std::uint32_t tree, mtrie_node *, mtrie_leaf *leaf)
{
    static const char *const NAME = "mtrie_leaf_free";
    if (leaf == nullptr || --leaf->refcount >= 1)
        return;
    const std::uint32_t prefix = leaf->prefix;
    const unsigned len = len_of(leaf);
    line_print<"\n%s[%d] :: Removing mtrie_leaf structure: 0x%x/%u\n">(NAME, 95, prefix, len);
    if (leaf->fwd)
        line_print<"\n%s[%d] ::  refcount of leaf reached 0 while fwd_list non-empty prefix 0x%x bits in mask %u.">(
            NAME, 103, prefix, len);
    if (leaf->back)
        line_print<"\n%s[%d] :: refcount of leaf reached 0 while back pointer set prefix 0x%x bits in mask %u.">(
            NAME, 114, prefix, len);
    if (leaf->left)
        line_print<"\n%s[%d] :: refcount of leaf reached 0 while left pointer set prefix 0x%x bits in mask %u">(
            NAME, 125, prefix, len);
    if (leaf->right)
        line_print<"\n%s[%d] :: refcount of leaf reached 0 while right pointer set prefix 0x%x bits in mask %u">(
            NAME, 136, prefix, len);
    reg_invoke_hw_mtrie_leaf_free();
    if (mtrie_leaf_gone != nullptr)
        mtrie_leaf_gone(leaf);
    mtrie_leaf_free_pool(tree, leaf);
}

namespace
{
// At the head of the list. A leaf that is still in a list is left where it is.
void mtrie_add_to_fwd_list(mtrie_leaf *leaf, mtrie_leaf *back)
{
    static const char *const NAME = "mtrie_add_to_fwd_list";
    line_print<"\n%s[%d] :: Adding mtrie_leaf 0x%x/%d to fwd_list of 0x%x/%d">(
        NAME, 210, leaf->prefix, static_cast<int>(len_of(leaf)), back->prefix, static_cast<int>(len_of(back)));
    if (leaf->left) {
        line_print<"\n%s[%d] :: add failed as leaf already has a left peer prefix 0x%x bits in mask %u.\n">(
            NAME, 219, leaf->prefix, len_of(leaf));
        return;
    }
    if (leaf->right) {
        line_print<"\n%s[%d] :: add failed as leaf already has a right peer prefix 0x%x bits in mask %u.\n">(
            NAME, 227, leaf->prefix, len_of(leaf));
        return;
    }
    mtrie_leaf *head = back->fwd;
    if (head != nullptr) {
        if (head->left) {
            line_print<"\n%s[%d] :: add failed as this first forward leaf already has a left peer, prefix 0x%x bits "
                       "in mask %u.\n">(NAME, 238, head->prefix, len_of(head));
            return;
        }
        head->left = leaf;
        leaf->refcount += 1;
    }
    leaf->right = head; // the reference that `fwd` held on the old head passes to `right`
    back->fwd = leaf;
    leaf->refcount += 1;
}

card_ptr<mtrie_leaf> with_reference(card_ptr<mtrie_leaf> leaf)
{
    if (leaf)
        leaf->refcount += 1;
    return leaf;
}

// The leaf may lose its last reference here. Its record keeps its contents until it is allocated again, so the steps
// that follow still read the right values.
void mtrie_remove_from_fwd_list(std::uint32_t tree, mtrie_node *node, mtrie_leaf *leaf)
{
    static const char *const NAME = "mtrie_remove_from_fwd_list";
    line_print<"\n%s[%d] :: Removing mtrie_leaf 0x%x/%d @ 0x%x from forward list">(
        NAME, 265, leaf->prefix, static_cast<int>(len_of(leaf)), card_addr_of(leaf));
    if (!leaf->back) {
        line_print<"\n%s[%d] ::  not removing from forward list as back ptr isn't set prefix 0x%x bits in mask %u.\n">(
            NAME, 272, leaf->prefix, len_of(leaf));
        return;
    }
    if (leaf->back->fwd == leaf) {
        leaf->back->fwd = with_reference(leaf->right);
        mtrie_leaf_free(tree, node, leaf);
    }
    if (mtrie_leaf *left = leaf->left) {
        if (left->right != leaf) {
            line_print<"\n%s[%d] :: leaf->left->right not equal to leaf prefix 0x%x bits in mask %u.\n">(
                NAME, 303, leaf->prefix, len_of(leaf));
            return;
        }
        left->right = with_reference(leaf->right);
        mtrie_leaf_free(tree, node, leaf);
    }
    if (mtrie_leaf *right = leaf->right) {
        if (right->left != leaf) {
            line_print<"\n%s[%d] :: cannot remove from fwd list as leaf->right->left not equal to leaf prefix 0x%x "
                       "bits in mask %u.\n">(NAME, 321, leaf->prefix, len_of(leaf));
            return;
        }
        right->left = with_reference(leaf->left);
        mtrie_leaf_free(tree, node, leaf);
    }
    mtrie_leaf_free(tree, node, leaf->left);
    mtrie_leaf_free(tree, node, leaf->right);
    leaf->left = nullptr;
    leaf->right = nullptr;
}

void mtrie_leaf_link_to_back_leaf(std::uint32_t tree, mtrie_node *node, mtrie_leaf *leaf, mtrie_leaf *back)
{
    static const char *const NAME = "mtrie_leaf_link_to_back_leaf";
    if (back != nullptr)
        line_print<"\n%s[%d] :: Linking mtrie_leaf 0x%x/%d to back leaf 0x%x/%d">(
            NAME, 356, leaf->prefix, static_cast<int>(len_of(leaf)), back->prefix, static_cast<int>(len_of(back)));
    else
        line_print<"\n%s[%d] :: Linking mtrie_leaf 0x%x/%d to back leaf NULL">(NAME, 363, leaf->prefix,
                                                                               static_cast<int>(len_of(leaf)));
    if (mtrie_leaf *old = leaf->back) {
        mtrie_remove_from_fwd_list(tree, node, leaf);
        mtrie_leaf_free(tree, node, old);
    }
    leaf->back = back;
    if (back != nullptr) {
        mtrie_add_to_fwd_list(leaf, back);
        back->refcount += 1;
    }
}

// The new leaf replaces `old`, a less specific one, in a slot.
void displace(std::uint32_t tree, mtrie_node *node, std::uint32_t index, mtrie_leaf *leaf, mtrie_leaf *old)
{
    set_slot(node, index, word_of(leaf));
    leaf->refcount += 1;
    if (!leaf->back)
        mtrie_leaf_link_to_back_leaf(tree, node, leaf, old);
    mtrie_leaf_free(tree, node, old);
}

// `specific` stays in its slot. From it, `back` leads to the last leaf that is more specific than the new one: that
// leaf gets the new one as its back.
void slip_under(std::uint32_t tree, mtrie_node *node, mtrie_leaf *leaf, mtrie_leaf *specific)
{
    mtrie_leaf *c = specific;
    while (c->back && c->back->mask > leaf->mask)
        c = c->back;
    if (c->back != leaf)
        mtrie_leaf_link_to_back_leaf(tree, node, c, leaf);
}

void mtrie_install_child(mtrie_node *node, std::uint32_t index, mtrie_leaf *leaf)
{
    node->children[index] = word_of(leaf);
    leaf->refcount += 1;
    node->count += 1;
    (void)reg_invoke_hw_add_child_to_mnode(node, word_of(leaf), index);
}

void mtrie_spread_leaf(std::uint32_t tree, mtrie_node *node, mtrie_leaf *leaf, std::uint32_t first,
                       std::uint32_t length)
{
    const std::uint32_t end = first + (1u << (node->stride - length));
    for (std::uint32_t i = first; i < end; ++i) {
        const std::uint32_t word = node->children[i];
        if (mtrie_is_child(word)) {
            mtrie_spread_leaf(tree, mtrie_child_of(word), leaf, 0, 0);
            continue;
        }
        mtrie_leaf *old = mtrie_leaf_of(word);
        if (old == nullptr)
            mtrie_install_child(node, i, leaf);
        else if (old->mask < leaf->mask)
            displace(tree, node, i, leaf, old);
        else if (old->mask > leaf->mask)
            slip_under(tree, node, leaf, old);
    }
}

// Puts a new node below slot `index` of `parent`, holding the slot's leaf in all its slots. Returns it, or null.
mtrie_node *push_down(std::uint32_t tree, mtrie_node *parent, std::uint32_t index)
{
    mtrie_node *child = mtrie_node_alloc(tree);
    if (child == nullptr)
        return nullptr;
    mtrie_leaf *old = mtrie_leaf_of(parent->children[index]);
    if (old != nullptr) {
        old->refcount += static_cast<std::int32_t>(MTRIE_SLOTS);
        fill_slots(child, word_of(old));
        child->count = static_cast<std::int32_t>(MTRIE_SLOTS);
        mtrie_leaf_free(tree, parent, old);
        parent->count -= 1;
    } else {
        (void)reg_invoke_hw_add_child_block_to_mnode(child, 0, 0, MTRIE_SLOTS);
    }
    parent->count += 1;
    set_slot(parent, index, mtrie_child_word(child));
    return child;
}

// Returns 1, or 0 when there was no node left; the nodes built until then stay, and every lookup answers as before.
int mtrie_insert_walk(std::uint32_t tree, mtrie_node *root, mtrie_leaf *leaf)
{
    leaf->prefix &= leaf->mask;
    mtrie_node *node = root;
    unsigned shift = 32 - root->stride, remaining = len_of(leaf);
    std::uint32_t index = leaf->prefix >> shift;
    while (node->stride < remaining) {
        const std::uint32_t word = node->children[index];
        mtrie_node *child = mtrie_is_child(word) ? mtrie_child_of(word) : push_down(tree, node, index);
        if (child == nullptr)
            return 0;
        remaining -= node->stride;
        shift -= MTRIE_STRIDE;
        index = slot_index(leaf->prefix, shift);
        node = child;
    }
    mtrie_spread_leaf(tree, node, leaf, index, remaining);
    return 1;
}

// The slot of a leaf that is being deleted takes the leaf's back.
void mtrie_slot_release(std::uint32_t tree, mtrie_node *node, std::uint32_t index, mtrie_leaf *leaf)
{
    const card_ptr<mtrie_leaf> back = with_reference(leaf->back);
    if (!back)
        node->count -= 1;
    set_slot(node, index, back.addr());
    mtrie_leaf_free(tree, node, leaf);
}

// Of the leaves to which `back` leads from `from`, the one whose back is the deleted leaf gets that leaf's back.
void relink_past(std::uint32_t tree, mtrie_node *node, mtrie_leaf *from, const mtrie_leaf *previous,
                 mtrie_leaf *deleted)
{
    for (mtrie_leaf *leaf = from; leaf != nullptr && leaf != previous; leaf = leaf->back)
        if (leaf->back == deleted)
            return mtrie_leaf_link_to_back_leaf(tree, node, leaf, deleted->back);
}

bool all_slots_alike(const mtrie_node *node)
{
    for (const std::uint32_t word : node->children)
        if (word != node->children[0])
            return false;
    return !mtrie_is_child(node->children[0]);
}

void mtrie_node_try_collapse(std::uint32_t tree, mtrie_node *parent, mtrie_node *child, std::uint32_t index)
{
    if (child->count == 0) {
        set_slot(parent, index, 0);
        release_node(tree, child);
        parent->count -= 1;
    } else if (child->count == static_cast<std::int32_t>(MTRIE_SLOTS) && all_slots_alike(child)) {
        mtrie_leaf *leaf = mtrie_leaf_of(child->children[0]);
        set_slot(parent, index, word_of(leaf));
        leaf->refcount += 1;
        for (std::uint32_t &slot : child->children) {
            mtrie_leaf_free(tree, child, leaf);
            slot = 0;
        }
        (void)reg_invoke_hw_add_child_block_to_mnode(child, 0, 0, MTRIE_SLOTS);
        release_node(tree, child);
    }
}

// Visits the slots of `node` that the deleted prefix covers; the node consumes the bits from `shift` on.
void mtrie_delete_walk(std::uint32_t tree, mtrie_node *node, mtrie_leaf *leaf, unsigned shift)
{
    const std::uint32_t mask = slot_index(leaf->mask, shift), wanted = slot_index(leaf->prefix & leaf->mask, shift);
    const mtrie_leaf *previous = nullptr;
    for (std::uint32_t i = wanted; i < 1u << node->stride && (i & mask) == wanted; ++i) {
        const std::uint32_t word = node->children[i];
        if (mtrie_is_child(word)) {
            mtrie_node *child = mtrie_child_of(word);
            mtrie_delete_walk(tree, child, leaf, shift - MTRIE_STRIDE);
            mtrie_node_try_collapse(tree, node, child, i);
            previous = nullptr;
            continue;
        }
        mtrie_leaf *found = mtrie_leaf_of(word);
        if (found == leaf)
            mtrie_slot_release(tree, node, i, leaf);
        else if (found != previous)
            relink_past(tree, node, found, previous, leaf);
        previous = found;
    }
}
} // namespace

int mtrie_leaf_insert(std::uint32_t tree, mtrie_node *root, mtrie_leaf *leaf)
{
    if (mtrie_lookup_exact(root, leaf->prefix, leaf->mask) != nullptr)
        return 2;
    return mtrie_insert_walk(tree, root, leaf);
}

int mtrie_leaf_delete(std::uint32_t tree, mtrie_node *root, mtrie_leaf *leaf)
{
    mtrie_delete_walk(tree, root, leaf, 32 - root->stride);
    mtrie_leaf_link_to_back_leaf(tree, root, leaf, nullptr);
    return 0;
}

mtrie_leaf *mtrie_longest_match(mtrie_node *root, std::uint32_t address)
{
    std::uint32_t word = root->children[address >> 24];
    for (unsigned shift = 16; mtrie_is_child(word); shift -= MTRIE_STRIDE)
        word = mtrie_child_of(word)->children[slot_index(address, shift)];
    return mtrie_leaf_of(word);
}

mtrie_leaf *mtrie_lookup_exact(mtrie_node *root, std::uint32_t prefix, std::uint32_t mask)
{
    mtrie_leaf *leaf = mtrie_longest_match(root, prefix);
    while (leaf != nullptr && (leaf->prefix != prefix || leaf->mask != mask))
        leaf = leaf->back;
    return leaf;
}
