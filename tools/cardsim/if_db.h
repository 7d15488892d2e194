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

// Maps the database of the card directory, made anew unless a valid one is there; interfaces that an earlier writer
// left are removed. Returns 0, or -1 with a line on standard error. The caller is the card's only interface manager.
[[nodiscard]] int if_db_open(if_db *db);
void if_db_close(if_db *db);

// Writes the record of `ifid` (below IFDB_RECORDS).
void if_db_write(const if_db &db, std::uint32_t ifid, const if_db_record &record);
