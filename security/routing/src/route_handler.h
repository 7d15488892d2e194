// route_handler.h - the event loop.
#pragma once

struct pollfd;

void norvik_route_handler(); // does not return
void
    norvik_route_handler_pass(pollfd (&set)[2]); // one iteration: the message queue first in `set`, then the RPC server
