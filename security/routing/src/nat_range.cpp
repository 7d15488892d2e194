// nat_range.cpp - a range of addresses as the smallest list of aligned prefixes.
//
// Greedy: from the lowest address on, always the largest aligned block that ends within the range. Every step is
// logged and printed, so that an operator can follow why a pool became the routes it did.
// Elsewhere: what is done with the prefixes (rib_nat.cpp).
#include "nat_range.h"

#include <cstdio>

#include "line_format.h"
#include "route_log.h"

namespace
{
constexpr std::size_t ADDRESS_BYTES = 64;

template <line_literal F, class... Args> void say(std::int32_t ctx, Args... args)
{
    line_text<F, Args...> line;
    (void)line_format<F>(line, args...); // all lines are short
    route_log(ROUTE_DBG_INFO, static_cast<std::uint32_t>(ctx), "%s", line);
    std::fputs(line, stdout);
}

std::uint32_t mask_of(std::uint32_t len) { return len == 0 ? 0 : 0xFFFFFFFFu << (32 - len); }
} // namespace

std::int32_t ip_integer2ip(std::uint32_t addr, char *dst, std::uint32_t size)
{
    const int written =
        std::snprintf(dst, size, "%i.%i.%i.%i", static_cast<int>(addr >> 24), static_cast<int>(addr >> 16 & 0xFF),
                      static_cast<int>(addr >> 8 & 0xFF), static_cast<int>(addr & 0xFF));
    return written == -1 ? -1 : 0;
}

std::uint32_t ipv4_range2prefix(std::int32_t ctx, std::uint32_t from, std::uint32_t to, nat_prefix *list,
                                std::int32_t *count)
{
    static const char *const NAME = "ipv4_range2prefix";
    char from_text[ADDRESS_BYTES], to_text[ADDRESS_BYTES];
    (void)ip_integer2ip(from, from_text, sizeof from_text); // an address fits
    (void)ip_integer2ip(to, to_text, sizeof to_text);
    say<"%s: --> from(%s), to(%s)\n">(ctx, NAME, from_text, to_text);
    std::uint32_t cur = from, len = 0;
    while (len < 33) {
        say<"%s: Prefixlen %i from(0x%x) to(0x%x)\n">(ctx, NAME, static_cast<int>(len), cur, to);
        const std::uint32_t mask = mask_of(len), last = cur | ~mask;
        const bool aligned = (cur & mask) == cur;
        if (aligned)
            say<"%s: Works for 'from'(0x%x).\n">(ctx, NAME, cur);
        if (!aligned || to < last) {
            ++len;
            continue;
        }
        say<"%s: Works for 'to' (0x%x).\n">(ctx, NAME, to);
        list[*count] = {mask, cur & mask, len};
        say<"Inserting net (0x%x) mask (0x%x) num (%i)\n">(ctx, cur & mask, mask, *count);
        *count += 1;
        if (last == to)
            break;
        say<"%s: 'to' not equal broadcast.\n">(ctx, NAME);
        cur = last + 1;
        len = 0;
    }
    say<"%s<---: returning num entries (%d)\n">(ctx, NAME, *count);
    return 0;
}

void print_pfxlist(std::int32_t ctx, const nat_prefix *list, std::int32_t n)
{
    std::printf("%s: --> n(%d)\n", "print_pfxlist", n);
    for (std::int32_t i = 0; i < n; ++i) {
        char net[ADDRESS_BYTES];
        (void)ip_integer2ip(list[i].net, net, sizeof net);
        say<"prefix: mask(0x%x) len(%d) net(%s)\n">(ctx, list[i].mask, static_cast<int>(list[i].len), net);
    }
}
