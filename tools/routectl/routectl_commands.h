// routectl_commands.h - the table of commands, what a command gets and what it gives back.
//
// A row is words, arguments, help and a function. The same table parses, abbreviates, completes and explains, so a
// command that has a row has all of that.
// Always: a command prints nothing itself. It answers with records, which are printed plain, a line each (-o) or as
// JSON
// (-j) in one place; only commands that go on until interrupted (watch, history follow) write as they go.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "card_tool/card_query.h"

// Exit statuses.
enum routectl_status : int {
    ROUTECTL_DONE = 0,
    ROUTECTL_REFUSED = 1,     // the route manager, or the card's other processes, refused
    ROUTECTL_USAGE = 2,       // not understood, nothing was done
    ROUTECTL_UNREACHABLE = 3, // no such process, or no answer
};

struct routectl_options {
    bool json = false;          // -j
    bool oneline = false;       // -o
    bool colour = false;        // standard output is a terminal and NO_COLOR is not set
    bool go_on = false;         // -f
    bool is_help = false;       // -h
    bool is_version = false;    // -V
    unsigned timeout_ms = 5000; // longer than the route manager waits for others itself
    std::string batch;          // -b; empty: none
    std::string card;           // -c; empty: as $CARD_DIR says
};

// A value that was given for an argument.
struct routectl_value {
    std::uint32_t number = 0; // an address, a number, the index of a choice
    std::uint32_t mask = 0;   // of a prefix
    std::string text;         // the word as it was typed; of a choice or flag, its full name
};

// Connections that are kept from one command to the next.
struct routectl_session {
    card_rpc_ptr route_manager;
    card_rpc_ptr card; // the card's other processes, played
    card_rpc_ptr live; // and on this host
    int queue = -1;    // for messages, once one was needed
    std::uint32_t sap = 0;
};

struct routectl_command;
struct routectl_call {
    const routectl_options &options;
    routectl_session &session;
    const routectl_command &command;
    std::map<std::string, routectl_value> values; // by the argument's name, those that were given
};
// The value of an argument, or null when it was not given.
const routectl_value *routectl_given(const routectl_call &call, const std::string &name);
// Its number, or `otherwise`.
std::uint32_t routectl_number(const routectl_call &call, const std::string &name, std::uint32_t otherwise);
// The time that "age" says, in nanoseconds since 1970; 0 when it was not given.
std::uint64_t routectl_since(const routectl_call &call);

// A column of the plain and the one-line listing: a key of the records and its heading.
struct routectl_column {
    const char *key;
    const char *heading;
};

// What a command gives back. With -j it is one object: "command", "status", the facts, the records under their key, and
// "error" when the status is not 0.
struct routectl_answer {
    int status = ROUTECTL_DONE;
    std::string error;                                                // one line without its end, when status is not 0
    nlohmann::ordered_json facts = nlohmann::ordered_json::object();  // printed plain as "name value" lines
    std::string records_key;                                          // such as "routes"; empty: no records
    nlohmann::ordered_json records = nlohmann::ordered_json::array(); // objects of numbers, strings, booleans
    std::vector<routectl_column> columns;                             // those that are printed when not -j, in order
    std::string text;        // printed plain in the place of facts and table, when not empty
    bool is_printed = false; // the command wrote its output itself; nothing is added but an error
};
routectl_answer routectl_error(int status, std::string error);

// A change that is one remote call, so that a batch can have many of them outstanding. It is done when the call answers
// 0.
struct routectl_change {
    std::string procedure;
    std::vector<card_rpc_arg> args;
    std::uint32_t ctx = 0;               // of the history lines that explain a refusal
    std::uint32_t address = 0, last = 0; // the range of addresses of which such a line names one
    bool answers_nothing = false;        // the call answers 0 also when it failed; the history has the error
    std::string error;                   // not empty: the values are impossible together, nothing is called
};

// One command. `arguments` is its usage and its grammar: capitals are values (the kind by the name, see
// grammar.cpp: PREFIX, ADDR, CTX, IFID, ENCAP, COUNT, COPY, CATEGORY ...), other words are typed as they are,
// a|b is a choice of words, [ ] can be left out, "word VALUE" is a value after its word. Values with a word and words
// in brackets come in any order. A value is found under its word, or under its own name in lower case; a choice of
// words under the first of them. Example: "PREFIX via NEXTHOP [ctx CTX]" gives values "prefix", "via" and "ctx".
struct routectl_command {
    const char *words; // such as "route add"
    const char *arguments;
    const char *help; // one line, without a full stop
    routectl_answer (*run)(const routectl_call &call) = nullptr;
    routectl_change (*change)(const routectl_call &call) = nullptr; // in place of `run`
};

// The rows, in the order in which help lists them. Each source has its own; routectl_table.cpp joins them.
std::span<const routectl_command> routectl_route_commands();   // route_commands.cpp
std::span<const routectl_command> routectl_card_commands();    // card_commands.cpp
std::span<const routectl_command> routectl_live_commands();    // live_commands.cpp
std::span<const routectl_command> routectl_debug_commands();   // debug_commands.cpp
std::span<const routectl_command> routectl_hw_commands();      // hw_commands.cpp
std::span<const routectl_command> routectl_watch_commands();   // watch_commands.cpp
std::span<const routectl_command> routectl_history_commands(); // history_commands.cpp
std::span<const routectl_command> routectl_doctor_commands();  // doctor.cpp
const std::vector<const routectl_command *> &routectl_table();

// Calls of the route manager (`route_manager`) and of the card's other processes (`card`, `live`).
card_rpc &routectl_route_manager(const routectl_call &call);
card_rpc &routectl_card(const routectl_call &call);
card_rpc &routectl_live(const routectl_call &call);
card_rpc_reply routectl_ask(const routectl_call &call, const std::string &procedure,
                            const std::vector<card_rpc_arg> &args);
// What a call that did not run means for the user: status 3 (or 2 for what the server does not accept) and a sentence.
routectl_answer routectl_not_run(card_rpc_end end, const std::string &procedure);
// Waits until a query of the route manager is over. Returns what it means for the user when it failed; else an answer
// with status 0.
routectl_answer routectl_query_wait(const routectl_call &call, const card_query &query);

// What to do about it: ends the message about a route manager, or a card, that cannot be reached.
std::string routectl_where();
constexpr const char *ROUTECTL_TRY_DIRECT = "; --direct reads the tables that are left";
