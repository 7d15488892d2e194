// live_traffic.cpp - frames that really come in, are forwarded, and come out.
//
// One processor does everything: the sender gives the veth of p5 frames as a driver would, in batches of 64; p5 takes
// them, what they are forwarded by runs, and the pair of p6 counts and drops what comes out, each in the way that
// costs least there. Every frame has to come out. The sender and the last drop are in all figures; alone, without
// forwarding, they are told beside.
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/bpf.h>
#include <linux/if_link.h>
#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "live_set.h"

namespace
{
constexpr std::uint32_t BATCH = 64, PAUSE_US = 10;

int attach(const live_set &set, const char *device, const char *program)
{
    bpf_link_create_opts options{};
    options.sz = sizeof options;
    options.flags = XDP_FLAGS_DRV_MODE;
    const int link =
        bpf_link_create(live_program_of(set, program), static_cast<int>(if_nametoindex(device)), BPF_XDP, &options);
    bench_require(link >= 0, std::string(program) + " at " + device);
    return link;
}

struct tc_drop {
    bpf_tc_hook hook; // the library wants the bytes between its members 0, too
    tc_drop(const live_set &set, const char *device)
    {
        std::memset(&hook, 0, sizeof hook);
        hook.sz = sizeof hook;
        hook.ifindex = static_cast<int>(if_nametoindex(device));
        hook.attach_point = BPF_TC_INGRESS;
        bpf_tc_opts options;
        std::memset(&options, 0, sizeof options);
        options.sz = sizeof options;
        options.prog_fd = live_program_of(set, "port_tc_drop");
        bench_require(bpf_tc_hook_create(&hook) == 0 && bpf_tc_attach(&hook, &options) == 0, "dropping what comes out");
    }
    ~tc_drop()
    {
        hook.attach_point = static_cast<bpf_tc_attach_point>(BPF_TC_INGRESS | BPF_TC_EGRESS); // the whole of it
        (void)bpf_tc_hook_destroy(&hook);
    }
    tc_drop(const tc_drop &) = delete;
    tc_drop &operator=(const tc_drop &) = delete;
};

// Sends `frames` and waits until as many have come out. Answers nanoseconds a frame.
double send(live_set &set, std::uint32_t frames)
{
    std::vector<std::uint8_t> frame = live_frame(set);
    xdp_md context{};
    context.data_end = LIVE_FRAME_BYTES;
    context.ingress_ifindex = if_nametoindex("p5x");
    bpf_test_run_opts options{};
    options.sz = sizeof options;
    options.data_in = frame.data();
    options.data_size_in = LIVE_FRAME_BYTES;
    options.ctx_in = &context;
    options.ctx_size_in = sizeof context;
    options.flags = BPF_F_TEST_XDP_LIVE_FRAMES;
    options.batch_size = BATCH;
    options.repeat = static_cast<int>(frames);
    volatile const std::uint32_t &came_out = set.packets->came_out;
    set.packets->came_out = 0;
    const double ns = bench_time(bench_clock::wall, [&] {
        bench_require(bpf_prog_test_run_opts(live_program_of(set, "port_send"), &options) == 0, "sending");
        const std::time_t started = std::time(nullptr);
        while (came_out < frames && std::time(nullptr) < started + 3)
            (void)usleep(PAUSE_US); // what is left over is taken by a thread of the kernel's, if there is room
    });
    bench_require(came_out == frames,
                  "every frame comes out: " + std::to_string(came_out) + " of " + std::to_string(frames));
    return ns / frames;
}

double by_program(live_set &set, const char *program, std::uint32_t frames)
{
    const int links[] = {attach(set, "p6x", "port_drop"), attach(set, "p5", program)};
    live_maps_renew(set.maps);
    const double ns = send(set, frames);
    for (const int link : links)
        (void)close(link);
    return ns;
}
} // namespace

void live_measure_traffic(const bench_options &options, live_set &set, std::vector<bench_row> &rows)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    (void)sched_setaffinity(0, sizeof one, &one);
    live_command("ethtool -K p5 gro on"); // takes frames without a packet program too
    const std::uint32_t sender = if_nametoindex("p5x");
    bench_require(bpf_map_update_elem(live_map(set, "peer_devices"), &sender, &sender, BPF_ANY) == 0, "the sender");
    set.packets->out = sender;

    const std::uint32_t frames = options.brief ? 2'000 : 2'000'000;
    const auto m = bench_rounds(options, 9,
                                {[&] { return by_program(set, "port_drop", frames); },
                                 [&] { return by_program(set, "port_walk", frames); },
                                 [&] { return by_program(set, "port_fib", frames); },
                                 [&] {
                                     const tc_drop out(set, "p6x");
                                     return send(set, frames);
                                 }});
    char alone[64];
    (void)std::snprintf(alone, sizeof alone, "of it %.0f ns sender and receipt alone", m[0]);
    rows.push_back({"end to end, one core", "ns", m[1], "forwarded by the kernel", m[3], "", 3.5, true, alone});
    rows.push_back({"end to end, one core", "ns", m[1], "the same with bpf_fib_lookup", m[2], "", 1.4, true, ""});
}
