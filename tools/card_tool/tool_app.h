// tool_app.h - what the options of all tools have in common: --help, --version, and how a wrong option is refused.
//
// Always: help and version are status 0 on standard output; a wrong option is one line after the tool's name on
// standard error and status 2, and nothing was done.
// Elsewhere: routectl's own options, which may stand among the words of a command (routectl/options.cpp).
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
