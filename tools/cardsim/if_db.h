// if_db.h - the interface database, as its one writer has it.
//
// The file is mapped and read by other processes while it changes: each record has a sequence word that is odd while
// the record is being changed and has another even value afterwards.
// Always: whoever finds the file finds it whole: a new one gets its header before it gets its name.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::uint32_t IFDB_MAGIC = 0x49464442, IFDB_VERSION = 1; // "IFDB"
constexpr std::uint32_t IFDB_RECORD_WORDS = 8, IFDB_RECORDS = 8192, IFDB_HEADER_WORDS = 16;
constexpr std::size_t IFDB_BYTES = (IFDB_HEADER_WORDS + IFDB_RECORDS * IFDB_RECORD_WORDS) * sizeof(std::uint32_t);
static_assert(IFDB_BYTES == 64 + 32 * 8192);

constexpr std::uint32_t IFDB_EXISTS = 0x01, IFDB_UP = 0x02, IFDB_HAS_ADDRESS = 0x04, IFDB_HAS_CONTEXT = 0x08,
                        IFDB_HAS_VLAN = 0x10;

// A record without its sequence word.
struct if_db_record {
    std::uint32_t flags, mode, bvi, address, mask, ctx, vlan;
};

struct if_db {
    std::uint32_t *words = nullptr; // the mapped file
};

// Maps the database of the card directory, made anew unless a valid one is there; interfaces that an earlier writer
// left are taken out. Returns 0, or -1 with a line on standard error. The caller is the card's only interface manager.
[[nodiscard]] int if_db_open(if_db *db);
void if_db_close(if_db *db);

// Writes the record of `ifid` (below IFDB_RECORDS).
void if_db_write(const if_db &db, std::uint32_t ifid, const if_db_record &record);
