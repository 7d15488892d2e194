// sysmgr.h - system manager, adjacency library and module information.
#pragma once

#include <cstdint>

// Reports to the system manager that the process `uuid` serves. Returns 0, or -1 when the message was not taken.
int sysmgr_handshake(int queue, std::uint32_t uuid);

// Gives the adjacency library its five debug categories. Returns 0, or -1 when one is not registered.
[[nodiscard]] int fb_adj_init(int queue, unsigned flags, unsigned events, unsigned errors, unsigned reads,
                              unsigned writes, unsigned details);
void fb_adj_cleanup(int descriptor);

struct module_info {
    std::int32_t slot; // of this card, counted from 1
    std::uint32_t reserved[7];
};
int get_module_info(module_info *info); // 0
