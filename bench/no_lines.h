// no_lines.h - included before all else where a change is to be timed without its lines: none is made or printed.
#pragma once

#include "line_format.h"

template <line_literal F, class... Args> void no_line(Args...) {}
#define line_print no_line
