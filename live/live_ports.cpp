// live_ports.cpp - attaches and binds, opens and closes the ports.
#include "live_ports.h"

#include <vector>

#include <fmt/format.h>

namespace
{
bool is_usable(const kernel_state &state, int ifindex)
{
    const auto link = state.links.find(ifindex);
    return link != state.links.end() && link->second.is_up && link->second.has_carrier;
}

bool is_same(const live_port &a, const live_port &b)
{
    return a.ifid == b.ifid && a.ifindex == b.ifindex && a.mac == b.mac && a.ctx == b.ctx && a.mtu == b.mtu;
}

void attach(live_ports &ports, live_maps &maps, int ifindex, const std::string &name, live_port_state &port)
{
    live_attachment attachment = {};
    std::string why;
    if (live_maps_attach(maps, static_cast<std::uint32_t>(ifindex), attachment, why) != 0) {
        if (port.failed != why)
            ports.say(fmt::format("{}: {}", name, why));
        port.failed = why;
        return;
    }
    port.is_attached = true;
    port.mode = attachment.mode;
    port.why_generic = attachment.why;
    port.failed.clear();
    ports.say(attachment.mode == live_mode::native ? fmt::format("{}: native mode", name)
                                                   : fmt::format("{}: generic mode: {}", name, attachment.why));
}

void close_port(live_maps &maps, live_port_state &port)
{
    if (!port.is_open)
        return;
    live_maps_close_port(maps, port.stored.ifid);
    port.is_open = false;
}

// Takes the port out of the card.
void release(live_maps &maps, int ifindex, live_port_state &port)
{
    close_port(maps, port);
    live_maps_unbind(maps, static_cast<std::uint32_t>(ifindex));
    live_maps_detach(maps, static_cast<std::uint32_t>(ifindex));
}

void store(live_ports &ports, live_maps &maps, const std::string &name, const live_port &wanted, bool is_usable,
           live_port_state &port)
{
    std::string why;
    if (port.stored.ifid != 0 && port.stored.ifid != wanted.ifid) {
        close_port(maps, port);
        live_maps_remove_device(maps, port.stored.ifid);
    }
    const bool is_changed = !is_same(port.stored, wanted);
    if (!is_usable)
        close_port(maps, port);
    else if (!port.is_open || is_changed) {
        if (live_maps_open_port(maps, wanted, why) == 0)
            port.is_open = true;
        else
            close_port(maps, port); // what it was opened with does not hold any more
    }
    if ((!port.is_bound || is_changed) && live_maps_bind(maps, wanted, why) == 0)
        port.is_bound = true;
    if (!why.empty() && port.failed != why)
        ports.say(fmt::format("{}: {}", name, why));
    port.failed = why;
    port.stored = wanted;
}

// Adds the addresses of an entry of the table local. Returns false when they are too many.
bool add_own(std::vector<std::uint32_t> &own, const kernel_prefix &prefix)
{
    constexpr std::uint32_t SHORTEST = 20;
    if (live_plan_is_passed_by(prefix))
        return true;
    if (prefix.length < SHORTEST)
        return false;
    for (std::uint64_t address = prefix.address; address <= kernel_prefix_last(prefix); ++address)
        own.push_back(static_cast<std::uint32_t>(address));
    return true;
}
} // namespace

void live_ports_adopt(live_ports &ports, const live_maps &maps)
{
    const live_ids ids = live_ports_ids(maps);
    for (const live_attachment &attachment : live_maps_attachments(maps)) {
        const int ifindex = static_cast<int>(attachment.ifindex);
        live_port_state &port = ports.ports[ifindex]; // attached anew, with the program of this process
        if (const auto id = ids.find(ifindex); id != ids.end()) {
            port.stored.ifid = id->second;
            port.is_open = live_maps_egress(maps, id->second) != 0;
        }
    }
}

live_ids live_ports_ids(const live_maps &maps)
{
    live_ids ids;
    for (std::uint32_t ifid = 1; ifid <= LIVE_MAX_PORT_ID; ++ifid)
        if (const std::uint32_t ifindex = live_maps_device(maps, ifid); ifindex != 0)
            ids[static_cast<int>(ifindex)] = ifid;
    return ids;
}

void live_ports_close(live_ports &ports, live_maps &maps, const kernel_state &state, const std::set<int> &links)
{
    for (const int ifindex : links)
        if (const auto port = ports.ports.find(ifindex); port != ports.ports.end() && !is_usable(state, ifindex))
            close_port(maps, port->second);
}

void live_ports_apply(live_ports &ports, live_maps &maps, const live_plan &plan, const kernel_state &state)
{
    for (auto port = ports.ports.begin(); port != ports.ports.end();) {
        const auto wanted = plan.ports.find(port->first);
        if (wanted != plan.ports.end() && wanted->second.is_bound) {
            ++port;
            continue;
        }
        release(maps, port->first, port->second);
        port = ports.ports.erase(port);
    }
    for (const auto &[ifindex, wanted] : plan.ports) {
        if (!wanted.is_bound)
            continue;
        live_port_state &port = ports.ports[ifindex];
        if (!port.is_attached)
            attach(ports, maps, ifindex, wanted.name, port);
        const auto link = state.links.find(ifindex);
        if (port.is_attached && link != state.links.end())
            store(ports, maps, wanted.name,
                  {wanted.id, static_cast<std::uint32_t>(ifindex), link->second.mac, wanted.ctx, link->second.mtu},
                  is_usable(state, ifindex), port);
    }
}

bool live_ports_check(live_ports &ports, live_maps &maps)
{
    bool is_changed = false;
    for (auto &[ifindex, port] : ports.ports)
        if (port.is_attached && port.mode == live_mode::native &&
            !live_maps_takes_frames(static_cast<std::uint32_t>(ifindex))) {
            close_port(maps, port);
            port.is_attached = false;
            is_changed = true;
        }
    return is_changed;
}

void live_ports_set_own(live_maps &maps, const kernel_state &state)
{
    std::vector<std::uint32_t> own;
    for (const auto &[ifindex, addresses] : state.addresses)
        for (const kernel_address &address : addresses)
            own.push_back(address.address);
    bool has_all = true;
    if (const auto local = state.tables.find(KERNEL_TABLE_LOCAL); local != state.tables.end())
        for (const auto &route : local->second.routes)
            has_all = add_own(own, route.first) && has_all;
    if (has_all)
        live_maps_set_own_addresses(maps, own);
    else
        live_maps_set_all_own(maps);
}
