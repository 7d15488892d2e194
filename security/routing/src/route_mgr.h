// route_mgr.h - start-up and clean-up.
#pragma once

#include <cstdint>

#include "sdwrap.h"

extern std::int32_t route_sysfd;                    // never assigned
extern syslog_facility syslog_fac_LOG_ROUTE_MGR;    // its level is raised by the platform
extern const syslog_message syslog_msg_INIT_FAILED; // of a start-up that the platform's services failed

int route_mgr_main();                  // start-up, then the loop; returns -1 when a step fails
void route_mgr_cleanup();              // may run twice
void route_mgr_sig_handler(int signo); // clean-up, then exit status 1
