// mts_host.h - what other platform bodies ask the message transport. Host bodies only.
#pragma once

// Whether `queue` is the descriptor of a queue that this process bound.
bool mts_is_bound(int queue);
