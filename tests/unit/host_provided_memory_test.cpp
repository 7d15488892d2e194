// host_provided_memory_test.cpp - a processor's memory that another process provides: asked for, judged and mapped.
#include <chrono>
#include <random>
#include <set>
#include <thread>

#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include "card_dir.h"
#include "daemon.h"
#include "host_support.h"
#include "memory_peer.h"
#include "platform_mem.h"
#include "provided_memory.h"
#include "tables.h"

using namespace harness;

namespace
{
constexpr std::uint32_t IXP2_PCI = 0x50202000, IXP2 = 1;

void put_conf(const std::string &text) { file_write(card_file("card.conf"), text); }
std::string memory_path() { return card_file("mem/ixp2"); }
byte_string answer_bytes(std::uint32_t bytes, std::uint32_t generation)
{
    return word_bytes({MEMORY_ANSWER, bytes, generation});
}

std::set<int> open_descriptors()
{
    std::set<int> open;
    for (int fd = 0; fd < 256; ++fd)
        if (fcntl(fd, F_GETFD) >= 0)
            open.insert(fd);
    return open;
}

// Maps the second processor's memory while a thread plays its provider. Returns what is said on standard error.
std::string map_beside(memory_peer &peer, card_addr &addr, const std::function<void(const byte_string &)> &provide)
{
    std::thread provider([&] { provide(memory_peer_question(peer)); });
    const std::string said = stderr_of([&] { addr = map_pci_xram_to_uspace(IXP2_PCI, TABLE_BYTES, IXP2); });
    provider.join();
    return said;
}

// What a provider answers, and what is said about it.
struct wrong_answer {
    const char *name;
    byte_string record;
    std::vector<std::size_t> files; // sizes of the files whose descriptors come with it
    const char *said;
};
const std::vector<wrong_answer> &wrong_answers()
{
    static const std::vector<wrong_answer> all = {
        {"refused", answer_bytes(0, 0), {}, "its provider refuses it"},
        {"no descriptor", answer_bytes(TABLE_BYTES, 1), {}, "its provider sent 0 descriptors, not one"},
        {"two descriptors",
         answer_bytes(TABLE_BYTES, 1),
         {TABLE_BYTES, TABLE_BYTES},
         "its provider sent 2 descriptors, not one"},
        {"more than are taken in",
         answer_bytes(TABLE_BYTES, 1),
         {TABLE_BYTES, 1, 2, 3, 4, 5},
         "its provider sent 4 descriptors, not one"},
        {"a refusal with a descriptor", answer_bytes(0, 0), {TABLE_BYTES}, "its provider has 0 bytes, not 1061888"},
        {"a generation of nothing", answer_bytes(0, 7), {}, "its provider has 0 bytes, not 1061888 or more"},
        {"a byte too few", answer_bytes(TABLE_BYTES - 1, 1), {TABLE_BYTES}, "its provider has 1061887 bytes, not"},
        {"a file too short",
         answer_bytes(TABLE_BYTES, 1),
         {TABLE_BYTES - 4},
         "its provider sent a file of 1061884 bytes for a memory of 1061888"},
        {"a file shorter than said",
         answer_bytes(TABLE_BYTES + 4096, 1),
         {TABLE_BYTES},
         "its provider sent a file of 1061888 bytes for a memory of 1065984"},
        {"another magic", word_bytes({MEMORY_QUESTION, TABLE_BYTES, 1}), {TABLE_BYTES}, "another record than expected"},
        {"a record cut short", word_bytes({MEMORY_ANSWER, TABLE_BYTES}), {TABLE_BYTES}, "another record than expected"},
        {"a record too long",
         word_bytes({MEMORY_ANSWER, TABLE_BYTES, 1, 0}),
         {TABLE_BYTES},
         "another record than expected"},
        {"a byte too many", joined({answer_bytes(TABLE_BYTES, 1), {0}}), {TABLE_BYTES}, "another record than expected"},
    };
    return all;
}
} // namespace

TEST(provided_memory, is_mapped_from_its_descriptor_and_the_connection_stays)
{
    on_fresh_card([] {
        put_conf("ixp2 = provider\n");
        const int file = memory_file(TABLE_BYTES);
        memory_peer peer(memory_path());
        const std::set<int> before = open_descriptors();
        card_addr addr = 0;
        const std::string said = map_beside(peer, addr, [&](const byte_string &question) {
            EXPECT_EQ(question, word_bytes({MEMORY_QUESTION, TO_WRITE}));
            memory_peer_answer(peer, answer_bytes(TABLE_BYTES, 1), {file});
        });
        EXPECT_EQ(said, "");
        ASSERT_NE(addr, 0u);
        *card_at<std::uint32_t>(addr) = 0x11223344;
        *card_at<std::uint32_t>(addr + TABLE_BYTES - 4) = 0x55667788;
        EXPECT_EQ(memory_file_words(file)[0], 0x11223344u);
        EXPECT_EQ(memory_file_words(file)[TABLE_WORDS - 1], 0x55667788u);
        EXPECT_FALSE(path_exists(memory_path())) << "no file is made";

        std::set<int> more = open_descriptors();
        for (const int fd : before)
            more.erase(fd);
        more.erase(peer.connection);
        ASSERT_EQ(more.size(), 1u) << "the connection, not the descriptor";
        EXPECT_EQ(fcntl(*more.begin(), F_GETFD), FD_CLOEXEC);
        pollfd state = {peer.connection, POLLIN | POLLRDHUP, 0};
        EXPECT_EQ(poll(&state, 1, 0), 0) << "nothing more is said";

        for (int pass = 0; pass < 2; ++pass) // the clean-up runs twice
            unmap_pci_xram_to_uspace(pass == 0 ? addr : 0, 0x104000);
        EXPECT_TRUE(memory_peer_is_alone(peer)) << "its end tells that nobody writes";
        EXPECT_EQ(memory_file_words(file)[0], 0x11223344u);
    });
}

TEST(provided_memory, stays_when_its_provider_ends)
{
    on_fresh_card([] {
        put_conf("ixp2 = provider\n");
        const int file = memory_file(TABLE_BYTES);
        memory_peer peer(memory_path());
        card_addr addr = 0;
        EXPECT_EQ(map_beside(peer, addr,
                             [&](const byte_string &) {
                                 memory_peer_answer(peer, answer_bytes(TABLE_BYTES, 1), {file});
                                 memory_peer_hang_up(peer);
                             }),
                  "");
        ASSERT_NE(addr, 0u);
        *card_at<std::uint32_t>(addr + 4) = 5;
        EXPECT_EQ(memory_file_words(file)[1], 5u);
    });
}

TEST(provided_memory, may_be_larger_than_the_table)
{
    on_fresh_card([] {
        put_conf("ixp1 = provider\nixp2 = provider\n");
        const int file = memory_file(0x200000);
        memory_peer peer(card_file("mem/ixp1"));
        card_addr addr = 0;
        std::thread provider([&] {
            (void)memory_peer_question(peer);
            memory_peer_answer(peer, answer_bytes(0x200000, 0xFFFFFFFF), {file});
        });
        EXPECT_EQ(stderr_of([&] { addr = map_pci_xram_to_uspace(0x48202000, TABLE_BYTES, 0); }), "");
        provider.join();
        EXPECT_NE(addr, 0u);
    });
}

TEST(provided_memory, any_other_answer_is_a_mapping_that_failed_with_one_line)
{
    for (const wrong_answer &wrong : wrong_answers()) {
        SCOPED_TRACE(wrong.name);
        on_fresh_card([&] {
            put_conf("ixp2 = provider\n");
            std::vector<int> files;
            for (const std::size_t bytes : wrong.files)
                files.push_back(memory_file(bytes));
            memory_peer peer(memory_path());
            const std::set<int> before = open_descriptors();
            card_addr addr = 1;
            const std::string said =
                map_beside(peer, addr, [&](const byte_string &) { memory_peer_answer(peer, wrong.record, files); });
            EXPECT_EQ(addr, 0u);
            EXPECT_NE(said.find(memory_path() + ": "), std::string::npos) << said;
            EXPECT_NE(said.find(wrong.said), std::string::npos) << said;
            EXPECT_EQ(said.find("; not mapped\n"), said.size() - 13) << said;
            EXPECT_EQ(said.find('\n'), said.size() - 1) << "one line: " << said;
            memory_peer_hang_up(peer);
            EXPECT_EQ(open_descriptors(), before) << "nothing is left open";
        });
    }
}

TEST(provided_memory, what_cannot_be_mapped_for_writing_is_refused)
{
    on_fresh_card([] {
        put_conf("ixp2 = provider\n");
        file_write(card_file("read_only"), std::string(TABLE_BYTES, 'x'));
        int pair[2];
        ASSERT_EQ(pipe2(pair, O_CLOEXEC), 0);
        for (const int fd : {open(card_file("read_only").c_str(), O_RDONLY | O_CLOEXEC), pair[0]}) {
            memory_peer peer(memory_path());
            const std::set<int> before = open_descriptors();
            card_addr addr = 1;
            const std::string said = map_beside(
                peer, addr, [&](const byte_string &) { memory_peer_answer(peer, answer_bytes(TABLE_BYTES, 1), {fd}); });
            EXPECT_EQ(addr, 0u);
            EXPECT_NE(said.find("what its provider sent cannot be mapped: "), std::string::npos) << said;
            memory_peer_hang_up(peer);
            EXPECT_EQ(open_descriptors(), before);
        }
    });
}

TEST(provided_memory, without_a_provider_the_mapping_fails_at_once)
{
    on_fresh_card([] {
        put_conf("ixp2 = provider\nrpc_timeout_ms = 60000\n");
        card_addr addr = 1;
        const auto map = [&] { addr = map_pci_xram_to_uspace(IXP2_PCI, TABLE_BYTES, IXP2); };
        EXPECT_NE(
            stderr_of(map).find("mem/ixp2: its provider cannot be asked: No such file or directory; not mapped\n"),
            std::string::npos);
        EXPECT_EQ(addr, 0u);
        close(bound_socket(SOCK_SEQPACKET, memory_path() + ".provider"));
        EXPECT_NE(stderr_of(map).find("mem/ixp2: its provider cannot be asked: Connection refused; not mapped\n"),
                  std::string::npos);
        EXPECT_EQ(addr, 0u);
        EXPECT_FALSE(path_exists(memory_path()));
    });
}

TEST(provided_memory, a_silent_provider_is_waited_for_as_long_as_a_call)
{
    on_fresh_card([] {
        put_conf("ixp2 = provider\nrpc_timeout_ms = 50\n");
        memory_peer peer(memory_path());
        const std::set<int> before = open_descriptors();
        card_addr addr = 1;
        const auto start = std::chrono::steady_clock::now();
        const std::string said = stderr_of([&] { addr = map_pci_xram_to_uspace(IXP2_PCI, TABLE_BYTES, IXP2); });
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
        EXPECT_NE(said.find("mem/ixp2: its provider has not answered for 50 ms; not mapped\n"), std::string::npos)
            << said;
        EXPECT_EQ(addr, 0u);
        EXPECT_EQ(open_descriptors(), before);
    });
}

TEST(provided_memory, a_provider_whose_queue_is_full_is_waited_for_as_long_as_a_call)
{
    on_fresh_card([] {
        put_conf("ixp2 = provider\nrpc_timeout_ms = 50\n");
        memory_peer peer(memory_path());
        ASSERT_EQ(listen(peer.listener, 0), 0);
        const int waiting = memory_user(memory_path(), TO_READ);
        card_addr addr = 1;
        const std::string said = stderr_of([&] { addr = map_pci_xram_to_uspace(IXP2_PCI, TABLE_BYTES, IXP2); });
        EXPECT_NE(said.find("has not answered for 50 ms"), std::string::npos) << said;
        EXPECT_EQ(addr, 0u);
        close(waiting);
    });
}

TEST(provided_memory, a_provider_that_hangs_up_has_not_answered)
{
    on_fresh_card([] {
        put_conf("ixp2 = provider\n");
        memory_peer peer(memory_path());
        card_addr addr = 1;
        const std::string said = map_beside(peer, addr, [&](const byte_string &) { memory_peer_hang_up(peer); });
        EXPECT_NE(said.find("its provider ended the connection without an answer"), std::string::npos) << said;
        EXPECT_EQ(addr, 0u);
    });
}

TEST(provided_memory, without_room_for_the_descriptor_the_mapping_fails)
{
    on_fresh_card([] {
        put_conf("ixp2 = provider\n");
        const int file = memory_file(TABLE_BYTES);
        memory_peer peer(memory_path());
        const card_conf &read = card_conf_get(); // before descriptors are short
        EXPECT_TRUE(read.ixp_is_provided[IXP2]);
        const pid_t provider = fork(); // a process of its own, which has room
        if (provider == 0) {
            (void)memory_peer_question(peer);
            memory_peer_answer(peer, answer_bytes(TABLE_BYTES, 1), {file});
            _exit(0);
        }
        card_addr addr = 1;
        const std::string said = stderr_of([&] {
            rlimit usual = {};
            (void)getrlimit(RLIMIT_NOFILE, &usual);
            const int next = dup(STDIN_FILENO); // the lowest that is free: the connection's
            close(next);
            const rlimit one = {static_cast<rlim_t>(next) + 1, usual.rlim_max};
            (void)setrlimit(RLIMIT_NOFILE, &one);
            addr = map_pci_xram_to_uspace(IXP2_PCI, TABLE_BYTES, IXP2);
            (void)setrlimit(RLIMIT_NOFILE, &usual);
        });
        (void)waitpid(provider, nullptr, 0);
        EXPECT_EQ(addr, 0u);
        EXPECT_NE(said.find("its provider cannot be asked: Too many open files"), std::string::npos) << said;
    });
}

TEST(provided_memory, of_a_processor_that_is_not_there_is_not_asked_for)
{
    on_fresh_card([] {
        put_conf("ixp2 = provider\nnum_ixp = 1\n");
        memory_peer peer(memory_path());
        EXPECT_EQ(stderr_of([] { EXPECT_EQ(map_pci_xram_to_uspace(IXP2_PCI, TABLE_BYTES, IXP2), 0u); }), "");
        pollfd state = {peer.listener, POLLIN, 0};
        EXPECT_EQ(poll(&state, 1, 0), 0);
        EXPECT_NE(map_pci_xram_to_uspace(0x48202000, TABLE_BYTES, 0), 0u) << "the first one is a file";
        EXPECT_TRUE(path_exists(card_file("mem/ixp1")));
    });
}

TEST(provided_memory, an_answer_of_chance_bytes_is_taken_only_in_its_one_form)
{
    std::mt19937 engine(7);
    const auto random = [&engine] { return static_cast<std::uint32_t>(engine()); };
    unsigned taken = 0;
    for (unsigned round = 0; round < 200000; ++round) {
        byte_string record = answer_bytes(TABLE_BYTES + random() % 3 * 4096, random());
        for (unsigned changes = random() % 3; changes > 0; --changes)
            record[random() % record.size()] = static_cast<std::uint8_t>(random());
        if (random() % 4 == 0)
            record.resize(random() % 24, static_cast<std::uint8_t>(random()));
        const unsigned descriptors = random() % 4 == 0 ? random() % 5 : 1;
        const bool is_good = record.size() == 12 && get32(record, 0) == MEMORY_ANSWER &&
                             get32(record, 4) >= TABLE_BYTES && descriptors == 1;
        memory_answer given = {};
        const std::string wrong = provided_memory_judge(record.data(), record.size(), descriptors, &given);
        ASSERT_EQ(wrong.empty(), is_good) << "round " << round << ": " << wrong;
        if (is_good) {
            ASSERT_EQ(given.bytes, get32(record, 4));
            ASSERT_EQ(given.generation, get32(record, 8));
        }
        taken += is_good ? 1 : 0;
    }
    EXPECT_GT(taken, 1000u);
}
