// live_memory.h - the two tables of the maps, handed out as the card's second processor memory.
//
// Always: who writes gets the table that is not searched, and only when no packet is under way by it; who reads gets
// the one that is.
// Elsewhere: the socket and its users (memory_service.h), when the other table is searched (live_sync.h).
#pragma once

#include "card_service/memory_service.h"
#include "live_maps.h"

struct live_memory {
    live_maps *maps = nullptr;
    memory_service service;
    unsigned written = 0; // the table that the writer has, or had last
};

// Serves the card's `mem/ixp2`. Returns 0, or -1 with a line on standard error.
[[nodiscard]] int live_memory_open(live_memory *memory, live_maps *maps);

// Whether a route manager has a table to write.
bool live_memory_has_writer(live_memory &memory);
// Whether that is the one that is searched.
bool live_memory_is_searched(const live_memory &memory);

// The table of the writer is searched from now on; readers ask again.
void live_memory_search(live_memory &memory);
