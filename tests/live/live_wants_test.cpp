// live_wants_test.cpp - what is wanted by a plan, what is asked of the kernel, and the operator's own lines.
#include <gtest/gtest.h>

#include "card_tool/address_text.h"
#include "live_adopt.h"
#include "live_requests.h"
#include "live_wants.h"

namespace
{
std::uint32_t ip(const char *text) { return address_parse(text).value(); }
kernel_prefix prefix(const char *text)
{
    const address_prefix read = prefix_parse(text, "");
    return kernel_prefix_of(read.address, address_mask_length(read.mask));
}

// A sync whose effects go nowhere.
struct quiet_sync {
    live_sync sync;
    quiet_sync()
    {
        sync.out.encap = [](std::uint32_t, std::uint64_t) {};
        sync.out.forwards = [](std::uint32_t, bool) {};
        sync.out.barrier = [](std::uint64_t) {};
        sync.out.record = [](std::uint32_t, const if_db_record &) {};
        sync.out.say = [](const std::string &) {};
    }
};

// A plan with a port 10.1.0.1/24 (link 7, interface 3) in context 2, a gateway and a route through it, and one that
// goes up.
live_plan a_plan()
{
    live_plan plan;
    live_plan_port &port = plan.ports[7];
    port.id = 3;
    port.ctx = 2;
    port.is_bound = port.is_up = true;
    port.address = ip("10.1.0.1");
    port.length = 24;
    live_context &context = plan.contexts[2];
    context.card.hosts[ip("10.1.0.2")].ifindex = 7;
    context.card.routes[prefix("20.0.0.0/8")].paths = {{ip("10.1.0.2"), 7}};
    context.card.routes[prefix("20.1.0.0/16")]; // no path
    return plan;
}
} // namespace

TEST(live_wants, a_plan_is_wanted_with_interface_ids_and_mac_addresses)
{
    quiet_sync q;
    kernel_state state;
    state.neighbours[{7, ip("10.1.0.2")}] = {0x123456, 0x80, false};
    live_wants_all(q.sync, a_plan(), state, "");
    const sync_context &c = q.sync.contexts[2];
    EXPECT_TRUE(c.is_bound);
    EXPECT_EQ(c.routes.at(prefix("20.0.0.0/8")), sync_gateways({ip("10.1.0.2")}));
    EXPECT_EQ(c.routes.at(prefix("20.1.0.0/16")), sync_gateways({SYNC_UP_GATEWAY}));
    EXPECT_EQ(c.hosts.at(ip("10.1.0.2")).ifid, 3u);
    EXPECT_EQ(c.hosts.at(ip("10.1.0.2")).mac, 0x123456u);
    EXPECT_EQ(c.hosts.at(SYNC_UP_GATEWAY).ifid, SYNC_UP_IFID);
    EXPECT_EQ(q.sync.ports.at(3).address, ip("10.1.0.1"));
    EXPECT_TRUE(q.sync.ports.at(3).has_event);
}

TEST(live_wants, what_the_plan_has_no_more_is_wanted_no_more)
{
    quiet_sync q;
    live_wants_all(q.sync, a_plan(), {}, "");
    live_wants_all(q.sync, {}, {}, "");
    const sync_context &c = q.sync.contexts[2];
    EXPECT_FALSE(c.is_bound);
    EXPECT_TRUE(c.routes.empty());
    EXPECT_TRUE(c.hosts.empty());
    EXPECT_TRUE(q.sync.ports.empty());
}

TEST(live_wants, a_scope_brings_there_what_it_names)
{
    quiet_sync q;
    live_plan plan = a_plan();
    live_wants_all(q.sync, plan, {}, "");
    plan.contexts[2].card.routes.erase(prefix("20.0.0.0/8"));
    plan.contexts[2].card.routes[prefix("20.1.0.0/16")].paths = {{ip("10.1.0.2"), 7}};
    live_scope scope;
    scope.routes = {{2, prefix("20.0.0.0/8")}, {2, prefix("20.1.0.0/16")}};
    live_wants_scope(q.sync, plan, {}, scope);
    EXPECT_EQ(q.sync.contexts[2].routes.count(prefix("20.0.0.0/8")), 0u);
    EXPECT_EQ(q.sync.contexts[2].routes.at(prefix("20.1.0.0/16")), sync_gateways({ip("10.1.0.2")}));
}

TEST(live_wants, a_mac_address_that_is_learned_and_fails_is_followed)
{
    quiet_sync q;
    const live_plan plan = a_plan();
    kernel_state state;
    live_wants_all(q.sync, plan, state, "");
    EXPECT_EQ(q.sync.contexts[2].hosts.at(ip("10.1.0.2")).mac, 0u);
    state.neighbours[{7, ip("10.1.0.2")}] = {0x654321, 0x80, false};
    live_wants_neighbours(q.sync, plan, state, {{7, ip("10.1.0.2")}});
    EXPECT_EQ(q.sync.contexts[2].hosts.at(ip("10.1.0.2")).mac, 0x654321u);
    state.neighbours.clear();
    live_wants_neighbours(q.sync, plan, state, {{7, ip("10.1.0.2")}});
    EXPECT_EQ(q.sync.contexts[2].hosts.at(ip("10.1.0.2")).mac, 0u);
}

TEST(live_wants, a_context_that_is_held_says_why)
{
    quiet_sync q;
    live_plan plan = a_plan();
    live_wants_all(q.sync, plan, {}, "the kernel's routes are read again");
    EXPECT_EQ(q.sync.contexts[2].held_by_plan, "the kernel's routes are read again");
    plan.contexts[2].held_back = "rules";
    live_wants_all(q.sync, plan, {}, "");
    EXPECT_EQ(q.sync.contexts[2].held_by_plan, "rules");
}

TEST(live_requests, the_first_makes_a_neighbour_managed_and_the_last_that_goes_ends_that)
{
    live_requests requests;
    std::vector<std::string> done;
    requests.link_of = [](std::uint32_t, std::uint32_t address) { return address == ip("10.9.9.9") ? 0 : 7; };
    requests.manage = [&done](int ifindex, std::uint32_t address, bool is_wanted) {
        done.push_back((is_wanted ? "+" : "-") + std::to_string(ifindex) + " " + address_text(address));
    };
    live_requests_change(requests, 2, ip("10.1.0.2"), true);
    live_requests_change(requests, 2, ip("10.1.0.2"), true);
    live_requests_change(requests, 2, ip("10.9.9.9"), true); // no link leads there
    live_requests_run(requests);
    live_requests_change(requests, 2, ip("10.1.0.2"), false);
    live_requests_run(requests);
    live_requests_change(requests, 2, ip("10.1.0.2"), false);
    live_requests_change(requests, 2, ip("10.1.0.2"), false); // one too many
    live_requests_run(requests);
    EXPECT_EQ(done, std::vector<std::string>({"+7 10.1.0.2", "-7 10.1.0.2"}));
}

TEST(live_requests, those_of_a_route_manager_that_has_gone_stay_until_the_next_one_has_made_its_own)
{
    live_requests requests;
    std::vector<std::string> done;
    requests.link_of = [](std::uint32_t, std::uint32_t) { return 7; };
    requests.manage = [&done](int, std::uint32_t address, bool is_wanted) {
        done.push_back((is_wanted ? "+" : "-") + address_text(address));
    };
    live_requests_change(requests, 2, ip("10.1.0.2"), true);
    live_requests_change(requests, 2, ip("10.1.0.3"), true);
    live_requests_run(requests);
    done.clear();
    live_requests_forget(requests);
    live_requests_change(requests, 2, ip("10.1.0.3"), true);
    live_requests_run(requests);
    EXPECT_EQ(done, std::vector<std::string>({"-10.1.0.2"}));
}

TEST(live_extra, the_static_routes_of_a_batch_are_read_and_nothing_else)
{
    const live_extra_routes routes = live_extra_read("# the operator's own\n"
                                                     "route add 20.1/16 via 10.1.0.9 ctx 3  # a comment\n"
                                                     "route add default via 10.1.0.9\n"
                                                     "nat add 60.0.0.1 count 2 if 1 ixp 9\n"
                                                     "route del 20.0.0.0/8 via 10.1.0.9\n"
                                                     "route add nonsense via 10.1.0.9\n");
    const live_extra_routes expected = {{3, prefix("20.1.0.0/16"), ip("10.1.0.9")},
                                        {0, prefix("0.0.0.0/0"), ip("10.1.0.9")}};
    EXPECT_EQ(routes, expected);
}
