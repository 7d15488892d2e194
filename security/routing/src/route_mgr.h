// route_mgr.h - start-up and clean-up.
#pragma once

#include <cstdint>

extern std::int32_t route_sysfd; // never assigned

int route_mgr_main();                  // start-up, then the loop; returns -1 when a step fails
void route_mgr_cleanup();              // may run twice
void route_mgr_sig_handler(int signo); // clean-up, then exit status 1
