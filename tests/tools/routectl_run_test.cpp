// routectl_run_test.cpp - the program itself: against a live route manager, a dead, a stopped and a missing one.
#include <gtest/gtest.h>

#include <csignal>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "routectl_samples.h"
#include "tool_run.h"

using namespace harness;

namespace
{
using json = nlohmann::json;
constexpr std::uint32_t UP_IN_CONTEXT = IF_EXISTS | IF_UP | IF_ADDRESS | IF_CONTEXT, HAS_VLAN = 0x10;

// A card with a route manager that serves, and an interface 5 that is up.
struct live_card : card_dir {
    daemon_process manager;
    live_card() : manager(with_interface(*this)) { EXPECT_EQ(daemon_notification(manager), "READY=1"); }

    static const card_dir &with_interface(const card_dir &card)
    {
        interfaces_write(card, {{5, UP_IN_CONTEXT | HAS_VLAN, 1, 0, 0x0A010101, 0xFFFFFF00, 0, 42}});
        return card;
    }
    tool_result run(const std::string &words, const std::string &input = "") const
    {
        return routectl_run(*this, words, input);
    }
};

json document_of(const tool_result &result, const std::string &words)
{
    const json document = json::parse(result.out, nullptr, false);
    EXPECT_FALSE(document.is_discarded()) << words << ": " << result.out;
    if (document.is_discarded())
        return json::object();
    EXPECT_EQ(document.value("status", -1), result.status) << words;
    EXPECT_EQ(document.contains("error"), result.status != 0) << words << ": " << result.out;
    return document;
}

// The words of a command that ends by itself.
std::string ending_line(const routectl_command &command, sample_values values)
{
    const std::string words = command.words;
    if (words == "watch" || words == "history")
        return words == "watch" ? "watch --once" : "history";
    return sample_line(command, values);
}

// Whether the command only looks at what lies in the card directory, so that it needs no one to answer.
bool reads_files(const routectl_command &command)
{
    const std::string words = command.words;
    return words == "hw export" || words == "history" || words == "if show" || words == "watch";
}
} // namespace

TEST(routectl_run, a_change_is_done_or_refused_with_the_line_of_the_history)
{
    const live_card card;
    EXPECT_EQ(card.run("r a 10.1/16 via 192.0.2.1").status, 0);
    const tool_result again = card.run("route add 10.1.0.0 255.255.0.0 via 192.0.2.1");
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err, "refused: DUPLICATE route/maskbits 0a010000/16-> nexthop c0000201\n");
    for (unsigned i = 2; i <= 8; ++i)
        EXPECT_EQ(card.run("route add 10.1/16 via 192.0.2." + std::to_string(i)).status, 0);
    EXPECT_EQ(card.run("-j route full 10.1/16").out,
              "{\"command\":\"route full\",\"status\":0,\"ctx\":0,\"prefix\":\"10.1.0.0/16\",\"full\":true}\n");
    const tool_result ninth = card.run("route add 10.1/16 via 192.0.2.9");
    EXPECT_EQ(ninth.status, 1);
    EXPECT_EQ(ninth.err, "refused: MAX ECMP exceed route/maskbits 0a010000/16-> nexthop c0000209\n");
    EXPECT_EQ(card.run("route del 10.1/16 via 192.0.2.9").err,
              "refused: could not find static route for ip=a010000/16\n");
}

// Eight static paths, then a host with the prefix as the ninth: from there on no path is refused.
TEST(routectl_run, a_set_that_no_page_of_a_listing_holds_ends_the_listing_with_its_prefix)
{
    const live_card card;
    std::string lines;
    for (unsigned i = 0; i < 8; ++i)
        lines += "route add 10.1.1.9/32 via 192.0.2." + std::to_string(i) + "\n";
    lines += "arp add 10.1.1.9 if 5 encap 0x1001\n";
    for (unsigned i = 0; i < 2550; ++i)
        lines += "route add 10.1.1.9/32 via 192.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + "\n";
    EXPECT_EQ(card.run("-b -", lines).status, 0);
    for (const char *words : {"route show", "route show all", "fib show"}) {
        const tool_result result = card.run(words);
        EXPECT_EQ(result.status, 1) << words;
        EXPECT_EQ(result.err, "refused: the route manager does not go on with the listing of context 0 at 10.1.1.9/32: "
                              "it has no memory for a page, or a set of more than 2550 paths stands there, which no "
                              "page holds\n")
            << words;
    }
}

TEST(routectl_run, a_refusal_of_which_the_history_holds_no_line_says_so)
{
    const live_card card;
    EXPECT_EQ(card.run("keep errors off").status, 0);
    const tool_result result = card.run("-j route del 10.1/16 via 192.0.2.9");
    EXPECT_EQ(result.status, 1);
    const json document = document_of(result, "route del");
    EXPECT_TRUE(document.at("reason").is_null());
    EXPECT_EQ(document.at("error"), "refused; the event history has no line that says why");
}

TEST(routectl_run, a_nat_pool_that_could_not_be_removed_is_no_success)
{
    const live_card card;
    const std::string pool = "198.51.100.1 count 6 if 5 ixp 7";
    EXPECT_EQ(card.run("nat add " + pool).status, 0);
    EXPECT_EQ(json::parse(card.run("-j fib show 198.51.100.0/24").out).at("routes").size(), 4u);
    EXPECT_EQ(card.run("nat del " + pool).status, 0);
    const tool_result gone = card.run("nat del " + pool);
    EXPECT_EQ(gone.status, 1);
    EXPECT_EQ(gone.err, "refused: nat entry not found in rib 0xc6336401/32 encap 7\n");
}

TEST(routectl_run, listings_show_hosts_and_the_static_routes_through_them)
{
    const live_card card;
    EXPECT_EQ(card.run("arp add 10.1.1.2 if 5 encap 0x1001").status, 0);
    EXPECT_EQ(card.run("route add default via 10.1.1.2").status, 0);
    const json routes = json::parse(card.run("-j route show").out).at("routes");
    ASSERT_EQ(routes.size(), 1u);
    EXPECT_EQ(routes[0].at("prefix"), "0.0.0.0/0");
    EXPECT_EQ(routes[0].at("kind"), "static");
    EXPECT_EQ(routes[0].at("nexthop"), "10.1.1.2");
    EXPECT_EQ(routes[0].at("ifid"), 5);
    EXPECT_EQ(routes[0].at("encap"), 0x1001);
    EXPECT_EQ(card.run("-o fib show 10.1.1.2").out,
              "ctx=0 prefix=10.1.1.2/32 kind=host nexthop=10.1.1.1 ifid=5 encap=0x1001 route_id=0 "
              "flags=arp-host,arp-installed\n");
    EXPECT_EQ(json::parse(card.run("-j fib show all").out).at("routes").size(), 258u);
    EXPECT_EQ(card.run("arp del 10.1.1.2").status, 0);
    EXPECT_EQ(card.run("route show").out, "no routes\n");
}

TEST(routectl_run, a_listing_of_many_pages_is_whole)
{
    const live_card card;
    std::string batch = "arp add 10.1.1.2 if 5 encap 1\n"; // then each route is programmed, for the trie has room
    constexpr unsigned ROUTES = 700, PATHS = 8;
    for (unsigned host = 3; host < 3 + PATHS - 1; ++host)
        batch += "arp add 10.1.1." + std::to_string(host) + " if 5 encap 1\n";
    for (unsigned i = 0; i < ROUTES; ++i)
        for (unsigned path = 0; path < (i < 100 ? PATHS : 4); ++path)
            batch += "route add 20." + std::to_string(i % 256) + "." + std::to_string(i / 256) + ".0/24 via 10.1.1." +
                     std::to_string(2 + path) + "\n";
    const tool_result added = card.run("-fjb -", batch);
    const json done = document_of(added, "batch");
    const json routes = json::parse(card.run("-j route show").out).at("routes");
    EXPECT_EQ(routes.size(), done.at("done").get<std::size_t>() - PATHS);
}

TEST(routectl_run, every_command_prints_one_legal_document_whoever_answers)
{
    live_card card;
    for (const routectl_command *command : routectl_table()) {
        const std::string line = ending_line(*command, sample_values::all);
        const tool_result result = card.run("-j -t 20000 " + line);
        EXPECT_EQ(document_of(result, line).value("command", ""), command->words) << line;
        EXPECT_TRUE(result.status == 0 || result.status == 1 || result.status == 3) << line << ": " << result.status;
    }
}

TEST(routectl_run, a_route_manager_that_has_ended_is_unreachable)
{
    live_card card;
    daemon_signal(card.manager, SIGKILL);
    EXPECT_EQ(daemon_exit_status(card.manager), 1000 + SIGKILL);
    for (const routectl_command *command : routectl_table()) {
        const std::string line = ending_line(*command, sample_values::needed);
        const tool_result result = card.run("-j " + line);
        if (!reads_files(*command)) {
            EXPECT_EQ(result.status, 3) << line << ": " << result.out << result.err;
            (void)document_of(result, line);
        }
    }
    EXPECT_EQ(card.run("pools --direct").status, 0);
    EXPECT_EQ(card.run("hw walk 10.1.1.1 --direct").status, 0);
    EXPECT_EQ(card.run("history").status, 0);
}

TEST(routectl_run, a_route_manager_that_is_stopped_is_not_waited_for_for_ever)
{
    live_card card;
    daemon_signal(card.manager, SIGSTOP);
    for (const routectl_command *command : routectl_table()) {
        if (reads_files(*command))
            continue;
        const std::string line = ending_line(*command, sample_values::needed);
        const tool_result result = card.run("-j -t 30 " + line);
        EXPECT_EQ(result.status, 3) << line << ": " << result.out;
        (void)document_of(result, line);
    }
    EXPECT_EQ(card.run("-t 30 -f -b -", "route add 10.1/16 via 1.1.1.1\nroute add 10.2/16 via 1.1.1.1\n").status, 3);
    daemon_signal(card.manager, SIGCONT);
}

TEST(routectl_run, a_card_directory_that_is_missing_is_said_and_not_made)
{
    const card_dir card;
    const std::string missing = card.at("nowhere");
    const tool_result result = routectl_run(card, "-c " + missing + " route show");
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.err,
              "routectl: " + missing +
                  ": there is no card directory (-c or CARD_DIR names another; the route manager makes it)\n");
    EXPECT_FALSE(path_exists(missing));
}

TEST(routectl_run, bad_words_are_usage_errors_before_anyone_is_asked)
{
    const card_dir card;
    for (const char *words : {"nonsense", "route", "route add", "route add 10.1.2.0/16 via 1.1.1.1", "-x", "-b",
                              "-b - route show", "nat add 1.1.1.1 count 0 if 1 ixp 1", "help nonsense"}) {
        const tool_result result = routectl_run(card, words);
        EXPECT_EQ(result.status, 2) << words << ": " << result.err;
        EXPECT_NE(result.err, "") << words;
    }
    (void)document_of(routectl_run(card, "-j nonsense"), "nonsense");
    (void)document_of(routectl_run(card, "-jo memory"), "-jo");
    EXPECT_EQ(routectl_run(card, "").status, 2) << "no command, and no terminal";
    EXPECT_EQ(routectl_run(card, "help").status, 0);
    EXPECT_EQ(routectl_run(card, "help").out, routectl_run(card, "--help").out);
    EXPECT_EQ(routectl_run(card, "--version").out.rfind("routectl ", 0), 0u);
    EXPECT_EQ(routectl_run(card, "route add -h").status, 0);
}

TEST(routectl_run, a_batch_stops_at_the_line_that_fails_and_names_it)
{
    const live_card card;
    const std::string lines = "# two changes\n\nroute add 10.1/16 via 1.1.1.1\nroute add 10.1/16 via 1.1.1.1\nmemory\n";
    const tool_result stopped = card.run("-b -", lines);
    EXPECT_EQ(stopped.status, 1);
    EXPECT_NE(stopped.err.find("line 4: route add 10.1/16 via 1.1.1.1: refused: DUPLICATE"), std::string::npos)
        << stopped.err;
    EXPECT_EQ(stopped.out.find("MTRACK"), std::string::npos) << "the line behind it is not run";
    const json all = document_of(card.run("-jf -b -", lines), "batch");
    EXPECT_EQ(all.at("lines"), 3);
    EXPECT_EQ(all.at("failed"), 2);
    EXPECT_EQ(all.at("errors")[0].at("line"), 3);
    EXPECT_EQ(all.at("answers")[0].at("command"), "memory");
}

TEST(routectl_run, a_batch_has_no_command_without_an_end)
{
    const live_card card;
    const json ended = document_of(card.run("-jf -b -", "history follow\nhistory last 1\n"), "batch");
    EXPECT_EQ(ended.at("status"), 2);
    EXPECT_EQ(ended.at("errors")[0].at("line"), 1);
    EXPECT_EQ(ended.at("answers")[0].at("command"), "history");
}

TEST(routectl_run, a_batch_of_many_lines_is_carried_out_in_order)
{
    const live_card card;
    std::string lines;
    constexpr unsigned ROUTES = 2000;
    for (const char *change : {"add", "del"})
        for (unsigned i = 0; i < ROUTES; ++i)
            lines += std::string("route ") + change + " 20.0." + std::to_string(i / 256) + "." +
                     std::to_string(i % 256) + " via 192.0.2.1 ctx 9\n";
    const json done = document_of(card.run("-j -b -", lines), "batch");
    EXPECT_EQ(done.at("done"), 2 * ROUTES);
    const json again = document_of(card.run("-jf -b -", lines.substr(lines.find("route del"))), "batch");
    EXPECT_EQ(again.at("failed"), ROUTES);
    EXPECT_EQ(again.at("errors")[1].at("error"), "refused: could not find static route for ip=14000001/32");
    EXPECT_EQ(again.at("errors")[ROUTES - 1].at("error"), "refused: could not find static route for ip=140007cf/32");
}

TEST(routectl_run, a_batch_that_cannot_be_read_is_a_usage_error)
{
    const card_dir card;
    EXPECT_EQ(routectl_run(card, "-b " + card.at("missing")).status, 2);
    EXPECT_EQ(routectl_run(card, "-b " + card.path).status, 2) << "a folder";
}

TEST(routectl_run, debug_output_of_a_context_is_switched)
{
    const live_card card;
    EXPECT_EQ(card.run("-o debug errors on ctx 7").out, "category=errors ctx=7 debug=on\n");
    EXPECT_EQ(card.run("route del 10.1/16 via 1.1.1.1 ctx 7").status, 1);
    EXPECT_NE(file_text(card.manager.err).find("could not find static route for ip=a010000/16"), std::string::npos);
}

TEST(routectl_run, advertisements_need_a_vlan_and_a_supervisor)
{
    const live_card card;
    EXPECT_EQ(card.run("advertise 10.0.0.0/8 via 1.1.1.1 if 6").err, "refused: Cannot resolve ifid 6 to vlan id.\n");
    EXPECT_EQ(card.run("withdraw 10.0.0.0/8 if 5").err,
              "refused: Sending route advertise SCP message failed err=2, opcode 35\n");
}

TEST(routectl_run, the_prompt_completes_runs_and_remembers)
{
    const live_card card;
    int status = -1;
    const std::string shown = routectl_prompt(card, "fib\ts\tctx 3\nnonsense\nexit\n", status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(shown.find("224.0.0.0/3"), std::string::npos) << shown;
    EXPECT_NE(shown.find("unknown word \"nonsense\""), std::string::npos) << shown;
    EXPECT_NE(file_text(card.at(".routectl_history")).find("ctx"), std::string::npos);
}

TEST(routectl_run, the_shell_gets_its_completions_from_the_table)
{
    const card_dir card;
    EXPECT_EQ(routectl_run(card, "--complete route s").out, "show\nsummary\n");
    EXPECT_EQ(routectl_run(card, "--complete nonsense s").out, "");
}
