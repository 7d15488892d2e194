// mapped_file.h - a file or memory that another process writes, mapped to be read.
//
// A table memory is a file of the card directory, or its provider hands it out.
// Always: mapped read-only and shared, so a view can change nothing and sees each store; the map stays readable when
// the writer ends, crashes or puts another file in its place, and when a provider ends.
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
    int connection = -1; // to the provider that handed it out; -1: it is a file

    mapped_file() = default;
    mapped_file(mapped_file &&other) noexcept;
    mapped_file &operator=(mapped_file &&other) noexcept;
    ~mapped_file();
    bool is_open() const { return bytes != nullptr; }
};

// Maps the file at `path`, which has to be a regular one of `least` bytes or more. Returns an open one, or one that is
// not open with the reason, which names the path, in `why`.
mapped_file mapped_file_open(const std::string &path, std::size_t least, std::string *why);

// Maps the table memory at `path`: its file, or what its provider hands out to readers. Returns as mapped_file_open.
// timeout_ms: for the provider's answer.
enum class memory_source { file, provider };
mapped_file mapped_memory_open(const std::string &path, memory_source source, unsigned timeout_ms, std::string *why);

// Whether `path` still names the file that is mapped, in its size; of what a provider handed out, whether that is still
// searched, as far as its provider tells. False for one that is not open.
bool mapped_file_is_current(const mapped_file &file, const std::string &path);

// Whether the file under `path` is the one that is mapped and has become shorter: what was beyond its end must not be
// read any more, since that would be a fault that ends the reader.
bool mapped_file_is_cut(const mapped_file &file, const std::string &path);
