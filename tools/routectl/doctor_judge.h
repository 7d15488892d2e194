// doctor_judge.h - what the judges of a look find: in tables, counts, listings and the history.
//
// Each adds findings to those of a look. Elsewhere: what a look holds (doctor_look.h), what findings are called and
// what to do about them (doctor_finding.cpp).
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
// Judges all copies of the look, beside the listings when there are any, and beside each other; what several copies
// show alike is one finding. Returns the hidden routes.
std::vector<doctor_hidden> doctor_judge_tables(const doctor_look &look, doctor_findings &findings);
// A hidden route that the trie does not hold.
void doctor_judge_absent(const doctor_hidden &hidden, doctor_findings &findings);

// ---- doctor_counts.cpp ----
// Pools that are full or nearly so. They belong to the whole card.
void doctor_judge_pools(const doctor_look &look, doctor_findings &findings);
// What trees hold of the pools and no slot leads to. hidden: routes whose leaf the trie holds though no slot does.
void doctor_judge_held(const doctor_look &look, const std::vector<doctor_hidden> &hidden, doctor_findings &findings);
// Live route entries that no listing holds.
void doctor_judge_unlisted(const doctor_look &look, doctor_findings &findings);
// Routes of several kinds that share a prefix, and static routes whose gateway is another one than their own.
void doctor_judge_listing(const doctor_look &look, doctor_findings &findings);
// Interfaces that are up and whose routes are not listed, and listed ones of interfaces that are not.
void doctor_judge_interfaces(const doctor_look &look, doctor_findings &findings);

// ---- doctor_history.cpp ----
// What the event history tells of this life of the route manager, and whether it can tell anything.
// since_ns: what is older is passed over (nanoseconds since 1970).
void doctor_judge_history(const routectl_call &call, const doctor_look &look, std::uint64_t since_ns,
                          doctor_findings &findings);
