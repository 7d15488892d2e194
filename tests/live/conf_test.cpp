// conf_test.cpp - the statements about a live card.
#include <fstream>

#include <gtest/gtest.h>
#include <unistd.h>

#include "live_conf.h"

namespace
{
std::string refusal(const std::string &text)
{
    live_conf conf;
    std::string error;
    EXPECT_EQ(live_conf_parse("live.conf", text, &conf, &error), 1) << text;
    EXPECT_TRUE(conf.ports.empty() && conf.tables.empty()) << text;
    return error;
}
} // namespace

TEST(live_conf, each_statement_is_read)
{
    live_conf conf;
    std::string error;
    ASSERT_EQ(live_conf_parse("live.conf",
                              "# ports\ncontext 3 table 100\ncontext 4 table main # as it is anyway\n\n"
                              "port eth1 ctx 3\nport eth2.7 ctx 4 id 9\nstale 500ms\npins /sys/fs/bpf/card\n",
                              &conf, &error),
              0)
        << error;
    EXPECT_EQ(conf.tables, (std::map<std::uint32_t, std::uint32_t>{{3, 100}, {4, 254}}));
    ASSERT_EQ(conf.ports.size(), 2u);
    EXPECT_EQ(conf.ports[0].name, "eth1");
    EXPECT_EQ(conf.ports[0].ctx, 3u);
    EXPECT_FALSE(conf.ports[0].id.has_value());
    EXPECT_EQ(conf.ports[1].name, "eth2.7");
    EXPECT_EQ(conf.ports[1].id, 9u);
    EXPECT_EQ(conf.stale_ms, 500u);
    EXPECT_EQ(conf.pins, "/sys/fs/bpf/card");
    EXPECT_EQ(live_conf_table(conf, 3), 100u);
    EXPECT_EQ(live_conf_table(conf, 0), 254u);
}

TEST(live_conf, what_is_not_expected_is_named_with_its_line)
{
    const std::pair<const char *, const char *> cases[] = {
        {"\nprot eth1", "live.conf:2: prot: expected context, port, stale or pins"},
        {"context", "live.conf:1: the line ends: expected a context (0 to 255)"},
        {"context 256 table 1", "live.conf:1: 256: expected a context (0 to 255)"},
        {"context 3 100", "live.conf:1: 100: expected \"table\""},
        {"context 3 table local", "live.conf:1: local: expected a table of the kernel: main, default or a number other "
                                  "than 255, which is local"},
        {"context 3 table 255",
         "live.conf:1: 255: expected a table of the kernel: main, default or a number other than 255, which is local"},
        {"context 3 table 1 2", "live.conf:1: 2: expected the end of the line"},
        {"context 3 table 1\ncontext 3 table 2", "live.conf:2: 3: this context has a table already"},
        {"port", "live.conf:1: the line ends: expected the name of a link, such as eth1"},
        {"port a/b ctx 1", "live.conf:1: a/b: expected the name of a link, such as eth1"},
        {"port sixteen-letters- ctx 1", "live.conf:1: sixteen-letters-: expected the name of a link, such as eth1"},
        {"port eth1", "live.conf:1: the line ends: expected \"ctx\""},
        {"port eth1 ctx 1 id 0", "live.conf:1: 0: expected an interface id (1 to 1023)"},
        {"port eth1 ctx 1 id 1024", "live.conf:1: 1024: expected an interface id (1 to 1023)"},
        {"port eth1 ctx 1 dn 4", "live.conf:1: dn: expected the end of the line"},
        {"port eth1 ctx 1\nport eth1 ctx 2", "live.conf:2: eth1: this link is a port already"},
        {"port eth1 ctx 1 id 7\nport eth2 ctx 1 id 7", "live.conf:2: 7: this is the interface id of eth1"},
        {"stale 10", "live.conf:1: 10: expected a time such as 500ms or 10s, an hour at most"},
        {"stale 0s", "live.conf:1: 0s: expected a time such as 500ms or 10s, an hour at most"},
        {"stale 3601s", "live.conf:1: 3601s: expected a time such as 500ms or 10s, an hour at most"},
        {"pins card", "live.conf:1: card: expected the path of a folder, such as /sys/fs/bpf/card"},
    };
    for (const auto &[text, error] : cases)
        EXPECT_EQ(refusal(text), error);
}

TEST(live_conf, texts_add_up_as_if_they_were_one)
{
    live_conf conf;
    std::string error;
    ASSERT_EQ(live_conf_parse("live.conf", "port eth1 ctx 3\n", &conf, &error), 0);
    EXPECT_EQ(live_conf_parse("command line", "port eth1 ctx 4", &conf, &error), 1);
    EXPECT_EQ(error, "command line:1: eth1: this link is a port already");
    EXPECT_EQ(conf.ports.size(), 1u);
}

TEST(live_conf, a_file_that_is_not_there_has_no_statements)
{
    live_conf conf;
    std::string error;
    EXPECT_EQ(live_conf_read("/nonexistent/live.conf", &conf, &error), 0);
    EXPECT_EQ(live_conf_read("/", &conf, &error), 1);
    EXPECT_EQ(error, "/: Is a directory");
    const std::string path = testing::TempDir() + "live_conf_test." + std::to_string(getpid());
    std::ofstream(path) << "port eth1 ctx 3\nport\n";
    EXPECT_EQ(live_conf_read(path, &conf, &error), 1);
    EXPECT_EQ(error, path + ":2: the line ends: expected the name of a link, such as eth1");
    (void)unlink(path.c_str());
}

TEST(live_conf, the_manuals_example_is_as_it_says)
{
    std::ifstream manual(LIVE_CONF_MANUAL);
    std::string line, example;
    bool is_example = false;
    while (std::getline(manual, line)) {
        if (line == ".nf" || line == ".fi")
            is_example = line == ".nf";
        else if (is_example)
            example += line + "\n";
    }
    live_conf conf;
    std::string error;
    ASSERT_EQ(live_conf_parse("example", example, &conf, &error), 0) << error;
    EXPECT_EQ(conf.tables, (std::map<std::uint32_t, std::uint32_t>{{1, 101}, {2, 102}}));
    EXPECT_EQ(conf.ports.size(), 3u);
    EXPECT_EQ(conf.stale_ms, 5000u);
}
