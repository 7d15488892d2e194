// doctor_cover.cpp - spreads prefixes and slots over the address space and joins the two.
#include "doctor_cover.h"

#include <algorithm>
#include <bit>
#include <map>

#include "card_tool/address_text.h"
#include "routectl_commands.h"

namespace
{
constexpr std::uint64_t LAST_ADDRESS = 0xFFFFFFFF;

std::uint64_t last_of(const cover_route &route)
{
    return route.prefix | static_cast<std::uint64_t>(~address_mask_of(route.length));
}

// Addresses that one route should answer; `what` is its place in the list. Of a tree: a leaf.
struct stretch {
    std::uint64_t first, last;
    int what;
};

// Appends, joined with the stretch before it when that is the same.
void append(std::vector<stretch> &to, stretch next)
{
    if (next.first >= next.last + 1)
        return;
    if (!to.empty() && to.back().what == next.what && to.back().last + 1 == next.first)
        to.back().last = next.last;
    else
        to.push_back(next);
}

// Which route is the longest for each address. routes: by prefix and length, the first of them /0.
std::vector<stretch> spread(const std::vector<cover_route> &routes)
{
    std::vector<stretch> to;
    std::vector<int> open; // routes around the point, the longest at the back
    std::uint64_t at = 0;
    const auto go_to = [&](std::uint64_t before) { // up to, without, `before`
        while (!open.empty() && at < before) {
            const std::uint64_t end = last_of(routes[static_cast<std::size_t>(open.back())]) + 1;
            const std::uint64_t next = std::max(at, std::min(before, end));
            append(to, {at, next - 1, open.back()}); // nothing of one that ended with a longer one
            at = next;
            if (at >= end)
                open.pop_back();
        }
    };
    for (std::size_t i = 0; i < routes.size(); ++i) {
        go_to(routes[i].prefix);
        open.push_back(static_cast<int>(i));
    }
    go_to(LAST_ADDRESS + 1);
    return to;
}

struct slot_reader {
    std::map<std::uint32_t, const tree_node *> nodes; // by number
    std::vector<stretch> to;
};

void read_slots(slot_reader &reader, const tree_node &node)
{
    const unsigned shift = 24 - 8 * node.level;
    for (const tree_run &run : node.runs) {
        const std::uint64_t first = node.prefix + (static_cast<std::uint64_t>(run.first) << shift);
        const std::uint64_t last = node.prefix + (static_cast<std::uint64_t>(run.last + 1) << shift) - 1;
        const auto child =
            run.target.kind == table_kind::node ? reader.nodes.find(run.target.index) : reader.nodes.end();
        const bool is_child = child != reader.nodes.end() && child->second->level == node.level + 1 &&
                              child->second->prefix == first && run.first == run.last;
        if (is_child)
            read_slots(reader, *child->second);
        else if (run.target.kind == table_kind::leaf)
            append(reader.to, {first, last, static_cast<int>(run.target.index)});
        else
            append(reader.to, {first, last, run.target.kind == table_kind::empty ? COVER_EMPTY : COVER_FAULT});
    }
}

// What each address is answered with.
std::vector<stretch> read_tree(const tree_view &tree)
{
    slot_reader reader;
    for (const tree_node &node : tree.nodes)
        reader.nodes[node.index] = &node;
    if (!tree.nodes.empty())
        read_slots(reader, tree.nodes[0]);
    else
        reader.to.push_back({0, LAST_ADDRESS, COVER_EMPTY});
    return reader.to;
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
    const std::vector<stretch> wanted = spread(routes), found = read_tree(tree);
    std::size_t w = 0, f = 0;
    while (w < wanted.size() && f < found.size()) {
        const std::uint64_t first = std::max(wanted[w].first, found[f].first);
        const std::uint64_t last = std::min(wanted[w].last, found[f].last);
        std::vector<cover_piece> &pieces = answers[static_cast<std::size_t>(wanted[w].what)].pieces;
        if (!pieces.empty() && pieces.back().leaf == found[f].what && pieces.back().last + 1 == first)
            pieces.back().last = last;
        else
            pieces.push_back({first, last, found[f].what});
        w += wanted[w].last == last ? 1u : 0u;
        f += found[f].last == last ? 1u : 0u;
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
