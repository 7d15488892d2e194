// timed_socket.cpp - connecting and waiting that end at a deadline, also when signals interrupt them.
#include "timed_socket.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

std::int64_t monotonic_ns()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail
    return now.tv_sec * NS_PER_S + now.tv_nsec;
}

int timed_socket_wait(int socket, short events, std::int64_t deadline_ns)
{
    for (;;) {
        const std::int64_t left = std::max<std::int64_t>(deadline_ns - monotonic_ns(), 0);
        const std::int64_t left_ms = std::min<std::int64_t>((left + NS_PER_MS - 1) / NS_PER_MS, INT_MAX);
        pollfd waited{socket, events, 0};
        const int ready = poll(&waited, 1, static_cast<int>(left_ms));
        if (ready > 0)
            return 0;
        if ((ready == 0 && left == 0) || (ready < 0 && errno != EINTR))
            return -1;
    }
}

int timed_socket_connect(const sockaddr_un &address, std::int64_t deadline_ns)
{
    const int socket_fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (socket_fd < 0)
        return -1;
    // The socket blocks, and only here: a local connect that does not block cannot be waited for with poll.
    int error = ETIMEDOUT;
    for (;;) {
        const std::int64_t left = deadline_ns - monotonic_ns();
        if (left <= 0)
            break;
        const timeval limit{left / NS_PER_S, std::max<std::int64_t>(left % NS_PER_S / 1000, 1)}; // 0 would be for ever
        const bool has_limit = setsockopt(socket_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
        if (has_limit && connect(socket_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return socket_fd;
        if (!has_limit || (errno != EINTR && errno != EAGAIN)) {
            error = errno;
            break;
        }
    }
    (void)close(socket_fd);
    errno = error;
    return -1;
}
