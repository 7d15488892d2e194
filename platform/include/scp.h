// scp.h - messages to the supervisor card.
#pragma once

#include <cstddef>
#include <cstdint>

// Opens the service. Returns its handle, 0 when it cannot be opened.
[[nodiscard]] std::uint32_t scp_init(std::uint32_t service, int queue);
std::uint8_t scp_sup_rp_addr_get(std::uint32_t handle); // one-byte address of the supervisor
// Sends one message without waiting. Returns 0, or the system's error number.
[[nodiscard]] int scp_send(std::uint32_t handle, const void *message, std::size_t bytes);
