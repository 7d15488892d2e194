// window_reader.cpp - looking up and judging, with windows as short as a implementation allows.
#include "window_reader.h"

#include <algorithm>
#include <random>

#include "random_changes.h"

namespace harness
{
namespace
{
constexpr unsigned BATCH = 32; // addresses that the batch and vector implementations take at a time
constexpr auto RELAXED = std::memory_order_relaxed;

window_answer answer_of(std::uint32_t word, std::uint32_t path)
{
    if (word == IXP_MISS)
        return {true, false, 0, false};
    const ixp_hop hop = ixp_hop_of(word, path);
    const bool flags = path == 0 && (word & (ADJ_IP_RESOLVE | ADJ_NAT)) != 0; // no route here has them
    return {false, path == 0, flags ? 0 : change_path_bit(hop.ifid, hop.encap), word == 0};
}

void note(const window_board &board, const window_span &span, unsigned index, std::uint32_t word, std::uint32_t path,
          window_tally &tally)
{
    const window_verdict verdict = window_judge(board, span, index, answer_of(word, path));
    tally.verdicts[verdict].fetch_add(1, RELAXED);
    tally.checked.fetch_add(verdict != WINDOW_OVERRUN, RELAXED);
    tally.paths[path & 7].fetch_add(1, RELAXED);
    if (verdict != WINDOW_WRONG || tally.verdicts[WINDOW_WRONG].load(RELAXED) != 1)
        return;
    tally.wrong_index.store(index, RELAXED);
    tally.wrong_word.store(word, RELAXED);
    tally.wrong_path.store(path, RELAXED);
    tally.wrong_from.store(span.first, RELAXED);
    tally.wrong_to.store(span.last, RELAXED);
}
} // namespace

void window_read_pass(const window_board &board, const ixp_table &table, ixp_implementation implementation,
                      std::uint32_t hash, window_tally &tally)
{
    const unsigned step = implementation == IXP_SCALAR ? 1 : BATCH;
    std::uint32_t trees[BATCH], addresses[BATCH], hashes[BATCH], words[BATCH], paths[BATCH];
    for (unsigned at = 0; at < board.count; at += step) {
        const unsigned count = std::min(step, board.count - at);
        for (unsigned i = 0; i < count; ++i) {
            trees[i] = board.addresses[at + i].tree;
            addresses[i] = board.addresses[at + i].address;
            hashes[i] = hash + i;
        }
        const window_start start = window_begin(board);
        ixp_forward_trees(table, implementation, trees, {addresses, hashes, words, paths, count});
        const window_span span = window_end(board, start);
        for (unsigned i = 0; i < count; ++i)
            note(board, span, at + i, words[i], paths[i], tally);
        tally.lookups.fetch_add(count, RELAXED);
    }
}

void window_read(const window_board &board, const ixp_table &table, std::uint32_t seed, window_tally &tally)
{
    std::mt19937 random(seed);
    while (!board.stop.load())
        for (unsigned implementation = 0; implementation < IXP_IMPLEMENTATIONS; ++implementation)
            if (ixp_implementation_runs(static_cast<ixp_implementation>(implementation)))
                window_read_pass(board, table, static_cast<ixp_implementation>(implementation),
                                 static_cast<std::uint32_t>(random()), tally);
}
} // namespace harness
