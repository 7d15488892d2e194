// ixp_answers.cpp - what an address is answered, once or as it changes.
//
// Always: an answer shows every path that a packet to the address could take at that moment.
// Elsewhere: the lookups themselves (ixp_lookup.cpp).
#include <chrono>
#include <cstdio>
#include <thread>

#include <fmt/format.h>

#include "card_tool/address_text.h"
#include "ixp_tool.h"
#include "mtrie_records.h"

namespace
{
std::vector<std::uint32_t> addresses_of(const ixp_options &options)
{
    std::vector<std::uint32_t> addresses;
    for (const std::string &text : options.addresses)
        addresses.push_back(ixp_parse_address(text));
    return addresses;
}

std::string flags_text(std::uint32_t adjacency)
{
    std::string text;
    if ((adjacency & ADJ_IP_RESOLVE) != 0)
        text += " ip-resolve";
    if ((adjacency & ADJ_NAT) != 0)
        text += " nat";
    if ((adjacency & ADJ_ECMP) != 0)
        text += " ecmp";
    return text;
}

void print_line(const ixp_options &options, std::uint32_t address, const ixp_answer &answer, double at)
{
    if (options.json) {
        nlohmann::json line = ixp_answer_json(answer);
        line["address"] = address_text(address);
        line["tree"] = options.tree;
        if (at >= 0)
            line["seconds"] = at;
        std::printf("%s\n", line.dump().c_str());
    } else if (at >= 0) {
        std::printf("%11.6f  %-15s  %s\n", at, address_text(address).c_str(), ixp_answer_text(answer).c_str());
    } else {
        std::printf("%-15s  %s\n", address_text(address).c_str(), ixp_answer_text(answer).c_str());
    }
}
} // namespace

// A header counts seven entries at most, so the hashes 0 to 7 come to every path.
ixp_answer ixp_answer_of(const ixp_table &table, ixp_implementation implementation, std::uint32_t tree,
                         std::uint32_t address)
{
    std::array<std::uint32_t, IXP_PATHS> addresses, hashes, words, paths;
    for (unsigned i = 0; i < IXP_PATHS; ++i) {
        addresses[i] = address;
        hashes[i] = i;
    }
    ixp_forward(table, implementation, tree, {addresses.data(), hashes.data(), words.data(), paths.data(), IXP_PATHS});
    ixp_answer answer;
    for (unsigned i = 0; i < IXP_PATHS && words[i] != IXP_MISS; ++i) {
        answer.found = true;
        answer.words[paths[i]] = words[i];
        answer.paths = std::max(answer.paths, paths[i] + 1);
    }
    return answer;
}

std::string ixp_answer_text(const ixp_answer &answer)
{
    if (!answer.found)
        return "miss";
    std::string line = fmt::format("0x{:08x}{}", answer.words[0], flags_text(answer.words[0]));
    for (unsigned path = 0; path < answer.paths; ++path) {
        const ixp_hop hop = ixp_hop_of(answer.words[path], path);
        line += fmt::format("{} interface {} encap 0x{:04x}", path == 0 ? "" : ",", hop.ifid, hop.encap);
    }
    return line;
}

nlohmann::json ixp_answer_json(const ixp_answer &answer)
{
    nlohmann::json json{{"found", answer.found}, {"paths", nlohmann::json::array()}};
    if (!answer.found)
        return json;
    json["word"] = answer.words[0];
    json["ip_resolve"] = (answer.words[0] & ADJ_IP_RESOLVE) != 0;
    json["nat"] = (answer.words[0] & ADJ_NAT) != 0;
    json["ecmp"] = (answer.words[0] & ADJ_ECMP) != 0;
    for (unsigned path = 0; path < answer.paths; ++path) {
        const ixp_hop hop = ixp_hop_of(answer.words[path], path);
        json["paths"].push_back({{"interface", hop.ifid}, {"encap", hop.encap}});
    }
    return json;
}

int ixp_mode_lookup(const ixp_options &options, ixp_memory &memory, ixp_implementation implementation)
{
    bool missed = false;
    for (const std::uint32_t address : addresses_of(options)) {
        const ixp_answer answer = ixp_answer_of(memory.table, implementation, options.tree, address);
        missed = missed || !answer.found;
        print_line(options, address, answer, -1);
    }
    return missed ? 1 : 0;
}

int ixp_mode_follow(const ixp_options &options, ixp_memory &memory, ixp_implementation implementation)
{
    using clock = std::chrono::steady_clock;
    const std::vector<std::uint32_t> addresses = addresses_of(options);
    std::vector<std::optional<ixp_answer>> last(addresses.size());
    const clock::time_point start = clock::now();
    double at = 0;
    do {
        ixp_memory_follow(memory);
        for (std::size_t i = 0; i < addresses.size(); ++i) {
            const ixp_answer answer = ixp_answer_of(memory.table, implementation, options.tree, addresses[i]);
            if (last[i] == answer)
                continue;
            print_line(options, addresses[i], answer, at);
            last[i] = answer;
        }
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::milliseconds(options.every_ms));
        at = std::chrono::duration<double>(clock::now() - start).count();
    } while (options.seconds == 0 || at < options.seconds);
    return 0;
}
