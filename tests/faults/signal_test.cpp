// signal_test.cpp - the three signals that end the daemon, at every step of its start-up and in the middle of its work.
//
// Start-up is stepped from system call to system call, so every point between two of them is met once; work is met at
// random moments. Each end is status 1, and each next start serves. SIGNAL_STRIDE=1 and SIGNAL_RUNS=n try more points.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "card_peers.h"
#include "daemon.h"
#include "tables.h"

using namespace harness;

namespace
{
constexpr int SIGNALS[] = {SIGINT, SIGHUP, SIGQUIT};
constexpr unsigned DEFAULT_STRIDE = 23, DEFAULT_RUNS = 12, MAX_STOPS = 200000;

unsigned from_environment(const char *name, unsigned otherwise)
{
    const char *const text = std::getenv(name);
    return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

// Whether the process has a handler for the signal.
bool catches(pid_t pid, int signo)
{
    std::istringstream lines(file_text("/proc/" + std::to_string(pid) + "/status"));
    for (std::string word; lines >> word;)
        if (word == "SigCgt:") {
            lines >> word;
            return (std::strtoull(word.c_str(), nullptr, 16) >> (signo - 1) & 1) != 0;
        }
    return false;
}

// A daemon that stops at its system calls.
struct stepped_daemon {
    pid_t pid;

    explicit stepped_daemon(const card_dir &card)
    {
        const std::string directory = "CARD_DIR=" + card.path, log = card.at("stepped.out");
        const char *const environment[] = {directory.c_str(), "ASAN_OPTIONS=detect_leaks=0", nullptr};
        const char *const arguments[] = {ROUTEMGR_PATH, nullptr};
        pid = ::fork();
        if (pid != 0)
            return;
        const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(fd, STDOUT_FILENO);
        ::dup2(fd, STDERR_FILENO);
        if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            ::_exit(126);
        ::execve(ROUTEMGR_PATH, const_cast<char *const *>(arguments), const_cast<char *const *>(environment));
        ::_exit(127);
    }
    ~stepped_daemon()
    {
        if (pid <= 0)
            return;
        ::kill(pid, SIGKILL);
        (void)::waitpid(pid, nullptr, 0); // nothing to learn from one that was killed
    }
    stepped_daemon(const stepped_daemon &) = delete;
    stepped_daemon &operator=(const stepped_daemon &) = delete;
};

// Goes on to the next stop. Returns false when the process has ended.
bool next_stop(const stepped_daemon &daemon)
{
    int status = 0;
    return ::ptrace(PTRACE_SYSCALL, daemon.pid, nullptr, nullptr) == 0 &&
           ::waitpid(daemon.pid, &status, __WALL) == daemon.pid && WIFSTOPPED(status);
}

// Lets it go and waits for its end: exit status, 1000 + signal, or -1 when it hangs.
int end_of(stepped_daemon &daemon)
{
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, daemon.pid, 0));
    ::ptrace(PTRACE_DETACH, daemon.pid, nullptr, nullptr);
    pollfd end = {pidfd, POLLIN, 0};
    const bool ended = ::poll(&end, 1, DAEMON_WAIT_MS) == 1;
    ::close(pidfd);
    int status = 0;
    if (!ended || ::waitpid(daemon.pid, &status, 0) != daemon.pid)
        return -1;
    daemon.pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Whether the daemon waits in its loop: the stop is at the entry of poll.
bool waits_in_poll(pid_t pid)
{
    const std::string text = file_text("/proc/" + std::to_string(pid) + "/syscall");
    return std::strtol(text.c_str(), nullptr, 10) == SYS_poll && !text.empty() && text[0] != 'r';
}

struct start_up_end {
    bool is_traced = true, was_serving = false, had_handler = false;
    int status = 0;
};

// Starts a daemon and sends it `signo` at its `stop`-th stop.
start_up_end end_at_stop(const card_dir &card, unsigned stop, int signo)
{
    start_up_end end;
    stepped_daemon daemon(card);
    int status = 0;
    if (::waitpid(daemon.pid, &status, 0) != daemon.pid || !WIFSTOPPED(status)) {
        daemon.pid = -1;
        end.is_traced = false;
        return end;
    }
    for (unsigned i = 0; i < stop && !end.was_serving; ++i) {
        if (!next_stop(daemon)) {
            daemon.pid = -1;
            end.status = -2; // it ended by itself
            return end;
        }
        end.was_serving = waits_in_poll(daemon.pid);
    }
    end.had_handler = catches(daemon.pid, signo);
    ::kill(daemon.pid, signo);
    end.status = end_of(daemon);
    return end;
}

void expect_service(const card_dir &card, const mts_queue &manager, const arp_service &arp)
{
    const daemon_process again(card, "again");
    ASSERT_EQ(daemon_notification(again), "READY=1") << file_text(again.err);
    EXPECT_EQ(table_difference(memory_words(card, "mem/ixp1"), table_at_start(TABLE_IXP).words), "");
    EXPECT_EQ(daemon_trouble(card, manager, arp), "");
}

// Calls as fast as the daemon takes them, while `us` microseconds pass.
void work_for(const card_dir &card, const mts_queue &manager, std::mt19937 &random, unsigned us)
{
    const int connection = rpc_connect(card, "rpc/9");
    ASSERT_GE(connection, 0);
    for (std::uint32_t i = 0; i < 120; ++i)
        rpc_send(connection, random_call(random, i));
    for (unsigned i = 0; i < 3; ++i)
        mts_send(manager, EVENT_UP + i % 2, state_payload());
    pollfd nothing = {-1, 0, 0};
    const timespec moment = {0, static_cast<long>(us) * 1000};
    (void)::ppoll(&nothing, 0, &moment, nullptr); // the moment is random: there is nothing to wait for
    ::close(connection);
}
} // namespace

TEST(signals, at_any_step_of_start_up_end_the_daemon_with_status_1_once_it_has_its_handlers)
{
    const card_dir card;
    interface_database(card);
    const mts_queue manager(card, 600);
    const arp_service arp(card);
    const unsigned stride = from_environment("SIGNAL_STRIDE", DEFAULT_STRIDE);
    unsigned points = 0, with_handler = 0;
    for (unsigned stop = 1; stop < MAX_STOPS; stop += stride) {
        const int signo = SIGNALS[points % 3];
        const start_up_end end = end_at_stop(card, stop, signo);
        if (!end.is_traced)
            GTEST_SKIP() << "the host does not let a process be traced";
        ++points;
        with_handler += end.had_handler;
        // Without a handler yet it dies of the signal, unless the stop is at the very call that installs one.
        ASSERT_TRUE(end.status == 1 || (!end.had_handler && end.status == 1000 + signo))
            << "status " << end.status << ", "
            << "signal " << signo << " at stop " << stop << "\n"
            << file_text(card.at("stepped.out")).substr(0, 2000);
        if (end.was_serving)
            break;
    }
    EXPECT_GT(with_handler, 5u) << "start-up was hardly met";
    expect_service(card, manager, arp);
    std::printf("%u points of start-up, %u of them with the handlers installed\n", points, with_handler);
}

TEST(signals, in_the_middle_of_work_end_the_daemon_with_status_1)
{
    const card_dir card;
    interface_database(card);
    const mts_queue manager(card, 600);
    const arp_service arp(card);
    const unsigned runs = from_environment("SIGNAL_RUNS", DEFAULT_RUNS);
    std::mt19937 random(7);
    for (unsigned run = 0; run < runs; ++run) {
        daemon_process daemon(card);
        ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
        mts_send(manager, EVENT_UP, state_payload());
        work_for(card, manager, random, static_cast<unsigned>(random() % 3000));
        const int signo = SIGNALS[run % 3];
        daemon_signal(daemon, signo);
        ASSERT_EQ(daemon_exit_status(daemon), 1) << "run " << run << ", signal " << signo << "\n"
                                                 << file_text(daemon.err).substr(0, 2000);
    }
    expect_service(card, manager, arp);
    std::printf("%u signals in the middle of work\n", runs);
}
