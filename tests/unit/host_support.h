// host_support.h - a card directory of its own for each test of the platform's host implementation.
//
// A process reads its card directory once, so each test runs in a child process with a fresh one; the test program
// itself never touches a card directory.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon.h"

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
    const card_dir folder;
    on_card(folder.path, body);
}

inline std::string card_file(const std::string &name) { return std::string(std::getenv("CARD_DIR")) + "/" + name; }

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

// A datagram socket bound at `path`, as a peer in another language would bind it: perhaps before the process is there.
inline int peer_socket(const std::string &path)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    return bound_socket(SOCK_DGRAM, path);
}

// Sends raw bytes to the socket at `path`. Returns how many, or -1.
inline long peer_send(const std::string &path, const std::string &bytes)
{
    const int fd = connected_socket(SOCK_DGRAM, path);
    const long sent = send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
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

// A datagram as peers send and receive it.
inline std::string message_text(std::uint32_t opcode, std::uint32_t sap, std::string_view payload = "")
{
    const byte_string bytes = message_bytes(opcode, sap, text_bytes(payload));
    return {bytes.begin(), bytes.end()};
}
} // namespace harness
