// host_history_test.cpp - the history file, read back by the tests' own reader.
#include <algorithm>
#include <climits>
#include <csignal>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include <sys/inotify.h>
#include <sys/stat.h>

#include "counters.h"
#include "host_support.h"
#include "sdwrap.h"

using namespace harness;

namespace
{
constexpr std::uint32_t EVENT = 0x730000;

// Reads a history of component 115 as a program that knows only the format would.
history parse(const std::string &name = "history/115")
{
    history h = history_at(card_file(name));
    EXPECT_TRUE(h.valid) << name;
    EXPECT_EQ(file_text(card_file(name)).substr(32, 32), std::string(32, '\0'));
    return h;
}

void log_text(const std::string &text) { EXPECT_EQ(sdwrap_hist_event(EVENT, text.size(), text.data()), 0); }

// A record that a signal stops, and what stands in front of it.
struct stopped_record {
    const char *where;
    std::size_t count, bytes; // records in front of it, and the data of each
    std::size_t own_bytes;    // its own data
};

const std::string LAST_WORDS[] = {"the first of the clean-up", std::string(60, 's'), "the third"};
constexpr int CLEANED_UP = 10;
unsigned instructions_left;

// Called in front of each instruction. At the last of them it does what the process's own handler of a signal does:
// writes records and ends the process.
void at_instruction(int)
{
    if (instructions_left-- != 0)
        return;
    for (const std::string &text : LAST_WORDS)
        (void)sdwrap_hist_event(EVENT, text.size(), text.data());
    _exit(CLEANED_UP);
}

// Makes the record in a child process, with the clean-up at that instruction of it. Returns CLEANED_UP, or 0 when the
// record has fewer (none where the processor does not stop at each).
int clean_up_at(unsigned instruction, const stopped_record &r)
{
    return in_child([&] {
        EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 1024), 0);
        for (std::size_t i = 0; i < r.count; ++i)
            log_text(std::string(r.bytes, 'b'));
        const std::string text(r.own_bytes, 'x');
        instructions_left = instruction;
        (void)std::signal(SIGTRAP, at_instruction);
#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
        constexpr std::uint64_t TRAP_FLAG = 0x100;
        const std::uint64_t flags = __builtin_ia32_readeflags_u64();
        __builtin_ia32_writeeflags_u64(flags | TRAP_FLAG);
        (void)sdwrap_hist_event(EVENT, text.size(), text.data());
        __builtin_ia32_writeeflags_u64(flags);
#endif
    });
}

// The clean-up's records are the newest, in front of them may be the stopped one, and else only what was there before.
void expect_whole_history(const stopped_record &r)
{
    std::vector<history_record> records = parse().records;
    ASSERT_GE(records.size(), std::size(LAST_WORDS));
    for (std::size_t i = std::size(LAST_WORDS); i-- > 0; records.pop_back())
        ASSERT_EQ(records.back().data, LAST_WORDS[i]);
    if (!records.empty() && records.back().data == std::string(r.own_bytes, 'x'))
        records.pop_back();
    ASSERT_GE(records.size(), std::min<std::size_t>(r.count, 7)) << "no more is dropped than is needed";
    for (const history_record &record : records)
        ASSERT_EQ(record.data, std::string(r.bytes, 'b'));
}
} // namespace

TEST(history, a_record_is_read_back_as_it_was_written)
{
    on_fresh_card([] {
        EXPECT_EQ(sdwrap_hist_init(0x10000), 0);
        EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 0x10000), 0);
        timespec before = {}, after = {};
        clock_gettime(CLOCK_REALTIME, &before);
        log_text("first");
        log_text("");
        log_text(std::string("four") + '\0');
        clock_gettime(CLOCK_REALTIME, &after);
        const history h = parse();
        EXPECT_EQ(h.capacity, 0x10000u);
        EXPECT_EQ(h.tail, 0u);
        ASSERT_EQ(h.records.size(), 3u);
        EXPECT_EQ(h.records[0].data, "first");
        EXPECT_EQ(h.records[0].type, EVENT);
        EXPECT_GE(h.records[0].time, static_cast<std::uint64_t>(before.tv_sec) * 1000000000u);
        EXPECT_LE(h.records[2].time / 1000000000u, static_cast<std::uint64_t>(after.tv_sec));
        EXPECT_EQ(h.records[1].data, "");
        EXPECT_EQ(h.records[2].data, std::string("four") + '\0');
        EXPECT_EQ(platform_counters.history_records, 3u);
    });
}

TEST(history, the_oldest_records_make_room_and_the_rest_stay_readable)
{
    on_fresh_card([] {
        EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 1024), 0);
        std::mt19937 random(20260201);
        std::vector<std::string> written;
        for (int i = 0; i < 3000; ++i) {
            written.push_back(std::to_string(i) + std::string(random() % 200, 'r'));
            log_text(written.back());
            if (i % 50 != 0)
                continue;
            const history h = parse();
            ASSERT_LE(h.records.size(), written.size());
            for (std::size_t r = 0; r < h.records.size(); ++r)
                ASSERT_EQ(h.records[r].data, written[written.size() - h.records.size() + r]) << "after " << i;
            ASSERT_TRUE(i == 0 || h.records.size() >= 4) << "no more is dropped than is needed";
        }
    });
}

TEST(history, a_record_that_cannot_fit_or_of_another_component_is_refused)
{
    on_fresh_card([] {
        EXPECT_EQ(sdwrap_hist_event(EVENT, 1, "x"), -1) << "not set up";
        EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 1024), 0);
        const std::string fits(1024 - 20, 'x');
        log_text("gone");
        log_text(fits);
        EXPECT_EQ(sdwrap_hist_event(EVENT, 1024 - 19, (fits + "x").data()), -1);
        EXPECT_EQ(sdwrap_hist_event(EVENT, ~std::size_t{0}, fits.data()), -1);
        EXPECT_EQ(sdwrap_hist_event(0x740000, 1, "x"), -1);
        const history h = parse();
        ASSERT_EQ(h.records.size(), 1u);
        EXPECT_EQ(h.records[0].data, fits);
        EXPECT_EQ(platform_counters.history_records, 2u);
    });
}

TEST(history, a_restart_goes_on_in_the_file)
{
    const card_dir folder;
    for (const char *life : {"one", "two", "three"}) {
        on_card(folder.path, [&] {
            EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 0x10000), 0);
            log_text(life);
        });
    }
    on_card(folder.path, [] {
        const history h = parse();
        ASSERT_EQ(h.records.size(), 3u);
        EXPECT_EQ(h.records[0].data, "one");
        EXPECT_EQ(h.records[2].data, "three");
    });
}

TEST(history, a_signal_at_any_instruction_of_a_record_leaves_a_whole_history_with_the_clean_ups_records)
{
    // With sanitizers a record has far more instructions, and a try takes far longer: some of them then.
    constexpr unsigned MOST = 600, OTHERWISE = 50;
    for (const stopped_record &r : {stopped_record{"behind another", 1, 20, 40},
                                    {"over older ones, its header over the end of the ring", 21, 28, 200},
                                    {"over older ones, its data over the end of the ring", 30, 44, 200},
                                    {"that ends where the ring ends", 31, 44, 44}}) {
        on_fresh_card([&r] {
            unsigned all = 0;
            while (clean_up_at(all, r) == CLEANED_UP)
                all += 100;
            if (all == 0)
                GTEST_SKIP() << "not stopped at each instruction here: that needs x86-64, and no thread sanitizer";
            const unsigned stride = all > MOST ? all / OTHERWISE : 1;
            for (unsigned instruction = 0; instruction < all; instruction += stride) {
                SCOPED_TRACE("a record " + std::string(r.where) + ", at instruction " + std::to_string(instruction));
                (void)unlink(card_file("history/115").c_str());
                const int end = clean_up_at(instruction, r);
                if (end == 0)
                    break;
                ASSERT_EQ(end, CLEANED_UP);
                ASSERT_NO_FATAL_FAILURE(expect_whole_history(r));
                EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 1024), 0); // the next start
                ASSERT_NO_FATAL_FAILURE(expect_whole_history(r));
            }
        });
    }
}

TEST(history, any_other_file_is_made_anew)
{
    struct damage {
        const char *what;
        std::size_t at;
        std::uint64_t value;
    };
    for (const damage &d : std::initializer_list<damage>{{"magic", 0, 0x100000000},
                                                         {"version", 4, 2},
                                                         {"capacity", 8, 512},
                                                         {"head before tail", 16, 4096},
                                                         {"head too far", 24, 1 << 20},
                                                         {"a record's size", 64, 4},
                                                         {"a record's length", 80, 0xFFFFFFFF}}) {
        on_fresh_card([&] {
            EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 1024), 0);
            log_text("old");
            std::string file = file_text(card_file("history/115"));
            std::memcpy(file.data() + d.at, &d.value, d.at < 8 || d.at >= 64 ? 4 : 8);
            file_write(card_file("history/115"), file);
            EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 1024), 0);
            log_text("new");
            const history h = parse();
            ASSERT_EQ(h.records.size(), 1u) << d.what;
            EXPECT_EQ(h.records[0].data, "new") << d.what;
        });
    }
    on_fresh_card([] {
        EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 1024), 0);
        log_text("old");
        EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 2048), 0) << "of another capacity";
        EXPECT_TRUE(parse().records.empty());
    });
}

TEST(history, what_is_no_file_is_replaced_without_being_followed_or_opened)
{
    const std::pair<const char *, std::function<void(const char *)>> others[] = {
        {"link", [](const char *path) { std::filesystem::create_symlink("../victim", path); }},
        {"link that leads nowhere", [](const char *path) { std::filesystem::create_symlink("nowhere", path); }},
        {"pipe", [](const char *path) { EXPECT_EQ(mkfifo(path, 0600), 0); }},
        {"socket", [](const char *path) { close(peer_socket(path)); }},
    };
    for (const auto &[what, put] : others) {
        SCOPED_TRACE(what);
        on_fresh_card([&put = put] {
            std::filesystem::create_directory(card_file("history"));
            file_write(card_file("victim"), "mine");
            const std::string path = card_file("history/115");
            put(path.c_str());
            const int watched = inotify_init1(IN_NONBLOCK);
            EXPECT_GE(inotify_add_watch(watched, path.c_str(), IN_OPEN | IN_DONT_FOLLOW), 0);
            EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 1024), 0);
            char event[sizeof(inotify_event) + NAME_MAX + 1];
            ssize_t got = 0;
            while ((got = read(watched, event, sizeof event)) > 0)
                EXPECT_EQ(reinterpret_cast<const inotify_event *>(event)->mask & IN_OPEN, 0u) << "opened";
            ASSERT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path)));
            log_text("new");
            EXPECT_EQ(parse().records.size(), 1u);
            EXPECT_EQ(file_text(card_file("victim")), "mine");
        });
    }
}

TEST(history, without_one_the_debug_gate_of_errors_stays_open_and_the_history_gate_closed)
{
    on_fresh_card([] {
        std::filesystem::create_directories(card_file("history/115"));
        const std::string said = stderr_of([] { EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 1024), -1); });
        EXPECT_NE(said.find("history/115: Is a directory"), std::string::npos) << said;
        EXPECT_EQ(sdwrap_hist_set_event_subtype(EVENT, 100, 1), -1);
        EXPECT_NE(sdwrap_chk_int_vcid(100, 0, 0, 1, 0), 0);
        EXPECT_NE(sdwrap_hist_event_subtype_check(EVENT, 100), 0);
    });
}

TEST(history, a_size_that_is_no_ring_is_refused)
{
    on_fresh_card([] {
        for (const std::size_t bytes : {std::size_t{1}, std::size_t{1025}, std::size_t{1} << 40})
            EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, bytes), -1) << bytes;
        EXPECT_NE(sdwrap_chk_int_vcid(100, 0, 0, 1, 0), 0) << "errors still go to standard error";
        EXPECT_EQ(sdwrap_hist_set_event_subtype(EVENT, 100, 1), -1) << "no history, no gate";
    });
}

TEST(history, errors_are_kept_in_a_ring_of_their_own_too)
{
    on_fresh_card([] {
        ASSERT_EQ(sdwrap_hist_init_for_uuid(0x73, 0x10000), 0);
        const auto record = [](std::uint32_t category, std::uint32_t number) {
            std::string data(4 + 60, '\0');
            std::memcpy(data.data(), &category, 4);
            std::memcpy(data.data() + 4, &number, 4);
            EXPECT_EQ(sdwrap_hist_event(EVENT, data.size(), data.data()), 0);
            return data;
        };
        const std::string first = record(100, 1), second = record(100, 2);
        for (std::uint32_t trace = 0; trace < 5000; ++trace)
            (void)record(101, trace);
        (void)sdwrap_hist_event(EVENT, 2, "ab"); // too short for a category
        const history kept = parse("history/115.errors"), all = parse();
        EXPECT_EQ(kept.capacity, 0x4000u);
        ASSERT_EQ(kept.records.size(), 2u);
        EXPECT_EQ(kept.records[0].data, first);
        EXPECT_EQ(kept.records[1].data, second);
        EXPECT_EQ(kept.records[1].type, EVENT);
        EXPECT_TRUE(std::none_of(all.records.begin(), all.records.end(), [&first](const history_record &r) {
            return r.data == first;
        })) << "traces have pushed it out there";
        EXPECT_EQ(platform_counters.history_records, 5003u) << "an error counts once";
        const std::uint64_t at_most = 0x4000 / 88;
        for (std::uint32_t i = 0; i < 500; ++i)
            (void)record(100, i);
        EXPECT_EQ(parse("history/115.errors").records.size(), at_most);
        ASSERT_EQ(sdwrap_hist_init_for_uuid(0x73, 0x10000), 0);
        EXPECT_EQ(parse("history/115.errors").records.size(), at_most) << "a restart keeps them";
    });
}

TEST(history, is_kept_without_the_errors_ring_where_that_cannot_be_had)
{
    on_fresh_card([] {
        std::filesystem::create_directories(card_file("history/115.errors/inside"));
        const std::string said = stderr_of([] { EXPECT_EQ(sdwrap_hist_init_for_uuid(0x73, 0x10000), 0); });
        EXPECT_NE(said.find("history/115.errors"), std::string::npos) << said;
        const std::uint32_t error = 100;
        EXPECT_EQ(sdwrap_hist_event(EVENT, 4, &error), 0);
        EXPECT_EQ(parse().records.size(), 1u);
    });
}
