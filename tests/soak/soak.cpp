// soak.cpp - a great many random operations on cards of the tests' own, beside the plain model.
//
//     soak [operations] [seed]
//
// A card lives for an episode: until its leaves are used up (each report of a known host takes one for good) and it has
// lived on for a while, or for EPISODE_STEPS. Episodes take turns in their kind of prefixes and in the number of
// processors. After each operation the answer, the error lines, all that went out, a page of the reader, and memory and
// pools by type must be the model's; every COMPARE_EVERY operations and at the end of an episode also the RIB, every
// answer of every copy, and all audits. Before each of them random operations on the trees alone are taken, with every
// store looked into (random_trie.h). The first difference ends the run.
// Exit status: 0 no difference, 1 a difference, 2 wrong arguments.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "random_compare.h"
#include "random_run.h"
#include "random_trie.h"

using namespace harness;

namespace
{

constexpr std::uint64_t DEFAULT_OPERATIONS = 1'000'000;
constexpr std::uint32_t DEFAULT_SEED = 20261121, EPISODE_STEPS = 50'000, STEPS_WITHOUT_LEAVES = 500,
                        COMPARE_EVERY = 128;
constexpr int PROGRESS_SECONDS = 10;

using seconds = std::chrono::duration<double>;
double now() { return seconds(std::chrono::steady_clock::now().time_since_epoch()).count(); }

struct soak {
    std::uint64_t operations, done = 0, looks = 0, episodes = 0, trie_steps = 0, leaves_gone = 0, nodes_gone = 0;
    std::uint32_t seed;
    std::uint64_t entries_at_ends = 0; // predicted for the ends of episodes
    double started, told;
    int out; // the real standard output: a card holds the program's own back
};

void tell(const soak &s, const std::string &line)
{
    const std::string all = line + "\n";
    if (write(s.out, all.data(), all.size()) < 0)
        std::abort(); // nobody would learn the outcome
}

void tell_progress(soak &s)
{
    if (now() - s.told < PROGRESS_SECONDS)
        return;
    s.told = now();
    tell(s, text("%llu of %llu operations, %llu episodes, %.0f s", static_cast<unsigned long long>(s.done),
                 static_cast<unsigned long long>(s.operations), static_cast<unsigned long long>(s.episodes),
                 s.told - s.started));
}

// Everything that is held against the model at longer intervals. Empty when there is no difference.
std::string look_closely(soak &s, random_run &run)
{
    ++s.looks;
    const int broken = random_run_audit();
    if (broken != 0)
        return text("after step %u: %d rules broken", run.steps, broken);
    return random_run_compare(run);
}

// Steps on the trees alone, fewer when the whole is short. Empty when there is no difference.
std::string trie_turn(soak &s, std::uint32_t number)
{
    constexpr std::uint64_t STEPS = 400, SHARE = 10;
    const std::uint64_t steps = std::min(STEPS, (s.operations - s.done) / SHARE);
    testing::TestPartResultArray failures;
    {
        const testing::ScopedFakeTestPartResultReporter kept(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &failures);
        random_trie run(s.seed + number, static_cast<trie_kind>(number % TRIE_KINDS));
        run.take_steps(static_cast<unsigned>(steps));
    }
    s.done += steps;
    s.trie_steps += steps;
    return failures.size() == 0 ? "" : failures.GetTestPartResult(0).message();
}

std::string episode(soak &s, std::uint32_t number)
{
    const std::uint32_t seed = s.seed + number;
    random_run run(seed, static_cast<run_kind>(number % RUN_KINDS), number / RUN_KINDS % 2 == 0 ? 2 : 1);
    std::uint32_t without_leaves = 0;
    bool nodes_gone = false;
    std::string difference;
    while (difference.empty() && s.done < s.operations && run.steps < EPISODE_STEPS &&
           without_leaves < STEPS_WITHOUT_LEAVES) {
        difference = random_run_step(run);
        ++s.done;
        if (difference.empty() && run.steps % COMPARE_EVERY == 0)
            difference = look_closely(s, run);
        without_leaves += run.model.pools.leaves == plain_pools::LEAVES ? 1u : 0u;
        nodes_gone = nodes_gone || run.model.pools.nodes == plain_pools::NODES;
        tell_progress(s);
    }
    if (difference.empty())
        difference = look_closely(s, run);
    if (difference.empty() && testing::UnitTest::GetInstance()->Failed())
        difference = "the card complained; see above";
    ++s.episodes;
    s.leaves_gone += without_leaves != 0 ? 1u : 0u;
    s.nodes_gone += nodes_gone ? 1u : 0u;
    for (const model_kind kind : {MODEL_HOST, MODEL_NAT, MODEL_STATIC})
        s.entries_at_ends += run.model.entries(kind);
    const bool last = s.done == s.operations || !difference.empty();
    if (last)
        tell(s, "memory tracking of the last card:\n" + memory_report(run));
    return difference.empty() ? difference : text("episode %u (seed %u): ", number, seed) + difference;
}

// A decimal number up to `most`. Ends the program when it is none.
std::uint64_t number_of(const char *text, std::uint64_t most)
{
    char *end = nullptr;
    errno = 0;
    const std::uint64_t value = std::strtoull(text, &end, 10);
    if (errno == 0 && end != text && *end == '\0' && *text != '-' && value <= most)
        return value;
    std::fprintf(stderr, "soak: %s: not a number from 0 to %llu\nusage: soak [operations] [seed]\n", text,
                 static_cast<unsigned long long>(most));
    std::exit(2);
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    soak s{};
    s.operations = argc > 1 ? number_of(argv[1], 1'000'000'000'000) : DEFAULT_OPERATIONS;
    s.seed = argc > 2 ? static_cast<std::uint32_t>(number_of(argv[2], 0xFFFFFFFF)) : DEFAULT_SEED;
    if (argc > 3) {
        std::fprintf(stderr, "usage: soak [operations] [seed]\n");
        return 2;
    }
    s.out = dup(STDOUT_FILENO);
    s.started = s.told = now();
    tell(s, text("%llu operations from seed %u", static_cast<unsigned long long>(s.operations), s.seed));

    std::string difference;
    for (std::uint32_t number = 0; difference.empty() && s.done < s.operations; ++number) {
        difference = trie_turn(s, number);
        if (difference.empty())
            difference = episode(s, number);
    }
    tell(s,
         text("%llu operations, %llu of them on trees alone, the others in %llu episodes, %.0f s; looked at "
              "closely %llu times; %llu episodes ran out of leaves, %llu out of nodes",
              static_cast<unsigned long long>(s.done), static_cast<unsigned long long>(s.trie_steps),
              static_cast<unsigned long long>(s.episodes), now() - s.started, static_cast<unsigned long long>(s.looks),
              static_cast<unsigned long long>(s.leaves_gone), static_cast<unsigned long long>(s.nodes_gone)));
    if (difference.empty()) {
        tell(s, text("seed %u: no difference; %llu route entries were held at the ends of episodes, as predicted",
                     s.seed, static_cast<unsigned long long>(s.entries_at_ends)));
        return 0;
    }
    tell(s, text("seed %u: DIFFERENT: ", s.seed) + difference);
    return 1;
}
