// route_mts.h - the process's message queue.
#pragma once

#include <cstdint>

extern std::int32_t route_mts_q; // its handle, which the loop polls too; -1 until start-up has bound it

void route_mts_set_options(); // of each message that the process takes; the queue is bound by then
