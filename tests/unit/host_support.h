// host_support.h - a card directory of its own for each test of the platform's host implementation.
//
// A process reads its card directory once, so each test runs in a child process with a fresh one; the test program
// itself never touches a card directory.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace harness
{
// Runs `body` in a child process and waits for it. Returns its exit status: 1 when an expectation failed there, 0 when
// none did, -1 when a signal ended it.
inline int in_child(const std::function<void()> &body)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        [&]() noexcept { body(); }(); // an exception ends the child here, not in the tests that follow
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

// A fresh folder of mode 0700, gone with the object.
struct fresh_folder {
    std::string path = "/tmp/card.XXXXXX";
    fresh_folder() { EXPECT_NE(mkdtemp(path.data()), nullptr); }
    ~fresh_folder() { std::filesystem::remove_all(path); }
    fresh_folder(const fresh_folder &) = delete;
    fresh_folder &operator=(const fresh_folder &) = delete;
};

// Runs `body` in a child whose card directory is `folder`.
inline void on_card(const std::string &folder, const std::function<void()> &body)
{
    EXPECT_EQ(in_child([&] {
                  setenv("CARD_DIR", folder.c_str(), 1);
                  body();
              }),
              0)
        << "the child process failed";
}

// Runs `body` in a child with a card directory of its own.
inline void on_fresh_card(const std::function<void()> &body)
{
    const fresh_folder folder;
    on_card(folder.path, body);
}

inline std::string card_file(const std::string &name) { return std::string(std::getenv("CARD_DIR")) + "/" + name; }

inline void write_text(const std::string &path, const std::string &text) { std::ofstream(path) << text; }

inline std::string read_text(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// What `body` writes to standard error, by whatever means.
inline std::string stderr_of(const std::function<void()> &body)
{
    std::FILE *const caught = std::tmpfile();
    std::fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    dup2(fileno(caught), STDERR_FILENO);
    body();
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text;
    std::rewind(caught);
    for (int c = 0; (c = std::fgetc(caught)) != EOF;)
        text.push_back(static_cast<char>(c));
    std::fclose(caught);
    return text;
}

// Gives this process mounts of its own, which no other process sees. Returns whether the host lets it.
inline bool have_own_mounts()
{
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}
// Whether a child process may have them.
inline bool own_mounts_are_allowed()
{
    return in_child([] { _exit(have_own_mounts() ? 0 : 1); }) == 0;
}

// A datagram socket bound at `path`, as a peer in another language would bind it.
inline int peer_socket(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path()); // a peer may be there first
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    return fd;
}

// Sends raw bytes to the socket at `path`. Returns what sendto returned.
inline long peer_send(const std::string &path, const std::string &bytes)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const long sent = sendto(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr *>(&address), sizeof address);
    close(fd);
    return sent;
}

// The next datagram of a peer's socket; "<none>" when none waits.
inline std::string peer_receive(int fd)
{
    char bytes[4096];
    const ssize_t got = recv(fd, bytes, sizeof bytes, MSG_DONTWAIT);
    return got < 0 ? "<none>" : std::string(bytes, static_cast<std::size_t>(got));
}

// A 32-bit big-endian word as bytes.
inline std::string be32(std::uint32_t value)
{
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<char>(value >> shift & 0xFF));
    return bytes;
}
} // namespace harness
