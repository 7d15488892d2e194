// sdwrap_history.cpp - the event history: a ring in a mapped file, so that it can be read after a crash.
//
// A reader loads `tail` and `head` and copies the records between them, at any moment and also when the writer died in
// the middle of a record. Then it loads tail again: what lies below it may have been overwritten while it was copied.
// So the writer first makes room (tail moves), then writes the record, and then moves head.
// A signal may stop the process at any instruction of that; its handler writes records too and then ends the process.
// They begin at head, which one store moves behind a record's last byte; one that was stopped before it is overwritten.
// Always: tail and head are multiples of 8, head - tail <= capacity, and the records between them fill it exactly. The
// clock is the only system call for a record.
// Records of errors go to a second ring of the same form as well, which traces cannot push them out of.
// Elsewhere: the form of the file (history_file.h), which categories are kept (sdwrap.cpp), what a record of the
// process holds (route_log.cpp).
#include "sdwrap.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_files.h"
#include "counters.h"
#include "history_file.h"
#include "sdwrap_gates.h"

namespace
{
constexpr std::size_t MIN_CAPACITY = 1024, MAX_CAPACITY = std::size_t{1} << 30;

struct history {
    history_header *header = nullptr; // null until set up
    std::uint8_t *ring = nullptr;
    std::uint64_t capacity = 0;
    std::uint64_t head = 0, tail = 0; // as in the file, which others could change under us
    std::uint64_t lap = 0;            // a multiple of capacity, less than two of it below head
    std::uint32_t component = 0;
};
history own, errors; // the errors' ring is missing where it could not be had
std::size_t default_bytes = 0x10000;

void publish(std::uint64_t &word, std::uint64_t value)
{
    std::atomic_ref<std::uint64_t>(word).store(value, std::memory_order_release);
}

// Where byte `at` of all that was ever written lies in the ring, for one from tail on that is less than two capacities
// above lap. The division that this leaves out was a fifth of a record's time.
std::uint64_t place_of(const history &h, std::uint64_t at)
{
    const std::uint64_t place = at < h.lap ? at + h.capacity - h.lap : at - h.lap;
    return place < h.capacity ? place : place - h.capacity;
}

void ring_write(const history &h, std::uint64_t at, const void *from, std::size_t bytes)
{
    const std::size_t place = place_of(h, at);
    const std::size_t first = bytes < h.capacity - place ? bytes : h.capacity - place;
    std::memcpy(h.ring + place, from, first);
    if (first != bytes)
        std::memcpy(h.ring, static_cast<const std::uint8_t *>(from) + first, bytes - first);
}

void ring_read(const history &h, std::uint64_t at, void *to, std::size_t bytes)
{
    const std::size_t offset = at % h.capacity;
    const std::size_t first = bytes < h.capacity - offset ? bytes : h.capacity - offset;
    std::memcpy(to, h.ring + offset, first);
    std::memcpy(static_cast<std::uint8_t *>(to) + first, h.ring, bytes - first);
}

// Whether the mapped file is a history of this capacity, down to its last record.
bool is_valid(const history &h)
{
    const history_header &f = *h.header;
    if (f.magic != HISTORY_MAGIC || f.version != HISTORY_VERSION || f.capacity != h.capacity || f.head < f.tail ||
        f.head - f.tail > h.capacity || f.head % HISTORY_ALIGN != 0 || f.tail % HISTORY_ALIGN != 0)
        return false;
    for (std::uint64_t at = f.tail; at != f.head;) {
        history_record_header record;
        if (f.head - at < history_record_bytes(0))
            return false;
        ring_read(h, at, &record, sizeof record);
        if (record.size % HISTORY_ALIGN != 0 || record.size > f.head - at ||
            record.size < sizeof record + std::uint64_t{record.data_bytes})
            return false;
        at += record.size;
    }
    return true;
}

// Maps the file `name`. Returns false with a history that is not set up.
bool map_file(const char *name, history &h, bool *made)
{
    const std::size_t bytes = sizeof(history_header) + h.capacity;
    const int fd = card_dir_file(name, bytes, made);
    if (fd < 0)
        return false;
    void *const at = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
    (void)close(fd);
    if (at == MAP_FAILED)
        return false;
    h.header = static_cast<history_header *>(at);
    h.ring = static_cast<std::uint8_t *>(at) + sizeof(history_header);
    return true;
}

void unmap_file(history &h)
{
    if (h.header != nullptr)
        (void)munmap(h.header, sizeof(history_header) + h.capacity);
    h = {};
}

// Writes the header of an empty history; its first word last, so that a file half made is none.
void start_empty(history &h)
{
    h.header->version = HISTORY_VERSION;
    h.header->capacity = h.capacity;
    std::atomic_ref<std::uint32_t>(h.header->magic).store(HISTORY_MAGIC, std::memory_order_release);
}

// Takes away what stands in a history's place and is no file that this process can write, without opening it. A folder
// stays, and then there is no history.
void remove_other_than_file(const char *path)
{
    struct stat st = {};
    if (lstat(path, &st) == 0 && (!S_ISREG(st.st_mode) || faccessat(AT_FDCWD, path, R_OK | W_OK, AT_EACCESS) != 0))
        (void)unlink(path);
}

// Opens history/<component><suffix> with a ring of `bytes`, in place of what `h` was. Returns 0, or -1 (reported).
int open_history(std::uint32_t component, const char *suffix, std::size_t bytes, history &h)
{
    unmap_file(h);
    if (card_dir_path().empty())
        return -1;
    h.capacity = bytes;
    h.component = component;
    char name[32];
    (void)std::snprintf(name, sizeof name, "%s/%u%s", HISTORY_FOLDER, component, suffix);
    const std::string path = card_dir_path() + "/" + name;
    remove_other_than_file(path.c_str());
    bool made = false;
    if (!map_file(name, h, &made))
        return -1;
    if (!made && !is_valid(h)) {
        // Not written over in place: a reader may have the old file mapped.
        unmap_file(h);
        h.capacity = bytes;
        h.component = component;
        (void)unlink(path.c_str());
        if (!map_file(name, h, &made))
            return -1;
    }
    if (made)
        start_empty(h);
    h.head = h.header->head;
    h.tail = h.header->tail;
    h.lap = h.head - h.head % h.capacity;
    return 0;
}

// Drops the oldest records until `bytes` fit.
void make_room(history &h, std::uint64_t bytes)
{
    std::uint64_t tail = h.tail;
    while (h.head + bytes - tail > h.capacity) {
        std::uint32_t size = 0; // never wraps: records start at multiples of 8
        std::memcpy(&size, h.ring + place_of(h, tail), sizeof size);
        // Another program damaged the ring: all of it goes, since where the next record starts is not known.
        const bool damaged = size < sizeof(history_record_header) || size % HISTORY_ALIGN != 0 || size > h.head - tail;
        tail = damaged ? h.head : tail + size;
    }
    publish(h.tail, tail);
    publish(h.header->tail, tail);                       // also where it stays: a signal may have come between the two
    std::atomic_thread_fence(std::memory_order_release); // the record's bytes come after the tail
}

// Writes a record at the head: header, data, zeros up to its size.
void write_record(const history &h, const history_record_header &header, const void *data, std::size_t bytes)
{
    constexpr std::uint8_t ZEROS[HISTORY_ALIGN] = {};
    const std::size_t used = sizeof header + bytes;
    const std::uint64_t place = place_of(h, h.head);
    if (place + header.size <= h.capacity) { // nearly always: nothing wraps
        std::uint8_t *const at = h.ring + place;
        std::memcpy(at + header.size - sizeof ZEROS, ZEROS, sizeof ZEROS); // the data covers what is not padding
        std::memcpy(at, &header, sizeof header);
        std::memcpy(at + sizeof header, data, bytes);
        return;
    }
    ring_write(h, h.head, &header, sizeof header);
    ring_write(h, h.head + sizeof header, data, bytes);
    ring_write(h, h.head + used, ZEROS, header.size - used);
}

void append(history &h, const history_record_header &header, const void *data, std::size_t bytes)
{
    // Judged here, not where head moves: a signal may end the process in between.
    if (h.head - h.lap >= h.capacity)
        h.lap += h.capacity;
    make_room(h, header.size);
    write_record(h, header, data, bytes);
    publish(h.head, h.head + header.size);
    publish(h.header->head, h.head);
}

bool is_error(const void *record, std::size_t bytes)
{
    std::uint32_t category = 0;
    if (bytes >= sizeof category)
        std::memcpy(&category, record, sizeof category);
    return category == HISTORY_ERRORS_CATEGORY;
}
} // namespace

int sdwrap_hist_init(std::size_t bytes)
{
    if (bytes < MIN_CAPACITY || bytes > MAX_CAPACITY || bytes % HISTORY_ALIGN != 0)
        return -1;
    default_bytes = bytes; // what a component gets that asks for no size
    return 0;
}

int sdwrap_hist_init_for_uuid(std::uint32_t component, std::size_t bytes)
{
    if (bytes == 0)
        bytes = default_bytes;
    if (bytes < MIN_CAPACITY || bytes > MAX_CAPACITY || bytes % HISTORY_ALIGN != 0)
        return -1;
    if (open_history(component, "", bytes, own) != 0)
        return -1;
    sdwrap_close_early_gate(); // errors go to the history now; without one they stay on standard error
    (void)open_history(component, HISTORY_ERRORS_SUFFIX, HISTORY_ERRORS_CAPACITY, errors); // reported
    return 0;
}

int sdwrap_hist_set_event_subtype(std::uint32_t event_type, std::uint32_t subtype, unsigned on)
{
    if (own.header == nullptr || event_type >> 16 != own.component || on > 1 ||
        (subtype != DEBUG_ALL_CATEGORIES && !sdwrap_is_registered(subtype)))
        return -1;
    sdwrap_switch_history(subtype, on == 1);
    return 0;
}

int sdwrap_hist_event(std::uint32_t event_type, std::size_t bytes, const void *record)
{
    if (own.header == nullptr || event_type >> 16 != own.component || bytes > own.capacity)
        return -1;
    const std::uint64_t size = history_record_bytes(bytes);
    if (size > own.capacity)
        return -1;
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now); // cannot fail, and leaves errno alone
    const std::uint64_t ns =
        static_cast<std::uint64_t>(now.tv_sec) * 1000000000u + static_cast<std::uint64_t>(now.tv_nsec);
    history_record_header header = {
        static_cast<std::uint32_t>(size), event_type, {}, static_cast<std::uint32_t>(bytes)};
    std::memcpy(header.time_words, &ns, sizeof ns);

    append(own, header, record, bytes);
    if (errors.header != nullptr && size <= errors.capacity && is_error(record, bytes))
        append(errors, header, record, bytes);
    ++platform_counters.history_records;
    return 0;
}
