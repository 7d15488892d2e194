// hw_store.cpp - stores to memory that a network processor reads.
//
// Each word is stored by itself with release order. Atomic stores are never merged, so the compiler can not make a
// memset of a fill, whose bytes a processor could see in any order and any width.
// Always: a word is one aligned 32-bit store.
// Elsewhere: in which order words are stored, and why (security/routing).
#include "hw_store.h"

#include <atomic>

namespace
{
using hw_word = std::atomic_ref<std::uint32_t>;
static_assert(hw_word::is_always_lock_free && hw_word::required_alignment == 4);
} // namespace

void platform_store32(std::uint32_t *word, std::uint32_t value)
{
    hw_word(*word).store(value, std::memory_order_release);
}

void platform_fill32(std::uint32_t *words, std::uint32_t value, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        hw_word(words[i]).store(value, std::memory_order_release);
}

void platform_copy32(std::uint32_t *to, const std::uint32_t *from, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        hw_word(to[i]).store(from[i], std::memory_order_release);
}
