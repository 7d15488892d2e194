// card_space.cpp - the reservation behind 32-bit card addresses, and the mappings inside it.
//
// Twice the space is reserved and trimmed to the part that is aligned to its own size, so the low half of a host
// pointer is the card address. One bit a page says what is taken. A card has few, large mappings and a heap that grows
// in large steps, so the bits are searched rarely; they need no allocation, which matters where memory is short.
// Always: page 0 is taken, so address 0 is no address; every page that is not taken is PROT_NONE; the length of a
// mapping is the one remembered here, never the one that a caller gives when taking it down.
// Elsewhere: how the heap cuts its ranges into blocks (card_heap.cpp).
#include "card_space.h"

#include <array>
#include <cstdint>

#include <sys/mman.h>

#include "card_ranges.h"

std::byte *card_space_base = nullptr;

namespace
{
constexpr std::size_t PAGES = CARD_SPACE_BYTES / CARD_PAGE_BYTES;
constexpr std::size_t WORD_BITS = 64;
constexpr int RESERVED = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;

struct mapping {
    card_addr addr;    // 0: the entry is free
    std::size_t bytes; // whole pages
};

std::array<std::uint64_t, PAGES / WORD_BITS> taken; // a bit a page
std::array<mapping, 64> mappings;
std::size_t first_free_hint = 1; // no page below it is free

bool is_taken(std::size_t page) { return (taken[page / WORD_BITS] >> page % WORD_BITS & 1) != 0; }

void mark(std::size_t page, std::size_t count, bool used)
{
    for (const std::size_t end = page + count; page < end; ++page) {
        const std::uint64_t bit = std::uint64_t{1} << page % WORD_BITS;
        taken[page / WORD_BITS] = used ? taken[page / WORD_BITS] | bit : taken[page / WORD_BITS] & ~bit;
    }
}

bool reserve()
{
    if (card_space_base != nullptr)
        return true;
    void *const whole = mmap(nullptr, 2 * CARD_SPACE_BYTES, PROT_NONE, RESERVED, -1, 0);
    if (whole == MAP_FAILED)
        return false;

    auto *const start = static_cast<std::byte *>(whole);
    const std::size_t past = reinterpret_cast<std::uintptr_t>(whole) % CARD_SPACE_BYTES;
    const std::size_t before = past == 0 ? 0 : CARD_SPACE_BYTES - past;
    if (before != 0)
        (void)munmap(start, before); // what cannot be trimmed stays reserved, which harms nothing
    (void)munmap(start + before + CARD_SPACE_BYTES, CARD_SPACE_BYTES - before);
    mark(0, 1, true);
    card_space_base = start + before;
    return true;
}

// First page of the lowest run of `count` free pages; 0 when there is none.
std::size_t find_run(std::size_t count)
{
    std::size_t run = 0;
    for (std::size_t page = first_free_hint; page < PAGES;) {
        if (page % WORD_BITS == 0 && taken[page / WORD_BITS] == ~std::uint64_t{0}) {
            run = 0;
            page += WORD_BITS;
            continue;
        }
        run = is_taken(page) ? 0 : run + 1;
        ++page;
        if (run == count)
            return page - count;
    }
    return 0;
}
} // namespace

card_addr card_range_take(std::size_t bytes)
{
    if (bytes == 0 || bytes >= CARD_SPACE_BYTES || !reserve())
        return 0;
    const std::size_t count = card_pages_bytes(bytes) / CARD_PAGE_BYTES;
    const std::size_t page = find_run(count);
    if (page == 0)
        return 0;
    mark(page, count, true);
    while (first_free_hint < PAGES && is_taken(first_free_hint))
        ++first_free_hint;
    return static_cast<card_addr>(page * CARD_PAGE_BYTES);
}

void card_range_give(card_addr addr, std::size_t bytes)
{
    const std::size_t whole = card_pages_bytes(bytes);
    void *const at = card_space_base + addr;
    // A range that cannot be made inaccessible is not handed out again: its old contents still show through.
    if (mmap(at, whole, PROT_NONE, RESERVED | MAP_FIXED, -1, 0) == MAP_FAILED)
        return;
    const std::size_t page = addr / CARD_PAGE_BYTES;
    mark(page, whole / CARD_PAGE_BYTES, false);
    if (page < first_free_hint)
        first_free_hint = page;
}

card_addr card_space_map(int fd, std::size_t bytes)
{
    mapping *free_entry = nullptr;
    for (mapping &m : mappings)
        if (m.addr == 0 && free_entry == nullptr)
            free_entry = &m;
    if (free_entry == nullptr)
        return 0;
    const card_addr addr = card_range_take(bytes);
    if (addr == 0)
        return 0;

    const int flags = (fd < 0 ? MAP_SHARED | MAP_ANONYMOUS : MAP_SHARED) | MAP_FIXED;
    if (mmap(card_space_base + addr, bytes, PROT_READ | PROT_WRITE, flags, fd < 0 ? -1 : fd, 0) == MAP_FAILED) {
        card_range_give(addr, bytes);
        return 0;
    }
    *free_entry = {addr, card_pages_bytes(bytes)};
    return addr;
}

void card_space_unmap(card_addr addr, std::size_t bytes)
{
    if (addr == 0 || bytes == 0)
        return;
    for (mapping &m : mappings) {
        if (m.addr != addr)
            continue;
        card_range_give(m.addr, m.bytes);
        m = {0, 0};
        return;
    }
}
