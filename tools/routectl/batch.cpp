// batch.cpp - a file of commands, a line each.
//
// Changes are sent without waiting for the one before, up to the caller's window, and the route manager makes them in
// the order of the lines. So when a line is refused, later lines have been sent already: they are carried out too, and
// the answer says up to which. Any other command waits for all before it.
// A route manager that cannot be reached ends the batch whatever the options say: every further line would fail too.
// Always: lines == done + failed once the batch has ended.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <fmt/format.h>
#include <unistd.h>

#include "card_tool/shown_text.h"
#include "grammar.h"
#include "output.h"
#include "refusal.h"
#include "run.h"

namespace
{
using json = nlohmann::ordered_json;
using steady = std::chrono::steady_clock;
constexpr std::chrono::milliseconds PROGRESS_STEP{100};

struct batch {
    const routectl_options &options;
    routectl_session &session;
    refusal_watch watch;
    std::size_t lines = 0, done = 0, failed = 0; // lines: with a command in them
    std::size_t line = 0;                        // number of the last line that was read
    int status = ROUTECTL_DONE;                  // the highest so far
    bool is_over = false;                        // nothing more is to be read
    json errors = json::array(), answers = json::array();
    steady::time_point started = steady::now(), shown{};
    std::uint64_t bytes = 0, bytes_read = 0; // of the file; bytes 0: unknown
    bool has_bar = false;
};

void bar_clear(const batch &b)
{
    if (b.has_bar)
        std::fputs("\r\x1b[K", stderr);
}

void bar_show(batch &b)
{
    constexpr unsigned WIDTH = 30;
    const auto now = steady::now();
    if (!b.has_bar || now - b.shown < PROGRESS_STEP)
        return;
    b.shown = now;
    const double seconds = std::chrono::duration<double>(now - b.started).count();
    const double part = b.bytes == 0 ? 0 : static_cast<double>(b.bytes_read) / static_cast<double>(b.bytes);
    const unsigned full = std::min(WIDTH, static_cast<unsigned>(part * WIDTH));
    std::string line = "\r";
    if (b.bytes != 0)
        line += fmt::format("[{}{}] {:3.0f}% ", std::string(full, '#'), std::string(WIDTH - full, '.'), part * 100);
    line += fmt::format("{} lines, {} failed, {:.0f}/s\x1b[K", b.done + b.failed, b.failed,
                        static_cast<double>(b.done + b.failed) / std::max(seconds, 0.001));
    std::fputs(line.c_str(), stderr);
}

// Counts the command of line number `line`, which has ended.
void line_ended(batch &b, std::size_t line, const std::string &text, const routectl_answer &answer)
{
    if (answer.status == ROUTECTL_DONE) {
        ++b.done;
        return;
    }
    ++b.failed;
    b.status = std::max(b.status, answer.status);
    b.is_over = b.is_over || !b.options.go_on || answer.status == ROUTECTL_UNREACHABLE;
    if (b.options.json) {
        b.errors.push_back({{"line", line}, {"text", text}, {"status", answer.status}, {"error", answer.error}});
        return;
    }
    bar_clear(b);
    std::fprintf(stderr, "routectl: line %zu: %s: %s\n", line, shown_text(text).c_str(), answer.error.c_str());
}

// Sends a change; it is counted when the answer comes.
void change_send(batch &b, const routectl_call &call, const std::string &text)
{
    routectl_change change = call.command.change(call);
    if (!change.error.empty()) {
        line_ended(b, b.line, text, routectl_error(ROUTECTL_USAGE, change.error));
        return;
    }
    card_rpc &rpc = routectl_route_manager(call);
    card_rpc_wait(rpc, CARD_RPC_WINDOW);
    if (b.is_over) {
        --b.lines; // an answer that has just come ended the batch before this line
        return;
    }
    const std::string procedure = change.procedure;
    const std::vector<card_rpc_arg> args = change.args;
    card_rpc_call(rpc, procedure, args,
                  [&b, change = std::move(change), text, line = b.line](const card_rpc_reply &reply) {
                      line_ended(b, line, text, change_judge(change, reply, b.watch, refusal_match::one_of_many));
                  });
}

void drain(batch &b)
{
    if (b.session.route_manager)
        card_rpc_wait(*b.session.route_manager, 1);
}

void command_run(batch &b, const routectl_call &call, const std::string &text)
{
    drain(b);
    if (b.is_over) {
        --b.lines;
        return;
    }
    // It would not end, and with -j there would be documents before the batch's own.
    const bool is_endless = routectl_given(call, "follow") != nullptr;
    const routectl_answer answer =
        is_endless ? routectl_error(ROUTECTL_USAGE, "follow is not allowed in a batch: it ends only when interrupted")
                   : call.command.run(call);
    line_ended(b, b.line, text, answer);
    if (answer.status != ROUTECTL_DONE || answer.is_printed)
        return;
    if (b.options.json) {
        b.answers.push_back(output_document(call.command.words, answer));
        return;
    }
    bar_clear(b);
    const std::string shown = b.options.oneline ? output_lines(answer) : output_plain(answer, b.options.colour);
    (void)std::fwrite(shown.data(), 1, shown.size(), stdout);
}

void line_run(batch &b, const std::string &text)
{
    std::vector<std::string> words;
    const bool is_closed = grammar_split(text, words);
    if (is_closed && words.empty())
        return;
    ++b.lines;
    grammar_result parsed = is_closed ? grammar_parse(words) : grammar_result{};
    if (!is_closed)
        parsed.error = "unclosed quote";
    else if (!parsed.help.empty())
        parsed.error = "help is not allowed in a batch";
    if (!parsed.error.empty()) {
        drain(b);
        if (b.is_over)
            --b.lines; // a line before it ended the batch
        else
            line_ended(b, b.line, text, routectl_error(ROUTECTL_USAGE, parsed.error));
        return;
    }
    const routectl_call call{b.options, b.session, *parsed.command, std::move(parsed.values)};
    if (parsed.command->change != nullptr)
        change_send(b, call, text);
    else
        command_run(b, call, text);
}

routectl_answer batch_answer(const batch &b)
{
    routectl_answer answer;
    answer.status = b.status;
    const double seconds = std::chrono::duration<double>(steady::now() - b.started).count();
    answer.facts = {{"lines", b.lines}, {"done", b.done}, {"failed", b.failed}, {"seconds", seconds}};
    answer.text = fmt::format("{} commands: {} done, {} failed, {:.2f} s\n", b.lines, b.done, b.failed, seconds);
    if (b.options.json) {
        answer.facts["errors"] = b.errors;
        answer.facts["answers"] = b.answers;
    }
    if (b.status != ROUTECTL_DONE)
        answer.error = fmt::format("{} of {} commands failed{}", b.failed, b.lines,
                                   b.is_over ? fmt::format("; stopped, commands up to line {} were read", b.line) : "");
    return answer;
}
} // namespace

routectl_answer batch_run(const routectl_options &options, routectl_session &session)
{
    batch b{options, session, refusal_watch_start()};
    std::ifstream file;
    if (options.batch != "-") {
        std::error_code none;
        if (std::filesystem::is_directory(options.batch, none))
            return routectl_error(ROUTECTL_USAGE, options.batch + ": a folder, not a file of commands");
        file.open(options.batch, std::ios::binary | std::ios::ate);
        if (!file || file.tellg() < 0)
            return routectl_error(ROUTECTL_USAGE, options.batch + ": cannot be read: " + std::strerror(errno));
        b.bytes = static_cast<std::uint64_t>(file.tellg());
        file.seekg(0);
    }
    b.has_bar = !options.json && isatty(STDERR_FILENO) != 0;
    std::istream &input = options.batch == "-" ? std::cin : file;
    for (std::string text; !b.is_over && std::getline(input, text);) {
        ++b.line;
        b.bytes_read += text.size() + 1;
        line_run(b, text);
        bar_show(b);
    }
    drain(b);
    bar_clear(b);
    return batch_answer(b);
}
