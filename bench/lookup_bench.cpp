// lookup_bench.cpp - a network processor's lookup beside the lookups of the DPDK libraries, over the same prefixes.
//
// The tables are the daemon's own, made by its prefix manager; the lookups read the memory of processor 1. A mix is
// what a card has: /8, /16, /24, /32 hosts, one route in sixteen with eight paths, and the multicast drop. Each prefix
// has a value of its own, so one answer tells which prefix was found. Addresses: one of a prefix drawn evenly, one of a
// prefix drawn by Zipf's law, or any of the whole space. The peers answer a value of 24 or 32 bits, which is taken for
// the forwarding word; what else they would need is not counted against them, but for path choice, where the value
// leads to a group of next hops, the flow's hash picks one of them, and its word and number are stored, as here.
#include <algorithm>
#include <cmath>
#include <random>

#include "bench.h"
#include "bench_card.h"
#include "bench_mix.h"
#include "ixp_lookup.h"
#include "mtrie_records.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_pool.h"
#include "peer_lpm.h"
#include "prefix_mgr.h"
#include "rib_table.h"
#include "route_table.h"

namespace
{
constexpr std::uint16_t TREE = 1;
constexpr std::uint32_t DROP = 0x8001, SETS = 16, PATHS = 8, MISSING = 0;
constexpr std::size_t ADDRESSES = 1 << 18;     // so many that the peers' tables are not all in a cache, as with traffic
constexpr std::size_t FEW_ADDRESSES = 1 << 14; // so few that the entries for them are
constexpr bench_clock CPU = bench_clock::cpu;

bool has_paths(const peer_route &r) { return r.value % SETS == 0; }
std::uint32_t path_encap(std::uint32_t value, std::uint32_t path) { return path << 12 | value; }

route_entry entry_of(std::uint16_t tree, const peer_route &r, std::uint32_t path)
{
    route_entry entry{};
    entry.prefix = r.prefix;
    entry.len = r.len;
    entry.ctx = tree;
    entry.route_id = tree;
    entry.ifid = 5;
    entry.encap_id = path_encap(r.value, path);
    entry.flags = path == 0 ? std::uint16_t{0} : RIB_F_ECMP;
    return entry;
}

// Adds the route, with its paths. Answers false when the pools have no more.
bool add_route(std::uint16_t tree, const peer_route &r)
{
    for (std::uint32_t path = 0; path < (has_paths(r) ? PATHS : 1); ++path) {
        const route_entry entry = entry_of(tree, r, path);
        if (prefix_mgr_route_add(wired_table_mgr, &entry) == 0)
            return false;
    }
    return true;
}

void remove_route(std::uint16_t tree, const peer_route &r)
{
    for (std::uint32_t path = has_paths(r) ? PATHS : 1; path-- > 0;) {
        const route_entry entry = entry_of(tree, r, path);
        bench_require(prefix_mgr_route_remove(wired_table_mgr, &entry) != 0, "a removal");
    }
}

// Hosts in different /24s, 4 /16s in each of 64 /8s: the nodes run out before the leaves do.
std::vector<peer_route> full_table()
{
    std::vector<peer_route> routes;
    for (std::uint32_t i = 0; i < HW_NODE_COUNT; ++i)
        routes.push_back({(1 + i % 64) << 24 | (i / 64 % 4) << 16 | (i / 256) << 8 | (1 + i % 200), 32, 16 * i + 1});
    return routes;
}

enum class draw { evenly, zipf, whole_space };
const char *const DRAW_NAMES[] = {"one a prefix", "Zipf", "the whole space"};

std::vector<std::uint32_t> addresses_of(const std::vector<peer_route> &mix, draw how)
{
    std::mt19937 random(20240611);
    std::vector<double> weights;
    for (std::size_t i = 0; i < mix.size(); ++i)
        weights.push_back(how == draw::zipf ? 1.0 / static_cast<double>(i + 1) : 1.0);
    std::discrete_distribution<std::size_t> pick(weights.begin(), weights.end());
    std::vector<std::uint32_t> addresses(ADDRESSES);
    for (std::uint32_t &address : addresses) {
        address = static_cast<std::uint32_t>(random());
        if (how == draw::whole_space)
            continue;
        const peer_route &r = mix[pick(random)];
        address = r.prefix | (address & ~rib_mask_table[r.len]);
    }
    return addresses;
}

ixp_table table_of_processor_1() { return {card_at<const std::uint32_t>(va_ixp1_dram_base), HW_IXP_BASE}; }

std::uint32_t value_of(std::uint32_t word) { return word == IXP_MISS ? MISSING : adj_encap(word); }

struct peers {
    void *lpm = nullptr, *fib = nullptr;
    std::string missing;
};

peers peers_with(const std::vector<peer_route> &mix, const std::string &missing)
{
    static int number = 0;
    const std::string name = "lookup" + std::to_string(++number);
    peers p = {nullptr, nullptr, missing};
    if (!missing.empty())
        return p;
    p.lpm = peer_lpm_new(name.c_str(), 4096, 2048);
    p.fib = peer_fib_new(name.c_str(), 4096, 2047, MISSING);
    bench_require(p.lpm != nullptr && p.fib != nullptr, "the peers' tables");
    std::vector<peer_route> all = mix;
    all.push_back({0xE0000000, 3, DROP});
    for (const peer_route &r : all)
        bench_require(peer_lpm_add(p.lpm, r) == 0 && peer_fib_add(p.fib, r) == 0, "the peers' routes");
    return p;
}

void free_peers(const peers &p)
{
    if (p.lpm != nullptr)
        peer_lpm_delete_table(p.lpm);
    if (p.fib != nullptr)
        peer_fib_delete_table(p.fib);
}

// The next hops of a peer's value. Their number is a power of two, so that no division is needed.
struct hop_group {
    std::uint32_t mask, words[PATHS];
};

std::vector<hop_group> groups_of(const std::vector<peer_route> &routes)
{
    std::vector<hop_group> groups(DROP + 1);
    groups[DROP].words[0] = DROP;
    for (const peer_route &r : routes) {
        groups[r.value].mask = has_paths(r) ? PATHS - 1 : 0;
        for (std::uint32_t path = 0; path < PATHS; ++path)
            groups[r.value].words[path] = path_encap(r.value, path);
    }
    return groups;
}

// One set of lookups: what is asked, of whom, and room for the answers.
struct trial {
    const std::vector<std::uint32_t> &addresses;
    const peers &p;
    std::vector<hop_group> groups;
    std::vector<std::uint32_t> hashes, words, paths;
    std::vector<std::uint64_t> wide;

    trial(const std::vector<peer_route> &routes, const std::vector<std::uint32_t> &asked, const peers &others)
        : addresses(asked), p(others), groups(groups_of(routes)), hashes(asked.size()), words(asked.size()),
          paths(asked.size()), wide(asked.size())
    {
        for (std::size_t i = 0; i < asked.size(); ++i)
            hashes[i] = static_cast<std::uint32_t>(i * 2654435761u);
    }
};

void own_words(trial &t, ixp_implementation implementation)
{
    ixp_lookup(table_of_processor_1(), implementation, TREE, t.addresses.data(), t.words.data(), t.words.size());
}
void own_paths(trial &t, ixp_implementation implementation)
{
    ixp_forward(table_of_processor_1(), implementation, TREE,
                {t.addresses.data(), t.hashes.data(), t.words.data(), t.paths.data(), t.words.size()});
}
void lpm_words(trial &t) { peer_lpm_find(t.p.lpm, t.addresses.data(), t.words.data(), t.words.size(), MISSING); }
void lpm_words_one_by_one(trial &t)
{
    peer_lpm_find_scalar(t.p.lpm, t.addresses.data(), t.words.data(), t.words.size(), MISSING);
}
void fib_words(trial &t) { peer_fib_find(t.p.fib, t.addresses.data(), t.wide.data(), t.wide.size()); }

template <class Value> void choose_hops(trial &t, const std::vector<Value> &values)
{
    for (std::size_t i = 0; i < values.size(); ++i) {
        const hop_group &group = t.groups[values[i]];
        t.paths[i] = t.hashes[i] & group.mask;
        t.words[i] = group.words[t.paths[i]];
    }
}
void lpm_paths(trial &t)
{
    lpm_words(t);
    choose_hops(t, t.words);
}
void lpm_paths_one_by_one(trial &t)
{
    lpm_words_one_by_one(t);
    choose_hops(t, t.words);
}
void fib_paths(trial &t)
{
    fib_words(t);
    choose_hops(t, t.wide);
}

// Every implementation of ours and both peers answer alike, before any is timed.
void check(trial &t)
{
    own_words(t, IXP_SCALAR);
    const std::vector<std::uint32_t> own = t.words;
    own_paths(t, IXP_SCALAR);
    const std::vector<std::uint32_t> chosen = t.words, paths = t.paths;
    for (const ixp_implementation implementation : {IXP_BATCH, IXP_AVX2}) {
        if (!ixp_implementation_runs(implementation))
            continue;
        own_words(t, implementation);
        bench_require(own == t.words, "the implementations answer alike");
        own_paths(t, implementation);
        bench_require(chosen == t.words && paths == t.paths, "the implementations choose alike");
    }
    if (t.p.lpm == nullptr)
        return;
    fib_words(t);
    lpm_words(t);
    for (std::size_t i = 0; i < own.size(); ++i)
        bench_require(value_of(own[i]) == t.words[i] && t.words[i] == t.wide[i], "the peers answer alike");
    for (void (*const choice)(trial &) : {lpm_paths, fib_paths}) {
        choice(t);
        for (std::size_t i = 0; i < own.size(); ++i)
            bench_require(value_of(chosen[i]) == t.words[i] && paths[i] == t.paths[i], "the peers choose alike");
    }
}

// The indexes of all words that the lookups of a trial read, in their order, found without ixp_lookup.
std::vector<std::uint32_t> loads_of(const trial &t)
{
    const ixp_table table = table_of_processor_1();
    std::vector<std::uint32_t> loads;
    for (const std::uint32_t address : t.addresses) {
        std::uint32_t word = table.words[TREE];
        for (unsigned shift = 24; (word & HW_NODE_TAG) != 0; shift -= 8) {
            loads.push_back((word - table.base) / 4 + (address >> shift & 0xFF));
            word = table.words[loads.back()];
        }
        loads.push_back((word - table.base) / 4);
    }
    return loads;
}

template <class Work> std::function<double()> per_lookup(const bench_options &options, std::size_t count, Work work)
{
    const std::size_t runs = options.brief ? 1 : 4 * ADDRESSES / count;
    return [work, runs, count] {
        return bench_time(CPU,
                          [&] {
                              for (std::size_t i = 0; i < runs; ++i)
                                  work();
                          }) /
               static_cast<double>(runs * count);
    };
}

std::string number_of_lookups(double ns)
{
    return std::to_string(static_cast<unsigned>(1000 / ns)) + " million a second and core";
}

struct wanted_ratio {
    double vector, scalar, paths;
};

// Rows of one figure of ours beside both peers. What is wanted holds beside the better of them, so beside each.
void add_rows(const std::string &what, double own, std::optional<double> lpm, std::optional<double> fib, const peers &p,
              double wanted, std::vector<bench_row> &rows)
{
    const bool is_ratio = wanted != 0;
    rows.push_back(
        {what, "ns", own, "rte_lpm, four at a time", lpm, p.missing, wanted, is_ratio, number_of_lookups(own)});
    rows.push_back({what, "ns", own, "rte_fib, bulk", fib, p.missing, wanted, is_ratio, ""});
}

void measure_vectors(const bench_options &options, const std::string &name, trial &t, wanted_ratio wanted,
                     std::vector<bench_row> &rows)
{
    const auto side = [&](auto work) { return per_lookup(options, t.addresses.size(), work); };
    const ixp_implementation best = ixp_best_implementation();
    std::vector<std::function<double()>> sides = {side([&t, best] { own_words(t, best); }),
                                                  side([&t, best] { own_paths(t, best); })};
    const bool with_peers = t.p.lpm != nullptr;
    if (with_peers)
        for (void (*const peer)(trial &) : {lpm_words, fib_words, lpm_paths, fib_paths})
            sides.push_back(side([&t, peer] { peer(t); }));
    const auto m = bench_rounds(options, 9, sides);
    const auto theirs = [&](std::size_t i) { return with_peers ? std::optional(m[i]) : std::nullopt; };
    const std::string what = name + ", " + ixp_implementation_name(best);
    add_rows(what, m[0], theirs(2), theirs(3), t.p, wanted.vector, rows);
    add_rows(what + ", path choice", m[1], theirs(4), theirs(5), t.p, wanted.paths, rows);
}

// The walk beside the mere loads of the same words, none of which waits for another: what the table's layout asks for.
void measure_loads(const bench_options &options, const std::string &name, trial &t, std::vector<bench_row> &rows)
{
    const std::vector<std::uint32_t> loads = loads_of(t);
    const std::uint32_t *const words = table_of_processor_1().words;
    const ixp_implementation best = ixp_best_implementation();
    const auto m = bench_rounds(options, 9,
                                {per_lookup(options, t.addresses.size(), [&t, best] { own_words(t, best); }),
                                 per_lookup(options, t.addresses.size(), [&loads, words] {
                                     std::uint32_t sum = 0;
                                     for (const std::uint32_t at : loads)
                                         sum += words[at];
                                     asm volatile("" : : "r"(sum)); // it is wanted
                                 })});
    rows.push_back(
        {name + ", " + ixp_implementation_name(best), "ns", m[0], "its loads alone", m[1], "", 0, false, ""});
}

// The portable implementation. After the others, since the library's table keeps the scalar lookup from now on.
void measure_scalars(const bench_options &options, const std::string &name, trial &t, wanted_ratio wanted,
                     std::vector<bench_row> &rows)
{
    if (t.p.lpm == nullptr)
        return;
    const auto side = [&](auto work) { return per_lookup(options, t.addresses.size(), work); };
    peer_fib_find_scalar(t.p.fib);
    std::vector<std::function<double()>> sides = {side([&t] { own_words(t, IXP_BATCH); }),
                                                  side([&t] { own_paths(t, IXP_BATCH); })};
    for (void (*const peer)(trial &) : {lpm_words_one_by_one, fib_words, lpm_paths_one_by_one, fib_paths})
        sides.push_back(side([&t, peer] { peer(t); }));
    const auto m = bench_rounds(options, 9, sides);
    rows.push_back({name + ", the portable implementation", "ns", m[0], "the better scalar peer", std::min(m[2], m[3]),
                    "", wanted.scalar, wanted.scalar != 0, ""});
    rows.push_back({name + ", the portable implementation, path choice", "ns", m[1], "the better scalar peer",
                    std::min(m[4], m[5]), "", 0, false, ""});
}

void measure(const bench_options &options, const std::string &name, const std::vector<peer_route> &routes,
             const std::vector<std::uint32_t> &addresses, const std::string &missing, wanted_ratio wanted,
             std::vector<bench_row> &rows)
{
    const peers p = peers_with(routes, missing);
    trial t(routes, addresses, p);
    check(t);
    measure_vectors(options, name, t, wanted, rows);
    if (addresses.size() == FEW_ADDRESSES)
        measure_loads(options, name, t, rows);
    measure_scalars(options, name, t, wanted, rows);
    free_peers(p);
}
} // namespace

namespace
{
// One way of drawing addresses; those drawn evenly once more with few of them.
void measure_draw(const bench_options &options, const std::string &table, const std::vector<peer_route> &routes,
                  draw how, const std::string &missing, wanted_ratio wanted, std::vector<bench_row> &rows)
{
    const std::string name = table + DRAW_NAMES[static_cast<int>(how)];
    std::vector<std::uint32_t> addresses = addresses_of(routes, how);
    measure(options, name, routes, addresses, missing, wanted, rows);
    if (how != draw::evenly)
        return;
    addresses.resize(FEW_ADDRESSES);
    measure(options, name + ", " + std::to_string(FEW_ADDRESSES) + " addresses", routes, addresses, missing, {}, rows);
}

void measure_mix(const bench_options &options, std::uint32_t count, const std::string &missing,
                 std::vector<bench_row> &rows)
{
    const std::vector<peer_route> mix = bench_mix(count);
    for (const peer_route &r : mix)
        bench_require(add_route(TREE, r), "the mix fits the pools");
    for (const draw how : {draw::evenly, draw::zipf, draw::whole_space}) {
        const wanted_ratio wanted = how == draw::whole_space             ? wanted_ratio{2.2, 0, 0}
                                    : how == draw::evenly && count > 400 ? wanted_ratio{1.6, 1.6, 2}
                                                                         : wanted_ratio{};
        measure_draw(options, std::to_string(count) + " prefixes, ", mix, how, missing, wanted, rows);
    }
    for (const peer_route &r : mix)
        remove_route(TREE, r);
}

void measure_full(const bench_options &options, const std::string &missing, std::vector<bench_row> &rows)
{
    std::vector<peer_route> routes;
    for (const peer_route &r : full_table()) {
        if (!add_route(TREE, r))
            break; // no node or leaf is left
        routes.push_back(r);
    }
    std::uint32_t nodes = 0;
    for (std::uint32_t tree = 0; tree < HW_ROOT_COUNT; ++tree) {
        std::uint32_t held[3];
        mtrie_get_stats(tree, held);
        nodes += held[0];
    }
    bench_require(nodes == HW_NODE_COUNT, "all nodes are in use");
    const std::string name = "full table, " + std::to_string(routes.size()) + " hosts, ";
    for (const draw how : {draw::evenly, draw::whole_space})
        measure_draw(options, name, routes, how, missing, {1.4, 0, 0}, rows);
    for (const peer_route &r : routes)
        remove_route(TREE, r);
}

// Two routes in each of the 256 trees, an address each; the peer would need a table of 64 MiB for each of them.
void measure_contexts(const bench_options &options, std::vector<bench_row> &rows)
{
    constexpr peer_route BOTH[] = {{0x0A000000, 8, 1}, {0x0B000000, 8, 2}};
    for (std::uint16_t tree = 0; tree < HW_ROOT_COUNT; ++tree)
        bench_require(add_route(tree, BOTH[tree % 2]), "a route in each tree");
    std::mt19937 random(20240612);
    std::vector<std::uint32_t> trees(ADDRESSES), addresses(ADDRESSES), words(ADDRESSES);
    for (std::size_t i = 0; i < ADDRESSES; ++i) {
        trees[i] = static_cast<std::uint32_t>(random()) % HW_ROOT_COUNT;
        addresses[i] = 0x0A000000 + (static_cast<std::uint32_t>(random()) & 0x01FFFFFF);
    }
    const auto lookup = [&] {
        ixp_lookup_trees(table_of_processor_1(), ixp_best_implementation(), trees.data(), addresses.data(),
                         words.data(), ADDRESSES);
    };
    lookup();
    for (std::size_t i = 0; i < ADDRESSES; ++i)
        bench_require(value_of(words[i]) == ((addresses[i] >> 24 & 1) == trees[i] % 2 ? trees[i] % 2 + 1 : MISSING),
                      "each tree has its own answer");
    const auto m = bench_rounds(options, 9, {per_lookup(options, ADDRESSES, lookup)});
    rows.push_back({"256 contexts, one route each",
                    "ns",
                    m[0],
                    "rte_lpm",
                    {},
                    "256 of its tables need 16 GiB",
                    1.4,
                    true,
                    "in " + std::to_string(HW_TABLE_BYTES / 1024) + " KiB"});
    for (std::uint16_t tree = 0; tree < HW_ROOT_COUNT; ++tree)
        remove_route(tree, BOTH[tree % 2]);
}
} // namespace

int main(int argc, char **argv)
{
    const bench_options options = bench_start(argc, argv);
    bench_card_start();
    const std::string missing = options.brief ? "brief" : peer_lpm_start();
    std::vector<bench_row> rows;
    for (const std::uint32_t count : {256u, 500u})
        measure_mix(options, count, missing, rows);
    measure_full(options, missing, rows);
    measure_contexts(options, rows);
    bench_require(mtrie_pool_check() == 0, "the audit of the pools");
    bench_print(options, "Processor lookup", rows);
    return 0;
}
