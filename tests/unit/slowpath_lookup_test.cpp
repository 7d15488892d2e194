// slowpath_lookup_test.cpp - the next hop of a packet that the processors could not forward.
//
// Routes are entered as the callers enter them; where a test needs an entry that no caller makes (one without an
// encapsulation, say), it sets that field of an entered route and says so.
#include "slowpath_lookup.h"

#include "mtrack.h"
#include "rib_card.h"
#include "rib_host.h"
#include "rib_static.h"
#include "route_log.h"

using namespace harness;

namespace
{

constexpr std::uint32_t NOTHING = 0x5A5A5A5A; // what the output holds before a lookup
constexpr std::uint32_t ADDR = IP(10, 9, 1, 77), NET24 = IP(10, 9, 1, 0), NET16 = IP(10, 9, 0, 0);
constexpr std::uint32_t GATEWAY2 = IP(10, 1, 0, 8);
constexpr std::uint16_t ENCAP2 = 0x4321;

const std::string CHECK = "tnrpc_call encap_valid_mac 1:4660 8:0/2",
                  CHECK2 = "tnrpc_call encap_valid_mac 1:17185 8:0/2";

// A card with two resolved gateways, and a slow path that knows the MAC address of every encapsulation.
struct lookup_card : rib_card {
    lookup_card()
    {
        EXPECT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY, 32, ENCAP, IFID, CTX), 0u);
        EXPECT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY2, 32, ENCAP2, IFID, CTX), 0u);
        macs(1);
        (void)printed();
        forget();
    }
    void macs(std::uint32_t valid)
    {
        call_results["encap_valid_mac"] = 0;
        call_refs["encap_valid_mac"] = valid;
    }
    void route(std::uint32_t prefix, std::uint32_t mask, std::uint32_t gateway)
    {
        EXPECT_EQ(rib_add_route(CTX, CTX, prefix, mask, gateway), 0u);
        forget();
    }
};

struct answer {
    std::uint32_t result;
    std::uint32_t nexthop;
    bool operator==(const answer &) const = default;
};
void PrintTo(const answer &a, std::ostream *out)
{
    *out << "result " << a.result << " nexthop 0x" << std::hex << a.nexthop << std::dec;
}

answer lookup(std::uint32_t addr, std::uint16_t ctx = CTX)
{
    std::uint32_t nexthop = NOTHING;
    const std::uint32_t result = slowpath_route_lookup(ctx, addr, &nexthop);
    return {result, nexthop};
}

// A second chain entry of a prefix, linked behind the one that stands there. No caller makes one; taken out again with
// the record.
struct twin {
    route_entry *first, *second;
    twin(std::uint32_t prefix, std::uint32_t len, std::uint32_t nexthop, std::uint32_t encap)
        : first(on_chain(CTX, prefix, len)), second(rib_entry_alloc(MTRACK_ROUTE_ENTRY_3))
    {
        second->prefix = prefix;
        second->len = len;
        second->nexthop = nexthop;
        second->ctx = CTX;
        second->encap_id = encap;
        second->next = first->next;
        first->next = second;
    }
    ~twin()
    {
        first->next = second->next;
        mtrack_free(second);
    }
    twin(const twin &) = delete;
    twin &operator=(const twin &) = delete;
};

// The slow path from now on knows the MAC address of the second encapsulation only, or of none.
void fail_check_of(lookup_card &card, const text_lines &failing)
{
    card.macs(1);
    card.on_call = [&card, failing](const std::string &call) {
        bool valid = true;
        for (const std::string &check : failing)
            valid = valid && call != check;
        card.call_refs["encap_valid_mac"] = valid ? 1 : 0;
    };
}

} // namespace

TEST(slowpath_lookup, the_longest_prefix_that_covers_the_address_gives_the_next_hop)
{
    lookup_card card;
    card.route(NET16, MASK16, GATEWAY);
    card.route(NET24, MASK24, GATEWAY2);
    EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY2}));
    EXPECT_EQ(card.calls, text_lines{CHECK2}) << "one call for the one candidate";
    EXPECT_EQ(card.lines(), text_lines{"105 <Ctx:3>route lookup: using non-default route for ip=10.9.1.77\n"});

    card.forget();
    EXPECT_EQ(lookup(IP(10, 9, 2, 77)), (answer{0, GATEWAY}));
    EXPECT_EQ(card.calls, text_lines{CHECK});
    EXPECT_EQ(card.lines(), text_lines{"105 <Ctx:3>route lookup: using non-default route for ip=10.9.2.77\n"});
}

TEST(slowpath_lookup, a_host_is_found_by_its_whole_address_and_answers_its_interfaces_address)
{
    lookup_card card;
    EXPECT_EQ(lookup(GATEWAY), (answer{0, IF_ADDR}));
    EXPECT_EQ(lookup(GATEWAY + 1), (answer{1, 0}));
}

TEST(slowpath_lookup, a_longer_prefix_without_an_encapsulation_hides_the_shorter_one)
{
    lookup_card card;
    card.route(NET16, MASK16, GATEWAY);
    card.route(NET24, MASK24, IP(10, 1, 0, 50)); // its gateway is unknown, so it has no encapsulation
    std::uint32_t nexthop = NOTHING;
    EXPECT_NE(slowpath_no_default_route_lookup(CTX, ADDR, &nexthop), 0u);
    EXPECT_EQ(nexthop, NOTHING);
    EXPECT_TRUE(card.calls.empty()) << "nothing to check";
    EXPECT_EQ(lookup(ADDR), (answer{1, 0}));
    EXPECT_EQ(card.lines(), text_lines{"105 <Ctx:3>could not find route for ip=10.9.1.77\n"});

    card.route(0, 0, GATEWAY2);
    EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY2})) << "the default, not the /16";
    EXPECT_EQ(card.lines(), text_lines{"105 <Ctx:3>route lookup: using default route for ip=10.9.1.77\n"});
}

TEST(slowpath_lookup, only_the_low_16_bits_of_an_encap_id_count)
{
    lookup_card card;
    card.route(NET24, MASK24, GATEWAY);
    on_chain(CTX, NET24, 24)->encap_id = 0xABCD0000;
    EXPECT_EQ(lookup(ADDR), (answer{1, 0}));
    EXPECT_TRUE(card.calls.empty());
    on_chain(CTX, NET24, 24)->encap_id = 0xABCD1234;
    EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY}));
    EXPECT_EQ(card.calls, text_lines{CHECK});
    on_chain(CTX, NET24, 24)->encap_id = ENCAP;
}

TEST(slowpath_lookup, a_matched_route_whose_mac_check_fails_is_still_answered)
{
    lookup_card card;
    card.route(0, 0, GATEWAY2);
    card.route(NET24, MASK24, GATEWAY);
    card.macs(0);
    EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY}));
    EXPECT_EQ(card.calls, text_lines{CHECK}) << "the default is not tried";
    EXPECT_EQ(card.lines(), text_lines{"105 <Ctx:3>route lookup: using non-default route for ip=10.9.1.77\n"});
}

TEST(slowpath_lookup, a_slow_path_that_does_not_answer_counts_as_a_valid_mac)
{
    lookup_card card;
    card.route(NET24, MASK24, GATEWAY);
    card.call_results.erase("encap_valid_mac");
    EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY}));
    EXPECT_EQ(card.lines(), (text_lines{"100 <Ctx:0>slowpath_valid_mac: bad rpc retcode -1. STOP\n",
                                        "105 <Ctx:3>route lookup: using non-default route for ip=10.9.1.77\n"}));
}

TEST(slowpath_lookup, the_members_of_a_set_are_not_examined)
{
    lookup_card card;
    card.route(NET24, MASK24, GATEWAY);
    card.route(NET24, MASK24, GATEWAY2);
    ASSERT_EQ(gateways(CTX, NET24, 24), (std::vector<std::uint32_t>{GATEWAY, GATEWAY2}));
    card.macs(0);
    EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY}));
    EXPECT_EQ(card.calls, text_lines{CHECK});
}

TEST(slowpath_lookup, the_default_route_answers_what_no_longer_prefix_covers)
{
    lookup_card card;
    card.route(0, 0, GATEWAY);
    EXPECT_EQ(lookup(IP(192, 0, 2, 1)), (answer{0, GATEWAY}));
    EXPECT_EQ(card.calls, text_lines{CHECK});
    EXPECT_EQ(card.lines(), text_lines{"105 <Ctx:3>route lookup: using default route for ip=192.0.2.1\n"});
}

TEST(slowpath_lookup, the_length_of_0_is_left_to_the_default_lookup)
{
    lookup_card card;
    card.route(0, 0, GATEWAY);
    std::uint32_t nexthop = NOTHING;
    EXPECT_NE(slowpath_no_default_route_lookup(CTX, 0, &nexthop), 0u);
    EXPECT_EQ(nexthop, NOTHING);
    EXPECT_EQ(slowpath_default_route_lookup(CTX, &nexthop), 0u);
    EXPECT_EQ(nexthop, GATEWAY);
}

TEST(slowpath_lookup, a_default_route_whose_mac_check_fails_is_still_answered)
{
    lookup_card card;
    card.route(0, 0, GATEWAY);
    card.macs(0);
    EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY}));
}

TEST(slowpath_lookup, a_default_set_whose_head_has_no_encapsulation_is_not_found)
{
    lookup_card card;
    card.route(0, 0, IP(10, 1, 0, 50)); // unknown gateway: the head
    card.route(0, 0, GATEWAY);
    ASSERT_EQ(gateways(CTX, 0, 0), (std::vector<std::uint32_t>{IP(10, 1, 0, 50), GATEWAY}));
    ASSERT_EQ(on_chain(CTX, 0, 0)->encap_id, 0u);
    ASSERT_NE(on_chain(CTX, 0, 0)->ecmp->encap_id, 0u);
    EXPECT_EQ(lookup(ADDR), (answer{1, 0}));
    EXPECT_TRUE(card.calls.empty());
    EXPECT_EQ(card.lines(), text_lines{"105 <Ctx:3>could not find route for ip=10.9.1.77\n"});
}

TEST(slowpath_lookup, a_context_without_a_route_answers_1_and_a_next_hop_of_0)
{
    lookup_card card;
    std::uint32_t nexthop = NOTHING;
    EXPECT_EQ(slowpath_no_default_route_lookup(4, ADDR, &nexthop), 1u);
    EXPECT_EQ(slowpath_default_route_lookup(4, &nexthop), 1u) << "of an empty chain";
    EXPECT_EQ(nexthop, NOTHING);
    EXPECT_EQ(lookup(IP(255, 128, 0, 255), 4), (answer{1, 0}));
    EXPECT_EQ(card.lines(), text_lines{"105 <Ctx:4>could not find route for ip=255.128.0.255\n"});
    EXPECT_TRUE(card.calls.empty());
}

TEST(slowpath_lookup, a_route_of_another_context_is_not_seen)
{
    lookup_card card;
    card.route(NET24, MASK24, GATEWAY);
    EXPECT_EQ(lookup(ADDR, 4), (answer{1, 0}));
}

TEST(slowpath_lookup, every_length_is_searched_among_the_neighbours_of_its_bucket)
{
    lookup_card card;
    for (std::uint32_t len = 1; len <= 32; ++len) {
        const std::uint32_t mask = ~std::uint32_t{0} << (32 - len);
        // 33 neighbours, so that a chain of the 31 holds a smaller and a larger key.
        const std::uint32_t count = len < 6 ? 1u << len : 33u, first = len < 6 ? 0 : IP(42, 0, 0, 0) >> (32 - len);
        for (std::uint32_t i = 0; i < count; ++i)
            card.route((first + i) << (32 - len), mask, GATEWAY);
        for (std::uint32_t i = 0; i < count; ++i)
            EXPECT_EQ(lookup((first + i) << (32 - len) | ~mask), (answer{0, GATEWAY})) << "/" << len << " number " << i;
        if (len >= 6) {
            EXPECT_EQ(lookup((first + count) << (32 - len)), (answer{1, 0})) << "/" << len << ", one behind the last";
        }
        for (std::uint32_t i = 0; i < count; ++i)
            EXPECT_EQ(rib_remove_route(CTX, CTX, (first + i) << (32 - len), mask, GATEWAY), 0u);
    }
}

TEST(slowpath_lookup, entries_of_one_prefix_are_tried_in_turn_until_one_is_accepted)
{
    lookup_card card;
    card.route(NET24, MASK24, GATEWAY);
    const twin second(NET24, 24, GATEWAY2, ENCAP2);
    EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY}));
    EXPECT_EQ(card.calls, text_lines{CHECK}) << "the first is good enough";

    card.forget();
    fail_check_of(card, {CHECK});
    EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY2}));
    EXPECT_EQ(card.calls, (text_lines{CHECK, CHECK2}));
}

TEST(slowpath_lookup, an_entry_without_an_encapsulation_gives_way_to_the_next_of_its_prefix)
{
    lookup_card card;
    card.route(NET24, MASK24, IP(10, 1, 0, 50)); // waits for its gateway
    const twin second(NET24, 24, GATEWAY2, ENCAP2);
    EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY2}));
    EXPECT_EQ(card.calls, text_lines{CHECK2});
}

TEST(slowpath_lookup, when_every_check_fails_the_last_entrys_next_hop_is_answered)
{
    lookup_card card;
    card.route(NET24, MASK24, GATEWAY);
    const twin second(NET24, 24, GATEWAY2, ENCAP2);
    fail_check_of(card, {CHECK, CHECK2});
    EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY2}));
    EXPECT_EQ(card.calls, (text_lines{CHECK, CHECK2}));
}

TEST(slowpath_lookup, a_last_entry_without_an_encapsulation_decides_that_nothing_was_found)
{
    lookup_card card;
    card.route(NET24, MASK24, GATEWAY);
    const twin second(NET24, 24, GATEWAY2, 0);
    fail_check_of(card, {CHECK});
    std::uint32_t nexthop = NOTHING;
    EXPECT_EQ(slowpath_no_default_route_lookup(CTX, ADDR, &nexthop), 1u);
    EXPECT_EQ(nexthop, GATEWAY) << "the first entry's stays in the output";
    EXPECT_EQ(lookup(ADDR), (answer{1, 0}));
}

TEST(slowpath_lookup, the_walk_of_a_prefix_ends_where_its_bucket_goes_on_with_another)
{
    lookup_card card;
    card.route(NET24, MASK24, IP(10, 1, 0, 50));     // waits for its gateway
    card.route(NET24 + (31u << 8), MASK24, GATEWAY); // the next of the same chain
    ASSERT_EQ(on_chain(CTX, NET24, 24)->next.get(), on_chain(CTX, NET24 + (31u << 8), 24));
    EXPECT_EQ(lookup(ADDR), (answer{1, 0}));
    EXPECT_TRUE(card.calls.empty());
}

TEST(slowpath_lookup, the_default_lookup_walks_its_whole_chain)
{
    lookup_card card;
    card.route(0, 0, IP(10, 1, 0, 50)); // waits for its gateway
    {
        const twin second(0, 0, GATEWAY2, ENCAP2);
        EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY2}));
        EXPECT_EQ(card.calls, text_lines{CHECK2});
    }
    on_chain(CTX, 0, 0)->encap_id = ENCAP;
    fail_check_of(card, {CHECK});
    {
        const twin second(0, 0, GATEWAY2, ENCAP2);
        EXPECT_EQ(lookup(ADDR), (answer{0, GATEWAY2}));
    }
    const twin second(0, 0, GATEWAY2, 0);
    EXPECT_EQ(lookup(ADDR), (answer{1, 0})) << "the last one examined decides";
    on_chain(CTX, 0, 0)->encap_id = 0;
}
