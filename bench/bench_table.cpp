// bench_table.cpp - the object of a subject as a table.
#include "bench_table.h"

#include <cstdio>

#include <nlohmann/json.hpp>

using nlohmann::json;

namespace
{
std::string number(double value)
{
    char text[64];
    (void)std::snprintf(text, sizeof text,
                        value >= 1e6   ? "%.4g"
                        : value >= 100 ? "%.0f"
                        : value >= 10  ? "%.1f"
                                       : "%.2f",
                        value);
    return text;
}

bool is_at_least(const json &row) { return row.contains("wanted_ratio") || row.at("unit") == "/s"; }

// What is wanted of a row, empty when nothing is.
std::string wanted_of(const json &row)
{
    const std::string sign = is_at_least(row) ? ">= " : "<= ";
    if (row.contains("wanted_ratio"))
        return sign + number(row["wanted_ratio"]) + " x";
    return row.contains("wanted") ? sign + number(row["wanted"]) : "";
}

// Whether it is reached; empty when nothing is wanted, or the peer is missing.
std::string verdict_of(const json &row)
{
    const bool is_ratio = row.contains("wanted_ratio");
    if (is_ratio ? !row.contains("ratio") : !row.contains("wanted"))
        return "";
    const double value = row.at(is_ratio ? "ratio" : "own"), wanted = row.at(is_ratio ? "wanted_ratio" : "wanted");
    return (is_at_least(row) ? value >= wanted : value <= wanted) ? "yes" : "no";
}

std::string row_text(const json &row, bool is_repeated)
{
    const std::string unit = " " + row.at("unit").get<std::string>();
    const std::string own =
        is_repeated ? " | " : row.at("what").get<std::string>() + " | " + number(row.at("own")) + unit;
    const std::string theirs = row.contains("theirs") ? number(row["theirs"]) + unit : row.value("missing", "");
    return "| " + own + " | " + theirs + " | " + row.value("peer", "") + " | " +
           (row.contains("ratio") ? number(row["ratio"]) : "") + " | " + wanted_of(row) + " | " + verdict_of(row) +
           " | " + row.value("remark", "") + " |\n";
}
} // namespace

std::string bench_table(const json &object)
{
    std::string text = object.at("machine").get<std::string>() + "; canary spread " +
                       std::to_string(static_cast<int>(100 * object.at("canary_spread").get<double>() + 0.5)) + " %" +
                       (object.contains("brief") ? "; BRIEF, not to be read as a measurement" : "") +
                       "\n\n| measured | this | peer | | ratio | wanted | reached | remark |\n"
                       "|---|---|---|---|---|---|---|---|\n";
    json before;
    for (const json &row : object.at("rows")) {
        text += row_text(row, !before.is_null() && before["what"] == row["what"] && before["own"] == row["own"]);
        before = row;
    }
    return text;
}
