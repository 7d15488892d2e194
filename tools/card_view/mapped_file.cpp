// mapped_file.cpp - opens and maps, and says whether the name still means the same file.
//
// A file is known by device and inode: a writer that puts a new one under the name leaves the old one mapped here. A
// provider ends the connection by which it handed a memory out.
// Always: opening a file waits for no one, and its descriptor does not stay open.
#include "mapped_file.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "provided_memory.h"
#include "route_table.h"

mapped_file::mapped_file(mapped_file &&other) noexcept
    : bytes(std::exchange(other.bytes, nullptr)), size(other.size), device(other.device), inode(other.inode),
      connection(std::exchange(other.connection, -1))
{
}

mapped_file &mapped_file::operator=(mapped_file &&other) noexcept
{
    std::swap(bytes, other.bytes);
    std::swap(size, other.size);
    std::swap(connection, other.connection);
    device = other.device;
    inode = other.inode;
    return *this;
}

mapped_file::~mapped_file()
{
    if (bytes != nullptr)
        (void)munmap(const_cast<void *>(bytes), size);
    if (connection >= 0)
        (void)close(connection);
}

namespace
{
// Maps the first `size` bytes of what is open as `fd`; says in `why` when that cannot be.
void map_to_read(mapped_file &file, int fd, std::size_t size, const std::string &path, std::string *why)
{
    void *const map = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
        *why = path + ": " + std::strerror(errno);
        return;
    }
    file.bytes = map;
    file.size = size;
}
} // namespace

mapped_file mapped_file_open(const std::string &path, std::size_t least, std::string *why)
{
    mapped_file file;
    // Without waiting: a pipe of this name would have no writer.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat found = {};
    if (fd < 0 || fstat(fd, &found) != 0) {
        *why = path + (errno == ENOENT ? ": missing: no route manager has run on this card" : ": ") +
               (errno == ENOENT ? "" : std::strerror(errno));
    } else if (!S_ISREG(found.st_mode) || static_cast<std::size_t>(found.st_size) < least) {
        *why = path + ": not a regular file of at least " + std::to_string(least) + " bytes";
    } else {
        map_to_read(file, fd, static_cast<std::size_t>(found.st_size), path, why);
        file.device = found.st_dev;
        file.inode = found.st_ino;
    }
    if (fd >= 0)
        (void)close(fd);
    return file;
}

mapped_file mapped_memory_open(const std::string &path, memory_source source, unsigned timeout_ms, std::string *why)
{
    if (source == memory_source::file)
        return mapped_file_open(path, HW_TABLE_BYTES, why);
    mapped_file file;
    provided_memory memory;
    if (provided_memory_ask(path, MEMORY_READ, timeout_ms, &memory, why) != 0)
        return file;
    file.connection = memory.connection;
    map_to_read(file, memory.descriptor, HW_TABLE_BYTES, path, why);
    (void)close(memory.descriptor);
    return file;
}

bool mapped_file_is_current(const mapped_file &file, const std::string &path)
{
    if (file.connection >= 0) {
        pollfd state = {file.connection, POLLRDHUP, 0};
        return file.is_open() && poll(&state, 1, 0) == 0;
    }
    struct stat found = {};
    return file.is_open() && stat(path.c_str(), &found) == 0 && found.st_dev == file.device &&
           found.st_ino == file.inode && static_cast<std::size_t>(found.st_size) == file.size;
}

bool mapped_file_is_cut(const mapped_file &file, const std::string &path)
{
    struct stat found = {};
    return file.is_open() && file.connection < 0 && stat(path.c_str(), &found) == 0 && found.st_dev == file.device &&
           found.st_ino == file.inode && static_cast<std::size_t>(found.st_size) < file.size;
}
