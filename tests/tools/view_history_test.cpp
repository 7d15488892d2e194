// view_history_test.cpp - the event history's ring: wrapped, overtaken, damaged, replaced, and beside a writer.
#include "view_support.h"

#include <atomic>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "card_view/history_view.h"

using namespace harness;

namespace
{
constexpr std::uint32_t ROUTE_MANAGER = 115;

history_view open_history(const card_dir &card)
{
    std::string why;
    history_view view = history_open(card.path, ROUTE_MANAGER, &why);
    EXPECT_TRUE(view.is_open()) << why;
    return view;
}

std::vector<history_entry> read_all(history_view &view)
{
    std::vector<history_entry> entries;
    EXPECT_EQ(history_read(view, entries), history_end::caught_up);
    return entries;
}

std::string refusal(const card_dir &card)
{
    std::string why;
    EXPECT_FALSE(history_open(card.path, ROUTE_MANAGER, &why).is_open());
    return why;
}
} // namespace

TEST(view_history, records_come_oldest_first_with_time_category_and_context)
{
    const card_dir card;
    history_image image(1024);
    image.add(100, 1769903999000001000, "<Ctx:3>\nMAX ECMP exceed\n");
    image.add(101, 1769903999500000000, "no context here");
    image.write(card);
    history_view view = open_history(card);
    const std::vector<history_entry> entries = read_all(view);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].category, 100u);
    EXPECT_EQ(entries[0].context, 3);
    EXPECT_EQ(history_line(entries[0]), "MAX ECMP exceed");
    EXPECT_EQ(history_time(entries[0].time_ns), "2026-01-31T23:59:59.000001Z");
    EXPECT_EQ(entries[1].context, -1);
    EXPECT_EQ(entries[1].text, "no context here");
    EXPECT_TRUE(read_all(view).empty()) << "a second look finds nothing new";
}

TEST(view_history, a_ring_that_wrapped_many_times_gives_what_it_still_holds)
{
    const card_dir card;
    history_image image(1024);
    for (int i = 0; i < 1000; ++i)
        image.add(101, static_cast<std::uint64_t>(i),
                  "<Ctx:1>line " + std::string(static_cast<std::size_t>(i % 40), 'x') + std::to_string(i));
    image.write(card);
    history_view view = open_history(card);
    const std::vector<history_entry> entries = read_all(view);
    ASSERT_GT(entries.size(), 5u);
    EXPECT_EQ(entries.back().time_ns, 999u);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(entries[i].time_ns, 1000 - entries.size() + i);
        EXPECT_TRUE(entries[i].text.ends_with(std::to_string(entries[i].time_ns))) << entries[i].text;
    }
}

TEST(view_history, records_since_a_head_are_those_of_the_call_between)
{
    const card_dir card;
    history_image image(1024);
    image.add(100, 1, "<Ctx:0>before");
    image.write(card);
    history_view view = open_history(card);
    view.next = history_head(view);
    image.add(100, 2, "<Ctx:0>after");
    image.write(card); // in place, as its writer does
    history_view again = open_history(card);
    again.next = view.next;
    const std::vector<history_entry> entries = read_all(again);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(history_line(entries[0]), "after");
}

TEST(view_history, a_reader_that_was_overtaken_goes_on_at_the_oldest_record_and_counts_what_it_lost)
{
    const card_dir card;
    history_image image(1024);
    image.add(100, 0, "<Ctx:0>first");
    image.write(card);
    history_view view = open_history(card);
    for (std::uint64_t i = 1; i <= 100; ++i)
        image.add(100, i, "<Ctx:0>later");
    image.write(card);
    view = [&] {
        history_view reopened = open_history(card);
        reopened.next = 0; // where the reader stood
        return reopened;
    }();
    const std::vector<history_entry> entries = read_all(view);
    EXPECT_EQ(view.lost, image.tail);
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries.front().at, image.tail);
    EXPECT_EQ(entries.back().time_ns, 100u);
}

TEST(view_history, a_writer_that_died_in_a_record_leaves_the_whole_ones)
{
    const card_dir card;
    history_image image(1024);
    image.add(100, 1, "<Ctx:0>whole");
    const std::uint64_t head = image.head;
    image.add(100, 2, "<Ctx:0>half written");
    image.head = head; // the process was gone before it let the record in
    image.write(card);
    history_view view = open_history(card);
    const std::vector<history_entry> entries = read_all(view);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(history_line(entries[0]), "whole");
}

TEST(view_history, a_record_that_is_none_ends_the_reading_of_what_stands_behind_it)
{
    struct damage {
        const char *what;
        std::uint64_t at; // in the second record
        std::uint32_t value;
    };
    for (const damage &d : {damage{"size 0", 0, 0}, damage{"size not of 8", 0, 44}, damage{"beyond head", 0, 4096},
                            damage{"huge", 0, 0xFFFFFFF8}, damage{"length beyond size", 16, 500}}) {
        SCOPED_TRACE(d.what);
        const card_dir card;
        history_image image(1024);
        image.add(100, 1, "<Ctx:0>good");
        const std::uint64_t second = image.head;
        image.add(100, 2, "<Ctx:0>bad");
        image.add(100, 3, "<Ctx:0>behind");
        image.put_number(second + d.at, d.value);
        image.write(card);
        history_view view = open_history(card);
        std::vector<history_entry> entries;
        EXPECT_EQ(history_read(view, entries), history_end::damaged);
        EXPECT_EQ(entries.size(), 1u);
        EXPECT_EQ(view.next, image.head) << "what is written from now on is read again";
        EXPECT_EQ(view.lost, image.head - second);
    }
}

TEST(view_history, head_and_tail_that_cannot_be_are_damage)
{
    for (const auto &[tail, head] : {std::pair<std::uint64_t, std::uint64_t>{64, 0}, {0, 2048}, {4, 8}}) {
        const card_dir card;
        history_image image(1024);
        image.tail = tail;
        image.head = head;
        image.write(card);
        history_view view = open_history(card);
        std::vector<history_entry> entries;
        EXPECT_EQ(history_read(view, entries), history_end::damaged) << tail << " " << head;
        EXPECT_TRUE(entries.empty());
    }
}

TEST(view_history, a_file_that_is_no_history_is_refused_by_name)
{
    const card_dir card;
    const std::string path = card.at("history/115");
    EXPECT_EQ(refusal(card), path + ": missing: no route manager has run on this card");
    history_image image(1024);
    image.write(card);
    std::string bytes = image.bytes();
    for (const std::size_t at : {0u, 4u, 8u, 15u}) { // magic, version, capacity
        std::string broken = bytes;
        broken[at] = static_cast<char>(broken[at] + 1);
        file_write(path, broken);
        EXPECT_EQ(refusal(card), path + ": no event history") << at;
    }
    file_write(path, bytes.substr(0, 500));
    EXPECT_EQ(refusal(card), path + ": no event history");
    file_write(path, "");
    EXPECT_EQ(refusal(card), path + ": not a regular file of at least 72 bytes");
    std::filesystem::remove(path);
    make_folder(path);
    EXPECT_EQ(refusal(card), path + ": not a regular file of at least 72 bytes");
}

TEST(view_history, a_file_that_was_made_anew_is_noticed)
{
    const card_dir card;
    history_image image(1024);
    image.add(100, 1, "<Ctx:0>old");
    image.write(card);
    history_view view = open_history(card);
    std::filesystem::rename(card.at("history/115"), card.at("history/old"));
    image.write(card);
    std::vector<history_entry> entries;
    EXPECT_EQ(history_read(view, entries), history_end::replaced);
    EXPECT_EQ(entries.size(), 1u) << "what the old one held is read all the same";
}

TEST(view_history, a_file_that_is_cut_while_it_is_followed_is_left_unread)
{
    const card_dir card;
    history_image image(65536);
    image.write(card);
    history_view view = open_history(card);
    while (image.head < 32768)
        image.add(100, 1, "<Ctx:0>never read");
    image.write(card);
    std::filesystem::resize_file(card.at("history/115"), 4096); // tail and head are left, most of the records are not
    std::vector<history_entry> entries;
    EXPECT_EQ(history_read(view, entries), history_end::replaced);
    EXPECT_TRUE(entries.empty());
}

TEST(view_history, every_record_read_beside_a_writer_is_whole)
{
    constexpr std::uint64_t RING = 65536; // records so long that the writer is often in the one being read
    const card_dir card;
    history_image(RING).write(card);
    const int fd = ::open(card.at("history/115").c_str(), O_RDWR | O_CLOEXEC);
    void *const map = ::mmap(nullptr, 64 + RING, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    ASSERT_NE(map, MAP_FAILED);
    auto *const words = static_cast<std::uint64_t *>(map);
    std::atomic<bool> is_over = false;
    // A writer in the platform's order: tail, the record, head. A record of n words holds its number n - 3 times.
    std::thread writer([&] {
        std::uint64_t head = 0, tail = 0;
        const auto store = [&](std::uint64_t at, std::uint64_t value) {
            __atomic_store_n(words + 8 + at % RING / 8, value, __ATOMIC_RELAXED);
        };
        for (std::uint64_t number = 0; !is_over; ++number) {
            const std::uint64_t size = 8 * (5 + number * 1009 % 3000);
            if (head + size - tail > RING)
                tail = head; // all of it goes, so that readers are overtaken often
            __atomic_store_n(words + 2, tail, __ATOMIC_RELEASE);
            __atomic_thread_fence(__ATOMIC_SEQ_CST);
            store(head, size | std::uint64_t{0x730000} << 32);
            store(head + 8, number);
            store(head + 16, (size - 20) | std::uint64_t{100} << 32);
            for (std::uint64_t at = 24; at < size; at += 8)
                store(head + at, (1 + number % 255) * 0x0101010101010101u);
            head += size;
            __atomic_store_n(words + 3, head, __ATOMIC_RELEASE);
        }
    });
    history_view view = open_history(card);
    std::vector<history_entry> entries;
    std::uint64_t last = 0, seen = 0, torn = 0, backward = 0, damaged = 0;
    while (seen < 150) {
        entries.clear();
        damaged += history_read(view, entries) == history_end::caught_up ? 0u : 1u;
        for (const history_entry &entry : entries) {
            torn += entry.text.find_first_not_of(entry.text[0]) == std::string::npos ? 0u : 1u;
            backward += seen != 0 && entry.time_ns <= last ? 1u : 0u;
            last = entry.time_ns;
            ++seen;
        }
    }
    is_over = true;
    writer.join();
    ::munmap(map, 64 + RING);
    EXPECT_EQ(torn, 0u);
    EXPECT_EQ(backward, 0u);
    EXPECT_EQ(damaged, 0u);
}

TEST(view_history, categories_are_known_by_number_name_beginning_and_registered_name)
{
    EXPECT_EQ(history_category_of("100"), 100u);
    EXPECT_EQ(history_category_of("err"), 100u);
    EXPECT_EQ(history_category_of("main-loop"), 106u);
    EXPECT_EQ(history_category_of("route manager lock msg"), 103u);
    EXPECT_EQ(history_category_of("m"), std::nullopt) << "mts or main-loop";
    EXPECT_EQ(history_category_of("adj-"), std::nullopt);
    EXPECT_EQ(history_category_of(""), std::nullopt);
    EXPECT_EQ(history_category_of("112"), std::nullopt);
    EXPECT_STREQ(history_category_name(105), "info");
    EXPECT_STREQ(history_category_name(99), "?");
}

TEST(view_history, ages_have_units)
{
    EXPECT_EQ(history_age_of("90"), 90000000000u);
    EXPECT_EQ(history_age_of("500ms"), 500000000u);
    EXPECT_EQ(history_age_of("10m"), 600000000000u);
    EXPECT_EQ(history_age_of("2h"), 7200000000000u);
    EXPECT_EQ(history_age_of("1d"), 86400000000000u);
    for (const char *word : {"", "m", "-1", "1w", "1.5h", "99999999999d", "99999999d"})
        EXPECT_EQ(history_age_of(word), std::nullopt) << word;
}

TEST(view_history, a_filter_takes_what_meets_all_its_parts)
{
    history_entry entry{0, 1000, 0, 100, 3, "<Ctx:3>x"};
    EXPECT_TRUE(history_passes({}, entry));
    EXPECT_TRUE(history_passes({{100, 101}, {3}, 1000}, entry));
    EXPECT_FALSE(history_passes({{101}, {}, 0}, entry));
    EXPECT_FALSE(history_passes({{}, {4}, 0}, entry));
    EXPECT_FALSE(history_passes({{}, {}, 1001}, entry));
    entry.context = -1;
    EXPECT_FALSE(history_passes({{}, {3}, 0}, entry)) << "a record without a context is of none";
}

TEST(view_history, a_line_is_one_line_whatever_the_record_holds)
{
    EXPECT_EQ(history_line({0, 0, 0, 100, 3, "<Ctx:3>\n a\nb\033[2J\n\n"}), " a b [2J");
    EXPECT_EQ(history_line({0, 0, 0, 100, -1, "<Ctx:x>a"}), "<Ctx:x>a");
    EXPECT_EQ(history_line({0, 0, 0, 100, -1, ""}), "");
}
