// card_space.h - the card's 32-bit address space inside this process.
//
// Records of the card have exact sizes and 32-bit links; the host has 64-bit pointers. One reservation of 4 GiB, made
// once and aligned to its own size, holds every card record, the wired region and the table memories, so a card
// address is the low half of a host pointer and both directions are one instruction.
// Always: the reservation is never given back; an unused range inside it is inaccessible, never a hole that another
// mapping could fall into.
#pragma once

#include <cstddef>
#include <cstdint>

using card_addr = std::uint32_t; // an address on the card; 0 is no address

// Start of the reservation in this process; null until the first allocation or mapping has made it.
extern std::byte *card_space_base;

// Card address of a host pointer into the card space; 0 for null.
inline card_addr card_addr_of(const volatile void *p)
{
    return static_cast<card_addr>(reinterpret_cast<std::uintptr_t>(p));
}

// Host pointer for a card address that is not 0.
template <class T> T *card_at(card_addr addr) { return reinterpret_cast<T *>(card_space_base + addr); }

// A 32-bit pointer to a record in the card space.
template <class T> class card_ptr
{
public:
    card_ptr() = default;
    constexpr card_ptr(std::nullptr_t) {}
    card_ptr(T *p) : addr_(card_addr_of(p)) {}
    static card_ptr at(card_addr addr)
    {
        card_ptr p;
        p.addr_ = addr;
        return p;
    }
    T *get() const { return addr_ == 0 ? nullptr : card_at<T>(addr_); }
    operator T *() const { return get(); }
    T *operator->() const { return card_at<T>(addr_); }
    T &operator*() const { return *card_at<T>(addr_); }
    card_addr addr() const { return addr_; }

private:
    card_addr addr_ = 0;
};
static_assert(sizeof(card_ptr<int>) == 4);

// Memory of the card's heap, zeroed and aligned to 8 bytes. Returns null when the heap or the host has no more.
[[nodiscard]] void *card_heap_alloc(std::size_t bytes);

// Gives a block of card_heap_alloc back. bytes: as it was asked for.
void card_heap_free(void *block, std::size_t bytes);

// Maps `bytes` of the file `fd`, shared and writable, or fresh zeroed memory when `fd` is -1.
// Returns its card address, a multiple of the page size, or 0 when the host refuses.
[[nodiscard]] card_addr card_space_map(int fd, std::size_t bytes);

// Takes down a mapping of card_space_map and reserves its range again. `bytes` may be more than was mapped.
// An address that no mapping starts at, 0 among them, is left alone.
void card_space_unmap(card_addr addr, std::size_t bytes);
