// doctor.cpp - the command that looks for traces of what the fixed rules entail, and says what to do about each.
//
// A route manager in service changes while it is looked at. So what a look finds is looked for again, and only what
// both show is told; when the tables changed during one of the two, it is looked at further, a few times, and only what
// all show is told. A dead one
// has left its tables and its history: these are looked at, and the rest is said to be missing.
#include <algorithm>

#include <poll.h>

#include "card_view/history_view.h"
#include "doctor_counts.h"
#include "doctor_history.h"
#include "doctor_tables.h"

namespace
{
using json = nlohmann::ordered_json;
constexpr unsigned MOST_LOOKS = 8;
constexpr int BUSY_PAUSE_MS = 50; // between looks while routes change

const char *level_name(doctor_level level)
{
    constexpr const char *NAMES[] = {"fault", "warning", "note"};
    return NAMES[static_cast<unsigned>(level)];
}

// Asks for the routes that no slot shows; those that the trie lacks are findings and no longer hidden.
void judge_hidden(const routectl_call &call, doctor_tables &tables)
{
    for (auto at = tables.hidden.begin(); at != tables.hidden.end();) {
        const bool is_held = doctor_trie_holds(call, at->tree, at->prefix);
        if (!is_held && at->route.listed != 0)
            tables.findings.push_back(doctor_tables_absent(*at));
        at = is_held ? std::next(at) : tables.hidden.erase(at);
    }
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
    doctor_tables tables = doctor_tables_judge(e.look);
    if (e.look.is_served)
        judge_hidden(call, tables);
    e.findings = std::move(tables.findings);
    doctor_judge_pools(e.look, e.findings);
    doctor_judge_held(e.look, tables.hidden, e.findings);
    doctor_judge_unlisted(e.look, e.findings);
    doctor_judge_listing(e.look, e.findings);
    doctor_judge_interfaces(e.look, e.findings);
    doctor_judge_history(call, e.look, since_ns, e.findings);
    e.look.words_changed += doctor_look_changes(e.look);
    return e;
}

// The same thing in an earlier look; null when that did not show it. What a fault in the tables looks like stays as it
// is: another leaf is another moment of a route that changes.
const doctor_finding *seen_in(const doctor_findings &findings, const doctor_finding &finding)
{
    for (const doctor_finding &other : findings)
        if (other.is_same(finding) && (finding.copies.empty() || other.seen == finding.seen))
            return &other;
    return nullptr;
}

// Leaves out what is not in `others`, and what is there twice. Of two counts the lower one is sure.
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

// Looks until two in a row saw the tables stand still, or often enough for what stays to be told from what passes.
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
    const routectl_value *const ctx = routectl_given(call, "ctx");
    if (ctx == nullptr)
        return;
    findings.erase(std::remove_if(findings.begin(), findings.end(),
                                  [&](const doctor_finding &f) {
                                      return f.ctx != DOCTOR_WHOLE_CARD && f.ctx != static_cast<int>(ctx->number);
                                  }),
                   findings.end());
}

json finding_json(const doctor_finding &f)
{
    return {{"finding", f.kind},
            {"level", level_name(f.level)},
            {"ctx", f.ctx == DOCTOR_WHOLE_CARD ? json(nullptr) : json(f.ctx)},
            {"object", f.object.empty() ? json(nullptr) : json(f.object)},
            {"what", f.what},
            {"seen", f.seen},
            {"copies", f.copies},
            {"do", f.todo}};
}

std::string joined(const std::vector<std::string> &words)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

std::string finding_text(const doctor_finding &f)
{
    std::string text = std::string(level_name(f.level)) + ": " + f.kind +
                       (f.ctx == DOCTOR_WHOLE_CARD ? "" : ", context " + std::to_string(f.ctx)) + "\n";
    text += "  what  " + f.what + "\n";
    text += "  seen  " + f.seen + (f.copies.empty() ? "" : " (" + joined(f.copies) + ")") + "\n";
    return text + "  do    " + f.todo + "\n";
}

std::string findings_text(const doctor_result &result)
{
    std::string text;
    for (const doctor_finding &finding : result.last.findings)
        text += finding_text(finding);
    if (result.words_changed != 0)
        text += "routes were changing all the time: a small loss may be hidden, look again when it is quiet\n";
    for (const std::string &what : result.last.look.not_looked_at)
        text += "not looked at: " + what + "\n";
    return result.last.findings.empty() ? text + "nothing found\n" : text;
}

std::string number_text(std::size_t findings)
{
    return findings == 0 ? "nothing found" : std::to_string(findings) + (findings == 1 ? " finding" : " findings");
}

routectl_answer answer_of(doctor_result &result)
{
    doctor_findings &findings = result.last.findings;
    std::stable_sort(findings.begin(), findings.end(),
                     [](const doctor_finding &a, const doctor_finding &b) { return a.level < b.level; });
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
