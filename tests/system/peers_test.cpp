// peers_test.cpp - the daemon while its peers are absent, fail or stall: what its callers get, what it writes down, and
// that it goes on.

#include <gtest/gtest.h>

#include <unistd.h>

#include "serving_card.h"

using namespace harness;

namespace
{
constexpr std::uint32_t NET = IP(10, 9, 0, 0), POOL = IP(10, 8, 0, 16);
constexpr std::uint32_t HOST_WORD = 0x00051234, ALL_ONES = 0xFFFFFFFF;
const char NO_ARP[] = "100 <Ctx:3>request_gwy_resolution:TN RPC call tn_arp_add_entry() return err code -1\n";
const char NO_MAC_CHECK[] = "100 <Ctx:0>slowpath_valid_mac: bad rpc retcode -1. STOP\n";

class daemon_peers : public testing::Test
{
protected:
    explicit daemon_peers(const char *settings = "rpc_timeout_ms = 10000\n") : live(2, settings) {}
    serving_card live;

    // Sends an add of a static route; its answer is read when the ARP service was dealt with.
    void send_add(std::uint32_t prefix) const
    {
        rpc_send(live.caller.fd, rpc_record(1, call_route_add(prefix, MASK16, GATEWAY)));
    }
    std::uint32_t add_result() const
    {
        const rpc_reply reply = rpc_receive(live.caller.fd);
        EXPECT_TRUE(reply.arrived && reply.status == 0);
        return reply.result;
    }
    void send_lookup() const
    {
        rpc_send(live.caller.fd, rpc_record(1, "slowpath_route_lookup", {arg16(CTX), arg32(NET), arg_ref(0)}));
    }
    // The next hop of the lookup, which succeeds.
    std::uint32_t looked_up() const
    {
        const rpc_reply reply = rpc_receive(live.caller.fd);
        EXPECT_TRUE(reply.arrived && reply.status == 0);
        EXPECT_EQ(reply.result, 0u);
        return get32(reply.record, 24);
    }
    void resolve() // the host and a static route through it
    {
        ASSERT_EQ(live.result(call_host_add(GATEWAY, ENCAP)), 0u);
        ASSERT_EQ(live.result(call_route_add(NET, MASK16, GATEWAY)), 0u);
        live.forget();
    }
    std::uint32_t advertise() const
    {
        return live.result({"norvik_send_route_advert",
                            {arg32(NET), arg32(MASK16), arg32(IFID), arg32(GATEWAY), arg16(1), arg16(CTX)}});
    }
    std::uint64_t counter(const char *name) const { return counter_value(debug_answer(live.queue, 5), name); }
};

// With peers that never answer, and with such that answer later on: the wait is long enough for a busy machine.
struct daemon_stalled_peers : daemon_peers {
    daemon_stalled_peers() : daemon_peers("rpc_timeout_ms = 50\n") {}
};
struct daemon_slow_peers : daemon_peers {
    daemon_slow_peers() : daemon_peers("rpc_timeout_ms = 1000\n") {}
};
} // namespace

TEST_F(daemon_peers, a_route_stands_while_nobody_resolves_gateways)
{
    EXPECT_EQ(live.result(call_route_add(NET, MASK16, GATEWAY)), 0u);
    EXPECT_EQ(live.result(call_host_add(GATEWAY, ENCAP)), 0u);
    EXPECT_EQ(live.found(CTX, NET), HOST_WORD);
    EXPECT_EQ(live.result(call_route_remove(NET, MASK16, GATEWAY)), 0u);
    EXPECT_EQ(live.lines("request_gwy"), (text_lines{NO_ARP, NO_ARP})) << "once asked for, once taken back";
    EXPECT_EQ(counter("remote_calls"), 2u);
    EXPECT_EQ(counter("remote_calls_failed"), 2u);
}

TEST_F(daemon_slow_peers, a_route_stands_while_the_arp_service_stalls_and_the_service_is_taken_up_again)
{
    rpc_server arp(live.card, 10, "tn_arp_add_entry");
    EXPECT_EQ(live.result(call_route_add(NET, MASK16, GATEWAY)), 0u);
    EXPECT_EQ(live.result(call_route_remove(NET, MASK16, GATEWAY)), 0u);
    EXPECT_EQ(live.lines("request_gwy"), (text_lines{NO_ARP, NO_ARP}));
    live.forget();
    for (int stalled = 0; stalled < 2; ++stalled) { // the calls that nobody waits for any more
        EXPECT_FALSE(rpc_take_one(arp).empty());
        rpc_hang_up(arp);
    }
    send_add(NET);
    EXPECT_FALSE(rpc_serve_one(arp, 0).empty());
    EXPECT_EQ(add_result(), 0u);
    EXPECT_EQ(live.lines("request_gwy").size(), 0u);
}

TEST_F(daemon_peers, an_arp_service_that_answers_all_ones_has_failed_and_any_other_answer_has_not)
{
    rpc_server arp(live.card, 10, "tn_arp_add_entry");
    std::uint32_t prefix = NET;
    for (const std::uint32_t result : {0u, 1u, 0xFFFFFFFEu, ALL_ONES}) {
        live.forget();
        send_add(prefix += 0x10000);
        (void)rpc_serve_one(arp, result);
        EXPECT_EQ(add_result(), 0u);
        EXPECT_EQ(live.lines("request_gwy"), result == ALL_ONES ? text_lines{NO_ARP} : text_lines{}) << result;
    }
}

TEST_F(daemon_peers, an_arp_service_that_answers_amiss_has_failed)
{
    rpc_server arp(live.card, 10, "tn_arp_add_entry");
    send_add(NET);
    (void)rpc_serve_raw(arp, REPLY_MAGIC, word_bytes({1, 0})); // no such procedure
    EXPECT_EQ(add_result(), 0u);
    send_add(NET + 0x10000);
    (void)rpc_serve_raw(arp, 0x12345678, word_bytes({0, 0})); // no reply at all
    EXPECT_EQ(add_result(), 0u);
    rpc_hang_up(arp);
    send_add(NET + 0x20000);
    (void)rpc_serve_raw(arp, REPLY_MAGIC, word_bytes({0, 0, 0})); // four bytes too many
    EXPECT_EQ(add_result(), 0u);
    rpc_hang_up(arp);
    send_add(NET + 0x30000);
    EXPECT_FALSE(rpc_take_one(arp).empty());
    rpc_hang_up(arp); // in the middle of the call
    EXPECT_EQ(add_result(), 0u);
    EXPECT_EQ(live.lines("request_gwy"), (text_lines{NO_ARP, NO_ARP, NO_ARP, NO_ARP}));
    EXPECT_EQ(live.result({"rib_max_ecmp_route", {arg16(3), arg32(3), arg32(NET), arg32(MASK16)}}), 0u);
}

TEST_F(daemon_peers, a_lookup_without_a_slow_path_takes_the_route_as_it_is)
{
    resolve();
    send_lookup();
    EXPECT_EQ(looked_up(), GATEWAY);
    EXPECT_EQ(live.lines("valid_mac"), text_lines{NO_MAC_CHECK});
    EXPECT_EQ(live.lines("route for ip="),
              (text_lines{"105 <Ctx:3>route lookup: using non-default route for ip=10.9.0.0\n"}));
}

TEST_F(daemon_slow_peers, a_lookup_while_the_slow_path_stalls_takes_the_route_as_it_is)
{
    resolve();
    rpc_server slow_path(live.card, 10, "encap_valid_mac");
    send_lookup();
    EXPECT_EQ(looked_up(), GATEWAY);
    EXPECT_EQ(live.lines("valid_mac"), text_lines{NO_MAC_CHECK});
    EXPECT_FALSE(rpc_take_one(slow_path).empty());
    rpc_hang_up(slow_path);
    live.forget();
    send_lookup();
    EXPECT_FALSE(rpc_serve_one(slow_path, 0, {arg_ref16(1)}).empty());
    EXPECT_EQ(looked_up(), GATEWAY);
    EXPECT_EQ(live.lines("valid_mac").size(), 0u);
}

TEST_F(daemon_peers, a_slow_path_that_answers_with_an_error_counts_as_valid_under_its_code)
{
    resolve();
    rpc_server slow_path(live.card, 10, "encap_valid_mac");
    send_lookup();
    (void)rpc_serve_one(slow_path, 7, {arg_ref16(0)});
    EXPECT_EQ(looked_up(), GATEWAY);
    EXPECT_EQ(live.lines("valid_mac"), (text_lines{"100 <Ctx:0>slowpath_valid_mac: bad rpc retcode 7. STOP\n"}));
}

TEST_F(daemon_stalled_peers, others_are_served_after_a_call_that_had_to_wait_for_a_stalled_peer)
{
    rpc_server arp(live.card, 10, "tn_arp_add_entry");
    const rpc_client other(live.card);
    send_add(NET);
    EXPECT_EQ(rpc_call(other.fd, "rib_max_ecmp_route", {arg16(3), arg32(3), arg32(NET), arg32(MASK16)}).status, 0u);
    EXPECT_EQ(add_result(), 0u);
}

TEST_F(daemon_peers, without_a_supervisor_an_advertisement_fails_under_the_systems_error)
{
    EXPECT_EQ(advertise(), ALL_ONES);
    EXPECT_EQ(live.lines("failed"),
              (text_lines{"100 <Ctx:3>Sending route advertise SCP message failed err=2, opcode 34\n"}));
    live.forget();
    {
        const supervisor_socket gone(live.card);
    }
    EXPECT_EQ(advertise(), ALL_ONES);
    EXPECT_EQ(live.lines("failed"),
              (text_lines{"100 <Ctx:3>Sending route advertise SCP message failed err=111, opcode 34\n"}));
    const supervisor_socket back(live.card);
    EXPECT_EQ(advertise(), 0u);
    EXPECT_EQ(supervisor_receive(back).size(), 46u);
    EXPECT_EQ(counter("scp_sent"), 1u);
    EXPECT_EQ(counter("scp_failed"), 2u);
}

TEST_F(daemon_peers, a_supervisor_that_does_not_read_fills_its_queue_and_the_next_advertisement_fails)
{
    const supervisor_socket supervisor(live.card);
    unsigned sent = 0;
    while (sent < 5000 && advertise() == 0)
        ++sent;
    ASSERT_LT(sent, 5000u) << "the queue never filled";
    EXPECT_EQ(live.lines("failed"),
              (text_lines{"100 <Ctx:3>Sending route advertise SCP message failed err=11, opcode 34\n"}));
    EXPECT_EQ(supervisor_receive(supervisor).size(), 46u);
    EXPECT_EQ(advertise(), 0u) << "there is room for one again";
}

TEST_F(daemon_peers, a_listener_that_does_not_read_loses_notifications_and_holds_nobody)
{
    const mts_queue deaf(live.card, 600);
    unsigned rounds = 0;
    while (rounds < 2000 && counter("messages_lost") == 0) {
        ++rounds;
        mts_send(live.queue, rounds % 2 == 1 ? EVENT_UP : EVENT_DOWN, state_payload());
        ASSERT_EQ(mts_receive(live.queue).opcode, rounds % 2 == 1 ? 0x1005u : 0x1006u) << "the reader gets each one";
    }
    EXPECT_EQ(counter("messages_lost"), 1u);
    EXPECT_EQ(mts_receive(deaf).opcode, 0x1005u) << "the first ones wait";
}

TEST_F(daemon_peers, without_an_interface_database_no_interface_exists_until_there_is_one)
{
    ASSERT_EQ(::unlink(live.card.at("interfaces").c_str()), 0);
    EXPECT_EQ(live.result(call_host_add(GATEWAY, ENCAP)), 1u);
    EXPECT_EQ(live.lines("DOWN"), (text_lines{"100 <Ctx:3>rib_add_host_route, if 5 DOWN, obj 1 addr 0xa010009/32 add "
                                              "Fails, encapid 0x1234\n"}));
    EXPECT_EQ(live.result(call_pool_add(POOL, 8, 0x77)), 0u);
    EXPECT_EQ(live.found(CTX, POOL), 0u);
    EXPECT_EQ(advertise(), ALL_ONES);
    EXPECT_EQ(live.lines("Cannot").size(), 1u);
    mts_send(live.queue, EVENT_UP, state_payload());
    EXPECT_EQ(mts_receive_raw(live.queue), word_bytes({0x4D545331, 0x1005, 0, 514, ALL_ONES, IF_ADDR, MASK24, IFID}))
        << "the context of an interface that nobody knows";
    EXPECT_EQ(live.found(CTX, POOL), 0x20050077u) << "programmed by the event, not by the interface's state";
    interfaces_write(live.card, live_interfaces());
    EXPECT_EQ(live.result(call_host_add(GATEWAY, ENCAP)), 0u);
    EXPECT_EQ(live.found(CTX, GATEWAY), HOST_WORD);
}
