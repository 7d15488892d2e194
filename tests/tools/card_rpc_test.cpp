// card_rpc_test.cpp - the asynchronous caller against a server that the test plays, record by record.
#include "card_tool/card_rpc.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include <sys/socket.h>
#include <unistd.h>

#include "daemon.h"

using namespace harness;

namespace
{
constexpr unsigned LONG_MS = 60000, SHORT_MS = 20;
constexpr std::uint32_t REPLY = 0x544E5250; // "TNRP"

// The platform looks for its directory once in a process.
const card_dir &card()
{
    static const card_dir dir;
    static const int set = setenv("CARD_DIR", dir.path.c_str(), 1);
    EXPECT_EQ(set, 0);
    return dir;
}

// A server with one connection, which the test serves when it wants to.
struct played_server : rpc_server {
    explicit played_server(unsigned endpoint) : rpc_server(card(), endpoint, "asked") {}

    void accept_one() { connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); }
    void hang_up()
    {
        ::close(connection);
        connection = -1;
    }
    // The next call that has arrived; empty when there is none.
    byte_string next_call() const
    {
        byte_string record(4096);
        const ssize_t got = ::recv(connection, record.data(), record.size(), MSG_DONTWAIT);
        record.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return record;
    }
    void answer(const byte_string &call, std::uint32_t status, std::uint32_t result, const byte_string &values = {})
    {
        byte_string reply;
        for (const std::uint32_t word : {REPLY, get32(call, 4), status, result})
            put32(reply, word);
        reply.insert(reply.end(), values.begin(), values.end());
        rpc_send(connection, reply);
    }
};

card_rpc_ptr open_caller(unsigned timeout_ms) { return card_rpc_open("asked", timeout_ms); }

// Queues a call that notes how it ended.
void call(card_rpc &rpc, std::vector<card_rpc_reply> &ended, const std::vector<card_rpc_arg> &args = {})
{
    card_rpc_call(rpc, "asked", args, [&ended](const card_rpc_reply &reply) { ended.push_back(reply); });
}
} // namespace

TEST(card_rpc, nobody_there_ends_every_call_as_unreachable)
{
    (void)card();
    const card_rpc_ptr rpc = card_rpc_open("served_by_nobody", LONG_MS);
    std::vector<card_rpc_reply> ended;
    call(*rpc, ended);
    call(*rpc, ended);
    EXPECT_TRUE(ended.empty()) << "a call must not end inside card_rpc_call";
    card_rpc_process(*rpc);
    ASSERT_EQ(ended.size(), 2u);
    EXPECT_EQ(ended[1].end, CARD_RPC_UNREACHABLE);
    EXPECT_EQ(card_rpc_reason(ended[0].end, "asked"), "no process serves asked");
}

TEST(card_rpc, a_socket_whose_owner_is_gone_is_unreachable)
{
    {
        const played_server gone(21);
    }
    const card_rpc_ptr rpc = open_caller(LONG_MS);
    EXPECT_EQ(card_rpc_call_wait(*rpc, "asked", {}).end, CARD_RPC_UNREACHABLE);
}

TEST(card_rpc, no_more_calls_are_outstanding_than_the_window)
{
    played_server server(22);
    const card_rpc_ptr rpc = open_caller(LONG_MS);
    std::vector<card_rpc_reply> ended;
    for (unsigned i = 0; i < CARD_RPC_WINDOW + 10; ++i)
        call(*rpc, ended);
    card_rpc_process(*rpc);
    server.accept_one();
    std::vector<byte_string> arrived;
    for (byte_string record = server.next_call(); !record.empty(); record = server.next_call())
        arrived.push_back(record);
    EXPECT_EQ(arrived.size(), CARD_RPC_WINDOW);
    for (unsigned i = 0; i < 5; ++i)
        server.answer(arrived[i], 0, i);
    card_rpc_process(*rpc);
    ASSERT_EQ(ended.size(), 5u);
    EXPECT_EQ(ended[4].result, 4u);
    EXPECT_EQ(card_rpc_pending(*rpc), CARD_RPC_WINDOW + 5u);
    unsigned more = 0;
    while (!server.next_call().empty())
        ++more;
    EXPECT_EQ(more, 5u) << "an answer makes room for a call";
}

TEST(card_rpc, a_call_is_the_contracts_bytes)
{
    played_server server(23);
    const card_rpc_ptr rpc = open_caller(LONG_MS);
    std::vector<card_rpc_reply> ended;
    call(*rpc, ended, {rpc_small(7), rpc_u16(0x102), rpc_u32(0x01020304), rpc_ref16(9), rpc_ref32(10), rpc_block()});
    card_rpc_process(*rpc);
    server.accept_one();
    const byte_string expected = {
        'T', 'N', 'R', 'Q', 0, 0, 0, 1, 0, 5, 0, 6,  'a', 's', 'k', 'e', 'd', // head and name
        0,   0,   0,   0,   0, 0, 0, 1, 7,                                    // small
        0,   1,   0,   0,   0, 0, 0, 2, 1, 2,                                 // 16 bits
        0,   2,   0,   0,   0, 0, 0, 4, 1, 2, 3, 4,                           // 32 bits
        0,   8,   0,   0,   0, 0, 0, 2, 0, 9,                                 // by reference
        0,   8,   0,   0,   0, 0, 0, 4, 0, 0, 0, 10,                          //
        0,   9,   0,   0,   0, 0, 0, 0,                                       // a block
    };
    EXPECT_EQ(server.next_call(), expected);
}

TEST(card_rpc, references_and_blocks_come_back_in_order)
{
    played_server server(24);
    const card_rpc_ptr rpc = open_caller(LONG_MS);
    std::vector<card_rpc_reply> ended;
    call(*rpc, ended, {rpc_u32(1), rpc_ref16(0), rpc_block(), rpc_ref32(0)});
    card_rpc_process(*rpc);
    server.accept_one();
    server.answer(server.next_call(), 0, 3, {0, 8,   0,   0,   0, 0, 0, 2, 1, 2, 0, 9, 0, 0, 0, 0, 0,
                                             3, 'a', 'b', 'c', 0, 8, 0, 0, 0, 0, 0, 4, 0, 0, 0, 5});
    card_rpc_process(*rpc);
    ASSERT_EQ(ended.size(), 1u);
    EXPECT_TRUE(ended[0].ran());
    EXPECT_EQ(ended[0].result, 3u);
    EXPECT_EQ(ended[0].refs, (std::vector<std::uint32_t>{0x102, 5}));
    ASSERT_EQ(ended[0].blocks.size(), 1u);
    EXPECT_EQ(ended[0].blocks[0], (byte_string{'a', 'b', 'c'}));
}

TEST(card_rpc, each_status_has_its_end)
{
    played_server server(25);
    const card_rpc_ptr rpc = open_caller(LONG_MS);
    std::vector<card_rpc_reply> ended;
    for (unsigned i = 0; i < 4; ++i)
        call(*rpc, ended);
    card_rpc_process(*rpc);
    server.accept_one();
    for (std::uint32_t status = 0; status < 4; ++status)
        server.answer(server.next_call(), status, 0);
    card_rpc_process(*rpc);
    ASSERT_EQ(ended.size(), 4u);
    const card_rpc_end expected[] = {CARD_RPC_RAN, CARD_RPC_NO_PROCEDURE, CARD_RPC_BAD_ARGUMENTS,
                                     CARD_RPC_OUT_OF_RANGE};
    for (unsigned i = 0; i < 4; ++i)
        EXPECT_EQ(ended[i].end, expected[i]) << "status " << i;
}

TEST(card_rpc, a_silent_server_ends_all_calls_at_the_limit)
{
    const played_server server(26);
    const card_rpc_ptr rpc = open_caller(SHORT_MS);
    std::vector<card_rpc_reply> ended;
    call(*rpc, ended);
    call(*rpc, ended);
    card_rpc_wait(*rpc, 1);
    ASSERT_EQ(ended.size(), 2u);
    EXPECT_EQ(ended[0].end, CARD_RPC_TIMED_OUT);
    EXPECT_EQ(ended[1].end, CARD_RPC_TIMED_OUT);
    EXPECT_EQ(card_rpc_fd(*rpc), -1) << "a late answer must find no connection";
}

TEST(card_rpc, an_end_loses_what_was_sent_and_the_rest_goes_over_the_next_connection)
{
    played_server server(27);
    const card_rpc_ptr rpc = open_caller(LONG_MS);
    std::vector<card_rpc_reply> ended;
    call(*rpc, ended);
    card_rpc_process(*rpc);
    server.accept_one();
    server.answer(server.next_call(), 0, 0);
    card_rpc_process(*rpc);
    for (unsigned i = 0; i < CARD_RPC_WINDOW + 1; ++i)
        call(*rpc, ended);
    card_rpc_process(*rpc); // all but one are sent
    server.hang_up();
    card_rpc_process(*rpc);
    ASSERT_EQ(ended.size(), CARD_RPC_WINDOW + 1u);
    EXPECT_EQ(ended[1].end, CARD_RPC_LOST);
    EXPECT_EQ(ended[CARD_RPC_WINDOW].end, CARD_RPC_LOST);
    server.accept_one();
    const byte_string last = server.next_call();
    ASSERT_FALSE(last.empty());
    EXPECT_EQ(get32(last, 4), CARD_RPC_WINDOW + 2u) << "only the call that was never sent";
    server.answer(last, 0, 77);
    card_rpc_process(*rpc);
    EXPECT_EQ(ended.back().result, 77u);
}

TEST(card_rpc, an_idle_connection_that_ended_is_opened_again)
{
    played_server server(28);
    const card_rpc_ptr rpc = open_caller(LONG_MS);
    std::vector<card_rpc_reply> ended;
    for (std::uint32_t round = 0; round < 2; ++round) {
        call(*rpc, ended);
        card_rpc_process(*rpc);
        server.accept_one();
        server.answer(server.next_call(), 0, round);
        card_rpc_process(*rpc);
        server.hang_up();
    }
    ASSERT_EQ(ended.size(), 2u);
    EXPECT_TRUE(ended[1].ran());
    EXPECT_EQ(ended[1].result, 1u);
}

TEST(card_rpc, an_answer_to_another_call_is_believed_by_none)
{
    played_server server(29);
    const card_rpc_ptr rpc = open_caller(LONG_MS);
    std::vector<card_rpc_reply> ended;
    call(*rpc, ended);
    call(*rpc, ended);
    card_rpc_process(*rpc);
    server.accept_one();
    (void)server.next_call();
    server.answer(server.next_call(), 0, 0); // the second first
    card_rpc_process(*rpc);
    ASSERT_EQ(ended.size(), 2u);
    EXPECT_EQ(ended[0].end, CARD_RPC_GARBLED);
    EXPECT_EQ(ended[1].end, CARD_RPC_LOST);
}

TEST(card_rpc, an_answer_of_another_form_is_none)
{
    played_server server(30);
    const byte_string wrong[] = {
        {0},                                          // bytes over
        {0, 8, 0, 0, 0, 0, 0, 4, 0, 0, 0},            // a value cut short
        {0, 8, 0, 0, 0, 0, 0, 2, 0, 0},               // of another length
        {0, 9, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0},         // of another type
        {0, 8, 0, 0, 0, 0, 0, 4, 0, 0, 0, 1, 1},      // one byte behind it
        {0, 8, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0} // a length that is no one's
    };
    for (const byte_string &values : wrong) {
        const card_rpc_ptr rpc = open_caller(LONG_MS);
        std::vector<card_rpc_reply> ended;
        call(*rpc, ended, {rpc_ref32(0)});
        card_rpc_process(*rpc);
        server.accept_one();
        server.answer(server.next_call(), 0, 0, values);
        card_rpc_process(*rpc);
        ASSERT_EQ(ended.size(), 1u);
        EXPECT_EQ(ended[0].end, CARD_RPC_GARBLED);
        EXPECT_TRUE(ended[0].refs.empty() || ended[0].end != CARD_RPC_RAN);
        server.hang_up();
    }
}

TEST(card_rpc, a_server_that_turns_callers_away_ends_the_calls)
{
    played_server server(31);
    const card_rpc_ptr rpc = open_caller(LONG_MS);
    std::vector<card_rpc_reply> ended;
    card_rpc_call(*rpc, "asked", {}, [&ended](const card_rpc_reply &reply) { ended.push_back(reply); });
    card_rpc_process(*rpc);
    server.accept_one();
    server.hang_up();
    card_rpc_process(*rpc);
    ASSERT_EQ(ended.size(), 1u);
    EXPECT_EQ(ended[0].end, CARD_RPC_LOST);
    EXPECT_EQ(card_rpc_timeout_ms(*rpc), -1) << "nothing is waited for";
}

TEST(card_rpc, the_end_of_a_call_may_queue_the_next)
{
    played_server server(32);
    const card_rpc_ptr rpc = open_caller(LONG_MS);
    unsigned ends = 0;
    const card_rpc_done again = [&](const card_rpc_reply &) {
        if (++ends < 3)
            card_rpc_call(*rpc, "asked", {}, [&](const card_rpc_reply &) { ++ends; });
    };
    card_rpc_call(*rpc, "asked", {}, again);
    card_rpc_process(*rpc);
    server.accept_one();
    server.answer(server.next_call(), 0, 0);
    card_rpc_process(*rpc); // ends the first, which queues another
    EXPECT_EQ(ends, 1u);
    card_rpc_process(*rpc);
    server.answer(server.next_call(), 0, 0);
    card_rpc_process(*rpc);
    EXPECT_EQ(ends, 2u);
    EXPECT_EQ(card_rpc_pending(*rpc), 0u);
}
