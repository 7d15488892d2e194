// rib_mtrie.h - routes in the RIB and in the forwarding table together.
#pragma once

#include <cstdint>

#include "route_entry.h"

// Both. Returns the entry (new or refreshed), or null with neither table changed but for a refreshed entry, which goes.
[[nodiscard]] route_entry *route_add_rib_and_mtrie_entry(std::uint16_t flag_bits, std::uint16_t encap_id,
                                                         std::uint16_t obj, std::uint32_t addr, std::uint32_t len,
                                                         std::uint16_t ifid, std::uint32_t ctx);
// Returns the unlinked entry when free_it is 0 (the caller frees it), else null; null when there is none.
route_entry *route_remove_rib_and_mtrie_entry(std::uint16_t obj, std::uint16_t clear_bits, std::uint32_t addr,
                                              std::uint32_t len, std::uint32_t ctx, std::uint32_t free_it);
[[nodiscard]] int rib_add_mtrie_route(route_entry *entry); // FIB only: 0 programmed, 1 failed
void rib_remove_mtrie_route(route_entry *entry);           // FIB only; nothing for an entry that is not programmed
