// card_model.h - the interface manager, the ARP service and the slow path: what they know and what they send.
//
// Plain state and rules, without sockets or clocks: the caller sets the time, and whatever goes out (records of the
// database, events, calls) goes through card_outside. A rule never waits: it hands a call over and goes on when the
// answer comes.
//
// Always, of a host: at most one call about it is under way; it is announced only while its interface is up; one whose
// encapsulation changed is withdrawn before it is announced again, and one that has not changed is not announced twice.
// `announced` says whether the route manager knows it, ANNOUNCED_MAYBE when that cannot be known (a call that was
// not answered, an interface that went down): such a host is withdrawn first, which does no harm if it is unknown.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "card_service/if_db.h"
#include "card_tool/card_rpc.h"

// What the procedures of the simulation answer.
enum card_result : std::uint32_t {
    CARD_DONE = 0,
    CARD_NO_INTERFACE = 1,
    CARD_EXISTS = 2,
    CARD_BAD_ARGUMENT = 3,
    CARD_NOT_THERE = 4,
};
const char *card_result_text(std::uint32_t result); // "done", "unknown interface" ...

constexpr std::uint32_t CARD_FIRST_ENCAP = 0x2000, CARD_LAST_ENCAP = 0x7FFF; // that the slow path allocates
constexpr std::uint32_t CARD_RETRY_MS = 500;                                 // after a call that was not answered

struct card_interface {
    std::uint32_t ctx = 0, address = 0, mask = 0; // address 0: none
    std::uint32_t mode = 1, bvi = 0;              // 1: routes by itself; else `bvi` routes for it
    std::optional<std::uint32_t> vlan;
    bool is_up = false;
};

enum card_announced : unsigned { ANNOUNCED_NO, ANNOUNCED_YES, ANNOUNCED_MAYBE };

struct card_host {
    std::uint32_t ifid = 0, encap = 0;
    std::uint32_t delay_ms = 0;
    bool is_quiet = false; // announced only once the route manager has asked for it
    bool is_asked = false; // it has
    bool is_gone = false;  // to be forgotten once it is withdrawn

    card_announced announced = ANNOUNCED_NO;
    std::uint32_t announced_ifid = 0, announced_encap = 0; // as announced
    bool is_busy = false;                                  // a call about it is under way
    bool is_doubted = false;   // what that call announces may be gone by the time it is answered
    bool is_refused = false;   // not announced again until something changes
    bool is_refreshed = false; // to be announced once more as it is
    std::uint64_t due_ms = 0;  // not announced before
};
using card_host_key = std::pair<std::uint32_t, std::uint32_t>; // context, address

// An encapsulation that the slow path holds. mac: 48 bits, 0 is no valid address.
struct card_encap {
    std::uint32_t ifid;
    std::uint64_t mac;
};

// What leaves the model. Never called back from inside, but for `done`, later.
struct card_outside {
    std::function<void(std::uint32_t ifid, const if_db_record &record)> record;
    std::function<void(std::uint32_t opcode, const std::vector<std::uint8_t> &payload)> event;
    std::function<void(const std::string &procedure, const std::vector<card_rpc_arg> &args, card_rpc_done done)> call;
    std::function<void(const std::string &line)> say; // one line about what happened
};

struct card_model {
    card_outside out;
    std::uint64_t now_ms = 0; // set before the model is used
    std::map<std::uint32_t, card_interface> interfaces;
    std::map<card_host_key, card_host> hosts;
    std::map<std::uint32_t, card_encap> encaps;
    std::set<std::pair<std::uint64_t, card_host_key>> due; // hosts to be looked at, by time
    std::set<card_host_key> asked;                         // gateways that the route manager wants resolved
    std::uint32_t next_encap = CARD_FIRST_ENCAP;
    unsigned busy = 0;      // calls under way
    bool is_unsure = false; // a new host may be known to the route manager from an earlier run of this program
};

// ---- interface manager ----
// A new interface, down. The database first, then the event.
std::uint32_t card_if_create(card_model &m, std::uint32_t ifid, const card_interface &interface);
std::uint32_t card_if_state(card_model &m, std::uint32_t ifid, bool up);
std::uint32_t card_if_address(card_model &m, std::uint32_t ifid, std::uint32_t address, std::uint32_t mask);
std::uint32_t card_if_delete(card_model &m, std::uint32_t ifid);

// Payloads of the events, byte for byte.
std::vector<std::uint8_t> card_if_payload(std::uint32_t ifid, const card_interface &interface);
std::vector<std::uint8_t> card_if_changed_payload(std::uint32_t ifid, std::uint32_t address, std::uint32_t mask);

// ---- ARP service ----
struct card_new_host {
    std::uint32_t ifid, address;
    std::uint32_t encap;              // 0: allocate one
    std::optional<std::uint64_t> mac; // one is made of the address when there is none
    std::uint32_t delay_ms;
    bool is_quiet;
};
std::uint32_t card_host_add(card_model &m, const card_new_host &host);
std::uint32_t card_host_del(card_model &m, std::uint32_t ifid, std::uint32_t address);

// The route manager asks for a gateway (sense 1) or no longer does (0). Nothing is called from in here.
void card_arp_request(card_model &m, std::uint32_t ctx, std::uint32_t address, bool is_wanted);

// The route manager has taken the routes and hosts of an interface out.
void card_if_withdrawn(card_model &m, std::uint32_t ctx, std::uint32_t ifid);

// Hosts that are affected by what happened to `ifid`: looked at again, after their delay. is_unsure: what the route
// manager knows of them may be gone.
void card_hosts_recheck(card_model &m, std::uint32_t ifid, bool is_unsure);

// Looks at the hosts whose time has come: announces and withdraws.
void card_arp_run(card_model &m);

// The time at which card_arp_run has something to do; UINT64_MAX: never.
std::uint64_t card_arp_next_ms(const card_model &m);

// ---- slow path ----
bool card_encap_is_valid(const card_model &m, std::uint32_t encap);                             // it has a MAC address
std::uint32_t card_interface_of(const card_model &m, std::uint32_t ctx, std::uint32_t address); // 0: none
void card_realign(card_model &m); // every host is announced once more
// Takes `encap` (0: a free one) for a neighbour. Returns it, or 0 when it is taken or none is free.
std::uint32_t card_encap_take(card_model &m, std::uint32_t encap, const card_encap &neighbour);
void card_encap_give(card_model &m, std::uint32_t encap);

// ---- all of them ----
// A route manager has started: it knows nothing and is sent everything.
void card_announce_all(card_model &m);
