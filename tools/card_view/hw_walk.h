// hw_walk.h - a walk through one copy of the table, decoded: the slots, the leaf, its flags and its paths.
//
// It comes from the mapped memory (hw_walk_direct), also after the route manager has died, or from the lines of its
// dump procedure (hw_walk_from_dump), which reads the same words and gives less: no element numbers, and of a NAT
// leaf no interface.
// Always: a walk that could not be decoded whole says so in `fault`; what was decoded before that is kept.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "route_listing.h"
#include "table_view.h"

struct hw_step {
    unsigned level;                    // 0 to 3: which byte of the address
    unsigned index;                    // the byte: the slot taken
    std::optional<std::uint32_t> node; // number of the node whose slot it is
    std::optional<std::uint32_t> word; // contents of the slot
};

struct hw_path {
    unsigned number;                   // 1: in the leaf, 2 to 8: in the block
    std::optional<std::uint32_t> ifid; // missing in the dump of a NAT leaf
    std::uint32_t encap;               // of a NAT leaf: the processor's NAT value
};

struct hw_block {
    std::optional<std::uint32_t> index;   // number of the block
    std::optional<std::uint32_t> address; // where the route manager has it mapped: from a dump only
    bool valid;
    unsigned count, sequence;
    std::vector<hw_path> entries; // all seven, numbered 2 to 8; paths holds those in use
};

enum hw_source { HW_FROM_MEMORY, HW_FROM_DUMP };

struct hw_walk {
    hw_source source = HW_FROM_MEMORY;
    table_copy copy = COPY_WIRED;
    std::uint32_t ctx = 0, address = 0;
    std::optional<std::uint32_t> root; // the root word
    std::vector<hw_step> steps;
    bool has_leaf = false;
    std::optional<std::uint32_t> leaf;      // number of the leaf
    std::optional<std::uint32_t> adjacency; // its first word
    bool ip_resolve = false, ecmp = false, nat = false;
    std::vector<hw_path> paths; // what a processor may take: the leaf's, and those of a valid block
    std::optional<hw_block> block;
    std::string fault; // empty, or why the walk could not be decoded whole
};

hw_walk hw_walk_direct(const table_view &view, std::uint32_t ctx, std::uint32_t address);

// text: the block of the dump procedure, lines of 128 bytes each ended by a NUL.
hw_walk hw_walk_from_dump(std::string_view text, table_copy copy, std::uint32_t ctx, std::uint32_t address);

// Whether the leaf forwards nothing: no flag, no interface, no encapsulation (the default leaf without a default
// route).
bool hw_walk_is_blank(const hw_walk &walk);
