// table_view.cpp - follows the words of a mapped table from a tree's root to a leaf and prints what they say.
//
// The numbers of the format come from hw_table.h and mtrie_records.h; the walk is this file's own. Every word is loaded
// once, whole, with acquire order, and no word is trusted: an address outside its table is reported, not followed.

#include "table_view.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "card_dir.h"
#include "hw_table.h"
#include "mtrie_records.h"

namespace
{
std::uint32_t load(const table_view &view, std::uint32_t at)
{
    return __atomic_load_n(view.words + at / 4, __ATOMIC_ACQUIRE);
}

// Offset of the element at `address` in the part of the table that starts at `first`; 0 when it is none of its
// elements.
std::uint32_t element_at(const table_view &view, std::uint32_t address, std::uint32_t first, std::uint32_t count,
                         std::uint32_t bytes)
{
    const std::uint32_t at = address - view.base;
    return at >= first && at - first < count * bytes && (at - first) % bytes == 0 ? at : 0;
}

void read_leaf(const table_view &view, table_answer *answer)
{
    answer->adjacency = load(view, answer->leaf);
    const std::uint32_t block = load(view, answer->leaf + 4);
    if (block == 0)
        return;
    answer->ecmp = element_at(view, block, HW_ECMPS, HW_ECMP_COUNT, HW_ECMP_BYTES);
    if (answer->ecmp == 0)
        answer->fault = "the leaf names an ECMP block outside the table";
    for (std::uint32_t i = 0; answer->ecmp != 0 && i < TABLE_BLOCK_WORDS; ++i)
        answer->block[i] = load(view, answer->ecmp + 4 * i);
}

void print_step(const table_answer &answer, unsigned i)
{
    const std::uint32_t at = answer.at[i], word = answer.word[i];
    if (i == 0)
        std::printf("    root %-3u           ", at / 4);
    else
        std::printf("    node %-4u slot %-3u ", (at - HW_NODES) / HW_NODE_BYTES, (at - HW_NODES) % HW_NODE_BYTES / 4);
    std::printf(" 0x%06x: 0x%08x %s\n", at, word,
                word == 0                   ? "empty"
                : (word & HW_NODE_TAG) != 0 ? "-> node"
                                            : "-> leaf");
}
} // namespace

int table_open(table_view *view, const char *name, std::uint32_t base)
{
    *view = {name, base, nullptr};
    const std::string path = card_dir_path() + "/" + name;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat found;
    if (fd >= 0 && fstat(fd, &found) == 0 && found.st_size >= HW_TABLE_BYTES) {
        void *map = mmap(nullptr, HW_TABLE_BYTES, PROT_READ, MAP_SHARED, fd, 0);
        view->words = map == MAP_FAILED ? nullptr : static_cast<const std::uint32_t *>(map);
    }
    if (view->words == nullptr)
        std::fprintf(stderr, "route_example: %s: no table memory can be read: %s\n", path.c_str(),
                     std::strerror(errno));
    if (fd >= 0)
        close(fd);
    return view->words == nullptr ? -1 : 0;
}

void table_close(table_view *view)
{
    if (view->words != nullptr)
        munmap(const_cast<std::uint32_t *>(view->words), HW_TABLE_BYTES);
    view->words = nullptr;
}

table_answer table_find(const table_view &view, std::uint32_t tree, std::uint32_t address)
{
    table_answer answer{};
    std::uint32_t at = 4 * (tree % HW_ROOT_COUNT);
    for (unsigned level = 0;; ++level) {
        const std::uint32_t word = load(view, at);
        answer.at[level] = at;
        answer.word[level] = word;
        answer.steps = level + 1;
        if ((word & HW_NODE_TAG) == 0)
            break;
        const std::uint32_t node = element_at(view, word & ~HW_NODE_TAG, HW_NODES, HW_NODE_COUNT, HW_NODE_BYTES);
        if (node == 0 || level == TABLE_LEVELS) {
            answer.fault = node == 0 ? "a word names a node outside the table" : "the walk is over and names a node";
            return answer;
        }
        at = node + 4 * (address >> (24 - 8 * level) & 0xFF);
    }
    const std::uint32_t word = answer.word[answer.steps - 1];
    if (word == 0)
        return answer;
    answer.leaf = element_at(view, word, HW_LEAVES, HW_LEAF_COUNT, HW_LEAF_BYTES);
    if (answer.leaf == 0)
        answer.fault = "a word names a leaf outside the table";
    else
        read_leaf(view, &answer);
    return answer;
}

void table_answer_print(const table_view &view, const table_answer &answer)
{
    std::printf("  %s\n", view.name);
    for (unsigned i = 0; i < answer.steps; ++i)
        print_step(answer, i);
    if (answer.fault != nullptr)
        std::printf("    fault: %s\n", answer.fault);
    if (answer.leaf == 0)
        return;
    std::printf("    leaf %-4u           0x%06x: 0x%08x interface %u, encap 0x%04x%s%s%s\n",
                (answer.leaf - HW_LEAVES) / HW_LEAF_BYTES, answer.leaf, answer.adjacency, adj_ifid(answer.adjacency),
                adj_encap(answer.adjacency), (answer.adjacency & ADJ_IP_RESOLVE) != 0 ? ", ip-resolve" : "",
                (answer.adjacency & ADJ_ECMP) != 0 ? ", ECMP" : "", (answer.adjacency & ADJ_NAT) != 0 ? ", NAT" : "");
    if (answer.ecmp == 0)
        return;
    std::printf("    ECMP block %-3u      0x%06x: 0x%08x %s, %u more, sequence %u\n",
                (answer.ecmp - HW_ECMPS) / HW_ECMP_BYTES, answer.ecmp, answer.block[0],
                (answer.block[0] & ECMP_VALID) != 0 ? "valid" : "not valid", ecmp_count(answer.block[0]),
                ecmp_sequence(answer.block[0]));
    for (unsigned i = 1; i <= ecmp_count(answer.block[0]); ++i)
        std::printf("      path %u            0x%06x: 0x%08x interface %u, encap 0x%04x\n", i + 1, answer.ecmp + 4 * i,
                    answer.block[i], ecmp_entry_ifid(answer.block[i]), adj_encap(answer.block[i]));
}
