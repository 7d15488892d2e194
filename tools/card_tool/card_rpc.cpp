// card_rpc.cpp - the asynchronous caller: a queue of calls, a connection that comes and goes, a window between them.
//
// Every socket operation is tried without waiting; only card_rpc_wait polls. A call that ends is first taken off the
// queue and then reported to its caller, in order, so that a `done` may queue further calls.
// A connection that ends before any answer is taken for a server that refuses callers: the calls that wait fail too,
// instead of connecting again and again.
// Always: the first `outstanding` calls of the queue were sent on this connection, and no other; with no connection,
// `outstanding` is 0.
// Elsewhere: the form of the records (rpc_record.h).
#include "card_rpc.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <deque>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_files.h"
#include "rpc_record.h"

namespace
{
using steady = std::chrono::steady_clock;
constexpr std::size_t REPLY_BYTES = 256 * 1024; // more than a socket holds
constexpr int CONNECT_AGAIN_MS = 5;             // while the server's queue of connections is full

struct waiting_call {
    std::uint32_t transaction;
    std::vector<std::uint8_t> record;
    std::vector<card_rpc_arg> returned; // the arguments for which a value comes back
    steady::time_point since;
    card_rpc_done done;
};

struct finished_call {
    card_rpc_reply reply;
    card_rpc_done done;
};
using finished_calls = std::vector<finished_call>;
} // namespace

struct card_rpc {
    std::string procedure; // whose server it is
    std::chrono::milliseconds timeout;
    int fd = -1;
    bool backlog_full = false;          // no connection yet, but there is a server
    std::size_t answered = 0;           // on this connection
    std::size_t outstanding = 0;        // calls of the queue that were sent
    std::uint32_t last_transaction = 0; // counted over all connections
    steady::time_point last_answer{};
    std::deque<waiting_call> queue;
    std::vector<std::uint8_t> received;
};

namespace
{
void disconnect(card_rpc &rpc)
{
    if (rpc.fd >= 0)
        (void)close(rpc.fd);
    rpc.fd = -1;
    rpc.outstanding = 0;
    rpc.answered = 0;
    rpc.backlog_full = false;
}

void finish_first(card_rpc &rpc, card_rpc_reply reply, finished_calls &finished)
{
    finished.push_back({std::move(reply), std::move(rpc.queue.front().done)});
    rpc.queue.pop_front();
}

void fail_first(card_rpc &rpc, std::size_t count, card_rpc_end end, finished_calls &finished)
{
    for (std::size_t i = 0; i < count; ++i) {
        card_rpc_reply reply;
        reply.end = end;
        finish_first(rpc, std::move(reply), finished);
    }
}

// The connection has ended. What was sent is lost; what was not goes over the next one, unless this one never answered.
void connection_lost(card_rpc &rpc, finished_calls &finished)
{
    const bool useless = rpc.answered == 0;
    const std::size_t sent = rpc.outstanding;
    disconnect(rpc);
    fail_first(rpc, sent, CARD_RPC_LOST, finished);
    if (useless)
        fail_first(rpc, rpc.queue.size(), sent == 0 ? CARD_RPC_UNREACHABLE : CARD_RPC_LOST, finished);
}

// The endpoint that the procedure's link names, as a path in the card directory; empty when no process serves it.
std::string endpoint_name(const std::string &procedure)
{
    const std::string path = card_dir_path() + "/" + RPC_NAMES_FOLDER + "/" + procedure;
    char target[64];
    if (card_dir_path().empty() || !tnrpc_is_link_name(procedure.c_str()))
        return "";
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    std::uint32_t endpoint = 0;
    if (length < 0 || tnrpc_link_endpoint(target, static_cast<std::size_t>(length), endpoint) != 0)
        return "";
    return RPC_FOLDER + ("/" + std::to_string(endpoint));
}

// Connects, or leaves backlog_full set to try again later. Returns 0, or -1 when there is no server.
int connection_open(card_rpc &rpc)
{
    const std::string name = endpoint_name(rpc.procedure);
    sockaddr_un address{};
    if (name.empty() || card_dir_address(name.c_str(), &address) != 0)
        return -1;
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        rpc.fd = fd;
        rpc.backlog_full = false;
        return 0;
    }
    rpc.backlog_full = errno == EAGAIN;
    (void)close(fd);
    return rpc.backlog_full ? 0 : -1;
}

// Takes the values that come back. Returns false when they are not those that the call asks for.
bool reply_take_values(const std::vector<card_rpc_arg> &returned, tnrpc_rest rest, card_rpc_reply &reply)
{
    for (const card_rpc_arg &arg : returned) {
        tnrpc_value value{};
        if (tnrpc_take_value(rest, value) != 0 || value.type != arg.type)
            return false;
        if (arg.type == RPC_ARG_BLOCK)
            reply.blocks.emplace_back(value.bytes, value.bytes + value.length);
        else if (value.length == arg.bytes)
            reply.refs.push_back(tnrpc_get(value.bytes, value.length));
        else
            return false;
    }
    return rest.length == 0;
}

// Judges a whole record against the call that it should answer. Returns false when it does not answer that call.
bool reply_decode(const waiting_call &call, const std::uint8_t *bytes, std::size_t length, card_rpc_reply &reply)
{
    if (length < TNRPC_REPLY_HEAD || tnrpc_get(bytes, 4) != TNRPC_REPLY_MAGIC ||
        tnrpc_get(bytes + 4, 4) != call.transaction)
        return false;
    const std::uint32_t status = tnrpc_get(bytes + 8, 4);
    if (status > TNRPC_OUT_OF_RANGE || (status != TNRPC_RAN && length != TNRPC_REPLY_HEAD))
        return false;
    constexpr card_rpc_end ENDS[] = {CARD_RPC_RAN, CARD_RPC_NO_PROCEDURE, CARD_RPC_BAD_ARGUMENTS,
                                     CARD_RPC_OUT_OF_RANGE};
    reply.end = ENDS[status];
    reply.result = tnrpc_get(bytes + 12, 4);
    if (status != TNRPC_RAN)
        return true;
    return reply_take_values(call.returned, {bytes + TNRPC_REPLY_HEAD, length - TNRPC_REPLY_HEAD}, reply);
}

void answer_take(card_rpc &rpc, std::size_t length, finished_calls &finished)
{
    card_rpc_reply reply;
    if (rpc.outstanding == 0 || length > rpc.received.size() ||
        !reply_decode(rpc.queue.front(), rpc.received.data(), length, reply)) {
        const std::size_t sent = rpc.outstanding;
        disconnect(rpc);
        fail_first(rpc, std::min<std::size_t>(sent, 1), CARD_RPC_GARBLED, finished);
        fail_first(rpc, sent > 1 ? sent - 1 : 0, CARD_RPC_LOST, finished);
        return;
    }
    rpc.last_answer = steady::now();
    ++rpc.answered;
    --rpc.outstanding;
    finish_first(rpc, std::move(reply), finished);
}

void receive_all(card_rpc &rpc, finished_calls &finished)
{
    while (rpc.fd >= 0) {
        const ssize_t got = recv(rpc.fd, rpc.received.data(), rpc.received.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (got > 0) {
            answer_take(rpc, static_cast<std::size_t>(got), finished);
            continue;
        }
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && errno == EAGAIN)
            return;
        connection_lost(rpc, finished);
    }
}

bool has_unsent(const card_rpc &rpc) { return rpc.outstanding < CARD_RPC_WINDOW && rpc.outstanding < rpc.queue.size(); }

// Sends what the window and the socket take. Returns false when the connection has failed.
bool send_some(card_rpc &rpc)
{
    while (has_unsent(rpc)) {
        const std::vector<std::uint8_t> &record = rpc.queue[rpc.outstanding].record;
        const ssize_t sent = send(rpc.fd, record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return errno == EAGAIN;
        ++rpc.outstanding;
    }
    return true;
}

// Receives, connects when something is to be sent, and sends, until the socket gives and takes no more.
void exchange(card_rpc &rpc, finished_calls &finished)
{
    for (;;) {
        receive_all(rpc, finished);
        if (!has_unsent(rpc))
            return;
        if (rpc.fd < 0 && connection_open(rpc) != 0) {
            fail_first(rpc, rpc.queue.size(), CARD_RPC_UNREACHABLE, finished);
            return;
        }
        if (rpc.fd < 0)
            return;
        if (send_some(rpc))
            return;
        receive_all(rpc, finished); // answers that came before the end
        if (rpc.fd >= 0)
            connection_lost(rpc, finished);
    }
}

steady::time_point deadline_of_first(const card_rpc &rpc)
{
    return std::max(rpc.queue.front().since, rpc.last_answer) + rpc.timeout;
}

void expire(card_rpc &rpc, finished_calls &finished)
{
    if (rpc.queue.empty() || steady::now() < deadline_of_first(rpc))
        return;
    disconnect(rpc);
    fail_first(rpc, rpc.queue.size(), CARD_RPC_TIMED_OUT, finished);
}

void put(std::vector<std::uint8_t> &record, std::size_t bytes, std::uint32_t value)
{
    std::uint8_t number[4];
    tnrpc_put(number, bytes, value);
    record.insert(record.end(), number, number + bytes);
}

std::vector<std::uint8_t> call_record(std::uint32_t transaction, const std::string &procedure,
                                      const std::vector<card_rpc_arg> &args)
{
    std::vector<std::uint8_t> record;
    record.reserve(TNRPC_CALL_HEAD + procedure.size() + args.size() * (TNRPC_VALUE_HEAD + 4));
    put(record, 4, TNRPC_CALL_MAGIC);
    put(record, 4, transaction);
    put(record, 2, static_cast<std::uint32_t>(procedure.size()));
    put(record, 2, static_cast<std::uint32_t>(args.size()));
    record.insert(record.end(), procedure.begin(), procedure.end());
    for (const card_rpc_arg &arg : args) {
        put(record, 2, arg.type);
        put(record, 2, 0);
        put(record, 4, arg.bytes);
        put(record, arg.bytes, arg.value);
    }
    return record;
}
} // namespace

void card_rpc_delete::operator()(card_rpc *rpc) const
{
    disconnect(*rpc);
    delete rpc;
}

card_rpc_ptr card_rpc_open(std::string procedure, unsigned timeout_ms)
{
    card_rpc_ptr rpc(new card_rpc);
    rpc->procedure = std::move(procedure);
    rpc->timeout = std::chrono::milliseconds(timeout_ms);
    rpc->received.resize(REPLY_BYTES);
    return rpc;
}

void card_rpc_call(card_rpc &rpc, const std::string &procedure, const std::vector<card_rpc_arg> &args,
                   card_rpc_done done)
{
    waiting_call call{++rpc.last_transaction, {}, {}, steady::now(), std::move(done)};
    call.record = call_record(call.transaction, procedure, args);
    for (const card_rpc_arg &arg : args)
        if (arg.type == RPC_ARG_REF || arg.type == RPC_ARG_BLOCK)
            call.returned.push_back(arg);
    rpc.queue.push_back(std::move(call));
}

std::size_t card_rpc_pending(const card_rpc &rpc) { return rpc.queue.size(); }

int card_rpc_fd(const card_rpc &rpc) { return rpc.fd; }

short card_rpc_events(const card_rpc &rpc) { return has_unsent(rpc) ? POLLIN | POLLOUT : POLLIN; }

int card_rpc_timeout_ms(const card_rpc &rpc)
{
    if (rpc.queue.empty())
        return -1;
    if (rpc.fd < 0)
        return rpc.backlog_full ? CONNECT_AGAIN_MS : 0;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_of_first(rpc) - steady::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
}

void card_rpc_process(card_rpc &rpc)
{
    finished_calls finished;
    exchange(rpc, finished);
    expire(rpc, finished);
    for (const finished_call &call : finished)
        if (call.done)
            call.done(call.reply);
}

void card_rpc_wait(card_rpc &rpc, std::size_t below)
{
    for (;;) {
        card_rpc_process(rpc);
        if (rpc.queue.size() < below || rpc.queue.empty())
            return;
        pollfd waited{rpc.fd, card_rpc_events(rpc), 0};
        (void)poll(&waited, 1, card_rpc_timeout_ms(rpc)); // a signal or an early end only means another round
    }
}

card_rpc_reply card_rpc_call_wait(card_rpc &rpc, const std::string &procedure, const std::vector<card_rpc_arg> &args)
{
    card_rpc_reply answer;
    bool is_done = false;
    card_rpc_call(rpc, procedure, args, [&](const card_rpc_reply &reply) {
        answer = reply;
        is_done = true;
    });
    while (!is_done)
        card_rpc_wait(rpc, rpc.queue.size());
    return answer;
}

std::string card_rpc_reason(card_rpc_end end, const std::string &procedure)
{
    switch (end) {
    case CARD_RPC_RAN:
        break;
    case CARD_RPC_NO_PROCEDURE:
        return "the server does not know " + procedure;
    case CARD_RPC_BAD_ARGUMENTS:
        return "the server does not accept these arguments of " + procedure;
    case CARD_RPC_OUT_OF_RANGE:
        return "an argument of " + procedure + " is out of range";
    case CARD_RPC_UNREACHABLE:
        return "no process serves " + procedure;
    case CARD_RPC_TIMED_OUT:
        return "no answer to " + procedure + " in time; it may have run";
    case CARD_RPC_LOST:
        return "the server ended before it answered " + procedure + "; it may have run";
    case CARD_RPC_GARBLED:
        return "the reply to " + procedure + " was malformed; it may have run";
    }
    return procedure + " ran";
}
