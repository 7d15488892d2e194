// random_trie_test.cpp - random operations on several trees against a slow, plain picture of them, for a moment.
//
// Elsewhere: the operations and what is compared (random_trie.h), the same at length (./dev soak).
#include <gtest/gtest.h>

#include "random_trie.h"

using namespace harness;

namespace
{
struct random_tries : testing::TestWithParam<std::uint32_t> {
};
} // namespace

TEST_P(random_tries, of_few_prefixes_answer_as_the_picture_says_after_every_operation)
{
    random_trie(GetParam(), trie_kind::FEW).take_steps(100);
}

TEST_P(random_tries, of_many_prefixes_answer_as_the_picture_says_after_every_operation)
{
    random_trie(GetParam(), trie_kind::MANY).take_steps(100);
}

TEST_P(random_tries, use_up_the_last_leaves_and_nodes_without_an_answer_changing)
{
    random_trie run(GetParam(), trie_kind::USED_UP);
    run.take_steps(60);
    EXPECT_GE(run.pools.leaves, 1000u);
    EXPECT_EQ(run.most_nodes, plain_pools::NODES) << "the run did not reach the last node";
}

INSTANTIATE_TEST_SUITE_P(seeds, random_tries, testing::Values(1u, 2u, 3u, 20260101u));
