// memory_service.h - the provider of a table memory: it hands descriptors out, to one writer and to readers.
//
// The owner has the memories and says which one a user gets; here are the socket, who uses them, and who may write. The
// owner polls `events` and calls memory_service_process.
// Always: nothing waits; while a writer has a memory, no other gets one, also when it has it from an earlier provider.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include <sys/types.h>
#include <time.h>

// What a user is given. The descriptor stays the owner's.
struct memory_handout {
    int descriptor = -1; // read-write, also for a reader: one that is not cannot be mapped where it is a BPF map's
    std::uint32_t bytes = 0;
    std::uint32_t generation = 0; // counts what was handed out for writing
};

// Which route manager holds its message queue.
struct manager_mark {
    bool is_alive = false;
    dev_t device = 0; // of the queue's socket, which each route manager makes anew; all 0 before it is there
    ino_t inode = 0;
    timespec changed = {};
};

enum class memory_role { unknown, reader, writer }; // unknown: it has not asked yet

struct memory_service {
    // The owner's, set before it is opened. A descriptor of -1 refuses the user.
    std::function<memory_handout()> for_writer; // nobody writes; whoever gets this does, until writer_gone
    std::function<memory_handout()> for_reader;
    std::function<void()> writer_gone;

    int events = -1; // readable when there is something to do
    int listener = -1;
    std::map<int, memory_role> users; // by connection
    bool has_writer = false;
    int writer = -1; // its connection; -1: it has its memory from an earlier provider
    manager_mark manager;
};

// Listens as the provider of `name`, such as "mem/ixp2". A route manager that lives is taken for the writer of the
// memory that an earlier provider gave it. Returns 0, or -1 with a line on standard error.
[[nodiscard]] int memory_service_open(memory_service *service, const char *name);

// Takes what has come: users, questions, ends.
void memory_service_process(memory_service &service);

// Whether a writer has a memory. Looks for its end first.
bool memory_service_has_writer(memory_service &service);

// Ends the connections of all readers, so that they ask again: another memory has taken the place of theirs.
void memory_service_end_readers(memory_service &service);

// Ends the service. The socket's name stays taken until the process ends.
void memory_service_close(memory_service *service);
