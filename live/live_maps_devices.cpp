// live_maps_devices.cpp - what the kernel tells of a device's part in forwarding between packet programs.
//
// A frame that a native program sends to another device is handed to that device's driver, which has a function for it
// or has not, and has it only at times: a veth takes frames while its pair polls for them, other drivers while a native
// program of their own is attached. Without it the frame is lost, so it has to be known before one is sent.
// Always: a kernel that does not tell is taken for one whose drivers take none.
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <vector>

#include "live_maps.h"

namespace
{
// Of linux/netdev.h, which is younger than some kernels' headers.
constexpr const char *FAMILY = "netdev";
constexpr std::uint8_t COMMAND_GET = 1, VERSION = 1;
constexpr std::uint16_t DEVICE_IFINDEX = 1, DEVICE_XDP_FEATURES = 3;
constexpr std::uint64_t TAKES_FRAMES = 4; // NETDEV_XDP_ACT_NDO_XMIT

using bytes = std::span<const std::uint8_t>;

constexpr std::size_t NETLINK_HEAD = sizeof(nlmsghdr) + sizeof(genlmsghdr);
constexpr std::size_t padded(std::size_t length) { return (length + 3) & ~std::size_t{3}; }

struct request {
    nlmsghdr head;
    genlmsghdr command;
    nlattr attribute;
    char value[16]; // of the attribute
};
static_assert(offsetof(request, value) == NETLINK_HEAD + sizeof(nlattr));

// Sends one request with one attribute. Returns the first attribute `wanted` of the answer; empty when there is none.
std::vector<std::uint8_t> ask(int socket, std::uint16_t family, std::uint8_t command, std::uint16_t type, bytes value,
                              std::uint16_t wanted)
{
    request asked{};
    asked.attribute.nla_type = type;
    asked.attribute.nla_len = static_cast<std::uint16_t>(sizeof(nlattr) + value.size());
    std::memcpy(asked.value, value.data(), value.size());
    asked.command.cmd = command;
    asked.command.version = VERSION;
    asked.head.nlmsg_type = family;
    asked.head.nlmsg_flags = NLM_F_REQUEST;
    asked.head.nlmsg_len = static_cast<std::uint32_t>(offsetof(request, value) + padded(value.size()));
    std::uint8_t answer[8192];
    // The kernel has answered when the call returns.
    if (send(socket, &asked, asked.head.nlmsg_len, 0) < 0)
        return {};
    const ssize_t length = recv(socket, answer, sizeof answer, MSG_DONTWAIT);
    nlmsghdr head{};
    if (length < static_cast<ssize_t>(NETLINK_HEAD))
        return {};
    std::memcpy(&head, answer, sizeof head);
    if (head.nlmsg_type != family || head.nlmsg_len > static_cast<std::size_t>(length))
        return {};
    bytes rest = bytes(answer, head.nlmsg_len).subspan(NETLINK_HEAD);
    for (nlattr at{}; rest.size() >= sizeof at;) {
        std::memcpy(&at, rest.data(), sizeof at);
        if (at.nla_len < sizeof at || at.nla_len > rest.size())
            break;
        if ((at.nla_type & NLA_TYPE_MASK) == wanted)
            return {rest.begin() + sizeof at, rest.begin() + at.nla_len};
        rest = rest.subspan(std::min(padded(at.nla_len), rest.size()));
    }
    return {};
}

template <typename Number> std::optional<Number> number_of(const std::vector<std::uint8_t> &from)
{
    Number number{};
    if (from.size() != sizeof number)
        return std::nullopt;
    std::memcpy(&number, from.data(), sizeof number);
    return number;
}

template <typename Value> bytes bytes_of(const Value &value)
{
    return {reinterpret_cast<const std::uint8_t *>(&value), sizeof value};
}
} // namespace

bool live_maps_takes_frames(std::uint32_t ifindex)
{
    const int asked = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
    if (asked < 0)
        return false;
    const bytes name{reinterpret_cast<const std::uint8_t *>(FAMILY), std::strlen(FAMILY) + 1};
    const auto family = number_of<std::uint16_t>(
        ask(asked, GENL_ID_CTRL, CTRL_CMD_GETFAMILY, CTRL_ATTR_FAMILY_NAME, name, CTRL_ATTR_FAMILY_ID));
    std::optional<std::uint64_t> features;
    if (family)
        features = number_of<std::uint64_t>(
            ask(asked, *family, COMMAND_GET, DEVICE_IFINDEX, bytes_of(ifindex), DEVICE_XDP_FEATURES));
    (void)close(asked);
    return features && (*features & TAKES_FRAMES) != 0;
}
