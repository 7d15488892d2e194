// output.h - answers printed: plain, a line a record, or as one JSON document.
//
// Elsewhere: what an answer holds (routectl_commands.h).
#pragma once

#include <string>

#include "routectl_commands.h"

// The answer as one JSON object.
nlohmann::ordered_json output_document(const std::string &command, const routectl_answer &answer);

// A document as text: always valid JSON, also when a line of the history holds bytes that are not UTF-8.
std::string output_json(const nlohmann::ordered_json &document);

// Prints the answer on standard output, and an error of one that is not JSON on standard error.
void output_answer(const routectl_options &options, const std::string &command, const routectl_answer &answer);

// The plain forms, without the error.
std::string output_plain(const routectl_answer &answer, bool colour);
std::string output_lines(const routectl_answer &answer);
