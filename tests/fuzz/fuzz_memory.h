// fuzz_memory.h - the card's memory: what an input stored to is known, and put back.
//
// The picture of the start has every block that is allocated then and the three tables, page by page. A page that is
// stored to becomes dirty: blocks lie on pages that are read-only until then, and the stores to tables come through the
// platform's functions. So restoring and auditing take the time of what an input touched, not of the whole card.
// Always: an input finds the memory of the start, byte for byte (fuzz_memory_differs proves it). A block of the start
// that is freed is only set aside until then, and forbidden where the address sanitizer runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

void fuzz_memory_take_picture(); // the start is now
// Of the picture: these bytes tell of the context `ctx`. Called once the picture is taken, several times a context.
void fuzz_memory_belongs(std::uint32_t ctx, const void *at, std::size_t bytes);

bool fuzz_memory_is_dirty();      // something of the start was stored to, allocated or freed since the last restore
bool fuzz_memory_take_activity(); // the same since the last call; whatever a listing allocates is none
// The contexts, each once, that bytes told of which were found other than in the picture, since the last restore.
const std::vector<std::uint32_t> &fuzz_memory_changed_contexts();
// The offsets, each once and in order, that the dirty pages of the tables have there.
std::vector<std::uint32_t> fuzz_memory_table_pages();

void fuzz_memory_restore();
bool fuzz_memory_differs(); // any byte of the picture: compares everything
void fuzz_memory_fail_alloc(unsigned nth);
constexpr std::size_t FUZZ_PAGE_BYTES = 4096;
