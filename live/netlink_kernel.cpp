// netlink_kernel.cpp - the sockets: hears changes, reads everything, makes requests.
//
// A reading asks for one kind after the other and fills a state of its own; what is heard meanwhile is taken into the
// old state at once and kept, and taken into the new one at the end. So nothing is missed, and nothing waits for the
// reading. A reading for routes that go without a message begins after a request that the kernel serves under the lock
// that it holds while it drops them: by then they are dropped.
// Always: messages of other processes are not listened to.
#include "netlink_kernel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <span>
#include <vector>

#include <libmnl/libmnl.h>
#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/netconf.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <fmt/format.h>

#include "netlink_decode.h"

namespace
{
constexpr std::size_t BUFFER_BYTES = 256 * 1024; // more than the kernel puts into one message
constexpr int RECEIVE_BYTES = 64 * 1024 * 1024;  // what is kept for us while something else is done
constexpr unsigned MESSAGES_A_CALL = 256;        // then others have their turn
constexpr int GROUPS[] = {RTNLGRP_LINK,      RTNLGRP_NEIGH,        RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_ROUTE,
                          RTNLGRP_IPV4_RULE, RTNLGRP_IPV4_NETCONF, RTNLGRP_NEXTHOP};

// What a reading asks for, in this order: the links before what names them.
struct reading_kind {
    const char *name;
    std::uint16_t request;
    std::size_t head_bytes; // the family is the first byte of each
    std::uint8_t family;
};
constexpr reading_kind READING[] = {
    {"links", RTM_GETLINK, sizeof(ifinfomsg), AF_UNSPEC},   {"settings", RTM_GETNETCONF, sizeof(netconfmsg), AF_INET},
    {"addresses", RTM_GETADDR, sizeof(ifaddrmsg), AF_INET}, {"rules", RTM_GETRULE, sizeof(fib_rule_hdr), AF_INET},
    {"neighbours", RTM_GETNEIGH, sizeof(ndmsg), AF_INET},   {"routes", RTM_GETROUTE, sizeof(rtmsg), AF_INET},
};
constexpr unsigned IDLE = std::size(READING);

using bytes = std::span<const std::uint8_t>;
struct alignas(nlmsghdr) message_buffer {
    char data[512] = {};
};
} // namespace

struct netlink_kernel {
    mnl_socket *events = nullptr, *dumps = nullptr, *requests = nullptr;
    int poll_fd = -1, due_fd = -1; // the second is readable while a reading is due
    std::vector<std::uint8_t> buffer;
    std::uint32_t sequence = 0;         // of the newest request
    std::uint32_t reading_sequence = 0; // of the request of the reading

    std::set<std::uint32_t> tables;
    kernel_state state, next; // next: what the reading has found
    bool has_state = false;   // a first reading is through
    unsigned reading = IDLE;  // which kind is being read
    bool is_due = false;      // to be read again
    bool is_interrupted = false;
    std::deque<std::vector<std::uint8_t>> heard; // while reading

    std::set<std::pair<int, std::uint32_t>> managed; // wanted
    std::set<std::pair<int, std::uint32_t>> kept;    // of these, those that the kernel was seen to manage
    netlink_counts counts;
};

namespace
{
std::string error_text(const char *what) { return fmt::format("netlink: {}: {}", what, std::strerror(errno)); }

// A request with a fixed part of `head_bytes`, which begins with the family. The rest of it is 0.
nlmsghdr *request_begin(netlink_kernel &kernel, message_buffer &buffer, std::uint16_t type, std::uint16_t flags,
                        std::size_t head_bytes, std::uint8_t family)
{
    nlmsghdr *const message = mnl_nlmsg_put_header(buffer.data);
    message->nlmsg_type = type;
    message->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    message->nlmsg_seq = ++kernel.sequence;
    *static_cast<std::uint8_t *>(mnl_nlmsg_put_extra_header(message, head_bytes)) = family;
    return message;
}

template <typename Head> Head *head_of(nlmsghdr *message)
{
    return static_cast<Head *>(mnl_nlmsg_get_payload(message));
}

// One datagram of the kernel's. Returns the number of bytes; 0 when there is none, or another process sent it; -1 with
// errno.
ssize_t receive(const mnl_socket *socket, std::vector<std::uint8_t> &buffer, bool *is_more)
{
    sockaddr_nl from{};
    iovec io = {buffer.data(), buffer.size()};
    msghdr head{};
    head.msg_name = &from;
    head.msg_namelen = sizeof from;
    head.msg_iov = &io;
    head.msg_iovlen = 1;
    const ssize_t length = recvmsg(mnl_socket_get_fd(socket), &head, MSG_DONTWAIT);
    *is_more = length >= 0;
    if (length < 0)
        return errno == EAGAIN || errno == EINTR ? 0 : -1;
    if (from.nl_pid != 0 || (head.msg_flags & MSG_TRUNC) != 0)
        return 0;
    return length;
}

// Calls `visit` with each message of a datagram: its header and its bytes. Ends when that returns false.
template <typename Visit> void visit_messages(bytes datagram, Visit visit)
{
    nlmsghdr head{};
    while (datagram.size() >= sizeof head) {
        std::memcpy(&head, datagram.data(), sizeof head);
        if (head.nlmsg_len < sizeof head || head.nlmsg_len > datagram.size() ||
            !visit(head, datagram.first(head.nlmsg_len)))
            return;
        datagram = datagram.subspan(std::min<std::size_t>(NLMSG_ALIGN(head.nlmsg_len), datagram.size()));
    }
}

int code_of(bytes message)
{
    int code = 0;
    if (message.size() >= sizeof(nlmsghdr) + sizeof code)
        std::memcpy(&code, message.data() + sizeof(nlmsghdr), sizeof code);
    return code;
}

// Sends a request and reads the answer, which the kernel has made when the call returns. Returns 0 or an error number.
int request(netlink_kernel &kernel, const nlmsghdr *message)
{
    if (mnl_socket_sendto(kernel.requests, message, message->nlmsg_len) < 0)
        return errno;
    for (;;) {
        bool is_more = false;
        const ssize_t length = receive(kernel.requests, kernel.buffer, &is_more);
        if (length < 0)
            return errno;
        if (!is_more)
            return EPROTO;
        int result = -1;
        visit_messages({kernel.buffer.data(), static_cast<std::size_t>(length)},
                       [&](const nlmsghdr &head, bytes answer) {
                           if (head.nlmsg_seq == message->nlmsg_seq && head.nlmsg_type == NLMSG_ERROR)
                               result = -code_of(answer);
                           return true;
                       });
        if (result >= 0)
            return result;
    }
}

// ---- readings ----

bool send_reading(netlink_kernel &kernel)
{
    message_buffer buffer;
    const reading_kind &kind = READING[kernel.reading];
    nlmsghdr *const message = request_begin(kernel, buffer, kind.request, NLM_F_DUMP, kind.head_bytes, kind.family);
    if (kind.request == RTM_GETLINK)
        mnl_attr_put_u32(message, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
    kernel.is_interrupted = false;
    kernel.reading_sequence = message->nlmsg_seq;
    return mnl_socket_sendto(kernel.dumps, message, message->nlmsg_len) >= 0;
}

kernel_state empty_state(const netlink_kernel &kernel)
{
    kernel_state state;
    for (const std::uint32_t table : kernel.tables)
        state.tables[table];
    return state;
}

// Takes what the present kind has filled out of the new state.
void forget_reading(netlink_kernel &kernel)
{
    switch (READING[kernel.reading].request) {
    case RTM_GETLINK:
        return kernel.next.links.clear();
    case RTM_GETNETCONF:
        return kernel.next.netconfs.clear();
    case RTM_GETADDR:
        return kernel.next.addresses.clear();
    case RTM_GETRULE:
        return kernel.next.rules.clear();
    case RTM_GETNEIGH:
        return kernel.next.neighbours.clear();
    default:
        kernel.next.tables = empty_state(kernel).tables;
    }
}

void set_due(netlink_kernel &kernel, bool is_due)
{
    if (kernel.is_due == is_due)
        return;
    kernel.is_due = is_due;
    eventfd_t value = 0;
    if (is_due)
        (void)eventfd_write(kernel.due_fd, 1); // never full: it is read before the next
    else
        (void)eventfd_read(kernel.due_fd, &value);
}

// A change of nothing, which the kernel serves under its lock for links, addresses and routes.
void pass_lock(netlink_kernel &kernel)
{
    message_buffer buffer;
    nlmsghdr *const message = request_begin(kernel, buffer, RTM_SETLINK, NLM_F_ACK, sizeof(ifinfomsg), AF_UNSPEC);
    head_of<ifinfomsg>(message)->ifi_index = 1; // the loopback link, which every namespace has
    (void)request(kernel, message);             // refused or not, the lock was passed
}

bool begin_reading(netlink_kernel &kernel)
{
    set_due(kernel, false);
    pass_lock(kernel);
    kernel.next = empty_state(kernel);
    kernel.heard.clear();
    kernel.reading = 0;
    ++kernel.counts.readings;
    return send_reading(kernel);
}

void ask_for(netlink_kernel &kernel, const std::pair<int, std::uint32_t> &neighbour, bool is_managed)
{
    const auto link = kernel.state.links.find(neighbour.first);
    const auto known = kernel.state.neighbours.find(neighbour);
    const bool is_fixed =
        known != kernel.state.neighbours.end() && (known->second.state & (NUD_PERMANENT | NUD_NOARP)) != 0;
    if (link == kernel.state.links.end() || !link->second.is_up || !link->second.has_carrier || is_fixed)
        return;
    message_buffer buffer;
    const std::uint16_t flags = static_cast<std::uint16_t>(NLM_F_ACK | (is_managed ? NLM_F_CREATE : 0));
    nlmsghdr *const message = request_begin(kernel, buffer, RTM_NEWNEIGH, flags, sizeof(ndmsg), AF_INET);
    ndmsg *const head = head_of<ndmsg>(message);
    head->ndm_ifindex = neighbour.first;
    head->ndm_state = NUD_NONE;
    if (!is_managed)
        head->ndm_flags = NTF_USE; // as if a packet were sent to it
    mnl_attr_put_u32(message, NDA_DST, htonl(neighbour.second));
    if (is_managed)
        mnl_attr_put_u32(message, NDA_FLAGS_EXT, NTF_EXT_MANAGED);
    (void)request(kernel, message); // asked again when the link or the entry changes
}

// Neighbours that the kernel has dropped, does not manage any more, or could not look for, are asked for again.
void ask_again(netlink_kernel &kernel, const kernel_changes &changes)
{
    for (const auto &neighbour : kernel.managed) {
        const bool has_changed = changes.neighbours.count(neighbour) != 0;
        if (!has_changed && changes.links.count(neighbour.first) == 0)
            continue;
        const auto known = kernel.state.neighbours.find(neighbour);
        const bool is_there = known != kernel.state.neighbours.end();
        if (is_there && known->second.is_managed)
            kernel.kept.insert(neighbour);
        else if (kernel.kept.erase(neighbour) != 0 || !is_there || !has_changed)
            ask_for(kernel, neighbour, true);
    }
}

// Of the addresses that the host has had, those that are gateways now.
void keep_former_addresses(const kernel_state &before, kernel_state &now)
{
    std::set<std::uint32_t> had = before.former_addresses;
    had.insert(now.former_addresses.begin(), now.former_addresses.end());
    for (const auto &[ifindex, addresses] : before.addresses)
        for (const kernel_address &address : addresses)
            had.insert(address.address);
    now.former_addresses.clear();
    for (const std::uint32_t address : had)
        for (const auto &[id, table] : now.tables)
            if (table.gateways.count(address) != 0)
                now.former_addresses.insert(address);
}

void end_reading(netlink_kernel &kernel, kernel_changes &changes)
{
    netlink_news news;
    for (const std::vector<std::uint8_t> &message : kernel.heard)
        netlink_decode(message, kernel.next, news);
    kernel.heard.clear();
    kernel.reading = IDLE;
    keep_former_addresses(kernel.state, kernel.next);
    kernel_changes_add(changes, kernel_state_difference(kernel.state, kernel.next));
    std::swap(kernel.state, kernel.next);
    kernel.next = {};
    kernel.has_state = true;
    if (news.read_again)
        set_due(kernel, true);
}

// A kind is through: repeats it when the kernel's tables moved under it, else goes on to the next.
bool next_reading(netlink_kernel &kernel, kernel_changes &changes)
{
    if (kernel.is_interrupted) {
        ++kernel.counts.repeated;
        forget_reading(kernel);
        return send_reading(kernel);
    }
    if (++kernel.reading != IDLE)
        return send_reading(kernel);
    end_reading(kernel, changes);
    return true;
}

// Takes answers of the reading. Returns false with `error` when the kernel refuses.
bool take_answers(netlink_kernel &kernel, kernel_changes &changes, std::string *error)
{
    bool is_more = true;
    for (unsigned i = 0; is_more && i < MESSAGES_A_CALL && kernel.reading != IDLE; ++i) {
        const ssize_t length = receive(kernel.dumps, kernel.buffer, &is_more);
        bool is_through = false;
        int code = length < 0 ? errno : 0;
        netlink_news none;
        visit_messages({kernel.buffer.data(), length < 0 ? 0 : static_cast<std::size_t>(length)},
                       [&](const nlmsghdr &head, bytes message) {
                           if (head.nlmsg_seq != kernel.reading_sequence)
                               return true;
                           kernel.is_interrupted = kernel.is_interrupted || (head.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
                           is_through = head.nlmsg_type == NLMSG_DONE || head.nlmsg_type == NLMSG_ERROR;
                           if (is_through)
                               code = -code_of(message);
                           else
                               netlink_decode(message, kernel.next, none);
                           return !is_through;
                       });
        if (code > 0) {
            *error = fmt::format("netlink: reading {}: {}", READING[kernel.reading].name, std::strerror(code));
            return false;
        }
        if (is_through && !next_reading(kernel, changes)) {
            *error = error_text("asking for all");
            return false;
        }
    }
    return true;
}

// ---- changes ----

// Takes what was heard. Returns false with `error` when the socket fails.
bool take_events(netlink_kernel &kernel, kernel_changes &changes, std::string *error)
{
    bool is_more = true;
    netlink_news news;
    for (unsigned i = 0; is_more && i < MESSAGES_A_CALL; ++i) {
        const ssize_t length = receive(kernel.events, kernel.buffer, &is_more);
        if (length < 0 && errno != ENOBUFS) {
            *error = error_text("hearing changes");
            return false;
        }
        if (length < 0) {
            ++kernel.counts.lost;
            news.read_again = is_more = true;
            continue;
        }
        visit_messages({kernel.buffer.data(), static_cast<std::size_t>(length)}, [&](const nlmsghdr &, bytes message) {
            ++kernel.counts.messages;
            if (kernel.has_state)
                netlink_decode(message, kernel.state, news);
            if (kernel.reading != IDLE)
                kernel.heard.emplace_back(message.begin(), message.end());
            return true;
        });
    }
    if (news.read_again)
        set_due(kernel, true);
    kernel_changes_add(changes, news.changes);
    return true;
}

mnl_socket *open_socket(std::string *error)
{
    mnl_socket *const socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (socket != nullptr && mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) == 0)
        return socket;
    *error = error_text("socket");
    if (socket != nullptr)
        (void)mnl_socket_close(socket);
    return nullptr;
}

bool watch(const netlink_kernel &kernel, int fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    return epoll_ctl(kernel.poll_fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

bool open_events(netlink_kernel &kernel, std::string *error)
{
    kernel.events = open_socket(error);
    if (kernel.events == nullptr)
        return false;
    const int fd = mnl_socket_get_fd(kernel.events);
    // Without the right to force it, the limit of the system holds; messages that are lost are noticed either way.
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BYTES, sizeof RECEIVE_BYTES) != 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BYTES, sizeof RECEIVE_BYTES);
    for (int group : GROUPS)
        if (mnl_socket_setsockopt(kernel.events, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
            *error = error_text("joining a group");
            return false;
        }
    return true;
}

// ---- rules ----

bool read_rules(netlink_kernel &kernel, kernel_state &found, std::string *error)
{
    for (bool is_again = true; is_again;) {
        message_buffer buffer;
        const nlmsghdr *const message =
            request_begin(kernel, buffer, RTM_GETRULE, NLM_F_DUMP, sizeof(fib_rule_hdr), AF_INET);
        if (mnl_socket_sendto(kernel.requests, message, message->nlmsg_len) < 0) {
            *error = error_text("asking for rules");
            return false;
        }
        found.rules.clear();
        is_again = false;
        for (bool is_through = false; !is_through;) {
            bool is_more = false;
            const ssize_t length = receive(kernel.requests, kernel.buffer, &is_more);
            if (!is_more) {
                *error = error_text("reading rules");
                return false;
            }
            netlink_news none;
            visit_messages({kernel.buffer.data(), static_cast<std::size_t>(length)},
                           [&](const nlmsghdr &head, bytes answer) {
                               is_again = is_again || (head.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
                               is_through = head.nlmsg_type == NLMSG_DONE || head.nlmsg_type == NLMSG_ERROR;
                               netlink_decode(answer, found, none);
                               return !is_through;
                           });
        }
    }
    return true;
}

int change_rule(netlink_kernel &kernel, const kernel_rule &rule, bool is_made)
{
    message_buffer buffer;
    const std::uint16_t flags = static_cast<std::uint16_t>(is_made ? NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK : NLM_F_ACK);
    nlmsghdr *const message =
        request_begin(kernel, buffer, is_made ? RTM_NEWRULE : RTM_DELRULE, flags, sizeof(fib_rule_hdr), AF_INET);
    head_of<fib_rule_hdr>(message)->action = FR_ACT_TO_TBL;
    mnl_attr_put_u32(message, FRA_PRIORITY, rule.preference);
    mnl_attr_put_u32(message, FRA_TABLE, rule.table);
    mnl_attr_put_u8(message, FRA_PROTOCOL, rule.protocol);
    if (!rule.iif.empty())
        mnl_attr_put_strz(message, FRA_IIFNAME, rule.iif.c_str());
    return request(kernel, message);
}
} // namespace

void netlink_kernel_close::operator()(netlink_kernel *kernel) const
{
    for (mnl_socket *const socket : {kernel->events, kernel->dumps, kernel->requests})
        if (socket != nullptr)
            (void)mnl_socket_close(socket);
    for (const int fd : {kernel->poll_fd, kernel->due_fd})
        if (fd >= 0)
            (void)close(fd);
    delete kernel;
}

netlink_kernel_ptr netlink_kernel_open(const std::set<std::uint32_t> &tables, std::string *error)
{
    netlink_kernel_ptr kernel(new netlink_kernel);
    kernel->tables = tables;
    kernel->tables.insert({KERNEL_TABLE_DEFAULT, KERNEL_TABLE_MAIN, KERNEL_TABLE_LOCAL});
    kernel->buffer.resize(BUFFER_BYTES);
    kernel->state = empty_state(*kernel);
    kernel->poll_fd = epoll_create1(EPOLL_CLOEXEC);
    kernel->due_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (!open_events(*kernel, error))
        return nullptr;
    for (mnl_socket **const socket : {&kernel->dumps, &kernel->requests})
        if ((*socket = open_socket(error)) == nullptr)
            return nullptr;
    if (kernel->poll_fd < 0 || kernel->due_fd < 0 || !watch(*kernel, mnl_socket_get_fd(kernel->events)) ||
        !watch(*kernel, mnl_socket_get_fd(kernel->dumps)) || !watch(*kernel, kernel->due_fd)) {
        *error = error_text("a descriptor to poll");
        return nullptr;
    }
    set_due(*kernel, true);
    return kernel;
}

int netlink_kernel_fd(const netlink_kernel &kernel) { return kernel.poll_fd; }

int netlink_kernel_process(netlink_kernel &kernel, kernel_changes *changes, std::string *error)
{
    kernel_changes found;
    const bool was_due = kernel.is_due;
    if (!take_events(kernel, found, error) || !take_answers(kernel, found, error))
        return 1;
    if (was_due && kernel.reading == IDLE && !begin_reading(kernel)) {
        *error = error_text("asking for all");
        return 1;
    }
    ask_again(kernel, found);
    kernel_changes_add(*changes, found);
    return 0;
}

const kernel_state &netlink_kernel_state(const netlink_kernel &kernel) { return kernel.state; }

bool netlink_kernel_is_current(const netlink_kernel &kernel)
{
    return kernel.has_state && !kernel.is_due && kernel.reading == IDLE;
}

void netlink_kernel_read_again(netlink_kernel &kernel) { set_due(kernel, true); }

netlink_counts netlink_kernel_counts(const netlink_kernel &kernel) { return kernel.counts; }

void netlink_kernel_manage(netlink_kernel &kernel, int ifindex, std::uint32_t address)
{
    if (kernel.managed.insert({ifindex, address}).second)
        ask_for(kernel, {ifindex, address}, true);
}

void netlink_kernel_unmanage(netlink_kernel &kernel, int ifindex, std::uint32_t address)
{
    kernel.kept.erase({ifindex, address});
    if (kernel.managed.erase({ifindex, address}) != 0)
        ask_for(kernel, {ifindex, address}, false);
}

void netlink_kernel_use(netlink_kernel &kernel, int ifindex, std::uint32_t address)
{
    if (kernel.managed.count({ifindex, address}) == 0)
        ask_for(kernel, {ifindex, address}, false);
}

int netlink_kernel_set_rules(netlink_kernel &kernel, std::uint8_t protocol, const std::vector<kernel_rule> &wanted,
                             std::string *error)
{
    kernel_state found;
    if (!read_rules(kernel, found, error))
        return 1;
    int failure = 0;
    for (const kernel_rule &rule : wanted)
        if (std::find(found.rules.begin(), found.rules.end(), rule) == found.rules.end()) {
            const int code = change_rule(kernel, rule, true);
            failure = code == 0 || code == EEXIST ? failure : code;
        }
    for (const kernel_rule &rule : found.rules)
        if (rule.protocol == protocol && std::find(wanted.begin(), wanted.end(), rule) == wanted.end()) {
            const int code = change_rule(kernel, rule, false);
            failure = code == 0 || code == ENOENT ? failure : code;
        }
    if (failure != 0)
        *error = fmt::format("netlink: a rule of the card: {}", std::strerror(failure));
    return failure == 0 ? 0 : 1;
}
