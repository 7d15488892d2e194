// history_file.h - history/<component>: a ring of records in a mapped file that outlives its writer.
//
// history/<component>.errors has the same form: the records of category HISTORY_ERRORS_CATEGORY a second time, so that
// traces, which are far more, do not push errors out.
// A header, then `capacity` bytes of ring. Integers are in the host's order. Records wrap at the ring's end; the oldest
// begins at `tail` modulo capacity, the newest ends at `head` modulo capacity. The writer moves tail, writes the
// record, then moves head.
// Always: tail, head and the sizes of records are multiples of HISTORY_ALIGN; head - tail <= capacity; the records
// between them fill it exactly.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::uint32_t HISTORY_MAGIC = 0x48495354, HISTORY_VERSION = 1; // "HIST"
constexpr std::size_t HISTORY_ALIGN = 8;
constexpr std::uint32_t HISTORY_ERRORS_CATEGORY = 100;
constexpr std::size_t HISTORY_ERRORS_CAPACITY = 0x4000; // of the errors' ring

struct history_header {
    std::uint32_t magic;
    std::uint32_t version;
    std::uint64_t capacity; // bytes of the ring
    std::uint64_t tail;     // bytes ever dropped
    std::uint64_t head;     // bytes ever written
    std::uint8_t zero[32];
};
static_assert(sizeof(history_header) == 64 && offsetof(history_header, tail) == 16 &&
              offsetof(history_header, head) == 24);

// What stands in front of a record's data. The time is two words, so that the record is 20 bytes in memory too.
struct history_record_header {
    std::uint32_t size; // of the whole record, a multiple of HISTORY_ALIGN
    std::uint32_t event_type;
    std::uint32_t time_words[2]; // u64 nanoseconds since 1970
    std::uint32_t data_bytes;
};
static_assert(sizeof(history_record_header) == 20 && offsetof(history_record_header, time_words) == 8);

// Bytes that a record of `data_bytes` takes in the ring.
constexpr std::uint64_t history_record_bytes(std::uint64_t data_bytes)
{
    return (sizeof(history_record_header) + data_bytes + HISTORY_ALIGN - 1) / HISTORY_ALIGN * HISTORY_ALIGN;
}

// Data of the route manager's records: the category's id, then "<Ctx:%d>" and the message, NUL-terminated.
constexpr std::size_t HISTORY_AT_CATEGORY = 0, HISTORY_AT_TEXT = 4;
constexpr std::size_t HISTORY_TEXT_BYTES = 512; // at most, with the NUL
