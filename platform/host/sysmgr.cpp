// sysmgr.cpp - system manager, adjacency library and module information on a host.
//
// The system manager of a host is its service manager, which gets READY=1 once over the socket that NOTIFY_SOCKET
// names. The adjacency library only checks its categories: a host has no hardware that it would program.
// Always: without a service manager the hand-shake succeeds.
// Elsewhere: the slot (card_conf.cpp).
#include "sysmgr.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "card_dir.h"
#include "mts_host.h"
#include "sdwrap_gates.h"

namespace
{
// Address of the service manager's socket: a path, or an abstract name after '@'. Returns its length; 0 for neither.
socklen_t notify_address(const char *name, sockaddr_un &address)
{
    const std::size_t length = std::strlen(name);
    if ((name[0] != '/' && name[0] != '@') || length < 2 || length >= sizeof address.sun_path)
        return 0;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name, length);
    const bool is_abstract = name[0] == '@';
    if (is_abstract)
        address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length + (is_abstract ? 0 : 1));
}
} // namespace

int sysmgr_handshake(int queue, std::uint32_t)
{
    const char *const name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr || *name == '\0')
        return 0; // started by hand, without a service manager
    sockaddr_un address = {};
    const socklen_t address_bytes = notify_address(name, address);
    if (address_bytes == 0)
        return -1;
    constexpr char READY[] = "READY=1";
    // Sent once, and a service manager that misses it ends the process: so this send waits for room, unlike others, and
    // uses the queue's socket when the host has no descriptor for one of its own.
    const int own = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const timeval limit = {2, 0};
    if (own >= 0)
        (void)setsockopt(own, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const ssize_t sent = sendto(own >= 0 ? own : queue, READY, sizeof READY - 1, MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr *>(&address), address_bytes);
    if (own >= 0)
        (void)close(own);
    return sent < 0 ? -1 : 0;
}

int fb_adj_init(int queue, unsigned, unsigned events, unsigned errors, unsigned reads, unsigned writes,
                unsigned details)
{
    if (!mts_is_bound(queue))
        return -1;
    for (const unsigned category : {events, errors, reads, writes, details})
        if (!sdwrap_is_registered(category))
            return -1;
    return 0;
}

void fb_adj_cleanup(int) {}

int get_module_info(module_info *info)
{
    *info = {};
    info->slot = static_cast<std::int32_t>(card_conf_get().slot);
    return 0;
}
