// doctor_counts.h - what counts and listings give away: pools, records without a place, routes that no one lists.
#pragma once

#include "doctor_finding.h"
#include "doctor_tables.h"

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
