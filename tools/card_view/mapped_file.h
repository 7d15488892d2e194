// mapped_file.h - a file that another process writes, mapped to be read.
//
// Always: mapped read-only and shared, so a view can change nothing and sees each store; the map stays readable when
// the writer ends, crashes or puts another file in its place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>

struct mapped_file {
    const void *bytes = nullptr; // null: not open
    std::size_t size = 0;
    dev_t device = 0; // which file it is, whatever its name means by now
    ino_t inode = 0;

    mapped_file() = default;
    mapped_file(mapped_file &&other) noexcept;
    mapped_file &operator=(mapped_file &&other) noexcept;
    ~mapped_file();
    bool is_open() const { return bytes != nullptr; }
};

// Maps the file at `path`, which has to be a regular one of `least` bytes or more. Returns an open one, or one that is
// not open with the reason, which names the path, in `why`.
mapped_file mapped_file_open(const std::string &path, std::size_t least, std::string *why);

// Whether `path` still names the file that is mapped, in its size. False for one that is not open.
bool mapped_file_is_current(const mapped_file &file, const std::string &path);

// Whether the file under `path` is the one that is mapped and has become shorter: what was beyond its end must not be
// read any more, since that would be a fault that ends the reader.
bool mapped_file_is_cut(const mapped_file &file, const std::string &path);
