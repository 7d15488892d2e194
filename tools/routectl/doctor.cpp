// doctor.cpp - the command that looks for traces of what the fixed rules entail, and says what to do about each.
//
// A route manager in service changes while it is looked at. So what a look finds is looked for again, and only what
// both looks show is reported; when the tables changed during one of the two, further looks follow, and only what all
// show is reported. A dead route manager has left its tables and its history: these are looked at, and the answer says
// what could not be looked at.
// Always: a finding that is reported was in the last look and in the one before it.
// Elsewhere: the judges (doctor_judge.h), what their findings are called (doctor_finding.h).
#include <algorithm>

#include <fmt/format.h>
#include <poll.h>

#include "doctor_judge.h"

namespace
{
using json = nlohmann::ordered_json;
constexpr unsigned MOST_LOOKS = 8;
constexpr int BUSY_PAUSE_MS = 50; // between looks while routes change

std::string what_text(const doctor_finding &finding)
{
    return fmt::format(fmt::runtime(finding.kind->what), finding.subject.empty() ? finding.object : finding.subject);
}

const char *level_name(const doctor_finding &finding)
{
    constexpr const char *NAMES[] = {"fault", "warning", "note"};
    return NAMES[static_cast<unsigned>(finding.kind->level)];
}

// Asks the trie for the routes that no slot shows; those that it lacks are findings and no longer hidden.
void judge_hidden(const routectl_call &call, std::vector<doctor_hidden> &hidden, doctor_findings &findings)
{
    std::erase_if(hidden, [&](const doctor_hidden &route) {
        const bool is_held = doctor_trie_holds(call, route.tree, {route.route.prefix, route.route.length});
        if (!is_held && route.route.listed != 0)
            doctor_judge_absent(route, findings);
        return !is_held;
    });
}

// One look, and what it shows.
struct examination {
    doctor_look look;
    doctor_findings findings;
};

examination examine(const routectl_call &call, std::uint64_t since_ns)
{
    examination e;
    e.look = doctor_look_take(call);
    std::vector<doctor_hidden> hidden = doctor_judge_tables(e.look, e.findings);
    if (e.look.is_served)
        judge_hidden(call, hidden, e.findings);
    doctor_judge_pools(e.look, e.findings);
    doctor_judge_held(e.look, hidden, e.findings);
    doctor_judge_unlisted(e.look, e.findings);
    doctor_judge_listing(e.look, e.findings);
    doctor_judge_interfaces(e.look, e.findings);
    doctor_judge_live(call, e.findings);
    doctor_judge_history(call, e.look, since_ns, e.findings);
    e.look.words_changed += doctor_look_changes(e.look);
    return e;
}

// The same finding in an earlier look; null when that did not show it. A fault in the tables keeps its marks: others
// show a route that is being changed.
const doctor_finding *seen_in(const doctor_findings &findings, const doctor_finding &finding)
{
    const auto found = std::find_if(findings.begin(), findings.end(), [&](const doctor_finding &other) {
        return other.is_same(finding) && other.marks == finding.marks;
    });
    return found == findings.end() ? nullptr : &*found;
}

// Leaves out what is not in `others`, and duplicates. Of two counts the lower one is certain.
doctor_findings confirmed(const doctor_findings &findings, const doctor_findings &others)
{
    doctor_findings both;
    for (const doctor_finding &finding : findings) {
        const doctor_finding *const other = seen_in(others, finding);
        if (other != nullptr && seen_in(both, finding) == nullptr)
            both.push_back(other->amount < finding.amount ? *other : finding);
    }
    return both;
}

// The last look, with the findings that all looks show.
struct doctor_result {
    examination last;
    unsigned looks = 1;
    std::size_t words_changed = 0; // during the last two looks
};

// Looks until the tables did not change during two looks in a row, or so often that what passes has passed.
doctor_result look_until_sure(const routectl_call &call, std::uint64_t since_ns)
{
    doctor_result result;
    result.last = examine(call, since_ns);
    result.words_changed = result.last.look.words_changed;
    doctor_findings before = result.last.findings, sure = before;
    while (!sure.empty() && result.looks < MOST_LOOKS) {
        if (result.words_changed != 0)
            (void)poll(nullptr, 0, BUSY_PAUSE_MS);
        const std::size_t changed_before = result.last.look.words_changed;
        result.last = examine(call, since_ns);
        result.looks += 1;
        result.words_changed = changed_before + result.last.look.words_changed;
        sure = confirmed(result.last.findings, result.words_changed == 0 ? before : sure);
        before = result.last.findings;
        if (result.words_changed == 0)
            break;
    }
    result.last.findings = std::move(sure);
    return result;
}

void keep_context(const routectl_call &call, doctor_findings &findings)
{
    if (const routectl_value *const ctx = routectl_given(call, "ctx"))
        std::erase_if(findings, [&](const doctor_finding &f) {
            return f.ctx != DOCTOR_WHOLE_CARD && f.ctx != static_cast<int>(ctx->number);
        });
}

json finding_json(const doctor_finding &f)
{
    return {{"finding", f.kind->name},
            {"level", level_name(f)},
            {"ctx", f.ctx == DOCTOR_WHOLE_CARD ? json(nullptr) : json(f.ctx)},
            {"object", f.object.empty() ? json(nullptr) : json(f.object)},
            {"what", what_text(f)},
            {"seen", f.seen},
            {"copies", f.copies},
            {"do", f.kind->todo}};
}

std::string finding_text(const doctor_finding &f)
{
    return fmt::format("{}: {}{}\n  what  {}\n  seen  {}{}\n  do    {}\n", level_name(f), f.kind->name,
                       f.ctx == DOCTOR_WHOLE_CARD ? "" : fmt::format(", context {}", f.ctx), what_text(f), f.seen,
                       f.copies.empty() ? "" : fmt::format(" ({})", fmt::join(f.copies, ", ")), f.kind->todo);
}

std::string findings_text(const doctor_result &result)
{
    std::string text;
    for (const doctor_finding &finding : result.last.findings)
        text += finding_text(finding);
    if (result.words_changed != 0)
        text += "routes were changing all the time: a small loss may be hidden, look again when it is quiet\n";
    for (const std::string &what : result.last.look.not_looked_at)
        text += fmt::format("not looked at: {}\n", what);
    return result.last.findings.empty() ? text + "nothing found\n" : text;
}

std::string number_text(std::size_t findings)
{
    return findings == 0 ? "nothing found" : fmt::format("{} finding{}", findings, findings == 1 ? "" : "s");
}

routectl_answer answer_of(doctor_result &result)
{
    doctor_findings &findings = result.last.findings;
    std::stable_sort(findings.begin(), findings.end(),
                     [](const doctor_finding &a, const doctor_finding &b) { return a.kind->level < b.kind->level; });
    routectl_answer answer;
    answer.facts = {{"route_manager", result.last.look.is_served ? "serves" : "cannot be reached"},
                    {"looks", result.looks},
                    {"words_changed", result.words_changed},
                    {"not_looked_at", result.last.look.not_looked_at}};
    answer.records_key = "findings";
    for (const doctor_finding &finding : findings)
        answer.records.push_back(finding_json(finding));
    answer.text = findings_text(result);
    if (!result.last.look.is_served) {
        answer.status = ROUTECTL_UNREACHABLE;
        answer.error = result.last.look.unserved.error +
                       "; the mapped memories and the history were looked at: " + number_text(findings.size());
    } else if (!findings.empty()) {
        answer.status = ROUTECTL_REFUSED;
        answer.error = number_text(findings.size());
    }
    return answer;
}

routectl_answer doctor_run(const routectl_call &call)
{
    doctor_result result = look_until_sure(call, routectl_since(call));
    keep_context(call, result.last.findings);
    return answer_of(result);
}

constexpr routectl_command ROWS[] = {
    {"doctor", "[ctx CTX] [age AGE]", "Look for what went wrong, in tables, listings and history, and say what to do",
     doctor_run},
};
} // namespace

std::span<const routectl_command> routectl_doctor_commands() { return ROWS; }
