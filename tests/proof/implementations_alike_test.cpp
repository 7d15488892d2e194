// implementations_alike_test.cpp - the scalar, the batch and the vector lookup answer alike, word for word.
//
// Also alike to the walk taken apart (walk_machine.h), which is written a second time and knows nothing of them. Tables
// come from the process at random; memories of chance words show that nothing in one leads a implementation out of it.
#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "ixp_lookup.h"
#include "norvik_mtrie_pool.h"
#include "proof_card.h"

using namespace harness;

namespace
{
constexpr std::uint32_t TREES[] = {0, 4, 255};
constexpr std::uint32_t WRITTEN_BY_NOIMPLEMENTATION = 0xABCD1234;

struct batch_of {
    std::vector<std::uint32_t> addresses, hashes, trees;
};

struct answers_of {
    std::vector<std::uint32_t> words, paths, leaf_words;
    bool operator==(const answers_of &) const = default;
};

ixp_table table_of(const table_copy &copy) { return {copy.words.data(), copy.base}; }

// All lookups of a implementation; one word behind the end of each array must stay as it was.
answers_of ask(const table_copy &copy, ixp_implementation implementation, const batch_of &batch, bool one_tree)
{
    const std::size_t count = batch.addresses.size();
    answers_of answers;
    for (std::vector<std::uint32_t> *all : {&answers.words, &answers.paths, &answers.leaf_words})
        all->assign(count + 1, WRITTEN_BY_NOIMPLEMENTATION);
    const ixp_packets packets{batch.addresses.data(), batch.hashes.data(), answers.words.data(), answers.paths.data(),
                              count};
    if (one_tree) {
        ixp_forward(table_of(copy), implementation, batch.trees[0], packets);
        ixp_lookup(table_of(copy), implementation, batch.trees[0], packets.addresses, answers.leaf_words.data(), count);
    } else {
        ixp_forward_trees(table_of(copy), implementation, batch.trees.data(), packets);
        ixp_lookup_trees(table_of(copy), implementation, batch.trees.data(), packets.addresses,
                         answers.leaf_words.data(), count);
    }
    EXPECT_EQ(answers.words.back(), WRITTEN_BY_NOIMPLEMENTATION);
    EXPECT_EQ(answers.paths.back(), WRITTEN_BY_NOIMPLEMENTATION);
    EXPECT_EQ(answers.leaf_words.back(), WRITTEN_BY_NOIMPLEMENTATION);
    return answers;
}

batch_of random_batch(std::mt19937 &random, const std::vector<std::uint32_t> &boundaries, std::size_t count)
{
    batch_of batch;
    for (std::size_t i = 0; i < count; ++i) {
        const bool boundary = !boundaries.empty() && random() % 4 != 0;
        batch.addresses.push_back(boundary ? boundaries[random() % boundaries.size()]
                                           : static_cast<std::uint32_t>(random()));
        batch.hashes.push_back(static_cast<std::uint32_t>(random()));
        batch.trees.push_back(TREES[random() % std::size(TREES)]);
    }
    return batch;
}

void expect_alike(const table_copy &copy, const batch_of &batch)
{
    for (const bool one_tree : {true, false}) {
        const answers_of scalar = ask(copy, IXP_SCALAR, batch, one_tree);
        for (const ixp_implementation implementation : {IXP_BATCH, IXP_AVX2})
            if (ixp_implementation_runs(implementation)) {
                EXPECT_EQ(ask(copy, implementation, batch, one_tree), scalar)
                    << ixp_implementation_name(implementation) << ", " << batch.addresses.size() << " addresses";
            }
    }
}

struct implementations : testing::Test {
    proof_card proof;
    std::mt19937 random{99};

    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); }
    void random_routes(unsigned count)
    {
        for (unsigned i = 0; i < count; ++i) {
            const std::uint32_t tree = TREES[below(3)], len = 1 + below(32), mask = 0xFFFFFFFFu << (32 - len);
            const std::uint32_t top = 8 + below(6), second = below(3) * 85, third = below(3) * 85, last = below(256);
            const std::uint32_t prefix = IP(top, second, third, last) & mask;
            const unsigned flags[] = {0, RIB_F_ECMP, RIB_F_NAT, RIB_F_CONNECTED};
            for (unsigned path = 0; path < 1 + below(8); ++path)
                (void)proof_add(tree, prefix, len, {1 + below(100), 1 + below(1000)},
                                path == 0 ? flags[below(4)] : static_cast<unsigned>(RIB_F_ECMP));
        }
        proof.settle();
    }
    std::vector<std::uint32_t> boundaries()
    {
        std::vector<std::uint32_t> all;
        for (const std::uint32_t tree : TREES)
            for (const std::uint32_t address : tree_boundaries(tree))
                all.push_back(address);
        return all;
    }
};
} // namespace

TEST_F(implementations, answer_alike_on_random_tables_and_at_every_boundary)
{
    for (unsigned round = 0; round < 8; ++round) {
        random_routes(20);
        const std::vector<std::uint32_t> all = boundaries();
        batch_of every = random_batch(random, {}, all.size());
        every.addresses = all;
        for (const table_copy &copy : proof.copies) {
            expect_alike(copy, every);
            expect_alike(copy, random_batch(random, all, 3000));
        }
    }
}

TEST_F(implementations, answer_alike_for_runs_of_every_length)
{
    random_routes(40);
    const std::vector<std::uint32_t> all = boundaries();
    for (std::size_t count = 1; count <= 140; ++count) // a vector, a group of vectors, a block, with all remainders
        expect_alike(proof.copies[1], random_batch(random, all, count));
    for (const std::size_t count : {0u, 255u, 256u, 257u, 263u, 264u, 265u, 319u, 320u, 321u, 383u, 384u, 385u, 519u}) {
        batch_of batch = random_batch(random, all, count);
        batch.trees.push_back(4);
        expect_alike(proof.copies[2], batch);
    }
}

TEST_F(implementations, choose_the_path_that_the_hash_gives_for_every_count)
{
    ASSERT_EQ(proof_add(4, IP(10, 0, 0, 0), 8, {1, 1}, 0), 1u);
    for (std::uint32_t paths = 1; paths <= 8; ++paths) {
        if (paths > 1) {
            ASSERT_EQ(proof_add(4, IP(10, 0, 0, 0), 8, {paths, paths}, RIB_F_ECMP), 1u);
        }
        proof.settle();
        batch_of batch = random_batch(random, {IP(10, 9, 9, 9)}, 4000);
        std::fill(batch.addresses.begin(), batch.addresses.end(), IP(10, 9, 9, 9));
        std::fill(batch.trees.begin(), batch.trees.end(), 4);
        for (std::uint32_t i = 0; i < 2000; ++i) // both ends of the hashes, where a division's rounding would show
            batch.hashes[i] = i < 1000 ? i : 0xFFFFFFFF - i;
        for (unsigned implementation = 0; implementation < IXP_IMPLEMENTATIONS; ++implementation) {
            if (!ixp_implementation_runs(static_cast<ixp_implementation>(implementation)))
                continue;
            const answers_of answers =
                ask(proof.copies[1], static_cast<ixp_implementation>(implementation), batch, true);
            for (std::size_t i = 0; i < batch.hashes.size(); ++i) {
                const std::uint32_t path = batch.hashes[i] % paths;
                ASSERT_EQ(answers.paths[i], path) << "hash " << batch.hashes[i] << " of " << paths;
                ASSERT_EQ(ixp_hop_of(answers.words[i], path).encap, path + 1);
                ASSERT_EQ(ixp_hop_of(answers.words[i], path).ifid, path + 1);
            }
        }
    }
}

TEST_F(implementations, answer_what_the_walk_taken_apart_answers)
{
    random_routes(60);
    const std::vector<std::uint32_t> all = boundaries();
    const batch_of batch = random_batch(random, all, 2000);
    for (const table_copy &copy : proof.copies) {
        const answers_of answers = ask(copy, IXP_SCALAR, batch, false);
        for (std::size_t i = 0; i < batch.addresses.size(); ++i) {
            walker end;
            end.stage = answers.words[i] == IXP_MISS ? WALK_MISS : WALK_DONE;
            end.own = answers.words[i];
            end.path = static_cast<std::uint8_t>(answers.paths[i]);
            EXPECT_TRUE(walk_at_rest(copy, {batch.trees[i], batch.addresses[i]}).contains(walk_answer_of(end)))
                << std::hex << batch.addresses[i];
        }
    }
}

TEST_F(implementations, choose_paths_alike_where_every_leaf_is_a_set_or_missing)
{
    for (const std::uint32_t tree : TREES)
        for (std::uint32_t path = 0; path < 8; ++path) {
            const unsigned flags = path == 0 ? 0u : static_cast<unsigned>(RIB_F_ECMP);
            ASSERT_EQ(proof_add(tree, IP(10, 0, 0, 0), 8, {1 + path, 1 + path}, flags), 1u);
        }
    proof.settle();
    for (const std::size_t count : {7u, 8u, 63u, 64u, 65u, 127u, 128u, 129u, 255u, 256u, 257u, 700u}) {
        batch_of batch = random_batch(random, {}, count);
        for (std::uint32_t &address : batch.addresses)
            address = IP(10, 0, 0, 0) | (address & 0xFFFFFF);
        const answers_of answers = ask(proof.copies[1], IXP_SCALAR, batch, false);
        EXPECT_GT(std::count_if(answers.paths.begin(), answers.paths.end() - 1, [](auto path) { return path != 0; }),
                  static_cast<std::ptrdiff_t>(count / 2));
        expect_alike(proof.copies[1], batch); // lists of paths that are full to the last place
        table_copy damaged = proof.copies[1];
        for (std::uint32_t slot = 0; slot < 256; slot += 3)
            damaged.words[HW_NODES / 4 + slot] = 0; // of node 0, a root
        for (std::size_t i = 0; i < count; i += 2)
            batch.addresses[i] = static_cast<std::uint32_t>(random()); // some without a leaf between those with sets
        expect_alike(damaged, batch);
    }
}

TEST_F(implementations, miss_alike_in_trees_without_a_root_and_in_empty_slots)
{
    for (table_copy &copy : proof.copies) {
        copy.words[4] = 0;                                  // no root
        copy.words[0] = copy.base + HW_NODES + 1;           // node 0
        for (std::uint32_t slot = 0; slot < 256; slot += 2) // every second slot empty
            copy.words[(HW_NODES / 4) + slot] = 0;
        expect_alike(copy, random_batch(random, {}, 999));
    }
}

TEST_F(implementations, follow_memories_of_chance_words_alike_and_stay_inside)
{
    table_copy chance{HW_IXP_BASE, std::vector<std::uint32_t>(HW_TABLE_BYTES / 4)};
    for (unsigned round = 0; round < 4; ++round) {
        for (std::uint32_t &word : chance.words) {
            word = static_cast<std::uint32_t>(random());
            if (random() % 4 != 0) // mostly words that lead somewhere
                word = HW_IXP_BASE + word % HW_TABLE_BYTES;
        }
        expect_alike(chance, random_batch(random, {}, 5000));
    }
}

TEST_F(implementations, follow_words_that_lead_to_the_end_of_the_table_and_beyond_alike)
{
    constexpr std::uint32_t WORDS = HW_TABLE_BYTES / 4, AROUND = 32;
    for (const std::uint32_t base : {HW_IXP_BASE, 0u, 0xFFF00000u}) {
        table_copy end{base, std::vector<std::uint32_t>(WORDS)};
        for (std::uint32_t i = 0; i < WORDS; ++i)
            end.words[i] = base + HW_LEAVES + 8 * (i % 1024); // leaves wherever a node may seem to be
        for (const std::uint32_t tree : TREES)
            end.words[tree] = base + HW_NODES + HW_NODE_TAG;
        for (std::uint32_t slot = 0; slot < 256;
             ++slot) { // what the last whole node or the last word is, and around it
            const std::uint32_t place = (slot < 128 ? WORDS - 256 : WORDS - 1) - AROUND / 2 + slot / 4 % AROUND;
            end.words[HW_NODES / 4 + slot] = base + 4 * place + slot % 4; // tagged and not, at a word's place and not
        }
        for (std::uint32_t slot = 3; slot < 256; slot += 16)
            end.words[HW_NODES / 4 + slot] = 0; // no leaf, not even where the table begins at address 0 or wraps round
        batch_of batch = random_batch(random, {}, 4096);
        for (std::uint32_t i = 0; i < 4096; ++i) // each slot with the first and the last ones of the next node
            batch.addresses[i] = i % 256 << 24 | (i / 256 < 8 ? i / 256 : 0xF0 + i / 256) << 16 | (i & 0xFFFF);
        expect_alike(end, batch);
    }
}
