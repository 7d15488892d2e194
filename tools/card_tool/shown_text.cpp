// shown_text.cpp - cuts a quoted word and escapes its control characters.
//
// Always: a character of several bytes is shown whole or not at all, unless it is longer than any character can be.
#include "shown_text.h"

#include <fmt/format.h>

std::string shown_text(const std::string &word)
{
    constexpr std::size_t LONGEST = 64;
    std::string shown;
    for (const char c : word) {
        const auto byte = static_cast<unsigned char>(c);
        const bool is_begun = (byte & 0xC0) == 0x80; // a character of several bytes is not cut
        if (shown.size() >= LONGEST && !is_begun)
            return shown + "...";
        if (shown.size() >= 2 * LONGEST)
            break;
        if (byte < 0x20 || byte == 0x7F) {
            shown += fmt::format("\\x{:02x}", byte);
        } else {
            shown += c;
        }
    }
    return shown;
}
