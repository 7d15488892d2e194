// rib_host.h - host routes: ARP-learned hosts, an interface's own routes, the multicast drop entry.
#pragma once

#include <cstdint>

#include "route_entry.h"

[[nodiscard]] route_entry *rib_add_host_route(std::uint16_t obj, std::uint32_t ctx, std::uint16_t ifid,
                                              std::uint32_t addr, std::uint32_t len, std::uint16_t encap_id);
[[nodiscard]] route_entry *rib_remove_host_route(std::uint16_t obj, std::uint32_t ctx, std::uint32_t addr,
                                                 std::uint32_t len); // unlinked, not freed; FIB untouched

// Adds a host route to the RIB and to the forwarding table. Returns the entry, new or refreshed, or null. After a
// refusal of the forwarding table the prefix's chain entry is removed, if it is one of the object's: the new entry
// mostly, or the refreshed one. A new entry that joined a set of another kind stays, a member in no table. Nodes and
// the leaf that the forwarding table had taken stay taken; a refreshed entry for which it had no leaf loses its own.
[[nodiscard]] route_entry *route_add_rib_and_mtrie_entry(std::uint16_t flag_bits, std::uint16_t encap_id,
                                                         std::uint16_t obj, std::uint32_t addr, std::uint32_t len,
                                                         std::uint16_t ifid, std::uint32_t ctx);
// Removes it from both. Returns the unlinked entry with RIB_KEEP_ENTRY (the caller frees it), null with RIB_FREE_ENTRY
// and when there is none.
constexpr std::uint32_t RIB_KEEP_ENTRY = 0, RIB_FREE_ENTRY = 1;
route_entry *route_remove_rib_and_mtrie_entry(std::uint16_t obj, std::uint16_t clear_bits, std::uint32_t addr,
                                              std::uint32_t len, std::uint32_t ctx, std::uint32_t free_it);

constexpr int RIB_HOST_ADDED = 1, RIB_HOST_REMOVED = 2;
void route_lookup_by_hostaddr(route_entry *host, int op); // completes or withdraws the static routes through a host
int route_flush_rt_cache();                               // 1 flushed, 0 not (printed)

// Remote procedures: 0 done, 1 failed or not supported.
std::uint32_t arp_prefix_mgr_add_route(std::uint16_t obj, std::uint32_t addr, std::uint32_t len, std::uint16_t encap_id,
                                       std::uint16_t ifid, std::uint32_t ctx);
std::uint32_t arp_prefix_mgr_remove_route(std::uint16_t obj, std::uint32_t addr, std::uint32_t len,
                                          std::uint32_t unused, std::uint16_t encap_id, std::uint16_t ifid,
                                          std::uint32_t ctx);
