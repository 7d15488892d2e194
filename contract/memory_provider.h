// memory_provider.h - how a process gets a table memory that another process provides.
//
// The provider listens on mem/<name>.provider. Who wants the memory connects, sends one record, and receives one record
// with one descriptor, to be mapped shared from offset 0; or a refusal, which has none. Integers are big-endian.
// Always: the connection lasts as long as the memory is used, so its end tells each side that the other has gone.
#pragma once

#include <cstddef>
#include <cstdint>

#include "big_endian.h"

constexpr std::uint32_t MEMQ_MAGIC = 0x4D454D51; // "MEMQ", the question
constexpr std::uint32_t MEMP_MAGIC = 0x4D454D50; // "MEMP", the answer
constexpr std::size_t MEMQ_AT_MAGIC = 0, MEMQ_AT_PURPOSE = 4, MEMQ_BYTES = 8;
constexpr std::size_t MEMP_AT_MAGIC = 0, MEMP_AT_SIZE = 4, MEMP_AT_GENERATION = 8, MEMP_BYTES = 12;

enum memory_purpose : std::uint32_t {
    MEMORY_WRITE = 1, // the route manager: one at a time
    MEMORY_READ = 2,  // whoever looks at what is searched
};

// An answer. All 0: the memory is refused.
struct memory_answer {
    std::uint32_t bytes;      // of the memory, HW_TABLE_BYTES or more
    std::uint32_t generation; // counts what was handed out for writing
};

constexpr void memory_question_put(std::uint8_t *record, std::uint32_t purpose)
{
    put_be32(record + MEMQ_AT_MAGIC, MEMQ_MAGIC);
    put_be32(record + MEMQ_AT_PURPOSE, purpose);
}

// Reads the purpose of a question. Returns 0, or 1 for a record that is none.
[[nodiscard]] constexpr int memory_question_take(const std::uint8_t *record, std::size_t length, std::uint32_t &purpose)
{
    if (length != MEMQ_BYTES || get_be32(record + MEMQ_AT_MAGIC) != MEMQ_MAGIC)
        return 1;
    purpose = get_be32(record + MEMQ_AT_PURPOSE);
    return 0;
}

constexpr void memory_answer_put(std::uint8_t *record, const memory_answer &answer)
{
    put_be32(record + MEMP_AT_MAGIC, MEMP_MAGIC);
    put_be32(record + MEMP_AT_SIZE, answer.bytes);
    put_be32(record + MEMP_AT_GENERATION, answer.generation);
}

// Reads an answer. Returns 0, or 1 for a record that is none.
[[nodiscard]] constexpr int memory_answer_take(const std::uint8_t *record, std::size_t length, memory_answer &answer)
{
    if (length != MEMP_BYTES || get_be32(record + MEMP_AT_MAGIC) != MEMP_MAGIC)
        return 1;
    answer = {get_be32(record + MEMP_AT_SIZE), get_be32(record + MEMP_AT_GENERATION)};
    return 0;
}
