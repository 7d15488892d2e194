// host_tnrpc_client_test.cpp - the calling side of remote procedure calls, against servers written here.
//
// The servers answer as no server of the platform would: late, wrongly, or not at all.
#include "tnrpc.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <thread>
#include <utility>

#include <sys/ioctl.h>
#include <sys/time.h>

#include "host_tnrpc_support.h"

using namespace harness;

namespace
{

// Serves until its control socket closes.
void job_server(int control)
{
    const int descriptor = serve(RESTARTING_ENDPOINT);
    answer(control, descriptor >= 0 && tnrpc_register("restarting", proc_no_block, 0) == 0);
    for (;;) {
        pollfd waited[2] = {{descriptor, POLLIN, 0}, {control, POLLIN, 0}};
        (void)poll(waited, 2, -1);
        if (waited[1].revents != 0)
            return;
        (void)tnrpc_process(descriptor);
    }
}

peer_process first_life, second_life;

const testing::Environment *const environment =
    testing::AddGlobalTestEnvironment(new card_environment({{&first_life, job_server}, {&second_life, job_server}}));

constexpr std::chrono::milliseconds FULL{TIMEOUT_MS * 9 / 10}; // a queue that did not grow for so long is full
constexpr std::chrono::seconds TOO_LONG{10};                   // for one time-out, on a machine however busy

// A signal every 20 ms, until a test ends or for so long that a wait which each of them renews is seen.
class alarms
{
public:
    alarms()
    {
        struct sigaction action {
        };
        action.sa_handler = [](int) {
            count = count + 1;
            if (count == 2 * TOO_LONG / std::chrono::milliseconds(20))
                (void)setitimer(ITIMER_REAL, &NEVER, nullptr);
        };
        count = 0;
        EXPECT_EQ(sigaction(SIGALRM, &action, &usual), 0);
        const itimerval often{{0, 20'000}, {0, 20'000}};
        EXPECT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
    }
    alarms(const alarms &) = delete;
    alarms &operator=(const alarms &) = delete;
    ~alarms()
    {
        EXPECT_EQ(setitimer(ITIMER_REAL, &NEVER, nullptr), 0);
        EXPECT_EQ(sigaction(SIGALRM, &usual, nullptr), 0);
    }

private:
    static constexpr itimerval NEVER{};
    static inline volatile std::sig_atomic_t count = 0;
    struct sigaction usual {
    };
};

// A server written here, at an endpoint of its own, with one procedure's link. Its steps run in a thread.
class tnrpc_client : public testing::Test
{
protected:
    static constexpr const char *NAME = "remote";
    int listener = -1;
    std::thread thread;
    platform_counters_t before{};

    void SetUp() override
    {
        ASSERT_EQ(tnrpc_clnt_init(ENDPOINT), 0);
        before = platform_counters;
    }
    void TearDown() override
    {
        join();
        close_listener();
    }
    void join()
    {
        if (thread.joinable())
            thread.join();
    }
    void close_listener()
    {
        if (listener >= 0)
            close(listener);
        listener = -1;
    }
    void listen_at(std::uint32_t endpoint, int backlog = 8)
    {
        const std::string own = std::to_string(endpoint), link = card_file("rpc/names/") + NAME;
        std::filesystem::remove(link);
        std::filesystem::create_symlink("../" + own, link);
        listener = bound_socket(SOCK_SEQPACKET, card_file("rpc/" + own));
        ASSERT_EQ(listen(listener, backlog), 0);
    }
    void run(std::function<void()> steps) { thread = std::thread(std::move(steps)); }
    bool someone_connects(int timeout_ms) const
    {
        pollfd waited{listener, POLLIN, 0};
        return poll(&waited, 1, timeout_ms) == 1;
    }
    static bytes take(int connection)
    {
        bytes record(5000, '\0');
        const ssize_t length = recv(connection, record.data(), record.size(), 0);
        record.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
        return record;
    }
    static void give(int connection, const bytes &record)
    {
        (void)!send(connection, record.data(), record.size(), MSG_NOSIGNAL);
    }
    std::chrono::nanoseconds wait_for_room();
    std::uint64_t failed() const { return platform_counters.remote_calls_failed - before.remote_calls_failed; }
    std::uint64_t attempted() const { return platform_counters.remote_calls - before.remote_calls; }
};

TEST_F(tnrpc_client, the_record_sent_is_the_call_byte_for_byte)
{
    listen_at(30);
    bytes record;
    run([&] {
        const int c = accept(listener, nullptr, nullptr);
        record = take(c);
        give(c, reply_of(be_at(record, 4), 0, 99, value_of(8, 2, 0xAAAA) + be(2, 9) + be(2, 0) + be(4, 0)));
        close(c);
    });
    std::uint32_t ref = 0x11112222;
    tnrpc_block block{5, nullptr};
    EXPECT_EQ(tnrpc_call(NAME, 5, RPC_ARG_SMALL, 0x2FFu, RPC_ARG_U16, 0x31234u, RPC_ARG_U32, 0x12345678u, RPC_ARG_REF,
                         &ref, 2u, RPC_ARG_BLOCK, &block, 0u),
              99u);
    join();
    EXPECT_EQ(record, call_of(NAME, 5,
                              value_of(0, 1, 0xFF) + value_of(1, 2, 0x1234) + value_of(2, 4, 0x12345678) +
                                  value_of(8, 2, 0x2222) + value_of(9, 0, 0),
                              be_at(record, 4)));
    EXPECT_EQ(ref, 0x1111AAAAu);
    EXPECT_EQ(block.length, 0u);
    EXPECT_EQ(attempted(), 1u);
    EXPECT_EQ(failed(), 0u);
}

TEST_F(tnrpc_client, a_kept_connection_serves_the_next_call)
{
    listen_at(31);
    run([&] {
        const int c = accept(listener, nullptr, nullptr);
        for (std::uint32_t i = 0; i < 3; ++i)
            give(c, reply_of(be_at(take(c), 4), 0, i));
        close(c);
    });
    for (std::uint32_t i = 0; i < 3; ++i)
        EXPECT_EQ(tnrpc_call(NAME, 0), i);
}

TEST_F(tnrpc_client, a_status_other_than_0_fails_the_call_and_keeps_the_connection)
{
    listen_at(32);
    run([&] {
        const int c = accept(listener, nullptr, nullptr);
        for (std::uint32_t status = 1; status <= 3; ++status)
            give(c, reply_of(be_at(take(c), 4), status, 0));
        give(c, reply_of(be_at(take(c), 4), 0, 8));
        close(c);
    });
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(tnrpc_call(NAME, 0), TNRPC_FAILED);
    EXPECT_EQ(tnrpc_call(NAME, 0), 8u);
    EXPECT_EQ(failed(), 3u);
    EXPECT_EQ(attempted(), 4u);
}

TEST_F(tnrpc_client, a_result_of_all_ones_is_no_failure)
{
    listen_at(33);
    run([&] {
        const int c = accept(listener, nullptr, nullptr);
        give(c, reply_of(be_at(take(c), 4), 0, 0xFFFFFFFF));
        close(c);
    });
    EXPECT_EQ(tnrpc_call(NAME, 0), 0xFFFFFFFFu);
    EXPECT_EQ(failed(), 0u);
}

TEST_F(tnrpc_client, a_wrong_reply_fails_the_call_changes_nothing_and_closes_the_connection)
{
    listen_at(34);
    const bytes ref = value_of(8, 4, 0xDEAD), block = be(2, 9) + be(2, 0) + be(4, 4) + "abcd";
    const std::pair<const char *, std::function<bytes(std::uint32_t)>> wrong[] = {
        {"15 bytes", [&](std::uint32_t t) { return reply_of(t, 0, 0, ref + block).substr(0, 15); }},
        {"magic of a call",
         [&](std::uint32_t t) { return be(4, CALL_MAGIC) + reply_of(t, 0, 0, ref + block).substr(4); }},
        {"another transaction", [&](std::uint32_t t) { return reply_of(t - 1, 0, 0, ref + block); }},
        {"no values", [&](std::uint32_t t) { return reply_of(t, 0, 0); }},
        {"a value missing", [&](std::uint32_t t) { return reply_of(t, 0, 0, ref); }},
        {"values in another order", [&](std::uint32_t t) { return reply_of(t, 0, 0, block + ref); }},
        {"another width", [&](std::uint32_t t) { return reply_of(t, 0, 0, value_of(8, 2, 1) + block); }},
        {"another type", [&](std::uint32_t t) { return reply_of(t, 0, 0, value_of(2, 4, 1) + block); }},
        {"reserved word", [&](std::uint32_t t) { return reply_of(t, 0, 0, ref + be(2, 9) + be(2, 1) + be(4, 0)); }},
        {"block cut short", [&](std::uint32_t t) { return reply_of(t, 0, 0, ref + block.substr(0, 11)); }},
        {"a byte over", [&](std::uint32_t t) { return reply_of(t, 0, 0, ref + block + "x"); }},
        {"a refusal with values", [&](std::uint32_t t) { return reply_of(t, 2, 0, ref + block); }},
        {"a refusal with a result", [&](std::uint32_t t) { return reply_of(t, 2, 7); }},
        {"an empty record", [](std::uint32_t) { return bytes(); }},
    };
    for (const auto &entry : wrong) {
        bool closed = false;
        run([&] {
            const int c = accept(listener, nullptr, nullptr);
            give(c, entry.second(be_at(take(c), 4)));
            closed = take(c).empty();
            close(c);
        });
        std::uint32_t value = 5;
        tnrpc_block got{77, nullptr};
        EXPECT_EQ(tnrpc_call(NAME, 2, RPC_ARG_REF, &value, 4u, RPC_ARG_BLOCK, &got, 0u), TNRPC_FAILED) << entry.first;
        join();
        EXPECT_TRUE(closed) << entry.first;
        EXPECT_EQ(value, 5u) << entry.first;
        EXPECT_EQ(got.length, 77u) << entry.first;
    }
    EXPECT_EQ(failed(), std::size(wrong));
}

TEST_F(tnrpc_client, a_late_reply_is_not_taken_for_the_next_calls)
{
    listen_at(35);
    std::atomic<bool> timed_out = false;
    run([&] {
        const int slow = accept(listener, nullptr, nullptr);
        const bytes first = take(slow);
        timed_out.wait(false);
        give(slow, reply_of(be_at(first, 4), 0, 111));
        const int next = accept(listener, nullptr, nullptr);
        give(next, reply_of(be_at(take(next), 4), 0, 222));
        close(next);
        close(slow);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tnrpc_call(NAME, 0), TNRPC_FAILED);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(TIMEOUT_MS));
    EXPECT_LT(waited, TOO_LONG);
    timed_out = true;
    timed_out.notify_one();
    EXPECT_EQ(tnrpc_call(NAME, 0), 222u);
}

TEST_F(tnrpc_client, a_connection_that_the_peer_closed_between_calls_is_opened_again)
{
    listen_at(36);
    std::atomic<bool> closed = false;
    run([&] {
        for (std::uint32_t i = 0; i < 2; ++i) {
            const int c = accept(listener, nullptr, nullptr);
            give(c, reply_of(be_at(take(c), 4), 0, i));
            close(c);
            closed = true;
            closed.notify_one();
        }
    });
    EXPECT_EQ(tnrpc_call(NAME, 0), 0u);
    closed.wait(false);
    EXPECT_EQ(tnrpc_call(NAME, 0), 1u);
    join(); // before what its steps store to goes
    EXPECT_EQ(failed(), 0u);
}

TEST_F(tnrpc_client, a_call_that_may_have_run_is_not_sent_twice)
{
    listen_at(37);
    bool came_again = true;
    run([&] {
        const int c = accept(listener, nullptr, nullptr);
        (void)take(c);
        close(c);
        came_again = someone_connects(100);
    });
    EXPECT_EQ(tnrpc_call(NAME, 0), TNRPC_FAILED);
    join();
    EXPECT_FALSE(came_again);
    EXPECT_EQ(failed(), 1u);
    EXPECT_EQ(attempted(), 1u);
}

TEST_F(tnrpc_client, a_call_without_a_server_fails_at_once)
{
    listen_at(38);
    close_listener();
    const auto fails_at_once = [](const char *name) {
        for (int tries = 0; tries < 5; ++tries) { // a busy machine may hold one up
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(tnrpc_call(name, 0), TNRPC_FAILED);
            if (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(TIMEOUT_MS))
                return true;
        }
        return false;
    };
    EXPECT_TRUE(fails_at_once("never_served"));
    EXPECT_TRUE(fails_at_once("../9"));
    EXPECT_TRUE(fails_at_once(NAME)) << "the socket of a dead server";
    EXPECT_EQ(failed(), attempted());
}

TEST_F(tnrpc_client, the_time_out_covers_the_wait_for_a_place_in_the_servers_queue)
{
    listen_at(39, 0);
    const caller first("rpc/39"); // fills the queue; it is never accepted
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tnrpc_call(NAME, 0), TNRPC_FAILED);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(TIMEOUT_MS));
    EXPECT_LT(waited, TOO_LONG);
}

TEST_F(tnrpc_client, signals_do_not_lengthen_the_time_out)
{
    listen_at(40); // connects, and is never answered
    alarms often;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tnrpc_call(NAME, 0), TNRPC_FAILED);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(TIMEOUT_MS));
    EXPECT_LT(waited, TOO_LONG);
}

// A server that answers calls which it leaves in its queue: sooner or later the queue is full.
// Returns how long the caller waited in the end.
std::chrono::nanoseconds tnrpc_client::wait_for_room()
{
    listen_at(42);
    std::atomic<bool> is_over = false;
    run([&] {
        const int c = accept(listener, nullptr, nullptr);
        const auto unread = [c] {
            int queued = 0;
            (void)ioctl(c, FIONREAD, &queued);
            return queued;
        };
        bytes first(64, '\0');
        (void)recv(c, first.data(), first.size(), MSG_PEEK);
        std::uint32_t transaction = be_at(first, 4);
        int seen_unread = unread();
        give(c, reply_of(transaction++, 0, 0));
        for (;;) {
            const auto since = std::chrono::steady_clock::now();
            while (unread() == seen_unread && std::chrono::steady_clock::now() - since < FULL)
                std::this_thread::yield();
            if (unread() == seen_unread)
                break; // the caller waits for room
            seen_unread = unread();
            give(c, reply_of(transaction++, 0, 0));
        }
        while (unread() > 0)
            (void)take(c);
        is_over.wait(false); // never answered
        close(c);
    });
    auto start = std::chrono::steady_clock::now();
    unsigned answered = 0;
    for (; tnrpc_call(NAME, 0) == 0; ++answered)
        start = std::chrono::steady_clock::now();
    const auto waited = std::chrono::steady_clock::now() - start;
    is_over = true;
    is_over.notify_one();
    join(); // before what its steps look at goes
    close_listener();
    EXPECT_GT(answered, 1u) << "the connection was kept";
    EXPECT_GE(waited, std::chrono::milliseconds(TIMEOUT_MS));
    return waited;
}

TEST_F(tnrpc_client, the_time_out_covers_a_wait_for_room_on_a_kept_connection)
{
    constexpr auto NOT_TWICE = std::chrono::milliseconds(TIMEOUT_MS) + FULL * 3 / 4;
    int tries = 1;
    while (wait_for_room() >= NOT_TWICE && tries < 5) // a busy machine may hold one up
        ++tries;
    EXPECT_LT(tries, 5) << "the whole time again";
}

TEST_F(tnrpc_client, signals_do_not_lengthen_the_time_out_on_a_kept_connection)
{
    listen_at(43);
    std::atomic<bool> is_over = false;
    run([&] {
        const int c = accept(listener, nullptr, nullptr);
        give(c, reply_of(be_at(take(c), 4), 0, 7));
        is_over.wait(false);
        close(c);
    });
    ASSERT_EQ(tnrpc_call(NAME, 0), 7u);
    alarms often;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tnrpc_call(NAME, 0), TNRPC_FAILED);
    const auto waited = std::chrono::steady_clock::now() - start;
    is_over = true;
    is_over.notify_one();
    join(); // before what its steps look at goes
    EXPECT_GE(waited, std::chrono::milliseconds(TIMEOUT_MS));
    EXPECT_LT(waited, TOO_LONG);
}

TEST_F(tnrpc_client, standard_output_is_flushed_before_the_wait)
{
    listen_at(41);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    (void)std::fflush(stdout);
    const int usual = dup(STDOUT_FILENO);
    ASSERT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);
    bytes read_by_then(64, '\0');
    run([&] {
        const int c = accept(listener, nullptr, nullptr);
        const bytes record = take(c);
        pollfd waited{ends[0], POLLIN, 0};
        const ssize_t length = poll(&waited, 1, 0) == 1 ? read(ends[0], read_by_then.data(), read_by_then.size()) : 0;
        read_by_then.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        give(c, reply_of(be_at(record, 4), 0, 0));
        close(c);
    });
    (void)std::fputs("before the call", stdout);
    const std::uint32_t result = tnrpc_call(NAME, 0);
    join();
    (void)std::fflush(stdout);
    ASSERT_EQ(dup2(usual, STDOUT_FILENO), STDOUT_FILENO);
    for (const int fd : {usual, ends[0], ends[1]})
        close(fd);
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(read_by_then, "before the call");
}

TEST_F(tnrpc_client, a_restarted_server_is_found_again)
{
    first_life.start();
    ASSERT_EQ(first_life.answer(), '1');
    EXPECT_EQ(tnrpc_call("restarting", 0), 1u);
    first_life.end();
    EXPECT_EQ(tnrpc_call("restarting", 0), TNRPC_FAILED);
    second_life.start();
    ASSERT_EQ(second_life.answer(), '1');
    EXPECT_EQ(tnrpc_call("restarting", 0), 1u);
    EXPECT_EQ(failed(), 1u);
    second_life.end();
}

} // namespace
