// scenario.h - a scenario file: what a card holds, what happens to it and when, and what then has to be true.
//
// One statement a line, words set apart by blanks, `#` starts a comment. The file is a list of steps, played in its
// order: `at 2s ...` delays a step until two seconds after the start (times never go back), an expectation is judged
// once everything before it has come to rest.
// Elsewhere: the statements (cardsim(1)), their playing (play.cpp).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "interface_db.h"
#include "route_ids.h"

enum scenario_kind : unsigned {
    STEP_IF_CREATE,
    STEP_IF_UP,
    STEP_IF_DOWN,
    STEP_IF_DELETE,
    STEP_IF_ADDRESS,
    STEP_HOST_ADD,
    STEP_HOST_DEL,
    STEP_ROUTE_ADD,
    STEP_ROUTE_DEL,
    STEP_NAT_ADD,
    STEP_NAT_DEL,
    STEP_ADVERTISE,
    STEP_WITHDRAW,
    STEP_EXPECT_LOOKUP,
    STEP_EXPECT_SLOWPATH,
    STEP_EXPECT_ROUTES,
    STEP_EXPECT_ADVERTISED,
    STEP_EXPECT_WITHDRAWN,
    STEP_SHOW,
};
constexpr bool scenario_is_check(scenario_kind kind) { return kind >= STEP_EXPECT_LOOKUP; }

constexpr std::uint32_t SCENARIO_MAX_IFID = IFDB_RECORDS - 1, SCENARIO_MAX_CTX = ROUTE_CONTEXTS - 1;

// A path that a lookup has to find.
struct expected_path {
    std::uint32_t ifid, encap;
};

// One statement. A field that its kind does not name is 0 or empty.
struct scenario_step {
    scenario_kind kind = STEP_SHOW;
    std::string source;      // file and line: branch.card:7
    std::uint64_t at_ms = 0; // not before this long after the start
    std::string text;        // the statement without its `at`; for STEP_SHOW the words for routectl

    std::uint32_t ifid = 0, ctx = 0;
    std::uint32_t address = 0, mask = 0; // of the interface, host, prefix or first NAT address; host order
    std::uint32_t hop = 0;               // next hop
    std::uint32_t mode = 1, bvi = 0;     // routing mode (1: routed), bridge interface
    std::optional<std::uint32_t> vlan;
    std::uint32_t encap = 0; // 0: the slow path allocates one
    std::uint64_t mac = 0;   // 48 bits
    bool has_mac = false;
    bool is_down = false;  // an interface that is created and stays down
    bool is_quiet = false; // a host that is announced only once the route manager asks for it
    std::uint32_t delay_ms = 0;
    std::uint32_t count = 0, ixp = 0, metric = 0; // NAT pool: addresses and encap id; advertisement

    bool is_miss = false;             // a lookup that has to find nothing
    std::vector<expected_path> paths; // that a lookup has to find, all of them
    std::optional<std::uint32_t> path_count, nat, resolve_ifid;
    std::optional<std::uint32_t> connected, statics, fib; // counts of the summaries
};

// An interface as a file has declared it so far.
struct scenario_interface {
    std::uint32_t ctx, address, mask, mode, bvi;
};

struct scenario {
    std::vector<scenario_step> steps;
    std::map<std::uint32_t, scenario_interface> interfaces; // that exist at its end
};

// Reads the text of the file `name` and adds it to a scenario, as if it followed what is read already. Returns 0,
// or 1 with the scenario as it was and `error` one line: "branch.card:7: hots: expected interface, host, route ...".
[[nodiscard]] int scenario_parse(const std::string &name, const std::string &text, scenario *out, std::string *error);

// The same from a file. "-" is the standard input.
[[nodiscard]] int scenario_read(const std::string &path, scenario *out, std::string *error);
