// routectl_samples.h - for each command of the table, words that it understands.
#pragma once

#include <map>
#include <string>

#include "grammar.h"

enum class sample_values { all, needed };

// A value of each kind.
inline std::string sample_value(const std::string &kind)
{
    static const std::map<std::string, std::string> SAMPLES = {
        {"PREFIX", "10.1.0.0/16"}, {"ADDRESS", "10.1.1.1/24"}, {"ADDR", "10.1.1.2"},  {"NEXTHOP", "192.0.2.1"},
        {"MASK", "255.255.255.0"}, {"COPY", "ixp1"},           {"CATEGORY", "errors"}};
    const auto found = SAMPLES.find(kind);
    return found == SAMPLES.end() ? "1" : found->second;
}

inline std::string sample_line(const routectl_command &command, sample_values values)
{
    std::string line = command.words;
    for (const grammar_argument &argument : grammar_arguments(command)) {
        if (argument.optional && values == sample_values::needed)
            continue;
        if (!argument.choices.empty())
            line += " " + argument.choices[0];
        if (!argument.word.empty())
            line += " " + argument.word;
        if (!argument.value.empty())
            line += " " + sample_value(argument.value);
    }
    return line;
}
