// load_trace.cpp - the two mappings, and the handlers by which one load after the other is let through.
#include "load_trace.h"

#include <bit>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

#include "route_table.h"

#if defined(__x86_64__)

#include <cpuid.h>
#include <ucontext.h>

namespace harness
{

namespace
{
constexpr std::uintptr_t PAGE = 4096, TRACED_BYTES = (HW_TABLE_BYTES + PAGE - 1) / PAGE * PAGE;
constexpr greg_t TRAP_FLAG = 0x100;
constexpr unsigned LANES = 8;

load_trace *current = nullptr;
struct sigaction before_fault, before_trap; // as they were

[[noreturn]] void give_up(const char *what)
{
    std::perror(what);
    std::abort();
}

void protect(std::uintptr_t page, int rights)
{
    if (mprotect(reinterpret_cast<void *>(page), PAGE, rights) != 0)
        give_up("mprotect");
}

std::uint8_t code_at(std::uintptr_t at, unsigned byte) { return reinterpret_cast<const std::uint8_t *>(at)[byte]; }

// VPGATHERDD of eight lanes: a VEX prefix of three bytes for map 2, a vector of 256 bits and W 0, then the opcode.
bool is_gather(std::uintptr_t at)
{
    return code_at(at, 0) == 0xC4 && (code_at(at, 1) & 0x1F) == 2 && (code_at(at, 2) & 0x87) == 0x05 &&
           code_at(at, 3) == 0x90;
}
// The register of its mask stands in the prefix, inverted.
unsigned mask_register(std::uintptr_t at) { return ~(code_at(at, 2) >> 3) & 0xFu; }

// A lane of a vector register as a signal's frame keeps it: the lower four with the other 128-bit registers, the upper
// ones where the processor says.
std::uint32_t *lane_of(ucontext_t *context, unsigned vector, unsigned lane)
{
    auto *const state = reinterpret_cast<std::uint8_t *>(context->uc_mcontext.fpregs);
    if (lane < 4)
        return &context->uc_mcontext.fpregs->_xmm[vector].element[lane];
    static const std::uint32_t upper = [] {
        unsigned bytes = 0, offset = 0, c = 0, d = 0;
        __cpuid_count(0xD, 2, bytes, offset, c, d);
        return offset;
    }();
    return reinterpret_cast<std::uint32_t *>(state + upper + 16 * vector) + (lane - 4);
}

// A lane takes part while the sign of its mask is set.
unsigned mask_of(ucontext_t *context, unsigned vector)
{
    unsigned mask = 0;
    for (unsigned lane = 0; lane < LANES; ++lane)
        mask |= *lane_of(context, vector, lane) >> 31 << lane;
    return mask;
}
void set_mask(ucontext_t *context, unsigned vector, unsigned mask)
{
    constexpr std::size_t HEADER = 512;
    constexpr std::uint64_t VECTORS = 2 | 4; // both halves are to be loaded from the frame
    std::uint64_t held = 0;
    auto *const state = reinterpret_cast<std::uint8_t *>(context->uc_mcontext.fpregs);
    std::memcpy(&held, state + HEADER, sizeof held);
    held |= VECTORS;
    std::memcpy(state + HEADER, &held, sizeof held);
    for (unsigned lane = 0; lane < LANES; ++lane)
        *lane_of(context, vector, lane) = (mask >> lane & 1) != 0 ? 0xFFFFFFFF : 0;
}

unsigned drawn_lane(unsigned mask)
{
    unsigned lane = 0;
    do
        lane = static_cast<unsigned>(current->lanes() % LANES);
    while ((mask >> lane & 1) == 0);
    return lane;
}

// Leaves a gather one lane, with which it is to fault again.
void cut_gather(ucontext_t *context, std::uintptr_t at, unsigned mask)
{
    const unsigned lane = drawn_lane(mask);
    current->gather = at;
    current->lanes_left = mask & ~(1u << lane);
    set_mask(context, mask_register(at), 1u << lane);
}

void on_fault(int, siginfo_t *info, void *frame)
{
    auto *const context = static_cast<ucontext_t *>(frame);
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    const std::uintptr_t offset = address - reinterpret_cast<std::uintptr_t>(current->traced);
    if (offset >= TRACED_BYTES || current->open_page != 0) {
        (void)sigaction(SIGSEGV, &before_fault, nullptr); // a fault of its own, which comes again
        return;
    }
    const auto at = static_cast<std::uintptr_t>(context->uc_mcontext.gregs[REG_RIP]);
    const unsigned mask = is_gather(at) ? mask_of(context, mask_register(at)) : 0;
    if (std::popcount(mask) > 1)
        return cut_gather(context, at, mask);
    const unsigned lane = mask == 0 ? NO_LANE : static_cast<unsigned>(std::countr_zero(mask));
    current->told(static_cast<std::uint32_t>(offset / 4), lane);
    current->open_page = address & ~(PAGE - 1);
    protect(current->open_page, PROT_READ);
    context->uc_mcontext.gregs[REG_EFL] |= TRAP_FLAG;
}

// The instruction has made its load.
void on_trap(int, siginfo_t *, void *frame)
{
    auto *const context = static_cast<ucontext_t *>(frame);
    protect(current->open_page, PROT_NONE);
    current->open_page = 0;
    context->uc_mcontext.gregs[REG_EFL] &= ~TRAP_FLAG;
    if (current->gather == 0)
        return;
    const std::uintptr_t at = current->gather;
    context->uc_mcontext.gregs[REG_RIP] = static_cast<greg_t>(at);
    set_mask(context, mask_register(at), current->lanes_left);
    current->gather = 0; // the rest is cut again, when it faults
}
} // namespace

bool load_trace::runs() { return true; }

load_trace::load_trace()
{
    const int file = memfd_create("traced", MFD_CLOEXEC);
    if (file < 0 || ftruncate(file, TRACED_BYTES) != 0)
        give_up("memfd");
    void *const locked = mmap(nullptr, TRACED_BYTES, PROT_NONE, MAP_SHARED, file, 0);
    void *const open = mmap(nullptr, TRACED_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (locked == MAP_FAILED || open == MAP_FAILED)
        give_up("mmap");
    close(file);
    traced = static_cast<const std::uint32_t *>(locked);
    words = static_cast<std::uint32_t *>(open);
}

load_trace::~load_trace()
{
    munmap(const_cast<std::uint32_t *>(traced), TRACED_BYTES);
    munmap(words, TRACED_BYTES);
}

void load_trace::run(const std::function<void()> &reader, const listener &before_load)
{
    told = before_load;
    current = this;
    struct sigaction handler = {};
    handler.sa_flags = SA_SIGINFO;
    handler.sa_sigaction = on_fault;
    (void)sigaction(SIGSEGV, &handler, &before_fault);
    handler.sa_sigaction = on_trap;
    (void)sigaction(SIGTRAP, &handler, &before_trap);
    reader();
    (void)sigaction(SIGTRAP, &before_trap, nullptr);
    (void)sigaction(SIGSEGV, &before_fault, nullptr);
    current = nullptr;
}

} // namespace harness

#else // the frame of a signal, and a gather, are known for x86 alone

namespace harness
{
bool load_trace::runs() { return false; }
load_trace::load_trace() = default;
load_trace::~load_trace() = default;
void load_trace::run(const std::function<void()> &, const listener &) {}
} // namespace harness

#endif
