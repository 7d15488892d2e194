// doctor_history.cpp - judges the history: refusals that left something behind, and a history that keeps no errors.
//
// A life of the route manager begins when it binds its endpoint, so the age of that socket tells its records from those
// of the life before. Whether errors are kept nobody tells: a lookup that finds nothing is one, so one is provoked.
// Elsewhere: what the tables and listings still show of what went wrong (doctor_tables.cpp, doctor_counts.cpp).
#include "doctor_history.h"

#include <algorithm>
#include <cstdio>

#include <sys/stat.h>

#include "card_dir.h"
#include "card_tool/address_text.h"
#include "card_view/history_view.h"

namespace
{
void add(doctor_findings &to, const char *kind, doctor_level level, int ctx, std::string object, std::string what,
         std::string seen, std::string todo)
{
    to.push_back({kind, level, ctx, std::move(object), std::move(what), std::move(seen), std::move(todo), {}, 0});
}

std::uint64_t life_began_ns()
{
    struct stat st = {};
    const std::string endpoint = card_dir_path() + "/rpc/" + std::to_string(ROUTE_RPC_ENDPOINT);
    if (stat(endpoint.c_str(), &st) != 0)
        return 0;
    return static_cast<std::uint64_t>(st.st_mtim.tv_sec) * 1000000000u + static_cast<std::uint64_t>(st.st_mtim.tv_nsec);
}

// The errors since `since_ns`. Damage is a finding.
std::vector<history_entry> errors_since(history_view &view, std::uint64_t since_ns, doctor_findings &findings)
{
    std::vector<history_entry> entries;
    if (history_read(view, entries) == history_end::damaged)
        add(findings, "history-damaged", doctor_level::warning, DOCTOR_WHOLE_CARD, "",
            "a part of the event history cannot be read", view.path + " holds a record that is none",
            "nothing: it heals as new records replace it");
    const history_filter filter = {{ROUTE_DBG_ERRORS}, {}, std::max(since_ns, life_began_ns())};
    entries.erase(std::remove_if(entries.begin(), entries.end(),
                                 [&](const history_entry &entry) { return !history_passes(filter, entry); }),
                  entries.end());
    return entries;
}

// A line of a NAT pool: the prefix and the value of the pool.
struct nat_line {
    std::uint32_t prefix = 0, length = 0, value = 0;
    bool operator==(const nat_line &) const = default;
};
bool read_duplicate(const history_entry &entry, nat_line &to)
{
    return std::sscanf(history_line(entry).c_str(), "nat DUPLICATE %8x/%u encap %u", &to.prefix, &to.length,
                       &to.value) == 3;
}
bool read_not_there(const history_entry &entry, nat_line &to)
{
    return std::sscanf(history_line(entry).c_str(), "nat entry not found in rib 0x%x/%u encap %u", &to.prefix,
                       &to.length, &to.value) == 3;
}

bool is_listed(const doctor_look &look, int ctx, const nat_line &line)
{
    if (!look.is_served || ctx < 0 || ctx >= static_cast<int>(ROUTE_CONTEXTS))
        return false;
    const auto &routes = look.listing->contexts[static_cast<std::size_t>(ctx)];
    return std::any_of(routes.begin(), routes.end(),
                       [&](const route_record &r) { return r.prefix == line.prefix && r.length == line.length; });
}

// A roll-back follows the duplicate at once and tells of what it did not find: of what it does not tell, it removed.
void judge_nat_twins(const std::vector<history_entry> &errors, const doctor_look &look, doctor_findings &findings)
{
    for (auto at = errors.begin(); at != errors.end(); ++at) {
        nat_line twin;
        if (!read_duplicate(*at, twin) || is_listed(look, at->context, twin))
            continue;
        auto after = std::next(at);
        nat_line next;
        while (after != errors.end() && after->context == at->context && !read_duplicate(*after, next) &&
               !(read_not_there(*after, next) && next == twin))
            ++after;
        if (after != errors.end() && read_not_there(*after, next) && next == twin)
            continue; // another pool's value: it stands
        const std::string name = prefix_text(twin.prefix, twin.length);
        add(findings, "nat-twin-lost", doctor_level::warning, at->context, name,
            "a NAT pool was refused, and what stood at " + name + " with the same value went with it",
            history_time(at->time_ns) + " " + history_line(*at) + "; no listing has it",
            "add the pool again; list before adding, and give each pool a value of its own");
    }
}

// Whether the line follows its forerunner as one of the same call would. Two calls in such a hurry pass for one, and
// less is found.
bool is_same_call(const history_entry &before, const history_entry &entry)
{
    constexpr std::uint64_t ONE_CALL_NS = 10'000'000;
    return entry.context == before.context && entry.time_ns - before.time_ns < ONE_CALL_NS;
}

// Removals that found nothing, but for the roll-back of an addition that was refused.
void judge_nat_absent(const std::vector<history_entry> &errors, const doctor_look &look, doctor_findings &findings)
{
    const history_entry *roll_back = nullptr; // the last line of one
    for (const history_entry &entry : errors) {
        nat_line line;
        const std::string text = history_line(entry);
        const bool is_refusal = text.rfind("rib_add_nat_pool: add NAT failed", 0) == 0;
        if (is_refusal || (roll_back != nullptr && is_same_call(*roll_back, entry))) {
            roll_back = &entry;
            continue;
        }
        roll_back = nullptr;
        if (!read_not_there(entry, line) || is_listed(look, entry.context, line))
            continue; // what was added since is nothing to ask about
        const std::string name = prefix_text(line.prefix, line.length);
        add(findings, "nat-not-there", doctor_level::note, entry.context, name,
            "the removal of a NAT pool answered 0 and " + name + " was not there",
            history_time(entry.time_ns) + " " + text,
            "nothing, if it was removed before; else remove it with the value that it was added with");
    }
}

// Installs that the trie refused: they are over, and their callers know.
void judge_refused_installs(const std::vector<history_entry> &errors, doctor_findings &findings)
{
    const auto is_one = [](const history_entry &e) { return e.text.find("tree_add  FAILED") != std::string::npos; };
    const auto number = std::count_if(errors.begin(), errors.end(), is_one);
    if (number == 0)
        return;
    const auto last = std::find_if(errors.rbegin(), errors.rend(), is_one);
    add(findings, "install-refused", doctor_level::note, DOCTOR_WHOLE_CARD, "",
        std::to_string(number) + " route(s) could not be put into the tables",
        "the last: " + history_time(last->time_ns) + " " + history_line(*last),
        "see the pools; a host that was reported again with an empty pool is gone and has to be reported anew");
}

// Provokes an error and looks whether the history has it.
void judge_kept(const routectl_call &call, doctor_findings &findings)
{
    std::string why;
    history_view view = history_open_errors(card_dir_path(), ROUTE_HIST_ID, &why);
    if (!view.is_open())
        return;
    view.next = history_head(view);
    constexpr doctor_prefix NEVER_THERE = {1, 0}; // an address behind its mask
    (void)doctor_trie_holds(call, 0, NEVER_THERE);
    std::vector<history_entry> entries;
    (void)history_read(view, entries); // however it ended: what was read is what there is
    if (std::none_of(entries.begin(), entries.end(),
                     [](const history_entry &e) { return e.category == ROUTE_DBG_ERRORS; }))
        add(findings, "errors-not-kept", doctor_level::warning, DOCTOR_WHOLE_CARD, "",
            "the event history keeps no errors: refusals cannot be explained, and what is found here may be less",
            "a lookup that finds nothing left no line at category 100", "`keep errors on`");
}
} // namespace

void doctor_judge_history(const routectl_call &call, const doctor_look &look, std::uint64_t since_ns,
                          doctor_findings &findings)
{
    std::string why;
    history_view view = history_open_errors(card_dir_path(), ROUTE_HIST_ID, &why);
    if (!view.is_open()) {
        add(findings, "history-missing", doctor_level::warning, DOCTOR_WHOLE_CARD, "",
            "there is no event history to be read", why, "restart the route manager; it makes the file when it starts");
        return;
    }
    const std::vector<history_entry> errors = errors_since(view, since_ns, findings);
    judge_nat_twins(errors, look, findings);
    judge_nat_absent(errors, look, findings);
    judge_refused_installs(errors, findings);
    if (look.is_served)
        judge_kept(call, findings);
}
