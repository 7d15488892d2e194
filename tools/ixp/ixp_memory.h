// ixp_memory.h - a card's route-table memory, mapped read-only.
#pragma once

#include <cstdint>
#include <string>

#include "ixp_lookup.h"

struct ixp_memory {
    ixp_table table{};
    std::string error; // why there is none; empty when there is
    ixp_memory(const std::string &path, std::uint32_t base);
    ~ixp_memory();
    ixp_memory(const ixp_memory &) = delete;
    ixp_memory &operator=(const ixp_memory &) = delete;
};
