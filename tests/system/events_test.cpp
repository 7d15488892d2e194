// events_test.cpp - the interface manager's events to the real daemon, on a card with one processor and on one with
// two.
//
// Payloads and notifications are written down byte by byte. An event is over when a later request of the debug service,
// which waits in the same queue, is answered.

#include <gtest/gtest.h>

#include "serving_card.h"

using namespace harness;

namespace
{
constexpr std::uint32_t NET = IP(10, 9, 0, 0), POOL = IP(10, 8, 0, 16);
constexpr std::uint32_t LOCAL = 0x00058001, RESOLVE = 0x80050000, HOST_WORD = 0x00051234, NAT_WORD = 0x20050077;
constexpr std::uint32_t NEW_ADDR = IP(10, 1, 1, 1);

class daemon_events : public testing::TestWithParam<unsigned>
{
protected:
    serving_card live{GetParam()};

    void event(std::uint32_t opcode, const byte_string &payload) const
    {
        mts_send(live.queue, opcode, payload);
        live.settle();
    }
    // An event that is announced: the whole datagram.
    byte_string announced(std::uint32_t opcode, const byte_string &payload) const
    {
        mts_send(live.queue, opcode, payload);
        const byte_string datagram = mts_receive_raw(live.queue);
        live.settle();
        return datagram;
    }
    // Interface up, a host on it, a static route through the host, a NAT pool.
    void depend_on_interface()
    {
        ASSERT_NE(announced(EVENT_UP, state_payload()).size(), 0u);
        ASSERT_EQ(live.result(call_host_add(GATEWAY, ENCAP)), 0u);
        ASSERT_EQ(live.result(call_route_add(NET, MASK16, GATEWAY)), 0u);
        ASSERT_EQ(live.result(call_pool_add(POOL, 8, 0x77)), 0u);
        live.forget();
    }
    void expect_untouched() const
    {
        for (const auto &[name, base] : live.copies())
            EXPECT_EQ(table_difference(memory_words(live.card, name), table_at_start(base).words), "") << name;
    }
};

INSTANTIATE_TEST_SUITE_P(processors, daemon_events, testing::Values(1u, 2u));

// A notification: "MTS1", opcode, this card, service access point 514; context, address, mask, interface.
byte_string notification(std::uint32_t opcode, std::uint32_t ctx, std::uint32_t addr = IF_ADDR)
{
    return word_bytes({0x4D545331, opcode, 0, 514, ctx, addr, MASK24, IFID});
}
} // namespace

TEST_P(daemon_events, an_interface_that_comes_up_has_its_four_routes_and_is_announced_to_everyone)
{
    const mts_queue listener(live.card, 600);
    EXPECT_EQ(announced(EVENT_UP, state_payload()), notification(0x1005, CTX));
    EXPECT_EQ(mts_receive_raw(listener), notification(0x1005, CTX));
    EXPECT_EQ(live.found(CTX, IF_ADDR), LOCAL);
    EXPECT_EQ(live.found(CTX, IP(10, 1, 0, 0)), LOCAL);
    EXPECT_EQ(live.found(CTX, IP(10, 1, 0, 255)), LOCAL);
    EXPECT_EQ(live.found(CTX, IP(10, 1, 0, 77)), RESOLVE);
    EXPECT_EQ(live.found(CTX, IP(10, 1, 1, 0)), 0u);
    EXPECT_EQ(live.lines("Got MTS_OPC"), (text_lines{"106 <Ctx:3>Got MTS_OPC_NORVIK_IF_UP.\n"}));
    EXPECT_EQ(live.lines("_interface:"),
              (text_lines{"105 <Ctx:3>norvik_add_interface:ifid =5, ip=10.1.0.1  maskbits =24\n"}));
}

TEST_P(daemon_events, the_add_announces_the_interface_managers_context_and_the_removal_the_events)
{
    EXPECT_EQ(announced(EVENT_UP, state_payload({.ctx = 7})), notification(0x1005, CTX));
    EXPECT_EQ(live.found(7, IF_ADDR), LOCAL);
    EXPECT_EQ(live.found(CTX, IF_ADDR), 0u);
    EXPECT_EQ(announced(EVENT_DOWN, state_payload({.ctx = 7})), notification(0x1006, 7));
}

TEST_P(daemon_events, an_interface_with_a_mask_of_31_or_32_bits_is_undone_and_not_announced)
{
    for (const std::uint32_t mask : {0xFFFFFFFFu, 0xFFFFFFFEu})
        for (const std::uint32_t addr : {IF_ADDR, IP(10, 1, 0, 4)}) {
            event(EVENT_UP, state_payload({.addr = addr, .mask = mask}));
            EXPECT_EQ(live.found(CTX, addr), 0u);
        }
    const text_lines rejected = live.lines("rejecting");
    EXPECT_EQ(rejected, (text_lines{"100 <Ctx:3>rib_add_host_route:rejecting duplicate entry:a010001/32\n",
                                    "100 <Ctx:3>rib_add_host_route:rejecting duplicate entry:a010004/32\n",
                                    "100 <Ctx:3>rib_add_host_route:rejecting duplicate entry:a010001/32\n",
                                    "100 <Ctx:3>rib_add_host_route:rejecting duplicate entry:a010004/32\n"}));
}

TEST_P(daemon_events, the_daemon_does_not_hear_its_own_announcement)
{
    const std::uint64_t before = counter_value(debug_answer(live.queue, 5), "messages_received");
    mts_send(live.queue, EVENT_UP, state_payload());
    ASSERT_EQ(mts_receive(live.queue).opcode, 0x1005u);
    EXPECT_EQ(counter_value(debug_answer(live.queue, 5), "messages_received"), before + 2);
    EXPECT_EQ(live.lines("Ignoring").size(), 0u);
}

TEST_P(daemon_events, an_interface_that_does_not_route_by_itself_changes_nothing)
{
    for (const std::uint32_t opcode : {EVENT_UP, EVENT_DOWN, EVENT_DELETED}) {
        live.forget();
        event(opcode, state_payload({.rmode = 2}));
        const std::string name = opcode == EVENT_UP ? "IF_UP" : opcode == EVENT_DOWN ? "IF_DOWN" : "IF_DELETED";
        EXPECT_EQ(live.lines(), (text_lines{"106 <Ctx:3>Got MTS_OPC_NORVIK_" + name + ".\n",
                                            std::string("105 <Ctx:3>") + (opcode == EVENT_UP ? "IF_UP" : "IF_DOWN") +
                                                ", Not L3 interface, contextid=3, ifid=5\n, rmode =2"}));
    }
    expect_untouched();
}

TEST_P(daemon_events, a_routed_interface_without_an_address_is_complained_about_and_its_add_undone)
{
    event(EVENT_UP, state_payload({.addr = 0}));
    const text_lines lines = live.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "106 <Ctx:3>Got MTS_OPC_NORVIK_IF_UP.\n");
    EXPECT_EQ(lines[1], "100 <Ctx:3>IF_UP, Bad L3 interface, contextid=3, ipaddr =0, mask=ffffff00");
    EXPECT_EQ(lines[2], "105 <Ctx:3>norvik_add_interface:ifid =5, ip=0.0.0.0  maskbits =24\n");
    EXPECT_EQ(live.lines("rejecting"), (text_lines{"100 <Ctx:3>rib_add_host_route:rejecting duplicate entry:0/32\n"}));
    EXPECT_EQ(live.found(CTX, 0), 0u);
    EXPECT_EQ(live.result({"show_fib_print", {arg16(CTX), arg_ref16(0), arg_ref16(0), arg_ref(0), arg_block()}}), 1u)
        << "the drop entry alone";
}

TEST_P(daemon_events, an_interface_that_goes_down_takes_what_depends_on_it_out_of_the_tables)
{
    depend_on_interface();
    EXPECT_EQ(announced(EVENT_DOWN, state_payload()), notification(0x1006, CTX));
    for (const std::uint32_t addr : {IF_ADDR, GATEWAY, NET, POOL, IP(10, 1, 0, 255)})
        EXPECT_EQ(live.found(CTX, addr), 0u) << addr;
    const text_lines lines = live.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "106 <Ctx:3>Got MTS_OPC_NORVIK_IF_DOWN.\n");
    EXPECT_EQ(lines[1], "105 <Ctx:3>IF_DOWN, L3 interface, contextid=3, ipaddr =a010001, mask=ffffff00, ifid =5\n");
    EXPECT_EQ(lines[2], "105 <Ctx:3>route_traversal: Start with route list (0,0) at position 0\n")
        << "the NAT routes go first";
    EXPECT_EQ(live.lines("ifdown").size(), 6u) << "begin and end of two clean-ups, a host, a static route";
    EXPECT_EQ(live.lines("remove_static_ifdown route"),
              (text_lines{"105 <Ctx:3>remove_static_ifdown route =0xa090000 found, ifid 5, encapid 4660\n"}));

    // What waits comes back with the interface and the next report of the host.
    EXPECT_EQ(announced(EVENT_UP, state_payload()), notification(0x1005, CTX));
    EXPECT_EQ(live.found(CTX, POOL), NAT_WORD);
    EXPECT_EQ(live.found(CTX, NET), 0u);
    EXPECT_EQ(live.result(call_host_add(GATEWAY, ENCAP)), 0u);
    EXPECT_EQ(live.found(CTX, NET), HOST_WORD);
}

TEST_P(daemon_events, an_interface_that_is_deleted_keeps_its_nat_routes_in_the_tables)
{
    depend_on_interface();
    EXPECT_EQ(announced(EVENT_DELETED, state_payload()), notification(0x1006, CTX));
    EXPECT_EQ(live.found(CTX, POOL), NAT_WORD);
    for (const std::uint32_t addr : {IF_ADDR, GATEWAY, NET})
        EXPECT_EQ(live.found(CTX, addr), 0u) << addr;
    EXPECT_EQ(live.lines("Got MTS_OPC"), (text_lines{"106 <Ctx:3>Got MTS_OPC_NORVIK_IF_DELETED.\n"}));
    EXPECT_EQ(live.lines("route_traversal").size(), 0u);
}

TEST_P(daemon_events, an_address_change_moves_the_interfaces_own_routes_and_is_not_announced)
{
    depend_on_interface();
    std::vector<interface_record> interfaces = live_interfaces();
    interfaces[0].address = NEW_ADDR;
    interfaces_write(live.card, interfaces);
    event(EVENT_CHANGED, change_payload({IF_ADDR}));
    EXPECT_EQ(live.found(CTX, IF_ADDR), 0u);
    EXPECT_EQ(live.found(CTX, NEW_ADDR), LOCAL);
    EXPECT_EQ(live.found(CTX, GATEWAY), HOST_WORD) << "hosts stay";
    EXPECT_EQ(live.found(CTX, NET), HOST_WORD) << "and static routes";
    EXPECT_EQ(live.found(CTX, POOL), NAT_WORD) << "out, and in again";
    EXPECT_EQ(live.lines("_interface:"),
              (text_lines{"105 <Ctx:3>norvik_remove_interface: ifid =5, ip=10.1.0.1  maskbits =24\n",
                          "105 <Ctx:3>norvik_add_interface:ifid =5, ip=10.1.1.1  maskbits =24\n"}));
    EXPECT_EQ(live.lines().front(), "106 <Ctx:0>Got MTS_OPC_NORVIK_IF_CHANGED.\n");
}

TEST_P(daemon_events, a_change_from_no_address_only_adds_and_one_to_no_address_only_removes)
{
    event(EVENT_CHANGED, change_payload({0}));
    EXPECT_EQ(live.found(CTX, IF_ADDR), LOCAL);
    EXPECT_EQ(live.lines("norvik_remove").size(), 0u);
    live.forget();
    std::vector<interface_record> interfaces = live_interfaces();
    interfaces[0].address = 0;
    interfaces_write(live.card, interfaces);
    event(EVENT_CHANGED, change_payload({IF_ADDR}));
    EXPECT_EQ(live.found(CTX, IF_ADDR), 0u);
    EXPECT_EQ(live.lines("norvik_add").size(), 0u);
}

TEST_P(daemon_events, a_change_of_something_else_than_the_address_is_only_logged)
{
    for (const std::uint32_t word : {0u, 1u, 0x7FFFFFFFu}) {
        live.forget();
        event(EVENT_CHANGED, change_payload({.old_addr = 0, .word = word}));
        EXPECT_EQ(live.lines(), (text_lines{"106 <Ctx:0>Got MTS_OPC_NORVIK_IF_CHANGED.\n"}));
    }
    expect_untouched();
}

TEST_P(daemon_events, a_change_of_an_interface_that_cannot_be_placed_is_one_error_line)
{
    const auto line_of = [this](std::uint32_t ifid, std::uint32_t flags, std::uint32_t ctx) {
        live.forget();
        interfaces_write(live.card, {{IFID, flags, 1, 0, IF_ADDR, MASK24, ctx, 0}});
        event(EVENT_CHANGED, change_payload({.old_addr = 0, .ifid = ifid}));
        const text_lines lines = live.lines();
        EXPECT_EQ(lines.size(), 2u);
        return lines.back();
    };
    EXPECT_EQ(line_of(9, IF_EXISTS | IF_ADDRESS | IF_CONTEXT, 3), "100 <Ctx:0>ifid to rmode mapping failed for 9");
    EXPECT_EQ(line_of(8192, IF_EXISTS, 3), "100 <Ctx:0>ifid to rmode mapping failed for 8192");
    EXPECT_EQ(line_of(0xFFFFFFFF, IF_EXISTS, 3), "100 <Ctx:0>ifid to rmode mapping failed for -1");
    EXPECT_EQ(line_of(5, IF_EXISTS | IF_CONTEXT, 3), "100 <Ctx:0>ifid to ipaddr mapping failed for 5");
    EXPECT_EQ(line_of(5, IF_EXISTS | IF_ADDRESS, 3), "100 <Ctx:0>ifid to context_id mapping failed for 5");
    EXPECT_EQ(line_of(5, IF_EXISTS | IF_ADDRESS | IF_CONTEXT, 0xFFFFFF00),
              "100 <Ctx:0>ifid to context_id mapping failed for 5");
    EXPECT_EQ(line_of(5, IF_EXISTS | IF_ADDRESS | IF_CONTEXT, 0x10003),
              "100 <Ctx:0>Ignoring event MTS_OPC_NORVIK_IF_CHANGED: context 65539 out of range\n");
    expect_untouched();
}

TEST_P(daemon_events, the_other_messages_are_lines_and_nothing_else)
{
    event(EVENT_CREATED, state_payload({.ctx = 0xFFFE}));
    event(EVENT_ENCAP_ACQUIRE, {});
    event(EVENT_ENCAP_RELEASE, byte_string(48, 0xFF));
    event(4067, state_payload());
    event(4088, state_payload());
    event(4062, {});
    event(0x1005, {});
    EXPECT_EQ(
        live.lines(),
        (text_lines{"106 <Ctx:65534>Got MTS_OPC_NORVIK_IF_CREATED.\n", "106 <Ctx:0>Got MTS_OPC_NORVIK_ENCAP_ACQUIRE.\n",
                    "106 <Ctx:0>Got MTS_OPC_NORVIK_ENCAP_RELEASE.\n", "106 <Ctx:0>Ignoring Message: MTS_OPC_4067\n",
                    "106 <Ctx:0>Ignoring Message: MTS_OPC_4088\n", "106 <Ctx:0>Ignoring Message: MTS_OPC_4062\n",
                    "106 <Ctx:0>Ignoring Message: MTS_OPC_ROUTE_IF_ADDED\n"}));
    expect_untouched();
}

TEST_P(daemon_events, a_short_payload_or_a_context_without_a_tree_is_one_line)
{
    byte_string cut = state_payload();
    cut.pop_back();
    byte_string cut_change = change_payload({0});
    cut_change.pop_back();
    event(EVENT_CREATED, cut);
    event(EVENT_UP, {});
    event(EVENT_DOWN, cut);
    event(EVENT_CHANGED, cut_change);
    event(EVENT_UP, state_payload({.ctx = 256}));
    event(EVENT_DELETED, state_payload({.ctx = 0xFFFF, .rmode = 2}));
    EXPECT_EQ(live.lines(),
              (text_lines{"100 <Ctx:0>Ignoring event MTS_OPC_NORVIK_IF_CREATED: 47 byte payload\n",
                          "100 <Ctx:0>Ignoring event MTS_OPC_NORVIK_IF_UP: 0 byte payload\n",
                          "100 <Ctx:0>Ignoring event MTS_OPC_NORVIK_IF_DOWN: 47 byte payload\n",
                          "100 <Ctx:0>Ignoring event MTS_OPC_NORVIK_IF_CHANGED: 15 byte payload\n",
                          "100 <Ctx:0>Ignoring event MTS_OPC_NORVIK_IF_UP: context 256 out of range\n",
                          "100 <Ctx:0>Ignoring event MTS_OPC_NORVIK_IF_DELETED: context 65535 out of range\n"}));
    expect_untouched();
}
