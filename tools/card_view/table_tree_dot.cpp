// table_tree_dot.cpp - a context's trie as a drawing.
//
// A box a node with a row for each different answer, a box a leaf with its words decoded, left to right. The leaf that
// forwards nowhere answers nearly everything in a young table: its rows say so and carry no line.
#include <sstream>

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
            text += "-" + std::to_string(run.last);
    }
    if (row.runs.size() > SHOWN)
        text += ", ... (" + std::to_string(row.slots) + " slots)";
    return text;
}

std::string hex(std::uint32_t value)
{
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

bool is_blank(const table_leaf &leaf) { return leaf.adjacency == 0 && leaf.pointer == 0; }

std::string target_text(const tree_view &tree, const tree_row &row)
{
    const std::string number = std::to_string(row.target.index);
    switch (row.target.kind) {
    case table_kind::empty:
        return "empty";
    case table_kind::node:
        return "node " + number;
    case table_kind::leaf:
        return "leaf " + number + (is_blank(tree.leaves.at(row.target.index)) ? ", no route" : "");
    default:
        return "stray " + hex(row.word);
    }
}

bool has_line(const tree_view &tree, const tree_row &row)
{
    return row.target.kind == table_kind::node ||
           (row.target.kind == table_kind::leaf && !is_blank(tree.leaves.at(row.target.index)));
}

std::string cell(const std::string &text, const char *attributes = "")
{
    return "<tr><td align=\"left\"" + std::string(attributes) + ">" + text + "</td></tr>";
}

void draw_node(std::ostringstream &out, const tree_view &tree, const tree_node &node)
{
    const std::string name = "n" + std::to_string(node.index);
    out << "  " << name << " [label=<<table border=\"0\" cellborder=\"1\" cellspacing=\"0\">"
        << cell("<b>" + std::string(node.level == 0 ? "root: " : "") + "node " + std::to_string(node.index) + "</b>  " +
                    tree_prefix(node.prefix, 8 * node.level),
                " bgcolor=\"#dce6f2\"");
    const std::vector<tree_row> rows = rows_of(node);
    for (std::size_t i = 0; i < rows.size(); ++i)
        out << cell(slots_text(rows[i]) + ": " + target_text(tree, rows[i]),
                    (" port=\"r" + std::to_string(i) + "\"").c_str());
    out << "</table>>];\n";
    for (std::size_t i = 0; i < rows.size(); ++i)
        if (has_line(tree, rows[i]))
            out << "  " << name << ":r" << i << ":e -> " << (rows[i].target.kind == table_kind::node ? "n" : "l")
                << rows[i].target.index << ";\n";
}

std::string flags_text(std::uint32_t adjacency)
{
    std::string text;
    for (const auto &[bit, name] : {std::pair{ADJ_IP_RESOLVE, "ip-resolve"}, {ADJ_ECMP, "ECMP"}, {ADJ_NAT, "NAT"}})
        if ((adjacency & bit) != 0)
            text += std::string(text.empty() ? "" : ", ") + name;
    return text;
}

std::string path_text(unsigned number, std::uint32_t ifid, std::uint32_t encap)
{
    return "path " + std::to_string(number) + ": interface " + std::to_string(ifid) + ", encap " + hex(encap);
}

void draw_leaf(std::ostringstream &out, const table_leaf &leaf)
{
    const std::string flags = flags_text(leaf.adjacency);
    out << "  l" << leaf.index << " [label=<<table border=\"0\" cellborder=\"1\" cellspacing=\"0\">"
        << cell("<b>leaf " + std::to_string(leaf.index) + "</b>" + (flags.empty() ? "" : "  " + flags),
                " bgcolor=\"#e2f0d9\"");
    if ((leaf.adjacency & ADJ_NAT) != 0)
        out << cell("interface " + std::to_string(adj_ifid(leaf.adjacency)) + ", NAT value " +
                    std::to_string(adj_encap(leaf.adjacency)));
    else
        out << cell(path_text(1, adj_ifid(leaf.adjacency), adj_encap(leaf.adjacency)));
    if (leaf.block.kind == table_kind::block) {
        const bool valid = (leaf.words[0] & ECMP_VALID) != 0;
        out << cell("block " + std::to_string(leaf.block.index) + (valid ? ", valid" : ", NOT valid") + ", sequence " +
                        std::to_string(ecmp_sequence(leaf.words[0])),
                    valid ? " bgcolor=\"#fff2cc\"" : " bgcolor=\"#f8cbad\"");
        for (unsigned i = 1; i <= ecmp_count(leaf.words[0]); ++i)
            out << cell(path_text(i + 1, ecmp_entry_ifid(leaf.words[i]), adj_encap(leaf.words[i])));
    }
    out << "</table>>];\n";
}
} // namespace

std::string tree_dot(const tree_view &tree)
{
    std::ostringstream out;
    out << "digraph context_" << tree.ctx << " {\n"
        << "  rankdir=LR;\n"
        << "  label=\"context " << tree.ctx << ", copy " << TABLE_COPY_NAMES[tree.copy] << "\";\n"
        << "  node [shape=plain, fontname=\"Helvetica\", fontsize=10];\n"
        << "  graph [fontname=\"Helvetica\", ranksep=1.0];\n"
        << "  edge [arrowsize=0.6];\n";
    for (const tree_node &node : tree.nodes)
        draw_node(out, tree, node);
    for (const auto &[index, leaf] : tree.leaves)
        if (!is_blank(leaf))
            draw_leaf(out, leaf);
    for (std::size_t i = 0; i < tree.faults.size(); ++i)
        out << "  f" << i << " [shape=note, color=red, label=\"" << tree.faults[i] << "\"];\n";
    if (tree.nodes.empty())
        out << "  none [shape=note, label=\"the context has no tree\"];\n";
    out << "}\n";
    return out.str();
}
