// interface_db.h - the file `interfaces`: the interface manager writes it, every process of the card maps and reads it.
//
// A header of IFDB_HEADER_WORDS words (magic, version, record bytes, records, zeros), then the record of each interface
// id. Words are in the host's order, each one aligned store.
// Always: a record's sequence is odd while the record is being changed; a reader that loads the same even value before
// and after has one consistent record.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::uint32_t IFDB_MAGIC = 0x49464442, IFDB_VERSION = 1; // "IFDB"
constexpr std::uint32_t IFDB_HEADER_WORDS = 16, IFDB_RECORD_WORDS = 8, IFDB_RECORD_BYTES = 4 * IFDB_RECORD_WORDS;
constexpr std::uint32_t IFDB_RECORDS = 8192; // interface ids 0 to 8191
constexpr std::size_t IFDB_BYTES = 4 * IFDB_HEADER_WORDS + std::size_t{IFDB_RECORDS} * IFDB_RECORD_BYTES;
static_assert(IFDB_BYTES == 64 + 32 * 8192);

constexpr std::uint32_t IFDB_HEADER[] = {IFDB_MAGIC, IFDB_VERSION, IFDB_RECORD_BYTES, IFDB_RECORDS}; // zeros behind it

// Words of a record.
enum ifdb_word : unsigned {
    IFDB_SEQUENCE,
    IFDB_FLAGS,
    IFDB_RMODE, // routing mode
    IFDB_BVI,   // interface id of its bridge interface
    IFDB_ADDRESS,
    IFDB_MASK,
    IFDB_CONTEXT,
    IFDB_VLAN,
};

// Bits of the flags.
constexpr std::uint32_t IFDB_EXISTS = 0x01, IFDB_UP = 0x02, IFDB_HAS_ADDRESS = 0x04, IFDB_HAS_CONTEXT = 0x08,
                        IFDB_HAS_VLAN = 0x10;

constexpr std::uint32_t IF_RMODE_ROUTED = 1; // routes by itself; any other mode: through its bridge interface
