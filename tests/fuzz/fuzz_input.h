// fuzz_input.h - an input taken apart, and the end of a target that has found something.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

[[noreturn]] void fuzz_fail(const char *what); // says what is wrong and ends the program

// Takes an input apart. Beyond its end every number is 0 and every run empty.
struct fuzz_input {
    std::span<const std::uint8_t> rest;
    std::uint8_t byte();
    std::uint16_t half();
    std::uint32_t word();
    std::span<const std::uint8_t> run(std::size_t length); // at most what is left
    bool at_end() const { return rest.empty(); }
};

void fuzz_put32(std::vector<std::uint8_t> &to, std::uint32_t value);
