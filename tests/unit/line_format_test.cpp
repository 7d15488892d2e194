// line_format_test.cpp - the lines' text against the library's own, over random arguments.
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "line_format.h"

namespace
{
struct answer {
    std::size_t length;
    std::string text;
};

template <line_literal F, class... Args> answer own_line(Args... args)
{
    struct {
        line_text<F, Args...> text;
        char behind[16];
    } place;
    std::memset(place.behind, '#', sizeof place.behind);
    const std::size_t length = line_format<F>(place.text, args...);
    EXPECT_EQ(std::string(place.behind, sizeof place.behind), std::string(sizeof place.behind, '#'));
    return {length, place.text};
}

[[gnu::format(printf, 1, 2)]] answer library_line(const char *format, ...)
{
    char text[LINE_LIMIT];
    std::va_list args;
    va_start(args, format);
    (void)std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return {std::strlen(text), text};
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
};

// In a macro, so that the compiler checks each format for the library.
#define EXPECT_SAME(format, ...)                                                                                       \
    do {                                                                                                               \
        const answer library = library_line(format, __VA_ARGS__);                                                      \
        const answer own = own_line<format>(__VA_ARGS__);                                                              \
        EXPECT_EQ(own.text, library.text);                                                                             \
        EXPECT_EQ(own.length, library.length) << own.text;                                                             \
    } while (0)

// What compiles and what does not.
static_assert(line_accepts<int>('d', 0) && line_accepts<std::uint16_t>('u', 0) && line_accepts<bool>('i', 0));
static_assert(!line_accepts<const char *>('d', 0) && !line_accepts<const char *>('x', 8));
static_assert(!line_accepts<int>('s', 0) && !line_accepts<void *>('s', 0) && !line_accepts<void *>('p', 0));
static_assert(!line_accepts<std::uint64_t>('u', 0) && !line_accepts<std::uint64_t>('x', 0));
static_assert(!line_accepts<double>('d', 0) && !line_accepts<double>('f', 0) && !line_accepts<int>('%', 0));
static_assert(!line_accepts<unsigned>('X', 0) && !line_accepts<unsigned>('o', 0) && !line_accepts<long>('l', 0));
static_assert(!line_accepts<int>('d', 5) && !line_accepts<const char *>('s', 9) && !line_accepts<unsigned>('x', 10));
static_assert(!line_accepts<int>('\0', 0));
} // namespace

TEST(line_format, every_conversion_gives_the_librarys_text)
{
    std::mt19937 random(20240607);
    for (int step = 0; step < 2000; ++step) {
        const numbers n(random);
        EXPECT_SAME("%d", n.as_int(0));
        EXPECT_SAME("%i|%u|%x", n.as_int(0), n[1], n[2]);
        EXPECT_SAME("%08x %04x %02x %01x %09x", n[0], n[1], n[2], n[3], n[4]);
        EXPECT_SAME("<%u>%s</>", n[4], n[5] % 2 == 0 ? "" : "some longer words");
        EXPECT_SAME("ip=%d.%d.%d.%d sense = %d \n", n.as_int(2), n.as_int(3), n.as_int(4), n.as_int(5), n.as_int(6));
    }
}

TEST(line_format, narrow_numbers_are_widened_as_for_the_library)
{
    EXPECT_SAME("%d %u %x", std::int8_t{-3}, std::int8_t{-3}, std::int8_t{-3});
    EXPECT_SAME("%d %u %x", std::int16_t{-3}, std::int16_t{-3}, std::int16_t{-3});
    EXPECT_SAME("%d %u %04x", std::uint16_t{0xFFFD}, std::uint16_t{0xFFFD}, std::uint8_t{0xFD});
    EXPECT_SAME("%d %i", 0xFFFFFFFFu, true);
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
        EXPECT_SAME("\n%s[%d] :: Removing mtrie_leaf 0x%x/%d @ 0x%x from forward list", "mtrie_remove_from_fwd_list",
                    265, n[5], n.as_int(6), n[0]);
        EXPECT_SAME("%s: Prefixlen %i from(0x%x) to(0x%x)\n", "ipv4_range2prefix", n.as_int(1), n[2], n[3]);
    }
    EXPECT_EQ(own_line<"">().length, 0u);
    EXPECT_EQ(own_line<"\nRoute to delete not found.\n">().text, "\nRoute to delete not found.\n");
}

TEST(line_format, a_null_is_named_as_the_library_names_it)
{
    const char *volatile no_text = nullptr; // the compiler is not to see that it is null
    EXPECT_SAME("<%s>", no_text);
}

TEST(line_format, a_text_is_cut_where_the_library_cuts_it)
{
    for (std::size_t bytes = LINE_LIMIT - 60; bytes < LINE_LIMIT + 5; ++bytes) {
        const std::string words(bytes, 'w');
        EXPECT_SAME("at %x: %s, %d: %s %08x of the route %i%i%i%i", 0xABCDEFu, words.c_str(), -17, "tail", 0x1234u,
                    INT_MIN, INT_MIN, INT_MIN, INT_MIN);
    }
    const std::string words(700, 'w');
    EXPECT_SAME("%s%s%d%s", words.c_str(), words.c_str(), 5, words.c_str());
}

TEST(line_format, a_printed_line_is_the_librarys_and_follows_what_was_printed_before)
{
    const std::string words(700, 'w');
    testing::internal::CaptureStdout();
    std::printf("first,");
    line_print<"\n%s[%d] :: 0x%x">("name", 95, 0xabcu);
    line_print<"|%s|%d">(words.c_str(), 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "first,\nname[95] :: 0xabc|" + words.substr(0, 510));
}
