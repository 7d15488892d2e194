// kernel_bypass.cpp - asks for chains, queues and settings.
#include "kernel_bypass.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <string_view>

#include <netinet/in.h> // before the kernel's headers, which then leave out what it has

#include <fmt/format.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/rtnetlink.h>

namespace
{
constexpr std::size_t BUFFER_BYTES = 32 * 1024;

// Queues that send what comes, without shaping or dropping by rule.
constexpr std::string_view PLAIN_QUEUES[] = {"noqueue", "mq", "pfifo_fast", "pfifo", "fq_codel", "fq"};

using take_message = std::function<void(const nlmsghdr &message)>;

int take(const nlmsghdr *message, void *taker)
{
    (*static_cast<take_message *>(taker))(*message);
    return MNL_CB_OK;
}

// Asks for all of a kind. Returns 0, or an error number.
int dump(int bus, std::uint16_t type, const void *head, std::size_t head_bytes, take_message taker)
{
    mnl_socket *const socket = mnl_socket_open2(bus, SOCK_CLOEXEC);
    if (socket == nullptr)
        return errno;
    alignas(nlmsghdr) std::array<char, BUFFER_BYTES> buffer = {};
    nlmsghdr *const request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = type;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request->nlmsg_seq = 1;
    std::memcpy(mnl_nlmsg_put_extra_header(request, head_bytes), head, head_bytes);
    int error = mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) != 0 ||
                        mnl_socket_sendto(socket, request, request->nlmsg_len) < 0
                    ? errno
                    : 0;
    for (int more = MNL_CB_OK; error == 0 && more > MNL_CB_STOP;) {
        const ssize_t length = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
        more = length < 0 ? MNL_CB_ERROR
                          : mnl_cb_run(buffer.data(), static_cast<std::size_t>(length), 1,
                                       mnl_socket_get_portid(socket), take, &taker);
        if (more < 0)
            error = errno;
    }
    (void)mnl_socket_close(socket);
    return error;
}

struct attributes {
    std::map<int, const nlattr *> by_type;
};
int take_attribute(const nlattr *attribute, void *to)
{
    static_cast<attributes *>(to)->by_type[mnl_attr_get_type(attribute)] = attribute;
    return MNL_CB_OK;
}
std::string text_of(const attributes &from, int type)
{
    const auto found = from.by_type.find(type);
    if (found == from.by_type.end())
        return "";
    const char *const text = mnl_attr_get_str(found->second);
    return {text, strnlen(text, mnl_attr_get_payload_len(found->second))};
}

void find_chains(std::vector<std::string> &found)
{
    const nfgenmsg head = {NFPROTO_UNSPEC, NFNETLINK_V0, 0};
    constexpr std::uint16_t CHAINS = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETCHAIN;
    const int error = dump(NETLINK_NETFILTER, CHAINS, &head, sizeof head, [&found](const nlmsghdr &message) {
        const auto *const family = static_cast<const nfgenmsg *>(mnl_nlmsg_get_payload(&message));
        const std::uint8_t of = family->nfgen_family;
        attributes chain, hook;
        (void)mnl_attr_parse(&message, sizeof(nfgenmsg), take_attribute, &chain);
        const auto hooked = chain.by_type.find(NFTA_CHAIN_HOOK);
        if (hooked == chain.by_type.end() || (of != NFPROTO_IPV4 && of != NFPROTO_INET && of != NFPROTO_NETDEV))
            return;
        (void)mnl_attr_parse_nested(hooked->second, take_attribute, &hook);
        const auto number = hook.by_type.find(NFTA_HOOK_HOOKNUM);
        const std::uint32_t at = number == hook.by_type.end() ? 0 : ntohl(mnl_attr_get_u32(number->second));
        if (of == NFPROTO_NETDEV || (at != NF_INET_LOCAL_IN && at != NF_INET_LOCAL_OUT))
            found.push_back(fmt::format("netfilter: chain {} of table {}", text_of(chain, NFTA_CHAIN_NAME),
                                        text_of(chain, NFTA_CHAIN_TABLE)));
    });
    if (error != 0 && error != EOPNOTSUPP && error != EPROTONOSUPPORT && error != EINVAL) // a kernel without it
        found.push_back(fmt::format("netfilter cannot be asked: {}", std::strerror(error)));
}

void find_queues(const std::map<int, std::string> &ports, std::vector<std::string> &found)
{
    const tcmsg head = {};
    const int error = dump(NETLINK_ROUTE, RTM_GETQDISC, &head, sizeof head, [&](const nlmsghdr &message) {
        const auto *const queue = static_cast<const tcmsg *>(mnl_nlmsg_get_payload(&message));
        const auto port = ports.find(queue->tcm_ifindex);
        attributes all;
        (void)mnl_attr_parse(&message, sizeof(tcmsg), take_attribute, &all);
        const std::string kind = text_of(all, TCA_KIND);
        const bool is_plain =
            std::find(std::begin(PLAIN_QUEUES), std::end(PLAIN_QUEUES), kind) != std::end(PLAIN_QUEUES);
        if (port != ports.end() && !is_plain)
            found.push_back(fmt::format("traffic control: {} on {}", kind, port->second));
    });
    if (error != 0)
        found.push_back(fmt::format("traffic control cannot be asked: {}", std::strerror(error)));
}

int setting(const std::string &link)
{
    std::ifstream file("/proc/sys/net/ipv4/conf/" + link + "/rp_filter");
    int value = 0;
    return file >> value ? value : 0;
}

void find_filters(const std::map<int, std::string> &ports, std::vector<std::string> &found)
{
    for (const auto &[ifindex, name] : ports)
        if (std::max(setting("all"), setting(name)) != 0)
            found.push_back(fmt::format("rp_filter of {}", name));
}
} // namespace

std::vector<std::string> kernel_bypass_find(const std::map<int, std::string> &ports)
{
    std::vector<std::string> found;
    find_chains(found);
    find_queues(ports, found);
    find_filters(ports, found);
    return found;
}
