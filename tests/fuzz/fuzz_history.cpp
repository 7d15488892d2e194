// fuzz_history.cpp - an event history in any form, read at once and followed, while it is stored to, cut and replaced.
//
// An input is: how it is read, its tail and head, the length of its ring, then the ring's first bytes up to a length of
// their own, then steps of a follower's life. It is read out of a block of just the file's size, so that no read beside
// it stays unseen, or mapped, so that it can be cut. What it says is printed in every form: data has to be legal, and a
// record one line without control bytes, whatever stands in it.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "card_view/history_view.h"
#include "fuzz_input.h"
#include "output.h"
#include "run.h"

namespace
{
constexpr std::size_t HEADER = 64, MAX_RING = 12288, MAX_STEPS = 32;
constexpr std::uint32_t ROUTE_MANAGER = 115, MAGIC = 0x48495354, VERSION = 1;

std::string &card()
{
    static auto *const path = new std::string;
    return *path;
}
std::string file_name() { return card() + "/history/115"; }

void make_card()
{
    const char *const parent = std::getenv("TMPDIR");
    card() = std::string(parent != nullptr ? parent : "/tmp") + "/hist.XXXXXX";
    if (mkdtemp(card().data()) == nullptr || !std::filesystem::create_directory(card() + "/history"))
        fuzz_fail("no card directory");
    (void)setenv("CARD_DIR", card().c_str(), 1);
    std::atexit([] { std::filesystem::remove_all(card()); });
}

// A number as a writer would have it, a multiple of 8 near the ring's length, or any.
std::uint64_t number_of(fuzz_input &input, bool any)
{
    const std::uint64_t low = input.word();
    return any ? low << 32 | input.word() : low % (4 * MAX_RING) * 8;
}

void write_file(const std::string &name, const std::vector<std::uint8_t> &image)
{
    const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, image.data(), image.size()) != static_cast<ssize_t>(image.size()) || close(fd) != 0)
        fuzz_fail("write");
}

std::vector<std::uint8_t> image_of(fuzz_input &input, std::uint8_t how)
{
    std::uint32_t head[2] = {MAGIC, VERSION};
    const std::uint64_t tail = number_of(input, (how & 2) != 0), filled = number_of(input, (how & 4) != 0);
    const std::size_t ring = 8 + input.half() % MAX_RING / 8 * 8;
    const std::uint64_t bounds[] = {ring + ((how & 8) != 0 ? input.byte() : 0u), tail, tail + filled};
    std::vector<std::uint8_t> image(HEADER + ring);
    head[0] ^= (how & 0xC0) == 0xC0 ? input.byte() : 0u;
    std::memcpy(image.data(), head, sizeof head);
    std::memcpy(image.data() + 8, bounds, sizeof bounds);
    const std::span<const std::uint8_t> bytes = input.run(std::min<std::size_t>(ring, input.half()));
    for (std::size_t i = 0; i < bytes.size(); ++i) // from the tail on, as records are
        image[HEADER + (tail + i) % ring] = bytes[i];
    return image;
}

void check_records(const history_view &view, const std::vector<history_entry> &entries)
{
    std::uint64_t bytes = 0;
    for (const history_entry &entry : entries) {
        bytes += entry.text.size();
        for (const char c : history_line(entry))
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
                fuzz_fail("a control byte in a line");
        if (history_time(entry.time_ns).size() != 27)
            fuzz_fail("a time of another form");
    }
    if (bytes > view.capacity)
        fuzz_fail("more text than the ring holds");
}

// A word that the writer stores; the ring's length, which is read once, stays.
void store(const history_view &view, std::uint8_t *at, std::size_t place, std::uint64_t word)
{
    if (place == 8)
        return;
    if (at != nullptr) {
        std::memcpy(at + place, &word, sizeof word);
        return;
    }
    const int fd = open(view.path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0 || pwrite(fd, &word, sizeof word, static_cast<off_t>(place)) != sizeof word || close(fd) != 0)
        fuzz_fail("store");
}

// One step of the file's life, then a look of the follower. at: the file in memory of our own, or null.
void live(fuzz_input &input, history_view &view, std::uint8_t *at)
{
    const std::uint8_t what = input.byte();
    const bool is_cut = what >= 0xF8, is_replaced = what < 0xF8 && what >= 0xF0;
    const std::size_t place = input.half() % (view.file.size / 8) * 8;
    store(view, at, place, number_of(input, (what & 1) != 0));
    if (is_cut && truncate(view.path.c_str(), static_cast<off_t>(input.byte())) != 0)
        fuzz_fail("cut");
    if (is_replaced) {
        write_file(view.path + ".new", std::vector<std::uint8_t>(view.file.size));
        std::filesystem::rename(view.path + ".new", view.path);
    }
    std::vector<history_entry> entries;
    const history_end end = history_read(view, entries);
    check_records(view, entries);
    if ((is_cut || is_replaced) && end != history_end::replaced)
        fuzz_fail("a file that is not the one any more");
}

void follow(fuzz_input &input, bool is_mapped)
{
    std::string why;
    history_view view = history_open(card(), ROUTE_MANAGER, &why);
    if (view.is_open() != why.empty())
        fuzz_fail("neither open nor a reason");
    if (!view.is_open())
        return;
    const void *const map = view.file.bytes;
    const std::unique_ptr<std::uint64_t[]> block(new std::uint64_t[view.file.size / 8]);
    std::memcpy(block.get(), map, view.file.size);
    if (!is_mapped)
        view.file.bytes = block.get();
    std::vector<history_entry> entries;
    (void)history_read(view, entries);
    check_records(view, entries);
    entries.clear();
    if (history_read(view, entries) == history_end::caught_up && !entries.empty())
        fuzz_fail("a record twice");
    // What was cut or replaced is not read any further.
    for (std::size_t i = 0; i < MAX_STEPS && !input.at_end() && mapped_file_is_current(view.file, view.path); ++i)
        live(input, view, is_mapped ? nullptr : reinterpret_cast<std::uint8_t *>(block.get()));
    view.file.bytes = map;
}

// The command, in every form.
void print()
{
    routectl_options options;
    routectl_session session;
    const routectl_answer answer = execute_words(options, session, {"history", "last", "100"}).answer;
    if (!nlohmann::json::accept(output_json(output_document("history", answer))))
        fuzz_fail("a document that is none");
    const std::string lines = output_lines(answer), plain = output_plain(answer, false);
    if (answer.status == ROUTECTL_DONE &&
        std::count(lines.begin(), lines.end(), '\n') != static_cast<std::ptrdiff_t>(answer.records.size()))
        fuzz_fail("a record that is not a line");
    for (const std::string &text : {lines, plain})
        for (const char c : text)
            if (c != '\n' && (static_cast<unsigned char>(c) < 0x20 || c == 0x7F))
                fuzz_fail("a control byte on the terminal");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (card().empty())
        make_card();
    fuzz_input input{{data, size}};
    const std::uint8_t how = input.byte();
    write_file(file_name(), image_of(input, how));
    print();
    follow(input, (how & 1) != 0);
    return 0;
}
