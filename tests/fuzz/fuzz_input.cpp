// fuzz_input.cpp - reading numbers out of an input, and ending at a finding.
#include "fuzz_input.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

void fuzz_fail(const char *what)
{
    (void)std::fprintf(stderr, "fuzz: %s\n", what);
    std::abort();
}

std::uint8_t fuzz_input::byte()
{
    const std::span<const std::uint8_t> got = run(1);
    return got.empty() ? 0 : got[0];
}

std::uint16_t fuzz_input::half()
{
    const unsigned high = byte();
    return static_cast<std::uint16_t>(high << 8 | byte());
}

std::uint32_t fuzz_input::word()
{
    const std::uint32_t high = half();
    return high << 16 | half();
}

std::span<const std::uint8_t> fuzz_input::run(std::size_t length)
{
    const std::span<const std::uint8_t> got = rest.first(std::min(length, rest.size()));
    rest = rest.subspan(got.size());
    return got;
}

void fuzz_put32(std::vector<std::uint8_t> &to, std::uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        to.push_back(static_cast<std::uint8_t>(value >> shift));
}
