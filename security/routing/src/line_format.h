// line_format.h - the text of log lines and of standard output, as printf makes it, in a fraction of its time.
#pragma once

#include <cstdarg>
#include <cstddef>

// As std::snprintf, to the byte and in the result.
[[gnu::format(printf, 3, 4)]] int line_format(char *to, std::size_t room, const char *format, ...);
[[gnu::format(printf, 3, 0)]] int line_vformat(char *to, std::size_t room, const char *format, std::va_list args);

// As std::printf.
[[gnu::format(printf, 1, 2)]] int line_print(const char *format, ...);
