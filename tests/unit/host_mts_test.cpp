// host_mts_test.cpp - messages between service access points, byte for byte and when something goes wrong.
#include <chrono>

#include <poll.h>
#include <sys/resource.h>

#include "counters.h"
#include "doc_tables.h"
#include "host_support.h"
#include "mts.h"

using namespace harness;

namespace
{
constexpr mts_bind_options BIND = {{1, 0, 1024, 0, 0}};
constexpr mts_recv_options RECV = {{1, 0, 0, 0, 0, 0}};

int bind_sap(std::uint32_t sap) { return mts_bind(4, sap, &BIND, "test"); }

std::string payload_of(const mts_message &m)
{
    return {reinterpret_cast<const char *>(mts_payload_get(&m)), mts_payload_length_get(&m)};
}
} // namespace

TEST(mts, a_datagram_is_magic_opcode_source_and_payload_in_big_endian)
{
    on_fresh_card([] {
        const int queue = bind_sap(514);
        const int peer = peer_socket(card_file("mts/700"));
        const mts_address to = {MTS_NODE_LOCAL, 700};
        EXPECT_EQ(mts_send(queue, &to, 0x1005, "abc", 3), 0);
        EXPECT_EQ(peer_receive(peer), message_text(0x1005, 514, "abc"));
        EXPECT_EQ(mts_send(-1, &to, 4065, nullptr, 0), 0);
        EXPECT_EQ(peer_receive(peer), message_text(4065, 0));
    });
}

TEST(mts, a_received_message_has_the_senders_sap_and_payload)
{
    on_fresh_card([] {
        const int queue = bind_sap(514);
        pollfd waits = {queue, POLLIN, 0};
        EXPECT_EQ(poll(&waits, 1, 0), 0);
        EXPECT_EQ(peer_send(card_file("mts/514"), message_text(4065, 77, "payload")), 23);
        EXPECT_EQ(poll(&waits, 1, 0), 1);
        EXPECT_EQ(waits.revents, POLLIN);
        mts_message m = {};
        ASSERT_EQ(mts_recv(queue, &m, &RECV), 0);
        EXPECT_EQ(mts_opc_get(&m), 4065u);
        EXPECT_EQ(m.source.sap, 77u);
        EXPECT_EQ(payload_of(m), "payload");
        mts_drop(queue, &m);
        EXPECT_LT(mts_recv(queue, &m, &RECV), 0) << "none waits";
        EXPECT_EQ(platform_counters.messages_received, 1u);
        EXPECT_EQ(platform_counters.messages_malformed, 0u);
    });
}

TEST(mts, a_malformed_datagram_is_consumed_and_counted)
{
    on_fresh_card([] {
        const int queue = bind_sap(514);
        const std::string path = card_file("mts/514"), head = message_text(1, 0);
        mts_message m = {};
        for (const std::string &bytes :
             {std::string(), head.substr(0, 15), "MTS2" + head.substr(4), head + std::string(1025, 'x')}) {
            EXPECT_EQ(peer_send(path, bytes), static_cast<long>(bytes.size()));
            EXPECT_LT(mts_recv(queue, &m, &RECV), 0) << bytes.size() << " bytes";
        }
        EXPECT_EQ(platform_counters.messages_malformed, 4u);
        EXPECT_LT(mts_recv(queue, &m, &RECV), 0) << "consumed";
        EXPECT_EQ(platform_counters.messages_malformed, 4u);
        EXPECT_EQ(peer_send(path, head + std::string(1024, 'x')), 1040);
        EXPECT_EQ(mts_recv(queue, &m, &RECV), 0) << "1040 bytes are the most";
        EXPECT_EQ(m.length, 1024u);
        EXPECT_EQ(platform_counters.messages_received, 1u);
    });
}

TEST(mts, a_full_queue_loses_the_message_at_once_and_the_sender_counts_it)
{
    on_fresh_card([] {
        const int queue = bind_sap(514);
        const int peer = peer_socket(card_file("mts/700"));
        const mts_address to = {MTS_NODE_LOCAL, 700};
        unsigned taken = 0;
        while (taken < 1000 && mts_send(queue, &to, 1, "", 0) == 0)
            ++taken;
        EXPECT_GE(taken, 5u);
        EXPECT_LT(taken, 1000u);
        EXPECT_EQ(platform_counters.messages_lost, 1u);
        EXPECT_NE(peer_receive(peer), "<none>");
        EXPECT_EQ(mts_send(queue, &to, 1, "", 0), 0) << "room again";
    });
}

TEST(mts, a_receiver_that_is_not_there_loses_the_message)
{
    on_fresh_card([] {
        const mts_address none = {MTS_NODE_LOCAL, 701}, gone = {MTS_NODE_LOCAL, 702}, far_node = {5, 702};
        close(peer_socket(card_file("mts/702")));
        EXPECT_EQ(mts_send(-1, &none, 1, "", 0), -1);
        EXPECT_EQ(mts_send(-1, &gone, 1, "", 0), -1);
        EXPECT_EQ(mts_send(-1, &far_node, 1, "", 0), -1);
        EXPECT_EQ(platform_counters.messages_lost, 3u);
        const std::string big(MTS_MAX_PAYLOAD + 1, 'x');
        EXPECT_EQ(mts_send(-1, &none, 1, big.data(), big.size()), -1);
    });
}

TEST(mts, a_broadcast_reaches_every_sap_but_the_senders)
{
    on_fresh_card([] {
        const int queue = bind_sap(514);
        const int other = bind_sap(515);
        const int peer = peer_socket(card_file("mts/1024"));
        close(peer_socket(card_file("mts/900")));
        const int odd = peer_socket(card_file("mts/0515"));
        const mts_address all = {MTS_NODE_BROADCAST, 0};
        EXPECT_EQ(mts_send(queue, &all, 0x1006, "x", 1), -1) << "900 has no live owner";
        EXPECT_EQ(platform_counters.messages_lost, 1u);
        EXPECT_EQ(peer_receive(peer), message_text(0x1006, 514, "x"));
        EXPECT_EQ(peer_receive(odd), "<none>") << "no sap is named so";
        mts_message m = {};
        EXPECT_EQ(mts_recv(other, &m, &RECV), 0);
        EXPECT_LT(mts_recv(queue, &m, &RECV), 0) << "not its own";
    });
}

TEST(mts, each_broadcast_lists_the_card_afresh)
{
    on_fresh_card([] {
        const int queue = bind_sap(514);
        const mts_address all = {MTS_NODE_BROADCAST, 0};
        const int first = peer_socket(card_file("mts/1024"));
        EXPECT_EQ(mts_send(queue, &all, 1, "1", 1), 0);
        const int second = peer_socket(card_file("mts/1025"));
        EXPECT_EQ(mts_send(queue, &all, 1, "2", 1), 0);
        EXPECT_EQ(peer_receive(first).back(), '1');
        EXPECT_EQ(peer_receive(first).back(), '2');
        EXPECT_EQ(peer_receive(second).back(), '2');
        for (unsigned sap = 2000; sap < 2300; ++sap) // more names than one read of the folder brings
            EXPECT_EQ(close(peer_socket(card_file("mts/" + std::to_string(sap)))), 0);
        EXPECT_EQ(mts_send(queue, &all, 1, "3", 1), -1) << "300 without an owner";
        EXPECT_EQ(platform_counters.messages_lost, 300u);
        EXPECT_EQ(peer_receive(first).back(), '3');
        EXPECT_EQ(peer_receive(second).back(), '3');
    });
}

TEST(mts, sending_from_a_bound_queue_needs_no_further_descriptor)
{
    on_fresh_card([] {
        const int queue = bind_sap(514), peer = peer_socket(card_file("mts/700"));
        const mts_address to = {MTS_NODE_LOCAL, 700}, all = {MTS_NODE_BROADCAST, 0};
        rlimit usual = {};
        (void)getrlimit(RLIMIT_NOFILE, &usual);
        const rlimit none = {0, usual.rlim_max};
        (void)setrlimit(RLIMIT_NOFILE, &none);
        const int sent = mts_send(queue, &to, 1, "one", 3), broadcast = mts_send(queue, &all, 1, "all", 3);
        (void)setrlimit(RLIMIT_NOFILE, &usual);
        EXPECT_EQ(sent, 0);
        EXPECT_EQ(broadcast, 0);
        EXPECT_EQ(peer_receive(peer).substr(16), "one");
        EXPECT_EQ(peer_receive(peer).substr(16), "all");
    });
}

TEST(mts, a_waiting_sender_gets_in_when_room_comes_and_gives_up_in_time)
{
    on_fresh_card([] {
        const int peer = peer_socket(card_file("mts/700"));
        const mts_address to = {MTS_NODE_LOCAL, 700};
        while (mts_send(-1, &to, 1, "", 0) == 0)
            continue;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(mts_send_wait(-1, &to, 2, "", 0, 50), -1);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
        EXPECT_EQ(platform_counters.messages_lost, 2u);

        const pid_t reader = fork();
        if (reader == 0) {
            pollfd stop = {-1, 0, 0};
            (void)poll(&stop, 1, 20);
            _exit(peer_receive(peer) == "<none>" ? 1 : 0);
        }
        EXPECT_EQ(mts_send_wait(-1, &to, 2, "", 0, 20000), 0);
        waitpid(reader, nullptr, 0);
        EXPECT_EQ(platform_counters.messages_lost, 2u);
    });
}

TEST(mts, a_tool_binds_the_first_free_sap_from_1024)
{
    const card_dir folder;
    on_card(folder.path, [] {
        std::uint32_t first = 0, second = 0;
        EXPECT_GE(mts_bind_free(&first, "tool"), 0);
        EXPECT_GE(mts_bind_free(&second, "tool"), 0);
        EXPECT_EQ(first, 1024u);
        EXPECT_EQ(second, 1025u);
    });
    on_card(folder.path, [] {
        std::uint32_t again = 0;
        EXPECT_GE(mts_bind_free(&again, "tool"), 0);
        EXPECT_EQ(again, 1024u) << "its owner is gone";
    });
}

TEST(mts, a_tool_passes_over_a_taken_sap_without_a_line)
{
    on_fresh_card([] {
        std::filesystem::create_directories(card_file("mts/1024"));
        std::uint32_t sap = 0;
        EXPECT_EQ(stderr_of([&] { EXPECT_GE(mts_bind_free(&sap, "tool"), 0); }), "");
        EXPECT_EQ(sap, 1025u);
    });
}

TEST(mts, a_sap_is_bound_once_and_sap_0_never)
{
    on_fresh_card([] {
        EXPECT_GE(bind_sap(514), 0);
        EXPECT_EQ(bind_sap(514), -1);
        EXPECT_EQ(bind_sap(0), -1);
    });
}

TEST(mts, option_words_are_stored_and_read_back)
{
    on_fresh_card([] {
        const int queue = bind_sap(514);
        EXPECT_EQ(mts_options_get(queue, 4065), 0u);
        EXPECT_EQ(mts_options_set(queue, 4065, 0xFFFF), 0);
        EXPECT_EQ(mts_options_set(queue, 1530, 0x10), 0);
        EXPECT_EQ(mts_options_get(queue, 4065), 0xFFFFu);
        EXPECT_EQ(mts_options_get(queue, 1530), 0x10u);
        EXPECT_EQ(mts_options_get(queue, 4066), 0u);
        EXPECT_EQ(mts_options_set(queue + 1000, 4065, 1), -1);
    });
}

TEST(mts, opcodes_have_their_names_and_the_rest_a_number)
{
    EXPECT_STREQ(mts_opc_name_get(4065), "MTS_OPC_NORVIK_IF_UP");
    EXPECT_STREQ(mts_opc_name_get(1530), "MTS_OPC_DEBUG_REQUEST");
    EXPECT_STREQ(mts_opc_name_get(1531), "MTS_OPC_DEBUG_ANSWER");
    EXPECT_STREQ(mts_opc_name_get(0x1005), "MTS_OPC_ROUTE_IF_ADDED");
    EXPECT_STREQ(mts_opc_name_get(0x1006), "MTS_OPC_ROUTE_IF_REMOVED");
    EXPECT_STREQ(mts_opc_name_get(4071), "MTS_OPC_4071");
    EXPECT_STREQ(mts_opc_name_get(0xFFFFFFFF), "MTS_OPC_4294967295");
    const doc_table documented = doc_read(DOCS_DIR "/card-interfaces.md").tables["Opcodes"];
    for (const std::vector<std::string> &row : documented.rows)
        EXPECT_EQ(row[1], std::string("`") + mts_opc_name_get(static_cast<std::uint32_t>(doc_number(row[0]))) + "`");
}
