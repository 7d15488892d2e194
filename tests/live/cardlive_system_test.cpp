// cardlive_system_test.cpp - the real cardlive and the real route manager on a host of their own, against its kernel.
//
// In network namespaces of the test's own the host has three ports, the other ends of which are wires: packets that are
// sent into one are counted at the others. Neighbours have fixed addresses, but for those that the test takes away.
// What the program does with a packet is asked of the program itself, over the same maps; what the kernel would do, of
// the kernel's own state. The test waits until both agree, and then looks at every address.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <thread>

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "big_endian.h"
#include "card_tool/address_text.h"
#include "daemon.h"
#include "live_maps.h"
#include "netlink_kernel.h"

using namespace harness;

namespace
{
constexpr unsigned PORTS = 3, NEIGHBOURS = 4, FLOWS = 8;
constexpr auto PATIENCE = std::chrono::seconds(60);
constexpr auto A_LOOK = std::chrono::milliseconds(5);
constexpr std::uint8_t NEIGHBOUR_MAC = 0x10; // of 10.0.<port>.<n>: 02:00:00:00:<port>:<NEIGHBOUR_MAC + n>

void run(const std::string &line) { EXPECT_EQ(std::system((line + " >/dev/null 2>&1").c_str()), 0) << line; }
void try_run(const std::string &line) { (void)!std::system((line + " >/dev/null 2>&1").c_str()); }

std::string port_name(unsigned port) { return "e" + std::to_string(port); }
std::string wire_name(unsigned port) { return "w" + std::to_string(port); }
std::string neighbour(unsigned port, unsigned n)
{
    return "10.0." + std::to_string(port) + "." + std::to_string(n + 1);
}
std::string mac_text(unsigned port, unsigned n)
{
    char text[32];
    std::snprintf(text, sizeof text, "02:00:00:00:%02x:%02x", port, NEIGHBOUR_MAC + n);
    return text;
}

// Why there can be no live card here; empty: there can.
const std::string &missing()
{
    static const std::string why = [] {
        if (geteuid() != 0)
            return std::string("needs the superuser");
        if (std::system("ip -V >/dev/null 2>&1") != 0)
            return std::string("ip is missing (package iproute2)");
        if (access("/sys/fs/bpf", W_OK) != 0)
            return std::string("no BPF file system on /sys/fs/bpf");
        live_maps maps;
        std::string reason;
        const bool has_maps = live_maps_open(maps, "", reason) == 0;
        live_maps_close(maps);
        const std::string pins = "/sys/fs/bpf/live_test_" + std::to_string(getpid());
        if (has_maps && live_maps_open(maps, pins, reason) != 0)
            return reason;
        live_maps_close(maps);
        (void)!live_maps_remove(pins, reason);
        return has_maps ? std::string() : reason;
    }();
    return why;
}

struct process {
    pid_t pid = -1;
    void start(const std::vector<std::string> &words, const std::string &card, const std::string &output)
    {
        std::vector<char *> args;
        for (const std::string &word : words)
            args.push_back(const_cast<char *>(word.c_str()));
        args.push_back(nullptr);
        pid = fork();
        if (pid != 0)
            return;
        const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        setenv("CARD_DIR", card.c_str(), 1);
        unsetenv("NOTIFY_SOCKET");
        execv(args[0], args.data());
        _exit(127);
    }
    void end(int signo)
    {
        if (pid <= 0)
            return;
        kill(pid, signo);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
    ~process() { end(SIGKILL); }
};

// A frame to `address` by the port, of the flow `flow`.
std::vector<std::uint8_t> frame_to(std::uint64_t port_mac, std::uint32_t address, unsigned flow)
{
    std::vector<std::uint8_t> frame(60);
    for (unsigned i = 0; i < 6; ++i)
        frame[i] = live_mac_byte(port_mac, i);
    frame[6] = 0x02, frame[11] = 0x99;
    frame[12] = 0x08;
    std::uint8_t *const ip = frame.data() + 14;
    ip[0] = 0x45, ip[3] = 46, ip[8] = 64, ip[9] = 17; // 20 bytes of header, 8 and 18 behind it
    put_be32(ip + 12, 0x0A000064 | 1u << 8);          // 10.0.1.100
    put_be32(ip + 16, address);
    put_be16(ip + 20, 1000 + flow);
    put_be16(ip + 22, 7);
    put_be16(ip + 24, 26);
    std::uint32_t sum = 0;
    for (unsigned i = 0; i < 20; i += 2)
        sum += get_be16(ip + i);
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    put_be16(ip + 10, static_cast<std::uint16_t>(~sum));
    return frame;
}

// Where a packet goes: the port's ifindex and the MAC address; {0, 0}: to the kernel.
using way = std::pair<int, std::uint64_t>;
constexpr way UP = {0, 0};

struct host : testing::Test {
    int before = -1;
    std::string pins;
    std::unique_ptr<card_dir> card;
    process live, manager;
    live_maps maps;
    std::set<std::uint32_t> addresses;
    std::string reason; // of the program's last answer

    void SetUp() override
    {
        if (!missing().empty())
            GTEST_SKIP() << missing();
        before = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        run("ip link set lo up");
        for (unsigned port = 1; port <= PORTS; ++port) {
            const std::string name = port_name(port), wire = wire_name(port);
            run("ip link add " + name + " type veth peer name " + wire);
            for (const std::string &each : {name, wire}) {
                setting("conf/" + each + "/rp_filter", "0");
                setting("conf/" + each + "/arp_ignore", "8"); // neighbours are those that the test says
            }
            run("ip link set " + wire + " up");
            run("ip link set " + name + " up");
            run("ip addr add 10.0." + std::to_string(port) + ".1/24 dev " + name);
            for (unsigned n = 1; n <= NEIGHBOURS; ++n)
                know(port, n);
        }
        setting("ip_forward", "1");
        setting("conf/all/rp_filter", "0");
        for (unsigned port = 1; port <= PORTS; ++port)
            setting("conf/" + wire_name(port) + "/forwarding", "0"); // so they are no ports
        pins = "/sys/fs/bpf/live_test_" + std::to_string(getpid());
        card = std::make_unique<card_dir>();
        file_write(card->at("card.conf"), "ixp2 = provider\n");
        for (const char *const text :
             {"10.0.1.2", "10.0.2.0", "10.0.2.1", "10.0.2.2", "10.0.2.3", "10.0.2.77", "10.0.2.255", "10.0.3.2",
              "10.0.3.4", "20.0.0.1", "20.0.1.1", "20.0.1.130", "20.0.1.2", "20.1.0.1", "20.128.0.1", "30.0.0.1",
              "99.1.1.1", "10.9.0.1", "127.0.0.1"})
            addresses.insert(address_parse(text).value());
    }
    void TearDown() override
    {
        if (before < 0)
            return;
        live.end(SIGTERM);
        manager.end(SIGKILL);
        live_maps_close(maps);
        std::string why;
        EXPECT_EQ(live_maps_remove(pins, why), 0) << why;
        EXPECT_EQ(setns(before, CLONE_NEWNET), 0); // the other ends with its last user, and its links with it
        (void)close(before);
        if (HasFailure())
            std::fprintf(stderr, "%s\n", said().c_str());
    }

    // What routectl says, on both of its outputs.
    std::string tool(const std::string &words, int status) const
    {
        const std::string out = card->at("tool.out");
        const std::string line =
            std::string("CARD_DIR=") + card->path + " " ROUTECTL_PATH " " + words + " >" + out + " 2>&1";
        EXPECT_EQ(WEXITSTATUS(std::system(line.c_str())), status) << words << "\n" << file_text(out);
        return file_text(out);
    }
    static void setting(const std::string &name, const std::string &value)
    {
        std::ofstream file("/proc/sys/net/ipv4/" + name);
        file << value << std::flush;
        EXPECT_TRUE(file.good()) << name;
    }
    static void know(unsigned port, unsigned n)
    {
        run("ip neigh replace " + neighbour(port, n) + " lladdr " + mac_text(port, n) + " nud permanent dev " +
            port_name(port));
    }
    std::string said() const { return file_text(card->at("cardlive.out")); }

    void start_live()
    {
        live.start({CARDLIVE_PATH,
                    "--pins",
                    pins,
                    "--conf",
                    card->at("live.conf"),
                    "--routes",
                    card->at("routes"),
                    "port",
                    "e1",
                    "ctx",
                    "0",
                    ";",
                    "port",
                    "e2",
                    "ctx",
                    "0",
                    ";",
                    "port",
                    "e3",
                    "ctx",
                    "0"},
                   card->path, card->at("cardlive.out"));
        until("cardlive serves", [this] { return path_exists(card->at("rpc/names/cardlive_status")); });
        ASSERT_FALSE(HasFailure()) << said();
    }
    void start_manager() { manager.start({ROUTEMGR_PATH}, card->path, card->at("routemgr.out")); }

    // Waits until it is so; a test failure when that takes too long.
    static void until(const std::string &what, const std::function<bool()> &is_so)
    {
        const auto end = std::chrono::steady_clock::now() + PATIENCE;
        while (!is_so()) {
            if (std::chrono::steady_clock::now() > end) {
                ADD_FAILURE() << what;
                return;
            }
            std::this_thread::sleep_for(A_LOOK);
        }
    }
    // The kernel's own state at this moment.
    static kernel_state kernel_now()
    {
        std::string error;
        const netlink_kernel_ptr kernel = netlink_kernel_open({}, &error);
        EXPECT_NE(kernel, nullptr) << error;
        kernel_changes changes;
        while (!netlink_kernel_is_current(*kernel)) {
            pollfd waited = {netlink_kernel_fd(*kernel), POLLIN, 0};
            (void)poll(&waited, 1, 1000);
            EXPECT_EQ(netlink_kernel_process(*kernel, &changes, &error), 0) << error;
        }
        return netlink_kernel_state(*kernel);
    }
    // How the kernel would send a packet: the ways, all of which are as good. UP stands for anything that is no plain
    // path to a known neighbour on another port.
    static std::set<way> kernel_ways(const kernel_state &state, std::uint32_t address)
    {
        const kernel_answer answer = kernel_lookup(state, {KERNEL_TABLE_LOCAL, KERNEL_TABLE_MAIN}, address);
        const int in = static_cast<int>(if_nametoindex("e1"));
        if (answer.verdict != kernel_verdict::paths || live_is_special(address) != 0)
            return {UP};
        std::set<way> ways;
        const auto *const match = kernel_table_match(state.tables.at(KERNEL_TABLE_MAIN), address);
        if (match != nullptr && std::any_of(match->second.front().hops.begin(), match->second.front().hops.end(),
                                            [](const kernel_hop &hop) { return hop.is_dead; }))
            ways.insert(UP); // a route that has lost a path may go up as a whole
        for (const kernel_hop &hop : answer.hops) {
            // A gateway that the kernel does not reach on that link itself cannot be announced, and its routes go up.
            const kernel_answer reached =
                kernel_lookup(state, {KERNEL_TABLE_LOCAL, KERNEL_TABLE_MAIN}, hop.gateway == 0 ? address : hop.gateway);
            if (reached.hops.size() != 1 || reached.hops[0].gateway != 0 || reached.hops[0].ifindex != hop.ifindex)
                ways.insert(UP);
            const auto found = state.neighbours.find({hop.ifindex, hop.gateway == 0 ? address : hop.gateway});
            const auto link = state.links.find(hop.ifindex);
            const bool is_port = link != state.links.end() && link->second.name[0] == 'e';
            if (found == state.neighbours.end() || !kernel_neighbour_is_known(found->second) || hop.ifindex == in ||
                !is_port || !link->second.has_carrier || !link->second.is_up)
                ways.insert(UP);
            else
                ways.insert({hop.ifindex, found->second.mac});
        }
        return ways;
    }
    way program_way(const kernel_state &state, std::uint32_t address, unsigned flow)
    {
        const std::uint32_t in = if_nametoindex("e1");
        std::vector<std::uint8_t> frame = frame_to(state.links.at(static_cast<int>(in)).mac, address, flow);
        live_trace trace = {};
        std::string why;
        EXPECT_EQ(live_maps_trace(maps, in, frame, trace, why), 0) << why;
        reason = LIVE_REASON_NAMES[trace.reason];
        if (trace.reason != LIVE_FORWARDED)
            return UP;
        return {static_cast<int>(live_maps_device(maps, trace.ifid)), live_mac(frame.data())};
    }
    // What the card does otherwise than the kernel, in words; empty: nothing. Only what is sent on can be wrong; what
    // goes up although it need not is told too.
    std::string difference()
    {
        const kernel_state state = kernel_now();
        std::string text;
        for (const std::uint32_t address : addresses) {
            const std::set<way> ways = kernel_ways(state, address);
            for (unsigned flow = 0; flow < FLOWS; ++flow)
                if (const way taken = program_way(state, address, flow); ways.count(taken) == 0) {
                    text += address_text(address) + ": " + reason + " to link " + std::to_string(taken.first) +
                            " MAC " + std::to_string(taken.second) + ", the kernel to link " +
                            std::to_string(ways.begin()->first) + " MAC " + std::to_string(ways.begin()->second) + "\n";
                    break;
                }
        }
        return text;
    }
    // A route manager ends by itself when it finds no provider; a supervisor of processes starts it again.
    void keep_manager()
    {
        if (manager.pid <= 0 || waitpid(manager.pid, nullptr, WNOHANG) == 0)
            return;
        manager.pid = -1;
        start_manager();
    }
    void agree(const std::string &after)
    {
        std::string last;
        until("the card does as the kernel", [&] {
            keep_manager();
            return (last = difference()).empty();
        });
        EXPECT_EQ(last, "") << after;
    }
    void open_maps()
    {
        std::string why;
        ASSERT_EQ(live_maps_open(maps, pins, why), 0) << why;
    }
    void stand()
    {
        ASSERT_NO_FATAL_FAILURE(start_live());
        ASSERT_NO_FATAL_FAILURE(open_maps());
        start_manager();
        until("the card stands", [this] { return said().find("the card stands") != std::string::npos; });
        ASSERT_FALSE(HasFailure()) << said();
    }
};
using cardlive = host;
} // namespace

TEST_F(cardlive, does_as_the_kernel_after_each_change_of_a_route)
{
    run("ip route add 20.0.0.0/24 via 10.0.2.2");
    ASSERT_NO_FATAL_FAILURE(stand());
    agree("a route");
    for (const char *const change :
         {"ip route replace 20.0.0.0/24 via 10.0.3.2", "ip route add 20.0.0.0/8 via 10.0.2.3",
          "ip route replace 20.0.0.0/24 nexthop via 10.0.2.2 nexthop via 10.0.3.2", "ip route del 20.0.0.0/24",
          "ip route add blackhole 20.0.1.0/24", "ip route add 20.0.1.128/25 via 10.0.2.4", "ip route del 20.0.0.0/8",
          "ip route add default via 10.0.3.3", "ip route del blackhole 20.0.1.0/24",
          "ip route add 30.0.0.0/8 dev e2"}) {
        run(change);
        agree(change);
    }
}

TEST_F(cardlive, does_as_the_kernel_after_each_change_of_a_link_an_address_and_a_neighbour)
{
    run("ip route add 20.0.0.0/24 via 10.0.2.2");
    run("ip route add 20.0.1.0/24 nexthop via 10.0.2.3 nexthop via 10.0.3.2");
    ASSERT_NO_FATAL_FAILURE(stand());
    agree("routes");
    for (const char *const change :
         {"ip neigh replace 10.0.2.2 lladdr 02:00:00:00:02:77 nud permanent dev e2", "ip neigh del 10.0.2.2 dev e2",
          "ip neigh replace 10.0.2.2 lladdr 02:00:00:00:02:12 nud permanent dev e2", "ip link set w3 down",
          "ip link set w3 up", "ip addr add 10.9.0.1/24 dev e3", "ip addr del 10.0.3.1/24 dev e3",
          "ip addr add 10.0.3.1/24 dev e3", "ip link set e2 down", "ip link set e2 up"}) {
        run(change);
        agree(change);
    }
}

TEST_F(cardlive, a_route_manager_that_is_killed_or_ended_leaves_the_table_and_its_successor_fills_the_other)
{
    run("ip route add 20.0.0.0/24 via 10.0.2.2");
    ASSERT_NO_FATAL_FAILURE(stand());
    agree("a route");
    for (const int signo : {SIGKILL, SIGINT}) {
        const live_searched searched = live_maps_searched(maps);
        manager.end(signo);
        EXPECT_EQ(difference(), "") << "the table stays";
        start_manager();
        until("the other table is searched", [&] { return live_maps_searched(maps) != searched; });
        agree("a route manager that restarted");
    }
    manager.end(SIGKILL);
    run("ip route replace 20.0.0.0/24 via 10.0.3.2");
    until("its context is held back", [&] { return live_maps_is_held(maps, 0); });
    start_manager();
    agree("a route that changed meanwhile");
}

TEST_F(cardlive, one_that_is_killed_leaves_the_card_forwarding_and_its_successor_goes_on)
{
    run("ip route add 20.0.0.0/24 via 10.0.2.2");
    run("ip route add 30.0.0.0/24 via 10.0.2.2");
    ASSERT_NO_FATAL_FAILURE(stand());
    agree("routes");
    const std::uint32_t generation = static_cast<std::uint32_t>(live_maps_generation(maps, 0));
    live.end(SIGKILL);
    EXPECT_EQ(difference(), "") << "maps and program stay";
    run("ip route replace 20.0.0.0/24 via 10.0.3.2");
    run("ip route del 30.0.0.0/24");
    start_live();
    agree("changes meanwhile");
    EXPECT_EQ(live_maps_generation(maps, 0), generation) << "the route manager has kept its table";
    until("its context forwards", [&] { return !live_maps_is_held(maps, 0); });
}

TEST_F(cardlive, is_content_with_three_capabilities_of_another_user)
{
    if (std::system("setpriv --version >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "setpriv is missing (package util-linux)";
    run("ip route add 20.0.0.0/24 via 10.0.2.2");
    const std::string user = "65534:65534", bin = card->at("cardlive"), other = card->at("routemgr");
    run("cp " CARDLIVE_PATH " " + bin + " && cp " ROUTEMGR_PATH " " + other); // where that user may read them
    run("mkdir -m 700 " + pins + " && chown " + user + " " + pins);
    run("chown -R " + user + " " + card->path);
    const std::string capabilities = "-all,+bpf,+net_admin,+perfmon";
    live.start({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--no-new-privs",
                "--inh-caps=" + capabilities, "--ambient-caps=" + capabilities, "--bounding-set=" + capabilities, bin,
                "--pins", pins, "--conf", card->at("live.conf"), "--routes", card->at("routes")},
               card->path, card->at("cardlive.out"));
    until("cardlive serves", [this] { return path_exists(card->at("rpc/names/cardlive_status")); });
    manager.start({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--inh-caps=-all",
                   "--bounding-set=-all", other},
                  card->path, card->at("routemgr.out"));
    until("the card stands", [this] { return said().find("the card stands") != std::string::npos; });
    open_maps();
    agree("a route");
    until("its context forwards", [this] { return !live_maps_is_held(maps, 0); });
}

TEST_F(cardlive, a_second_one_is_refused)
{
    start_live();
    process second;
    second.start({CARDLIVE_PATH, "--pins", pins + "_2"}, card->path, card->at("second.out"));
    int status = 0;
    EXPECT_EQ(waitpid(second.pid, &status, 0), second.pid);
    second.pid = -1;
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_FALSE(path_exists(pins + "_2"));
    open_maps();
}

TEST_F(cardlive, tells_routectl_what_it_forwards_what_becomes_of_a_packet_and_where_it_differs)
{
    run("ip route add 20.0.0.0/24 via 10.0.2.2");
    ASSERT_NO_FATAL_FAILURE(stand());
    agree("a route");
    std::string text = tool("live", 0);
    EXPECT_NE(text.find("context 0      forwards; 1 routes, 13 neighbours"), std::string::npos) << text;
    EXPECT_NE(text.find("e1    0    generic  open"), std::string::npos) << text;
    EXPECT_EQ(text.find("warning"), std::string::npos) << text;
    text = tool("-j live", 0);
    EXPECT_NE(text.find("\"route_manager\":\"serving\""), std::string::npos) << text;
    setting("conf/e2/rp_filter", "1");
    EXPECT_NE(tool("live", 0).find("rp_filter of e2 is passed by"), std::string::npos);
    setting("conf/e2/rp_filter", "0");
    text = tool("live trace 20.0.0.7 from 10.0.1.9 in e1", 0);
    EXPECT_NE(text.find("20.0.0.7 from 10.0.1.9 in by e1, context 0\n  the card    e2 to 02:00:00:00:02:11, encap"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\n  the kernel  10.0.2.2 on e2 by 20.0.0.0/24\n"), std::string::npos) << text;
    EXPECT_NE(text.find("from the mapped memory\n  level 0"), std::string::npos) << text;
    EXPECT_NE(tool("live trace 10.0.2.1", 0).find("to the kernel: own"), std::string::npos);
    EXPECT_NE(tool("live trace 20.0.0.7 in e9", 2).find("e9 is no port of the card"), std::string::npos);
    EXPECT_NE(tool("live verify", 0).find("differ     0"), std::string::npos);
    (void)tool("doctor", 0);

    // Somebody else's MAC address in every encapsulation.
    for (std::uint32_t encap = 1; encap < 20; ++encap)
        if (live_maps_encap(maps, encap) != 0)
            live_maps_set_encap(maps, encap, 0x0302);
    text = tool("live verify ctx 0", 1);
    EXPECT_NE(text.find("20.0.0.0  "), std::string::npos) << text;
    EXPECT_NE(text.find("20.0.0.255"), std::string::npos) << text;
    EXPECT_NE(text.find("e2 to 02:03:00:00:00:00"), std::string::npos) << text;
    EXPECT_NE(tool("live trace 20.0.0.7", 1).find("they differ"), std::string::npos);
    EXPECT_NE(tool("doctor", 1).find("packets to 20.0.0.255 do not leave as the kernel would send them"),
              std::string::npos);
    live.end(SIGTERM);
    EXPECT_NE(tool("live", 3).find("cardlive cannot be reached"), std::string::npos);
}

TEST_F(cardlive, does_as_the_kernel_after_random_changes)
{
    ASSERT_NO_FATAL_FAILURE(stand());
    const auto from_environment = [](const char *name, unsigned otherwise) {
        const char *const text = std::getenv(name);
        return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
    };
    const unsigned rounds = from_environment("LIVE_ROUNDS", 25), seed = from_environment("LIVE_SEED", 13);
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&random](unsigned n) { return static_cast<unsigned>(random() % n); };
    const char *const prefixes[] = {"default",     "20.0.0.0/8",    "20.0.0.0/9",  "20.128.0.0/9", "20.0.0.0/16",
                                    "20.0.1.0/24", "20.0.1.128/25", "20.0.1.2/32", "30.0.0.0/8",   "10.0.2.64/26"};
    for (unsigned round = 0; round < rounds && !HasFailure(); ++round) {
        std::string all;
        for (unsigned change = 1 + below(4); change > 0; --change) {
            const std::string prefix = prefixes[below(std::size(prefixes))];
            std::string line;
            switch (below(10)) {
            case 0:
                line = "ip route del " + prefix;
                break;
            case 1:
                line = "ip route replace blackhole " + prefix;
                break;
            case 2:
                line = "ip link set e3 " + std::string(below(2) == 0 ? "down" : "up");
                break;
            case 3:
                line = "ip neigh del 10.0.2.3 dev e2";
                break;
            case 4:
                line = "ip neigh replace 10.0.2.3 lladdr 02:00:00:00:02:" + std::to_string(20 + below(9)) +
                       " nud permanent dev e2";
                break;
            case 5:
                line = "ip addr " + std::string(below(2) == 0 ? "add" : "del") + " 10.9.0.1/24 dev e3";
                break;
            default:
                line = "ip route replace " + prefix;
                for (unsigned paths = 1 + below(3), first = below(NEIGHBOURS); paths > 0; --paths)
                    line += " nexthop via " + neighbour(2 + below(2), 1 + (first + paths) % NEIGHBOURS);
            }
            try_run(line);
            all += line + "\n";
        }
        if (below(8) == 0) {
            manager.end(SIGKILL);
            start_manager();
            all += "the route manager restarted\n";
        }
        if (below(8) == 0) {
            live.end(below(2) == 0 ? SIGKILL : SIGTERM);
            std::remove(card->at("rpc/names/cardlive_status").c_str()); // so that the new one is waited for
            start_live();
            all += "cardlive restarted\n";
        }
        agree(all);
    }
}
