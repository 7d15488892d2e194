// tool_run.cpp - starts routectl and waits for it, with a limit on each wait.
#include "tool_run.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace harness
{
namespace
{
std::vector<std::string> cut(const std::string &line)
{
    std::vector<std::string> words;
    std::istringstream stream(line);
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

// In the child: becomes the program.
[[noreturn]] void become_tool(const char *program, const card_dir &card, const std::vector<std::string> &words)
{
    std::vector<char *> argv = {const_cast<char *>(program)};
    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    setenv("CARD_DIR", card.path.c_str(), 1);
    setenv("HOME", card.path.c_str(), 1);
    setenv("TERM", "vt100", 1);
    setenv("NO_COLOR", "1", 1);
    ::execv(program, argv.data());
    ::_exit(127);
}

bool readable(int fd)
{
    pollfd waited{fd, POLLIN, 0};
    return ::poll(&waited, 1, DAEMON_WAIT_MS) == 1;
}

int wait_for_end(pid_t pid)
{
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    const bool ended = readable(pidfd);
    ::close(pidfd);
    if (!ended)
        ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return !ended ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}
} // namespace

tool_result routectl_run(const card_dir &card, const std::string &words, const std::string &input)
{
    return program_run(ROUTECTL_PATH, card, words, input);
}

tool_result program_run(const char *program, const card_dir &card, const std::string &words, const std::string &input)
{
    const card_dir scratch; // apart from the card, which may be missing
    file_write(scratch.at("in"), input);
    const std::vector<std::string> arguments = cut(words);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int flags = O_WRONLY | O_CREAT | O_TRUNC;
        ::dup2(::open(scratch.at("in").c_str(), O_RDONLY), STDIN_FILENO);
        ::dup2(::open(scratch.at("out").c_str(), flags, 0600), STDOUT_FILENO);
        ::dup2(::open(scratch.at("err").c_str(), flags, 0600), STDERR_FILENO);
        become_tool(program, card, arguments);
    }
    tool_result result;
    result.status = wait_for_end(pid);
    result.out = file_text(scratch.at("out"));
    result.err = file_text(scratch.at("err"));
    return result;
}

std::string routectl_prompt(const card_dir &card, const std::string &input, int &status)
{
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0)
        become_tool(ROUTECTL_PATH, card, {});
    std::string shown;
    char bytes[4096];
    bool is_typed = false;
    while (readable(terminal)) {
        const ssize_t got = ::read(terminal, bytes, sizeof bytes);
        if (got <= 0)
            break;
        shown.append(bytes, static_cast<std::size_t>(got));
        if (!is_typed && shown.find("routectl>") != std::string::npos) {
            is_typed = true;
            EXPECT_EQ(::write(terminal, input.data(), input.size()), static_cast<ssize_t>(input.size()));
        }
    }
    status = wait_for_end(pid);
    ::close(terminal);
    return shown;
}
} // namespace harness
