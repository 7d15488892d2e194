// live_bench.cpp - the packet program of a live card beside the same program with the kernel's lookups.
//
// In a network namespace of the benchmark's own, the kernel has 490 routes over 64 neighbours; the
// card's table, made by the route manager's own code, and a longest-prefix trie of the kernel have the same. What
// differs is only how a packet's way is found: by the card's walk, by bpf_fib_lookup, by a lookup in the trie. All
// three answer alike, byte for byte, before any is timed.
// The program runs without a device (BPF_PROG_TEST_RUN), each time on the next of 16384 packets. What it takes to make
// the next packet is measured alone and taken off every side.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/bpf.h>
#include <net/if.h>
#include <sched.h>
#include <sys/mman.h>

#include "bench.h"
#include "bench_card.h"
#include "bench_mix.h"
#include "live_set.h"
#include "norvik_mtrie_hw.h"
#include "prefix_mgr.h"
#include "rib_table.h"
#include "route_table.h"

namespace
{
constexpr std::uint32_t PREFIXES = 490, GATEWAYS = 64, IN_PORT = 5, OUT_PORT = 6, TREE = 0;
constexpr std::uint64_t AN_HOUR_NS = 3'600'000'000'000, HOST_MAC = 0x000100000002;
constexpr bench_clock CPU = bench_clock::cpu;

std::uint32_t gateway_of(const peer_route &r) { return r.value % GATEWAYS; }
std::uint64_t gateway_mac(std::uint32_t gateway) { return HOST_MAC | std::uint64_t{gateway} << 40; }
std::string gateway_address(std::uint32_t gateway)
{
    return "192.168." + std::to_string(OUT_PORT) + "." + std::to_string(10 + gateway);
}
std::string dotted(std::uint32_t address)
{
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 255) + "." +
           std::to_string(address >> 8 & 255) + "." + std::to_string(address & 255);
}

// Two veth pairs, routes and neighbours, in a namespace that ends with this process.
void make_kernel(live_set &set)
{
    bench_require(unshare(CLONE_NEWNET) == 0, "a network namespace");
    std::ofstream("/proc/sys/net/ipv4/ip_forward") << 1 << std::flush;
    // No packets but ours: a device that comes up would look for routers.
    std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 1 << std::flush;
    const std::string batch = bench_card_file("ip.batch");
    std::ofstream lines(batch);
    for (const std::uint32_t port : {IN_PORT, OUT_PORT}) {
        const std::string name = "p" + std::to_string(port);
        char mac[18];
        (void)std::snprintf(mac, sizeof mac, "02:00:00:00:00:%02x", static_cast<unsigned>(port));
        lines << "link add " << name << " address " << mac << " type veth peer name " << name << "x\n"
              << "link set " << name << " up\nlink set " << name << "x up\n"
              << "addr add 192.168." << port << ".1/24 dev " << name << "\n";
    }
    for (std::uint32_t gateway = 0; gateway < GATEWAYS; ++gateway) {
        char mac[18];
        (void)std::snprintf(mac, sizeof mac, "02:00:00:00:01:%02x", static_cast<unsigned>(gateway));
        lines << "neigh add " << gateway_address(gateway) << " lladdr " << mac << " dev p" << OUT_PORT << "\n";
    }
    for (const peer_route &r : set.routes)
        lines << "route add " << dotted(r.prefix) << "/" << r.len << " via " << gateway_address(gateway_of(r)) << "\n";
    lines.close();
    live_command("ip -batch " + batch);
    set.in_device = if_nametoindex("p5");
}

std::uint64_t mac_of_port(std::uint32_t port) { return 0x02 | std::uint64_t{port} << 40; }

void make_card(live_set &set)
{
    std::string why;
    for (const peer_route &r : set.routes) {
        route_entry entry{};
        entry.prefix = r.prefix;
        entry.len = r.len;
        entry.ctx = entry.route_id = TREE;
        entry.ifid = OUT_PORT;
        entry.encap_id = 1 + gateway_of(r);
        bench_require(prefix_mgr_route_add(wired_table_mgr, &entry) != 0, "the prefixes fit the pools");
    }
    const auto *const words = card_at<const std::uint32_t>(va_ixp1_dram_base);
    std::copy(words, words + HW_TABLE_BYTES / 4, live_maps_table(set.maps, 0));
    for (const std::uint32_t port : {IN_PORT, OUT_PORT}) {
        const live_port given{port, if_nametoindex(("p" + std::to_string(port)).c_str()), mac_of_port(port), TREE,
                              1500};
        bench_require(live_maps_bind(set.maps, given, why) == 0 && live_maps_open_port(set.maps, given, why) == 0, why);
    }
    for (std::uint32_t gateway = 0; gateway < GATEWAYS; ++gateway)
        live_maps_set_encap(set.maps, 1 + gateway, gateway_mac(gateway));
    live_maps_set_own_addresses(set.maps, std::vector<std::uint32_t>{0xC0A80501, 0xC0A80601});
    live_maps_set_stale_after(set.maps, AN_HOUR_NS);
    live_maps_renew(set.maps);
    live_maps_release(set.maps, TREE);
    live_maps_search(set.maps, LIVE_SEARCHED_TABLE_0);
}

// The other lookups, over the card's maps.
void make_peers(live_set &set)
{
    set.peers = bpf_object__open_file(LIVE_PEERS, nullptr);
    bench_require(set.peers != nullptr, LIVE_PEERS);
    const int processors = libbpf_num_possible_cpus();
    std::size_t bytes = 0;
    *static_cast<int *>(const_cast<void *>(
        bpf_map__initial_value(bpf_object__find_map_by_name(set.peers, ".rodata"), &bytes))) = processors;
    for (unsigned map = 0; map < LIVE_MAPS; ++map)
        bench_require(bpf_map__reuse_fd(bpf_object__find_map_by_name(set.peers, LIVE_MAP_NAMES[map]),
                                        set.maps.descriptors[map]) == 0,
                      LIVE_MAP_NAMES[map]);
    bpf_program *const out = bpf_object__find_program_by_name(set.peers, "port_tc_drop");
    bench_require(bpf_program__set_type(out, BPF_PROG_TYPE_SCHED_CLS) == 0 &&
                      bpf_program__set_expected_attach_type(out, static_cast<bpf_attach_type>(0)) == 0,
                  "the program of what comes out");
    bench_require(bpf_object__load(set.peers) == 0, "the peers' programs");
    for (live_side *one : {&set.base, &set.walk, &set.trie, &set.fib})
        one->descriptor = live_program_of(set, one->program);
    set.packets = static_cast<packets_value *>(
        mmap(nullptr, sizeof(packets_value), PROT_READ | PROT_WRITE, MAP_SHARED, live_map(set, "peer_packets"), 0));
    bench_require(set.packets != MAP_FAILED, "the packets");
    set.packets->to = mac_of_port(IN_PORT);

    struct {
        std::uint32_t len, address;
    } key{};
    for (const peer_route &r : set.routes) {
        const std::uint32_t hop[] = {OUT_PORT, 1 + gateway_of(r)};
        key = {r.len, __builtin_bswap32(r.prefix)};
        bench_require(bpf_map_update_elem(live_map(set, "peer_trie"), &key, hop, BPF_ANY) == 0, "the trie");
    }
    const std::uint32_t device = if_nametoindex("p6");
    bench_require(bpf_map_update_elem(live_map(set, "peer_devices"), &device, &device, BPF_ANY) == 0, "the device");
}

struct outcome {
    std::uint32_t action;
    std::vector<std::uint8_t> frame;
    std::uint32_t ns; // a run, as the kernel measured it
    bool operator==(const outcome &o) const { return action == o.action && frame == o.frame; }
};
outcome run_program(const live_set &set, const live_side &one, std::uint32_t times)
{
    std::vector<std::uint8_t> frame = live_frame(set), out(frame.size());
    xdp_md context{};
    context.data_end = LIVE_FRAME_BYTES;
    context.ingress_ifindex = set.in_device;
    bpf_test_run_opts options{};
    options.sz = sizeof options;
    options.data_in = frame.data();
    options.data_out = out.data();
    options.data_size_in = options.data_size_out = LIVE_FRAME_BYTES;
    options.ctx_in = &context;
    options.ctx_size_in = sizeof context;
    options.repeat = static_cast<int>(times);
    bench_require(bpf_prog_test_run_opts(one.descriptor, &options) == 0, one.program);
    return {options.retval, out, options.duration};
}

// Every packet, and the first and last address of each prefix and their neighbours.
void check(live_set &set)
{
    std::vector<std::uint32_t> all;
    for (const peer_route &r : set.routes)
        for (const std::uint32_t edge : {r.prefix, r.prefix | ~rib_mask_table[r.len]})
            for (const std::uint32_t beside : {edge - 1, edge, edge + 1})
                all.push_back(beside);
    for (const std::uint32_t destination : set.packets->destinations)
        all.push_back(__builtin_bswap32(destination));
    unsigned sent_on = 0;
    const std::uint32_t first = set.packets->destinations[0];
    for (const std::uint32_t address : all) {
        set.packets->destinations[0] = __builtin_bswap32(address);
        std::vector<outcome> outcomes;
        for (const live_side *one : {&set.walk, &set.trie, &set.fib}) {
            set.packets->next = 0;
            outcomes.push_back(run_program(set, *one, 1));
        }
        bench_require(outcomes[0] == outcomes[1] && outcomes[0] == outcomes[2], "all answer alike: " + dotted(address));
        sent_on += outcomes[0].action == XDP_REDIRECT;
    }
    set.packets->destinations[0] = first;
    bench_require(sent_on > all.size() / 2, "most packets are sent on");
}

void make_packets(live_set &set)
{
    std::mt19937 random(20261122);
    for (std::uint32_t &destination : set.packets->destinations) {
        const peer_route &r = set.routes[random() % set.routes.size()];
        destination = __builtin_bswap32(r.prefix | (static_cast<std::uint32_t>(random()) & ~rib_mask_table[r.len]));
    }
}

std::function<double()> hot(const bench_options &options, live_set &set, const live_side &one)
{
    const std::uint32_t times = options.brief ? 10'000 : 1'000'000;
    return [&set, &one, times] { return bench_time(CPU, [&] { (void)run_program(set, one, times); }) / times; };
}

// 32 packets after 128 MiB of other memory, again and again.
std::function<double()> cold(const bench_options &options, live_set &set, const live_side &one)
{
    constexpr std::size_t OTHER_BYTES = 128 << 20, LINE = 64;
    constexpr std::uint32_t BATCH = 32;
    static std::vector<char> other(OTHER_BYTES, 1);
    const unsigned batches = options.brief ? 1 : 16;
    return [&set, &one, batches] {
        double sum = 0;
        for (unsigned i = 0; i < batches; ++i) {
            for (std::size_t at = 0; at < OTHER_BYTES; at += LINE)
                ++other[at];
            sum += run_program(set, one, BATCH).ns;
        }
        return sum / batches;
    };
}

using way_to_time = std::function<double()> (*)(const bench_options &, live_set &, const live_side &);
void measure(const bench_options &options, live_set &set, const std::string &what, way_to_time way,
             const std::vector<double> &wanted, std::vector<bench_row> &rows)
{
    const auto m = bench_rounds(options, 11,
                                {way(options, set, set.base), way(options, set, set.walk), way(options, set, set.fib),
                                 way(options, set, set.trie)});
    char next[64];
    (void)std::snprintf(next, sizeof next, "without %.1f ns of each side for the next packet", m[0]);
    rows.push_back(
        {what, "ns", m[1] - m[0], "the same with bpf_fib_lookup", m[2] - m[0], "", wanted[0], wanted[0] != 0, next});
    rows.push_back({what, "ns", m[1] - m[0], "the same with the kernel's trie of prefixes", m[3] - m[0], "", wanted[1],
                    wanted[1] != 0, ""});
}
} // namespace

void live_command(const std::string &line) { bench_require(std::system(line.c_str()) == 0, line); }

int live_map(const live_set &set, const char *name)
{
    return bpf_map__fd(bpf_object__find_map_by_name(set.peers, name));
}

int live_program_of(const live_set &set, const char *name)
{
    return bpf_program__fd(bpf_object__find_program_by_name(set.peers, name));
}

// UDP from a host beyond the port.
std::vector<std::uint8_t> live_frame(const live_set &set)
{
    constexpr std::uint8_t IP[] = {8, 0,   0x45, 0, 0, LIVE_FRAME_BYTES - 14, 0, 1, 0x40, 0, 64, 17, 0,
                                   0, 192, 168,  5, 2};
    std::vector<std::uint8_t> frame(LIVE_FRAME_BYTES);
    for (unsigned i = 0; i < 6; ++i)
        frame[i] = live_mac_byte(set.packets->to, i);
    std::copy(std::begin(IP), std::end(IP), frame.begin() + 12);
    return frame;
}

int main(int argc, char **argv)
{
    const bench_options options = bench_start(argc, argv);
    live_set set;
    std::string why;
    std::vector<bench_row> rows;
    if (live_maps_open(set.maps, "", why) != 0) {
        rows.push_back({"decision", "ns", 0, "the same with bpf_fib_lookup", {}, why, 0, false, "not measured"});
        bench_print(options, "Live card", rows);
        return 0;
    }
    bench_card_start();
    set.routes = bench_mix(PREFIXES);
    make_kernel(set);
    make_card(set);
    make_peers(set);
    make_packets(set);
    check(set);
    measure(options, set, "decision, 490 mixed prefixes", hot, {3, 3}, rows);
    measure(options, set, "decision, cold", cold, {2, 0}, rows);
    live_measure_traffic(options, set, rows);
    bench_print(options, "Live card", rows);
    (void)munmap(set.packets, sizeof(packets_value));
    bpf_object__close(set.peers);
    live_maps_close(set.maps);
    return 0;
}
