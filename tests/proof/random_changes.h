// random_changes.h - random route changes for readers to look into, with what each makes of the answers.
//
// Hosts come and go, and static routes with up to eight of them as gateways, in a few contexts; among the prefixes are
// ones that nest in each other, so nodes are pushed down and folded all the time. The plain model says what the tables
// hold after each change; whoever makes the change is a parameter: a remote call, or the procedure itself.
// Always: the pools hold many more records than these routes can need, and no change loses any.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "answer_window.h"
#include "plain_model.h"

namespace harness
{
using change_maker = std::function<std::uint32_t(const remote_call &)>; // gives the process's answer

constexpr unsigned CHANGE_INTERFACES = 3, CHANGE_FIRST_IFID = 5;
// Contexts 0 and 1 are looked into. This one is for changes beside them, of at most so many prefixes at a time.
constexpr std::uint32_t CHANGE_SIDE_CONTEXT = 2, CHANGE_SIDE_PREFIXES = 16;
constexpr std::uint32_t CHANGE_CONTEXTS = 3;        // that the model follows
std::uint32_t change_interface_address(unsigned n); // of interface CHANGE_FIRST_IFID + n

struct random_changes {
    plain_model model;
    std::mt19937 random;
    window_board &board;
    change_maker make;
    std::uint64_t changes = 0; // made
    window_taken taken{};
    std::string error; // of a change that did not go as the model says

    random_changes(window_board &shared, std::uint32_t seed, change_maker maker);
    bool next(); // one more change; false with `error` set
};

// One more change, in the context beside those that readers look into: `predict` makes it in the model, `make` on the
// card, and both give the answer. False with `error` set.
bool random_changes_beside(random_changes &all, const std::function<std::uint32_t(plain_model &)> &predict,
                           const std::function<std::uint32_t()> &make);

// The bit of a word that stands for a path: 0 when there is no such path.
std::uint32_t change_path_bit(std::uint32_t ifid, std::uint32_t encap);
} // namespace harness
