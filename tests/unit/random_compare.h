// random_compare.h - the card of a random run against the plain model. Each answers the first difference, or nothing.
#pragma once

#include <string>

#include "random_run.h"

namespace harness
{
std::string text_of_step(const random_step &step);
std::string compare_reply(const std::string &procedure, const fake_reply &got, const model_reply &expected);
// Error lines, calls and messages that went out, blocks and records in use.
std::string compare_effects(random_run &run);
// The next page of a reader whose pages hold few records, while routes come and go between its pages.
std::string compare_short_page(random_run &run);
// Live blocks of each memory type, as they are and as the model predicts them; a line each.
std::string memory_report(const random_run &run);
} // namespace harness
