// service_readers_test.cpp - the tools that read a processor's memory, beside a real provider and the real daemon.
#include <csignal>
#include <mutex>
#include <optional>
#include <thread>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>

#include "host_support.h"
#include "memory_peer.h"
#include "memory_service.h"
#include "tables.h"
#include "tool_run.h"

using namespace harness;

namespace
{
// The provider of the second processor's memory, in a thread of its own: two tables, of which one is searched.
class provider
{
public:
    const int files[2] = {memory_file(TABLE_BYTES), memory_file(TABLE_BYTES)};

    provider() : stop_(eventfd(0, EFD_CLOEXEC))
    {
        service_.for_writer = [this] { return memory_handout{files[1 - searched_], TABLE_BYTES, ++handed_out_}; };
        service_.for_reader = [this] { return memory_handout{files[searched_], TABLE_BYTES, handed_out_}; };
        EXPECT_EQ(memory_service_open(&service_, "mem/ixp2"), 0);
        worker_ = std::thread([this] { work(); });
    }
    ~provider()
    {
        const std::uint64_t one = 1;
        EXPECT_EQ(write(stop_, &one, sizeof one), 8);
        worker_.join();
        memory_service_close(&service_);
    }
    void search(int table)
    {
        const std::lock_guard lock(mutex_);
        searched_ = table;
        memory_service_end_readers(service_);
    }

private:
    void work()
    {
        for (;;) {
            pollfd set[] = {{service_.events, POLLIN, 0}, {stop_, POLLIN, 0}};
            (void)poll(set, 2, -1);
            if (set[1].revents != 0)
                return;
            const std::lock_guard lock(mutex_);
            memory_service_process(service_);
        }
    }
    int stop_, searched_ = 1;
    std::uint32_t handed_out_ = 0;
    std::mutex mutex_;
    memory_service service_;
    std::thread worker_;
};

// A running ixp, read line by line.
class follower
{
public:
    follower(const card_dir &card, const char *address)
    {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(ends[1], STDOUT_FILENO);
            setenv("CARD_DIR", card.path.c_str(), 1);
            execl(IXP_PATH, "ixp", "-m", "ixp2", "-t", "3", "follow", "--every-ms", "1", address, nullptr);
            _exit(127);
        }
        close(ends[1]);
        out_ = ends[0];
    }
    ~follower()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(out_);
    }
    follower(const follower &) = delete;
    follower &operator=(const follower &) = delete;
    // The next one, without its time; empty when none comes within the limit.
    std::string line()
    {
        std::string text;
        char c = 0;
        pollfd state{out_, POLLIN, 0};
        while (poll(&state, 1, DAEMON_WAIT_MS) == 1 && read(out_, &c, 1) == 1 && c != '\n')
            text.push_back(c);
        return text.substr(std::min<std::size_t>(text.size(), 13));
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
};

// A route manager with one host and a route through it, whose paths it is given.
struct manager : daemon_process {
    explicit manager(const card_dir &card, std::uint32_t encap, const char *name = "first") : daemon_process(card, name)
    {
        EXPECT_EQ(daemon_notification(*this), "READY=1") << file_text(err);
        const mts_queue queue(card, 1024);
        mts_send(queue, EVENT_UP, state_payload({.mask = MASK16}));
        EXPECT_NE(debug_answer(queue, 5), "");
        const rpc_client caller(card);
        EXPECT_EQ(rpc_call(caller.fd, call_host_add(GATEWAY, encap)).result, 0u);
        EXPECT_EQ(rpc_call(caller.fd, call_route_add(IP(10, 50, 0, 0), MASK16, GATEWAY)).result, 0u);
    }
};

void on_provided_card(const std::function<void(const card_dir &)> &body)
{
    const card_dir card;
    file_write(card.at("card.conf"), "ixp2 = provider\n");
    interfaces_write(card, {{IFID, IF_USUAL, 1, 0, IF_ADDR, MASK16, CTX, 0}});
    on_card(card.path, [&] { body(card); });
}

} // namespace

TEST(provided_readers, every_reader_is_given_the_table_that_is_searched)
{
    on_provided_card([](const card_dir &card) {
        provider service;
        const manager running(card, 0x1111);
        service.search(0);
        const tool_result walk = routectl_run(card, "hw walk 10.50.1.1 ctx 3 copy ixp2 --direct");
        EXPECT_EQ(walk.status, 0) << walk.err;
        EXPECT_NE(walk.out.find("0x1111"), std::string::npos) << walk.out;
        EXPECT_EQ(routectl_run(card, "pools copy ixp2").status, 0);
        EXPECT_EQ(routectl_run(card, "hw export --json 3 copy ixp2").status, 0);
        const tool_result found = program_run(IXP_PATH, card, "-m ixp2 -t 3 lookup 10.50.1.1");
        EXPECT_NE(found.out.find("interface 5 encap 0x1111"), std::string::npos) << found.out << found.err;
        EXPECT_EQ(program_run(IXP_PATH, card, "-m ixp2 -t 3 run --seconds 0.02").status, 0);
        EXPECT_FALSE(path_exists(card.at("mem/ixp2")));
    });
}

TEST(provided_readers, the_doctor_compares_what_is_searched)
{
    on_provided_card([](const card_dir &card) {
        provider service;
        const manager running(card, 0x1111);
        service.search(0);
        const std::string good = routectl_run(card, "doctor").out;
        EXPECT_EQ(good.find("ixp2"), std::string::npos) << good;
        const std::uint32_t word = 0x00050001;
        ASSERT_EQ(pwrite(service.files[0], &word, 4, leaf_at(1000)), 4);
        const std::string bad = routectl_run(card, "doctor").out;
        EXPECT_NE(bad.find("wired and ixp2 differ in 1"), std::string::npos) << bad;
    });
}

TEST(provided_readers, a_reader_goes_on_with_the_table_that_takes_the_place)
{
    on_provided_card([](const card_dir &card) {
        provider service;
        std::optional<manager> running(std::in_place, card, 0x1111u);
        service.search(0);
        follower follows(card, "10.50.1.1");
        EXPECT_EQ(follows.line(), "10.50.1.1        0x00051111 interface 5 encap 0x1111");
        running.reset();
        running.emplace(card, 0x2222u, "again"); // in the other table: nothing of it shows yet
        service.search(1);
        EXPECT_EQ(follows.line(), "10.50.1.1        0x00052222 interface 5 encap 0x2222");
    });
}

TEST(provided_readers, a_reader_keeps_its_table_when_the_provider_ends_and_another_follows)
{
    on_provided_card([](const card_dir &card) {
        int table = -1;
        std::optional<follower> follows;
        {
            std::optional<memory_peer> peer(std::in_place, card.at("mem/ixp2"));
            table = memory_file(TABLE_BYTES);
            const std::uint32_t root = TABLE_IXP + leaf_at(0), first = 0x00050001;
            ASSERT_EQ(pwrite(table, &root, 4, root_at(3)), 4);
            ASSERT_EQ(pwrite(table, &first, 4, leaf_at(0)), 4);
            follows.emplace(card, "10.50.1.1");
            EXPECT_EQ(memory_peer_question(*peer), word_bytes({MEMORY_QUESTION, TO_READ}));
            memory_peer_answer(*peer, word_bytes({MEMORY_ANSWER, TABLE_BYTES, 1}), {table});
            EXPECT_EQ(follows->line(), "10.50.1.1        0x00050001 interface 5 encap 0x0001");
        }
        const std::uint32_t second = 0x00050002;
        ASSERT_EQ(pwrite(table, &second, 4, leaf_at(0)), 4);
        EXPECT_EQ(follows->line(), "10.50.1.1        0x00050002 interface 5 encap 0x0002");

        memory_peer next(card.at("mem/ixp2"));
        const int other = memory_file(TABLE_BYTES);
        EXPECT_EQ(memory_peer_question(next), word_bytes({MEMORY_QUESTION, TO_READ}));
        memory_peer_answer(next, word_bytes({MEMORY_ANSWER, TABLE_BYTES, 1}), {other});
        EXPECT_EQ(follows->line(), "10.50.1.1        miss");
    });
}

TEST(provided_readers, say_why_there_is_no_memory)
{
    on_provided_card([](const card_dir &card) {
        const std::string why = card.at("mem/ixp2") + ": its provider cannot be asked: No such file or directory";
        const tool_result walk = routectl_run(card, "hw walk 10.50.1.1 ctx 3 copy ixp2 --direct");
        EXPECT_EQ(walk.status, 3);
        EXPECT_NE(walk.err.find(why), std::string::npos) << walk.err;
        const tool_result lookup = program_run(IXP_PATH, card, "-m ixp2 lookup 10.50.1.1");
        EXPECT_EQ(lookup.status, 2);
        EXPECT_EQ(lookup.err, "ixp: " + why + "\n");
    });
}

TEST(provided_readers, a_scenario_is_judged_in_the_provided_copy_too)
{
    on_provided_card([](const card_dir &card) {
        provider service;
        const daemon_process running(card);
        ASSERT_EQ(daemon_notification(running), "READY=1") << file_text(running.err);
        service.search(0);
        const tool_result played =
            program_run(CARDSIM_PATH, card, std::string("--check --quiet ") + EXAMPLES_DIR + "/branch.card");
        EXPECT_EQ(played.status, 0) << played.out << played.err;
    });
}
