// cardsim_system_test.cpp - the real cardsim beside the real route manager, on a card directory of their own.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon.h"

using namespace harness;

namespace
{
constexpr std::uint32_t ip(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d)
{
    return a << 24 | b << 16 | c << 8 | d;
}

// cardsim as a process; its standard output is read as it comes. Ended with the record.
struct cardsim_process {
    pid_t pid = -1;
    int out = -1;
    std::string text; // read so far

    cardsim_process(const card_dir &card, const std::vector<std::string> &words)
    {
        std::vector<char *> args = {const_cast<char *>(CARDSIM_PATH)};
        for (const std::string &word : words)
            args.push_back(const_cast<char *>(word.c_str()));
        args.push_back(nullptr);
        int pipe_ends[2];
        EXPECT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
        pid = fork();
        if (pid == 0) {
            dup2(pipe_ends[1], STDOUT_FILENO);
            setenv("CARD_DIR", card.path.c_str(), 1);
            unsetenv("NOTIFY_SOCKET");
            execv(args[0], args.data());
            _exit(127);
        }
        close(pipe_ends[1]);
        out = pipe_ends[0];
    }
    ~cardsim_process()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        close(out);
    }
    cardsim_process(const cardsim_process &) = delete;
    cardsim_process &operator=(const cardsim_process &) = delete;

    // Reads until `line` stands in the output for the `times`th time. Returns whether it came in time.
    bool says(const std::string &line, unsigned times = 1)
    {
        for (;;) {
            unsigned found = 0;
            for (std::size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
                ++found;
            if (found >= times)
                return true;
            if (!read_more())
                return false;
        }
    }
    bool read_more()
    {
        char bytes[4096];
        pollfd p{out, POLLIN, 0};
        if (poll(&p, 1, DAEMON_WAIT_MS) != 1)
            return false;
        const ssize_t got = read(out, bytes, sizeof bytes);
        text.append(bytes, static_cast<std::size_t>(got > 0 ? got : 0));
        return got > 0;
    }
    // Reads to its end. Returns the exit status, or -1.
    int end()
    {
        while (read_more()) {
        }
        int status = -1;
        const bool ended = waitpid(pid, &status, 0) == pid;
        pid = -1;
        return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

std::string example(const char *name) { return std::string(EXAMPLES_DIR "/") + name; }

std::string scenario_of(const card_dir &card, const std::string &text)
{
    const std::string path = card.at("test.card");
    file_write(path, text);
    return path;
}

std::uint32_t result(const card_dir &card, const char *socket, const char *name, const std::vector<rpc_arg> &args)
{
    const rpc_client client(card, socket);
    const rpc_reply reply = rpc_call(client.fd, name, args);
    EXPECT_TRUE(reply.arrived && reply.status == 0) << name << ": status " << reply.status;
    return reply.result;
}

const char *const SMALL_CARD = "interface 5 ctx 3 10.1.1.1/24 vlan 105\n"
                               "host 5 10.1.1.2 encap 0x1001\n"
                               "route 10.20.0.0/16 via 10.1.1.2 ctx 3\n"
                               "nat 198.51.100.1 count 2 interface 5 ixp 7\n";
} // namespace

TEST(cardsim_system, the_examples_are_right_in_every_copy_and_no_call_of_the_route_manager_failed)
{
    const card_dir card;
    daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1");
    cardsim_process sim(card, {"--check", example("branch.card"), example("branch-down.card")});
    EXPECT_EQ(sim.end(), 0) << sim.text;
    EXPECT_TRUE(sim.says("33 right, 0 wrong\n")) << sim.text;
    // The route manager asked from inside its procedures, while it was itself waited for.
    const mts_queue queue(card, 1024);
    const std::string counters = debug_answer(queue, 5);
    EXPECT_GT(counter_value(counters, "remote_calls"), 10u);
    EXPECT_EQ(counter_value(counters, "remote_calls_failed"), 0u);
}

TEST(cardsim_system, an_option_that_is_none_is_refused_and_the_version_is_told)
{
    const card_dir card;
    cardsim_process version(card, {"--version"}), wrong(card, {"--nonsense"});
    EXPECT_EQ(version.end(), 0);
    EXPECT_EQ(version.text.rfind("cardsim ", 0), 0u) << version.text;
    EXPECT_EQ(wrong.end(), 2);
    EXPECT_EQ(wrong.text, "") << "the error stands on standard error";
}

TEST(cardsim_system, a_wrong_expectation_is_named_and_is_the_status)
{
    const card_dir card;
    daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1");
    cardsim_process sim(card,
                        {"--check", "-q",
                         scenario_of(card, std::string(SMALL_CARD) + "expect lookup ctx 3 10.20.0.1 -> miss\n"
                                                                     "route 10.20.0.0/16 via 10.1.1.2 ctx 3\n"
                                                                     "expect lookup ctx 3 10.20.0.1 -> paths 1\n")});
    EXPECT_EQ(sim.end(), 1);
    EXPECT_NE(sim.text.find("WRONG expect lookup ctx 3 10.20.0.1 -> miss\n    wired  interface 5 encap 0x1001\n"),
              std::string::npos)
        << sim.text;
    EXPECT_NE(sim.text.find("test.card:6: route 10.20.0.0/16 via 10.1.1.2 ctx 3: the route manager refused it\n"),
              std::string::npos)
        << sim.text;
    EXPECT_NE(sim.text.find("1 right, 2 wrong\n"), std::string::npos) << sim.text;
}

TEST(cardsim_system, a_route_manager_that_starts_late_or_again_is_told_everything)
{
    const card_dir card;
    cardsim_process sim(card, {scenario_of(card, SMALL_CARD)});
    ASSERT_TRUE(sim.says("cardsim: serves")) << sim.text;
    for (unsigned times = 1; times <= 2; ++times) {
        daemon_process daemon(card, times == 1 ? "first" : "second");
        ASSERT_EQ(daemon_notification(daemon), "READY=1");
        ASSERT_TRUE(sim.says("encap 0x1001: announced", times)) << sim.text;
        ASSERT_TRUE(sim.says("ixp 7: given", times)) << sim.text;
        ASSERT_TRUE(sim.says("ctx 3: given", times)) << sim.text;
        EXPECT_EQ(result(card, "rpc/9", "mtrie_lookup_exact_stub",
                         {arg32(3), arg32(ip(10, 20, 0, 0)), arg32(0xFFFF0000), arg_ref(0)}),
                  0u);
        daemon_signal(daemon, SIGKILL);
        EXPECT_EQ(daemon_exit_status(daemon), 1000 + SIGKILL);
    }
}

TEST(cardsim_system, another_cardsim_finds_a_route_manager_that_knows_things_and_puts_them_right)
{
    const card_dir card;
    daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1");
    const std::string expectations = "expect lookup ctx 3 10.1.1.2 -> interface 5 encap 0x1002\n"
                                     "expect lookup ctx 3 10.20.0.1 -> interface 5 encap 0x1002\n"
                                     "expect lookup ctx 3 198.51.100.1 -> nat 7\n";
    std::string text = SMALL_CARD;
    {
        cardsim_process first(card, {scenario_of(card, text)});
        ASSERT_TRUE(first.says("the card stands")) << first.text;
    }
    text.replace(text.find("0x1001"), 6, "0x1002");
    cardsim_process second(card, {"--check", scenario_of(card, text + expectations)});
    EXPECT_EQ(second.end(), 0) << second.text;
}

TEST(cardsim_system, a_stalled_route_manager_is_waited_for_while_operators_are_answered)
{
    const card_dir card;
    file_write(card.at("card.conf"), "rpc_timeout_ms = 200\n");
    cardsim_process sim(card, {scenario_of(card, SMALL_CARD)});
    ASSERT_TRUE(sim.says("cardsim: serves")) << sim.text;
    daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1");
    ASSERT_TRUE(sim.says("the card stands")) << sim.text;
    daemon_signal(daemon, SIGSTOP);
    // More events than its queue holds, and a host that cannot be announced.
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(result(card, "rpc/10", "cardsim_if_state", {arg32(5), arg32(0)}), 0u);
        ASSERT_EQ(result(card, "rpc/10", "cardsim_if_state", {arg32(5), arg32(1)}), 0u);
    }
    EXPECT_EQ(result(card, "rpc/10", "cardsim_host_add", {arg32(5), arg32(ip(10, 1, 1, 9)), arg32(0x1009)}), 0u);
    daemon_signal(daemon, SIGCONT);
    ASSERT_TRUE(sim.says("encap 0x1009: announced")) << sim.text;
    ASSERT_TRUE(sim.says("encap 0x1001: announced", 2)) << sim.text;
    EXPECT_EQ(result(card, "rpc/9", "mtrie_lookup_exact_stub",
                     {arg32(3), arg32(ip(10, 20, 0, 0)), arg32(0xFFFF0000), arg_ref(0)}),
              0u);
}

TEST(cardsim_system, an_operator_drives_the_card_with_procedures)
{
    const card_dir card;
    daemon_process daemon(card);
    ASSERT_EQ(daemon_notification(daemon), "READY=1");
    cardsim_process sim(card, {});
    ASSERT_TRUE(sim.says("the card stands")) << sim.text;
    const std::vector<rpc_arg> created = {arg32(9), arg32(3), arg32(ip(10, 9, 0, 1)), arg32(0xFFFFFF00), arg32(1)};
    EXPECT_EQ(result(card, "rpc/10", "cardsim_if_create", created), 0u);
    EXPECT_EQ(result(card, "rpc/10", "cardsim_if_create", created), 2u);
    EXPECT_EQ(result(card, "rpc/10", "cardsim_if_state", {arg32(8), arg32(1)}), 1u);
    EXPECT_EQ(result(card, "rpc/10", "cardsim_if_state", {arg32(9), arg32(2)}), 3u);
    EXPECT_EQ(result(card, "rpc/10", "cardsim_if_state", {arg32(9), arg32(1)}), 0u);
    EXPECT_EQ(result(card, "rpc/10", "cardsim_host_add", {arg32(9), arg32(ip(10, 9, 0, 2)), arg32(0)}), 0u);
    ASSERT_TRUE(sim.says("host 10.9.0.2, context 3, encap 0x2000: announced")) << sim.text;
    EXPECT_EQ(result(card, "rpc/10", "cardsim_if_address", {arg32(9), arg32(ip(10, 9, 0, 7)), arg32(0xFFFFFF00)}), 0u);
    ASSERT_TRUE(sim.says("encap 0x2000: announced", 2)) << sim.text;
    EXPECT_EQ(result(card, "rpc/10", "cardsim_host_del", {arg32(9), arg32(ip(10, 9, 0, 2))}), 0u);
    EXPECT_EQ(result(card, "rpc/10", "cardsim_host_del", {arg32(9), arg32(ip(10, 9, 0, 3))}), 4u);
    EXPECT_EQ(result(card, "rpc/10", "cardsim_if_delete", {arg32(9)}), 0u);
    EXPECT_EQ(result(card, "rpc/10", "cardsim_if_delete", {arg32(9)}), 1u);
    kill(sim.pid, SIGTERM);
    EXPECT_EQ(sim.end(), 0);
    EXPECT_FALSE(path_exists(card.at("rpc/names/tn_arp_add_entry")));
}

TEST(cardsim_system, a_second_one_on_the_same_card_is_refused_and_a_faulty_file_is_usage)
{
    const card_dir card;
    cardsim_process sim(card, {});
    ASSERT_TRUE(sim.says("cardsim: serves")) << sim.text;
    EXPECT_EQ(cardsim_process(card, {}).end(), 3);
    EXPECT_EQ(cardsim_process(card, {"--parse", scenario_of(card, "hots 5\n")}).end(), 2);
    EXPECT_EQ(cardsim_process(card, {"--chekc"}).end(), 2);
    EXPECT_EQ(cardsim_process(card, {"--parse", example("branch.card")}).end(), 0);
}
