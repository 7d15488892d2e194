// cardsim_link_test.cpp - the way to the route manager, which is a message queue of the test's own.

#include <gtest/gtest.h>

#include "../unit/host_support.h"
#include "card_service/manager_link.h"
#include "route_ids.h"

using namespace harness;

namespace
{
constexpr link_options OPTIONS_OF_LINK = {"cardsim", CARD_SERVICE_SAP, 1000};
constexpr std::uint32_t EVENT = MTS_OPC_NORVIK_IF_UP;

// The opcode of the next message at the route manager's queue; 0 when none waits.
std::uint32_t arrived(int queue)
{
    constexpr mts_recv_options OPTIONS = {};
    mts_message message;
    if (mts_recv(queue, &message, &OPTIONS) != 0)
        return 0;
    mts_drop(queue, &message);
    return message.opcode;
}

void answer(int queue)
{
    constexpr mts_address CARDSIM = {MTS_NODE_LOCAL, CARD_SERVICE_SAP};
    EXPECT_EQ(mts_send(queue, &CARDSIM, MTS_OPC_DEBUG_ANSWER, "calls_served 0\n", 15), 0);
}

// A link that has just seen a route manager arrive at time 0, and sent it a barrier.
struct linked {
    manager_link link;
    int manager = -1;
    unsigned arrivals = 0;
    linked()
    {
        constexpr mts_bind_options OPTIONS = {};
        link.on_arrival = [this] { ++arrivals; };
        link.on_message = [](const mts_message &) {};
        EXPECT_EQ(link_open(&link, OPTIONS_OF_LINK), 0);
        manager = mts_bind(0, ROUTE_MGR_SAP, &OPTIONS, "manager");
        link_process(link, 0);
        EXPECT_EQ(arrivals, 1u);
        EXPECT_EQ(arrived(manager), MTS_OPC_DEBUG_REQUEST);
    }
};
} // namespace

TEST(cardsim_link, an_event_waits_for_the_barrier_and_is_followed_by_a_request_for_the_next)
{
    on_fresh_card([] {
        linked l;
        link_event(l.link, EVENT, {1});
        link_process(l.link, 1);
        EXPECT_EQ(arrived(l.manager), 0u);
        answer(l.manager);
        link_process(l.link, 2);
        EXPECT_EQ(arrived(l.manager), EVENT);
        EXPECT_EQ(arrived(l.manager), MTS_OPC_DEBUG_REQUEST);
        EXPECT_TRUE(link_has_events(l.link));
        answer(l.manager);
        link_process(l.link, 3);
        EXPECT_TRUE(link_is_at_rest(l.link));
    });
}

TEST(cardsim_link, a_lost_answer_is_made_good_also_while_an_event_waits)
{
    on_fresh_card([] {
        linked l;
        link_event(l.link, EVENT, {1});
        link_process(l.link, 600); // the first answer never comes
        EXPECT_EQ(arrived(l.manager), MTS_OPC_DEBUG_REQUEST);
        EXPECT_EQ(arrived(l.manager), 0u);
        answer(l.manager); // the second: whether it is the last cannot be said
        link_process(l.link, 601);
        EXPECT_EQ(arrived(l.manager), 0u);
        link_process(l.link, 1200);
        EXPECT_EQ(arrived(l.manager), MTS_OPC_DEBUG_REQUEST);
        answer(l.manager);
        link_process(l.link, 1201);
        EXPECT_EQ(arrived(l.manager), EVENT);
    });
}

TEST(cardsim_link, several_late_answers_pass_only_with_the_last)
{
    on_fresh_card([] {
        linked l;
        link_process(l.link, 600);
        link_process(l.link, 1200);
        answer(l.manager);
        answer(l.manager);
        link_process(l.link, 1201);
        EXPECT_TRUE(link_has_events(l.link));
        answer(l.manager);
        link_process(l.link, 1202);
        EXPECT_FALSE(link_has_events(l.link));
    });
}

TEST(cardsim_link, without_a_route_manager_events_are_dropped_and_calls_answered)
{
    on_fresh_card([] {
        manager_link link;
        link.on_arrival = [] {};
        ASSERT_EQ(link_open(&link, OPTIONS_OF_LINK), 0);
        link_event(link, EVENT, {1});
        EXPECT_FALSE(link_has_events(link));
        card_rpc_end end = CARD_RPC_RAN;
        link_call(link, "rib_add_route", {}, [&end](const card_rpc_reply &reply) { end = reply.end; });
        EXPECT_EQ(end, CARD_RPC_RAN) << "never from inside";
        link_process(link, 0);
        EXPECT_EQ(end, CARD_RPC_UNREACHABLE);
    });
}

TEST(cardsim_link, a_mark_passes_when_the_events_before_it_are_handled)
{
    on_fresh_card([] {
        linked l;
        answer(l.manager);
        link_event(l.link, EVENT, {1});
        bool is_passed = false;
        link_mark(l.link, [&is_passed] { is_passed = true; });
        link_process(l.link, 1);
        link_process(l.link, 2);
        EXPECT_EQ(arrived(l.manager), EVENT);
        EXPECT_FALSE(is_passed);
        answer(l.manager);
        link_process(l.link, 3);
        EXPECT_TRUE(is_passed);
    });
}

TEST(cardsim_link, what_is_taken_back_reaches_no_route_manager_and_is_not_answered)
{
    on_fresh_card([] {
        linked l;
        link_event(l.link, EVENT, {1});
        link_call(l.link, "rib_add_route", {}, [](const card_rpc_reply &) { ADD_FAILURE() << "answered"; });
        link_forget(l.link);
        answer(l.manager);
        link_process(l.link, 1);
        link_process(l.link, 600);
        EXPECT_EQ(arrived(l.manager), 0u);
        EXPECT_TRUE(link_is_at_rest(l.link));
    });
}
