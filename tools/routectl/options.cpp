// options.cpp - the names of the options, and how they are separated from the words of a command.
//
// The words are read twice: up to the command's first one with all names, from there on with the letters alone.
// Always: of an option that is given twice the last value counts.
#include "options.h"

#include <fmt/format.h>

#include "card_tool/shown_text.h"
#include "card_tool/tool_app.h"

namespace
{
enum class option_names { all, letters };

void options_define(CLI::App &app, routectl_options &options, option_names names)
{
    const auto name = [names](const char *letter, const char *word) {
        return names == option_names::all ? fmt::format("-{},--{}", letter, word) : fmt::format("-{}", letter);
    };
    const CLI::Validator is_given([](const std::string &value) { return value.empty() ? "it is empty" : ""; }, "");
    app.set_help_flag();
    app.add_flag(name("j", "json"), options.json, "one JSON document");
    app.add_flag(name("o", "oneline"), options.oneline, "a line for each record");
    app.add_option(name("b", "batch"), options.batch, "commands of a file, - for standard input")
        ->type_name("FILE")
        ->check(is_given)
        ->take_last();
    app.add_flag(name("f", "go-on"), options.go_on, "go on after a line of a batch that failed");
    app.add_option(name("c", "card"), options.card, "card directory, else $CARD_DIR, else /run/card")
        ->type_name("DIR")
        ->check(is_given)
        ->take_last();
    app.add_option(name("t", "timeout"), options.timeout_ms,
                   "how long an answer is waited for, 1 to 3600000, else 5000")
        ->type_name("MS")
        ->check(CLI::Range(1, 3'600'000).description(""))
        ->take_last();
    app.add_flag(name("h", "help"), options.is_help,
                 "this help, or that of a command; also: help, help WORDS, WORDS help");
    app.add_flag(name("V", "version"), options.is_version, "the version");
}
// Takes the options of these names out of `words`: those before the first other word, or letters anywhere.
std::string names_take(std::vector<std::string> &words, routectl_options &options, option_names names)
{
    CLI::App app;
    options_define(app, options, names);
    app.allow_extras();
    app.prefix_command(names == option_names::all);
    try {
        app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
    } catch (const CLI::ParseError &error) {
        options.json = options.json || app.count("-j") != 0; // then the error is a document
        return error.what();
    }
    words = app.remaining();
    for (const std::string &word : words) {
        if (word.size() > 1 && word[0] == '-' && (names == option_names::all || word[1] != '-'))
            return "unknown option " + shown_text(word) + " (routectl --help lists the options)";
        if (names == option_names::all)
            break; // what follows the first word is read next
    }
    return "";
}
} // namespace

std::string options_take(std::vector<std::string> &words, routectl_options &options)
{
    std::string wrong = names_take(words, options, option_names::all);
    if (wrong.empty())
        wrong = names_take(words, options, option_names::letters);
    return wrong.empty() && options.json && options.oneline ? "-j and -o exclude each other" : wrong;
}

std::string options_help()
{
    routectl_options options;
    CLI::App app;
    options_define(app, options, option_names::all);
    return "Usage: routectl [OPTIONS] [COMMAND]\n" + CLI::Formatter().make_groups(&app, CLI::AppFormatMode::Normal);
}
