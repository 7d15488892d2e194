// memory_peer.h - a provider of a table memory, and a user of one, as the test plays them, byte for byte.
#pragma once

#include <string>
#include <vector>

#include "card_bytes.h"

namespace harness
{
constexpr std::uint32_t MEMORY_QUESTION = 0x4D454D51, MEMORY_ANSWER = 0x4D454D50; // "MEMQ", "MEMP"
constexpr std::uint32_t TO_WRITE = 1, TO_READ = 2;

// A memory of `bytes`, all 0, without a name. -1 is none.
int memory_file(std::size_t bytes);
// Its words, at most those of a table, at this moment.
std::vector<std::uint32_t> memory_file_words(int fd);

// Listens where the provider of the memory at `path` does, under its lock.
struct memory_peer {
    int lock, listener, connection = -1;
    explicit memory_peer(const std::string &path);
    ~memory_peer();
    memory_peer(const memory_peer &) = delete;
    memory_peer &operator=(const memory_peer &) = delete;
};
byte_string memory_peer_question(memory_peer &peer); // of the next user; empty when none comes within the limit
void memory_peer_answer(memory_peer &peer, const byte_string &record, const std::vector<int> &descriptors);
void memory_peer_hang_up(memory_peer &peer);
bool memory_peer_is_alone(memory_peer &peer); // whether its user has gone, waiting for that as long as the limit

// Connects to the provider of the memory at `path` and sends `question`; -1 when nobody listens.
int memory_user(const std::string &path, const byte_string &question);
inline int memory_user(const std::string &path, std::uint32_t purpose)
{
    return memory_user(path, word_bytes({MEMORY_QUESTION, purpose}));
}
// What a user has been sent.
struct memory_given {
    byte_string record; // empty: the connection has ended, or nothing came within the limit
    int descriptor = -1;
};
memory_given memory_user_receive(int connection);
} // namespace harness
