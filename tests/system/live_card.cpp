// live_card.cpp - a daemon with interfaces and callers, and how a test looks at what it did.
#include "live_card.h"

#include <map>

namespace
{
bool prepare(const card_dir &card, unsigned processors, const std::string &settings)
{
    file_write(card.at("card.conf"), "slot = 4\nnum_ixp = " + std::to_string(processors) + "\n" + settings);
    interfaces_write(card, live_interfaces());
    return true;
}

bool is_ready(const daemon_process &daemon)
{
    const bool ready = daemon_notification(daemon) == "READY=1";
    EXPECT_TRUE(ready) << file_text(daemon.err);
    return ready;
}

bool is_of_the_loop(const std::string &text)
{
    for (const char *own :
         {"main: Waiting for MTS messages ...", "file descriptors ready", "Got TNRPC.", "Got MTS message."})
        if (text.find(own) != std::string::npos)
            return true;
    return false;
}

// Follows one copy as its processor does: root word, then a slot for each byte of the address, until a leaf.
std::uint32_t search(const std::vector<std::uint32_t> &table, std::uint32_t base, std::uint32_t tree,
                     std::uint32_t addr)
{
    std::uint32_t word = table[root_at(tree) / 4];
    for (unsigned level = 0; level < 4 && (word & 1) != 0; ++level)
        word = table[(word - 1 - base) / 4 + (addr >> (24 - 8 * level) & 0xFF)];
    return (word & 1) != 0 || word == 0 ? 0 : table[(word - base) / 4];
}
} // namespace

std::vector<interface_record> live_interfaces()
{
    const std::uint32_t up = IF_EXISTS | IF_UP | IF_ADDRESS | IF_CONTEXT;
    return {{LIVE_IF, up | IF_VLAN, 1, 0, LIVE_ADDR, LIVE_MASK, LIVE_CTX, 0x123},
            {LIVE_IF_2, up, 1, 0, LIVE_ADDR_2, LIVE_MASK, LIVE_CTX, 0}};
}

live_card::live_card(unsigned processors, const std::string &settings)
    : num_ixp(processors), prepared(prepare(card, processors, settings)), ready(is_ready(daemon))
{
    for (const auto &[category, on] : std::map<std::uint32_t, std::uint32_t>{{101, 0}, {105, 1}, {106, 1}})
        debug_request(queue, 2, category, 0, on);
    settle();
    forget();
}

std::uint32_t live_card::result(const char *name, const std::vector<rpc_arg> &args) const
{
    const rpc_reply reply = rpc_call(caller.fd, name, args);
    EXPECT_TRUE(reply.arrived && reply.status == 0) << name << ": status " << reply.status;
    return reply.result;
}

byte_string live_card::answer(const char *name, const std::vector<rpc_arg> &args) const
{
    const rpc_reply reply = rpc_call(caller.fd, name, args);
    EXPECT_TRUE(reply.arrived && reply.status == 0) << name << ": status " << reply.status;
    return reply.record.size() < 12 ? byte_string{} : byte_string(reply.record.begin() + 12, reply.record.end());
}

void live_card::settle() const { EXPECT_NE(debug_answer(queue, 5).find("calls_served "), std::string::npos); }

void live_card::forget() { mark = history_read(card).head; }

text_lines live_card::lines(const std::string &part) const
{
    text_lines found;
    for (const history_record &record : history_read(card).records)
        if (record.end > mark && !is_of_the_loop(record.text) && record.text.find(part) != std::string::npos)
            found.push_back(std::to_string(record.category) + " " + record.text);
    return found;
}

std::vector<std::pair<const char *, std::uint32_t>> live_card::copies() const
{
    std::vector<std::pair<const char *, std::uint32_t>> all = {{"mem/wired", TABLE_WIRED}, {"mem/ixp1", TABLE_IXP}};
    if (num_ixp > 1)
        all.emplace_back("mem/ixp2", TABLE_IXP);
    return all;
}

std::uint32_t live_card::found(std::uint32_t tree, std::uint32_t addr) const
{
    std::uint32_t common = 0;
    for (const auto &[name, base] : copies()) {
        const std::uint32_t here = search(memory_words(card, name), base, tree, addr);
        if (name == copies().front().first)
            common = here;
        else if (here != common)
            return 0xFFFFFFFF;
    }
    return common;
}

std::uint32_t live_card::host_add(std::uint32_t host, std::uint32_t encap, std::uint32_t ifid) const
{
    return result("arp_prefix_mgr_add_route",
                  {arg16(1), arg32(host), arg32(32), arg16(encap), arg16(ifid), arg32(LIVE_CTX)});
}

std::uint32_t live_card::host_remove(std::uint32_t host, std::uint32_t encap, std::uint32_t ifid) const
{
    return result("arp_prefix_mgr_remove_route",
                  {arg16(1), arg32(host), arg32(32), arg32(0), arg16(encap), arg16(ifid), arg32(LIVE_CTX)});
}

std::uint32_t live_card::route_add(std::uint32_t prefix, std::uint32_t mask, std::uint32_t hop) const
{
    return result("rib_add_route", {arg16(LIVE_CTX), arg32(LIVE_CTX), arg32(prefix), arg32(mask), arg32(hop)});
}

std::uint32_t live_card::route_remove(std::uint32_t prefix, std::uint32_t mask, std::uint32_t hop) const
{
    return result("rib_remove_route", {arg16(LIVE_CTX), arg32(LIVE_CTX), arg32(prefix), arg32(mask), arg32(hop)});
}

std::uint32_t live_card::pool_add(std::uint32_t first, std::uint32_t count, std::uint32_t encap) const
{
    return result("rib_add_nat_pool", {arg16(LIVE_CTX), arg16(LIVE_IF), arg32(first), arg32(count), arg16(encap)});
}

std::uint32_t live_card::pool_remove(std::uint32_t first, std::uint32_t count, std::uint32_t encap) const
{
    return result("rib_remove_nat_pool", {arg16(LIVE_CTX), arg16(LIVE_IF), arg32(first), arg32(count), arg16(encap)});
}

byte_string state_payload(std::uint32_t addr, std::uint32_t rmode, std::uint32_t ifid, std::uint32_t ctx,
                          std::uint32_t mask)
{
    byte_string payload;
    put16(payload, ifid);
    put16(payload, ctx);
    put32(payload, addr);
    payload.resize(21, 0xEE); // bytes that no one reads
    put32(payload, mask);
    payload.resize(44, 0xEE);
    put32(payload, rmode);
    return payload;
}

byte_string change_payload(std::uint32_t old_addr, std::uint32_t word, std::uint32_t ifid)
{
    return words({ifid, word, old_addr, LIVE_MASK});
}

byte_string words(const std::vector<std::uint32_t> &numbers)
{
    byte_string bytes;
    for (const std::uint32_t number : numbers)
        put32(bytes, number);
    return bytes;
}

byte_string joined(const std::vector<byte_string> &parts)
{
    byte_string all;
    for (const byte_string &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}
