// norvik_mtrie_check.cpp - audits of the trie and of the hardware tables.
//
// mtrie_check recomputes from the slots and links of one tree what the records claim. mtrie_hw_check compares the
// control plane of all trees with the wired copy, and the wired copy with each processor's, word by word. Neither
// changes anything; both answer with the number of rules broken.
#include "norvik_mtrie_check.h"

#include <map>
#include <vector>

#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_slot.h"
#include "route_table.h"

namespace
{
// What an audit of one tree has found so far.
struct tree_audit {
    std::map<const mtrie_leaf *, std::int32_t> references; // leaves found, and how many words name each
    mtrie_census census{};
    int broken = 0;
};

// The slots of `node` stand for the addresses from `base` on; a slot for 2^shift of them.
void audit_node(const mtrie_node *node, std::uint32_t base, unsigned shift, bool root, tree_audit &audit)
{
    std::int32_t used = 0, *references = nullptr; // those to the leaf of the slot before
    bool alike = !mtrie_is_child(node->children[0]);
    audit.census.nodes += 1;
    audit.broken += node->stride != MTRIE_STRIDE;
    for (std::uint32_t i = 0; i < MTRIE_SLOTS; ++i) {
        const std::uint32_t word = node->children[i];
        const std::uint32_t slot_base = base | i << shift;
        used += word != 0;
        alike = alike && word == node->children[0];
        if (mtrie_is_child(word)) {
            if (shift == 0)
                audit.broken += 1;
            else
                audit_node(mtrie_child_of(word), slot_base, shift - 8, false, audit);
        } else if (word != 0) {
            const mtrie_leaf *leaf = mtrie_leaf_of(word);
            if (i == 0 || word != node->children[i - 1])
                references = &audit.references[leaf];
            *references += 1;
            const std::uint32_t slot_mask = 0xFFFFFFFFu << shift;
            audit.broken += leaf->mask > slot_mask || (slot_base & leaf->mask) != leaf->prefix;
        }
    }
    audit.broken += !root && node->count != used;
    audit.census.foldable += !root && alike;
}

// Adds every leaf that is linked to one already found, and counts each link as a reference.
void audit_links(tree_audit &audit)
{
    std::vector<const mtrie_leaf *> pending;
    for (const auto &[leaf, count] : audit.references)
        pending.push_back(leaf);
    while (!pending.empty()) {
        const mtrie_leaf *leaf = pending.back();
        pending.pop_back();
        for (const mtrie_leaf *other : {leaf->back.get(), leaf->fwd.get(), leaf->left.get(), leaf->right.get()}) {
            if (other == nullptr)
                continue;
            const auto [met, is_new] = audit.references.try_emplace(other, 0);
            met->second += 1;
            if (is_new)
                pending.push_back(other);
        }
    }
}

bool is_on_fwd_list(const mtrie_leaf *leaf, const mtrie_leaf *back)
{
    for (const mtrie_leaf *other = back->fwd; other != nullptr; other = other->right)
        if (other == leaf)
            return true;
    return false;
}

void audit_leaf(const mtrie_leaf *leaf, std::int32_t references, tree_audit &audit)
{
    audit.broken += leaf->refcount != references;
    audit.broken += (leaf->prefix & leaf->mask) != leaf->prefix;
    if (leaf->back) {
        audit.broken += leaf->back->mask >= leaf->mask || (leaf->prefix & leaf->back->mask) != leaf->back->prefix;
        audit.broken += !is_on_fwd_list(leaf, leaf->back);
    } else {
        audit.broken += leaf->left || leaf->right;
    }
    audit.broken += leaf->fwd && (leaf->fwd->left || leaf->fwd->back.get() != leaf);
    audit.broken += leaf->right && (leaf->right->left.get() != leaf || leaf->right->back != leaf->back);
    audit.broken += leaf->left && leaf->left->right.get() != leaf;
}
} // namespace

int mtrie_check(const mtrie_node *root, mtrie_census *census)
{
    tree_audit audit;
    audit_node(root, 0, 24, true, audit);
    audit_links(audit);
    for (const auto &[leaf, references] : audit.references)
        audit_leaf(leaf, references, audit);
    audit.census.leaves = static_cast<std::uint32_t>(audit.references.size());
    if (census != nullptr)
        *census = audit.census;
    return audit.broken;
}

namespace
{
const std::uint32_t *table_at(card_addr base, std::uint32_t offset)
{
    return card_at<const std::uint32_t>(base + offset);
}

// The words of a processor's copy from `at` to `end` that are not those of the wired copy.
int copy_differences(const mtrie_hw_copy &copy, std::uint32_t at, std::uint32_t end)
{
    const auto in_its_form = [&copy](std::uint32_t word) {
        return word == 0 ? 0 : word - wired_route_phys_base + copy.form;
    };
    int differ = 0;
    for (; at < end && at < HW_TABLE_BYTES; at += 4) {
        const bool leaf_address = at >= HW_LEAVES && at < HW_ECMPS && (at - HW_LEAVES) % HW_LEAF_BYTES == 4;
        const std::uint32_t wired = *table_at(va_wired_base, at);
        differ += *table_at(copy.base, at) != (at < HW_LEAVES || leaf_address ? in_its_form(wired) : wired);
    }
    return differ;
}

std::uint32_t physical_word(std::uint32_t word)
{
    if (word == 0)
        return 0;
    if (!mtrie_is_child(word))
        return wired_route_phys_base + mtrie_slot_of(mtrie_leaf_of(word));
    return (wired_route_phys_base + mtrie_slot_of(mtrie_child_of(word))) | HW_NODE_TAG;
}

int leaf_differences(const mtrie_leaf *leaf)
{
    const std::uint32_t *hw = table_at(va_wired_base, mtrie_slot_of(leaf));
    if (!leaf->ecmp)
        return (hw[0] != leaf->adjacency) + (hw[1] != 0);
    const std::uint32_t offset = mtrie_slot_of(leaf->ecmp.get());
    int differ = (hw[0] != leaf->adjacency) + (hw[1] != wired_route_phys_base + offset);
    for (unsigned i = 0; i < ECMP_WORDS; ++i)
        differ += table_at(va_wired_base, offset)[i] != leaf->ecmp->hw[i];
    return differ;
}

int node_differences(const mtrie_node *node)
{
    const std::uint32_t *hw = table_at(va_wired_base, mtrie_slot_of(node));
    int differ = 0;
    for (std::uint32_t i = 0; i < MTRIE_SLOTS; ++i) {
        const std::uint32_t word = node->children[i];
        differ += hw[i] != physical_word(word);
        if (mtrie_is_child(word))
            differ += node_differences(mtrie_child_of(word));
        else if (word != 0 && (i == 0 || word != node->children[i - 1]))
            differ += leaf_differences(mtrie_leaf_of(word));
    }
    return differ;
}
} // namespace

int mtrie_hw_check_copies(std::uint32_t from, std::uint32_t to)
{
    int differ = 0;
    for (unsigned copy = MTRIE_HW_IXP1; copy < MTRIE_HW_COPIES; ++copy)
        if (mtrie_hw_copies[copy].base != 0)
            differ += copy_differences(mtrie_hw_copies[copy], from, to);
    return differ;
}

int mtrie_hw_check_tree(std::uint32_t tree)
{
    const mtrie_node *const root = mtrie_get_root_node(tree);
    return root == nullptr ? 0 : node_differences(root);
}

int mtrie_hw_check()
{
    int differ = mtrie_hw_check_copies(0, HW_TABLE_BYTES);
    for (std::uint32_t tree = 0; tree < HW_ROOT_COUNT; ++tree)
        differ += mtrie_hw_check_tree(tree);
    return differ;
}
