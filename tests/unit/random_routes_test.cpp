// random_routes_test.cpp - long runs of random calls and messages against the plain model, with every audit after each
// step: all procedures and events, one and two processors, peers that fail, memory that is short.
//
// The model follows every run exactly: also where prefixes are wholly covered by longer ones, where a /0 host takes the
// default leaf's place, and up to and beyond the last leaf, node and ECMP block.
// Always: the seed is fixed and stands in every failure line. Route ids equal contexts, as callers have them, but for
// the run that is about those that do not.
// Elsewhere: how a step is drawn (random_run.cpp) and compared (random_compare.cpp); the same at length (./dev soak).
#include <algorithm>
#include <cstdio>

#include <gtest/gtest.h>

#include "norvik_mtrie_pool.h"
#include "random_run.h"

using namespace harness;

namespace
{

void take_steps(random_run &run, unsigned steps)
{
    for (unsigned i = 0; i < steps; ++i) {
        ASSERT_EQ(random_run_step(run), "");
        ASSERT_EQ(random_run_audit(), 0) << "after step " << run.steps;
        ASSERT_EQ(random_run_compare(run), "");
    }
}

struct random_routes : testing::TestWithParam<std::uint32_t> {
    random_routes() { std::printf("seed %u\n", GetParam()); }
};

} // namespace

TEST_P(random_routes, of_separate_prefixes_leave_the_card_as_the_plain_model_says)
{
    random_run run(GetParam(), run_kind::APART, 2);
    take_steps(run, 120);
}

TEST_P(random_routes, of_prefixes_that_cover_each_other_leave_the_card_as_the_plain_model_says)
{
    random_run run(GetParam() + 1000, run_kind::COVERING, 2);
    take_steps(run, 120);
}

TEST_P(random_routes, whose_route_ids_name_other_contexts_leave_the_card_as_the_plain_model_says)
{
    random_run run(GetParam() + 7000, run_kind::FOREIGN, 2);
    unsigned foreign = 0; // looks at which a tree held another context's route
    for (unsigned i = 0; i < 16; ++i) {
        ASSERT_NO_FATAL_FAILURE(take_steps(run, 10));
        for (const auto &[ctx, table] : run.model.rib)
            for (const auto &[key, paths] : table)
                foreign += std::any_of(paths.begin(), paths.end(), [c = ctx](const model_path &path) {
                    return path.route_id != c && (path.flags & RIB_F_IN_MTRIE) != 0;
                });
    }
    EXPECT_GE(foreign, 1u) << "the run programmed no route in another context's tree";
}

TEST_P(random_routes, of_few_prefixes_with_many_paths_leave_the_card_as_the_plain_model_says)
{
    random_run run(GetParam() + 6000, run_kind::CROWDED, 2);
    std::size_t largest = 0;
    for (unsigned i = 0; i < 600; ++i) {
        ASSERT_EQ(random_run_step(run), "");
        if (i % 10 == 0) {
            ASSERT_NO_FATAL_FAILURE(take_steps(run, 1));
        }
        for (const auto &[ctx, table] : run.model.rib)
            for (const auto &[key, paths] : table)
                largest = std::max(largest, paths.size());
    }
    EXPECT_GE(largest, 8u) << "the run did not fill a set";
}

TEST_P(random_routes, of_a_card_with_one_processor_leave_it_as_the_plain_model_says)
{
    random_run run(GetParam() + 2000, run_kind::COVERING, 1);
    take_steps(run, 100);
}

TEST_P(random_routes, that_use_up_the_nodes_leave_the_card_as_the_plain_model_says)
{
    random_run run(GetParam() + 3000, run_kind::WIDE, 2);
    // Taken for a tree that is not looked at, so that few steps come to the end.
    while (mtrie_pools[MTRIE_POOL_NODE].count < 1005) {
        ASSERT_NE(mtrie_node_alloc_pool(77), nullptr);
        ++run.model.pools.nodes;
    }
    bool reached = false;
    for (unsigned i = 0; i < 12; ++i) {
        ASSERT_NO_FATAL_FAILURE(take_steps(run, 10));
        reached = reached || mtrie_pools[MTRIE_POOL_NODE].count == 1024;
    }
    EXPECT_TRUE(reached) << "the run did not reach the last node";
}

TEST_P(random_routes, that_use_up_the_leaves_leave_the_card_as_the_plain_model_says)
{
    random_run run(GetParam() + 4000, run_kind::COVERING, 2);
    while (mtrie_pools[MTRIE_POOL_LEAF].count < 1014) {
        ASSERT_NE(mtrie_leaf_alloc_pool(77), nullptr);
        ++run.model.pools.leaves;
    }
    bool reached = false;
    for (unsigned i = 0; i < 12; ++i) {
        ASSERT_NO_FATAL_FAILURE(take_steps(run, 10));
        reached = reached || mtrie_pools[MTRIE_POOL_LEAF].count == 1024;
    }
    EXPECT_TRUE(reached) << "the run did not reach the last leaf";
}

TEST_P(random_routes, that_use_up_the_ecmp_blocks_leave_the_card_as_the_plain_model_says)
{
    random_run run(GetParam() + 5000, run_kind::APART, 1);
    while (mtrie_pools[MTRIE_POOL_ECMP].count < 127) {
        ASSERT_NE(mtrie_ecmp_alloc_pool(77), nullptr);
        ++run.model.pools.blocks;
    }
    bool reached = false;
    for (unsigned i = 0; i < 40 && !reached; ++i) {
        ASSERT_NO_FATAL_FAILURE(take_steps(run, 10));
        reached = reached || mtrie_pools[MTRIE_POOL_ECMP].count == 128;
    }
    ASSERT_NO_FATAL_FAILURE(take_steps(run, 30)); // now and then without a block to be had
    EXPECT_TRUE(reached) << "the run did not reach the last block";
}

INSTANTIATE_TEST_SUITE_P(seeds, random_routes, testing::Values(1u, 20u, 333u));
