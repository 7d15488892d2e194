// address_text.cpp - reads and writes addresses, prefixes and numbers.
//
// What is ambiguous is refused, not guessed: leading zeros, a short address without a length, a mask with holes, bits
// behind the mask. The refusal says what was probably meant.
#include "address_text.h"

#include <charconv>

#include "routectl_commands.h"
#include "shown_text.h"

namespace
{
// Reads 1 to 4 decimal bytes with dots between. Returns how many there are, 0 for none.
unsigned bytes_parse(const std::string &text, std::uint32_t &address)
{
    unsigned count = 0;
    std::uint32_t value = 0;
    const char *at = text.data(), *const end = text.data() + text.size();
    for (;;) {
        unsigned byte = 0;
        const auto [rest, problem] = std::from_chars(at, end, byte);
        if (problem != std::errc() || byte > 255 || rest - at > 3 || (*at == '0' && rest - at > 1))
            return 0;
        value = value << 8 | byte;
        ++count;
        if (rest == end)
            break;
        if (*rest != '.' || count == 4)
            return 0;
        at = rest + 1;
    }
    address = value << 8 * (4 - count);
    return count;
}

// Reads a mask: a length or four bytes. Returns its error, empty when it is one.
std::string mask_parse(const std::string &text, std::uint32_t &mask)
{
    if (const auto length = number_parse(text, 32); length && text.find('x') == std::string::npos) {
        mask = address_mask_of(*length);
        return "";
    }
    const auto dotted = address_parse(text);
    if (!dotted)
        return "has no mask: \"" + shown_text(text) +
               "\" is neither a length from 0 to 32 nor a mask such as 255.255.0.0";
    mask = *dotted;
    return address_is_mask(mask) ? "" : "has a mask with holes: " + shown_text(text);
}
} // namespace

std::optional<std::uint32_t> address_parse(const std::string &text)
{
    std::uint32_t address = 0;
    if (bytes_parse(text, address) != 4)
        return std::nullopt;
    return address;
}

std::optional<std::uint32_t> number_parse(const std::string &text, std::uint32_t max)
{
    const bool hexadecimal = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char *const from = text.data() + (hexadecimal ? 2 : 0), *const end = text.data() + text.size();
    std::uint32_t number = 0;
    const auto [rest, problem] = std::from_chars(from, end, number, hexadecimal ? 16 : 10);
    if (problem != std::errc() || rest != end || number > max)
        return std::nullopt;
    return number;
}

address_prefix address_and_mask_parse(const std::string &text, const std::string &next)
{
    address_prefix prefix;
    const std::size_t slash = text.find('/');
    const unsigned bytes = bytes_parse(text.substr(0, slash), prefix.address);
    if (bytes == 0 || (slash == std::string::npos && bytes != 4)) {
        prefix.error = "is no address with a mask (such as 10.1.0.0/16, 10.1/16 or 10.1.0.0 255.255.0.0)";
        return prefix;
    }
    prefix.mask = 0xFFFFFFFF;
    if (slash != std::string::npos) {
        prefix.error = mask_parse(text.substr(slash + 1), prefix.mask);
    } else if (address_parse(next)) {
        prefix.took_next = true;
        prefix.error = mask_parse(next, prefix.mask);
    }
    return prefix;
}

address_prefix interface_address_parse(const std::string &text, const std::string &next)
{
    address_prefix address = address_and_mask_parse(text, next);
    if (address.error.empty() && !address.took_next && text.find('/') == std::string::npos)
        address.error = "has no mask (" + text + "/24 and " + text + " 255.255.255.0 would have one)";
    return address;
}

address_prefix prefix_parse(const std::string &text, const std::string &next)
{
    if (text == "default")
        return {};
    address_prefix prefix = address_and_mask_parse(text, next);
    if (prefix.error.empty() && (prefix.address & ~prefix.mask) != 0)
        prefix.error = "has bits behind its mask: " +
                       routectl_prefix(prefix.address & prefix.mask, address_mask_length(prefix.mask)) +
                       " would be the prefix";
    return prefix;
}

std::string routectl_dotted(std::uint32_t address)
{
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xFF) + "." +
           std::to_string(address >> 8 & 0xFF) + "." + std::to_string(address & 0xFF);
}

std::string routectl_prefix(std::uint32_t address, std::uint32_t length)
{
    return routectl_dotted(address) + "/" + std::to_string(length);
}

std::string routectl_hex(std::uint32_t number, unsigned digits)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*x", static_cast<int>(digits), number);
    return text;
}
