// faulty_store.cpp - the daemon's store with a known fault in it, named by $PROOF_FAULT.
//
// Linked in front of the platform's own implementation, so that the large proof can be shown to notice: "header first",
// "slot before child" or "word after slot". Without the variable it stores as it should. Between a store that comes too
// early and those that it should have followed the daemon dawdles, as one that is interrupted there would: a reader of
// another processor must have the time to look.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "hw_store.h"
#include "norvik_mtrie_hw.h"
#include "seeded_faults.h"

using namespace harness;

namespace
{
constexpr std::chrono::microseconds DAWDLE{20};

fault_order orders[MTRIE_HW_COPIES]; // wired region, then the processors

store_fault chosen_fault()
{
    const char *named = std::getenv("PROOF_FAULT");
    for (unsigned fault = 0; named != nullptr && fault < FAULTS; ++fault)
        if (std::strcmp(named, STORE_FAULT_NAMES[fault]) == 0)
            return static_cast<store_fault>(fault);
    return FAULT_NONE;
}

void really_store(std::uint32_t *word, std::uint32_t value)
{
    std::atomic_ref<std::uint32_t>(*word).store(value, std::memory_order_release);
}

void dawdle()
{
    using clock = std::chrono::steady_clock;
    for (const auto end = clock::now() + DAWDLE; clock::now() < end;)
        ;
}

void store(std::uint32_t *word, std::uint32_t value)
{
    static const store_fault fault = chosen_fault();
    for (unsigned copy = 0; copy < MTRIE_HW_COPIES; ++copy) {
        const auto &[base, form] = mtrie_hw_copies[copy];
        const faulty_word asked{card_addr_of(word) - base, value};
        if (base == 0 || asked.offset >= HW_TABLE_BYTES)
            continue;
        fault_order &order = orders[copy];
        order.fault = fault;
        order.base = form;
        if (fault_keeps(order, asked))
            return order.kept.push_back(asked);
        really_store(word, value);
        if (fault_frees(order, asked) && !order.kept.empty()) {
            dawdle();
            for (const faulty_word &owed : order.kept)
                really_store(card_at<std::uint32_t>(base + owed.offset), owed.value);
            order.kept.clear();
        }
        return;
    }
    really_store(word, value);
}
} // namespace

void platform_store32(std::uint32_t *word, std::uint32_t value) { store(word, value); }

void platform_fill32(std::uint32_t *words, std::uint32_t value, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        store(words + i, value);
}

void platform_copy32(std::uint32_t *to, const std::uint32_t *from, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        store(to + i, from[i]);
}
