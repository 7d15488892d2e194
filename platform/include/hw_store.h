// hw_store.h - the only stores to memory that a network processor reads.
//
// Each is a run of single aligned 32-bit stores in ascending order, with release order: a reader that loads a word
// (acquire) sees everything that was stored before it. Tests link implementations that keep a journal of each word.
#pragma once

#include <cstddef>
#include <cstdint>

void platform_store32(std::uint32_t *word, std::uint32_t value);                       // one word
void platform_fill32(std::uint32_t *words, std::uint32_t value, std::size_t count);    // `count` words, all `value`
void platform_copy32(std::uint32_t *to, const std::uint32_t *from, std::size_t count); // `count` words, no overlap
