// fake_card.h - a card for one test: every platform service as a link-time fake, and one record to look into it.
//
// The process is linked with these bodies in place of the host's, so that a test sees each call that it makes, each
// line that it writes and each word that it stores, and can make any of them fail the way the real one fails.
// Always: one fake_card at a time. Its constructor starts from a process that has done nothing yet, its destructor
// frees and unmaps whatever the process took, so that a test may start the tables again.
// Elsewhere: the card's address space and heap are the host's own bodies, linked too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "card_bytes.h"
#include "card_space.h"
#include "mtrack.h"
#include "mtrie_records.h"
#include "mts.h"
#include "tables.h"
#include "tnrpc.h"

namespace harness
{
// An interface as the interface manager knows it. A default one is up, routes by itself and lacks the rest.
struct fake_interface {
    bool up = true;
    std::uint32_t rmode = 1;   // 1: routed; any other: through `bvi`
    std::int32_t bvi = -1;     // interface id of its bridge interface; -1: if_get_bvi fails
    bool has_rmode = true;     // false: if_get_address fails
    bool has_address = false;  // false: if_get_ip fails
    std::uint32_t address = 0; // host order
    std::uint32_t mask = 0;
    std::int32_t ctx = -1;  // -1: none
    std::int32_t vlan = -1; // -1: none
};

// A record of the event history.
struct fake_line {
    std::uint32_t category;   // from the record
    std::uint32_t event_type; // as given
    std::size_t bytes;        // length as given
    std::string text;         // with its "<Ctx:n>" prefix, up to the NUL
};

struct fake_debug_line {
    std::int32_t ctx;
    std::string module;
    std::string text; // as formatted, line ends included
};

struct fake_syslog {
    unsigned severity;
    std::string text;
};

// One word stored where a processor reads.
struct fake_store {
    card_addr address;
    std::uint32_t value;
    bool operator==(const fake_store &) const = default;
};

// A message that waits in the process's queue, or was sent by it.
struct fake_message {
    std::uint32_t opcode;
    mts_address address; // of the sender in the queue, of the receiver when sent
    std::vector<std::uint8_t> payload;
};

// A procedure that the process serves.
struct fake_procedure {
    tnrpc_function function;
    std::vector<unsigned> types;
    std::map<unsigned, std::uint32_t> limits; // highest value by argument index
};

// The answer to a call of a procedure that the process serves.
struct fake_reply {
    std::uint32_t status; // 0 it ran; 1 no such procedure; 2 wrong argument count; 3 an argument over its limit
    std::uint32_t result;
    std::vector<std::uint32_t> refs;               // by-reference values in argument order
    std::vector<std::vector<std::uint8_t>> blocks; // returned blocks in argument order
};

// How a poll(2) of the process ends when it is not left to the kernel.
struct fake_poll_result {
    int result;       // -1 sets errno
    int error_number; // for -1
    short revents[2]; // otherwise, for the two entries
};

struct fake_card {
    explicit fake_card(unsigned num_ixp = 2);
    ~fake_card();
    fake_card(const fake_card &) = delete;
    fake_card &operator=(const fake_card &) = delete;

    // The process brought up to a point. Each returns 0, or 1 when a step failed (and says so as a test failure).
    int start_tables(); // pools and trees: mtrie_pool_init, norvik_init_ixp_fib
    int start();        // and the multicast drop entry 224.0.0.0/3 in all contexts

    // --- What the process sees. Set at any time.

    std::map<std::uint32_t, fake_interface> interfaces; // by interface id; absent: no such interface
    // An interface that is up and routed, with an address (mask 255.255.255.0).
    fake_interface &add_interface(std::uint32_t ifid, std::uint32_t address, std::int32_t ctx = 0);

    unsigned num_ixp; // network processors
    std::uint32_t wired_phys_base = 0x08000000;
    std::uint32_t wired_bytes = 0x104000; // of the wired region; smaller than a card's, to be quick

    bool mts_bind_fails = false;       // -1
    int mts_recv_result = 0;           // negative: nothing is received, the message stays
    std::uint32_t mts_recv_leaves = 0; // what a receive writes into the third word of its options
    int sdwrap_dbg_init_result = 0;
    int sdwrap_sys_init_result = 0;
    std::uint32_t scp_handle = 77; // 0: cannot be opened
    std::uint8_t supervisor_address = 1;
    int scp_send_result = 0;
    int fb_adj_init_result = 0;
    int handshake_result = 0;
    int syscall_open_result = 0;                // negative: that error
    int wired_info_result = 0;                  // -1
    bool map_wired_fails = false;               // answers 0
    std::optional<card_addr> map_ixp_result[2]; // set (0 or all ones): what mapping that processor's memory answers
    int flush_result = 0;                       // of tn_flush_rt_cache; negative: that error
    bool tnrpc_serv_fails = false;              // the endpoint is refused: -1
    int tnrpc_clnt_result = 0;
    std::map<std::string, std::uint32_t> call_results; // of outgoing calls by procedure; absent: TNRPC_FAILED,
                                                       // but 0 for tn_arp_add_entry
    std::map<std::string, std::uint32_t> call_refs;    // stored in the by-reference argument of a call that is made
    std::int32_t slot = 1;
    std::deque<fake_poll_result> polls; // used up first; then the kernel answers, without waiting

    // The n-th allocation from now on (1: the next) finds memory short: of one type, or of any.
    void fail_alloc(std::uint32_t type, unsigned nth);
    void fail_any_alloc(unsigned nth);
    bool memory_short = false; // every allocation fails

    // Queues a message for the process, or a call of one of its procedures; the descriptor then polls readable.
    void post(std::uint32_t opcode, std::vector<std::uint8_t> payload = {}, mts_address from = {0, 600});
    void post_call(const std::string &procedure, std::vector<std::uint32_t> args);
    // Makes a call of a served procedure at once. By-reference arguments start with the value given; a block's value
    // is ignored. Blocks are freed after they were copied.
    fake_reply call(const std::string &procedure, const std::vector<std::uint32_t> &args);
    fake_reply call(const remote_call &made) { return call(made.name, made.numbers()); }

    // --- Gates. At first every history gate is open and every debug gate closed.

    void open_history(std::uint32_t category, bool open);
    void open_all_history(bool open);
    void open_debug(std::uint32_t category, bool open); // for every context
    void open_debug_for(std::uint32_t category, std::int32_t ctx, bool open);

    // --- What the process did.

    std::vector<fake_line> history;
    std::vector<fake_debug_line> debug;
    std::vector<fake_syslog> syslogs;
    std::vector<fake_message> sent;
    std::vector<std::string> scp_messages;               // bytes of each message
    std::vector<std::string> categories;                 // names given to sdwrap_dbg_init
    std::map<std::string, fake_procedure> procedures;    // served now
    std::map<std::uint32_t, std::uint32_t> option_words; // of the queue, by opcode

    // Platform calls in order, such as "mts_bind 4 514 Route Manager [1 0 1024 0 0]", "tnrpc_unregister rib_add_route",
    // "tnrpc_call tn_arp_add_entry 1:5 2:0x0 2:0xa000001 2:0xa000001 0:2 0:1". The queue is written as q, the RPC
    // descriptor as rpc, a handler that is installed as "signal 2". Left out: interface queries, memory tracking but
    // for mtrack_init, stores, gates, log lines.
    std::vector<std::string> calls;
    std::vector<std::string> queries;                 // interface queries in order, such as "if_get_ip 5"
    bool log_in_calls = false;                        // history records in `calls` too: "log 100 <Ctx:0>text"
    std::function<void(const std::string &)> on_call; // runs after each entry of `calls` was made

    // Texts of the history in order: of one category, or of all as "100 <Ctx:0>text".
    std::vector<std::string> texts(std::uint32_t category) const;
    std::vector<std::string> lines() const;
    // Whether a history record of this category with exactly this text exists.
    bool has_line(std::uint32_t category, const std::string &text) const;
    // Entries of `calls` that begin with `prefix`.
    std::vector<std::string> calls_of(const std::string &prefix) const;

    // What the process has written to standard output since the last printed() or forget().
    std::string printed();

    // Memory tracking.
    std::uint32_t blocks(std::uint32_t type) const; // live blocks
    std::uint32_t all_blocks() const;

    // Stores to memory that a processor reads. The journal is kept while `journal_on`; after_each_store runs after
    // each word, with or without it.
    bool journal_on = false;
    std::vector<fake_store> journal;
    void after_each_store(std::function<void()> callback);
    // A faulty store, for tests that must notice one: asked before each word is stored; true keeps the word back, and
    // whoever keeps it makes it good with store_now, in an order of its own.
    std::function<bool(const fake_store &)> keep_store;
    void store_now(const fake_store &store);
    // Memory of the wired region (0) and of the processors (1, 2) while they are mapped, else 0.
    card_addr memory(unsigned copy) const;
    // One word of a copy, loaded as a processor does it. offset: bytes from the table's start.
    std::uint32_t word(unsigned copy, std::uint32_t offset) const;
    np_table table(unsigned copy) const; // as its processor searches it

    // Forgets lines, calls, queries, printed text, sent messages and the journal.
    void forget();

    // --- The fakes' own; tests leave it alone.
    struct block {
        std::uint32_t type;
        std::size_t bytes;
    };
    struct mapping {
        unsigned copy;
        std::size_t bytes;
    };
    std::map<card_addr, block> heap;
    std::map<card_addr, mapping> maps;
    std::vector<mtrack_type_stats> types;
    std::map<std::uint32_t, unsigned> alloc_countdown; // by type; ALL_TYPES for any
    std::deque<fake_message> queue;
    std::deque<std::pair<std::string, std::vector<std::uint32_t>>> rpc_queue;
    fake_message received;
    std::function<void()> store_callback;
    int queue_fd = -1, rpc_fd = -1, next_descriptor = 1000;
    int saved_stdout = -1, captured = -1;
    std::string opcode_name;
};

// The card of the running test. Ends the test program when there is none: a fake was called outside any test.
fake_card &the_card();

// Runs `body` in a child process and waits for its end. The child's calls (with log lines) come back as `calls`, also
// what was called from exit handlers; `status` is as waitpid gives it.
struct fake_child_result {
    int status;
    std::vector<std::string> calls;
};
fake_child_result run_in_child(const std::function<void()> &body);

constexpr unsigned NP_COPIES = 3; // wired region, then the two processors
np_answer np_find(const fake_card &card, unsigned copy, std::uint32_t tree, std::uint32_t address);

// Where a record's words stand in every copy: offset in bytes from the table's start, NP_MISS for none.
std::uint32_t hw_leaf(const mtrie_leaf *leaf);
std::uint32_t hw_block(const mtrie_ecmp *block);

// What the history shows for a line of context `ctx`; a record as %p shows it: its card address.
std::string in_ctx(unsigned ctx, const std::string &message);
void *shown(const void *record);
} // namespace harness
