// big_endian.h - the integers of datagrams and records: big-endian, whatever the host.
#pragma once

#include <cstdint>

constexpr void put_be16(std::uint8_t *to, std::uint32_t value)
{
    to[0] = static_cast<std::uint8_t>(value >> 8);
    to[1] = static_cast<std::uint8_t>(value);
}

constexpr void put_be32(std::uint8_t *to, std::uint32_t value)
{
    put_be16(to, value >> 16);
    put_be16(to + 2, value);
}

constexpr std::uint16_t get_be16(const std::uint8_t *from)
{
    return static_cast<std::uint16_t>(from[0] << 8 | from[1]);
}

constexpr std::uint32_t get_be32(const std::uint8_t *from)
{
    return std::uint32_t{get_be16(from)} << 16 | get_be16(from + 2);
}
