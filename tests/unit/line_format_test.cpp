// line_format_test.cpp - the lines' text against the library's own, over random arguments and rooms.
#include <gtest/gtest.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "line_format.h"

namespace
{
constexpr std::size_t ROOM = 600;

struct answer {
    int length;
    std::array<char, ROOM> bytes; // also those that nobody may have written
};

bool operator==(const answer &a, const answer &b)
{
    return a.length == b.length && std::strcmp(a.bytes.data(), b.bytes.data()) == 0;
}

using vformat = int (*)(char *to, std::size_t room, const char *format, std::va_list args);

[[gnu::format(printf, 3, 0)]] int with_library(char *to, std::size_t room, const char *format, std::va_list args)
{
    return std::vsnprintf(to, room, format, args);
}

[[gnu::format(printf, 3, 4)]] answer made_by(vformat make, std::size_t room, const char *format, ...)
{
    answer made;
    made.bytes.fill('#');
    std::va_list args;
    va_start(args, format);
    made.length = make(made.bytes.data(), room, format, args);
    va_end(args);
    EXPECT_EQ(made.bytes[room], '#') << "written behind the room of " << room;
    if (room == 0)
        made.bytes[0] = '\0';
    return made;
}

// Numbers of every size, and the edges more often than chance would have them. They are drawn before a line is made:
// in an argument list the order of the draws would be the compiler's.
struct numbers {
    std::array<std::uint32_t, 7> drawn{};

    explicit numbers(std::mt19937 &random)
    {
        constexpr std::uint32_t EDGES[] = {0, 1, 9, 10, 99, 100, 0xF, 0x10, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
        for (std::uint32_t &number : drawn) {
            const auto choice = static_cast<std::uint32_t>(random()), other = static_cast<std::uint32_t>(random());
            number = choice % 4 == 0 ? EDGES[choice / 4 % std::size(EDGES)] : other >> choice % 32;
        }
    }
    std::uint32_t operator[](std::size_t i) const { return drawn[i]; }
    int as_int(std::size_t i) const { return static_cast<int>(drawn[i]); }
    void *as_pointer(std::size_t i) const { return reinterpret_cast<void *>(std::uintptr_t{drawn[i] | 1}); }
};

// In a macro, so that the compiler checks each format. Rooms from none to plenty.
#define EXPECT_SAME(...)                                                                                               \
    for (const std::size_t room : {std::size_t{0}, std::size_t{1}, std::size_t{2}, std::size_t{17}, std::size_t{40},   \
                                   std::size_t{64}, std::size_t{512}}) {                                               \
        const answer library = made_by(with_library, room, __VA_ARGS__);                                               \
        const answer own = made_by(line_vformat, room, __VA_ARGS__);                                                   \
        EXPECT_TRUE(own == library) << "room " << room << ": \"" << own.bytes.data() << "\" (" << own.length           \
                                    << "), not \"" << library.bytes.data() << "\" (" << library.length << ")";         \
    }
} // namespace

TEST(line_format, every_conversion_gives_the_librarys_text)
{
    std::mt19937 random(20240607);
    for (int step = 0; step < 400; ++step) {
        const numbers n(random);
        EXPECT_SAME("%d", n.as_int(0));
        EXPECT_SAME("%i|%u|%x", n.as_int(0), n[1], n[2]);
        EXPECT_SAME("%08x %04x %02x %01x", n[0], n[1], n[2], n[3]);
        EXPECT_SAME("<%c>%s</>", static_cast<char>('a' + n[4] % 26), n[5] % 2 == 0 ? "" : "some longer words");
        EXPECT_SAME("%p", n.as_pointer(6));
        EXPECT_SAME("ip=%d.%d.%d.%d sense = %d \n", n.as_int(2), n.as_int(3), n.as_int(4), n.as_int(5), n.as_int(6));
    }
}

TEST(line_format, lines_as_they_are_logged_and_printed_give_the_librarys_text)
{
    std::mt19937 random(20240608);
    for (int step = 0; step < 400; ++step) {
        const numbers n(random);
        EXPECT_SAME("---srch end:%x/%d-%u res:%x prev:<%x,%x> ecmp:%x---\n", n[0], n.as_int(1), n[2], n[3], n[4], n[5],
                    n[6]);
        EXPECT_SAME("%s: Added mtrie for route_id (%d) route/mask %08x/%d->nexthop %08x encap %04x\n",
                    "rib_add_mtrie_route", n.as_int(0), n[1], n.as_int(2), n[3], n[4]);
        EXPECT_SAME("\n%s[%d] :: Removing mtrie_leaf 0x%x/%d @ %p from forward list", "mtrie_remove_from_fwd_list", 265,
                    n[5], n.as_int(6), n.as_pointer(0));
        EXPECT_SAME("%s: Prefixlen %i from(0x%x) to(0x%x)\n", "ipv4_range2prefix", n.as_int(1), n[2], n[3]);
    }
}

TEST(line_format, what_it_does_not_know_is_the_librarys_to_make)
{
    EXPECT_SAME("%5d|%-5d|%+d|%05d", 42, 42, 42, -42);
    EXPECT_SAME("%012x|%8x|%#x|%X", 42u, 42u, 42u, 42u);
    EXPECT_SAME("%lu %llx %hd %zu", 5ul, 6ull, static_cast<short>(7), std::size_t{8});
    EXPECT_SAME("%10s|%.3s|%-4s|", "abc", "abcdef", "x");
    EXPECT_SAME("100 %% of %d, %5.2f", 3, 2.5);
    EXPECT_SAME("%p", static_cast<void *>(nullptr));
    EXPECT_SAME("%p", reinterpret_cast<void *>(std::numeric_limits<std::uintptr_t>::max()));
}

TEST(line_format, a_text_is_cut_where_the_library_cuts_it)
{
    const std::string words(700, 'w');
    for (std::size_t room = 0; room < 80; ++room) {
        const answer library = made_by(with_library, room, "at %x: %s, %d", 0xABCDEFu, words.c_str(), -17);
        const answer own = made_by(line_vformat, room, "at %x: %s, %d", 0xABCDEFu, words.c_str(), -17);
        EXPECT_TRUE(own == library) << "room " << room;
    }
}

// The format itself lies at the end of a page, and behind it what would be more of it.
TEST(line_format, a_format_at_the_end_of_a_page_is_read_to_its_own_end)
{
    alignas(4096) static char pages[8192];
    for (std::size_t from_end = 1; from_end < 40; ++from_end) {
        std::memset(pages, 'f', sizeof pages);
        char *const format = pages + 4096 - from_end;
        pages[4095] = '\0';
        char text[64];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
        EXPECT_EQ(line_format(text, sizeof text, format), static_cast<int>(from_end - 1));
#pragma GCC diagnostic pop
        EXPECT_STREQ(text, format);
    }
}

TEST(line_format, a_printed_line_is_the_librarys_and_follows_what_was_printed_before)
{
    const std::string words(700, 'w');
    testing::internal::CaptureStdout();
    std::printf("first,");
    EXPECT_EQ(line_print("\n%s[%d] :: 0x%x", "name", 95, 0xabcu), 18);
    EXPECT_EQ(line_print("|%s|%5d", words.c_str(), 3), 707);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "first,\nname[95] :: 0xabc|" + words + "|    3");
}
