// address_text.h - addresses, prefixes and numbers as people type them, and as they are shown.
//
// Always: addresses and masks are in host order, and a text that could mean two things is refused.
// Elsewhere: which words of a command are addresses (routectl/grammar.cpp).
#pragma once

#include <bit>
#include <cstdint>
#include <optional>
#include <string>

constexpr std::uint32_t address_mask_of(unsigned length) { return length == 0 ? 0 : 0xFFFFFFFFu << (32 - length); }
constexpr bool address_is_mask(std::uint32_t mask) { return (~mask & (~mask + 1)) == 0; }
constexpr unsigned address_mask_length(std::uint32_t mask) { return static_cast<unsigned>(std::popcount(mask)); }
static_assert(address_mask_of(16) == 0xFFFF0000 && address_mask_of(0) == 0 && address_mask_of(32) == 0xFFFFFFFF);
static_assert(address_is_mask(0) && address_is_mask(0xFFFFFF00) && !address_is_mask(0xFF00FF00));
static_assert(address_mask_length(0xFFFFFE00) == 23 && address_mask_length(0) == 0);

// Four decimal bytes with dots, without leading zeros (which some read as octal).
std::optional<std::uint32_t> address_parse(const std::string &text);

// A decimal or 0x number up to `max`.
std::optional<std::uint32_t> number_parse(const std::string &text, std::uint32_t max);

struct address_prefix {
    std::uint32_t address = 0, mask = 0;
    bool took_next = false; // the mask was the next word
    std::string error;      // empty when it is a prefix; else a sentence without its subject
};

// A prefix: "10.1.0.0/16", "10.1/16", "10.1.0.0/255.255.0.0", "10.1.0.0 255.255.0.0" (two words), an address alone
// (/32) or "default". next: the word that follows, or empty.
address_prefix prefix_parse(const std::string &text, const std::string &next);

// The same forms for an address with its mask, such as 10.1.1.1/24: bits outside the mask are allowed.
address_prefix address_and_mask_parse(const std::string &text, const std::string &next);
// As before, for an interface: the mask is required, since its subnet is not guessed.
address_prefix interface_address_parse(const std::string &text, const std::string &next);

std::string address_text(std::uint32_t address);                 // 10.1.0.0
std::string prefix_text(std::uint32_t address, unsigned length); // 10.1.0.0/16
