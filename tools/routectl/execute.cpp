// execute.cpp - runs one command: help, an error, a change that is waited for, or its function.
//
// Always: words that are not understood, or that ask for help, need no card.
#include "run.h"

#include <cstdlib>

#include <sys/stat.h>

#include "card_dir.h"
#include "card_files.h"
#include "grammar.h"
#include "refusal.h"

// The directory is not made here: no process that could answer would be in it.
std::string card_missing(const routectl_options &options)
{
    if (!options.card.empty())
        (void)setenv(CARD_DIR_VARIABLE, options.card.c_str(), 1);
    const char *const given = std::getenv(CARD_DIR_VARIABLE);
    const std::string path = given != nullptr && *given != 0 ? given : CARD_DIR_DEFAULT;
    struct stat st = {};
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return path + ": there is no card directory (-c or CARD_DIR names another; the route manager makes it)";
    return card_dir_path().empty() ? path + ": the card directory is refused" : "";
}

routectl_answer execute_call(const routectl_call &call)
{
    return call.command.change != nullptr ? change_run(call) : call.command.run(call);
}

executed_command execute_words(const routectl_options &options, routectl_session &session,
                               const std::vector<std::string> &words)
{
    grammar_result parsed = grammar_parse(words);
    if (!parsed.error.empty())
        return {"", routectl_error(ROUTECTL_USAGE, parsed.error)};
    if (parsed.command == nullptr) {
        routectl_answer help;
        help.text = parsed.help;
        help.facts["help"] = parsed.help;
        return {"help", help};
    }
    // An error in the words is reported before a card that is missing.
    if (const std::string missing = card_missing(options); !missing.empty())
        return {parsed.command->words, routectl_error(ROUTECTL_UNREACHABLE, missing)};
    return {parsed.command->words, execute_call({options, session, *parsed.command, std::move(parsed.values)})};
}
