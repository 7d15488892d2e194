// rpc_test.cpp - what a caller of the remote procedures gets: answers, refusals, and the end of a bad connection.

#include <gtest/gtest.h>

#include <unistd.h>

#include "daemon.h"

using namespace harness;

namespace
{
class daemon_rpc : public testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err); }

    const card_dir card;
    daemon_process daemon{card};
};

const std::vector<rpc_arg> IS_FULL = {arg16(3), arg32(3), arg32(0x0A000000), arg32(0xFF000000)};

// A refusal is 16 bytes: the header with result 0 and nothing behind.
void expect_refused(const rpc_reply &reply, std::uint32_t status, const char *what)
{
    EXPECT_TRUE(reply.arrived) << what;
    EXPECT_EQ(reply.status, status) << what;
    EXPECT_EQ(reply.result, 0u) << what;
    EXPECT_EQ(reply.record.size(), 16u) << what;
}
} // namespace

TEST_F(daemon_rpc, answers_a_name_that_is_not_served_with_status_1)
{
    const rpc_client client(card);
    for (const char *name :
         {"no_such_procedure", "rib_add_rout", "rib_add_route2", "RIB_ADD_ROUTE", "route_print_debug"})
        expect_refused(rpc_call(client.fd, name, {}), 1, name);
    expect_refused(rpc_call(client.fd, std::string(63, 'x'), {}), 1, "the longest name");
}

TEST_F(daemon_rpc, answers_arguments_that_are_not_the_procedures_with_status_2)
{
    const rpc_client client(card);
    std::vector<rpc_arg> args = IS_FULL;
    args.pop_back();
    expect_refused(rpc_call(client.fd, "rib_max_ecmp_route", args), 2, "one argument missing");
    args = IS_FULL;
    args.push_back(arg32(0));
    expect_refused(rpc_call(client.fd, "rib_max_ecmp_route", args), 2, "one argument too many");
    args = IS_FULL;
    args[0] = arg32(3);
    expect_refused(rpc_call(client.fd, "rib_max_ecmp_route", args), 2, "another type code");
    args = IS_FULL;
    args[1].bytes.pop_back();
    expect_refused(rpc_call(client.fd, "rib_max_ecmp_route", args), 2, "a wrong length");
    byte_string record = rpc_record(7, "rib_max_ecmp_route", IS_FULL);
    record.push_back(0);
    rpc_send(client.fd, record);
    expect_refused(rpc_receive(client.fd), 2, "a byte over");
    record.resize(record.size() - 2);
    rpc_send(client.fd, record);
    expect_refused(rpc_receive(client.fd), 2, "a byte missing");
    record = rpc_record(8, "rib_max_ecmp_route", IS_FULL);
    record[12 + 18 + 3] = 1; // the reserved half word of the first argument
    rpc_send(client.fd, record);
    expect_refused(rpc_receive(client.fd), 2, "a reserved word that is not 0");
    expect_refused(rpc_call(client.fd, "", IS_FULL), 2, "an unreadable name");
    EXPECT_EQ(rpc_call(client.fd, "rib_max_ecmp_route", IS_FULL).status, 0u);
}

TEST_F(daemon_rpc, answers_a_context_route_id_or_root_over_255_with_status_3_judged_over_its_whole_width)
{
    const rpc_client client(card);
    const rpc_arg address = arg32(0x0A000000), mask = arg32(0xFF000000), hop = arg32(0x0A000001);
    for (const std::uint32_t bad : {256u, 0x8000u, 0xFFFFu}) {
        expect_refused(rpc_call(client.fd, "rib_max_ecmp_route", {arg16(bad), arg32(0), address, mask}), 3, "context");
        expect_refused(rpc_call(client.fd, "rib_add_route", {arg16(bad), arg32(0), address, mask, hop}), 3, "context");
    }
    for (const std::uint32_t bad : {256u, 0x10005u, 0x80000000u, 0xFFFFFFFFu}) {
        expect_refused(rpc_call(client.fd, "rib_max_ecmp_route", {arg16(5), arg32(bad), address, mask}), 3, "route id");
        expect_refused(rpc_call(client.fd, "rib_add_route", {arg16(5), arg32(bad), address, mask, hop}), 3, "route id");
        expect_refused(rpc_call(client.fd, "rib_remove_route", {arg16(5), arg32(bad), address, mask, hop}), 3,
                       "route id");
        expect_refused(rpc_call(client.fd, "mtrie_lookup_exact_stub", {arg32(bad), address, mask, arg_ref(0)}), 3,
                       "route id");
        expect_refused(rpc_call(client.fd, "arp_prefix_mgr_add_route",
                                {arg16(1), address, arg32(32), arg16(1), arg16(5), arg32(bad)}),
                       3, "context");
        expect_refused(rpc_call(client.fd, "arp_prefix_mgr_remove_route",
                                {arg16(1), address, arg32(32), arg32(0), arg16(1), arg16(5), arg32(bad)}),
                       3, "context");
    }
    EXPECT_EQ(rpc_call(client.fd, "rib_max_ecmp_route", {arg16(255), arg32(255), address, mask}).status, 0u);
}

TEST_F(daemon_rpc, gives_the_by_reference_value_back_behind_the_result)
{
    const rpc_client client(card);
    // The drop entry of every context has interface 0: the word comes back changed.
    const rpc_reply found = rpc_call(client.fd, "mtrie_lookup_exact_stub",
                                     {arg32(200), arg32(0xE0000000), arg32(0xE0000000), arg_ref(0x12345678)});
    EXPECT_EQ(found.status, 0u);
    EXPECT_EQ(found.result, 0u);
    const byte_string value = {0, 8, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0};
    ASSERT_EQ(found.record.size(), 16 + value.size());
    EXPECT_EQ(byte_string(found.record.begin() + 16, found.record.end()), value);

    const rpc_reply missing = rpc_call(client.fd, "mtrie_lookup_exact_stub",
                                       {arg32(200), arg32(0x0A000000), arg32(0xFF000000), arg_ref(0x12345678)});
    EXPECT_EQ(missing.result, 1u);
    EXPECT_EQ(get32(missing.record, 24), 0x12345678u);
}

TEST_F(daemon_rpc, answers_the_calls_of_a_connection_in_their_order)
{
    const rpc_client client(card);
    for (std::uint32_t i = 0; i < 128; ++i)
        rpc_send(client.fd, rpc_record(i, i % 2 == 0 ? "rib_max_ecmp_route" : "nothing_of_the_kind", IS_FULL));
    for (std::uint32_t i = 0; i < 128; ++i) {
        const rpc_reply reply = rpc_receive(client.fd);
        ASSERT_TRUE(reply.arrived) << i;
        EXPECT_EQ(reply.transaction, i);
        EXPECT_EQ(reply.status, i % 2);
    }
}

TEST_F(daemon_rpc, ends_the_connection_of_a_record_that_is_no_call_and_no_other)
{
    const rpc_client good(card);
    const byte_string wrong_magic(20, 0x55), too_short(11, 0x54);
    byte_string too_long = rpc_record(1, "rib_max_ecmp_route", IS_FULL);
    too_long.resize(4097);
    for (const byte_string &record : {wrong_magic, too_short, too_long}) {
        const rpc_client bad(card);
        rpc_send(bad.fd, record);
        const rpc_reply reply = rpc_receive(bad.fd);
        EXPECT_FALSE(reply.arrived) << record.size();
        EXPECT_TRUE(reply.record.empty()) << record.size();
        EXPECT_EQ(rpc_call(good.fd, "rib_max_ecmp_route", IS_FULL).status, 0u) << record.size();
    }
    const mts_queue queue(card, 1024);
    EXPECT_EQ(counter_value(debug_answer(queue, 5), "calls_malformed"), 3u);
}

TEST_F(daemon_rpc, closes_the_connection_after_the_128th_at_once)
{
    std::vector<int> held;
    for (int i = 0; i < 128; ++i) {
        held.push_back(rpc_connect(card, "rpc/9"));
        ASSERT_GE(held.back(), 0) << i;
        ASSERT_EQ(rpc_call(held.back(), "rib_max_ecmp_route", IS_FULL).status, 0u) << i;
    }
    const rpc_client further(card);
    EXPECT_TRUE(rpc_receive(further.fd).record.empty());
    EXPECT_EQ(rpc_call(held.front(), "rib_max_ecmp_route", IS_FULL).status, 0u);
    const mts_queue queue(card, 1024);
    const std::string counters = debug_answer(queue, 5);
    EXPECT_EQ(counter_value(counters, "connections"), 128u);
    EXPECT_EQ(counter_value(counters, "connections_refused"), 1u);
    for (const int fd : held)
        ::close(fd);
}
