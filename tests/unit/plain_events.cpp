// plain_events.cpp - the plain model's interfaces: their messages, their routes, NAT pools.
#include <cstdint>

#include "plain_model.h"

namespace harness
{
namespace
{

constexpr std::uint32_t CREATED = 4063, UP = 4065, DOWN = 4066, CHANGED = 4089;
constexpr std::uint32_t ANNOUNCE_ADDED = 0x1005, ANNOUNCE_REMOVED = 0x1006;

std::uint32_t word_at(const byte_string &bytes, std::size_t at, unsigned width = 4)
{
    std::uint32_t value = 0;
    for (unsigned i = 0; i < width; ++i)
        value = value << 8 | bytes.at(at + i);
    return value;
}

struct model_address {
    std::uint32_t ctx, addr, mask;
    std::uint16_t ifid;
};

// One of an interface's routes.
model_host route_of(const model_address &a, std::uint32_t addr, std::uint32_t len, bool subnet)
{
    const std::uint16_t flags = subnet ? RIB_F_INTERFACE | RIB_F_CONNECTED : RIB_F_INTERFACE;
    return {MODEL_OBJ_INTERFACE, a.ctx, addr, len, a.ifid, static_cast<std::uint16_t>(subnet ? 0 : 0x8001), flags};
}

std::vector<model_host> routes_of(const model_address &a)
{
    const std::uint32_t len = model_mask_len(a.mask);
    const std::uint32_t network = len == 0 ? a.addr : a.addr & plain_mask(len); // odd: of no length, the address
    return {route_of(a, a.addr, 32, false), route_of(a, a.addr, len, true), route_of(a, network, 32, false),
            route_of(a, a.addr | ~a.mask, 32, false)};
}

void announce(plain_model &m, std::uint32_t opcode, std::uint32_t ctx, const model_address &a)
{
    byte_string record;
    for (const std::uint32_t value : {ctx, a.addr, a.mask, std::uint32_t{a.ifid}})
        for (unsigned shift = 32; shift > 0; shift -= 8)
            record.push_back(static_cast<std::uint8_t>(value >> (shift - 8)));
    m.calls.push_back(text("mts_send q 0xfe000000:0 0x%x 16", opcode));
    m.sent.emplace_back(opcode, record);
}

// The NAT routes of an interface come into the forwarding table, or leave it.
void change_nat(plain_model &m, std::uint32_t ctx, std::uint16_t ifid, bool up)
{
    for (const model_key &key : model_order(m.rib[ctx])) {
        model_path &head = m.rib[ctx].at(key).front();
        if ((head.flags & RIB_F_NAT) == 0 || head.ifid != ifid)
            continue;
        const std::string where = text("%x/%u ifid:%u", key.second, key.first, unsigned{ifid});
        const bool programmed = (head.flags & RIB_F_NAT_IN_MTRIE) != 0;
        if (programmed == up) {
            model_error(m, ctx, (up ? "NAT entry up for down intf " : "NAT entry down for up intf ") + where + "\n");
            continue;
        }
        const bool done = up ? model_fib_add(m, ctx, key, head) : model_fib_remove(m, ctx, key, head);
        if (done)
            head.flags ^= RIB_F_NAT_IN_MTRIE;
        else
            model_error(m, ctx,
                        (up ? "NAT entry mtrie add failed " : "NAT entry mtrie remove failed ") + where + " (0)\n");
    }
}

void add_interface(plain_model &m, const model_address &a, bool notify)
{
    const std::vector<model_host> routes = routes_of(a);
    for (std::size_t i = 0; i < routes.size(); ++i) {
        if (model_combined_add(m, routes[i]) != nullptr)
            continue;
        while (i > 0)
            (void)model_combined_remove(m, routes[--i], nullptr);
        return;
    }
    change_nat(m, a.ctx, a.ifid, true);
    if (!notify)
        return;
    const auto of = m.interfaces.find(a.ifid);
    announce(m, ANNOUNCE_ADDED, of == m.interfaces.end() ? 0xFFFFFFFF : static_cast<std::uint32_t>(of->second.ctx), a);
}

// Hosts that were learned on the interface go. Odd: with the members of their sets, and only where they are the head.
void remove_hosts(plain_model &m, const model_address &a)
{
    for (const model_key &key : model_order(m.rib[a.ctx])) {
        const model_path head = m.rib[a.ctx].at(key).front();
        if ((head.flags & RIB_F_ARP_HOST) == 0 || head.nexthop != a.addr)
            continue;
        model_lose_members(m, a.ctx, key);
        if ((head.flags & RIB_F_ARP_INSTALLED) != 0 && !model_fib_remove(m, a.ctx, key, head))
            model_error(m, a.ctx,
                        text("norvik_remove_host_ifdown: (1) Unable to remove routeid (%u) %08x/%u nexthop %08x "
                             "encapid %04x\n",
                             a.ctx, key.second, key.first, head.nexthop, head.encap));
    }
}

void withdraw_statics(plain_model &m, const model_address &a)
{
    constexpr std::uint16_t PROGRAMMED = RIB_F_GATEWAY | RIB_F_IN_MTRIE;
    const std::uint32_t net = a.addr & a.mask, last = net | ~a.mask;
    for (const model_key &key : model_order(m.rib[a.ctx]))
        for (model_path &path : m.rib[a.ctx].at(key))
            if ((path.flags & PROGRAMMED) == PROGRAMMED && net < path.nexthop && path.nexthop < last)
                model_withdraw(m, a.ctx, key, path);
}

void remove_interface(plain_model &m, const model_address &a, bool clean_up)
{
    const std::vector<model_host> routes = routes_of(a);
    for (const std::size_t i : {0u, 2u, 3u, 1u})
        (void)model_combined_remove(m, routes[i], nullptr);
    if (clean_up) {
        remove_hosts(m, a);
        withdraw_statics(m, a);
        announce(m, ANNOUNCE_REMOVED, a.ctx, a);
    }
    model_flush(m);
}

bool context_fits(plain_model &m, const char *event, std::int32_t ctx)
{
    if (ctx <= 255)
        return true;
    model_error(m, 0, text("Ignoring event MTS_OPC_NORVIK_%s: context %d out of range\n", event, ctx));
    return false;
}

bool payload_fits(plain_model &m, const char *event, const byte_string &payload, std::size_t least)
{
    if (payload.size() >= least)
        return true;
    model_error(m, 0, text("Ignoring event MTS_OPC_NORVIK_%s: %zu byte payload\n", event, payload.size()));
    return false;
}

void state_event(plain_model &m, std::uint32_t opcode, const byte_string &payload)
{
    static const char *const names[] = {"IF_CREATED", "IF_DELETED", "IF_UP", "IF_DOWN"};
    const char *const name = names[opcode - CREATED];
    if (!payload_fits(m, name, payload, 48) || opcode == CREATED)
        return;
    const model_address a = {word_at(payload, 2, 2), word_at(payload, 4), word_at(payload, 21),
                             static_cast<std::uint16_t>(word_at(payload, 0, 2))};
    if (!context_fits(m, name, static_cast<std::int32_t>(a.ctx)) || word_at(payload, 44) != 1)
        return;
    if (opcode != UP) {
        if (opcode == DOWN) // odd: a deleted interface keeps its NAT routes
            change_nat(m, a.ctx, a.ifid, false);
        remove_interface(m, a, true);
        return;
    }
    if (a.addr == 0 || a.mask == 0) // odd: complained about, and added all the same
        model_error(m, a.ctx,
                    text("IF_UP, Bad L3 interface, contextid=%u, ipaddr =%x, mask=%x", a.ctx, a.addr, a.mask));
    add_interface(m, a, true);
}

void change_event(plain_model &m, const byte_string &payload)
{
    if (!payload_fits(m, "IF_CHANGED", payload, 16) || word_at(payload, 4) >> 31 == 0)
        return;
    const std::uint32_t id = word_at(payload, 0);
    const auto of = m.interfaces.find(id);
    const auto fails = [&m, id](const char *what) {
        model_error(m, 0, text("ifid to %s mapping failed for %d", what, static_cast<int>(id)));
    };
    if (of == m.interfaces.end() || !of->second.has_rmode)
        return fails("rmode");
    const model_interface &now = of->second;
    if (now.rmode != 1)
        return;
    if (!now.has_address)
        return fails("ipaddr");
    if (now.ctx < 0)
        return fails("context_id");
    if (!context_fits(m, "IF_CHANGED", now.ctx))
        return;
    const auto ctx = static_cast<std::uint32_t>(now.ctx);
    const auto ifid = static_cast<std::uint16_t>(id);
    if (word_at(payload, 8) != 0) {
        change_nat(m, ctx, ifid, false);
        remove_interface(m, {ctx, word_at(payload, 8), word_at(payload, 12), ifid}, false);
    }
    if (now.address != 0)
        add_interface(m, {ctx, now.address, now.mask, ifid}, false);
}

// --- NAT pools.

struct nat_block {
    std::uint32_t net, mask, len;
};

// The smallest list of aligned blocks for a run of addresses; none when it would wrap.
std::vector<nat_block> blocks_of(std::uint32_t addr, std::uint32_t range)
{
    std::vector<nat_block> blocks;
    const std::uint64_t end = std::uint64_t{addr + range - 1} + 1; // the last address is reckoned in 32 bits
    for (std::uint64_t at = addr; at < end;) {
        std::uint32_t len = 32;
        while (len > 0 && at % (std::uint64_t{1} << (33 - len)) == 0 && at + (std::uint64_t{1} << (33 - len)) <= end)
            --len;
        blocks.push_back({static_cast<std::uint32_t>(at), plain_mask(len), len});
        at += std::uint64_t{1} << (32 - len);
    }
    return blocks;
}

bool covers_learned_host(plain_model &m, std::uint32_t ctx, const nat_block &block)
{
    for (const auto &[key, set] : m.rib[ctx])
        if (key.first == 32 && (set.front().flags & (RIB_F_ARP_HOST | RIB_F_ARP_INSTALLED)) != 0 &&
            (key.second & block.mask) == block.net)
            return true;
    return false;
}

bool add_block(plain_model &m, std::uint32_t ctx, std::uint16_t ifid, const nat_block &block, std::uint16_t encap)
{
    const model_key key(block.len, block.net);
    const std::string what = text("%08x/%u encap %u", block.net, block.len, unsigned{encap});
    if (covers_learned_host(m, ctx, block)) {
        model_error(m, ctx, "nat range includes learned entry" + what + "\n");
        return false;
    }
    if (model_set(m, ctx, key) != nullptr) {
        model_error(m, ctx, "nat DUPLICATE " + what + " \n");
        return false;
    }
    if (!model_alloc(m)) {
        model_error(m, ctx, "nat rib malloc fail " + what + " \n");
        return false;
    }
    model_path path = {MODEL_NAT, 0, ifid, encap, RIB_F_NAT, ctx};
    if (model_is_up(m, ifid)) {
        if (!model_fib_add(m, ctx, key, path)) {
            model_error(
                m, ctx,
                text("mtrie add nat fail: rte_id:%u %08x/%u encap %04x\n", ctx, block.net, block.len, unsigned{encap}));
            return false;
        }
        path.flags |= RIB_F_NAT_IN_MTRIE;
    }
    m.rib[ctx][key].push_back(path);
    return true;
}

bool remove_block(plain_model &m, std::uint32_t ctx, const nat_block &block, std::uint16_t encap)
{
    const model_key key(block.len, block.net);
    const std::vector<model_path> *set = model_set(m, ctx, key);
    // A NAT route is always the head: it refuses to join what is there. Odd: its members are lost with it.
    if (set == nullptr || (set->front().flags & RIB_F_NAT) == 0 || set->front().encap != encap) {
        model_error(m, ctx,
                    text("nat entry not found in rib 0x%x/%u encap %u\n", block.net, block.len, unsigned{encap}));
        return false;
    }
    const model_path path = set->front();
    if ((path.flags & RIB_F_NAT_IN_MTRIE) != 0 && !model_fib_remove(m, ctx, key, path))
        model_error(m, ctx,
                    text("NAT remove from mtrie failed rte_id:%u %08x/%u encapid %04x\n", ctx, block.net, block.len,
                         path.encap));
    model_lose_members(m, ctx, key);
    return true;
}

} // namespace

std::uint32_t model_nat_add(plain_model &m, std::uint32_t ctx, std::uint16_t ifid, std::uint32_t addr,
                            std::uint32_t range, std::uint16_t encap)
{
    for (const nat_block &block : blocks_of(addr, range)) {
        if (add_block(m, ctx, ifid, block, encap))
            continue;
        model_error(
            m, ctx,
            text("rib_add_nat_pool: add NAT failed, addr 0x%x/0x%x, ixp %u\n", block.net, block.mask, unsigned{encap}));
        (void)model_nat_remove(m, ctx, addr, range, encap); // odd: the whole range, also what stood there before
        return 1;
    }
    return 0;
}

std::uint32_t model_nat_remove(plain_model &m, std::uint32_t ctx, std::uint32_t addr, std::uint32_t range,
                               std::uint16_t encap)
{
    for (const nat_block &block : blocks_of(addr, range))
        if (!remove_block(m, ctx, block, encap))
            model_error(m, ctx,
                        text("rib_remove_nat_pool: delete NAT failed, addr 0x%x/0x%x, ixp %u\n", block.net, block.mask,
                             unsigned{encap}));
    return 0;
}

void plain_model::event(std::uint32_t opcode, const byte_string &payload)
{
    if (opcode >= CREATED && opcode <= DOWN)
        state_event(*this, opcode, payload);
    else if (opcode == CHANGED)
        change_event(*this, payload);
}
} // namespace harness
