// refusal.h - why the route manager refused: the line of its event history that belongs to a call.
//
// Always: a line explains one call at most.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "card_view/history_view.h"
#include "routectl_commands.h"

// The errors that were logged since refusal_watch_start and belong to no earlier call.
struct refusal_watch {
    history_view view;
    std::deque<history_entry> errors; // oldest first
    std::string why;                  // why there is no history, when it is not open
};
refusal_watch refusal_watch_start();

// Which line is taken when none names an address of the change.
enum class refusal_match {
    alone,       // it was the only call: any error of its context
    one_of_many, // none: it may be another call's
};

// The line that says why `change` was refused, without context and procedure name; empty when there is none. It and all
// before it are used up.
std::string refusal_line(refusal_watch &watch, const routectl_change &change, refusal_match match);

// Judges the reply to a change.
routectl_answer change_judge(const routectl_change &change, const card_rpc_reply &reply, refusal_watch &watch,
                             refusal_match match);
// Makes the change of the call and waits for its end.
routectl_answer change_run(const routectl_call &call);
