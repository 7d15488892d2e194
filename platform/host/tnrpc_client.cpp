// tnrpc_client.cpp - the calling side of remote procedure calls on a Linux host.
//
// A call reads the link of the procedure's name, takes the connection that it keeps for that endpoint (a new one when
// there is none or the peer has closed it), sends one record and waits for one. The link is read for each call: that
// costs less than the send that follows, and is right whichever process serves the name by then.
// A call is sent at most once: only what the kernel refused to send is tried again, on a new connection. One time-out
// by the monotonic clock covers all of it, so a signal does not lengthen it.
// Always: a kept connection has no reply outstanding. After a time-out or a reply of another form it is closed, so no
// answer is taken for the answer to another call. The caller's variables are written only after the whole reply has
// been judged.
// Elsewhere: the form of the records (rpc_record.h).

#include "tnrpc.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_files.h"
#include "counters.h"
#include "mtrack.h"
#include "rpc_record.h"
#include "timed_socket.h"

namespace
{

constexpr unsigned MAX_CONNECTIONS = 16; // endpoints with a connection kept

struct connection {
    std::uint32_t endpoint;
    int socket; // -1: none
};
connection connections[MAX_CONNECTIONS]; // the first connection_count are in use
unsigned connection_count;
unsigned connection_victim; // next to give way when all are in use
std::uint32_t last_transaction;

// An argument, and where what comes back for it goes.
struct out_argument {
    unsigned type;
    std::uint32_t length; // of a by-reference value: 2 or 4
    std::uint32_t *ref;
    tnrpc_block *block;
    unsigned block_type; // memory-tracking type of the block
};

struct outgoing_call {
    std::uint8_t record[TNRPC_CALL_HEAD + TNRPC_MAX_NAME + TNRPC_MAX_ARGS * (TNRPC_VALUE_HEAD + 4)];
    std::size_t length;
    std::uint32_t transaction;
    unsigned arg_count;
    out_argument args[TNRPC_MAX_ARGS];
    std::int64_t deadline_ns;
    bool waited; // a part of its time has gone before the receive
    std::uint32_t result;
};

// A receive on the socket waits as long as a whole call may take.
void socket_limit_receive(int socket)
{
    const std::int64_t ms = card_conf_get().rpc_timeout_ms;
    const timeval limit{ms / 1000, ms % 1000 * 1000};
    (void)setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit); // cannot fail: a valid time
}

// Connects to the endpoint. Returns the socket, or -1.
int socket_open(std::uint32_t endpoint, std::int64_t deadline_ns)
{
    char name[TNRPC_ENDPOINT_PATH_BYTES];
    std::snprintf(name, sizeof name, "%s/%u", RPC_FOLDER, endpoint);
    sockaddr_un address{};
    if (card_dir_address(name, &address) != 0)
        return -1;
    const int socket_fd = timed_socket_connect(address, deadline_ns);
    if (socket_fd >= 0)
        socket_limit_receive(socket_fd);
    return socket_fd;
}

// Whether a kept connection can still be used: open at the other end, with nothing unread in it.
bool socket_is_idle(int socket)
{
    std::uint8_t byte = 0;
    return recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

void connection_close(connection &kept)
{
    if (kept.socket >= 0)
        (void)close(kept.socket);
    kept.socket = -1;
}

connection &connection_of(std::uint32_t endpoint)
{
    for (unsigned i = 0; i < connection_count; ++i)
        if (connections[i].endpoint == endpoint)
            return connections[i];
    if (connection_count < MAX_CONNECTIONS) {
        connections[connection_count] = {endpoint, -1};
        return connections[connection_count++];
    }
    connection &given_up = connections[connection_victim++ % MAX_CONNECTIONS];
    connection_close(given_up);
    given_up.endpoint = endpoint;
    return given_up;
}

// The endpoint that serves `name`. Returns 0, or -1 when there is none.
int endpoint_of(const char *name, std::uint32_t &endpoint)
{
    char path[256];
    char target[64];
    const int length = std::snprintf(path, sizeof path, "%s/rpc/names/%s", card_dir_path().c_str(), name);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof path)
        return -1;
    const ssize_t target_length = readlink(path, target, sizeof target);
    if (target_length < 0)
        return -1;
    return tnrpc_link_endpoint(target, static_cast<std::size_t>(target_length), endpoint) == 0 ? 0 : -1;
}

// Writes the record of a call. Returns 0, or -1 for arguments that cannot be sent.
int call_build(outgoing_call &call, const char *name, unsigned arg_count, va_list &list)
{
    if (!tnrpc_is_link_name(name) || arg_count > TNRPC_MAX_ARGS)
        return -1;
    const std::size_t name_length = std::strlen(name);
    call.transaction = ++last_transaction;
    call.arg_count = arg_count;
    std::uint8_t *end = tnrpc_put(tnrpc_put(call.record, 4, TNRPC_CALL_MAGIC), 4, call.transaction);
    end = tnrpc_put(tnrpc_put(end, 2, static_cast<std::uint32_t>(name_length)), 2, arg_count);
    end = std::copy_n(name, name_length, end);

    for (unsigned i = 0; i < arg_count; ++i) {
        out_argument &arg = call.args[i];
        arg = {va_arg(list, unsigned), 0, nullptr, nullptr, 0};
        std::uint32_t value = 0;
        if (arg.type == RPC_ARG_REF) {
            arg.ref = va_arg(list, std::uint32_t *);
            arg.length = va_arg(list, unsigned);
            value = *arg.ref;
        } else if (arg.type == RPC_ARG_BLOCK) {
            arg.block = va_arg(list, tnrpc_block *);
            arg.block_type = va_arg(list, unsigned);
        } else {
            value = va_arg(list, std::uint32_t);
            arg.length = arg.type == RPC_ARG_SMALL ? 1 : arg.type == RPC_ARG_U16 ? 2 : 4;
        }
        if (!tnrpc_is_call_length(arg.type, arg.length))
            return -1;
        end = tnrpc_put(tnrpc_put_value_head(end, arg.type, arg.length), arg.length, value);
    }
    call.length = static_cast<std::size_t>(end - call.record);
    return 0;
}

// Takes the returned values one by one. Returns 0, or -1 when they are not those that the call asks for.
int reply_take_values(const outgoing_call &call, tnrpc_rest rest, tnrpc_value *values)
{
    for (unsigned i = 0; i < call.arg_count; ++i) {
        const out_argument &arg = call.args[i];
        if (arg.type != RPC_ARG_REF && arg.type != RPC_ARG_BLOCK)
            continue;
        if (tnrpc_take_value(rest, values[i]) != 0 || values[i].type != arg.type)
            return -1;
        if (arg.type == RPC_ARG_REF && values[i].length != arg.length)
            return -1;
    }
    return rest.length == 0 ? 0 : -1;
}

// Copies the returned blocks into memory of this process. Returns 0, or -1 with none of them allocated.
int reply_copy_blocks(const outgoing_call &call, const tnrpc_value *values, tnrpc_block *blocks)
{
    for (unsigned i = 0; i < call.arg_count; ++i) {
        blocks[i] = tnrpc_block{};
        if (call.args[i].type != RPC_ARG_BLOCK || values[i].length == 0)
            continue;
        auto *data = static_cast<std::byte *>(mtrack_alloc(0, call.args[i].block_type, values[i].length));
        if (data == nullptr) {
            while (i-- > 0)
                mtrack_free(blocks[i].data.get());
            return -1;
        }
        std::memcpy(data, values[i].bytes, values[i].length);
        blocks[i] = {values[i].length, data};
    }
    return 0;
}

// Hands a judged reply over to the caller's variables.
void reply_deliver(const outgoing_call &call, const tnrpc_value *values, const tnrpc_block *blocks)
{
    for (unsigned i = 0; i < call.arg_count; ++i) {
        const out_argument &arg = call.args[i];
        if (arg.type == RPC_ARG_BLOCK)
            *arg.block = blocks[i];
        if (arg.type != RPC_ARG_REF)
            continue;
        const std::uint32_t kept = arg.length == 2 ? *arg.ref & 0xFFFF0000u : 0;
        *arg.ref = kept | tnrpc_get(values[i].bytes, values[i].length);
    }
}

enum class reply_verdict { answered, refused, wrong };

// Judges a reply, and delivers it when the procedure ran.
reply_verdict reply_take(outgoing_call &call, const std::uint8_t *record, std::size_t length)
{
    if (length < TNRPC_REPLY_HEAD || tnrpc_get(record, 4) != TNRPC_REPLY_MAGIC ||
        tnrpc_get(record + 4, 4) != call.transaction)
        return reply_verdict::wrong;
    call.result = tnrpc_get(record + 12, 4);
    if (tnrpc_get(record + 8, 4) != TNRPC_RAN)
        return length == TNRPC_REPLY_HEAD && call.result == 0 ? reply_verdict::refused : reply_verdict::wrong;

    tnrpc_value values[TNRPC_MAX_ARGS];
    tnrpc_block blocks[TNRPC_MAX_ARGS];
    if (reply_take_values(call, {record + TNRPC_REPLY_HEAD, length - TNRPC_REPLY_HEAD}, values) != 0)
        return reply_verdict::wrong;
    if (reply_copy_blocks(call, values, blocks) != 0)
        return reply_verdict::refused;
    reply_deliver(call, values, blocks);
    return reply_verdict::answered;
}

bool has_block(const outgoing_call &call)
{
    return std::any_of(call.args, call.args + call.arg_count,
                       [](const out_argument &arg) { return arg.type == RPC_ARG_BLOCK; });
}

// Receives into `to`, waiting as the socket's limit says: as long as a whole call may take. A signal ends that wait,
// and what is left of the call's time is waited otherwise. Returns the record's length, or -1.
ssize_t socket_receive(int socket, void *to, std::size_t room, int flags, std::int64_t deadline_ns)
{
    ssize_t size = 0;
    do
        size = recv(socket, to, room, flags | MSG_TRUNC);
    while (size < 0 && errno == EINTR && timed_socket_wait(socket, POLLIN, deadline_ns) == 0);
    return size;
}

// Receives the reply and takes it. A reply without blocks is received at once, in place; one that brings a block is
// looked at first, and received into memory of its own size.
reply_verdict reply_receive(outgoing_call &call, int socket)
{
    std::uint8_t small[512];
    static_assert(sizeof small >= TNRPC_REPLY_HEAD + TNRPC_MAX_ARGS * (TNRPC_VALUE_HEAD + 4));
    const bool look_first = has_block(call);
    const ssize_t size = socket_receive(socket, small, sizeof small, look_first ? MSG_PEEK : 0, call.deadline_ns);
    if (size <= 0)
        return reply_verdict::wrong;
    const auto bytes = static_cast<std::size_t>(size);
    if (!look_first)
        return bytes <= sizeof small ? reply_take(call, small, bytes) : reply_verdict::wrong;

    const std::unique_ptr<std::uint8_t[]> record(new (std::nothrow) std::uint8_t[bytes]);
    if (!record || recv(socket, record.get(), bytes, MSG_DONTWAIT) != size)
        return reply_verdict::wrong; // unread, so the connection has to go
    return reply_take(call, record.get(), bytes);
}

// Sends the call. Returns 0, or -1 when nothing has been sent; `again`: the peer had gone, another connection may do.
// call.waited is set when there was no room at once.
int call_send(outgoing_call &call, int socket, bool &again)
{
    again = false;
    for (;;) {
        if (send(socket, call.record, call.length, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
            return 0;
        if (errno == EAGAIN && timed_socket_wait(socket, POLLOUT, call.deadline_ns) == 0) {
            call.waited = true;
            continue;
        }
        if (errno == EINTR)
            continue;
        again = errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN;
        return -1;
    }
}

// Gets the call to the endpoint's server, on the kept connection or on a new one, whose making takes its time, too.
// Returns 0, or -1 when it did not go.
int call_deliver(outgoing_call &call, connection &kept)
{
    if (kept.socket >= 0 && !socket_is_idle(kept.socket))
        connection_close(kept);
    bool again = true;
    bool fresh = false;
    while (again && !fresh) {
        if (kept.socket < 0) {
            kept.socket = socket_open(kept.endpoint, call.deadline_ns);
            fresh = call.waited = true;
        }
        if (kept.socket < 0)
            return -1;
        if (call_send(call, kept.socket, again) == 0)
            return 0;
        connection_close(kept);
    }
    return -1;
}

// Makes the call. Returns 0 with call.result set, or -1.
int call_make(outgoing_call &call, const char *name)
{
    std::uint32_t endpoint = 0;
    if (card_dir_path().empty() || endpoint_of(name, endpoint) != 0)
        return -1;
    connection &kept = connection_of(endpoint);
    (void)std::fflush(stdout); // its reader sees all that came before the wait
    call.deadline_ns = monotonic_ns() + card_conf_get().rpc_timeout_ms * NS_PER_MS;
    call.waited = false;
    if (call_deliver(call, kept) != 0)
        return -1;
    if (call.waited && timed_socket_wait(kept.socket, POLLIN, call.deadline_ns) != 0) {
        connection_close(kept);
        return -1;
    }
    const reply_verdict verdict = reply_receive(call, kept.socket);
    if (verdict == reply_verdict::wrong)
        connection_close(kept);
    return verdict == reply_verdict::answered ? 0 : -1;
}

} // namespace

int tnrpc_clnt_init(std::uint32_t endpoint)
{
    (void)endpoint; // a caller needs no address of its own on a host: replies come back over its connection
    return card_dir_path().empty() ? -1 : 0;
}

std::uint32_t tnrpc_call(const char *name, unsigned arg_count, ...)
{
    outgoing_call call;
    va_list list;
    va_start(list, arg_count);
    const int built = call_build(call, name, arg_count, list);
    va_end(list);
    ++platform_counters.remote_calls;
    if (built != 0 || call_make(call, name) != 0) {
        ++platform_counters.remote_calls_failed;
        return TNRPC_FAILED;
    }
    return call.result;
}
