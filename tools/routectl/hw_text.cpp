// hw_text.cpp - what a walk or a tree says, as JSON and as lines.
//
// The same keys whatever the source: what a dump does not tell is null.
#include "hw_text.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <optional>

#include "routectl_commands.h"

namespace
{
using json = nlohmann::ordered_json;

json number_or_null(const std::optional<std::uint32_t> &number) { return number ? json(*number) : json(nullptr); }

json word_or_null(const std::optional<std::uint32_t> &word)
{
    return word ? json(routectl_hex(*word, 8)) : json(nullptr);
}

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

[[gnu::format(printf, 1, 2)]] std::string print(const char *format, ...)
{
    std::array<char, 256> text;
    va_list args;
    va_start(args, format);
    (void)std::vsnprintf(text.data(), text.size(), format, args); // numbers only: it fits
    va_end(args);
    return text.data();
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
                  {"address", routectl_dotted(walk.address)},
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
    std::string text = print("  level %u  ", step.level);
    if (step.node)
        text += print("node %-4u  ", *step.node);
    return text + (step.word ? print("slot %-3u  0x%08x\n", step.index, *step.word) : print("slot %u\n", step.index));
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
    std::string text = print("  path %u  ", path.number);
    text += path.ifid ? print("interface %-5u", *path.ifid) : "interface not told";
    return text + print(walk.nat && path.number == 1 ? "  NAT value %u\n" : "  encapsulation 0x%04x\n", path.encap);
}

std::string block_text(const hw_block &block)
{
    std::string text = "  ECMP block";
    text += block.index ? print(" %u", *block.index) : "";
    text += block.valid ? ": valid" : ": NOT valid, the processors do not use it";
    return text + print(", %u more, sequence %u\n", block.count, block.sequence);
}

std::string leaf_text(const hw_walk &walk)
{
    std::string text = "  leaf";
    text += walk.leaf ? print(" %u", *walk.leaf) : "";
    text += walk.adjacency ? print("  0x%08x", *walk.adjacency) : "";
    text += ", flags: " + flags_text(walk) + (hw_walk_is_blank(walk) ? "; no route" : "") + "\n";
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
    std::string text =
        print("context %u, %s, copy %s, from the %s\n", walk.ctx, routectl_dotted(walk.address).c_str(),
              TABLE_COPY_NAMES[walk.copy], walk.source == HW_FROM_MEMORY ? "mapped memory" : "route manager's dump");
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
        slot["stray"] = routectl_hex(run.word, 8);
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
            {"adjacency", routectl_hex(leaf.adjacency, 8)},
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
                         {"prefix", tree_prefix(node.prefix, 8 * node.level)},
                         {"slots", slots}});
    }
    for (const auto &[index, leaf] : tree.leaves)
        leaves.push_back(leaf_json(leaf));
    return {{"ctx", tree.ctx},
            {"copy", TABLE_COPY_NAMES[tree.copy]},
            {"root", routectl_hex(tree.root, 8)},
            {"nodes", nodes},
            {"leaves", leaves},
            {"faults", tree.faults}};
}
