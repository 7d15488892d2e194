// timed_socket.h - sockets of the card's processes that are waited for until a deadline. For platform/host only.
#pragma once

#include <cstdint>

#include <sys/un.h>

constexpr std::int64_t NS_PER_MS = 1'000'000, NS_PER_S = 1'000'000'000;

std::int64_t monotonic_ns(); // the clock of the deadlines

// Waits until the socket is ready for `events`. Returns 0, or -1 when the deadline has passed.
[[nodiscard]] int timed_socket_wait(int socket, short events, std::int64_t deadline_ns);

// Connects to a SOCK_SEQPACKET at `address`, waiting for a place in its queue if need be. Returns the socket, which
// blocks and is close-on-exec; or -1 with errno, ETIMEDOUT when the deadline has passed.
[[nodiscard]] int timed_socket_connect(const sockaddr_un &address, std::int64_t deadline_ns);
