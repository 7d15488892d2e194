// doctor_cover.cpp - spreads prefixes and slots over the address space and joins the two.
//
// Both are painted: shorter prefixes before longer ones, nodes before their children, so the last colour is the answer.
// Always: the pieces of all routes together are the whole address space, each address once.
#include "doctor_cover.h"

#include <algorithm>
#include <bit>
#include <iterator>
#include <map>
#include <numeric>

#include "card_tool/address_text.h"
#include "routectl_commands.h"

namespace
{
constexpr std::uint64_t ADDRESSES = std::uint64_t{1} << 32;

// What each address is answered with, by the first address of a stretch that ends where the next one begins.
using address_map = std::map<std::uint64_t, int>;

// Begins a stretch at `at`, and returns it.
address_map::iterator cut(address_map &map, std::uint64_t at)
{
    return map.try_emplace(at, std::prev(map.upper_bound(at))->second).first;
}

// first to last: within the map, as all stretches are within ADDRESSES.
void paint(address_map &map, std::uint64_t first, std::uint64_t last, int what)
{
    const auto from = cut(map, first), to = cut(map, last + 1);
    map.erase(std::next(from), to);
    from->second = what;
}

// The place in `routes` of the longest one for each address. routes: by prefix and length, the first of them /0.
address_map spread(const std::vector<cover_route> &routes)
{
    address_map map = {{0, 0}, {ADDRESSES, 0}};
    std::vector<std::size_t> order(routes.size());
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return routes[a].length < routes[b].length; });
    for (const std::size_t i : order)
        paint(map, routes[i].prefix, routes[i].prefix | std::uint64_t{~address_mask_of(routes[i].length)},
              static_cast<int>(i));
    return map;
}

// The leaf that each address is answered with.
address_map read_tree(const tree_view &tree)
{
    address_map map = {{0, COVER_EMPTY}, {ADDRESSES, COVER_EMPTY}};
    for (const tree_node &node : tree.nodes) { // parents before their children, which paint over one slot
        const unsigned shift = 24 - 8 * node.level;
        for (const tree_run &run : node.runs) {
            const int what = run.target.kind == table_kind::leaf    ? static_cast<int>(run.target.index)
                             : run.target.kind == table_kind::empty ? COVER_EMPTY
                                                                    : COVER_FAULT;
            paint(map, node.prefix + (std::uint64_t{run.first} << shift),
                  node.prefix + (std::uint64_t{run.last + 1} << shift) - 1, what);
        }
    }
    return map;
}
} // namespace

std::vector<std::vector<cover_route>> cover_routes(const route_listing &listing)
{
    std::vector<std::map<std::pair<std::uint32_t, std::uint32_t>, cover_route>> trees(ROUTE_CONTEXTS);
    for (std::uint32_t tree = 0; tree < ROUTE_CONTEXTS; ++tree)
        trees[tree][{0, 0}].ctx = static_cast<int>(tree);
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx) {
        for (const route_record &record : listing.contexts[ctx]) {
            if (record.route_id >= ROUTE_CONTEXTS || record.length > 32)
                continue;
            cover_route &route = trees[record.route_id][{record.prefix, record.length}];
            route.prefix = record.prefix;
            route.length = record.length;
            route.ctx = route.listed == 0 ? static_cast<int>(ctx) : route.ctx;
            route.flags |= record.flags;
            route.paths.push_back({record.ifid, record.encap});
            route.listed += 1;
        }
    }
    std::vector<std::vector<cover_route>> routes(ROUTE_CONTEXTS);
    for (std::uint32_t tree = 0; tree < ROUTE_CONTEXTS; ++tree) {
        for (auto &[key, route] : trees[tree]) {
            std::sort(route.paths.begin(), route.paths.end());
            routes[tree].push_back(std::move(route));
        }
    }
    return routes;
}

std::vector<cover_answer> cover_tree(const std::vector<cover_route> &routes, const tree_view &tree)
{
    std::vector<cover_answer> answers;
    answers.reserve(routes.size());
    for (const cover_route &route : routes)
        answers.push_back({route, {}});
    address_map wanted = spread(routes), found = read_tree(tree);
    for (const auto &[at, leaf] : found)
        cut(wanted, at);
    for (auto at = wanted.begin(); at->first < ADDRESSES; ++at) {
        const std::uint64_t last = std::next(at)->first - 1;
        const int leaf = std::prev(found.upper_bound(at->first))->second;
        std::vector<cover_piece> &pieces = answers[static_cast<std::size_t>(at->second)].pieces;
        if (!pieces.empty() && pieces.back().leaf == leaf && pieces.back().last + 1 == at->first)
            pieces.back().last = last;
        else
            pieces.push_back({at->first, last, leaf});
    }
    return answers;
}

std::string cover_range(std::uint64_t first, std::uint64_t last)
{
    const std::uint64_t size = last - first + 1;
    if (std::has_single_bit(size) && first % size == 0)
        return prefix_text(static_cast<std::uint32_t>(first), 32u - static_cast<unsigned>(std::countr_zero(size)));
    return address_text(static_cast<std::uint32_t>(first)) + "-" + address_text(static_cast<std::uint32_t>(last));
}
