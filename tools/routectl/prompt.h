// prompt.h - commands typed one after the other.
#pragma once

#include "routectl_commands.h"

// Reads and runs commands until `exit`, `quit` or the end of the input. Returns the last one's exit status.
int prompt_run(const routectl_options &options, routectl_session &session);
