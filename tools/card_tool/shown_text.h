// shown_text.h - a word of the user's, as a message quotes it.
//
// Always: what is shown is short and holds no control character, whatever the word holds.
#pragma once

#include <string>

// The word, cut short when it is long, so that the message around it can still be read; control characters, which a
// terminal would obey, as \xNN. Other bytes stay as they are.
std::string shown_text(const std::string &word);
