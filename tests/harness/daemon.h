// daemon.h - the real daemon as a test meets it: a process in a card directory of its own, its sockets and its files.
//
// Everything is spoken raw, byte by byte (card_bytes.h), and nothing of the platform is used: these tests hold the
// contract between processes, so they must not share the code that keeps it.
// Always: every wait is on a descriptor with a limit; whatever a test started is ended and removed with its record.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "card_bytes.h"

namespace harness
{
constexpr int DAEMON_WAIT_MS = 30000; // limit of every wait; generous, for sanitizers on a busy machine

// A card directory, fresh, removed with the record.
struct card_dir {
    std::string path;
    card_dir();
    ~card_dir();
    card_dir(const card_dir &) = delete;
    card_dir &operator=(const card_dir &) = delete;
    std::string at(std::string_view name) const; // path of `name` in the directory
};

// What the host allows a daemon. 0: as it allows the test.
struct daemon_limits {
    unsigned descriptors = 0;
    unsigned long file_bytes = 0;    // longest file; the signal for a longer one is ignored, so writing it fails
    std::string output = {};         // folder of its standard output and error; empty: the card directory
    unsigned long address_space = 0; // bytes
    bool no_standard = false;        // descriptors 0 to 2 are closed
};

// One daemon. Killed with the record if it still runs.
struct daemon_process {
    pid_t pid = -1;
    int pidfd = -1;
    int notify = -1;      // socket to which it reports
    std::string out, err; // files with its standard output and standard error

    // start: an instance of the program on `card`; name tells several on one card apart.
    explicit daemon_process(const card_dir &card, const char *name = "first", const daemon_limits &limits = {});
    ~daemon_process();
    daemon_process(const daemon_process &) = delete;
    daemon_process &operator=(const daemon_process &) = delete;
};

std::string daemon_notification(const daemon_process &daemon); // the next one; empty when it ended or the limit passed
void daemon_signal(const daemon_process &daemon, int signo);
int daemon_exit_status(daemon_process &daemon); // waits for the end: exit status, 1000 + signal, or -1 at the limit

std::string file_text(const std::string &path);
void file_write(const std::string &path, std::string_view text); // mode 0600
bool path_exists(const std::string &path);                       // the link itself, for a link
unsigned path_mode(const std::string &path);                     // permission bits; ~0 when it is not there
void make_folder(const std::string &path);                       // mode 0700; may exist
void path_set_mode(const std::string &path, unsigned mode);

// Sockets of a peer: bound at `path` (what stands there goes), and connected to it (-1 when nobody listens).
int bound_socket(int type, const std::string &path);
int connected_socket(int type, const std::string &path);

// RPC.
struct rpc_reply {
    bool arrived = false;
    std::uint32_t transaction = 0, status = 0, result = 0;
    byte_string record; // the whole of it
};

int rpc_connect(const card_dir &card, std::string_view socket); // such as "rpc/9"; -1 when nobody listens
void rpc_send(int connection, const byte_string &record);
rpc_reply rpc_receive(int connection);
rpc_reply rpc_call(int connection, const remote_call &call);
inline rpc_reply rpc_call(int connection, const std::string &name, const std::vector<rpc_arg> &args)
{
    return rpc_call(connection, {name, args});
}

// A connection to the endpoint of the route manager, closed with the record.
struct rpc_client {
    int fd;
    explicit rpc_client(const card_dir &card, std::string_view socket = "rpc/9");
    ~rpc_client();
    rpc_client(const rpc_client &) = delete;
    rpc_client &operator=(const rpc_client &) = delete;
};

// An RPC server of the test's own on `endpoint`, linked as the server of `procedure`.
struct rpc_server {
    int lock, listener, connection = -1;
    rpc_server(const card_dir &card, unsigned endpoint, const char *procedure);
    ~rpc_server();
    rpc_server(const rpc_server &) = delete;
    rpc_server &operator=(const rpc_server &) = delete;
};
// Receive a call and answer it: with status 0 and `values` behind the result, or with bytes of the test's own after the
// call's transaction. They give the call's record.
byte_string rpc_serve_one(rpc_server &server, std::uint32_t result, const std::vector<rpc_arg> &values = {});
byte_string rpc_serve_raw(rpc_server &server, std::uint32_t magic, const byte_string &rest);
byte_string rpc_take_one(rpc_server &server); // receives a call and leaves it unanswered
void rpc_hang_up(rpc_server &server);         // ends the connection; the next call makes a new one

// The message queue of a service access point of the test's own.
struct mts_queue {
    int lock, fd;
    std::uint32_t sap;
    std::string manager; // path of the route manager's queue
    mts_queue(const card_dir &card, std::uint32_t sap);
    ~mts_queue();
    mts_queue(const mts_queue &) = delete;
    mts_queue &operator=(const mts_queue &) = delete;
};
struct received_message {
    std::uint32_t opcode = 0, node = 0, sap = 0;
    std::string payload;
};
void mts_send(const mts_queue &queue, std::uint32_t opcode, const byte_string &payload);
void mts_send_raw(const mts_queue &queue, const byte_string &datagram);
bool mts_offer(const mts_queue &queue, const byte_string &datagram); // false when there is no room for it just now
received_message mts_receive(const mts_queue &queue);                // opcode 0 at the limit
byte_string mts_receive_raw(const mts_queue &queue);                 // the whole datagram, empty at the limit
// Requests of the debug service; the second waits for the answer.
void debug_request(const mts_queue &queue, std::uint32_t verb, std::uint32_t category, std::uint32_t context,
                   std::uint32_t value);
std::string debug_answer(const mts_queue &queue, std::uint32_t verb);
std::uint64_t counter_value(const std::string &answer, std::string_view name); // ~0 when it is not there

// An event history as it stands at this moment, while its process may go on writing: the file at `path`, or the route
// manager's.
history history_at(const std::string &path);
history history_read(const card_dir &card);

// The socket of the supervisor card.
struct supervisor_socket {
    int fd;
    explicit supervisor_socket(const card_dir &card);
    ~supervisor_socket();
    supervisor_socket(const supervisor_socket &) = delete;
    supervisor_socket &operator=(const supervisor_socket &) = delete;
};
byte_string supervisor_receive(const supervisor_socket &supervisor); // one datagram, empty at the limit

// The interface database, written whole.
void interfaces_write(const card_dir &card, const std::vector<interface_record> &interfaces);

// The words of a table memory at this moment.
std::vector<std::uint32_t> memory_words(const card_dir &card, const char *name);
} // namespace harness
