// daemon.cpp - how a test starts the daemon and speaks to it.
#include "daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace harness
{
namespace
{
[[noreturn]] void fail(const std::string &what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error(path + ": too long for a socket");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

const sockaddr *as_sockaddr(const sockaddr_un &address) { return reinterpret_cast<const sockaddr *>(&address); }

// The lock by which a peer shows that it lives.
int held_lock(const std::string &path)
{
    const int fd = ::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::flock(fd, LOCK_EX | LOCK_NB) != 0)
        fail(path + ".lock");
    return fd;
}

bool readable(int fd)
{
    pollfd p{fd, POLLIN, 0};
    int n = 0;
    do
        n = ::poll(&p, 1, DAEMON_WAIT_MS);
    while (n < 0 && errno == EINTR);
    return n == 1;
}

byte_string received(int fd)
{
    byte_string record(65536);
    if (!readable(fd))
        return {};
    const ssize_t n = ::recv(fd, record.data(), record.size(), 0);
    record.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return record;
}

// The build says which program; $ROUTEMGR_BINARY takes another, such as an installed one.
std::string daemon_program()
{
    const char *named = std::getenv("ROUTEMGR_BINARY");
    return named != nullptr ? named : ROUTEMGR_PATH;
}

void take_limits(const daemon_limits &limits)
{
    if (limits.file_bytes != 0) {
        const rlimit bytes = {limits.file_bytes, limits.file_bytes};
        ::setrlimit(RLIMIT_FSIZE, &bytes);
        ::signal(SIGXFSZ, SIG_IGN);
    }
    if (limits.address_space != 0) {
        const rlimit bytes = {limits.address_space, limits.address_space};
        ::setrlimit(RLIMIT_AS, &bytes);
    }
    if (limits.descriptors != 0) {
        const rlimit descriptors = {limits.descriptors, limits.descriptors};
        ::setrlimit(RLIMIT_NOFILE, &descriptors);
    }
}

// In the child: never returns. Only calls that are safe after a fork.
[[noreturn]] void become_daemon(const char *program, const char *out, const char *err, char *const *environment,
                                const daemon_limits &limits)
{
    const int out_fd = ::open(out, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err_fd = ::open(err, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(out_fd, STDOUT_FILENO);
    ::dup2(err_fd, STDERR_FILENO);
    ::close(out_fd);
    ::close(err_fd);
    take_limits(limits);
    for (int standard = STDIN_FILENO; limits.no_standard && standard <= STDERR_FILENO; ++standard)
        ::close(standard);
    char *const arguments[] = {const_cast<char *>(program), nullptr};
    ::execve(program, arguments, environment);
    ::_exit(127);
}

std::vector<std::string> environment_with(const std::string &card, const std::string &notify)
{
    std::vector<std::string> variables;
    for (char **v = environ; *v != nullptr; ++v)
        if (std::strncmp(*v, "CARD_DIR=", 9) != 0 && std::strncmp(*v, "NOTIFY_SOCKET=", 14) != 0)
            variables.emplace_back(*v);
    variables.push_back("CARD_DIR=" + card);
    variables.push_back("NOTIFY_SOCKET=" + notify);
    return variables;
}

// A file of the card as another process reads it while its owner writes: every number one aligned load.
struct shared_file {
    explicit shared_file(const std::string &path)
    {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat found;
        if (fd < 0 || ::fstat(fd, &found) != 0)
            fail(path);
        bytes = static_cast<std::size_t>(found.st_size);
        map = ::mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
        ::close(fd);
        if (map == MAP_FAILED)
            fail(path);
    }
    ~shared_file() { ::munmap(map, bytes); }
    shared_file(const shared_file &) = delete;
    shared_file &operator=(const shared_file &) = delete;
    template <class T> T number(std::size_t at) const
    {
        return __atomic_load_n(reinterpret_cast<const T *>(static_cast<const char *>(map) + at), __ATOMIC_ACQUIRE);
    }

    std::size_t bytes;
    void *map;
};
} // namespace

card_dir::card_dir()
{
    char name[] = "/tmp/card.XXXXXX";
    if (::mkdtemp(name) == nullptr)
        fail(name);
    path = name;
}

card_dir::~card_dir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string card_dir::at(std::string_view name) const { return path + "/" + std::string(name); }

daemon_process::daemon_process(const card_dir &card, const char *name, const daemon_limits &limits)
    : out((limits.output.empty() ? card.path : limits.output) + "/" + name + ".out"),
      err((limits.output.empty() ? card.path : limits.output) + "/" + name + ".err")
{
    const std::string program = daemon_program(), socket = card.at(std::string(name) + ".notify");
    notify = bound_socket(SOCK_DGRAM, socket);
    const std::vector<std::string> variables = environment_with(card.path, socket);
    std::vector<char *> environment;
    for (const std::string &v : variables)
        environment.push_back(const_cast<char *>(v.c_str()));
    environment.push_back(nullptr);
    pid = ::fork();
    if (pid < 0)
        fail("fork");
    if (pid == 0)
        become_daemon(program.c_str(), out.c_str(), err.c_str(), environment.data(), limits);
    pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (pidfd < 0)
        fail("pidfd_open");
}

daemon_process::~daemon_process()
{
    if (pid > 0) {
        ::kill(pid, SIGKILL);
        (void)::waitpid(pid, nullptr, 0); // nothing to learn from one that was killed
    }
    ::close(pidfd);
    ::close(notify);
}

std::string daemon_notification(const daemon_process &daemon)
{
    pollfd set[] = {{daemon.notify, POLLIN, 0}, {daemon.pidfd, POLLIN, 0}};
    int n = 0;
    do
        n = ::poll(set, 2, DAEMON_WAIT_MS);
    while (n < 0 && errno == EINTR);
    if (n <= 0 || (set[0].revents & POLLIN) == 0)
        return "";
    const byte_string text = received(daemon.notify);
    return std::string(text.begin(), text.end());
}

void daemon_signal(const daemon_process &daemon, int signo) { ::kill(daemon.pid, signo); }

int daemon_exit_status(daemon_process &daemon)
{
    if (!readable(daemon.pidfd))
        return -1;
    int status = 0;
    if (::waitpid(daemon.pid, &status, 0) != daemon.pid)
        fail("waitpid");
    daemon.pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

std::string file_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void file_write(const std::string &path, std::string_view text)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        fail(path);
    ::close(fd);
}

bool path_exists(const std::string &path)
{
    struct stat found;
    return ::lstat(path.c_str(), &found) == 0;
}

unsigned path_mode(const std::string &path)
{
    struct stat found;
    return ::lstat(path.c_str(), &found) == 0 ? found.st_mode & 0777u : ~0u;
}

void make_folder(const std::string &path)
{
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        fail(path);
}

void path_set_mode(const std::string &path, unsigned mode)
{
    if (::chmod(path.c_str(), mode) != 0)
        fail(path);
}

int bound_socket(int type, const std::string &path)
{
    ::unlink(path.c_str());
    const int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    const sockaddr_un address = address_of(path);
    if (fd < 0 || ::bind(fd, as_sockaddr(address), sizeof address) != 0)
        fail(path);
    return fd;
}

int connected_socket(int type, const std::string &path)
{
    const int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    const sockaddr_un address = address_of(path);
    if (fd >= 0 && ::connect(fd, as_sockaddr(address), sizeof address) == 0)
        return fd;
    ::close(fd);
    return -1;
}

int rpc_connect(const card_dir &card, std::string_view socket)
{
    return connected_socket(SOCK_SEQPACKET, card.at(socket));
}

void rpc_send(int connection, const byte_string &record)
{
    if (::send(connection, record.data(), record.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(record.size()))
        fail("send of a call");
}

rpc_reply rpc_receive(int connection)
{
    rpc_reply reply;
    reply.record = received(connection);
    reply.arrived = reply.record.size() >= 16 && get32(reply.record, 0) == REPLY_MAGIC;
    reply.transaction = get32(reply.record, 4);
    reply.status = get32(reply.record, 8);
    reply.result = get32(reply.record, 12);
    return reply;
}

rpc_reply rpc_call(int connection, const remote_call &call)
{
    static std::uint32_t transaction = 100;
    rpc_send(connection, rpc_record(++transaction, call));
    rpc_reply reply = rpc_receive(connection);
    reply.arrived = reply.arrived && reply.transaction == transaction;
    return reply;
}

rpc_client::rpc_client(const card_dir &card, std::string_view socket) : fd(rpc_connect(card, socket))
{
    if (fd < 0)
        fail(std::string(socket));
}

rpc_client::~rpc_client() { ::close(fd); }

rpc_server::rpc_server(const card_dir &card, unsigned endpoint, const char *procedure)
{
    make_folder(card.at("rpc"));
    make_folder(card.at("rpc/names"));
    const std::string path = card.at("rpc/" + std::to_string(endpoint));
    const std::string link = card.at("rpc/names/" + std::string(procedure));
    lock = held_lock(path);
    listener = bound_socket(SOCK_SEQPACKET, path);
    ::unlink(link.c_str());
    if (::listen(listener, 8) != 0 || ::symlink(("../" + std::to_string(endpoint)).c_str(), link.c_str()) != 0)
        fail(link);
}

rpc_server::~rpc_server()
{
    for (const int fd : {connection, listener, lock})
        if (fd >= 0)
            ::close(fd);
}

byte_string rpc_take_one(rpc_server &server)
{
    if (server.connection < 0) {
        if (!readable(server.listener))
            return {};
        server.connection = ::accept4(server.listener, nullptr, nullptr, SOCK_CLOEXEC);
    }
    return received(server.connection);
}

byte_string rpc_serve_raw(rpc_server &server, std::uint32_t magic, const byte_string &rest)
{
    const byte_string call = rpc_take_one(server);
    rpc_send(server.connection, joined({word_bytes({magic, get32(call, 4)}), rest}));
    return call;
}

byte_string rpc_serve_one(rpc_server &server, std::uint32_t result, const std::vector<rpc_arg> &values)
{
    const byte_string call = rpc_take_one(server);
    rpc_send(server.connection, rpc_reply_record(get32(call, 4), 0, result, values));
    return call;
}

void rpc_hang_up(rpc_server &server)
{
    ::close(server.connection);
    server.connection = -1;
}

mts_queue::mts_queue(const card_dir &card, std::uint32_t own_sap) : sap(own_sap), manager(card.at("mts/514"))
{
    make_folder(card.at("mts"));
    const std::string path = card.at("mts/" + std::to_string(sap));
    lock = held_lock(path);
    fd = bound_socket(SOCK_DGRAM, path);
}

mts_queue::~mts_queue()
{
    ::close(fd);
    ::close(lock);
}

void mts_send_raw(const mts_queue &queue, const byte_string &datagram)
{
    const sockaddr_un to = address_of(queue.manager);
    if (::sendto(queue.fd, datagram.data(), datagram.size(), MSG_NOSIGNAL, as_sockaddr(to), sizeof to) < 0)
        fail(queue.manager);
}

bool mts_offer(const mts_queue &queue, const byte_string &datagram)
{
    const sockaddr_un to = address_of(queue.manager);
    if (::sendto(queue.fd, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL, as_sockaddr(to), sizeof to) >=
        0)
        return true;
    if (errno != EAGAIN)
        fail(queue.manager);
    return false;
}

void mts_send(const mts_queue &queue, std::uint32_t opcode, const byte_string &payload)
{
    mts_send_raw(queue, message_bytes(opcode, queue.sap, payload));
}

byte_string mts_receive_raw(const mts_queue &queue) { return received(queue.fd); }

received_message mts_receive(const mts_queue &queue)
{
    const byte_string datagram = mts_receive_raw(queue);
    if (datagram.size() < 16 || get32(datagram, 0) != MESSAGE_MAGIC)
        return {};
    return {get32(datagram, 4), get32(datagram, 8), get32(datagram, 12),
            std::string(datagram.begin() + 16, datagram.end())};
}

void debug_request(const mts_queue &queue, std::uint32_t verb, std::uint32_t category, std::uint32_t context,
                   std::uint32_t value)
{
    mts_send(queue, DEBUG_REQUEST, word_bytes({verb, category, context, value}));
}

std::string debug_answer(const mts_queue &queue, std::uint32_t verb)
{
    debug_request(queue, verb, 0, 0, 0);
    const received_message answer = mts_receive(queue);
    if (answer.opcode != DEBUG_ANSWER || answer.node != 0 || answer.sap != ROUTE_MANAGER_SAP)
        return "no answer of the route manager: opcode " + std::to_string(answer.opcode);
    return answer.payload;
}

std::uint64_t counter_value(const std::string &answer, std::string_view name)
{
    std::istringstream lines(answer);
    std::string found;
    std::uint64_t value = 0;
    while (lines >> found >> value)
        if (found == name)
            return value;
    return ~std::uint64_t{0};
}

history history_read(const card_dir &card) { return history_at(card.at("history/115")); }

history history_at(const std::string &path)
{
    constexpr std::size_t HEADER = 64;
    history h;
    if (!path_exists(path))
        return h;
    const shared_file file(path);
    if (file.bytes < HEADER || file.number<std::uint32_t>(0) != 0x48495354 || file.number<std::uint32_t>(4) != 1)
        return h;
    h.capacity = file.number<std::uint64_t>(8);
    if (h.capacity == 0 || h.capacity % 8 != 0 || file.bytes != HEADER + h.capacity)
        return h;
    // The writer drops the oldest records, then writes where they stood, then lets the head go on. So what lies between
    // the tail after the copy and the head before it is whole; when nothing does, the writer has overtaken the copy.
    std::string ring;
    std::uint64_t from = 0;
    for (unsigned tries = 0; tries < 1000 && (tries == 0 || h.tail > h.head); ++tries) {
        h.head = file.number<std::uint64_t>(24);
        from = file.number<std::uint64_t>(16);
        ring.clear();
        for (std::uint64_t at = from; at < h.head && ring.size() < h.capacity; at += 8) {
            const std::uint64_t word = file.number<std::uint64_t>(HEADER + at % h.capacity);
            ring.append(reinterpret_cast<const char *>(&word), sizeof word);
        }
        h.tail = file.number<std::uint64_t>(16);
    }
    h.valid = from % 8 == 0 && from <= h.tail && h.tail <= h.head && ring.size() == h.head - from &&
              history_parse(h, std::string_view(ring).substr(h.tail - from));
    return h;
}

supervisor_socket::supervisor_socket(const card_dir &card)
{
    make_folder(card.at("scp"));
    fd = bound_socket(SOCK_DGRAM, card.at("scp/supervisor"));
}

supervisor_socket::~supervisor_socket() { ::close(fd); }

byte_string supervisor_receive(const supervisor_socket &supervisor) { return received(supervisor.fd); }

void interfaces_write(const card_dir &card, const std::vector<interface_record> &interfaces)
{
    file_write(card.at("interfaces"), interfaces_image(interfaces));
}

std::vector<std::uint32_t> memory_words(const card_dir &card, const char *name)
{
    const shared_file file(card.at(name));
    std::vector<std::uint32_t> words(file.bytes / 4);
    for (std::size_t i = 0; i < words.size(); ++i)
        words[i] = file.number<std::uint32_t>(4 * i);
    return words;
}
} // namespace harness
