// mtrie_records.h - the trie's records in the control plane.
//
// Elsewhere: the words that leaf and block share with the hardware (route_table.h).
#pragma once

#include <cstddef>
#include <cstdint>

#include "card_space.h"
#include "route_table.h"

// Bits of a route's flags that the trie reads (the same bits as in the route entry).
constexpr std::uint32_t MTRIE_F_IP_RESOLVE = 0x20, MTRIE_F_ECMP = 0x40, MTRIE_F_NAT = 0x80;

constexpr unsigned MTRIE_STRIDE = 8, MTRIE_SLOTS = 256;

struct mtrie_node {
    std::int32_t count;                  // non-empty slots; not kept for a root
    std::uint32_t stride;                // address bits that the node consumes: 8
    std::uint32_t children[MTRIE_SLOTS]; // slot words: 0, a leaf's address, or a child's `children` address with bit 0
};
static_assert(sizeof(mtrie_node) == 1032 && offsetof(mtrie_node, children) == 8);

struct mtrie_ecmp {
    std::uint32_t prefix;
    std::uint32_t mask;
    std::uint16_t npaths; // entries in use, 1 to 7
    std::uint16_t unused;
    std::uint32_t hw[ECMP_WORDS]; // the hardware block, word for word
};
static_assert(sizeof(mtrie_ecmp) == 44 && offsetof(mtrie_ecmp, hw) == 12);

struct mtrie_leaf {
    card_ptr<mtrie_leaf> back; // the less specific leaf that covers this one
    card_ptr<mtrie_leaf> fwd;  // first of the leaves whose back is this one
    card_ptr<mtrie_leaf> left; // neighbours in the fwd_list of `back`
    card_ptr<mtrie_leaf> right;
    std::uint32_t prefix;  // masked
    std::uint32_t mask;    // contiguous
    std::int32_t refcount; // slots, back, fwd, left and right words that name it
    std::uint32_t adjacency;
    card_ptr<mtrie_ecmp> ecmp;
};
static_assert(sizeof(mtrie_leaf) == 36 && offsetof(mtrie_leaf, adjacency) == 28);

// Kinds of slot word.
constexpr std::uint32_t MTRIE_CHILD = 1; // tag of a child node
constexpr bool mtrie_is_child(std::uint32_t word) { return (word & MTRIE_CHILD) != 0; }
inline std::uint32_t mtrie_child_word(const mtrie_node *node) { return card_addr_of(node->children) | MTRIE_CHILD; }
inline mtrie_node *mtrie_child_of(std::uint32_t word)
{
    return card_at<mtrie_node>((word & ~MTRIE_CHILD) - static_cast<card_addr>(offsetof(mtrie_node, children)));
}
inline mtrie_leaf *mtrie_leaf_of(std::uint32_t word) { return word == 0 ? nullptr : card_at<mtrie_leaf>(word); }
