// memory_service.cpp - users of a provided memory come, ask once, and stay connected while they use it.
//
// The end of a writer is its connection's. A route manager that ends gives up its mapping, then its locks, then this
// connection, and the next one may have started by then: so another route manager's queue tells the end, too. That is
// also how the end of a writer shows that has its memory from an earlier provider; the lock alone would not do, since
// whoever asks to write holds it already.
// Always: what a user sends behind its question is dropped; a writer's connection is never ended here, for it would
// write on.
// Elsewhere: the records (memory_provider.h), who owns a socket (card_dir.cpp).
#include "memory_service.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_files.h"
#include "memory_provider.h"
#include "route_ids.h"

namespace
{
constexpr std::size_t MAX_USERS = 128;
constexpr int EVENTS_A_PASS = 16;

std::string manager_queue() { return std::string(MTS_FOLDER) + "/" + std::to_string(ROUTE_MGR_SAP); }

// The route manager of this moment.
manager_mark manager_now()
{
    manager_mark mark;
    struct stat st = {};
    mark.is_alive = card_dir_owner(manager_queue().c_str()) != card_owner::none;
    if (stat((card_dir_path() + "/" + manager_queue()).c_str(), &st) == 0) {
        mark.device = st.st_dev;
        mark.inode = st.st_ino;
        mark.changed = st.st_ctim;
    }
    return mark;
}

// Whether the route manager of `mark` has ended. A socket that somebody has removed says nothing.
bool manager_has_ended(const manager_mark &mark)
{
    const manager_mark now = manager_now();
    return !now.is_alive || (now.inode != 0 && (now.device != mark.device || now.inode != mark.inode ||
                                                now.changed.tv_sec != mark.changed.tv_sec ||
                                                now.changed.tv_nsec != mark.changed.tv_nsec));
}

bool connection_has_ended(int connection)
{
    pollfd state = {connection, POLLRDHUP, 0};
    return poll(&state, 1, 0) > 0;
}

void writer_end(memory_service &service)
{
    service.has_writer = false;
    service.writer = -1;
    if (service.writer_gone)
        service.writer_gone();
}

void user_end(memory_service &service, int connection)
{
    (void)epoll_ctl(service.events, EPOLL_CTL_DEL, connection, nullptr); // a forked child may hold it open
    (void)close(connection);
    service.users.erase(connection);
    if (service.has_writer && connection == service.writer)
        writer_end(service);
}

// Sends the answer, with a descriptor when one is given. Returns 0, or -1 when it did not go.
int answer_send(int connection, const memory_handout &given)
{
    std::uint8_t record[MEMP_BYTES];
    memory_answer_put(record, given.descriptor < 0 ? memory_answer{} : memory_answer{given.bytes, given.generation});
    iovec part = {record, sizeof record};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof given.descriptor)] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (given.descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *const rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof given.descriptor);
        std::memcpy(CMSG_DATA(rights), &given.descriptor, sizeof given.descriptor);
    }
    ssize_t sent = 0;
    do
        sent = sendmsg(connection, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent < 0 ? -1 : 0;
}

// What the user is given; nothing when it is refused.
memory_handout handout_for(memory_service &service, std::uint32_t purpose)
{
    if (purpose == MEMORY_READ)
        return service.for_reader();
    if (purpose != MEMORY_WRITE || memory_service_has_writer(service))
        return {};
    return service.for_writer();
}

void user_answer(memory_service &service, int connection, std::uint32_t purpose)
{
    const memory_handout given = handout_for(service, purpose);
    if (given.descriptor >= 0 && purpose == MEMORY_WRITE) {
        service.has_writer = true;
        service.writer = connection;
        service.manager = manager_now();
    }
    service.users[connection] = purpose == MEMORY_WRITE ? memory_role::writer : memory_role::reader;
    if (answer_send(connection, given) != 0 || given.descriptor < 0)
        user_end(service, connection);
}

void user_process(memory_service &service, int connection)
{
    const auto user = service.users.find(connection);
    if (user == service.users.end())
        return; // ended within this pass
    std::uint8_t record[MEMQ_BYTES];
    const ssize_t length = recv(connection, record, sizeof record, MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (length > 0 && user->second != memory_role::unknown)
        return;
    std::uint32_t purpose = 0;
    if (length <= 0 || memory_question_take(record, static_cast<std::size_t>(length), purpose) != 0)
        user_end(service, connection);
    else
        user_answer(service, connection, purpose);
}

int watch(const memory_service &service, int descriptor, std::uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.fd = descriptor;
    return epoll_ctl(service.events, EPOLL_CTL_ADD, descriptor, &event);
}

// Takes those who wait. Out of descriptors it leaves them waiting, until something else happens.
void accept_waiting(memory_service &service)
{
    for (;;) {
        const int connection = accept4(service.listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (connection < 0)
            return;
        if (service.users.size() == MAX_USERS || watch(service, connection, EPOLLIN) != 0)
            (void)close(connection);
        else
            service.users[connection] = memory_role::unknown;
    }
}
} // namespace

int memory_service_open(memory_service *service, const char *name)
{
    const std::string socket_name = std::string(name) + PROVIDER_SUFFIX;
    service->listener = card_dir_bind(SOCK_SEQPACKET, socket_name.c_str());
    if (service->listener < 0) {
        card_dir_say_not_bound(socket_name.c_str());
        return -1;
    }
    service->events = epoll_create1(EPOLL_CLOEXEC);
    // Edge-triggered: connections that have to wait do not wake the owner all the time.
    if (service->events < 0 || watch(*service, service->listener, EPOLLIN | EPOLLET) != 0) {
        std::fprintf(stderr, "%s: %s/%s: %s; not served\n", program_invocation_short_name, card_dir_path().c_str(),
                     socket_name.c_str(), std::strerror(errno));
        memory_service_close(service);
        return -1;
    }
    service->manager = manager_now();
    service->has_writer = service->manager.is_alive;
    return 0;
}

void memory_service_process(memory_service &service)
{
    epoll_event happened[EVENTS_A_PASS];
    const int count = epoll_wait(service.events, happened, EVENTS_A_PASS, 0);
    for (int i = 0; i < count; ++i)
        if (happened[i].data.fd != service.listener)
            user_process(service, happened[i].data.fd);
    accept_waiting(service);
}

bool memory_service_has_writer(memory_service &service)
{
    if (!service.has_writer)
        return false;
    const bool is_connected = service.writer >= 0;
    if (is_connected && connection_has_ended(service.writer))
        user_end(service, service.writer);
    else if ((!is_connected || service.manager.is_alive) && manager_has_ended(service.manager))
        writer_end(service); // a connection that is left ends by itself
    return service.has_writer;
}

void memory_service_end_readers(memory_service &service)
{
    std::vector<int> readers;
    for (const auto &[connection, user] : service.users)
        if (user == memory_role::reader)
            readers.push_back(connection);
    for (const int connection : readers)
        user_end(service, connection);
}

void memory_service_close(memory_service *service)
{
    for (const auto &[connection, user] : service->users)
        (void)close(connection);
    service->users.clear();
    for (int *const descriptor : {&service->events, &service->listener}) {
        if (*descriptor >= 0)
            (void)close(*descriptor);
        *descriptor = -1;
    }
}
