// bench_daemon.cpp - the daemon as a process, and around it what it meets on a card.
//
// Everything is spoken over the card's public contract. Callers block, so that what is measured is the daemon and not a
// caller's cleverness. The daemon and the bare peer run on the last processor, everybody else on the first.
#include "bench_daemon.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench.h"
#include "daemon.h"

using namespace harness;

namespace
{
constexpr std::size_t ARP_CALL_BYTES = 90;
constexpr unsigned ARP_ENDPOINT = 10;
constexpr std::uint32_t BENCH_CTX = 0;

card_dir *card = nullptr;
std::vector<pid_t> running;

void end_all()
{
    for (const pid_t pid : running) {
        (void)kill(pid, SIGKILL);
        (void)waitpid(pid, nullptr, 0);
    }
    delete card;
}

void run_on(int processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(processor), &set);
    (void)sched_setaffinity(0, sizeof set, &set);
}
int last_processor() { return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)) - 1; }

// Starts a child; in it the answer is 0.
pid_t start_child()
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    bench_require(pid >= 0, "a process");
    if (pid == 0)
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    else
        running.push_back(pid);
    return pid;
}

double now_ms()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// Answers every call on `connection` with 0, after a call of the service on `arp` if there is one.
void answer_all(int connection, int arp)
{
    byte_string record(4096), reply(4096), answer = rpc_reply_record(0, 0, 0);
    const byte_string request(ARP_CALL_BYTES);
    while (recv(connection, record.data(), record.size(), 0) > 0) {
        if (arp >= 0 && (send(arp, request.data(), request.size(), MSG_NOSIGNAL) < 0 ||
                         recv(arp, reply.data(), reply.size(), 0) < 0))
            break;
        std::copy_n(record.begin() + 4, 4, answer.begin() + 4); // the call's transaction
        if (send(connection, answer.data(), answer.size(), MSG_NOSIGNAL) < 0)
            break;
    }
    (void)close(connection);
}

// Answers the connections of a listener one after the other, for ever.
[[noreturn]] void serve(int listener, bool with_arp)
{
    const int arp = with_arp ? bench_connect(ARP_ENDPOINT) : -1;
    for (;;)
        answer_all(accept(listener, nullptr, nullptr), arp);
}

void redirect(int descriptor, const std::string &path)
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    (void)dup2(file, descriptor);
    (void)close(file);
}
} // namespace

std::string bench_folder()
{
    card = new card_dir;
    (void)std::atexit(end_all);
    (void)setenv("CARD_DIR", card->path.c_str(), 1);
    interfaces_write(*card, {{IFID, IF_USUAL, 1, 0, IF_ADDR, MASK16, BENCH_CTX, 0}});
    run_on(0);
    return card->path;
}

bench_process bench_daemon_start()
{
    const std::string path = card->at("notify");
    const int notify = bound_socket(SOCK_DGRAM, path);
    bench_process daemon;
    const double start = now_ms();
    daemon.pid = start_child();
    if (daemon.pid == 0) {
        run_on(last_processor());
        (void)setenv("NOTIFY_SOCKET", path.c_str(), 1);
        redirect(STDOUT_FILENO, card->at("stdout"));
        redirect(STDERR_FILENO, card->at("stderr"));
        (void)execl(ROUTEMGR_PATH, "routemgr", static_cast<char *>(nullptr));
        _exit(127);
    }
    char text[64] = {};
    bench_require(recv(notify, text, sizeof text - 1, 0) > 0 && std::strcmp(text, "READY=1") == 0, "READY=1");
    daemon.ready_ms = now_ms() - start;
    (void)close(notify);
    return daemon;
}

bench_process bench_echo_start(unsigned endpoint, bool with_arp)
{
    const rpc_server server(*card, endpoint, "bench_echo");
    bench_process echo;
    echo.pid = start_child();
    if (echo.pid == 0) {
        run_on(last_processor());
        serve(server.listener, with_arp);
    }
    return echo;
}

bench_process bench_arp_start()
{
    const rpc_server server(*card, ARP_ENDPOINT, "tn_arp_add_entry");
    bench_process arp;
    arp.pid = start_child();
    if (arp.pid == 0) {
        // Two callers at once: the daemon and the bare peer.
        for (;;) {
            const int connection = accept(server.listener, nullptr, nullptr);
            if (fork() == 0) {
                (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
                answer_all(connection, -1);
                _exit(0);
            }
            (void)close(connection);
        }
    }
    return arp;
}

void bench_end(bench_process &process, int signo)
{
    (void)kill(process.pid, signo);
    (void)waitpid(process.pid, nullptr, 0);
    std::erase(running, process.pid);
    process.pid = -1;
}

int bench_connect(unsigned endpoint)
{
    const int connection = rpc_connect(*card, "rpc/" + std::to_string(endpoint));
    bench_require(connection >= 0, "a connection to " + std::to_string(endpoint));
    return connection;
}

byte_string bench_route_add(std::uint32_t prefix, std::uint32_t mask, std::uint32_t nexthop)
{
    return rpc_record(1, call_route_add(prefix, mask, nexthop, BENCH_CTX));
}

byte_string bench_route_remove(std::uint32_t prefix, std::uint32_t mask, std::uint32_t nexthop)
{
    return rpc_record(1, call_route_remove(prefix, mask, nexthop, BENCH_CTX));
}

byte_string bench_host_add(std::uint32_t address, std::uint32_t encap)
{
    return rpc_record(1, call_host_add(address, encap, IFID, BENCH_CTX));
}

std::size_t bench_call_all(int connection, const std::vector<byte_string> &calls, unsigned window)
{
    std::size_t sent = 0, answered = 0, right = 0;
    byte_string reply(256);
    while (answered < calls.size()) {
        for (; sent < calls.size() && sent - answered < window; ++sent)
            bench_require(send(connection, calls[sent].data(), calls[sent].size(), MSG_NOSIGNAL) > 0, "a call");
        bench_require(recv(connection, reply.data(), reply.size(), 0) >= 16, "a reply");
        right += get32(reply, 8) == 0 && get32(reply, 12) == 0 ? 1u : 0u;
        ++answered;
    }
    return right;
}

void bench_send_if_down()
{
    const byte_string message =
        message_bytes(EVENT_DOWN, 0, state_payload({.ctx = BENCH_CTX, .addr = IF_ADDR, .mask = MASK16}));
    const int sender = connected_socket(SOCK_DGRAM, card->at("mts/514"));
    bench_require(send(sender, message.data(), message.size(), 0) > 0, "an event");
    (void)close(sender);
}

std::array<np_table, 3> bench_memories()
{
    std::array<np_table, 3> memories{};
    const char *const names[] = {"mem/wired", "mem/ixp1", "mem/ixp2"};
    for (unsigned i = 0; i < 3; ++i) {
        const int fd = open(card->at(names[i]).c_str(), O_RDONLY | O_CLOEXEC);
        void *const at = mmap(nullptr, TABLE_BYTES, PROT_READ, MAP_SHARED, fd, 0);
        bench_require(fd >= 0 && at != MAP_FAILED, "a table memory");
        (void)close(fd);
        memories[i] = {static_cast<const std::uint32_t *>(at), i == 0 ? TABLE_WIRED : TABLE_IXP};
    }
    return memories;
}

std::uint32_t bench_find(const np_table &memory, std::uint32_t address)
{
    return np_find(memory, BENCH_CTX, address).adjacency;
}

void bench_bird_conf(unsigned count)
{
    std::ofstream out(card->at("bird.conf"));
    out << "router id 10.1.0.1;\nprotocol device { }\nprotocol direct { ipv4; interface \"d0\"; }\n"
        << "protocol kernel { ipv4 { export where source = RTS_STATIC; import none; }; }\n"
        << "protocol static bench_routes { ipv4;\n";
    for (unsigned i = 0; i < count; ++i)
        out << "  route 20." << (i >> 8) << "." << (i & 255) << ".0/24 via 10.1.0.9;\n";
    out << "}\n";
}

int bench_birdc(const std::string &command) { return bench_run({"birdc", "-s", card->at("bird.ctl"), command}); }

int bench_bird_control()
{
    const int control = connected_socket(SOCK_STREAM, card->at("bird.ctl"));
    char text[256];
    bench_require(recv(control, text, sizeof text, 0) > 0, "bird's greeting");
    return control;
}

bool bench_bird_holds(int control, unsigned count)
{
    const std::string question = "show route protocol bench_routes count\n";
    bench_require(send(control, question.data(), question.size(), MSG_NOSIGNAL) > 0, "a question to bird");
    std::string answer;
    // Lines begin with four digits and a '-', the last one with four digits and a blank.
    for (std::size_t line = 0; answer.find('\n', line) == std::string::npos || answer[line + 4] != ' ';) {
        const std::size_t end = answer.find('\n', line);
        if (end != std::string::npos) {
            line = end + 1;
            continue;
        }
        char text[1024];
        const ssize_t length = recv(control, text, sizeof text, 0);
        bench_require(length > 0, "bird's answer");
        answer.append(text, static_cast<std::size_t>(length));
    }
    return answer.find("-" + std::to_string(count) + " of ") != std::string::npos;
}

bench_process bench_bird_start()
{
    bench_process bird;
    const std::string conf = card->at("bird.conf"), control = card->at("bird.ctl"), pid = card->at("bird.pid");
    (void)unlink(control.c_str());
    const double start = now_ms();
    bird.pid = start_child();
    if (bird.pid == 0) {
        redirect(STDERR_FILENO, "/dev/null");
        (void)execlp("bird", "bird", "-f", "-c", conf.c_str(), "-s", control.c_str(), "-P", pid.c_str(),
                     static_cast<char *>(nullptr));
        _exit(127);
    }
    while (bench_birdc("show status") != 0)
        if (waitpid(bird.pid, nullptr, WNOHANG) == bird.pid) {
            std::erase(running, bird.pid);
            return {};
        }
    bird.ready_ms = now_ms() - start;
    return bird;
}

int bench_run(const std::vector<std::string> &command)
{
    const pid_t pid = fork();
    if (pid == 0) {
        redirect(STDOUT_FILENO, "/dev/null");
        redirect(STDERR_FILENO, "/dev/null");
        std::vector<char *> argv;
        for (const std::string &word : command)
            argv.push_back(const_cast<char *>(word.c_str())); // execvp writes to none of them
        argv.push_back(nullptr);
        (void)execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string bench_own_network()
{
    if (unshare(CLONE_NEWNET) != 0)
        return std::string("no network namespace: ") + std::strerror(errno);
    if (bench_run({"ip", "link", "add", "d0", "type", "veth", "peer", "name", "d1"}) != 0)
        return "no iproute2, or no veth interfaces in this kernel";
    if (bench_run({"ip", "addr", "add", "10.1.0.1/16", "dev", "d0"}) != 0 ||
        bench_run({"ip", "link", "set", "d1", "up"}) != 0 || bench_run({"ip", "link", "set", "d0", "up"}) != 0)
        return "the interface did not come up";
    return "";
}
