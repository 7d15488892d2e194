// address_text.cpp - reads and writes addresses, prefixes and numbers.
//
// What is ambiguous is refused, not guessed: leading zeros, a short address without a length, a mask that is not
// contiguous, bits outside the mask. The error says what was probably meant.
// Always: what address_text and prefix_text write is read back to the same numbers.
#include "address_text.h"

#include <algorithm>
#include <charconv>

#include <arpa/inet.h>
#include <fmt/format.h>

#include "shown_text.h"

namespace
{
// Reads a mask: a length or four bytes. Returns what is wrong with it; empty: nothing.
std::string mask_parse(const std::string &text, std::uint32_t &mask)
{
    if (const auto length = number_parse(text, 32); length && text.find('x') == std::string::npos) {
        mask = address_mask_of(*length);
        return "";
    }
    const auto dotted = address_parse(text);
    if (!dotted)
        return fmt::format("has no mask: \"{}\" is neither a length from 0 to 32 nor a mask such as 255.255.0.0",
                           shown_text(text));
    mask = *dotted;
    return address_is_mask(mask) ? "" : "has a mask that is not contiguous: " + shown_text(text);
}
} // namespace

std::optional<std::uint32_t> address_parse(const std::string &text)
{
    in_addr address = {};
    const bool has_nul = text.find('\0') != std::string::npos; // where inet_pton would stop
    if (has_nul || inet_pton(AF_INET, text.c_str(), &address) != 1)
        return std::nullopt;
    return ntohl(address.s_addr);
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
    std::string dotted = text.substr(0, slash);
    if (slash != std::string::npos) // bytes that are left out are 0
        for (auto dots = std::count(dotted.begin(), dotted.end(), '.'); dots < 3; ++dots)
            dotted += ".0";
    const auto address = address_parse(dotted);
    if (!address) {
        prefix.error = "is not an address with a mask (such as 10.1.0.0/16, 10.1/16 or 10.1.0.0 255.255.0.0)";
        return prefix;
    }
    prefix.address = *address;
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
        address.error = fmt::format("has no mask; expected {0}/24 or {0} 255.255.255.0, for example", text);
    return address;
}

address_prefix prefix_parse(const std::string &text, const std::string &next)
{
    if (text == "default")
        return {};
    address_prefix prefix = address_and_mask_parse(text, next);
    if (prefix.error.empty() && (prefix.address & ~prefix.mask) != 0)
        prefix.error = fmt::format("has bits outside its mask; the prefix is {}",
                                   prefix_text(prefix.address & prefix.mask, address_mask_length(prefix.mask)));
    return prefix;
}

std::string address_text(std::uint32_t address)
{
    const in_addr network = {htonl(address)};
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &network, text, sizeof text);
}

std::string prefix_text(std::uint32_t address, unsigned length)
{
    return fmt::format("{}/{}", address_text(address), length);
}
