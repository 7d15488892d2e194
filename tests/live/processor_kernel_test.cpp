// processor_kernel_test.cpp - what the program sends on is what the kernel would have sent on, byte for byte.
//
// In a namespace of its own the kernel has the routes, neighbours and addresses that the card's table has. Each packet
// goes into a0 for real, with no program attached, and is run through the program as if it had come in there. What the
// kernel sends out by the other ports judges: a packet that the program sends on must come out, once, there, and with
// these bytes. One that it leaves to the kernel needs no judging.
#include <algorithm>
#include <fstream>
#include <random>

#include <sched.h>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "packet_card.h"
#include "prefix_mgr.h"
#include "rib_table.h"
#include "route_entry.h"
#include "route_listing.h"

using namespace harness;

namespace
{
constexpr std::uint32_t IN_PORT = 5, FIRST_OUT = 6, OUT_PORTS = 2, CONTEXT = 0;
constexpr std::uint16_t MTUS[] = {1500, 600};
constexpr int SOON_MS = 5000;

struct via {
    std::uint32_t port, host; // of OUT_PORTS; last byte of the gateway
};
struct kernel_route {
    const char *prefix;
    std::uint32_t address, len;
    std::vector<via> paths;
};
const kernel_route ROUTES[] = {
    {"20.0.0.0/8", 0x14000000, 8, {{0, 2}}},         {"20.1.0.0/16", 0x14010000, 16, {{1, 2}}},
    {"20.1.2.0/24", 0x14010200, 24, {{0, 3}}},       {"20.1.2.3/32", 0x14010203, 32, {{1, 3}}},
    {"30.0.0.0/8", 0x1E000000, 8, {{0, 2}, {1, 2}}}, {"40.0.0.0/7", 0x28000000, 7, {{1, 3}}},
    {"99.0.0.0/8", 0x63000000, 8, {{0, 2}, {0, 3}}}, {"200.0.0.0/5", 0xC8000000, 5, {{0, 3}}},
};

std::string gateway(const via &path)
{
    return "10.0." + std::to_string(path.port + 1) + "." + std::to_string(path.host);
}
std::string out_device(std::uint32_t port) { return "b" + std::to_string(port) + "x0"; }
std::string out_peer(std::uint32_t port) { return "b" + std::to_string(port) + "x1"; }
std::uint8_t host_mac(const via &path) { return static_cast<std::uint8_t>(0x90 + 4 * path.port + path.host); }
std::uint32_t encap_of(const via &path) { return 100 + 10 * path.port + path.host; }

void setting(const std::string &name, int value)
{
    std::ofstream file("/proc/sys/net/ipv4/" + name);
    file << value << std::flush;
    EXPECT_TRUE(file.good()) << name;
}

void make_device(const std::string &device, const std::string &peer, const std::string &address, unsigned mtu)
{
    command("ip link add " + device + " mtu " + std::to_string(mtu) + " type veth peer name " + peer + " mtu " +
            std::to_string(mtu));
    // The peers are wires: what they receive is for a station that they are not, and they answer nothing.
    for (const std::string &each : {device, peer}) {
        setting("conf/" + each + "/rp_filter", 0);
        command("ip link set " + each + " up");
    }
    setting("conf/" + peer + "/arp_ignore", 8);
    command("ip addr add " + address + " dev " + device);
}

struct kernel : testing::Test {
    std::mt19937 random{13};
    model_card model;
    void SetUp() override
    {
        if (!packet_card_missing().empty())
            GTEST_SKIP() << packet_card_missing();
    }
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); }

    void make_kernel()
    {
        for (const char *name : {"ip_forward", "conf/all/forwarding"})
            setting(name, 1);
        setting("conf/all/rp_filter", 0);
        make_device("a0", "a1", "10.0.9.1/24", 1500);
        command("ip neigh add 10.0.9.2 lladdr 22:22:22:22:22:02 dev a0");
        for (std::uint32_t port = 0; port < OUT_PORTS; ++port)
            make_device(out_device(port), out_peer(port), "10.0." + std::to_string(port + 1) + ".1/24", MTUS[port]);
        for (const kernel_route &route : ROUTES) {
            std::string line = std::string("ip route add ") + route.prefix;
            for (const via &path : route.paths)
                line += (route.paths.size() > 1 ? " nexthop via " : " via ") + gateway(path);
            command(line);
        }
        command("ip route add 50.0.0.0/8 via 10.0.9.2"); // out by the port that they came in by
        for (std::uint32_t port = 0; port < OUT_PORTS; ++port)
            for (const std::uint32_t host : {2u, 3u}) {
                char mac[18];
                std::snprintf(mac, sizeof mac, "02:00:00:00:00:%02x", unsigned{host_mac({port, host})});
                command("ip neigh add " + gateway({port, host}) + " lladdr " + mac + " dev " + out_device(port));
            }
    }

    // The same on the card.
    void add(std::uint32_t address, std::uint32_t len, std::uint32_t ifid, std::uint32_t encap, unsigned flags)
    {
        route_entry entry{};
        entry.prefix = address;
        entry.len = len;
        entry.ifid = static_cast<std::uint16_t>(ifid);
        entry.encap_id = encap;
        entry.flags = static_cast<std::uint16_t>(flags);
        EXPECT_NE(prefix_mgr_route_add(wired_table_mgr, &entry), 0u);
    }
    void make_card(packet_card &card, fake_card &manager)
    {
        ASSERT_EQ(manager.start_tables(), 0);
        for (const kernel_route &route : ROUTES)
            for (std::size_t i = 0; i < route.paths.size(); ++i)
                add(route.address, route.len, FIRST_OUT + route.paths[i].port, encap_of(route.paths[i]),
                    i == 0 ? 0u : unsigned{RIB_F_ECMP});
        add(0x32000000, 8, IN_PORT, 99, 0);
        model.encaps[99] = 0x022222222222;
        model.ports[IN_PORT] = {index_of("a0"), mac_of_device("a0"), CONTEXT, 1500};
        model.own = {0x0A000901, 0x0A000101, 0x0A000201, 0x7F000001};
        for (const std::uint32_t own : model.own)
            add(own, 32, IN_PORT, LIVE_ENCAP_OWN, 0);
        for (std::uint32_t port = 0; port < OUT_PORTS; ++port) {
            add(0x0A000000 | (port + 1) << 8, 24, FIRST_OUT + port, 0x9000, 0);
            model.ports[FIRST_OUT + port] = {index_of(out_device(port)), mac_of_device(out_device(port)), CONTEXT,
                                             MTUS[port]};
            for (const std::uint32_t host : {2u, 3u})
                model.encaps[encap_of({port, host})] = mac_of(host_mac({port, host}));
        }
        const np_table table = manager.table(1);
        model.table = {table.words, table.base};
        card.take(model);
        card.take_table(0, model.table);
        live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
    }

    frame_bytes random_packet()
    {
        constexpr std::uint32_t SOURCES[] = {0x0A000902, 0x0A000A0A, 0xC0A80101, 0x08080808, 0x0A000901, 0x0A000102,
                                             0x00010203, 0x7F000002, 0xE0000001, 0xF0000001, 0xFFFFFFFF, 0};
        constexpr std::uint8_t PROTOCOLS[] = {1, 6, 17, 47, 132};
        packet_form form;
        form.to = model.ports.at(IN_PORT).mac;
        form.source = below(4) == 0 ? SOURCES[below(12)] : 0x0A000902;
        const kernel_route &route = ROUTES[below(static_cast<std::uint32_t>(std::size(ROUTES)))];
        form.destination = below(16) == 0 ? static_cast<std::uint32_t>(random())
                           : below(16) == 0
                               ? 0x32000001
                               : route.address + (below(2) == 0 ? below(4) : below(1u << (32 - route.len)));
        form.ttl = static_cast<std::uint8_t>(below(8) == 0 ? below(4) : 1 + below(255));
        form.protocol = PROTOCOLS[below(5)];
        form.id = static_cast<std::uint16_t>(random());
        form.source_port = static_cast<std::uint16_t>(random());
        form.fragment = static_cast<std::uint16_t>(below(4) == 0 ? random() : below(2) << 14);
        form.payload_bytes = static_cast<std::uint16_t>(below(3) == 0 ? below(1480) : below(60));
        form.trailing_bytes = static_cast<std::uint16_t>(below(3) == 0 && form.payload_bytes < 1400 ? below(60) : 0);
        frame_bytes frame = packet_of(form);
        if (below(5) == 0)
            break_packet(frame);
        return frame;
    }

    void break_packet(frame_bytes &frame)
    {
        const std::uint8_t byte = static_cast<std::uint8_t>(random());
        switch (below(6)) {
        case 0: // any byte of the IP header, with its checksum wrong
            frame[14 + below(20)] = byte;
            break;
        case 1: // and with it right
            frame[14 + below(20)] = byte;
            packet_fix_checksum(frame);
            break;
        case 2:
            frame[14] = static_cast<std::uint8_t>(0x40 | below(16));
            packet_fix_checksum(frame);
            break;
        case 3: // a length a little wrong
            frame[17] = static_cast<std::uint8_t>(frame[17] + below(9) - 4);
            packet_fix_checksum(frame);
            break;
        case 4: // cut
            frame.resize(14 + below(static_cast<std::uint32_t>(frame.size()) - 13));
            break;
        default: // a checksum of all ones or none
            frame[24] = frame[25] = below(2) == 0 ? 0 : 0xFF;
        }
    }
};

// A packet behind the judged one, on each way out: when it is there, all that the kernel had to send before it is.
frame_bytes marker(std::uint64_t to, std::uint32_t port)
{
    packet_form form;
    form.to = to;
    form.source = 0x0A000977;
    form.destination = port == 0 ? 0x14FFFFFF : 0x1401FFFF; // by 20.0.0.0/8 and by 20.1.0.0/16
    form.protocol = 254;
    return packet_of(form);
}
bool is_marker(const frame_bytes &frame) { return frame.size() > 34 && frame[23] == 254; }

struct wires {
    frame_socket in{"a1"}, out[OUT_PORTS] = {frame_socket(out_peer(0)), frame_socket(out_peer(1))};

    // What the kernel makes of the packet: frames by way out.
    std::vector<frame_bytes> kernel_sends(std::uint64_t to, const frame_bytes &frame, std::vector<std::uint32_t> &ports)
    {
        std::vector<frame_bytes> frames;
        in.send(frame);
        for (std::uint32_t port = 0; port < OUT_PORTS; ++port)
            in.send(marker(to, port));
        for (std::uint32_t port = 0; port < OUT_PORTS; ++port)
            for (;;) {
                frame_bytes seen = out[port].receive(SOON_MS);
                EXPECT_FALSE(seen.empty()) << "the kernel does not forward";
                if (seen.empty() || is_marker(seen))
                    break;
                frames.push_back(seen);
                ports.push_back(port);
            }
        return frames;
    }
};

// The kernel chooses among equal paths as it likes: then the frames agree but for their stations.
frame_bytes without_stations(const frame_bytes &frame) { return {frame.begin() + 12, frame.end()}; }
} // namespace

TEST_F(kernel, would_have_sent_what_the_program_sends)
{
    cpu_set_t before, one; // so that packets are taken in the order in which they are sent
    sched_getaffinity(0, sizeof before, &before);
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof one, &one);
    const net_space space;
    make_kernel();
    fake_card manager(2);
    packet_card card;
    make_card(card, manager);
    wires all;

    std::uint64_t sent_on = 0, several = 0, left = 0, both = 0;
    for (unsigned i = 0; i < 20'000 && !HasFailure(); ++i) {
        const frame_bytes packet = random_packet();
        frame_bytes frame = packet;
        live_maps_renew(card.maps);
        const live_trace trace = card.trace(frame, index_of("a0"));
        std::vector<std::uint32_t> ports;
        const std::vector<frame_bytes> frames = all.kernel_sends(model.ports.at(IN_PORT).mac, packet, ports);
        if (trace.reason != LIVE_FORWARDED) {
            ++left;
            both += frames.empty() ? 0u : 1u;
            continue;
        }
        const bool has_choice = (trace.adjacency & ADJ_ECMP) != 0;
        if (has_choice && frame.size() > 14u + *std::min_element(std::begin(MTUS), std::end(MTUS)))
            continue; // the kernel's way may be one on which it is too long
        ++sent_on;
        ASSERT_EQ(frames.size(), 1u) << "of packet " << i << ": " << testing::PrintToString(packet);
        if (has_choice) {
            ++several;
            EXPECT_EQ(without_stations(frame), without_stations(frames[0]));
            continue;
        }
        EXPECT_EQ(frame, frames[0]);
        EXPECT_EQ(trace.ifid, FIRST_OUT + ports[0]);
    }
    EXPECT_GT(sent_on, 8000u);
    EXPECT_GT(several, 1000u);
    EXPECT_GT(left, 3000u);
    EXPECT_GT(both, 100u); // slow, not lost: too long, with options
    sched_setaffinity(0, sizeof before, &before);
}
