// start_test.cpp - the life of the process: start, a second instance, the end by a signal, the start after a crash.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon.h"
#include "tables.h"

using namespace harness;

namespace
{
const char *const SERVED[] = {"arp_prefix_mgr_add_route", "arp_prefix_mgr_remove_route",
                              "rib_max_ecmp_route",       "rib_add_route",
                              "rib_remove_route",         "slowpath_route_lookup",
                              "show_rib_print",           "show_rib_summary",
                              "show_fib_print",           "show_fib_summary",
                              "mtrie_lookup_exact_stub",  "rib_add_nat_pool",
                              "rib_remove_nat_pool",      "mtrie_hw_dump_api",
                              "norvik_send_route_advert"};

rpc_reply ask_whether_full(const card_dir &card, std::uint32_t ctx)
{
    const rpc_client client(card);
    return rpc_call(client.fd, "rib_max_ecmp_route", {arg16(ctx), arg32(ctx), arg32(0x0A000000), arg32(0xFF000000)});
}

// Leaf 224.0.0.0/3 of `ctx` by an exact lookup: 0 when it stands.
rpc_reply look_up_drop_entry(const card_dir &card, std::uint32_t ctx)
{
    const rpc_client client(card);
    return rpc_call(client.fd, "mtrie_lookup_exact_stub",
                    {arg32(ctx), arg32(0xE0000000), arg32(0xE0000000), arg_ref(7)});
}
} // namespace

TEST(daemon_start, reports_ready_and_serves_its_procedures_by_name)
{
    const card_dir card;
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    for (const char *name : SERVED) {
        const rpc_client client(card, std::string("rpc/names/") + name);
        EXPECT_EQ(rpc_call(client.fd, name, {}).status, 2u) << name;
    }
}

TEST(daemon_start, leaves_the_three_tables_word_for_word_with_the_drop_entry_in_every_tree)
{
    const card_dir card;
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    const std::vector<std::uint32_t> wired = memory_words(card, "mem/wired");
    EXPECT_EQ(wired.size(), WIRED_WORDS);
    EXPECT_EQ(table_difference(wired, table_at_start(TABLE_WIRED).words), "");
    for (const char *copy : {"mem/ixp1", "mem/ixp2"}) {
        const std::vector<std::uint32_t> words = memory_words(card, copy);
        EXPECT_EQ(words.size(), TABLE_WORDS) << copy;
        EXPECT_EQ(table_difference(words, table_at_start(TABLE_IXP).words), "") << copy;
    }
}

TEST(daemon_start, writes_its_progress_to_the_history)
{
    const card_dir card;
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1");
    const history h = history_read(card);
    ASSERT_TRUE(h.valid);
    EXPECT_EQ(h.capacity, 0x10000u);
    ASSERT_FALSE(h.records.empty());
    for (const history_record &record : h.records) {
        EXPECT_EQ(record.type, 0x730000u);
        EXPECT_TRUE(record.category() == 100 || record.category() == 101) << record.category() << record.text();
    }
}

TEST(daemon_start, gives_sockets_and_files_to_the_owner_alone)
{
    const card_dir card;
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1");
    for (const char *name :
         {"rpc/9", "rpc/9.lock", "mts/514", "mts/514.lock", "mem/wired", "mem/ixp1", "mem/ixp2", "history/115"})
        EXPECT_EQ(path_mode(card.at(name)), 0600u) << name;
    for (const char *name : {"rpc", "rpc/names", "mts", "mem", "history"})
        EXPECT_EQ(path_mode(card.at(name)), 0700u) << name;
}

TEST(daemon_start, refuses_a_card_directory_that_others_can_enter)
{
    const card_dir card;
    path_set_mode(card.path, 0755);
    daemon_process daemon(card);
    EXPECT_EQ(daemon_exit_status(daemon), 255);
    EXPECT_NE(file_text(daemon.err).find(card.path), std::string::npos) << file_text(daemon.err);
    EXPECT_FALSE(path_exists(card.at("mts/514")));
}

TEST(daemon_start, with_one_processor_leaves_the_second_table_memory_alone)
{
    const card_dir card;
    file_write(card.at("card.conf"), "num_ixp = 1 # the second socket is empty\n");
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    EXPECT_FALSE(path_exists(card.at("mem/ixp2")));
    EXPECT_EQ(table_difference(memory_words(card, "mem/ixp1"), table_at_start(TABLE_IXP).words), "");
}

TEST(daemon_start, without_processors_fails_at_the_first_route_since_no_tree_has_a_root)
{
    const card_dir card;
    file_write(card.at("card.conf"), "num_ixp = 0\n");
    daemon_process daemon(card);
    EXPECT_EQ(daemon_exit_status(daemon), 255);
    const history h = history_read(card);
    EXPECT_TRUE(history_has(h, 100, "<Ctx:0>couldn't add entry for multicast pkt drop\n"));
    EXPECT_FALSE(history_has(h, 100, "<Ctx:0>main: mtrie_pool_init failed\n"));
    for (const char *copy : {"mem/wired", "mem/ixp1"}) {
        const std::vector<std::uint32_t> words = memory_words(card, copy);
        EXPECT_EQ(std::count(words.begin(), words.end(), 0u), static_cast<std::ptrdiff_t>(words.size())) << copy;
    }
    EXPECT_EQ(memory_words(card, "mem/ixp1").size(), TABLE_WORDS);
    EXPECT_FALSE(path_exists(card.at("mem/ixp2")));
}

TEST(daemon_start, follows_the_wired_base_of_the_card_settings_in_the_wired_copy_only)
{
    for (const std::uint32_t base : {0x10000000u, 0u, 0xFEC00000u}) {
        const card_dir card;
        file_write(card.at("card.conf"), "wired_phys_base = " + std::to_string(base) + "\n");
        const daemon_process daemon(card);
        ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
        EXPECT_EQ(table_difference(memory_words(card, "mem/wired"), table_at_start(base).words), "") << base;
        EXPECT_EQ(table_difference(memory_words(card, "mem/ixp2"), table_at_start(TABLE_IXP).words), "") << base;
    }
}

TEST(daemon_start, reports_a_bad_setting_with_its_line_and_serves_without_it)
{
    const card_dir card;
    file_write(card.at("card.conf"), "# settings\nnum_ixp = many\n");
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    EXPECT_NE(file_text(daemon.err).find("card.conf: line 2: "), std::string::npos) << file_text(daemon.err);
    EXPECT_TRUE(path_exists(card.at("mem/ixp2")));
}

TEST(daemon_start, without_a_history_says_so_and_goes_on_writing_errors_to_standard_error)
{
    const card_dir card;
    make_folder(card.at("history"));
    make_folder(card.at("history/115"));
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1");
    EXPECT_NE(file_text(daemon.err).find("history/115: Is a directory"), std::string::npos) << file_text(daemon.err);
    const rpc_client client(card);
    ASSERT_EQ(
        rpc_call(client.fd, "rib_remove_route", {arg16(9), arg32(9), arg32(0x0B000000), arg32(0xFF000000), arg32(1)})
            .result,
        1u);
    EXPECT_NE(file_text(daemon.err).find(" ROUTE Mgr ctx 9: could not find static route for ip=b000000/8"),
              std::string::npos)
        << file_text(daemon.err);
    const mts_queue queue(card, 1024);
    EXPECT_EQ(counter_value(debug_answer(queue, 5), "history_records"), 0u);
}

TEST(daemon_start, opens_the_null_device_for_standard_descriptors_that_are_closed)
{
    const card_dir card;
    daemon_limits closed;
    closed.no_standard = true;
    const daemon_process daemon(card, "first", closed);
    ASSERT_EQ(daemon_notification(daemon), "READY=1");
    for (const char *standard : {"0", "1", "2"})
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(daemon.pid) + "/fd/" + standard), "/dev/null")
            << standard;
    const mts_queue queue(card, 1024);
    debug_request(queue, 1, 0, 0xFFFFFFFF, 1);
    EXPECT_EQ(ask_whether_full(card, 3).status, 0u);
    EXPECT_NE(debug_answer(queue, 5), "");
    for (const char *lock : {"rpc/9.lock", "mts/514.lock"})
        EXPECT_EQ(file_text(card.at(lock)), "") << lock;
}

TEST(daemon_start, says_why_a_folder_in_a_sockets_place_keeps_it_from_binding)
{
    {
        const card_dir card;
        make_folder(card.at("mts"));
        make_folder(card.at("mts/514"));
        daemon_process daemon(card);
        EXPECT_EQ(daemon_exit_status(daemon), 255);
        const std::string said = file_text(daemon.err);
        const std::size_t why = said.find("/mts/514: Is a directory; not bound\n");
        ASSERT_NE(why, std::string::npos) << said;
        EXPECT_LT(why, said.find("Routemgr: couldn't bind to MTS, Routemgr might already be running.")) << said;
    }
    const card_dir card;
    make_folder(card.at("rpc"));
    make_folder(card.at("rpc/9"));
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << "it goes on without callers";
    EXPECT_NE(file_text(daemon.err).find("/rpc/9: Is a directory; not bound\n"), std::string::npos)
        << file_text(daemon.err);
}

TEST(daemon_second_instance, ends_with_255_and_its_line_while_the_first_keeps_serving)
{
    const card_dir card;
    const daemon_process first(card);
    ASSERT_EQ(daemon_notification(first), "READY=1");
    daemon_process second(card, "second");
    EXPECT_EQ(daemon_exit_status(second), 255);
    for (const char *socket : {"/rpc/9", "/mts/514"})
        EXPECT_NE(file_text(second.err).find(std::string(socket) + ": a live process holds its lock; not bound\n"),
                  std::string::npos)
            << file_text(second.err);
    EXPECT_NE(file_text(second.err).find("Routemgr: couldn't bind to MTS, Routemgr might already be running."),
              std::string::npos)
        << file_text(second.err);

    for (const char *name : SERVED)
        EXPECT_TRUE(path_exists(card.at(std::string("rpc/names/") + name))) << name;
    EXPECT_EQ(ask_whether_full(card, 3).status, 0u);
    const rpc_reply found = look_up_drop_entry(card, 255);
    EXPECT_EQ(found.status, 0u);
    EXPECT_EQ(found.result, 0u);
    const mts_queue queue(card, 1024);
    EXPECT_NE(debug_answer(queue, 3), "");
}

class daemon_end : public testing::TestWithParam<int>
{
};

TEST_P(daemon_end, by_a_signal_gives_status_1_and_leaves_files_but_no_procedure)
{
    const card_dir card;
    daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1");
    daemon_signal(daemon, GetParam());
    EXPECT_EQ(daemon_exit_status(daemon), 1);
    for (const char *name : {"mem/wired", "mem/ixp1", "mem/ixp2", "history/115", "rpc/9.lock", "mts/514.lock"})
        EXPECT_TRUE(path_exists(card.at(name))) << name;
    for (const char *name : SERVED)
        EXPECT_FALSE(path_exists(card.at(std::string("rpc/names/") + name))) << name;
    EXPECT_TRUE(history_read(card).valid);

    // The drop entries are taken back, so a processor finds the empty default leaf there.
    const std::vector<std::uint32_t> words = memory_words(card, "mem/ixp1");
    for (const std::uint32_t tree : {0u, 128u, 255u})
        EXPECT_EQ(words[slot_at(tree, 224) / 4], TABLE_IXP + leaf_at(tree)) << tree;
}

INSTANTIATE_TEST_SUITE_P(signals, daemon_end, testing::Values(SIGINT, SIGHUP, SIGQUIT),
                         [](const testing::TestParamInfo<int> &tested) {
                             return tested.param == SIGINT ? "SIGINT" : tested.param == SIGHUP ? "SIGHUP" : "SIGQUIT";
                         });

TEST(daemon_output, that_nobody_reads_any_more_ends_the_daemon_without_a_clean_up)
{
    (void)::signal(SIGPIPE, SIG_DFL); // as the daemon inherits it
    const card_dir card;
    ASSERT_EQ(::mkfifo(card.at("first.out").c_str(), 0600), 0);
    const int reader = ::open(card.at("first.out").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(::fcntl(reader, F_SETPIPE_SZ, 1 << 20), 0) << "room for the trace of a start";
    daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    {
        const rpc_client caller(card);
        ::close(reader);
        rpc_send(caller.fd, rpc_record(1, call_pool_add(IP(10, 8, 0, 16), 8))); // which is traced
        EXPECT_EQ(daemon_exit_status(daemon), 1000 + SIGPIPE);
    }
    EXPECT_TRUE(path_exists(card.at("rpc/names/rib_add_route"))) << "the clean-up would have taken it";
    const daemon_process again(card, "again");
    EXPECT_EQ(daemon_notification(again), "READY=1") << file_text(again.err);
}

TEST(daemon_restart, after_a_crash_serves_again_with_fresh_tables_and_the_history_goes_on)
{
    const card_dir card;
    history before;
    {
        daemon_process crashed(card);
        ASSERT_EQ(daemon_notification(crashed), "READY=1");
        before = history_read(card);
        daemon_signal(crashed, SIGKILL);
        ASSERT_EQ(daemon_exit_status(crashed), 1000 + SIGKILL);
    }
    EXPECT_TRUE(path_exists(card.at("mts/514"))); // stale, as a crash leaves it

    const daemon_process again(card, "again");
    ASSERT_EQ(daemon_notification(again), "READY=1") << file_text(again.err);
    EXPECT_EQ(ask_whether_full(card, 0).status, 0u);
    EXPECT_EQ(table_difference(memory_words(card, "mem/wired"), table_at_start(TABLE_WIRED).words), "");
    const history after = history_read(card);
    ASSERT_TRUE(before.valid && after.valid);
    EXPECT_GT(after.head, before.head);
    EXPECT_GE(after.tail, before.tail);
}

TEST(daemon_restart, keeps_the_last_line_before_the_crash)
{
    const card_dir card;
    std::string last_line;
    {
        daemon_process crashed(card);
        ASSERT_EQ(daemon_notification(crashed), "READY=1");
        const mts_queue queue(card, 1024);
        const rpc_client client(card);
        for (const std::uint32_t category : {100u, 101u})
            debug_request(queue, 2, category, 0, 0); // so that the next start does not drown the line
        ASSERT_NE(debug_answer(queue, 3), "");
        debug_request(queue, 2, 100, 0, 1);
        ASSERT_NE(debug_answer(queue, 3), "");
        ASSERT_EQ(rpc_call(client.fd, "rib_remove_route",
                           {arg16(9), arg32(9), arg32(0x0B000000), arg32(0xFF000000), arg32(1)})
                      .result,
                  1u);
        last_line = "<Ctx:9>could not find static route for ip=b000000/8";
        ASSERT_EQ(history_read(card).records.back().text(), last_line);
        daemon_signal(crashed, SIGKILL);
        ASSERT_EQ(daemon_exit_status(crashed), 1000 + SIGKILL);
    }
    EXPECT_EQ(history_read(card).records.back().text(), last_line);
}
