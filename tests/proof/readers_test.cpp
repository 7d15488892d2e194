// readers_test.cpp - the proof in the large inside one process: threads look up while routes change.
//
// Under the thread sanitizer it shows besides that the stores and loads alone order writer and readers.
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "random_changes.h"
#include "route_rpc_serv.h"
#include "route_table.h"
#include "window_reader.h"

using namespace harness;

namespace
{
constexpr unsigned CHANGES = 3000;

struct readers : testing::Test {
    fake_card card;
    const change_maker make_here = [this](const remote_call &call) { return card.call(call).result; };
    std::unique_ptr<window_board> board = std::make_unique<window_board>();

    void SetUp() override
    {
        ASSERT_EQ(card.start(), 0);
        ASSERT_EQ(norvik_route_tnrpc_serv(), 0u);
        card.open_all_history(false);
        for (unsigned n = 0; n < CHANGE_INTERFACES; ++n)
            card.add_interface(CHANGE_FIRST_IFID + n, change_interface_address(n));
    }
    ixp_table table(unsigned copy) const
    {
        return {card_at<std::uint32_t>(card.memory(copy)), copy == 0 ? card.wired_phys_base : HW_IXP_BASE};
    }
};

std::uint64_t count_of(const window_tally &tally, window_verdict verdict) { return tally.verdicts[verdict].load(); }
} // namespace

TEST_F(readers, on_threads_get_right_answers_from_every_copy_while_routes_change)
{
    random_changes all(*board, 7, make_here);
    window_tally tallies[3]{};
    {
        std::vector<std::jthread> threads;
        for (unsigned copy = 0; copy < 3; ++copy)
            threads.emplace_back([this, copy, &tallies] { window_read(*board, table(copy), copy, tallies[copy]); });
        for (const window_tally &tally : tallies)
            while (tally.lookups.load() == 0)
                std::this_thread::yield();
        for (unsigned i = 0; i < CHANGES && all.next(); ++i)
            card.forget();
        board->stop.store(true);
    }
    EXPECT_EQ(all.error, "");
    for (const window_tally &tally : tallies) {
        EXPECT_EQ(count_of(tally, WINDOW_WRONG), 0u)
            << std::hex << board->addresses[tally.wrong_index.load()].address << " word " << tally.wrong_word.load();
        EXPECT_GT(tally.checked.load(), 0u);
    }
}

TEST_F(readers, between_two_changes_find_each_address_as_the_model_says_and_every_kind_of_path)
{
    random_changes all(*board, 8, make_here);
    window_tally tally{};
    for (unsigned i = 0; i < 500; ++i) {
        ASSERT_TRUE(all.next()) << all.error;
        card.forget();
        window_read_pass(*board, table(1 + i % 2), IXP_SCALAR, i, tally);
    }
    EXPECT_EQ(count_of(tally, WINDOW_RIGHT), tally.lookups.load());
    for (unsigned path = 0; path < 8; ++path)
        EXPECT_GT(tally.paths[path].load(), 0u) << "path " << path;
}

TEST_F(readers, notice_a_path_that_no_table_had)
{
    random_changes all(*board, 9, make_here);
    window_tally tally{};
    for (unsigned i = 0; i < 50; ++i)
        ASSERT_TRUE(all.next()) << all.error;
    std::vector<std::uint32_t> words(HW_TABLE_BYTES / 4);
    for (std::uint32_t i = 0; i < HW_TABLE_BYTES / 4; ++i)
        words[i] = card.word(1, 4 * i);
    words[HW_LEAVES / 4] = adj_pack(0, CHANGE_FIRST_IFID, 0x1001); // the default leaf of tree 0, with a host's path
    window_read_pass(*board, {words.data(), HW_IXP_BASE}, IXP_SCALAR, 0, tally);
    EXPECT_GT(count_of(tally, WINDOW_WRONG), 0u);
}
