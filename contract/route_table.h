/* route_table.h - the route table as the network processors read it: its layout and its words.
 *
 * The table is the start of the wired region and the whole of each processor's table memory: the root words, the
 * nodes, the leaves, the ECMP blocks. Words have 32 bits in the host's order and are stored and loaded whole. The wired
 * copy holds physical addresses, a processor's copy that processor's own; 0 is 0 in both.
 * In C and C++, for a program of a processor may be written in either.
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
#define ROUTE_TABLE_FUNCTION constexpr
#else
#define ROUTE_TABLE_FUNCTION static inline
#endif

/* Layout, in bytes from the start of the table. A tree's root word is the word of its route id. */
#define HW_ROOT_COUNT 256u
#define HW_NODES 0x400u
#define HW_NODE_COUNT 1024u
#define HW_NODE_BYTES 1024u
#define HW_LEAVES 0x100400u
#define HW_LEAF_COUNT 1024u
#define HW_LEAF_BYTES 8u /* adjacency word, then the address of its ECMP block or 0 */
#define HW_ECMPS 0x102400u
#define HW_ECMP_COUNT 128u
#define HW_ECMP_BYTES 32u
#define HW_TABLE_BYTES 0x103400u

#define HW_WIRED_BYTES 0x1400000u        /* the whole wired region */
#define HW_WIRED_BASE_DEFAULT 0x8000000u /* its physical address, unless card.conf says otherwise */
#define HW_IXP_BASE 0x202000u            /* the table's address as a processor sees it */
#define HW_IXP1_PCI 0x48202000u
#define HW_IXP2_PCI 0x50202000u

/* Root and slot words: 0, the address of a leaf, or the address of a node with bit 0. */
#define HW_NODE_TAG 1u

/* Adjacency word: 31 ip-resolve, 30 ECMP, 29 NAT, 28..16 interface id, 15..0 encap id. */
#define ADJ_IP_RESOLVE 0x80000000u
#define ADJ_ECMP 0x40000000u
#define ADJ_NAT 0x20000000u
#define ADJ_IFID_SHIFT 16u
#define ADJ_IFID_MASK 0x1FFFu
#define ADJ_ENCAP_MASK 0xFFFFu

ROUTE_TABLE_FUNCTION uint32_t adj_pack(uint32_t flags, uint32_t ifid, uint32_t encap)
{
    return flags | (ifid & ADJ_IFID_MASK) << ADJ_IFID_SHIFT | (encap & ADJ_ENCAP_MASK);
}
ROUTE_TABLE_FUNCTION uint32_t adj_ifid(uint32_t word) { return word >> ADJ_IFID_SHIFT & ADJ_IFID_MASK; }
ROUTE_TABLE_FUNCTION uint32_t adj_encap(uint32_t word) { return word & ADJ_ENCAP_MASK; }

/* ECMP block: header (31 valid, 30..28 paths, 27..25 sequence), then entries (31..18 interface id, 15..0 encap id). */
#define ECMP_VALID 0x80000000u
#define ECMP_COUNT_SHIFT 28u
#define ECMP_SEQ_SHIFT 25u
#define ECMP_FIELD_MASK 7u
#define ECMP_WORDS 8u
#define ECMP_IFID_SHIFT 18u
#define ECMP_IFID_MASK 0x3FFFu

ROUTE_TABLE_FUNCTION uint32_t ecmp_header(uint32_t count, uint32_t sequence)
{
    return ECMP_VALID | (count & ECMP_FIELD_MASK) << ECMP_COUNT_SHIFT | (sequence & ECMP_FIELD_MASK) << ECMP_SEQ_SHIFT;
}
ROUTE_TABLE_FUNCTION uint32_t ecmp_count(uint32_t header) { return header >> ECMP_COUNT_SHIFT & ECMP_FIELD_MASK; }
ROUTE_TABLE_FUNCTION uint32_t ecmp_sequence(uint32_t header) { return header >> ECMP_SEQ_SHIFT & ECMP_FIELD_MASK; }
ROUTE_TABLE_FUNCTION uint32_t ecmp_entry(uint32_t ifid, uint32_t encap)
{
    return (ifid & ECMP_IFID_MASK) << ECMP_IFID_SHIFT | (encap & ADJ_ENCAP_MASK);
}
ROUTE_TABLE_FUNCTION uint32_t ecmp_entry_ifid(uint32_t entry) { return entry >> ECMP_IFID_SHIFT; }

#ifdef __cplusplus
static_assert(HW_LEAVES == HW_NODES + HW_NODE_COUNT * HW_NODE_BYTES);
static_assert(HW_ECMPS == HW_LEAVES + HW_LEAF_COUNT * HW_LEAF_BYTES);
static_assert(HW_TABLE_BYTES == HW_ECMPS + HW_ECMP_COUNT * HW_ECMP_BYTES);
static_assert(adj_pack(ADJ_ECMP, 5, 0x1234) == 0x40051234 && adj_ifid(0x40051234) == 5);
static_assert(ecmp_header(1, 1) == 0x92000000);
#endif
