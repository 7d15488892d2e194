// main.cpp - routectl: see and drive the route manager of a card.
//
// A command on the command line, a batch, or a prompt; the exit status says how it ended (routectl_commands.h).
// Always: a usage error is found before anything is asked or opened.
// Elsewhere: the options (options.cpp), the ways to run commands (run.h).
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

#include "card_tool/tool_app.h"
#include "grammar.h"
#include "options.h"
#include "output.h"
#include "run.h"

namespace
{
// For the shell's completion: the words that can stand where the last argument does.
int print_completions(std::vector<std::string> words)
{
    const std::string begun = words.empty() ? "" : words.back();
    if (!words.empty())
        words.pop_back();
    for (const std::string &word : grammar_complete(words, begun, grammar_values::leave_out))
        std::printf("%s\n", word.c_str());
    return ROUTECTL_DONE;
}

int end_with(const routectl_options &options, const std::string &command, const routectl_answer &answer)
{
    output_answer(options, command, answer);
    return answer.status;
}

int run(const routectl_options &options, const std::vector<std::string> &words)
{
    routectl_session session;
    if (!words.empty()) {
        const executed_command ended = execute_words(options, session, words);
        return end_with(options, ended.command, ended.answer);
    }
    if (const std::string missing = card_missing(options); !missing.empty())
        return end_with(options, "", routectl_error(ROUTECTL_UNREACHABLE, missing));
    return options.batch.empty() ? prompt_run(options, session)
                                 : end_with(options, "batch", batch_run(options, session));
}

bool is_terminal() { return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0; }
} // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!words.empty() && words[0] == "--complete")
        return print_completions({words.begin() + 1, words.end()});
    routectl_options options;
    const char *const no_colour = std::getenv("NO_COLOR");
    options.colour = isatty(STDOUT_FILENO) != 0 && (no_colour == nullptr || *no_colour == 0);
    std::string wrong = options_take(words, options);
    if (wrong.empty() && options.is_version)
        return std::puts(tool_version("routectl").c_str()), ROUTECTL_DONE;
    if (wrong.empty() && options.is_help) {
        options.batch.clear();
        words.insert(words.begin(), "help");
    }
    if (wrong.empty() && !options.batch.empty() && !words.empty())
        wrong = "a batch has its commands in its file, not on the command line";
    if (wrong.empty() && options.batch.empty() && words.empty() && (!is_terminal() || options.json))
        wrong = "no command; -b - reads commands from standard input, help lists them";
    if (!wrong.empty())
        return end_with(options, "", routectl_error(ROUTECTL_USAGE, wrong));
    return run(options, words);
}
