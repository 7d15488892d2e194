// seeded_faults_test.cpp - a proof that notices nothing proves nothing.
//
// Each known fault is put into the card's store, and a change that it spoils must be found out: by the lookups between
// two stores and by the readers that the stores fall upon.
#include <gtest/gtest.h>

#include "proof_card.h"
#include "seeded_faults.h"

using namespace harness;

namespace
{
constexpr std::uint32_t TREE = 4, NET = IP(10, 0, 0, 0), HOST = IP(10, 1, 2, 3);

// A store function with the fault in it.
struct faulty_card {
    proof_card proof;
    std::array<fault_order, PROOF_COPIES> orders;

    explicit faulty_card(store_fault fault)
    {
        for (unsigned copy = 0; copy < PROOF_COPIES; ++copy) {
            orders[copy].fault = fault;
            orders[copy].base = proof.copies[copy].base;
        }
    }
    void seed()
    {
        proof.card.keep_store = [this](const fake_store &store) { return take(store); };
    }
    bool take(const fake_store &store)
    {
        for (unsigned copy = 0; copy < PROOF_COPIES; ++copy) {
            const card_addr start = proof.card.memory(copy);
            const faulty_word word{store.address - start, store.value};
            if (word.offset >= HW_TABLE_BYTES)
                continue;
            if (fault_keeps(orders[copy], word)) {
                orders[copy].kept.push_back(word);
                return true;
            }
            if (!fault_frees(orders[copy], word))
                return false;
            proof.card.store_now(store);
            release(copy);
            return true;
        }
        return false;
    }
    void release(unsigned copy)
    {
        for (const faulty_word &word : orders[copy].kept)
            proof.card.store_now({proof.card.memory(copy) + word.offset, word.value});
        orders[copy].kept.clear();
    }
    // Makes a change with the fault in it, whole in the end.
    proof_finding judge(std::uint32_t address, const std::function<void()> &change)
    {
        return proof.judge(TREE, {address}, {[&] {
                               seed();
                               change();
                               for (unsigned copy = 0; copy < PROOF_COPIES; ++copy)
                                   release(copy);
                               proof.card.keep_store = nullptr;
                           }});
    }
};

void with_routes(proof_card &proof)
{
    ASSERT_EQ(proof_default(TREE, {5, 0x11}, 0), 1u);
    ASSERT_EQ(proof_add(TREE, NET, 8, {6, 0x22}, 0), 1u);
    ASSERT_EQ(proof_add(TREE, NET, 8, {7, 0x33}, RIB_F_ECMP), 1u);
    proof.settle();
}
} // namespace

TEST(seeded_faults, a_header_before_its_entries_is_found_out)
{
    faulty_card faulty(FAULT_HEADER_FIRST);
    with_routes(faulty.proof);
    const proof_finding found = faulty.judge(NET, [] {
        EXPECT_EQ(proof_add(TREE, NET, 8, {8, 0x44}, RIB_F_ECMP), 1u);
    });
    EXPECT_GT(found.after_stores, 0u);
    EXPECT_GT(found.interleavings(), 0u);
}

TEST(seeded_faults, a_slot_switched_before_its_child_is_filled_is_found_out)
{
    faulty_card faulty(FAULT_SLOT_BEFORE_CHILD);
    with_routes(faulty.proof);
    const proof_finding found = faulty.judge(NET + 1, [] { EXPECT_EQ(proof_add(TREE, HOST, 32, {8, 0x44}, 0), 1u); });
    EXPECT_GT(found.after_stores, 0u);
    EXPECT_GT(found.interleavings(), 0u);
}

TEST(seeded_faults, a_word_stored_after_the_slot_that_names_its_leaf_is_found_out)
{
    faulty_card faulty(FAULT_WORD_AFTER_SLOT);
    with_routes(faulty.proof);
    const proof_finding found = faulty.judge(HOST, [] { EXPECT_EQ(proof_add(TREE, HOST, 32, {8, 0x44}, 0), 1u); });
    EXPECT_GT(found.after_stores, 0u);
    EXPECT_GT(found.interleavings(), 0u);
}

TEST(seeded_faults, the_same_changes_without_a_fault_are_clean)
{
    faulty_card faulty(FAULT_NONE);
    with_routes(faulty.proof);
    for (const std::uint32_t address : {NET, NET + 1, HOST}) {
        EXPECT_TRUE(faulty.judge(address, [] { (void)proof_add(TREE, NET, 8, {8, 0x44}, RIB_F_ECMP); }).clean());
        EXPECT_TRUE(faulty.judge(address, [] { (void)proof_add(TREE, HOST, 32, {8, 0x44}, 0); }).clean());
    }
}
