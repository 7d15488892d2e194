// history_view.cpp - reads the ring of the event history, also that of a daemon that has ended or crashed.
//
// The file is read once, header first. The daemon is at rest when this is called (it has ended, or has answered and
// waits); a record that is cut or overwritten all the same ends the listing, it is never trusted.

#include "history_view.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "card_dir.h"
#include "route_ids.h"

namespace
{
constexpr std::uint32_t HISTORY_MAGIC = 0x48495354, HISTORY_VERSION = 1;
constexpr std::size_t HEADER_BYTES = 64, HEADER_CAPACITY = 8, HEADER_TAIL = 16, HEADER_HEAD = 24;
constexpr std::size_t RECORD_LENGTH = 16, RECORD_CATEGORY = 20, RECORD_TEXT = 24; // offsets in a record

template <class T> T number_at(const std::vector<char> &image, std::size_t at)
{
    T value;
    std::memcpy(&value, image.data() + at, sizeof value);
    return value;
}

// The live bytes of the ring in one piece, oldest first; empty when the file is no history.
std::vector<char> ring_read(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> image(std::istreambuf_iterator<char>(file), {});
    if (image.size() < HEADER_BYTES || number_at<std::uint32_t>(image, 0) != HISTORY_MAGIC ||
        number_at<std::uint32_t>(image, 4) != HISTORY_VERSION)
        return {};
    const std::uint64_t capacity = number_at<std::uint64_t>(image, HEADER_CAPACITY);
    const std::uint64_t tail = number_at<std::uint64_t>(image, HEADER_TAIL);
    const std::uint64_t head = number_at<std::uint64_t>(image, HEADER_HEAD);
    if (capacity != image.size() - HEADER_BYTES || head < tail || head - tail > capacity)
        return {};
    std::vector<char> ring;
    ring.reserve(head - tail);
    for (std::uint64_t at = tail; at < head; ++at)
        ring.push_back(image[HEADER_BYTES + at % capacity]);
    return ring;
}

// The record's text in one line: line ends inside it as blanks, those at its ends left out.
std::string one_line(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\0'))
        text.pop_back();
    for (char &c : text)
        if (c == '\n')
            c = ' ';
    return text;
}
} // namespace

int history_print(std::size_t count, unsigned skipped_category)
{
    const std::string path = card_dir_path() + "/history/" + std::to_string(ROUTE_HIST_ID);
    const std::vector<char> ring = ring_read(path);
    std::deque<std::string> lines;
    for (std::size_t at = 0; ring.size() - at > RECORD_TEXT;) {
        const std::size_t size = number_at<std::uint32_t>(ring, at);
        const std::size_t length = number_at<std::uint32_t>(ring, at + RECORD_LENGTH);
        if (size <= RECORD_TEXT || size % 8 != 0 || size > ring.size() - at || length < 5 ||
            RECORD_CATEGORY + length > size)
            break;
        const std::uint32_t category = number_at<std::uint32_t>(ring, at + RECORD_CATEGORY);
        if (category != skipped_category)
            lines.push_back(std::to_string(category) + "  " +
                            one_line(std::string(ring.data() + at + RECORD_TEXT, length - 4)));
        if (lines.size() > count)
            lines.pop_front();
        at += size;
    }
    if (ring.empty()) {
        std::fprintf(stderr, "route_example: %s: no valid event history\n", path.c_str());
        return -1;
    }
    for (const std::string &line : lines)
        std::printf("  %s\n", line.c_str());
    return 0;
}
