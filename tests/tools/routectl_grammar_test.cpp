// routectl_grammar_test.cpp - words into commands: abbreviations, values in any usual form, errors that help.
#include <gtest/gtest.h>

#include <set>

#include "card_tool/address_text.h"
#include "card_tool/shown_text.h"
#include "daemon.h"
#include "grammar.h"
#include "options.h"
#include "routectl_samples.h"

using namespace harness;

namespace
{
std::vector<std::string> split(const std::string &line)
{
    std::vector<std::string> words;
    EXPECT_TRUE(grammar_split(line, words)) << line;
    return words;
}

grammar_result parse(const std::string &line) { return grammar_parse(split(line)); }

std::string command_of(const std::string &line)
{
    const grammar_result result = parse(line);
    return result.command == nullptr ? "error: " + result.error : result.command->words;
}

std::string complete(const std::string &line, const std::string &begun)
{
    std::string text;
    for (const std::string &word : grammar_complete(split(line), begun, grammar_values::leave_out))
        text += (text.empty() ? "" : " ") + word;
    return text;
}
} // namespace

TEST(routectl_grammar, words_may_be_cut_short_while_they_are_unambiguous)
{
    EXPECT_EQ(command_of("r a 10.1.0.0/16 via 192.0.2.1"), "route add");
    EXPECT_EQ(command_of("ro sh"), "route show");
    EXPECT_EQ(command_of("r su"), "route summary");
    EXPECT_EQ(command_of("ar d 10.0.0.1"), "arp del");
    EXPECT_EQ(command_of("if d 3").rfind("error: ambiguous \"d\": down or delete", 0), 0u);
    EXPECT_EQ(command_of("r s").rfind("error: ambiguous \"s\": show or summary", 0), 0u);
}

TEST(routectl_grammar, a_command_may_be_the_beginning_of_others)
{
    ASSERT_NE(parse("live").command, nullptr);
    EXPECT_STREQ(parse("live").command->words, "live");
    ASSERT_NE(parse("live trace 1.2.3.4").command, nullptr);
    EXPECT_STREQ(parse("live trace 1.2.3.4").command->words, "live trace");
    EXPECT_EQ(parse("live now").error, "unknown word \"now\"; expected trace, verify");
}

TEST(routectl_grammar, an_error_names_the_word_and_what_would_fit)
{
    EXPECT_EQ(parse("route bad").error, "unknown word \"bad\"; expected add, del, show, get, full, summary");
    EXPECT_EQ(parse("route add 10.1/16 nia 1.1.1.1").error.rfind("unexpected \"nia\"; expected via, ctx, id", 0), 0u);
    EXPECT_EQ(parse("route add 10.1/16 via").error.rfind("missing value after \"via\": NEXTHOP", 0), 0u);
    EXPECT_EQ(parse("route add 10.1/16").error.rfind("missing: via NEXTHOP", 0), 0u);
    EXPECT_EQ(parse("route add 10.1/16 via 1.1.1.1 ctx 256")
                  .error.rfind("ctx: invalid CTX \"256\": expected a routing context, 0 to 255", 0),
              0u);
    EXPECT_EQ(parse("route add 10.1/16 via 1.1.1.1 ctx 1 ctx 2").error.rfind("unexpected \"ctx\"", 0), 0u);
    EXPECT_EQ(parse("memory now").error.rfind("unexpected \"now\": the command is complete before it", 0), 0u);
    EXPECT_EQ(parse("debug loud on").error.rfind("invalid CATEGORY \"loud\"", 0), 0u);
    EXPECT_NE(parse("").error.find("expected route"), std::string::npos);
}

TEST(routectl_grammar, every_command_parses_with_all_and_with_only_its_needed_values)
{
    std::set<std::string> seen;
    for (const routectl_command *command : routectl_table()) {
        EXPECT_TRUE(seen.insert(command->words).second) << command->words << " is there twice";
        EXPECT_TRUE((command->run != nullptr) != (command->change != nullptr)) << command->words;
        for (const sample_values values : {sample_values::all, sample_values::needed}) {
            const std::string line = sample_line(*command, values);
            const grammar_result result = parse(line);
            EXPECT_EQ(result.command, command) << line << ": " << result.error;
        }
    }
    EXPECT_GE(seen.size(), 30u);
}

TEST(routectl_grammar, every_command_refuses_to_lack_a_needed_value_and_to_have_a_word_over)
{
    for (const routectl_command *command : routectl_table()) {
        const std::string line = sample_line(*command, sample_values::needed);
        const bool has_needed_values = line != command->words;
        EXPECT_EQ(parse(command->words).error.empty(), !has_needed_values) << command->words;
        EXPECT_FALSE(parse(sample_line(*command, sample_values::all) + " one-more").error.empty()) << command->words;
    }
}

TEST(routectl_grammar, help_is_there_at_each_level)
{
    EXPECT_NE(parse("help").help.find("route add PREFIX"), std::string::npos);
    EXPECT_NE(parse("route help").help.find("route del PREFIX"), std::string::npos);
    EXPECT_EQ(parse("route help").help.find("nat add"), std::string::npos);
    EXPECT_NE(parse("help route").help.find("route del PREFIX"), std::string::npos);
    EXPECT_NE(parse("route add ?").help.find("a routing context, 0 to 255"), std::string::npos);
    EXPECT_NE(parse("r a 10.1/16 help").help.find("route add PREFIX"), std::string::npos);
    EXPECT_EQ(parse("help nonsense").error.rfind("unknown word \"nonsense\"", 0), 0u);
    for (const routectl_command *command : routectl_table())
        EXPECT_NE(parse(std::string(command->words) + " help").help.find(command->help), std::string::npos);
}

TEST(routectl_grammar, values_with_a_word_come_in_any_order)
{
    const grammar_result result = parse("nat add ixp 7 198.51.100.1 if 12 ctx 3 count 6");
    ASSERT_NE(result.command, nullptr) << result.error;
    EXPECT_EQ(result.values.at("addr").number, 0xC6336401u);
    EXPECT_EQ(result.values.at("count").number, 6u);
    EXPECT_EQ(result.values.at("if").number, 12u);
    EXPECT_EQ(result.values.at("ixp").number, 7u);
    EXPECT_EQ(result.values.at("ctx").number, 3u);
}

TEST(routectl_grammar, completion_offers_what_parses)
{
    EXPECT_EQ(complete("", "ro"), "route");
    EXPECT_EQ(complete("route", "s"), "show summary");
    EXPECT_EQ(complete("r", "a"), "add");
    EXPECT_EQ(complete("route add 10.1/16", ""), "via ctx id");
    EXPECT_EQ(complete("route add 10.1/16 via 1.1.1.1 ctx 3", ""), "id");
    EXPECT_EQ(complete("pools copy", "ix"), "ixp1 ixp2");
    EXPECT_EQ(complete("debug errors", "o"), "on off");
    EXPECT_EQ(complete("hw export", "--"), "--dot --json");
    EXPECT_EQ(complete("route add", ""), "");
    EXPECT_EQ(complete("nonsense", ""), "");
    EXPECT_EQ(complete("route add nonsense", ""), "");
}

TEST(routectl_grammar, a_line_is_cut_at_blanks_but_not_in_quotes)
{
    EXPECT_EQ(split("a  b\tc # d"), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(split("\"a b\" c\"\" \"\""), (std::vector<std::string>{"a b", "c", ""}));
    EXPECT_TRUE(split("   # nothing").empty());
    std::vector<std::string> words;
    EXPECT_FALSE(grammar_split("a \"b", words));
}

TEST(routectl_prefix, every_usual_form_is_read)
{
    const struct {
        const char *text, *next;
        std::uint32_t address, mask;
        bool took_next;
    } CASES[] = {
        {"10.1.0.0/16", "", 0x0A010000, 0xFFFF0000, false},
        {"10.1/16", "", 0x0A010000, 0xFFFF0000, false},
        {"10/8", "", 0x0A000000, 0xFF000000, false},
        {"10.1.0.0/255.255.0.0", "", 0x0A010000, 0xFFFF0000, false},
        {"10.1.0.0", "255.255.0.0", 0x0A010000, 0xFFFF0000, true},
        {"10.1.2.3", "via", 0x0A010203, 0xFFFFFFFF, false},
        {"default", "via", 0, 0, false},
        {"0.0.0.0/0", "", 0, 0, false},
        {"0/0", "", 0, 0, false},
        {"0.0.0.0", "0.0.0.0", 0, 0, true},
        {"255.255.255.255/32", "", 0xFFFFFFFF, 0xFFFFFFFF, false},
    };
    for (const auto &c : CASES) {
        const address_prefix prefix = prefix_parse(c.text, c.next);
        EXPECT_EQ(prefix.error, "") << c.text;
        EXPECT_EQ(prefix.address, c.address) << c.text;
        EXPECT_EQ(prefix.mask, c.mask) << c.text;
        EXPECT_EQ(prefix.took_next, c.took_next) << c.text;
    }
}

TEST(routectl_prefix, host_bits_are_refused_with_the_prefix_that_was_meant)
{
    EXPECT_EQ(prefix_parse("10.1.2.0/16", "").error, "has bits outside its mask; the prefix is 10.1.0.0/16");
    EXPECT_EQ(prefix_parse("10.1.2.3", "255.255.255.0").error, "has bits outside its mask; the prefix is 10.1.2.0/24");
    EXPECT_EQ(prefix_parse("10.1.2.3/0", "").error, "has bits outside its mask; the prefix is 0.0.0.0/0");
    EXPECT_EQ(address_and_mask_parse("10.1.2.3/16", "").error, "") << "an interface's address has them";
}

TEST(routectl_prefix, what_is_no_prefix_is_refused)
{
    for (const char *text : {"", "10", "10.1", "10.1.0", "10.1.0.0/33", "10.1.0.0/", "10.1.0.0/-1", "10.1.0.0/0x10",
                             "256.0.0.0/8", "10..0.0/8", "10.1.0.0.0/16", "010.1.0.0/16", "10.1.0.0/255.0.255.0",
                             "10.1.0.0 /16", "+1.2.3.4", "1.2.3.4/8/8", "Default", "1.2.3.0004/32", "/8"})
        EXPECT_NE(prefix_parse(text, "").error, "") << "\"" << text << "\"";
    EXPECT_NE(prefix_parse("10.1.0.0", "255.0.255.0").error, "") << "a mask with holes";
}

TEST(routectl_prefix, numbers_are_decimal_or_hexadecimal_and_bounded)
{
    EXPECT_EQ(number_parse("255", 255), 255u);
    EXPECT_EQ(number_parse("0xfF", 255), 255u);
    EXPECT_EQ(number_parse("4294967295", 0xFFFFFFFF), 0xFFFFFFFFu);
    for (const char *text : {"", "-1", "+1", " 1", "1 ", "256", "0x", "0x100", "1e1", "4294967296"})
        EXPECT_EQ(number_parse(text, 255), std::nullopt) << "\"" << text << "\"";
}

TEST(routectl_grammar, an_interface_address_has_its_mask)
{
    EXPECT_NE(grammar_parse(std::vector<std::string>{"if", "create", "5", "10.1.1.1"}).error.find("10.1.1.1/24"),
              std::string::npos);
    EXPECT_EQ(grammar_parse(std::vector<std::string>{"if", "create", "5", "10.1.1.1/32"}).error, "");
    EXPECT_EQ(grammar_parse(std::vector<std::string>{"if", "address", "5", "10.1.1.1", "255.255.255.0"}).error, "");
}

TEST(shown_text, a_message_stays_readable_whatever_word_it_names)
{
    EXPECT_EQ(shown_text("10.1.0.0/16"), "10.1.0.0/16");
    EXPECT_EQ(shown_text("\x1b[31mred\x7f\n"), "\\x1b[31mred\\x7f\\x0a") << "nothing that a terminal obeys";
    EXPECT_EQ(shown_text(std::string(64, 'a')), std::string(64, 'a'));
    EXPECT_EQ(shown_text(std::string(100000, 'a')), std::string(64, 'a') + "...");
    EXPECT_EQ(shown_text(std::string(63, 'a') + "\xc3\xa9" + "b"), std::string(63, 'a') + "\xc3\xa9...")
        << "not cut in two";
    EXPECT_LT(shown_text(std::string(100000, '\x80')).size(), 200u);
}

TEST(routectl_manual, every_command_has_its_place_in_it)
{
    std::string manual = file_text(MANUAL_PATH);
    for (const char *mark : {"\"", "\\fR", "\\fP", "[", "]"})
        for (std::size_t at = manual.find(mark); at != std::string::npos; at = manual.find(mark))
            manual.erase(at, std::string(mark).size());
    for (const routectl_command *command : routectl_table())
        EXPECT_NE(manual.find(std::string(command->words)), std::string::npos) << command->words;
}

TEST(routectl_options, letters_stand_together_or_alone_wherever_they_like)
{
    std::vector<std::string> words = {"route", "-jf", "show", "-b", "file", "-t100", "--direct"};
    routectl_options options;
    EXPECT_EQ(options_take(words, options), "");
    EXPECT_EQ(words, (std::vector<std::string>{"route", "show", "--direct"}));
    EXPECT_TRUE(options.json && options.go_on);
    EXPECT_EQ(options.batch, "file");
    EXPECT_EQ(options.timeout_ms, 100u);
}

TEST(routectl_options, long_names_stand_before_the_command_and_behind_its_first_word_two_dashes_are_its_own)
{
    std::vector<std::string> words = {"--json", "--timeout", "7", "--card=/x", "hw", "export", "--dot", "-f", "--json"};
    routectl_options options;
    EXPECT_EQ(options_take(words, options), "");
    EXPECT_EQ(words, (std::vector<std::string>{"hw", "export", "--dot", "--json"}));
    EXPECT_TRUE(options.json && options.go_on);
    EXPECT_EQ(options.timeout_ms, 7u);
    EXPECT_EQ(options.card, "/x");
}

TEST(routectl_options, of_two_values_the_last_one_counts)
{
    std::vector<std::string> words = {"-t", "5", "-j", "-j", "memory", "-t", "6", "-t7"};
    routectl_options options;
    EXPECT_EQ(options_take(words, options), "");
    EXPECT_EQ(options.timeout_ms, 7u);
}

TEST(routectl_options, what_is_none_is_said)
{
    for (const std::vector<std::string> &given : std::vector<std::vector<std::string>>{{"-x"},
                                                                                       {"-b"},
                                                                                       {"-b", ""},
                                                                                       {"-t", "0"},
                                                                                       {"-t", "soon"},
                                                                                       {"-t", "3600001"},
                                                                                       {"-j", "-o"},
                                                                                       {"-jx"},
                                                                                       {"--x"},
                                                                                       {"route", "-x"}}) {
        std::vector<std::string> words = given;
        routectl_options options;
        EXPECT_NE(options_take(words, options), "") << given[0];
    }
}
