// processor_decision_test.cpp - the packet program decides as the plain model does, byte for byte.
//
// Tables come from the route manager's own code, or are memories of chance words; packets are good ones and ones that
// are broken in every way. Each runs through the program that is attached to ports, and once more through the one that
// is only asked.
#include <random>

#include <linux/bpf.h>

#include <gtest/gtest.h>

#include "fake_card.h"
#include "packet_card.h"
#include "prefix_mgr.h"
#include "rib_table.h"
#include "route_entry.h"
#include "route_listing.h"

using namespace harness;

namespace
{
constexpr std::uint32_t CONTEXTS[] = {0, 3, 255}, IN_PORT = 5, PORTS = 12, KNOWN_ENCAPS = 600;

void add_route(std::uint32_t tree, std::uint32_t prefix, std::uint32_t len, std::uint32_t ifid, std::uint32_t encap,
               unsigned flags)
{
    route_entry entry{};
    entry.prefix = prefix;
    entry.len = len;
    entry.ctx = entry.route_id = static_cast<std::uint16_t>(tree);
    entry.ifid = static_cast<std::uint16_t>(ifid);
    entry.encap_id = encap;
    entry.flags = static_cast<std::uint16_t>(flags);
    (void)prefix_mgr_route_add(wired_table_mgr, &entry); // refused where a route of another kind has the prefix
}

struct decision : testing::Test {
    std::mt19937 random{20261122};
    model_card model;
    std::vector<std::uint32_t> prefixes; // that routes stand for

    void SetUp() override
    {
        if (!packet_card_missing().empty())
            GTEST_SKIP() << packet_card_missing();
    }
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); }
    template <class List> auto one_of(const List &list) { return list[below(static_cast<std::uint32_t>(list.size()))]; }

    // Ports 1 to PORTS - 1, and one with a large id: by some a packet may not leave. The packets come in by IN_PORT.
    void random_ports(std::uint32_t ctx)
    {
        model.ports.clear();
        for (std::uint32_t ifid = 1; ifid < PORTS; ++ifid)
            model.ports[ifid] = {ifid == IN_PORT || below(8) != 0 ? LOOPBACK : 0,
                                 mac_of(static_cast<uint8_t>(ifid)),
                                 ctx,
                                 below(4) == 0 ? 60u : 1500u,
                                 ifid == IN_PORT,
                                 below(8) != 0};
        model.ports[8191] = {LOOPBACK, mac_of(0x77), ctx, 1400, false, true};
        model.encaps.clear();
        for (std::uint32_t encap = 0; encap < KNOWN_ENCAPS; ++encap)
            if (below(8) != 0)
                model.encaps[encap] = mac_of(static_cast<std::uint8_t>(encap));
        model.encaps[0x7FFF] = mac_of(0x55);
        model.own = {0x0A090101, 0xC0A80001};
    }

    void random_routes(unsigned count)
    {
        const unsigned flags[] = {0, RIB_F_ECMP, RIB_F_NAT, RIB_F_CONNECTED};
        for (unsigned i = 0; i < count; ++i) {
            const std::uint32_t tree = CONTEXTS[below(3)], len = 1 + below(32), mask = 0xFFFFFFFFu << (32 - len);
            const std::uint32_t prefix =
                ((8 + below(6)) << 24 | below(3) * 85 << 16 | below(3) * 85 << 8 | below(256)) & mask;
            prefixes.push_back(prefix);
            for (unsigned path = 0; path < 1 + below(8); ++path)
                add_route(tree, prefix, len, below(10) == 0 ? 8191 : 1 + below(PORTS + 1),
                          below(10) == 0 ? 0x7FFE + below(6) : below(KNOWN_ENCAPS + 50),
                          path == 0 ? flags[below(10) < 8 ? below(2) : below(4)] : static_cast<unsigned>(RIB_F_ECMP));
        }
    }

    frame_bytes random_packet()
    {
        constexpr std::uint8_t PROTOCOLS[] = {1, 6, 17, 33, 47, 132, 136, 255};
        packet_form form;
        form.to = model.ports.at(IN_PORT).mac;
        form.source = below(20) == 0 ? *model.own.begin() : static_cast<std::uint32_t>(random()) % 0xE0000000;
        form.destination = prefixes.empty() || below(4) == 0
                               ? static_cast<std::uint32_t>(random())
                               : one_of(prefixes) + (below(2) == 0 ? 0 : below(1u << below(25)));
        form.ttl = static_cast<std::uint8_t>(below(10) == 0 ? below(3) : 2 + below(254));
        form.protocol = PROTOCOLS[below(8)];
        form.source_port = static_cast<std::uint16_t>(random());
        form.id = static_cast<std::uint16_t>(random());
        form.fragment = static_cast<std::uint16_t>(below(4) == 0 ? random() : below(2) << 14);
        form.payload_bytes = static_cast<std::uint16_t>(below(3) == 0 ? below(1600) : below(60));
        form.trailing_bytes = static_cast<std::uint16_t>(below(3) == 0 ? below(30) : 0);
        return packet_of(form);
    }

    // The ways in which a packet may be broken, or meant for others.
    void break_packet(frame_bytes &frame)
    {
        const auto byte = [&] { return static_cast<std::uint8_t>(random()); };
        switch (below(9)) {
        case 0: // any byte of the headers
            frame[below(34)] = byte();
            break;
        case 1: // any byte of the IP header, checked all the same
            frame[14 + below(20)] = byte();
            packet_fix_checksum(frame);
            break;
        case 2: // version and header length
            frame[14] = static_cast<std::uint8_t>(below(2) == 0 ? 0x40 | below(16) : byte());
            packet_fix_checksum(frame);
            break;
        case 3: // a length a little wrong
            frame[17] = static_cast<std::uint8_t>(frame[17] + below(9) - 4);
            packet_fix_checksum(frame);
            break;
        case 4: // a short length
            frame[16] = 0;
            frame[17] = static_cast<std::uint8_t>(below(30));
            packet_fix_checksum(frame);
            break;
        case 5: // cut
            frame.resize(14 + below(static_cast<std::uint32_t>(frame.size()) - 13));
            break;
        case 6: // a checksum of all ones or none
            frame[24] = frame[25] = below(2) == 0 ? 0 : 0xFF;
            break;
        case 7: // to another station
            frame[below(6)] ^= 1;
            break;
        default: // of another kind
            frame[12 + below(2)] = byte();
        }
    }

    void expect_alike(packet_card &card, const frame_bytes &frame, std::vector<std::uint64_t> &reasons)
    {
        const model_decision wanted = model_judge(model, LOOPBACK, frame);
        frame_bytes left = frame, asked = frame;
        const int action = card.run(left);
        const live_trace trace = card.trace(asked);
        ASSERT_EQ(action, wanted.reason == LIVE_FORWARDED ? XDP_REDIRECT : XDP_PASS)
            << LIVE_REASON_NAMES[wanted.reason] << " wanted, " << LIVE_REASON_NAMES[trace.reason] << " traced";
        ASSERT_STREQ(LIVE_REASON_NAMES[trace.reason], LIVE_REASON_NAMES[wanted.reason]);
        ASSERT_EQ(left, wanted.frame) << LIVE_REASON_NAMES[wanted.reason];
        ASSERT_EQ(asked, wanted.frame);
        ASSERT_EQ(trace.port, wanted.in_port);
        if (wanted.reason >= LIVE_OWN || wanted.reason == LIVE_FORWARDED) {
            ASSERT_EQ(trace.ifid, wanted.ifid);
            ASSERT_EQ(trace.encap, wanted.encap);
            ASSERT_EQ(trace.path, wanted.path);
        }
        ++reasons[wanted.reason];
    }

    // Runs packets over the table; each counts once, for its reason.
    void compare(const ixp_table &table, unsigned packets)
    {
        model.table = table;
        packet_card card;
        card.take(model);
        card.take_table(0, table);
        live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
        std::vector<std::uint64_t> reasons(LIVE_REASONS);
        for (unsigned i = 0; i < packets && !HasFatalFailure(); ++i) {
            frame_bytes frame = random_packet();
            if (below(4) == 0)
                break_packet(frame);
            expect_alike(card, frame, reasons);
        }
        std::uint64_t out = 0;
        for (const auto &[ifid, port] : model.ports)
            if (ifid < LIVE_PORTS)
                out += card.counters(ifid).out_packets;
        const live_counters counted = card.counters(IN_PORT);
        for (unsigned reason = 0; reason < LIVE_REASONS; ++reason) {
            EXPECT_EQ(counted.reasons[reason], reasons[reason]) << LIVE_REASON_NAMES[reason];
            met[reason] += reasons[reason];
        }
        EXPECT_LE(out, reasons[LIVE_FORWARDED]); // port 8191 has no counters
    }
    std::vector<std::uint64_t> met = std::vector<std::uint64_t>(LIVE_REASONS);
};
} // namespace

TEST_F(decision, is_the_models_on_tables_of_the_route_manager)
{
    fake_card manager(2);
    ASSERT_EQ(manager.start_tables(), 0);
    for (unsigned round = 0; round < 12; ++round) {
        random_routes(12);
        random_ports(CONTEXTS[round % 3]);
        model.held.clear();
        if (round == 11)
            model.held = {CONTEXTS[2]};
        const np_table table = manager.table(1);
        compare({table.words, table.base}, 3000);
    }
    for (const live_reason reason :
         {LIVE_FORWARDED, LIVE_NOT_IPV4, LIVE_NOT_OURS, LIVE_HELD, LIVE_BROKEN, LIVE_OPTIONS, LIVE_SOURCE,
          LIVE_DESTINATION, LIVE_NO_ROUTE, LIVE_RESOLVE, LIVE_NAT, LIVE_OWN, LIVE_SENT_UP, LIVE_TTL, LIVE_NO_ENCAP,
          LIVE_NO_PORT, LIVE_TOO_LONG, LIVE_SAME_PORT, LIVE_NO_DEVICE})
        EXPECT_GT(met[reason], 10u) << LIVE_REASON_NAMES[reason] << " was hardly met";
}

TEST_F(decision, is_the_models_on_memories_of_chance_words)
{
    for (unsigned round = 0; round < 12; ++round) {
        // All kinds of words: any, ones near the table, ones in it, ones in a small part of it, and few others.
        std::vector<std::uint32_t> words(HW_TABLE_BYTES / 4);
        for (std::uint32_t &word : words)
            switch (const std::uint32_t any = static_cast<std::uint32_t>(random()); round < 3 ? 0 : below(5)) {
            case 0:
                word = any;
                break;
            case 1:
                word = HW_IXP_BASE + any % (HW_TABLE_BYTES + 64);
                break;
            case 2:
                word = (HW_IXP_BASE + HW_NODES + any % HW_NODE_COUNT * HW_NODE_BYTES) | HW_NODE_TAG;
                break;
            case 3:
                word = adj_pack(any & ADJ_ECMP, 1 + any % PORTS, any >> 8 & 0x1FF);
                break;
            default:
                word = any % 3 == 0 ? 0 : HW_IXP_BASE + HW_ECMPS + any % (HW_ECMP_COUNT * HW_ECMP_BYTES) / 4 * 4;
            }
        random_ports(CONTEXTS[round % 3]);
        compare({words.data(), HW_IXP_BASE}, 2000);
    }
    EXPECT_GT(met[LIVE_FORWARDED], 100u);
    EXPECT_GT(met[LIVE_NO_ROUTE], 100u);
}

TEST_F(decision, spreads_flows_over_all_paths_and_keeps_each_on_its_own)
{
    fake_card manager(2);
    ASSERT_EQ(manager.start_tables(), 0);
    for (std::uint32_t path = 0; path < 8; ++path)
        add_route(0, 0x14000000, 8, 10, 100 + path, path == 0 ? 0u : unsigned{RIB_F_ECMP});
    model.ports[IN_PORT] = {LOOPBACK, mac_of(5), 0, 1500};
    model.ports[10] = {LOOPBACK, mac_of(10), 0, 1500, false};
    for (std::uint32_t path = 0; path < 8; ++path)
        model.encaps[100 + path] = mac_of(static_cast<std::uint8_t>(100 + path));
    packet_card card;
    card.take(model);
    const np_table table = manager.table(1);
    card.take_table(1, {table.words, table.base});
    live_maps_search(card.maps, LIVE_SEARCHED_TABLE_1);

    constexpr unsigned FLOWS = 8000;
    std::vector<unsigned> taken(8);
    packet_form form;
    form.to = mac_of(5);
    form.destination = 0x14010203;
    for (unsigned flow = 0; flow < FLOWS; ++flow) {
        form.source_port = static_cast<std::uint16_t>(flow); // neighbouring ports of one pair of hosts
        form.payload_bytes = 20;
        frame_bytes first = packet_of(form);
        form.payload_bytes = 40;
        form.ttl = 9;
        frame_bytes second = packet_of(form);
        const live_trace one = card.trace(first), other = card.trace(second);
        ASSERT_EQ(one.reason, unsigned{LIVE_FORWARDED});
        ASSERT_EQ(one.path, other.path);
        ++taken[one.path];
    }
    for (const unsigned flows : taken)
        EXPECT_NEAR(flows, FLOWS / 8, FLOWS / 40);
}
