// route_log_test.cpp - the logging step and the debug file.
//
// What holds in all: the history copy carries the context in front, the debug copy does not, and neither gate decides
// for the other.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fake_card.h"
#include "route_log.h"

using namespace harness;

namespace
{

constexpr char DEBUG_FILE[] = "/tmp/routemgr.dbg";

int evaluations = 0;
int counted(int value)
{
    ++evaluations;
    return value;
}

// The debug file has one name on a host: tests that run side by side take turns.
struct debug_file_turn {
    int fd = open("/tmp/routemgr.dbg.turn", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    debug_file_turn() { EXPECT_EQ(flock(fd, LOCK_EX), 0); }
    ~debug_file_turn() { close(fd); }
};

std::string file_text(const char *path)
{
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace

TEST(route_log, a_line_goes_to_the_history_with_its_context_in_front)
{
    fake_card card;
    route_log(ROUTE_DBG_INFO, 17, "value %d of %s\n", 5, "it");
    ASSERT_EQ(card.history.size(), 1u);
    EXPECT_EQ(card.history[0].category, 105u);
    EXPECT_EQ(card.history[0].event_type, 0x730000u);
    EXPECT_EQ(card.history[0].text, "<Ctx:17>value 5 of it\n");
    EXPECT_TRUE(card.debug.empty());
}

TEST(route_log, a_context_of_any_width_stands_in_front_as_a_signed_number)
{
    fake_card card;
    card.open_history(ROUTE_DBG_INFO, true);
    for (const std::uint32_t ctx : {0u, 9u, 255u, 65535u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        card.forget();
        route_log(ROUTE_DBG_INFO, ctx, "%s", "x");
        EXPECT_EQ(card.texts(ROUTE_DBG_INFO),
                  std::vector<std::string>{"<Ctx:" + std::to_string(static_cast<int>(ctx)) + ">x"});
    }
}

TEST(route_log, the_history_length_is_the_text_and_five)
{
    fake_card card;
    route_log(ROUTE_DBG_ERRORS, 0, "abc");
    ASSERT_EQ(card.history.size(), 1u);
    EXPECT_EQ(card.history[0].bytes, std::string("<Ctx:0>abc").size() + 5);
}

TEST(route_log, a_long_message_is_cut_to_512_bytes_with_its_prefix)
{
    fake_card card;
    const std::string body(2000, 'x');
    route_log(ROUTE_DBG_ERRORS, 200, "%s", body.c_str());
    ASSERT_EQ(card.history.size(), 1u);
    EXPECT_EQ(card.history[0].text, "<Ctx:200>" + std::string(511 - 9, 'x')); // the NUL is the 512th byte
    EXPECT_EQ(card.history[0].bytes, 511u + 5u);
}

TEST(route_log, a_message_that_just_fits_is_not_cut)
{
    fake_card card;
    const std::string body(511 - 7, 'y');
    route_log(ROUTE_DBG_ERRORS, 0, "%s", body.c_str());
    ASSERT_EQ(card.history.size(), 1u);
    EXPECT_EQ(card.history[0].text, "<Ctx:0>" + body);
}

TEST(route_log, with_the_history_off_and_debugging_on_the_line_goes_to_the_debug_output_without_a_prefix)
{
    fake_card card;
    card.open_history(ROUTE_DBG_MTS, false);
    card.open_debug(ROUTE_DBG_MTS, true);
    sdwrap_dbg_modname = "ROUTE Mgr";
    route_log(ROUTE_DBG_MTS, 3, "text %u\n", 9u);
    EXPECT_TRUE(card.history.empty());
    ASSERT_EQ(card.debug.size(), 1u);
    EXPECT_EQ(card.debug[0].ctx, 3);
    EXPECT_EQ(card.debug[0].module, "ROUTE Mgr");
    EXPECT_EQ(card.debug[0].text, "text 9\n");
}

TEST(route_log, a_line_goes_both_ways_when_both_gates_are_open)
{
    fake_card card;
    card.open_debug(ROUTE_DBG_INFO, true);
    route_log(ROUTE_DBG_INFO, 1, "both");
    EXPECT_EQ(card.lines(), std::vector<std::string>{"105 <Ctx:1>both"});
    ASSERT_EQ(card.debug.size(), 1u);
    EXPECT_EQ(card.debug[0].text, "both");
}

TEST(route_log, the_debug_gate_is_the_contexts_own)
{
    fake_card card;
    card.open_debug_for(ROUTE_DBG_INFO, 4, true);
    route_log(ROUTE_DBG_INFO, 3, "three");
    route_log(ROUTE_DBG_INFO, 4, "four");
    ASSERT_EQ(card.debug.size(), 1u);
    EXPECT_EQ(card.debug[0].text, "four");
}

TEST(route_log, a_context_from_0x8000_on_reaches_the_debug_output_sign_extended)
{
    fake_card card;
    card.open_debug(ROUTE_DBG_INFO, true);
    route_log(ROUTE_DBG_INFO, 0xFFFFu, "last");
    ASSERT_EQ(card.debug.size(), 1u);
    EXPECT_EQ(card.debug[0].ctx, -1);
}

TEST(route_log, arguments_are_evaluated_once_for_each_open_gate)
{
    fake_card card;
    for (const int gates : {0, 1, 2, 3}) {
        card.open_history(ROUTE_DBG_INFO, (gates & 1) != 0);
        card.open_debug(ROUTE_DBG_INFO, (gates & 2) != 0);
        evaluations = 0;
        route_log(ROUTE_DBG_INFO, 0, "%d", counted(1));
        EXPECT_EQ(evaluations, (gates & 1) + (gates >> 1)) << "gates " << gates;
    }
}

TEST(route_log, a_category_that_is_not_registered_is_logged_nowhere)
{
    fake_card card;
    route_log(99u, 0, "below");
    route_log(132u, 0, "above");
    EXPECT_TRUE(card.history.empty());
    EXPECT_TRUE(card.debug.empty());
}

// The stream is opened once in a process's life, so each test of the debug file is a process of its own.

TEST(routemgr_mydebug, two_calls_write_two_lines_after_emptying_the_file_once)
{
    const debug_file_turn turn;
    fake_card card;
    const fake_child_result child = run_in_child([] {
        std::ofstream(DEBUG_FILE) << "of an earlier process\n";
        routemgr_mydebug(1, "first %d\n", 1);
        routemgr_mydebug(2, "second %s\n", "two");
        std::exit(file_text(DEBUG_FILE) == "first 1\nsecond two\n" ? 0 : 1);
    });
    EXPECT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0) << "file: " << file_text(DEBUG_FILE);
    EXPECT_EQ(card.printed(), "first 1\nsecond two\n");
    unlink(DEBUG_FILE);
}

TEST(routemgr_mydebug, a_line_is_cut_to_its_buffer)
{
    const debug_file_turn turn;
    fake_card card;
    const fake_child_result child = run_in_child([] {
        routemgr_mydebug(0, "%s", std::string(3000, 'z').c_str());
        std::exit(file_text(DEBUG_FILE) == std::string(1023, 'z') ? 0 : 1);
    });
    EXPECT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0);
    EXPECT_EQ(card.printed(), std::string(1023, 'z'));
    unlink(DEBUG_FILE);
}

TEST(routemgr_mydebug, a_file_that_cannot_be_opened_is_said_and_tried_again)
{
    const debug_file_turn turn;
    fake_card card;
    const fake_child_result child = run_in_child([] {
        unlink(DEBUG_FILE);
        mkdir(DEBUG_FILE, 0700); // what stands there is no file
        routemgr_mydebug(0, "lost\n");
        rmdir(DEBUG_FILE);
        routemgr_mydebug(0, "kept\n");
        std::exit(file_text(DEBUG_FILE) == "kept\n" ? 0 : 1);
    });
    EXPECT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0);
    EXPECT_EQ(card.printed(), "Couldn't open /tmp/routemgr.dbg for writing!\nkept\n");
    unlink(DEBUG_FILE);
}

// What another user can have planted under the file's name. Each is the failure to open, and stays as it was.
TEST(routemgr_mydebug, a_link_a_pipe_and_a_file_with_a_second_name_are_not_written)
{
    const debug_file_turn turn;
    const std::string target = DEBUG_FILE + std::string(".target");
    for (const char *planted : {"link", "dangling link", "pipe", "second name"}) {
        SCOPED_TRACE(planted);
        fake_card card;
        const fake_child_result child = run_in_child([&] {
            unlink(DEBUG_FILE);
            unlink(target.c_str());
            if (std::string(planted) != "dangling link")
                std::ofstream(target) << "as it was";
            const int made = std::strstr(planted, "link") != nullptr ? symlink(target.c_str(), DEBUG_FILE)
                             : std::strcmp(planted, "pipe") == 0     ? mkfifo(DEBUG_FILE, 0600)
                                                                     : link(target.c_str(), DEBUG_FILE);
            routemgr_mydebug(0, "lost\n");
            const std::string expected = std::string(planted) == "dangling link" ? "" : "as it was";
            std::exit(made == 0 && file_text(target.c_str()) == expected ? 0 : 1);
        });
        EXPECT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0);
        EXPECT_EQ(card.printed(), "Couldn't open /tmp/routemgr.dbg for writing!\n");
        unlink(DEBUG_FILE);
        unlink(target.c_str());
    }
}

TEST(routemgr_mydebug, a_file_of_another_user_is_not_written)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a file away";
    const debug_file_turn turn;
    fake_card card;
    const fake_child_result child = run_in_child([] {
        unlink(DEBUG_FILE);
        std::ofstream(DEBUG_FILE) << "as it was";
        const int given = chown(DEBUG_FILE, 12345, 12345);
        routemgr_mydebug(0, "lost\n");
        std::exit(given == 0 && file_text(DEBUG_FILE) == "as it was" ? 0 : 1);
    });
    EXPECT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0);
    EXPECT_EQ(card.printed(), "Couldn't open /tmp/routemgr.dbg for writing!\n");
    unlink(DEBUG_FILE);
}
