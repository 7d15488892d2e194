// tool_app.h - what the options of all tools have in common: --help, --version, and how a wrong one is refused.
//
// Always: help and version are status 0 on standard output; a wrong option is one line behind the tool's name on
// standard error and status 2, and nothing was done.
#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

constexpr int TOOL_USAGE = 2; // exit status

// "cardsim 0.9.0".
std::string tool_version(const std::string &name);

// Parses the command line with the options of `app`, whose name is the tool's. Returns the exit status when there is
// nothing left to do.
std::optional<int> tool_app_parse(CLI::App &app, int argc, char **argv);
