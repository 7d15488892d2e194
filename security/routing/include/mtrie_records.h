// mtrie_records.h - the trie's records in the control plane, and the adjacency word that they share with the hardware.
#pragma once

#include <cstddef>
#include <cstdint>

#include "card_space.h"

// Adjacency word, alike in leaf and hardware leaf: 31 ip-resolve, 30 ECMP, 29 NAT, 28..16 ifid, 15..0 encap id.
constexpr std::uint32_t ADJ_IP_RESOLVE = 1u << 31, ADJ_ECMP = 1u << 30, ADJ_NAT = 1u << 29;
constexpr std::uint32_t ADJ_IFID_MASK = 0x1FFF, ADJ_ENCAP_MASK = 0xFFFF;
constexpr unsigned ADJ_IFID_SHIFT = 16;
constexpr std::uint32_t adj_pack(std::uint32_t flags, std::uint32_t ifid, std::uint32_t encap)
{
    return flags | (ifid & ADJ_IFID_MASK) << ADJ_IFID_SHIFT | (encap & ADJ_ENCAP_MASK);
}
constexpr std::uint32_t adj_ifid(std::uint32_t word) { return word >> ADJ_IFID_SHIFT & ADJ_IFID_MASK; }
constexpr std::uint32_t adj_encap(std::uint32_t word) { return word & ADJ_ENCAP_MASK; }
static_assert(adj_pack(ADJ_ECMP, 5, 0x1234) == 0x40051234 && adj_ifid(0x40051234) == 5);

// ECMP block: header (31 valid, 30..28 count, 27..25 sequence), then entries (31..18 ifid, 15..0 encap id).
constexpr std::uint32_t ECMP_VALID = 1u << 31;
constexpr unsigned ECMP_COUNT_SHIFT = 28, ECMP_SEQ_SHIFT = 25, ECMP_WORDS = 8, ECMP_IFID_SHIFT = 18;
constexpr std::uint32_t ECMP_FIELD_MASK = 7, ECMP_IFID_MASK = 0x3FFF;
constexpr std::uint32_t ecmp_header(std::uint32_t count, std::uint32_t sequence)
{
    return ECMP_VALID | (count & ECMP_FIELD_MASK) << ECMP_COUNT_SHIFT | (sequence & ECMP_FIELD_MASK) << ECMP_SEQ_SHIFT;
}
constexpr std::uint32_t ecmp_count(std::uint32_t header) { return header >> ECMP_COUNT_SHIFT & ECMP_FIELD_MASK; }
constexpr std::uint32_t ecmp_sequence(std::uint32_t header) { return header >> ECMP_SEQ_SHIFT & ECMP_FIELD_MASK; }
constexpr std::uint32_t ecmp_entry(std::uint32_t ifid, std::uint32_t encap)
{
    return (ifid & ECMP_IFID_MASK) << ECMP_IFID_SHIFT | (encap & ADJ_ENCAP_MASK);
}
constexpr std::uint32_t ecmp_entry_ifid(std::uint32_t entry) { return entry >> ECMP_IFID_SHIFT; }
static_assert(ecmp_header(1, 1) == 0x92000000);

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
