// life_bench.cpp - what a card notices of the daemon as a whole: a change until it is visible, an interface that goes
// down, the start.
//
// Visible means: an independent reader of the mapped memory of processor 1 finds the new answer by walking the table as
// the processor does. An interface is down when each of its 500 dependent routes is gone from each of the three copies.
// The floor of the start is what the memories alone cost: three files allocated, mapped, and stored to word by word.
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench.h"
#include "bench_daemon.h"
#include "hw_store.h"
#include "route_table.h"

namespace
{
constexpr std::uint32_t GATEWAY = 0x0A010009, MASK = 0xFFFFFF00, FIRST = 0x14000000, HOST_FIRST = 0x0A012001;
constexpr std::uint16_t ENCAP = 0x1234;
constexpr unsigned DAEMON = 9, STATICS = 250, HOSTS = 250;

void call(int connection, const byte_string &record)
{
    bench_require(bench_call_all(connection, {record}, 1) == 1, "a call answers 0");
}

byte_string route_add(unsigned i) { return bench_route_add(FIRST + (i << 8), MASK, GATEWAY); }
byte_string route_remove(unsigned i) { return bench_route_remove(FIRST + (i << 8), MASK, GATEWAY); }

double until_visible(int connection, const harness::np_table &ixp1)
{
    const byte_string add = route_add(0);
    std::uint8_t reply[256];
    const double ns = bench_time(bench_clock::wall, [&] {
        bench_require(send(connection, add.data(), add.size(), 0) > 0, "a call");
        while ((bench_find(ixp1, FIRST + 1) & 0xFFFF) != ENCAP)
            sched_yield(); // to the ARP service, which shares the reader's processor
    });
    bench_require(recv(connection, reply, sizeof reply, 0) > 0, "its reply");
    call(connection, route_remove(0));
    return ns;
}

// Whether the kernel's main table shows the route, read as a program would: /proc/net/route.
bool kernel_shows(const char *hex_prefix)
{
    std::ifstream in("/proc/net/route");
    for (std::string line; std::getline(in, line);)
        if (line.find(hex_prefix) != std::string::npos)
            return true;
    return false;
}

void wait_for_kernel(const char *hex_prefix, bool shown)
{
    while (kernel_shows(hex_prefix) != shown)
        usleep(100); // the reader is not what is measured
}

double until_bird_shows()
{
    bench_bird_conf(1);
    const double ns = bench_time(bench_clock::wall, [&] {
        bench_require(bench_birdc("configure") == 0, "birdc configure");
        wait_for_kernel("00000014", true);
    });
    bench_bird_conf(0);
    bench_require(bench_birdc("configure") == 0, "birdc configure");
    wait_for_kernel("00000014", false);
    return ns;
}

void set_link(bool up)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    request.ifr_name[0] = 'd';
    request.ifr_name[1] = '0';
    bench_require(ioctl(fd, SIOCGIFFLAGS, &request) == 0, "the link's flags");
    request.ifr_flags = static_cast<short>(up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    bench_require(ioctl(fd, SIOCSIFFLAGS, &request) == 0, "the link's change");
    (void)close(fd);
}

// The kernel drops 500 routes of a link: the system call that takes the link down.
double kernel_link_down(const std::string &folder)
{
    const std::string file = folder + "/batch";
    std::ofstream out(file);
    for (unsigned i = 0; i < STATICS + HOSTS; ++i)
        out << "route add 20." << (i >> 8) << "." << (i & 255) << ".0/24 via 10.1.0.9\n";
    out.close();
    bench_require(bench_run({"ip", "-batch", file}) == 0, "the kernel's routes");
    const double ns = bench_time(bench_clock::wall, [] { set_link(false); });
    bench_require(!kernel_shows("0000114"), "the kernel's routes are gone");
    set_link(true);
    return ns;
}

// bird with as many static routes through the link, from the link's going down until its table has none of them.
double bird_link_down()
{
    bench_bird_conf(STATICS + HOSTS);
    bench_process bird = bench_bird_start();
    bench_require(bird.pid > 0, "bird starts");
    const int control = bench_bird_control();
    while (!bench_bird_holds(control, STATICS + HOSTS))
        sched_yield();
    const double ns = bench_time(bench_clock::wall, [control] {
        set_link(false);
        while (!bench_bird_holds(control, 0))
            sched_yield();
    });
    (void)close(control);
    bench_end(bird, SIGTERM);
    set_link(true);
    return ns;
}

// From the event's sending until the last copy has lost the last route.
double link_down(int connection, const std::array<harness::np_table, 3> &memories)
{
    for (unsigned i = 0; i < HOSTS; ++i)
        call(connection, bench_host_add(HOST_FIRST + i, 0x2000 + i));
    for (unsigned i = 0; i < STATICS; ++i)
        call(connection, route_add(i));
    const auto answer = [&](const harness::np_table &memory, unsigned i) {
        return bench_find(memory, i < HOSTS ? HOST_FIRST + i : FIRST + ((i - HOSTS) << 8) + 1) & 0xFFFF;
    };
    for (const harness::np_table &memory : memories)
        for (unsigned i = 0; i < STATICS + HOSTS; ++i)
            bench_require(answer(memory, i) == (i < HOSTS ? 0x2000 + i : ENCAP), "a dependent route before");
    const double ns = bench_time(bench_clock::wall, [&] {
        bench_send_if_down();
        for (const harness::np_table &memory : memories)
            for (unsigned i = 0; i < STATICS + HOSTS; ++i)
                while (const std::uint32_t encap = answer(memory, i))
                    if (encap != (i < HOSTS ? 0x2000 + i : ENCAP))
                        break;
    });
    call(connection, bench_host_add(GATEWAY, ENCAP)); // gone with the interface
    for (unsigned i = 0; i < STATICS; ++i)
        call(connection, route_remove(i));
    return ns;
}

double start_floor(const std::string &folder)
{
    struct memory {
        const char *name;
        std::size_t bytes;
    };
    constexpr memory MEMORIES[] = {{"floor0", HW_WIRED_BYTES}, {"floor1", HW_TABLE_BYTES}, {"floor2", HW_TABLE_BYTES}};
    return bench_time(bench_clock::wall, [&] {
        for (const memory &m : MEMORIES) {
            const std::string path = folder + "/" + m.name;
            const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            bench_require(fd >= 0 && posix_fallocate(fd, 0, static_cast<off_t>(m.bytes)) == 0, "a file");
            void *const at = mmap(nullptr, m.bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            bench_require(at != MAP_FAILED, "a mapping");
            platform_fill32(static_cast<std::uint32_t *>(at), 0, m.bytes / 4);
            (void)munmap(at, m.bytes);
            (void)close(fd);
            (void)unlink(path.c_str());
        }
    });
}

double start_daemon(const std::string &folder)
{
    for (const char *name : {"wired", "ixp1", "ixp2"})
        (void)unlink((folder + "/mem/" + name).c_str());
    bench_process daemon = bench_daemon_start();
    bench_end(daemon, SIGINT);
    return daemon.ready_ms * 1e6;
}

double start_bird()
{
    bench_bird_conf(0);
    bench_process bird = bench_bird_start();
    bench_require(bird.pid > 0, "bird starts");
    bench_end(bird, SIGTERM);
    return bird.ready_ms * 1e6;
}

// MiB of written memory that no file stands behind, from the process's map.
double private_mib(int pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    double kib = 0;
    for (std::string line; std::getline(in, line);)
        if (line.rfind("Anonymous:", 0) == 0)
            kib = std::stod(line.substr(10));
    return kib / 1024;
}

std::optional<double> figure(const std::vector<double> &medians, std::size_t i, double unit)
{
    return i < medians.size() ? std::optional(medians[i] / unit) : std::nullopt;
}
} // namespace

int main(int argc, char **argv)
{
    const bench_options options = bench_start(argc, argv);
    const std::string folder = bench_folder();
    const std::string no_net = options.brief ? "brief" : bench_own_network();
    std::string no_bird = no_net;
    if (no_bird.empty() && bench_run({"bird", "--version"}) != 0)
        no_bird = "bird2 is not installed";
    std::vector<bench_row> rows;

    std::vector<std::function<double()>> starts = {[&] { return start_daemon(folder); },
                                                   [&] { return start_floor(folder); }};
    if (no_bird.empty())
        starts.push_back(start_bird);
    auto m = bench_rounds(options, 7, starts);
    rows.push_back({"exec to READY=1, fresh memories", "ms", m[0] / 1e6, "the memories alone", m[1] / 1e6, "", 0, false,
                    "over the floor by " + std::to_string((m[0] - m[1]) / 1e6).substr(0, 4) + " ms, wanted 5"});
    rows.push_back({"exec to READY=1, fresh memories", "ms", m[0] / 1e6, "bird until birdc answers", figure(m, 2, 1e6),
                    no_bird, 0, false, ""});

    bench_process daemon = bench_daemon_start();
    const double idle = bench_cpu_ns(daemon.pid);
    usleep(options.brief ? 1000 : 2000000);
    rows.push_back(
        {"private memory written, beside the mapped files", "MiB", private_mib(daemon.pid), "", {}, "", 4, false, ""});
    rows.push_back({"processor time of two idle seconds",
                    "us",
                    (bench_cpu_ns(daemon.pid) - idle) / 1000,
                    "",
                    {},
                    "",
                    0,
                    false,
                    "nothing wakes it but the 60-second time-out"});
    const int connection = bench_connect(DAEMON);
    const auto memories = bench_memories();
    call(connection, bench_host_add(GATEWAY, ENCAP));

    std::vector<std::function<double()>> visible = {[&] { return until_visible(connection, memories[1]); }};
    bench_process bird;
    if (no_bird.empty()) {
        bench_bird_conf(0);
        bird = bench_bird_start();
        visible.push_back(until_bird_shows);
    }
    m = bench_rounds(options, 21, visible);
    rows.push_back({"one change, request to visible in mem/ixp1, no ARP service", "us", m[0] / 1000,
                    "birdc configure to the kernel", figure(m, 1, 1000), no_bird, 0, false, "the gateway is known"});
    bench_process arp = bench_arp_start();
    m = bench_rounds(options, 21, visible);
    rows.push_back({"one change, request to visible in mem/ixp1, ARP call answered", "us", m[0] / 1000,
                    "birdc configure to the kernel", figure(m, 1, 1000), no_bird, 200, true, "the gateway is known"});
    if (no_bird.empty())
        bench_end(bird, SIGTERM);

    std::vector<std::function<double()>> down = {[&] { return link_down(connection, memories); }};
    if (no_net.empty())
        down.push_back([&] { return kernel_link_down(folder); });
    if (no_bird.empty())
        down.push_back(bird_link_down);
    m = bench_rounds(options, 7, down);
    rows.push_back({"interface down, 500 dependent routes", "us", m[0] / 1000, "the kernel drops 500 routes of a link",
                    figure(m, 1, 1000), no_net, 2, true, "250 hosts, 250 statics"});
    rows.push_back({"interface down, 500 dependent routes", "us", m[0] / 1000, "bird drops 500 statics of a link",
                    figure(m, 2, 1000), no_bird, 30, true, "its table asked over its control socket"});
    bench_print(options, "The daemon as a whole", rows);
    bench_end(arp, SIGKILL);
    bench_end(daemon, SIGINT);
    return 0;
}
