// debug_ask.h - a question of the debug service, waited for.
//
// Always: there is one message queue a session, opened when it is first needed.
#pragma once

#include <optional>

#include "card_view/debug_view.h"
#include "routectl_commands.h"

// Asks with `verb`. Returns the answer, or none with `error` set. Opens the session's queue if none is open yet.
std::optional<debug_answer> debug_ask(const routectl_call &call, std::uint32_t verb, routectl_answer &error);

// The session's message queue, opened if need be. Returns false when none can be opened.
bool debug_queue_open(const routectl_call &call);

// The answer that means that the route manager `what` ("did not answer ...").
routectl_answer debug_silent(const std::string &what);
