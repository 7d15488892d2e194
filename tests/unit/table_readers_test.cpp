// table_readers_test.cpp - processors search the tables while the process changes them.
//
// One thread changes routes as the process does, another searches a processor's copy without pause. Under the thread
// sanitizer this shows that stores and loads alone order the two; here, that whatever a search meets is a word of some
// table that stood: never one that leads out of the tables, never an adjacency that no route ever had.
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "prefix_mgr.h"

using namespace harness;

namespace
{
constexpr std::uint16_t TREE = 4, FIRST_IFID = 5, SECOND_IFID = 7;
constexpr std::uint32_t ADDRESS = 0x0A010203;
constexpr unsigned ROUNDS = 300;

route_entry route_of(std::uint32_t len, std::uint16_t ifid, std::uint16_t flags)
{
    route_entry route{};
    route.prefix = ADDRESS & (0xFFFFFFFFu << (32 - len));
    route.len = len;
    route.ctx = TREE;
    route.route_id = TREE;
    route.ifid = ifid;
    route.encap_id = ifid;
    route.flags = flags;
    return route;
}

bool is_ours(std::uint32_t adjacency)
{
    const std::uint32_t word = adjacency & ~ADJ_ECMP;
    return word == 0 || word == adj_pack(0, FIRST_IFID, FIRST_IFID) || word == adj_pack(0, SECOND_IFID, SECOND_IFID);
}

// Searches until told to stop. Returns the searches that met what no table held.
unsigned search(const fake_card &card, unsigned copy, const std::atomic<bool> &stop, std::atomic<unsigned> &searches)
{
    unsigned foreign = 0;
    while (!stop.load()) {
        const np_answer answer = np_find(card, copy, TREE, ADDRESS);
        foreign += answer.leaf == NP_UNSOUND || (answer.leaf != NP_MISS && !is_ours(answer.adjacency));
        searches.fetch_add(1);
    }
    return foreign;
}
} // namespace

TEST(table_readers, a_search_beside_a_writer_meets_only_words_of_some_table_that_stood)
{
    for (unsigned copy = 0; copy < NP_COPIES; ++copy) {
        fake_card card;
        ASSERT_EQ(card.start_tables(), 0);
        std::atomic<bool> stop{false};
        std::atomic<unsigned> searches{0};
        unsigned foreign = 0;
        std::thread reader([&] { foreign = search(card, copy, stop, searches); });
        while (searches.load() == 0)
            std::this_thread::yield();
        for (unsigned round = 0; round < ROUNDS; ++round) {
            const std::uint32_t len = 9 + round % 24;
            const route_entry first = route_of(len, FIRST_IFID, 0);
            const route_entry second = route_of(len, SECOND_IFID, RIB_F_ECMP);
            EXPECT_EQ(prefix_mgr_route_add(wired_table_mgr, &first), 1u);
            EXPECT_EQ(prefix_mgr_route_add(wired_table_mgr, &second), 1u);
            EXPECT_EQ(prefix_mgr_route_remove(wired_table_mgr, &first), 1u);
            EXPECT_EQ(prefix_mgr_route_remove(wired_table_mgr, &second), 1u);
        }
        stop.store(true);
        reader.join();
        EXPECT_EQ(foreign, 0u) << "copy " << copy << ", " << searches.load() << " searches";
    }
}
