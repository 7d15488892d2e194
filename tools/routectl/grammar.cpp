// grammar.cpp - parses, completes and explains commands by the rows of the table.
//
// A word may be cut short as long as only one expected word begins so; a whole word is preferred to a longer one that
// begins with it. Parsing and completing walk the arguments in the same way, so what completion offers parses.
// Always: an error names the unexpected word and what was expected.
// Elsewhere: addresses and numbers as text (card_tool/address_text.cpp), the rows (routectl_table.cpp).
#include "grammar.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>

#include <fmt/format.h>

#include "card_tool/address_text.h"
#include "card_tool/shown_text.h"
#include "card_view/history_view.h"
#include "card_view/table_view.h"
#include "interface_db.h"
#include "options.h"

namespace
{
using word_span = std::span<const std::string>;

enum class value_form { number, address, prefix, address_and_mask, category, copy, age, text };
struct value_kind {
    const char *name;
    value_form form;
    std::uint32_t max; // of a number
    const char *what;
};
constexpr value_kind KINDS[] = {
    {"PREFIX", value_form::prefix, 0, "10.1.0.0/16, 10.1/16, 10.1.0.0 255.255.0.0, an address alone (/32) or default"},
    {"ADDRESS", value_form::address_and_mask, 0, "an address with its mask: 10.1.1.1/24 or 10.1.1.1 255.255.255.0"},
    {"ADDR", value_form::address, 0, "an address such as 192.0.2.1"},
    {"NEXTHOP", value_form::address, 0, "the gateway's address"},
    {"MASK", value_form::address, 0, "a mask such as 255.255.255.0"},
    {"CTX", value_form::number, 255, "a routing context, 0 to 255"},
    {"RID", value_form::number, 255, "a route id, 0 to 255"},
    {"IFID", value_form::number, IFDB_RECORDS - 1, "an interface id, 0 to 8191"},
    {"ENCAP", value_form::number, 0xFFFF, "an encapsulation id, 0 to 65535"},
    {"IXP", value_form::number, 0xFFFF, "the processor's value of a NAT pool, 0 to 65535"},
    {"COUNT", value_form::number, 0xFFFFFFFF, "how many addresses"},
    {"METRIC", value_form::number, 0xFFFE, "a metric, 0 to 65534"},
    {"MODE", value_form::number, 0xFFFFFFFF, "a routing mode, 1 for an interface that routes by itself"},
    {"LEVEL", value_form::number, 7, "a syslog severity, 0 (emergency) to 7 (debug)"},
    {"N", value_form::number, 0xFFFFFFFF, "a number"},
    {"AGE", value_form::age, 0, "a time such as 90s, 10m, 2h, 1d or 500ms"},
    {"COPY", value_form::copy, 0, "a copy of the tables: wired, ixp1 or ixp2"},
    {"CATEGORY", value_form::category, 0, "a category: all, a name such as errors, or its number from 100 on"},
};
constexpr value_kind TEXT_KIND = {"", value_form::text, 0, "a word"};
constexpr const char *HELP_WORDS[] = {"help", "?"};

const value_kind &kind_of(const std::string &name)
{
    const auto found =
        std::find_if(std::begin(KINDS), std::end(KINDS), [&](const value_kind &k) { return name == k.name; });
    return found == std::end(KINDS) ? TEXT_KIND : *found;
}

bool begins(const std::string &word, const std::string &begun) { return word.compare(0, begun.size(), begun) == 0; }

std::string joined(const std::vector<std::string> &words, const char *between)
{
    return fmt::format("{}", fmt::join(words, between));
}

std::string quoted(const std::string &word) { return fmt::format("\"{}\"", shown_text(word)); }

bool is_help(const std::string &word)
{
    return std::find(std::begin(HELP_WORDS), std::end(HELP_WORDS), word) != std::end(HELP_WORDS);
}

std::vector<std::string> split_at(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        if (!part.empty())
            parts.push_back(part);
    return parts;
}

bool is_value_name(const std::string &token) { return std::isupper(static_cast<unsigned char>(token[0])) != 0; }

std::string lower_case(std::string text)
{
    for (char &c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// Reads the next argument of a usage text, which begins at tokens[at].
grammar_argument argument_take(const std::vector<std::string> &tokens, std::size_t &at)
{
    const auto bare = [](std::string token) {
        std::erase_if(token, [](char c) { return c == '[' || c == ']'; });
        return token;
    };
    grammar_argument argument;
    argument.optional = tokens[at][0] == '[';
    const bool ends_here = tokens[at].back() == ']';
    const std::string first = bare(tokens[at++]);
    if (is_value_name(first)) {
        argument.value = first;
    } else if (first.find('|') != std::string::npos) {
        argument.choices = split_at(first, '|');
    } else {
        argument.word = first;
        if (!ends_here && at < tokens.size() && is_value_name(bare(tokens[at])) && tokens[at][0] != '[')
            argument.value = bare(tokens[at++]);
    }
    argument.name = !argument.word.empty()      ? argument.word
                    : !argument.choices.empty() ? argument.choices[0]
                                                : lower_case(argument.value);
    return argument;
}

std::vector<grammar_argument> arguments_of(const char *usage)
{
    const std::vector<std::string> tokens = split_at(usage, ' ');
    std::vector<grammar_argument> arguments;
    for (std::size_t at = 0; at < tokens.size();)
        arguments.push_back(argument_take(tokens, at));
    return arguments;
}

std::string argument_usage(const grammar_argument &argument)
{
    if (!argument.choices.empty())
        return joined(argument.choices, "|");
    return argument.word + (argument.word.empty() || argument.value.empty() ? "" : " ") + argument.value;
}

bool category_read(const std::string &word, routectl_value &value)
{
    const auto category = history_category_of(word);
    if (word != "all" && !category)
        return false;
    value.number = category.value_or(0);
    value.text = word == "all" ? "all" : history_category_name(value.number);
    return true;
}

bool copy_read(const std::string &word, routectl_value &value)
{
    for (unsigned i = 0; i < TABLE_COPIES; ++i)
        if (TABLE_COPY_NAMES[i] == word) {
            value.number = i;
            return true;
        }
    return false;
}

template <class Optional> bool number_take(const Optional &number, routectl_value &value)
{
    value.number = number.value_or(0);
    return number.has_value();
}

using prefix_parser = address_prefix (*)(const std::string &text, const std::string &next);
bool prefix_read(prefix_parser parse, word_span words, std::size_t &at, routectl_value &value, std::string &error)
{
    const address_prefix prefix = parse(words[at], at + 1 < words.size() ? words[at + 1] : "");
    if (!prefix.error.empty()) {
        error = fmt::format("{} {}", quoted(words[at]), prefix.error);
        return false;
    }
    value.number = prefix.address;
    value.mask = prefix.mask;
    at += prefix.took_next ? 1 : 0;
    return true;
}

// Reads a value of the kind from words[at] on, and moves `at` to its last word. Returns false with `error` set.
bool value_read(const std::string &name, word_span words, std::size_t &at, routectl_value &value, std::string &error)
{
    const value_kind &kind = kind_of(name);
    const std::string &word = words[at];
    value.text = word;
    bool is_good = true;
    switch (kind.form) {
    case value_form::number:
        is_good = number_take(number_parse(word, kind.max), value);
        break;
    case value_form::address:
        is_good = number_take(address_parse(word), value);
        break;
    case value_form::prefix:
        return prefix_read(prefix_parse, words, at, value, error);
    case value_form::address_and_mask:
        return prefix_read(interface_address_parse, words, at, value, error);
    case value_form::category:
        is_good = category_read(word, value);
        break;
    case value_form::copy:
        is_good = copy_read(word, value);
        break;
    case value_form::age:
        is_good = history_age_of(word).has_value();
        break;
    case value_form::text:
        break;
    }
    if (!is_good)
        error = fmt::format("invalid {} {}: expected {}", name, quoted(word), kind.what);
    return is_good;
}

// How far the words of a command have been read.
struct argument_walk {
    const routectl_command &command;
    const std::vector<grammar_argument> &arguments;
    std::vector<bool> used;
    std::map<std::string, routectl_value> values;
    const grammar_argument *wanting = nullptr; // its word was read, its value is missing
    std::string error;
};

// A word that may come next: its argument, and which of the argument's choices it is.
struct place {
    std::size_t argument;
    std::size_t choice;
    const std::string *word;
};

std::vector<place> places_of(const argument_walk &walk)
{
    std::vector<place> places;
    for (std::size_t i = 0; i < walk.arguments.size(); ++i) {
        const grammar_argument &argument = walk.arguments[i];
        if (walk.used[i])
            continue;
        if (!argument.word.empty())
            places.push_back({i, 0, &argument.word});
        for (std::size_t c = 0; c < argument.choices.size(); ++c)
            places.push_back({i, c, &argument.choices[c]});
    }
    return places;
}

// The first argument without a word whose value is still missing; the number of arguments when there is none.
std::size_t next_by_place(const argument_walk &walk)
{
    std::size_t i = 0;
    while (i < walk.arguments.size() &&
           (walk.used[i] || !walk.arguments[i].word.empty() || walk.arguments[i].value.empty()))
        ++i;
    return i;
}

void value_set(argument_walk &walk, std::size_t i, routectl_value value)
{
    walk.used[i] = true;
    walk.values[walk.arguments[i].name] = std::move(value);
}

// Reads the argument whose word is words[at].
bool word_take(argument_walk &walk, const place &found, word_span words, std::size_t &at)
{
    const grammar_argument &argument = walk.arguments[found.argument];
    routectl_value value;
    if (argument.value.empty()) {
        value.number = static_cast<std::uint32_t>(found.choice);
        value.text = *found.word;
    } else if (at + 1 == words.size()) {
        walk.wanting = &argument;
        walk.used[found.argument] = true;
        return true;
    } else if (!value_read(argument.value, words, ++at, value, walk.error)) {
        walk.error = *found.word + ": " + walk.error;
        return false;
    }
    value_set(walk, found.argument, std::move(value));
    return true;
}

std::vector<std::string> expected_words(const argument_walk &walk)
{
    std::vector<std::string> expected;
    if (const std::size_t i = next_by_place(walk); i < walk.arguments.size())
        expected.push_back(walk.arguments[i].value);
    for (const place &p : places_of(walk))
        expected.push_back(*p.word);
    return expected;
}

void not_fitting(argument_walk &walk, const std::string &word, const std::string &why)
{
    const std::vector<std::string> expected = expected_words(walk);
    if (!why.empty())
        walk.error = why;
    else if (expected.empty())
        walk.error = fmt::format("unexpected {}: the command is complete before it", quoted(word));
    else
        walk.error = fmt::format("unexpected {}; expected {}", quoted(word), joined(expected, ", "));
}

// Reads words[at]: a word of the command, else a value by its place, else a word cut short.
bool argument_step(argument_walk &walk, word_span words, std::size_t &at)
{
    const std::string &word = words[at];
    std::vector<place> cut_short;
    for (const place &p : places_of(walk)) {
        if (*p.word == word)
            return word_take(walk, p, words, at);
        if (begins(*p.word, word))
            cut_short.push_back(p);
    }
    std::string why;
    if (const std::size_t i = next_by_place(walk); i < walk.arguments.size()) {
        routectl_value value;
        if (value_read(walk.arguments[i].value, words, at, value, why)) {
            value_set(walk, i, std::move(value));
            return true;
        }
    }
    if (cut_short.size() == 1)
        return word_take(walk, cut_short[0], words, at);
    if (cut_short.size() > 1) {
        std::vector<std::string> names;
        names.reserve(cut_short.size());
        for (const place &p : cut_short)
            names.push_back(*p.word);
        why = fmt::format("ambiguous {}: {}", quoted(word), joined(names, " or "));
    }
    not_fitting(walk, word, why);
    return false;
}

argument_walk walk_arguments(const routectl_command &command, word_span words)
{
    const std::vector<grammar_argument> &arguments = grammar_arguments(command);
    argument_walk walk{command, arguments, std::vector<bool>(arguments.size()), {}, nullptr, ""};
    for (std::size_t at = 0; at < words.size() && argument_step(walk, words, at); ++at)
        ;
    return walk;
}

std::string missing(const argument_walk &walk)
{
    if (walk.wanting != nullptr)
        return fmt::format("missing value after {}: {}, {}", quoted(walk.wanting->word), walk.wanting->value,
                           kind_of(walk.wanting->value).what);
    for (std::size_t i = 0; i < walk.arguments.size(); ++i)
        if (!walk.used[i] && !walk.arguments[i].optional)
            return "missing: " + argument_usage(walk.arguments[i]);
    return "";
}

std::string command_usage(const routectl_command &command)
{
    const std::string arguments = command.arguments;
    return command.words + (arguments.empty() ? "" : " " + arguments);
}

std::string help_list(const std::vector<const routectl_command *> &commands)
{
    std::string text;
    for (const routectl_command *command : commands)
        text += fmt::format("  {}\n        {}\n", command_usage(*command), command->help);
    return text;
}

std::string help_of(const routectl_command &command)
{
    std::string text = fmt::format("{}\n\n  {}\n", command.help, command_usage(command));
    std::set<std::string> explained = {""}; // a flag or a choice has no value
    for (const grammar_argument &argument : grammar_arguments(command))
        if (explained.insert(argument.value).second)
            text += fmt::format("{}  {:<9} {}\n", explained.size() == 2 ? "\n" : "", argument.value,
                                kind_of(argument.value).what);
    return text;
}

// The commands that begin with the words, and how many of them were read.
struct command_walk {
    std::vector<const routectl_command *> candidates;
    std::size_t words = 0;   // read
    bool is_command = false; // the one candidate has all its words
    std::string error;
};

std::vector<std::string> words_at(const std::vector<const routectl_command *> &commands, std::size_t place_of_word)
{
    std::vector<std::string> words;
    for (const routectl_command *command : commands) {
        const std::vector<std::string> all = split_at(command->words, ' ');
        if (place_of_word < all.size() && std::find(words.begin(), words.end(), all[place_of_word]) == words.end())
            words.push_back(all[place_of_word]);
    }
    return words;
}

// Finds the one of `words` that `word` means. Returns it, or empty with the error.
std::string word_of_place(const std::vector<std::string> &words, const std::string &word, std::string &error)
{
    std::vector<std::string> fitting;
    for (const std::string &candidate : words) {
        if (candidate == word)
            return candidate;
        if (begins(candidate, word))
            fitting.push_back(candidate);
    }
    if (fitting.size() == 1)
        return fitting[0];
    if (fitting.empty())
        error = fmt::format("unknown word {}; expected {}", quoted(word), joined(words, ", "));
    else
        error = fmt::format("ambiguous {}: {}", quoted(word), joined(fitting, " or "));
    return "";
}

command_walk walk_command(word_span words)
{
    command_walk walk;
    walk.candidates = routectl_table();
    while (walk.words < words.size() && !walk.is_command && !is_help(words[walk.words])) {
        const std::string word = word_of_place(words_at(walk.candidates, walk.words), words[walk.words], walk.error);
        if (word.empty())
            return walk;
        std::erase_if(walk.candidates, [&](const routectl_command *command) {
            const std::vector<std::string> all = split_at(command->words, ' ');
            return walk.words >= all.size() || all[walk.words] != word;
        });
        ++walk.words;
        walk.is_command = walk.candidates.size() == 1 && split_at(walk.candidates[0]->words, ' ').size() == walk.words;
    }
    return walk;
}

// The command that all of these words are, where longer ones begin so too; null: none.
const routectl_command *whole_command(const command_walk &walk)
{
    const auto is_whole = [&walk](const routectl_command *command) {
        return split_at(command->words, ' ').size() == walk.words;
    };
    const auto found = std::find_if(walk.candidates.begin(), walk.candidates.end(), is_whole);
    return found == walk.candidates.end() || walk.words == 0 ? nullptr : *found;
}

std::string help_asked(word_span words)
{
    const command_walk walk = walk_command(words);
    if (!walk.error.empty())
        return "";
    if (walk.is_command)
        return help_of(*walk.candidates[0]);
    return walk.words == 0 ? options_help() + "\nCommands:\n" + help_list(walk.candidates) : help_list(walk.candidates);
}

grammar_result parse_command(const routectl_command &command, word_span words)
{
    grammar_result result;
    argument_walk walk = walk_arguments(command, words);
    result.error = walk.error.empty() ? missing(walk) : walk.error;
    if (!result.error.empty()) {
        result.error += " (" + command_usage(command) + ")";
        return result;
    }
    result.command = &command;
    result.values = std::move(walk.values);
    return result;
}

// What can follow as a value of the kind; its name in capitals when it cannot be listed.
std::vector<std::string> values_of(const std::string &name, grammar_values values)
{
    std::vector<std::string> list;
    switch (kind_of(name).form) {
    case value_form::copy:
        return {std::begin(TABLE_COPY_NAMES), std::end(TABLE_COPY_NAMES)};
    case value_form::category:
        list.emplace_back("all");
        for (const history_category &category : HISTORY_CATEGORIES)
            list.emplace_back(category.name);
        return list;
    default:
        return values == grammar_values::show ? std::vector<std::string>{name} : list;
    }
}

std::vector<std::string> complete_arguments(const routectl_command &command, word_span words, grammar_values values)
{
    const argument_walk walk = walk_arguments(command, words);
    if (!walk.error.empty())
        return {};
    if (walk.wanting != nullptr)
        return values_of(walk.wanting->value, values);
    std::vector<std::string> list;
    const std::size_t value = next_by_place(walk);
    const bool is_needed = value < walk.arguments.size() && !walk.arguments[value].optional;
    if (value < walk.arguments.size())
        list = values_of(walk.arguments[value].value, values);
    for (const place &p : places_of(walk))
        if (!is_needed || p.argument < value) // values that are needed come first
            list.push_back(*p.word);
    return list;
}
} // namespace

const std::vector<grammar_argument> &grammar_arguments(const routectl_command &command)
{
    static std::map<const char *, std::vector<grammar_argument>> known; // by the usage text, a constant
    const auto [at, is_new] = known.try_emplace(command.arguments);
    if (is_new)
        at->second = arguments_of(command.arguments);
    return at->second;
}

grammar_result grammar_parse(word_span words)
{
    grammar_result result;
    if (!words.empty() && is_help(words[0])) {
        result.help = help_asked(words.subspan(1));
        if (result.help.empty())
            result.error = walk_command(words.subspan(1)).error;
        return result;
    }
    const command_walk walk = walk_command(words);
    if (!walk.error.empty())
        result.error = walk.error;
    else if (!words.empty() && is_help(words.back()))
        result.help = help_asked(words.first(walk.words));
    else if (const routectl_command *const whole = walk.is_command ? nullptr : whole_command(walk))
        return parse_command(*whole, {});
    else if (!walk.is_command)
        result.error =
            fmt::format("missing word after {}; expected {}", quoted(words.empty() ? "routectl" : words.back()),
                        joined(words_at(walk.candidates, walk.words), ", "));
    else
        return parse_command(*walk.candidates[0], words.subspan(walk.words));
    return result;
}

std::vector<std::string> grammar_complete(word_span words, const std::string &begun, grammar_values values)
{
    if (!words.empty() && is_help(words[0]))
        words = words.subspan(1);
    const command_walk walk = walk_command(words);
    std::vector<std::string> list;
    if (!walk.error.empty() || walk.words < words.size() - (walk.is_command ? words.size() - walk.words : 0))
        return list;
    list = walk.is_command ? complete_arguments(*walk.candidates[0], words.subspan(walk.words),
                                                begun.empty() ? values : grammar_values::leave_out)
                           : words_at(walk.candidates, walk.words);
    if (words.empty())
        list.emplace_back("help");
    std::erase_if(list, [&](const std::string &word) { return !begins(word, begun); });
    return list;
}

bool grammar_split(const std::string &line, std::vector<std::string> &words)
{
    words.clear();
    bool in_word = false, in_quotes = false;
    for (const char c : line) {
        if (!in_quotes && !in_word && c == '#')
            break;
        const bool is_blank = std::isspace(static_cast<unsigned char>(c)) != 0;
        if (c == '"') {
            in_quotes = !in_quotes;
        } else if (is_blank && !in_quotes) {
            in_word = false;
            continue;
        }
        if (!in_word)
            words.emplace_back();
        in_word = true;
        if (c != '"')
            words.back() += c;
    }
    return !in_quotes;
}
