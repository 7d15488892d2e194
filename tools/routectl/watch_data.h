// watch_data.h - gathers the picture of the card, round by round, without waiting.
//
// A round asks the route manager for its summaries and its debug service for memory and counters, and looks into the
// mapped memories and the history. The caller polls watch_data_poll's descriptors and calls watch_data_process.
// Always: a round ends also when the route manager is missing, dead or silent; only its answers are missing then.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include <poll.h>

#include "watch_frame.h"

struct watch_data; // state in watch_data.cpp
struct watch_data_delete {
    void operator()(watch_data *data) const;
};
using watch_data_ptr = std::unique_ptr<watch_data, watch_data_delete>;

// timeout_ms: how long the route manager may take for an answer before it counts as silent. queue: for the answers of
// its debug service (debug_view_open), or -1: what they hold stays unknown.
watch_data_ptr watch_data_open(unsigned timeout_ms, int queue);

// Starts a round, unless one is under way.
void watch_data_start(watch_data &data);

// Whether all answers of the round have come or were given up.
bool watch_data_is_over(const watch_data &data);

// Adds the descriptors to poll, and gives the time in ms until watch_data_process has to be called (-1: none).
int watch_data_poll(const watch_data &data, std::vector<pollfd> &set);

// Takes what came. Returns whether a round ended with it.
bool watch_data_process(watch_data &data);

// The picture of the last round that ended; of what can be seen without answers before the first.
const watch_frame &watch_data_frame(const watch_data &data);
