// options.h - the options of a run, among the words of its command.
#pragma once

#include <string>
#include <vector>

#include "routectl_commands.h"

// Takes the options out of `words`, wherever they stand; a word that begins with two dashes is the command's. is_help:
// -h was among them. Returns what is wrong with them, or an empty text.
std::string options_take(std::vector<std::string> &words, routectl_options &options, bool &is_help);

// The lines of `help` about them.
const char *options_help();
