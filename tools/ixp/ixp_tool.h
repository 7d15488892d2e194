// ixp_tool.h - what the modes of the tool share: its options, addresses, and how an answer is shown.
//
// Elsewhere: the options as they are typed (ixp.cpp), the lookup (ixp_lookup.h), which knows nothing of the tool.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "card_view/mapped_file.h"
#include "ixp_lookup.h"

constexpr unsigned IXP_PATHS = 8; // of a route at most: the leaf's own and seven entries

struct ixp_options {
    std::string memory = "ixp1"; // file in the card directory's mem/, or a path with a slash
    std::optional<std::uint32_t> base;
    std::uint32_t tree = 0;
    std::string implementation = "auto";
    bool json = false;
    std::vector<std::string> addresses; // of lookup and follow, dotted
    std::string source = "random";      // of run: a file, random or zipf
    double seconds = 0;                 // 0: no limit (follow), 5 (run)
    std::uint32_t seed = 1;
    unsigned every_ms = 10;
};

ixp_implementation
ixp_chosen_implementation(const ixp_options &options); // IXP_IMPLEMENTATIONS when there is none of that name here

// Addresses. Both throw std::runtime_error with a readable reason.
std::uint32_t ixp_parse_address(const std::string &text);
std::vector<std::uint32_t> ixp_read_addresses(const std::string &file); // one a line, # starts a comment
// `count` addresses: over the whole space, or over the leaves of a tree, the n-th of which gets 1/n of the first's
// share.
std::vector<std::uint32_t> ixp_random_addresses(std::size_t count, std::uint32_t seed);
std::vector<std::uint32_t> ixp_zipf_addresses(const ixp_table &table, std::uint32_t tree, std::size_t count,
                                              std::uint32_t seed);

// Everything that an address is answered: one word a path. Equal answers are equal records.
struct ixp_answer {
    bool found = false;
    unsigned paths = 0; // 1 and more when found
    std::array<std::uint32_t, IXP_PATHS> words{};
    bool operator==(const ixp_answer &) const = default;
};
ixp_answer ixp_answer_of(const ixp_table &table, ixp_implementation implementation, std::uint32_t tree,
                         std::uint32_t address);
std::string ixp_answer_text(const ixp_answer &answer);
nlohmann::json ixp_answer_json(const ixp_answer &answer);

// The memory that is looked up in. Always open where a mode is given it.
struct ixp_memory {
    std::string path;
    memory_source source = memory_source::file;
    unsigned timeout_ms = 0; // for a provider's answer
    mapped_file file;
    ixp_table table = {};
    std::chrono::steady_clock::time_point refused; // when its provider last gave none
};
// Takes the memory that is searched now, when its provider has put another in the place of this one. While the provider
// gives none, this one stays.
void ixp_memory_follow(ixp_memory &memory);

// The modes. Each returns the tool's exit status.
int ixp_mode_lookup(const ixp_options &options, ixp_memory &memory, ixp_implementation implementation);
int ixp_mode_run(const ixp_options &options, ixp_memory &memory, ixp_implementation implementation);
int ixp_mode_follow(const ixp_options &options, ixp_memory &memory, ixp_implementation implementation);
