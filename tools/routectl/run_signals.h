// run_signals.h - signals for a command that runs on until it is told to stop, taken in its own loop.
//
// Always: the signals' former state is back when the record is gone, whatever way the command ended.
#pragma once

#include <csignal>

struct run_signals {
    int fd = -1; // readable when one came; -1: none can be had, they do what they did before
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
