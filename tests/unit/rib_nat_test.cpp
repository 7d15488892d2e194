// rib_nat_test.cpp - ranges of addresses as prefixes, and the NAT pools that are made of them.
#include "rib_nat.h"

#include <algorithm>
#include <random>

#include "mtrack.h"
#include "nat_range.h"
#include "norvik_mtrie.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_pool.h"
#include "rib_card.h"
#include "rib_host.h"
#include "rib_static.h"
#include "route_ids.h"
#include "route_table.h"

using namespace harness;

namespace
{

constexpr std::uint32_t POOL = IP(10, 0, 0, 1), POOL_SIZE = 6, NAT_ADJACENCY = 1u << 29 | IFID << 16 | ENCAP;

struct block_of {
    std::uint32_t net, len;
    bool operator==(const block_of &) const = default;
};
using block_list = std::vector<block_of>;

std::ostream &operator<<(std::ostream &out, const block_of &block)
{
    return out << std::hex << block.net << std::dec << "/" << block.len;
}

const block_list POOL_BLOCKS = {
    {IP(10, 0, 0, 1), 32}, {IP(10, 0, 0, 2), 31}, {IP(10, 0, 0, 4), 31}, {IP(10, 0, 0, 6), 32}};

std::uint32_t mask_of(std::uint32_t len) { return len == 0 ? 0 : ~0u << (32 - len); }

block_list blocks_of(std::uint32_t from, std::uint32_t to)
{
    nat_prefix list[NAT_PREFIX_MAX];
    std::int32_t count = 0;
    EXPECT_EQ(ipv4_range2prefix(CTX, from, to, list, &count), 0u);
    block_list found;
    for (std::int32_t i = 0; i < count; ++i) {
        EXPECT_EQ(list[i].mask, mask_of(list[i].len));
        found.push_back({list[i].net, list[i].len});
    }
    return found;
}

// The NAT entries of a context, by length, bucket and address.
block_list nat_entries(std::uint32_t ctx = CTX)
{
    block_list found;
    (void)rib_find_entry(ctx, [&found](const route_entry *entry) {
        if ((entry->flags & RIB_F_NAT) != 0)
            found.push_back({entry->prefix, entry->len});
        return false;
    });
    return found;
}

block_list sorted(block_list blocks)
{
    std::sort(blocks.begin(), blocks.end(), [](const block_of &a, const block_of &b) { return a.net < b.net; });
    return blocks;
}

std::uint32_t add_pool(std::uint32_t addr = POOL, std::uint32_t range = POOL_SIZE, std::uint16_t ixp = ENCAP)
{
    return rib_add_nat_pool(CTX, IFID, addr, range, ixp);
}

std::uint32_t remove_pool(std::uint32_t addr = POOL, std::uint32_t range = POOL_SIZE, std::uint16_t ixp = ENCAP)
{
    return rib_remove_nat_pool(CTX, 0, addr, range, ixp);
}

std::uint32_t add_route(std::uint32_t addr, std::uint32_t len, std::uint16_t encap = ENCAP)
{
    return rib_add_nat_route(CTX, CTX, IFID, addr, mask_of(len), encap);
}

std::uint32_t remove_route(std::uint32_t addr, std::uint32_t len, std::uint16_t encap = ENCAP)
{
    return rib_remove_nat_route(CTX, CTX, addr, mask_of(len), encap);
}

void learn(std::uint32_t addr, std::uint32_t ctx = CTX)
{
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, addr, 32, 0x77, IFID, ctx), 0u);
}

mtrie_leaf *leaf_of(std::uint32_t net, std::uint32_t len)
{
    return mtrie_lookup_exact(mtrie_get_root_node(CTX), net, mask_of(len));
}

std::vector<std::uint32_t> held()
{
    std::uint32_t counts[3];
    mtrie_get_stats(CTX, counts);
    return {counts[0], counts[1], counts[2]};
}

std::string joined(const text_lines &texts, std::size_t skip = 0)
{
    std::string all;
    for (const std::string &text : texts)
        all += text.substr(skip);
    return all;
}

constexpr std::size_t PREFIX_BYTES = 7; // of "<Ctx:3>"

} // namespace

TEST(rib_nat, a_range_becomes_the_largest_aligned_blocks_from_its_lowest_address_on)
{
    rib_card card;
    EXPECT_EQ(blocks_of(IP(10, 0, 0, 1), IP(10, 0, 0, 6)), POOL_BLOCKS);
    EXPECT_EQ(blocks_of(IP(10, 0, 0, 0), IP(10, 0, 0, 255)), (block_list{{IP(10, 0, 0, 0), 24}}));
    EXPECT_EQ(blocks_of(IP(10, 0, 0, 9), IP(10, 0, 0, 9)), (block_list{{IP(10, 0, 0, 9), 32}}));
    EXPECT_EQ(blocks_of(IP(255, 255, 255, 254), 0xFFFFFFFF), (block_list{{IP(255, 255, 255, 254), 31}}));
}

TEST(rib_nat, the_whole_address_space_is_one_prefix)
{
    rib_card card;
    EXPECT_EQ(blocks_of(0, 0xFFFFFFFF), (block_list{{0, 0}}));
}

TEST(rib_nat, a_range_that_ends_before_it_begins_has_no_prefix)
{
    rib_card card;
    EXPECT_EQ(blocks_of(POOL, POOL - 1), block_list{});
    EXPECT_EQ(blocks_of(0xFFFFFFFF, 0), block_list{});
}

TEST(rib_nat, the_longest_list_has_62_prefixes)
{
    rib_card card;
    const block_list found = blocks_of(1, 0xFFFFFFFE);
    ASSERT_EQ(found.size(), 62u);
    for (std::uint32_t i = 0; i < 31; ++i) { // 0.0.0.1/32, 0.0.0.2/31, ... 64.0.0.0/2 grows to the middle
        EXPECT_EQ(found[i], (block_of{1u << i, 32 - i}));
        EXPECT_EQ(found[31 + i], (block_of{~0u << (31 - i), 2 + i})) << "and shrinks behind it";
    }
}

TEST(rib_nat, any_range_is_covered_without_gap_by_blocks_none_of_which_could_be_larger)
{
    rib_card card;
    card.open_all_history(false);
    std::mt19937 random(20240607);
    const auto any_address = [&random] { return static_cast<std::uint32_t>(random() >> random() % 32); };
    for (int round = 0; round < 300; ++round) {
        const std::uint32_t a = any_address(), b = any_address();
        const std::uint32_t from = std::min(a, b), to = std::max(a, b);
        std::uint64_t next = from;
        for (const block_of &block : blocks_of(from, to)) {
            ASSERT_EQ(block.net, next) << from << " to " << to;
            const std::uint64_t size = 1ull << (32 - block.len);
            ASSERT_EQ(block.net % size, 0u) << "not aligned";
            next += size;
            ASSERT_LE(next, to + 1ull) << "behind the range";
            ASSERT_TRUE(block.len == 0 || block.net % (2 * size) != 0 || block.net + 2 * size > to + 1ull)
                << block << " could be larger in " << from << " to " << to;
        }
        ASSERT_EQ(next, to + 1ull) << "the range is not covered to its end";
        (void)card.printed();
    }
}

TEST(rib_nat, prefixes_join_the_list_behind_those_it_holds)
{
    rib_card card;
    nat_prefix list[NAT_PREFIX_MAX] = {{7, 8, 9}};
    std::int32_t count = 1;
    EXPECT_EQ(ipv4_range2prefix(CTX, IP(10, 0, 0, 2), IP(10, 0, 0, 3), list, &count), 0u);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(list[0].net, 8u);
    EXPECT_EQ(list[1].net, IP(10, 0, 0, 2));
    EXPECT_TRUE(card.has_line(ROUTE_DBG_INFO, "<Ctx:3>Inserting net (0xa000002) mask (0xfffffffe) num (1)\n"));
    EXPECT_TRUE(card.has_line(ROUTE_DBG_INFO, "<Ctx:3>ipv4_range2prefix<---: returning num entries (2)\n"));
}

TEST(rib_nat, every_step_of_a_range_is_logged_and_printed_alike)
{
    rib_card card;
    EXPECT_EQ(blocks_of(0, IP(191, 255, 255, 255)), (block_list{{0, 1}, {IP(128, 0, 0, 0), 2}}));
    const std::string steps = "ipv4_range2prefix: --> from(0.0.0.0), to(191.255.255.255)\n"
                              "ipv4_range2prefix: Prefixlen 0 from(0x0) to(0xbfffffff)\n"
                              "ipv4_range2prefix: Works for 'from'(0x0).\n"
                              "ipv4_range2prefix: Prefixlen 1 from(0x0) to(0xbfffffff)\n"
                              "ipv4_range2prefix: Works for 'from'(0x0).\n"
                              "ipv4_range2prefix: Works for 'to' (0xbfffffff).\n"
                              "Inserting net (0x0) mask (0x80000000) num (0)\n"
                              "ipv4_range2prefix: 'to' not equal broadcast.\n"
                              "ipv4_range2prefix: Prefixlen 0 from(0x80000000) to(0xbfffffff)\n"
                              "ipv4_range2prefix: Prefixlen 1 from(0x80000000) to(0xbfffffff)\n"
                              "ipv4_range2prefix: Works for 'from'(0x80000000).\n"
                              "ipv4_range2prefix: Prefixlen 2 from(0x80000000) to(0xbfffffff)\n"
                              "ipv4_range2prefix: Works for 'from'(0x80000000).\n"
                              "ipv4_range2prefix: Works for 'to' (0xbfffffff).\n"
                              "Inserting net (0x80000000) mask (0xc0000000) num (1)\n"
                              "ipv4_range2prefix<---: returning num entries (2)\n";
    EXPECT_EQ(card.printed(), steps);
    EXPECT_EQ(joined(card.texts(ROUTE_DBG_INFO), PREFIX_BYTES), steps);
    EXPECT_EQ(card.lines().size(), card.texts(ROUTE_DBG_INFO).size());
}

TEST(rib_nat, a_range_without_prefix_tries_every_length)
{
    rib_card card;
    EXPECT_EQ(blocks_of(POOL, POOL - 1), block_list{});
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "Prefixlen").size(), 33u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "Works for 'from'"),
              (text_lines{"<Ctx:3>ipv4_range2prefix: Works for 'from'(0xa000001).\n"}));
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).back(), "<Ctx:3>ipv4_range2prefix<---: returning num entries (0)\n");
}

TEST(rib_nat, a_list_is_printed_with_its_head_and_logged_without)
{
    rib_card card;
    const nat_prefix list[] = {{0xFFFFFFFE, IP(10, 0, 0, 2), 31}, {0xFF000000, IP(200, 0, 0, 0), 8}};
    print_pfxlist(CTX, list, 2);
    EXPECT_EQ(card.printed(), "print_pfxlist: --> n(2)\n"
                              "prefix: mask(0xfffffffe) len(31) net(10.0.0.2)\n"
                              "prefix: mask(0xff000000) len(8) net(200.0.0.0)\n");
    EXPECT_EQ(card.lines(), (text_lines{"105 <Ctx:3>prefix: mask(0xfffffffe) len(31) net(10.0.0.2)\n",
                                        "105 <Ctx:3>prefix: mask(0xff000000) len(8) net(200.0.0.0)\n"}));
    card.forget();
    print_pfxlist(CTX, list, 0);
    EXPECT_EQ(card.printed(), "print_pfxlist: --> n(0)\n");
    EXPECT_EQ(card.lines(), text_lines{});
}

TEST(rib_nat, an_address_as_text_is_cut_to_its_room)
{
    char text[64];
    EXPECT_EQ(ip_integer2ip(IP(255, 0, 10, 200), text, sizeof text), 0);
    EXPECT_STREQ(text, "255.0.10.200");
    EXPECT_EQ(ip_integer2ip(IP(255, 0, 10, 200), text, 6), 0);
    EXPECT_STREQ(text, "255.0");
}

TEST(rib_nat, a_pool_is_entered_and_programmed_prefix_by_prefix)
{
    rib_card card;
    EXPECT_EQ(add_pool(), 0u);
    EXPECT_EQ(sorted(nat_entries()), POOL_BLOCKS);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_2), 4u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
    for (const block_of &block : POOL_BLOCKS) {
        const route_entry *const entry = on_chain(CTX, block.net, block.len);
        ASSERT_NE(entry, nullptr) << block;
        EXPECT_EQ(entry->nexthop, 0u);
        EXPECT_EQ(entry->ecmp.addr(), 0u);
        EXPECT_EQ(entry->ecmp_count, 0);
        EXPECT_EQ(entry->ctx, CTX);
        EXPECT_EQ(entry->route_id, CTX);
        EXPECT_EQ(entry->ifid, IFID);
        EXPECT_EQ(entry->encap_id, ENCAP);
        EXPECT_EQ(entry->flags, RIB_F_NAT | RIB_F_NAT_IN_MTRIE);
        EXPECT_EQ(card.heap.at(card_addr_of(entry)).bytes, 36u);
        ASSERT_NE(leaf_of(block.net, block.len), nullptr) << block;
        EXPECT_EQ(leaf_of(block.net, block.len)->adjacency, NAT_ADJACENCY) << block;
    }
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "nat added"),
              (text_lines{"<Ctx:3>nat added route_id:3 0a000001/32 encap 4660 \n",
                          "<Ctx:3>nat added route_id:3 0a000002/31 encap 4660 \n",
                          "<Ctx:3>nat added route_id:3 0a000004/31 encap 4660 \n",
                          "<Ctx:3>nat added route_id:3 0a000006/32 encap 4660 \n"}));
    EXPECT_EQ(mtrie_hw_check(), 0);
}

TEST(rib_nat, a_pool_that_goes_leaves_nothing_behind)
{
    rib_card card;
    const std::vector<std::uint32_t> before = held();
    ASSERT_EQ(add_pool(), 0u);
    card.forget();
    EXPECT_EQ(remove_pool(), 0u);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_2), 0u);
    EXPECT_EQ(held(), before);
    EXPECT_EQ(mtrie_hw_check(), 0);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "removed nat"),
              (text_lines{"<Ctx:3>removed nat entry:0xa000001/32, encap 4660\n",
                          "<Ctx:3>removed nat entry:0xa000002/31, encap 4660\n",
                          "<Ctx:3>removed nat entry:0xa000004/31, encap 4660\n",
                          "<Ctx:3>removed nat entry:0xa000006/32, encap 4660\n"}));
}

TEST(rib_nat, the_lines_of_a_pool_stand_in_their_order)
{
    rib_card card;
    card.interfaces[IFID].up = false;
    const std::string range_lines = "ipv4_range2prefix: --> from(0.0.0.0), to(255.255.255.255)\n"
                                    "ipv4_range2prefix: Prefixlen 0 from(0x0) to(0xffffffff)\n"
                                    "ipv4_range2prefix: Works for 'from'(0x0).\n"
                                    "ipv4_range2prefix: Works for 'to' (0xffffffff).\n"
                                    "Inserting net (0x0) mask (0x0) num (0)\n"
                                    "ipv4_range2prefix<---: returning num entries (1)\n";
    const std::string list_line = "prefix: mask(0x0) len(0) net(0.0.0.0)\n";
    EXPECT_EQ(add_pool(0, 0), 0u);
    EXPECT_EQ(card.printed(), range_lines + "print_pfxlist: --> n(1)\n" + list_line);
    EXPECT_EQ(joined(card.texts(ROUTE_DBG_INFO), PREFIX_BYTES),
              "rib_add_nat_pool: **context_id (3) natAddr/range 0.0.0.0/0 ixp 4660 \n" + range_lines +
                  "rib_add_nat_pool: context_id (3) number of prefix(1)\n" + list_line +
                  "route_traversal: Start with route list (0,0) at position 0\n"
                  "nat added route_id:3 00000000/0 encap 4660 \n");
    card.forget();
    EXPECT_EQ(remove_pool(0, 0), 0u);
    EXPECT_EQ(card.printed(), range_lines + "print_pfxlist: --> n(1)\n" + list_line);
    EXPECT_EQ(joined(card.texts(ROUTE_DBG_INFO), PREFIX_BYTES),
              "rib_remove_nat_pool: context_id (3) natAddr/range 0.0.0.0/0 ixp 4660 \n" + range_lines +
                  "rib_remove_nat_pool: context_id (3) number of prefix(1)\n" + list_line +
                  "removed nat entry:0x0/0, encap 4660\n");
}

TEST(rib_nat, a_pool_of_no_addresses_adds_nothing_and_succeeds)
{
    rib_card card;
    EXPECT_EQ(add_pool(POOL, 0), 0u);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_TRUE(card.has_line(ROUTE_DBG_INFO, "<Ctx:3>rib_add_nat_pool: context_id (3) number of prefix(0)\n"));
    EXPECT_EQ(remove_pool(POOL, 0), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
    EXPECT_EQ(card.texts(ROUTE_DBG_EVENTS), text_lines{}) << "nothing was searched";
}

TEST(rib_nat, the_longest_pool_goes_in_and_out)
{
    rib_card card;
    card.interfaces[IFID].up = false;
    EXPECT_EQ(add_pool(1, 0xFFFFFFFE), 0u);
    EXPECT_EQ(nat_entries().size(), 62u);
    EXPECT_TRUE(card.has_line(ROUTE_DBG_INFO,
                              "<Ctx:3>rib_add_nat_pool: **context_id (3) natAddr/range 0.0.0.1/-2 ixp 4660 \n"));
    EXPECT_EQ(remove_pool(1, 0xFFFFFFFE), 0u);
    EXPECT_EQ(nat_entries().size(), 0u);
}

TEST(rib_nat, while_its_interface_is_not_up_a_pool_is_known_and_not_programmed)
{
    rib_card card;
    card.interfaces[IFID].up = false;
    const std::vector<std::uint32_t> before = held();
    EXPECT_EQ(add_pool(), 0u);
    EXPECT_EQ(rib_add_nat_pool(CTX, 99, IP(10, 2, 0, 0), 1, ENCAP), 0u) << "an interface that nobody knows";
    EXPECT_EQ(nat_entries().size(), 5u);
    for (const block_of &block : nat_entries())
        EXPECT_EQ(on_chain(CTX, block.net, block.len)->flags, RIB_F_NAT) << block;
    EXPECT_EQ(held(), before);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "prefix_mgr_route_add"), text_lines{});
    EXPECT_EQ(remove_pool(), 0u);
    EXPECT_EQ(nat_entries().size(), 1u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "prefix_mgr_route_remove"), text_lines{}) << "nothing to take out";
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
}

TEST(rib_nat, the_interfaces_state_is_asked_first_and_for_each_prefix)
{
    rib_card card;
    learn(IP(10, 0, 0, 5));
    card.forget();
    EXPECT_EQ(add_pool(), 1u);
    EXPECT_EQ(card.queries, (text_lines{"if_get_status 5", "if_get_status 5", "if_get_status 5"}))
        << "also for the prefix that is refused, and not for the roll-back";
    card.forget();
    EXPECT_EQ(remove_pool(), 0u);
    EXPECT_EQ(card.queries, text_lines{});
}

TEST(rib_nat, a_pool_over_a_learned_host_is_refused_and_rolled_back)
{
    rib_card card;
    learn(IP(10, 0, 0, 5));
    const std::vector<std::uint32_t> before = held();
    card.forget();
    EXPECT_EQ(add_pool(), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>nat range includes learned entry0a000004/31 encap 4660\n",
                          "<Ctx:3>rib_add_nat_pool: add NAT failed, addr 0xa000004/0xfffffffe, ixp 4660\n",
                          "<Ctx:3>nat entry not found in rib 0xa000004/31 encap 4660\n",
                          "<Ctx:3>rib_remove_nat_pool: delete NAT failed, addr 0xa000004/0xfffffffe, ixp 4660\n",
                          "<Ctx:3>nat entry not found in rib 0xa000006/32 encap 4660\n",
                          "<Ctx:3>rib_remove_nat_pool: delete NAT failed, addr 0xa000006/0xffffffff, ixp 4660\n"}));
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "rib_remove_nat_pool"),
              (text_lines{"<Ctx:3>rib_remove_nat_pool: context_id (3) natAddr/range 10.0.0.1/6 ixp 4660 \n",
                          "<Ctx:3>rib_remove_nat_pool: context_id (3) number of prefix(4)\n"}));
    EXPECT_EQ(nat_entries(), block_list{});
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_2), 0u);
    EXPECT_EQ(held(), before);
    EXPECT_NE(on_chain(CTX, IP(10, 0, 0, 5), 32), nullptr) << "the host stays";
}

TEST(rib_nat, either_flag_of_a_learned_host_keeps_a_prefix_out)
{
    for (const std::uint16_t flag : {RIB_F_ARP_HOST, RIB_F_ARP_INSTALLED}) {
        rib_card card;
        learn(GATEWAY);
        on_chain(CTX, GATEWAY, 32)->flags = flag;
        EXPECT_EQ(add_route(GATEWAY, 24), 1u);
        on_chain(CTX, GATEWAY, 32)->flags = RIB_F_INTERFACE;
        EXPECT_EQ(add_route(GATEWAY, 24), 0u) << "an interface's address does not";
    }
}

TEST(rib_nat, a_learned_host_counts_from_the_first_to_the_last_address_of_the_prefix)
{
    rib_card card;
    for (const std::uint32_t host : {IP(10, 0, 0, 4), IP(10, 0, 0, 7)})
        learn(host);
    EXPECT_EQ(add_route(IP(10, 0, 0, 4), 31), 1u);
    EXPECT_EQ(add_route(IP(10, 0, 0, 6), 31), 1u);
    EXPECT_EQ(add_route(IP(10, 0, 0, 2), 31), 0u);
    EXPECT_EQ(add_route(IP(10, 0, 0, 5), 32), 0u);
    EXPECT_EQ(add_route(IP(10, 0, 0, 6), 32), 0u);
    EXPECT_EQ(add_route(IP(10, 0, 0, 8), 29), 0u);
}

TEST(rib_nat, a_host_learned_in_another_context_or_as_a_shorter_prefix_does_not_count)
{
    rib_card card;
    learn(IP(10, 0, 0, 5), CTX + 1);
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, IP(10, 0, 0, 6), 31, 0x77, IFID, CTX), 0u);
    EXPECT_EQ(add_pool(), 0u);
}

TEST(rib_nat, a_mask_with_holes_bounds_the_hosts_by_its_own_bits)
{
    rib_card card;
    learn(IP(10, 255, 1, 0)); // behind 10.255.0.255, the mask's last address
    EXPECT_EQ(rib_add_nat_route(CTX, CTX, IFID, IP(10, 3, 3, 3), 0xFF00FF00, ENCAP), 0u);
    EXPECT_EQ(nat_entries(), (block_list{{IP(10, 0, 0, 0), 8}}));
    EXPECT_EQ(rib_remove_nat_route(CTX, CTX, IP(10, 9, 9, 9), 0xFF00FF00, ENCAP), 0u);
    learn(IP(10, 254, 1, 0));
    EXPECT_EQ(rib_add_nat_route(CTX, CTX, IFID, IP(10, 3, 3, 3), 0xFF00FF00, ENCAP), 1u);
}

TEST(rib_nat, a_nat_prefix_that_a_static_route_has_is_refused_as_duplicate)
{
    rib_card card;
    ASSERT_EQ(rib_add_route(CTX, CTX, IP(10, 0, 0, 4), 0xFFFFFFFE, GATEWAY), 0u);
    card.forget();
    EXPECT_EQ(add_pool(), 1u);
    EXPECT_EQ(card.with(ROUTE_DBG_ERRORS, "DUPLICATE"), (text_lines{"<Ctx:3>nat DUPLICATE 0a000004/31 encap 4660 \n"}));
    EXPECT_EQ(nat_entries(), block_list{});
    EXPECT_EQ(gateways(CTX, IP(10, 0, 0, 4), 31), (std::vector<std::uint32_t>{GATEWAY})) << "the route stays";
}

TEST(rib_nat, a_nat_prefix_that_an_interface_has_is_refused_as_duplicate)
{
    rib_card card;
    ASSERT_NE(rib_add_host_route(RIB_OBJ_INTERFACE, CTX, IFID, IP(10, 0, 0, 2), 31, 0x8001), nullptr);
    EXPECT_EQ(add_route(IP(10, 0, 0, 2), 31), 1u);
    EXPECT_EQ(add_route(IP(10, 0, 0, 2), 32), 0u) << "another length is another prefix";
}

TEST(rib_nat, a_learned_host_is_met_before_the_duplicate)
{
    rib_card card;
    learn(GATEWAY);
    card.forget();
    EXPECT_EQ(add_route(GATEWAY, 32), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>nat range includes learned entry0a010009/32 encap 4660\n"}));
}

TEST(rib_nat, a_pool_given_twice_takes_the_first_one_with_it)
{
    rib_card card;
    ASSERT_EQ(add_pool(), 0u);
    const std::vector<std::uint32_t> before = held();
    EXPECT_EQ(add_pool(POOL, POOL_SIZE, ENCAP + 1), 1u) << "another processor's";
    EXPECT_EQ(sorted(nat_entries()), POOL_BLOCKS) << "its roll-back finds none of its own";
    EXPECT_EQ(held(), before);

    EXPECT_EQ(add_pool(), 1u);
    EXPECT_EQ(nat_entries(), block_list{}) << "the roll-back is blind";
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_2), 0u);
    EXPECT_EQ(mtrie_hw_check(), 0);
}

TEST(rib_nat, a_pool_that_meets_memory_shortage_half_way_is_rolled_back)
{
    rib_card card;
    card.fail_alloc(MTRACK_ROUTE_ENTRY_2, 3);
    EXPECT_EQ(add_pool(), 1u);
    const text_lines errors = card.texts(ROUTE_DBG_ERRORS);
    ASSERT_GE(errors.size(), 2u);
    EXPECT_EQ(errors[0], "<Ctx:3>nat rib malloc fail 0a000004/31 encap 4660 \n");
    EXPECT_EQ(errors[1], "<Ctx:3>rib_add_nat_pool: add NAT failed, addr 0xa000004/0xfffffffe, ixp 4660\n");
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_2), 0u);
    EXPECT_EQ(add_pool(), 0u) << "memory is back";
}

TEST(rib_nat, a_prefix_that_the_forwarding_table_refuses_is_taken_out_again)
{
    rib_card card;
    ASSERT_EQ(add_route(IP(10, 0, 0, 32), 32), 0u); // its neighbour on the chain
    card.take_tree(CTX);
    card.forget();
    EXPECT_EQ(add_route(POOL, 32), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).back(), "<Ctx:3>mtrie add nat fail: rte_id:3 0a000001/32 encap 1234\n");
    EXPECT_EQ(nat_entries(), (block_list{{IP(10, 0, 0, 32), 32}}));
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_2), 1u);
    card.give_tree_back(CTX);
}

TEST(rib_nat, a_removal_that_the_forwarding_table_refuses_is_logged_and_goes_on)
{
    rib_card card;
    ASSERT_EQ(add_route(POOL, 32, 0x00AB), 0u);
    card.take_tree(CTX);
    card.forget();
    EXPECT_EQ(remove_route(POOL, 32, 0x00AB), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).back(),
              "<Ctx:3>NAT remove from mtrie failed rte_id:3 0a000001/32 encapid 00ab\n");
    EXPECT_EQ(card.texts(ROUTE_DBG_INFO).back(), "<Ctx:3>removed nat entry:0xa000001/32, encap 171\n");
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_2), 0u);
    card.give_tree_back(CTX);
}

TEST(rib_nat, a_removal_finds_its_own_encap_only)
{
    rib_card card;
    ASSERT_EQ(add_route(POOL, 32), 0u);
    card.forget();
    EXPECT_EQ(remove_route(POOL, 32, ENCAP + 1), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>nat entry not found in rib 0xa000001/32 encap 4661\n"}));
    EXPECT_EQ(entries_of(CTX), 1u);
}

TEST(rib_nat, a_removal_leaves_a_static_route_of_the_same_prefix_and_encap)
{
    rib_card card;
    ASSERT_EQ(rib_add_route(CTX, CTX, IP(10, 0, 0, 4), 0xFFFFFFFE, GATEWAY), 0u);
    on_chain(CTX, IP(10, 0, 0, 4), 31)->encap_id = ENCAP;
    EXPECT_EQ(remove_route(IP(10, 0, 0, 4), 31), 1u);
    EXPECT_EQ(entries_of(CTX), 1u);
}

TEST(rib_nat, a_pool_removal_passes_over_what_is_missing_and_still_answers_0)
{
    rib_card card;
    ASSERT_EQ(add_pool(), 0u);
    ASSERT_EQ(remove_route(IP(10, 0, 0, 2), 31), 0u);
    card.forget();
    EXPECT_EQ(remove_pool(), 0u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>nat entry not found in rib 0xa000002/31 encap 4660\n",
                          "<Ctx:3>rib_remove_nat_pool: delete NAT failed, addr 0xa000002/0xfffffffe, ixp 4660\n"}));
    EXPECT_EQ(entries_of(CTX), 0u);
}

// No pool has such routes: they tell apart what is asked of the context and what of the route id.
TEST(rib_nat, a_route_stands_in_the_table_and_tree_of_its_route_id_and_belongs_to_its_context)
{
    rib_card card;
    constexpr std::uint32_t OTHER = CTX + 1, NET = IP(10, 40, 0, 0);
    const std::int32_t held = mtrie_pools[MTRIE_POOL_LEAF].tree_count[CTX];
    card.forget();
    ASSERT_EQ(rib_add_nat_route(CTX, OTHER, IFID, NET, MASK16, ENCAP), 0u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "nat added"),
              text_lines{"<Ctx:3>nat added route_id:4 0a280000/16 encap 4660 \n"});
    EXPECT_EQ(nat_entries(OTHER), (block_list{{NET, 16}})) << "where a visit meets it";
    EXPECT_EQ(nat_entries(CTX), block_list{});
    EXPECT_EQ(on_chain(OTHER, NET, 16)->ctx, CTX);
    EXPECT_EQ(on_chain(OTHER, NET, 16)->route_id, OTHER);
    EXPECT_NE(mtrie_lookup_exact(mtrie_get_root_node(OTHER), NET, MASK16), nullptr);
    EXPECT_EQ(mtrie_lookup_exact(mtrie_get_root_node(CTX), NET, MASK16), nullptr);
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_LEAF].tree_count[CTX], held + 1);

    EXPECT_EQ(rib_remove_nat_route(CTX, CTX, NET, MASK16, ENCAP), 1u);
    EXPECT_EQ(rib_remove_nat_route(OTHER, OTHER, NET, MASK16, ENCAP), 0u) << "the context is only what lines say";
    EXPECT_EQ(nat_entries(OTHER), block_list{});
    EXPECT_EQ(mtrie_pools[MTRIE_POOL_LEAF].tree_count[CTX], held);
}

TEST(rib_nat, learned_hosts_are_looked_for_in_the_context_and_duplicates_in_the_table_of_the_route_id)
{
    rib_card card;
    constexpr std::uint16_t OTHER = CTX + 1;
    constexpr std::uint32_t HOSTS = IP(10, 40, 0, 0), STATICS = IP(10, 41, 0, 0);
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, HOSTS + 9, 32, ENCAP, IFID, CTX), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, STATICS, MASK16, GATEWAY), 0u);
    card.forget();
    EXPECT_EQ(rib_add_nat_route(CTX, OTHER, IFID, HOSTS, MASK16, ENCAP), 1u);
    EXPECT_EQ(rib_add_nat_route(OTHER, CTX, IFID, STATICS, MASK16, ENCAP), 1u);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS),
              (text_lines{"<Ctx:3>nat range includes learned entry0a280000/16 encap 4660\n",
                          "<Ctx:4>nat DUPLICATE 0a290000/16 encap 4660 \n"}));

    EXPECT_EQ(rib_add_nat_route(OTHER, CTX, IFID, HOSTS, MASK16, ENCAP), 0u);
    EXPECT_EQ(rib_add_nat_route(CTX, OTHER, IFID, STATICS, MASK16, ENCAP), 0u);
    EXPECT_EQ(rib_remove_nat_route(OTHER, CTX, HOSTS, MASK16, ENCAP), 0u);
    EXPECT_EQ(rib_remove_nat_route(CTX, OTHER, STATICS, MASK16, ENCAP), 0u);
}

TEST(rib_nat, host_bits_of_an_address_do_not_count)
{
    rib_card card;
    EXPECT_EQ(add_route(IP(10, 7, 7, 7), 16), 0u);
    EXPECT_EQ(nat_entries(), (block_list{{IP(10, 7, 0, 0), 16}}));
    EXPECT_EQ(remove_route(IP(10, 7, 99, 99), 16), 0u);
    EXPECT_EQ(nat_entries(), block_list{});
}

TEST(rib_nat, nat_entries_stand_in_order_between_their_neighbours_of_other_kinds)
{
    rib_card card; // /32 addresses 31 apart share a chain
    learn(IP(10, 0, 0, 1));
    learn(IP(10, 0, 0, 63));
    ASSERT_EQ(add_route(IP(10, 0, 0, 94), 32), 0u);
    ASSERT_EQ(add_route(IP(10, 0, 0, 32), 32), 0u);
    std::vector<std::uint32_t> chain;
    for (const route_entry *entry = *rib_bucket(CTX, POOL, 32); entry != nullptr; entry = entry->next)
        chain.push_back(entry->prefix & 0xFF);
    EXPECT_EQ(chain, (std::vector<std::uint32_t>{1, 32, 63, 94}));
    EXPECT_EQ(remove_route(IP(10, 0, 0, 32), 32), 0u);
    EXPECT_EQ(on_chain(CTX, IP(10, 0, 0, 1), 32)->next.get(), on_chain(CTX, IP(10, 0, 0, 63), 32));
}

TEST(rib_nat, a_set_that_formed_around_a_nat_entry_leaves_the_chain_with_it)
{
    rib_card card;
    ASSERT_EQ(add_route(IP(10, 0, 0, 4), 31), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, IP(10, 0, 0, 4), 0xFFFFFFFE, GATEWAY), 0u);
    ASSERT_EQ(entries_of(CTX), 2u);
    EXPECT_EQ(remove_route(IP(10, 0, 0, 4), 31), 0u);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_2), 0u);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_3), 1u) << "the static path is not given back";
}
