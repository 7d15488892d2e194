// route_handler.cpp - the event loop: remote procedure calls and messages, one of each a pass.
//
// A pass serves at most one remote call and then receives at most one message. Every error path starts the next pass;
// only a signal ends the loop.
// Elsewhere: the procedures (route_rpc_serv.cpp), the interface events (route_events.cpp).
#include "route_handler.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <poll.h>

#include "mts.h"
#include "route_events.h"
#include "route_log.h"
#include "route_mts.h"
#include "route_rpc_serv.h"
#include "sdwrap.h"
#include "tnrpc.h"

namespace
{
constexpr int POLL_TIMEOUT_MS = 60000;
constexpr short POLL_BROKEN = POLLERR | POLLHUP | POLLNVAL;
static_assert(POLL_BROKEN == 0x38);

void serve_rpc(const pollfd &rpc)
{
    if ((rpc.revents & POLL_BROKEN) != 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "poll error on RPC: \n");
    } else if ((rpc.revents & POLLIN) != 0) {
        route_log(ROUTE_DBG_INFO, 0, "Got TNRPC.\n");
        (void)tnrpc_process(rpc.fd); // the service counts its failures
    }
}

void serve_message(const pollfd &queue)
{
    if ((queue.revents & POLL_BROKEN) != 0) {
        route_log(ROUTE_DBG_ERRORS, 0, "poll error on RPC: \n"); // the same words for the message queue
        return;
    }
    // Odd, and meant: POLLIN together with any other event is left for a later pass.
    if (queue.revents != POLLIN)
        return;
    route_log(ROUTE_DBG_INFO, 0, "Got MTS message.\n");
    static mts_recv_options options = {{1, 0, 0, 0, 0, 0}};
    options.words[2] = 0;
    mts_message message;
    const int received = mts_recv(route_mts_q, &message, &options);
    if (received < 0) {
        route_log(ROUTE_DBG_MAIN_LOOP, 0, "main: couldn't receive MTS message. retval = %d\n", received);
        return;
    }
    if (sdwrap_process_msg(route_mts_q, &message) == 1)
        (void)route_msg_process(&message); // always 0
    else
        route_log(ROUTE_DBG_MTS, 0, "SDWRAP MTS message processed.\n");
    mts_drop(route_mts_q, &message);
}
} // namespace

void norvik_route_handler_pass(pollfd (&set)[2])
{
    route_log(ROUTE_DBG_MAIN_LOOP, 0, "\nmain: Waiting for MTS messages ...\n");
    std::fflush(stdout); // so that the output can be read step by step
    const int ready = poll(set, 2, POLL_TIMEOUT_MS);
    if (ready < 0) {
        const int error = errno;
        if (error == ETIME)
            route_log(ROUTE_DBG_INFO, 0, "main: poll timeout: \n");
        else
            route_log(ROUTE_DBG_ERRORS, 0, "main: couldn't poll: %s\n", std::strerror(error));
        return;
    }
    route_log(ROUTE_DBG_INFO, 0, "%d file descriptors ready\n", ready);
    serve_rpc(set[1]);
    serve_message(set[0]);
}

void norvik_route_handler()
{
    pollfd set[2] = {{route_mts_q, POLLIN, 0}, {rpcfd, POLLIN, 0}};
    for (;;)
        norvik_route_handler_pass(set);
}
