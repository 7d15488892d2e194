// bench_daemon.cpp - the daemon as a process, and around it what it meets on a card.
//
// Everything is spoken over the card's public contract. Callers block, so that what is measured is the daemon and not a
// caller's cleverness. The daemon and the bare peer run on the last processor, everybody else on the first.
#include "bench_daemon.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench.h"
#include "big_endian.h"
#include "interface_db.h"
#include "interface_events.h"
#include "mts.h"
#include "mts_datagram.h"
#include "route_table.h"
#include "rpc_record.h"

namespace
{
constexpr std::size_t ARP_CALL_BYTES = 90;
constexpr unsigned ARP_ENDPOINT = 10;
constexpr std::uint32_t IF_ADDRESS = 0x0A010001, IF_MASK = 0xFFFF0000, IFID = 5, WIRED_BASE = 0x08000000;

std::string folder;
std::vector<pid_t> running;

void end_all()
{
    for (const pid_t pid : running) {
        (void)kill(pid, SIGKILL);
        (void)waitpid(pid, nullptr, 0);
    }
    std::error_code gone; // another process of this run may be removing it, too
    (void)std::filesystem::remove_all(folder, gone);
}

void run_on(int processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(processor), &set);
    (void)sched_setaffinity(0, sizeof set, &set);
}
int last_processor() { return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)) - 1; }

sockaddr_un address_of(const std::string &name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)std::snprintf(address.sun_path, sizeof address.sun_path, "%s/%s", folder.c_str(), name.c_str());
    return address;
}

int listen_at(const std::string &name)
{
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const sockaddr_un address = address_of(name);
    bench_require(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                      listen(listener, 8) == 0,
                  "a socket at " + name);
    return listener;
}

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

// The answer 0 to the call in `record`.
void make_answer(std::uint8_t (&answer)[TNRPC_REPLY_HEAD], const std::uint8_t *record)
{
    std::memset(answer, 0, sizeof answer);
    (void)tnrpc_put(answer, 4, TNRPC_REPLY_MAGIC);
    std::memcpy(answer + 4, record + 4, 4);
}

// Answers the connections of a listener one after the other, for ever.
[[noreturn]] void serve(int listener, bool with_arp)
{
    std::uint8_t record[4096], answer[TNRPC_REPLY_HEAD], reply[TNRPC_REPLY_HEAD];
    const std::uint8_t request[ARP_CALL_BYTES] = {};
    const int arp = with_arp ? bench_connect(ARP_ENDPOINT) : -1;
    for (;;) {
        const int connection = accept(listener, nullptr, nullptr);
        while (recv(connection, record, sizeof record, 0) > 0) {
            if (with_arp &&
                (send(arp, request, sizeof request, MSG_NOSIGNAL) < 0 || recv(arp, reply, sizeof reply, 0) < 0))
                break;
            make_answer(answer, record);
            if (send(connection, answer, sizeof answer, MSG_NOSIGNAL) < 0)
                break;
        }
        (void)close(connection);
    }
}

void put_argument(bench_bytes &to, unsigned type, std::uint32_t bytes, std::uint32_t value)
{
    std::uint8_t text[TNRPC_VALUE_HEAD + 4];
    const std::uint8_t *const end = tnrpc_put(tnrpc_put_value_head(text, type, bytes), bytes, value);
    for (const std::uint8_t *at = text; at != end; ++at)
        to.push_back(*at);
}

bench_bytes call_head(const char *procedure, unsigned arguments)
{
    std::uint8_t head[TNRPC_CALL_HEAD];
    const std::size_t length = std::strlen(procedure);
    std::uint8_t *at = tnrpc_put(tnrpc_put(head, 4, TNRPC_CALL_MAGIC), 4, 1);
    (void)tnrpc_put(tnrpc_put(at, 2, static_cast<std::uint32_t>(length)), 2, arguments);
    bench_bytes call(head, head + sizeof head);
    for (const char *c = procedure; *c != '\0'; ++c)
        call.push_back(static_cast<std::uint8_t>(*c));
    return call;
}

void write_interfaces()
{
    std::vector<std::uint32_t> words(IFDB_BYTES / 4);
    const std::uint32_t record[] = {2, 0x0F, 1, 0, IF_ADDRESS, IF_MASK, 0, 0};
    std::memcpy(words.data(), IFDB_HEADER, sizeof IFDB_HEADER);
    std::memcpy(words.data() + IFDB_HEADER_WORDS + IFDB_RECORD_WORDS * IFID, record, sizeof record);
    std::ofstream(folder + "/interfaces", std::ios::binary)
        .write(reinterpret_cast<const char *>(words.data()), static_cast<std::streamsize>(words.size() * 4));
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
    char made[] = "/tmp/bench.XXXXXX";
    bench_require(mkdtemp(made) != nullptr, "a card directory");
    folder = made;
    (void)std::atexit(end_all);
    (void)setenv("CARD_DIR", made, 1);
    for (const char *name : {"rpc", "rpc/names", "mts"})
        std::filesystem::create_directory(folder + "/" + name);
    write_interfaces();
    run_on(0);
    return folder;
}

bench_process bench_daemon_start()
{
    const int notify = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = address_of("notify");
    (void)unlink(address.sun_path);
    bench_require(bind(notify, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "a notify socket");
    bench_process daemon;
    const double start = now_ms();
    daemon.pid = start_child();
    if (daemon.pid == 0) {
        run_on(last_processor());
        (void)setenv("NOTIFY_SOCKET", address.sun_path, 1);
        redirect(STDOUT_FILENO, folder + "/stdout");
        redirect(STDERR_FILENO, folder + "/stderr");
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
    const int listener = listen_at("rpc/" + std::to_string(endpoint));
    bench_process echo;
    echo.pid = start_child();
    if (echo.pid == 0) {
        run_on(last_processor());
        serve(listener, with_arp);
    }
    (void)close(listener);
    return echo;
}

bench_process bench_arp_start()
{
    const int listener = listen_at("rpc/" + std::to_string(ARP_ENDPOINT));
    std::filesystem::create_symlink("../" + std::to_string(ARP_ENDPOINT), folder + "/rpc/names/tn_arp_add_entry");
    bench_process arp;
    arp.pid = start_child();
    if (arp.pid == 0) {
        // Two callers at once: the daemon and the bare peer.
        for (;;) {
            const int connection = accept(listener, nullptr, nullptr);
            if (fork() == 0) {
                (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
                std::uint8_t record[4096], answer[TNRPC_REPLY_HEAD];
                while (recv(connection, record, sizeof record, 0) > 0) {
                    make_answer(answer, record);
                    (void)send(connection, answer, sizeof answer, MSG_NOSIGNAL);
                }
                _exit(0);
            }
            (void)close(connection);
        }
    }
    (void)close(listener);
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
    const int connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const sockaddr_un address = address_of("rpc/" + std::to_string(endpoint));
    bench_require(connect(connection, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0,
                  "a connection to " + std::to_string(endpoint));
    return connection;
}

bench_bytes bench_route_call(const char *procedure, std::uint32_t prefix, std::uint32_t mask, std::uint32_t nexthop)
{
    bench_bytes call = call_head(procedure, 5);
    put_argument(call, RPC_ARG_U16, 2, 0);
    for (const std::uint32_t value : {0u, prefix, mask, nexthop})
        put_argument(call, RPC_ARG_U32, 4, value);
    return call;
}

bench_bytes bench_host_add_call(std::uint32_t address, std::uint16_t encap)
{
    bench_bytes call = call_head("arp_prefix_mgr_add_route", 6);
    put_argument(call, RPC_ARG_U16, 2, 1);
    put_argument(call, RPC_ARG_U32, 4, address);
    put_argument(call, RPC_ARG_U32, 4, 32);
    put_argument(call, RPC_ARG_U16, 2, encap);
    put_argument(call, RPC_ARG_U16, 2, IFID);
    put_argument(call, RPC_ARG_U32, 4, 0);
    return call;
}

std::size_t bench_call_all(int connection, const std::vector<bench_bytes> &calls, unsigned window)
{
    std::size_t sent = 0, answered = 0, right = 0;
    std::uint8_t reply[256];
    while (answered < calls.size()) {
        for (; sent < calls.size() && sent - answered < window; ++sent)
            bench_require(send(connection, calls[sent].data(), calls[sent].size(), MSG_NOSIGNAL) > 0, "a call");
        bench_require(recv(connection, reply, sizeof reply, 0) >= static_cast<ssize_t>(TNRPC_REPLY_HEAD), "a reply");
        right += tnrpc_get(reply + 8, 4) == 0 && tnrpc_get(reply + 12, 4) == 0 ? 1u : 0u;
        ++answered;
    }
    return right;
}

void bench_send_if_down()
{
    std::uint8_t message[MTS_HEADER_BYTES + IFEV_BYTES] = {};
    put_be32(message + MTS_AT_MAGIC, MTS_MAGIC);
    put_be32(message + MTS_AT_OPCODE, MTS_OPC_NORVIK_IF_DOWN);
    std::uint8_t *const payload = message + MTS_HEADER_BYTES;
    put_be16(payload + IFEV_AT_IFID, IFID);
    put_be32(payload + IFEV_AT_ADDR, IF_ADDRESS);
    put_be32(payload + IFEV_AT_MASK, IF_MASK);
    put_be32(payload + IFEV_AT_RMODE, IF_RMODE_ROUTED);
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un to = address_of("mts/514");
    bench_require(sendto(sender, message, sizeof message, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) > 0,
                  "an event");
    (void)close(sender);
}

std::array<bench_memory, 3> bench_memories()
{
    std::array<bench_memory, 3> memories{};
    const char *const names[] = {"wired", "ixp1", "ixp2"};
    for (unsigned i = 0; i < 3; ++i) {
        const int fd = open((folder + "/mem/" + names[i]).c_str(), O_RDONLY | O_CLOEXEC);
        void *const at = mmap(nullptr, HW_TABLE_BYTES, PROT_READ, MAP_SHARED, fd, 0);
        bench_require(fd >= 0 && at != MAP_FAILED, "a table memory");
        (void)close(fd);
        memories[i] = {static_cast<const std::uint32_t *>(at), i == 0 ? WIRED_BASE : HW_IXP_BASE};
    }
    return memories;
}

std::uint32_t bench_find(const bench_memory &memory, std::uint32_t address)
{
    const auto load = [&memory](std::uint32_t offset) {
        return __atomic_load_n(memory.words + offset / 4, __ATOMIC_ACQUIRE);
    };
    std::uint32_t word = load(0);
    for (unsigned shift = 24; (word & HW_NODE_TAG) != 0; shift -= 8)
        word = load((word & ~HW_NODE_TAG) - memory.form + 4 * (address >> shift & 0xFF));
    return word == 0 ? 0 : load(word - memory.form);
}

void bench_bird_conf(unsigned count)
{
    std::ofstream out(folder + "/bird.conf");
    out << "router id 10.1.0.1;\nprotocol device { }\nprotocol direct { ipv4; interface \"d0\"; }\n"
        << "protocol kernel { ipv4 { export where source = RTS_STATIC; import none; }; }\n"
        << "protocol static bench_routes { ipv4;\n";
    for (unsigned i = 0; i < count; ++i)
        out << "  route 20." << (i >> 8) << "." << (i & 255) << ".0/24 via 10.1.0.9;\n";
    out << "}\n";
}

int bench_birdc(const std::string &command) { return bench_run({"birdc", "-s", folder + "/bird.ctl", command}); }

int bench_bird_control()
{
    const int control = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = address_of("bird.ctl");
    char text[256];
    bench_require(connect(control, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                      recv(control, text, sizeof text, 0) > 0, // its greeting
                  "bird's control socket");
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
    const std::string conf = folder + "/bird.conf", control = folder + "/bird.ctl", pid = folder + "/bird.pid";
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
