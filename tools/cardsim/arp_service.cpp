// arp_service.cpp - the ARP service: which hosts there are, and which of them the route manager knows.
//
// An event only puts a host on the list of those to be looked at; card_arp_run compares what the route manager should
// know with what was announced, and makes the one call that comes next. Its answer puts the host on the list again. So
// a change in the middle of a call, or an answer that never comes, needs no rule of its own.
// Always: at most one call about a host is under way.
// Elsewhere: what holds of a host's fields (card_model.h).

#include <algorithm>

#include <fmt/format.h>

#include "card_model.h"
#include "card_tool/address_text.h"
#include "route_entry.h"

namespace
{
constexpr std::uint32_t HOST_LEN = 32;

void look_at(card_model &m, const card_host_key &key, std::uint64_t at_ms) { m.due.emplace(at_ms, key); }

// The interface that routes for `ifid`, or null.
const card_interface *routing_interface(const card_model &m, std::uint32_t ifid)
{
    auto found = m.interfaces.find(ifid);
    if (found != m.interfaces.end() && found->second.mode != 1)
        found = m.interfaces.find(found->second.bvi);
    return found == m.interfaces.end() ? nullptr : &found->second;
}

bool is_in_subnet(const card_model &m, std::uint32_t ifid, std::uint32_t address)
{
    const card_interface *const routing = routing_interface(m, ifid);
    return routing != nullptr && routing->address != 0 && ((address ^ routing->address) & routing->mask) == 0;
}

// Whether the route manager should know the host now.
bool is_wanted(const card_model &m, const card_host_key &key, const card_host &host)
{
    const auto found = m.interfaces.find(host.ifid);
    return !host.is_gone && found != m.interfaces.end() && found->second.is_up &&
           is_in_subnet(m, host.ifid, key.second) && (!host.is_quiet || host.is_asked) && m.now_ms >= host.due_ms;
}

// The route manager does not know the host (any more).
void set_not_announced(card_model &m, card_host &host)
{
    if (host.announced != ANNOUNCED_NO && host.announced_encap != host.encap)
        card_encap_give(m, host.announced_encap);
    host.announced = ANNOUNCED_NO;
    host.announced_encap = host.encap;
}

// How a call that did not run leaves the host: a call that was never sent has changed nothing.
void set_unanswered(card_model &m, const card_host_key &key, card_host &host, const card_rpc_reply &reply)
{
    if (reply.end == CARD_RPC_UNREACHABLE) {
        set_not_announced(m, host); // no route manager knows it
        host.is_refused = true;     // not tried again: one that starts is sent everything
        return;
    }
    host.announced = ANNOUNCED_MAYBE;
    host.due_ms = m.now_ms + CARD_RETRY_MS;
    look_at(m, key, host.due_ms);
}

std::string host_text(const card_host_key &key, std::uint32_t encap)
{
    return fmt::format("host {}, context {}, encap 0x{:04x}", address_text(key.second), key.first, encap);
}

void announce(card_model &m, const card_host_key &key, card_host &host)
{
    host.is_busy = true;
    host.is_refreshed = host.is_doubted = false;
    host.announced = ANNOUNCED_MAYBE; // until the answer
    host.announced_ifid = host.ifid;
    host.announced_encap = host.encap;
    ++m.busy;
    const auto done = [&m, key, encap = host.encap](const card_rpc_reply &reply) {
        card_host &h = m.hosts.at(key);
        h.is_busy = false;
        --m.busy;
        if (reply.ran() && reply.result == 0) {
            h.announced = h.is_doubted ? ANNOUNCED_MAYBE : ANNOUNCED_YES;
            m.out.say(host_text(key, encap) + ": announced");
        } else if (reply.ran()) {
            set_not_announced(m, h);
            h.is_refused = true;
            m.out.say(host_text(key, encap) + ": refused");
        } else {
            set_unanswered(m, key, h, reply);
            m.out.say(card_rpc_reason(reply.end, "arp_prefix_mgr_add_route"));
        }
        look_at(m, key, m.now_ms);
    };
    m.out.call("arp_prefix_mgr_add_route",
               {rpc_u16(RIB_OBJ_ARP_HOST), rpc_u32(key.second), rpc_u32(HOST_LEN), rpc_u16(host.encap),
                rpc_u16(host.ifid), rpc_u32(key.first)},
               done);
}

void withdraw(card_model &m, const card_host_key &key, card_host &host)
{
    host.is_busy = true;
    ++m.busy;
    const auto done = [&m, key](const card_rpc_reply &reply) {
        card_host &h = m.hosts.at(key);
        h.is_busy = false;
        --m.busy;
        if (reply.ran()) {
            m.out.say(host_text(key, h.announced_encap) + (reply.result == 0 ? ": withdrawn" : ": was not known"));
            set_not_announced(m, h);
        } else {
            set_unanswered(m, key, h, reply);
            m.out.say(card_rpc_reason(reply.end, "arp_prefix_mgr_remove_route"));
        }
        look_at(m, key, m.now_ms);
    };
    m.out.call("arp_prefix_mgr_remove_route",
               {rpc_u16(RIB_OBJ_ARP_HOST), rpc_u32(key.second), rpc_u32(HOST_LEN), rpc_u32(0),
                rpc_u16(host.announced_encap), rpc_u16(host.announced_ifid), rpc_u32(key.first)},
               done);
}

// The next step of one host.
void step(card_model &m, const card_host_key &key)
{
    const auto found = m.hosts.find(key);
    if (found == m.hosts.end() || found->second.is_busy)
        return;
    card_host &host = found->second;
    const bool wanted = is_wanted(m, key, host);
    const bool is_same =
        host.announced == ANNOUNCED_YES && host.announced_encap == host.encap && host.announced_ifid == host.ifid;
    if (host.announced != ANNOUNCED_NO && (!wanted || !is_same)) {
        // One that is only waiting for its next try is not withdrawn before that.
        if (host.announced != ANNOUNCED_MAYBE || m.now_ms >= host.due_ms)
            withdraw(m, key, host);
    } else if (wanted && !host.is_refused && (host.announced == ANNOUNCED_NO || host.is_refreshed)) {
        announce(m, key, host);
    } else if (host.is_gone) {
        card_encap_give(m, host.encap);
        m.hosts.erase(found);
    }
}

// Changes the encapsulation of a host that is known. Returns CARD_EXISTS when it has that one.
std::uint32_t change_encap(card_model &m, const card_host_key &key, card_host &host, const card_new_host &fresh)
{
    const bool was_gone = host.is_gone;
    if (!was_gone && (fresh.encap == 0 || fresh.encap == host.encap))
        return CARD_EXISTS;
    if (!was_gone || (fresh.encap != 0 && fresh.encap != host.encap)) {
        const std::uint32_t encap =
            card_encap_take(m, fresh.encap, {fresh.ifid, fresh.mac.value_or(m.encaps.at(host.encap).mac)});
        if (encap == 0)
            return CARD_BAD_ARGUMENT;
        if (host.announced == ANNOUNCED_NO || host.announced_encap != host.encap)
            card_encap_give(m, host.encap); // one that is announced is given back once it is withdrawn
        host.encap = encap;
    }
    host.ifid = fresh.ifid;
    host.is_gone = host.is_refused = false;
    host.delay_ms = fresh.delay_ms;
    host.is_quiet = fresh.is_quiet;
    host.due_ms = m.now_ms + host.delay_ms;
    look_at(m, key, m.now_ms); // withdrawn at once, announced after its delay
    look_at(m, key, host.due_ms);
    return CARD_DONE;
}
} // namespace

std::uint32_t card_host_add(card_model &m, const card_new_host &fresh)
{
    const auto interface = m.interfaces.find(fresh.ifid);
    if (interface == m.interfaces.end())
        return CARD_NO_INTERFACE;
    if (!is_in_subnet(m, fresh.ifid, fresh.address) || fresh.encap > CARD_LAST_ENCAP)
        return CARD_BAD_ARGUMENT;
    const card_host_key key{interface->second.ctx, fresh.address};
    const auto found = m.hosts.find(key);
    if (found != m.hosts.end())
        return change_encap(m, key, found->second, fresh);

    card_host host;
    host.encap = card_encap_take(m, fresh.encap, {fresh.ifid, fresh.mac.value_or(0x020000000000 | fresh.address)});
    if (host.encap == 0)
        return CARD_BAD_ARGUMENT;
    host.ifid = host.announced_ifid = fresh.ifid;
    host.announced_encap = host.encap;
    host.delay_ms = fresh.delay_ms;
    host.is_quiet = fresh.is_quiet;
    host.is_asked = m.asked.count(key) != 0;
    host.announced = m.is_unsure ? ANNOUNCED_MAYBE : ANNOUNCED_NO;
    host.due_ms = m.now_ms + fresh.delay_ms;
    m.hosts[key] = host;
    look_at(m, key, host.due_ms);
    return CARD_DONE;
}

std::uint32_t card_host_del(card_model &m, std::uint32_t ifid, std::uint32_t address)
{
    const auto interface = m.interfaces.find(ifid);
    if (interface == m.interfaces.end())
        return CARD_NO_INTERFACE;
    const card_host_key key{interface->second.ctx, address};
    const auto found = m.hosts.find(key);
    if (found == m.hosts.end() || found->second.is_gone || found->second.ifid != ifid)
        return CARD_NOT_THERE;
    found->second.is_gone = true;
    found->second.due_ms = m.now_ms;
    look_at(m, key, m.now_ms);
    return CARD_DONE;
}

void card_arp_request(card_model &m, std::uint32_t ctx, std::uint32_t address, bool wanted)
{
    const card_host_key key{ctx, address};
    if (!wanted) {
        m.asked.erase(key); // a host that is announced stays announced, asked for or not
        return;
    }
    m.asked.insert(key);
    const auto found = m.hosts.find(key);
    if (found == m.hosts.end())
        return; // a neighbour that does not answer
    card_host &host = found->second;
    if (host.announced == ANNOUNCED_NO && !host.is_busy)
        host.due_ms = m.now_ms + host.delay_ms;
    host.is_asked = true;
    host.is_refused = false;
    look_at(m, key, std::max(m.now_ms, host.due_ms));
}

void card_if_withdrawn(card_model &m, std::uint32_t ctx, std::uint32_t ifid)
{
    for (auto &[key, host] : m.hosts) {
        if (key.first != ctx || host.announced_ifid != ifid || host.announced != ANNOUNCED_MAYBE || host.is_busy)
            continue;
        set_not_announced(m, host);
        look_at(m, key, std::max(m.now_ms, host.due_ms));
    }
}

void card_hosts_recheck(card_model &m, std::uint32_t ifid, bool is_unsure)
{
    const auto is_of = [&m, ifid](const card_host &host) {
        const auto found = m.interfaces.find(host.ifid);
        return host.ifid == ifid ||
               (found != m.interfaces.end() && found->second.mode != 1 && found->second.bvi == ifid);
    };
    for (auto &[key, host] : m.hosts) {
        if (!is_of(host))
            continue;
        if (is_unsure && host.announced == ANNOUNCED_YES)
            host.announced = ANNOUNCED_MAYBE;
        host.is_doubted = host.is_doubted || (is_unsure && host.is_busy);
        host.is_refused = false;
        host.due_ms = m.now_ms + (is_unsure ? 0 : host.delay_ms);
        look_at(m, key, host.due_ms);
    }
}

void card_realign(card_model &m)
{
    for (auto &[key, host] : m.hosts) {
        host.is_refreshed = host.announced == ANNOUNCED_YES;
        host.is_refused = false;
        look_at(m, key, std::max(m.now_ms, host.due_ms));
    }
}

void card_arp_run(card_model &m)
{
    // What a step puts on the list is looked at in the next run.
    std::vector<card_host_key> keys;
    while (!m.due.empty() && m.due.begin()->first <= m.now_ms) {
        keys.push_back(m.due.begin()->second);
        m.due.erase(m.due.begin());
    }
    for (const card_host_key &key : keys)
        step(m, key);
}

std::uint64_t card_arp_next_ms(const card_model &m) { return m.due.empty() ? UINT64_MAX : m.due.begin()->first; }
