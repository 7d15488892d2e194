// service_memory_test.cpp - the provider of a table memory: who gets it, and how its users' ends are seen.
#include <csignal>
#include <cstdio>

#include <poll.h>
#include <sys/resource.h>

#include "card_dir.h"
#include "host_support.h"
#include "memory_peer.h"
#include "memory_service.h"
#include "tables.h"

using namespace harness;

namespace
{
constexpr const char *MEMORY = "mem/ixp2";
std::string memory_path() { return card_file(MEMORY); }

byte_string answer_bytes(std::uint32_t bytes, std::uint32_t generation)
{
    return word_bytes({MEMORY_ANSWER, bytes, generation});
}
const byte_string REFUSAL = answer_bytes(0, 0);

// A provider with two tables: who writes gets the one that is not searched.
struct two_tables {
    int files[2] = {memory_file(TABLE_BYTES), memory_file(0x200000)};
    int searched = -1; // -1: none yet
    std::uint32_t handed_out = 0, generations[2] = {};
    unsigned writers_gone = 0;
    memory_service service;

    two_tables()
    {
        service.for_writer = [this] {
            const int table = searched == 0 ? 1 : 0;
            generations[table] = ++handed_out;
            return handout(table);
        };
        service.for_reader = [this] { return searched < 0 ? memory_handout{} : handout(searched); };
        service.writer_gone = [this] { ++writers_gone; };
    }
    memory_handout handout(int table) const
    {
        return {files[table], table == 0 ? TABLE_BYTES : 0x200000, generations[table]};
    }
    void open() { ASSERT_EQ(memory_service_open(&service, MEMORY), 0); }
    // Does all that waits.
    void work()
    {
        pollfd state = {service.events, POLLIN, 0};
        while (poll(&state, 1, 0) == 1)
            memory_service_process(service);
    }
    // What a new user is answered. Its connection stays open in `user`.
    byte_string ask(int &user, std::uint32_t purpose)
    {
        user = memory_user(memory_path(), purpose);
        work();
        const memory_given given = memory_user_receive(user);
        EXPECT_EQ(given.descriptor >= 0, !given.record.empty() && given.record != REFUSAL);
        close(given.descriptor);
        return given.record;
    }
    byte_string ask(std::uint32_t purpose)
    {
        int user = -1;
        return ask(user, purpose);
    }
};

// Whether the other end of a connection has gone, with nothing more to read before that.
bool has_ended(int user)
{
    pollfd state = {user, POLLIN | POLLRDHUP, 0};
    std::uint8_t byte = 0;
    return poll(&state, 1, 0) == 1 && recv(user, &byte, 1, MSG_DONTWAIT) == 0;
}

// A route manager's message queue as it is bound; the socket of the one before stays elsewhere, so that this is
// another.
struct manager {
    mts_queue queue;
    static const card_dir &moved_away(const card_dir &card)
    {
        (void)std::rename(card.at("mts/514").c_str(), card.at("mts/old").c_str());
        return card;
    }
    explicit manager(const card_dir &card) : queue(moved_away(card), 514) {}
};

void on_two_tables(const std::function<void(const card_dir &, two_tables &)> &body)
{
    const card_dir card;
    on_card(card.path, [&] {
        two_tables tables;
        body(card, tables);
    });
}
} // namespace

TEST(memory_service, a_user_gets_the_memory_itself_with_its_size_and_generation)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        const int user = memory_user(memory_path(), TO_WRITE);
        tables.work();
        const memory_given given = memory_user_receive(user);
        EXPECT_EQ(given.record, answer_bytes(TABLE_BYTES, 1));
        const std::uint32_t word = 0x12345678;
        ASSERT_EQ(pwrite(given.descriptor, &word, 4, 0), 4);
        EXPECT_EQ(memory_file_words(tables.files[0])[0], word);
        tables.searched = 0;
        EXPECT_EQ(tables.ask(TO_READ), answer_bytes(TABLE_BYTES, 1));
        EXPECT_FALSE(has_ended(user));
    });
}

TEST(memory_service, a_second_writer_is_refused_while_the_first_is_connected)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        EXPECT_FALSE(memory_service_has_writer(tables.service));
        int first = -1, second = -1;
        EXPECT_EQ(tables.ask(first, TO_WRITE), answer_bytes(TABLE_BYTES, 1));
        EXPECT_EQ(tables.ask(second, TO_WRITE), REFUSAL);
        EXPECT_TRUE(has_ended(second));
        EXPECT_FALSE(has_ended(first));
        EXPECT_TRUE(memory_service_has_writer(tables.service));
        EXPECT_EQ(tables.writers_gone, 0u);
    });
}

TEST(memory_service, the_end_of_a_writer_is_looked_for_before_the_next_is_judged)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        int first = -1;
        EXPECT_EQ(tables.ask(first, TO_WRITE), answer_bytes(TABLE_BYTES, 1));
        const int second = memory_user(memory_path(), TO_WRITE); // its question is there before the first one's end
        EXPECT_EQ(send(first, "x", 1, 0), 1);
        close(first);
        tables.work();
        const memory_given given = memory_user_receive(second);
        EXPECT_EQ(given.record, answer_bytes(TABLE_BYTES, 2)) << "nothing was switched, so it is the same table";
        EXPECT_EQ(tables.writers_gone, 1u);
        tables.work();
        EXPECT_TRUE(memory_service_has_writer(tables.service));
        EXPECT_EQ(tables.writers_gone, 1u);
    });
}

TEST(memory_service, the_end_of_a_writer_is_told_to_the_owner_once)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        int writer = -1;
        (void)tables.ask(writer, TO_WRITE);
        close(writer);
        tables.work();
        EXPECT_EQ(tables.writers_gone, 1u);
        EXPECT_FALSE(memory_service_has_writer(tables.service));
        (void)tables.ask(writer, TO_WRITE);
        close(writer);
        EXPECT_FALSE(memory_service_has_writer(tables.service)) << "without a pass";
        tables.work();
        EXPECT_EQ(tables.writers_gone, 2u);
    });
}

TEST(memory_service, the_next_writer_gets_the_table_that_is_not_searched)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        int writer = -1;
        EXPECT_EQ(tables.ask(writer, TO_WRITE), answer_bytes(TABLE_BYTES, 1));
        tables.searched = 0;
        close(writer);
        EXPECT_EQ(tables.ask(writer, TO_WRITE), answer_bytes(0x200000, 2));
        EXPECT_EQ(tables.ask(TO_READ), answer_bytes(TABLE_BYTES, 1)) << "readers see what is searched still";
    });
}

TEST(memory_service, readers_ask_again_when_another_table_takes_the_place)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        EXPECT_EQ(tables.ask(TO_READ), REFUSAL) << "nothing is searched";
        int writer = -1, readers[2] = {};
        (void)tables.ask(writer, TO_WRITE);
        tables.searched = 0;
        for (int &reader : readers)
            EXPECT_EQ(tables.ask(reader, TO_READ), answer_bytes(TABLE_BYTES, 1));
        EXPECT_FALSE(has_ended(readers[0]));
        tables.searched = 1;
        memory_service_end_readers(tables.service);
        EXPECT_TRUE(has_ended(readers[0]) && has_ended(readers[1]));
        EXPECT_FALSE(has_ended(writer));
        tables.work();
        EXPECT_EQ(tables.ask(TO_READ), answer_bytes(0x200000, 0));
    });
}

TEST(memory_service, what_is_no_question_ends_the_connection_and_an_unknown_purpose_is_refused)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        tables.searched = 0;
        for (const byte_string &record : {word_bytes({MEMORY_QUESTION}), word_bytes({MEMORY_QUESTION, TO_READ, 0}),
                                          word_bytes({MEMORY_ANSWER, TO_READ}), byte_string(4000, 1), byte_string{1}}) {
            const int user = memory_user(memory_path(), record);
            tables.work();
            EXPECT_TRUE(has_ended(user));
            close(user);
        }
        for (const std::uint32_t purpose : {0u, 3u, 0xFFFFFFFFu})
            EXPECT_EQ(tables.ask(purpose), REFUSAL) << purpose;
        EXPECT_EQ(tables.ask(TO_READ), answer_bytes(TABLE_BYTES, 0));
        EXPECT_FALSE(memory_service_has_writer(tables.service));
    });
}

TEST(memory_service, what_a_user_says_behind_its_question_is_dropped)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        tables.searched = 1;
        int writer = -1, reader = -1;
        (void)tables.ask(writer, TO_WRITE);
        (void)tables.ask(reader, TO_READ);
        for (const int user : {writer, reader}) {
            const byte_string again = word_bytes({MEMORY_QUESTION, TO_READ});
            EXPECT_EQ(send(user, again.data(), again.size(), 0), 8);
            EXPECT_EQ(send(user, "more", 4, 0), 4);
        }
        tables.work();
        for (const int user : {writer, reader}) {
            pollfd state = {user, POLLIN | POLLRDHUP, 0};
            EXPECT_EQ(poll(&state, 1, 0), 0);
        }
        EXPECT_TRUE(memory_service_has_writer(tables.service));
    });
}

TEST(memory_service, a_route_manager_that_lives_has_the_memory_of_an_earlier_provider)
{
    on_two_tables([](const card_dir &card, two_tables &tables) {
        std::optional<manager> first(std::in_place, card);
        tables.open();
        EXPECT_TRUE(memory_service_has_writer(tables.service));
        EXPECT_EQ(tables.ask(TO_WRITE), REFUSAL);
        EXPECT_EQ(tables.writers_gone, 0u);
        first.reset();
        const manager second(card); // who asks holds the queue already: the lock alone does not tell them apart
        int writer = -1;
        EXPECT_EQ(tables.ask(writer, TO_WRITE), answer_bytes(TABLE_BYTES, 1));
        EXPECT_EQ(tables.writers_gone, 1u);
        EXPECT_EQ(tables.ask(TO_WRITE), REFUSAL);
        close(writer);
        EXPECT_FALSE(memory_service_has_writer(tables.service));
    });
}

TEST(memory_service, a_writer_of_an_earlier_provider_ends_with_its_lock)
{
    on_two_tables([](const card_dir &card, two_tables &tables) {
        std::optional<manager> first(std::in_place, card);
        tables.open();
        (void)std::remove(card.at("mts/514").c_str()); // which says nothing
        EXPECT_TRUE(memory_service_has_writer(tables.service));
        first.reset();
        EXPECT_FALSE(memory_service_has_writer(tables.service));
        EXPECT_EQ(tables.writers_gone, 1u);
    });
}

TEST(memory_service, a_route_manager_that_has_ended_is_no_writer_though_its_connection_ends_later)
{
    on_two_tables([](const card_dir &card, two_tables &tables) {
        tables.open();
        std::optional<manager> running(std::in_place, card);
        int old = -1, writer = -1;
        EXPECT_EQ(tables.ask(old, TO_WRITE), answer_bytes(TABLE_BYTES, 1));
        EXPECT_EQ(tables.ask(TO_WRITE), REFUSAL);
        running.reset();
        running.emplace(card);
        EXPECT_EQ(tables.ask(writer, TO_WRITE), answer_bytes(TABLE_BYTES, 2));
        EXPECT_EQ(tables.writers_gone, 1u);
        close(old);
        tables.work();
        EXPECT_EQ(tables.writers_gone, 1u);
        EXPECT_TRUE(memory_service_has_writer(tables.service));
        EXPECT_FALSE(has_ended(writer));
    });
}

TEST(memory_service, a_writer_that_is_no_route_manager_lasts_as_its_connection)
{
    on_two_tables([](const card_dir &card, two_tables &tables) {
        tables.open();
        int writer = -1;
        (void)tables.ask(writer, TO_WRITE);
        const manager started(card);
        EXPECT_EQ(tables.ask(TO_WRITE), REFUSAL);
        EXPECT_FALSE(has_ended(writer));
    });
}

TEST(memory_service, an_answer_that_nobody_takes_leaves_no_writer)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        const int user = memory_user(memory_path(), TO_WRITE);
        close(user);
        tables.work();
        EXPECT_FALSE(memory_service_has_writer(tables.service));
        EXPECT_EQ(tables.writers_gone, tables.handed_out) << "whoever it was given to has gone";
        EXPECT_EQ(tables.service.users.size(), 0u);
    });
}

TEST(memory_service, users_beyond_the_128th_are_turned_away_and_room_is_found_again)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        tables.searched = 0;
        std::vector<int> users(128);
        for (int &user : users)
            EXPECT_EQ(tables.ask(user, TO_READ), answer_bytes(TABLE_BYTES, 0));
        const int late = memory_user(memory_path(), TO_READ);
        tables.work();
        EXPECT_EQ(memory_user_receive(late).record, byte_string{});
        close(users[17]);
        tables.work();
        EXPECT_EQ(tables.ask(TO_READ), answer_bytes(TABLE_BYTES, 0));
    });
}

TEST(memory_service, out_of_descriptors_users_wait_and_the_owner_is_not_woken)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        tables.searched = 0;
        int first = -1;
        (void)tables.ask(first, TO_READ);
        const int late = memory_user(memory_path(), TO_READ);
        rlimit usual = {};
        (void)getrlimit(RLIMIT_NOFILE, &usual);
        const int next = dup(STDIN_FILENO); // the lowest that is free
        close(next);
        const rlimit none = {static_cast<rlim_t>(next), usual.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        tables.work(); // ends
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
        close(first);
        tables.work();
        EXPECT_EQ(memory_user_receive(late).record, answer_bytes(TABLE_BYTES, 0));
    });
}

TEST(memory_service, nothing_stays_open_when_users_have_gone)
{
    on_two_tables([](const card_dir &, two_tables &tables) {
        tables.open();
        tables.searched = 0;
        const auto lowest_free = [] {
            const int fd = dup(STDIN_FILENO);
            close(fd);
            return fd;
        };
        const int before = lowest_free();
        for (unsigned round = 0; round < 50; ++round)
            for (const std::uint32_t purpose : {TO_WRITE, TO_READ, 3u}) {
                int user = -1;
                (void)tables.ask(user, purpose);
                close(user);
                tables.work();
            }
        EXPECT_EQ(lowest_free(), before);
        EXPECT_EQ(tables.writers_gone, 50u);
    });
}

TEST(memory_service, a_second_provider_of_a_memory_is_refused)
{
    const card_dir card;
    on_card(card.path, [&] {
        two_tables tables;
        tables.open();
        on_card(card.path, [] {
            two_tables other;
            const std::string said = stderr_of([&] { EXPECT_EQ(memory_service_open(&other.service, MEMORY), -1); });
            EXPECT_NE(said.find("mem/ixp2.provider: a live process holds its lock; not bound\n"), std::string::npos)
                << said;
        });
        tables.searched = 0;
        EXPECT_EQ(tables.ask(TO_READ), answer_bytes(TABLE_BYTES, 0));
    });
}
