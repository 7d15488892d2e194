// doctor_history.cpp - judges the history: refusals that left something behind, and a history that keeps no errors.
//
// A life of the route manager begins when it binds its endpoint, so the age of that socket separates its records from
// those of the life before. The route manager cannot be asked whether it keeps errors, so a lookup that fails is made
// and its line looked for. Always: a line is decoded by the fixed text that it was written with, once; what is judged
// is its kind. Elsewhere: what the tables and listings still show of what went wrong (doctor_tables.cpp,
// doctor_counts.cpp).
#include <algorithm>
#include <cstdio>

#include <fmt/format.h>
#include <sys/stat.h>

#include "card_dir.h"
#include "card_files.h"
#include "card_tool/address_text.h"
#include "card_view/history_view.h"
#include "doctor_judge.h"

namespace
{
std::uint64_t life_began_ns()
{
    struct stat st = {};
    const std::string endpoint = card_dir_path() + "/rpc/" + std::to_string(ROUTE_RPC_ENDPOINT);
    if (stat(endpoint.c_str(), &st) != 0)
        return 0;
    return static_cast<std::uint64_t>(st.st_mtim.tv_sec) * 1000000000u + static_cast<std::uint64_t>(st.st_mtim.tv_nsec);
}

// A NAT prefix and the value of its pool.
struct nat_prefix {
    std::uint32_t prefix = 0, length = 0, value = 0;
    bool operator==(const nat_prefix &) const = default;
};

enum class error_kind { other, nat_duplicate, nat_absent, nat_pool_refused, install_failed };
struct error_record {
    history_entry entry;
    std::string line;
    error_kind kind = error_kind::other;
    nat_prefix nat; // of a duplicate or an absent one
};

error_record error_of(history_entry entry)
{
    error_record error = {std::move(entry), "", error_kind::other, {}};
    error.line = history_line(error.entry);
    const char *const line = error.line.c_str();
    nat_prefix &nat = error.nat;
    if (std::sscanf(line, "nat DUPLICATE %8x/%u encap %u", &nat.prefix, &nat.length, &nat.value) == 3)
        error.kind = error_kind::nat_duplicate;
    else if (std::sscanf(line, "nat entry not found in rib 0x%x/%u encap %u", &nat.prefix, &nat.length, &nat.value) ==
             3)
        error.kind = error_kind::nat_absent;
    else if (error.line.starts_with("rib_add_nat_pool: add NAT failed"))
        error.kind = error_kind::nat_pool_refused;
    else if (error.line.find("tree_add  FAILED") != std::string::npos)
        error.kind = error_kind::install_failed;
    return error;
}

// The errors since `since_ns`. Damage is a finding.
std::vector<error_record> errors_since(history_view &view, std::uint64_t since_ns, doctor_findings &findings)
{
    std::vector<history_entry> entries;
    if (history_read(view, entries) == history_end::damaged)
        findings.push_back({&DOCTOR_HISTORY_DAMAGED, DOCTOR_WHOLE_CARD, "", view.path + " holds an invalid record"});
    const history_filter filter = {{ROUTE_DBG_ERRORS}, {}, std::max(since_ns, life_began_ns())};
    std::vector<error_record> errors;
    for (history_entry &entry : entries)
        if (history_passes(filter, entry))
            errors.push_back(error_of(std::move(entry)));
    return errors;
}

bool is_listed(const doctor_look &look, const error_record &error)
{
    const int ctx = error.entry.context;
    return ctx >= 0 && ctx < static_cast<int>(ROUTE_CONTEXTS) &&
           look.groups[static_cast<std::size_t>(ctx)].contains({error.nat.prefix, error.nat.length});
}

std::string record_text(const error_record &error)
{
    return fmt::format("{} {}", history_time(error.entry.time_ns), error.line);
}

// A roll-back follows the duplicate at once and logs each prefix that it did not find; it removed the others.
void judge_nat_twins(const std::vector<error_record> &errors, const doctor_look &look, doctor_findings &findings)
{
    for (auto at = errors.begin(); at != errors.end(); ++at) {
        if (at->kind != error_kind::nat_duplicate || is_listed(look, *at))
            continue;
        const auto is_absent = [&](const error_record &e) {
            return e.kind == error_kind::nat_absent && e.nat == at->nat;
        };
        const auto after = std::find_if(std::next(at), errors.end(), [&](const error_record &e) {
            return e.entry.context != at->entry.context || e.kind == error_kind::nat_duplicate || is_absent(e);
        });
        if (after != errors.end() && is_absent(*after))
            continue; // another pool's value: it was not removed
        findings.push_back({&DOCTOR_NAT_TWIN_LOST, at->entry.context, prefix_text(at->nat.prefix, at->nat.length),
                            record_text(*at) + "; no listing has it"});
    }
}

// Whether the line follows the one before as a line of the same call would. Two calls within that time are taken for
// one, and less is found.
bool is_same_call(const history_entry &before, const history_entry &entry)
{
    constexpr std::uint64_t ONE_CALL_NS = 10'000'000;
    return entry.context == before.context && entry.time_ns - before.time_ns < ONE_CALL_NS;
}

// Removals that found nothing, but for the roll-back of an addition that was refused.
void judge_nat_absent(const std::vector<error_record> &errors, const doctor_look &look, doctor_findings &findings)
{
    const history_entry *roll_back = nullptr; // the last line of one
    for (const error_record &error : errors) {
        if (error.kind == error_kind::nat_pool_refused ||
            (roll_back != nullptr && is_same_call(*roll_back, error.entry))) {
            roll_back = &error.entry;
            continue;
        }
        roll_back = nullptr;
        if (error.kind != error_kind::nat_absent || is_listed(look, error))
            continue; // it was added since
        findings.push_back({&DOCTOR_NAT_NOT_THERE, error.entry.context, prefix_text(error.nat.prefix, error.nat.length),
                            record_text(error)});
    }
}

// Installs that the trie refused: they are over, and their callers know.
void judge_refused_installs(const std::vector<error_record> &errors, doctor_findings &findings)
{
    const auto is_one = [](const error_record &e) { return e.kind == error_kind::install_failed; };
    const auto last = std::find_if(errors.rbegin(), errors.rend(), is_one);
    if (last != errors.rend())
        findings.push_back({&DOCTOR_INSTALL_REFUSED, DOCTOR_WHOLE_CARD, "", "the last: " + record_text(*last),
                            std::to_string(std::count_if(errors.begin(), errors.end(), is_one))});
}

// Makes an error and looks whether the history has it.
void judge_kept(const routectl_call &call, history_view &view, doctor_findings &findings)
{
    view.next = history_head(view);
    constexpr doctor_prefix NEVER_THERE = {1, 0}; // an address outside its mask
    (void)doctor_trie_holds(call, 0, NEVER_THERE);
    std::vector<history_entry> entries;
    (void)history_read(view, entries); // however it ended, what was read is used
    if (std::none_of(entries.begin(), entries.end(),
                     [](const history_entry &e) { return e.category == ROUTE_DBG_ERRORS; }))
        findings.push_back(
            {&DOCTOR_ERRORS_NOT_KEPT, DOCTOR_WHOLE_CARD, "", "a lookup that failed left no line in category 100"});
}
} // namespace

void doctor_judge_history(const routectl_call &call, const doctor_look &look, std::uint64_t since_ns,
                          doctor_findings &findings)
{
    std::string why;
    history_view view = history_open(card_dir_path(), ROUTE_HIST_ID, &why);
    if (!view.is_open()) {
        findings.push_back({&DOCTOR_HISTORY_MISSING, DOCTOR_WHOLE_CARD, "", why});
        return;
    }
    const std::vector<error_record> errors = errors_since(view, since_ns, findings);
    judge_nat_twins(errors, look, findings);
    judge_nat_absent(errors, look, findings);
    judge_refused_installs(errors, findings);
    if (look.is_served)
        judge_kept(call, view, findings);
}
