// counters.h - what the platform counts. The debug service shows the counters in this order, by these names.
#pragma once

#include <cstdint>

struct platform_counters_t {
    std::uint64_t calls_served, calls_refused, calls_malformed, replies_dropped, connections, connections_refused,
        messages_received, messages_malformed, messages_lost, remote_calls, remote_calls_failed, scp_sent, scp_failed,
        route_cache_flushes, history_records, interface_reads_torn;
};
extern platform_counters_t platform_counters;
