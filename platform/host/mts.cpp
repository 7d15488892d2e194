// mts.cpp - the message transport on a Linux host: one datagram socket for each service access point.
//
// A queue holds some ten messages and the sender of a notification never waits, so a message may be lost; the sender
// counts it, since the receiver can not. Messages are sent from one socket that is bound to no name: the sender's
// access point is a field of the message. That socket and the folder that a broadcast lists are opened with the first
// queue, so that a process out of descriptors still answers and notifies.
// Always: a received payload lies in one static buffer, so one message is held at a time (as the event loop does);
// nothing here allocates once a queue is bound.
// Elsewhere: which sockets are in the card directory and who owns them (card_dir.cpp), the messages that the platform
// takes for itself (debug_service.cpp).
#include "mts.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "big_endian.h"
#include "card_dir.h"
#include "card_files.h"
#include "counters.h"
#include "mts_host.h"

namespace
{
constexpr std::uint32_t LAST_TOOL_SAP = 65535;
constexpr std::size_t SAP_NAME_BYTES = 16; // "mts/4294967295"

struct option_word {
    std::uint32_t opcode;
    std::uint16_t value;
};
struct bound_queue {
    int fd = -1;
    std::uint32_t sap = 0;
    std::array<option_word, 32> options = {};
    std::size_t option_count = 0;
};

std::array<bound_queue, 8> queues;
int sending_socket = -1;
int sap_folder = -1; // MTS_FOLDER
std::uint8_t received[MTS_HEADER_BYTES + MTS_MAX_PAYLOAD];

struct opcode_name {
    std::uint32_t opcode;
    const char *name;
};
constexpr opcode_name OPCODE_NAMES[] = {
    {MTS_OPC_NORVIK_IF_CREATED, "MTS_OPC_NORVIK_IF_CREATED"},
    {MTS_OPC_NORVIK_IF_DELETED, "MTS_OPC_NORVIK_IF_DELETED"},
    {MTS_OPC_NORVIK_IF_UP, "MTS_OPC_NORVIK_IF_UP"},
    {MTS_OPC_NORVIK_IF_DOWN, "MTS_OPC_NORVIK_IF_DOWN"},
    {MTS_OPC_NORVIK_ENCAP_ACQUIRE, "MTS_OPC_NORVIK_ENCAP_ACQUIRE"},
    {MTS_OPC_NORVIK_ENCAP_RELEASE, "MTS_OPC_NORVIK_ENCAP_RELEASE"},
    {MTS_OPC_NORVIK_IF_CHANGED, "MTS_OPC_NORVIK_IF_CHANGED"},
    {MTS_OPC_DEBUG_REQUEST, "MTS_OPC_DEBUG_REQUEST"},
    {MTS_OPC_DEBUG_ANSWER, "MTS_OPC_DEBUG_ANSWER"},
    {MTS_OPC_ROUTE_IF_ADDED, "MTS_OPC_ROUTE_IF_ADDED"},
    {MTS_OPC_ROUTE_IF_REMOVED, "MTS_OPC_ROUTE_IF_REMOVED"},
};

bound_queue *find_queue(int fd)
{
    for (bound_queue &q : queues)
        if (fd >= 0 && q.fd == fd)
            return &q;
    return nullptr;
}

void sap_name(std::uint32_t sap, char (&name)[SAP_NAME_BYTES])
{
    (void)std::snprintf(name, sizeof name, "%s/%u", MTS_FOLDER, sap);
}

// Sends one datagram to `sap`. wait: MSG_DONTWAIT or 0. A message that is not taken is counted as lost. Returns 0 or
// -1.
int send_one(std::uint32_t sap, const msghdr &message, int wait)
{
    char name[SAP_NAME_BYTES];
    sap_name(sap, name);
    sockaddr_un address;
    if (card_dir_address(name, &address) != 0) {
        ++platform_counters.messages_lost;
        return -1;
    }
    msghdr addressed = message;
    addressed.msg_name = &address;
    addressed.msg_namelen = sizeof address;
    ssize_t sent = 0;
    do {
        sent = sendmsg(sending_socket, &addressed, MSG_NOSIGNAL | wait);
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0)
        return 0;
    ++platform_counters.messages_lost;
    return -1;
}

// Reads a decimal sap as a socket is named: no sign, no leading zero, not 0. Returns 0 for any other name.
std::uint32_t sap_of_name(const char *name)
{
    std::uint64_t sap = 0;
    if (*name == '0')
        return 0;
    for (; *name != '\0'; ++name) {
        if (*name < '0' || *name > '9')
            return 0;
        sap = sap * 10 + static_cast<unsigned>(*name - '0');
        if (sap > 0xFFFFFFFF)
            return 0;
    }
    return static_cast<std::uint32_t>(sap);
}

// Opens what messages are sent with, unless it is open. Returns 0, or -1 with errno.
int open_sending()
{
    if (sending_socket < 0)
        sending_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sap_folder < 0 && !card_dir_path().empty())
        sap_folder = open((card_dir_path() + "/" + MTS_FOLDER).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return sending_socket < 0 || sap_folder < 0 ? -1 : 0;
}

// Lists the folder from its start. A broadcast in a signal's handler may do so in the middle of this one, which then
// never goes on: the handler ends the process.
int send_to_all(std::uint32_t own_sap, const msghdr &message)
{
    alignas(dirent64) char entries[4096];
    int result = 0;
    ssize_t bytes = lseek(sap_folder, 0, SEEK_SET);
    while (bytes >= 0 && (bytes = getdents64(sap_folder, entries, sizeof entries)) > 0) {
        for (ssize_t at = 0; at < bytes;) {
            const auto *const entry = reinterpret_cast<const dirent64 *>(entries + at);
            at += entry->d_reclen;
            const std::uint32_t sap = sap_of_name(entry->d_name);
            if (sap != 0 && sap != own_sap && send_one(sap, message, MSG_DONTWAIT) != 0)
                result = -1;
        }
    }
    if (bytes == 0)
        return result;
    ++platform_counters.messages_lost;
    return -1;
}

int send_message(int queue, const mts_address &to, std::uint32_t opcode, const void *payload, std::size_t bytes,
                 int wait)
{
    if (bytes > MTS_MAX_PAYLOAD)
        return -1;
    const bound_queue *const own = find_queue(queue);
    const std::uint32_t own_sap = own == nullptr ? 0 : own->sap;
    std::uint8_t header[MTS_HEADER_BYTES];
    put_be32(header + MTS_AT_MAGIC, MTS_MAGIC);
    put_be32(header + MTS_AT_OPCODE, opcode);
    put_be32(header + MTS_AT_NODE, MTS_NODE_LOCAL);
    put_be32(header + MTS_AT_SAP, own_sap);
    iovec parts[2] = {{header, sizeof header}, {const_cast<void *>(payload), bytes}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;

    const bool is_open = open_sending() == 0; // already, but for a sender without a queue
    if (is_open && to.node == MTS_NODE_BROADCAST && to.sap == 0)
        return send_to_all(own_sap, message);
    if (is_open && (to.node == MTS_NODE_LOCAL || to.node == MTS_NODE_BROADCAST))
        return send_one(to.sap, message, wait);
    ++platform_counters.messages_lost; // no other card is reached from a host
    return -1;
}

// Binds the queue of `sap`, whose socket is `name`. Returns its descriptor, or -1 with errno.
int bind_queue(std::uint32_t sap, const char *name)
{
    bound_queue *free_entry = nullptr;
    for (bound_queue &q : queues)
        if (q.fd < 0 && free_entry == nullptr)
            free_entry = &q;
    if (free_entry == nullptr || sap == 0) {
        errno = free_entry == nullptr ? EMFILE : EINVAL;
        return -1;
    }
    const int fd = open_sending() == 0 ? card_dir_bind(SOCK_DGRAM, name) : -1;
    if (fd < 0)
        return -1;
    *free_entry = {};
    free_entry->fd = fd;
    free_entry->sap = sap;
    return fd;
}
} // namespace

bool mts_is_bound(int queue) { return find_queue(queue) != nullptr; }

int mts_bind(std::uint32_t, std::uint32_t sap, const mts_bind_options *, const char *)
{
    char name[SAP_NAME_BYTES];
    sap_name(sap, name);
    const int queue = bind_queue(sap, name);
    if (queue < 0)
        card_dir_say_not_bound(name);
    return queue;
}

int mts_bind_free(std::uint32_t *sap, const char *)
{
    if (card_dir_path().empty())
        return -1;
    for (std::uint32_t candidate = MTS_FIRST_TOOL_SAP; candidate <= LAST_TOOL_SAP; ++candidate) {
        char name[SAP_NAME_BYTES];
        sap_name(candidate, name);
        if (card_dir_owner(name) != card_owner::none)
            continue; // an owner that lives would cost the bind its whole wait
        const int queue = bind_queue(candidate, name);
        if (queue >= 0) {
            *sap = candidate;
            return queue;
        }
        if (errno != EWOULDBLOCK && errno != EISDIR) // taken meanwhile, or by a folder
            return -1;
    }
    return -1;
}

std::uint32_t mts_options_get(int queue, std::uint32_t opcode)
{
    const bound_queue *const q = find_queue(queue);
    for (std::size_t i = 0; q != nullptr && i < q->option_count; ++i)
        if (q->options[i].opcode == opcode)
            return q->options[i].value;
    return 0;
}

int mts_options_set(int queue, std::uint32_t opcode, std::uint16_t value)
{
    bound_queue *const q = find_queue(queue);
    if (q == nullptr)
        return -1;
    for (std::size_t i = 0; i < q->option_count; ++i) {
        if (q->options[i].opcode == opcode) {
            q->options[i].value = value;
            return 0;
        }
    }
    if (q->option_count == q->options.size())
        return -1;
    q->options[q->option_count++] = {opcode, value};
    return 0;
}

int mts_recv(int queue, mts_message *message, const mts_recv_options *)
{
    if (!mts_is_bound(queue))
        return -1;
    iovec part = {received, sizeof received};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    const ssize_t got = recvmsg(queue, &header, MSG_DONTWAIT | MSG_TRUNC);
    if (got < 0)
        return -1;
    const auto bytes = static_cast<std::size_t>(got);
    if (bytes < MTS_HEADER_BYTES || bytes > sizeof received || get_be32(received + MTS_AT_MAGIC) != MTS_MAGIC) {
        ++platform_counters.messages_malformed;
        return -1;
    }
    ++platform_counters.messages_received;
    message->opcode = get_be32(received + MTS_AT_OPCODE);
    message->source = {get_be32(received + MTS_AT_NODE), get_be32(received + MTS_AT_SAP)};
    message->length = static_cast<std::uint32_t>(bytes - MTS_HEADER_BYTES);
    message->payload = received + MTS_HEADER_BYTES;
    return 0;
}

void mts_drop(int, mts_message *message)
{
    message->payload = nullptr;
    message->length = 0;
}

int mts_send(int queue, const mts_address *to, std::uint32_t opcode, const void *payload, std::size_t bytes)
{
    return send_message(queue, *to, opcode, payload, bytes, MSG_DONTWAIT);
}

int mts_send_wait(int queue, const mts_address *to, std::uint32_t opcode, const void *payload, std::size_t bytes,
                  unsigned timeout_ms)
{
    if (timeout_ms == 0) // to the kernel it would mean without end
        return mts_send(queue, to, opcode, payload, bytes);
    // The kernel keeps the time: a sender woken by room that another takes goes on waiting with what is left.
    const timeval limit = {static_cast<time_t>(timeout_ms / 1000), static_cast<suseconds_t>(timeout_ms % 1000 * 1000)};
    if (open_sending() != 0 || setsockopt(sending_socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) {
        ++platform_counters.messages_lost;
        return -1;
    }
    return send_message(queue, *to, opcode, payload, bytes, 0);
}

std::uint32_t mts_opc_get(const mts_message *message) { return message->opcode; }
const std::uint8_t *mts_payload_get(const mts_message *message) { return message->payload; }
std::uint32_t mts_payload_length_get(const mts_message *message) { return message->length; }

const char *mts_opc_name_get(std::uint32_t opcode)
{
    for (const opcode_name &known : OPCODE_NAMES)
        if (known.opcode == opcode)
            return known.name;
    static char number[sizeof "MTS_OPC_4294967295"];
    (void)std::snprintf(number, sizeof number, "MTS_OPC_%u", opcode);
    return number;
}
