// fuzz_memory.cpp - memory tracking, table memories and stores, in place of the host's.
//
// A store to a read-only page ends in a fault, whose handler marks the page and opens it; any other fault is left to
// the handler that was there before. Dirty pages are closed again when they have been restored.
// Elsewhere: what is audited of it, and when (fuzz_card.cpp); the heap that the blocks come from (card_heap.cpp).
#include "fuzz_memory.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <utility>

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>

#include "card_space.h"
#include "fuzz_input.h"
#include "hw_store.h"
#include "mtrack.h"
#include "platform_mem.h"
#include "route_ids.h"
#include "route_table.h"

namespace
{
constexpr std::uint32_t WIRED_BYTES = 0x104000, PHYS_BASE = 0x08000000;
constexpr std::size_t PAGE = FUZZ_PAGE_BYTES;
constexpr std::uint32_t NO_CONTEXT = ~0u;

struct block {
    std::uint32_t type;
    std::size_t bytes;
};
// Bytes of a page: of a block or a table, or told to be a context's.
struct piece {
    std::size_t from, bytes;
    std::uint32_t ctx;
};
struct page {
    std::byte *at;
    bool is_table, dirty;
    std::vector<piece> restored, owned;
    alignas(std::uint32_t) std::array<std::byte, PAGE> picture;
};

// Whether a part that is whole words is as in the picture. It may be of a block that is set aside and forbidden.
__attribute__((no_sanitize("address"))) bool is_as_pictured(const page &p, const piece &part)
{
    const auto *const now = reinterpret_cast<const std::uint32_t *>(p.at + part.from);
    const auto *const then = reinterpret_cast<const std::uint32_t *>(p.picture.data() + part.from);
    std::uint32_t different = 0;
    for (std::size_t i = 0; i < part.bytes / sizeof *now; ++i) // all of them: so the compiler takes many at once
        different |= now[i] ^ then[i];
    return different == 0;
}
struct table {
    card_addr addr = 0;
    std::size_t bytes = 0;
};

std::unordered_map<void *, block> blocks_of_start, blocks; // the second: allocated since
std::vector<void *> set_aside;
std::array<table, 3> tables;
std::vector<std::unique_ptr<page>> pages; // from the first that is pictured on; null where nothing of it is
std::uintptr_t first_page;
std::vector<page *> dirty_pages;
std::vector<std::uint32_t> changed_contexts;
std::array<bool, ROUTE_CONTEXTS> is_changed;
bool active = false, dirty = false;
unsigned fail_countdown = 0;
struct sigaction handler_before;
std::array<mtrack_type_stats, MTRACK_MAX_TYPES> type_stats;
unsigned type_count = 0;

page *page_at(const void *at)
{
    const std::uintptr_t index = reinterpret_cast<std::uintptr_t>(at) / PAGE - first_page;
    return index < pages.size() ? pages[index].get() : nullptr; // one before the first is far beyond the last
}

// Calls `visit` with each page of a run of bytes, and the run's part of it.
template <class Visit> void visit_pages(const void *at, std::size_t bytes, Visit visit)
{
    const auto *byte = static_cast<const std::byte *>(at);
    while (bytes > 0) {
        const std::size_t from = reinterpret_cast<std::uintptr_t>(byte) % PAGE, here = std::min(bytes, PAGE - from);
        if (page *const p = page_at(byte))
            visit(*p, from, here);
        byte += here;
        bytes -= here;
    }
}

void make_dirty(page &p)
{
    if (p.dirty)
        return;
    p.dirty = true;
    dirty_pages.push_back(&p);
}

void protect(const page &p, int protection)
{
    if (mprotect(p.at, PAGE, protection) != 0)
        fuzz_fail("mprotect");
}

void on_fault(int, siginfo_t *fault, void *)
{
    page *const p = page_at(fault->si_addr);
    if (p == nullptr || p->is_table || p->dirty) {
        (void)sigaction(SIGSEGV, &handler_before, nullptr); // which gets the fault as soon as this returns
        return;
    }
    make_dirty(*p);
    protect(*p, PROT_READ | PROT_WRITE);
}

void picture(const void *at, std::size_t bytes, bool is_table)
{
    auto *byte = static_cast<std::byte *>(const_cast<void *>(at));
    byte -= reinterpret_cast<std::uintptr_t>(byte) % PAGE;
    for (; byte < static_cast<const std::byte *>(at) + bytes; byte += PAGE) {
        std::unique_ptr<page> &p = pages[reinterpret_cast<std::uintptr_t>(byte) / PAGE - first_page];
        if (!p)
            p.reset(new page{byte, is_table, false, {}, {}, {}});
    }
    visit_pages(at, bytes, [](page &p, std::size_t from, std::size_t here) {
        p.restored.push_back({from, here, NO_CONTEXT});
        std::memcpy(p.picture.data() + from, p.at + from, here);
    });
}

void make_room_for_pages()
{
    std::uintptr_t first = ~std::uintptr_t{0}, last = 0;
    const auto covers = [&first, &last](const void *at, std::size_t bytes) {
        first = std::min(first, reinterpret_cast<std::uintptr_t>(at) / PAGE);
        last = std::max(last, (reinterpret_cast<std::uintptr_t>(at) + bytes - 1) / PAGE);
    };
    for (const auto &[at, b] : blocks_of_start)
        covers(at, b.bytes);
    for (const table &t : tables)
        covers(card_at<std::byte>(t.addr), t.bytes);
    first_page = first;
    pages.resize(last - first + 1);
    dirty_pages.reserve(pages.size()); // nothing is allocated while a fault is handled
}

card_addr map_table(std::size_t index, std::size_t bytes)
{
    tables[index] = {card_space_map(-1, bytes), bytes};
    return tables[index].addr;
}

void note_store(const std::uint32_t *words, std::size_t count)
{
    active = dirty = true;
    visit_pages(words, 4 * count, [](page &p, std::size_t, std::size_t) { make_dirty(p); });
}

bool is_of_listing(std::uint32_t type) { return type == MTRACK_CLI_ROUTE || type == MTRACK_FIB_DISPLAY; }

void note_block(std::uint32_t type)
{
    dirty = true;
    active = active || !is_of_listing(type);
}

template <class Visit> void visit_pieces(Visit visit)
{
    for (const auto &p : pages)
        if (p)
            for (const piece &part : p->restored)
                visit(*p, part);
}
} // namespace

void fuzz_memory_take_picture()
{
    blocks_of_start.swap(blocks);
    make_room_for_pages();
    for (const auto &[at, b] : blocks_of_start)
        picture(at, b.bytes, false);
    for (const table &t : tables)
        picture(card_at<std::byte>(t.addr), t.bytes, true);
    struct sigaction action = {};
    action.sa_sigaction = on_fault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    if (sigaction(SIGSEGV, &action, &handler_before) != 0)
        fuzz_fail("sigaction");
    for (const auto &p : pages)
        if (p && !p->is_table)
            protect(*p, PROT_READ);
    active = dirty = false;
}

void fuzz_memory_belongs(std::uint32_t ctx, const void *at, std::size_t bytes)
{
    visit_pages(at, bytes, [ctx](page &p, std::size_t from, std::size_t here) {
        p.owned.push_back({from, here, ctx});
    });
}

bool fuzz_memory_is_dirty() { return dirty || !dirty_pages.empty(); }

bool fuzz_memory_take_activity() { return std::exchange(active, false); }

const std::vector<std::uint32_t> &fuzz_memory_changed_contexts()
{
    for (const page *p : dirty_pages)
        for (const piece &part : p->owned)
            if (!is_changed[part.ctx] && !is_as_pictured(*p, part)) {
                is_changed[part.ctx] = true;
                changed_contexts.push_back(part.ctx);
            }
    return changed_contexts;
}

std::vector<std::uint32_t> fuzz_memory_table_pages()
{
    std::vector<std::uint32_t> offsets;
    for (const page *p : dirty_pages)
        for (const table &t : tables)
            if (p->is_table && card_addr_of(p->at) - t.addr < t.bytes)
                offsets.push_back(card_addr_of(p->at) - t.addr);
    std::sort(offsets.begin(), offsets.end());
    offsets.erase(std::unique(offsets.begin(), offsets.end()), offsets.end());
    return offsets;
}

void fuzz_memory_restore()
{
    fail_countdown = 0;
    for (const auto &[at, b] : blocks)
        card_heap_free(at, b.bytes);
    blocks.clear();
    for (void *const at : set_aside)
        ASAN_UNPOISON_MEMORY_REGION(at, blocks_of_start[at].bytes);
    set_aside.clear();
    for (page *const p : dirty_pages) {
        for (const piece &part : p->restored)
            std::memcpy(p->at + part.from, p->picture.data() + part.from, part.bytes);
        p->dirty = false;
        if (!p->is_table)
            protect(*p, PROT_READ);
    }
    dirty_pages.clear();
    for (const std::uint32_t ctx : changed_contexts)
        is_changed[ctx] = false;
    changed_contexts.clear();
    active = dirty = false;
}

bool fuzz_memory_differs()
{
    bool differs = false;
    visit_pieces([&differs](const page &p, const piece &part) {
        differs = differs || std::memcmp(p.at + part.from, p.picture.data() + part.from, part.bytes) != 0;
    });
    return differs;
}

void fuzz_memory_fail_alloc(unsigned nth) { fail_countdown = nth; }

int mtrack_init(const char *, std::uint32_t, const char *const *type_names, unsigned count)
{
    for (unsigned i = 0; i < count; ++i)
        type_stats[i].name = type_names[i];
    type_count = count;
    return 0;
}

void *mtrack_alloc(std::uint32_t, std::uint32_t type, std::size_t size)
{
    note_block(type);
    if (type >= MTRACK_MAX_TYPES || (fail_countdown > 0 && --fail_countdown == 0))
        return nullptr;
    void *const at = card_heap_alloc(size);
    if (at != nullptr)
        blocks[at] = {type, size};
    return at;
}

void mtrack_free(void *at)
{
    if (at == nullptr)
        return;
    const auto allocated = blocks.find(at), of_start = blocks_of_start.find(at);
    if (allocated != blocks.end()) {
        note_block(allocated->second.type);
        card_heap_free(at, allocated->second.bytes);
        blocks.erase(allocated);
        return;
    }
    if (of_start == blocks_of_start.end() || std::find(set_aside.begin(), set_aside.end(), at) != set_aside.end())
        fuzz_fail("freed a block that is not allocated");
    note_block(of_start->second.type);
    ASAN_POISON_MEMORY_REGION(at, of_start->second.bytes);
    set_aside.push_back(at);
}

void mtrack_freeze() {} // no target ends by a signal that the process handles

unsigned mtrack_type_count() { return type_count; }

mtrack_type_stats mtrack_stats(unsigned type) { return type_stats[type]; }

int syscall_open() { return 0; } // there is no route cache to tell
int syscall_close(int) { return 0; }

int norvik_get_wired_info(int, wired_info *info)
{
    *info = {PHYS_BASE, WIRED_BYTES};
    return 0;
}

card_addr map_wired_route(int) { return map_table(0, WIRED_BYTES); }

void unmap_wired_route(int, card_addr) {}

card_addr map_pci_xram_to_uspace(std::uint32_t, std::uint32_t bytes, std::uint32_t processor)
{
    return processor > 1 ? 0 : map_table(1 + processor, bytes);
}

void unmap_pci_xram_to_uspace(card_addr, std::uint32_t) {}
unsigned platform_get_num_ixp() { return 2; }
int tn_flush_rt_cache(int) { return 0; }

void platform_store32(std::uint32_t *word, std::uint32_t value)
{
    note_store(word, 1);
    *word = value;
}

void platform_fill32(std::uint32_t *words, std::uint32_t value, std::size_t count)
{
    note_store(words, count);
    std::fill_n(words, count, value);
}

void platform_copy32(std::uint32_t *to, const std::uint32_t *from, std::size_t count)
{
    note_store(to, count);
    std::copy_n(from, count, to);
}
