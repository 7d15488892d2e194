// line_format.h - the text of log lines and of standard output, as printf makes it, in a fraction of its time.
//
// A chain that is searched logs a line a step, a route change in the tables prints one for each leaf and node: the
// lines cost more than the work that they report. Their formats are constants, so each is parsed when compiling. What
// runs is a copy of each piece between two conversions, whose length is known, and a call for each argument.
// Conversions: %s, and of integers up to 32 bits %d, %i, %u, %x and %x with a zero-padded width (%08x). Any other, and
// an argument that does not fit its conversion, does not compile.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

constexpr std::size_t LINE_LIMIT = 512;     // of a line with its NUL; a longer one is cut
constexpr std::size_t LINE_NUMBER_MAX = 11; // characters of a number

// A format as an argument of a template.
template <std::size_t N> struct line_literal {
    char text[N];
    consteval line_literal(const char (&literal)[N]) { std::copy_n(literal, N, text); }

    // Where the next '%' stands from there on, or the NUL when there is none.
    constexpr std::size_t percent(std::size_t from) const
    {
        while (text[from] != '%' && from != N - 1)
            ++from;
        return from;
    }
};

// Whether an argument may stand for a conversion. width: of the zero-padded form, 0 without.
template <class Arg> consteval bool line_accepts(char conversion, int width)
{
    constexpr bool is_number = std::is_integral_v<Arg> && sizeof(Arg) <= 4;
    if (conversion == 's')
        return std::is_convertible_v<Arg, const char *> && width == 0;
    if (conversion == 'x')
        return is_number && width >= 0 && width <= 9;
    return is_number && width == 0 && (conversion == 'd' || conversion == 'i' || conversion == 'u');
}

// Each writes an argument at `at` and returns where it ends; none writes a NUL.
char *line_put_signed(char *at, std::int32_t value);
char *line_put_unsigned(char *at, std::uint32_t value);
char *line_put_hex(char *at, std::uint32_t value, unsigned width); // width: digits at least
char *line_put_string(char *at, char *end, const char *value);     // not beyond `end`; null is "(null)"

template <char CONVERSION, int WIDTH, class Arg>
[[gnu::always_inline]] inline char *line_put(char *at, char *end, Arg value)
{
    if constexpr (CONVERSION == 's')
        return line_put_string(at, end, value);
    else if constexpr (CONVERSION == 'u')
        return line_put_unsigned(at, static_cast<std::uint32_t>(value));
    else if constexpr (CONVERSION == 'x')
        return line_put_hex(at, static_cast<std::uint32_t>(value), WIDTH);
    else
        return line_put_signed(at, static_cast<std::int32_t>(value));
}

// The format from FROM on, when no argument is left.
template <line_literal F, std::size_t FROM> [[gnu::always_inline]] inline char *line_put_from(char *at, char *)
{
    constexpr std::size_t end = F.percent(FROM);
    static_assert(F.text[end] != '%', "a conversion without an argument");
    std::memcpy(at, F.text + FROM, end - FROM);
    return at + (end - FROM);
}

// The same with arguments: literal characters, the conversion of the first argument, and the rest.
template <line_literal F, std::size_t FROM, class Arg, class... Args>
[[gnu::always_inline]] inline char *line_put_from(char *at, char *end, Arg first, Args... others)
{
    constexpr std::size_t percent = F.percent(FROM);
    static_assert(F.text[percent] == '%', "an argument without a conversion");
    constexpr bool has_width = F.text[percent + 1] == '0';
    constexpr int width = has_width ? F.text[percent + 2] - '0' : 0;
    constexpr char conversion = F.text[has_width ? percent + 3 : percent + 1];
    static_assert(line_accepts<Arg>(conversion, width), "the argument does not fit the conversion");
    std::memcpy(at, F.text + FROM, percent - FROM);
    at = line_put<conversion, width>(at + (percent - FROM), end, first);
    return line_put_from<F, percent + (has_width ? 4 : 2)>(at, end, others...);
}

// Where a line is made. Strings stop at LINE_LIMIT; there is room for all else behind it, which is then cut off.
template <line_literal F, class... Args> using line_text =
    char[LINE_LIMIT + sizeof F.text + LINE_NUMBER_MAX * sizeof...(Args)];

// Writes the line and a NUL as std::snprintf does with LINE_LIMIT. Returns its length, LINE_LIMIT - 1 when it was cut.
template <line_literal F, class... Args> std::size_t line_format(line_text<F, Args...> &to, Args... args)
{
    char *const end = to + LINE_LIMIT - 1;
    char *const stop = std::min(line_put_from<F, 0>(to, end, args...), end);
    *stop = '\0';
    return static_cast<std::size_t>(stop - to);
}

void line_write(const char *text, std::size_t bytes); // to standard output

// As std::printf, cut at LINE_LIMIT.
template <line_literal F, class... Args> [[gnu::noinline]] void line_print(Args... args)
{
    line_text<F, Args...> text;
    line_write(text, line_format<F>(text, args...));
}
