// crash_test.cpp - the daemon is killed at random points of a random run, again and again, and must always come back.
//
// The card's other processes live through it all: an ARP service, an interface manager. CRASH_KILLS says how often
// (./dev crash N); CRASH_SEED gives another run, and stands in every failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "card_peers.h"
#include "daemon.h"
#include "tables.h"

using namespace harness;

namespace
{
constexpr std::uint32_t DEFAULT_KILLS = 8, DEFAULT_SEED = 20261121;
constexpr unsigned CALLS = 200; // under way at most, before the kill

std::uint32_t from_environment(const char *name, std::uint32_t otherwise)
{
    const char *const text = std::getenv(name);
    return text == nullptr ? otherwise : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

struct crash_run {
    card_dir card;
    std::mt19937 random;
    mts_queue manager;
    arp_service arp;
    std::uint64_t newest = 0; // time of the newest record seen
    unsigned in_start = 0, in_calls = 0;

    explicit crash_run(std::uint32_t seed) : random(seed), manager(card, 600), arp(card) { interface_database(card); }
    std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); }
};

// Lets the daemon run for up to `us`; returns at once when it has ended by itself.
void let_run(const daemon_process &daemon, std::uint32_t us)
{
    pollfd end = {daemon.pidfd, POLLIN, 0};
    const timespec limit = {0, static_cast<long>(us) * 1000};
    (void)::ppoll(&end, 1, &limit, nullptr);
}

// Calls without end, until as many replies as wanted have come; the rest is under way when this returns.
void keep_busy(crash_run &run)
{
    const int connection = rpc_connect(run.card, "rpc/9");
    ASSERT_GE(connection, 0);
    const std::uint32_t wanted = run.below(CALLS);
    byte_string reply(65536);
    std::uint32_t sent = 0;
    for (std::uint32_t got = 0; got < wanted;) {
        for (; sent < CALLS && sent < got + 64; ++sent)
            rpc_send(connection, random_call(run.random, sent));
        if (run.below(8) == 0)
            mts_send(run.manager, EVENT_UP + run.below(2), state_payload());
        ASSERT_GT(::recv(connection, reply.data(), reply.size(), 0), 0) << "a reply is missing";
        ++got;
    }
    for (; sent < wanted + 32; ++sent)
        rpc_send(connection, random_call(run.random, sent));
    ::close(connection);
}

// What a life left behind: a history that can be read to its end, with records of that life.
void read_what_is_left(crash_run &run, bool has_served)
{
    const history left = history_read(run.card);
    if (!left.valid) {
        EXPECT_FALSE(has_served) << "the history cannot be read";
        return;
    }
    ASSERT_FALSE(has_served && left.records.empty());
    if (has_served) {
        EXPECT_GT(left.records.back().time, run.newest) << "nothing of the life that was killed";
    }
    if (!left.records.empty())
        run.newest = std::max(run.newest, left.records.back().time);
}

void expect_fresh_tables(const crash_run &run)
{
    EXPECT_EQ(table_difference(memory_words(run.card, "mem/wired"), table_at_start(TABLE_WIRED).words), "");
    for (const char *copy : {"mem/ixp1", "mem/ixp2"})
        EXPECT_EQ(table_difference(memory_words(run.card, copy), table_at_start(TABLE_IXP).words), "") << copy;
}

void one_life(crash_run &run)
{
    daemon_process daemon(run.card);
    const bool serves = run.below(4) != 0;
    if (serves) {
        ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
        expect_fresh_tables(run);
        EXPECT_EQ(daemon_trouble(run.card, run.manager, run.arp), "");
        keep_busy(run);
        ++run.in_calls;
    } else {
        ++run.in_start;
    }
    let_run(daemon, run.below(serves ? 2000 : 40000));
    daemon_signal(daemon, SIGKILL);
    EXPECT_EQ(daemon_exit_status(daemon), 1000 + SIGKILL) << file_text(daemon.err);
    read_what_is_left(run, serves);
}
} // namespace

TEST(crash, the_daemon_that_is_killed_at_any_moment_serves_again_at_its_next_start)
{
    const std::uint32_t kills = from_environment("CRASH_KILLS", DEFAULT_KILLS);
    const std::uint32_t seed = from_environment("CRASH_SEED", DEFAULT_SEED);
    crash_run run(seed);
    for (std::uint32_t i = 0; i < kills; ++i) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", life " + std::to_string(i + 1));
        one_life(run);
        ASSERT_FALSE(HasFatalFailure());
    }
    daemon_process last(run.card, "last");
    ASSERT_EQ(daemon_notification(last), "READY=1") << file_text(last.err);
    expect_fresh_tables(run);
    EXPECT_EQ(daemon_trouble(run.card, run.manager, run.arp), "");
    std::printf("seed %u: %u kills survived, %u in start-up, %u among calls; ARP calls answered by one peer: %u\n",
                seed, kills, run.in_start, run.in_calls, run.arp.served());
}
