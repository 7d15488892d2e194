// kernel_space.cpp - namespaces, commands and questions of the tests that follow a kernel.
#include "kernel_space.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include "card_tool/address_text.h"

namespace harness
{
namespace
{
constexpr auto PATIENCE = std::chrono::seconds(60);

int own_space() { return open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC); }

void write_setting(const std::string &name, const std::string &value)
{
    const int fd = open(("/proc/sys/net/ipv4/" + name).c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(write(fd, value.data(), value.size()), static_cast<ssize_t>(value.size())) << name;
    (void)close(fd);
}

std::string first_difference(const kernel_state &a, const kernel_state &b)
{
    const kernel_changes changes = kernel_state_difference(a, b);
    std::string text;
    for (const int link : changes.links)
        text += " link " + std::to_string(link);
    for (const auto &[ifindex, address] : changes.neighbours)
        text += " neighbour " + address_text(address) + " at " + std::to_string(ifindex);
    const auto routes_in = [](const kernel_state &state, std::uint32_t table, const kernel_prefix &prefix) {
        const auto *const found = kernel_table_find(state.tables.at(table), prefix);
        return found == nullptr ? std::string("none") : shown(*found);
    };
    for (const auto &[table, prefix] : changes.routes)
        text += "\n table " + std::to_string(table) + " " + prefix_text(prefix.address, prefix.length) + " " +
                routes_in(a, table, prefix) + " and not " + routes_in(b, table, prefix);
    return text + (changes.rules ? " rules" : "");
}
} // namespace

const std::string &kernel_space_missing()
{
    static const std::string missing = [] {
        if (std::system("ip -V >/dev/null 2>&1") != 0)
            return std::string("ip is missing (package iproute2)");
        const int before = own_space();
        if (unshare(CLONE_NEWNET) != 0)
            return std::string("no network namespace: ") + std::strerror(errno);
        const bool has_veth = try_run("ip link add name veth1 type veth peer name veth2");
        EXPECT_EQ(setns(before, CLONE_NEWNET), 0);
        (void)close(before);
        return std::string(has_veth ? "" : "the kernel has no veth links");
    }();
    return missing;
}

kernel_space::kernel_space() : before(own_space())
{
    EXPECT_EQ(unshare(CLONE_NEWNET), 0);
    other = own_space();
    EXPECT_EQ(unshare(CLONE_NEWNET), 0);
    here = own_space();
    run("ip link set lo up");
    write_setting("ip_forward", "1");
    const std::string theirs = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(other);
    for (const char *const name : {"eth1", "eth2", "eth3", "eth4"}) {
        run(std::string("ip link add ") + name + " type veth peer name " + name + " netns " + theirs);
        run(std::string("ip link set ") + name + " up");
        there(std::string("ip link set ") + name + " up");
    }
}

kernel_space::~kernel_space()
{
    EXPECT_EQ(setns(before, CLONE_NEWNET), 0);
    for (const int fd : {before, here, other})
        (void)close(fd);
}

void kernel_space::there(const std::string &line) const
{
    EXPECT_EQ(setns(other, CLONE_NEWNET), 0);
    run(line);
    EXPECT_EQ(setns(here, CLONE_NEWNET), 0);
}

void run(const std::string &line) { EXPECT_EQ(std::system(line.c_str()), 0) << line; }
bool try_run(const std::string &line) { return std::system((line + " >/dev/null 2>&1").c_str()) == 0; }
int index_of_link(const std::string &name) { return static_cast<int>(if_nametoindex(name.c_str())); }

kernel_way kernel_way_of(const std::string &link, std::uint32_t source, std::uint32_t address, std::uint8_t tos)
{
    mnl_socket *const socket = mnl_socket_open(NETLINK_ROUTE);
    EXPECT_EQ(mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID), 0);
    alignas(nlmsghdr) char buffer[8192] = {};
    nlmsghdr *const question = mnl_nlmsg_put_header(buffer);
    question->nlmsg_type = RTM_GETROUTE;
    question->nlmsg_flags = NLM_F_REQUEST;
    auto *const head = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(question, sizeof(rtmsg)));
    head->rtm_family = AF_INET;
    head->rtm_dst_len = head->rtm_src_len = 32;
    head->rtm_tos = tos;
    mnl_attr_put_u32(question, RTA_DST, htonl(address));
    mnl_attr_put_u32(question, RTA_SRC, htonl(source));
    mnl_attr_put_u32(question, RTA_IIF, static_cast<std::uint32_t>(index_of_link(link)));
    EXPECT_GT(mnl_socket_sendto(socket, question, question->nlmsg_len), 0);
    const ssize_t length = mnl_socket_recvfrom(socket, buffer, sizeof buffer);
    (void)mnl_socket_close(socket);
    kernel_way way;
    const auto *const answer = reinterpret_cast<const nlmsghdr *>(buffer);
    if (length <= 0 || answer->nlmsg_type != RTM_NEWROUTE)
        return way;
    const auto *const found = static_cast<const rtmsg *>(mnl_nlmsg_get_payload(answer));
    way.is_forwarded = found->rtm_type == RTN_UNICAST;
    way.neighbour = address;
    (void)mnl_attr_parse(
        answer, sizeof(rtmsg),
        [](const nlattr *attribute, void *to) {
            auto &of = *static_cast<kernel_way *>(to);
            if (mnl_attr_get_type(attribute) == RTA_GATEWAY)
                of.neighbour = ntohl(mnl_attr_get_u32(attribute));
            else if (mnl_attr_get_type(attribute) == RTA_OIF)
                of.ifindex = static_cast<int>(mnl_attr_get_u32(attribute));
            return MNL_CB_OK;
        },
        &way);
    return way;
}

kernel_follower::kernel_follower(const std::set<std::uint32_t> &tables)
{
    std::string error;
    kernel = netlink_kernel_open(tables, &error);
    if (kernel == nullptr) {
        ADD_FAILURE() << error;
        std::abort(); // nothing of the test can follow
    }
    until("the first reading", [this] { return netlink_kernel_is_current(*kernel); });
}

void kernel_follower::until(const std::string &what, const std::function<bool()> &is_so)
{
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (!is_so()) {
        if (std::chrono::steady_clock::now() > end) {
            ADD_FAILURE() << "not in a minute: " << what;
            return;
        }
        pollfd ready = {netlink_kernel_fd(*kernel), POLLIN, 0};
        (void)poll(&ready, 1, 20); // a predicate may also look elsewhere
        std::string error;
        if (netlink_kernel_process(*kernel, &changes, &error) != 0) {
            ADD_FAILURE() << error;
            return;
        }
    }
}

void kernel_follower::until_as_fresh()
{
    std::string difference;
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    for (;;) {
        std::set<std::uint32_t> tables;
        for (const auto &[id, table] : state().tables)
            tables.insert(id);
        const kernel_follower fresh(tables);
        std::string error;
        pollfd ready = {netlink_kernel_fd(*kernel), POLLIN, 0};
        while (poll(&ready, 1, 0) == 1)
            ASSERT_EQ(netlink_kernel_process(*kernel, &changes, &error), 0) << error;
        if (state() == fresh.state() && netlink_kernel_is_current(*kernel))
            return;
        difference = first_difference(state(), fresh.state());
        ASSERT_LT(std::chrono::steady_clock::now().time_since_epoch().count(), end.time_since_epoch().count())
            << "not as it is read:" << difference;
    }
}
} // namespace harness
