// live_sync_changes.cpp - the single changes, as calls, events and stores.
//
// Elsewhere: which change comes when (live_sync_steps.cpp), the books (live_sync_told.cpp).
#include "live_sync_changes.h"

#include <algorithm>

#include <fmt/format.h>

#include "big_endian.h"
#include "card_tool/address_text.h"
#include "interface_events.h"
#include "mts.h"

namespace
{
constexpr std::uint32_t OBJ_ARP_HOST = 1; // what a host is announced as
constexpr unsigned MOST_DOUBLINGS = 6;
} // namespace

std::uint64_t sync_ask_barrier(live_sync &s)
{
    const std::uint64_t ticket = ++s.last_ticket;
    s.out.barrier(ticket);
    return ticket;
}

namespace
{
void store_mac(live_sync &s, std::uint32_t id, std::uint64_t mac)
{
    sync_encap &encap = s.encaps.at(id);
    if (encap.mac == mac)
        return;
    encap.mac = mac;
    s.out.encap(id, mac);
}

bool names_encap(const sync_told &told, const sync_encap &encap, std::uint32_t id)
{
    const auto host = told.hosts.find(encap.address);
    return host != told.hosts.end() && host->second.encap == id;
}
} // namespace

// Starts to give the id back when no table names it.
void sync_review_encap(live_sync &s, std::uint32_t id)
{
    const auto found = s.encaps.find(id);
    if (found == s.encaps.end() || found->second.retire_ticket != 0)
        return;
    const sync_context &c = s.contexts[found->second.ctx];
    if (names_encap(c.told, found->second, id) || (c.frozen && names_encap(*c.frozen, found->second, id)))
        return;
    store_mac(s, id, 0);
    found->second.retire_ticket = sync_ask_barrier(s);
}

namespace
{
// The id of a neighbour on a port, its word stored. 0: all are taken.
std::uint32_t take_encap(live_sync &s, std::uint32_t ctx, std::uint32_t address, const sync_host &host)
{
    std::uint32_t &id = s.encap_ids[{ctx, address, host.ifid}];
    for (std::uint32_t tries = SYNC_FIRST_ENCAP; id == 0 && tries <= SYNC_LAST_ENCAP; ++tries) {
        if (s.encaps.count(s.next_encap) == 0)
            id = s.next_encap;
        s.next_encap = s.next_encap == SYNC_LAST_ENCAP ? SYNC_FIRST_ENCAP : s.next_encap + 1;
    }
    if (id == 0) {
        s.encap_ids.erase({ctx, address, host.ifid});
        return 0;
    }
    sync_encap &encap = s.encaps.emplace(id, sync_encap{ctx, address, host.ifid, 0, 0}).first->second;
    encap.retire_ticket = 0; // also one that was on its way back
    store_mac(s, id, host.mac);
    return id;
}
} // namespace

// The words of an address: on the port where it is wanted its MAC address, on any other nothing.
void sync_store_words(live_sync &s, std::uint32_t ctx, std::uint32_t address)
{
    const auto wanted = s.contexts[ctx].hosts.find(address);
    const bool has_wanted = wanted != s.contexts[ctx].hosts.end();
    for (auto id = s.encap_ids.lower_bound({ctx, address, 0});
         id != s.encap_ids.end() && id->first[0] == ctx && id->first[1] == address; ++id)
        if (s.encaps.at(id->second).retire_ticket == 0)
            store_mac(s, id->second,
                      has_wanted && wanted->second.ifid == id->first[2] ? wanted->second.mac : std::uint64_t{0});
}

void sync_review_encaps(live_sync &s)
{
    std::vector<std::uint32_t> ids;
    for (const auto &encap : s.encaps)
        ids.push_back(encap.first);
    for (const std::uint32_t id : ids)
        sync_review_encap(s, id);
}

void sync_retire_encaps(live_sync &s)
{
    for (auto encap = s.encaps.begin(); encap != s.encaps.end();) {
        const sync_encap &e = encap->second;
        if (e.retire_ticket == 0 || e.retire_ticket > s.passed_ticket) {
            ++encap;
            continue;
        }
        s.encap_ids.erase({e.ctx, e.address, e.ifid});
        encap = s.encaps.erase(encap);
    }
}

namespace
{
void done_with(live_sync &s, std::uint32_t ctx)
{
    --s.contexts[ctx].pending;
    s.has_changed = true;
}

// When what was refused or not answered is tried again.
std::uint64_t retry_at(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway)
{
    unsigned &times = s.contexts[ctx].refusals[{prefix, gateway}];
    const std::uint64_t at = s.now_ms + (SYNC_RETRY_MS << std::min(times, MOST_DOUBLINGS));
    ++times;
    return at;
}

// Takes the end of a call that was not answered.
void not_answered(live_sync &s, const card_rpc_reply &reply, const char *procedure)
{
    s.out.say(card_rpc_reason(reply.end, procedure));
    s.needs_flush = s.needs_flush || reply.end != CARD_RPC_UNREACHABLE;
}

std::string route_text(std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway)
{
    return fmt::format("context {}: {} via {}", ctx, prefix_text(prefix.address, prefix.length), address_text(gateway));
}

std::vector<card_rpc_arg> route_args(std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway)
{
    return {rpc_u16(ctx), rpc_u32(ctx), rpc_u32(prefix.address), rpc_u32(address_mask_of(prefix.length)),
            rpc_u32(gateway)};
}
} // namespace

void sync_add_path(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway)
{
    constexpr const char *PROCEDURE = "rib_add_route";
    told_set_path(s, ctx, prefix, gateway, {false, SYNC_NEVER});
    ++s.contexts[ctx].pending;
    s.out.call(PROCEDURE, route_args(ctx, prefix, gateway),
               [&s, ctx, prefix, gateway, epoch = s.epoch](const card_rpc_reply &reply) {
                   if (epoch != s.epoch)
                       return;
                   done_with(s, ctx);
                   if (reply.ran() && reply.result == 0) {
                       s.contexts[ctx].refusals.erase({prefix, gateway});
                       told_set_path(s, ctx, prefix, gateway, {true, 0});
                       return;
                   }
                   if (reply.ran())
                       s.out.say(route_text(ctx, prefix, gateway) + ": refused");
                   else
                       not_answered(s, reply, PROCEDURE);
                   told_set_path(s, ctx, prefix, gateway, {false, retry_at(s, ctx, prefix, gateway)});
               });
}

void sync_take_path(live_sync &s, std::uint32_t ctx, const kernel_prefix &prefix, std::uint32_t gateway)
{
    constexpr const char *PROCEDURE = "rib_remove_route";
    told_set_path(s, ctx, prefix, gateway, {false, SYNC_NEVER});
    ++s.contexts[ctx].pending;
    s.out.call(PROCEDURE, route_args(ctx, prefix, gateway),
               [&s, ctx, prefix, gateway, epoch = s.epoch](const card_rpc_reply &reply) {
                   if (epoch != s.epoch)
                       return;
                   done_with(s, ctx);
                   if (reply.ran()) { // also where it was not there
                       told_drop_path(s, ctx, prefix, gateway);
                       return;
                   }
                   not_answered(s, reply, PROCEDURE);
                   told_set_path(s, ctx, prefix, gateway, {false, retry_at(s, ctx, prefix, gateway)});
               });
}

void sync_announce(live_sync &s, std::uint32_t ctx, std::uint32_t address, const sync_host &host)
{
    constexpr const char *PROCEDURE = "arp_prefix_mgr_add_route";
    const bool is_up = address == SYNC_UP_GATEWAY;
    const std::uint32_t encap = is_up ? SYNC_UP_ENCAP : take_encap(s, ctx, address, host);
    if (encap == 0)
        return s.out.say(fmt::format("context {}: no encap id is left for {}", ctx, address_text(address)));
    told_set_host(s, ctx, address, {host.ifid, encap, false, SYNC_NEVER});
    ++s.contexts[ctx].pending;
    s.out.call(PROCEDURE,
               {rpc_u16(OBJ_ARP_HOST), rpc_u32(address), rpc_u32(SYNC_ADDRESS_BITS), rpc_u16(encap), rpc_u16(host.ifid),
                rpc_u32(ctx)},
               [&s, ctx, address, encap, ifid = host.ifid, epoch = s.epoch](const card_rpc_reply &reply) {
                   if (epoch != s.epoch)
                       return;
                   done_with(s, ctx);
                   if (reply.ran() && reply.result == 0) {
                       s.contexts[ctx].refusals.erase({sync_host_prefix(address), 0});
                       told_set_host(s, ctx, address, {ifid, encap, true, 0});
                       return;
                   }
                   if (reply.ran())
                       s.out.say(fmt::format("context {}: host {}: refused", ctx, address_text(address)));
                   else
                       not_answered(s, reply, PROCEDURE);
                   told_set_host(s, ctx, address, {ifid, encap, false, retry_at(s, ctx, sync_host_prefix(address), 0)});
               });
}

void sync_withdraw(live_sync &s, std::uint32_t ctx, std::uint32_t address)
{
    constexpr const char *PROCEDURE = "arp_prefix_mgr_remove_route";
    const sync_told_host host = s.contexts[ctx].told.hosts.at(address);
    told_set_host(s, ctx, address, {host.ifid, host.encap, false, SYNC_NEVER});
    ++s.contexts[ctx].pending;
    s.out.call(PROCEDURE,
               {rpc_u16(OBJ_ARP_HOST), rpc_u32(address), rpc_u32(SYNC_ADDRESS_BITS), rpc_u32(0), rpc_u16(host.encap),
                rpc_u16(host.ifid), rpc_u32(ctx)},
               [&s, ctx, address, host, epoch = s.epoch](const card_rpc_reply &reply) {
                   if (epoch != s.epoch)
                       return;
                   done_with(s, ctx);
                   if (reply.ran()) {
                       told_drop_host(s, ctx, address);
                       sync_review_encap(s, host.encap);
                       return;
                   }
                   not_answered(s, reply, PROCEDURE);
                   told_set_host(s, ctx, address,
                                 {host.ifid, host.encap, false, retry_at(s, ctx, sync_host_prefix(address), 0)});
               });
}

namespace
{
if_db_record record_of(const sync_port &port)
{
    const std::uint32_t flags =
        IFDB_EXISTS | IFDB_HAS_CONTEXT | (port.is_up ? IFDB_UP : 0) | (port.address != 0 ? IFDB_HAS_ADDRESS : 0);
    return {flags, IF_RMODE_ROUTED, 0, port.address, port.mask, port.ctx, 0};
}
} // namespace

// The record as it is wanted; it is not written while the route manager has the port otherwise.
void sync_write_record(live_sync &s, std::uint32_t ifid)
{
    const auto port = s.ports.find(ifid);
    s.out.record(ifid, port == s.ports.end() ? if_db_record{} : record_of(port->second));
}

namespace
{
std::vector<std::uint8_t> event_payload(std::uint32_t ifid, const sync_port &port)
{
    std::vector<std::uint8_t> payload(IFEV_BYTES);
    put_be16(payload.data() + IFEV_AT_IFID, ifid);
    put_be16(payload.data() + IFEV_AT_CTX, port.ctx);
    put_be32(payload.data() + IFEV_AT_ADDR, port.address);
    put_be32(payload.data() + IFEV_AT_MASK, port.mask);
    put_be32(payload.data() + IFEV_AT_RMODE, IF_RMODE_ROUTED);
    return payload;
}
} // namespace

void sync_port_up(live_sync &s, std::uint32_t ifid, const sync_port &port)
{
    told_set_port(s, ifid, port);
    ++s.contexts[port.ctx].pending;
    s.out.record(ifid, record_of(port));
    s.out.event(MTS_OPC_NORVIK_IF_UP, event_payload(ifid, port));
    s.out.mark([&s, ctx = port.ctx, epoch = s.epoch] {
        if (epoch == s.epoch)
            done_with(s, ctx);
    });
}

void sync_port_down(live_sync &s, std::uint32_t ifid, const sync_port &told)
{
    ++s.contexts[told.ctx].pending;
    sync_port down = told;
    down.is_up = false;
    s.out.record(ifid, record_of(down));
    s.out.event(MTS_OPC_NORVIK_IF_DOWN, event_payload(ifid, told));
    s.out.mark([&s, ifid, ctx = told.ctx, epoch = s.epoch] {
        if (epoch != s.epoch)
            return;
        done_with(s, ctx);
        told_drop_port(s, ctx, ifid);
        sync_write_record(s, ifid);
    });
}
