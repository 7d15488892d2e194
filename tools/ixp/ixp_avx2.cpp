// ixp_avx2.cpp - the vector body: eight addresses a gather.
//
// A block of addresses goes down level by level. Those whose slot names a node are packed together, in order, before
// the next level, so that no gather is spent on an address that has its leaf already; on the way back the packed
// results are spread over their gaps again. A block's gathers of one level do not depend on each other.
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
constexpr std::size_t LANES = 8, BLOCK = 256;
using vec = __m256i;

// Eight lane numbers a byte each, by mask: PACK brings the lanes of the mask to the front, SPREAD back to their places.
struct lane_orders {
    std::array<std::array<std::uint8_t, LANES>, 256> pack, spread;
};
constexpr lane_orders make_orders()
{
    lane_orders orders{};
    for (unsigned mask = 0; mask < 256; ++mask) {
        std::uint8_t rank = 0;
        for (std::uint8_t lane = 0; lane < LANES; ++lane) {
            orders.spread[mask][lane] = rank;
            if ((mask >> lane & 1) != 0)
                orders.pack[mask][rank++] = lane;
        }
    }
    return orders;
}
alignas(64) constexpr lane_orders ORDERS = make_orders();

// A list of addresses on their way, with room for a whole vector behind its end.
struct lane_list {
    alignas(32) std::uint32_t address[BLOCK + LANES]; // or what else belongs to the lane
    alignas(32) std::uint32_t word[BLOCK + LANES];
    std::size_t count;
};

IXP_VECTOR inline vec load8(const std::uint32_t *from)
{
    return _mm256_loadu_si256(reinterpret_cast<const vec *>(from));
}
IXP_VECTOR inline void store8(std::uint32_t *to, vec v) { _mm256_storeu_si256(reinterpret_cast<vec *>(to), v); }
IXP_VECTOR inline vec all(std::uint32_t v) { return _mm256_set1_epi32(static_cast<int>(v)); }
IXP_VECTOR inline unsigned signs(vec v) { return static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(v))); }
IXP_VECTOR inline vec order_of(const std::array<std::uint8_t, LANES> &order)
{
    return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(order.data())));
}
IXP_VECTOR inline vec where(vec sign, vec yes, vec no)
{
    return _mm256_castps_si256(
        _mm256_blendv_ps(_mm256_castsi256_ps(no), _mm256_castsi256_ps(yes), _mm256_castsi256_ps(sign)));
}
IXP_VECTOR inline vec tags(vec word) { return _mm256_slli_epi32(word, 31); } // as signs

IXP_VECTOR inline vec gather(const ixp_table &table, vec index)
{
    const vec inside = _mm256_min_epu32(index, all(IXP_LAST_WORD));
    const vec words = _mm256_i32gather_epi32(reinterpret_cast<const int *>(table.words), inside, 4);
    std::atomic_signal_fence(std::memory_order_acq_rel);
    return words;
}
IXP_VECTOR inline vec index_of(const ixp_table &table, vec word)
{
    return _mm256_srli_epi32(_mm256_sub_epi32(word, all(table.base)), 2);
}

// Lanes of the vector at `at` that belong to a list of `count`.
inline unsigned live_lanes(std::size_t at, std::size_t count)
{
    return count - at >= LANES ? 0xFF : (1u << (count - at)) - 1;
}

// Appends the lanes of `mask` to a list.
IXP_VECTOR inline void pack_into(lane_list &list, unsigned mask, vec address, vec word)
{
    const vec order = order_of(ORDERS.pack[mask]);
    store8(list.address + list.count, _mm256_permutevar8x32_epi32(address, order));
    store8(list.word + list.count, _mm256_permutevar8x32_epi32(word, order));
    list.count += static_cast<std::size_t>(std::popcount(mask));
}

// Reads the slots of one level: `list` holds node words and gets slot words; those that name nodes go to `next`.
IXP_VECTOR inline void descend(const ixp_table &table, lane_list &list, int shift, lane_list &next)
{
    const __m128i by = _mm_cvtsi32_si128(shift);
    next.count = 0;
    for (std::size_t i = 0; i < list.count; i += LANES) {
        const vec address = load8(list.address + i);
        const vec slot = _mm256_and_si256(_mm256_srl_epi32(address, by), all(IXP_SLOT_MASK));
        const vec word = gather(table, _mm256_add_epi32(index_of(table, load8(list.word + i)), slot));
        store8(list.word + i, word);
        pack_into(next, signs(tags(word)) & live_lanes(i, list.count), address, word);
    }
}

// Puts the words of `next` where `list` still names nodes.
IXP_VECTOR inline void ascend(lane_list &list, const lane_list &next)
{
    std::size_t taken = 0;
    for (std::size_t i = 0; taken < next.count; i += LANES) {
        const vec word = load8(list.word + i), open = tags(word);
        const unsigned mask = signs(open);
        const vec found = _mm256_permutevar8x32_epi32(load8(next.word + taken), order_of(ORDERS.spread[mask]));
        store8(list.word + i, where(open, found, word));
        taken += static_cast<std::size_t>(std::popcount(mask));
    }
}

// The root words of a block. Returns whether all of them name nodes.
IXP_VECTOR inline bool enter(const ixp_table &table, const ixp_trees &trees, lane_list &list)
{
    if (trees.each == nullptr) {
        const std::uint32_t one = ixp_load(table, trees.one & IXP_TREE_MASK);
        const vec root = all(one);
        for (std::size_t i = 0; i < list.count; i += LANES)
            store8(list.word + i, root);
        return ixp_is_node(one);
    }
    unsigned without = 0;
    for (std::size_t i = 0; i < list.count; i += LANES) {
        const unsigned live = live_lanes(i, list.count);
        alignas(32) std::uint32_t tree[LANES] = {};
        std::copy_n(trees.each + i, std::min(LANES, list.count - i), tree);
        const vec root = gather(table, _mm256_and_si256(load8(tree), all(IXP_TREE_MASK)));
        store8(list.word + i, root);
        without |= ~signs(tags(root)) & live;
    }
    return without == 0;
}

using lane_levels = lane_list[IXP_LEVELS];

// Walks a block of addresses once: afterwards levels[0].word holds their last slot words. Returns false, with nothing
// to be had, when a tree has no root node.
IXP_VECTOR bool walk(const ixp_table &table, const ixp_trees &trees, const std::uint32_t *addresses, std::size_t count,
                     lane_levels &levels)
{
    levels[0].count = count;
    std::copy_n(addresses, count, levels[0].address);
    if (!enter(table, trees, levels[0]))
        return false;
    unsigned depth = 0;
    for (; depth + 1 < IXP_LEVELS && levels[depth].count > 0; ++depth)
        descend(table, levels[depth], static_cast<int>(IXP_TOP_SHIFT - IXP_STRIDE * depth), levels[depth + 1]);
    lane_list &last = levels[IXP_LEVELS - 1];
    if (depth + 1 == IXP_LEVELS)
        for (std::size_t i = 0; i < last.count; i += LANES) {
            const vec slot = _mm256_and_si256(load8(last.address + i), all(IXP_SLOT_MASK));
            store8(last.word + i, gather(table, _mm256_add_epi32(index_of(table, load8(last.word + i)), slot)));
        }
    for (; depth > 0; --depth)
        ascend(levels[depth - 1], levels[depth]);
    return true;
}

// Lanes whose slot word is no leaf's: they walk again, alone.
IXP_VECTOR inline unsigned strays(vec slot)
{
    return signs(_mm256_or_si256(tags(slot), _mm256_cmpeq_epi32(slot, _mm256_setzero_si256())));
}

// Copies a vector to the caller's array, of whose end it may be short.
IXP_VECTOR inline void put(std::uint32_t *to, std::size_t at, std::size_t count, vec v)
{
    if (count - at >= LANES)
        return store8(to + at, v);
    alignas(32) std::uint32_t lanes[LANES];
    store8(lanes, v);
    std::copy_n(lanes, count - at, to + at);
}

IXP_VECTOR void lookup_block(const ixp_table &table, const ixp_trees &trees, const std::uint32_t *addresses,
                             std::uint32_t *words, std::size_t count, lane_levels &levels)
{
    const bool walked = walk(table, trees, addresses, count, levels);
    for (std::size_t i = 0; i < count; i += LANES) {
        const vec slot = walked ? load8(levels[0].word + i) : _mm256_setzero_si256();
        put(words, i, count, gather(table, index_of(table, slot)));
        for (unsigned stray = strays(slot) & live_lanes(i, count); stray != 0; stray &= stray - 1) {
            const std::size_t at = i + static_cast<unsigned>(std::countr_zero(stray));
            words[at] = ixp_adjacency(table, ixp_tree_of(trees, at), addresses[at], walked ? IXP_WALKS - 1 : IXP_WALKS);
        }
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

// The leaves of a block whose word has the ECMP flag: address holds the flow's hash, word the slot word.
struct path_list {
    lane_list flows;
    alignas(32) std::uint32_t path[BLOCK + LANES]; // 0: the leaf's own word
};

// Chooses: afterwards `flows.word` holds the entry where `path` is not 0.
IXP_VECTOR void choose(const ixp_table &table, path_list &list)
{
    for (std::size_t i = 0; i < list.flows.count; i += LANES) {
        const vec leaf = index_of(table, load8(list.flows.word + i));
        const vec pointer = gather(table, _mm256_add_epi32(leaf, all(1)));
        const vec block = index_of(table, pointer);
        const vec header = gather(table, block);
        const vec count = _mm256_and_si256(_mm256_srli_epi32(header, static_cast<int>(ECMP_COUNT_SHIFT)), all(7));
        const vec path = path_of(load8(list.flows.address + i), count);
        const vec entry = gather(table, _mm256_add_epi32(block, path));
        const vec same = _mm256_cmpeq_epi32(gather(table, block), header);
        const vec valid = _mm256_and_si256(_mm256_srai_epi32(header, 31), same);
        const vec taken = _mm256_andnot_si256(_mm256_cmpeq_epi32(pointer, _mm256_setzero_si256()), valid);
        store8(list.flows.word + i, entry);
        store8(list.path + i, _mm256_and_si256(path, taken));
    }
}

// Reads the leaves' words and lists those that are sets.
IXP_VECTOR void read_leaves(const ixp_table &table, const ixp_packets &p, lane_list &slots, path_list &list)
{
    list.flows.count = 0;
    for (std::size_t i = 0; i < p.count; i += LANES) {
        const vec slot = load8(slots.word + i), own = gather(table, index_of(table, slot));
        alignas(32) std::uint32_t hash[LANES] = {};
        std::copy_n(p.hashes + i, std::min(LANES, p.count - i), hash);
        const unsigned sets = signs(_mm256_slli_epi32(own, 1)) & ~strays(slot) & live_lanes(i, p.count);
        if (sets != 0)
            pack_into(list.flows, sets, load8(hash), slot);
        store8(slots.address + i, own); // the addresses are not needed any more
    }
}

IXP_VECTOR void answer(const ixp_table &table, const ixp_trees &trees, const ixp_packets &p, const lane_list &slots,
                       const path_list &list)
{
    std::size_t taken = 0;
    for (std::size_t i = 0; i < p.count; i += LANES) {
        const vec slot = load8(slots.word + i), own = load8(slots.address + i);
        const unsigned live = live_lanes(i, p.count), stray = strays(slot) & live;
        const unsigned sets = signs(_mm256_slli_epi32(own, 1)) & ~stray & live;
        vec path = _mm256_setzero_si256(), word = own;
        if (sets != 0) {
            const vec order = order_of(ORDERS.spread[sets]);
            const vec entry = _mm256_permutevar8x32_epi32(load8(list.flows.word + taken), order);
            path = _mm256_permutevar8x32_epi32(load8(list.path + taken), order);
            path = _mm256_and_si256(path, _mm256_srai_epi32(_mm256_slli_epi32(own, 1), 31));
            word = where(_mm256_cmpgt_epi32(path, _mm256_setzero_si256()), entry, own);
            taken += static_cast<std::size_t>(std::popcount(sets));
        }
        put(p.words, i, p.count, word);
        put(p.paths, i, p.count, path);
        for (unsigned rest = stray; rest != 0; rest &= rest - 1) {
            const std::size_t at = i + static_cast<unsigned>(std::countr_zero(rest));
            const ixp_choice choice =
                ixp_path(table, ixp_tree_of(trees, at), p.addresses[at], p.hashes[at], IXP_WALKS - 1);
            p.words[at] = choice.word;
            p.paths[at] = choice.path;
        }
    }
}

void forward_alone(const ixp_table &table, const ixp_trees &trees, const ixp_packets &p)
{
    for (std::size_t i = 0; i < p.count; ++i) {
        const ixp_choice choice = ixp_path(table, ixp_tree_of(trees, i), p.addresses[i], p.hashes[i], IXP_WALKS);
        p.words[i] = choice.word;
        p.paths[i] = choice.path;
    }
}
} // namespace

bool ixp_avx2_runs()
{
    static const bool runs = __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("bmi") != 0 &&
                             __builtin_cpu_supports("popcnt") != 0;
    return runs;
}

void ixp_avx2_lookup(const ixp_table &table, const ixp_trees &trees, const std::uint32_t *addresses,
                     std::uint32_t *words, std::size_t count)
{
    lane_levels levels;
    for (std::size_t at = 0; at < count; at += BLOCK)
        lookup_block(table, ixp_trees_from(trees, at), addresses + at, words + at, std::min(BLOCK, count - at), levels);
}

void ixp_avx2_forward(const ixp_table &table, const ixp_trees &trees, const ixp_packets &packets)
{
    lane_levels levels;
    path_list list;
    for (std::size_t at = 0; at < packets.count; at += BLOCK) {
        const ixp_packets p{packets.addresses + at, packets.hashes + at, packets.words + at, packets.paths + at,
                            std::min(BLOCK, packets.count - at)};
        const ixp_trees own = ixp_trees_from(trees, at);
        if (!walk(table, own, p.addresses, p.count, levels)) {
            forward_alone(table, own, p);
            continue;
        }
        read_leaves(table, p, levels[0], list);
        choose(table, list);
        answer(table, own, p, levels[0], list);
    }
}

#else // no such processor: the dispatcher never comes here

bool ixp_avx2_runs() { return false; }
void ixp_avx2_lookup(const ixp_table &, const ixp_trees &, const std::uint32_t *, std::uint32_t *, std::size_t) {}
void ixp_avx2_forward(const ixp_table &, const ixp_trees &, const ixp_packets &) {}

#endif
