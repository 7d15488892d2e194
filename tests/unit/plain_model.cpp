// plain_model.cpp - the operations of the plain model, step by step as the process takes them.
#include "plain_model.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <tuple>

namespace
{

constexpr std::uint32_t POOL_LEAVES = 1024, POOL_BLOCKS = 128, TREES = 256;

model_path *find_path(std::vector<model_path> *set, bool (*match)(const model_path &, std::uint32_t), std::uint32_t key)
{
    if (set == nullptr)
        return nullptr;
    for (model_path &path : *set)
        if (match(path, key))
            return &path;
    return nullptr;
}

std::vector<model_path> *find_set(plain_model &m, std::uint32_t ctx, model_key key)
{
    const auto it = m.rib[ctx].find(key);
    return it == m.rib[ctx].end() ? nullptr : &it->second;
}

void join(std::vector<model_path> &set, const model_path &path)
{
    set.push_back(path);
    if (set.size() == 1)
        return;
    set.front().flags |= RIB_F_ECMP;
    set.back().flags |= RIB_F_ECMP;
}

// Takes path `i` out; the path itself keeps its flags. A set of one is no set.
model_path take_out(std::map<model_key, std::vector<model_path>> &table, model_key key, std::size_t i)
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

// --- The forwarding table.

void set_adjacency(model_leaf &leaf, std::uint32_t ifid, std::uint32_t encap, std::uint32_t kept)
{
    leaf.adjacency = (leaf.adjacency & kept) | (ifid & 0x1FFF) << 16 | (encap & 0xFFFF);
}

bool ecmp_insert(plain_model &m, model_leaf &leaf, const model_path &path)
{
    if ((path.flags & RIB_F_ECMP) == 0)
        return false;
    const std::uint32_t entry = (path.ifid & 0x3FFFu) << 18 | (path.encap & 0xFFFF);
    if (!leaf.has_block) {
        if (m.blocks_in_use() == POOL_BLOCKS)
            return false;
        leaf.has_block = true;
        leaf.npaths = 1;
        std::memset(leaf.hw, 0, sizeof leaf.hw);
        leaf.hw[0] = 0x92000000;
        leaf.hw[1] = entry;
        leaf.adjacency |= 1u << 30;
        return true;
    }
    if (leaf.hw[0] >> 31 == 0 || leaf.npaths == 7)
        return false; // left invalid by a removal, or full
    const std::uint32_t count = (leaf.hw[0] >> 28 & 7) + 1, sequence = (leaf.hw[0] >> 25 & 7) + 1;
    leaf.hw[++leaf.npaths] = entry;
    leaf.hw[0] = 1u << 31 | (count & 7) << 28 | (sequence & 7) << 25;
    return true;
}

bool ecmp_remove(model_leaf &leaf, const model_path &path)
{
    if (leaf.hw[0] >> 31 == 0)
        return false;
    leaf.hw[0] &= 0x7FFFFFFF;
    const std::uint32_t encap = path.encap & 0xFFFF;
    const std::uint32_t last = leaf.hw[leaf.npaths];
    // Odd: the ifid is cut when it is stored and compared uncut, so a large one is not found again.
    if ((leaf.adjacency & 0xFFFF) == encap && (leaf.adjacency >> 16 & 0x1FFF) == path.ifid) {
        leaf.adjacency = (leaf.adjacency & 0xE0000000) | (last >> 18 & 0x1FFF) << 16 | (last & 0xFFFF);
    } else {
        unsigned i = 1;
        while (i < 8 && !((leaf.hw[i] & 0xFFFF) == encap && leaf.hw[i] >> 18 == path.ifid))
            ++i;
        if (i == 8)
            return false; // odd: the block stays invalid, and refuses whatever comes
        leaf.hw[i] = last;
    }
    leaf.hw[leaf.npaths] = 0;
    const std::uint32_t count = (leaf.hw[0] >> 28 & 7) - 1, sequence = (leaf.hw[0] >> 25 & 7) - 1;
    leaf.hw[0] = 1u << 31 | (count & 7) << 28 | (sequence & 7) << 25;
    if (leaf.npaths-- == 1 && (count & 7) == 0) {
        leaf.has_block = false;
        leaf.adjacency &= ~(1u << 30);
    }
    return true;
}

bool fib_add(plain_model &m, std::uint32_t tree, model_key key, const model_path &path)
{
    auto &leaves = m.fib[tree];
    const auto it = leaves.find(key);
    if (it != leaves.end() && (path.flags & RIB_F_ECMP) != 0)
        return ecmp_insert(m, it->second, path);
    if (m.leaves_in_use() == POOL_LEAVES) {
        leaves.erase(key); // odd: the clean-up after a failure takes the leaf that was there before
        return false;
    }
    if (it != leaves.end()) {
        ++m.leaves_lost; // odd: the leaf for a repeat is kept, and the old word stands
        return true;
    }
    set_adjacency(leaves[key], path.ifid, path.encap, 0);
    return true;
}

bool fib_remove(plain_model &m, std::uint32_t tree, model_key key, const model_path &path)
{
    auto &leaves = m.fib[tree];
    const auto it = leaves.find(key);
    if (it == leaves.end())
        return false;
    if (it->second.has_block && (it->second.adjacency >> 30 & 1) != 0)
        return ecmp_remove(it->second, path);
    leaves.erase(it);
    return true;
}

constexpr std::uint32_t KEPT_BY_UPDATE = 1u << 29; // the NAT flag; the encap id is kept too, then overwritten

bool default_set(plain_model &m, std::uint32_t tree, const model_path &path)
{
    model_leaf &leaf = m.fib[tree][{0, 0}];
    if ((path.flags & RIB_F_ECMP) != 0 && (leaf.adjacency & 0x1FFFFFFF) != 0)
        return ecmp_insert(m, leaf, path);
    set_adjacency(leaf, path.ifid, path.encap, KEPT_BY_UPDATE); // odd: a block that it has stays behind
    return true;
}

void default_reset(plain_model &m, std::uint32_t tree, const model_path &path)
{
    model_leaf &leaf = m.fib[tree][{0, 0}];
    if (leaf.has_block && (leaf.adjacency >> 30 & 1) != 0)
        (void)ecmp_remove(leaf, path);
    else
        set_adjacency(leaf, 0, 0, KEPT_BY_UPDATE);
}

bool program(plain_model &m, std::uint32_t ctx, model_key key, model_path &path)
{
    const bool done = key == model_key(0, 0) ? default_set(m, ctx, path) : fib_add(m, ctx, key, path);
    if (done)
        path.flags |= RIB_F_IN_MTRIE;
    return done;
}

void withdraw(plain_model &m, std::uint32_t ctx, model_key key, model_path &path)
{
    if ((path.flags & RIB_F_IN_MTRIE) == 0)
        return;
    bool done = true;
    if (key == model_key(0, 0))
        default_reset(m, ctx, path);
    else
        done = fib_remove(m, ctx, key, path);
    if (done)
        path.flags &= static_cast<std::uint16_t>(~RIB_F_IN_MTRIE);
}

// The keys of a context in the order of its table.
std::vector<model_key> in_order(const std::map<model_key, std::vector<model_path>> &table)
{
    std::vector<model_key> keys;
    for (const auto &[key, set] : table)
        keys.push_back(key);
    std::sort(keys.begin(), keys.end(), [](model_key a, model_key b) {
        return std::tuple(a.first, model_bucket(a.second, a.first), a.second) <
               std::tuple(b.first, model_bucket(b.second, b.first), b.second);
    });
    return keys;
}

bool waits_for(const model_path &path, std::uint32_t host) { return path.is_static && path.nexthop == host; }
bool in_fib(const model_path &path) { return (path.flags & RIB_F_IN_MTRIE) != 0; }

// Odd: when the head of a set is taken care of, its members are passed over.
void host_added(plain_model &m, std::uint32_t ctx, std::uint32_t host, const model_path &path)
{
    for (const model_key &key : in_order(m.rib[ctx]))
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
    for (const model_key &key : in_order(m.rib[ctx]))
        for (model_path &installed : m.rib[ctx][key]) {
            if (!waits_for(installed, host) || !in_fib(installed))
                continue;
            withdraw(m, ctx, key, installed);
            installed.ifid = 0;
            installed.encap = 0;
            if (&installed == &m.rib[ctx][key].front())
                break;
        }
}

// Takes the head at `key` when it is an ARP host. Odd: its members are lost with it.
bool take_host(plain_model &m, std::uint32_t ctx, model_key key, model_path &head)
{
    const std::vector<model_path> *set = find_set(m, ctx, key);
    if (set == nullptr || (set->front().flags & RIB_F_ARP_HOST) == 0)
        return false;
    head = set->front();
    for (std::size_t i = 1; i < set->size(); ++i)
        ++((*set)[i].is_static ? m.statics_lost : m.hosts_lost);
    m.rib[ctx].erase(key);
    return true;
}

// Odd: only the head of a set is looked at, of whatever length, the shortest first.
const model_path *known_host(plain_model &m, std::uint32_t ctx, std::uint32_t nexthop)
{
    for (const model_key &key : in_order(m.rib[ctx])) {
        const model_path &head = m.rib[ctx][key].front();
        if (key.second == nexthop && (head.flags & 3) == 3)
            return &head;
    }
    return nullptr;
}

} // namespace

std::uint32_t model_mask(std::uint32_t len) { return len == 0 ? 0 : 0xFFFFFFFFu << (32 - len); }

std::uint32_t model_bucket(std::uint32_t prefix, std::uint32_t len)
{
    const std::uint32_t v = len == 0 ? prefix : prefix >> (32 - len);
    return (729 * (v >> 24) + 81 * (v >> 16 & 255) + 9 * (v >> 8 & 255) + (v & 255)) % 31;
}

std::string model_line(std::uint32_t len, std::uint32_t prefix, unsigned place, const model_path &path,
                       std::uint32_t count)
{
    char text[160];
    std::snprintf(text, sizeof text, "%08x/%u #%u nexthop %08x ifid %u encap %x flags %04x count %u", prefix, len,
                  place, path.nexthop, unsigned{path.ifid}, path.encap, unsigned{path.flags}, count);
    return text;
}

plain_model::plain_model(unsigned contexts)
{
    for (std::uint32_t ctx = 0; ctx < contexts; ++ctx) {
        rib[ctx][{3, 0xE0000000}] = {{false, 0, 0, 0x8001, RIB_F_MCAST_DROP}};
        fib[ctx][{0, 0}] = {};
        fib[ctx][{3, 0xE0000000}].adjacency = 0x8001;
    }
}

std::uint32_t plain_model::arp_add(std::uint32_t ctx, std::uint32_t addr, std::uint32_t len, std::uint16_t encap,
                                   std::uint16_t ifid)
{
    const auto interface = interfaces.find(ifid);
    if (len > 32 || interface == interfaces.end() || !interface->second.up)
        return 1;
    const model_key key(len, addr & model_mask(len));
    model_path *path = find_path(
        find_set(*this, ctx, key), [](const model_path &p, std::uint32_t) { return (p.flags & 3) != 0; }, 0);
    if (path != nullptr) {
        path->encap = encap;
        path->ifid = ifid;
    } else {
        if (memory_short)
            return 1;
        join(rib[ctx][key], {false, interface->second.address, ifid, encap, RIB_F_ARP_HOST});
        path = &rib[ctx][key].back();
    }
    path->flags |= RIB_F_ARP_INSTALLED;
    if (fib_add(*this, ctx, key, *path)) {
        host_added(*this, ctx, key.second, *path);
        return 0;
    }
    model_path taken; // odd: what is undone is the head, whichever path failed, or nothing when it is no host
    (void)take_host(*this, ctx, key, taken);
    return 1;
}

std::uint32_t plain_model::arp_remove(std::uint32_t ctx, std::uint32_t addr, std::uint32_t len)
{
    model_path host;
    if (len > 32)
        return 1;
    const model_key key(len, addr & model_mask(len));
    if (!take_host(*this, ctx, key, host))
        return 1;
    (void)fib_remove(*this, ctx, key, host);
    host_removed(*this, ctx, key.second);
    return 0;
}

std::uint32_t plain_model::static_add(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len, std::uint32_t nexthop)
{
    const model_key key(len, prefix & model_mask(len));
    std::vector<model_path> *set = find_set(*this, ctx, key);
    const auto same = [](const model_path &p, std::uint32_t n) { return p.nexthop == n; };
    // Odd: exactly eight is full; hosts join without a limit, and nine or more are not refused.
    if (find_path(set, same, nexthop) != nullptr || (set != nullptr && set->size() == 8) || memory_short)
        return 1;
    join(rib[ctx][key], {true, nexthop, 0, 0, RIB_F_GATEWAY});
    const model_path *host = known_host(*this, ctx, nexthop);
    if (host == nullptr)
        return 0;
    model_path &path = rib[ctx][key].back();
    path.encap = host->encap;
    path.ifid = host->ifid;
    if (program(*this, ctx, key, path))
        return 0;
    (void)take_out(rib[ctx], key, rib[ctx][key].size() - 1);
    return 1;
}

std::uint32_t plain_model::static_remove(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len,
                                         std::uint32_t nexthop)
{
    const model_key key(len, prefix & model_mask(len));
    std::vector<model_path> *set = find_set(*this, ctx, key);
    // Odd: a path is known by its next hop alone, so a host's own entry goes too, and its leaf stays.
    const model_path *path = find_path(
        set, [](const model_path &p, std::uint32_t n) { return p.nexthop == n; }, nexthop);
    if (path == nullptr)
        return 1;
    model_path taken = take_out(rib[ctx], key, static_cast<std::size_t>(path - set->data()));
    withdraw(*this, ctx, key, taken);
    return 0;
}

std::uint32_t plain_model::set_is_full(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len) const
{
    const auto &table = rib.at(ctx);
    const auto it = table.find({len, prefix & model_mask(len)});
    return it != table.end() && it->second.size() == 8 ? 1 : 0;
}

std::vector<std::string> plain_model::rib_text(std::uint32_t ctx) const
{
    std::vector<std::string> lines;
    for (const model_key &key : in_order(rib.at(ctx))) {
        const std::vector<model_path> &set = rib.at(ctx).at(key);
        for (unsigned i = 0; i < set.size(); ++i)
            lines.push_back(model_line(key.first, key.second, i, set[i],
                                       i == 0 && set.size() > 1 ? static_cast<std::uint32_t>(set.size()) : 0));
    }
    return lines;
}

std::uint32_t plain_model::entries(bool is_static) const
{
    std::uint32_t count = is_static ? statics_lost : hosts_lost;
    if (!is_static)
        count += TREES - static_cast<std::uint32_t>(rib.size()); // the drop entries of contexts that no one touches
    for (const auto &[ctx, table] : rib)
        for (const auto &[key, set] : table)
            for (const model_path &path : set)
                count += path.is_static == is_static;
    return count;
}

std::uint32_t plain_model::leaves_in_use() const
{
    std::uint32_t count = leaves_lost + 2 * (TREES - static_cast<std::uint32_t>(fib.size()));
    for (const auto &[tree, leaves] : fib)
        count += static_cast<std::uint32_t>(leaves.size());
    return count;
}

std::uint32_t plain_model::blocks_in_use() const
{
    std::uint32_t count = 0;
    for (const auto &[tree, leaves] : fib)
        for (const auto &[key, leaf] : leaves)
            count += leaf.has_block;
    return count;
}

const model_leaf *plain_model::longest_match(std::uint32_t ctx, std::uint32_t address) const
{
    for (std::uint32_t len = 33; len-- > 0;) {
        const auto it = fib.at(ctx).find({len, address & model_mask(len)});
        if (it != fib.at(ctx).end())
            return &it->second;
    }
    return nullptr;
}
