// cardsim_scenario_test.cpp - what a scenario file may say, and what is said of one that does not.

#include <gtest/gtest.h>

#include "scenario.h"

namespace
{
// The error of a text that has to have one; empty when it has none.
std::string error_of(const std::string &text)
{
    scenario plan;
    std::string error;
    return scenario_parse("x.card", text, &plan, &error) == 0 ? "" : error;
}

scenario_step last_step(const std::string &text)
{
    scenario plan;
    std::string error;
    EXPECT_EQ(scenario_parse("x.card", text, &plan, &error), 0) << error;
    return plan.steps.empty() ? scenario_step{} : plan.steps.back();
}

constexpr std::uint32_t ip(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d)
{
    return a << 24 | b << 16 | c << 8 | d;
}
const std::string IF5 = "interface 5 ctx 3 10.1.1.1/24\n";
} // namespace

TEST(cardsim_scenario, each_statement_is_read_with_its_fields)
{
    const scenario_step i = last_step("interface 5 ctx 3 10.1.1.1/24 vlan 105 down");
    EXPECT_EQ(i.kind, STEP_IF_CREATE);
    EXPECT_TRUE(i.ifid == 5 && i.ctx == 3 && i.address == ip(10, 1, 1, 1) && i.mask == 0xFFFFFF00 && i.is_down);
    EXPECT_EQ(i.vlan, 105u);
    const scenario_step h = last_step(IF5 + "host 5 10.1.1.2 mac 02:00:00:00:10:01 encap 0x1001 delay 2s quiet");
    EXPECT_EQ(h.kind, STEP_HOST_ADD);
    EXPECT_TRUE(h.mac == 0x020000001001 && h.encap == 0x1001 && h.delay_ms == 2000 && h.is_quiet && h.ctx == 3);
    const scenario_step r = last_step("route 10.20.0.0/16 via 10.1.1.2 ctx 3");
    EXPECT_EQ(r.kind, STEP_ROUTE_ADD);
    EXPECT_TRUE(r.address == ip(10, 20, 0, 0) && r.mask == 0xFFFF0000 && r.hop == ip(10, 1, 1, 2) && r.ctx == 3);
    const scenario_step n = last_step(IF5 + "no nat 198.51.100.1 count 6 interface 5 ixp 7");
    EXPECT_EQ(n.kind, STEP_NAT_DEL);
    EXPECT_TRUE(n.count == 6 && n.ixp == 7 && n.ctx == 3);
    const scenario_step a = last_step(IF5 + "advertise 10.0.0.0/8 via 10.1.1.1 interface 5 metric 9");
    EXPECT_TRUE(a.kind == STEP_ADVERTISE && a.metric == 9);
}

TEST(cardsim_scenario, an_expectation_says_what_it_expects)
{
    const scenario_step two =
        last_step("expect lookup ctx 3 10.20.0.1 -> interface 5 encap 0x1001 and interface 6 encap 7");
    ASSERT_EQ(two.paths.size(), 2u);
    EXPECT_TRUE(two.paths[1].ifid == 6 && two.paths[1].encap == 7);
    EXPECT_FALSE(two.path_count);
    EXPECT_EQ(last_step("expect lookup ctx 3 10.20.0.1 -> paths 3").path_count, 3u);
    EXPECT_EQ(last_step("expect lookup ctx 3 10.20.0.1 -> nat 7").nat, 7u);
    EXPECT_EQ(last_step("expect lookup ctx 3 10.20.0.1 -> interface 5 resolve").resolve_ifid, 5u);
    EXPECT_TRUE(last_step("expect lookup ctx 3 10.20.0.1 -> miss").is_miss);
    const scenario_step counts = last_step("expect routes ctx 3 fib 18 static 2");
    EXPECT_EQ(counts.fib, 18u);
    EXPECT_EQ(counts.statics, 2u);
    EXPECT_FALSE(counts.connected);
}

TEST(cardsim_scenario, times_and_comments_and_blank_lines_are_understood)
{
    scenario plan;
    std::string error;
    ASSERT_EQ(scenario_parse("x.card", "# all of it\n\n" + IF5 + "at 50ms interface 5 down # now\nat 2s interface 5 up",
                             &plan, &error),
              0)
        << error;
    ASSERT_EQ(plan.steps.size(), 3u);
    EXPECT_EQ(plan.steps[1].at_ms, 50u);
    EXPECT_EQ(plan.steps[2].at_ms, 2000u);
    EXPECT_EQ(plan.steps[1].source, "x.card:4");
    EXPECT_EQ(plan.steps[1].text, "interface 5 down");
}

TEST(cardsim_scenario, a_second_file_goes_behind_the_first_and_knows_its_interfaces)
{
    scenario plan;
    std::string error;
    ASSERT_EQ(scenario_parse("a.card", IF5 + "at 2s interface 5 down", &plan, &error), 0) << error;
    EXPECT_EQ(scenario_parse("b.card", "at 1s interface 5 up", &plan, &error), 1);
    EXPECT_EQ(error, "b.card:1: 1s: earlier than a line above; expected 2000ms or later");
    EXPECT_EQ(plan.steps.size(), 2u) << "a faulty file leaves the scenario as it was";
    EXPECT_EQ(scenario_parse("b.card", "host 5 10.1.1.9", &plan, &error), 0) << error;
}

TEST(cardsim_scenario, a_fault_is_named_with_its_line_and_what_would_fit)
{
    const struct {
        std::string text, error;
    } faults[] = {
        {"hots 5 10.1.1.2", "x.card:1: hots: expected interface, host, route, nat, advertise, no, at, expect or show"},
        {"interface 0 ctx 3", "x.card:1: 0: expected an interface id (1 to 8191)"},
        {"interface 8192 ctx 3", "x.card:1: 8192: expected an interface id (1 to 8191)"},
        {"interface 5 ctx 256", "x.card:1: 256: expected a context (0 to 255)"},
        {"interface 5 contxt 3", "x.card:1: contxt: expected \"ctx\""},
        {"interface 5 ctx", "x.card:1: the line ends: expected a context (0 to 255)"},
        {"interface 5 ctx 3 10.1.1.1/33", "x.card:1: 10.1.1.1/33: expected an address such as 10.1.1.1/24"},
        {"interface 5 ctx 3 10.1.1/24", "x.card:1: 10.1.1/24: expected an address such as 10.1.1.1/24"},
        {"interface 5 ctx 3 bridge 6", "x.card:1: 6: unknown interface; none is declared yet"},
        {IF5 + "interface 5 ctx 3", "x.card:2: 5: declared already; expected up, down, delete or address after it"},
        {IF5 + "interface 5 sideways", "x.card:2: sideways: expected up, down, delete or address"},
        {IF5 + "interface 5 up down", "x.card:2: down: expected the end of the line"},
        {IF5 + "\nhost 7 10.1.1.2", "x.card:3: 7: unknown interface; expected 5"},
        {IF5 + "interface 5 delete\nhost 5 10.1.1.2", "x.card:3: 5: unknown interface; none is declared yet"},
        {IF5 + "host 5 10.1.2.2",
         "x.card:2: 10.1.2.2: not in the subnet of interface 5; expected an address of 10.1.1.0/24"},
        {IF5 + "host 5 10.1.1.2 encap 0x8001", "x.card:2: 0x8001: expected an encapsulation id (1 to 32767)"},
        {IF5 + "host 5 10.1.1.2 mac 02:00:00:00:10", "x.card:2: 02:00:00:00:10: expected a MAC address such as "
                                                     "02:00:00:00:10:01"},
        {IF5 + "host 5 10.1.1.2 delay 5", "x.card:2: 5: expected a time such as 50ms or 2s"},
        {"route 10.1.1.0/16 via 10.1.1.2 ctx 3", "x.card:1: 10.1.1.0/16: expected 10.1.0.0/16"},
        {"route 010.1.0.0/16 via 10.1.1.2 ctx 3", "x.card:1: 010.1.0.0/16: expected a prefix such as 10.1.0.0/16"},
        {"route 10.1.0.0/16 10.1.1.2", "x.card:1: 10.1.1.2: expected \"via\""},
        {"at 2h interface 5 up", "x.card:1: 2h: expected a time such as 50ms or 2s"},
        {"no interface 5", "x.card:1: interface: expected host, route, nat or advertise"},
        {"expect lookup ctx 3 10.1.1.2 = miss", "x.card:1: =: expected \"->\""},
        {"expect lookup ctx 3 10.1.1.2 -> hit", "x.card:1: hit: expected miss, nat, paths or interface"},
        {"expect lookup ctx 3 10.1.1.2 -> paths 9", "x.card:1: 9: expected a number of paths (1 to 8)"},
        {"expect routes ctx 3", "x.card:1: the line ends: expected connected, static or fib"},
        {"show", "x.card:1: the line ends: expected the words of a routectl command"},
    };
    for (const auto &fault : faults)
        EXPECT_EQ(error_of(fault.text), fault.error);
}

TEST(cardsim_scenario, a_file_that_is_not_there_is_named)
{
    scenario plan;
    std::string error;
    EXPECT_EQ(scenario_read("/nowhere/x.card", &plan, &error), 1);
    EXPECT_EQ(error, "/nowhere/x.card: No such file or directory");
}

TEST(cardsim_scenario, a_time_is_a_day_at_most)
{
    EXPECT_EQ(last_step(IF5 + "host 5 10.1.1.2 delay 86400s").delay_ms, 86'400'000u);
    EXPECT_EQ(last_step("at 86400000ms interface 5 ctx 3").at_ms, 86'400'000u);
    for (const char *const time : {"86401s", "86400001ms", "5000000s", "18446744073709551615s"})
        EXPECT_EQ(error_of(IF5 + "host 5 10.1.1.2 delay " + time),
                  std::string("x.card:2: ") + time + ": expected a time such as 50ms or 2s");
}
