// host_tnrpc_support.h - callers, procedures and waiting processes for the tests of remote procedure calls.
//
// Records are written here from their bytes, so that a mistake in the platform's own encoding cannot hide. What needs
// a second process of the platform (a second instance, a server that restarts, a client beside the server) is forked
// before the platform is first used, since a process keeps its card directory and its locks, and waits for its turn.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "counters.h"
#include "host_support.h"
#include "mtrack.h"
#include "tnrpc.h"

namespace harness
{
constexpr int TIMEOUT_MS = 400; // rpc_timeout_ms of the test's card
constexpr std::uint32_t ENDPOINT = 9, RESTARTING_ENDPOINT = 20;

using bytes = std::string;

// Big-endian words.
inline bytes be(std::size_t length, std::uint32_t value)
{
    bytes out(length, '\0');
    for (std::size_t i = length; i-- > 0; value >>= 8)
        out[i] = static_cast<char>(value & 0xFF);
    return out;
}

inline std::uint32_t be_at(const bytes &record, std::size_t offset, std::size_t length = 4)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < length; ++i)
        value = value << 8 | static_cast<unsigned char>(record.at(offset + i));
    return value;
}

inline bytes value_of(std::uint32_t type, std::uint32_t length, std::uint32_t value)
{
    return be(2, type) + be(2, 0) + be(4, length) + be(length, value);
}

inline bytes call_of(const bytes &name, std::uint32_t count, const bytes &args, std::uint32_t transaction = 77)
{
    const auto length = static_cast<std::uint32_t>(name.size());
    return be(4, CALL_MAGIC) + be(4, transaction) + be(2, length) + be(2, count) + name + args;
}

inline bytes reply_of(std::uint32_t transaction, std::uint32_t status, std::uint32_t result, const bytes &values = {})
{
    return be(4, REPLY_MAGIC) + be(4, transaction) + be(4, status) + be(4, result) + values;
}

// A caller that speaks the records itself.
struct caller {
    int fd;

    explicit caller(const std::string &path = "rpc/9") : fd(connected_socket(SOCK_SEQPACKET, card_file(path)))
    {
        EXPECT_GE(fd, 0) << path;
    }
    caller(const caller &) = delete;
    caller &operator=(const caller &) = delete;
    ~caller() { close(fd); }

    bool send_record(const bytes &record) const
    {
        return send(fd, record.data(), record.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
               static_cast<ssize_t>(record.size());
    }
    // The next reply; "" when there is none yet, "end" when the connection has been closed.
    bytes receive() const
    {
        bytes record(300'000, '\0');
        const ssize_t length = recv(fd, record.data(), record.size(), MSG_DONTWAIT);
        if (length == 0 || (length < 0 && errno != EAGAIN))
            return "end";
        record.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
        return record;
    }
};

// What the served procedures saw and did.
struct seen_by_procedures {
    unsigned runs;
    std::uint32_t last_value, last_ref;
};
inline seen_by_procedures seen;

inline std::uint32_t proc_sum(const tnrpc_arg *args)
{
    ++seen.runs;
    return args[0].value + args[1].value + args[2].value;
}

inline std::uint32_t proc_ref_low(const tnrpc_arg *args)
{
    ++seen.runs;
    seen.last_ref = *args[0].ref;
    *args[0].ref = (*args[0].ref & 0xFFFF0000u) | 0xBEEFu;
    return 0;
}

inline std::uint32_t proc_ref_whole(const tnrpc_arg *args)
{
    ++seen.runs;
    *args[0].ref = 0xA1B2C3D4u;
    return 0;
}

inline std::uint32_t proc_page(const tnrpc_arg *args)
{
    ++seen.runs;
    const std::uint32_t length = args[0].value;
    auto *data = static_cast<std::byte *>(mtrack_alloc(340, 0, length));
    for (std::uint32_t i = 0; i < length; ++i)
        data[i] = static_cast<std::byte>(i * 7);
    *args[1].block = {length, data};
    *args[2].ref += 1;
    return 5;
}

inline std::uint32_t proc_no_block(const tnrpc_arg *)
{
    ++seen.runs;
    return 1;
}

inline std::uint32_t proc_bounded(const tnrpc_arg *args)
{
    ++seen.runs;
    seen.last_value = args[0].value;
    return 0;
}

constexpr const char *TYPE_NAMES[] = {"PAGES"};

inline int serve(std::uint32_t endpoint)
{
    EXPECT_EQ(mtrack_init("tnrpc_test", 340, TYPE_NAMES, 1), 0);
    const int descriptor = tnrpc_serv_init(endpoint);
    EXPECT_EQ(tnrpc_register("sum", proc_sum, 3, RPC_ARG_SMALL, RPC_ARG_U16, RPC_ARG_U32), 0);
    EXPECT_EQ(tnrpc_register("ref_low", proc_ref_low, 1, RPC_ARG_REF), 0);
    EXPECT_EQ(tnrpc_register("ref_whole", proc_ref_whole, 1, RPC_ARG_REF), 0);
    EXPECT_EQ(tnrpc_register("page", proc_page, 3, RPC_ARG_U32, RPC_ARG_BLOCK, RPC_ARG_REF), 0);
    EXPECT_EQ(tnrpc_register("no_block", proc_no_block, 1, RPC_ARG_BLOCK), 0);
    EXPECT_EQ(tnrpc_register("bounded", proc_bounded, 2, RPC_ARG_U32, RPC_ARG_U16), 0);
    EXPECT_EQ(tnrpc_limit("bounded", 0, 255), 0);
    return descriptor;
}

// A forked process of the platform that waits for its turn: one byte starts its job, one byte from it is its answer.
struct peer_process {
    pid_t pid = -1;
    int control = -1;

    void prepare(void (*job)(int control))
    {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        (void)std::fflush(nullptr); // what waits in a buffer is written by one process only
        pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that is killed leaves no process behind
            close(ends[0]);
            char turn = 0;
            if (recv(ends[1], &turn, 1, 0) == 1)
                job(ends[1]);
            _exit(0);
        }
        close(ends[1]);
        control = ends[0];
    }
    void start() const { ASSERT_EQ(send(control, "g", 1, MSG_NOSIGNAL), 1); }
    bool has_answered() const
    {
        pollfd waited{control, POLLIN, 0};
        return poll(&waited, 1, 0) == 1;
    }
    char answer() const
    {
        char byte = 0;
        return recv(control, &byte, 1, 0) == 1 ? byte : '-';
    }
    void end()
    {
        if (pid < 0)
            return;
        (void)shutdown(control, SHUT_RDWR); // processes forked later hold this end too, so closing alone is not seen
        close(control);
        EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
        pid = -1;
    }
};

inline void answer(int control, bool well)
{
    const char byte = well ? '1' : '0';
    (void)!send(control, &byte, 1, MSG_NOSIGNAL);
}

// Makes the card directory and the waiting processes, before any test uses the platform.
struct card_environment : testing::Environment {
    struct waiting {
        peer_process *process;
        void (*job)(int control);
    };
    std::unique_ptr<card_dir> card;
    std::vector<waiting> processes;

    explicit card_environment(std::vector<waiting> p) : processes(std::move(p)) {}
    void SetUp() override
    {
        card = std::make_unique<card_dir>();
        ASSERT_EQ(setenv("CARD_DIR", card->path.c_str(), 1), 0);
        file_write(card->at("card.conf"), "rpc_timeout_ms = " + std::to_string(TIMEOUT_MS) + "\n");
        for (const waiting &w : processes)
            w.process->prepare(w.job);
    }
    void TearDown() override
    {
        for (const waiting &w : processes)
            w.process->end();
        card.reset();
    }
};
} // namespace harness
