// sync_card.cpp - carries out what live_sync tells, with the real routing library, and judges each store.
#include "sync_card.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "big_endian.h"
#include "card_tool/address_text.h"
#include "interface_events.h"
#include "mtrie_records.h"
#include "norvik_mtrie_pool.h"
#include "rib_host.h"
#include "rib_static.h"
#include "route_events.h"

namespace harness
{
namespace
{
constexpr std::uint32_t COPY = 1;

std::uint32_t carry_out(const sync_card::item &call)
{
    const auto value = [&call](std::size_t i) { return call.args.at(i).value; };
    const auto half = [&call](std::size_t i) { return static_cast<std::uint16_t>(call.args.at(i).value); };
    if (call.procedure == "rib_add_route")
        return rib_add_route(half(0), value(1), value(2), value(3), value(4));
    if (call.procedure == "rib_remove_route")
        return rib_remove_route(half(0), value(1), value(2), value(3), value(4));
    if (call.procedure == "arp_prefix_mgr_add_route")
        return arp_prefix_mgr_add_route(half(0), value(1), value(2), half(3), half(4), value(5));
    if (call.procedure == "arp_prefix_mgr_remove_route")
        return arp_prefix_mgr_remove_route(half(0), value(1), value(2), value(3), half(4), half(5), value(6));
    EXPECT_EQ(call.procedure, "rib_max_ecmp_route");
    return rib_max_ecmp_route(half(0), value(1), value(2), value(3));
}

// neighbours: with those whose MAC address is not known, too.
enum class neighbours { known, all };
sync_ways ways_of(const sync_plan &plan, std::uint32_t ctx, std::uint32_t address, neighbours which)
{
    const auto way = [&](std::uint32_t gateway) -> sync_ways {
        const auto hosts = plan.hosts.find(ctx);
        if (hosts == plan.hosts.end() || hosts->second.count(gateway) == 0)
            return {};
        const sync_host &host = hosts->second.at(gateway);
        if (host.mac != 0)
            return {{host.ifid, host.mac}};
        return which == neighbours::all ? sync_ways{{host.ifid, std::uint64_t{gateway} << SYNC_MAC_VARIANT}}
                                        : sync_ways();
    };
    if (const auto hosts = plan.hosts.find(ctx); hosts != plan.hosts.end() && hosts->second.count(address) != 0)
        return way(address);
    std::uint32_t best = 0;
    bool is_connected = false, has_route = false;
    const sync_gateways *gateways = nullptr;
    for (const auto &[ifid, port] : plan.ports) {
        const std::uint32_t network = port.address & port.mask;
        if (port.ctx != ctx || !port.is_up || !port.has_event || ((address ^ port.address) & port.mask) != 0)
            continue;
        is_connected = true;
        best = std::max(best, address_mask_length(port.mask));
        if (address == port.address || address == network || address == (network | ~port.mask))
            return {};
    }
    if (const auto routes = plan.routes.find(ctx); routes != plan.routes.end())
        for (const auto &[prefix, paths] : routes->second)
            if (kernel_prefix_covers(prefix, address) && (prefix.length > best || (best == 0 && !is_connected))) {
                best = prefix.length;
                gateways = &paths;
                has_route = true;
            }
    sync_ways ways;
    if (has_route)
        for (const std::uint32_t gateway : *gateways)
            ways.merge(way(gateway));
    return ways;
}

np_table table_of(const std::vector<std::uint32_t> &words) { return {words.data(), TABLE_IXP}; }
} // namespace

sync_ways plan_ways(const sync_plan &plan, std::uint32_t ctx, std::uint32_t address)
{
    return ways_of(plan, ctx, address, neighbours::known);
}

sync_card::sync_card()
{
    s.out.encap = [this](std::uint32_t encap, std::uint64_t mac) {
        const sync_encap &owner = s.encaps.at(encap);
        const std::pair<std::uint32_t, std::uint32_t> who{owner.ctx, owner.address};
        if (mac != 0 && owners.count(encap) != 0 && owners[encap] != who) {
            EXPECT_EQ(named.count(encap) + old_named.count(encap), 0u) << "encap id " << encap << " is in use";
            EXPECT_TRUE(last_named.count(encap) == 0 || passed > last_named[encap])
                << "encap id " << encap << " is used again before a barrier";
        }
        if (mac != 0)
            owners[encap] = who;
        words[encap] = mac;
        judge();
    };
    s.out.forwards = [this](std::uint32_t ctx, bool forwards) {
        if (ctx >= contexts.size())
            return;
        if (forwards) // nothing but what is wanted now
            may_only(ctx);
        else if (contexts[ctx].forwards)
            contexts[ctx].held_ticket = asked + 1; // only a barrier asked for later ends what is under way
        contexts[ctx].forwards = forwards;
        judge();
    };
    s.out.barrier = [this](std::uint64_t ticket) { asked = ticket; };
    s.out.record = [this](std::uint32_t ifid, const if_db_record &record) {
        records[ifid] = record;
        show_record(ifid);
    };
    s.out.event = [this](std::uint32_t opcode, const std::vector<std::uint8_t> &payload) {
        queue.push_back({"", {}, {}, opcode, payload, {}});
    };
    s.out.mark = [this](std::function<void()> done) { queue.push_back({"", {}, {}, 0, {}, std::move(done)}); };
    s.out.call = [this](const std::string &procedure, const std::vector<card_rpc_arg> &args, card_rpc_done done) {
        queue.push_back({procedure, args, std::move(done), 0, {}, {}});
    };
    s.out.give_extra = [] {};
    s.out.verify = [] {};
    s.out.search = [this] {
        older_table = has_old ? old_table : std::vector<std::uint32_t>();
        switched = asked + 1;
        is_searched = true;
        for (const std::uint32_t encap : old_named)
            last_named[encap] = asked;
        old_named.clear();
        judge();
    };
    s.out.say = [this](const std::string &line) { said.push_back(line); };
    sync_open(s);
}

sync_card::~sync_card() = default;

sync_ways sync_card::table_ways(const np_table &table, std::uint32_t ctx, std::uint32_t address) const
{
    const np_answer answer = np_find(table, ctx, address);
    EXPECT_NE(answer.leaf, NP_UNSOUND);
    sync_ways ways;
    if (answer.leaf == NP_MISS || (answer.adjacency & 0xA0000000) != 0) // to be resolved or translated
        return ways;
    const auto add = [this, &ways](std::uint32_t ifid, std::uint32_t encap) {
        const auto word = words.find(encap);
        if (encap < LIVE_ENCAPS && word != words.end() && word->second != 0)
            ways.emplace(ifid, word->second);
    };
    add(answer.adjacency >> 16 & 0x1FFF, answer.adjacency & 0xFFFF);
    for (std::uint32_t i = 1; i <= ecmp_count(answer.ecmp[0]); ++i)
        add(answer.ecmp[i] >> 18 & 0x1FFF, answer.ecmp[i] & 0xFFFF);
    return ways;
}

void sync_card::may_also(std::uint32_t ctx, const sync_plan &also)
{
    for (const std::uint32_t address : addresses)
        for (const auto &way : ways_of(also, ctx, address, neighbours::all))
            contexts[ctx].may[address].emplace(way.first, way.second >> SYNC_MAC_VARIANT);
}

void sync_card::may_only(std::uint32_t ctx)
{
    contexts[ctx].may.clear();
    may_also(ctx, plan);
}

void sync_card::judge()
{
    const auto judge_table = [this](const np_table &table, std::uint32_t ctx) {
        for (const std::uint32_t address : addresses) {
            ++looks;
            for (const auto &way : table_ways(table, ctx, address))
                if (contexts[ctx].may[address].count({way.first, way.second >> SYNC_MAC_VARIANT}) == 0)
                    ADD_FAILURE() << "context " << ctx << ": " << address_text(address) << " goes to interface "
                                  << way.first << ", MAC " << way.second << "\n"
                                  << state_text();
        }
    };
    for (std::uint32_t ctx = 1; ctx < contexts.size() && !testing::Test::HasFailure(); ++ctx) {
        if (!contexts[ctx].forwards && passed >= contexts[ctx].held_ticket)
            continue;
        if (is_searched && manager != nullptr)
            judge_table(manager->table(COPY), ctx);
        else if (has_old)
            judge_table(table_of(old_table), ctx);
        if (is_searched && passed < switched && !older_table.empty())
            judge_table(table_of(older_table), ctx);
    }
}

void sync_card::judge_at_rest()
{
    ASSERT_TRUE(sync_is_settled(s));
    for (std::uint32_t ctx = 1; ctx < contexts.size(); ++ctx) {
        const bool is_bound = s.contexts[ctx].is_bound;
        EXPECT_EQ(contexts[ctx].forwards, is_bound) << "context " << ctx << " " << s.contexts[ctx].why_held;
        if (!is_bound)
            continue;
        may_only(ctx);
        for (const std::uint32_t address : addresses)
            EXPECT_EQ(table_ways(manager->table(COPY), ctx, address), plan_ways(plan, ctx, address))
                << "context " << ctx << ": " << address_text(address);
    }
    // Nothing was lost on the way: every leaf in use is one that was told.
    EXPECT_EQ(leaves_in_use(), static_cast<std::uint32_t>(s.used.leaves));
}

std::uint32_t sync_card::leaves_in_use() const
{
    constexpr std::int32_t OWN = 2 * 256; // default leaves and multicast entries
    return static_cast<std::uint32_t>(mtrie_pools[MTRIE_POOL_LEAF].count - OWN);
}

void sync_card::want(const sync_plan &next)
{
    for (std::uint32_t ctx = 1; ctx < contexts.size(); ++ctx)
        may_also(ctx, next);
    const sync_plan before = std::exchange(plan, next);
    for (const auto &port : before.ports)
        if (next.ports.count(port.first) == 0)
            sync_want_port(s, port.first, nullptr);
    for (const auto &[ifid, port] : next.ports)
        sync_want_port(s, ifid, &port);
    for (std::uint32_t ctx = 1; ctx < contexts.size(); ++ctx) {
        const bool is_bound = std::any_of(next.ports.begin(), next.ports.end(),
                                          [ctx](const auto &port) { return port.second.ctx == ctx; });
        sync_want_context(s, ctx, is_bound, "");
        const auto routes_of = [ctx](const sync_plan &p) {
            const auto found = p.routes.find(ctx);
            return found == p.routes.end() ? std::map<kernel_prefix, sync_gateways>() : found->second;
        };
        const auto hosts_of = [ctx](const sync_plan &p) {
            const auto found = p.hosts.find(ctx);
            return found == p.hosts.end() ? std::map<std::uint32_t, sync_host>() : found->second;
        };
        const auto routes = routes_of(next);
        const auto hosts = hosts_of(next);
        for (const auto &route : routes_of(before))
            if (routes.count(route.first) == 0)
                sync_want_route(s, ctx, route.first, nullptr);
        for (const auto &host : hosts_of(before))
            if (hosts.count(host.first) == 0)
                sync_want_host(s, ctx, host.first, nullptr);
        for (const auto &[address, host] : hosts)
            sync_want_host(s, ctx, address, &host);
        for (const auto &[prefix, gateways] : routes)
            sync_want_route(s, ctx, prefix, &gateways);
    }
}

void sync_card::run()
{
    sync_run(s);
    if (s.phase == sync_phase::telling && s.stage == sync_stage::extra)
        sync_extra_given(s);
    if (s.phase == sync_phase::telling && s.stage == sync_stage::verifying)
        sync_verified(s, true);
    judge();
}

void sync_card::show_record(std::uint32_t ifid)
{
    const if_db_record &record = records.at(ifid);
    if (manager == nullptr)
        return;
    manager->interfaces.erase(ifid);
    if ((record.flags & IFDB_EXISTS) == 0)
        return;
    fake_interface &entry = manager->interfaces[ifid];
    entry.up = (record.flags & IFDB_UP) != 0;
    entry.has_address = (record.flags & IFDB_HAS_ADDRESS) != 0;
    entry.address = record.address;
    entry.mask = record.mask;
    entry.ctx = static_cast<std::int32_t>(record.ctx);
}

std::uint32_t sync_card::run_call(const item &call)
{
    const bool is_host = call.procedure.rfind("arp_", 0) == 0;
    if (call.procedure == "arp_prefix_mgr_add_route") {
        named.insert(call.args.at(3).value);
        EXPECT_EQ(host_lookup_by_nexthop(call.args.at(5).value, call.args.at(1).value), nullptr)
            << "told twice: " << address_text(call.args.at(1).value) << "\n"
            << state_text();
    }
    const std::uint32_t result = carry_out(call);
    if (is_host && call.procedure != "arp_prefix_mgr_add_route") {
        const std::uint32_t encap = call.args.at(4).value;
        named.erase(encap);
        last_named[encap] = asked;
    }
    return result;
}

void sync_card::take(sync_fault fault)
{
    if (queue.empty())
        return;
    const item next = std::move(queue.front());
    queue.pop_front();
    if (next.passed)
        return next.passed();
    if (next.procedure.empty()) {
        sent.push_back("event " + std::to_string(next.opcode));
        const mts_message message = {
            next.opcode, {0, 515}, static_cast<std::uint32_t>(next.payload.size()), next.payload.data()};
        (void)route_msg_process(&message);
        return;
    }
    sent.push_back(next.procedure);
    if (fault == sync_fault::refused && next.procedure.find("_add_") == std::string::npos)
        fault = sync_fault::none; // a removal answers 1 only where nothing is left to remove
    card_rpc_reply reply;
    reply.end = CARD_RPC_RAN;
    if (fault == sync_fault::none || fault == sync_fault::lost)
        reply.result = run_call(next);
    else if (fault == sync_fault::refused)
        reply.result = 1;
    else if (fault == sync_fault::late)
        left_behind.push_back(next);
    if (fault >= sync_fault::lost)
        reply.end = CARD_RPC_TIMED_OUT;
    if (fault == sync_fault::none && next.procedure.find("_add_") != std::string::npos) {
        EXPECT_EQ(reply.result, 0u) << next.procedure << " was refused\n"
                                    << state_text() << address_text(next.args.at(1).value) << " "
                                    << next.args.at(4).value;
    }
    next.done(reply);
    // The server takes turns between connections: what was left behind on one runs between the calls of the next.
    if (fault < sync_fault::lost && !left_behind.empty()) {
        (void)run_call(left_behind.front());
        left_behind.pop_front();
    }
}

void sync_card::pass_barriers()
{
    passed = asked;
    sync_barrier_passed(s, asked);
}

void sync_card::start_manager()
{
    end_manager();
    manager = std::make_unique<fake_card>(1);
    ASSERT_EQ(manager->start(), 0);
    manager->forget();
    manager->open_all_history(false);
    (void)manager->printed();
    for (const auto &record : records)
        show_record(record.first);
    manager->after_each_store([this] { judge(); });
    is_searched = false;
    sync_arrived(s);
    judge();
}

void sync_card::end_manager()
{
    if (manager == nullptr)
        return;
    if (is_searched) {
        const np_table table = manager->table(COPY);
        old_table.assign(table.words, table.words + TABLE_WORDS);
        has_old = true;
        old_named = named;
    }
    manager->after_each_store({});
    manager.reset();
    is_searched = false;
    named.clear();
    queue.clear();
    left_behind.clear();
    sync_departed(s);
    judge();
}

std::string sync_card::state_text() const
{
    std::string text = "phase " + std::to_string(static_cast<int>(s.phase)) + " stage " +
                       std::to_string(static_cast<int>(s.stage)) + " queue " + std::to_string(queue.size()) + "\n";
    for (std::uint32_t ctx = 1; ctx < contexts.size(); ++ctx) {
        const sync_context &c = s.contexts[ctx];
        text += "context " + std::to_string(ctx) + (c.is_bound ? " bound" : "") + (c.forwards ? " forwards" : "") +
                " pending " + std::to_string(c.pending) + " " + c.why_held + "\n";
        for (const kernel_prefix &prefix : c.routes_due)
            text += "  " + prefix_text(prefix.address, prefix.length) + (c.routes.count(prefix) != 0 ? " wanted" : "") +
                    (c.told.routes.count(prefix) != 0 ? " told" : "") + "\n";
        for (const std::uint32_t address : c.hosts_due)
            text += "  " + address_text(address) + (c.hosts.count(address) != 0 ? " wanted" : "") +
                    (c.told.hosts.count(address) != 0 ? " told" : "") + "\n";
        for (const auto &[ifid, port] : c.told.ports)
            text += "  told port " + std::to_string(ifid) + " " + address_text(port.address) + "\n";
    }
    for (const auto &[ifid, port] : s.ports)
        text += "port " + std::to_string(ifid) + " context " + std::to_string(port.ctx) + " " +
                address_text(port.address) + (port.is_up ? " up" : " down") + "\n";
    return text;
}

void sync_card::settle()
{
    for (unsigned i = 0; i < 20000; ++i) {
        run();
        if (queue.empty() && passed == asked && left_behind.empty()) {
            const std::uint64_t next = sync_next_ms(s);
            if (next == UINT64_MAX && (s.phase == sync_phase::away || sync_is_settled(s)) && asked == passed)
                return;
            s.now_ms = next == UINT64_MAX ? s.now_ms : std::max(s.now_ms, next);
        }
        take();
        pass_barriers();
    }
    ADD_FAILURE() << "does not come to rest: " << state_text();
}
} // namespace harness
