// ixp_avx2.cpp - the vector implementation: eight addresses a gather, four vectors in flight.
//
// A group of addresses goes down level by level in registers. A gather costs the same however many of its lanes are
// wanted, and packing those that go on costs more than the gathers that it saves; so lanes stay where they are, and one
// that has its leaf is masked out: it keeps its word and makes no access. The gathers of one level do not depend on
// each other, which is what keeps the load ports busy; a level that no lane of the group needs is left out.
// Leaves whose word has the ECMP flag are few: they are packed into a list, with their places, and choose their paths
// together once a block is through.
// Why a gather may stand for loads of single words: each of its elements is an access of its own to an aligned
// doubleword, which x86 makes whole; and accesses of a gather stand in the order of loads to those of other
// instructions, which x86 never reorders among each other, so each is an acquire. The order inside a gather is open,
// but its eight elements belong to eight addresses. What is left is the compiler, which knows a gather as a plain
// read: a fence after each keeps it from moving, merging or repeating one.
// Always: indexes are cut off at the table's last word, so what stands in unused elements can do no harm.
// Elsewhere: the rules (ixp_lookup.h), the few addresses that must walk again (ixp_walk.h).
#include "ixp_walk.h"

#if defined(__x86_64__)

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>

#include <immintrin.h>

#define IXP_VECTOR [[gnu::target("avx2,bmi,popcnt")]]

namespace
{
constexpr std::size_t LANES = 8, GROUP = 8, BLOCK = 256;
using vec = __m256i;

// Eight lane numbers a byte each, by mask: they bring the lanes of the mask to the front.
using lane_order = std::array<std::uint8_t, LANES>;
constexpr std::array<lane_order, 256> make_packings()
{
    std::array<lane_order, 256> packings{};
    for (unsigned mask = 0; mask < 256; ++mask) {
        std::uint8_t rank = 0;
        for (std::uint8_t lane = 0; lane < LANES; ++lane)
            if ((mask >> lane & 1) != 0)
                packings[mask][rank++] = lane;
    }
    return packings;
}
alignas(64) constexpr std::array<lane_order, 256> PACKINGS = make_packings();

IXP_VECTOR inline vec load8(const std::uint32_t *from)
{
    return _mm256_loadu_si256(reinterpret_cast<const vec *>(from));
}
IXP_VECTOR inline void store8(std::uint32_t *to, vec v) { _mm256_storeu_si256(reinterpret_cast<vec *>(to), v); }
IXP_VECTOR inline vec all(std::uint32_t v) { return _mm256_set1_epi32(static_cast<int>(v)); }
IXP_VECTOR inline unsigned signs(vec v) { return static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(v))); }
IXP_VECTOR inline vec tags(vec word) { return _mm256_slli_epi32(word, 31); } // as signs
IXP_VECTOR inline vec sets(vec own) { return _mm256_slli_epi32(own, 1); }    // the ECMP flags as signs
static_assert(HW_NODE_TAG == 1 && ADJ_ECMP == 1u << 30);

// The table, held in registers.
struct lane_table {
    const int *words;
    vec base;
};
IXP_VECTOR inline lane_table lanes_of(const ixp_table &table)
{
    return {reinterpret_cast<const int *>(table.words), all(table.base)};
}

IXP_VECTOR inline vec inside(vec index) { return _mm256_min_epu32(index, all(IXP_LAST_WORD)); }
IXP_VECTOR inline vec gather(const lane_table &table, vec index)
{
    const vec words = _mm256_i32gather_epi32(table.words, inside(index), 4);
    std::atomic_signal_fence(std::memory_order_acq_rel);
    return words;
}
// Only the lanes whose `wanted` is negative; the others keep `kept`.
IXP_VECTOR inline vec gather_where(const lane_table &table, vec wanted, vec index, vec kept)
{
    const vec words = _mm256_mask_i32gather_epi32(kept, table.words, inside(index), wanted, 4);
    std::atomic_signal_fence(std::memory_order_acq_rel);
    return words;
}
IXP_VECTOR inline vec index_of(const lane_table &table, vec word)
{
    return _mm256_srli_epi32(_mm256_sub_epi32(word, table.base), 2);
}

// --- The walk

// A group of addresses on its way, `N` vectors of them.
template <std::size_t N> struct lane_group {
    vec address[N], word[N];
};

// Lanes whose slot word is no leaf's: they walk again, alone.
IXP_VECTOR inline vec strays(vec slot)
{
    return _mm256_or_si256(tags(slot), _mm256_cmpeq_epi32(slot, _mm256_setzero_si256()));
}

template <std::size_t N> IXP_VECTOR inline bool any_node(const lane_group<N> &g)
{
    vec either = g.word[0];
#pragma GCC unroll 8
    for (std::size_t i = 1; i < N; ++i)
        either = _mm256_or_si256(either, g.word[i]);
    return _mm256_testz_si256(either, all(HW_NODE_TAG)) == 0;
}

// Reads the slots of one level, by the address bits from `shift` on.
template <std::size_t N, int SHIFT> IXP_VECTOR inline void descend(const lane_table &table, lane_group<N> &g)
{
#pragma GCC unroll 8
    for (std::size_t i = 0; i < N; ++i) {
        const vec slot = _mm256_and_si256(_mm256_srli_epi32(g.address[i], SHIFT), all(IXP_SLOT_MASK));
        const vec index = _mm256_add_epi32(index_of(table, g.word[i]), slot);
        g.word[i] = gather_where(table, tags(g.word[i]), index, g.word[i]);
    }
}

// Walks once: afterwards `word` holds the last slot words.
template <std::size_t N> IXP_VECTOR inline void walk(const lane_table &table, lane_group<N> &g)
{
    descend<N, 24>(table, g);
    if (!any_node(g))
        return;
    descend<N, 16>(table, g);
    if (!any_node(g))
        return;
    descend<N, 8>(table, g);
    if (any_node(g))
        descend<N, 0>(table, g);
}

// The addresses at `addresses` and the root words of their trees; `root` is that of the one tree.
template <std::size_t N> IXP_VECTOR inline void enter(const lane_table &table, const ixp_trees &trees, vec root,
                                                      const std::uint32_t *addresses, lane_group<N> &g)
{
#pragma GCC unroll 8
    for (std::size_t i = 0; i < N; ++i) {
        g.address[i] = load8(addresses + i * LANES);
        g.word[i] = root;
        if (trees.each != nullptr)
            g.word[i] = gather(table, _mm256_and_si256(load8(trees.each + i * LANES), all(IXP_TREE_MASK)));
    }
}

// A group's leaf words go to `own`, its slot words stay. Returns whether a lane has none.
template <std::size_t N>
IXP_VECTOR inline bool read_leaves(const lane_table &table, const lane_group<N> &g, vec (&own)[N])
{
    vec stray = _mm256_setzero_si256();
#pragma GCC unroll 8
    for (std::size_t i = 0; i < N; ++i) {
        own[i] = gather(table, index_of(table, g.word[i]));
        stray = _mm256_or_si256(stray, strays(g.word[i]));
    }
    return signs(stray) != 0;
}

// What a call works on.
struct lane_call {
    const ixp_table &table;
    const ixp_trees &trees;
    std::uint32_t root; // of the one tree
};

// The places in a group of the lanes without a leaf.
template <std::size_t N> IXP_VECTOR inline std::uint64_t stray_places(const lane_group<N> &g)
{
    static_assert(N * LANES <= 64);
    std::uint64_t places = 0;
    for (std::size_t i = 0; i < N; ++i)
        places |= std::uint64_t{signs(strays(g.word[i]))} << (i * LANES);
    return places;
}

// Looks up N vectors of addresses that begin at `at`.
template <std::size_t N> IXP_VECTOR inline void lookup_group(const lane_call &call, const std::uint32_t *addresses,
                                                             std::uint32_t *words, std::size_t at)
{
    const lane_table table = lanes_of(call.table);
    const ixp_trees trees = ixp_trees_from(call.trees, at);
    lane_group<N> g;
    enter(table, trees, all(call.root), addresses + at, g);
    walk(table, g);
    vec own[N];
    const bool stray = read_leaves(table, g, own);
#pragma GCC unroll 8
    for (std::size_t i = 0; i < N; ++i)
        store8(words + at + i * LANES, own[i]);
    if (!stray)
        return;
    for (std::uint64_t places = stray_places(g); places != 0; places &= places - 1) {
        const std::size_t i = at + static_cast<std::size_t>(std::countr_zero(places));
        words[i] = ixp_adjacency(call.table, ixp_tree_of(call.trees, i), addresses[i], IXP_WALKS - 1);
    }
}

// --- Paths

// High half of the products with one number, right-shifted by `by`.
IXP_VECTOR inline vec high_product(vec v, std::uint32_t factor, int by)
{
    const vec even = _mm256_srli_epi64(_mm256_mul_epu32(v, all(factor)), 32);
    const vec odd = _mm256_mul_epu32(_mm256_srli_epi64(v, 32), all(factor));
    return _mm256_srl_epi32(_mm256_blend_epi32(even, odd, 0xAA), _mm_cvtsi32_si128(by));
}

// hash mod (count + 1), counts 0 to 7. First modulo 840, which all of 1 to 8 divide; what is left then is small enough
// for a product with 65536 / divisor, rounded up.
constexpr std::uint32_t COMMON = 840, EIGHTH = COMMON / 8;
constexpr std::uint32_t EIGHTH_INVERSE = static_cast<std::uint32_t>((1ull << 38) / EIGHTH + 1); // exact below 2^29
IXP_VECTOR inline vec path_of(vec hash, vec count)
{
    const vec quotient = high_product(_mm256_srli_epi32(hash, 3), EIGHTH_INVERSE, 6);
    const vec rest = _mm256_sub_epi32(hash, _mm256_mullo_epi32(quotient, all(COMMON)));
    const vec inverses = _mm256_setr_epi32(65536, 32769, 21846, 16385, 13108, 10923, 9363, 8193);
    const vec inverse = _mm256_permutevar8x32_epi32(inverses, count);
    const vec times = _mm256_srli_epi32(_mm256_mullo_epi32(rest, inverse), 16);
    return _mm256_sub_epi32(rest, _mm256_mullo_epi32(times, _mm256_add_epi32(count, all(1))));
}

// The leaves of a block whose word has the ECMP flag, with room for a whole vector behind its end.
struct path_list {
    alignas(32) std::uint32_t slot[BLOCK + LANES];
    alignas(32) std::uint32_t place[BLOCK + LANES]; // in the block
    std::size_t count;
};

// Appends the lanes of `mask`.
IXP_VECTOR inline void list_append(path_list &list, unsigned mask, vec slot, std::size_t place)
{
    const vec order = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(PACKINGS[mask].data())));
    store8(list.slot + list.count, _mm256_permutevar8x32_epi32(slot, order));
    store8(list.place + list.count, _mm256_add_epi32(order, all(static_cast<std::uint32_t>(place))));
    list.count += static_cast<std::size_t>(std::popcount(mask));
}

// Looks up N vectors of packets that begin at `at`: the leaves' words as answers, path 0, and the list of sets.
template <std::size_t N>
IXP_VECTOR inline void forward_group(const lane_call &call, const ixp_packets &p, std::size_t at, path_list &list)
{
    const lane_table table = lanes_of(call.table);
    const ixp_trees trees = ixp_trees_from(call.trees, at);
    lane_group<N> g;
    enter(table, trees, all(call.root), p.addresses + at, g);
    walk(table, g);
    vec own[N];
    const bool stray = read_leaves(table, g, own);
#pragma GCC unroll 8
    for (std::size_t i = 0; i < N; ++i) {
        store8(p.words + at + i * LANES, own[i]);
        store8(p.paths + at + i * LANES, _mm256_setzero_si256());
        list_append(list, signs(_mm256_andnot_si256(strays(g.word[i]), sets(own[i]))), g.word[i], at + i * LANES);
    }
    if (!stray)
        return;
    for (std::uint64_t places = stray_places(g); places != 0; places &= places - 1) {
        const std::size_t i = at + static_cast<std::size_t>(std::countr_zero(places));
        const ixp_choice choice =
            ixp_path(call.table, ixp_tree_of(call.trees, i), p.addresses[i], p.hashes[i], IXP_WALKS - 1);
        p.words[i] = choice.word;
        p.paths[i] = choice.path;
    }
}

struct lane_choice {
    vec entry, path; // path 0: the leaf's own word
};
IXP_VECTOR inline lane_choice choose(const lane_table &table, vec slot, vec hash)
{
    const vec pointer = gather(table, _mm256_add_epi32(index_of(table, slot), all(1)));
    const vec block = index_of(table, pointer);
    const vec header = gather(table, block);
    const vec count = _mm256_and_si256(_mm256_srli_epi32(header, static_cast<int>(ECMP_COUNT_SHIFT)), all(7));
    const vec path = path_of(hash, count);
    const vec entry = gather(table, _mm256_add_epi32(block, path));
    const vec same = _mm256_cmpeq_epi32(gather(table, block), header);
    const vec valid = _mm256_and_si256(_mm256_srai_epi32(header, 31), same);
    const vec taken = _mm256_andnot_si256(_mm256_cmpeq_epi32(pointer, _mm256_setzero_si256()), valid);
    return {entry, _mm256_and_si256(path, taken)};
}

// The sets' paths, put into their places.
IXP_VECTOR void choose_all(const ixp_table &words, path_list &list, const ixp_packets &p)
{
    const lane_table table = lanes_of(words);
    store8(list.place + list.count, _mm256_setzero_si256()); // the last vector's other lanes
    for (std::size_t i = 0; i < list.count; i += LANES) {
        const vec hash = _mm256_i32gather_epi32(reinterpret_cast<const int *>(p.hashes), load8(list.place + i), 4);
        const lane_choice choice = choose(table, load8(list.slot + i), hash);
        alignas(32) std::uint32_t entry[LANES], path[LANES];
        store8(entry, choice.entry);
        store8(path, choice.path);
        for (std::size_t lane = 0; lane < LANES && i + lane < list.count; ++lane) {
            const std::uint32_t place = list.place[i + lane];
            p.words[place] = path[lane] == 0 ? p.words[place] : entry[lane];
            p.paths[place] = path[lane];
        }
    }
}

IXP_VECTOR void forward_block(const lane_call &call, const ixp_packets &p, path_list &list)
{
    list.count = 0;
    std::size_t at = 0;
    for (; at + GROUP * LANES <= p.count; at += GROUP * LANES)
        forward_group<GROUP>(call, p, at, list);
    for (; at < p.count; at += LANES)
        forward_group<1>(call, p, at, list);
    choose_all(call.table, list, p);
}

// The end of a run that does not fill a vector, with room for one. Unused lanes look up address 0 of tree 0.
struct run_end {
    alignas(32) std::uint32_t addresses[LANES] = {}, hashes[LANES] = {}, trees[LANES] = {}, words[LANES] = {},
                              paths[LANES] = {};
    run_end(const ixp_trees &own, const std::uint32_t *from, std::size_t count)
    {
        std::copy_n(from, count, addresses);
        if (own.each != nullptr)
            std::copy_n(own.each, count, trees);
    }
};
ixp_trees trees_of_end(const ixp_trees &trees, const run_end &end)
{
    return {trees.each == nullptr ? nullptr : end.trees, trees.one};
}
} // namespace

bool ixp_avx2_runs()
{
    static const bool runs = __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("bmi") != 0 &&
                             __builtin_cpu_supports("popcnt") != 0;
    return runs;
}

IXP_VECTOR void ixp_avx2_lookup(const ixp_table &table, const ixp_trees &trees, const std::uint32_t *addresses,
                                std::uint32_t *words, std::size_t count)
{
    const std::size_t whole = count - count % LANES;
    std::size_t at = 0;
    for (std::uint32_t root = 0; at < whole;) {
        if (at % BLOCK == 0)
            root = ixp_load(table, trees.one & IXP_TREE_MASK);
        const lane_call call{table, trees, root};
        if (at + GROUP * LANES <= whole) {
            lookup_group<GROUP>(call, addresses, words, at);
            at += GROUP * LANES;
        } else {
            lookup_group<1>(call, addresses, words, at);
            at += LANES;
        }
    }
    if (at == count)
        return;
    run_end end(ixp_trees_from(trees, at), addresses + at, count - at);
    const ixp_trees own = trees_of_end(trees, end);
    lookup_group<1>({table, own, ixp_load(table, trees.one & IXP_TREE_MASK)}, end.addresses, end.words, 0);
    std::copy_n(end.words, count - at, words + at);
}

void ixp_avx2_forward(const ixp_table &table, const ixp_trees &trees, const ixp_packets &p)
{
    path_list list;
    const std::size_t whole = p.count - p.count % LANES;
    for (std::size_t at = 0; at < whole; at += BLOCK) {
        const ixp_trees own = ixp_trees_from(trees, at);
        forward_block({table, own, ixp_load(table, trees.one & IXP_TREE_MASK)},
                      {p.addresses + at, p.hashes + at, p.words + at, p.paths + at, std::min(BLOCK, whole - at)}, list);
    }
    if (whole == p.count)
        return;
    const std::size_t rest = p.count - whole;
    run_end end(ixp_trees_from(trees, whole), p.addresses + whole, rest);
    std::copy_n(p.hashes + whole, rest, end.hashes);
    const ixp_trees own = trees_of_end(trees, end);
    forward_block({table, own, ixp_load(table, trees.one & IXP_TREE_MASK)},
                  {end.addresses, end.hashes, end.words, end.paths, LANES}, list);
    std::copy_n(end.words, rest, p.words + whole);
    std::copy_n(end.paths, rest, p.paths + whole);
}

#else // no such processor: the dispatcher never comes here

bool ixp_avx2_runs() { return false; }
void ixp_avx2_lookup(const ixp_table &, const ixp_trees &, const std::uint32_t *, std::uint32_t *, std::size_t) {}
void ixp_avx2_forward(const ixp_table &, const ixp_trees &, const ixp_packets &) {}

#endif
