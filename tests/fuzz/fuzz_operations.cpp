// fuzz_operations.cpp - sequences of valid operations, decoded from bytes: routes, hosts, pools, interfaces that come
// and go, short memory, an ARP service in any state. Every audit runs after each.
//
// Contexts, prefixes and hosts come from small tables, so that operations meet: prefixes that cover each other, hosts
// that are gateways, sets that fill up, interfaces whose routes stand in the way.
#include <array>
#include <cstdint>
#include <vector>

#include <sys/socket.h>

#include "card_bytes.h"
#include "fuzz_card.h"
#include "fuzz_memory.h"
#include "mtrack.h"
#include "mts.h"
#include "norvik_mtrie_dump.h"
#include "norvik_mtrie_leaf.h"
#include "rib_host.h"
#include "rib_nat.h"
#include "rib_show.h"
#include "rib_static.h"
#include "rib_table.h"
#include "route_advert.h"
#include "route_events.h"
#include "route_ids.h"
#include "sdwrap.h"
#include "slowpath_lookup.h"

using namespace harness;

namespace
{
struct prefix {
    std::uint32_t addr, len;
};
constexpr prefix PREFIXES[] = {
    {0, 0},
    {0, 1},
    {IP(128, 0, 0, 0), 1},
    {IP(10, 0, 0, 0), 8},
    {IP(10, 0, 0, 0), 9},
    {IP(10, 128, 0, 0), 9},
    {IP(10, 1, 0, 0), 16},
    {IP(10, 1, 0, 0), 24},
    {IP(10, 1, 0, 0), 25},
    {IP(10, 1, 0, 128), 25},
    {IP(10, 1, 0, 192), 26},
    {IP(10, 2, 0, 0), 15},
    {IP(10, 2, 0, 0), 24},
    {IP(10, 1, 0, 7), 32},
    {IP(224, 0, 0, 0), 3},
    {IP(255, 255, 255, 255), 32},
};
constexpr std::uint32_t HOSTS[] = {
    IP(10, 1, 0, 1),   IP(10, 1, 0, 2),    IP(10, 1, 0, 3),        IP(10, 1, 0, 4),
    IP(10, 1, 0, 7),   IP(10, 1, 0, 8),    IP(10, 1, 0, 9),        IP(10, 1, 0, 130),
    IP(10, 2, 0, 1),   IP(10, 2, 0, 2),    IP(10, 3, 0, 1),        IP(10, 3, 0, 0),
    IP(10, 1, 0, 255), IP(192, 168, 0, 1), IP(255, 255, 255, 255), 0,
};
constexpr std::size_t MAX_OPERATIONS = 96;
constexpr unsigned REPEATS = 530; // a leaf each, and half of the 1024 are taken at the start

// What an operation works on, out of four bytes: one each for the kind, the place, the thing and the rest.
struct operation {
    std::uint8_t kind, place, thing, rest;
    std::uint16_t ctx() const { return (place & 0x80) != 0 ? ROUTE_CONTEXTS - 1 : place & 3; }
    std::uint16_t route_id() const { return (place & 0x40) != 0 ? (place >> 2 & 3) : ctx(); }
    std::uint16_t ifid() const { return (rest & 0xF) == 0xF ? 0x2005 : rest & 0xF; }
    prefix route() const { return PREFIXES[thing & 0xF]; }
    std::uint32_t host() const { return HOSTS[rest >> 4]; }
    std::uint16_t encap() const { return static_cast<std::uint16_t>((thing >> 4) + ((rest & 0x80) != 0 ? 0x8000 : 1)); }
};

std::uint32_t mask_of(std::uint32_t len) { return rib_mask_table[len]; }

void send_event(std::uint32_t opcode, const operation &o)
{
    const std::uint32_t mask = mask_of((o.thing & 0xF) == 0 ? 24 : 16 + (o.thing & 0xF));
    const std::uint32_t rmode = (o.thing & 0x80) != 0 ? 0 : 1;
    const byte_string payload =
        opcode == MTS_OPC_NORVIK_IF_CHANGED
            ? change_payload({.old_addr = o.host(), .ifid = o.ifid(), .old_mask = mask})
            : state_payload({.ifid = o.ifid(), .ctx = o.ctx(), .addr = o.host(), .mask = mask, .rmode = rmode});
    const mts_message message = {opcode, {0, 600}, static_cast<std::uint32_t>(payload.size()), payload.data()};
    (void)route_msg_process(&message);
}

void list(const operation &o)
{
    std::uint16_t rows = o.thing & 1, bucket = o.thing & 0x1E;
    std::uint32_t position = 0;
    for (unsigned page = 0; page < 4 && position != ROUTE_WALK_DONE; ++page) {
        tnrpc_block block = {0, nullptr};
        (void)((o.thing & 0x80) != 0 ? show_fib_print : show_rib_print)(o.ctx(), &rows, &bucket, &position, &block);
        mtrack_free(block.data.get());
    }
    for (const auto summary : {show_rib_summary, show_fib_summary}) {
        tnrpc_block block = {0, nullptr};
        (void)summary(o.ctx(), &block);
        mtrack_free(block.data.get());
    }
}

void look(const operation &o)
{
    std::uint32_t found = 0;
    tnrpc_block block = {0, nullptr};
    (void)slowpath_route_lookup(o.ctx(), o.host(), &found);
    (void)mtrie_lookup_exact_stub(o.route_id(), o.route().addr, mask_of(o.route().len), &found);
    (void)rib_max_ecmp_route(o.ctx(), o.route_id(), o.route().addr, mask_of(o.route().len));
    (void)mtrie_hw_dump_api(o.thing % 3, o.route_id(), o.host(), &block);
    mtrack_free(block.data.get());
    (void)norvik_send_route_advert(o.route().addr, mask_of(o.route().len), o.ifid(), o.host(), o.encap(), o.ctx());
}

void pool(const operation &o, bool add)
{
    const std::uint32_t range = (o.thing >> 4) * (o.thing >> 4) * 3u;
    (void)(add ? rib_add_nat_pool : rib_remove_nat_pool)(o.ctx(), o.ifid(), o.host() + (o.thing & 0xF), range,
                                                         o.encap());
}

// Lines of the category are the most by far, so they are kept from where an input says so.
void keep_info_lines(bool on) { (void)sdwrap_hist_set_event_subtype(ROUTE_HIST_EVENT, ROUTE_DBG_INFO, on ? 1 : 0); }

void set_peer(const operation &o)
{
    constexpr fuzz_answer ANSWERS[] = {fuzz_answer::well, fuzz_answer::failing, fuzz_answer::ending, fuzz_answer::well};
    fuzz_peer = {ANSWERS[o.thing & 3], o.rest, {}, false};
    keep_info_lines((o.thing & 0x10) != 0);
}

void run(const operation &o)
{
    switch (o.kind & 0xF) {
    case 0:
    case 1:
        (void)rib_add_route(o.ctx(), o.route_id(), o.route().addr, mask_of(o.route().len), o.host());
        break;
    case 2:
        (void)rib_remove_route(o.ctx(), o.route_id(), o.route().addr, mask_of(o.route().len), o.host());
        break;
    case 3:
    case 4:
        (void)arp_prefix_mgr_add_route(1, o.host(), 32, o.encap(), o.ifid(), o.ctx());
        break;
    case 5:
        (void)arp_prefix_mgr_remove_route(1, o.host(), 32, 0, o.encap(), o.ifid(), o.ctx());
        break;
    case 6:
        (void)arp_prefix_mgr_add_route(1, o.route().addr, o.route().len, o.encap(), o.ifid(), o.ctx());
        break;
    case 7:
        (void)arp_prefix_mgr_remove_route(1, o.route().addr, o.route().len, 0, o.encap(), o.ifid(), o.ctx());
        break;
    case 8:
        send_event(MTS_OPC_NORVIK_IF_UP, o);
        break;
    case 9:
        send_event((o.thing & 0x10) != 0 ? MTS_OPC_NORVIK_IF_DELETED : MTS_OPC_NORVIK_IF_DOWN, o);
        break;
    case 10:
        send_event(MTS_OPC_NORVIK_IF_CHANGED, o);
        break;
    case 11:
        pool(o, true);
        break;
    case 12:
        pool(o, false);
        break;
    case 13:
        look(o);
        break;
    case 14:
        list(o);
        break;
    default:
        set_peer(o);
        break;
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_card_boot();
    fuzz_peer = {};
    keep_info_lines(false);
    fuzz_input input{{data, size}};
    bool repeated = false;
    for (std::size_t n = 0; n < MAX_OPERATIONS && !input.at_end(); ++n) {
        operation o{};
        o.kind = input.byte();
        o.place = input.byte();
        o.thing = input.byte();
        o.rest = input.byte();
        fuzz_memory_fail_alloc((o.kind & 0x80) != 0 ? 1 + (o.kind >> 4 & 7) : 0);
        // The same operation many times, once an input, is how a pool runs out: one that may take a leaf each time.
        const bool takes = (o.kind & 0xF) < 11;
        const unsigned repeats =
            (o.kind & 0xF0) == 0x70 && (o.place & 0x30) == 0x30 && takes && !repeated ? REPEATS : 1;
        repeated = repeated || repeats > 1;
        for (unsigned i = 0; i < repeats; ++i)
            run(o);
        fuzz_card_check();
    }
    fuzz_card_check_all();
    fuzz_card_restore();
    return 0;
}
