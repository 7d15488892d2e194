// route_events.h - the interface manager's events.
#pragma once

#include <cstdint>

#include "interface_events.h"
#include "mts.h"

// An interface-state payload, decoded.
struct if_event {
    std::uint16_t ifid;
    std::uint16_t ctx;
    std::uint32_t addr;
    std::uint32_t mask;
    std::uint32_t rmode; // 1: routed
};

// Decodes a payload of at least IFEV_BYTES.
if_event if_event_decode(const std::uint8_t *payload);

int route_msg_process(const mts_message *message);          // always 0
void route_if_changed_process(const std::uint8_t *payload); // of at least IFEV_CHANGED_BYTES
