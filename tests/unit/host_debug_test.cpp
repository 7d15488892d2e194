// host_debug_test.cpp - the gates, the debug line, and the requests that switch and show them.
#include <cerrno>
#include <cstring>

#include "counters.h"
#include "doc_tables.h"
#include "host_support.h"
#include "mtrack.h"
#include "sdwrap.h"

using namespace harness;

namespace
{
constexpr mts_bind_options BIND = {{1, 0, 1024, 0, 0}};
const char *const NAMES[] = {"errors", "events", "third"};

bool debug_open(std::uint32_t category, std::int32_t context)
{
    return sdwrap_chk_int_vcid(category, 0, 0, 1, context) != 0;
}
bool history_open(std::uint32_t category) { return sdwrap_hist_event_subtype_check(0x730000, category) == 0; }

int start(unsigned count = 3)
{
    const int queue = mts_bind(4, 514, &BIND, "test");
    EXPECT_EQ(sdwrap_dbg_init(queue, "ROUTE Mgr", "ROUTE Mgr", count, NAMES, 0, 0, 0), 0);
    return queue;
}

// Hands the request over as a received message from `sap`.
void request(int queue, std::initializer_list<std::uint32_t> words, std::uint32_t sap = 0)
{
    const byte_string bytes = word_bytes(words);
    const mts_message m = {MTS_OPC_DEBUG_REQUEST, {0, sap}, static_cast<std::uint32_t>(bytes.size()), bytes.data()};
    EXPECT_EQ(sdwrap_process_msg(queue, &m), 0) << "consumed";
}
constexpr std::uint32_t ALL = 0xFFFFFFFF;
} // namespace

TEST(sdwrap, before_the_history_only_debug_of_the_first_category_is_open)
{
    on_fresh_card([] {
        EXPECT_TRUE(debug_open(100, 0) && debug_open(100, 255) && debug_open(100, -1));
        EXPECT_FALSE(debug_open(101, 0) || debug_open(99, 0) || debug_open(132, 0));
        EXPECT_FALSE(history_open(100) || history_open(101) || history_open(99));
        (void)start();
        EXPECT_TRUE(debug_open(100, 3)) << "until the history is there";
        EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 0x10000), 0);
        EXPECT_FALSE(debug_open(100, 3));
        EXPECT_EQ(sdwrap_hist_set_event_subtype(0x730000, 100, 1), 0);
        EXPECT_TRUE(history_open(100));
        EXPECT_FALSE(history_open(101));
    });
}

TEST(sdwrap, categories_need_a_bound_queue_and_fit_the_table)
{
    on_fresh_card([] {
        EXPECT_EQ(sdwrap_dbg_init(-1, "m", "t", 3, NAMES, 0, 0, 0), -1);
        EXPECT_EQ(sdwrap_dbg_init(99, "m", "t", 3, NAMES, 0, 0, 0), -1);
        EXPECT_STREQ(sdwrap_dbg_modname, "ROUTE Mgr") << "early lines have a module too";
        const int queue = start();
        EXPECT_EQ(sdwrap_dbg_init(queue, "m", "t", SDWRAP_MAX_CATEGORIES + 1, NAMES, 0, 0, 0), -1);
        EXPECT_EQ(sdwrap_sys_init_helper(-1, "m", "t", 1984, 0, 0, 0), -1);
        EXPECT_EQ(sdwrap_sys_init_helper(queue, "ROUTE Mgr", "t", 1984, 0, 0, 0), 0);
        zumo_syslog(3, "a line that a host without a log daemon %s", "drops");
        sdwrap_sys_clean(queue);
    });
}

TEST(sdwrap, syslog_gets_facility_daemon_the_severity_and_the_ident)
{
    if (!own_mounts_are_allowed())
        GTEST_SKIP() << "the host does not let this user listen in the log's place";
    on_fresh_card([] {
        const int queue = start();
        ASSERT_TRUE(have_own_mounts());
        ASSERT_EQ(mount("none", "/dev", "tmpfs", 0, nullptr), 0);
        const int log = peer_socket("/dev/log");
        const auto logged = [log] { // without the time
            const std::string line = peer_receive(log);
            const std::size_t time = line.find('>') + 1, time_bytes = std::strlen("Jan 31 23:59:59");
            return line.size() < time + time_bytes ? line : line.substr(0, time) + line.substr(time + time_bytes);
        };
        zumo_syslog(3, "early %d", 1);
        EXPECT_EQ(logged(), "<27> ROUTE Mgr: early 1") << "before its syslog is set up";
        EXPECT_EQ(sdwrap_sys_init_helper(queue, "ident", "t", 1984, 0, 0, 0), 0);
        errno = ENOSPC;
        zumo_syslog(0, "%s", "text");
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(logged(), "<24> ident: text");
        zumo_syslog(7, "text");
        EXPECT_EQ(logged(), "<31> ident: text");
        zumo_syslog(8, "text");
        EXPECT_EQ(logged(), "<31> ident: text") << "no severity is over 7";
        sdwrap_sys_clean(queue);
        zumo_syslog(6, "late");
        EXPECT_EQ(logged(), "<30> ROUTE Mgr: late");
    });
}

TEST(sdwrap, a_debug_line_is_time_module_context_and_text_on_one_line)
{
    const std::string line = stderr_of([] {
        errno = ENOSPC;
        buginf_vcid(3, 1, "ROUTE Mgr", 0, "\n\nmain: %s\nmore\n\n", "text");
        EXPECT_EQ(errno, ENOSPC) << "the arguments of the next gate may print it";
    });
    std::string form = line.substr(0, 27); // digits as 0, so that the time's form can be compared
    for (char &c : form)
        c = c >= '0' && c <= '9' ? '0' : c;
    EXPECT_EQ(form, "0000-00-00T00:00:00.000000Z");
    EXPECT_EQ(line.substr(27), " ROUTE Mgr ctx 3: main: text more\n");
    const std::string empty = stderr_of([] { buginf_vcid(-1, 1, "M", 0, "%s", "\n\n"); });
    EXPECT_EQ(empty.substr(27), " M ctx -1: \n");
}

TEST(sdwrap, a_long_debug_text_is_cut_and_still_a_line)
{
    const std::string text(5000, 'x');
    const std::string line = stderr_of([&] { buginf_vcid(0, 1, "M", 0, "%s", text.c_str()); });
    EXPECT_EQ(line.back(), '\n');
    EXPECT_GT(line.size(), 1024u);
    EXPECT_LT(line.size(), 4096u) << "one write that a pipe takes whole";
}

TEST(debug_service, verb_1_switches_a_category_for_a_context_or_for_all)
{
    on_fresh_card([] {
        const int queue = start();
        sdwrap_dbg_clean(queue);
        EXPECT_FALSE(debug_open(100, 0));
        request(queue, {1, 101, 7, 1});
        EXPECT_TRUE(debug_open(101, 7));
        EXPECT_FALSE(debug_open(101, 8) || debug_open(100, 7) || debug_open(101, -1));
        request(queue, {1, 0, ALL, 1});
        EXPECT_TRUE(debug_open(100, 0) && debug_open(102, 255) && debug_open(101, -1) && debug_open(101, 256));
        EXPECT_FALSE(debug_open(103, 0)) << "not registered";
        request(queue, {1, 0, 9, 0});
        EXPECT_FALSE(debug_open(100, 9) || debug_open(102, 9));
        EXPECT_TRUE(debug_open(100, 10));
        request(queue, {1, 100, ALL, 0});
        EXPECT_FALSE(debug_open(100, 10) || debug_open(100, -1));
        EXPECT_TRUE(debug_open(101, -1));
    });
}

TEST(debug_service, what_it_does_not_know_is_consumed_without_effect)
{
    on_fresh_card([] {
        const int queue = start();
        request(queue, {1, 0, ALL, 0});
        const sdwrap_gate_table before = sdwrap_gates;
        request(queue, {});
        request(queue, {1, 101, ALL});
        request(queue, {0, 101, ALL, 1});
        request(queue, {8, 101, ALL, 1});
        request(queue, {1, 99, ALL, 1});
        request(queue, {1, 103, ALL, 1});
        request(queue, {1, 101, 256, 1});
        request(queue, {1, 101, ALL, 2});
        request(queue, {2, 103, 0, 1});
        EXPECT_EQ(std::memcmp(&before, &sdwrap_gates, sizeof before), 0);
        const mts_message other = {4065, {0, 0}, 0, nullptr};
        EXPECT_EQ(sdwrap_process_msg(queue, &other), 1) << "the caller's";
    });
}

TEST(debug_service, verb_2_switches_the_history)
{
    on_fresh_card([] {
        const int queue = start();
        request(queue, {2, 101, 0, 1});
        EXPECT_TRUE(history_open(101));
        EXPECT_FALSE(history_open(100));
        request(queue, {2, 0, 0, 1});
        EXPECT_TRUE(history_open(100) && history_open(102));
        EXPECT_FALSE(history_open(103));
        request(queue, {2, 0, 0, 0});
        EXPECT_FALSE(history_open(100) || history_open(101) || history_open(102));
    });
}

TEST(debug_service, verb_3_answers_a_line_for_each_memory_type)
{
    on_fresh_card([] {
        static const char *const types[] = {"MTRACK_A", "MTRACK_B"};
        const int queue = start();
        const int peer = peer_socket(card_file("mts/1024"));
        EXPECT_EQ(mtrack_init("test", 340, types, 2), 0);
        void *const a = mtrack_alloc(340, 1, 36);
        mtrack_free(mtrack_alloc(340, 1, 100));
        request(queue, {3, 0, 0, 0}, 1024);
        EXPECT_EQ(peer_receive(peer), message_text(1531, 514, "0 MTRACK_A 0 0 0\n1 MTRACK_B 1 36 136\n"));
        request(queue, {3, 0, 0, 0}, 0);
        EXPECT_EQ(peer_receive(peer), "<none>") << "no access point to answer";
        EXPECT_EQ(platform_counters.messages_lost, 0u);
        mtrack_free(a);
    });
}

TEST(debug_service, an_answer_is_cut_after_the_last_whole_line_that_fits)
{
    on_fresh_card([] {
        static const std::string name(90, 'N');
        static const char *types[32];
        for (const char *&type : types)
            type = name.c_str();
        const int queue = start();
        const int peer = peer_socket(card_file("mts/1024"));
        EXPECT_EQ(mtrack_init("test", 340, types, 32), 0);
        request(queue, {3, 0, 0, 0}, 1024);
        const std::string text = peer_receive(peer).substr(16);
        // Ten lines of 99 bytes; the eleventh, of 100, does not fit.
        EXPECT_EQ(text.size(), 990u);
        EXPECT_EQ(text.back(), '\n');
        EXPECT_EQ(text.find('\0'), std::string::npos);
    });
}

TEST(debug_service, verb_4_sets_the_low_byte_of_the_facilitys_threshold)
{
    on_fresh_card([] {
        static syslog_facility facility = {"ROUTE Mgr", 1984, 2, 2};
        const int queue = start();
        request(queue, {4, 0, 0, 5}); // no facility yet: nothing
        sdwrap_sys_facility = &facility;
        request(queue, {4, 0, 0, 0x10307});
        EXPECT_EQ(facility.level, 7u);
        EXPECT_EQ(facility.default_level, 2u);
    });
}

TEST(debug_service, verb_5_answers_every_counter_by_name)
{
    on_fresh_card([] {
        const int queue = start();
        const int peer = peer_socket(card_file("mts/1024"));
        platform_counters = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
        request(queue, {5, 0, 0, 0}, 1024);
        EXPECT_EQ(peer_receive(peer).substr(16),
                  "calls_served 1\ncalls_refused 2\ncalls_malformed 3\nreplies_dropped 4\nconnections 5\n"
                  "connections_refused 6\nmessages_received 7\nmessages_malformed 8\nmessages_lost 9\n"
                  "remote_calls 10\nremote_calls_failed 11\nscp_sent 12\nscp_failed 13\nroute_cache_flushes 14\n"
                  "history_records 15\ninterface_reads_torn 16\n");
    });
}

TEST(debug_service, verb_6_of_a_process_without_routes_is_answered_with_the_end)
{
    on_fresh_card([] {
        const int queue = start();
        const int peer = peer_socket(card_file("mts/1024"));
        request(queue, {6, 0, 3, 0}, 1024);
        EXPECT_EQ(peer_receive(peer), message_text(1531, 514, "end\n"));
    });
}

TEST(debug_service, verb_7_answers_the_gates_of_each_category)
{
    on_fresh_card([] {
        const int queue = start();
        const int peer = peer_socket(card_file("mts/1024"));
        request(queue, {1, 0, ALL, 0});
        request(queue, {2, 101, 0, 1});
        request(queue, {1, 100, ALL, 1});
        request(queue, {1, 102, 7, 1});
        request(queue, {1, 102, 255, 1});
        request(queue, {7, 0, 0, 0}, 1024);
        EXPECT_EQ(peer_receive(peer).substr(16), "100 0 256\n101 1 0\n102 0 2\n");
    });
}

TEST(debug_service, counters_are_those_of_the_document_in_its_order)
{
    on_fresh_card([] {
        const int queue = start();
        const int peer = peer_socket(card_file("mts/1024"));
        platform_counters = {};
        std::string expected;
        for (const std::string &name : doc_read(DOCS_DIR "/card-interfaces.md").tables["Counters"].column("counter"))
            expected += name.substr(1, name.size() - 2) + " 0\n";
        request(queue, {5, 0, 0, 0}, 1024);
        EXPECT_EQ(peer_receive(peer).substr(16), expected);
    });
}
