// lookup.h - what the hardware tables answer for an address, compared with what a scenario expects.
//
// Always: an expectation holds only when every copy that the card has answers it.
#pragma once

#include <string>

#include "scenario.h"

// Looks the address up in every copy that the card has. Returns whether each answers what the step expects; `seen` is a
// line for each copy, indented.
bool lookup_check(const scenario_step &step, std::string *seen);
