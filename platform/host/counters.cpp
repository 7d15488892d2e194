// counters.cpp - what the platform counts, in one record that the debug service prints (debug_service.cpp).
#include "counters.h"

platform_counters_t platform_counters = {};
