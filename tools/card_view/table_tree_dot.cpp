// table_tree_dot.cpp - a context's trie as a drawing.
//
// Each node is a box with a row for each different answer, each leaf a box with its words decoded, from left to right.
// The leaf that forwards nothing answers nearly everything in a table with few routes: its rows say so and have no
// line. Elsewhere: reading the trie (table_tree.cpp).
#include <fmt/format.h>

#include "card_tool/address_text.h"
#include "table_tree.h"

namespace
{
// A row: the slots of a node that hold one word.
struct tree_row {
    std::uint32_t word;
    table_target target;
    std::vector<tree_run> runs;
    unsigned slots = 0;
};

std::vector<tree_row> rows_of(const tree_node &node)
{
    std::vector<tree_row> rows;
    for (const tree_run &run : node.runs) {
        tree_row *row = nullptr;
        for (tree_row &r : rows)
            if (r.word == run.word)
                row = &r;
        if (row == nullptr)
            row = &rows.emplace_back(tree_row{run.word, run.target, {}});
        row->runs.push_back(run);
        row->slots += run.last - run.first + 1;
    }
    return rows;
}

std::string slots_text(const tree_row &row)
{
    constexpr std::size_t SHOWN = 3;
    std::string text;
    for (std::size_t i = 0; i < row.runs.size() && i < SHOWN; ++i) {
        const tree_run &run = row.runs[i];
        text += (i == 0 ? "" : ", ") + std::to_string(run.first);
        if (run.last != run.first)
            text += fmt::format("-{}", run.last);
    }
    return row.runs.size() > SHOWN ? fmt::format("{}, ... ({} slots)", text, row.slots) : text;
}

bool is_blank(const table_leaf &leaf) { return leaf.adjacency == 0 && leaf.pointer == 0; }

std::string target_text(const tree_view &tree, const tree_row &row)
{
    const std::uint32_t index = row.target.index;
    switch (row.target.kind) {
    case table_kind::empty:
        return "empty";
    case table_kind::node:
        return fmt::format("node {}", index);
    case table_kind::leaf:
        return fmt::format("leaf {}{}", index, is_blank(tree.leaves.at(index)) ? ", no route" : "");
    default:
        return fmt::format("stray 0x{:x}", row.word);
    }
}

bool has_line(const tree_view &tree, const tree_row &row)
{
    return row.target.kind == table_kind::node ||
           (row.target.kind == table_kind::leaf && !is_blank(tree.leaves.at(row.target.index)));
}

std::string cell(const std::string &text, const std::string &attributes = "")
{
    return fmt::format("<tr><td align=\"left\"{}>{}</td></tr>", attributes, text);
}

std::string box(const std::string &name, const std::string &cells)
{
    return fmt::format("  {} [label=<<table border=\"0\" cellborder=\"1\" cellspacing=\"0\">{}</table>>];\n", name,
                       cells);
}

std::string draw_node(const tree_view &tree, const tree_node &node)
{
    std::string cells = cell(fmt::format("<b>{}node {}</b>  {}", node.level == 0 ? "root: " : "", node.index,
                                         prefix_text(node.prefix, 8 * node.level)),
                             " bgcolor=\"#dce6f2\"");
    std::string lines;
    unsigned number = 0;
    for (const tree_row &row : rows_of(node)) {
        cells += cell(slots_text(row) + ": " + target_text(tree, row), fmt::format(" port=\"r{}\"", number));
        if (has_line(tree, row))
            lines += fmt::format("  n{}:r{}:e -> {}{};\n", node.index, number,
                                 row.target.kind == table_kind::node ? "n" : "l", row.target.index);
        ++number;
    }
    return box(fmt::format("n{}", node.index), cells) + lines;
}

std::string flags_text(std::uint32_t adjacency)
{
    std::string text;
    for (const auto &[bit, name] : {std::pair{ADJ_IP_RESOLVE, "ip-resolve"}, {ADJ_ECMP, "ECMP"}, {ADJ_NAT, "NAT"}})
        if ((adjacency & bit) != 0)
            text += std::string(text.empty() ? "  " : ", ") + name;
    return text;
}

std::string path_cell(unsigned number, std::uint32_t ifid, std::uint32_t encap)
{
    return cell(fmt::format("path {}: interface {}, encap 0x{:x}", number, ifid, encap));
}

std::string draw_leaf(const table_leaf &leaf)
{
    const std::uint32_t ifid = adj_ifid(leaf.adjacency), encap = adj_encap(leaf.adjacency);
    std::string cells =
        cell(fmt::format("<b>leaf {}</b>{}", leaf.index, flags_text(leaf.adjacency)), " bgcolor=\"#e2f0d9\"");
    cells += (leaf.adjacency & ADJ_NAT) != 0 ? cell(fmt::format("interface {}, NAT value {}", ifid, encap))
                                             : path_cell(1, ifid, encap);
    if (leaf.block.kind == table_kind::block) {
        const bool valid = (leaf.words[0] & ECMP_VALID) != 0;
        cells += cell(fmt::format("block {}, {}, sequence {}", leaf.block.index, valid ? "valid" : "NOT valid",
                                  ecmp_sequence(leaf.words[0])),
                      valid ? " bgcolor=\"#fff2cc\"" : " bgcolor=\"#f8cbad\"");
        for (unsigned i = 1; i <= ecmp_count(leaf.words[0]); ++i)
            cells += path_cell(i + 1, ecmp_entry_ifid(leaf.words[i]), adj_encap(leaf.words[i]));
    }
    return box(fmt::format("l{}", leaf.index), cells);
}
} // namespace

std::string tree_dot(const tree_view &tree)
{
    std::string text = fmt::format("digraph context_{0} {{\n"
                                   "  rankdir=LR;\n"
                                   "  label=\"context {0}, copy {1}\";\n"
                                   "  node [shape=plain, fontname=\"Helvetica\", fontsize=10];\n"
                                   "  graph [fontname=\"Helvetica\", ranksep=1.0];\n"
                                   "  edge [arrowsize=0.6];\n",
                                   tree.ctx, TABLE_COPY_NAMES[tree.copy]);
    for (const tree_node &node : tree.nodes)
        text += draw_node(tree, node);
    for (const auto &[index, leaf] : tree.leaves)
        if (!is_blank(leaf))
            text += draw_leaf(leaf);
    for (std::size_t i = 0; i < tree.faults.size(); ++i)
        text += fmt::format("  f{} [shape=note, color=red, label=\"{}\"];\n", i, tree.faults[i]);
    if (tree.nodes.empty())
        text += "  none [shape=note, label=\"the context has no tree\"];\n";
    return text + "}\n";
}
