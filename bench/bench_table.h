// bench_table.h - the object of a subject (--json) as a table, as it is printed and stands in docs/performance.md.
#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

// The machine, then a row a figure, each ended by a newline. A figure that is compared with several peers is written
// once. Throws what nlohmann::json throws at an object of another form.
std::string bench_table(const nlohmann::json &object);
