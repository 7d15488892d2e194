// if_db.cpp - writes the interface database.
//
// Always: the sequence word of a record is odd before its first field changes and even after its last one.
// Elsewhere: the form of the file (interface_db.h), its readers (platform/host/if_mgr.cpp).

#include "if_db.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_files.h"

namespace
{
using word_ref = std::atomic_ref<std::uint32_t>;

std::uint32_t *record_at(const if_db &db, std::uint32_t ifid)
{
    return db.words + IFDB_HEADER_WORDS + ifid * IFDB_RECORD_WORDS;
}

int complain(const char *name, const std::string &path)
{
    std::fprintf(stderr, "%s: %s: %s\n", name, path.c_str(), std::strerror(errno));
    return -1;
}

std::uint32_t *map_file(int fd)
{
    void *const at = mmap(nullptr, IFDB_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return at == MAP_FAILED ? nullptr : static_cast<std::uint32_t *>(at);
}

// A database that an earlier manager left, or null.
std::uint32_t *map_existing(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat st = {};
    std::uint32_t *words = nullptr;
    if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == static_cast<off_t>(IFDB_BYTES))
        words = map_file(fd);
    if (fd >= 0)
        (void)close(fd);
    if (words == nullptr || std::equal(std::begin(IFDB_HEADER), std::end(IFDB_HEADER), words))
        return words;
    (void)munmap(words, IFDB_BYTES);
    return nullptr;
}

// Makes a database under another name, gives it its header and then its name.
std::uint32_t *map_new(const std::string &path)
{
    const std::string fresh = path + ".new";
    (void)unlink(fresh.c_str()); // one that an earlier process did not finish
    const int fd = open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return nullptr;
    errno = posix_fallocate(fd, 0, static_cast<off_t>(IFDB_BYTES));
    std::uint32_t *words = errno == 0 ? map_file(fd) : nullptr;
    (void)close(fd);
    if (words == nullptr)
        return nullptr;
    std::copy(std::begin(IFDB_HEADER), std::end(IFDB_HEADER), words);
    if (rename(fresh.c_str(), path.c_str()) == 0)
        return words;
    (void)munmap(words, IFDB_BYTES);
    return nullptr;
}
} // namespace

int if_db_open(if_db *db, const char *name, if_db_earlier earlier)
{
    if (card_dir_path().empty())
        return -1;
    const std::string path = card_dir_path() + "/" + IFDB_FILE;
    db->words = map_existing(path);
    if (db->words == nullptr) {
        db->words = map_new(path);
        return db->words == nullptr ? complain(name, path) : 0;
    }
    for (std::uint32_t ifid = 0; ifid < IFDB_RECORDS; ++ifid)
        if ((record_at(*db, ifid)[IFDB_SEQUENCE] & 1) != 0 ||
            (earlier == if_db_earlier::remove && record_at(*db, ifid)[IFDB_FLAGS] != 0))
            if_db_write(*db, ifid, {});
    return 0;
}

void if_db_close(if_db *db)
{
    if (db->words != nullptr)
        (void)munmap(db->words, IFDB_BYTES);
    db->words = nullptr;
}

if_db_record if_db_read(const if_db &db, std::uint32_t ifid)
{
    const std::uint32_t *const words = record_at(db, ifid);
    return {words[IFDB_FLAGS], words[IFDB_RMODE],   words[IFDB_BVI], words[IFDB_ADDRESS],
            words[IFDB_MASK],  words[IFDB_CONTEXT], words[IFDB_VLAN]};
}

void if_db_write(const if_db &db, std::uint32_t ifid, const if_db_record &record)
{
    std::uint32_t *const words = record_at(db, ifid);
    const std::uint32_t before = word_ref(words[IFDB_SEQUENCE]).load(std::memory_order_relaxed);
    const std::uint32_t changing = before | 1; // odd already when an earlier writer died while writing
    word_ref(words[IFDB_SEQUENCE]).store(changing, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    const std::uint32_t fields[] = {record.flags, record.mode, record.bvi, record.address,
                                    record.mask,  record.ctx,  record.vlan};
    for (unsigned i = 0; i < IFDB_RECORD_WORDS - 1; ++i)
        word_ref(words[i + 1]).store(fields[i], std::memory_order_relaxed);
    word_ref(words[IFDB_SEQUENCE]).store(changing + 1, std::memory_order_release);
}
