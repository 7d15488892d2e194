// random_run.cpp - drawing a step, and taking it on the card and in the model.
#include "random_run.h"

#include <iterator>

#include <gtest/gtest.h>

#include "mts.h"
#include "random_compare.h"
#include "route_advert.h"
#include "route_handler.h"
#include "route_mts.h"
#include "route_rpc_serv.h"
#include "scp.h"

namespace harness
{
const std::vector<std::uint32_t> RUN_CONTEXTS = {0, 3, 255};

namespace
{

struct prefix {
    std::uint32_t addr, len;
};

constexpr prefix APART[] = {
    {0, 0},
    {IP(10, 0, 0, 0), 8},
    {IP(10, 0, 0, 0), 12},
    {IP(10, 1, 0, 0), 16},
    {IP(10, 1, 2, 0), 23},
    {IP(10, 1, 2, 0), 24},
    {IP(10, 1, 2, 64), 26},
    {IP(10, 1, 128, 0), 17},
    {IP(128, 0, 0, 0), 2},
    {IP(10, 1, 4, 0), 24},
    {IP(192, 168, 4, 0), 22},
    {IP(224, 0, 0, 0), 3},
};
constexpr prefix COVERING[] = {
    {0, 0},
    {0, 1},
    {IP(128, 0, 0, 0), 1},
    {IP(10, 0, 0, 0), 8},
    {IP(10, 0, 0, 0), 9},
    {IP(10, 128, 0, 0), 9},
    {IP(10, 1, 2, 0), 24},
    {IP(10, 1, 2, 0), 25},
    {IP(10, 1, 2, 128), 25},
    {IP(10, 1, 2, 128), 26},
    {IP(10, 1, 2, 192), 26},
    {IP(10, 1, 2, 0), 31},
    {IP(10, 1, 2, 0), 32},
    {IP(10, 1, 2, 1), 32},
    {IP(224, 0, 0, 0), 3},
    {IP(192, 0, 0, 0), 3},
};
// Few, so that their sets fill up and overflow.
constexpr prefix CROWDED[] = {{0, 0}, {IP(10, 1, 2, 0), 24}, {IP(10, 1, 2, 0), 24}, {IP(10, 1, 2, 1), 32}};
// Two are the first and last address of a subnet.
constexpr std::uint32_t HOSTS[] = {IP(10, 1, 4, 0),  IP(10, 1, 4, 255),  IP(10, 1, 2, 1),   IP(10, 1, 2, 2),
                                   IP(10, 1, 2, 65), IP(10, 1, 2, 66),   IP(10, 1, 4, 9),   IP(10, 9, 9, 9),
                                   IP(10, 9, 9, 10), IP(192, 168, 4, 1), IP(172, 16, 0, 1), IP(172, 16, 0, 2)};
constexpr prefix POOLS[] = {
    // first address, number of addresses
    {IP(10, 1, 2, 32), 32},
    {IP(10, 50, 0, 1), 6},
    {IP(10, 50, 0, 4), 2},
    {IP(10, 1, 2, 0), 256},
    {IP(192, 168, 4, 100), 33},
    {IP(172, 16, 0, 0), 4},
    {0, 0},
    {IP(10, 50, 0, 1), 0},
    {IP(224, 0, 0, 0), 1u << 29},
    {0xFFFFFFF0, 32},
    {IP(10, 1, 128, 7), 1},
};
// 9 is down; 11 and 12 route through a bridge interface, which 12 lacks; 13 has no mode, 14 no address; two do not fit
// the 13 bits of an adjacency word.
constexpr std::uint32_t IFIDS[] = {5, 5, 6, 6, 0x2005, 0x4006, 9, 11, 12, 13, 14, 99};
constexpr std::uint32_t INTERFACE_ADDRESSES[] = {IP(10, 1, 2, 254), IP(10, 1, 4, 1), IP(10, 9, 9, 254),
                                                 IP(192, 168, 4, 2), IP(172, 16, 0, 6)};
constexpr std::uint32_t INTERFACE_MASKS[] = {0xFFFFFF00, 0xFFFFFF00, 0xFFFFFF00, 0xFFFFFF00, 0xFFFF0000, 0xFFFFFFF8,
                                             0xFFFFFFFC, 0xFFFFFFFE, 0xFFFFFFFF, 0,          0xFF00FF00};

template <class T, std::size_t N> const T &one_of(random_run &run, const T (&all)[N])
{
    return all[run.below(static_cast<std::uint32_t>(N))];
}

// A draw a declarator: in an argument list their order, and with it the run of a seed, would be the compiler's.
std::uint32_t far_address(random_run &run)
{
    const std::uint32_t top = 20 + run.below(40), second = run.below(256), third = run.below(8), last = run.below(256);
    return IP(top, second, third, last);
}

prefix any_prefix(random_run &run)
{
    if (run.kind == run_kind::APART)
        return one_of(run, APART);
    if (run.kind == run_kind::CROWDED)
        return one_of(run, CROWDED);
    if (run.kind == run_kind::COVERING || run.kind == run_kind::FOREIGN || !run.one_in(3))
        return one_of(run, COVERING);
    const std::uint32_t len = 9 + run.below(24);
    return {far_address(run) & plain_mask(len), len};
}

std::uint32_t any_host(random_run &run)
{
    if (run.kind == run_kind::WIDE && !run.one_in(4))
        return far_address(run);
    return one_of(run, HOSTS);
}

std::uint32_t any_context(random_run &run)
{
    static constexpr std::uint32_t outside[] = {256, 0x103, 0x10003, 0xFFFF, 0x80000000};
    if (run.one_in(120))
        return one_of(run, outside);
    return run.kind == run_kind::CROWDED && !run.one_in(8) ? RUN_CONTEXTS[1] : RUN_CONTEXTS[run.below(3)];
}

std::uint32_t any_encap(random_run &run)
{
    const std::uint32_t encap = run.one_in(4) ? 0x8000 + run.below(9) : run.below(9);
    return run.one_in(50) ? encap | 0x10000 : encap; // more bits than the argument has
}

std::uint32_t any_address(random_run &run)
{
    const std::uint32_t near = run.one_in(2) ? any_host(run) : any_prefix(run).addr;
    if (run.one_in(2))
        return near;
    const std::uint32_t bit = 1u << run.below(32), low = run.below(4);
    return near ^ bit ^ low;
}

// --- Calls, by name.

std::vector<std::uint32_t> host_args(random_run &run, bool add)
{
    const prefix route = any_prefix(run);
    const bool is_host = !run.one_in(run.kind == run_kind::CROWDED ? 3 : 12);
    const std::uint32_t object = run.one_in(60) ? run.below(5) : 1, len = is_host ? 32 : route.len;
    std::vector<std::uint32_t> args = {object, is_host ? any_host(run) : route.addr | run.below(2),
                                       run.one_in(80) ? 33 + run.below(3) : len};
    if (!add)
        args.push_back(run.below(7)); // a word that is not used
    for (const std::uint32_t value : {any_encap(run), one_of(run, IFIDS), any_context(run)})
        args.push_back(value);
    return args;
}

std::vector<std::uint32_t> static_args(random_run &run, bool add)
{
    const prefix route = any_prefix(run);
    const std::uint32_t ctx = any_context(run), mask = plain_mask(route.len);
    const std::uint32_t host_bits = run.one_in(4) ? run.below(256) & ~mask : 0;
    const std::uint32_t nexthop = run.one_in(40)   ? 0
                                  : run.one_in(10) ? one_of(run, INTERFACE_ADDRESSES)
                                                   : any_host(run);
    // A removal does not look at its route id.
    const bool own_tree = add && (run.kind != run_kind::FOREIGN || run.one_in(2));
    return {ctx, own_tree ? ctx : any_context(run), route.addr | host_bits, mask, nexthop};
}

std::vector<std::uint32_t> pool_args(random_run &run)
{
    prefix pool = one_of(run, POOLS);
    if (run.one_in(3)) {
        const prefix route = any_prefix(run);
        pool = {route.addr, route.len == 0 ? 0 : 1u << (32 - route.len)};
    }
    if (run.one_in(300))
        pool = {1, 0xFFFFFFFE};
    return {any_context(run), one_of(run, IFIDS), pool.addr, pool.len, run.below(5)};
}

std::vector<std::uint32_t> list_args(random_run &run)
{
    if (run.one_in(2))
        return {any_context(run), 0, 0, 0, 0};
    const prefix route = any_prefix(run);
    std::vector<std::uint32_t> args = {any_context(run), route.len, model_bucket(route.addr, route.len), route.addr, 0};
    if (run.one_in(4))
        args = {args[0], run.below(36), run.below(33), run.one_in(2) ? 0 : run.below(0xFFFFFFFF), 0};
    if (run.one_in(20))
        args[1] |= 0x50000; // the upper half of a longer value stays
    return args;
}

std::vector<std::uint32_t> exact_args(random_run &run)
{
    const prefix route = run.one_in(2) ? any_prefix(run) : prefix{any_host(run), 32};
    const std::uint32_t mask = run.one_in(30) ? 0xFF00FF00 : plain_mask(route.len);
    return {any_context(run), run.one_in(10) ? route.addr | 1 : route.addr, mask, run.below(9)};
}

std::vector<std::uint32_t> advert_args(random_run &run)
{
    return {any_prefix(run).addr,
            one_of(run, INTERFACE_MASKS),
            run.one_in(8) ? 0x10005 : one_of(run, IFIDS),
            any_host(run),
            run.one_in(3) ? 0xFFFF : run.below(0x20000),
            any_context(run)};
}

struct weighted_call {
    unsigned weight;
    const char *name;
    std::vector<std::uint32_t> (*args)(random_run &run);
};
const weighted_call CALLS[] = {
    {17, "arp_prefix_mgr_add_route", [](random_run &run) { return host_args(run, true); }},
    {11, "arp_prefix_mgr_remove_route", [](random_run &run) { return host_args(run, false); }},
    {15, "rib_add_route", [](random_run &run) { return static_args(run, true); }},
    {9, "rib_remove_route", [](random_run &run) { return static_args(run, false); }},
    {6, "rib_add_nat_pool", pool_args},
    {6, "rib_remove_nat_pool", pool_args},
    {2, "rib_max_ecmp_route",
     [](random_run &run) {
         const prefix route = any_prefix(run);
         return std::vector<std::uint32_t>{any_context(run), any_context(run), route.addr, plain_mask(route.len)};
     }},
    {4, "slowpath_route_lookup",
     [](random_run &run) {
         return std::vector<std::uint32_t>{any_context(run), any_address(run), run.below(9)};
     }},
    {3, "show_rib_print", list_args},
    {3, "show_fib_print", list_args},
    {2, "show_rib_summary",
     [](random_run &run) {
         return std::vector<std::uint32_t>{any_context(run), 0};
     }},
    {2, "show_fib_summary",
     [](random_run &run) {
         return std::vector<std::uint32_t>{any_context(run), 0};
     }},
    {3, "mtrie_lookup_exact_stub", exact_args},
    {3, "mtrie_hw_dump_api",
     [](random_run &run) {
         static constexpr std::uint32_t copies[] = {0, 1, 2, 7, 0x10001};
         return std::vector<std::uint32_t>{one_of(run, copies), any_context(run), any_address(run), 0};
     }},
    {2, "norvik_send_route_advert", advert_args},
    {1, "route_print_debug", [](random_run &) { return std::vector<std::uint32_t>{}; }}, // not served
};

// --- Messages.

// An address and mask of an interface: mostly what the interface manager has, so that ups and downs meet.
void draw_address(random_run &run, std::uint32_t ifid, std::uint32_t &addr, std::uint32_t &mask)
{
    addr = run.one_in(30)                                ? 0
           : run.kind == run_kind::WIDE && run.one_in(2) ? any_host(run)
                                                         : one_of(run, INTERFACE_ADDRESSES);
    mask = one_of(run, INTERFACE_MASKS);
    const auto of = run.model.interfaces.find(ifid);
    if (of == run.model.interfaces.end() || run.one_in(4))
        return;
    addr = of->second.address;
    mask = of->second.mask;
}

byte_string any_state(random_run &run)
{
    interface_state state;
    state.ifid = one_of(run, IFIDS);
    draw_address(run, state.ifid, state.addr, state.mask);
    state.ctx = any_context(run);
    state.rmode = run.one_in(12) ? run.below(3) : 1;
    return state_payload(state);
}

byte_string any_change(random_run &run)
{
    const std::uint32_t ifid = one_of(run, IFIDS);
    std::uint32_t addr = 0, mask = 0;
    draw_address(run, ifid, addr, mask);
    address_change change{.old_addr = addr, .ifid = run.one_in(20) ? ifid | 0x10000 : ifid, .old_mask = mask};
    change.word = run.one_in(12) ? 0x7FFFFFFF : 0x80000000 | run.below(3);
    if (run.one_in(5))
        change.old_addr = 0;
    return change_payload(change);
}

void draw_message(random_run &run, random_step &step)
{
    static constexpr std::uint32_t opcodes[] = {
        MTS_OPC_NORVIK_IF_UP,      MTS_OPC_NORVIK_IF_UP,      MTS_OPC_NORVIK_IF_UP,
        MTS_OPC_NORVIK_IF_UP,      MTS_OPC_NORVIK_IF_DOWN,    MTS_OPC_NORVIK_IF_DOWN,
        MTS_OPC_NORVIK_IF_DOWN,    MTS_OPC_NORVIK_IF_DOWN,    MTS_OPC_NORVIK_IF_DELETED,
        MTS_OPC_NORVIK_IF_DELETED, MTS_OPC_NORVIK_IF_CHANGED, MTS_OPC_NORVIK_IF_CHANGED,
        MTS_OPC_NORVIK_IF_CHANGED, MTS_OPC_NORVIK_IF_CREATED, 0};
    static constexpr std::uint32_t others[] = {
        MTS_OPC_NORVIK_ENCAP_ACQUIRE, MTS_OPC_NORVIK_ENCAP_RELEASE, 4067, 4071, 4090, 7, MTS_OPC_DEBUG_REQUEST};
    step.is_call = false;
    step.opcode = one_of(run, opcodes);
    if (step.opcode == 0)
        step.opcode = one_of(run, others);
    step.payload = step.opcode == MTS_OPC_NORVIK_IF_CHANGED ? any_change(run) : any_state(run);
    if (run.one_in(25))
        step.payload.resize(run.below(static_cast<std::uint32_t>(step.payload.size()) + 20));
}

random_step draw(random_run &run)
{
    random_step step;
    unsigned all = 0;
    for (const weighted_call &call : CALLS)
        all += call.weight;
    std::uint32_t at = run.below(all + 22);
    for (const weighted_call &call : CALLS) {
        if (at < call.weight) {
            step.procedure = call.name;
            step.args = call.args(run);
            if (run.one_in(200))
                step.args.resize(run.below(9));
            return step;
        }
        at -= call.weight;
    }
    draw_message(run, step);
    return step;
}

// --- The card around it.

void set_interface(random_run &run, std::uint32_t ifid, const model_interface &now)
{
    run.model.interfaces[ifid] = now;
    run.card.interfaces[ifid] = {now.up,      now.rmode, now.bvi, now.has_rmode, now.has_address,
                                 now.address, now.mask,  now.ctx, now.vlan};
}

void make_interfaces(random_run &run)
{
    const auto ctx = [&run] { return static_cast<std::int32_t>(RUN_CONTEXTS[run.below(3)]); };
    for (const std::uint32_t ifid : IFIDS) {
        model_interface made;
        made.address = one_of(run, INTERFACE_ADDRESSES);
        made.ctx = ctx();
        made.vlan = static_cast<std::int32_t>(10 + run.below(4000));
        made.up = ifid != 9;
        made.rmode = ifid == 11 || ifid == 12 ? 2 : 1;
        made.bvi = ifid == 11 ? 6 : -1;
        made.has_rmode = ifid != 13;
        made.has_address = ifid != 14;
        if (ifid != 99)
            set_interface(run, ifid, made);
    }
}

void change_interface(random_run &run)
{
    static constexpr std::int32_t contexts[] = {-1, 256, 0x10003, 0x7FFFFFFF};
    static constexpr std::int32_t vlans[] = {-1, 0, 4095, 0x7FFF, 0x8001, 0x12345};
    const auto it =
        std::next(run.model.interfaces.begin(), run.below(static_cast<std::uint32_t>(run.model.interfaces.size())));
    model_interface now = it->second;
    switch (run.below(5)) {
    case 0:
        now.up = !now.up;
        break;
    case 1:
        now.address = run.one_in(10) ? 0 : one_of(run, INTERFACE_ADDRESSES);
        break;
    case 2:
        now.mask = one_of(run, INTERFACE_MASKS);
        break;
    case 3:
        now.ctx = run.one_in(4) ? one_of(run, contexts) : static_cast<std::int32_t>(RUN_CONTEXTS[run.below(3)]);
        break;
    default:
        now.vlan = one_of(run, vlans);
    }
    set_interface(run, it->first, now);
}

// The peers answer, refuse, or are not there.
void change_peers(random_run &run)
{
    model_peers &peers = run.model.peers;
    peers.arp_result = run.one_in(3) ? TNRPC_FAILED : run.below(2) * 7;
    peers.mac_result = run.one_in(3) ? TNRPC_FAILED : run.one_in(4) ? 5 : 0;
    peers.mac_value = static_cast<std::uint16_t>(run.below(2));
    peers.scp_result = run.one_in(3) ? -static_cast<int>(run.below(100)) : 0;
    peers.open_result = run.one_in(4) ? -2 : 0;
    peers.flush_result = run.one_in(4) ? -5 : 0;
    run.card.call_results = {{"tn_arp_add_entry", peers.arp_result}, {"encap_valid_mac", peers.mac_result}};
    run.card.call_refs = {{"encap_valid_mac", 0x10000u | peers.mac_value}}; // two bytes of it count
    run.card.scp_send_result = peers.scp_result;
    run.card.syscall_open_result = peers.open_result;
    run.card.flush_result = peers.flush_result;
}

void change_surroundings(random_run &run)
{
    if (run.one_in(12))
        change_interface(run);
    if (run.one_in(30))
        change_peers(run);
    run.model.alloc_fails_in = run.one_in(40) ? 1 + run.below(4) : 0;
    run.card.alloc_countdown.clear();
    if (run.model.alloc_fails_in != 0)
        run.card.fail_any_alloc(run.model.alloc_fails_in);
}

} // namespace

random_run::random_run(std::uint32_t seed, run_kind its_kind, unsigned processors)
    : card(processors), model(RUN_CONTEXTS), engine(seed), kind(its_kind)
{
    EXPECT_EQ(card.start(), 0);
    (void)norvik_route_tnrpc_serv();
    const mts_bind_options options{{1, 0, 1024, 0, 0}};
    route_mts_q = mts_bind(4, 514, &options, "Route Manager");
    scphandle = card.scp_handle;
    set[0] = {route_mts_q, POLLIN, 0};
    set[1] = {rpcfd, POLLIN, 0};
    model.processors = processors;
    make_interfaces(*this);
    change_peers(*this);
    card.open_all_history(false);
    card.open_history(100, true);
    card.forget();
}

std::string random_run_step(random_run &run)
{
    run.card.forget();
    run.model.forget();
    change_surroundings(run);
    const random_step step = draw(run);
    std::string difference;
    if (step.is_call) {
        const model_reply expected = run.model.call(step.procedure, step.args);
        difference = compare_reply(step.procedure, run.card.call(step.procedure, step.args), expected);
    } else {
        run.model.event(step.opcode, step.payload);
        run.card.post(step.opcode, step.payload);
        norvik_route_handler_pass(run.set);
    }
    run.card.alloc_countdown.clear();
    run.model.alloc_fails_in = 0;
    if (difference.empty())
        difference = compare_effects(run);
    if (difference.empty())
        difference = compare_short_page(run);
    ++run.steps;
    return difference.empty() ? difference
                              : "step " + std::to_string(run.steps) + ": " + text_of_step(step) + "\n" + difference;
}
} // namespace harness
