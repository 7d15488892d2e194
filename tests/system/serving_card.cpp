// serving_card.cpp - a daemon with interfaces and callers, and how a test looks at what it did.
#include "serving_card.h"

#include <map>

namespace harness
{
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
} // namespace

std::vector<interface_record> live_interfaces()
{
    return {{IFID, IF_USUAL | IF_VLAN, 1, 0, IF_ADDR, MASK24, CTX, 0x123},
            {OTHER_IFID, IF_USUAL, 1, 0, OTHER_ADDR, MASK24, CTX, 0},
            {DOWN_IFID, IF_USUAL & ~IF_UP, 1, 0, IP(10, 3, 0, 1), MASK24, CTX, 0}};
}

serving_card::serving_card(unsigned processors, const std::string &settings)
    : num_ixp(processors), prepared(prepare(card, processors, settings)), ready(is_ready(daemon))
{
    for (const auto &[category, on] : std::map<std::uint32_t, std::uint32_t>{{101, 0}, {105, 1}, {106, 1}})
        debug_request(queue, 2, category, 0, on);
    settle();
    forget();
}

std::uint32_t serving_card::result(const remote_call &call) const
{
    const rpc_reply reply = rpc_call(caller.fd, call);
    EXPECT_TRUE(reply.arrived && reply.status == 0) << call.name << ": status " << reply.status;
    return reply.result;
}

byte_string serving_card::answer(const remote_call &call) const
{
    const rpc_reply reply = rpc_call(caller.fd, call);
    EXPECT_TRUE(reply.arrived && reply.status == 0) << call.name << ": status " << reply.status;
    return reply.record.size() < 12 ? byte_string{} : byte_string(reply.record.begin() + 12, reply.record.end());
}

void serving_card::settle() const { EXPECT_NE(debug_answer(queue, 5).find("calls_served "), std::string::npos); }

void serving_card::forget() { mark = history_read(card).head; }

text_lines serving_card::lines(const std::string &part) const
{
    text_lines found;
    for (const history_record &record : history_read(card).records)
        if (record.end > mark && !is_of_the_loop(record.text()) && record.text().find(part) != std::string::npos)
            found.push_back(std::to_string(record.category()) + " " + record.text());
    return found;
}

std::vector<std::pair<const char *, std::uint32_t>> serving_card::copies() const
{
    std::vector<std::pair<const char *, std::uint32_t>> all = {{"mem/wired", TABLE_WIRED}, {"mem/ixp1", TABLE_IXP}};
    if (num_ixp > 1)
        all.emplace_back("mem/ixp2", TABLE_IXP);
    return all;
}

std::uint32_t serving_card::found(std::uint32_t tree, std::uint32_t addr) const
{
    std::uint32_t common = 0;
    for (const auto &[name, base] : copies()) {
        const std::uint32_t here = np_find({memory_words(card, name).data(), base}, tree, addr).adjacency;
        if (name == copies().front().first)
            common = here;
        else if (here != common)
            return 0xFFFFFFFF;
    }
    return common;
}
} // namespace harness
