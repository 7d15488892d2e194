// line_format.cpp - the text of log lines and of standard output, as printf makes it, in a fraction of its time.
//
// A chain that is searched lays down a line a step, a route change in the tables a line a leaf and node: the lines cost
// more than the work they tell of. They use a handful of conversions, which are made here: %d %i %u %x %s %c %p, and
// %x with a zero-padded width (%08x). Whatever else a format holds, and a text that does not fit, goes to the
// library's own function from the start, so no format can come out differently.
#include "line_format.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>

// Reading in whole blocks goes beyond the end of a format, which the address sanitizer of either compiler ends.
#if defined(__SANITIZE_ADDRESS__)
#define LINE_FORMAT_BYTES 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LINE_FORMAT_BYTES 1
#endif
#endif
#if defined(__SSE2__) && !defined(LINE_FORMAT_BYTES)
#include <emmintrin.h>
#define LINE_FORMAT_BLOCKS 1
#endif

namespace
{
// Pieces are laid down as whole words, of which only the start counts: room that each of them needs.
constexpr std::ptrdiff_t PIECE_ROOM = 24;
constexpr std::uint64_t BYTES_OF_ONE = 0x0101010101010101;
constexpr unsigned HEX_DIGITS = 8; // of a 32-bit word

static_assert(std::endian::native == std::endian::little, "digits are laid down as words");

// "00" to "99", as the two characters lie in a 16-bit word.
constexpr std::array<std::uint16_t, 100> two_digits()
{
    std::array<std::uint16_t, 100> pairs{};
    for (unsigned i = 0; i < pairs.size(); ++i)
        pairs[i] = static_cast<std::uint16_t>(('0' + i % 10) << 8 | ('0' + i / 10));
    return pairs;
}
constexpr std::array<std::uint16_t, 100> TWO_DIGITS = two_digits();

char *put_pair(char *at, std::uint32_t below_100)
{
    std::memcpy(at, &TWO_DIGITS[below_100], 2);
    return at + 2;
}

char *put_below_100(char *at, std::uint32_t value)
{
    if (value >= 10)
        return put_pair(at, value);
    *at = static_cast<char>('0' + value);
    return at + 1;
}

char *put_decimal(char *at, std::uint32_t value)
{
    if (value < 100) // most are: lengths, contexts, counts
        return put_below_100(at, value);
    if (value < 10000)
        return put_pair(put_below_100(at, value / 100), value % 100);
    const std::uint32_t upper = value / 10000, lower = value % 10000;
    return put_pair(put_pair(put_decimal(at, upper), lower / 100), lower % 100);
}

char *put_signed(char *at, std::int32_t value)
{
    if (value >= 0)
        return put_decimal(at, static_cast<std::uint32_t>(value));
    *at = '-';
    return put_decimal(at + 1, 0u - static_cast<std::uint32_t>(value));
}

// All eight digits at once, one a byte of a word, the first in the lowest; those that are not wanted are shifted out.
// width: digits at least, 0 to 8.
char *put_hex(char *at, std::uint32_t value, unsigned width)
{
    std::uint64_t word = value;
    word = (word << 16 | word) & 0x0000FFFF0000FFFF;
    word = (word << 8 | word) & 0x00FF00FF00FF00FF;
    word = (word << 4 | word) & 0x0F0F0F0F0F0F0F0F;
    word = __builtin_bswap64(word);
    const std::uint64_t letters = (word + BYTES_OF_ONE * 6) >> 4 & BYTES_OF_ONE; // 1 in each byte over 9
    word += BYTES_OF_ONE * '0' + letters * ('a' - '9' - 1);
    const unsigned needed = (35 - static_cast<unsigned>(std::countl_zero(value | 1))) / 4;
    const unsigned count = needed > width ? needed : width;
    word >>= 8 * (HEX_DIGITS - count);
    std::memcpy(at, &word, sizeof word);
    return at + count;
}

// Null without room; the library's text for null is left to it.
char *put_text(char *at, const char *end, const char *text)
{
    const std::size_t bytes = text == nullptr ? 0 : std::strlen(text);
    if (text == nullptr || bytes > static_cast<std::size_t>(end - at))
        return nullptr;
    std::memcpy(at, text, bytes);
    return at + bytes;
}

// Null for a pointer outside the card's 32-bit addresses, and for null: the library's.
char *put_pointer(char *at, const void *p)
{
    const auto value = reinterpret_cast<std::uintptr_t>(p);
    if (value == 0 || value >> 32 != 0)
        return nullptr;
    std::memcpy(at, "0x", 2);
    return put_hex(at + 2, static_cast<std::uint32_t>(value), 0);
}

struct place {
    char *at;
    const char *format;
};

#ifdef LINE_FORMAT_BLOCKS
constexpr std::ptrdiff_t BLOCK = 16;
constexpr std::uintptr_t PAGE = 4096;

// Copies blocks of the format up to the next '%' or its end, or stops earlier, where a byte at a time goes on. A block
// may reach beyond the end of the format, but never into another page.
place copy_blocks(place p, const char *end)
{
    while (end - p.at >= BLOCK && reinterpret_cast<std::uintptr_t>(p.format) % PAGE <= PAGE - BLOCK) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p.format));
        const __m128i ends =
            _mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8('%')), _mm_cmpeq_epi8(block, _mm_setzero_si128()));
        const auto found = static_cast<unsigned>(_mm_movemask_epi8(ends));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(p.at), block);
        const std::ptrdiff_t count = found == 0 ? BLOCK : std::countr_zero(found);
        p.at += count;
        p.format += count;
        if (found != 0)
            break;
    }
    return p;
}
#else
place copy_blocks(place p, const char *) { return p; }
#endif

// Copies the format up to the next '%' or its end; `at` is null without room.
place copy_literal(place p, const char *end)
{
    for (p = copy_blocks(p, end); *p.format != '%' && *p.format != '\0'; *p.at++ = *p.format++)
        if (p.at == end)
            return {nullptr, p.format};
    return p;
}

// Reads "0" and one digit, a width, behind a '%'. Returns the width, 0 without one.
unsigned take_zero_width(const char *&format)
{
    if (*format != '0' || format[1] < '1' || format[1] > '9')
        return 0;
    format += 2;
    return static_cast<unsigned>(format[-1] - '0');
}

// Writes the whole text, without its NUL. Returns its end, or null when it does not fit or a conversion is not one of
// these. Nothing is written at `end` or behind it.
char *format_fast(char *at, char *end, const char *format, std::va_list args)
{
    for (place p = {at, format};;) {
        p = copy_literal(p, end);
        if (p.at == nullptr || *p.format == '\0')
            return p.at;
        ++p.format;
        const unsigned width = take_zero_width(p.format);
        const char conversion = *p.format++;
        if (end - p.at < PIECE_ROOM || width > HEX_DIGITS || (width != 0 && conversion != 'x'))
            return nullptr;
        switch (conversion) {
        case 'd':
        case 'i':
            p.at = put_signed(p.at, va_arg(args, std::int32_t));
            break;
        case 'u':
            p.at = put_decimal(p.at, va_arg(args, std::uint32_t));
            break;
        case 'x':
            p.at = put_hex(p.at, va_arg(args, std::uint32_t), width);
            break;
        case 's':
            p.at = put_text(p.at, end, va_arg(args, const char *));
            break;
        case 'c':
            *p.at++ = static_cast<char>(va_arg(args, int));
            break;
        case 'p':
            p.at = put_pointer(p.at, va_arg(args, const void *));
            break;
        default:
            return nullptr;
        }
        if (p.at == nullptr)
            return nullptr;
    }
}
} // namespace

int line_vformat(char *to, std::size_t room, const char *format, std::va_list args)
{
    if (room > 1) {
        std::va_list own;
        va_copy(own, args);
        char *const end = format_fast(to, to + room - 1, format, own);
        va_end(own);
        if (end != nullptr) {
            *end = '\0';
            return static_cast<int>(end - to);
        }
    }
    return std::vsnprintf(to, room, format, args);
}

int line_format(char *to, std::size_t room, const char *format, ...)
{
    std::va_list args;
    va_start(args, format);
    const int length = line_vformat(to, room, format, args);
    va_end(args);
    return length;
}

int line_print(const char *format, ...)
{
    char text[512];
    std::va_list args, own;
    va_start(args, format);
    va_copy(own, args);
    const char *const end = format_fast(text, text + sizeof text, format, own);
    va_end(own);
    int length = -1;
    if (end != nullptr) {
        const auto bytes = static_cast<std::size_t>(end - text);
        length = fwrite_unlocked(text, 1, bytes, stdout) == bytes ? static_cast<int>(bytes) : -1;
    } else {
        length = std::vprintf(format, args);
    }
    va_end(args);
    return length;
}
