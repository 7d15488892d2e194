// mts_host.h - what the rest of platform/host asks the message transport. For platform/host only.
#pragma once

// Whether `queue` is the descriptor of a queue that this process bound.
bool mts_is_bound(int queue);
