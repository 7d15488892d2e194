// ixp_addresses.cpp - where the tool's addresses come from.
//
// Always: the same seed gives the same addresses, for the same tree.
#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <random>
#include <stdexcept>

#include "card_tool/address_text.h"
#include "ixp_tool.h"
#include "ixp_walk.h"
#include "route_table.h"

namespace
{
struct range {
    std::uint32_t first;
    unsigned bits; // addresses: 2 to this power
};
using leaf_ranges = std::map<std::uint32_t, std::vector<range>>; // by slot word

// Every slot below `node` whose word is a leaf's.
void collect(const ixp_table &table, std::uint32_t node, std::uint32_t prefix, unsigned shift, leaf_ranges &ranges)
{
    for (std::uint32_t slot = 0; slot <= IXP_SLOT_MASK; ++slot) {
        const std::uint32_t word = ixp_load(table, ixp_index(table, node) + slot), first = prefix | slot << shift;
        if (ixp_is_leaf(word))
            ranges[word].push_back({first, shift});
        else if (ixp_is_node(word) && shift >= IXP_STRIDE)
            collect(table, word, first, shift - IXP_STRIDE, ranges);
    }
}
} // namespace

std::uint32_t ixp_parse_address(const std::string &text)
{
    const auto address = address_parse(text);
    if (!address)
        throw std::runtime_error(text + ": not an address");
    return *address;
}

std::vector<std::uint32_t> ixp_read_addresses(const std::string &file)
{
    std::ifstream in(file);
    if (!in)
        throw std::runtime_error(file + ": cannot be read");
    std::vector<std::uint32_t> addresses;
    for (std::string line; std::getline(in, line);) {
        line.erase(std::find(line.begin(), line.end(), '#'), line.end());
        line.erase(std::remove_if(line.begin(), line.end(), [](unsigned char c) { return std::isspace(c) != 0; }),
                   line.end());
        if (!line.empty())
            addresses.push_back(ixp_parse_address(line));
    }
    if (addresses.empty())
        throw std::runtime_error(file + ": no address in it");
    return addresses;
}

std::vector<std::uint32_t> ixp_random_addresses(std::size_t count, std::uint32_t seed)
{
    std::mt19937 random(seed);
    std::vector<std::uint32_t> addresses(count);
    for (std::uint32_t &address : addresses)
        address = static_cast<std::uint32_t>(random());
    return addresses;
}

std::vector<std::uint32_t> ixp_zipf_addresses(const ixp_table &table, std::uint32_t tree, std::size_t count,
                                              std::uint32_t seed)
{
    std::mt19937 random(seed);
    leaf_ranges by_leaf;
    const std::uint32_t root = ixp_load(table, tree & IXP_TREE_MASK);
    if (ixp_is_node(root))
        collect(table, root, 0, IXP_TOP_SHIFT, by_leaf);
    if (by_leaf.empty())
        throw std::runtime_error("the tree has no leaf to spread addresses over");

    std::vector<std::vector<range>> leaves;
    for (auto &[word, ranges] : by_leaf)
        leaves.push_back(std::move(ranges));
    std::shuffle(leaves.begin(), leaves.end(), random); // which leaf is the favourite is chance
    std::vector<double> shares;
    for (std::size_t rank = 1; rank <= leaves.size(); ++rank)
        shares.push_back(1.0 / static_cast<double>(rank));
    std::discrete_distribution<std::size_t> chosen(shares.begin(), shares.end());

    std::vector<std::uint32_t> addresses(count);
    for (std::uint32_t &address : addresses) {
        const std::vector<range> &ranges = leaves[chosen(random)];
        const range &r = ranges[random() % ranges.size()];
        address = r.first | (static_cast<std::uint32_t>(random()) & ((1u << r.bits) - 1));
    }
    return addresses;
}
