// rib_mtrie.h - an entry of the RIB in and out of the forwarding table.
#pragma once

#include "route_entry.h"

// Returns 0 and sets RIB_F_IN_MTRIE, also for a prefix that is in the trie already; 1 when it was refused (logged).
[[nodiscard]] int rib_add_mtrie_route(route_entry *entry);
// Does nothing without RIB_F_IN_MTRIE, which stays set when the trie refuses (logged); a default route always loses it.
void rib_remove_mtrie_route(route_entry *entry);
