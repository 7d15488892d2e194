// mapped_file.cpp - opens and maps, and says whether the name still means the same file.
//
// A file is known by device and inode: a writer that puts a new one under the name leaves the old one mapped here.
// Always: opening waits for no one, and no descriptor stays open.
#include "mapped_file.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

mapped_file::mapped_file(mapped_file &&other) noexcept
    : bytes(std::exchange(other.bytes, nullptr)), size(other.size), device(other.device), inode(other.inode)
{
}

mapped_file &mapped_file::operator=(mapped_file &&other) noexcept
{
    std::swap(bytes, other.bytes);
    std::swap(size, other.size);
    device = other.device;
    inode = other.inode;
    return *this;
}

mapped_file::~mapped_file()
{
    if (bytes != nullptr)
        (void)munmap(const_cast<void *>(bytes), size);
}

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
        const std::size_t size = static_cast<std::size_t>(found.st_size);
        void *const map = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
        if (map == MAP_FAILED) {
            *why = path + ": " + std::strerror(errno);
        } else {
            file.bytes = map;
            file.size = size;
            file.device = found.st_dev;
            file.inode = found.st_ino;
        }
    }
    if (fd >= 0)
        (void)close(fd);
    return file;
}

bool mapped_file_is_current(const mapped_file &file, const std::string &path)
{
    struct stat found = {};
    return file.is_open() && stat(path.c_str(), &found) == 0 && found.st_dev == file.device &&
           found.st_ino == file.inode && static_cast<std::size_t>(found.st_size) == file.size;
}

bool mapped_file_is_cut(const mapped_file &file, const std::string &path)
{
    struct stat found = {};
    return file.is_open() && stat(path.c_str(), &found) == 0 && found.st_dev == file.device &&
           found.st_ino == file.inode && static_cast<std::size_t>(found.st_size) < file.size;
}
