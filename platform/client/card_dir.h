// card_dir.h - the card directory on a Linux host: the card's settings, and its processes' sockets, locks and files.
//
// For the platform's implementation and for the programs beside the route manager; the route manager itself uses the
// headers of platform/include. Elsewhere: the names in the directory (card_files.h).
#pragma once

#include <cstdint>
#include <string>

#include <sys/un.h>

#include "route_table.h"

// Settings of the card (card.conf), with the values that they have when no line of it sets them.
struct card_conf {
    std::uint32_t slot = 1;
    std::uint32_t num_ixp = 2;
    std::uint32_t wired_phys_base = HW_WIRED_BASE_DEFAULT;
    std::uint8_t supervisor_address = 1;
    std::uint32_t rpc_timeout_ms = 2000;
    bool route_cache_kernel = false;
    bool ixp_is_provided[2] = {false, false}; // a processor's memory: by another process, not a file
};
card_conf card_conf_read(const std::string &path); // the settings of one file; never through a symbolic link
const card_conf &card_conf_get(); // of the card, read once; problems are reported on standard error with their line

// The directory's path, made and checked on the first call. Empty when it is refused (reported once on standard error).
const std::string &card_dir_path();

// Address of `name` (such as "mts/514") in the card directory. Returns 0, or -1 when the directory is refused.
[[nodiscard]] int card_dir_address(const char *name, sockaddr_un *address);

// Binds a socket of `type` (SOCK_DGRAM, or SOCK_SEQPACKET which also listens) at `name`, under its lock file, which
// stays held for the life of the process. Non-blocking, close-on-exec, mode 0600; a stale socket is replaced.
// Returns the descriptor, or -1 with errno: EWOULDBLOCK when a live process held the lock for 100 ms, EISDIR when a
// folder stands there.
[[nodiscard]] int card_dir_bind(int type, const char *name);

// Says on standard error, from errno, why the socket `name` could not be bound; nothing when the directory is refused,
// which has been said.
void card_dir_say_not_bound(const char *name);

// Whether a live process holds the lock of `name`: another one, or this one.
enum class card_owner { none, other, self };
card_owner card_dir_owner(const char *name);

// Opens (creating it with mode 0600 and its whole size allocated when it is missing or of another size) the file
// `name`, for shared mapping. Never through a symbolic link. Returns the descriptor or -1.
[[nodiscard]] int card_dir_file(const char *name, std::size_t bytes, bool *made);
