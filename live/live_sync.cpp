// live_sync.cpp - contexts held back and released, the route manager's coming and going, and the switch of the tables.
//
// Elsewhere: what always holds (live_sync.h), the order of changes (live_sync_steps.cpp), the changes themselves
// (live_sync_changes.cpp), the books (live_sync_told.cpp).
#include "live_sync.h"

#include <algorithm>

#include <fmt/format.h>

#include "live_sync_changes.h"
#include "live_sync_steps.h"
#include "live_sync_told.h"

namespace
{
void hold(live_sync &s, std::uint32_t ctx, const std::string &why)
{
    sync_context &c = s.contexts[ctx];
    if (c.why_held != why)
        s.out.say(fmt::format("context {}: held back: {}", ctx, why));
    c.why_held = why;
    if (!c.forwards)
        return;
    c.forwards = false;
    s.out.forwards(ctx, false);
    c.held_ticket = sync_ask_barrier(s);
}

void release(live_sync &s, std::uint32_t ctx)
{
    sync_context &c = s.contexts[ctx];
    if (c.forwards)
        return;
    if (!c.why_held.empty())
        s.out.say(fmt::format("context {}: forwards", ctx));
    c.why_held.clear();
    c.forwards = true;
    s.out.forwards(ctx, true);
}

// Whether the table that is searched says what is wanted, the route manager that wrote it being away. Hosts whose words
// were cleared go to the kernel, and so do those that it does not have.
bool is_frozen_right(const live_sync &s, std::uint32_t ctx)
{
    const sync_context &c = s.contexts[ctx];
    if (!c.frozen)
        return false;
    const sync_told &frozen = *c.frozen;
    for (const auto &[prefix, paths] : frozen.routes)
        for (const auto &[gateway, path] : paths)
            if (!path.is_sure || sync_wanted_route(c, prefix).count(gateway) == 0)
                return false;
    for (const auto &[prefix, gateways] : c.routes) {
        const auto found = frozen.routes.find(prefix);
        if (found == frozen.routes.end() ? !told_is_filled_as_wanted(s, ctx, prefix)
                                         : found->second.size() != gateways.size())
            return false;
    }
    for (const auto &[address, host] : frozen.hosts) {
        const auto wanted = c.hosts.find(address);
        if (!host.is_sure || (wanted != c.hosts.end() && wanted->second.ifid != host.ifid))
            return false;
    }
    std::size_t ports = 0;
    for (const auto &[ifid, port] : s.ports) {
        if (port.ctx != ctx || !sync_is_event_port(port))
            continue;
        const auto found = frozen.ports.find(ifid);
        if (found == frozen.ports.end() || found->second != port)
            return false;
        ++ports;
    }
    return ports == frozen.ports.size();
}

// What keeps a context from forwarding whatever the tables hold; empty: nothing.
std::string why_never(const sync_context &c)
{
    return c.is_bound ? c.held_by_plan : std::string("no port is bound to it");
}

void run_frozen(live_sync &s, std::uint32_t ctx)
{
    sync_context &c = s.contexts[ctx];
    if (c.is_compared)
        return;
    c.is_compared = true;
    const std::string never = why_never(c);
    if (!never.empty())
        hold(s, ctx, never);
    else if (is_frozen_right(s, ctx))
        release(s, ctx);
    else if (!c.frozen)
        hold(s, ctx, "no table holds its routes yet");
    else
        hold(s, ctx, "it has changed, and no route manager has written its table since");
}

bool can_change(const live_sync &s, std::uint32_t ctx)
{
    return s.contexts[ctx].pending == 0 && !s.needs_flush && s.flushes == 0;
}

void run_serving(live_sync &s, std::uint32_t ctx)
{
    sync_context &c = s.contexts[ctx];
    std::string why = why_never(c);
    if (why.empty() && c.pending == 0)
        if (const char *const waits = sync_why_waits(s, ctx))
            why = waits;
    if (!why.empty())
        hold(s, ctx, why);
    if (!can_change(s, ctx))
        return;
    if (c.forwards) {
        if (!sync_gentle_step(s, ctx) && !sync_is_settled(s, ctx))
            hold(s, ctx, "there is no room for a change");
        return;
    }
    if (s.passed_ticket < c.held_ticket || sync_strict_step(s, ctx))
        return;
    if (why.empty() && sync_is_settled(s, ctx) && s.passed_ticket >= s.switch_ticket)
        release(s, ctx);
}

bool is_concerned(const sync_context &c)
{
    return c.is_bound || c.forwards || !c.told.routes.empty() || !c.told.hosts.empty() || !c.told.ports.empty();
}

void start_flush(live_sync &s)
{
    if (!s.needs_flush || s.flushes != 0 || s.phase == sync_phase::away)
        return;
    s.needs_flush = false;
    s.flushes = SYNC_FLUSH_CALLS;
    for (unsigned i = 0; i < SYNC_FLUSH_CALLS; ++i)
        s.out.call("rib_max_ecmp_route", {rpc_u16(0), rpc_u32(0), rpc_u32(0), rpc_u32(0)},
                   [&s, epoch = s.epoch](const card_rpc_reply &reply) {
                       if (epoch != s.epoch)
                           return;
                       --s.flushes;
                       s.needs_flush = s.needs_flush || !reply.ran();
                   });
}

// The route manager's table is searched from now on.
void search(live_sync &s)
{
    s.out.search();
    s.switch_ticket = sync_ask_barrier(s);
    s.phase = sync_phase::serving;
    s.out.say("the route manager's table is searched");
    for (sync_context &c : s.contexts)
        c.frozen.reset();
    sync_review_encaps(s);
}

// Whether nothing more can be told now: what is not settled waits for room or for a retry.
bool is_told(const live_sync &s)
{
    return std::all_of(s.contexts.begin(), s.contexts.end(), [](const sync_context &c) { return c.pending == 0; }) &&
           s.flushes == 0 && !s.needs_flush;
}

// Holds back what the new table does not say right. Returns whether no packet is under way by a table that it may not
// use.
bool hold_unsettled(live_sync &s)
{
    bool is_over = true;
    for (std::uint32_t ctx = 0; ctx < LIVE_CONTEXTS; ++ctx) {
        if (!sync_is_settled(s, ctx))
            hold(s, ctx, "a change was refused, or there is no room for it");
        is_over = is_over && (s.contexts[ctx].forwards || s.contexts[ctx].held_ticket <= s.passed_ticket);
    }
    return is_over;
}

void run_telling(live_sync &s)
{
    if (!is_told(s))
        return;
    switch (s.stage) {
    case sync_stage::telling:
        s.stage = sync_stage::extra;
        s.out.give_extra();
        break;
    case sync_stage::extra:
    case sync_stage::verifying:
        break;
    case sync_stage::told:
        s.stage = sync_stage::verifying;
        s.has_changed = false;
        s.out.verify();
        break;
    case sync_stage::verified:
        if (s.has_changed)
            s.stage = sync_stage::told;
        else if (hold_unsettled(s))
            search(s);
        break;
    }
}
} // namespace

void sync_open(live_sync &s)
{
    for (std::uint32_t ctx = 0; ctx < LIVE_CONTEXTS; ++ctx)
        s.out.forwards(ctx, false);
    const std::uint64_t ticket = sync_ask_barrier(s);
    for (sync_context &c : s.contexts)
        c.held_ticket = ticket;
    s.out.record(SYNC_UP_IFID,
                 {IFDB_EXISTS | IFDB_UP | IFDB_HAS_ADDRESS, IF_RMODE_ROUTED, 0, SYNC_UP_GATEWAY, 0xFFFFFFFF, 0, 0});
}

void sync_want_context(live_sync &s, std::uint32_t ctx, bool is_bound, const std::string &held_by_plan)
{
    sync_context &c = s.contexts[ctx];
    if (c.is_bound == is_bound && c.held_by_plan == held_by_plan)
        return;
    c.is_bound = is_bound;
    c.held_by_plan = held_by_plan;
    c.is_compared = false;
    constexpr sync_host UP = {SYNC_UP_IFID, 0};
    sync_want_host(s, ctx, SYNC_UP_GATEWAY, is_bound ? &UP : nullptr);
}

void sync_want_port(live_sync &s, std::uint32_t ifid, const sync_port *port)
{
    const auto found = s.ports.find(ifid);
    if (port == nullptr ? found == s.ports.end() : found != s.ports.end() && found->second == *port)
        return;
    if (found != s.ports.end())
        s.contexts[found->second.ctx].is_compared = false;
    if (port != nullptr) {
        s.ports[ifid] = *port;
        s.contexts[port->ctx].is_compared = false;
    } else {
        s.ports.erase(found);
    }
    s.has_changed = true;
    if (!sync_is_port_told(s, ifid)) // else it is written with the port's event
        sync_write_record(s, ifid);
}

void sync_want_host(live_sync &s, std::uint32_t ctx, std::uint32_t address, const sync_host *host)
{
    sync_context &c = s.contexts[ctx];
    const auto before = c.hosts.find(address);
    if (host == nullptr ? before == c.hosts.end() : before != c.hosts.end() && before->second == *host)
        return;
    if (host != nullptr)
        c.hosts[address] = *host;
    else
        c.hosts.erase(address);
    if (const auto told = c.told.hosts.find(address); told != c.told.hosts.end() && told->second.retry_ms != SYNC_NEVER)
        told->second.retry_ms = 0; // what was refused may be tried again, or is not wanted any more
    sync_store_words(s, ctx, address);
    told_look_host(s, ctx, address);
}

void sync_want_route(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, const sync_gateways *gateways)
{
    sync_context &c = s.contexts[ctx];
    const auto before = c.routes.find(prefix);
    if (gateways == nullptr ? before == c.routes.end() : before != c.routes.end() && before->second == *gateways)
        return;
    if (gateways != nullptr)
        c.routes[prefix] = *gateways;
    else
        c.routes.erase(prefix);
    if (const auto told = c.told.routes.find(prefix); told != c.told.routes.end())
        for (auto &path : told->second)
            if (path.second.retry_ms != SYNC_NEVER)
                path.second.retry_ms = 0;
    told_look_route(s, ctx, prefix);
}

void sync_departed(live_sync &s)
{
    if (s.phase == sync_phase::away)
        return;
    ++s.epoch;
    if (s.phase == sync_phase::serving)
        for (sync_context &c : s.contexts)
            c.frozen = c.told;
    s.phase = sync_phase::away;
    s.needs_flush = false;
    s.flushes = 0;
    std::set<std::uint32_t> ports;
    for (const sync_context &c : s.contexts)
        for (const auto &port : c.told.ports)
            ports.insert(port.first);
    told_clear(s);
    for (const std::uint32_t ifid : ports)
        sync_write_record(s, ifid);
    sync_review_encaps(s);
}

void sync_arrived(live_sync &s)
{
    sync_departed(s); // one that started between two looks
    ++s.epoch;
    s.phase = sync_phase::telling;
    s.stage = sync_stage::telling;
}

void sync_barrier_passed(live_sync &s, std::uint64_t ticket) { s.passed_ticket = std::max(s.passed_ticket, ticket); }

void sync_extra_given(live_sync &s)
{
    if (s.phase == sync_phase::telling && s.stage == sync_stage::extra)
        s.stage = sync_stage::told;
}

void sync_verified(live_sync &s, bool is_right)
{
    if (s.phase == sync_phase::telling && s.stage == sync_stage::verifying)
        s.stage = is_right ? sync_stage::verified : sync_stage::told;
}

void sync_adopt(live_sync &s, bool is_searched)
{
    ++s.epoch;
    s.phase = is_searched ? sync_phase::serving : sync_phase::telling;
    s.stage = sync_stage::telling;
}

void sync_adopt_port(live_sync &s, std::uint32_t ifid, const sync_port &port) { told_set_port(s, ifid, port); }

void sync_adopt_host(live_sync &s, std::uint32_t ctx, std::uint32_t address, const sync_told_host &host,
                     std::uint64_t mac)
{
    told_set_host(s, ctx, address, host);
    if (host.encap >= LIVE_ENCAPS || !s.encaps.emplace(host.encap, sync_encap{ctx, address, host.ifid, mac, 0}).second)
        return;
    s.encap_ids[{ctx, address, host.ifid}] = host.encap;
    sync_store_words(s, ctx, address);
}

void sync_adopt_route(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway)
{
    told_set_path(s, ctx, prefix, gateway, {true, 0});
}

void sync_run(live_sync &s)
{
    sync_retire_encaps(s);
    start_flush(s);
    for (std::uint32_t ctx = 0; ctx < LIVE_CONTEXTS; ++ctx) {
        if (!is_concerned(s.contexts[ctx]))
            continue;
        if (s.phase == sync_phase::serving)
            run_serving(s, ctx);
        else
            run_frozen(s, ctx);
        if (s.phase == sync_phase::telling && can_change(s, ctx))
            (void)sync_strict_step(s, ctx);
    }
    if (s.phase == sync_phase::telling)
        run_telling(s);
}

std::uint64_t sync_next_ms(const live_sync &s)
{
    std::uint64_t next = SYNC_NEVER;
    if (s.phase == sync_phase::away)
        return next;
    for (const sync_context &c : s.contexts) {
        if (c.pending != 0 || s.flushes != 0 || s.needs_flush || c.held_ticket > s.passed_ticket)
            continue; // something else comes first
        for (const kernel_prefix &prefix : c.routes_due)
            for (const auto &path : sync_told_route(c, prefix))
                if (!path.second.is_sure)
                    next = std::min(next, path.second.retry_ms);
        for (const std::uint32_t address : c.hosts_due)
            if (const auto host = c.told.hosts.find(address); host != c.told.hosts.end() && !host->second.is_sure)
                next = std::min(next, host->second.retry_ms);
    }
    return next;
}

bool sync_is_settled(const live_sync &s, std::uint32_t ctx)
{
    const sync_context &c = s.contexts[ctx];
    return c.pending == 0 && c.hosts_due.empty() && sync_are_ports_right(s, ctx) &&
           std::all_of(c.routes_due.begin(), c.routes_due.end(),
                       [&s, ctx](const kernel_prefix &prefix) { return sync_is_needless(s, ctx, prefix); });
}

bool sync_is_settled(const live_sync &s)
{
    for (std::uint32_t ctx = 0; ctx < LIVE_CONTEXTS; ++ctx)
        if (!sync_is_settled(s, ctx))
            return false;
    return s.phase == sync_phase::serving;
}
