// doctor_finding.h - what `doctor` found: one thing, how it was seen and what to do about it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// How bad: packets go wrong or something is used up for good; it will go wrong; it has passed, or may be meant.
enum class doctor_level { fault, warning, note };

constexpr int DOCTOR_WHOLE_CARD = -1;

struct doctor_finding {
    std::string kind; // a word such as "leaves-lost", by which the documents name it
    doctor_level level;
    int ctx;                         // DOCTOR_WHOLE_CARD: of no context
    std::string object;              // prefix, range or pool that tells it from others of its kind; may be empty
    std::string what, seen, todo;    // sentences without a full stop
    std::vector<std::string> copies; // of the tables in which it was seen; none: not seen in a table
    std::uint64_t amount = 0;        // of what is counted; 0: nothing is

    // Whether it is the same thing, seen another time.
    bool is_same(const doctor_finding &other) const
    {
        return kind == other.kind && ctx == other.ctx && object == other.object;
    }
};
using doctor_findings = std::vector<doctor_finding>;
