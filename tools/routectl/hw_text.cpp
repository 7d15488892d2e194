// hw_text.cpp - a walk or a tree as JSON and as lines.
//
// Always: the keys are the same whatever the source; what a dump does not hold is null.
#include "hw_text.h"

#include <optional>

#include <fmt/format.h>

#include "card_tool/address_text.h"

namespace
{
using json = nlohmann::ordered_json;

json number_or_null(const std::optional<std::uint32_t> &number) { return number ? json(*number) : json(nullptr); }

std::string word_text(std::uint32_t word) { return fmt::format("0x{:08x}", word); }

json word_or_null(const std::optional<std::uint32_t> &word) { return word ? json(word_text(*word)) : json(nullptr); }

json path_json(const hw_path &path)
{
    return {{"path", path.number}, {"ifid", number_or_null(path.ifid)}, {"encap", path.encap}};
}

json block_json(const hw_block &block)
{
    json entries = json::array();
    for (const hw_path &entry : block.entries)
        entries.push_back(path_json(entry));
    return {{"block", number_or_null(block.index)},
            {"mapped_at", word_or_null(block.address)},
            {"valid", block.valid},
            {"count", block.count},
            {"sequence", block.sequence},
            {"entries", entries}};
}
} // namespace

json hw_walk_facts(const hw_walk &walk)
{
    json steps = json::array();
    for (const hw_step &step : walk.steps)
        steps.push_back({{"level", step.level},
                         {"slot", step.index},
                         {"node", number_or_null(step.node)},
                         {"word", word_or_null(step.word)}});
    json facts = {{"ctx", walk.ctx},
                  {"address", address_text(walk.address)},
                  {"copy", TABLE_COPY_NAMES[walk.copy]},
                  {"source", walk.source == HW_FROM_MEMORY ? "memory" : "route manager"},
                  {"root", word_or_null(walk.root)},
                  {"steps", steps},
                  {"found", walk.has_leaf},
                  {"leaf", number_or_null(walk.leaf)},
                  {"adjacency", word_or_null(walk.adjacency)},
                  {"forwards", walk.has_leaf && !hw_walk_is_blank(walk)}};
    facts["ip_resolve"] = walk.ip_resolve;
    facts["ecmp"] = walk.ecmp;
    facts["nat"] = walk.nat;
    facts["ecmp_block"] = walk.block ? block_json(*walk.block) : json(nullptr);
    facts["fault"] = walk.fault.empty() ? json(nullptr) : json(walk.fault);
    return facts;
}

json hw_walk_records(const hw_walk &walk)
{
    json paths = json::array();
    for (const hw_path &path : walk.paths)
        paths.push_back(path_json(path));
    return paths;
}

namespace
{
std::string step_text(const hw_step &step)
{
    return fmt::format("  level {}  {}{}\n", step.level, step.node ? fmt::format("node {:<4}  ", *step.node) : "",
                       step.word ? fmt::format("slot {:<3}  0x{:08x}", step.index, *step.word)
                                 : fmt::format("slot {}", step.index));
}

std::string flags_text(const hw_walk &walk)
{
    std::string text;
    for (const auto &[is_set, name] :
         {std::pair{walk.ip_resolve, "ip-resolve"}, {walk.ecmp, "ECMP"}, {walk.nat, "NAT"}})
        if (is_set)
            text += std::string(text.empty() ? "" : ", ") + name;
    return text.empty() ? "none" : text;
}

std::string path_text(const hw_walk &walk, const hw_path &path)
{
    const bool is_nat = walk.nat && path.number == 1;
    return fmt::format("  path {}  {}  {}\n", path.number,
                       path.ifid ? fmt::format("interface {:<5}", *path.ifid) : "interface unknown",
                       is_nat ? fmt::format("NAT value {}", path.encap)
                              : fmt::format("encapsulation 0x{:04x}", path.encap));
}

std::string block_text(const hw_block &block)
{
    return fmt::format("  ECMP block{}: {}, {} more, sequence {}\n",
                       block.index ? fmt::format(" {}", *block.index) : "",
                       block.valid ? "valid" : "NOT valid, the processors do not use it", block.count, block.sequence);
}

std::string leaf_text(const hw_walk &walk)
{
    std::string text = fmt::format("  leaf{}{}, flags: {}{}\n", walk.leaf ? fmt::format(" {}", *walk.leaf) : "",
                                   walk.adjacency ? fmt::format("  0x{:08x}", *walk.adjacency) : "", flags_text(walk),
                                   hw_walk_is_blank(walk) ? "; no route" : "");
    if (walk.block)
        text += block_text(*walk.block);
    if (!hw_walk_is_blank(walk))
        for (const hw_path &path : walk.paths)
            text += path_text(walk, path);
    return text;
}
} // namespace

std::string hw_walk_text(const hw_walk &walk)
{
    std::string text = fmt::format("context {}, {}, copy {}, from the {}\n", walk.ctx, address_text(walk.address),
                                   TABLE_COPY_NAMES[walk.copy],
                                   walk.source == HW_FROM_MEMORY ? "mapped memory" : "route manager's dump");
    for (const hw_step &step : walk.steps)
        text += step_text(step);
    return text + (walk.has_leaf ? leaf_text(walk) : "  no leaf\n");
}

namespace
{
json run_json(const tree_run &run)
{
    json slot = {{"first", run.first}, {"last", run.last}};
    switch (run.target.kind) {
    case table_kind::leaf:
        slot["leaf"] = run.target.index;
        break;
    case table_kind::node:
        slot["node"] = run.target.index;
        break;
    case table_kind::empty:
        slot["empty"] = true;
        break;
    default:
        slot["stray"] = word_text(run.word);
    }
    return slot;
}

json leaf_json(const table_leaf &leaf)
{
    json block = nullptr;
    if (leaf.block.kind == table_kind::block) {
        json entries = json::array();
        for (unsigned i = 1; i < ECMP_WORDS; ++i)
            entries.push_back(path_json({i + 1, ecmp_entry_ifid(leaf.words[i]), adj_encap(leaf.words[i])}));
        block = {{"block", leaf.block.index},
                 {"valid", (leaf.words[0] & ECMP_VALID) != 0},
                 {"count", ecmp_count(leaf.words[0])},
                 {"sequence", ecmp_sequence(leaf.words[0])},
                 {"entries", entries}};
    }
    return {{"leaf", leaf.index},
            {"adjacency", word_text(leaf.adjacency)},
            {"ip_resolve", (leaf.adjacency & ADJ_IP_RESOLVE) != 0},
            {"ecmp", (leaf.adjacency & ADJ_ECMP) != 0},
            {"nat", (leaf.adjacency & ADJ_NAT) != 0},
            {"ifid", adj_ifid(leaf.adjacency)},
            {"encap", adj_encap(leaf.adjacency)},
            {"ecmp_block", block}};
}
} // namespace

json hw_tree_json(const tree_view &tree)
{
    json nodes = json::array(), leaves = json::array();
    for (const tree_node &node : tree.nodes) {
        json slots = json::array();
        for (const tree_run &run : node.runs)
            slots.push_back(run_json(run));
        nodes.push_back({{"node", node.index},
                         {"level", node.level},
                         {"prefix", prefix_text(node.prefix, 8 * node.level)},
                         {"slots", slots}});
    }
    for (const auto &[index, leaf] : tree.leaves)
        leaves.push_back(leaf_json(leaf));
    return {{"ctx", tree.ctx},
            {"copy", TABLE_COPY_NAMES[tree.copy]},
            {"root", word_text(tree.root)},
            {"nodes", nodes},
            {"leaves", leaves},
            {"faults", tree.faults}};
}
