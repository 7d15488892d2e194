// plain_model.h - a slow, plain picture of the route manager: maps of prefixes and sets of paths, nothing linked.
//
// It takes the same remote calls and messages as the process and says what comes of them: the answer, each error line,
// each call and message that goes out, and what RIB, forwarding table and memory hold afterwards. What the process does
// that a reader would not expect is written down here as a rule of its own, marked "odd".
// Always: exact, also where a static route's route id names another context. Lines of other categories than the errors
// and what is printed are not in it.
// Elsewhere: the forwarding table of one tree (plain_trie.cpp), the messages (plain_events.cpp), what only looks
// (plain_show.cpp), the arguments of calls (plain_calls.cpp).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "plain_trie.h"
#include "route_entry.h"

namespace harness
{
// The kind is what memory the entry is charged to.
enum model_kind : unsigned { MODEL_HOST, MODEL_NAT, MODEL_STATIC, MODEL_KINDS };

struct model_path {
    model_kind kind;
    std::uint32_t nexthop;
    std::uint16_t ifid;
    std::uint32_t encap;
    std::uint16_t flags;
    std::uint32_t route_id; // whose tree it goes into; the context for all but static routes
};

struct model_interface {
    bool up = true;
    std::uint32_t rmode = 1;
    std::int32_t bvi = -1;
    bool has_rmode = true, has_address = true;
    std::uint32_t address = 0, mask = 0xFFFFFF00;
    std::int32_t ctx = -1, vlan = -1;
};

// How the processes that are called answer.
struct model_peers {
    std::uint32_t arp_result = 0; // 0xFFFFFFFF: the call fails
    std::uint32_t mac_result = 0; // 0: mac_value is the answer
    std::uint16_t mac_value = 1;
    int scp_result = 0, open_result = 0, flush_result = 0;
};

struct model_reply {
    std::uint32_t status = 0, result = 0;
    std::vector<std::uint32_t> refs;
    std::vector<byte_string> blocks;
};

struct model_cursor {
    std::uint32_t list = 0, bucket = 0, position = 0;
};

using model_key = std::pair<std::uint32_t, std::uint32_t>;        // length, prefix
using model_table = std::map<model_key, std::vector<model_path>>; // a set's head is first

struct plain_model {
    std::map<std::uint32_t, model_interface> interfaces;
    model_peers peers;
    unsigned processors = 2;
    unsigned alloc_fails_in = 0; // the n-th allocation from now finds memory short; 0: none does

    plain_pools pools; // and the error lines
    std::map<std::uint32_t, plain_tree> trees;
    std::map<std::uint32_t, model_table> rib;
    std::uint32_t lost[MODEL_KINDS] = {};                    // entries that no table reaches any more and no one frees
    text_lines calls;                                        // that go out, as the tests' card writes them
    std::vector<std::pair<std::uint32_t, byte_string>> sent; // messages: opcode, payload
    std::vector<std::string> adverts;                        // messages to the supervisor

    // A card with its drop entries; only the given contexts are touched afterwards.
    explicit plain_model(const std::vector<std::uint32_t> &contexts);
    model_reply call(const std::string &procedure, const std::vector<std::uint32_t> &args);
    void event(std::uint32_t opcode, const byte_string &payload);
    void forget(); // lines, calls and messages

    text_lines rib_text(std::uint32_t ctx) const; // one line a path, in the order of the table
    std::uint32_t entries(model_kind kind) const; // allocated
};

// --- The parts of the model, by file.

// plain_model.cpp
void model_error(plain_model &m, std::uint32_t ctx, const std::string &message);
bool model_alloc(plain_model &m); // false: memory is short
std::vector<model_path> *model_set(plain_model &m, std::uint32_t ctx, model_key key);
std::vector<model_key> model_order(const model_table &table); // the keys as the process's table has them
std::uint32_t model_bucket(std::uint32_t prefix, std::uint32_t len);
std::uint32_t model_mask_len(std::uint32_t mask); // leading one bits
bool model_is_up(const plain_model &m, std::uint32_t ifid);
bool model_fib_add(plain_model &m, std::uint32_t ctx, model_key key, const model_path &path);
bool model_fib_remove(plain_model &m, std::uint32_t ctx, model_key key, const model_path &path);
void model_withdraw(plain_model &m, std::uint32_t ctx, model_key key, model_path &path);
void model_lose_members(plain_model &m, std::uint32_t ctx, model_key key); // and takes the set out
void model_flush(plain_model &m);
std::string model_line(model_key key, unsigned place, const model_path &path, std::uint32_t count);
constexpr std::uint16_t MODEL_OBJ_HOST = 1, MODEL_OBJ_INTERFACE = 2;
struct model_host {
    std::uint16_t object;
    std::uint32_t ctx, addr, len;
    std::uint16_t ifid, encap, flags;
};
model_path *model_combined_add(plain_model &m, const model_host &host);
bool model_combined_remove(plain_model &m, const model_host &host, model_path *taken);
std::uint32_t model_arp_add(plain_model &m, const model_host &host);
std::uint32_t model_arp_remove(plain_model &m, const model_host &host);
struct model_static {
    std::uint32_t ctx, route_id;
    model_key key;
    std::uint32_t nexthop;
};
std::uint32_t model_static_add(plain_model &m, const model_static &route);
std::uint32_t model_static_remove(plain_model &m, std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len,
                                  std::uint32_t nexthop);

// plain_events.cpp
std::uint32_t model_nat_add(plain_model &m, std::uint32_t ctx, std::uint16_t ifid, std::uint32_t addr,
                            std::uint32_t range, std::uint16_t encap);
std::uint32_t model_nat_remove(plain_model &m, std::uint32_t ctx, std::uint32_t addr, std::uint32_t range,
                               std::uint16_t encap);

// plain_show.cpp
struct model_page {
    std::uint32_t count;
    byte_string records;
};
model_page model_list(const plain_model &m, std::uint32_t ctx, model_cursor &cursor, bool fib, std::uint32_t capacity);
byte_string model_rib_summary(const plain_model &m, std::uint32_t ctx);
byte_string model_fib_summary(const plain_model &m, std::uint32_t ctx);
std::uint32_t model_lookup(plain_model &m, std::uint32_t ctx, std::uint32_t addr, std::uint32_t &nexthop);
// Lines of 128 bytes; a block's address, which the model does not know, is written as 0.
byte_string model_dump(const plain_model &m, std::uint32_t copy, std::uint32_t tree, std::uint32_t address);
std::uint32_t model_advert(plain_model &m, const std::vector<std::uint32_t> &args);
} // namespace harness
