// tnrpc_server.cpp - the serving side of remote procedure calls on a Linux host.
//
// The event loop polls the descriptor of an epoll set over the listening socket, the connections and a timer. A pass
// takes one event from it. The set is level-triggered and asked for one event at a time: the kernel puts what it has
// just reported behind all that waits as well, so connections with calls waiting take turns.
// A caller can not block the process: replies are sent without waiting, and a caller that leaves no room for its reply
// loses its connection. Out of descriptors, the listener leaves the set until a connection ends or the timer has run,
// so that waiting connections do not wake the loop all the time.
// Always: a call allocates nothing here; call and reply are the static records below, since procedures run one at a
// time and never call tnrpc_process. A running procedure uses nothing of the procedure table, so it may unregister
// itself.
// Elsewhere: the form of the records (rpc_record.h), who owns an endpoint (card_dir.cpp).

#include "tnrpc.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_files.h"
#include "counters.h"
#include "mtrack.h"
#include "rpc_record.h"

namespace
{

constexpr unsigned MAX_CONNECTIONS = 128;
constexpr unsigned MAX_PROCEDURES = 64;
constexpr long ACCEPT_RETRY_NS = 100'000'000; // until waiting connections are looked at again
constexpr int SEND_BUFFER_BYTES = 212'992;    // some 270 small replies, or three pages of a listing

struct rpc_server {
    int events = -1;   // the epoll set, -1 while nothing is served
    int listener = -1; // never blocks
    int timer = -1;    // runs while the listener is out of the set
    bool accepting = false;
    unsigned connections = 0;
    std::uint32_t endpoint = 0;
};
rpc_server server;

struct procedure {
    std::uint8_t name[TNRPC_MAX_NAME + 1];
    std::size_t name_length;
    tnrpc_function function;
    unsigned arg_count;
    unsigned types[TNRPC_MAX_ARGS];
    std::uint32_t max[TNRPC_MAX_ARGS];
};
procedure procedures[MAX_PROCEDURES]; // the first procedure_count, ordered by name
unsigned procedure_count;

// The call being served. refs and blocks are what the procedure's arguments point to.
struct running_call {
    std::uint32_t transaction;
    tnrpc_function function;
    unsigned arg_count;
    unsigned types[TNRPC_MAX_ARGS];
    std::uint32_t lengths[TNRPC_MAX_ARGS];
    std::uint32_t refs[TNRPC_MAX_ARGS];
    tnrpc_block blocks[TNRPC_MAX_ARGS];
    tnrpc_arg args[TNRPC_MAX_ARGS];
};
running_call call;
std::uint8_t call_bytes[TNRPC_CALL_BYTES];

// The reply: all but the blocks is written into `bytes`; the blocks are sent from where they are.
struct reply_record {
    std::uint8_t bytes[TNRPC_REPLY_HEAD + TNRPC_MAX_ARGS * (TNRPC_VALUE_HEAD + 4)];
    std::uint8_t *end;
    iovec parts[2 * TNRPC_MAX_ARGS + 1];
    unsigned part_count;
};
reply_record reply;

// Orders names by length, then by bytes: whole names are compared, and most differ in length already.
int name_compare(const procedure &p, const std::uint8_t *name, std::size_t length)
{
    if (p.name_length != length)
        return p.name_length < length ? -1 : 1;
    return std::memcmp(p.name, name, length);
}

// The place of `name` in the table, or where it would stand.
procedure *procedure_place(const std::uint8_t *name, std::size_t length)
{
    return std::lower_bound(procedures, procedures + procedure_count, length,
                            [name](const procedure &p, std::size_t l) { return name_compare(p, name, l) < 0; });
}

procedure *procedure_find(const std::uint8_t *name, std::size_t length)
{
    procedure *p = procedure_place(name, length);
    return p != procedures + procedure_count && name_compare(*p, name, length) == 0 ? p : nullptr;
}

procedure *procedure_find(const char *name)
{
    return procedure_find(reinterpret_cast<const std::uint8_t *>(name), std::strlen(name));
}

// Paths and targets of links are written in place, without an allocation: the clean-up of a signal takes the links
// down, perhaps from the middle of one.
struct link_text {
    char text[256];
};

link_text link_path(const char *name)
{
    link_text path;
    (void)std::snprintf(path.text, sizeof path.text, "%s/rpc/names/%s", card_dir_path().c_str(), name);
    return path;
}

link_text link_target()
{
    link_text target;
    (void)std::snprintf(target.text, sizeof target.text, "../%lu", static_cast<unsigned long>(server.endpoint));
    return target;
}

// The target of a name's link; empty when there is none.
link_text link_read(const link_text &path)
{
    link_text target;
    const ssize_t length = readlink(path.text, target.text, sizeof target.text - 1);
    target.text[length < 0 ? 0 : length] = '\0';
    return target;
}

bool link_is_ours(const link_text &target) { return std::strcmp(target.text, link_target().text) == 0; }

// Whether a link's target names an endpoint of another process that lives.
bool link_is_served_by_another(const link_text &target)
{
    std::uint32_t endpoint = 0;
    if (tnrpc_link_endpoint(target.text, std::strlen(target.text), endpoint) != 0)
        return false;
    return card_dir_owner((RPC_FOLDER + ("/" + std::to_string(endpoint))).c_str()) == card_owner::other;
}

// Points the name's link at this process, unless a live process serves the name. The new link is renamed over the old
// one, so callers find the one or the other at any moment.
void link_publish(const char *name)
{
    const link_text path = link_path(name), old = link_read(path);
    if (link_is_ours(old) || link_is_served_by_another(old))
        return;
    const link_text fresh = link_path(("." + std::to_string(getpid())).c_str());
    (void)unlink(fresh.text); // left by a process that ended between the next two steps
    if (symlink(link_target().text, fresh.text) != 0 || rename(fresh.text, path.text) != 0) {
        std::fprintf(stderr, "%s: %s: %s; callers can not find it\n", program_invocation_short_name, path.text,
                     std::strerror(errno));
        (void)unlink(fresh.text);
    }
}

void link_withdraw(const char *name)
{
    const link_text path = link_path(name);
    if (link_is_ours(link_read(path)))
        (void)unlink(path.text);
}

bool is_open() { return server.events >= 0; }

int watch(int operation, int descriptor, std::uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.fd = descriptor;
    return epoll_ctl(server.events, operation, descriptor, &event);
}

void timer_set(long nanoseconds)
{
    const itimerspec when{{0, 0}, {0, nanoseconds}};
    (void)timerfd_settime(server.timer, 0, &when, nullptr); // cannot fail: a valid timer and a valid time
}

void accept_again()
{
    if (server.accepting)
        return;
    timer_set(0);
    server.accepting = watch(EPOLL_CTL_MOD, server.listener, EPOLLIN) == 0;
}

// New connections stay in the listener's queue for a while.
void accept_later()
{
    if (watch(EPOLL_CTL_MOD, server.listener, 0) == 0)
        server.accepting = false;
    timer_set(ACCEPT_RETRY_NS);
}

void connection_end(int connection)
{
    (void)watch(EPOLL_CTL_DEL, connection, 0); // a forked child may hold the socket open, and so keep it in the set
    (void)close(connection);
    --server.connections;
    accept_again(); // a descriptor is free
}

// Raises the room for unread replies where the host's default is smaller than what callers count on.
void connection_make_room(int connection)
{
    int bytes = 0;
    socklen_t length = sizeof bytes;
    if (getsockopt(connection, SOL_SOCKET, SO_SNDBUF, &bytes, &length) == 0 && bytes < SEND_BUFFER_BYTES) {
        bytes = SEND_BUFFER_BYTES / 2; // the kernel doubles what it is given
        (void)setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes); // the default does for most callers
    }
}

void connection_accept()
{
    const int connection = accept4(server.listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (connection < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)
            accept_later();
        return;
    }
    if (server.connections == MAX_CONNECTIONS || watch(EPOLL_CTL_ADD, connection, EPOLLIN) != 0) {
        (void)close(connection);
        ++platform_counters.connections_refused;
        return;
    }
    connection_make_room(connection);
    ++server.connections;
    ++platform_counters.connections;
}

// Takes the arguments of the call. Returns the status it has earned so far: TNRPC_RAN or TNRPC_BAD_ARGUMENTS.
tnrpc_status call_take_args(const procedure &p, std::uint32_t arg_count, tnrpc_rest rest)
{
    if (arg_count != p.arg_count)
        return TNRPC_BAD_ARGUMENTS;
    for (unsigned i = 0; i < p.arg_count; ++i) {
        tnrpc_value value{};
        if (tnrpc_take_value(rest, value) != 0 || value.type != p.types[i] ||
            !tnrpc_is_call_length(value.type, value.length))
            return TNRPC_BAD_ARGUMENTS;
        call.types[i] = value.type;
        call.lengths[i] = value.length;
        call.refs[i] = tnrpc_get(value.bytes, value.length);
        call.blocks[i] = tnrpc_block{};
        call.args[i] = {call.refs[i], value.type == RPC_ARG_REF ? &call.refs[i] : nullptr,
                        value.type == RPC_ARG_BLOCK ? &call.blocks[i] : nullptr};
    }
    return rest.length == 0 ? TNRPC_RAN : TNRPC_BAD_ARGUMENTS;
}

// Judges a record that is a call, up to the point where its procedure can run.
tnrpc_status call_take(const std::uint8_t *record, std::size_t length)
{
    call.transaction = tnrpc_get(record + 4, 4);
    call.arg_count = 0;
    const std::size_t name_length = tnrpc_get(record + 8, 2);
    const std::uint8_t *name = record + TNRPC_CALL_HEAD;
    if (name_length > length - TNRPC_CALL_HEAD || !tnrpc_is_name(name, name_length))
        return TNRPC_BAD_ARGUMENTS;
    const procedure *p = procedure_find(name, name_length);
    if (p == nullptr)
        return TNRPC_NO_PROCEDURE;
    const tnrpc_rest rest{name + name_length, length - TNRPC_CALL_HEAD - name_length};
    if (call_take_args(*p, tnrpc_get(record + 10, 2), rest) != TNRPC_RAN)
        return TNRPC_BAD_ARGUMENTS;
    for (unsigned i = 0; i < p->arg_count; ++i)
        if (call.args[i].value > p->max[i])
            return TNRPC_OUT_OF_RANGE;
    call.function = p->function;
    call.arg_count = p->arg_count;
    return TNRPC_RAN;
}

void reply_add_part(void *bytes, std::size_t length) { reply.parts[reply.part_count++] = {bytes, length}; }

// Closes the part that stands in reply.bytes from `start` and adds the block behind it. Returns the next start.
std::uint8_t *reply_add_block(std::uint8_t *start, const tnrpc_block &block)
{
    const std::uint32_t length = block.data == nullptr ? 0 : block.length;
    reply.end = tnrpc_put_value_head(reply.end, RPC_ARG_BLOCK, length);
    if (length == 0)
        return start;
    reply_add_part(start, static_cast<std::size_t>(reply.end - start));
    reply_add_part(block.data.get(), length);
    return reply.end;
}

void reply_build(tnrpc_status status, std::uint32_t result)
{
    std::uint8_t *start = reply.bytes;
    reply.part_count = 0;
    reply.end = tnrpc_put(tnrpc_put(start, 4, TNRPC_REPLY_MAGIC), 4, call.transaction);
    reply.end = tnrpc_put(tnrpc_put(reply.end, 4, status), 4, result);
    for (unsigned i = 0; status == TNRPC_RAN && i < call.arg_count; ++i) {
        if (call.types[i] == RPC_ARG_REF) {
            reply.end = tnrpc_put_value_head(reply.end, RPC_ARG_REF, call.lengths[i]);
            reply.end = tnrpc_put(reply.end, call.lengths[i], call.refs[i]);
        } else if (call.types[i] == RPC_ARG_BLOCK) {
            start = reply_add_block(start, call.blocks[i]);
        }
    }
    if (reply.end != start)
        reply_add_part(start, static_cast<std::size_t>(reply.end - start));
}

// Sends the reply, whole and at once. Returns 0, or -1 when that cannot be.
int reply_send(int connection)
{
    msghdr message{};
    message.msg_iov = reply.parts;
    message.msg_iovlen = reply.part_count;
    ssize_t sent = 0;
    do
        sent = sendmsg(connection, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent < 0 ? -1 : 0;
}

void call_serve(int connection, std::size_t length)
{
    const tnrpc_status status = call_take(call_bytes, length);
    std::uint32_t result = 0;
    if (status == TNRPC_RAN) {
        result = call.function(call.args);
        ++platform_counters.calls_served;
    } else {
        ++platform_counters.calls_refused;
    }

    reply_build(status, result);
    const int sent = reply_send(connection);
    for (unsigned i = 0; status == TNRPC_RAN && i < call.arg_count; ++i)
        if (call.types[i] == RPC_ARG_BLOCK)
            mtrack_free(call.blocks[i].data.get());
    if (sent != 0) {
        ++platform_counters.replies_dropped;
        connection_end(connection);
    }
}

void connection_serve(int connection, std::uint32_t events)
{
    // With MSG_TRUNC the kernel answers the record's own length, also when that is more than fits.
    const ssize_t length = recv(connection, call_bytes, sizeof call_bytes, MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0 && (errno == EAGAIN || errno == EINTR) && (events & (EPOLLERR | EPOLLHUP)) == 0)
        return;
    if (length <= 0) {
        connection_end(connection);
        return;
    }
    const auto bytes = static_cast<std::size_t>(length);
    if (bytes < TNRPC_CALL_HEAD || bytes > TNRPC_CALL_BYTES || tnrpc_get(call_bytes, 4) != TNRPC_CALL_MAGIC) {
        ++platform_counters.calls_malformed;
        connection_end(connection);
        return;
    }
    call_serve(connection, bytes);
}

void server_close()
{
    for (int *descriptor : {&server.events, &server.listener, &server.timer}) {
        if (*descriptor >= 0)
            (void)close(*descriptor);
        *descriptor = -1;
    }
}

// Opens the set, the timer and the listener. Returns 0, or -1 with errno and some of them still open.
int server_open(const char *name)
{
    server.events = epoll_create1(EPOLL_CLOEXEC);
    server.timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (server.events < 0 || server.timer < 0)
        return -1;
    server.listener = card_dir_bind(SOCK_SEQPACKET, name);
    if (server.listener < 0)
        return -1;
    if (watch(EPOLL_CTL_ADD, server.timer, EPOLLIN) != 0 || watch(EPOLL_CTL_ADD, server.listener, EPOLLIN) != 0)
        return -1;
    server.accepting = true;
    return 0;
}

} // namespace

int tnrpc_serv_init(std::uint32_t endpoint)
{
    if (is_open() || card_dir_path().empty())
        return -1;
    char name[TNRPC_ENDPOINT_PATH_BYTES];
    std::snprintf(name, sizeof name, "%s/%u", RPC_FOLDER, endpoint);
    server.endpoint = endpoint;
    if (server_open(name) != 0) {
        card_dir_say_not_bound(name);
        server_close();
        return -1;
    }
    for (unsigned i = 0; i < procedure_count; ++i)
        link_publish(reinterpret_cast<const char *>(procedures[i].name));
    return server.events;
}

int tnrpc_register(const char *name, tnrpc_function function, unsigned arg_count, ...)
{
    if (!tnrpc_is_link_name(name) || arg_count > TNRPC_MAX_ARGS)
        return -1;
    procedure fresh{};
    fresh.name_length = std::strlen(name);
    std::memcpy(fresh.name, name, fresh.name_length);
    fresh.function = function;
    fresh.arg_count = arg_count;
    std::fill(std::begin(fresh.max), std::end(fresh.max), UINT32_MAX);
    bool types_known = true;
    va_list types;
    va_start(types, arg_count);
    for (unsigned i = 0; i < arg_count; ++i) {
        fresh.types[i] = va_arg(types, unsigned);
        types_known = types_known && tnrpc_is_type(fresh.types[i]);
    }
    va_end(types);
    if (!types_known)
        return -1;

    procedure *place = procedure_find(name);
    if (place == nullptr) {
        if (procedure_count == MAX_PROCEDURES)
            return -1;
        place = procedure_place(fresh.name, fresh.name_length);
        std::copy_backward(place, procedures + procedure_count, procedures + procedure_count + 1);
        ++procedure_count;
    }
    *place = fresh;
    if (is_open())
        link_publish(name);
    return 0;
}

int tnrpc_limit(const char *name, unsigned index, std::uint32_t max)
{
    procedure *p = procedure_find(name);
    if (p == nullptr || index >= p->arg_count || p->types[index] == RPC_ARG_BLOCK)
        return -1;
    p->max[index] = max;
    return 0;
}

int tnrpc_unregister(const char *name)
{
    procedure *p = procedure_find(name);
    if (p == nullptr)
        return -1;
    if (is_open())
        link_withdraw(name); // first, so that no caller connects for a name that is gone
    std::copy(p + 1, procedures + procedure_count, p);
    --procedure_count;
    return 0;
}

int tnrpc_process(int descriptor)
{
    if (!is_open() || descriptor != server.events)
        return -1;
    epoll_event event{};
    while (epoll_wait(server.events, &event, 1, 0) == 1) {
        if (event.data.fd == server.timer) {
            accept_again(); // not a caller's event: take the next
            continue;
        }
        if (event.data.fd == server.listener)
            connection_accept();
        else
            connection_serve(event.data.fd, event.events);
        return 0;
    }
    return -1;
}
