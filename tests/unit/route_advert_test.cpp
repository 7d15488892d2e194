// route_advert_test.cpp - routes advertised to the supervisor: every byte of the message, every line, each failure.
#include "route_advert.h"

#include <cerrno>

#include "rib_card.h"
#include "route_log.h"

using namespace harness;

namespace
{

constexpr std::uint32_t PREFIX = IP(10, 200, 3, 0), MASK = 0xFFFFFF00, HOP = IP(172, 16, 254, 1);
constexpr std::uint16_t VLAN = 0x0123;

// A card in slot 4 whose supervisor's channel is open; interface 5 has a VLAN.
struct advert_card : rib_card {
    advert_card()
    {
        slot = 4;
        interfaces[IFID].vlan = VLAN;
        scphandle = scp_handle;
        forget();
    }
    ~advert_card() { scphandle = 0; }
};

std::string bytes(const std::vector<unsigned> &values)
{
    std::string text;
    for (const unsigned value : values)
        text.push_back(static_cast<char>(value));
    return text;
}

std::string message(unsigned opcode, unsigned metric)
{
    return bytes({3, 1,      0,    0x12, 0x12, 4, 1,           0x4A,          0,    1,    0, 0,   0,  0,   0,
                  0, opcode, 0,    10,   200,  3, 0,           0xFF,          0xFF, 0xFF, 0, 172, 16, 254, 1,
                  0, 0,      0x01, 0x23, 0,    0, metric >> 8, metric & 0xFF, 0,    0,    0, 0,   0,  0,   0,
                  0});
}

const char ADVERTISED[] = "105 <Ctx:3>norvik_send_route_advert: Advertising route/mask 10.200.3.0/255.255.255.0 with "
                          "next-hop 172.16.254.1 on ifid 5 vlan 291 metric 4660\n";
const char WITHDRAWN[] = "105 <Ctx:3>norvik_send_route_advert: Removing advertised route/mask "
                         "10.200.3.0/255.255.255.0 with next-hop 172.16.254.1 on ifid 5 vlan 291\n";

} // namespace

TEST(route_advert, an_advertisement_is_one_message_of_46_bytes)
{
    advert_card card;
    EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, 0x1234, CTX), 0);
    EXPECT_EQ(card.calls, text_lines{"scp_send 77 46"});
    ASSERT_EQ(card.scp_messages.size(), 1u);
    EXPECT_EQ(card.scp_messages[0].size(), 46u);
    EXPECT_EQ(card.scp_messages[0], message(0x22, 0x1234));
    EXPECT_EQ(card.lines(),
              (text_lines{ADVERTISED, "105 <Ctx:3>Sending route advertise SCP message success. opcode 34\n"}));
}

TEST(route_advert, a_metric_of_all_ones_withdraws_and_is_carried_in_the_message)
{
    advert_card card;
    EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, 0xFFFF, CTX), 0);
    ASSERT_EQ(card.scp_messages.size(), 1u);
    EXPECT_EQ(card.scp_messages[0], message(0x23, 0xFFFF));
    EXPECT_EQ(card.lines(),
              (text_lines{WITHDRAWN, "105 <Ctx:3>Sending route advertise SCP message success. opcode 35\n"}));
}

TEST(route_advert, any_other_metric_advertises_0_included)
{
    advert_card card;
    for (const unsigned metric : {0u, 1u, 0x7FFFu, 0x8000u, 0xFFFEu}) {
        card.forget();
        card.scp_messages.clear();
        EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, static_cast<std::uint16_t>(metric), CTX), 0)
            << metric;
        ASSERT_EQ(card.scp_messages.size(), 1u) << metric;
        EXPECT_EQ(card.scp_messages[0], message(0x22, metric)) << metric;
        EXPECT_EQ(card.with(ROUTE_DBG_INFO, " metric " + std::to_string(metric) + "\n").size(), 1u) << metric;
    }
}

TEST(route_advert, an_interface_without_a_vlan_sends_nothing)
{
    advert_card card;
    card.interfaces[IFID].vlan = -1;
    EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, 0x1234, CTX), -1);
    EXPECT_TRUE(card.calls.empty());
    EXPECT_EQ(card.queries, text_lines{"if_get_vlanid 5"});
    EXPECT_TRUE(card.scp_messages.empty());
    EXPECT_EQ(card.lines(),
              text_lines{"100 <Ctx:3>norvik_send_route_advert: Cannot resolve ifid 5 to vlan id."}); // no line end
}

TEST(route_advert, an_unknown_interface_sends_nothing_and_its_id_prints_as_signed)
{
    advert_card card;
    EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, 0xFFFFFFFE, HOP, 0xFFFF, 255), -1);
    EXPECT_EQ(card.lines(), text_lines{"100 <Ctx:255>norvik_send_route_advert: Cannot resolve ifid -2 to vlan id."});
}

TEST(route_advert, a_vlan_is_judged_and_sent_as_a_signed_16_bit_value)
{
    advert_card card;
    card.interfaces[IFID].vlan = 0x8000;
    EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, 0x1234, CTX), -1);
    EXPECT_TRUE(card.scp_messages.empty());
    for (const std::int32_t vlan : {0x10123, 0, 0x7FFF}) {
        card.scp_messages.clear();
        card.interfaces[IFID].vlan = vlan;
        EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, 0x1234, CTX), 0) << vlan;
        ASSERT_EQ(card.scp_messages.size(), 1u) << vlan;
        const auto cut = static_cast<unsigned>(vlan) & 0xFFFF;
        EXPECT_EQ(card.scp_messages[0].substr(30, 4), bytes({0, 0, cut >> 8, cut & 0xFF})) << vlan;
    }
}

TEST(route_advert, a_send_that_fails_is_logged_and_answered_and_not_repeated)
{
    advert_card card;
    card.scp_send_result = ENOENT;
    EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, 0x1234, CTX), -1);
    EXPECT_EQ(card.calls, text_lines{"scp_send 77 46"});
    EXPECT_EQ(card.lines(),
              (text_lines{ADVERTISED, "100 <Ctx:3>Sending route advertise SCP message failed err=2, opcode 34\n"}));
    card.forget();
    card.scp_send_result = EAGAIN;
    EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, 0xFFFF, CTX), -1);
    EXPECT_EQ(card.lines(),
              (text_lines{WITHDRAWN, "100 <Ctx:3>Sending route advertise SCP message failed err=11, opcode 35\n"}));
}

TEST(route_advert, the_slot_in_the_message_counts_from_0)
{
    advert_card card;
    for (const std::int32_t slot : {1, 2, 13}) {
        card.slot = slot;
        card.scp_messages.clear();
        EXPECT_EQ(norvik_get_myslot(), slot);
        EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, 0, CTX), 0);
        ASSERT_EQ(card.scp_messages.size(), 1u);
        EXPECT_EQ(card.scp_messages[0][0], slot - 1) << slot;
    }
}

TEST(route_advert, the_supervisors_address_goes_into_its_byte_whatever_it_is)
{
    advert_card card;
    for (const unsigned address : {0u, 2u, 0x7Fu, 0xFFu}) {
        card.supervisor_address = static_cast<std::uint8_t>(address);
        card.scp_messages.clear();
        EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, 0x1234, CTX), 0);
        ASSERT_EQ(card.scp_messages.size(), 1u);
        std::string expected = message(0x22, 0x1234);
        expected[1] = static_cast<char>(address);
        EXPECT_EQ(card.scp_messages[0], expected) << address;
    }
}

TEST(route_advert, high_address_bytes_print_as_unsigned)
{
    advert_card card;
    EXPECT_EQ(norvik_send_route_advert(0xFFFEFDFC, 0xFFFFFFFF, IFID, 0x80818283, 1, CTX), 0);
    EXPECT_EQ(card.lines()[0], "105 <Ctx:3>norvik_send_route_advert: Advertising route/mask 255.254.253.252/"
                               "255.255.255.255 with next-hop 128.129.130.131 on ifid 5 vlan 291 metric 1\n");
}

TEST(route_advert, no_route_is_touched)
{
    advert_card card;
    card.journal_on = true;
    const std::uint32_t blocks = card.all_blocks();
    EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, 0x1234, CTX), 0);
    EXPECT_EQ(norvik_send_route_advert(PREFIX, MASK, IFID, HOP, 0xFFFF, CTX), 0);
    EXPECT_EQ(entries_of(CTX), 0u);
    EXPECT_EQ(card.all_blocks(), blocks);
    EXPECT_TRUE(card.journal.empty());
}
