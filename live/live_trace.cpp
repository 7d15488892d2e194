// live_trace.cpp - builds a packet, runs the program on it, asks the kernel, and compares.
#include "live_trace.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include "card_tool/address_text.h"
#include "route_table.h"

namespace
{
constexpr std::size_t ETH_BYTES = 14, IP_BYTES = 20, UDP_BYTES = 8;
constexpr std::uint8_t TTL = 64;
constexpr std::uint16_t FIRST_PORT = 33434;          // where traceroute begins
constexpr unsigned FLOWS = 16;                       // tried for a set of paths
constexpr std::uint32_t TEST_RANGE = 0xC6120001;     // 198.18.0.1
constexpr std::uint64_t SENDER_MAC = 0x010000000002; // 02:00:00:00:00:01

void put16(std::uint8_t *at, std::uint32_t value)
{
    at[0] = static_cast<std::uint8_t>(value >> 8);
    at[1] = static_cast<std::uint8_t>(value);
}
void put32(std::uint8_t *at, std::uint32_t value)
{
    put16(at, value >> 16);
    put16(at + 2, value);
}
void put_mac(std::uint8_t *at, std::uint64_t mac)
{
    for (unsigned n = 0; n < 6; ++n)
        at[n] = live_mac_byte(mac, n);
}

std::vector<std::uint8_t> frame_of(const kernel_packet &packet, std::uint64_t mac, std::uint16_t source_port)
{
    std::vector<std::uint8_t> frame(ETH_BYTES + IP_BYTES + UDP_BYTES);
    put_mac(frame.data(), mac);
    put_mac(frame.data() + 6, SENDER_MAC);
    put16(frame.data() + 12, 0x0800);
    std::uint8_t *const ip = frame.data() + ETH_BYTES;
    ip[0] = 0x45;
    put16(ip + 2, IP_BYTES + UDP_BYTES);
    ip[8] = TTL;
    ip[9] = IPPROTO_UDP;
    put32(ip + 12, packet.source);
    put32(ip + 16, packet.destination);
    std::uint32_t sum = 0;
    for (unsigned n = 0; n < IP_BYTES; n += 2)
        sum += static_cast<std::uint32_t>(ip[n] << 8 | ip[n + 1]);
    sum = (sum & 0xFFFF) + (sum >> 16);
    put16(ip + 10, ~(sum + (sum >> 16)));
    put16(ip + IP_BYTES, source_port);
    put16(ip + IP_BYTES + 2, FIRST_PORT);
    put16(ip + IP_BYTES + 4, UDP_BYTES); // without a checksum, which UDP allows
    return frame;
}

std::string mac_text(std::uint64_t mac)
{
    std::array<unsigned, 6> bytes;
    for (unsigned n = 0; n < bytes.size(); ++n)
        bytes[n] = live_mac_byte(mac, n);
    return fmt::format("{:02x}", fmt::join(bytes, ":"));
}

std::string link_text(const kernel_state &state, int ifindex)
{
    const auto link = state.links.find(ifindex);
    return link == state.links.end() ? fmt::format("device {}", ifindex) : link->second.name;
}

const char *type_text(std::uint8_t type)
{
    switch (type) {
    case RTN_LOCAL:
        return "delivered here";
    case RTN_BROADCAST:
        return "broadcast";
    case RTN_MULTICAST:
        return "multicast";
    case RTN_BLACKHOLE:
        return "dropped by a blackhole route";
    case RTN_UNREACHABLE:
        return "refused as unreachable";
    case RTN_PROHIBIT:
        return "refused as prohibited";
    default:
        return "another kind of route";
    }
}

std::string hop_text(const kernel_state &state, const kernel_hop &hop)
{
    const std::string link = link_text(state, hop.ifindex);
    return hop.gateway == 0 ? fmt::format("on {}", link) : fmt::format("{} on {}", address_text(hop.gateway), link);
}

std::string kernel_text(const kernel_state &state, const kernel_way &way)
{
    if (way.error != 0)
        return fmt::format("refused: {}", std::strerror(way.error));
    const std::string prefix = prefix_text(way.prefix.address, way.prefix.length);
    if (way.route.type != RTN_UNICAST)
        return fmt::format("{} ({})", type_text(way.route.type), prefix);
    std::vector<std::string> hops;
    hops.reserve(way.route.hops.size());
    for (const kernel_hop &hop : way.route.hops)
        hops.push_back(hop_text(state, hop));
    return fmt::format("{} by {}", fmt::join(hops, " or "), prefix);
}

std::uint64_t neighbour_of(const live_traced &t) { return live_mac(t.frame.data()); }

int device_of(const live_view &view, const live_traced &t)
{
    return static_cast<int>(live_maps_device(view.maps, t.trace.ifid));
}

std::string card_text(const live_view &view, const live_traced &t)
{
    if (t.trace.reason != LIVE_FORWARDED)
        return fmt::format("to the kernel: {}",
                           LIVE_REASON_NAMES[std::min<std::size_t>(t.trace.reason, LIVE_REASONS - 1)]);
    return fmt::format("{} to {}, encap {}", link_text(view.state, device_of(view, t)), mac_text(neighbour_of(t)),
                       t.trace.encap);
}

// Whether the kernel's route has a path by the link and to the neighbour that the program has taken.
bool is_a_path(const live_view &view, const live_traced &t)
{
    if (t.way.error != 0 || t.way.route.type != RTN_UNICAST)
        return false;
    const kernel_answer answer = kernel_routes_answer(view.state, {t.way.route});
    return std::any_of(answer.hops.begin(), answer.hops.end(), [&](const kernel_hop &hop) {
        const std::uint32_t next = hop.gateway == 0 ? t.packet.destination : hop.gateway;
        const auto neighbour = view.state.neighbours.find({hop.ifindex, next});
        return hop.ifindex == device_of(view, t) && neighbour != view.state.neighbours.end() &&
               neighbour->second.mac == neighbour_of(t);
    });
}

int run_program(const live_view &view, live_searched table, std::uint16_t source_port, live_traced *t, std::string *why)
{
    const auto ifindex = static_cast<std::uint32_t>(t->packet.ifindex);
    t->frame = frame_of(t->packet, live_maps_ingress(view.maps, ifindex).word & LIVE_MAC_MASK, source_port);
    if (live_maps_trace(view.maps, ifindex, t->frame, t->trace, *why, table) != 0)
        return 1;
    t->agrees = t->trace.reason != LIVE_FORWARDED || is_a_path(view, *t);
    t->card = card_text(view, *t);
    return 0;
}

std::vector<int> ports_of(const live_plan &plan, std::uint32_t ctx)
{
    std::vector<int> ports;
    for (const auto &[ifindex, port] : plan.ports)
        if (port.ctx == ctx && port.is_up)
            ports.push_back(ifindex);
    return ports;
}

// One address, by the first port that it does not leave by again.
int verify_address(const live_view &view, live_searched table, const std::vector<int> &ports, std::uint32_t address,
                   live_verify *verify, std::string *why)
{
    live_traced traced;
    for (const int ifindex : ports) {
        const kernel_packet packet = {live_trace_source(view.state, ifindex, view.plan.ports.at(ifindex)), address,
                                      ifindex};
        if (live_trace_packet(view, packet, table, &traced, why) != 0)
            return 1;
        if (traced.trace.reason != LIVE_SAME_PORT)
            break;
    }
    verify->forwarded += traced.trace.reason == LIVE_FORWARDED ? 1 : 0;
    for (unsigned flow = 1; flow < FLOWS && traced.agrees && (traced.trace.adjacency & ADJ_ECMP) != 0; ++flow)
        if (run_program(view, table, static_cast<std::uint16_t>(FIRST_PORT + flow), &traced, why) != 0)
            return 1;
    const auto covers = [address](const kernel_prefix &prefix) { return kernel_prefix_covers(prefix, address); };
    if (!traced.agrees && std::none_of(verify->given.begin(), verify->given.end(), covers))
        verify->differences.push_back(traced);
    return 0;
}

void add_boundaries(std::vector<std::uint32_t> &to, const kernel_prefix &prefix)
{
    const std::uint32_t last = kernel_prefix_last(prefix);
    for (const std::uint32_t address : {prefix.address - 1, prefix.address, last, last + 1}) // over both ends too
        if (!live_is_special(address))
            to.push_back(address);
}
} // namespace

std::uint32_t live_trace_source(const kernel_state &state, int ifindex, const live_plan_port &port)
{
    const auto is_own = [&state](std::uint32_t address) {
        return std::any_of(state.addresses.begin(), state.addresses.end(), [address](const auto &link) {
            return std::any_of(link.second.begin(), link.second.end(),
                               [address](const kernel_address &a) { return a.address == address; });
        });
    };
    if (port.length == 0) {
        const auto neighbour = state.neighbours.lower_bound({ifindex, 0});
        const bool is_there = neighbour != state.neighbours.end() && neighbour->first.first == ifindex;
        return is_there && !live_is_special(neighbour->first.second) ? neighbour->first.second : TEST_RANGE;
    }
    const kernel_prefix subnet = kernel_prefix_of(port.address, port.length);
    for (std::uint32_t address = subnet.address + 1; address < kernel_prefix_last(subnet); ++address)
        if (!is_own(address))
            return address;
    return TEST_RANGE;
}

int live_trace_packet(const live_view &view, const kernel_packet &packet, live_searched table, live_traced *traced,
                      std::string *why)
{
    *traced = {};
    traced->packet = packet;
    if (kernel_ask_way(view.ask, packet, &traced->way, why) != 0)
        return 1;
    traced->kernel = kernel_text(view.state, traced->way);
    return run_program(view, table, FIRST_PORT, traced, why);
}

live_verify live_verify_begin(const live_plan &plan, const kernel_state &state, std::uint32_t ctx,
                              std::vector<kernel_prefix> given)
{
    live_verify verify;
    verify.ctx = ctx;
    verify.given = std::move(given);
    const auto context = plan.contexts.find(ctx);
    if (context == plan.contexts.end())
        return verify;
    std::vector<std::uint32_t> &addresses = verify.addresses;
    for (const std::uint32_t table : context->second.tables)
        if (const auto routes = state.tables.find(table); routes != state.tables.end())
            for (const auto &[prefix, route] : routes->second.routes)
                add_boundaries(addresses, prefix);
    for (const auto &[prefix, route] : context->second.card.routes)
        add_boundaries(addresses, prefix);
    for (const auto &[address, host] : context->second.card.hosts)
        add_boundaries(addresses, kernel_prefix_of(address, 32));
    for (const kernel_prefix &prefix : context->second.own)
        add_boundaries(addresses, prefix);
    std::sort(addresses.begin(), addresses.end());
    addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
    return verify;
}

int live_verify_some(const live_view &view, live_searched table, std::size_t most, live_verify *verify,
                     std::string *why)
{
    const std::vector<int> ports = ports_of(view.plan, verify->ctx);
    const std::size_t end = std::min(verify->addresses.size(), verify->at + most);
    if (ports.empty())
        verify->at = end;
    for (; verify->at < end; ++verify->at)
        if (verify_address(view, table, ports, verify->addresses[verify->at], verify, why) != 0)
            return 1;
    return 0;
}
