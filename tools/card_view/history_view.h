// history_view.h - the event history of a component, read beside its writer or after its end.
//
// The writer makes room (tail moves), writes the record, then publishes it (head moves). A slow reader may be overtaken
// while it reads, so each record is copied first and used only if tail had not passed it afterwards.
// Always: the sizes in a record are checked against the ring, and no read leaves the file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mapped_file.h"

struct history_entry {
    std::uint64_t at;       // bytes ever written before it: gives its place in the ring
    std::uint64_t time_ns;  // since 1970
    std::uint32_t type;     // event type
    std::uint32_t category; // first word of the data
    int context;            // of a text that starts with "<Ctx:N>"; else -1
    std::string text;       // as it was written, without the NUL
};

struct history_view {
    std::string path;
    mapped_file file;
    std::uint64_t capacity = 0; // bytes of the ring
    std::uint64_t next = 0;     // where the next record to be read starts
    std::uint64_t lost = 0;     // bytes that were overwritten before they could be read
    bool is_open() const { return file.is_open(); }
};

// Opens the history of `component` in the card directory `card`, at its oldest record. Returns an open view, or one
// that is not open with the reason in `why`.
history_view history_open(const std::string &card, std::uint32_t component, std::string *why);

// The same for its errors: the ring of errors alone, which traces do not push them out of, or else the whole history.
history_view history_open_errors(const std::string &card, std::uint32_t component, std::string *why);

// How a read went on.
enum class history_end {
    caught_up, // all records up to the head are read
    damaged,   // an invalid record: the rest up to the head of that moment was skipped
    replaced,  // the name is another file's by now, or no file's, and the rest was read; or the file is shorter: open
               // anew
};

// Appends the records from view.next on to `records`, oldest first, and moves next after them.
history_end history_read(history_view &view, std::vector<history_entry> &records);

// The byte after the newest record: what a call logs comes after the head as it was before the call.
std::uint64_t history_head(const history_view &view);

// The message without "<Ctx:N>" in one line: line ends at its ends left out, control bytes inside as blanks.
std::string history_line(const history_entry &record);

// Categories by name. name: "errors", "main-loop" and so on, any unambiguous beginning, the registered name, or the
// number 100 to 111.
struct history_category {
    std::uint32_t number;
    const char *name;
    const char *registered; // as the debug service knows it
};
extern const std::vector<history_category> HISTORY_CATEGORIES;
std::optional<std::uint32_t> history_category_of(std::string_view word);
const char *history_category_name(std::uint32_t number); // "?" for an unknown one

// An age such as "90", "90s", "500ms", "10m", "2h" or "1d", in nanoseconds.
std::optional<std::uint64_t> history_age_of(std::string_view word);

// The time an age ago, since 1970; 0 for an age before that.
std::uint64_t history_time_before(std::uint64_t age_ns);

// Which records are wanted; an empty list lets all pass.
struct history_filter {
    std::vector<std::uint32_t> categories;
    std::vector<std::uint32_t> contexts;
    std::uint64_t since_ns = 0; // since 1970
};
bool history_passes(const history_filter &filter, const history_entry &record);

// A record's time in UTC: 2026-01-31T23:59:59.000001Z.
std::string history_time(std::uint64_t time_ns);
