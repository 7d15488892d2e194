// counters.cpp - what the platform counts, in one record.
//
// Elsewhere: the counters' names in an answer (debug_service.cpp); each is counted where its event is.
#include "counters.h"

platform_counters_t platform_counters = {};
