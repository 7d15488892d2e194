// view_command_test.cpp - hw, history and watch as a user runs them: the program, on a daemon that runs, is stopped, or
// has died, and on a terminal of its own.
#include "view_support.h"

#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <poll.h>

#include <nlohmann/json.hpp>

using namespace harness;

namespace
{
using json = nlohmann::json;

struct run_result {
    int status;
    std::string text; // standard output and standard error
};

run_result run(const card_dir &card, const std::string &words)
{
    const std::string line = "CARD_DIR=" + card.path + " " ROUTECTL_PATH " " + words + " 2>&1";
    std::FILE *const pipe = ::popen(line.c_str(), "r");
    run_result result = {-1, ""};
    char part[4096];
    for (std::size_t n = 0; pipe != nullptr && (n = std::fread(part, 1, sizeof part, pipe)) > 0;)
        result.text.append(part, n);
    const int status = pipe == nullptr ? -1 : ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

json document(const card_dir &card, const std::string &words)
{
    const run_result result = run(card, words + " -j");
    const json parsed = json::parse(result.text, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << words << ": " << result.text;
    return parsed;
}

// A daemon with a host on each of two interfaces and a static route over both, in context 3.
class view_command : public testing::Test
{
protected:
    void SetUp() override
    {
        const std::uint32_t up = IF_EXISTS | IF_UP | IF_ADDRESS | IF_CONTEXT, mask = ip(255, 255, 255, 0);
        interfaces_write(card,
                         {{5, up, 1, 0, ip(10, 1, 1, 1), mask, CTX, 0}, {6, up, 1, 0, ip(10, 1, 2, 1), mask, CTX, 0}});
        ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
        const rpc_client client(card);
        for (const std::uint32_t ifid : {5u, 6u})
            give(client, "arp_prefix_mgr_add_route",
                 {arg16(1), arg32(ip(10, 1, ifid - 4, 2)), arg32(32), arg16(0x1000 + ifid), arg16(ifid), arg32(CTX)});
        for (const std::uint32_t net : {1u, 2u})
            give(
                client, "rib_add_route",
                {arg16(CTX), arg32(CTX), arg32(ip(10, 20, 0, 0)), arg32(ip(255, 255, 0, 0)), arg32(ip(10, 1, net, 2))});
    }
    static void give(const rpc_client &client, const char *name, const std::vector<rpc_arg> &args)
    {
        const rpc_reply reply = rpc_call(client.fd, name, args);
        EXPECT_TRUE(reply.arrived && reply.status == 0 && reply.result == 0) << name;
    }

    const card_dir card;
    daemon_process daemon{card};
};

// A container may lack the file system that they come from.
bool terminals_can_be_had()
{
    const int fd = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd >= 0)
        ::close(fd);
    return fd >= 0;
}

// routectl on a terminal of its own.
struct terminal_run {
    int fd = -1;
    pid_t pid = -1;
    termios before{};
    std::string shown;

    terminal_run(const card_dir &card, const char *const *words)
    {
        int slave = -1;
        winsize size = {24, 80, 0, 0};
        EXPECT_EQ(::openpty(&fd, &slave, nullptr, nullptr, &size), 0);
        ::tcgetattr(fd, &before);
        pid = ::fork();
        if (pid == 0) {
            ::login_tty(slave);
            ::setenv("CARD_DIR", card.path.c_str(), 1);
            ::setenv("NO_COLOR", "1", 1);
            ::close(fd);
            ::execv(ROUTECTL_PATH, const_cast<char *const *>(words));
            ::_exit(127);
        }
        keeper = slave; // so that the mode can be asked for after its end
    }
    ~terminal_run()
    {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            (void)::waitpid(pid, nullptr, 0);
        }
        ::close(keeper);
        ::close(fd);
    }
    terminal_run(const terminal_run &) = delete;
    terminal_run &operator=(const terminal_run &) = delete;

    // Reads until `text` has been shown after what was awaited before.
    bool awaits(const std::string &text)
    {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(DAEMON_WAIT_MS);
        for (;;) {
            if (const std::size_t at = shown.find(text, from); at != std::string::npos) {
                from = at + text.size();
                return true;
            }
            pollfd p = {fd, POLLIN, 0};
            char part[4096];
            if (std::chrono::steady_clock::now() > limit || ::poll(&p, 1, DAEMON_WAIT_MS) <= 0)
                return false;
            const ssize_t n = ::read(fd, part, sizeof part);
            if (n <= 0)
                return false;
            shown.append(part, static_cast<std::size_t>(n));
        }
    }
    void type(char key) const { EXPECT_EQ(::write(fd, &key, 1), 1); }
    void resize(unsigned short rows, unsigned short columns) const
    {
        const winsize size = {rows, columns, 0, 0};
        EXPECT_EQ(::ioctl(fd, TIOCSWINSZ, &size), 0);
    }
    int ended()
    {
        int status = 0;
        EXPECT_EQ(::waitpid(pid, &status, 0), pid);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }
    bool is_as_before() const
    {
        termios now{};
        ::tcgetattr(keeper, &now);
        return now.c_lflag == before.c_lflag && now.c_iflag == before.c_iflag && now.c_oflag == before.c_oflag;
    }

private:
    int keeper = -1;
    std::size_t from = 0;
};

constexpr const char *WATCH[] = {"routectl", "watch", nullptr};
constexpr const char *ENTERED = "\033[?1049h", *LEFT = "\033[?25h\033[?1049l";
} // namespace

TEST_F(view_command, the_dump_and_the_memories_tell_the_same_walk)
{
    for (const char *address : {"10.20.30.40", "10.1.1.2", "10.21.0.1", "224.0.0.5"})
        for (const char *copy : {"wired", "ixp1", "ixp2"}) {
            const std::string words = std::string("hw walk ") + address + " ctx 3 copy " + copy;
            const json asked = document(card, words), direct = document(card, words + " --direct");
            SCOPED_TRACE(words);
            EXPECT_EQ(asked.at("source"), "route manager");
            EXPECT_EQ(direct.at("source"), "memory");
            for (const char *key : {"status", "found", "forwards", "ip_resolve", "ecmp", "nat", "paths", "fault"})
                EXPECT_EQ(asked.at(key), direct.at(key)) << key;
            ASSERT_EQ(asked.at("steps").size(), direct.at("steps").size());
            for (std::size_t i = 0; i < asked.at("steps").size(); ++i)
                EXPECT_EQ(asked.at("steps")[i].at("slot"), direct.at("steps")[i].at("slot"));
        }
}

TEST_F(view_command, an_ecmp_walk_shows_each_path_with_interface_and_encapsulation)
{
    const run_result plain = run(card, "hw walk 10.20.30.40 ctx 3 --direct");
    EXPECT_EQ(plain.status, 0);
    for (const char *part : {"context 3, 10.20.30.40, copy wired, from the mapped memory", "level 1", "flags: ECMP",
                             "valid, 1 more, sequence 1", "path 1  interface 5      encapsulation 0x1005",
                             "path 2  interface 6      encapsulation 0x1006"})
        EXPECT_NE(plain.text.find(part), std::string::npos) << part << " is missing in\n" << plain.text;
    EXPECT_EQ(run(card, "hw walk 10.20.30.40 ctx 3 -o").text,
              "path=1 ifid=5 encap=0x1005\npath=2 ifid=6 encap=0x1006\n");
}

TEST_F(view_command, a_trie_is_exported_as_a_drawing_and_as_data)
{
    EXPECT_TRUE(run(card, "hw export --dot 3").text.starts_with("digraph context_3 {"));
    const json bare = json::parse(run(card, "hw export --json 3").text, nullptr, false);
    const json data = document(card, "hw export --json 3");
    ASSERT_FALSE(bare.is_discarded());
    EXPECT_EQ(bare.at("nodes"), data.at("nodes"));
    EXPECT_EQ(data.at("nodes")[0].at("prefix"), "0.0.0.0/0");
    EXPECT_EQ(document(card, "hw export --dot 3 copy ixp1").at("copy"), "ixp1");
}

TEST_F(view_command, errors_that_traces_have_pushed_out_of_the_history_are_still_shown)
{
    const rpc_client client(card);
    const std::vector<rpc_arg> absent = {arg16(CTX), arg32(CTX), arg32(ip(10, 99, 0, 0)), arg32(ip(255, 255, 0, 0)),
                                         arg32(ip(10, 9, 9, 9))};
    EXPECT_EQ(rpc_call(client.fd, "rib_remove_route", absent).result, 1u);
    ASSERT_EQ(run(card, "keep info on").status, 0);
    const std::string error = "could not find static route for ip=a630000/16";
    for (unsigned calls = 0; run(card, "history").text.find(error) != std::string::npos; calls += 500) {
        ASSERT_LT(calls, 20000u) << "the history still has the error";
        for (unsigned i = 0; i < 500; ++i) // each leaves a trace
            ASSERT_EQ(rpc_call(client.fd, "rib_max_ecmp_route",
                               {arg16(CTX), arg32(CTX), arg32(ip(10, 99, 0, 0)), arg32(ip(255, 255, 0, 0))})
                          .result,
                      0u);
    }
    EXPECT_NE(run(card, "history category errors").text.find(error), std::string::npos);
    EXPECT_NE(run(card, "watch --once").text.find(error), std::string::npos);
}

TEST_F(view_command, after_the_daemon_has_died_the_memories_and_the_history_are_read)
{
    daemon_signal(daemon, SIGKILL);
    EXPECT_EQ(daemon_exit_status(daemon), 1000 + SIGKILL);
    const run_result asked = run(card, "hw walk 10.20.30.40 ctx 3");
    EXPECT_EQ(asked.status, 3);
    EXPECT_NE(asked.text.find("--direct reads the tables that are left"), std::string::npos) << asked.text;
    EXPECT_EQ(document(card, "hw walk 10.20.30.40 ctx 3 --direct").at("paths").size(), 2u);
    EXPECT_EQ(run(card, "history last 1").status, 0);
    const json picture = document(card, "watch --once");
    EXPECT_EQ(picture.at("route_manager"), "not running");
    EXPECT_EQ(picture.at("pools_source"), "reachable in wired");
    EXPECT_EQ(picture.at("pools")[2].at("used"), 1);
    EXPECT_TRUE(picture.at("total").is_null());
}

TEST_F(view_command, a_silent_daemon_is_said_to_be_silent_and_nothing_waits_for_ever)
{
    daemon_signal(daemon, SIGSTOP);
    const json picture = document(card, "watch --once");
    daemon_signal(daemon, SIGCONT);
    EXPECT_EQ(picture.at("route_manager"), "not answering");
    EXPECT_EQ(picture.at("pools_source"), "reachable in wired");
    EXPECT_EQ(document(card, "watch --once").at("route_manager"), "running");
}

TEST_F(view_command, one_picture_counts_pools_kinds_and_contexts)
{
    const json picture = document(card, "watch --once");
    EXPECT_EQ(picture.at("route_manager"), "running");
    EXPECT_EQ(picture.at("pools_source"), "route manager");
    EXPECT_EQ(picture.at("kinds"), json({{"hosts", 258}, {"static", 2}, {"nat", 0}}));
    ASSERT_EQ(picture.at("contexts").size(), 1u);
    EXPECT_EQ(picture.at("contexts")[0].at("ctx"), CTX);
    EXPECT_EQ(picture.at("contexts")[0].at("static"), 2);
    EXPECT_EQ(picture.at("contexts")[0].at("ecmp"), 1);
    EXPECT_TRUE(picture.at("rates").is_null()) << "one look has no rate";
    const run_result plain = run(card, "watch --once");
    EXPECT_EQ(plain.status, 0);
    EXPECT_NE(plain.text.find("route manager: running"), std::string::npos) << plain.text;
}

TEST(view_command_alone, without_any_daemon_each_command_says_what_is_missing)
{
    const card_dir card;
    EXPECT_EQ(run(card, "hw walk 10.0.0.1").status, 3);
    EXPECT_EQ(run(card, "hw walk 10.0.0.1 --direct").status, 3);
    EXPECT_EQ(run(card, "hw export --dot 0").status, 3);
    EXPECT_EQ(run(card, "history").status, 3);
    EXPECT_EQ(document(card, "history").at("status"), 3);
    EXPECT_EQ(document(card, "watch --once").at("pools"), nullptr);
    EXPECT_EQ(document(card, "watch --once").at("status"), 0);
}

TEST(view_command_alone, words_that_make_no_sense_are_named)
{
    const card_dir card;
    for (const char *words : {"history age soon", "hw walk 10.0.0.256", "hw export --dot 256",
                              "hw walk 10.0.0.1 copy x", "watch every 0", "watch every 5"}) { // the last: no terminal
        const run_result result = run(card, words);
        EXPECT_EQ(result.status, 2) << words << ": " << result.text;
        EXPECT_EQ(document(card, std::string(words) == "watch every 5" ? "watch every 0" : words).at("status"), 2);
    }
}

TEST(view_command_alone, the_history_is_filtered_by_category_context_and_number)
{
    const card_dir card;
    history_image image(4096);
    image.add(100, 1769903999000001000, "<Ctx:3>first\n");
    image.add(101, 1769903999000002000, "<Ctx:3>second \xFF\n");
    image.add(100, 1769903999000003000, "<Ctx:4>third\n");
    image.write(card);
    EXPECT_EQ(run(card, "history").text, "2026-01-31T23:59:59.000001Z  errors       ctx   3  first\n"
                                         "2026-01-31T23:59:59.000002Z  events       ctx   3  second \xFF\n"
                                         "2026-01-31T23:59:59.000003Z  errors       ctx   4  third\n");
    EXPECT_EQ(document(card, "history category errors").at("records").size(), 2u);
    EXPECT_EQ(document(card, "history category 101").at("records").size(), 1u);
    EXPECT_EQ(document(card, "history ctx 3 category err").at("records")[0].at("text"), "first");
    EXPECT_EQ(document(card, "history last 1").at("records")[0].at("ctx"), 4);
    EXPECT_EQ(document(card, "history age 1h").at("records"), json::array());
    EXPECT_EQ(document(card, "history").at("records").size(), 3u) << "also with a byte that is no text";
    EXPECT_EQ(run(card, "history -o last 1").text,
              "time=2026-01-31T23:59:59.000003Z category=100 name=errors ctx=4 text=third\n");
}

TEST(view_command_alone, a_damaged_history_says_so)
{
    const card_dir card;
    history_image image(1024);
    image.add(100, 1, "<Ctx:3>good");
    image.put_number<std::uint32_t>(image.head, 3);
    image.head += 8;
    image.write(card);
    EXPECT_EQ(document(card, "history").at("damaged"), true);
    EXPECT_NE(run(card, "history").text.find("the history is damaged"), std::string::npos);
}

TEST(view_command_alone, a_history_is_followed_until_interrupted)
{
    if (!terminals_can_be_had())
        GTEST_SKIP() << "no pseudo-terminal can be had here";
    const card_dir card;
    history_image image(1024);
    image.add(100, 1, "<Ctx:3>old");
    image.write(card);
    const char *const words[] = {"routectl", "-j", "history", "follow", nullptr};
    terminal_run follow(card, words);
    ASSERT_TRUE(follow.awaits("\"old\"}\r\n")) << follow.shown;
    // As its writer does: the record's bytes, then head.
    image.add(100, 2, "<Ctx:3>new");
    const int fd = ::open(card.at("history/115").c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(::pwrite(fd, image.ring.data(), image.ring.size(), 64), static_cast<ssize_t>(image.ring.size()));
    EXPECT_EQ(::pwrite(fd, &image.head, 8, 24), 8);
    ::close(fd);
    EXPECT_TRUE(follow.awaits("\"new\"}\r\n")) << follow.shown;
    follow.type(3); // Ctrl-C
    EXPECT_EQ(follow.ended(), 0);
}

TEST_F(view_command, a_live_view_takes_the_screen_and_gives_it_back_at_the_key_q)
{
    if (!terminals_can_be_had())
        GTEST_SKIP() << "no pseudo-terminal can be had here";
    terminal_run watch(card, WATCH);
    ASSERT_TRUE(watch.awaits(ENTERED)) << watch.shown;
    ASSERT_TRUE(watch.awaits("route manager: running")) << watch.shown;
    ASSERT_TRUE(watch.awaits("q: quit")) << watch.shown;
    EXPECT_FALSE(watch.is_as_before()) << "keys come without a line end";
    watch.type('q');
    ASSERT_TRUE(watch.awaits(LEFT)) << watch.shown;
    EXPECT_EQ(watch.ended(), 0);
    EXPECT_TRUE(watch.is_as_before());
}

TEST_F(view_command, the_rates_of_a_daemon_that_only_we_ask_are_zero)
{
    if (!terminals_can_be_had())
        GTEST_SKIP() << "no pseudo-terminal can be had here";
    terminal_run watch(card, WATCH);
    ASSERT_TRUE(watch.awaits("Rates   calls 0.0/s  messages 0.0/s  history 0.0/s  table words 0.0/s")) << watch.shown;
    watch.type('q');
    EXPECT_EQ(watch.ended(), 0);
}

TEST_F(view_command, a_live_view_goes_on_when_the_daemon_dies)
{
    if (!terminals_can_be_had())
        GTEST_SKIP() << "no pseudo-terminal can be had here";
    terminal_run watch(card, WATCH);
    ASSERT_TRUE(watch.awaits("route manager: running")) << watch.shown;
    daemon_signal(daemon, SIGKILL);
    EXPECT_EQ(daemon_exit_status(daemon), 1000 + SIGKILL);
    ASSERT_TRUE(watch.awaits("route manager: not running")) << watch.shown;
    ASSERT_TRUE(watch.awaits("Pools (reachable in wired)")) << watch.shown;
    watch.type('q');
    EXPECT_EQ(watch.ended(), 0);
}

TEST_F(view_command, a_live_view_follows_the_size_of_its_terminal)
{
    if (!terminals_can_be_had())
        GTEST_SKIP() << "no pseudo-terminal can be had here";
    terminal_run watch(card, WATCH);
    ASSERT_TRUE(watch.awaits("of 1024   25")) << watch.shown;
    watch.resize(6, 30);
    ASSERT_TRUE(watch.awaits("\033[H\033[2Kroute manager: running   card \r")) << watch.shown;
    watch.type('q');
    EXPECT_EQ(watch.ended(), 0);
}

TEST_F(view_command, a_signal_ends_a_live_view_and_the_terminal_is_as_it_was)
{
    if (!terminals_can_be_had())
        GTEST_SKIP() << "no pseudo-terminal can be had here";
    for (const int signo : {SIGINT, SIGTERM, SIGHUP}) {
        terminal_run watch(card, WATCH);
        ASSERT_TRUE(watch.awaits("route manager: running")) << watch.shown;
        ::kill(watch.pid, signo);
        ASSERT_TRUE(watch.awaits(LEFT)) << watch.shown;
        EXPECT_EQ(watch.ended(), signo == SIGINT ? 0 : 1000 + signo);
        EXPECT_TRUE(watch.is_as_before()) << signo;
    }
}

TEST_F(view_command, a_live_view_that_is_suspended_gives_the_terminal_back_until_it_goes_on)
{
    if (!terminals_can_be_had())
        GTEST_SKIP() << "no pseudo-terminal can be had here";
    terminal_run watch(card, WATCH);
    ASSERT_TRUE(watch.awaits("route manager: running")) << watch.shown;
    ::kill(watch.pid, SIGTSTP);
    ASSERT_TRUE(watch.awaits(LEFT)) << watch.shown;
    int status = 0;
    ASSERT_EQ(::waitpid(watch.pid, &status, WUNTRACED), watch.pid);
    ASSERT_TRUE(WIFSTOPPED(status));
    EXPECT_TRUE(watch.is_as_before());
    ::kill(watch.pid, SIGCONT);
    ASSERT_TRUE(watch.awaits(ENTERED)) << watch.shown;
    watch.type('q');
    EXPECT_EQ(watch.ended(), 0);
}
