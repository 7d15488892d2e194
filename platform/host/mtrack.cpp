// mtrack.cpp - memory tracking: who holds how much of the card's heap.
//
// Eight bytes in front of a block hold its type and size, so a free needs neither and the counts can not drift.
// Always: live_bytes of a type is the sum of the sizes of its live blocks, as asked for; peak_bytes never falls.
// Elsewhere: where the blocks come from, and what AddressSanitizer sees of them (card_heap.cpp).
#include "mtrack.h"

#include <limits>

#include "card_space.h"

namespace
{
struct block_header {
    std::uint32_t type;
    std::uint32_t size; // bytes of the block behind the header
};
static_assert(sizeof(block_header) == 8);

mtrack_type_stats stats[MTRACK_MAX_TYPES];
unsigned type_count = 0;
bool is_frozen = false; // set by a signal, whose clean-up may stand in the middle of a change of the heap
} // namespace

int mtrack_init(const char *, std::uint32_t, const char *const *type_names, unsigned count)
{
    if (count > MTRACK_MAX_TYPES)
        return -1;
    for (unsigned i = 0; i < count; ++i)
        stats[i].name = type_names[i];
    type_count = count;
    return 0;
}

void *mtrack_alloc(std::uint32_t, std::uint32_t type, std::size_t size)
{
    if (type >= MTRACK_MAX_TYPES || size > std::numeric_limits<std::uint32_t>::max())
        return nullptr;
    auto *const header = static_cast<block_header *>(card_heap_alloc(sizeof(block_header) + size));
    if (header == nullptr)
        return nullptr;
    *header = {type, static_cast<std::uint32_t>(size)};

    mtrack_type_stats &s = stats[type];
    ++s.live_blocks;
    s.live_bytes += size;
    if (s.peak_bytes < s.live_bytes)
        s.peak_bytes = s.live_bytes;
    return header + 1;
}

void mtrack_free(void *block)
{
    if (block == nullptr)
        return;
    block_header *const header = static_cast<block_header *>(block) - 1;
    mtrack_type_stats &s = stats[header->type];
    --s.live_blocks;
    s.live_bytes -= header->size;
    if (!is_frozen)
        card_heap_free(header, sizeof(block_header) + header->size);
}

void mtrack_freeze() { is_frozen = true; }

unsigned mtrack_type_count() { return type_count; }

mtrack_type_stats mtrack_stats(unsigned type) { return stats[type]; }
