// execute.h - one command from its words to its answer.
#pragma once

#include <string>
#include <vector>

#include "routectl_commands.h"

struct executed_command {
    std::string command; // its full words; empty when it was not understood
    routectl_answer answer;
};
executed_command execute_words(const routectl_options &options, routectl_session &session,
                               const std::vector<std::string> &words);

// The answer to a command that is understood.
routectl_answer execute_call(const routectl_call &call);
