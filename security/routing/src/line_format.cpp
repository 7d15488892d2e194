// line_format.cpp - the arguments of lines as text, and the way to standard output.
#include "line_format.h"

#include <bit>
#include <charconv>
#include <cstdio>

char *line_put_signed(char *at, std::int32_t value) { return std::to_chars(at, at + LINE_NUMBER_MAX, value).ptr; }

char *line_put_unsigned(char *at, std::uint32_t value) { return std::to_chars(at, at + LINE_NUMBER_MAX, value).ptr; }

char *line_put_hex(char *at, std::uint32_t value, unsigned width)
{
    const unsigned count = std::max(width, static_cast<unsigned>(std::bit_width(value | 1) + 3) / 4);
    for (unsigned i = count; i-- > 0; value >>= 4)
        at[i] = "0123456789abcdef"[value & 0xF];
    return at + count;
}

char *line_put_string(char *at, char *end, const char *value)
{
    if (at >= end)
        return at;
    const char *const text = value == nullptr ? "(null)" : value;
    const std::size_t bytes = strnlen(text, static_cast<std::size_t>(end - at));
    std::memcpy(at, text, bytes);
    return at + bytes;
}

// The lock is left out: one thread. What does not get out is lost, as a printf's result that nobody looks at.
void line_write(const char *text, std::size_t bytes) { (void)fwrite_unlocked(text, 1, bytes, stdout); }
