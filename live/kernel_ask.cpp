// kernel_ask.cpp - one request, one answer: the route that a packet matches, or the error that it meets.
#include "kernel_ask.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include "netlink_decode.h"

struct kernel_ask {
    mnl_socket *socket = nullptr;
    std::uint32_t sequence = 0;
};

namespace
{
constexpr std::size_t BUFFER_BYTES = 16 * 1024; // a route of many paths
constexpr unsigned ADDRESS_BITS = 32;

// The number of a table over 255 is an attribute.
int take_table(const nlattr *attribute, void *table)
{
    if (mnl_attr_get_type(attribute) == RTA_TABLE && mnl_attr_validate(attribute, MNL_TYPE_U32) == 0)
        *static_cast<std::uint32_t *>(table) = mnl_attr_get_u32(attribute);
    return MNL_CB_OK;
}

// The answer, taken as news of a state that has nothing but the table that it names.
int take_route(const nlmsghdr *message, kernel_way *way)
{
    if (message->nlmsg_len < mnl_nlmsg_size(sizeof(rtmsg)))
        return 1;
    const auto *const head = static_cast<const rtmsg *>(mnl_nlmsg_get_payload(message));
    way->table = head->rtm_table;
    (void)mnl_attr_parse(message, sizeof(rtmsg), take_table, &way->table);
    kernel_state state;
    kernel_table &table = state.tables[way->table];
    netlink_news news;
    netlink_decode({reinterpret_cast<const std::uint8_t *>(message), message->nlmsg_len}, state, news);
    if (table.routes.size() != 1 || table.routes.begin()->second.size() != 1)
        return 1;
    way->prefix = table.routes.begin()->first;
    way->route = table.routes.begin()->second[0];
    return 0;
}
} // namespace

void kernel_ask_close::operator()(kernel_ask *ask) const
{
    (void)mnl_socket_close(ask->socket);
    delete ask;
}

kernel_ask_ptr kernel_ask_open()
{
    mnl_socket *const socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (socket == nullptr)
        return nullptr;
    kernel_ask_ptr ask(new kernel_ask{socket});
    return mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) == 0 ? std::move(ask) : nullptr;
}

int kernel_ask_way(kernel_ask &ask, const kernel_packet &packet, kernel_way *way, std::string *why)
{
    alignas(nlmsghdr) std::array<char, BUFFER_BYTES> buffer = {};
    nlmsghdr *const request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = RTM_GETROUTE;
    request->nlmsg_flags = NLM_F_REQUEST;
    request->nlmsg_seq = ++ask.sequence;
    auto *const head = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    head->rtm_family = AF_INET;
    head->rtm_dst_len = head->rtm_src_len = ADDRESS_BITS;
    head->rtm_flags = RTM_F_FIB_MATCH; // the route itself, with all its paths
    mnl_attr_put_u32(request, RTA_DST, htonl(packet.destination));
    mnl_attr_put_u32(request, RTA_SRC, htonl(packet.source));
    mnl_attr_put_u32(request, RTA_IIF, static_cast<std::uint32_t>(packet.ifindex));
    if (mnl_socket_sendto(ask.socket, request, request->nlmsg_len) < 0) {
        *why = fmt::format("asking the kernel for a route: {}", std::strerror(errno));
        return 1;
    }
    *way = {};
    for (;;) {
        const ssize_t length = mnl_socket_recvfrom(ask.socket, buffer.data(), buffer.size());
        if (length < 0) {
            *why = fmt::format("the kernel's answer for a route: {}", std::strerror(errno));
            return 1;
        }
        const auto *const answer = reinterpret_cast<const nlmsghdr *>(buffer.data());
        if (!mnl_nlmsg_ok(answer, static_cast<int>(length)) || answer->nlmsg_seq != ask.sequence)
            continue;
        if (answer->nlmsg_type == NLMSG_ERROR && answer->nlmsg_len >= mnl_nlmsg_size(sizeof(nlmsgerr))) {
            way->error = -static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(answer))->error;
            return 0;
        }
        if (answer->nlmsg_type == RTM_NEWROUTE && take_route(answer, way) == 0)
            return 0;
        *why = "the kernel's answer for a route cannot be read";
        return 1;
    }
}
