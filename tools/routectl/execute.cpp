// execute.cpp - runs one command: help, an error, a change that is waited for, or its function.
#include "execute.h"

#include "grammar.h"
#include "refusal.h"

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
    return {parsed.command->words, execute_call({options, session, *parsed.command, std::move(parsed.values)})};
}
