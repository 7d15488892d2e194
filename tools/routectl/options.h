// options.h - the options of a run, before the words of its command and among them.
//
// Always: after the first word of a command two dashes begin a word of that command (`hw export --json`), so the long
// names come before it; the letters may come anywhere.
#pragma once

#include <string>
#include <vector>

#include "routectl_commands.h"

// Takes the options out of `words`. Returns what is wrong with them, or an empty text.
std::string options_take(std::vector<std::string> &words, routectl_options &options);

// The part of `help` about them.
std::string options_help();
