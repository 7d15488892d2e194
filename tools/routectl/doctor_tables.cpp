// doctor_tables.cpp - finds what the listings do not explain in the tables, and what of the listings is not in them.
//
// A route's own leaf is looked for among the leaves that answer the addresses that are its own. Shorter routes choose
// first, so that a leaf that answers in place of a missing longer route is known as the shorter one's.
// Always: a finding in a table has marks, the numbers of what the table holds there, so that a later look can separate
// a fault that stays from a route that is being changed.
// Elsewhere: which route should answer an address, and which leaf does (doctor_cover.cpp).
#include <algorithm>
#include <iterator>
#include <map>
#include <set>

#include <fmt/format.h>

#include "card_tool/address_text.h"
#include "doctor_judge.h"
#include "route_entry.h"

namespace
{
using number_list = std::vector<std::uint64_t>;

// A tree of one copy while it is judged.
struct judge {
    const tree_view *tree;
    const char *copy;
    doctor_findings *findings;
    std::set<int> owned; // leaves that are some route's own
};

// ctx: of what is wrong with a route, that of its first entry.
void add(judge &at, const doctor_kind &kind, int ctx, const std::string &object, std::string seen, number_list marks,
         std::string subject = "")
{
    at.findings->push_back({&kind, ctx, object, std::move(seen), std::move(subject), 0, std::move(marks), {at.copy}});
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

// The paths that are listed; of a tree without default route, one without interface and encapsulation.
std::vector<cover_path> listed_paths(const cover_route &route)
{
    return route.paths.empty() ? std::vector<cover_path>{{0, 0}} : route.paths;
}

std::string paths_text(const std::vector<cover_path> &paths)
{
    std::vector<std::string> texts;
    texts.reserve(paths.size());
    for (const cover_path &path : paths)
        texts.push_back(fmt::format("interface {} encap 0x{:04x}", path.ifid, path.encap));
    return fmt::format("{}", fmt::join(texts, ", "));
}

number_list leaf_marks(const table_leaf &leaf, const std::vector<cover_path> &listed = {})
{
    number_list marks = {leaf.index};
    for (const std::vector<cover_path> &paths : {leaf_paths(leaf), listed})
        for (const cover_path &path : paths)
            marks.push_back(std::uint64_t{path.ifid} << 32 | path.encap);
    return marks;
}

number_list range_marks(const std::vector<cover_piece> &pieces)
{
    return {pieces[0].first, pieces[0].last, pieces.size()};
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
            leaves[piece.leaf] += piece.addresses();
    return leaves;
}

// The route's own leaf: of those that hold what is listed the one that answers most, else one that answers more than
// half of the addresses. leaves: the free ones. COVER_EMPTY: none.
int own_leaf(const judge &at, const cover_answer &answer, const std::map<int, std::uint64_t> &leaves)
{
    std::uint64_t total = 0, most = 0;
    for (const cover_piece &piece : answer.pieces)
        total += piece.addresses();
    int fitting = COVER_EMPTY, largest = COVER_EMPTY;
    for (const auto &[leaf, size] : leaves) {
        if (size > most && fits(answer.route, leaf_of(at, leaf)))
            fitting = leaf, most = size;
        if (size > total / 2)
            largest = leaf;
    }
    return fitting != COVER_EMPTY ? fitting : largest;
}

// "20.0.0.0/8", and how many further ranges there are.
std::string ranges_text(const std::vector<cover_piece> &pieces)
{
    const std::string text = cover_range(pieces[0].first, pieces[0].last);
    const std::size_t more = pieces.size() - 1;
    return more == 0 ? text : fmt::format("{} and {} further range{}", text, more, more > 1 ? "s" : "");
}

// The leaf is the route's: what it holds and what is listed.
void judge_leaf(judge &at, const cover_route &route, const table_leaf &leaf)
{
    const std::string name = name_of(route);
    if (is_invalid(leaf)) {
        add(at, DOCTOR_BLOCK_INVALID, route.ctx, name,
            fmt::format("leaf {}, block {}: bit 31 of its header is clear", leaf.index, leaf.block.index),
            {leaf.index, leaf.block.index});
        return;
    }
    if (!is_set(leaf) && leaf.block.kind == table_kind::block)
        add(at, DOCTOR_BLOCK_UNUSED, route.ctx, name,
            fmt::format("leaf {}: its second word names block {}, its ECMP flag is clear", leaf.index,
                        leaf.block.index),
            {leaf.index});
    if (fits(route, leaf))
        return;
    const std::vector<cover_path> listed = listed_paths(route), held = leaf_paths(leaf);
    const bool is_encap =
        listed.size() == 1 && held.size() == 1 && listed[0].ifid == held[0].ifid && listed[0].encap != held[0].encap;
    add(at, is_encap ? DOCTOR_ENCAP_DIFFERS : DOCTOR_PATHS_DIFFER, route.ctx, name,
        fmt::format("listed: {}; leaf {}: {}", route.listed == 0 ? "no route" : paths_text(listed), leaf.index,
                    paths_text(held)),
        leaf_marks(leaf, listed));
}

// The pieces that `leaf` answers; COVER_EMPTY: that none does.
std::vector<cover_piece> pieces_of(const cover_answer &answer, int leaf)
{
    std::vector<cover_piece> pieces;
    std::copy_if(answer.pieces.begin(), answer.pieces.end(), std::back_inserter(pieces),
                 [=](const cover_piece &piece) { return piece.leaf == leaf; });
    return pieces;
}

// The route has no leaf of its own.
void judge_absent(judge &at, const cover_answer &answer)
{
    const std::vector<cover_piece> empty = pieces_of(answer, COVER_EMPTY);
    const std::string name = name_of(answer.route);
    if (answer.route.length == 0) { // no leaf stands for "no route", or for the default route
        if (!empty.empty())         // else other leaves answer, and each is reported
            add(at, DOCTOR_DEFAULT_GONE, tree_ctx(at), "",
                "the slots outside all listed routes are empty: " + ranges_text(empty), range_marks(empty));
    } else if (empty.size() == answer.pieces.size()) {
        add(at, DOCTOR_ABSENT_MISS, answer.route.ctx, name, "empty slots at " + ranges_text(empty), range_marks(empty));
    } else {
        add(at, DOCTOR_ABSENT_COVERED, answer.route.ctx, name,
            "the slots hold another route's leaf at " + ranges_text(answer.pieces), range_marks(answer.pieces));
    }
}

// Addresses of a route that has a leaf, and are answered by none.
void judge_gaps(judge &at, const cover_answer &answer)
{
    const std::vector<cover_piece> gaps = pieces_of(answer, COVER_EMPTY);
    if (!gaps.empty())
        add(at, answer.route.listed != 0 ? DOCTOR_GAP : DOCTOR_GAP_UNLISTED, tree_ctx(at), ranges_text(gaps),
            "empty slots at " + ranges_text(gaps), range_marks(gaps), name_of(answer.route));
}

// Leaves that answer addresses of the route and are neither its own nor a shorter route's.
void judge_strays(judge &at, const cover_answer &answer, const std::map<int, std::uint64_t> &leaves, int own)
{
    for (const auto &[number, size] : leaves) {
        if (number == own)
            continue;
        at.owned.insert(number);
        const table_leaf &leaf = leaf_of(at, number);
        add(at, DOCTOR_STRAY_LEAF, tree_ctx(at), ranges_text(pieces_of(answer, number)),
            fmt::format("leaf {}: {}", number, paths_text(leaf_paths(leaf))), leaf_marks(leaf));
    }
}

// A /0 that is not a static route replaces the default leaf.
bool is_zero_prefix(const cover_route &route)
{
    return route.length == 0 && route.listed != 0 && (route.flags & (RIB_F_NAT | RIB_F_INTERFACE)) != 0;
}

void judge_route(judge &at, const cover_answer &answer, std::vector<doctor_hidden> &hidden)
{
    const cover_route &route = answer.route;
    if (answer.pieces.empty()) {
        hidden.push_back({at.tree->ctx, route});
        return;
    }
    const std::map<int, std::uint64_t> leaves = free_leaves(at, answer);
    const int own = own_leaf(at, answer, leaves);
    judge_strays(at, answer, leaves, own);
    at.owned.insert(own);
    if (own < 0) {
        judge_absent(at, answer);
        return;
    }
    if (is_zero_prefix(route))
        add(at, DOCTOR_ZERO_PREFIX, route.ctx, "",
            fmt::format("listed: 0.0.0.0/0, {}", route_kind_name(route_kind_of(route.flags))), {route.flags});
    else
        judge_leaf(at, route, leaf_of(at, own));
    judge_gaps(at, answer);
}

void judge_faults(judge &at)
{
    const std::vector<std::string> &faults = at.tree->faults;
    if (!faults.empty())
        add(at, DOCTOR_TABLE_FAULT, tree_ctx(at), "", faults[0], {faults.size()}, std::to_string(faults.size()));
}

// What shows in a tree without listings: empty slots and invalid blocks.
void judge_alone(judge &at)
{
    const std::vector<cover_answer> answers = cover_tree({cover_route{}}, *at.tree);
    judge_gaps(at, answers[0]);
    std::set<int> seen;
    for (const cover_piece &piece : answers[0].pieces) {
        if (piece.leaf < 0 || !seen.insert(piece.leaf).second || !is_invalid(leaf_of(at, piece.leaf)))
            continue;
        const std::string range = cover_range(piece.first, piece.last);
        add(at, DOCTOR_BLOCK_INVALID_UNLISTED, tree_ctx(at), range, fmt::format("leaf {} at {}", piece.leaf, range),
            {static_cast<std::uint64_t>(piece.leaf)});
    }
}

void judge_tree(judge &at, const std::vector<cover_route> &routes, std::vector<doctor_hidden> &hidden)
{
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
        return fmt::format("{} {} word {}", name, offset / bytes, offset % bytes / 4);
    };
    if (at < HW_NODES)
        return fmt::format("root {}", at / 4);
    if (at < HW_LEAVES)
        return element("node", at - HW_NODES, HW_NODE_BYTES);
    return at < HW_ECMPS ? element("leaf", at - HW_LEAVES, HW_LEAF_BYTES)
                         : element("ECMP block", at - HW_ECMPS, HW_ECMP_BYTES);
}

void judge_copies(const doctor_copy &a, const doctor_copy &b, doctor_findings &findings)
{
    std::uint32_t different = 0, first = 0;
    for (std::uint32_t at = 0; at < HW_TABLE_BYTES; at += 4)
        if (plain_word(a.view, at, a.words[at / 4]) != plain_word(b.view, at, b.words[at / 4]))
            first = different++ == 0 ? at : first;
    if (different == 0)
        return;
    const char *const name_a = TABLE_COPY_NAMES[a.view.copy], *const name_b = TABLE_COPY_NAMES[b.view.copy];
    const std::string names = fmt::format("{} and {}", name_a, name_b);
    findings.push_back({&DOCTOR_COPIES_DIFFER,
                        DOCTOR_WHOLE_CARD,
                        names,
                        "the first: " + place_text(first),
                        fmt::format("{} differ in {}", names, different),
                        0,
                        {first},
                        {name_a, name_b}});
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

std::vector<doctor_hidden> doctor_judge_tables(const doctor_look &look, doctor_findings &findings)
{
    std::vector<doctor_hidden> hidden; // of the first copy
    const auto routes = look.is_served ? cover_routes(*look.listing) : std::vector<std::vector<cover_route>>{};
    for (const auto &copy : look.copies) {
        doctor_findings of_copy;
        std::vector<doctor_hidden> hidden_here;
        for (const tree_view &tree : copy->trees) {
            judge at = {&tree, TABLE_COPY_NAMES[copy->view.copy], &of_copy, {}};
            judge_faults(at);
            look.is_served ? judge_tree(at, routes[tree.ctx], hidden_here) : judge_alone(at);
        }
        if (copy == look.copies.front())
            hidden = std::move(hidden_here);
        merge(findings, std::move(of_copy));
    }
    for (std::size_t i = 1; i < look.copies.size(); ++i)
        judge_copies(*look.copies[0], *look.copies[i], findings);
    return hidden;
}

void doctor_judge_absent(const doctor_hidden &hidden, doctor_findings &findings)
{
    findings.push_back({&DOCTOR_ABSENT_HIDDEN, hidden.route.ctx, name_of(hidden.route),
                        "longer routes cover all its addresses, and the exact lookup does not find it"});
}
