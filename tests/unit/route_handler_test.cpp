// route_handler_test.cpp - one pass of the event loop after the other, with its descriptors in every state.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>

#include "fake_card.h"
#include "route_handler.h"
#include "route_log.h"
#include "route_mts.h"
#include "route_rpc_serv.h"

using namespace harness;

namespace
{

using strings = std::vector<std::string>;

// The descriptors of a started process and the loop's poll set over them.
struct loop {
    pollfd set[2];
    loop()
    {
        const mts_bind_options options{{1, 0, 1024, 0, 0}};
        (void)norvik_route_tnrpc_serv();
        route_mts_q = mts_bind(4, 514, &options, "Route Manager");
        set[0] = {route_mts_q, POLLIN, 0};
        set[1] = {rpcfd, POLLIN, 0};
        the_card().forget();
    }
    void pass() { norvik_route_handler_pass(set); }
};

const std::string WAITING = "106 <Ctx:0>\nmain: Waiting for MTS messages ...\n";
const std::string POLLED = "poll q:1 rpc:1 60000";

std::string ready(int n) { return "105 <Ctx:0>" + std::to_string(n) + " file descriptors ready\n"; }
fake_poll_result polled(int n, short queue, short rpc) { return {n, 0, {queue, rpc}}; }

} // namespace

TEST(route_handler, with_nothing_arriving_for_a_minute_the_pass_logs_no_descriptor_ready_and_does_nothing_else)
{
    fake_card card;
    loop l;
    l.pass();
    EXPECT_EQ(card.lines(), (strings{WAITING, ready(0)}));
    EXPECT_EQ(card.calls, strings{POLLED});
}

TEST(route_handler, a_ready_call_is_served_before_one_ready_message)
{
    fake_card card;
    loop l;
    card.post(MTS_OPC_DEBUG_REQUEST);
    card.post(MTS_OPC_DEBUG_REQUEST);
    card.post_call("no_such_procedure", {});
    l.pass();
    EXPECT_EQ(card.calls, (strings{POLLED, "tnrpc_process rpc", "mts_recv q [1 0 0 0 0 0]", "sdwrap_process_msg q 1530",
                                   "mts_drop q 1530"}));
    EXPECT_EQ(card.lines(), (strings{WAITING, ready(2), "105 <Ctx:0>Got TNRPC.\n", "105 <Ctx:0>Got MTS message.\n",
                                     "102 <Ctx:0>SDWRAP MTS message processed.\n"}));
    EXPECT_EQ(card.queue.size(), 1u) << "one message a pass";
}

TEST(route_handler, the_third_word_of_the_receive_options_is_cleared_before_each_receive)
{
    fake_card card;
    loop l;
    card.mts_recv_leaves = 7;
    for (int pass = 0; pass < 3; ++pass) {
        card.post(MTS_OPC_DEBUG_REQUEST);
        l.pass();
    }
    EXPECT_EQ(card.calls_of("mts_recv"), strings(3, "mts_recv q [1 0 0 0 0 0]"));
}

TEST(route_handler, one_call_is_served_a_pass)
{
    fake_card card;
    loop l;
    card.post_call("no_such_procedure", {});
    card.post_call("no_such_procedure", {});
    l.pass();
    EXPECT_EQ(card.rpc_queue.size(), 1u);
    l.pass();
    EXPECT_EQ(card.rpc_queue.size(), 0u);
    l.pass();
    EXPECT_EQ(card.calls, (strings{POLLED, "tnrpc_process rpc", POLLED, "tnrpc_process rpc", POLLED}));
}

TEST(route_handler, a_message_that_the_platform_handles_is_released)
{
    fake_card card;
    loop l;
    card.post(MTS_OPC_DEBUG_REQUEST);
    l.pass();
    EXPECT_EQ(card.calls_of("mts_drop"), strings{"mts_drop q 1530"});
    EXPECT_TRUE(card.has_line(ROUTE_DBG_MTS, "<Ctx:0>SDWRAP MTS message processed.\n"));
}

TEST(route_handler, a_message_that_the_platform_declines_is_processed_as_an_event_and_then_released)
{
    fake_card card;
    loop l;
    card.post(9999);
    card.log_in_calls = true;
    l.pass();
    EXPECT_EQ(card.calls_of("mts_recv").size(), 1u);
    ASSERT_GE(card.calls.size(), 3u);
    EXPECT_EQ(
        strings(card.calls.end() - 3, card.calls.end()),
        (strings{"sdwrap_process_msg q 9999", "log 106 <Ctx:0>Ignoring Message: MTS_OPC_9999\n", "mts_drop q 9999"}));
    EXPECT_TRUE(card.texts(ROUTE_DBG_MTS).empty()) << "no processed line";
}

TEST(route_handler, a_message_that_the_platform_handles_is_not_processed_again)
{
    fake_card card;
    loop l;
    card.post(MTS_OPC_DEBUG_REQUEST);
    l.pass();
    EXPECT_EQ(card.texts(ROUTE_DBG_MAIN_LOOP), strings{"<Ctx:0>\nmain: Waiting for MTS messages ...\n"});
}

TEST(route_handler, an_interface_event_brings_its_routes_before_its_message_is_released)
{
    fake_card card;
    ASSERT_EQ(card.start_tables(), 0);
    loop l;
    card.post(MTS_OPC_NORVIK_IF_UP, state_payload());
    l.pass();
    EXPECT_EQ(card.calls.back(), "mts_drop q 4065");
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 4u);
    ASSERT_EQ(card.sent.size(), 1u);
    EXPECT_EQ(card.sent[0].opcode, MTS_OPC_ROUTE_IF_ADDED);
}

TEST(route_handler, a_queue_that_is_readable_and_more_is_left_for_a_later_pass)
{
    fake_card card;
    loop l;
    card.post(MTS_OPC_DEBUG_REQUEST);
    card.polls.push_back(polled(1, POLLIN | POLLPRI, 0));
    l.pass();
    EXPECT_EQ(card.calls, strings{POLLED});
    EXPECT_EQ(card.lines(), (strings{WAITING, ready(1)}));
    l.pass();
    EXPECT_EQ(card.calls_of("mts_recv").size(), 1u);
}

TEST(route_handler, a_call_descriptor_that_is_readable_and_more_is_served)
{
    fake_card card;
    loop l;
    card.polls.push_back(polled(1, 0, POLLIN | POLLPRI));
    l.pass();
    EXPECT_EQ(card.calls, (strings{POLLED, "tnrpc_process rpc"}));
}

TEST(route_handler, a_failed_receive_is_logged_and_nothing_is_released)
{
    fake_card card;
    loop l;
    card.post(MTS_OPC_DEBUG_REQUEST);
    card.mts_recv_result = -5;
    l.pass();
    EXPECT_EQ(card.calls, (strings{POLLED, "mts_recv q [1 0 0 0 0 0]"}));
    EXPECT_EQ(card.lines(), (strings{WAITING, ready(1), "105 <Ctx:0>Got MTS message.\n",
                                     "106 <Ctx:0>main: couldn't receive MTS message. retval = -5\n"}));
}

TEST(route_handler, an_error_on_the_call_descriptor_is_logged_and_the_message_is_still_served)
{
    for (const short error : {short{POLLERR}, short{POLLHUP}, short{POLLNVAL}}) {
        fake_card card;
        loop l;
        card.post(MTS_OPC_DEBUG_REQUEST);
        card.polls.push_back(polled(2, POLLIN, static_cast<short>(POLLIN | error)));
        l.pass();
        EXPECT_EQ(card.lines(),
                  (strings{WAITING, ready(2), "100 <Ctx:0>poll error on RPC: \n", "105 <Ctx:0>Got MTS message.\n",
                           "102 <Ctx:0>SDWRAP MTS message processed.\n"}))
            << "error " << error;
        EXPECT_TRUE(card.calls_of("tnrpc_process").empty());
    }
}

TEST(route_handler, an_error_on_the_queue_is_logged_with_the_same_words_and_nothing_is_received)
{
    for (const short error : {short{POLLERR}, short{POLLHUP}, short{POLLNVAL}}) {
        fake_card card;
        loop l;
        card.post(MTS_OPC_DEBUG_REQUEST);
        card.polls.push_back(polled(2, static_cast<short>(POLLIN | error), POLLIN));
        l.pass();
        EXPECT_EQ(card.lines(),
                  (strings{WAITING, ready(2), "105 <Ctx:0>Got TNRPC.\n", "100 <Ctx:0>poll error on RPC: \n"}))
            << "error " << error;
        EXPECT_TRUE(card.calls_of("mts_recv").empty());
    }
}

TEST(route_handler, a_descriptor_that_is_closed_is_logged_in_each_pass)
{
    fake_card card;
    loop l;
    l.set[1].fd = 1 << 20; // no such descriptor: the kernel answers POLLNVAL
    l.pass();
    l.pass();
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), (strings{"<Ctx:0>poll error on RPC: \n", "<Ctx:0>poll error on RPC: \n"}));
}

TEST(route_handler, a_poll_that_ends_with_timer_expired_is_a_time_out_line)
{
    fake_card card;
    loop l;
    card.polls.push_back({-1, ETIME, {0, 0}});
    l.pass();
    EXPECT_EQ(card.lines(), (strings{WAITING, "105 <Ctx:0>main: poll timeout: \n"}));
    EXPECT_EQ(card.calls, strings{POLLED});
}

TEST(route_handler, a_poll_that_fails_otherwise_is_an_error_line_with_the_systems_text)
{
    fake_card card;
    loop l;
    card.polls.push_back({-1, EINTR, {0, 0}});
    l.pass();
    EXPECT_EQ(card.lines(), (strings{WAITING, "100 <Ctx:0>main: couldn't poll: Interrupted system call\n"}));
    EXPECT_EQ(card.calls, strings{POLLED});
}

TEST(route_handler, the_set_keeps_its_descriptors_while_a_receive_reads_the_queue_afresh)
{
    fake_card card;
    loop l;
    card.post(MTS_OPC_DEBUG_REQUEST);
    route_mts_q = 12345;
    rpcfd = 54321;
    card.post_call("no_such_procedure", {});
    l.pass();
    EXPECT_EQ(card.calls, (strings{POLLED, "tnrpc_process rpc", "mts_recv 12345 [1 0 0 0 0 0]",
                                   "sdwrap_process_msg 12345 1530", "mts_drop 12345 1530"}));
}

TEST(route_handler, the_loop_polls_the_queue_and_then_the_calls_until_a_signal_ends_the_process)
{
    fake_card card;
    const fake_child_result child = run_in_child([&card] {
        loop l;
        unsigned passes = 0;
        card.on_call = [&passes](const std::string &entry) {
            if (entry == POLLED && ++passes == 3)
                raise(SIGTERM);
        };
        card.log_in_calls = false;
        norvik_route_handler();
        std::exit(9); // the loop came back
    });
    EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGTERM) << "status " << child.status;
}
