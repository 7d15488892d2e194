// plain_show.cpp - the plain model's listings, summaries, lookups, walk through a copy, and advertisements.
#include <algorithm>

#include "plain_model.h"

namespace harness
{
namespace
{

void put(byte_string &bytes, std::uint32_t value, unsigned width)
{
    for (unsigned i = width; i > 0; --i)
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * (i - 1))));
}

bool has(const model_path &path, unsigned bits) { return (path.flags & bits) == bits; }

bool is_connected(const model_path &path)
{
    return has(path, RIB_F_INTERFACE | RIB_F_CONNECTED) || has(path, RIB_F_NAT | RIB_F_NAT_IN_MTRIE);
}
bool is_installed_static(const model_path &path) { return has(path, RIB_F_GATEWAY | RIB_F_IN_MTRIE); }

bool is_listed(const model_path &path, bool fib)
{
    if (!fib)
        return is_connected(path) || is_installed_static(path);
    const bool waits = has(path, RIB_F_GATEWAY) && !has(path, RIB_F_IN_MTRIE);
    const bool is_down = has(path, RIB_F_NAT) && !has(path, RIB_F_NAT_IN_MTRIE);
    return !waits && !is_down;
}

void append(model_page &page, model_key key, const model_path &path)
{
    for (const std::uint32_t value : {key.second, key.first, path.nexthop, path.route_id})
        put(page.records, value, 4);
    put(page.records, path.ifid, 2);
    put(page.records, path.flags, 2);
    put(page.records, path.encap, 4);
    ++page.count;
}

// Asks the slow path about a head's encapsulation. False when it has none.
bool try_head(plain_model &m, const model_path &head, std::uint32_t &nexthop)
{
    const std::uint32_t encap = head.encap & 0xFFFF;
    if (encap == 0)
        return false;
    nexthop = head.nexthop; // odd: whatever the slow path says
    m.calls.push_back(text("tnrpc_call encap_valid_mac 1:%u 8:0/2", encap));
    if (m.peers.mac_result != 0)
        model_error(m, 0, text("slowpath_valid_mac: bad rpc retcode %d. STOP\n", static_cast<int>(m.peers.mac_result)));
    return true;
}

void add_line(byte_string &lines, const std::string &line)
{
    const std::size_t start = lines.size();
    lines.resize(start + 128);
    std::copy_n(line.begin(), std::min<std::size_t>(line.size(), 127),
                lines.begin() + static_cast<std::ptrdiff_t>(start));
}

void dump_leaf(byte_string &lines, std::uint32_t copy, const plain_leaf &leaf)
{
    const std::uint32_t word = leaf.adjacency;
    add_line(lines,
             text("\nip resolve flag %x, ecmp flag %x, nat flag %x\n", word >> 31, word >> 30 & 1, word >> 29 & 1));
    if ((word >> 29 & 1) != 0)
        add_line(lines, text("\nNAT result,  IXP value %u\n", word & 0xFFFF));
    else
        add_line(lines, text("\nRoute/ECMP result #1 encaps id %u if_id %x \n", word & 0xFFFF, word >> 16 & 0x1FFF));
    if ((word >> 30 & 1) == 0)
        return;
    const std::uint32_t *block = leaf.block.words;
    add_line(lines, text("\n ixp %u  ecmp node 0x0 found.\n", copy));
    add_line(lines, text("\n valid %x, count %u, seq %u, \n", block[0] >> 31, block[0] >> 28 & 7, block[0] >> 25 & 7));
    for (unsigned i = 1; i < 8; ++i)
        add_line(lines, text("\n ECMP result #%u  encaps id %u if_id %x \n", i + 1, block[i] & 0xFFFF, block[i] >> 18));
}

} // namespace

model_page model_list(const plain_model &m, std::uint32_t ctx, model_cursor &cursor, bool fib, std::uint32_t capacity)
{
    model_page page = {0, {}};
    if (cursor.list >= 33) {
        cursor.position = 0xFFFFFFFF;
        return page;
    }
    if (cursor.bucket >= 31) {
        ++cursor.list;
        cursor.bucket = 0;
    }
    const model_table &table = m.rib.at(ctx);
    for (const model_key &key : model_order(table)) {
        const std::pair place(key.first, model_bucket(key.second, key.first));
        const std::pair from(cursor.list, cursor.bucket);
        if (place < from || (place == from && key.second < cursor.position))
            continue;
        const std::vector<model_path> &set = table.at(key);
        const bool is_set = set.size() > 1;
        if (!is_set && !is_listed(set.front(), fib))
            continue;
        if (capacity - page.count < set.size()) {
            cursor = {place.first, place.second, key.second};
            return page;
        }
        for (const model_path &path : set)
            if (is_listed(path, fib))
                append(page, key, path);
    }
    cursor = {33, 0, 0xFFFFFFFF};
    return page;
}

byte_string model_rib_summary(const plain_model &m, std::uint32_t ctx)
{
    std::uint32_t connected = 0, statics = 0;
    for (const auto &[key, set] : m.rib.at(ctx))
        for (const model_path &path : set) {
            connected += is_connected(path) ? 1u : 0u;
            statics += is_installed_static(path) ? 1u : 0u;
        }
    byte_string summary;
    put(summary, connected, 4);
    put(summary, statics, 4);
    put(summary, 36, 2);
    put(summary, 0, 2);
    return summary;
}

byte_string model_fib_summary(const plain_model &m, std::uint32_t ctx)
{
    std::uint32_t listed = 0;
    for (const auto &[key, set] : m.rib.at(ctx))
        for (const model_path &path : set)
            listed += is_listed(path, true) ? 1u : 0u;
    byte_string summary;
    for (const std::int32_t held : m.pools.held.at(ctx))
        put(summary, static_cast<std::uint32_t>(held), 4);
    put(summary, listed, 4);
    for (const std::uint32_t value : {1024u, 8u, 32u})
        put(summary, value, 2);
    return summary; // two more bytes say nothing
}

std::uint32_t model_lookup(plain_model &m, std::uint32_t ctx, std::uint32_t addr, std::uint32_t &nexthop)
{
    const model_table &table = m.rib[ctx];
    for (std::uint32_t len = 32; len > 0; --len)
        if (const auto it = table.find({len, addr & plain_mask(len)}); it != table.end()) {
            if (try_head(m, it->second.front(), nexthop))
                return 0;
            break; // odd: a longer match without an encapsulation never falls back to a shorter one
        }
    if (const auto it = table.find({0, 0}); it != table.end() && try_head(m, it->second.front(), nexthop))
        return 0;
    nexthop = 0;
    return 1;
}

byte_string model_dump(const plain_model &m, std::uint32_t copy, std::uint32_t tree, std::uint32_t address)
{
    byte_string lines;
    const bool there = copy < 2 || m.processors == 2; // a copy that the card lacks reads as zeros
    const plain_tree &of = m.trees.at(tree);
    for (unsigned level = 0; there && level < plain_levels(of, address); ++level)
        add_line(lines, text("\n level %u Mnode found, next_index=%u.\n", level, address >> (24 - 8 * level) & 255));
    add_line(lines, "\nSearch terminating successfully, Leaf found.\n");
    const plain_leaf *leaf = plain_find(of, address);
    if (there && leaf != nullptr)
        dump_leaf(lines, copy, *leaf);
    return lines;
}

std::uint32_t model_advert(plain_model &m, const std::vector<std::uint32_t> &args)
{
    const std::uint32_t prefix = args[0], mask = args[1], ifid = args[2], nexthop = args[3];
    const std::uint32_t metric = args[4] & 0xFFFF, ctx = args[5] & 0xFFFF;
    const auto of = m.interfaces.find(ifid);
    const auto vlan = static_cast<std::int16_t>(of == m.interfaces.end() ? -1 : of->second.vlan);
    if (vlan < 0) {
        model_error(m, ctx,
                    text("norvik_send_route_advert: Cannot resolve ifid %d to vlan id.", static_cast<int>(ifid)));
        return 0xFFFFFFFF;
    }
    const std::uint8_t opcode = metric == 0xFFFF ? 0x23 : 0x22;
    byte_string message = {0, 1, 0, 18, 18, 4, 1, 0x4A, 0, 1, 0, 0, 0, 0, 0, 0, opcode, 0};
    for (const std::uint32_t value : {prefix, mask, nexthop, static_cast<std::uint32_t>(vlan), metric})
        put(message, value, 4);
    message.resize(46);
    m.calls.push_back("scp_send 77 46");
    if (m.peers.scp_result != 0) {
        model_error(m, ctx,
                    text("Sending route advertise SCP message failed err=%d, opcode %u\n", m.peers.scp_result,
                         unsigned{opcode}));
        return 0xFFFFFFFF;
    }
    m.adverts.emplace_back(message.begin(), message.end());
    return 0;
}
} // namespace harness
