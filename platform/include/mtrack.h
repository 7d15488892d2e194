// mtrack.h - memory tracking: the card's heap with counts per type of block.
#pragma once

#include <cstddef>
#include <cstdint>

struct mtrack_type_stats {
    const char *name;          // as given to mtrack_init
    std::uint32_t live_blocks; // allocated and not freed
    std::uint64_t live_bytes;  // their sizes, as asked for
    std::uint64_t peak_bytes;  // highest live_bytes ever
};

constexpr unsigned MTRACK_MAX_TYPES = 32;

// Names the types 0 to count - 1 of the process `module`. The names must outlive the process.
// Returns 0, or -1 when count is over MTRACK_MAX_TYPES.
int mtrack_init(const char *process_name, std::uint32_t module, const char *const *type_names, unsigned count);

// A zeroed block of `size` bytes in the card space, charged to `type`.
// Returns null when memory is short or `type` is MTRACK_MAX_TYPES or more.
[[nodiscard]] void *mtrack_alloc(std::uint32_t module, std::uint32_t type, std::size_t size);

// Frees a block of mtrack_alloc; nothing for null.
void mtrack_free(void *block);

// For the clean-up of a signal, which may have interrupted an allocation: from here on a freed block is only counted as
// released, and the heap is not touched.
void mtrack_freeze();

// The number of types named, and the counts of one of them (type: 0 to mtrack_type_count() - 1).
unsigned mtrack_type_count();
mtrack_type_stats mtrack_stats(unsigned type);
