// explorer.h - every order in which the loads of a lookup can fall between the stores of a journal.
//
// A reader may sleep between any two loads, so after each store the set of states that some reader can be in is: those
// from before, and whatever follows from them with the table as it is now. Only states that wait for the word just
// stored have anything new to follow, so a journal costs its stores and its states, not its orders.
// Always: the first state is never left, for a lookup may begin at any time.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "walk_machine.h"

namespace harness
{
struct explorer {
    walk_key key;
    std::set<walker> states;                              // that a reader can be in
    std::map<std::uint32_t, std::vector<walker>> waiting; // those that have a load to do, by the word's index
    walk_answers answers;                                 // of those that have ended
};

// All readers that the table as it stands allows.
explorer explore_begin(const table_copy &copy, const walk_key &key);
// The word `index` of the copy has just been stored.
void explore_store(explorer &all, const table_copy &copy, std::uint32_t index);
} // namespace harness
