// norvik_mtrie_dump.cpp - what a processor finds for one destination, as text.
//
// Reads the hardware words only, never the control plane's records, so it shows what a copy holds even when the two
// disagree. Nothing outside the table is read: an address that is not the copy's own shows as null.
#include "norvik_mtrie_dump.h"

#include <cstdarg>
#include <cstdio>

#include "mtrack.h"
#include "mtrie_records.h"
#include "norvik_mtrie_hw.h"
#include "route_ids.h"
#include "route_listing.h"
#include "route_table.h"

namespace
{
constexpr unsigned MAX_LINES = 40;
struct fib_display {
    char lines[MAX_LINES][HW_DUMP_LINE_BYTES];
};
static_assert(sizeof(fib_display) == 5120);
card_ptr<fib_display> fib_display_entry; // the last one made; freed with the caller's reply

// Mapped address of a table address with `bytes` behind it; 0 when it is null or not this copy's.
card_addr mapped(const mtrie_hw_copy &copy, std::uint32_t addr, std::uint32_t bytes)
{
    if (copy.base == 0 || addr == 0 || addr < copy.form || addr - copy.form > HW_TABLE_BYTES - bytes)
        return 0;
    return copy.base + (addr - copy.form);
}

std::uint32_t word_of(card_addr addr, std::uint32_t index) // of a null address: 0
{
    return addr == 0 ? 0 : card_at<const std::uint32_t>(addr)[index];
}

struct line_list {
    fib_display *display;
    unsigned count;
};

[[gnu::format(printf, 2, 3)]] void add_line(line_list &list, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    (void)std::vsnprintf(list.display->lines[list.count], HW_DUMP_LINE_BYTES, format, args); // a longer line is cut
    va_end(args);
    list.count += 1;
}

void dump_block(line_list &list, const mtrie_hw_copy &copy, std::uint16_t selector, std::uint32_t pointer)
{
    const card_addr block = mapped(copy, pointer, HW_ECMP_BYTES);
    add_line(list, "\n ixp %d  ecmp node 0x%x found.\n", static_cast<int>(selector), block);
    const std::uint32_t header = word_of(block, 0);
    add_line(list, "\n valid %x, count %d, seq %d, \n", header >> 31, static_cast<int>(ecmp_count(header)),
             static_cast<int>(ecmp_sequence(header)));
    for (unsigned i = 1; i < ECMP_WORDS; ++i) {
        const std::uint32_t entry = word_of(block, i);
        add_line(list, "\n ECMP result #%d  encaps id %u if_id %x \n", static_cast<int>(i + 1), adj_encap(entry),
                 ecmp_entry_ifid(entry));
    }
}

void dump_leaf(line_list &list, const mtrie_hw_copy &copy, std::uint16_t selector, card_addr leaf)
{
    const std::uint32_t word = word_of(leaf, 0);
    add_line(list, "\nip resolve flag %x, ecmp flag %x, nat flag %x\n", word >> 31, word >> 30 & 1, word >> 29 & 1);
    if ((word & ADJ_NAT) != 0)
        add_line(list, "\nNAT result,  IXP value %u\n", adj_encap(word));
    else
        add_line(list, "\nRoute/ECMP result #1 encaps id %u if_id %x \n", adj_encap(word), adj_ifid(word));
    if ((word & ADJ_ECMP) != 0)
        dump_block(list, copy, selector, word_of(leaf, 1));
}

void dump_walk(line_list &list, const mtrie_hw_copy &copy, std::uint16_t selector, std::uint32_t tree,
               std::uint32_t address)
{
    std::uint32_t word = word_of(copy.base, tree);
    for (unsigned level = 0; level < 4 && (word & HW_NODE_TAG) != 0; ++level) {
        const std::uint32_t index = address >> (24 - 8 * level) & 0xFF;
        add_line(list, "\n level %d Mnode found, next_index=%d.\n", static_cast<int>(level), static_cast<int>(index));
        word = word_of(mapped(copy, word & ~HW_NODE_TAG, HW_NODE_BYTES), index);
    }
    if ((word & HW_NODE_TAG) != 0) {
        add_line(list, "\nSearch terminating unsuccessfully. Null leaf.\n");
        return;
    }
    add_line(list, "\nSearch terminating successfully, Leaf found.\n"); // also when there is none
    if (const card_addr leaf = mapped(copy, word, HW_LEAF_BYTES); leaf != 0)
        dump_leaf(list, copy, selector, leaf);
}
} // namespace

std::uint32_t mtrie_hw_dump_api(std::uint16_t copy, std::uint32_t tree, std::uint32_t address, tnrpc_block *reply)
{
    fib_display_entry =
        static_cast<fib_display *>(mtrack_alloc(ROUTE_MGR_UUID, MTRACK_FIB_DISPLAY, sizeof(fib_display)));
    if (!fib_display_entry)
        return 0;
    line_list list = {fib_display_entry, 0};
    dump_walk(list, mtrie_hw_copies[copy < MTRIE_HW_COPIES ? copy : MTRIE_HW_COPIES - 1], copy, tree, address);
    reply->length = static_cast<std::uint32_t>(list.count * HW_DUMP_LINE_BYTES);
    reply->data = reinterpret_cast<std::byte *>(list.display);
    return 0;
}
