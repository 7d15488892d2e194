// doctor_tables.h - the tables judged: each copy beside the listings, the copies beside each other, or one alone.
#pragma once

#include "doctor_cover.h"
#include "doctor_finding.h"
#include "doctor_look.h"

// A listed route that longer ones hide wholly: no address shows whether the trie holds it.
struct doctor_hidden {
    std::uint32_t tree;
    doctor_prefix prefix;
    cover_route route;
};

struct doctor_tables {
    doctor_findings findings; // one for what several copies show alike
    std::vector<doctor_hidden> hidden;
};

// Judges all copies of the look: beside the listings when there are any, else for what shows without.
doctor_tables doctor_tables_judge(const doctor_look &look);

// The finding of a hidden route that the trie does not hold.
doctor_finding doctor_tables_absent(const doctor_hidden &hidden);
