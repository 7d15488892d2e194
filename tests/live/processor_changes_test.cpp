// processor_changes_test.cpp - packets run while the route manager stores into the table that they are searched in.
//
// The table is the map itself: each word that the route manager's code stores into its own copy is stored there next.
#include <atomic>
#include <thread>

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
constexpr std::uint32_t IN_PORT = 5, OUT_A = 6, OUT_B = 7;
constexpr std::uint32_t SHORT_PREFIX = 0x14010000, LONG_PREFIX = 0x14010200, DESTINATION = 0x14010203;

struct path {
    std::uint32_t prefix, len, ifid;
    unsigned flags;
};
route_entry entry_of(const path &p)
{
    route_entry entry{};
    entry.prefix = p.prefix;
    entry.len = p.len;
    entry.ifid = static_cast<std::uint16_t>(p.ifid);
    entry.encap_id = 100 + p.ifid;
    entry.flags = static_cast<std::uint16_t>(p.flags);
    return entry;
}
void add(const path &p)
{
    const route_entry entry = entry_of(p);
    EXPECT_NE(prefix_mgr_route_add(wired_table_mgr, &entry), 0u);
}
void take(const path &p)
{
    const route_entry entry = entry_of(p);
    EXPECT_NE(prefix_mgr_route_remove(wired_table_mgr, &entry), 0u);
}

struct changes : testing::Test {
    void SetUp() override
    {
        if (!packet_card_missing().empty())
            GTEST_SKIP() << packet_card_missing();
    }
    // Packets to DESTINATION run until `ended`; every one of them leaves by A or by B.
    void run_beside(const std::vector<path> &first, const std::function<void(unsigned)> &round)
    {
        fake_card manager(2);
        ASSERT_EQ(manager.start_tables(), 0);
        for (const path &p : first)
            add(p);
        model_card model;
        for (const std::uint32_t ifid : {IN_PORT, OUT_A, OUT_B}) {
            model.ports[ifid] = {LOOPBACK, mac_of(IN_PORT), 0, 1500, ifid == IN_PORT};
            model.encaps[100 + ifid] = mac_of(IN_PORT); // what leaves may come in again, until its TTL ends
        }
        packet_card card;
        card.take(model);
        const np_table table = manager.table(1);
        card.take_table(0, {table.words, table.base});
        live_maps_search(card.maps, LIVE_SEARCHED_TABLE_0);
        const card_addr start = manager.memory(1);
        manager.journal_on = true;
        manager.after_each_store([&] {
            const fake_store &store = manager.journal.back();
            if (store.address >= start && store.address - start < HW_TABLE_BYTES)
                std::atomic_ref<std::uint32_t>(live_maps_table(card.maps, 0)[(store.address - start) / 4])
                    .store(store.value, std::memory_order_release);
        });

        constexpr std::uint32_t HOPS = 250;
        std::atomic<bool> ended = false;
        std::uint64_t sent = 0;
        std::thread packets([&] {
            packet_form form;
            form.to = mac_of(IN_PORT);
            form.destination = DESTINATION;
            form.ttl = HOPS + 2;
            for (; !ended; sent += HOPS) {
                frame_bytes frame = packet_of(form);
                form.source_port = static_cast<std::uint16_t>(form.source_port + 1);
                EXPECT_EQ(card.run(frame, LOOPBACK, HOPS), XDP_REDIRECT);
            }
        });
        const auto enough = [&] { return card.forwarded() > 50'000; };
        for (unsigned i = 0; i < 300 || i % 100 != 0 || !enough(); ++i) {
            live_maps_renew(card.maps);
            round(i);
            manager.forget();
        }
        ended = true;
        packets.join();
        const live_counters in = card.counters(IN_PORT);
        for (unsigned reason = 0; reason < LIVE_REASONS; ++reason)
            EXPECT_EQ(in.reasons[reason], reason == LIVE_FORWARDED ? sent : 0) << LIVE_REASON_NAMES[reason];
        EXPECT_EQ(card.counters(OUT_A).out_packets + card.counters(OUT_B).out_packets, sent);
    }
};
} // namespace

TEST_F(changes, of_a_longer_prefix_lose_no_packet)
{
    run_beside({{SHORT_PREFIX, 16, OUT_A, 0}}, [](unsigned) {
        add({LONG_PREFIX, 24, OUT_B, 0});
        take({LONG_PREFIX, 24, OUT_B, 0});
    });
}

TEST_F(changes, of_paths_lose_no_packet)
{
    run_beside({{SHORT_PREFIX, 16, OUT_A, 0}}, [](unsigned) {
        add({SHORT_PREFIX, 16, OUT_B, RIB_F_ECMP});
        take({SHORT_PREFIX, 16, OUT_A, 0});
        add({SHORT_PREFIX, 16, OUT_A, RIB_F_ECMP});
        take({SHORT_PREFIX, 16, OUT_B, 0});
    });
}
