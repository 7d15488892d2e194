// cardsim_db_test.cpp - the interface database beside its readers.

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include <sys/stat.h>

#include "../unit/host_support.h"
#include "card_service/if_db.h"
#include "if_mgr.h"

using namespace harness;

TEST(cardsim_db, a_reader_never_sees_half_a_change)
{
    on_fresh_card([] {
        if_db db;
        ASSERT_EQ(if_db_open(&db, "cardsim", if_db_earlier::remove), 0);
        const auto record = [](std::uint32_t n) {
            return if_db_record{IFDB_EXISTS | IFDB_HAS_ADDRESS, 1, 0, n, ~n, n, n};
        };
        if_db_write(db, 5, record(0));
        std::atomic<bool> is_over = false;
        std::thread writer([&] {
            for (std::uint32_t n = 0; !is_over; ++n)
                if_db_write(db, 5, record(n));
        });
        unsigned changes = 0;
        for (std::uint32_t reads = 0, last = 0; reads < 200000 || changes < 2; ++reads) {
            std::uint32_t address = 0, mask = 0;
            if (if_get_ip(5, &address, &mask) != 0)
                continue; // the writer was put to sleep in the middle, for longer than a reader waits
            ASSERT_EQ(mask, ~address);
            changes += address != last ? 1 : 0;
            last = address;
        }
        is_over = true;
        writer.join();
        if_db_close(&db);
    });
}

TEST(cardsim_db, a_database_is_found_whole_and_private)
{
    on_fresh_card([] {
        if_db db;
        ASSERT_EQ(if_db_open(&db, "cardsim", if_db_earlier::remove), 0);
        struct stat st;
        ASSERT_EQ(stat(card_file("interfaces").c_str(), &st), 0);
        EXPECT_EQ(st.st_size, static_cast<off_t>(IFDB_BYTES));
        EXPECT_EQ(st.st_mode & 07777, 0600u);
        EXPECT_EQ(if_get_status(5), -1);
        if_db_write(db, 8191, {IFDB_EXISTS | IFDB_UP | IFDB_HAS_VLAN, 1, 0, 0, 0, 0, 7});
        EXPECT_EQ(if_get_status(8191), 1);
        EXPECT_EQ(if_get_vlanid(8191), 7);
        if_db_close(&db);
    });
}

TEST(cardsim_db, a_new_manager_takes_out_what_an_earlier_one_left_also_a_half_change)
{
    on_fresh_card([] {
        if_db db;
        ASSERT_EQ(if_db_open(&db, "cardsim", if_db_earlier::remove), 0);
        if_db_write(db, 5, {IFDB_EXISTS | IFDB_UP, 1, 0, 0, 0, 0, 0});
        std::uint32_t *const sequence = db.words + IFDB_HEADER_WORDS + 5 * IFDB_RECORD_WORDS;
        EXPECT_EQ(if_get_status(5), 1);
        *sequence |= 1; // it died in the middle
        if_db_close(&db);
        if_db again;
        ASSERT_EQ(if_db_open(&again, "cardsim", if_db_earlier::remove), 0);
        EXPECT_EQ(if_get_status(5), -1);
        EXPECT_EQ(again.words[IFDB_HEADER_WORDS + 5 * IFDB_RECORD_WORDS] & 1, 0u);
        if_db_close(&again);
    });
}

TEST(cardsim_db, a_file_of_another_form_is_replaced)
{
    on_fresh_card([] {
        file_write(card_file("interfaces"), "something else");
        if_db db;
        ASSERT_EQ(if_db_open(&db, "cardsim", if_db_earlier::remove), 0);
        if_db_write(db, 5, {IFDB_EXISTS, 1, 0, 0, 0, 0, 0});
        EXPECT_EQ(if_get_status(5), 0);
        if_db_close(&db);
    });
}

TEST(cardsim_db, a_writer_that_keeps_what_was_left_reads_it_again)
{
    on_fresh_card([] {
        if_db db;
        ASSERT_EQ(if_db_open(&db, "cardsim", if_db_earlier::remove), 0);
        if_db_write(db, 5, {IFDB_EXISTS | IFDB_UP, 1, 2, 3, 4, 6, 7});
        if_db_close(&db);
        ASSERT_EQ(if_db_open(&db, "cardsim", if_db_earlier::keep), 0);
        const if_db_record kept = if_db_read(db, 5);
        EXPECT_EQ(kept.flags, IFDB_EXISTS | IFDB_UP);
        EXPECT_EQ(kept.mode, 1u);
        EXPECT_EQ(kept.bvi, 2u);
        EXPECT_EQ(kept.address, 3u);
        EXPECT_EQ(kept.mask, 4u);
        EXPECT_EQ(kept.ctx, 6u);
        EXPECT_EQ(kept.vlan, 7u);
        if_db_close(&db);
    });
}
