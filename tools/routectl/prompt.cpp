// prompt.cpp - the prompt: editing, history and completion by the table of commands.
//
// Always: an interrupt ends the reading of a line, never the program; the kept lines are readable by their owner alone.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>

#include <histedit.h>
#include <sys/stat.h>

#include "grammar.h"
#include "options.h"
#include "output.h"
#include "run.h"

namespace
{
constexpr int HISTORY_LINES = 1000;

// The prompt's text, in the form that the editor asks for.
char *prompt_text(EditLine *)
{
    static char text[] = "routectl> ";
    return text;
}

std::string common_beginning(const std::vector<std::string> &words)
{
    std::string common = words.empty() ? "" : words[0];
    for (const std::string &word : words)
        while (word.compare(0, common.size(), common) != 0)
            common.pop_back();
    return common;
}

// Bound to the tabulator: adds what all candidates have in common, or lists them.
unsigned char complete(EditLine *editor, wint_t)
{
    const LineInfo *const line = el_line(editor);
    const std::string text(line->buffer, line->cursor);
    std::vector<std::string> words;
    (void)grammar_split(text, words);
    std::string begun;
    if (!words.empty() && !text.empty() && text.back() != ' ') {
        begun = words.back();
        words.pop_back();
    }
    const std::vector<std::string> candidates = grammar_complete(words, begun, grammar_values::show);
    if (candidates.empty())
        return CC_ERROR;
    const bool is_value = candidates[0][0] >= 'A' && candidates[0][0] <= 'Z';
    const std::string more =
        is_value ? "" : common_beginning(candidates).substr(begun.size()) + (candidates.size() == 1 ? " " : "");
    if (!more.empty())
        return el_insertstr(editor, more.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
    std::printf("\n");
    for (const std::string &candidate : candidates)
        std::printf("  %s", candidate.c_str());
    std::printf("\n");
    std::fflush(stdout);
    return CC_REDISPLAY;
}

struct line_editor {
    EditLine *editor = nullptr;
    History *history = nullptr;
    HistEvent event{};
    std::string file; // of the history; empty: it is not kept
};

void editor_open(line_editor &e)
{
    e.editor = el_init("routectl", stdin, stdout, stderr);
    e.history = history_init();
    const char *const home = std::getenv("HOME");
    e.file = home == nullptr ? "" : std::string(home) + "/.routectl_history";
    (void)history(e.history, &e.event, H_SETSIZE, HISTORY_LINES);
    (void)history(e.history, &e.event, H_SETUNIQUE, 1);
    if (!e.file.empty())
        (void)history(e.history, &e.event, H_LOAD, e.file.c_str()); // none the first time
    (void)el_set(e.editor, EL_PROMPT, prompt_text);
    (void)el_set(e.editor, EL_EDITOR, "emacs");
    (void)el_set(e.editor, EL_HIST, history, e.history);
    // The editor's narrow form of this one copies both texts and frees neither.
    (void)el_wset(e.editor, EL_ADDFN, L"complete", L"Complete the word", complete);
    (void)el_set(e.editor, EL_BIND, "^I", "complete", nullptr);
    (void)el_source(e.editor, nullptr); // the user's own bindings
}

void editor_close(line_editor &e)
{
    if (!e.file.empty()) {
        const mode_t before = umask(077); // commands are the user's own business
        (void)history(e.history, &e.event, H_SAVE, e.file.c_str());
        (void)umask(before);
    }
    history_end(e.history);
    el_end(e.editor);
}

// Runs one line. Returns its status; is_over: it asks to leave.
int line_run(const routectl_options &options, routectl_session &session, const std::string &line, bool &is_over)
{
    std::vector<std::string> words;
    routectl_options line_options = options;
    std::string wrong = grammar_split(line, words) ? options_take(words, line_options) : "unclosed quote";
    if (wrong.empty() && (!line_options.batch.empty() || line_options.card != options.card || line_options.is_version))
        wrong = "-b, -c and -V are allowed only when routectl starts";
    if (!wrong.empty()) {
        output_answer(line_options, "", routectl_error(ROUTECTL_USAGE, wrong));
        return ROUTECTL_USAGE;
    }
    if (line_options.is_help)
        words.insert(words.begin(), "help");
    is_over = words.size() == 1 && (words[0] == "exit" || words[0] == "quit");
    if (words.empty() || is_over)
        return ROUTECTL_DONE;
    const executed_command ended = execute_words(line_options, session, words);
    output_answer(line_options, ended.command, ended.answer);
    return ended.answer.status;
}

void interrupt(int) {} // only ends the reading of a line
} // namespace

int prompt_run(const routectl_options &options, routectl_session &session)
{
    struct sigaction action = {}, before = {};
    action.sa_handler = interrupt;
    (void)sigaction(SIGINT, &action, &before);
    line_editor e;
    editor_open(e);
    int status = ROUTECTL_DONE;
    for (bool is_over = false; !is_over;) {
        int length = 0;
        const char *const text = el_gets(e.editor, &length);
        if (text == nullptr && length < 0 && errno == EINTR) {
            std::printf("\n");
            el_reset(e.editor);
            continue;
        }
        if (text == nullptr || length <= 0)
            break;
        const std::string line(text, static_cast<std::size_t>(length));
        if (line.find_first_not_of(" \t\n") == std::string::npos)
            continue;
        (void)history(e.history, &e.event, H_ENTER, text);
        status = line_run(options, session, line, is_over);
    }
    editor_close(e);
    (void)sigaction(SIGINT, &before, nullptr);
    return status;
}
