// grammar.h - words into a command and its values, by the table of commands alone.
//
// Always: a result is a command, a help text or an error, exactly one of them; nothing but the words is looked at.
#pragma once

#include <map>
#include <span>
#include <string>
#include <vector>

#include "routectl_commands.h"

// One argument of a command, from its usage text.
struct grammar_argument {
    std::string name;                 // under which its value is found
    std::string word;                 // that stands before the value, or alone (a flag); empty: by its place
    std::string value;                // such as CTX; empty for a flag or a choice
    std::vector<std::string> choices; // of words; the value is the index of one
    bool optional = false;
};
const std::vector<grammar_argument> &grammar_arguments(const routectl_command &command);

struct grammar_result {
    const routectl_command *command = nullptr; // what to run; null with `help` or `error`
    std::map<std::string, routectl_value> values;
    std::string help;  // text that was asked for
    std::string error; // one line that names the word and what was expected
};
grammar_result grammar_parse(std::span<const std::string> words);

// The words that may follow `words` and begin with `begun`. Values are shown as their name in capitals, only when
// `begun` is empty and `values` says so.
enum class grammar_values { leave_out, show };
std::vector<std::string> grammar_complete(std::span<const std::string> words, const std::string &begun,
                                          grammar_values values);

// Cuts a line at blanks; "..." keeps them, # starts a comment. Returns false when a quote is not closed.
bool grammar_split(const std::string &line, std::vector<std::string> &words);
