// manager_link.cpp - one ordered way to the route manager over its two: messages and calls.
//
// A route manager is there while the lock of its message queue is held. Its start and end are seen by what happens to
// the names of that queue in the card directory, without polling; one that restarts between two looks is seen too,
// since it makes its socket anew. Always: a barrier is sent only after the last of a run of events, so its answer means
// that all of them are handled.

#include "manager_link.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <sys/inotify.h>
#include <sys/stat.h>

#include <unistd.h>

#include "card_dir.h"
#include "debug_service.h"
#include "route_ids.h"

namespace
{
constexpr std::uint64_t BARRIER_AGAIN_MS = 500; // an answer may be lost; asking again does no harm
constexpr unsigned FULL_WAIT_MS = 1; // for room in the route manager's queue, each time: it may be calling us
constexpr std::uint64_t FULL_AGAIN_MS = 10;
constexpr const char *MANAGER_QUEUE = "mts/514", *MANAGER_SOCKET = "514", *MANAGER_LOCK = "514.lock";
constexpr mts_address MANAGER = {MTS_NODE_LOCAL, ROUTE_MGR_SAP};

bool is_manager_alive()
{
    struct stat st;
    return card_dir_owner(MANAGER_QUEUE) == card_owner::other &&
           stat((card_dir_path() + "/" + MANAGER_QUEUE).c_str(), &st) == 0;
}

void arrive(manager_link &link)
{
    link.is_present = true;
    link.items.erase(std::remove_if(link.items.begin(), link.items.end(),
                                    [](const link_item &i) { return i.kind != link_kind::call; }),
                     link.items.end());
    link.is_unacknowledged = true; // it may not have reached its loop
    link.barriers_pending = 0;
    link.retry_ms = 0;
    link.on_arrival();
}

void leave(manager_link &link)
{
    link.is_present = link.is_unacknowledged = false;
    link.barriers_pending = 0;
    if (link.on_departure)
        link.on_departure();
}

// What happened to the names of the route manager's queue.
void watch_process(manager_link &link)
{
    alignas(inotify_event) char bytes[4096];
    bool has_new_socket = false, is_closed = false;
    for (ssize_t got; (got = read(link.watch, bytes, sizeof bytes)) > 0;) {
        for (ssize_t at = 0; at < got;) {
            inotify_event event;
            std::memcpy(&event, bytes + at, sizeof event);
            const char *const name = event.len == 0 ? "" : bytes + at + sizeof event;
            has_new_socket =
                has_new_socket || (std::strcmp(name, MANAGER_SOCKET) == 0 && (event.mask & IN_CREATE) != 0);
            is_closed = is_closed || (std::strcmp(name, MANAGER_LOCK) == 0 && (event.mask & IN_CLOSE_WRITE) != 0);
            at += static_cast<ssize_t>(sizeof event) + event.len;
        }
    }
    if (has_new_socket)
        arrive(link);
    if (is_closed && link.is_present && !is_manager_alive())
        leave(link);
}

// A barrier is answered. Only the answer to the last one counts: a route manager that stalled answers several at once.
void barrier_answered(manager_link &link)
{
    link.is_barrier_answered = true;
    if (--link.barriers_pending == 0)
        link.is_unacknowledged = false;
}

void queue_process(manager_link &link)
{
    constexpr mts_recv_options OPTIONS = {};
    mts_message message;
    for (;;) {
        errno = 0;
        if (mts_recv(link.queue, &message, &OPTIONS) != 0) {
            if (errno != 0)
                return; // the queue is empty
            continue;   // a malformed one, consumed
        }
        if (message.opcode != MTS_OPC_DEBUG_ANSWER)
            link.on_message(message);
        else if (link.barriers_pending != 0)
            barrier_answered(link);
        mts_drop(link.queue, &message);
    }
}

enum class sent { yes, full, unreachable };

sent send_message(manager_link &link, std::uint32_t opcode, const std::vector<std::uint8_t> &payload,
                  std::uint64_t now_ms)
{
    if (now_ms < link.retry_ms)
        return sent::full;
    if (mts_send_wait(link.queue, &MANAGER, opcode, payload.data(), payload.size(), FULL_WAIT_MS) == 0)
        return sent::yes;
    if (errno == EAGAIN) {
        link.retry_ms = now_ms + FULL_AGAIN_MS;
        return sent::full;
    }
    leave(link);
    return sent::unreachable;
}

// Sends a barrier: a request whose answer means that the events sent before it are handled.
void barrier_send(manager_link &link, std::uint64_t now_ms)
{
    if (link.barriers_pending != 0 && now_ms < link.barrier_ms)
        return;
    if (link.is_barrier_answered)
        link.barriers_pending = 0; // it answers again, so what it has not answered by now was lost
    std::vector<std::uint8_t> request(DEBUG_REQUEST_BYTES);
    debug_request_put(request.data(), {DEBUG_SHOW_COUNTERS, 0, 0, 0}); // answered, and changes nothing
    if (send_message(link, MTS_OPC_DEBUG_REQUEST, request, now_ms) != sent::yes) {
        link.barrier_ms = now_ms + FULL_AGAIN_MS;
        return;
    }
    ++link.barriers_pending;
    link.is_barrier_answered = false;
    link.barrier_ms = now_ms + BARRIER_AGAIN_MS;
}

// Sends the first item, or lets it go. Returns whether it is off the queue.
bool send_first(manager_link &link, std::uint64_t now_ms)
{
    if (link.items.front().kind == link_kind::event) {
        // The answer to a pending barrier would not cover this event.
        if (link.is_present && (link.barriers_pending != 0 || card_rpc_pending(*link.rpc) != 0))
            return false;
        const link_item &event = link.items.front();
        if (link.is_present && send_message(link, event.opcode, event.payload, now_ms) == sent::full)
            return false;
        link.is_unacknowledged = link.is_present;
        link.items.pop_front();
        return true;
    }
    if (link.is_unacknowledged)
        return false;
    link_item call = std::move(link.items.front());
    link.items.pop_front();
    if (call.kind == link_kind::mark) {
        if (link.is_present)
            call.passed();
    } else if (link.is_present)
        card_rpc_call(*link.rpc, call.procedure, call.args, std::move(call.done));
    else
        call.done({});
    return true;
}
} // namespace

int link_open(manager_link *link, const link_options &options)
{
    constexpr mts_bind_options OPTIONS = {};
    link->queue = mts_bind(0, options.sap, &OPTIONS, options.name);
    if (link->queue < 0)
        return -1;
    link->watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (link->watch < 0 ||
        inotify_add_watch(link->watch, (card_dir_path() + "/mts").c_str(), IN_CREATE | IN_CLOSE_WRITE) < 0) {
        std::fprintf(stderr, "%s: %s/mts: cannot be watched: %s\n", options.name, card_dir_path().c_str(),
                     std::strerror(errno));
        return -1;
    }
    link->timeout_ms = options.timeout_ms;
    link_forget(*link);
    if (is_manager_alive())
        arrive(*link);
    return 0;
}

void link_event(manager_link &link, std::uint32_t opcode, const std::vector<std::uint8_t> &payload)
{
    if (link.is_present)
        link.items.push_back({link_kind::event, opcode, payload, {}, {}, {}, {}});
}

void link_call(manager_link &link, const std::string &procedure, const std::vector<card_rpc_arg> &args,
               card_rpc_done done)
{
    link.items.push_back({link_kind::call, 0, {}, procedure, args, std::move(done), {}});
}

void link_mark(manager_link &link, std::function<void()> passed)
{
    if (link.is_present)
        link.items.push_back({link_kind::mark, 0, {}, {}, {}, {}, std::move(passed)});
}

void link_forget(manager_link &link)
{
    link.items.clear();
    link.rpc = card_rpc_open("arp_prefix_mgr_add_route", link.timeout_ms);
}

bool link_has_events(const manager_link &link)
{
    return link.is_unacknowledged || std::any_of(link.items.begin(), link.items.end(),
                                                 [](const link_item &i) { return i.kind == link_kind::event; });
}

bool link_is_at_rest(const manager_link &link)
{
    return link.is_present && !link.is_unacknowledged && link.items.empty() && card_rpc_pending(*link.rpc) == 0;
}

void link_process(manager_link &link, std::uint64_t now_ms)
{
    watch_process(link);
    queue_process(link);
    card_rpc_process(*link.rpc);
    while (!link.items.empty() && send_first(link, now_ms)) {
    }
    // After a run of events, when no further one waits, and again while no answer comes.
    if (link.is_unacknowledged &&
        (link.barriers_pending != 0 || link.items.empty() || link.items.front().kind != link_kind::event))
        barrier_send(link, now_ms);
    card_rpc_process(*link.rpc); // what was just handed over leaves at once
}

std::uint64_t link_next_ms(const manager_link &link, std::uint64_t now_ms)
{
    std::uint64_t next = UINT64_MAX;
    if (!link.items.empty() && link.retry_ms <= now_ms &&
        (link.items.front().kind == link_kind::event ? link.barriers_pending == 0 && card_rpc_pending(*link.rpc) == 0
                                                     : !link.is_unacknowledged))
        return now_ms;
    const int rpc = card_rpc_timeout_ms(*link.rpc);
    if (rpc >= 0)
        next = now_ms + static_cast<std::uint64_t>(rpc);
    if (link.retry_ms > now_ms)
        next = std::min(next, link.retry_ms);
    if (link.barriers_pending != 0)
        next = std::min(next, link.barrier_ms);
    return next;
}
