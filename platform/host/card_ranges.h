// card_ranges.h - page ranges of the card space, shared by its mappings and its heap. For platform/host only.
#pragma once

#include <cstddef>

#include "card_space.h"

constexpr std::size_t CARD_PAGE_BYTES = 4096;
constexpr std::size_t CARD_SPACE_BYTES = std::size_t{1} << 32;

// `bytes` rounded up to whole pages. bytes: at most CARD_SPACE_BYTES.
constexpr std::size_t card_pages_bytes(std::size_t bytes)
{
    return (bytes + CARD_PAGE_BYTES - 1) / CARD_PAGE_BYTES * CARD_PAGE_BYTES;
}

// Takes a free range of the card space, inaccessible still, `bytes` rounded up to pages. The reservation is made by the
// first call. Returns its address; 0 when no such range is free or the host refuses the reservation.
[[nodiscard]] card_addr card_range_take(std::size_t bytes);

// Gives a range back: whatever is mapped there goes, and the range is inaccessible again. bytes: as it was taken.
void card_range_give(card_addr addr, std::size_t bytes);
