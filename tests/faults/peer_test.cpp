// peer_test.cpp - peers that answer badly, late or not at all, callers that do not read, flood, vanish or call
// themselves.
//
// What holds in all: every other caller is served meanwhile, and once the peer behaves again, so does everything.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>

#include <sys/socket.h>
#include <unistd.h>

#include "card_peers.h"
#include "daemon.h"

using namespace harness;

namespace
{
struct peers : testing::Test {
    card_dir card;
    mts_queue manager{card, 600};
    arp_service arp{card};
    bool prepared;
    daemon_process daemon{card};
    std::uint32_t routes = 0;

    // timeout_ms: of the daemon's calls. Long enough for a peer on a busy machine, where nothing waits for it to pass.
    explicit peers(unsigned timeout_ms = 20000) : prepared(prepare(timeout_ms)) {}
    bool prepare(unsigned timeout_ms) const
    {
        file_write(card.at("card.conf"), "rpc_timeout_ms = " + std::to_string(timeout_ms) + "\n");
        interface_database(card);
        return true;
    }
    void SetUp() override
    {
        ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
        mts_send(manager, EVENT_UP, state_payload());
        ASSERT_NE(counters_of(manager), "");
    }
    // Adds a static route of its own by a gateway on the interface: the daemon asks the ARP service. Returns whether it
    // was answered there.
    bool ask_arp()
    {
        const std::uint64_t failed = counter("remote_calls_failed");
        const rpc_client client(card);
        const rpc_reply reply = rpc_call(client.fd, call_route_add(0x15000000 + (++routes << 16), MASK16, GATEWAY));
        EXPECT_TRUE(reply.arrived && reply.status == 0 && reply.result == 0) << "an unanswered request harms no route";
        return counter("remote_calls_failed") == failed;
    }
    std::uint64_t counter(const char *name) const { return counter_value(counters_of(manager), name); }
};

struct stalled_peers : peers {
    static constexpr unsigned TIMEOUT_MS = 60;
    stalled_peers() : peers(TIMEOUT_MS) {}

    void expect_one_time_out()
    {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(ask_arp());
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(TIMEOUT_MS));
    }
    // On a busy machine a service that answers may miss the time-out now and then.
    void expect_to_be_answered_again()
    {
        unsigned asked = 1;
        while (!ask_arp() && asked < 100)
            ++asked;
        EXPECT_LT(asked, 100u);
        EXPECT_EQ(daemon_trouble(card, manager, arp), "");
    }
    void lead_arp_to(const char *socket) const
    {
        ASSERT_EQ(::unlink(card.at("rpc/names/tn_arp_add_entry").c_str()), 0);
        ASSERT_EQ(::symlink(socket, card.at("rpc/names/tn_arp_add_entry").c_str()), 0);
    }
};
} // namespace

TEST_F(peers, an_arp_service_may_answer_in_any_manner_and_is_asked_again_in_the_same_life)
{
    for (const arp_manner manner :
         {arp_manner::garbage, arp_manner::old_transaction, arp_manner::cut, arp_manner::huge, arp_manner::closing}) {
        SCOPED_TRACE(static_cast<unsigned>(manner));
        arp.answer(manner);
        const std::uint32_t asked = arp.served();
        EXPECT_FALSE(ask_arp());
        EXPECT_EQ(arp.served(), asked + 1);
        arp.answer(arp_manner::well);
        EXPECT_TRUE(ask_arp());
        EXPECT_EQ(arp.served(), asked + 2);
    }
    EXPECT_EQ(daemon_trouble(card, manager, arp), "");
}

TEST_F(stalled_peers, an_arp_service_that_is_silent_costs_one_time_out_a_call)
{
    arp.answer(arp_manner::silent);
    expect_one_time_out();
    arp.answer(arp_manner::well);
    expect_to_be_answered_again();
}

TEST_F(stalled_peers, an_arp_service_that_stands_still_costs_one_time_out_a_call)
{
    ::kill(arp.pid, SIGSTOP);
    expect_one_time_out();
    ::kill(arp.pid, SIGCONT); // the answer to that call comes now, late
    expect_to_be_answered_again();
}

TEST_F(stalled_peers, a_service_that_leads_to_the_daemon_itself_costs_one_time_out_a_call)
{
    lead_arp_to("../9");
    expect_one_time_out();
    lead_arp_to("../10");
    expect_to_be_answered_again();
}

TEST_F(peers, a_caller_that_never_reads_loses_its_connection_and_nobody_else_notices)
{
    const int deaf = rpc_connect(card, "rpc/9");
    const byte_string call = rpc_record(1, "show_rib_summary", {arg16(CTX), arg_block()});
    const std::uint64_t dropped = counter("replies_dropped");
    unsigned sent = 0;
    while (sent < 100000 && (::send(deaf, call.data(), call.size(), MSG_NOSIGNAL) > 0))
        ++sent; // the daemon reads, answers into a full socket at last, and hangs up
    EXPECT_LT(sent, 100000u);
    EXPECT_EQ(counter("replies_dropped"), dropped + 1);
    EXPECT_EQ(daemon_trouble(card, manager, arp), "");
    ::close(deaf);
}

TEST_F(peers, callers_that_vanish_in_hundreds_leave_no_descriptor_behind)
{
    const auto descriptors = [this] {
        unsigned count = 0;
        for (unsigned fd = 0; fd < 1024; ++fd)
            count += path_exists("/proc/" + std::to_string(daemon.pid) + "/fd/" + std::to_string(fd));
        return count;
    };
    EXPECT_EQ(daemon_trouble(card, manager, arp), ""); // the connection to the ARP service stands from here on
    const unsigned before = descriptors();             // perhaps with a connection whose end is still to be seen
    std::mt19937 random(3);
    for (unsigned i = 0; i < 400; ++i) {
        const int fd = rpc_connect(card, "rpc/9");
        ASSERT_GE(fd, 0);
        for (unsigned n = 0; n < i % 4; ++n)
            rpc_send(fd, random_call(random, n));
        ::close(fd);
    }
    EXPECT_EQ(daemon_trouble(card, manager, arp), "");
    for (unsigned i = 0; i < 2000 && descriptors() > before; ++i)
        (void)counter("connections"); // a round trip is a pass of the loop
    EXPECT_LE(descriptors(), before);
}

TEST_F(peers, a_message_in_the_daemons_own_name_is_answered_to_itself_and_does_no_harm)
{
    const std::uint64_t received = counter("messages_received");
    mts_send_raw(manager, message_bytes(DEBUG_REQUEST, ROUTE_MANAGER_SAP, word_bytes({5, 0, 0, 0})));
    EXPECT_GE(counter("messages_received"), received + 2); // the request, and one that asks for the counters
    EXPECT_EQ(daemon_trouble(card, manager, arp), "");
}

TEST_F(peers, a_burst_of_events_larger_than_the_queue_is_served_to_its_end)
{
    const std::uint64_t received = counter("messages_received");
    unsigned taken = 0, lost = 0;
    for (unsigned i = 0; i < 3000; ++i) {
        const byte_string payload = state_payload({.ifid = IFID + i % 5, .addr = IF_ADDR + 256 * (i % 5)});
        ++(mts_offer(manager, message_bytes(EVENT_UP + i % 2, manager.sap, payload)) ? taken : lost);
    }
    EXPECT_GT(lost, 0u) << "the burst was not larger than the queue";
    // What the queue took is received, and so is at least one request for the counters.
    EXPECT_GE(counter("messages_received"), received + taken + 1);
    for (std::uint32_t i = 0; i < 5; ++i)
        mts_send(manager, EVENT_DOWN, state_payload({.ifid = IFID + i, .addr = IF_ADDR + 256 * i}));
    EXPECT_EQ(daemon_trouble(card, manager, arp), "");
}
