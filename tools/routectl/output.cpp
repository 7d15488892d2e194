// output.cpp - the one place where answers become text.
//
// Always: with -j exactly one document for a run, whatever happened; colours only where the caller said so, and never
// inside a column's width.
#include "output.h"

#include <algorithm>
#include <cstdio>

#include <fmt/format.h>

namespace
{
using json = nlohmann::ordered_json;
constexpr const char *BOLD = "\x1b[1m", *RED = "\x1b[31m", *GREEN = "\x1b[32m", *CYAN = "\x1b[36m", *PLAIN = "\x1b[0m";

// A value as a person reads it: no quotes, lists with commas, "-" for what is missing.
std::string cell_text(const json &value)
{
    if (value.is_null())
        return "-";
    if (value.is_string())
        return value.get<std::string>();
    if (value.is_boolean())
        return value.get<bool>() ? "yes" : "no";
    if (!value.is_array())
        return output_json(value);
    std::string text;
    for (const json &element : value)
        text += (text.empty() ? "" : ",") + cell_text(element);
    return text.empty() ? "-" : text;
}

// The value under a key; encapsulation ids in hexadecimal.
std::string value_text(const std::string &key, const json &value)
{
    return key == "encap" && value.is_number_unsigned() ? fmt::format("0x{:04x}", value.get<std::uint32_t>())
                                                        : cell_text(value);
}

std::string cell_of(const json &record, const char *key)
{
    const auto found = record.find(key);
    return found == record.end() ? "-" : value_text(key, *found);
}

const char *colour_of(const std::string &key, const std::string &text)
{
    if (key == "prefix" || key == "address")
        return CYAN;
    if (key == "state")
        return text == "up" ? GREEN : RED;
    return "";
}

// One line of a table. widths: of the columns; the last is not padded. colours: by column, "" for none.
std::string table_line(const std::vector<std::string> &cells, const std::vector<std::size_t> &widths,
                       const std::vector<std::string> &colours)
{
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        line += colours[i] + cells[i] + (colours[i].empty() ? "" : PLAIN);
        if (i + 1 < cells.size())
            line += std::string(widths[i] - std::min(widths[i], cells[i].size()) + 2, ' ');
    }
    return line + "\n";
}

std::string table_text(const routectl_answer &answer, bool colour)
{
    std::vector<std::size_t> widths;
    std::vector<std::string> headings;
    for (const routectl_column &column : answer.columns) {
        headings.emplace_back(column.heading);
        widths.push_back(headings.back().size());
        for (const json &record : answer.records)
            widths.back() = std::max(widths.back(), cell_of(record, column.key).size());
    }
    std::string text = table_line(headings, widths, std::vector<std::string>(headings.size(), colour ? BOLD : ""));
    for (const json &record : answer.records) {
        std::vector<std::string> cells, colours;
        for (const routectl_column &column : answer.columns) {
            cells.push_back(cell_of(record, column.key));
            colours.emplace_back(colour ? colour_of(column.key, cells.back()) : "");
        }
        text += table_line(cells, widths, colours);
    }
    return text;
}

// "key=value" for each of an object, on one line; a value with blanks in quotes.
std::string pairs_line(const json &object)
{
    std::string line;
    for (const auto &[key, value] : object.items()) {
        std::string text = value_text(key, value);
        if (text.empty() || text.find_first_of(" \t\"") != std::string::npos)
            text = output_json(json(text));
        line.append(line.empty() ? "" : " ").append(key).append("=").append(text);
    }
    return line.empty() ? "" : line + "\n";
}

std::string facts_text(const json &facts, bool colour)
{
    std::size_t width = 0;
    for (const auto &[key, value] : facts.items())
        width = std::max(width, key.size());
    std::string text;
    for (const auto &[key, value] : facts.items()) {
        std::string name = key;
        std::replace(name.begin(), name.end(), '_', ' ');
        text += fmt::format("{}{:{}}{}  {}\n", colour ? BOLD : "", name, width, colour ? PLAIN : "", cell_text(value));
    }
    return text;
}

void write_out(const std::string &text) { (void)std::fwrite(text.data(), 1, text.size(), stdout); }
} // namespace

std::string output_json(const json &document) { return document.dump(-1, ' ', false, json::error_handler_t::replace); }

json output_document(const std::string &command, const routectl_answer &answer)
{
    json document = {{"command", command}, {"status", answer.status}};
    for (const auto &[key, value] : answer.facts.items())
        document[key] = value;
    if (!answer.records_key.empty())
        document[answer.records_key] = answer.records;
    if (answer.status != ROUTECTL_DONE)
        document["error"] = answer.error;
    return document;
}

std::string output_plain(const routectl_answer &answer, bool colour)
{
    if (!answer.text.empty())
        return answer.text;
    if (answer.status == ROUTECTL_REFUSED && answer.records_key.empty())
        return ""; // the error is printed alone
    std::string text = facts_text(answer.facts, colour);
    if (!answer.records_key.empty() && !answer.records.empty())
        text += table_text(answer, colour);
    else if (!answer.records_key.empty())
        text += "no " + answer.records_key + "\n";
    return text;
}

std::string output_lines(const routectl_answer &answer)
{
    if (answer.status == ROUTECTL_REFUSED && answer.records_key.empty())
        return "";
    if (answer.records_key.empty())
        return answer.text.empty() ? pairs_line(answer.facts) : answer.text;
    std::string text;
    for (const json &record : answer.records)
        text += pairs_line(record);
    return text;
}

void output_answer(const routectl_options &options, const std::string &command, const routectl_answer &answer)
{
    if (options.json && !answer.is_printed) {
        write_out(output_json(output_document(command, answer)) + "\n");
        return;
    }
    const bool is_bare = answer.facts.empty() && answer.records_key.empty() && answer.text.empty();
    if (!answer.is_printed && is_bare && answer.status == ROUTECTL_DONE)
        write_out("done\n");
    else if (!answer.is_printed)
        write_out(options.oneline ? output_lines(answer) : output_plain(answer, options.colour));
    (void)std::fflush(stdout);
    if (answer.status != ROUTECTL_DONE)
        std::fprintf(stderr, "%s%s\n", answer.status == ROUTECTL_REFUSED ? "" : "routectl: ", answer.error.c_str());
}
