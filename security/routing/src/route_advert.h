// route_advert.h - routes advertised to the supervisor card.
#pragma once

#include <cstdint>

#include "supervisor_advert.h"

extern std::uint32_t scphandle; // of the supervisor; 0: not open

// Remote procedure. ctx: only for the log lines. Returns 0 sent, -1 failed (logged).
std::int32_t norvik_send_route_advert(std::uint32_t prefix, std::uint32_t mask, std::uint32_t ifid,
                                      std::uint32_t next_hop, std::uint16_t metric, std::uint16_t ctx);
std::int32_t norvik_get_myslot(); // the card's slot, counted from 1
