// card_heap.cpp - the heap inside the card space: route records, tree records, pages for callers.
//
// Route records come and go by the thousand in two or three sizes, so a pool resource cuts ranges of the card space
// into blocks of a few sizes. Blocks a little over a page come from slabs, which are kept. A larger block has a range
// of its own, which goes back to the host; the last one of up to KEPT_RANGE_BYTES is kept, because a listing takes and
// frees one for each page, and two calls of the host and its page faults cost ten times what filling it does.
// The pool is built in place and never destroyed: the clean-up of a process frees records after the destructors of
// static objects have run. Under AddressSanitizer a block ends at its last byte, and a freed block is poisoned.
// Always: the pool's own words lie outside the blocks, so it never reads one that is poisoned.
// Elsewhere: which ranges are free (card_space.cpp), who holds how much (mtrack.cpp).
#include "card_space.h"

#include <bit>
#include <cstring>
#include <memory_resource>
#include <new>
#include <utility>

#include <sys/mman.h>

#include "card_ranges.h"

#if defined(__SANITIZE_ADDRESS__)
#define CARD_HEAP_POISONS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CARD_HEAP_POISONS 1
#endif
#endif

#ifdef CARD_HEAP_POISONS
#include <sanitizer/asan_interface.h>
#endif

namespace
{
constexpr std::size_t BLOCK_ALIGN = 8;

#ifdef CARD_HEAP_POISONS
constexpr std::size_t RED_ZONE = 16; // bytes behind a block that must not be touched
void forbid(void *p, std::size_t bytes) { ASAN_POISON_MEMORY_REGION(p, bytes); }
void allow(void *p, std::size_t bytes) { ASAN_UNPOISON_MEMORY_REGION(p, bytes); }
#else
constexpr std::size_t RED_ZONE = 0;
void forbid(void *, std::size_t) {}
void allow(void *, std::size_t) {}
#endif

// Bytes taken from the pool for a block of `bytes`.
constexpr std::size_t block_bytes(std::size_t bytes)
{
    return ((bytes == 0 ? 1 : bytes) + RED_ZONE + BLOCK_ALIGN - 1) / BLOCK_ALIGN * BLOCK_ALIGN;
}

constexpr std::size_t KEPT_RANGE_BYTES = 128 * 1024; // at most, of the range that is kept

// Whole pages of the card space, as the pool asks for them.
class card_pages : public std::pmr::memory_resource
{
    card_addr kept_ = 0; // a freed range that is still accessible; 0: none
    std::size_t kept_bytes_ = 0;

    void *do_allocate(std::size_t bytes, std::size_t align) override
    {
        if (kept_ != 0 && kept_bytes_ == card_pages_bytes(bytes) && align <= CARD_PAGE_BYTES) {
            std::byte *const kept = card_at<std::byte>(std::exchange(kept_, 0));
            allow(kept, kept_bytes_); // the pool may cut it, and then writes into it
            return kept;
        }
        const card_addr addr = align <= CARD_PAGE_BYTES ? card_range_take(bytes) : 0;
        if (addr == 0)
            throw std::bad_alloc();
        std::byte *const p = card_at<std::byte>(addr);
        if (mprotect(p, card_pages_bytes(bytes), PROT_READ | PROT_WRITE) != 0) {
            card_range_give(addr, bytes);
            throw std::bad_alloc();
        }
        return p;
    }

    void do_deallocate(void *p, std::size_t bytes, std::size_t) override
    {
        card_addr addr = card_addr_of(p);
        bytes = card_pages_bytes(bytes);
        if (bytes <= KEPT_RANGE_BYTES) { // takes the place of the one kept so far
            forbid(p, bytes);
            std::swap(addr, kept_);
            std::swap(bytes, kept_bytes_);
        }
        if (addr == 0)
            return;
        allow(card_at<std::byte>(addr), bytes); // it may become a mapping, where no block is forbidden
        card_range_give(addr, bytes);
    }

    bool do_is_equal(const memory_resource &other) const noexcept override { return this == &other; }
};

card_pages &pages()
{
    alignas(card_pages) static std::byte at[sizeof(card_pages)];
    static auto *const made = new (at) card_pages;
    return *made;
}

std::pmr::memory_resource &heap()
{
    alignas(std::pmr::unsynchronized_pool_resource) static std::byte at[sizeof(std::pmr::unsynchronized_pool_resource)];
    static auto *const made = new (at) std::pmr::unsynchronized_pool_resource(&pages());
    return *made;
}

// Blocks a little over a page: a card has a context's record and its table 256 times each, and on pages of their own
// they would write two where one does. They lie close together in slabs, which are kept.
constexpr std::size_t SLAB_BLOCK = block_bytes(4160), SLAB_BLOCKS = 64;
struct slab {
    card_addr base = 0;      // 0: not there yet
    std::uint64_t taken = 0; // a bit a block
};
slab slabs[16];

bool is_for_slab(std::size_t bytes) { return bytes > CARD_PAGE_BYTES && block_bytes(bytes) <= SLAB_BLOCK; }

// Null when every slab is full.
void *slab_take()
{
    for (slab &s : slabs) {
        if (s.base == 0)
            s.base = card_addr_of(pages().allocate(SLAB_BLOCK * SLAB_BLOCKS));
        if (s.taken == ~std::uint64_t{0})
            continue;
        const auto free = static_cast<std::uint32_t>(std::countr_one(s.taken));
        s.taken |= std::uint64_t{1} << free;
        return card_at<void>(s.base + free * static_cast<std::uint32_t>(SLAB_BLOCK));
    }
    return nullptr;
}

// Whether the block was one of a slab.
bool slab_give(const void *block)
{
    const card_addr addr = card_addr_of(block);
    for (slab &s : slabs)
        if (s.base != 0 && addr >= s.base && addr - s.base < SLAB_BLOCK * SLAB_BLOCKS) {
            s.taken &= ~(std::uint64_t{1} << (addr - s.base) / SLAB_BLOCK);
            return true;
        }
    return false;
}
} // namespace

void *card_heap_alloc(std::size_t bytes)
{
    if (bytes >= CARD_SPACE_BYTES / 2)
        return nullptr;
    void *p = nullptr;
    try {
        p = is_for_slab(bytes) ? slab_take() : nullptr;
        if (p == nullptr)
            p = heap().allocate(block_bytes(bytes), BLOCK_ALIGN);
    } catch (...) {
        return nullptr; // the callers know one sign of short memory, and it is null
    }
    allow(p, bytes);
    std::memset(p, 0, bytes);
    forbid(static_cast<std::byte *>(p) + bytes, block_bytes(bytes) - bytes);
    return p;
}

void card_heap_free(void *block, std::size_t bytes)
{
    if (block == nullptr)
        return;
    forbid(block, block_bytes(bytes));
    if (!is_for_slab(bytes) || !slab_give(block))
        heap().deallocate(block, block_bytes(bytes), BLOCK_ALIGN);
}
