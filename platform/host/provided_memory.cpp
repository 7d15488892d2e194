// provided_memory.cpp - asks a provider for a memory, and judges what comes back.
//
// A memory is used without any further look at it, so all of it has to be there: what the answer says is held against
// the descriptor where that can tell its size (a BPF map's cannot; mapping one that is too small fails).
// Always: a descriptor that came and is not handed on is closed, however many there were.
#include "provided_memory.h"

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "card_files.h"
#include "route_table.h"
#include "timed_socket.h"

namespace
{
constexpr unsigned MOST_DESCRIPTORS = 4; // taken in; the kernel closes what is beyond them

std::string bytes_text(std::uint64_t bytes)
{
    return std::to_string(bytes) + " bytes, not " + std::to_string(HW_TABLE_BYTES) + " or more";
}

// An answer as it was received.
struct received_answer {
    std::uint8_t record[MEMP_BYTES];
    std::size_t length; // of the record that was sent, which may be longer
    int descriptors[MOST_DESCRIPTORS];
    unsigned count;
};

// Takes the descriptors out of a received message.
void take_descriptors(msghdr &message, received_answer &answer)
{
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS)
            continue;
        const std::size_t bytes = part->cmsg_len - CMSG_LEN(0);
        for (std::size_t at = 0; at + sizeof(int) <= bytes && answer.count < MOST_DESCRIPTORS; at += sizeof(int))
            std::memcpy(&answer.descriptors[answer.count++], CMSG_DATA(part) + at, sizeof(int));
    }
}

// Returns 0, or -1 with errno; ETIMEDOUT when none came in time, ECONNRESET when the provider hung up.
int answer_receive(int connection, std::int64_t deadline_ns, received_answer &answer)
{
    iovec part = {answer.record, sizeof answer.record};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof answer.descriptors)];
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t length = -1;
    do {
        if (timed_socket_wait(connection, POLLIN, deadline_ns) != 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        length = recvmsg(connection, &message, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC);
    } while (length < 0 && (errno == EINTR || errno == EAGAIN));
    if (length <= 0) {
        errno = length == 0 ? ECONNRESET : errno;
        return -1;
    }
    answer.length = static_cast<std::size_t>(length);
    answer.count = 0;
    take_descriptors(message, answer);
    if (answer.count == 0 && (message.msg_flags & MSG_CTRUNC) != 0) {
        errno = EMFILE; // there was one, and no place for it in this process
        return -1;
    }
    return 0;
}

std::string failure_text(int error, unsigned timeout_ms)
{
    if (error == ETIMEDOUT)
        return "its provider has not answered for " + std::to_string(timeout_ms) + " ms";
    return error == ECONNRESET ? "its provider ended the connection without an answer"
                               : std::string("its provider cannot be asked: ") + std::strerror(error);
}

// What is wrong with the descriptor of a memory of `bytes`; empty when nothing is.
std::string descriptor_judge(int descriptor, std::uint32_t bytes)
{
    struct stat st = {};
    if (fstat(descriptor, &st) != 0)
        return std::string("the descriptor from its provider: ") + std::strerror(errno);
    if (S_ISREG(st.st_mode) && static_cast<std::uint64_t>(st.st_size) < bytes)
        return "its provider sent a file of " + std::to_string(st.st_size) + " bytes for a memory of " +
               std::to_string(bytes);
    return "";
}

// Asks over a fresh connection. Returns what is wrong; empty with the memory's descriptor when nothing is.
std::string ask(int connection, memory_purpose purpose, unsigned timeout_ms, std::int64_t deadline_ns,
                provided_memory *memory)
{
    std::uint8_t question[MEMQ_BYTES];
    memory_question_put(question, purpose);
    received_answer answer;
    // There is room for a first record, so it does not wait. A provider that hung up may have refused before.
    (void)send(connection, question, sizeof question, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (answer_receive(connection, deadline_ns, answer) != 0)
        return failure_text(errno, timeout_ms);
    std::string wrong = provided_memory_judge(answer.record, answer.length, answer.count, &memory->given);
    if (wrong.empty())
        wrong = descriptor_judge(answer.descriptors[0], memory->given.bytes);
    if (wrong.empty())
        memory->descriptor = answer.descriptors[0];
    for (unsigned i = wrong.empty() ? 1 : 0; i < answer.count; ++i)
        (void)close(answer.descriptors[i]);
    return wrong;
}
} // namespace

std::string provided_memory_judge(const std::uint8_t *record, std::size_t length, unsigned descriptors,
                                  memory_answer *given)
{
    if (memory_answer_take(record, length, *given) != 0)
        return "its provider answers with another record than expected";
    if (given->bytes == 0 && given->generation == 0 && descriptors == 0)
        return "its provider refuses it";
    if (given->bytes < HW_TABLE_BYTES)
        return "its provider has " + bytes_text(given->bytes);
    if (descriptors != 1)
        return "its provider sent " + std::to_string(descriptors) + " descriptors, not one";
    return "";
}

int provided_memory_ask(const std::string &path, memory_purpose purpose, unsigned timeout_ms, provided_memory *memory,
                        std::string *why)
{
    const std::int64_t deadline_ns = monotonic_ns() + timeout_ms * NS_PER_MS;
    const std::string socket_path = path + PROVIDER_SUFFIX;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof address.sun_path) {
        *why = path + ": the path is too long for its provider's socket";
        return -1;
    }
    std::memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
    *memory = {};
    memory->connection = timed_socket_connect(address, deadline_ns);
    const std::string wrong = memory->connection < 0
                                  ? failure_text(errno, timeout_ms)
                                  : ask(memory->connection, purpose, timeout_ms, deadline_ns, memory);
    if (wrong.empty())
        return 0;
    if (memory->connection >= 0)
        (void)close(memory->connection);
    *memory = {};
    *why = path + ": " + wrong;
    return -1;
}
