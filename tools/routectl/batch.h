// batch.h - many commands from a file, with many calls outstanding.
#pragma once

#include "routectl_commands.h"

// Runs the commands of options.batch. The answer counts them and lists those that failed; plain listings are printed as
// they come.
routectl_answer batch_run(const routectl_options &options, routectl_session &session);
