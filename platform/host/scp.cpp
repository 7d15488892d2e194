// scp.cpp - messages to the supervisor card, one datagram each.
//
// The supervisor's socket in the card directory is looked up by name for each message, so the supervisor may come and
// go.
// Always: sending never waits; a message that is not taken is counted.
// Elsewhere: what a message says (supervisor_advert.h).
#include "scp.h"

#include <cerrno>

#include <sys/socket.h>

#include "card_dir.h"
#include "card_files.h"
#include "counters.h"

namespace
{
constexpr std::uint32_t SCP_HANDLE = 1; // the one service of a process; 0 would be none
int scp_socket = -1;

// Sends one datagram. Returns 0 or the system's error number.
int send_to_supervisor(const void *message, std::size_t bytes)
{
    sockaddr_un address;
    if (card_dir_address(SUPERVISOR_SOCKET, &address) != 0)
        return EACCES;
    ssize_t sent = 0;
    do {
        sent = sendto(scp_socket, message, bytes, MSG_NOSIGNAL | MSG_DONTWAIT,
                      reinterpret_cast<const sockaddr *>(&address), sizeof address);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? errno : 0;
}
} // namespace

std::uint32_t scp_init(std::uint32_t, int)
{
    if (scp_socket < 0 && !card_dir_path().empty())
        scp_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return scp_socket < 0 ? 0 : SCP_HANDLE;
}

std::uint8_t scp_sup_rp_addr_get(std::uint32_t) { return card_conf_get().supervisor_address; }

int scp_send(std::uint32_t handle, const void *message, std::size_t bytes)
{
    const int error = handle == SCP_HANDLE && scp_socket >= 0 ? send_to_supervisor(message, bytes) : EBADF;
    ++(error == 0 ? platform_counters.scp_sent : platform_counters.scp_failed);
    return error;
}
