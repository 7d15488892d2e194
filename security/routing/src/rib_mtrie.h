// rib_mtrie.h - an entry of the RIB in and out of the forwarding table.
#pragma once

#include "route_entry.h"

[[nodiscard]] int rib_add_mtrie_route(route_entry *entry); // 0 programmed, 1 failed
void rib_remove_mtrie_route(route_entry *entry);           // nothing for an entry that is not programmed
