// sync_card.h - the rules of live_sync beside the real routing library, as a card whose packets are judged.
//
// Events and calls go through one queue, as they do on a card; the test takes them off one by one, and says which are
// refused or not answered. After every single store the addresses that matter are searched in the table, as a packet
// that comes or is still under way may find it: a context that was held back counts as forwarding, and a table that is
// not searched any more as searched, until a barrier has passed.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fake_card.h"
#include "live_sync.h"

namespace harness
{
// What the card should do, as the test keeps it. Contexts 1 and 2.
struct sync_plan {
    std::map<std::uint32_t, sync_port> ports;
    std::map<std::uint32_t, std::map<kernel_prefix, sync_gateways>> routes; // by context, as are the next
    std::map<std::uint32_t, std::map<std::uint32_t, sync_host>> hosts;
};

// MAC addresses of the tests: the neighbour's address, then one of several that it has had.
constexpr unsigned SYNC_MAC_VARIANT = 8;

// Where a packet may go: interface id and MAC address. Empty: to the kernel alone.
using sync_ways = std::set<std::pair<std::uint32_t, std::uint64_t>>;
sync_ways plan_ways(const sync_plan &plan, std::uint32_t ctx, std::uint32_t address);

enum class sync_fault { none, refused, lost, lost_undone, late };

struct sync_card {
    sync_card();
    ~sync_card();

    // --- The card's own: what is told runs when the test takes it.
    std::unique_ptr<fake_card> manager; // null: away
    live_sync s;
    struct item {
        std::string procedure; // empty: a mark or an event
        std::vector<card_rpc_arg> args;
        card_rpc_done done;
        std::uint32_t opcode = 0; // of an event
        std::vector<std::uint8_t> payload;
        std::function<void()> passed;
    };
    std::map<std::uint32_t, if_db_record> records; // the interface database
    void show_record(std::uint32_t ifid);
    std::deque<item> queue;
    std::deque<item> left_behind; // calls that were taken for lost and run later
    std::vector<std::string> said, sent;

    void want(const sync_plan &plan); // the differences, and what packets may meet from now on
    void run();                       // sync_run, its effects judged
    void take(sync_fault fault = sync_fault::none);
    void pass_barriers();
    void start_manager(); // also while one is there: it restarts
    void end_manager();
    void settle(); // until nothing is left to do

    std::uint32_t leaves_in_use() const;

    // --- The judge.
    struct context_state {
        bool forwards = false;                  // as stored
        std::uint64_t held_ticket = 0;          // until it passes, packets may be under way
        std::map<std::uint32_t, sync_ways> may; // by address: the ways of all plans that packets may meet
    };
    std::array<context_state, 3> contexts; // by context; 0 is not used
    sync_plan plan;
    std::map<std::uint32_t, std::uint64_t> words; // by encap id
    std::map<std::uint32_t, std::pair<std::uint32_t, std::uint32_t>> owners;
    std::set<std::uint32_t> named, old_named;          // encap ids in the route manager's table, in the old one
    std::map<std::uint32_t, std::uint64_t> last_named; // last barrier that was asked for while a table named the id
    std::uint64_t asked = 0, passed = 0, switched = 0;
    std::vector<std::uint32_t> old_table;   // searched while the route manager is away or is being told
    std::vector<std::uint32_t> older_table; // searched until the switch's barrier has passed
    bool has_old = false, is_searched = false;
    std::vector<std::uint32_t> addresses; // that are looked at
    std::uint64_t looks = 0;

    std::uint32_t run_call(const item &call);
    std::string state_text() const;
    void may_also(std::uint32_t ctx, const sync_plan &also); // whatever the MAC addresses are
    void may_only(std::uint32_t ctx);                        // as the plan says now
    void judge();
    void judge_at_rest(); // every address as the plan says, nothing held back
    sync_ways table_ways(const np_table &table, std::uint32_t ctx, std::uint32_t address) const;
};
} // namespace harness
