// answer_window.cpp - writing down what is right, and judging by it.
#include "answer_window.h"

namespace harness
{
namespace
{
constexpr auto ACQUIRE = std::memory_order_acquire;
constexpr auto RELEASE = std::memory_order_release;
constexpr auto RELAXED = std::memory_order_relaxed;

// Everything that was right in a window.
struct window_legal {
    bool known = false; // as far back as the window's start
    std::uint32_t own = 0, paths = 0, behind = 0;
};

window_legal legal_between(const window_address &address, std::uint64_t first, std::uint64_t last)
{
    window_legal legal;
    const std::uint64_t written = address.written.load(ACQUIRE);
    for (std::uint64_t n = written; n > 0 && written - n < WINDOW_RECORDS / 2; --n) {
        const window_record &record = address.records[(n - 1) % WINDOW_RECORDS];
        const std::uint64_t change = record.change.load(ACQUIRE);
        if (change > last)
            continue; // begun after the lookup
        legal.own |= record.own.load(ACQUIRE);
        legal.paths |= record.paths.load(ACQUIRE);
        legal.behind |= record.behind.load(ACQUIRE);
        if (change <= first) {
            // A driver that went round the ring meanwhile may have overwritten what was just read.
            legal.known = address.written.load(RELAXED) - n < WINDOW_RECORDS / 2;
            break;
        }
    }
    return legal;
}

bool used_up(const window_board &board, const window_taken &before)
{
    return board.nodes.load(RELAXED) - before.nodes >= board.free.nodes ||
           board.leaves.load(RELAXED) - before.leaves >= board.free.leaves ||
           board.blocks.load(RELAXED) - before.blocks >= board.free.blocks;
}
} // namespace

window_start window_begin(const window_board &board)
{
    // The taken records first: a change that begins in between counts as one of the window's.
    const window_taken taken{board.nodes.load(ACQUIRE), board.leaves.load(ACQUIRE), board.blocks.load(ACQUIRE)};
    return {board.completed.load(ACQUIRE), taken};
}

window_span window_end(const window_board &board, const window_start &start)
{
    // The loads of the lookup are acquires: none of them comes after the one here.
    return {start.completed, board.begun.load(ACQUIRE), used_up(board, start.taken)};
}

window_verdict window_judge(const window_board &board, const window_span &span, unsigned index,
                            const window_answer &answer)
{
    if (span.overrun)
        return WINDOW_OVERRUN;
    const window_legal legal = legal_between(board.addresses[index], span.first, span.last);
    if (!legal.known)
        return WINDOW_OVERRUN;
    const std::uint64_t changes = span.last - span.first;
    if (answer.miss)
        return changes >= 3 ? WINDOW_FOLDED : WINDOW_WRONG;
    if ((answer.bit & (answer.own ? legal.own : legal.paths)) != 0)
        return WINDOW_RIGHT;
    if (changes < 2)
        return WINDOW_WRONG;
    if ((answer.bit & legal.behind) != 0)
        return WINDOW_LEFT_BEHIND;
    return !answer.own && answer.empty ? WINDOW_CAME_BACK : WINDOW_WRONG;
}

void window_write(window_board &board, unsigned index, std::uint64_t change, std::uint32_t own, std::uint32_t paths,
                  std::uint32_t behind)
{
    window_address &address = board.addresses[index];
    const std::uint64_t written = address.written.load(RELAXED);
    window_record &record = address.records[written % WINDOW_RECORDS];
    record.change.store(change, RELEASE);
    record.own.store(own, RELEASE);
    record.paths.store(paths, RELEASE);
    record.behind.store(behind, RELEASE);
    address.written.store(written + 1, RELEASE);
}

void window_change_begins(window_board &board, std::uint64_t change, const window_taken &taken)
{
    board.nodes.store(taken.nodes, RELEASE);
    board.leaves.store(taken.leaves, RELEASE);
    board.blocks.store(taken.blocks, RELEASE);
    board.begun.store(change, RELEASE);
}

void window_change_ends(window_board &board, std::uint64_t change) { board.completed.store(change, RELEASE); }
} // namespace harness
