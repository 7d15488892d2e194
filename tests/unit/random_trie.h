// random_trie.h - random operations on several trees of a card, beside a slow, plain picture of them.
//
// After each operation the answers, the back chains, the paths, the pools and all copies must agree, and between any
// two stores each copy must have answered with what was there before or with what is there afterwards. A difference is
// a failure of the running test, with the seed and the step.
// Always: the same seed gives the same steps.
// Elsewhere: the picture (plain_trie.cpp), what is printed and logged (the tests of each area).
#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <vector>

#include "fake_card.h"
#include "plain_trie.h"

namespace harness
{
// What prefixes a run is about.
enum class trie_kind { FEW, MANY, USED_UP };
constexpr unsigned TRIE_KINDS = 3;

struct random_trie {
    random_trie(std::uint32_t its_seed, trie_kind its_kind);
    random_trie(const random_trie &) = delete;
    void take_steps(unsigned steps); // and looks at every tree at the end

    struct step;
    const std::uint32_t seed;
    const trie_kind kind;
    fake_card card{2};
    plain_pools pools{256, 0, 256, {}, {}}; // all trees' roots and default leaves
    std::deque<plain_tree> trees;
    std::uint32_t most_nodes = 0; // in use after a step

private:
    std::mt19937 random;
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); }
    void use_up_pools();
    step next_step();
    void watch(const step &taken);
    void look(std::uint32_t id);
    void check_between(const step &taken);
    void check_answers(std::uint32_t index);
    void check_tree(std::uint32_t index);
    void take(const step &taken);

    // What each copy answers at the watched addresses: before the step, and what else it has answered since.
    std::vector<std::uint32_t> watched;
    std::vector<np_answer> before;
    std::vector<std::vector<np_answer>> seen;
};
} // namespace harness
