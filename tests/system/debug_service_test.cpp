// debug_service_test.cpp - what the daemon answers to an operator's requests over its message queue.

#include <gtest/gtest.h>

#include <algorithm>

#include <unistd.h>

#include "daemon.h"
#include "serving_card.h"

using namespace harness;

namespace
{
class daemon_debug_service : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
        connection = rpc_connect(card, "rpc/9");
        ASSERT_GE(connection, 0);
    }
    void TearDown() override { ::close(connection); }

    // A removal that finds nothing: one line of category 100 and nothing else, under context `ctx`.
    void fail_a_removal(std::uint32_t ctx) const
    {
        EXPECT_EQ(rpc_call(connection, "rib_remove_route",
                           {arg16(ctx), arg32(ctx), arg32(0x0B000000), arg32(0xFF000000), arg32(1)})
                      .result,
                  1u);
    }
    void settle() const { EXPECT_NE(debug_answer(queue, 5), ""); } // all requests before it have had their effect

    const card_dir card;
    daemon_process daemon{card};
    const mts_queue queue{card, 1024};
    int connection = -1;
};

// The answer to verb 6.
std::string routes_from(const serving_card &card, std::uint32_t context, std::uint32_t first)
{
    debug_request(card.queue, 6, 0, context, first);
    return mts_receive(card.queue).payload;
}
} // namespace

TEST_F(daemon_debug_service, answers_memory_tracking_with_a_line_a_type)
{
    // 256 trees with their tables, three pools, one drop entry a context; blocks, bytes and peak.
    EXPECT_EQ(debug_answer(queue, 3), "0 MTRACK_ROUTE_TABLE 256 1047552 1047552\n"
                                      "1 MTRACK_PREFIX_TREE 256 1062912 1062912\n"
                                      "2 MTRACK_PREFIX_MGR 1 84 84\n"
                                      "3 MTRACK_PREFIX_MGR_TREES 1 1024 1024\n"
                                      "4 MTRACK_CP_POOL 3 1107968 1107968\n"
                                      "5 MTRACK_ROUTE_TREE_DISPLAY 0 0 0\n"
                                      "6 MTRACK_ROUTE_TABLE_DISPLAY 0 0 0\n"
                                      "7 MTRACK_CLI_ROUTE 0 0 0\n"
                                      "8 MTRACK_FIB_DISPLAY 0 0 0\n"
                                      "9 MTRACK_ROUTE_ENTRY_1 256 9216 9216\n"
                                      "10 MTRACK_ROUTE_ENTRY_2 0 0 0\n"
                                      "11 MTRACK_ROUTE_ENTRY_3 0 0 0\n");
}

TEST_F(daemon_debug_service, answers_all_counters_in_their_order)
{
    fail_a_removal(1);
    EXPECT_EQ(rpc_call(connection, "no_such_procedure", {}).status, 1u);
    const std::string answer = debug_answer(queue, 5);
    const char *const names[] = {"calls_served",  "calls_refused",       "calls_malformed",     "replies_dropped",
                                 "connections",   "connections_refused", "messages_received",   "messages_malformed",
                                 "messages_lost", "remote_calls",        "remote_calls_failed", "scp_sent",
                                 "scp_failed",    "route_cache_flushes", "history_records",     "interface_reads_torn"};
    std::size_t at = 0;
    for (const char *name : names) {
        EXPECT_EQ(answer.compare(at, std::string(name).size() + 1, std::string(name) + " "), 0) << name << "\n"
                                                                                                << answer;
        at = answer.find('\n', at) + 1;
    }
    EXPECT_EQ(at, answer.size());
    EXPECT_EQ(counter_value(answer, "calls_served"), 1u);
    EXPECT_EQ(counter_value(answer, "calls_refused"), 1u);
    EXPECT_EQ(counter_value(answer, "connections"), 1u);
    EXPECT_EQ(counter_value(answer, "messages_received"), 1u);
    EXPECT_EQ(counter_value(answer, "route_cache_flushes"), 0u);
}

TEST_F(daemon_debug_service, switches_the_history_of_a_category)
{
    debug_request(queue, 2, 100, 0, 0);
    settle();
    fail_a_removal(1);
    EXPECT_FALSE(history_has(history_read(card), 100, "<Ctx:1>could not find static route for ip=b000000/8"));
    debug_request(queue, 2, 100, 0, 1);
    settle();
    fail_a_removal(2);
    EXPECT_TRUE(history_has(history_read(card), 100, "<Ctx:2>could not find static route for ip=b000000/8"));
}

TEST_F(daemon_debug_service, switches_the_debug_output_of_a_category_for_one_context)
{
    debug_request(queue, 1, 100, 7, 1);
    settle();
    fail_a_removal(6);
    fail_a_removal(7);
    settle();
    const std::string err = file_text(daemon.err);
    EXPECT_EQ(err.find("ROUTE Mgr ctx 6: "), std::string::npos) << err;
    EXPECT_NE(err.find("Z ROUTE Mgr ctx 7: could not find static route for ip=b000000/8\n"), std::string::npos) << err;

    debug_request(queue, 1, 100, 0xFFFFFFFF, 0);
    settle();
    fail_a_removal(7);
    settle();
    EXPECT_EQ(file_text(daemon.err), err);
}

TEST_F(daemon_debug_service, lets_bad_requests_pass_without_effect_or_answer)
{
    byte_string short_request;
    put32(short_request, 3);
    mts_send(queue, 1530, short_request);
    debug_request(queue, 99, 0, 0, 0);
    debug_request(queue, 2, 99, 0, 0);
    debug_request(queue, 2, 112, 0, 0);
    mts_send_raw(queue, byte_string(8, 0x20));
    const std::string answer = debug_answer(queue, 5); // the first answer that comes is this one
    EXPECT_EQ(counter_value(answer, "messages_malformed"), 1u) << answer;
    fail_a_removal(4);
    EXPECT_TRUE(history_has(history_read(card), 100, "<Ctx:4>could not find static route for ip=b000000/8"));
}

TEST_F(daemon_debug_service, drops_an_interface_event_and_serves_on)
{
    mts_send(queue, 4065, byte_string(48, 0));
    mts_send(queue, 4242, {});
    EXPECT_EQ(counter_value(debug_answer(queue, 5), "messages_received"), 3u);
}

TEST_F(daemon_debug_service, memory_of_a_static_route_is_counted_until_it_is_removed)
{
    const std::vector<rpc_arg> route = {arg16(3), arg32(3), arg32(0x0A140000), arg32(0xFFFF0000), arg32(0x0A010102)};
    EXPECT_EQ(rpc_call(connection, "rib_add_route", route).result, 0u);
    EXPECT_NE(debug_answer(queue, 3).find("\n11 MTRACK_ROUTE_ENTRY_3 1 36 36\n"), std::string::npos);
    EXPECT_EQ(rpc_call(connection, "rib_remove_route", route).result, 0u);
    EXPECT_NE(debug_answer(queue, 3).find("\n11 MTRACK_ROUTE_ENTRY_3 0 0 36\n"), std::string::npos);
    EXPECT_EQ(counter_value(debug_answer(queue, 5), "route_cache_flushes"), 1u);
}

TEST(debug_service_routes, are_what_an_operator_gave_in_the_tables_order_with_their_state)
{
    const serving_card card;
    ASSERT_TRUE(card.ready);
    EXPECT_EQ(routes_from(card, CTX, 0), "end\n") << "an interface's own routes are not an operator's";
    EXPECT_EQ(card.result(call_host_add(GATEWAY, ENCAP)), 0u);
    EXPECT_EQ(card.result(call_route_add(IP(20, 1, 0, 0), MASK16, GATEWAY)), 0u);
    EXPECT_EQ(card.result(call_route_add(IP(20, 1, 0, 0), MASK16, IP(10, 1, 0, 77))), 0u);
    EXPECT_EQ(card.result(call_route_add(IP(20, 0, 0, 0), MASK8, IP(10, 9, 9, 9))), 0u);
    EXPECT_EQ(card.result(call_route_add(0, 0, GATEWAY)), 0u);
    EXPECT_EQ(card.result(call_pool_add(IP(30, 0, 0, 4), 4, 9)), 0u);
    EXPECT_EQ(card.result(call_pool_add(IP(31, 0, 0, 1), 1, 8, 77)), 0u);
    EXPECT_EQ(routes_from(card, CTX, 0), "0.0.0.0/0 10.1.0.9 3 installed\n"
                                         "20.0.0.0/8 10.9.9.9 3 waiting\n"
                                         "20.1.0.0/16 10.1.0.9 3 installed\n"
                                         "20.1.0.0/16 10.1.0.77 3 waiting\n"
                                         "30.0.0.4/30 nat 5 9 installed\n"
                                         "31.0.0.1/32 nat 77 8 waiting\n"
                                         "end\n");
    EXPECT_EQ(routes_from(card, CTX, 4), "30.0.0.4/30 nat 5 9 installed\n31.0.0.1/32 nat 77 8 waiting\nend\n");
    EXPECT_EQ(routes_from(card, CTX, 6), "end\n");
    EXPECT_EQ(routes_from(card, CTX + 1, 0), "end\n");
    EXPECT_EQ(routes_from(card, 256, 0), "end\n");
    EXPECT_EQ(routes_from(card, 0xFFFFFFFF, 0), "end\n");
}

TEST(debug_service_routes, that_one_answer_cannot_hold_go_on_at_the_number_it_names)
{
    const serving_card card;
    ASSERT_TRUE(card.ready);
    constexpr std::uint32_t ROUTES = 100;
    for (std::uint32_t i = 0; i < ROUTES; ++i)
        ASSERT_EQ(card.result(call_route_add(IP(100, 100, 100 + i, 0), MASK24, IP(100, 100, 1, 100 + i))), 0u);
    std::uint32_t next = 0, lines = 0, answers = 0;
    for (bool is_end = false; !is_end; ++answers) {
        const std::string text = routes_from(card, CTX, next);
        ASSERT_LE(text.size(), 1024u);
        const auto newlines = static_cast<std::uint32_t>(std::count(text.begin(), text.end(), '\n'));
        ASSERT_GT(newlines, 1u) << text;
        lines += newlines - 1;
        is_end = text.ends_with("\nend\n");
        ASSERT_TRUE(is_end || text.ends_with("\nmore " + std::to_string(lines) + "\n")) << text;
        next = lines;
    }
    EXPECT_EQ(lines, ROUTES);
    EXPECT_EQ(answers, 5u) << "a line has 41 or 42 bytes, an answer 1024";
}
