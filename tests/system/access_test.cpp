// access_test.cpp - who reaches the daemon: its owner alone, and nothing through a link that stands where a file
// should.

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon.h"

using namespace harness;

namespace
{
constexpr uid_t NOBODY = 65534;
constexpr int NOT_REACHED = 77;

// Every path of the card directory, the directory itself among them.
std::vector<std::string> paths_of(const card_dir &card)
{
    std::vector<std::string> paths = {card.path};
    for (const auto &entry : std::filesystem::recursive_directory_iterator(card.path))
        paths.push_back(entry.path());
    return paths;
}

// Whether this process can do anything with `path`: read, write, list, remove, connect or send to it.
bool can_reach(const std::string &path)
{
    if (::open(path.c_str(), O_RDONLY | O_NONBLOCK) >= 0 || ::open(path.c_str(), O_WRONLY | O_NONBLOCK) >= 0 ||
        ::truncate(path.c_str(), 0) == 0 || ::unlink(path.c_str()) == 0 || ::chmod(path.c_str(), 0777) == 0)
        return true;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    for (const int type : {SOCK_SEQPACKET, SOCK_DGRAM})
        if (::connect(::socket(AF_UNIX, type, 0), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return true;
    return false;
}

// The paths that another user reaches: a line each. What was opened goes with the process that tried.
std::string reached_by_another(const std::vector<std::string> &paths)
{
    int ends[2];
    if (::pipe(ends) != 0)
        return "no pipe";
    const pid_t child = ::fork();
    if (child == 0) {
        std::string reached;
        if (::setgroups(0, nullptr) != 0 || ::setgid(NOBODY) != 0 || ::setuid(NOBODY) != 0)
            reached = "not another user";
        for (const std::string &path : paths)
            if (can_reach(path))
                reached += path + "\n";
        (void)!::write(ends[1], reached.data(), reached.size());
        ::_exit(0);
    }
    ::close(ends[1]);
    std::string reached;
    char buffer[4096];
    for (ssize_t n = 0; (n = ::read(ends[0], buffer, sizeof buffer)) > 0;)
        reached.append(buffer, static_cast<std::size_t>(n));
    ::close(ends[0]);
    (void)::waitpid(child, nullptr, 0); // its findings came through the pipe
    return reached;
}

struct planted_link {
    const char *path;
    bool starts; // whether the daemon serves all the same
};
} // namespace

TEST(access, another_user_reaches_nothing_of_the_card)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    const card_dir card;
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    const std::vector<std::string> paths = paths_of(card);
    EXPECT_GT(paths.size(), 25u);
    EXPECT_EQ(reached_by_another(paths), "");
}

TEST(access, files_and_sockets_are_closed_to_others_even_in_folders_that_were_opened_by_mistake)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    const card_dir card;
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    std::vector<std::string> closed;
    for (const std::string &path : paths_of(card)) {
        const std::string name = path.substr(card.path.size());
        if (std::filesystem::is_directory(std::filesystem::symlink_status(path)))
            path_set_mode(path, 0755);
        else if (name.find("first.") == std::string::npos) // the test's own files
            closed.push_back(path);
    }
    EXPECT_GT(closed.size(), 20u);
    EXPECT_EQ(reached_by_another(closed), "");
}

TEST(access, nothing_is_opened_through_a_link_that_stands_where_a_file_should)
{
    constexpr planted_link LINKS[] = {
        {"mts/514.lock", false}, {"rpc/9.lock", true}, {"history/115", true}, {"mem/wired", false}, {"mem/ixp1", false},
        {"mem/ixp2", false},     {"interfaces", true}, {"card.conf", true},   {"mts/514", true},    {"rpc/9", true},
    };
    for (const planted_link &planted : LINKS) {
        SCOPED_TRACE(planted.path);
        const card_dir card;
        const std::string victim = card.at("victim");
        file_write(victim, "slot = 9\n");
        for (const char *folder : {"mts", "rpc", "history", "mem"})
            make_folder(card.at(folder));
        ASSERT_EQ(::symlink(victim.c_str(), card.at(planted.path).c_str()), 0);
        daemon_process daemon(card);
        EXPECT_EQ(daemon_notification(daemon), planted.starts ? "READY=1" : "");
        if (planted.starts)
            daemon_signal(daemon, SIGINT);
        EXPECT_EQ(daemon_exit_status(daemon), planted.starts ? 1 : 255) << file_text(daemon.err);
        EXPECT_EQ(file_text(victim), "slot = 9\n");
        if (std::string_view(planted.path) == "history/115") {
            EXPECT_TRUE(history_read(card).valid) << "a history took the link's place";
        }
    }
}

TEST(access, the_daemon_runs_without_any_privilege)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    const card_dir card;
    ASSERT_EQ(::chown(card.path.c_str(), NOBODY, NOBODY), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setgroups(0, nullptr) != 0 || ::setgid(NOBODY) != 0 || ::setuid(NOBODY) != 0)
            ::_exit(2);
        if (::access(ROUTEMGR_PATH, X_OK) != 0)
            ::_exit(NOT_REACHED);
        daemon_process daemon(card);
        const bool ready = daemon_notification(daemon) == "READY=1";
        const rpc_client client(card);
        const rpc_reply reply = rpc_call(client.fd, "rib_max_ecmp_route", {arg16(0), arg32(0), arg32(0), arg32(0)});
        daemon_signal(daemon, SIGINT);
        ::_exit(ready && reply.arrived && daemon_exit_status(daemon) == 1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == NOT_REACHED)
        GTEST_SKIP() << "another user does not reach the program";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << file_text(card.at("first.err"));
}
