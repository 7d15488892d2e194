// load_trace.h - a table memory that tells of each load, so that a test may change words between any two of them.
//
// What reads it is the lookup's own machine code, unchanged. The memory is mapped twice: for the reader without any
// right, for the test to read and write. A load faults; the test hears of it, the page is opened for that one
// instruction, and closed again. A gather is cut into its elements: it runs once for each of them, with a mask that
// holds one lane, in an order drawn anew each time, for the processor promises none.
// Always: one trace at a time; an access that is not to the traced memory faults as it would without it.
#pragma once

#include <cstdint>
#include <functional>
#include <random>

namespace harness
{
constexpr unsigned NO_LANE = 8; // of a load that is no element of a gather

struct load_trace {
    // Called before a word is loaded, with its index, and the lane whose element it is.
    using listener = std::function<void(std::uint32_t index, unsigned lane)>;

    load_trace();
    ~load_trace();
    load_trace(const load_trace &) = delete;
    load_trace &operator=(const load_trace &) = delete;

    static bool runs();                    // whether this processor's loads can be traced
    const std::uint32_t *traced = nullptr; // HW_TABLE_BYTES for the reader
    std::uint32_t *words = nullptr;        // the same words for the test
    void run(const std::function<void()> &reader, const listener &before_load);

    // --- The handlers' own.
    listener told;
    std::mt19937 lanes{20250611}; // the order of a gather's elements
    std::uintptr_t open_page = 0; // while its one instruction runs, else 0
    std::uintptr_t gather = 0;    // address of the gather of which one lane runs, else 0
    unsigned lanes_left = 0;      // of it: a bit for each lane that is still to run
};
} // namespace harness
