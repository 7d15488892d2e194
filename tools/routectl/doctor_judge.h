// doctor_judge.h - what the judges of a look find: in tables, counts, listings and the history.
//
// Each adds findings to those of a look. Always: a judge only reads the look, so their order does not matter.
// Elsewhere: what a look holds (doctor_look.h), what findings are called and what to do about them (doctor_finding.h).
#pragma once

#include <cstdint>
#include <vector>

#include "doctor_cover.h"
#include "doctor_finding.h"
#include "doctor_look.h"

// A listed route that longer ones hide wholly: no address shows whether the trie holds it.
struct doctor_hidden {
    std::uint32_t tree;
    cover_route route;
};

// ---- doctor_tables.cpp ----
// Judges all copies of the look, with the listings when there are any, and with each other; what several copies show
// alike is one finding. Returns the hidden routes.
std::vector<doctor_hidden> doctor_judge_tables(const doctor_look &look, doctor_findings &findings);
// A hidden route that the trie does not hold.
void doctor_judge_absent(const doctor_hidden &hidden, doctor_findings &findings);

// ---- doctor_counts.cpp ----
// Pools that are full or nearly so. They belong to the whole card.
void doctor_judge_pools(const doctor_look &look, doctor_findings &findings);
// Records of the pools that trees hold and no slot leads to. hidden: routes whose leaf the trie holds though no slot
// does.
void doctor_judge_held(const doctor_look &look, const std::vector<doctor_hidden> &hidden, doctor_findings &findings);
// Live route entries that no listing holds.
void doctor_judge_unlisted(const doctor_look &look, doctor_findings &findings);
// Routes of several kinds that share a prefix, and static routes that do not use what their gateway has.
void doctor_judge_listing(const doctor_look &look, doctor_findings &findings);
// Interfaces that are up and whose routes are not listed, and listed ones of interfaces that are not.
void doctor_judge_interfaces(const doctor_look &look, doctor_findings &findings);

// ---- doctor_history.cpp ----
// What the event history holds of this life of the route manager, and whether it keeps errors at all.
// since_ns: what is older is ignored (nanoseconds since 1970).
void doctor_judge_history(const routectl_call &call, const doctor_look &look, std::uint64_t since_ns,
                          doctor_findings &findings);

// ---- doctor_live.cpp ----
// Where a card that is this host does otherwise than its kernel. Nothing where there is no such card.
void doctor_judge_live(const routectl_call &call, doctor_findings &findings);
