// doctor_cover.h - which listed route should answer an address, and which leaf does, for all addresses of a tree at
// once.
//
// Leaves carry no prefix in the hardware. So the listed prefixes of a tree are spread over the address space, the
// longest on top, and compared with what the slots answer: each piece has one route and one leaf, or none.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "card_view/route_record.h"
#include "card_view/table_tree.h"

constexpr int COVER_EMPTY = -1, COVER_FAULT = -2; // in the place of a leaf

struct cover_path {
    std::uint32_t ifid, encap;
    auto operator<=>(const cover_path &) const = default;
};

// All that is listed for one prefix of a tree, from whatever context.
struct cover_route {
    std::uint32_t prefix = 0, length = 0;
    std::uint32_t flags = 0;       // of all its entries
    std::vector<cover_path> paths; // sorted
    unsigned listed = 0;           // entries; 0: the default leaf of a tree without default route
    int ctx = 0;                   // of the first entry
};

// The addresses first to last.
struct cover_piece {
    std::uint64_t first, last;
    int leaf; // number of the leaf, COVER_EMPTY or COVER_FAULT
    std::uint64_t addresses() const { return last - first + 1; }
};

// A route with what answers its own addresses, those of no longer route; no piece: longer routes hide it wholly.
struct cover_answer {
    cover_route route;
    std::vector<cover_piece> pieces; // ascending, neighbours of one leaf joined
};

// The routes of each tree, by prefix and length, the default leaf first.
std::vector<std::vector<cover_route>> cover_routes(const route_listing &listing);

// routes: of the tree, as cover_routes gives them.
std::vector<cover_answer> cover_tree(const std::vector<cover_route> &routes, const tree_view &tree);

// "20.0.0.0/8", or "20.0.0.1-20.0.0.7" for addresses that are not a prefix.
std::string cover_range(std::uint64_t first, std::uint64_t last);
