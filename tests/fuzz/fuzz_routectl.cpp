// fuzz_routectl.cpp - the operator's lines, in a batch or typed, and what other processes answer in text.
//
// An input is lines. Each is cut into words, freed of its options, parsed, and completed at its last word; the call
// that a change stands for is made up and not sent. What is refused has an error, what is taken has not. The same bytes
// are read as an answer of the debug service and as the dump of a walk.
#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "card_view/debug_view.h"
#include "card_view/history_view.h"
#include "fuzz_input.h"
#include "grammar.h"
#include "hw_text.h"
#include "options.h"
#include "output.h"

namespace
{
constexpr std::size_t MAX_LINES = 16, MAX_ARGUMENTS = 16;

void check_change(const routectl_call &call)
{
    const routectl_change change = call.command.change(call);
    if (!change.error.empty())
        return;
    if (change.procedure.empty() || change.args.empty() || change.args.size() > MAX_ARGUMENTS || change.ctx > 255)
        fuzz_fail("a change that is no call of the route manager");
    if (change.address > change.last && change.last != 0)
        fuzz_fail("a range that ends before it begins");
}

void complete(const std::vector<std::string> &words)
{
    const std::string begun = words.empty() ? "" : words.back();
    std::vector<std::string> before = words;
    if (!before.empty())
        before.pop_back();
    for (const std::string &word : grammar_complete(before, begun, grammar_values::leave_out))
        if (!word.starts_with(begun))
            fuzz_fail("a completion that is none");
    (void)grammar_complete(words, "", grammar_values::show);
}

void parse(const routectl_options &options, const std::vector<std::string> &words)
{
    grammar_result parsed = grammar_parse(words);
    const int outcomes = (parsed.command != nullptr) + !parsed.help.empty() + !parsed.error.empty();
    if (outcomes != 1)
        fuzz_fail("neither a command, nor help, nor an error, or more than one of them");
    if (parsed.command == nullptr)
        return;
    routectl_session session;
    const routectl_call call{options, session, *parsed.command, std::move(parsed.values)};
    for (const auto &[name, value] : call.values)
        if (name.empty())
            fuzz_fail("a value without a name");
    if (parsed.command->change != nullptr)
        check_change(call);
}

void run_line(const std::string &line)
{
    std::vector<std::string> words;
    if (!grammar_split(line, words))
        return;
    complete(words);
    routectl_options options;
    if (!options_take(words, options).empty())
        return;
    if (options.timeout_ms == 0 || options.timeout_ms > 3'600'000)
        fuzz_fail("a time-out out of its range was taken");
    parse(options, words);
    for (const std::string &word : words)
        (void)history_age_of(word);
}

void read_answers(const std::string &text)
{
    const debug_answer answer = debug_view_parse(text);
    if (answer.memory.size() + answer.counters.size() > text.size())
        fuzz_fail("an answer out of nothing");
    const hw_walk walk = hw_walk_from_dump(text, COPY_IXP1, 3, 0x0A010203);
    (void)hw_walk_text(walk);
    (void)output_json(hw_walk_facts(walk));
    (void)output_json(hw_walk_records(walk));
    if (walk.steps.size() > text.size() / 32 + 1)
        fuzz_fail("a walk longer than its dump");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::istringstream lines(text);
    std::string line;
    for (std::size_t i = 0; i < MAX_LINES && std::getline(lines, line); ++i)
        run_line(line);
    read_answers(text);
    return 0;
}
