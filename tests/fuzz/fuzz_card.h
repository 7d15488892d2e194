// fuzz_card.h - the process on a card that can be put back as it was after its start, thousands of times a minute.
//
// All of the platform is the host's own, with its sockets in a card directory of this process, but for memory tracking,
// table memories and stores: those are kept here, so that every byte that an input changed is known and can be put
// back. What an input does therefore never depends on the inputs before it.
// Always: fuzz_card_check ends the program when an audit finds a rule broken, so that the fuzzer keeps the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_input.h"

void fuzz_card_boot(); // once a process: card directory, services, tables, drop entries; later calls do nothing
// Audits, when anything was stored, allocated or freed: of the pools and of the contexts that inputs favour (0 to 3,
// 255), after each step; of everything, every word of every copy included, at the end of an input.
void fuzz_card_check();
void fuzz_card_check_all();
void fuzz_card_restore();                     // tables, routes, gates and pools as after the start
void fuzz_card_serve();                       // passes of the event loop until neither a call nor a message waits
std::string fuzz_card_file(const char *name); // path of `name` in the card directory

// How the card's other processes (ARP service, slow path) answer the calls that the process makes.
enum class fuzz_answer { well, failing, nothing, ending, raw };
struct fuzz_peer_script {
    fuzz_answer answer = fuzz_answer::well;
    std::uint32_t result = 0;
    std::vector<std::uint8_t> raw; // the whole reply for fuzz_answer::raw
    bool own_transaction = false;  // write the call's transaction into the raw reply
};
extern fuzz_peer_script fuzz_peer;
constexpr const char *FUZZ_PEER_PROCEDURE = "fuzz_peer_procedure"; // served by that peer, like the services' own

void fuzz_peer_open(); // binds its endpoint and names; the boot does

// A socket of `type`, not waiting, bound at `name` in the card directory (such as "rpc/20").
int fuzz_bound(int type, const char *name);
// A socket of a caller, connected to the process's endpoint; a queue of a sender, bound to access point 600.
int fuzz_connect();
int fuzz_queue();
void fuzz_send_message(int queue, const std::uint8_t *bytes, std::size_t length); // to the process's queue
