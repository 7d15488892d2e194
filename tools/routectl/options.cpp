// options.cpp - single letters with a dash, together or alone, before, in or behind a command.
#include "options.h"

#include "card_tool/address_text.h"
#include "card_tool/shown_text.h"

namespace
{
constexpr const char *WITH_VALUE = "bct";

// Sets the option that has a value. Returns what is wrong with it.
std::string value_set(char letter, const std::string &value, routectl_options &options)
{
    if (letter == 'b') {
        options.batch = value;
    } else if (letter == 'c') {
        options.card = value;
    } else {
        const auto ms = number_parse(value, 3'600'000);
        if (!ms || *ms == 0)
            return "-t: \"" + shown_text(value) + "\" is no time in milliseconds, 1 to 3600000";
        options.timeout_ms = *ms;
    }
    return value.empty() ? std::string("-") + letter + ": its value is empty" : "";
}

bool flag_set(char letter, routectl_options &options, bool &is_help)
{
    switch (letter) {
    case 'j':
        return options.json = true;
    case 'o':
        return options.oneline = true;
    case 'f':
        return options.go_on = true;
    case 'h':
        return is_help = true;
    default:
        return false;
    }
}

// Takes the letters of words[at], which begins with a dash, and a value that follows it.
std::string letters_take(const std::vector<std::string> &words, std::size_t &at, routectl_options &options,
                         bool &is_help)
{
    const std::string &word = words[at];
    for (std::size_t i = 1; i < word.size(); ++i) {
        const char letter = word[i];
        if (std::string(WITH_VALUE).find(letter) != std::string::npos) {
            if (i + 1 < word.size())
                return value_set(letter, word.substr(i + 1), options);
            if (at + 1 == words.size())
                return std::string("-") + letter + " wants a value";
            return value_set(letter, words[++at], options);
        }
        if (!flag_set(letter, options, is_help))
            return "-" + shown_text({letter}) + " is no option; there are -j -o -f -h, -b FILE, -c DIR and -t MS";
    }
    return "";
}
} // namespace

std::string options_take(std::vector<std::string> &words, routectl_options &options, bool &is_help)
{
    std::vector<std::string> others;
    for (std::size_t at = 0; at < words.size(); ++at) {
        const std::string &word = words[at];
        if (word == "--help")
            is_help = true;
        else if (word.size() < 2 || word[0] != '-' || word[1] == '-')
            others.push_back(word);
        else if (std::string wrong = letters_take(words, at, options, is_help); !wrong.empty())
            return wrong;
    }
    words = std::move(others);
    return options.json && options.oneline ? "-j and -o exclude each other" : "";
}

const char *options_help()
{
    return "  -j        one JSON document       -o        a line for each record\n"
           "  -b FILE   commands of a file, - for standard input       -f   go on after an error\n"
           "  -c DIR    card directory, else $CARD_DIR, else /run/card\n"
           "  -t MS     how long an answer is waited for, else 5000\n"
           "  -h        help; also: help, help WORDS, WORDS help\n";
}
