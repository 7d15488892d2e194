// memory_peer.cpp - the records and descriptors of a provided memory, sent and received plainly.
#include "memory_peer.h"

#include <poll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "daemon.h"
#include "tables.h"

namespace harness
{
namespace
{
[[noreturn]] void fail(const std::string &what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

bool happens(int fd, short events)
{
    pollfd p{fd, events, 0};
    int n = 0;
    do
        n = ::poll(&p, 1, DAEMON_WAIT_MS);
    while (n < 0 && errno == EINTR);
    return n == 1;
}

int lock_of(const std::string &path)
{
    const int fd = ::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::flock(fd, LOCK_EX | LOCK_NB) != 0)
        fail(path + ".lock");
    return fd;
}
} // namespace

int memory_file(std::size_t bytes)
{
    const int fd = ::memfd_create("memory", MFD_CLOEXEC);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(bytes)) != 0)
        fail("memfd");
    return fd;
}

std::vector<std::uint32_t> memory_file_words(int fd)
{
    void *const map = ::mmap(nullptr, TABLE_BYTES, PROT_READ, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED)
        fail("map of a memory");
    std::vector<std::uint32_t> words(TABLE_WORDS);
    for (std::size_t i = 0; i < words.size(); ++i)
        words[i] = __atomic_load_n(static_cast<const std::uint32_t *>(map) + i, __ATOMIC_ACQUIRE);
    ::munmap(map, TABLE_BYTES);
    return words;
}

memory_peer::memory_peer(const std::string &path)
{
    make_folder(path.substr(0, path.rfind('/')));
    lock = lock_of(path + ".provider");
    listener = bound_socket(SOCK_SEQPACKET, path + ".provider");
    if (::listen(listener, 8) != 0)
        fail(path);
}

memory_peer::~memory_peer()
{
    for (const int fd : {connection, listener, lock})
        if (fd >= 0)
            ::close(fd);
}

byte_string memory_peer_question(memory_peer &peer)
{
    if (!happens(peer.listener, POLLIN))
        return {};
    peer.connection = ::accept4(peer.listener, nullptr, nullptr, SOCK_CLOEXEC);
    return memory_user_receive(peer.connection).record;
}

void memory_peer_answer(memory_peer &peer, const byte_string &record, const std::vector<int> &descriptors)
{
    iovec part = {const_cast<std::uint8_t *>(record.data()), record.size()};
    std::vector<char> control(CMSG_SPACE(sizeof(int) * descriptors.size()));
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr *const rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
        std::memcpy(CMSG_DATA(rights), descriptors.data(), sizeof(int) * descriptors.size());
    }
    if (::sendmsg(peer.connection, &message, MSG_NOSIGNAL) < 0)
        fail("sendmsg");
}

void memory_peer_hang_up(memory_peer &peer)
{
    ::close(peer.connection);
    peer.connection = -1;
}

bool memory_peer_is_alone(memory_peer &peer) { return happens(peer.connection, POLLRDHUP); }

int memory_user(const std::string &path, const byte_string &question)
{
    const int fd = connected_socket(SOCK_SEQPACKET, path + ".provider");
    if (fd >= 0 && ::send(fd, question.data(), question.size(), MSG_NOSIGNAL) < 0)
        fail("send of a question");
    return fd;
}

memory_given memory_user_receive(int connection)
{
    memory_given given;
    byte_string record(4096);
    iovec part = {record.data(), record.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (!happens(connection, POLLIN))
        return given;
    const ssize_t length = ::recvmsg(connection, &message, MSG_CMSG_CLOEXEC);
    record.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    given.record = record;
    const cmsghdr *const rights = CMSG_FIRSTHDR(&message);
    if (length > 0 && rights != nullptr && rights->cmsg_type == SCM_RIGHTS)
        std::memcpy(&given.descriptor, CMSG_DATA(rights), sizeof(int));
    return given;
}
} // namespace harness
