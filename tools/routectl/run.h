// run.h - the three ways in which commands come: as the words of a command line, in a batch, at the prompt.
//
// Always: a command has one answer, whichever way it came; who runs it prints it or puts it into the batch's own.
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

// Why nothing can be asked in the card directory that the options name; empty: it is there.
std::string card_missing(const routectl_options &options);

// The answer to a command that is understood.
routectl_answer execute_call(const routectl_call &call);

// Runs the commands of options.batch, with many calls outstanding. The answer counts them and lists those that failed;
// plain listings are printed as they come.
routectl_answer batch_run(const routectl_options &options, routectl_session &session);

// Reads and runs commands until `exit`, `quit` or the end of the input. Returns the last one's exit status.
int prompt_run(const routectl_options &options, routectl_session &session);
