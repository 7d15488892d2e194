// watch_term.h - the terminal while a full-screen picture is on it.
//
// Always: mode, screen and cursor of the terminal are as before when the record is gone or has left.
#pragma once

#include <string>
#include <vector>

#include <termios.h>

#include "watch_frame.h"

struct watch_term {
    bool has_keys = false; // standard input is a terminal, whose mode is changed
    bool is_entered = false;
    termios former{};

    watch_term() = default;
    ~watch_term();
    watch_term(const watch_term &) = delete;
    watch_term &operator=(const watch_term &) = delete;
};

// Takes the screen; gives it back. Either may be called again after the other. Return false when the terminal has gone.
bool watch_term_enter(watch_term &term);
bool watch_term_leave(watch_term &term);

// Shows the lines from the top, and nothing below them.
bool watch_term_show(const std::vector<std::string> &lines);

watch_size watch_term_size();
