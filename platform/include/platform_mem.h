// platform_mem.h - the system library: table memories, network processors, the kernel's route cache.
#pragma once

#include <cstdint>

#include "card_space.h"

struct wired_info {
    std::uint32_t phys_base; // physical address of the wired region
    std::uint32_t size;      // bytes
};

// A descriptor of the system library; a negative error number when it cannot be opened.
[[nodiscard]] int syscall_open();
int syscall_close(int descriptor); // 0 or -1; closes whatever descriptor is given

int norvik_get_wired_info(int descriptor, wired_info *info); // 0 or -1
[[nodiscard]] card_addr map_wired_route(int descriptor);     // the region's card address, 0 on failure
void unmap_wired_route(int descriptor, card_addr addr);      // addr 0, or one that is not mapped: nothing

// Maps the table memory of `processor` (0, also on a card without one, or 1). Returns its card address; 0 or all ones
// on failure.
[[nodiscard]] card_addr map_pci_xram_to_uspace(std::uint32_t pci_address, std::uint32_t bytes, std::uint32_t processor);
void unmap_pci_xram_to_uspace(card_addr addr, std::uint32_t bytes); // as unmap_wired_route

unsigned platform_get_num_ixp(); // network processors present: 0, 1 or 2

// Empties the kernel's route cache. Returns 0 or a negative error number.
[[nodiscard]] int tn_flush_rt_cache(int descriptor);
