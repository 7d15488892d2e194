// random_changes.cpp - choosing a change, making it, and writing down what is right from then on.
#include "random_changes.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <numeric>

namespace harness
{
namespace
{
constexpr unsigned CONTEXTS = 2;
constexpr std::uint32_t HOSTS[] = {IP(10, 1, 2, 1),   IP(10, 1, 2, 2),    IP(10, 1, 2, 65), IP(10, 1, 2, 66),
                                   IP(10, 1, 4, 9),   IP(10, 9, 9, 9),    IP(10, 9, 9, 10), IP(192, 168, 4, 1),
                                   IP(172, 16, 0, 1), IP(172, 16, 200, 2)};
// No prefix here is wholly covered by longer ones: each is then found by its own answer.
constexpr model_key ROUTES[] = {{0, 0},
                                {2, IP(128, 0, 0, 0)},
                                {8, IP(10, 0, 0, 0)},
                                {12, IP(10, 0, 0, 0)},
                                {16, IP(10, 1, 0, 0)},
                                {17, IP(10, 1, 128, 0)},
                                {22, IP(192, 168, 4, 0)},
                                {23, IP(10, 1, 2, 0)},
                                {24, IP(10, 1, 2, 0)},
                                {24, IP(10, 1, 4, 0)},
                                {26, IP(10, 1, 2, 64)},
                                {30, IP(10, 9, 9, 8)}};
constexpr model_key DROP{3, IP(224, 0, 0, 0)};
constexpr std::uint32_t DROP_WORD = 0x8001, FIRST_ENCAP = 0x1001;
constexpr std::uint32_t BIT_NOTHING = 1, BIT_DROP = 2;

// How many of each record all of these routes together can hold, and a margin.
constexpr std::uint64_t ALL_ROUTES = CONTEXTS * (std::size(HOSTS) + std::size(ROUTES)) + CHANGE_SIDE_PREFIXES;
constexpr window_taken ALWAYS_FREE{1024 - 256 - 3 * ALL_ROUTES, 1024 - 512 - ALL_ROUTES, 128 - ALL_ROUTES};

std::uint32_t host_ifid(std::size_t host)
{
    return CHANGE_FIRST_IFID + static_cast<std::uint32_t>(host % CHANGE_INTERFACES);
}
std::uint32_t host_encap(std::size_t host) { return FIRST_ENCAP + static_cast<std::uint32_t>(host); }

std::vector<model_key> all_keys()
{
    std::vector<model_key> keys(std::begin(ROUTES), std::end(ROUTES));
    for (const std::uint32_t host : HOSTS)
        keys.emplace_back(32, host);
    keys.push_back(DROP);
    std::sort(keys.rbegin(), keys.rend()); // the longest first
    return keys;
}

std::vector<std::uint32_t> all_boundaries()
{
    std::vector<std::uint32_t> addresses;
    for (const auto &[len, prefix] : all_keys()) {
        const std::uint32_t last = prefix | ~plain_mask(len);
        addresses.insert(addresses.end(), {prefix, last, prefix - 1, last + 1});
    }
    std::sort(addresses.begin(), addresses.end());
    addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
    return addresses;
}

// A leaf's paths as bits.
struct leaf_bits {
    std::uint32_t own, paths;
};
leaf_bits bits_of(const plain_leaf &leaf)
{
    const std::uint32_t own = change_path_bit(adj_ifid(leaf.adjacency), adj_encap(leaf.adjacency));
    leaf_bits bits{own, own};
    const bool set = (leaf.adjacency & ADJ_ECMP) != 0 && leaf.has_block && (leaf.block.words[0] & ECMP_VALID) != 0;
    for (unsigned i = 1; set && i <= leaf.block.npaths; ++i)
        bits.paths |= change_path_bit(ecmp_entry_ifid(leaf.block.words[i]), adj_encap(leaf.block.words[i]));
    return bits;
}

// The leaves of a tree, by their prefixes.
using leaf_table = std::map<model_key, plain_leaf>;
leaf_table leaves_of(const plain_model &model, std::uint32_t ctx)
{
    leaf_table table;
    for (const plain_leaf &leaf : model.trees.at(ctx).leaves)
        table.emplace(model_key{model_mask_len(leaf.mask), leaf.prefix}, leaf);
    return table;
}

// Writes down what the addresses of a context answer by the model, where that has changed.
void write_answers(random_changes &all, std::uint32_t ctx, std::uint64_t change)
{
    static const std::vector<model_key> keys = all_keys();
    const leaf_table leaves = leaves_of(all.model, ctx);
    std::vector<std::pair<model_key, leaf_bits>> present;
    for (const model_key &key : keys)
        if (const auto it = leaves.find(key); it != leaves.end())
            present.emplace_back(key, bits_of(it->second));
    for (unsigned i = 0; i < all.board.count; ++i) {
        const window_address &address = all.board.addresses[i];
        if (address.tree != ctx)
            continue;
        std::uint32_t own = 0, paths = 0, behind = 0;
        for (const auto &[key, bits] : present) {
            if ((address.address & plain_mask(key.first)) != key.second)
                continue;
            if (own == 0) {
                own = bits.own;
                paths = bits.paths;
            }
            behind |= bits.paths;
        }
        const std::uint64_t written = address.written.load(std::memory_order_relaxed);
        const window_record &last = address.records[(written - 1) % WINDOW_RECORDS];
        if (written == 0 || last.own.load() != own || last.paths.load() != paths || last.behind.load() != behind)
            window_write(all.board, i, change, own, paths, behind);
    }
}

// Counts what the change has taken from the pools: each prefix that is new, with all the nodes that it can need, and
// each set.
void count_taken(random_changes &all, std::uint32_t ctx, const leaf_table &before)
{
    for (const auto &[key, leaf] : leaves_of(all.model, ctx)) {
        const auto old = before.find(key);
        if (old == before.end()) {
            all.taken.leaves += 1;
            all.taken.nodes += key.first == 0 ? 0 : (key.first - 1) / MTRIE_STRIDE;
        }
        all.taken.blocks += leaf.has_block && (old == before.end() || !old->second.has_block);
    }
}

struct chosen_change {
    std::uint32_t ctx;
    remote_call call;
};
chosen_change choose(random_changes &all)
{
    const auto below = [&all](std::size_t n) { return static_cast<std::size_t>(all.random() % n); };
    const std::uint32_t ctx = static_cast<std::uint32_t>(below(CONTEXTS));
    const std::size_t host = below(std::size(HOSTS));
    const bool known = all.model.rib[ctx].contains({32, HOSTS[host]});
    if (below(8) == 0 || !known) {
        const auto call = known ? call_host_remove : call_host_add;
        return {ctx, call(HOSTS[host], host_encap(host), host_ifid(host), ctx)};
    }
    const auto &[len, prefix] = ROUTES[below(std::size(ROUTES))];
    const auto set = all.model.rib[ctx].find({len, prefix});
    const bool there = set != all.model.rib[ctx].end() &&
                       std::any_of(set->second.begin(), set->second.end(),
                                   [host](const model_path &path) { return path.nexthop == HOSTS[host]; });
    const auto call = there ? call_route_remove : call_route_add;
    return {ctx, call(prefix, plain_mask(len), HOSTS[host], ctx)};
}

bool has_lost_leaves(const plain_model &model)
{
    return std::any_of(model.trees.begin(), model.trees.end(),
                       [](const auto &tree) { return tree.second.lost_leaves != 0; });
}

// The change itself, told to the readers before and after.
std::uint32_t make_in_window(random_changes &all, const std::function<std::uint32_t()> &make)
{
    window_change_begins(all.board, all.changes + 1, all.taken);
    const std::uint32_t answer = make();
    ++all.changes;
    window_change_ends(all.board, all.changes);
    return answer;
}

std::vector<std::uint32_t> all_contexts()
{
    std::vector<std::uint32_t> contexts(CHANGE_CONTEXTS);
    std::iota(contexts.begin(), contexts.end(), 0u);
    return contexts;
}
} // namespace

std::uint32_t change_interface_address(unsigned n) { return IP(10, 250, n, 1); }

std::uint32_t change_path_bit(std::uint32_t ifid, std::uint32_t encap)
{
    if (ifid == 0 && encap == 0)
        return BIT_NOTHING;
    if (ifid == 0 && encap == DROP_WORD)
        return BIT_DROP;
    const std::uint32_t host = encap - FIRST_ENCAP;
    return host < std::size(HOSTS) && ifid == host_ifid(host) ? 4u << host : 0;
}

random_changes::random_changes(window_board &shared, std::uint32_t seed, change_maker maker)
    : model(all_contexts()), random(seed), board(shared), make(std::move(maker))
{
    for (unsigned n = 0; n < CHANGE_INTERFACES; ++n)
        model.interfaces[CHANGE_FIRST_IFID + n].address = change_interface_address(n);
    board.count = 0;
    for (std::uint32_t ctx = 0; ctx < CONTEXTS; ++ctx)
        for (const std::uint32_t address : all_boundaries()) {
            board.addresses[board.count].tree = ctx;
            board.addresses[board.count++].address = address;
        }
    board.free = ALWAYS_FREE;
    for (std::uint32_t ctx = 0; ctx < CONTEXTS; ++ctx)
        write_answers(*this, ctx, 0);
}

bool random_changes::next()
{
    const auto [ctx, call] = choose(*this);
    const leaf_table before = leaves_of(model, ctx);
    model.forget();
    const std::uint32_t expected = model.call(call.name, call.numbers()).result;
    count_taken(*this, ctx, before);
    write_answers(*this, ctx, changes + 1);
    const std::uint32_t answer = make_in_window(*this, [this, &made = call] { return make(made); });
    if (answer == expected && !has_lost_leaves(model))
        return true;
    error = text("change %llu, %s", static_cast<unsigned long long>(changes), call.name.c_str());
    for (const std::uint32_t number : call.numbers())
        error += text(" %x", number);
    error += text(": answered %u, not %u", answer, expected);
    return false;
}

bool random_changes_beside(random_changes &all, const std::function<std::uint32_t(plain_model &)> &predict,
                           const std::function<std::uint32_t()> &make)
{
    const leaf_table before = leaves_of(all.model, CHANGE_SIDE_CONTEXT);
    all.model.forget();
    const std::uint32_t expected = predict(all.model);
    count_taken(all, CHANGE_SIDE_CONTEXT, before);
    const std::uint32_t answer = make_in_window(all, make);
    if (answer == expected && all.model.pools.errors.empty() && !has_lost_leaves(all.model))
        return true;
    all.error = "change " + std::to_string(all.changes) + ", beside the readers: answered " + std::to_string(answer) +
                ", not " + std::to_string(expected);
    for (const std::string &line : all.model.pools.errors)
        all.error += "; " + line;
    return false;
}
} // namespace harness
