// ixp_lookup.h - a network processor's search of its route-table memory.
//
// The table is only ever read, in whole aligned 32-bit words, while the route manager stores into it. What a processor
// does about that is all of its part in the bargain, and stands here:
//   - A walk starts at the tree's root word and passes four nodes at most. A null word, or a node named where none can
//     be, means that the walk stood in a node which a change was just folding away: it starts again, three times at
//     most (one change folds at most three nodes under one address). Null a fourth time is a miss.
//   - The leaf's adjacency word is read once. With its ECMP flag the path is chosen by pointer, header, entry and once
//     more the header. A null pointer, an invalid header and one that has changed leave path 0: the leaf's own word.
//   - A word that leads out of the table is taken for its last word, so that no memory lets a reader leave the table.
// Three implementations do the same: one address after the other; a batch, portable, with the loads of all its
// addresses in flight; and eight addresses a gather. Their answers are alike, word for word.
// Elsewhere: the walk of one address (ixp_walk.h), the numbers of the format (route_table.h).
#pragma once

#include <cstddef>
#include <cstdint>

enum ixp_implementation : unsigned { IXP_SCALAR, IXP_BATCH, IXP_AVX2, IXP_IMPLEMENTATIONS };

// One table memory and the address at which its processor sees it.
struct ixp_table {
    const std::uint32_t *words; // HW_TABLE_BYTES of them, aligned to a word
    std::uint32_t base;         // HW_IXP_BASE, or the physical base for the wired copy
};

// No leaf. No leaf's word is this one: a route either resolves addresses or translates them.
constexpr std::uint32_t IXP_MISS = 0xFFFFFFFF;

const char *ixp_implementation_name(ixp_implementation implementation);
bool ixp_implementation_runs(
    ixp_implementation implementation);       // whether this processor has what the implementation needs
ixp_implementation ixp_best_implementation(); // the fastest of those

// Reads the adjacency words of `count` addresses (host order) in tree `tree` (0 to 255) into `words`, IXP_MISS without
// a leaf. The second form takes each address's own tree.
void ixp_lookup(const ixp_table &table, ixp_implementation implementation, std::uint32_t tree,
                const std::uint32_t *addresses, std::uint32_t *words, std::size_t count);
void ixp_lookup_trees(const ixp_table &table, ixp_implementation implementation, const std::uint32_t *trees,
                      const std::uint32_t *addresses, std::uint32_t *words, std::size_t count);

// Packets to be forwarded and where their answers go; every array holds `count`.
struct ixp_packets {
    const std::uint32_t *addresses; // host order
    const std::uint32_t *hashes;    // of the flow; chooses among the paths of a set
    std::uint32_t *words; // the chosen path's word: adjacency word for path 0, ECMP entry for others, IXP_MISS
    std::uint32_t *paths; // 0 the leaf's own word, 1 to 7 the entry; 0 for a miss
    std::size_t count;
};
void ixp_forward(const ixp_table &table, ixp_implementation implementation, std::uint32_t tree,
                 const ixp_packets &packets);
void ixp_forward_trees(const ixp_table &table, ixp_implementation implementation, const std::uint32_t *trees,
                       const ixp_packets &packets);

// Where an answer sends a packet.
struct ixp_hop {
    std::uint32_t ifid, encap;
};
ixp_hop ixp_hop_of(std::uint32_t word, std::uint32_t path);
