// line_format.cpp - the text of log lines and of standard output, as printf makes it, in a fraction of its time.
//
// A chain that is searched lays down a line a step, a route change in the tables a line a leaf and node: the lines cost
// more than the work they tell of. They use a handful of conversions, which are made here: %d %i %u %x %s %c %p, and
// %x with a zero-padded width (%08x). Whatever else a format holds, and a text that does not fit, goes to the
// library's own function from the start, so no format can come out differently.
#include "line_format.h"

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>

#if defined(__SSE2__) && !defined(__SANITIZE_ADDRESS__)
#include <emmintrin.h>
#define LINE_FORMAT_BLOCKS 1
#endif

namespace
{
// Room that every piece needs: pieces are stored as whole words, and only their start counts.
constexpr std::size_t PIECE_ROOM = 16;
constexpr std::uint64_t BYTES_OF_ONE = 0x0101010101010101;
constexpr unsigned HEX_DIGITS = 8; // of a 32-bit word

static_assert(std::endian::native == std::endian::little, "the digits are laid down as one word");

struct output {
    char *at;
    char *end; // past the last character that may be written

    bool has_room(std::size_t bytes) const { return static_cast<std::size_t>(end - at) >= bytes; }
};

bool put_decimal(output &out, std::uint32_t value)
{
    if (!out.has_room(PIECE_ROOM))
        return false;
    if (value < 10) {
        *out.at++ = static_cast<char>('0' + value);
        return true;
    }
    char digits[10];
    char *first = digits + sizeof digits;
    do {
        *--first = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    const auto count = static_cast<std::size_t>(digits + sizeof digits - first);
    for (std::size_t i = 0; i < count; ++i)
        out.at[i] = first[i];
    out.at += count;
    return true;
}

bool put_signed(output &out, std::int32_t value)
{
    if (value >= 0)
        return put_decimal(out, static_cast<std::uint32_t>(value));
    if (!out.has_room(1))
        return false;
    *out.at++ = '-';
    return put_decimal(out, 0u - static_cast<std::uint32_t>(value));
}

// All eight digits at once, one a byte of a word, the first in the lowest; those that are not wanted are shifted out.
// width: digits at least, 0 to 8.
bool put_hex(output &out, std::uint32_t value, unsigned width)
{
    if (!out.has_room(PIECE_ROOM) || width > HEX_DIGITS)
        return false;
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
    std::memcpy(out.at, &word, sizeof word);
    out.at += count;
    return true;
}

// The library's text for null is left to it.
bool put_text(output &out, const char *text)
{
    const std::size_t bytes = text == nullptr ? 0 : std::strlen(text);
    if (text == nullptr || !out.has_room(bytes))
        return false;
    std::memcpy(out.at, text, bytes);
    out.at += bytes;
    return true;
}

// A pointer outside the card's 32-bit addresses is left to the library, and so is its text for null.
bool put_pointer(output &out, const void *p)
{
    const auto value = reinterpret_cast<std::uintptr_t>(p);
    if (value == 0 || value >> 32 != 0 || !out.has_room(2))
        return false;
    *out.at++ = '0';
    *out.at++ = 'x';
    return put_hex(out, static_cast<std::uint32_t>(value), 0);
}

#ifdef LINE_FORMAT_BLOCKS
constexpr std::uintptr_t BLOCK = 16, PAGE = 4096;

// Copies blocks of the format up to the next '%' or its end, or stops earlier, where a byte at a time goes on. A block
// may reach beyond the end of the format, but never into another page.
const char *copy_blocks(output &out, const char *format)
{
    while (out.has_room(BLOCK) && reinterpret_cast<std::uintptr_t>(format) % PAGE <= PAGE - BLOCK) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i *>(format));
        const __m128i ends =
            _mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8('%')), _mm_cmpeq_epi8(block, _mm_setzero_si128()));
        const auto found = static_cast<unsigned>(_mm_movemask_epi8(ends));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out.at), block);
        const auto count = found == 0 ? BLOCK : static_cast<std::uintptr_t>(std::countr_zero(found));
        out.at += count;
        format += count;
        if (found != 0)
            break;
    }
    return format;
}
#else
const char *copy_blocks(output &, const char *format) { return format; }
#endif

// Copies the format up to the next '%' or its end. Returns where that is, or null without room.
const char *copy_literal(output &out, const char *format)
{
    for (format = copy_blocks(out, format); *format != '%' && *format != '\0'; ++format) {
        if (out.at == out.end)
            return nullptr;
        *out.at++ = *format;
    }
    return format;
}

// Reads "0" and one digit, a width, behind a '%'. Returns the width, 0 without one.
unsigned take_zero_width(const char *&format)
{
    if (*format != '0' || format[1] < '1' || format[1] > '9')
        return 0;
    format += 2;
    return static_cast<unsigned>(format[-1] - '0');
}

// Writes the whole text, without its NUL. Returns false when it does not fit or a conversion is not one of these.
bool format_fast(output &out, const char *format, std::va_list args)
{
    while ((format = copy_literal(out, format)) != nullptr && *format != '\0') {
        ++format;
        const unsigned width = take_zero_width(format);
        bool done = false;
        switch (*format++) {
        case 'd':
        case 'i':
            done = width == 0 && put_signed(out, va_arg(args, std::int32_t));
            break;
        case 'u':
            done = width == 0 && put_decimal(out, va_arg(args, std::uint32_t));
            break;
        case 'x':
            done = put_hex(out, va_arg(args, std::uint32_t), width);
            break;
        case 's':
            done = width == 0 && put_text(out, va_arg(args, const char *));
            break;
        case 'c':
            done = width == 0 && out.has_room(1);
            if (done)
                *out.at++ = static_cast<char>(va_arg(args, int));
            break;
        case 'p':
            done = width == 0 && put_pointer(out, va_arg(args, const void *));
            break;
        default:
            break;
        }
        if (!done)
            return false;
    }
    return format != nullptr;
}
} // namespace

int line_vformat(char *to, std::size_t room, const char *format, std::va_list args)
{
    if (room > 1) {
        output out = {to, to + room - 1};
        std::va_list own;
        va_copy(own, args);
        const bool fits = format_fast(out, format, own);
        va_end(own);
        if (fits) {
            *out.at = '\0';
            return static_cast<int>(out.at - to);
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
    output out = {text, text + sizeof text};
    std::va_list args;
    va_start(args, format);
    std::va_list own;
    va_copy(own, args);
    int length = -1;
    if (format_fast(out, format, own)) {
        const auto bytes = static_cast<std::size_t>(out.at - text);
        length = fwrite_unlocked(text, 1, bytes, stdout) == bytes ? static_cast<int>(bytes) : -1;
    } else {
        length = std::vprintf(format, args);
    }
    va_end(own);
    va_end(args);
    return length;
}
