// view_support.h - memories and histories written word by word from their forms, for tests of the views.
#pragma once

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "daemon.h"
#include "tables.h"

namespace harness
{
// The copies of a card, standing where their readers see them.
struct card_tables {
    table_image wired = table_at_start(TABLE_WIRED), ixp1 = table_at_start(TABLE_IXP), ixp2 = table_at_start(TABLE_IXP);
    template <class Change> void each(Change change)
    {
        for (table_image *copy : {&wired, &ixp1, &ixp2})
            change(*copy);
    }
};

inline void words_write(const std::string &path, const std::vector<std::uint32_t> &words)
{
    file_write(path, {reinterpret_cast<const char *>(words.data()), words.size() * 4});
}

inline void tables_write(const card_dir &card, const card_tables &tables)
{
    make_folder(card.at("mem"));
    words_write(card.at("mem/wired"), tables.wired.words);
    words_write(card.at("mem/ixp1"), tables.ixp1.words);
    words_write(card.at("mem/ixp2"), tables.ixp2.words);
}

// A known table. Tree 3: 10.20.0.0/16 with three paths (leaf 600, block 7), 10.1.1.2/32 (leaf 601), NAT 198.51.100.0/24
// (leaf 602, in 198.51.100.0), connected 10.1.2.0/24 (leaf 603), a leaf 604 for 10.21.0.0/16 whose block 8 is not
// valid.
inline card_tables known_tables()
{
    card_tables tables;
    tables.each([](table_image &t) {
        table_child(t, 3, 10, 256, 3);
        table_leaf_slot(t, 256, 20, 600);
        table_word(t, leaf_at(600), adjacency(5, 0x1001) | ADJACENCY_ECMP);
        table_word(t, leaf_at(600) + 4, t.base + ecmp_at(7));
        table_word(t, ecmp_at(7), 0x80000000u | 2u << 28 | 4u << 25);
        table_word(t, ecmp_at(7) + 4, path_entry(6, 0x1002));
        table_word(t, ecmp_at(7) + 8, path_entry(7, 0x1003));

        table_child(t, 256, 1, 257, 3);
        table_child(t, 257, 1, 258, 3);
        table_leaf_slot(t, 258, 2, 601);
        table_word(t, leaf_at(601), adjacency(5, 0x1001));
        table_leaf_slot(t, 257, 2, 603);
        table_word(t, leaf_at(603), adjacency(6, 0) | 0x80000000u);

        table_leaf_slot(t, 256, 21, 604);
        table_word(t, leaf_at(604), adjacency(5, 0x1001) | ADJACENCY_ECMP);
        table_word(t, leaf_at(604) + 4, t.base + ecmp_at(8));
        table_word(t, ecmp_at(8), 1u << 28 | 2u << 25);
        table_word(t, ecmp_at(8) + 4, path_entry(6, 0x1002));

        table_child(t, 3, 198, 259, 3);
        table_child(t, 259, 51, 260, 3);
        table_leaf_slot(t, 260, 100, 602);
        table_word(t, leaf_at(602), adjacency(9, 7) | 0x20000000u);
    });
    return tables;
}

constexpr std::uint32_t ip(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d)
{
    return a << 24 | b << 16 | c << 8 | d;
}

// A history file, written as the route manager's process would write it.
struct history_image {
    std::uint64_t capacity, tail = 0, head = 0;
    std::string ring;
    explicit history_image(std::uint64_t bytes) : capacity(bytes), ring(bytes, '\0') {}

    void put(std::uint64_t at, const void *from, std::size_t bytes)
    {
        for (std::size_t i = 0; i < bytes; ++i)
            ring[(at + i) % capacity] = static_cast<const char *>(from)[i];
    }
    template <class T> void put_number(std::uint64_t at, T number) { put(at, &number, sizeof number); }

    // Adds a record and drops the oldest ones for it.
    void add(std::uint32_t category, std::uint64_t time, std::string_view text)
    {
        const std::uint32_t length = static_cast<std::uint32_t>(text.size()) + 5, size = (20 + length + 7) / 8 * 8;
        while (head + size - tail > capacity) {
            std::uint32_t oldest = 0;
            for (unsigned i = 0; i < 4; ++i)
                reinterpret_cast<char *>(&oldest)[i] = ring[(tail + i) % capacity];
            tail += oldest;
        }
        put(head, std::string(size, '\0').data(), size);
        put_number(head, size);
        put_number<std::uint32_t>(head + 4, 0x730000);
        put_number(head + 8, time);
        put_number(head + 16, length);
        put_number(head + 20, category);
        put(head + 24, text.data(), text.size());
        head += size;
    }

    std::string bytes() const
    {
        std::string header(64, '\0');
        const std::uint32_t magic = 0x48495354, version = 1;
        std::memcpy(header.data(), &magic, 4);
        std::memcpy(header.data() + 4, &version, 4);
        std::memcpy(header.data() + 8, &capacity, 8);
        std::memcpy(header.data() + 16, &tail, 8);
        std::memcpy(header.data() + 24, &head, 8);
        return header + ring;
    }
    void write(const card_dir &card) const
    {
        make_folder(card.at("history"));
        file_write(card.at("history/115"), bytes());
    }
};
} // namespace harness
