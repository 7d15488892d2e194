// play.h - plays a scenario: applies its steps in their order and at their times, and judges its expectations.
//
// Steps without a time are applied at once, route manager or not; times count from when the first route manager was
// there. Static routes and NAT pools of the scenario that are in force are given again to a route manager that
// restarts. Expectations and `show` count only in a check; otherwise they are skipped. Always: nothing waits; a step
// that waits for an answer, a child or for the card to come to rest is looked at again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "card_model.h"
#include "card_service/manager_link.h"
#include "scenario.h"
#include "supervisor.h"

constexpr std::uint64_t PLAY_REST_MS = 20000; // that the card may take to come to rest before an expectation

struct play {
    const scenario *plan = nullptr;
    card_model *model = nullptr;
    manager_link *link = nullptr;
    const supervisor *sup = nullptr;
    bool is_check = false;
    std::string routectl; // program that `show` runs

    std::size_t next = 0; // step
    bool has_started = false;
    std::uint64_t start_ms = 0;      // when a route manager was first there
    std::uint64_t rest_since_ms = 0; // when the next expectation was reached; 0: it is not
    std::vector<std::size_t> given;  // steps whose route or pool is in force, in their order
    unsigned answers_due = 0;        // calls that the current expectation waits for
    bool is_wrong = false;           // the current expectation, by what was answered so far
    std::string seen;                // what was found, for the line about it
    int child = -1, child_pid = -1;  // of `show`: process descriptor and id
    unsigned right = 0, wrong = 0;   // in a check: expectations, and steps that were refused
    bool is_standing = false;        // all that has no time is applied, and the card came to rest once
};

// Goes on as far as can be without waiting.
void play_run(play &p, std::uint64_t now_ms);

// A route manager has arrived.
void play_arrival(play &p, std::uint64_t now_ms);

bool play_is_over(const play &p);
// The time at which play_run has something to do of its own; UINT64_MAX: none.
std::uint64_t play_next_ms(const play &p);
