// run_signals.h - signals for a command that goes on until it is interrupted, read in its own loop.
//
// Always: the signals have their former state again when the record is gone, however the command ended.
#pragma once

#include <csignal>

struct run_signals {
    int fd = -1; // readable when one came; -1: failed, they act as before
    sigset_t former{};

    run_signals(); // takes SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH and SIGPIPE
    ~run_signals();
    run_signals(const run_signals &) = delete;
    run_signals &operator=(const run_signals &) = delete;
};

// The next signal that came, or 0.
int run_signals_take(const run_signals &signals);

// After ~run_signals: ends the process by `signo` as it would have ended without us. SIGINT and SIGPIPE are a way to
// end a command, not the process: nothing happens.
void run_signals_end_by(int signo);
