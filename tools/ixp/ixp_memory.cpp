// ixp_memory.cpp - mapping a card's route-table memory.
//
// The file is allocated whole when it is made and never shrinks, so its size is looked at once, here.
#include "ixp_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "route_table.h"

ixp_memory::ixp_memory(const std::string &path, std::uint32_t base)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat found {
    };
    if (fd < 0 || ::fstat(fd, &found) != 0) {
        error = path + ": " + std::strerror(errno) + (errno == ENOENT ? " (no route manager has run there)" : "");
    } else if (found.st_size < static_cast<off_t>(HW_TABLE_BYTES)) {
        error = path + ": too short for a route table";
    } else if (void *at = ::mmap(nullptr, HW_TABLE_BYTES, PROT_READ, MAP_SHARED, fd, 0); at == MAP_FAILED) {
        error = path + ": " + std::strerror(errno);
    } else {
        table = {static_cast<const std::uint32_t *>(at), base};
    }
    if (fd >= 0)
        ::close(fd);
}

ixp_memory::~ixp_memory()
{
    if (table.words != nullptr)
        ::munmap(const_cast<std::uint32_t *>(table.words), HW_TABLE_BYTES);
}
