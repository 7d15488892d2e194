// rib_card.h - a card with its tables up, as the tests of the routing information base start from it.
//
// Interface 5 is up, routes by itself and has the address 10.1.0.1 in context 3. Lines of start-up are forgotten.
// Always: the audit of every context that the tests use is clean when the test ends.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake_card.h"
#include "hw_store.h"
#include "mtrie_records.h"
#include "rib_check.h"
#include "rib_table.h"
#include "route_events.h"

namespace harness
{
struct rib_card : fake_card {
    rib_card()
    {
        EXPECT_EQ(start_tables(), 0);
        add_interface(IFID, IF_ADDR, CTX);
        (void)printed();
        forget();
    }
    ~rib_card()
    {
        for (std::uint32_t ctx = 0; ctx < 8; ++ctx)
            EXPECT_EQ(rib_check(ctx), 0) << "context " << ctx;
    }

    // While a context has no tree, the forwarding table refuses every route of it.
    void take_tree(std::uint32_t ctx)
    {
        root_word = word(0, 4 * ctx);
        platform_store32(card_at<std::uint32_t>(memory(0) + 4 * ctx), 0);
    }
    void give_tree_back(std::uint32_t ctx) { platform_store32(card_at<std::uint32_t>(memory(0) + 4 * ctx), root_word); }

    // Texts of a category that contain `part`.
    text_lines with(std::uint32_t category, const std::string &part) const
    {
        text_lines found;
        for (const std::string &text : texts(category))
            if (text.find(part) != std::string::npos)
                found.push_back(text);
        return found;
    }

    std::uint32_t root_word = 0;
};

// Hands a message over in memory of exactly its size, so that a read behind it is seen.
inline int deliver(std::uint32_t opcode, const byte_string &payload)
{
    const byte_string exact(payload);
    const mts_message message = {opcode, {0, 600}, static_cast<std::uint32_t>(exact.size()), exact.data()};
    return route_msg_process(&message);
}

// The chain entry of a prefix, without a line logged, or null.
inline route_entry *on_chain(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len)
{
    for (route_entry *entry = *rib_bucket(ctx, prefix, len); entry != nullptr; entry = entry->next)
        if (entry->prefix == prefix)
            return entry;
    return nullptr;
}

// The gateways of a prefix: the chain entry's, then its members' in order.
inline std::vector<std::uint32_t> gateways(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t len)
{
    std::vector<std::uint32_t> found;
    const route_entry *const head = on_chain(ctx, prefix, len);
    if (head == nullptr)
        return found;
    found.push_back(head->nexthop);
    for (const route_entry *member = head->ecmp; member != nullptr; member = member->next)
        found.push_back(member->nexthop);
    return found;
}

// Entries of a context, members included.
inline unsigned entries_of(std::uint32_t ctx)
{
    unsigned count = 0;
    (void)rib_find_entry(ctx, [&count](const route_entry *head) {
        ++count;
        for (const route_entry *member = head->ecmp; member != nullptr; member = member->next)
            ++count;
        return false;
    });
    return count;
}
} // namespace harness
