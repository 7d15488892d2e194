// tool_run.h - a tool as a test runs it: a process of its own with its input given and its output kept.
#pragma once

#include <string>
#include <vector>

#include "daemon.h"

namespace harness
{
struct tool_result {
    int status = -1; // exit status; 1000 + signal; -1 when the limit of a wait passed
    std::string out, err;
};

// Runs `program` on `card` with `words`, cut at blanks, and waits for its end.
tool_result program_run(const char *program, const card_dir &card, const std::string &words,
                        const std::string &input = "");

// Runs routectl on `card` with `words`, cut at blanks, and waits for its end.
tool_result routectl_run(const card_dir &card, const std::string &words, const std::string &input = "");

// Runs the prompt on a terminal of its own, types `input` and returns all that the terminal showed. status: its exit
// status.
std::string routectl_prompt(const card_dir &card, const std::string &input, int &status);
} // namespace harness
