// packet_card.cpp - maps, namespaces and sockets of the tests of the packet program.
#include "packet_card.h"

#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <linux/bpf.h>
#include <linux/ethtool.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

namespace harness
{
const std::string &packet_card_missing()
{
    static const std::string missing = [] {
        if (geteuid() != 0)
            return std::string("needs the superuser");
        const int map = bpf_map_create(BPF_MAP_TYPE_ARRAY, "test", 4, 4, 1, nullptr);
        if (map < 0)
            return std::string("the kernel takes no maps of programs: ") + std::strerror(errno);
        close(map);
        return std::string();
    }();
    return missing;
}

packet_card::packet_card(const std::string &folder)
{
    std::string why;
    if (live_maps_open(maps, folder, why) != 0) {
        ADD_FAILURE() << why;
        std::abort(); // nothing of the test can follow
    }
    live_maps_renew(maps);
}

void packet_card::take_table(unsigned table, const ixp_table &from)
{
    std::copy(from.words, from.words + HW_TABLE_BYTES / 4, live_maps_table(maps, table));
}

void packet_card::take(const model_card &card)
{
    std::string why;
    for (const auto &[ifid, port] : card.ports) {
        live_port given{ifid, port.ifindex, port.mac, port.ctx, port.mtu};
        if (port.bound && port.ifindex != 0) {
            EXPECT_EQ(live_maps_bind(maps, given, why), 0) << why;
        }
        if (port.ifindex == 0)
            given.ifindex = LOOPBACK; // taken back below: its word stays
        if (port.open) {
            EXPECT_EQ(live_maps_open_port(maps, given, why), 0) << why;
        }
        if (port.ifindex == 0)
            live_maps_remove_device(maps, ifid);
    }
    for (const auto &[encap, mac] : card.encaps)
        live_maps_set_encap(maps, encap, mac);
    for (std::uint32_t ctx = 0; ctx < LIVE_CONTEXTS; ++ctx)
        card.held.contains(ctx) ? live_maps_hold(maps, ctx) : live_maps_release(maps, ctx);
    live_maps_set_own_addresses(maps, std::vector<std::uint32_t>(card.own.begin(), card.own.end()));
}

int packet_card::run(frame_bytes &frame, std::uint32_t ifindex, std::uint32_t times) const
{
    xdp_md context{};
    context.data_end = static_cast<std::uint32_t>(frame.size());
    context.ingress_ifindex = ifindex;
    frame_bytes out(frame.size());
    bpf_test_run_opts run{};
    run.sz = sizeof run;
    run.data_in = frame.data();
    run.data_size_in = context.data_end;
    run.data_out = out.data();
    run.data_size_out = context.data_end;
    run.ctx_in = &context;
    run.ctx_size_in = sizeof context;
    run.repeat = static_cast<int>(times);
    if (bpf_prog_test_run_opts(live_maps_program(maps), &run) != 0)
        return -1;
    frame.assign(out.begin(), out.begin() + run.data_size_out);
    return static_cast<int>(run.retval);
}

live_trace packet_card::trace(frame_bytes &frame, std::uint32_t ifindex) const
{
    live_trace trace{};
    std::string why;
    EXPECT_EQ(live_maps_trace(maps, ifindex, frame, trace, why), 0) << why;
    return trace;
}

live_counters packet_card::counters(std::uint32_t ifid) const
{
    live_counters sum{};
    EXPECT_EQ(live_maps_counters(maps, ifid, sum), 0);
    return sum;
}

std::uint64_t packet_card::forwarded() const
{
    std::uint64_t sum = 0;
    for (std::uint32_t ifid = 0; ifid < LIVE_PORTS; ++ifid)
        sum += counters(ifid).reasons[LIVE_FORWARDED];
    return sum;
}

net_space::net_space() : before(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC))
{
    if (before < 0 || unshare(CLONE_NEWNET) != 0)
        ADD_FAILURE() << "a network namespace: " << std::strerror(errno);
    else
        command("ip link set lo up");
}

net_space::~net_space()
{
    EXPECT_EQ(setns(before, CLONE_NEWNET), 0);
    close(before);
}

void command(const std::string &line) { EXPECT_EQ(std::system(line.c_str()), 0) << line; }

std::uint32_t index_of(const std::string &device) { return if_nametoindex(device.c_str()); }

void set_gro(const std::string &device, bool is_on)
{
    ethtool_value value = {ETHTOOL_SGRO, is_on ? 1u : 0u};
    ifreq request{};
    device.copy(request.ifr_name, sizeof request.ifr_name - 1);
    request.ifr_data = reinterpret_cast<char *>(&value);
    const int asked = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(ioctl(asked, SIOCETHTOOL, &request), 0) << device;
    close(asked);
}

std::uint64_t mac_of_device(const std::string &device)
{
    const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    device.copy(request.ifr_name, IFNAMSIZ - 1);
    EXPECT_EQ(ioctl(s, SIOCGIFHWADDR, &request), 0) << device;
    close(s);
    std::uint8_t bytes[6];
    std::memcpy(bytes, request.ifr_hwaddr.sa_data, sizeof bytes);
    return live_mac(bytes);
}

frame_socket::frame_socket(const std::string &device)
    : descriptor(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP)))
{
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(ETH_P_IP);
    at.sll_ifindex = static_cast<int>(index_of(device));
    constexpr int ROOM = 8 << 20, YES = 1;
    EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr *>(&at), sizeof at), 0) << device;
    EXPECT_EQ(setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &ROOM, sizeof ROOM), 0);
    EXPECT_EQ(setsockopt(descriptor, SOL_PACKET, PACKET_IGNORE_OUTGOING, &YES, sizeof YES), 0);
}

frame_socket::~frame_socket() { close(descriptor); }

void frame_socket::send(const frame_bytes &frame) const
{
    EXPECT_EQ(::send(descriptor, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()))
        << std::strerror(errno);
}

frame_bytes frame_socket::receive(int wait_ms) const
{
    pollfd waiting{descriptor, POLLIN, 0};
    if (poll(&waiting, 1, wait_ms) <= 0)
        return {};
    frame_bytes frame(65536);
    const ssize_t bytes = recv(descriptor, frame.data(), frame.size(), 0);
    frame.resize(bytes > 0 ? static_cast<std::size_t>(bytes) : 0);
    return frame;
}
} // namespace harness
