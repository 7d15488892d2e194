// history_view.cpp - reads the ring of an event history record by record, and says what the records mean.
//
// The ring is loaded in whole 8-byte words, since its writer may be storing at the same time: tail, head and every
// record are multiples of 8.
// Always: a record that tail passed while it was copied is not used.
// Elsewhere: its form (history_file.h), its writer and the order of the stores (sdwrap_history.cpp of the platform).
#include "history_view.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>
#include <utility>

#include <fmt/chrono.h>

#include "card_files.h"
#include "history_file.h"
#include "route_ids.h"

namespace
{
constexpr std::uint64_t WORD = 8; // bytes
constexpr std::size_t HEADER_BYTES = sizeof(history_header), CAPACITY_WORD = offsetof(history_header, capacity) / WORD,
                      TAIL_WORD = offsetof(history_header, tail) / WORD,
                      HEAD_WORD = offsetof(history_header, head) / WORD;
constexpr std::uint64_t RECORD_HEADER = sizeof(history_record_header), LEAST_RECORD = history_record_bytes(0);
static_assert(WORD == HISTORY_ALIGN);

std::uint64_t load_word(const history_view &view, std::size_t word)
{
    return __atomic_load_n(static_cast<const std::uint64_t *>(view.file.bytes) + word, __ATOMIC_ACQUIRE);
}

// The 8 bytes of the ring at the byte count `at`, a multiple of 8.
std::uint64_t ring_word(const history_view &view, std::uint64_t at)
{
    return load_word(view, (HEADER_BYTES + at % view.capacity) / WORD);
}

struct ring_bounds {
    std::uint64_t tail, head;
};

// Both of one moment: tail is the same before and after. Returns false while the writer is too fast for that.
bool load_bounds(const history_view &view, ring_bounds &bounds)
{
    constexpr unsigned TRIES = 1000;
    for (unsigned i = 0; i < TRIES; ++i) {
        bounds.tail = load_word(view, TAIL_WORD);
        bounds.head = load_word(view, HEAD_WORD);
        if (load_word(view, TAIL_WORD) == bounds.tail)
            return true;
    }
    return false;
}

// Whether head and tail can be those of this ring.
bool is_sound(const history_view &view, const ring_bounds &bounds)
{
    return bounds.tail <= bounds.head && bounds.head - bounds.tail <= view.capacity && bounds.tail % WORD == 0 &&
           bounds.head % WORD == 0;
}

int context_of(const std::string &text, std::size_t *message_at)
{
    constexpr std::string_view START = "<Ctx:";
    *message_at = 0;
    if (!text.starts_with(START))
        return -1;
    int context = -1;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + START.size(), end, context);
    if (error != std::errc{} || stop == end || *stop != '>')
        return -1;
    *message_at = static_cast<std::size_t>(stop - text.data()) + 1;
    return context;
}

// The record at view.next, copied word by word. head: of the moment. Empty when it is invalid.
std::vector<std::uint64_t> copy_record(const history_view &view, std::uint64_t head)
{
    const std::uint64_t left = head - view.next;
    const std::uint64_t size = ring_word(view, view.next) & 0xFFFFFFFF;
    if (size < LEAST_RECORD || size % WORD != 0 || size > left)
        return {};
    std::vector<std::uint64_t> words(size / WORD);
    for (std::size_t i = 0; i < words.size(); ++i)
        words[i] = ring_word(view, view.next + WORD * i);
    return words;
}

template <class T> T number_at(const std::vector<std::uint64_t> &words, std::size_t at)
{
    T value;
    std::memcpy(&value, reinterpret_cast<const char *>(words.data()) + at, sizeof value);
    return value;
}

// Decodes a copied record. Returns false when its data length does not fit the record.
bool decode(const std::vector<std::uint64_t> &words, std::uint64_t at, history_entry &record)
{
    const std::uint64_t length = number_at<std::uint32_t>(words, offsetof(history_record_header, data_bytes));
    if (RECORD_HEADER + length > words.size() * WORD)
        return false;
    record.at = at;
    record.type = number_at<std::uint32_t>(words, offsetof(history_record_header, event_type));
    record.time_ns = number_at<std::uint64_t>(words, offsetof(history_record_header, time_words));
    record.category = length >= HISTORY_AT_TEXT ? number_at<std::uint32_t>(words, RECORD_HEADER) : 0;
    if (length > HISTORY_AT_TEXT)
        record.text.assign(reinterpret_cast<const char *>(words.data()) + RECORD_HEADER + HISTORY_AT_TEXT,
                           length - HISTORY_AT_TEXT);
    while (!record.text.empty() && record.text.back() == '\0')
        record.text.pop_back();
    std::size_t message_at = 0;
    record.context = context_of(record.text, &message_at);
    return true;
}

// Moves a reader that was overtaken to the oldest record. Returns whether it was.
bool catch_tail(history_view &view, std::uint64_t tail)
{
    if (view.next >= tail)
        return false;
    view.lost += tail - view.next;
    view.next = tail;
    return true;
}
} // namespace

namespace
{
history_view open_file(const std::string &path, std::string *why)
{
    history_view view;
    view.path = path;
    view.file = mapped_file_open(view.path, HEADER_BYTES + WORD, why);
    if (!view.is_open())
        return view;
    const std::uint64_t first = load_word(view, 0);
    view.capacity = load_word(view, CAPACITY_WORD);
    if ((first & 0xFFFFFFFF) != HISTORY_MAGIC || first >> 32 != HISTORY_VERSION || view.capacity % WORD != 0 ||
        view.capacity != view.file.size - HEADER_BYTES) {
        *why = view.path + ": no event history";
        view.file = {};
        return view;
    }
    view.next = load_word(view, TAIL_WORD);
    return view;
}

std::string path_of(const std::string &card, std::uint32_t component)
{
    return fmt::format("{}/{}/{}", card, HISTORY_FOLDER, component);
}
} // namespace

history_view history_open(const std::string &card, std::uint32_t component, std::string *why)
{
    return open_file(path_of(card, component), why);
}

history_view history_open_errors(const std::string &card, std::uint32_t component, std::string *why)
{
    history_view errors = open_file(path_of(card, component) + HISTORY_ERRORS_SUFFIX, why);
    return errors.is_open() ? std::move(errors) : history_open(card, component, why);
}

history_end history_read(history_view &view, std::vector<history_entry> &records)
{
    if (mapped_file_is_cut(view.file, view.path))
        return history_end::replaced; // by a shorter one, in place
    // Checked before reading, so that a file that is replaced meanwhile is read to its end.
    const bool replaced = !mapped_file_is_current(view.file, view.path);
    ring_bounds bounds = {};
    if (!load_bounds(view, bounds))
        return history_end::caught_up; // with the next call
    bool is_damaged = !is_sound(view, bounds);
    if (!is_damaged && view.next > bounds.head) // written from the start again, in place
        view.next = bounds.tail;
    (void)catch_tail(view, is_damaged ? 0 : bounds.tail);
    while (!is_damaged && view.next < bounds.head) {
        const std::vector<std::uint64_t> words = copy_record(view, bounds.head);
        history_entry record;
        const bool is_whole = !words.empty() && decode(words, view.next, record);
        // The copy first, tail after it: what tail has not passed by now was not being overwritten.
        if (catch_tail(view, load_word(view, TAIL_WORD)))
            continue;
        is_damaged = !is_whole;
        if (is_whole) {
            view.next += words.size() * WORD;
            records.push_back(std::move(record));
        }
    }
    if (is_damaged && view.next < bounds.head)
        view.lost += bounds.head - view.next;
    if (is_damaged)
        view.next = bounds.head;
    return replaced ? history_end::replaced : is_damaged ? history_end::damaged : history_end::caught_up;
}

std::uint64_t history_head(const history_view &view) { return load_word(view, HEAD_WORD); }

std::string history_line(const history_entry &record)
{
    std::size_t start = 0;
    (void)context_of(record.text, &start);
    const auto is_end = [](char c) { return c == '\n' || c == '\r' || c == '\0'; };
    std::size_t end = record.text.size();
    while (start < end && is_end(record.text[start]))
        ++start;
    while (end > start && is_end(record.text[end - 1]))
        --end;
    std::string line = record.text.substr(start, end - start);
    for (char &c : line)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = ' ';
    return line;
}

const std::vector<history_category> HISTORY_CATEGORIES = {
    {ROUTE_DBG_ERRORS, "errors", "route manager errors"},
    {ROUTE_DBG_EVENTS, "events", "route manager events"},
    {ROUTE_DBG_MTS, "mts", "route manager MTS messages"},
    {ROUTE_DBG_LOCK, "lock", "route manager lock msg"},
    {ROUTE_DBG_WARNING, "warning", "route manager warning"},
    {ROUTE_DBG_INFO, "info", "route manager info messages"},
    {ROUTE_DBG_MAIN_LOOP, "main-loop", "route manager main loop messages"},
    {ROUTE_DBG_ADJ_EVENTS, "adj-events", "route manager adj-events"},
    {ROUTE_DBG_ADJ_ERRORS, "adj-errors", "route manager adj-errors"},
    {ROUTE_DBG_ADJ_READS, "adj-reads", "route manager adj-reads"},
    {ROUTE_DBG_ADJ_WRITES, "adj-writes", "route manager adj-writes"},
    {ROUTE_DBG_ADJ_DETAILS, "adj-details", "route manager adj-details"},
};

std::optional<std::uint32_t> history_category_of(std::string_view word)
{
    const history_category *found = nullptr;
    unsigned fitting = 0;
    for (const history_category &c : HISTORY_CATEGORIES) {
        if (word == c.name || word == c.registered || word == std::to_string(c.number))
            return c.number;
        if (!word.empty() && std::string_view(c.name).starts_with(word)) {
            found = &c;
            ++fitting;
        }
    }
    return fitting == 1 ? std::optional<std::uint32_t>(found->number) : std::nullopt;
}

const char *history_category_name(std::uint32_t number)
{
    for (const history_category &c : HISTORY_CATEGORIES)
        if (c.number == number)
            return c.name;
    return "?";
}

std::optional<std::uint64_t> history_age_of(std::string_view word)
{
    constexpr struct {
        std::string_view name;
        std::uint64_t ns;
    } UNITS[] = {{"", 1000000000},     {"ms", 1000000},      {"s", 1000000000},    {"m", 60000000000},
                 {"min", 60000000000}, {"h", 3600000000000}, {"d", 86400000000000}};
    std::uint64_t number = 0;
    const auto [stop, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc{} || number > 100000000)
        return std::nullopt;
    const std::string_view unit(stop, static_cast<std::size_t>(word.data() + word.size() - stop));
    for (const auto &u : UNITS)
        if (unit == u.name && number <= 10000000000000000000u / u.ns)
            return number * u.ns;
    return std::nullopt;
}

std::uint64_t history_time_before(std::uint64_t age_ns)
{
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now); // cannot fail
    const auto now_ns = static_cast<std::uint64_t>(now.tv_sec) * 1000000000 + static_cast<std::uint64_t>(now.tv_nsec);
    return now_ns > age_ns ? now_ns - age_ns : 0;
}

bool history_passes(const history_filter &filter, const history_entry &record)
{
    const auto holds = [](const std::vector<std::uint32_t> &list, std::uint32_t value) {
        return list.empty() || std::find(list.begin(), list.end(), value) != list.end();
    };
    if (record.time_ns < filter.since_ns || !holds(filter.categories, record.category))
        return false;
    return filter.contexts.empty() ||
           (record.context >= 0 && holds(filter.contexts, static_cast<std::uint32_t>(record.context)));
}

std::string history_time(std::uint64_t time_ns)
{
    const auto seconds = static_cast<std::time_t>(time_ns / 1000000000); // 64 bits of nanoseconds end in the year 2554
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z", fmt::gmtime(seconds), time_ns % 1000000000 / 1000);
}
