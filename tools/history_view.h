// history_view.h - the event history that the daemon keeps in the card directory, as text.
#pragma once

#include <cstddef>

// Prints the newest `count` records of the route manager, oldest first, but for those of `skipped_category` (0: none).
// Returns 0, or -1 with a line on standard error when there is no valid history.
[[nodiscard]] int history_print(std::size_t count, unsigned skipped_category);
