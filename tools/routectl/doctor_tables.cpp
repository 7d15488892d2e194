// doctor_tables.cpp - finds what the listings do not explain in the tables, and what of the listings is not in them.
//
// A route's own leaf is looked for among the leaves that answer the addresses that are its own. Shorter routes choose
// first, so that a leaf which stands in for a missing longer route is known for the shorter one's.
#include "doctor_tables.h"

#include <algorithm>
#include <map>
#include <set>

#include <fmt/format.h>

#include "card_tool/address_text.h"

#include "route_entry.h"

namespace
{
constexpr const char *RESTART = "restart the route manager: nothing else brings it back";

// A tree of one copy while it is judged.
struct judge {
    const tree_view *tree;
    const char *copy;
    doctor_findings *findings;
    std::set<int> owned; // leaves that are some route's own
};

// The context of what is wrong with a route: of its first entry.
void add(judge &at, const char *kind, doctor_level level, int ctx, const std::string &object, std::string what,
         std::string seen, std::string todo)
{
    at.findings->push_back({kind, level, ctx, object, std::move(what), std::move(seen), std::move(todo), {at.copy}, 0});
}

int tree_ctx(const judge &at) { return static_cast<int>(at.tree->ctx); }
std::string name_of(const cover_route &route) { return prefix_text(route.prefix, route.length); }

const table_leaf &leaf_of(const judge &at, int leaf) { return at.tree->leaves.at(static_cast<std::uint32_t>(leaf)); }

bool is_set(const table_leaf &leaf) { return (leaf.adjacency & ADJ_ECMP) != 0 && leaf.block.kind == table_kind::block; }
bool is_invalid(const table_leaf &leaf) { return is_set(leaf) && (leaf.words[0] & ECMP_VALID) == 0; }

// The paths that a processor may take, sorted.
std::vector<cover_path> leaf_paths(const table_leaf &leaf)
{
    std::vector<cover_path> paths = {{adj_ifid(leaf.adjacency), adj_encap(leaf.adjacency)}};
    const std::uint32_t more = is_set(leaf) && !is_invalid(leaf) ? ecmp_count(leaf.words[0]) : 0;
    for (std::uint32_t i = 1; i <= more; ++i)
        paths.push_back({ecmp_entry_ifid(leaf.words[i]), adj_encap(leaf.words[i])});
    std::sort(paths.begin(), paths.end());
    return paths;
}

// The paths that are listed; of a tree without default route, one that leads nowhere.
std::vector<cover_path> listed_paths(const cover_route &route)
{
    return route.paths.empty() ? std::vector<cover_path>{{0, 0}} : route.paths;
}

std::string paths_text(const std::vector<cover_path> &paths)
{
    std::string text;
    for (const cover_path &path : paths)
        text += (text.empty() ? "" : ", ") + std::string("interface ") + std::to_string(path.ifid) + " encap " +
                fmt::format("0x{:04x}", path.encap);
    return text;
}

// The flags that a processor reads. What a set or the default leaf has of them depends on which path was the first.
bool flags_fit(const cover_route &route, const table_leaf &leaf)
{
    if (route.listed != 1 || route.length == 0)
        return true;
    return ((route.flags & RIB_F_CONNECTED) != 0) == ((leaf.adjacency & ADJ_IP_RESOLVE) != 0) &&
           ((route.flags & RIB_F_NAT) != 0) == ((leaf.adjacency & ADJ_NAT) != 0);
}

bool fits(const cover_route &route, const table_leaf &leaf)
{
    return !is_invalid(leaf) && leaf_paths(leaf) == listed_paths(route) && flags_fit(route, leaf);
}

// Addresses by leaf, of the leaves that no shorter route owns.
std::map<int, std::uint64_t> free_leaves(const judge &at, const cover_answer &answer)
{
    std::map<int, std::uint64_t> leaves;
    for (const cover_piece &piece : answer.pieces)
        if (piece.leaf >= 0 && at.owned.count(piece.leaf) == 0)
            leaves[piece.leaf] += piece.size();
    return leaves;
}

std::uint64_t total_size(const cover_answer &answer)
{
    std::uint64_t size = 0;
    for (const cover_piece &piece : answer.pieces)
        size += piece.size();
    return size;
}

// The route's own leaf: one that holds what is listed; else the one that answers more than half. COVER_EMPTY: none.
int own_leaf(const judge &at, const cover_answer &answer)
{
    int own = COVER_EMPTY;
    std::uint64_t most = 0;
    const auto leaves = free_leaves(at, answer);
    for (const auto &[leaf, size] : leaves) {
        if (size > most && fits(answer.route, leaf_of(at, leaf))) {
            own = leaf;
            most = size;
        }
    }
    for (const auto &[leaf, size] : leaves)
        if (own == COVER_EMPTY && size > total_size(answer) / 2)
            own = leaf;
    return own;
}

// "20.0.0.0/8", and how many further ranges there are.
std::string ranges_text(const std::vector<cover_piece> &pieces)
{
    std::string text = cover_range(pieces[0].first, pieces[0].last);
    if (pieces.size() > 1)
        text += " and " + std::to_string(pieces.size() - 1) + " further range" + (pieces.size() > 2 ? "s" : "");
    return text;
}

// The leaf is the route's: what it holds and what is listed.
void judge_leaf(judge &at, const cover_route &route, const table_leaf &leaf)
{
    const std::string name = name_of(route), leaf_name = "leaf " + std::to_string(leaf.index);
    if (is_invalid(leaf)) {
        add(at, "block-invalid", doctor_level::fault, route.ctx, name,
            "the ECMP block of " + name + " is invalid: traffic uses path 1 alone, changes of the set are refused",
            leaf_name + ", block " + std::to_string(leaf.block.index) + ": bit 31 of its header is clear",
            "use one context for each route id, then restart the route manager");
        return;
    }
    if (!is_set(leaf) && leaf.block.kind == table_kind::block)
        add(at, "block-unused", doctor_level::fault, route.ctx, name,
            "the leaf of " + name + " holds ECMP block " + std::to_string(leaf.block.index) + " and does not use it",
            leaf_name + ": its second word names the block, its ECMP flag is clear", RESTART);
    if (fits(route, leaf))
        return;
    const std::vector<cover_path> listed = listed_paths(route), held = leaf_paths(leaf);
    const std::string seen =
        "listed: " + (route.listed == 0 ? "no route" : paths_text(listed)) + "; " + leaf_name + ": " + paths_text(held);
    if (listed.size() == 1 && held.size() == 1 && listed[0].ifid == held[0].ifid && listed[0].encap != held[0].encap)
        add(at, "encap-differs", doctor_level::fault, route.ctx, name,
            "the processors use another encap id for " + name + " than is listed", seen,
            "withdraw the host and report it again");
    else
        add(at, "paths-differ", doctor_level::fault, route.ctx, name,
            "the processors do not take the paths that are listed for " + name, seen,
            "remove the paths and add them again; if it stays, restart the route manager");
}

// The pieces that no leaf answers.
std::vector<cover_piece> empty_pieces(const cover_answer &answer)
{
    std::vector<cover_piece> empty;
    for (const cover_piece &piece : answer.pieces)
        if (piece.leaf == COVER_EMPTY)
            empty.push_back(piece);
    return empty;
}

// No leaf stands for "no route", or for the default route.
void judge_no_default(judge &at, const cover_answer &answer)
{
    const std::vector<cover_piece> empty = empty_pieces(answer);
    if (empty.empty())
        return; // other leaves answer: each is told of
    add(at, "default-gone", doctor_level::fault, tree_ctx(at), "",
        "the default leaf is gone: addresses that no route covers miss, and no default route can be set",
        "the slots outside all listed routes are empty: " + ranges_text(empty),
        "keep from interfaces with mask 0 and from a NAT pool of all addresses, then restart the route manager");
}

// The route has no leaf of its own.
void judge_absent(judge &at, const cover_answer &answer)
{
    if (answer.route.length == 0) {
        judge_no_default(at, answer);
        return;
    }
    const bool is_empty = empty_pieces(answer).size() == answer.pieces.size();
    add(at, "not-in-tables", doctor_level::fault, answer.route.ctx, name_of(answer.route),
        name_of(answer.route) + " is listed as installed and has no leaf: its addresses " +
            (is_empty ? "miss" : "are answered by another route"),
        (is_empty ? "empty slots at " : "the slots hold another route's leaf at ") + ranges_text(answer.pieces),
        "remove the route and add it again; if it stays, restart the route manager");
}

// Addresses of a route that has a leaf, and are answered by none.
void judge_gaps(judge &at, const cover_answer &answer)
{
    const std::vector<cover_piece> gaps = empty_pieces(answer);
    if (gaps.empty())
        return;
    const bool is_answered = answer.route.listed != 0;
    add(at, "gap", is_answered ? doctor_level::fault : doctor_level::warning, tree_ctx(at), ranges_text(gaps),
        "addresses miss that " +
            (is_answered ? name_of(answer.route) + " should answer" : std::string("a default route would not answer")),
        "empty slots at " + ranges_text(gaps),
        "add a route for the gap, or restart the route manager; add a shorter prefix before the longer ones");
}

// Leaves that answer addresses of the route and are neither its own nor a shorter route's.
void judge_strays(judge &at, const cover_answer &answer, const std::map<int, std::uint64_t> &leaves, int own)
{
    for (const auto &[leaf, size] : leaves) {
        if (leaf == own)
            continue;
        std::vector<cover_piece> places;
        for (const cover_piece &piece : answer.pieces)
            if (piece.leaf == leaf)
                places.push_back(piece);
        at.owned.insert(leaf);
        add(at, "stray-leaf", doctor_level::fault, tree_ctx(at), ranges_text(places),
            "no listed route explains what the processors do with " + ranges_text(places),
            "leaf " + std::to_string(leaf) + ": " + paths_text(leaf_paths(leaf_of(at, leaf))),
            "restart the route manager; routes of several kinds or contexts that shared the prefix leave such a leaf");
    }
}

// A /0 that is no static route stands over the default leaf.
bool is_zero_prefix(const cover_route &route)
{
    return route.length == 0 && route.listed != 0 && (route.flags & (RIB_F_NAT | RIB_F_INTERFACE)) != 0;
}

void judge_zero_prefix(judge &at, const cover_route &route)
{
    add(at, "zero-prefix", doctor_level::warning, route.ctx, "",
        "a /0 of an interface or a NAT pool stands; the default leaf goes when it is removed",
        std::string("listed: 0.0.0.0/0, ") + route_record_kind(route.flags),
        "leave it, or restart the route manager after it was removed");
}

void judge_route(judge &at, const cover_answer &answer, std::vector<doctor_hidden> &hidden)
{
    const cover_route &route = answer.route;
    if (answer.pieces.empty()) {
        hidden.push_back({at.tree->ctx, {route.prefix, route.length}, route});
        return;
    }
    const std::map<int, std::uint64_t> leaves = free_leaves(at, answer);
    const int own = own_leaf(at, answer);
    judge_strays(at, answer, leaves, own);
    at.owned.insert(own);
    if (own >= 0) {
        is_zero_prefix(route) ? judge_zero_prefix(at, route) : judge_leaf(at, route, leaf_of(at, own));
        judge_gaps(at, answer);
    } else {
        judge_absent(at, answer);
    }
}

void judge_faults(judge &at)
{
    if (at.tree->faults.empty())
        return;
    add(at, "table-fault", doctor_level::fault, tree_ctx(at), "",
        std::to_string(at.tree->faults.size()) + " word(s) of the tree lead nowhere", at.tree->faults[0],
        "restart the route manager; if it comes back, something else writes into the tables");
}

// What shows in a tree without listings: empty slots and invalid blocks.
void judge_alone(judge &at)
{
    const std::vector<cover_answer> answers = cover_tree({cover_route{}}, *at.tree);
    judge_gaps(at, answers[0]);
    std::set<int> seen;
    for (const cover_piece &piece : answers[0].pieces)
        if (piece.leaf >= 0 && seen.insert(piece.leaf).second && is_invalid(leaf_of(at, piece.leaf)))
            add(at, "block-invalid", doctor_level::fault, tree_ctx(at), cover_range(piece.first, piece.last),
                "an ECMP block is invalid: traffic uses path 1 alone",
                "leaf " + std::to_string(piece.leaf) + " at " + cover_range(piece.first, piece.last),
                "use one context for each route id, then restart the route manager");
}

void judge_tree(judge &at, const std::vector<cover_route> &routes, std::vector<doctor_hidden> &hidden)
{
    judge_faults(at);
    std::vector<cover_answer> answers = cover_tree(routes, *at.tree);
    std::stable_sort(answers.begin(), answers.end(),
                     [](const cover_answer &a, const cover_answer &b) { return a.route.length < b.route.length; });
    for (const cover_answer &answer : answers)
        judge_route(at, answer, hidden);
}

// A word without the place of its copy in the address space: what all copies have alike.
std::uint32_t plain_word(const table_view &view, std::uint32_t at, std::uint32_t word)
{
    const bool is_leaf = at >= HW_LEAVES && at < HW_ECMPS;
    const bool is_address = at < HW_LEAVES || (is_leaf && (at - HW_LEAVES) % HW_LEAF_BYTES != 0);
    return word == 0 || !is_address ? word : word - view.base;
}

std::string place_text(std::uint32_t at)
{
    const auto element = [](const char *name, std::uint32_t offset, std::uint32_t bytes) {
        return std::string(name) + " " + std::to_string(offset / bytes) + " word " + std::to_string(offset % bytes / 4);
    };
    if (at < HW_NODES)
        return "root " + std::to_string(at / 4);
    if (at < HW_LEAVES)
        return element("node", at - HW_NODES, HW_NODE_BYTES);
    return at < HW_ECMPS ? element("leaf", at - HW_LEAVES, HW_LEAF_BYTES)
                         : element("ECMP block", at - HW_ECMPS, HW_ECMP_BYTES);
}

void judge_copies(const doctor_copy &a, const doctor_copy &b, doctor_findings &findings)
{
    std::size_t different = 0, first = 0;
    for (std::uint32_t i = 0; i < HW_TABLE_BYTES / 4; ++i)
        if (plain_word(a.view, 4 * i, a.words[i]) != plain_word(b.view, 4 * i, b.words[i]))
            first = different++ == 0 ? i : first;
    if (different == 0)
        return;
    const std::string names = std::string(TABLE_COPY_NAMES[a.view.copy]) + " and " + TABLE_COPY_NAMES[b.view.copy];
    findings.push_back({"copies-differ",
                        doctor_level::fault,
                        DOCTOR_WHOLE_CARD,
                        names,
                        "the copies " + names + " differ in " + std::to_string(different) + " word(s)",
                        "the first: " + place_text(static_cast<std::uint32_t>(4 * first)),
                        "restart the route manager; if it comes back, something else writes into the tables",
                        {TABLE_COPY_NAMES[a.view.copy], TABLE_COPY_NAMES[b.view.copy]},
                        0});
}

// Adds what a copy shows; what another showed alike is one finding.
void merge(doctor_findings &to, doctor_findings &&from)
{
    for (doctor_finding &finding : from) {
        const auto same =
            std::find_if(to.begin(), to.end(), [&](const doctor_finding &f) { return f.is_same(finding); });
        if (same == to.end())
            to.push_back(std::move(finding));
        else
            same->copies.push_back(finding.copies[0]);
    }
}
} // namespace

doctor_tables doctor_tables_judge(const doctor_look &look)
{
    doctor_tables tables;
    const auto routes = look.is_served ? cover_routes(*look.listing) : std::vector<std::vector<cover_route>>{};
    for (const auto &copy : look.copies) {
        doctor_findings findings;
        std::vector<doctor_hidden> hidden;
        for (const tree_view &tree : copy->trees) {
            judge at = {&tree, TABLE_COPY_NAMES[copy->view.copy], &findings, {}};
            if (look.is_served)
                judge_tree(at, routes[tree.ctx], hidden);
            else
                judge_faults(at), judge_alone(at);
        }
        if (copy == look.copies.front())
            tables.hidden = std::move(hidden);
        merge(tables.findings, std::move(findings));
    }
    for (std::size_t i = 1; i < look.copies.size(); ++i)
        judge_copies(*look.copies[0], *look.copies[i], tables.findings);
    return tables;
}

doctor_finding doctor_tables_absent(const doctor_hidden &hidden)
{
    const std::string name = name_of(hidden.route);
    return {"not-in-tables",
            doctor_level::fault,
            hidden.route.ctx,
            name,
            name + " is listed as installed and the trie has no leaf for it",
            "longer routes cover all its addresses, and the exact lookup does not find it",
            "remove the route and add it again; if it stays, restart the route manager",
            {},
            0};
}
