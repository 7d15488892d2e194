// rpc_bench.cpp - route programming from another process: adds and removals over the remote calls.
//
// The bare peer receives and sends records of the same sizes over the same kind of socket, with as many round trips,
// and does nothing else. The other peers do what a user would do instead: `ip -batch` puts the routes into a kernel
// table, `birdc configure` reads them from a file; both are timed with the program's start, divided by the routes.
#include <fstream>

#include <signal.h>
#include <unistd.h>

#include "bench.h"
#include "bench_daemon.h"

namespace
{
constexpr std::uint32_t GATEWAY = 0x0A010009, UNKNOWN_GATEWAY = 0x0A010100, MASK = 0xFFFFFF00, FIRST = 0x14000000;
constexpr std::uint16_t ENCAP = 0x1234;
constexpr double WANTED = 0.9; // of the bare peer
constexpr unsigned DAEMON = 9, ECHO = 11, ECHO_WITH_ARP = 12, WINDOW = 64;

// Adds of `count` prefixes, then their removals.
std::vector<byte_string> adds_and_removals(unsigned count, std::uint32_t gateway)
{
    std::vector<byte_string> calls;
    for (const auto call : {bench_route_add, bench_route_remove})
        for (unsigned i = 0; i < count; ++i)
            calls.push_back(call(FIRST + (i << 8), MASK, gateway));
    return calls;
}

double per_call(int connection, const std::vector<byte_string> &calls, unsigned window)
{
    return bench_time(bench_clock::wall,
                      [&] {
                          bench_require(bench_call_all(connection, calls, window) == calls.size(),
                                        "every call answers 0");
                      }) /
           static_cast<double>(calls.size());
}

struct server {
    int pid;
    int connection;
};

// One server's side of a comparison: wall time a call as the figure, its processor time a call beside it.
std::function<double()> side_of(const server &s, const std::vector<byte_string> &calls, unsigned window,
                                std::vector<double> &cpu)
{
    return [&s, &calls, window, &cpu] {
        const double before = bench_cpu_ns(s.pid);
        const double wall = per_call(s.connection, calls, window);
        cpu.push_back((bench_cpu_ns(s.pid) - before) / static_cast<double>(calls.size()));
        return wall;
    };
}

void compare(const bench_options &options, const std::string &what, const server &daemon, const server &echo,
             const std::vector<byte_string> &calls, double wanted, std::vector<bench_row> &rows)
{
    for (const unsigned window : {1u, WINDOW}) {
        std::vector<double> own_cpu, echo_cpu;
        const auto m =
            bench_rounds(options, 7, {side_of(daemon, calls, window, own_cpu), side_of(echo, calls, window, echo_cpu)});
        const std::string name =
            what + (window == 1 ? ", one outstanding" : ", " + std::to_string(WINDOW) + " outstanding");
        rows.push_back(
            {name, "us", m[0] / 1000, "bare peer", m[1] / 1000, "", wanted, wanted != 0, "a call, wall time"});
        rows.push_back({name, "us", bench_median(own_cpu) / 1000, "bare peer", bench_median(echo_cpu) / 1000, "", 0,
                        false, "a call, the server's processor time"});
    }
}

std::string dotted(std::uint32_t a)
{
    return std::to_string(a >> 24) + "." + std::to_string(a >> 16 & 255) + "." + std::to_string(a >> 8 & 255) + "." +
           std::to_string(a & 255);
}

// Microseconds a route of `ip -batch`, adds and removals.
double ip_batch(const std::string &folder, unsigned count)
{
    const std::string file = folder + "/batch";
    std::ofstream out(file);
    for (const char *verb : {"add ", "del "})
        for (unsigned i = 0; i < count; ++i)
            out << "route " << verb << dotted(FIRST + (i << 8)) << "/24 via 10.1.0.9\n";
    out.close();
    return bench_time(bench_clock::wall,
                      [&] {
                          bench_require(bench_run({"ip", "-batch", file}) == 0, "ip -batch");
                      }) /
           (2.0 * count);
}

// Microseconds a route of `birdc configure`, to a file with the routes and back to one without.
double bird_configure(unsigned count)
{
    double ns = 0;
    for (const unsigned routes : {count, 0u}) {
        bench_bird_conf(routes);
        ns += bench_time(bench_clock::wall, [] { bench_require(bench_birdc("configure") == 0, "birdc configure"); });
    }
    return ns / (2.0 * count);
}

void compare_with_users_choice(const bench_options &options, const std::string &folder, int daemon,
                               const std::vector<byte_string> &calls, std::vector<bench_row> &rows)
{
    const unsigned count = static_cast<unsigned>(calls.size() / 2);
    std::string missing = options.brief ? "brief" : bench_own_network(), no_bird = missing;
    bench_process bird;
    if (missing.empty()) {
        bench_bird_conf(0);
        bird = bench_bird_start();
        if (bird.pid < 0)
            no_bird = "bird2 did not start";
    }
    std::vector<std::function<double()>> sides = {[&] { return per_call(daemon, calls, WINDOW); }};
    if (missing.empty())
        sides.push_back([&] { return ip_batch(folder, count); });
    if (no_bird.empty())
        sides.push_back([&] { return bird_configure(count); });
    const auto m = bench_rounds(options, 5, sides);
    const std::string what =
        "no ARP service, " + std::to_string(WINDOW) + " outstanding, " + std::to_string(count) + " routes";
    rows.push_back({what, "us", m[0] / 1000, "ip -batch", missing.empty() ? std::optional(m[1] / 1000) : std::nullopt,
                    missing, 1, true, "a route"});
    rows.push_back({what, "us", m[0] / 1000, "birdc configure",
                    no_bird.empty() ? std::optional(m[2] / 1000) : std::nullopt, no_bird, 1, true, "a route"});
    if (no_bird.empty())
        bench_end(bird, SIGTERM);
}
} // namespace

int main(int argc, char **argv)
{
    const bench_options options = bench_start(argc, argv);
    const std::string folder = bench_folder();
    const unsigned count = options.brief ? 20 : 200;
    std::vector<bench_row> rows;

    bench_process daemon = bench_daemon_start();
    const int without_arp = bench_connect(DAEMON);
    const server own = {daemon.pid, without_arp};
    bench_process echo = bench_echo_start(ECHO, false);
    const std::vector<byte_string> waiting = adds_and_removals(count, UNKNOWN_GATEWAY);
    compare(options, "no ARP service, gateway unknown", own, {echo.pid, bench_connect(ECHO)}, waiting, 0, rows);
    compare_with_users_choice(options, folder, without_arp, waiting, rows);
    bench_end(echo, SIGKILL);

    bench_process arp = bench_arp_start();
    bench_process echo_with_arp = bench_echo_start(ECHO_WITH_ARP, true);
    const server with_arp = {echo_with_arp.pid, bench_connect(ECHO_WITH_ARP)};
    compare(options, "ARP call answered, gateway unknown", own, with_arp, waiting, WANTED, rows);
    bench_require(bench_call_all(without_arp, {bench_host_add(GATEWAY, ENCAP)}, 1) == 1, "a host is learned");
    const auto memories = bench_memories();
    const std::vector<byte_string> known = adds_and_removals(count, GATEWAY);
    bench_require(bench_call_all(without_arp, {known.front()}, 1) == 1, "a route through it");
    for (const harness::np_table &memory : memories)
        bench_require((bench_find(memory, FIRST + 1) & 0xFFFF) == ENCAP, "the route in every copy");
    bench_require(bench_call_all(without_arp, {known[count]}, 1) == 1, "its removal");
    compare(options, "ARP call answered, gateway known, programmed", own, with_arp, known, WANTED, rows);

    bench_print(options, "Route programming over remote calls", rows);
    bench_end(echo_with_arp, SIGKILL);
    bench_end(arp, SIGKILL);
    bench_end(daemon, SIGINT);
    return 0;
}
