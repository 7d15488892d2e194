// mts.h - message transport service: one datagram queue a service access point (sap).
#pragma once

#include <cstddef>
#include <cstdint>

#include "mts_datagram.h"

struct mts_bind_options {
    std::uint32_t words[5];
};
struct mts_recv_options {
    std::uint32_t words[6];
};
struct mts_address {
    std::uint32_t node;
    std::uint32_t sap;
};

// A received message. The payload belongs to the queue and is valid until mts_drop.
struct mts_message {
    std::uint32_t opcode;
    mts_address source;          // sap 0: the sender is bound to none
    std::uint32_t length;        // payload bytes, 0 to MTS_MAX_PAYLOAD
    const std::uint8_t *payload; // big-endian fields, no alignment
};

// Binds the queue of `sap`. Returns its descriptor, readable when a message waits, or -1 (another live process owns the
// sap, a folder stands in its place, the card directory is refused, ...), which standard error says.
[[nodiscard]] int mts_bind(std::uint32_t mode, std::uint32_t sap, const mts_bind_options *options, const char *name);

// Binds the first free sap from 1024 on, for programs that are no service of the card. Returns the queue's descriptor
// and its sap, or -1 without a line.
[[nodiscard]] int mts_bind_free(std::uint32_t *sap, const char *name);

// The option word of an opcode on a queue: stored and read back; delivery does not depend on it.
std::uint32_t mts_options_get(int queue, std::uint32_t opcode);
int mts_options_set(int queue, std::uint32_t opcode, std::uint16_t value);

// Receives one message. Returns 0, or a negative value with nothing to drop (none waits, or it was malformed).
[[nodiscard]] int mts_recv(int queue, mts_message *message, const mts_recv_options *options);

// Releases a received message.
void mts_drop(int queue, mts_message *message);

// Sends a message without waiting. A receiver whose queue is full, or that has no live owner, loses it (counted).
// queue: the sender's, or -1 for a sender that is bound to none. Returns 0, or -1 when a receiver lost it or the
// payload is over MTS_MAX_PAYLOAD.
int mts_send(int queue, const mts_address *to, std::uint32_t opcode, const void *payload, std::size_t bytes);

// As mts_send to one sap, for senders of interface events: waits up to timeout_ms for room in the receiver's queue.
// Sent to every sap it does not wait.
int mts_send_wait(int queue, const mts_address *to, std::uint32_t opcode, const void *payload, std::size_t bytes,
                  unsigned timeout_ms);

std::uint32_t mts_opc_get(const mts_message *message);
const std::uint8_t *mts_payload_get(const mts_message *message);
std::uint32_t mts_payload_length_get(const mts_message *message);

// The opcode's name; "MTS_OPC_" and the number in decimal for one without. Valid until the next call.
const char *mts_opc_name_get(std::uint32_t opcode);
