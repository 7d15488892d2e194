// cardsim_model_test.cpp - the rules of interface manager, ARP service and slow path, with a card that only writes
// down.

#include <gtest/gtest.h>

#include "big_endian.h"
#include "card_model.h"
#include "mts.h"
#include "supervisor.h"

namespace
{
constexpr std::uint32_t ip(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d)
{
    return a << 24 | b << 16 | c << 8 | d;
}
constexpr std::uint32_t IFID = 5, CTX = 3, OWN = ip(10, 1, 1, 1), MASK = 0xFFFFFF00, HOST = ip(10, 1, 1, 2);

// What left the model, in order, as texts; calls stand open until they are answered.
class cardsim_model : public testing::Test
{
protected:
    struct open_call {
        std::string procedure;
        std::vector<card_rpc_arg> args;
        card_rpc_done done;
    };
    cardsim_model()
    {
        m.out.record = [this](std::uint32_t ifid, const if_db_record &r) {
            log.push_back("record " + std::to_string(ifid));
            records[ifid] = r;
        };
        m.out.event = [this](std::uint32_t opcode, const std::vector<std::uint8_t> &payload) {
            if (opcode != MTS_OPC_NORVIK_ENCAP_ACQUIRE && opcode != MTS_OPC_NORVIK_ENCAP_RELEASE)
                log.push_back(mts_opc_name_get(opcode) + sizeof "MTS_OPC_NORVIK");
            payloads.push_back(payload);
        };
        m.out.call = [this](const std::string &procedure, const std::vector<card_rpc_arg> &args, card_rpc_done done) {
            log.push_back(procedure == "arp_prefix_mgr_add_route" ? "add" : "remove");
            calls.push_back({procedure, args, std::move(done)});
        };
        m.out.say = [](const std::string &) {};
    }
    void interface_up()
    {
        card_interface i;
        i.ctx = CTX;
        i.address = OWN;
        i.mask = MASK;
        EXPECT_EQ(card_if_create(m, IFID, i), CARD_DONE);
        EXPECT_EQ(card_if_state(m, IFID, true), CARD_DONE);
        log.clear();
    }
    std::uint32_t host(std::uint32_t encap, std::uint32_t delay_ms = 0, bool quiet = false)
    {
        return card_host_add(m, {IFID, HOST, encap, std::nullopt, delay_ms, quiet});
    }
    // Lets the ARP service work at `ms`, and gives what it did.
    std::vector<std::string> at(std::uint64_t ms)
    {
        m.now_ms = ms;
        card_arp_run(m);
        return std::exchange(log, {});
    }
    void answer(std::uint32_t result, card_rpc_end end = CARD_RPC_RAN)
    {
        ASSERT_FALSE(calls.empty());
        const open_call call = calls.front();
        calls.erase(calls.begin());
        card_rpc_reply reply;
        reply.end = end;
        reply.result = result;
        call.done(reply);
    }
    void announced(std::uint32_t encap)
    {
        interface_up();
        EXPECT_EQ(host(encap), CARD_DONE);
        EXPECT_EQ(at(0), texts{"add"});
        answer(0);
        EXPECT_EQ(at(0), texts{});
    }

    using texts = std::vector<std::string>;
    card_model m;
    texts log;
    std::vector<std::vector<std::uint8_t>> payloads;
    std::map<std::uint32_t, if_db_record> records;
    std::vector<open_call> calls;
};
} // namespace

TEST_F(cardsim_model, the_record_is_written_before_the_event_is_sent)
{
    card_interface i;
    i.ctx = CTX;
    i.address = OWN;
    i.mask = MASK;
    i.vlan = 105;
    EXPECT_EQ(card_if_create(m, IFID, i), CARD_DONE);
    EXPECT_EQ(card_if_state(m, IFID, true), CARD_DONE);
    EXPECT_EQ(card_if_state(m, IFID, true), CARD_DONE) << "up already: nothing is sent";
    EXPECT_EQ(log, (texts{"record 5", "IF_CREATED", "record 5", "IF_UP"}));
    EXPECT_EQ(records[IFID].flags, IFDB_EXISTS | IFDB_UP | IFDB_HAS_ADDRESS | IFDB_HAS_CONTEXT | IFDB_HAS_VLAN);
    EXPECT_EQ(records[IFID].vlan, 105u);
}

TEST_F(cardsim_model, an_interface_event_has_its_fields_where_the_route_manager_reads_them)
{
    card_interface i;
    i.ctx = 0x1234;
    i.address = OWN;
    i.mask = MASK;
    const std::vector<std::uint8_t> p = card_if_payload(0x0105, i);
    ASSERT_EQ(p.size(), 48u);
    EXPECT_EQ(get_be16(&p[0]), 0x0105);
    EXPECT_EQ(get_be16(&p[2]), 0x1234);
    EXPECT_EQ(get_be32(&p[4]), OWN);
    EXPECT_EQ(get_be32(&p[21]), MASK);
    EXPECT_EQ(get_be32(&p[44]), 1u);
    const std::vector<std::uint8_t> c = card_if_changed_payload(7, OWN, MASK);
    ASSERT_EQ(c.size(), 16u);
    EXPECT_EQ(get_be32(&c[0]), 7u);
    EXPECT_GE(get_be32(&c[4]), 0x80000000u) << "negative: an address change";
    EXPECT_EQ(get_be32(&c[8]), OWN);
    EXPECT_EQ(get_be32(&c[12]), MASK);
}

TEST_F(cardsim_model, what_cannot_be_is_answered_with_its_reason)
{
    card_interface bad;
    bad.address = OWN;
    bad.mask = 0xFF00FF00;
    EXPECT_EQ(card_if_create(m, IFID, bad), CARD_BAD_ARGUMENT);
    bad.mask = MASK;
    bad.ctx = 256;
    EXPECT_EQ(card_if_create(m, IFID, bad), CARD_BAD_ARGUMENT);
    EXPECT_EQ(card_if_create(m, 8192, {}), CARD_BAD_ARGUMENT);
    EXPECT_EQ(card_if_state(m, IFID, true), CARD_NO_INTERFACE);
    EXPECT_EQ(card_if_address(m, IFID, OWN, MASK), CARD_NO_INTERFACE);
    EXPECT_EQ(card_if_delete(m, IFID), CARD_NO_INTERFACE);
    EXPECT_EQ(host(0), CARD_NO_INTERFACE);
    EXPECT_EQ(card_host_del(m, IFID, HOST), CARD_NO_INTERFACE);
    interface_up();
    EXPECT_EQ(card_if_create(m, IFID, {}), CARD_EXISTS);
    EXPECT_EQ(card_host_del(m, IFID, HOST), CARD_NOT_THERE);
    EXPECT_EQ(host(0x8001), CARD_BAD_ARGUMENT);
    EXPECT_EQ(card_host_add(m, {IFID, ip(10, 1, 2, 2), 0, {}, 0, false}), CARD_BAD_ARGUMENT);
    EXPECT_EQ(host(0x1001), CARD_DONE);
    EXPECT_EQ(host(0x1001), CARD_EXISTS);
    EXPECT_EQ(host(0), CARD_EXISTS);
    EXPECT_EQ(card_host_add(m, {IFID, HOST + 1, 0x1001, {}, 0, false}), CARD_BAD_ARGUMENT) << "another's encap";
}

TEST_F(cardsim_model, an_address_that_changes_is_told_with_the_one_before_only_while_the_interface_is_up)
{
    interface_up();
    EXPECT_EQ(card_if_address(m, IFID, ip(10, 1, 9, 1), MASK), CARD_DONE);
    EXPECT_EQ(log, (texts{"record 5", "IF_CHANGED"}));
    EXPECT_EQ(get_be32(&payloads.back()[8]), OWN);
    EXPECT_EQ(card_if_state(m, IFID, false), CARD_DONE);
    log.clear();
    EXPECT_EQ(card_if_address(m, IFID, 0, 0), CARD_DONE);
    EXPECT_EQ(log, texts{"record 5"});
    EXPECT_EQ(records[IFID].flags & IFDB_HAS_ADDRESS, 0u);
}

TEST_F(cardsim_model, a_host_is_announced_after_its_delay_and_once)
{
    interface_up();
    EXPECT_EQ(host(0x1001, 50), CARD_DONE);
    EXPECT_EQ(at(49), texts{});
    EXPECT_EQ(at(50), texts{"add"});
    EXPECT_EQ(at(60), texts{}) << "one call at a time";
    answer(0);
    card_arp_request(m, CTX, HOST, true);
    EXPECT_EQ(at(70), texts{});
}

TEST_F(cardsim_model, a_changed_encapsulation_is_withdrawn_before_it_is_announced)
{
    announced(0x1001);
    EXPECT_EQ(host(0x1002), CARD_DONE);
    EXPECT_EQ(at(1), texts{"remove"});
    EXPECT_TRUE(card_encap_is_valid(m, 0x1001)) << "held while the route manager may use it";
    answer(0);
    EXPECT_FALSE(card_encap_is_valid(m, 0x1001));
    EXPECT_EQ(at(2), texts{"add"});
    EXPECT_EQ(calls.front().args[3].value, 0x1002u);
    answer(0);
    EXPECT_EQ(at(3), texts{});
}

TEST_F(cardsim_model, an_encapsulation_that_changes_while_the_host_is_being_announced_is_put_right)
{
    interface_up();
    EXPECT_EQ(host(0x1001), CARD_DONE);
    EXPECT_EQ(at(0), texts{"add"});
    EXPECT_EQ(host(0x1002), CARD_DONE);
    EXPECT_EQ(at(1), texts{});
    answer(0);
    EXPECT_EQ(at(1), texts{"remove"});
    answer(0);
    EXPECT_EQ(at(1), texts{"add"});
    EXPECT_EQ(calls.front().args[3].value, 0x1002u);
}

TEST_F(cardsim_model, nothing_is_called_from_inside_a_request_of_the_route_manager)
{
    interface_up();
    EXPECT_EQ(host(0x1001, 0, true), CARD_DONE);
    EXPECT_EQ(at(0), texts{}) << "quiet: not asked for";
    card_arp_request(m, CTX, HOST, true);
    EXPECT_EQ(log, texts{}) << "the answer goes out first";
    EXPECT_EQ(at(0), texts{"add"});
    card_arp_request(m, CTX, HOST + 9, true);
    EXPECT_EQ(at(5), texts{}) << "a neighbour that is not there never answers";
}

TEST_F(cardsim_model, hosts_of_an_interface_that_goes_down_are_withdrawn_and_come_back_with_it)
{
    announced(0x1001);
    EXPECT_EQ(card_if_state(m, IFID, false), CARD_DONE);
    EXPECT_EQ(at(1), (texts{"record 5", "IF_DOWN", "remove"}));
    answer(1); // the route manager had done so itself
    EXPECT_EQ(at(1), texts{});
    EXPECT_EQ(card_if_state(m, IFID, true), CARD_DONE);
    EXPECT_EQ(at(2), (texts{"record 5", "IF_UP", "add"}));
}

TEST_F(cardsim_model, a_host_that_the_route_manager_withdrew_itself_is_not_withdrawn_again)
{
    announced(0x1001);
    EXPECT_EQ(card_if_state(m, IFID, false), CARD_DONE);
    log.clear();
    card_if_withdrawn(m, CTX, IFID);
    EXPECT_EQ(at(1), texts{});
    EXPECT_EQ(card_if_state(m, IFID, true), CARD_DONE);
    EXPECT_EQ(at(2), (texts{"record 5", "IF_UP", "add"}));
}

TEST_F(cardsim_model, an_announcement_that_an_interface_overtakes_is_not_believed)
{
    interface_up();
    EXPECT_EQ(host(0x1001), CARD_DONE);
    EXPECT_EQ(at(0), texts{"add"});
    EXPECT_EQ(card_if_state(m, IFID, false), CARD_DONE);
    EXPECT_EQ(card_if_state(m, IFID, true), CARD_DONE);
    answer(0);
    log.clear();
    EXPECT_EQ(at(1), texts{"remove"});
    answer(1);
    EXPECT_EQ(at(1), texts{"add"});
}

TEST_F(cardsim_model, a_host_leaves_with_its_encapsulation_once_it_is_withdrawn)
{
    announced(0x1001);
    EXPECT_EQ(card_host_del(m, IFID, HOST), CARD_DONE);
    EXPECT_EQ(card_host_del(m, IFID, HOST), CARD_NOT_THERE);
    EXPECT_EQ(at(1), texts{"remove"});
    answer(0);
    EXPECT_EQ(at(1), texts{});
    EXPECT_TRUE(m.hosts.empty());
    EXPECT_TRUE(m.encaps.empty());
}

TEST_F(cardsim_model, the_hosts_of_a_deleted_interface_leave_with_it)
{
    announced(0x1001);
    EXPECT_EQ(card_if_delete(m, IFID), CARD_DONE);
    EXPECT_EQ(log, (texts{"record 5", "IF_DELETED"}));
    EXPECT_EQ(records[IFID].flags, 0u);
    log.clear();
    EXPECT_EQ(at(1), texts{"remove"});
    answer(1);
    EXPECT_EQ(at(1), texts{});
    EXPECT_TRUE(m.hosts.empty());
}

TEST_F(cardsim_model, a_call_that_is_not_answered_is_made_good_later)
{
    interface_up();
    EXPECT_EQ(host(0x1001), CARD_DONE);
    EXPECT_EQ(at(0), texts{"add"});
    m.now_ms = 2000;
    answer(0, CARD_RPC_TIMED_OUT);
    EXPECT_EQ(at(2000), texts{}) << "it may have run: not at once";
    EXPECT_EQ(at(2000 + CARD_RETRY_MS), texts{"remove"});
    answer(1);
    EXPECT_EQ(at(2000 + CARD_RETRY_MS), texts{"add"});
    answer(0);
    EXPECT_EQ(at(9000), texts{});
}

TEST_F(cardsim_model, without_a_route_manager_a_host_waits_for_one)
{
    interface_up();
    EXPECT_EQ(host(0x1001), CARD_DONE);
    EXPECT_EQ(at(0), texts{"add"});
    answer(0, CARD_RPC_UNREACHABLE);
    EXPECT_EQ(at(10000), texts{});
    EXPECT_EQ(card_arp_next_ms(m), UINT64_MAX);
    card_announce_all(m);
    EXPECT_EQ(at(10000), (texts{"IF_CREATED", "IF_UP", "add"}));
}

TEST_F(cardsim_model, a_refused_host_is_tried_again_only_when_something_changes)
{
    interface_up();
    EXPECT_EQ(host(0x1001), CARD_DONE);
    EXPECT_EQ(at(0), texts{"add"});
    answer(1);
    EXPECT_EQ(at(10000), texts{});
    card_arp_request(m, CTX, HOST, true);
    EXPECT_EQ(at(10000), texts{"add"});
}

TEST_F(cardsim_model, a_route_manager_that_starts_is_told_everything)
{
    announced(0x1001);
    card_announce_all(m);
    EXPECT_EQ(at(1), (texts{"IF_CREATED", "IF_UP", "add"}));
}

TEST_F(cardsim_model, the_slow_path_knows_its_encapsulations_and_interfaces)
{
    announced(0);
    EXPECT_EQ(m.hosts.begin()->second.encap, CARD_FIRST_ENCAP);
    EXPECT_TRUE(card_encap_is_valid(m, CARD_FIRST_ENCAP));
    EXPECT_FALSE(card_encap_is_valid(m, 0x1001)) << "nobody's";
    EXPECT_EQ(card_host_add(m, {IFID, HOST + 1, 0x1001, std::uint64_t{0}, 0, false}), CARD_DONE);
    EXPECT_FALSE(card_encap_is_valid(m, 0x1001)) << "without a MAC address";
    EXPECT_EQ(card_interface_of(m, CTX, HOST), IFID);
    EXPECT_EQ(card_interface_of(m, CTX + 1, HOST), 0u);
    EXPECT_EQ(at(1), texts{"add"});
    answer(0);
    card_realign(m);
    EXPECT_EQ(at(2), (texts{"add", "add"}));
}

TEST(cardsim_supervisor, an_advertisement_is_taken_listed_and_withdrawn)
{
    std::vector<std::uint8_t> message = {0, 1, 0, 0x12, 0x12, 4, 1, 0x4A, 0, 1, 0};
    message.resize(ADVERT_BYTES);
    message[16] = 0x22;
    put_be32(&message[18], ip(10, 20, 0, 0));
    put_be32(&message[22], 0xFFFF0000);
    put_be32(&message[26], HOST);
    put_be32(&message[30], 105);
    put_be32(&message[34], 10);
    supervisor sup;
    EXPECT_EQ(sup_take(sup, message.data(), message.size()),
              "supervisor: acknowledged 10.20.0.0/16 via 10.1.1.2 vlan 105 metric 10 slot 0 (1)");
    EXPECT_EQ(sup_listing(sup), R"({"acknowledged":1,"malformed":0,"advertisements":[{"prefix":"10.20.0.0/16",)"
                                R"("nexthop":"10.1.1.2","vlan":105,"metric":10,"slot":0}]})");
    message[16] = 0x23;
    EXPECT_EQ(sup_take(sup, message.data(), message.size()), "supervisor: acknowledged withdrawal of 10.20.0.0/16 (2)");
    EXPECT_TRUE(sup.advertised.empty());
    message[16] = 0x24;
    sup_take(sup, message.data(), message.size());
    sup_take(sup, message.data(), message.size() - 1);
    EXPECT_EQ(sup_listing(sup), R"({"acknowledged":2,"malformed":2,"advertisements":[]})");
}
