// provider_test.cpp - the real daemon with a processor's memory that another process provides.
#include <gtest/gtest.h>

#include <csignal>
#include <optional>

#include <linux/bpf.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "daemon.h"
#include "memory_peer.h"
#include "tables.h"

using namespace harness;

namespace
{
constexpr std::uint32_t VERB_COUNTERS = 5;
constexpr const char *NOT_MAPPED = "\nmtrie_hw_map[201] :: Error mapping IXP2 DRAM route table.\n";

// A card whose second memory the test provides.
struct provided_card : card_dir {
    const mts_queue queue{*this, 1024};
    memory_peer peer{at("mem/ixp2")};

    explicit provided_card(const std::string &more = "")
    {
        file_write(at("card.conf"), "ixp2 = provider\n" + more);
        interfaces_write(*this, {{IFID, IF_USUAL, 1, 0, IF_ADDR, MASK16, CTX, 0}});
    }
    // Answers the next question, if it is the writer's.
    void provide(int file)
    {
        EXPECT_EQ(memory_peer_question(peer), word_bytes({MEMORY_QUESTION, TO_WRITE}));
        memory_peer_answer(peer, word_bytes({MEMORY_ANSWER, TABLE_BYTES, 1}), {file});
    }
    void settle() const { EXPECT_NE(debug_answer(queue, VERB_COUNTERS), ""); }
};

// Hosts, sets of paths, longer prefixes, a pool, and half of it taken back.
void change_routes(const provided_card &card)
{
    mts_send(card.queue, EVENT_UP, state_payload({.mask = MASK16}));
    card.settle();
    const rpc_client caller(card);
    const auto run = [&](const remote_call &call) { EXPECT_EQ(rpc_call(caller.fd, call).status, 0u) << call.name; };
    for (std::uint32_t i = 0; i < 8; ++i)
        run(call_host_add(IP(10, 1, 7, i + 1), ENCAP + i));
    for (std::uint32_t i = 0; i < 8; ++i) {
        run(call_route_add(IP(10, 50, 0, 0), MASK16, IP(10, 1, 7, i + 1)));
        run(call_route_add(IP(10, 50, i, 0), MASK24, IP(10, 1, 7, i + 1)));
        run(call_route_add(IP(10, 50, i, 9), MASK32, IP(10, 1, 7, 8 - i)));
    }
    run(call_pool_add(IP(198, 51, 100, 0), 256));
    for (std::uint32_t i = 0; i < 4; ++i) {
        run(call_route_remove(IP(10, 50, 0, 0), MASK16, IP(10, 1, 7, i + 1)));
        run(call_route_remove(IP(10, 50, i, 9), MASK32, IP(10, 1, 7, 8 - i)));
    }
    card.settle();
}

// A table that a processor in the kernel could search; -1 where the host lets nobody make one.
int kernel_memory()
{
    bpf_attr map = {};
    map.map_type = BPF_MAP_TYPE_ARRAY;
    map.key_size = 4;
    map.value_size = TABLE_BYTES;
    map.max_entries = 1;
    map.map_flags = BPF_F_MMAPABLE;
    return static_cast<int>(::syscall(SYS_bpf, BPF_MAP_CREATE, &map, sizeof map));
}

void expect_the_files_words(int file)
{
    provided_card card;
    const daemon_process daemon(card);
    card.provide(file);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    EXPECT_EQ(table_difference(memory_file_words(file), table_at_start(TABLE_IXP).words), "");
    change_routes(card);
    const std::vector<std::uint32_t> words = memory_words(card, "mem/ixp1");
    EXPECT_NE(words, table_at_start(TABLE_IXP).words);
    EXPECT_EQ(memory_file_words(file), words);
    EXPECT_FALSE(path_exists(card.at("mem/ixp2")));
    EXPECT_EQ(file_text(daemon.err), "");
}
} // namespace

TEST(provider, a_provided_memory_gets_the_words_of_the_one_that_is_a_file)
{
    expect_the_files_words(memory_file(TABLE_BYTES));
}

TEST(provider, a_memory_of_the_kernel_gets_the_same_words)
{
    const int map = kernel_memory();
    if (map < 0)
        GTEST_SKIP() << "the host does not let this user make a map";
    expect_the_files_words(map);
}

TEST(provider, the_daemon_goes_on_when_its_provider_ends)
{
    provided_card card;
    const int file = memory_file(TABLE_BYTES);
    daemon_process daemon(card);
    card.provide(file);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    memory_peer_hang_up(card.peer);
    change_routes(card);
    EXPECT_EQ(memory_file_words(file), memory_words(card, "mem/ixp1"));
    daemon_signal(daemon, SIGINT);
    EXPECT_EQ(daemon_exit_status(daemon), 1);
}

TEST(provider, the_connection_ends_with_the_daemon_however_that_ends)
{
    for (const int signal : {SIGINT, SIGKILL}) {
        provided_card card;
        const int file = memory_file(TABLE_BYTES);
        daemon_process daemon(card);
        card.provide(file);
        ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
        daemon_signal(daemon, signal);
        EXPECT_TRUE(memory_peer_is_alone(card.peer));
        EXPECT_EQ(daemon_exit_status(daemon), signal == SIGKILL ? 1000 + SIGKILL : 1);
    }
}

TEST(provider, a_daemon_that_starts_again_takes_the_memory_that_it_is_given_then)
{
    provided_card card;
    const int first = memory_file(TABLE_BYTES), second = memory_file(TABLE_BYTES);
    std::optional<daemon_process> daemon(std::in_place, card);
    card.provide(first);
    ASSERT_EQ(daemon_notification(*daemon), "READY=1") << file_text(daemon->err);
    change_routes(card);
    const std::vector<std::uint32_t> left = memory_file_words(first);
    daemon.reset();
    daemon.emplace(card, "again");
    card.provide(second);
    ASSERT_EQ(daemon_notification(*daemon), "READY=1") << file_text(daemon->err);
    EXPECT_EQ(table_difference(memory_file_words(second), table_at_start(TABLE_IXP).words), "");
    EXPECT_EQ(memory_file_words(first), left) << "what processors search until then is not touched";
}

TEST(provider, a_start_without_the_memory_ends_as_with_any_memory_that_cannot_be_mapped)
{
    struct failing {
        const char *said;
        void (*provide)(provided_card &card);
    };
    for (const failing &how :
         std::initializer_list<failing>{{"its provider refuses it",
                                         [](provided_card &card) {
                                             memory_peer_answer(card.peer, word_bytes({MEMORY_ANSWER, 0, 0}), {});
                                         }},
                                        {"its provider ended the connection without an answer",
                                         [](provided_card &card) { memory_peer_hang_up(card.peer); }},
                                        {"its provider has not answered for 200 ms", [](provided_card &) {}}}) {
        SCOPED_TRACE(how.said);
        provided_card card("rpc_timeout_ms = 200\n");
        daemon_process daemon(card);
        EXPECT_FALSE(memory_peer_question(card.peer).empty());
        how.provide(card);
        EXPECT_EQ(daemon_exit_status(daemon), 255);
        EXPECT_EQ(file_text(daemon.err), "routemgr: " + card.at("mem/ixp2") + ": " + how.said + "; not mapped\n");
        EXPECT_NE(file_text(daemon.out).find(NOT_MAPPED), std::string::npos) << file_text(daemon.out);
    }
}

TEST(provider, with_one_processor_nobody_is_asked)
{
    provided_card card("num_ixp = 1\n");
    const daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    EXPECT_EQ(table_difference(memory_words(card, "mem/ixp1"), table_at_start(TABLE_IXP).words), "");
}
