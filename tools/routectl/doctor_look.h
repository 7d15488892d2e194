// doctor_look.h - all that `doctor` looks at, gathered in one go: listings, counts, memory, the trees of each copy.
//
// A running route manager goes on while it is looked at.
// Always: with words_changed 0 the trees are of one moment, and so are the listings as far as they are programmed.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "card_view/card_summary.h"
#include "card_view/route_record.h"
#include "card_view/table_tree.h"
#include "routectl_commands.h"

// One copy of the tables, mapped, with the words that it held when the look began.
struct doctor_copy {
    table_view view;
    std::vector<std::uint32_t> words;
    std::array<tree_view, ROUTE_CONTEXTS> trees;
};

struct doctor_prefix {
    std::uint32_t prefix, length;
    auto operator<=>(const doctor_prefix &) const = default;
};
// The entries of a context that share a prefix, in the order of the route manager: the head first.
using doctor_group = std::vector<const route_record *>;
using doctor_groups = std::map<doctor_prefix, doctor_group>;

struct doctor_look {
    bool is_served = false;   // a route manager answers: listing and counts hold
    routectl_answer unserved; // else why not
    std::shared_ptr<route_listing> listing;
    std::array<doctor_groups, ROUTE_CONTEXTS> groups; // of the listing, by context
    std::shared_ptr<card_summary> counts;
    std::map<std::uint32_t, std::uint64_t> blocks;    // live memory blocks by type; empty: not known
    std::vector<std::unique_ptr<doctor_copy>> copies; // those that could be mapped
    bool has_interfaces = false;                      // there is an interface database
    std::size_t words_changed = 0;
    std::vector<std::string> not_looked_at; // a sentence each
};

doctor_look doctor_look_take(const routectl_call &call);

// How many words of the tables have changed since the look began; a table in whose place another has come counts as
// one.
std::size_t doctor_look_changes(doctor_look &look);

// Asks whether the trie of `tree` holds a leaf for exactly this prefix; a failed lookup leaves a line in the
// history.
bool doctor_trie_holds(const routectl_call &call, std::uint32_t tree, doctor_prefix prefix);
