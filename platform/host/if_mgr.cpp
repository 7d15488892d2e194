// if_mgr.cpp - queries to the interface manager's database, a mapped file that the manager changes meanwhile.
//
// A record has a sequence word: odd while it is being changed, another even value afterwards. A reader that loads the
// same even value before and after has one consistent record. The writer may have died in the middle of a change, so a
// reader tries for a limited time.
// Always: the file is mapped read-only and checked once; until it is there, each query looks for it again. A file that
// was cut after it was mapped counts as missing.
// Elsewhere: the form of the file (interface_db.h).
#include "if_mgr.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <iterator>

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_files.h"
#include "counters.h"

namespace
{
constexpr std::int64_t TORN_NS = 10 * 1000 * 1000;

using if_record = std::array<std::uint32_t, IFDB_RECORD_WORDS>;
using word_ref = std::atomic_ref<std::uint32_t>;

std::int64_t now_ns()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

// The database as it is mapped. The descriptor stays open to ask for the file's length: a word beyond its end, once a
// manager has cut it, would end this process.
struct mapped_database {
    int fd = -1;
    std::uint32_t *words = nullptr; // null while there is none
};

bool is_long_enough(int fd)
{
    struct stat st = {};
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= static_cast<off_t>(IFDB_BYTES);
}

// Maps the file behind `fd` when it has the database's form.
std::uint32_t *map_database(int fd)
{
    if (!is_long_enough(fd))
        return nullptr;
    void *const at = mmap(nullptr, IFDB_BYTES, PROT_READ, MAP_SHARED, fd, 0);
    if (at == MAP_FAILED)
        return nullptr;
    auto *const words = static_cast<std::uint32_t *>(at);
    if (std::equal(std::begin(IFDB_HEADER), std::end(IFDB_HEADER), words))
        return words;
    (void)munmap(at, IFDB_BYTES);
    return nullptr;
}

void let_go(mapped_database &db)
{
    if (db.words != nullptr)
        (void)munmap(db.words, IFDB_BYTES);
    if (db.fd >= 0)
        (void)close(db.fd);
    db = {};
}

// The mapped database; null while there is none.
std::uint32_t *database()
{
    static mapped_database db;
    static bool reported = false;
    if (db.words != nullptr && is_long_enough(db.fd))
        return db.words;
    let_go(db);
    if (card_dir_path().empty())
        return nullptr;
    static const std::string &path = *new std::string(card_dir_path() + "/" + IFDB_FILE);
    db.fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (db.fd < 0)
        return nullptr;
    db.words = map_database(db.fd);
    if (db.words != nullptr)
        return db.words;
    let_go(db);
    if (!reported) {
        reported = true;
        (void)std::fprintf(stderr, "%s: %s: is not an interface database; no interface exists\n",
                           program_invocation_short_name, path.c_str());
    }
    return nullptr;
}

// Copies a record's words. Returns whether no change fell between them.
bool try_copy(std::uint32_t *from, if_record &to)
{
    const std::uint32_t before = word_ref(from[IFDB_SEQUENCE]).load(std::memory_order_acquire);
    if ((before & 1) != 0)
        return false;
    to[IFDB_SEQUENCE] = before;
    for (unsigned i = IFDB_FLAGS; i <= IFDB_VLAN; ++i)
        to[i] = word_ref(from[i]).load(std::memory_order_acquire); // so that the sequence is read again after them
    return word_ref(from[IFDB_SEQUENCE]).load(std::memory_order_relaxed) == before;
}

// Reads the record of an interface that exists and has all that `flags` ask for. Returns 0 or -1.
int read_record(std::uint32_t ifid, std::uint32_t flags, if_record &out)
{
    std::uint32_t *const words = database();
    if (words == nullptr || ifid >= IFDB_RECORDS)
        return -1;
    std::uint32_t *const record = words + IFDB_HEADER_WORDS + ifid * IFDB_RECORD_WORDS;
    if (!try_copy(record, out)) {
        const std::int64_t deadline = now_ns() + TORN_NS;
        while (!try_copy(record, out)) {
            if (now_ns() >= deadline) {
                ++platform_counters.interface_reads_torn;
                return -1;
            }
            (void)sched_yield();
        }
    }
    return (out[IFDB_FLAGS] & (IFDB_EXISTS | flags)) == (IFDB_EXISTS | flags) ? 0 : -1;
}

std::int32_t read_word(std::uint32_t ifid, std::uint32_t flags, ifdb_word word)
{
    if_record record;
    return read_record(ifid, flags, record) == 0 ? static_cast<std::int32_t>(record[word]) : -1;
}
} // namespace

int if_get_address(std::uint32_t ifid, std::uint32_t *rmode, std::uint32_t *scratch)
{
    if_record record;
    if (read_record(ifid, 0, record) != 0)
        return -1;
    *rmode = record[IFDB_RMODE];
    if (scratch != nullptr)
        *scratch = 0;
    return 0;
}

int if_get_ip(std::uint32_t ifid, std::uint32_t *address, std::uint32_t *mask)
{
    if_record record;
    if (read_record(ifid, IFDB_HAS_ADDRESS, record) != 0)
        return -1;
    *address = record[IFDB_ADDRESS];
    *mask = record[IFDB_MASK];
    return 0;
}

std::int32_t if_get_context_id(std::uint32_t ifid) { return read_word(ifid, IFDB_HAS_CONTEXT, IFDB_CONTEXT); }

int if_get_status(std::uint32_t ifid)
{
    if_record record;
    if (read_record(ifid, 0, record) != 0)
        return -1;
    return (record[IFDB_FLAGS] & IFDB_UP) != 0 ? 1 : 0;
}

std::int32_t if_get_bvi(std::uint32_t ifid) { return read_word(ifid, 0, IFDB_BVI); }
std::int32_t if_get_vlanid(std::uint32_t ifid) { return read_word(ifid, IFDB_HAS_VLAN, IFDB_VLAN); }
