// view_watch_test.cpp - the picture of the card: what is drawn into which size, and what it is as data.
#include <gtest/gtest.h>

#include "routectl/watch_frame.h"

namespace
{
watch_frame sample_frame()
{
    watch_frame frame;
    frame.time_ns = 1769903999000001000;
    frame.card = "/run/card";
    frame.state = manager_state::running;
    frame.pools = pools_view{{{{"nodes", 262, 1024}, {"leaves", 1000, 1024}, {"ecmp", 1, 128}}}, "route manager"};
    frame.kinds = watch_kinds{270, 12, 4};
    frame.total = context_summary{6, 10, 280, 262, 1000, 1};
    for (std::uint32_t ctx = 0; ctx < 30; ++ctx)
        frame.contexts.push_back({ctx, {1, 2, 3 + ctx, 4, 5, 6}});
    frame.rates = watch_rates{12.5, 1, 30, 7};
    for (int i = 0; i < 20; ++i)
        frame.errors.push_back({1769903999000001000, i % 2 == 0 ? 3 : -1, "error number " + std::to_string(i)});
    return frame;
}

std::string all_of(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

bool holds(const std::vector<std::string> &lines, const std::string &part)
{
    return all_of(lines).find(part) != std::string::npos;
}
} // namespace

TEST(view_watch, a_picture_holds_state_pools_routes_rates_contexts_and_errors)
{
    const std::vector<std::string> lines = watch_draw(sample_frame(), {80, 24}, watch_colour::off);
    EXPECT_EQ(lines[0], "route manager: running   card /run/card   2026-01-31T23:59:59Z");
    for (const char *part : {"Pools (route manager)", "262 of 1024   25.6%", "] 1000 of 1024   97.7%", "[#....",
                             "1 of  128    0.8%", "hosts 270  static 12  NAT 4  in the FIB 280",
                             "calls 12.5/s  messages 1.0/s  history 30.0/s  table words 7.0/s",
                             "    2              1       2       5      4       5     6", "Last errors",
                             "23:59:59  error number 19", "ctx 3: error number 18"})
        EXPECT_TRUE(holds(lines, part)) << part << " is missing in\n" << all_of(lines);
}

TEST(view_watch, no_line_is_wider_and_no_picture_higher_than_the_screen)
{
    for (const unsigned columns : {1u, 20u, 40u, 80u, 200u})
        for (const unsigned rows : {0u, 1u, 5u, 9u, 12u, 24u, 60u}) {
            const std::vector<std::string> lines = watch_draw(sample_frame(), {columns, rows}, watch_colour::off);
            EXPECT_LE(lines.size(), rows);
            for (const std::string &line : lines)
                EXPECT_LE(line.size(), columns) << line;
        }
}

TEST(view_watch, contexts_that_do_not_fit_are_counted)
{
    const std::vector<std::string> lines = watch_draw(sample_frame(), {80, 24}, watch_colour::off);
    unsigned shown = 0;
    for (const std::string &line : lines)
        shown += line.ends_with("     6") ? 1u : 0u;
    EXPECT_GT(shown, 0u);
    EXPECT_TRUE(holds(lines, "and " + std::to_string(30 - shown) + " contexts more")) << all_of(lines);
    EXPECT_FALSE(holds(watch_draw(sample_frame(), {80, 80}, watch_colour::off), "contexts more"));
}

TEST(view_watch, a_character_of_several_bytes_is_one_column_and_stays_whole)
{
    watch_frame frame = sample_frame();
    frame.note = "\xC3\xA4\xC3\xB6\xC3\xBC";
    EXPECT_EQ(watch_draw(frame, {2, 24}, watch_colour::off)[1], "\xC3\xA4\xC3\xB6");
}

TEST(view_watch, colours_are_there_only_when_asked_for)
{
    EXPECT_FALSE(holds(watch_draw(sample_frame(), {80, 24}, watch_colour::off), "\033"));
    const std::vector<std::string> lines = watch_draw(sample_frame(), {80, 24}, watch_colour::on);
    EXPECT_TRUE(lines[0].starts_with("\033[32m")) << lines[0];
    EXPECT_TRUE(holds(lines, "\033[31m  leaves ")) << "a pool that is nearly full is red";
}

TEST(view_watch, what_is_not_known_is_said_and_is_null_as_data)
{
    watch_frame frame;
    frame.state = manager_state::not_running;
    frame.note = "nobody serves it";
    const std::vector<std::string> lines = watch_draw(frame, {80, 24}, watch_colour::off);
    for (const char *part : {"route manager: not running", "nobody serves it", "Pools: not known", "Routes  not known",
                             "Rates   from the second look on", "No errors in the history"})
        EXPECT_TRUE(holds(lines, part)) << part << " is missing in\n" << all_of(lines);
    const nlohmann::ordered_json data = watch_json(frame);
    for (const char *key : {"pools", "pools_source", "kinds", "total", "rates"})
        EXPECT_TRUE(data.at(key).is_null()) << key;
    EXPECT_TRUE(data.at("contexts").empty() && data.at("errors").empty());
    EXPECT_EQ(watch_json(sample_frame()).at("pools").at(1).at("used"), 1000);
    EXPECT_EQ(watch_json(sample_frame()).at("errors").at(1).at("ctx"), nullptr);
}
