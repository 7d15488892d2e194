// live_program.h - the packet program as it is loaded, for the files of live_maps.h.
#pragma once

#include <cstdint>
#include <map>

struct card_xdp;

struct live_program {
    card_xdp *skeleton;
    std::map<std::uint32_t, int> links; // attachments that are pinned nowhere, by ifindex
};
