// route_events_test.cpp - the interface manager's events: decoded, checked and carried out.
#include "route_events.h"

#include <array>

#include "rib_card.h"
#include "rib_host.h"
#include "rib_interface.h"
#include "rib_nat.h"
#include "rib_static.h"
#include "route_ids.h"

using namespace harness;

namespace
{

constexpr std::uint32_t NEW_ADDR = IP(10, 1, 1, 1);
constexpr std::uint32_t POOL = IP(10, 8, 0, 16), NET = IP(10, 9, 0, 0);

bool is_up(std::uint32_t addr = IF_ADDR, std::uint32_t ctx = CTX) { return on_chain(ctx, addr, 32) != nullptr; }

// A learned host, a static route through it and a NAT pool on the interface.
void depend_on_interface()
{
    ASSERT_EQ(deliver(MTS_OPC_NORVIK_IF_UP, state_payload()), 0);
    ASSERT_EQ(arp_prefix_mgr_add_route(RIB_OBJ_ARP_HOST, GATEWAY, 32, ENCAP, IFID, CTX), 0u);
    ASSERT_EQ(rib_add_route(CTX, CTX, NET, MASK16, GATEWAY), 0u);
    ASSERT_EQ(rib_add_nat_pool(CTX, IFID, POOL, 8, 0x77), 0u);
}

struct named_opcode {
    std::uint32_t opcode;
    const char *name;
};
constexpr named_opcode STATE_EVENTS[] = {{4063, "MTS_OPC_NORVIK_IF_CREATED"},
                                         {4064, "MTS_OPC_NORVIK_IF_DELETED"},
                                         {4065, "MTS_OPC_NORVIK_IF_UP"},
                                         {4066, "MTS_OPC_NORVIK_IF_DOWN"}};

} // namespace

TEST(route_events, the_opcodes_have_their_numbers)
{
    EXPECT_EQ(MTS_OPC_NORVIK_IF_CREATED, 4063u);
    EXPECT_EQ(MTS_OPC_NORVIK_IF_DELETED, 4064u);
    EXPECT_EQ(MTS_OPC_NORVIK_IF_UP, 4065u);
    EXPECT_EQ(MTS_OPC_NORVIK_IF_DOWN, 4066u);
    EXPECT_EQ(MTS_OPC_NORVIK_ENCAP_ACQUIRE, 4069u);
    EXPECT_EQ(MTS_OPC_NORVIK_ENCAP_RELEASE, 4070u);
    EXPECT_EQ(MTS_OPC_NORVIK_IF_CHANGED, 4089u);
}

TEST(route_events, fields_are_big_endian_and_the_mask_stands_at_byte_21)
{
    byte_string payload(48);
    for (std::size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<std::uint8_t>(0x80 + i);
    const if_event event = if_event_decode(payload.data());
    EXPECT_EQ(event.ifid, 0x8081);
    EXPECT_EQ(event.ctx, 0x8283);
    EXPECT_EQ(event.addr, 0x84858687u);
    EXPECT_EQ(event.mask, 0x95969798u);
    EXPECT_EQ(event.rmode, 0xACADAEAFu);
}

TEST(route_events, an_interface_that_comes_up_gets_its_routes_and_is_announced)
{
    rib_card card;
    EXPECT_EQ(deliver(4065, state_payload()), 0);
    EXPECT_EQ(entries_of(CTX), 4u);
    EXPECT_TRUE(is_up());
    ASSERT_NE(on_chain(CTX, IP(10, 1, 0, 0), 24), nullptr) << "the mask is the one at byte 21";
    EXPECT_EQ(on_chain(CTX, IP(10, 1, 0, 0), 24)->ifid, IFID);
    ASSERT_EQ(card.sent.size(), 1u);
    EXPECT_EQ(card.sent[0].opcode, 0x1005u);
    EXPECT_EQ(card.lines().front(), "106 <Ctx:3>Got MTS_OPC_NORVIK_IF_UP.\n");
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
}

TEST(route_events, an_interface_that_does_not_route_by_itself_changes_no_route_when_it_comes_up)
{
    for (const std::uint32_t rmode : {0u, 2u, 0x01000000u}) {
        rib_card card;
        EXPECT_EQ(deliver(4065, state_payload({.rmode = rmode})), 0);
        EXPECT_EQ(card.lines(),
                  (text_lines{"106 <Ctx:3>Got MTS_OPC_NORVIK_IF_UP.\n",
                              text("105 <Ctx:3>IF_UP, Not L3 interface, contextid=3, ifid=5\n, rmode =%u", rmode)}));
        EXPECT_EQ(entries_of(CTX), 0u);
        EXPECT_EQ(card.calls, text_lines{});
    }
}

TEST(route_events, a_routed_interface_without_an_address_is_complained_about_and_added_all_the_same)
{
    rib_card card;
    EXPECT_EQ(deliver(4065, state_payload({.addr = 0})), 0);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).front(),
              "<Ctx:3>IF_UP, Bad L3 interface, contextid=3, ipaddr =0, mask=ffffff00");
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "norvik_add_interface"),
              (text_lines{"<Ctx:3>norvik_add_interface:ifid =5, ip=0.0.0.0  maskbits =24\n"}));
    EXPECT_EQ(entries_of(CTX), 0u) << "its network address is the address itself, so the add is undone";
    EXPECT_EQ(card.sent.size(), 0u);
}

TEST(route_events, a_routed_interface_without_a_mask_is_complained_about_and_added_all_the_same)
{
    rib_card card;
    EXPECT_EQ(deliver(4065, state_payload({.mask = 0})), 0);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).front(),
              "<Ctx:3>IF_UP, Bad L3 interface, contextid=3, ipaddr =a010001, mask=0");
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "norvik_add_interface"),
              (text_lines{"<Ctx:3>norvik_add_interface:ifid =5, ip=10.1.0.1  maskbits =0\n"}));
}

TEST(route_events, an_interface_that_goes_down_loses_its_nat_routes_and_then_its_own)
{
    rib_card card;
    depend_on_interface();
    card.forget();
    card.log_in_calls = true;
    EXPECT_EQ(deliver(4066, state_payload()), 0);
    EXPECT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT);
    EXPECT_EQ(on_chain(CTX, NET, 16)->flags, RIB_F_GATEWAY);
    EXPECT_EQ(entries_of(CTX), 2u) << "the pool's and the static route stay";
    ASSERT_EQ(card.sent.size(), 1u);
    EXPECT_EQ(card.sent[0].opcode, 0x1006u);
    const text_lines lines = card.lines();
    EXPECT_EQ(lines[0], "106 <Ctx:3>Got MTS_OPC_NORVIK_IF_DOWN.\n");
    EXPECT_EQ(lines[1], "105 <Ctx:3>IF_DOWN, L3 interface, contextid=3, ipaddr =a010001, mask=ffffff00, ifid =5\n");
    const text_lines order = card.with(ROUTE_DBG_INFO, "o");
    std::size_t nat = 0, own = 0;
    for (std::size_t i = 0; i < order.size(); ++i) {
        if (order[i].find("route_traversal: Start") != std::string::npos)
            nat = i;
        if (order[i].find("norvik_remove_interface") != std::string::npos)
            own = i;
    }
    EXPECT_NE(nat, 0u) << "the NAT routes are walked";
    EXPECT_GT(own, nat);
}

TEST(route_events, an_interface_that_is_deleted_keeps_its_nat_routes)
{
    rib_card card;
    depend_on_interface();
    card.forget();
    EXPECT_EQ(deliver(4064, state_payload()), 0);
    EXPECT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT | RIB_F_NAT_IN_MTRIE);
    EXPECT_EQ(on_chain(CTX, NET, 16)->flags, RIB_F_GATEWAY);
    EXPECT_EQ(entries_of(CTX), 2u);
    ASSERT_EQ(card.sent.size(), 1u);
    EXPECT_EQ(card.sent[0].opcode, 0x1006u);
    const text_lines lines = card.lines();
    EXPECT_EQ(lines[0], "106 <Ctx:3>Got MTS_OPC_NORVIK_IF_DELETED.\n");
    EXPECT_EQ(lines[1], "105 <Ctx:3>IF_DOWN, L3 interface, contextid=3, ipaddr =a010001, mask=ffffff00, ifid =5\n");
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "route_traversal"), text_lines{});
}

TEST(route_events, an_interface_that_does_not_route_by_itself_changes_no_route_when_it_goes)
{
    for (const named_opcode &event : {STATE_EVENTS[1], STATE_EVENTS[3]}) {
        rib_card card;
        depend_on_interface();
        card.forget();
        EXPECT_EQ(deliver(event.opcode, state_payload({.rmode = 2})), 0);
        EXPECT_EQ(card.lines(), (text_lines{std::string("106 <Ctx:3>Got ") + event.name + ".\n",
                                            "105 <Ctx:3>IF_DOWN, Not L3 interface, contextid=3, ifid=5\n, rmode =2"}));
        EXPECT_EQ(entries_of(CTX), 7u);
        EXPECT_EQ(card.calls, text_lines{});
    }
}

TEST(route_events, an_interface_that_is_created_is_only_logged)
{
    rib_card card;
    EXPECT_EQ(deliver(4063, state_payload()), 0);
    EXPECT_EQ(card.lines(), (text_lines{"106 <Ctx:3>Got MTS_OPC_NORVIK_IF_CREATED.\n"}));
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.calls, text_lines{});
}

TEST(route_events, a_created_interfaces_context_is_not_judged_and_reaches_the_debug_gate_sign_extended)
{
    rib_card card;
    card.open_debug_for(ROUTE_DBG_MAIN_LOOP, -2, true);
    EXPECT_EQ(deliver(4063, state_payload({.ctx = 0xFFFE})), 0);
    EXPECT_EQ(card.lines(), (text_lines{"106 <Ctx:65534>Got MTS_OPC_NORVIK_IF_CREATED.\n"}));
    ASSERT_EQ(card.debug.size(), 1u);
    EXPECT_EQ(card.debug[0].ctx, -2);
    EXPECT_EQ(card.debug[0].text, "Got MTS_OPC_NORVIK_IF_CREATED.\n");
}

TEST(route_events, encapsulations_taken_and_given_back_are_only_logged_whatever_they_carry)
{
    for (const std::size_t length : {std::size_t{0}, std::size_t{48}}) {
        rib_card card;
        EXPECT_EQ(deliver(4069, byte_string(length, 0xFF)), 0);
        EXPECT_EQ(deliver(4070, byte_string(length, 0xFF)), 0);
        EXPECT_EQ(card.lines(), (text_lines{"106 <Ctx:0>Got MTS_OPC_NORVIK_ENCAP_ACQUIRE.\n",
                                            "106 <Ctx:0>Got MTS_OPC_NORVIK_ENCAP_RELEASE.\n"}));
        EXPECT_EQ(card.calls, text_lines{});
    }
}

TEST(route_events, every_other_opcode_is_ignored_under_the_platforms_name_for_it)
{
    rib_card card;
    std::vector<std::uint32_t> unused = {0, 1, 4062, 4067, 4068, 4090, 0x1005, 0xFFFFFFFF};
    for (std::uint32_t opcode = 4071; opcode <= 4088; ++opcode)
        unused.push_back(opcode);
    for (const std::uint32_t opcode : unused) {
        card.forget();
        EXPECT_EQ(deliver(opcode, state_payload()), 0);
        EXPECT_EQ(card.lines(),
                  (text_lines{"106 <Ctx:0>Ignoring Message: " + std::string(mts_opc_name_get(opcode)) + "\n"}));
        EXPECT_EQ(card.calls, text_lines{});
    }
    EXPECT_EQ(entries_of(CTX), 0u);
    card.forget();
    (void)deliver(4067, {});
    EXPECT_EQ(card.lines(), (text_lines{"106 <Ctx:0>Ignoring Message: MTS_OPC_4067\n"}));
}

TEST(route_events, a_state_payload_one_byte_short_changes_nothing_and_is_one_line)
{
    for (const named_opcode &event : STATE_EVENTS)
        for (const std::size_t length : {std::size_t{0}, std::size_t{3}, std::size_t{47}}) {
            rib_card card;
            depend_on_interface();
            card.forget();
            byte_string payload = state_payload();
            payload.resize(length);
            EXPECT_EQ(deliver(event.opcode, payload), 0);
            EXPECT_EQ(card.lines(),
                      (text_lines{text("100 <Ctx:0>Ignoring event %s: %zu byte payload\n", event.name, length)}));
            EXPECT_EQ(entries_of(CTX), 7u);
            EXPECT_EQ(card.calls, text_lines{});
        }
}

TEST(route_events, a_longer_state_payload_is_taken_by_its_first_bytes)
{
    rib_card card;
    byte_string payload = state_payload();
    payload.resize(1024, 0xFF);
    EXPECT_EQ(deliver(4065, payload), 0);
    EXPECT_TRUE(is_up());
}

TEST(route_events, a_context_over_255_changes_nothing_and_is_one_line)
{
    for (const named_opcode &event : {STATE_EVENTS[1], STATE_EVENTS[2], STATE_EVENTS[3]})
        for (const std::uint32_t ctx : {256u, 0x103u, 0x8003u, 0xFFFFu})
            for (const std::uint32_t rmode : {1u, 2u}) {
                rib_card card;
                EXPECT_EQ(deliver(event.opcode, state_payload({.ctx = ctx, .rmode = rmode})), 0);
                EXPECT_EQ(card.lines(), (text_lines{text("100 <Ctx:0>Ignoring event %s: context %u out of range\n",
                                                         event.name, ctx)}));
                EXPECT_EQ(entries_of(CTX), 0u);
                EXPECT_EQ(card.calls, text_lines{});
            }
}

TEST(route_events, the_last_context_is_in_range)
{
    rib_card card;
    EXPECT_EQ(deliver(4065, state_payload({.ctx = 255})), 0);
    EXPECT_TRUE(is_up(IF_ADDR, 255));
    EXPECT_EQ(card.texts(ROUTE_DBG_MAIN_LOOP), (text_lines{"<Ctx:255>Got MTS_OPC_NORVIK_IF_UP.\n"}));
    EXPECT_EQ(deliver(4066, state_payload({.ctx = 255})), 0);
    EXPECT_FALSE(is_up(IF_ADDR, 255));
}

TEST(route_events, an_address_change_that_is_none_is_ignored_without_a_query)
{
    for (const std::uint32_t word : {0u, 1u, 0x7FFFFFFFu}) {
        rib_card card;
        EXPECT_EQ(deliver(4089, change_payload({.old_addr = IF_ADDR, .word = word})), 0);
        EXPECT_EQ(card.queries, text_lines{});
        EXPECT_EQ(card.lines(), (text_lines{"106 <Ctx:0>Got MTS_OPC_NORVIK_IF_CHANGED.\n"}));
        EXPECT_EQ(card.calls, text_lines{});
    }
}

TEST(route_events, a_changed_address_removes_the_old_routes_with_the_nat_routes_and_then_adds_the_new)
{
    rib_card card;
    depend_on_interface();
    card.interfaces[IFID].address = NEW_ADDR;
    card.forget();
    EXPECT_EQ(deliver(4089, change_payload({IF_ADDR})), 0);
    EXPECT_FALSE(is_up(IF_ADDR));
    EXPECT_TRUE(is_up(NEW_ADDR));
    EXPECT_NE(on_chain(CTX, IP(10, 1, 1, 0), 24), nullptr);
    EXPECT_EQ(on_chain(CTX, IP(10, 1, 0, 0), 24), nullptr);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), text_lines{});
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "_interface:"),
              (text_lines{"<Ctx:3>norvik_remove_interface: ifid =5, ip=10.1.0.1  maskbits =24\n",
                          "<Ctx:3>norvik_add_interface:ifid =5, ip=10.1.1.1  maskbits =24\n"}));
    EXPECT_EQ(card.texts(ROUTE_DBG_MAIN_LOOP), (text_lines{"<Ctx:0>Got MTS_OPC_NORVIK_IF_CHANGED.\n"}));
}

TEST(route_events, a_changed_address_keeps_hosts_and_static_routes_and_is_not_announced)
{
    rib_card card;
    depend_on_interface();
    card.interfaces[IFID].address = NEW_ADDR;
    card.forget();
    EXPECT_EQ(deliver(4089, change_payload({IF_ADDR})), 0);
    EXPECT_NE(on_chain(CTX, GATEWAY, 32), nullptr);
    EXPECT_EQ(on_chain(CTX, NET, 16)->flags, RIB_F_GATEWAY | RIB_F_IN_MTRIE);
    EXPECT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT | RIB_F_NAT_IN_MTRIE) << "down, and up with the new address";
    EXPECT_EQ(card.sent.size(), 0u);
    EXPECT_EQ(card.calls_of("tn_flush_rt_cache").size(), 1u);
    EXPECT_EQ(card.queries, (text_lines{"if_get_address 5", "if_get_ip 5", "if_get_context_id 5"})) << "each once";
}

TEST(route_events, a_change_from_no_address_only_adds)
{
    rib_card card;
    EXPECT_EQ(deliver(4089, change_payload({0})), 0);
    EXPECT_TRUE(is_up());
    EXPECT_EQ(entries_of(CTX), 4u);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "norvik_remove"), text_lines{});
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "route_traversal: Start").size(), 1u) << "the NAT routes of the add";
    EXPECT_EQ(card.calls, text_lines{});
}

TEST(route_events, a_change_to_no_address_only_removes)
{
    rib_card card;
    depend_on_interface();
    card.interfaces[IFID].address = 0;
    card.forget();
    EXPECT_EQ(deliver(4089, change_payload({IF_ADDR})), 0);
    EXPECT_FALSE(is_up());
    EXPECT_EQ(on_chain(CTX, POOL, 29)->flags, RIB_F_NAT);
    EXPECT_EQ(card.with(ROUTE_DBG_INFO, "norvik_add_interface"), text_lines{});
    EXPECT_EQ(card.sent.size(), 0u);
}

TEST(route_events, a_change_from_no_address_to_none_changes_nothing)
{
    rib_card card;
    card.interfaces[IFID].address = 0;
    EXPECT_EQ(deliver(4089, change_payload({0})), 0);
    EXPECT_EQ(card.lines(), (text_lines{"106 <Ctx:0>Got MTS_OPC_NORVIK_IF_CHANGED.\n"}));
    EXPECT_EQ(card.calls, text_lines{});
}

TEST(route_events, the_whole_interface_id_is_asked_for_and_its_low_half_passed_on)
{
    rib_card card;
    card.interfaces.clear();
    card.add_interface(0x00020006, IF_ADDR, CTX);
    EXPECT_EQ(deliver(4089, change_payload({.old_addr = 0, .ifid = 0x00020006, .old_mask = 0})), 0);
    ASSERT_TRUE(is_up());
    EXPECT_EQ(on_chain(CTX, IF_ADDR, 32)->ifid, 6);
    card.forget();
    EXPECT_EQ(deliver(4089, change_payload({.old_addr = 0, .ifid = 6, .old_mask = 0})), 0);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), (text_lines{"<Ctx:0>ifid to rmode mapping failed for 6"}));
}

TEST(route_events, a_change_of_an_interface_that_the_interface_manager_cannot_place_is_one_error_line)
{
    struct lack {
        const char *line;
        void (*take)(fake_interface &);
    };
    const lack lacks[] = {
        {"<Ctx:0>ifid to rmode mapping failed for 5", [](fake_interface &entry) { entry.has_rmode = false; }},
        {"<Ctx:0>ifid to ipaddr mapping failed for 5", [](fake_interface &entry) { entry.has_address = false; }},
        {"<Ctx:0>ifid to context_id mapping failed for 5", [](fake_interface &entry) { entry.ctx = -1; }},
        {"<Ctx:0>ifid to context_id mapping failed for 5", [](fake_interface &entry) { entry.ctx = INT32_MIN; }},
    };
    for (const lack &missing : lacks) {
        rib_card card;
        depend_on_interface();
        missing.take(card.interfaces[IFID]);
        card.forget();
        EXPECT_EQ(deliver(4089, change_payload({IF_ADDR})), 0);
        EXPECT_EQ(card.lines(),
                  (text_lines{"106 <Ctx:0>Got MTS_OPC_NORVIK_IF_CHANGED.\n", std::string("100 ") + missing.line}));
        EXPECT_EQ(entries_of(CTX), 7u);
        EXPECT_EQ(card.calls, text_lines{});
    }
}

TEST(route_events, an_interface_id_with_the_top_bit_is_printed_as_a_negative_number)
{
    rib_card card;
    EXPECT_EQ(deliver(4089, change_payload({.old_addr = 0, .ifid = 0xFFFFFFFF, .old_mask = 0})), 0);
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS), (text_lines{"<Ctx:0>ifid to rmode mapping failed for -1"}));
}

TEST(route_events, a_change_of_an_interface_that_does_not_route_by_itself_is_silent)
{
    rib_card card;
    depend_on_interface();
    card.interfaces[IFID].rmode = 2;
    card.interfaces[IFID].has_address = false; // not asked for any more
    card.forget();
    EXPECT_EQ(deliver(4089, change_payload({IF_ADDR})), 0);
    EXPECT_EQ(card.lines(), (text_lines{"106 <Ctx:0>Got MTS_OPC_NORVIK_IF_CHANGED.\n"}));
    EXPECT_EQ(card.queries, text_lines{"if_get_address 5"});
    EXPECT_EQ(entries_of(CTX), 7u);
}

TEST(route_events, a_change_in_a_context_over_255_changes_nothing_and_is_judged_whole)
{
    for (const std::int32_t ctx : {256, 0x10003, INT32_MAX}) {
        rib_card card;
        depend_on_interface();
        card.interfaces[IFID].ctx = ctx;
        card.forget();
        EXPECT_EQ(deliver(4089, change_payload({IF_ADDR})), 0);
        EXPECT_EQ(
            card.lines(),
            (text_lines{"106 <Ctx:0>Got MTS_OPC_NORVIK_IF_CHANGED.\n",
                        text("100 <Ctx:0>Ignoring event MTS_OPC_NORVIK_IF_CHANGED: context %d out of range\n", ctx)}));
        EXPECT_EQ(entries_of(CTX), 7u);
        EXPECT_EQ(card.calls, text_lines{});
    }
}

TEST(route_events, a_change_payload_one_byte_short_changes_nothing_and_is_one_line)
{
    for (const std::size_t length : {std::size_t{0}, std::size_t{15}}) {
        rib_card card;
        depend_on_interface();
        card.forget();
        byte_string payload = change_payload({IF_ADDR});
        payload.resize(length);
        EXPECT_EQ(deliver(4089, payload), 0);
        EXPECT_EQ(
            card.lines(),
            (text_lines{text("100 <Ctx:0>Ignoring event MTS_OPC_NORVIK_IF_CHANGED: %zu byte payload\n", length)}));
        EXPECT_EQ(entries_of(CTX), 7u);
    }
}
