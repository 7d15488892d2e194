// plain_model.cpp - the plain model's RIB: hosts, static routes, and how they reach the forwarding table.
#include "plain_model.h"

#include <algorithm>
#include <bit>
#include <tuple>

namespace harness
{
namespace
{

constexpr std::uint32_t TREES = 256, NO_CTX = 0; // combined operations log under context 0

void join(std::vector<model_path> &set, const model_path &path)
{
    set.push_back(path);
    if (set.size() == 1)
        return;
    set.front().flags |= RIB_F_ECMP;
    set.back().flags |= RIB_F_ECMP;
}

// Takes path `i` out; the path itself keeps its flags. A set of one is no set.
model_path take_out(model_table &table, model_key key, std::size_t i)
{
    std::vector<model_path> &set = table[key];
    const model_path path = set[i];
    set.erase(set.begin() + static_cast<std::ptrdiff_t>(i));
    if (set.size() == 1)
        set.front().flags &= static_cast<std::uint16_t>(~RIB_F_ECMP);
    if (set.empty())
        table.erase(key);
    return path;
}

plain_way way_of(const model_path &path, std::uint32_t ctx)
{
    return {path.encap & 0xFFFF, path.ifid, path.flags, ctx};
}

bool is_default(model_key key) { return key == model_key(0, 0); }
bool in_fib(const model_path &path) { return (path.flags & RIB_F_IN_MTRIE) != 0; }
bool waits_for(const model_path &path, std::uint32_t host)
{
    return (path.flags & RIB_F_GATEWAY) != 0 && path.nexthop == host;
}

// What both lines about an entry and the forwarding table say of it.
std::string route_text(std::uint32_t route_id, model_key key)
{
    return text("(%u) %08x/%u", route_id, key.second, key.first);
}

bool program(plain_model &m, std::uint32_t ctx, model_key key, model_path &path)
{
    const bool done = is_default(key) ? plain_set_default(m.trees.at(path.route_id), way_of(path, ctx), true) != 0
                                      : model_fib_add(m, ctx, key, path);
    if (done)
        path.flags |= RIB_F_IN_MTRIE;
    else
        model_error(m, ctx,
                    text("rib_add_mtrie_route: Failed to add mtrie for route_id (%u) route/mask %08x/%u->nexthop "
                         "%08x encap %04x\n",
                         path.route_id, key.second, key.first, path.nexthop, path.encap));
    return done;
}

// Odd: when the head of a set is taken care of, its members are passed over.
void host_added(plain_model &m, std::uint32_t ctx, std::uint32_t host, const model_path &path)
{
    for (const model_key &key : model_order(m.rib[ctx]))
        for (model_path &waiting : m.rib[ctx][key]) {
            if (!waits_for(waiting, host) || in_fib(waiting))
                continue;
            waiting.ifid = path.ifid;
            waiting.encap = path.encap;
            (void)program(m, ctx, key, waiting);
            if (&waiting == &m.rib[ctx][key].front())
                break;
        }
}

void host_removed(plain_model &m, std::uint32_t ctx, std::uint32_t host)
{
    for (const model_key &key : model_order(m.rib[ctx]))
        for (model_path &installed : m.rib[ctx][key]) {
            if (!waits_for(installed, host) || !in_fib(installed))
                continue;
            model_withdraw(m, ctx, key, installed);
            if (&installed == &m.rib[ctx][key].front())
                break;
        }
}

// Odd: only the head of a set is looked at, of whatever length, the shortest first.
const model_path *known_host(plain_model &m, std::uint32_t ctx, std::uint32_t nexthop)
{
    constexpr std::uint16_t LEARNED = RIB_F_ARP_HOST | RIB_F_ARP_INSTALLED;
    for (const model_key &key : model_order(m.rib[ctx])) {
        const model_path &head = m.rib[ctx][key].front();
        if (key.second == nexthop && (head.flags & LEARNED) == LEARNED)
            return &head;
    }
    return nullptr;
}

bool is_of_object(const model_path &path, std::uint16_t object, bool also_installed)
{
    if (object == MODEL_OBJ_INTERFACE)
        return (path.flags & RIB_F_INTERFACE) != 0;
    return (path.flags & (RIB_F_ARP_HOST | (also_installed ? RIB_F_ARP_INSTALLED : 0))) != 0;
}

// Fills what an ARP host knows of its interface. False when the interface has no routing mode.
bool learn_interface(plain_model &m, const model_host &host, model_path &path)
{
    const auto of = m.interfaces.find(host.ifid);
    if (of == m.interfaces.end() || !of->second.has_rmode) {
        model_error(m, host.ctx, text("Failed to get route mode for ifId %u", unsigned{host.ifid}));
        return false;
    }
    const auto routed = of->second.rmode == 1 ? of : m.interfaces.find(static_cast<std::uint32_t>(of->second.bvi));
    path.nexthop = routed == m.interfaces.end() || !routed->second.has_address ? 0 : routed->second.address;
    path.flags |= RIB_F_ARP_HOST;
    return true;
}

model_path *host_add(plain_model &m, const model_host &h)
{
    if (h.len > 32) {
        model_error(m, h.ctx,
                    text("rib_add_host_route, wrong mask, host addr 0x%x/%d add Fails, encapid 0x%x\n", h.addr,
                         static_cast<int>(h.len), unsigned{h.encap}));
        return nullptr;
    }
    if (h.object == MODEL_OBJ_HOST && !model_is_up(m, h.ifid)) {
        model_error(m, h.ctx,
                    text("rib_add_host_route, if %u DOWN, obj %u addr 0x%x/%u add Fails, encapid 0x%x\n",
                         unsigned{h.ifid}, unsigned{h.object}, h.addr, h.len, unsigned{h.encap}));
        return nullptr;
    }
    const model_key key(h.len, h.addr & plain_mask(h.len));
    if (std::vector<model_path> *set = model_set(m, h.ctx, key))
        for (model_path &path : *set)
            if (is_of_object(path, h.object, true)) {
                if (h.object != MODEL_OBJ_HOST) {
                    model_error(m, h.ctx,
                                text("rib_add_host_route:rejecting duplicate entry:%x/%u\n", key.second, key.first));
                    return nullptr;
                }
                path.encap = h.encap;
                path.ifid = h.ifid;
                return &path;
            }
    if (!model_alloc(m))
        return nullptr;
    model_path path = {MODEL_HOST, 0, h.ifid, h.encap, 0, h.ctx};
    if (h.object == MODEL_OBJ_INTERFACE)
        path.flags = RIB_F_INTERFACE;
    else if (!learn_interface(m, h, path))
        return nullptr;
    join(m.rib[h.ctx][key], path);
    return &m.rib[h.ctx][key].back();
}

// Takes the head of the host's prefix when it is of the host's object. Odd: its members are lost with it.
bool host_remove(plain_model &m, const model_host &h, model_path &taken)
{
    if (h.len > 32) {
        model_error(m, h.ctx,
                    text("rib_remove_host_route, wrong mask, host addr 0x%x/%d remove Fails\n", h.addr,
                         static_cast<int>(h.len)));
        return false;
    }
    const model_key key(h.len, h.addr & plain_mask(h.len));
    const std::vector<model_path> *set = model_set(m, h.ctx, key);
    if (set == nullptr)
        return false;
    if (!is_of_object(set->front(), h.object, false)) {
        model_error(m, h.ctx,
                    text("rib_remove_host_route, wrong entry 0x%x/%u flags %x, host addr 0x%x/%u remove obj %u "
                         "Fails\n",
                         key.second, key.first, unsigned{set->front().flags}, key.second, key.first,
                         unsigned{h.object}));
        return false;
    }
    taken = set->front();
    if (h.object == MODEL_OBJ_HOST)
        taken.flags &= static_cast<std::uint16_t>(~RIB_F_ARP_HOST);
    model_lose_members(m, h.ctx, key);
    return true;
}

void request(plain_model &m, std::uint32_t gateway, std::uint32_t ctx, std::uint32_t ifid, unsigned sense)
{
    m.calls.push_back(
        text("tnrpc_call tn_arp_add_entry 1:%u 2:0x%x 2:0x%x 2:0x%x 0:2 0:%u", ctx, ifid, gateway, gateway, sense));
    if (m.peers.arp_result == 0xFFFFFFFF)
        model_error(m, ctx, "request_gwy_resolution:TN RPC call tn_arp_add_entry() return err code -1\n");
}

// The tail of a static route's end: odd, whatever entry it is.
void discard(plain_model &m, std::uint32_t ctx, model_key key, model_path path)
{
    path.flags &= static_cast<std::uint16_t>(~RIB_F_GATEWAY);
    const std::uint16_t ifid = path.ifid;
    model_withdraw(m, ctx, key, path);
    request(m, path.nexthop, path.route_id, ifid, 0); // odd: it was made under the context
}

// Whether a new static path is refused for what its prefix has already.
bool is_refused(plain_model &m, std::uint32_t ctx, model_key key, std::uint32_t nexthop)
{
    const std::vector<model_path> *set = model_set(m, ctx, key);
    if (set == nullptr)
        return false;
    for (const model_path &path : *set) {
        if ((path.flags & RIB_F_INTERFACE) == 0 && path.nexthop != nexthop)
            continue;
        if ((path.flags & RIB_F_INTERFACE) != 0)
            model_error(m, ctx, text("rib_add_route: Collide with interface %08x/%u \n", key.second, key.first));
        else
            model_error(m, ctx,
                        text("rib_add_route: DUPLICATE route/maskbits %08x/%u-> nexthop %08x \n", key.second, key.first,
                             nexthop));
        return true;
    }
    // Odd: exactly eight is full; hosts join without a limit, and nine or more are not refused.
    if (set->size() != 8)
        return false;
    model_error(m, ctx,
                text("rib_add_route: MAX ECMP exceed route/maskbits %08x/%u-> nexthop %08x \n", key.second, key.first,
                     nexthop));
    return true;
}

} // namespace

void model_error(plain_model &m, std::uint32_t ctx, const std::string &message) { plain_error(m.pools, ctx, message); }

bool model_alloc(plain_model &m) { return m.alloc_fails_in == 0 || --m.alloc_fails_in != 0; }

std::vector<model_path> *model_set(plain_model &m, std::uint32_t ctx, model_key key)
{
    const auto it = m.rib[ctx].find(key);
    return it == m.rib[ctx].end() ? nullptr : &it->second;
}

std::uint32_t model_bucket(std::uint32_t prefix, std::uint32_t len)
{
    const std::uint32_t v = len == 0 ? prefix : prefix >> (32 - len);
    return (729 * (v >> 24) + 81 * (v >> 16 & 255) + 9 * (v >> 8 & 255) + (v & 255)) % 31;
}

std::uint32_t model_mask_len(std::uint32_t mask) { return static_cast<std::uint32_t>(std::countl_one(mask)); }

std::vector<model_key> model_order(const model_table &table)
{
    std::vector<std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>> places;
    for (const auto &[key, set] : table)
        places.emplace_back(key.first, model_bucket(key.second, key.first), key.second);
    std::sort(places.begin(), places.end());
    std::vector<model_key> keys;
    for (const auto &[len, bucket, prefix] : places)
        keys.emplace_back(len, prefix);
    return keys;
}

bool model_is_up(const plain_model &m, std::uint32_t ifid)
{
    const auto of = m.interfaces.find(ifid);
    return of != m.interfaces.end() && of->second.up;
}

bool model_fib_add(plain_model &m, std::uint32_t ctx, model_key key, const model_path &path)
{
    return plain_route_add(m.trees.at(path.route_id), key.second, plain_mask(key.first), way_of(path, ctx)) != 0;
}

bool model_fib_remove(plain_model &m, std::uint32_t ctx, model_key key, const model_path &path)
{
    return plain_route_remove(m.trees.at(path.route_id), key.second, plain_mask(key.first), way_of(path, ctx)) != 0;
}

void model_withdraw(plain_model &m, std::uint32_t ctx, model_key key, model_path &path)
{
    if (in_fib(path)) {
        bool done = true;
        if (is_default(key))
            (void)plain_set_default(m.trees.at(path.route_id), way_of(path, ctx), false);
        else
            done = model_fib_remove(m, ctx, key, path);
        if (done)
            path.flags &= static_cast<std::uint16_t>(~RIB_F_IN_MTRIE);
        else
            model_error(m, ctx,
                        text("rib_remove_mtrie_route: (1) Unable to remove routeid %s nexthop %08x encapid "
                             "%04x\n",
                             route_text(path.route_id, key).c_str(), path.nexthop, path.encap));
    }
    path.ifid = 0; // also when the forwarding table refused
    path.encap = 0;
}

void model_lose_members(plain_model &m, std::uint32_t ctx, model_key key)
{
    const std::vector<model_path> &set = m.rib[ctx].at(key);
    for (std::size_t i = 1; i < set.size(); ++i)
        ++m.lost[set[i].kind];
    m.rib[ctx].erase(key);
}

void model_flush(plain_model &m)
{
    m.calls.push_back("syscall_open");
    if (m.peers.open_result < 0)
        return;
    m.calls.push_back("tn_flush_rt_cache");
    m.calls.push_back("syscall_close");
}

std::string model_line(model_key key, unsigned place, const model_path &path, std::uint32_t count)
{
    return text("%08x/%u #%u route id %u nexthop %08x ifid %u encap %x flags %04x count %u", key.second, key.first,
                place, path.route_id, path.nexthop, unsigned{path.ifid}, path.encap, unsigned{path.flags}, count);
}

model_path *model_combined_add(plain_model &m, const model_host &host)
{
    model_path *path = host_add(m, host);
    if (path == nullptr) {
        model_error(m, NO_CTX,
                    text("route_add_rib_and_mtrie_entry: rib add failed, addr 0x%x/%d, ifid 0x%x\n", host.addr,
                         static_cast<int>(host.len), unsigned{host.ifid}));
        return nullptr;
    }
    path->flags |= host.flags;
    const model_key key(host.len, host.addr & plain_mask(host.len));
    if (model_fib_add(m, host.ctx, key, *path))
        return path;
    model_error(m, NO_CTX, text("adding Mtrie FAILURE 0x%x/%u->%04x\n", key.second, key.first, path->encap));
    model_path taken{}; // odd: what is undone is the head, whichever path failed, or nothing when it is another object
    (void)host_remove(m, host, taken);
    return nullptr;
}

bool model_combined_remove(plain_model &m, const model_host &host, model_path *taken)
{
    model_path path{};
    if (!host_remove(m, host, path)) {
        model_error(m, NO_CTX,
                    text("route_remove_rib_and_mtrie_entry: rib remove failed, addr 0x%x/%d\n", host.addr,
                         static_cast<int>(host.len)));
        return false;
    }
    path.flags &= static_cast<std::uint16_t>(~host.flags);
    if (!model_fib_remove(m, host.ctx, {host.len, host.addr & plain_mask(host.len)}, path))
        model_error(m, NO_CTX,
                    text("route_remove_rib_and_mtrie_entry:remove Mtrie FAILURE 0x%x/%u\n", host.addr, host.len));
    if (taken != nullptr)
        *taken = path;
    return true;
}

std::uint32_t model_arp_add(plain_model &m, const model_host &host)
{
    if (host.object != MODEL_OBJ_HOST) {
        model_error(m, host.ctx,
                    text("arp_prefix_mgr_add_route, Object NOT supported, addr 0x%x/%d, encapid 0x%x, ifid "
                         "0x%x\n",
                         host.addr, static_cast<int>(host.len), unsigned{host.encap}, unsigned{host.ifid}));
        return 1;
    }
    const model_path *path = model_combined_add(m, host);
    if (path == nullptr)
        return 1;
    host_added(m, host.ctx, host.addr & plain_mask(host.len), *path);
    return 0;
}

std::uint32_t model_arp_remove(plain_model &m, const model_host &host)
{
    if (host.object != MODEL_OBJ_HOST) {
        model_error(m, host.ctx,
                    text("arp_prefix_mgr_remove_route, object NOT supported, addr 0x%x, encapid 0x%x, ifid "
                         "0x%x\n",
                         host.addr, unsigned{host.encap}, unsigned{host.ifid}));
        return 1;
    }
    if (!model_combined_remove(m, host, nullptr))
        return 1;
    host_removed(m, host.ctx, host.addr & plain_mask(host.len));
    model_flush(m);
    return 0;
}

std::uint32_t model_static_add(plain_model &m, const model_static &route)
{
    const auto &[ctx, route_id, key, nexthop] = route;
    if (is_refused(m, ctx, key, nexthop))
        return 1;
    if (!model_alloc(m)) {
        model_error(m, ctx, "rib_add_route: Failed to allocate route entry\n");
        return 1;
    }
    join(m.rib[ctx][key], {MODEL_STATIC, nexthop, 0, 0, RIB_F_GATEWAY, route_id});
    const model_path *host = known_host(m, route_id, nexthop);
    request(m, nexthop, ctx, host == nullptr ? 0u : host->ifid, 1);
    if (host == nullptr)
        return 0;
    model_path &path = m.rib[ctx][key].back();
    path.encap = host->encap;
    path.ifid = host->ifid;
    if (program(m, ctx, key, path))
        return 0;
    discard(m, ctx, key, take_out(m.rib[ctx], key, m.rib[ctx][key].size() - 1));
    return 1;
}

std::uint32_t model_static_remove(plain_model &m, std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len,
                                  std::uint32_t nexthop)
{
    // The prefix is taken as it is: host bits are passed over, but a default route is only found as 0.
    const model_key key(len, len == 0 ? prefix : prefix & plain_mask(len));
    if (const std::vector<model_path> *set = model_set(m, ctx, key))
        for (std::size_t i = 0; i < set->size(); ++i) {
            // Odd: a path is known by its next hop alone, so a host's own entry goes too, and its leaf stays.
            if ((*set)[i].nexthop != nexthop)
                continue;
            discard(m, ctx, key, take_out(m.rib[ctx], key, i));
            model_flush(m);
            return 0;
        }
    model_error(m, ctx, text("could not find static route for ip=%x/%u", prefix, len));
    return 1;
}

plain_model::plain_model(const std::vector<std::uint32_t> &contexts)
{
    const auto untouched = static_cast<std::uint32_t>(TREES - contexts.size()); // a root, two leaves, one entry each
    pools.nodes = untouched;
    pools.leaves = 2 * untouched;
    lost[MODEL_HOST] = untouched;
    for (const std::uint32_t ctx : contexts) {
        trees.emplace(ctx, plain_tree(ctx, &pools));
        model_path &drop = rib[ctx][{3, 0xE0000000}].emplace_back();
        drop = {MODEL_HOST, 0, 0, 0x8001, RIB_F_MCAST_DROP, ctx};
        (void)model_fib_add(*this, ctx, {3, 0xE0000000}, drop);
    }
}

void plain_model::forget()
{
    pools.errors.clear();
    calls.clear();
    sent.clear();
    adverts.clear();
}

text_lines plain_model::rib_text(std::uint32_t ctx) const
{
    text_lines lines;
    for (const model_key &key : model_order(rib.at(ctx))) {
        const std::vector<model_path> &set = rib.at(ctx).at(key);
        for (unsigned i = 0; i < set.size(); ++i)
            lines.push_back(
                model_line(key, i, set[i], i == 0 && set.size() > 1 ? static_cast<std::uint32_t>(set.size()) : 0));
    }
    return lines;
}

std::uint32_t plain_model::entries(model_kind kind) const
{
    std::uint32_t count = lost[kind];
    for (const auto &[ctx, table] : rib)
        for (const auto &[key, set] : table)
            for (const model_path &path : set)
                count += path.kind == kind ? 1u : 0u;
    return count;
}
} // namespace harness
