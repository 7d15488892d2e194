// if_db.h - the interface database, for its one writer.
//
// The file is mapped and read by other processes while it changes: each record has a sequence word that is odd while
// the record is being changed and has another even value afterwards.
// Always: whoever finds the file finds it whole: a new one gets its header before it gets its name.
#pragma once

#include <cstdint>

#include "interface_db.h"

// A record without its sequence word.
struct if_db_record {
    std::uint32_t flags, mode, bvi, address, mask, ctx, vlan;
};

struct if_db {
    std::uint32_t *words = nullptr; // the mapped file
};

// What becomes of the interfaces that an earlier writer left. A record in whose change it died is removed.
enum class if_db_earlier { remove, keep };

// Maps the database of the card directory, made anew unless a valid one is there. name: of the program, for a line on
// standard error. Returns 0, or -1 with that line. The caller is the card's only interface manager.
[[nodiscard]] int if_db_open(if_db *db, const char *name, if_db_earlier earlier);
void if_db_close(if_db *db);

// The record of `ifid` (below IFDB_RECORDS).
if_db_record if_db_read(const if_db &db, std::uint32_t ifid); // by its writer: nobody else changes it
void if_db_write(const if_db &db, std::uint32_t ifid, const if_db_record &record);
