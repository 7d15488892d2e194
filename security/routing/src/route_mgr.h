// route_mgr.h - start-up, clean-up and the event loop.
#pragma once

#include <cstdint>

extern std::int32_t route_mts_q; // message queue; -1 until it is bound
extern std::uint32_t scphandle;  // 0: not open
extern std::int32_t route_sysfd; // never assigned

int route_mgr_main();                  // start-up, then the loop; returns -1 when a step fails
void route_mgr_cleanup();              // may run twice
void route_mgr_sig_handler(int signo); // clean-up, then exit status 1
void norvik_route_handler();           // the loop; does not return
struct pollfd;
void norvik_route_handler_pass(pollfd (&set)[2]); // one iteration of it
