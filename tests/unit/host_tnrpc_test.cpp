// host_tnrpc_test.cpp - the server of remote procedure calls, over real sockets in a card directory of the test's own.
//
// The server is stepped by hand, one event at a time, so that a test says what each pass does.
#include "tnrpc.h"

#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include <sys/resource.h>

#include "host_tnrpc_support.h"

using namespace harness;

namespace
{

constexpr std::size_t PAGE_RECORD = 61'224;

std::uint32_t proc_leaves(const tnrpc_arg *args)
{
    ++seen.runs;
    EXPECT_EQ(tnrpc_unregister("leaves"), 0);
    *args[0].ref = 9;
    return 3;
}

// Registers and unregisters what the running process serves.
void job_second_instance(int control)
{
    bool well = tnrpc_serv_init(ENDPOINT) == -1;
    well = well && tnrpc_register("sum", proc_no_block, 0) == 0;
    well = well && tnrpc_unregister("sum") == 0;
    answer(control, well && tnrpc_unregister("sum") == -1);
}

// Serves a name at another endpoint that the running process serves as well, and takes it back.
void job_other_endpoint(int control)
{
    bool well = tnrpc_serv_init(21) >= 0;
    well = well && tnrpc_register("sum", proc_no_block, 0) == 0;
    well = well && tnrpc_register("only_theirs", proc_no_block, 0) == 0;
    answer(control, well && tnrpc_unregister("sum") == 0);
    char byte = 0;
    (void)!recv(control, &byte, 1, 0); // lives until the test ends it
}

// Calls every kind of procedure of the running server through the platform's client.
void job_client(int control)
{
    bool well = mtrack_init("tnrpc_test_client", 340, TYPE_NAMES, 1) == 0 && tnrpc_clnt_init(ENDPOINT) == 0;
    well = well &&
           tnrpc_call("sum", 3, RPC_ARG_SMALL, 0x101u, RPC_ARG_U16, 0x10002u, RPC_ARG_U32, 0x70000000u) == 0x70000003u;
    std::uint32_t ref = 0x12345678u;
    well = well && tnrpc_call("ref_low", 1, RPC_ARG_REF, &ref, 2u) == 0 && ref == 0x1234BEEFu;
    well = well && tnrpc_call("ref_whole", 1, RPC_ARG_REF, &ref, 4u) == 0 && ref == 0xA1B2C3D4u;
    tnrpc_block block{};
    ref = 6;
    well = well && tnrpc_call("page", 3, RPC_ARG_U32, 61'000u, RPC_ARG_BLOCK, &block, 0u, RPC_ARG_REF, &ref, 2u) == 5;
    well = well && ref == 7 && block.length == 61'000 && mtrack_stats(0).live_bytes == 61'000;
    for (std::uint32_t i = 0; well && i < block.length; ++i)
        well = block.data.get()[i] == static_cast<std::byte>(i * 7);
    mtrack_free(block.data.get());
    well = well && tnrpc_call("no_block", 1, RPC_ARG_BLOCK, &block, 0u) == 1 && block.length == 0 &&
           block.data.get() == nullptr;
    well = well && platform_counters.remote_calls_failed == 0;
    well = well && tnrpc_call("sum", 0) == TNRPC_FAILED && platform_counters.remote_calls_failed == 1;
    well = well && tnrpc_call("bounded", 2, RPC_ARG_U32, 256u, RPC_ARG_U16, 0u) == TNRPC_FAILED;
    answer(control, well && tnrpc_call("bounded", 2, RPC_ARG_U32, 255u, RPC_ARG_U16, 0u) == 0);
}

peer_process second_instance, other_endpoint, platform_client;

const testing::Environment *const environment = testing::AddGlobalTestEnvironment(new card_environment(
    {{&second_instance, job_second_instance}, {&other_endpoint, job_other_endpoint}, {&platform_client, job_client}}));

std::string link_of(const char *name)
{
    std::error_code error;
    return std::filesystem::read_symlink(card_file("rpc/names/") + name, error).string();
}

class tnrpc_server : public testing::Test
{
protected:
    static inline int descriptor = -1;
    platform_counters_t before{};

    static void SetUpTestSuite()
    {
        descriptor = serve(ENDPOINT);
        ASSERT_GE(descriptor, 0);
    }
    void SetUp() override
    {
        settle();
        before = platform_counters;
        seen = {};
    }
    static bool is_readable(int timeout_ms = 0)
    {
        pollfd waited{descriptor, POLLIN, 0};
        return poll(&waited, 1, timeout_ms) == 1;
    }
    // Serves all there is. Returns the number of events.
    static int settle()
    {
        int events = 0;
        while (tnrpc_process(descriptor) == 0 && events < 100'000)
            ++events;
        return events;
    }
    // Sends one record over a connection of its own and returns what comes back.
    bytes answer_to(const bytes &record)
    {
        const caller c;
        EXPECT_TRUE(c.send_record(record));
        settle();
        return c.receive();
    }
    // How much a counter has grown in this test.
    std::uint64_t grown(std::uint64_t platform_counters_t::*counter) const
    {
        return platform_counters.*counter - before.*counter;
    }
};

const bytes SUM_ARGS = value_of(0, 1, 1) + value_of(1, 2, 2) + value_of(2, 4, 3);

TEST_F(tnrpc_server, a_call_runs_and_its_result_comes_back_with_its_transaction)
{
    EXPECT_EQ(answer_to(call_of("sum", 3, SUM_ARGS, 0xCAFE0001)), reply_of(0xCAFE0001, 0, 6));
    EXPECT_EQ(grown(&platform_counters_t::calls_served), 1u);
    EXPECT_EQ(grown(&platform_counters_t::calls_refused), 0u);
    EXPECT_EQ(grown(&platform_counters_t::connections), 1u);
}

TEST_F(tnrpc_server, a_caller_that_comes_through_the_link_can_call_every_procedure)
{
    const caller c("rpc/names/sum");
    EXPECT_TRUE(c.send_record(call_of("sum", 3, SUM_ARGS, 1)));
    EXPECT_TRUE(c.send_record(call_of("ref_whole", 1, value_of(8, 4, 0), 2)));
    settle();
    EXPECT_EQ(c.receive(), reply_of(1, 0, 6));
    EXPECT_EQ(c.receive(), reply_of(2, 0, 0, value_of(8, 4, 0xA1B2C3D4)));
    EXPECT_EQ(c.receive(), "");
}

TEST_F(tnrpc_server, one_pass_takes_one_event)
{
    const caller c;
    EXPECT_TRUE(c.send_record(call_of("sum", 3, SUM_ARGS)) && c.send_record(call_of("sum", 3, SUM_ARGS)));
    EXPECT_EQ(tnrpc_process(descriptor), 0); // the connection
    EXPECT_EQ(seen.runs, 0u);
    EXPECT_EQ(tnrpc_process(descriptor), 0);
    EXPECT_EQ(seen.runs, 1u);
    EXPECT_EQ(tnrpc_process(descriptor), 0);
    EXPECT_EQ(seen.runs, 2u);
    EXPECT_FALSE(is_readable());
    EXPECT_EQ(tnrpc_process(descriptor), -1);
    EXPECT_EQ(tnrpc_process(descriptor + 1000), -1);
}

TEST_F(tnrpc_server, a_name_that_is_not_served_is_answered_1_whatever_its_arguments)
{
    const bytes refusal = reply_of(77, 1, 0);
    EXPECT_EQ(answer_to(call_of("nobody", 0, "")), refusal);
    EXPECT_EQ(answer_to(call_of("nobody", 5, "junk")), refusal);
    EXPECT_EQ(answer_to(call_of("su", 3, SUM_ARGS)), refusal);
    EXPECT_EQ(answer_to(call_of("sum ", 3, SUM_ARGS)), refusal);
    EXPECT_EQ(answer_to(call_of("Sum", 3, SUM_ARGS)), refusal);
    EXPECT_EQ(answer_to(call_of(bytes(63, 'n'), 0, "")), refusal);
    EXPECT_EQ(answer_to(call_of("a/b\x01\x7F", 0, "")), refusal);
    EXPECT_EQ(grown(&platform_counters_t::calls_refused), 7u);
    EXPECT_EQ(seen.runs, 0u);
}

TEST_F(tnrpc_server, an_unreadable_name_is_answered_2)
{
    const bytes refusal = reply_of(77, 2, 0);
    EXPECT_EQ(answer_to(call_of("", 0, "")), refusal);
    EXPECT_EQ(answer_to(call_of(bytes(64, 'n'), 0, "")), refusal);
    EXPECT_EQ(answer_to(call_of(bytes("su\0m", 4), 3, SUM_ARGS)), refusal);
    EXPECT_EQ(answer_to(call_of("sum\x80", 3, SUM_ARGS)), refusal);
    const bytes whole = call_of("sum", 3, SUM_ARGS);
    EXPECT_EQ(answer_to(whole.substr(0, 12)), refusal) << "the name lies beyond the record";
    EXPECT_EQ(answer_to(whole.substr(0, 14)), refusal) << "a part of the name lies beyond the record";
    EXPECT_EQ(grown(&platform_counters_t::calls_refused), 6u);
    EXPECT_EQ(seen.runs, 0u);
}

TEST_F(tnrpc_server, arguments_of_another_form_are_answered_2)
{
    const bytes first_two = value_of(0, 1, 1) + value_of(1, 2, 2);
    const bytes head = first_two + be(2, 2);
    const std::pair<const char *, bytes> wrong[] = {
        {"count below", call_of("sum", 2, first_two)},
        {"count below, arguments whole", call_of("sum", 2, SUM_ARGS)},
        {"count above", call_of("sum", 4, SUM_ARGS + value_of(2, 4, 0))},
        {"count above, arguments whole", call_of("sum", 4, SUM_ARGS)},
        {"a byte over", call_of("sum", 3, SUM_ARGS + bytes(1, '\0'))},
        {"a byte missing", call_of("sum", 3, SUM_ARGS.substr(0, SUM_ARGS.size() - 1))},
        {"no arguments", call_of("sum", 3, "")},
        {"half a head", call_of("sum", 3, first_two + be(4, 0x20000))},
        {"another type", call_of("sum", 3, first_two + value_of(8, 4, 3))},
        {"type unknown", call_of("sum", 3, first_two + value_of(3, 4, 3))},
        {"length of another type", call_of("sum", 3, first_two + value_of(2, 2, 3))},
        {"length 0", call_of("sum", 3, first_two + value_of(2, 0, 0))},
        {"length beyond the record", call_of("sum", 3, head + be(2, 0) + be(4, 5) + be(4, 3))},
        {"length enormous", call_of("sum", 3, head + be(2, 0) + be(4, 0xFFFFFFFF) + be(4, 3))},
        {"reserved word not 0", call_of("sum", 3, head + be(2, 1) + be(4, 4) + be(4, 3))},
        {"reference of 3 bytes", call_of("ref_low", 1, value_of(8, 3, 0))},
        {"reference of 1 byte", call_of("ref_low", 1, value_of(8, 1, 0))},
        {"block with bytes", call_of("no_block", 1, value_of(9, 4, 0))},
        {"out of range, and a byte over", call_of("bounded", 2, value_of(2, 4, 256) + value_of(1, 2, 0) + "x")},
        {"largest record", call_of("sum", 3, bytes(4096 - 15, 'x'))},
    };
    for (const auto &[what, record] : wrong)
        EXPECT_EQ(answer_to(record), reply_of(77, 2, 0)) << what;
    EXPECT_EQ(grown(&platform_counters_t::calls_refused), std::size(wrong));
    EXPECT_EQ(grown(&platform_counters_t::calls_malformed), 0u);
    EXPECT_EQ(seen.runs, 0u);
}

TEST_F(tnrpc_server, a_refused_call_leaves_its_connection_open)
{
    const caller c;
    EXPECT_TRUE(c.send_record(call_of("nobody", 0, "", 1)) && c.send_record(call_of("sum", 0, "", 2)));
    EXPECT_TRUE(c.send_record(call_of("sum", 3, SUM_ARGS, 3)));
    settle();
    EXPECT_EQ(c.receive(), reply_of(1, 1, 0));
    EXPECT_EQ(c.receive(), reply_of(2, 2, 0));
    EXPECT_EQ(c.receive(), reply_of(3, 0, 6));
}

TEST_F(tnrpc_server, a_record_that_is_no_call_is_counted_and_ends_its_connection)
{
    const bytes whole = call_of("sum", 3, SUM_ARGS);
    bytes wrong_magic = whole;
    wrong_magic[3] = 'P';
    const std::pair<const char *, bytes> wrong[] = {
        {"1 byte", "T"},
        {"11 bytes", whole.substr(0, 11)},
        {"magic of a reply", wrong_magic},
        {"4097 bytes", call_of("sum", 3, bytes(4097 - 15, 'x'))},
        {"100000 bytes", call_of("sum", 3, bytes(100'000, 'x'))},
    };
    for (const auto &[what, record] : wrong)
        EXPECT_EQ(answer_to(record), "end") << what;
    EXPECT_EQ(grown(&platform_counters_t::calls_malformed), std::size(wrong));
    EXPECT_EQ(grown(&platform_counters_t::calls_refused), 0u);
}

TEST_F(tnrpc_server, an_empty_record_is_the_end_of_the_connection_and_not_counted)
{
    EXPECT_EQ(answer_to(""), "end");
    EXPECT_EQ(grown(&platform_counters_t::calls_malformed), 0u);
}

TEST_F(tnrpc_server, a_bound_is_judged_over_the_whole_width_of_the_argument)
{
    const auto bounded = [](std::uint32_t v) { return call_of("bounded", 2, value_of(2, 4, v) + value_of(1, 2, 999)); };
    for (const std::uint32_t over : {256u, 0x10005u, 0x80000000u, 0xFFFFFFFFu})
        EXPECT_EQ(answer_to(bounded(over)), reply_of(77, 3, 0)) << over;
    EXPECT_EQ(seen.runs, 0u);
    EXPECT_EQ(answer_to(bounded(255)), reply_of(77, 0, 0));
    EXPECT_EQ(seen.last_value, 255u);
    EXPECT_EQ(grown(&platform_counters_t::calls_refused), 4u);
}

TEST_F(tnrpc_server, a_reference_of_2_bytes_is_a_number_whose_low_half_goes_back)
{
    EXPECT_EQ(answer_to(call_of("ref_low", 1, value_of(8, 2, 0x1234))), reply_of(77, 0, 0, value_of(8, 2, 0xBEEF)));
    EXPECT_EQ(seen.last_ref, 0x1234u);
    EXPECT_EQ(answer_to(call_of("ref_whole", 1, value_of(8, 2, 0))), reply_of(77, 0, 0, value_of(8, 2, 0xC3D4)));
}

TEST_F(tnrpc_server, a_reference_of_4_bytes_keeps_the_half_that_is_not_written)
{
    EXPECT_EQ(answer_to(call_of("ref_low", 1, value_of(8, 4, 0x56781234))),
              reply_of(77, 0, 0, value_of(8, 4, 0x5678BEEF)));
    EXPECT_EQ(seen.last_ref, 0x56781234u);
}

bytes page_args(std::uint32_t length) { return value_of(2, 4, length) + value_of(9, 0, 0) + value_of(8, 2, 41); }

TEST_F(tnrpc_server, a_big_block_goes_back_whole_and_is_released)
{
    const std::uint32_t length = 61'200;
    const bytes record = answer_to(call_of("page", 3, page_args(length)));
    ASSERT_EQ(record.size(), 16u + 8 + length + 10);
    EXPECT_EQ(record.substr(0, 24), reply_of(77, 0, 5) + value_of(9, 0, 0).substr(0, 4) + be(4, length));
    for (std::uint32_t i = 0; i < length; ++i)
        ASSERT_EQ(static_cast<unsigned char>(record[24 + i]), (i * 7) & 0xFF) << i;
    EXPECT_EQ(record.substr(24 + length), value_of(8, 2, 42));
    EXPECT_EQ(mtrack_stats(0).live_blocks, 0u);
}

TEST_F(tnrpc_server, a_procedure_that_makes_no_block_returns_one_of_length_0)
{
    EXPECT_EQ(answer_to(call_of("no_block", 1, value_of(9, 0, 0))), reply_of(77, 0, 1, value_of(9, 0, 0)));
}

TEST_F(tnrpc_server, connections_with_calls_waiting_take_turns)
{
    const caller flood, modest, other;
    settle();
    for (std::uint32_t i = 0; i < 100; ++i)
        ASSERT_TRUE(flood.send_record(call_of("sum", 3, SUM_ARGS, i)));
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(tnrpc_process(descriptor), 0);
    for (std::uint32_t i = 0; i < 5; ++i) {
        ASSERT_TRUE(modest.send_record(call_of("sum", 3, SUM_ARGS, i)));
        ASSERT_TRUE(other.send_record(call_of("sum", 3, SUM_ARGS, i)));
    }
    for (std::uint32_t i = 0; i < 5; ++i) {
        for (int pass = 0; pass < 3; ++pass)
            ASSERT_EQ(tnrpc_process(descriptor), 0);
        EXPECT_EQ(modest.receive(), reply_of(i, 0, 6)) << "a caller has waited longer than one turn of each other";
        EXPECT_EQ(other.receive(), reply_of(i, 0, 6)) << "a caller has waited longer than one turn of each other";
    }
}

TEST_F(tnrpc_server, a_new_connection_gets_its_turn_beside_a_flood)
{
    const caller flood;
    settle();
    for (std::uint32_t i = 0; i < 100; ++i)
        ASSERT_TRUE(flood.send_record(call_of("sum", 3, SUM_ARGS, i)));
    const caller late;
    ASSERT_TRUE(late.send_record(call_of("sum", 3, SUM_ARGS, 500)));
    for (int pass = 0; pass < 6; ++pass)
        ASSERT_EQ(tnrpc_process(descriptor), 0);
    EXPECT_EQ(late.receive(), reply_of(500, 0, 6));
}

TEST_F(tnrpc_server, the_connection_after_128_is_closed_at_once_and_counted)
{
    std::vector<std::unique_ptr<caller>> callers;
    for (int i = 0; i < 128; ++i) {
        callers.push_back(std::make_unique<caller>());
        settle();
    }
    EXPECT_EQ(grown(&platform_counters_t::connections), 128u);
    EXPECT_EQ(answer_to(""), "end");
    EXPECT_EQ(grown(&platform_counters_t::connections), 128u);
    EXPECT_EQ(grown(&platform_counters_t::connections_refused), 1u);

    ASSERT_TRUE(callers.back()->send_record(call_of("sum", 3, SUM_ARGS)));
    settle();
    EXPECT_EQ(callers.back()->receive(), reply_of(77, 0, 6));
    callers.pop_back();
    settle();
    EXPECT_EQ(answer_to(call_of("sum", 3, SUM_ARGS)), reply_of(77, 0, 6)) << "a place is free again";
}

TEST_F(tnrpc_server, a_caller_that_does_not_read_loses_its_connection)
{
    const caller deaf;
    const caller reader;
    unsigned held = 0;
    while (grown(&platform_counters_t::replies_dropped) == 0 && held < 5000) {
        ASSERT_TRUE(deaf.send_record(call_of("sum", 3, SUM_ARGS, held++)));
        settle();
    }
    EXPECT_EQ(grown(&platform_counters_t::replies_dropped), 1u);
    EXPECT_GE(held, 250u) << "callers count on some 270 unread small replies";
    EXPECT_EQ(grown(&platform_counters_t::calls_served), held) << "the call whose reply was dropped had run";
    EXPECT_FALSE(deaf.send_record(call_of("sum", 3, SUM_ARGS)));
    ASSERT_TRUE(reader.send_record(call_of("sum", 3, SUM_ARGS)));
    settle();
    EXPECT_EQ(reader.receive(), reply_of(77, 0, 6));
}

TEST_F(tnrpc_server, three_unread_pages_are_held_and_a_page_that_is_dropped_is_released)
{
    const caller deaf;
    const std::uint32_t length = PAGE_RECORD - 16 - 8 - 10;
    unsigned held = 0;
    while (grown(&platform_counters_t::replies_dropped) == 0 && held < 100) {
        ASSERT_TRUE(deaf.send_record(call_of("page", 3, page_args(length), held++)));
        settle();
    }
    EXPECT_GT(held, 3u);
    EXPECT_EQ(mtrack_stats(0).live_blocks, 0u);
    EXPECT_EQ(deaf.receive().size(), PAGE_RECORD);
}

TEST_F(tnrpc_server, a_caller_that_is_gone_before_its_reply_raises_no_signal)
{
    {
        const caller gone;
        settle();
        ASSERT_TRUE(gone.send_record(call_of("page", 3, page_args(100))));
    }
    settle();
    EXPECT_EQ(grown(&platform_counters_t::replies_dropped), 1u);
    EXPECT_EQ(mtrack_stats(0).live_blocks, 0u);
    EXPECT_FALSE(is_readable()) << "the ended connection has left the polled set";
}

TEST_F(tnrpc_server, out_of_descriptors_new_connections_wait_and_the_loop_rests)
{
    const caller waiting; // made while there are descriptors left; connected, not accepted
    ASSERT_TRUE(waiting.send_record(call_of("sum", 3, SUM_ARGS)));
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none{0, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    int passes = 0;
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(250)) {
        pollfd waited{descriptor, POLLIN, 0};
        rlimit polling{usual}; // poll itself is refused with no descriptors allowed
        (void)setrlimit(RLIMIT_NOFILE, &polling);
        const bool readable = poll(&waited, 1, 20) == 1;
        (void)setrlimit(RLIMIT_NOFILE, &none);
        if (readable) {
            (void)tnrpc_process(descriptor);
            ++passes;
        }
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_GE(passes, 1);
    EXPECT_LE(passes, 5) << "the loop spins on a connection that it cannot take";
    EXPECT_EQ(waiting.receive(), "") << "the connection is neither answered nor closed";
    while (waiting.receive().empty() && is_readable(2000))
        (void)tnrpc_process(descriptor);
    EXPECT_EQ(grown(&platform_counters_t::connections_refused), 0u);
    EXPECT_EQ(grown(&platform_counters_t::calls_served), 1u);
}

TEST_F(tnrpc_server, a_procedure_may_unregister_itself_while_it_runs)
{
    ASSERT_EQ(tnrpc_register("leaves", proc_leaves, 1, RPC_ARG_REF), 0);
    EXPECT_EQ(link_of("leaves"), "../9");
    EXPECT_EQ(answer_to(call_of("leaves", 1, value_of(8, 4, 0))), reply_of(77, 0, 3, value_of(8, 4, 9)));
    EXPECT_EQ(answer_to(call_of("leaves", 1, value_of(8, 4, 0))), reply_of(77, 1, 0));
    EXPECT_EQ(link_of("leaves"), "");
    EXPECT_EQ(tnrpc_unregister("leaves"), -1);
}

TEST_F(tnrpc_server, registrations_that_cannot_be_are_refused)
{
    EXPECT_EQ(tnrpc_register("", proc_no_block, 0), -1);
    EXPECT_EQ(tnrpc_register(bytes(64, 'n').c_str(), proc_no_block, 0), -1);
    EXPECT_EQ(tnrpc_register("../../escape", proc_no_block, 0), -1);
    EXPECT_EQ(tnrpc_register("kind", proc_no_block, 1, 3u), -1);
    EXPECT_EQ(tnrpc_limit("nobody", 0, 1), -1);
    EXPECT_EQ(tnrpc_limit("sum", 3, 1), -1);
    EXPECT_EQ(tnrpc_limit("no_block", 0, 1), -1);
}

TEST_F(tnrpc_server, names_are_found_whatever_the_order_of_registration)
{
    std::vector<bytes> names;
    for (unsigned i = 0; i < 40; ++i)
        names.push_back("p" + std::to_string(i * 7919 % 101) + bytes(i % 5, 'x'));
    for (const bytes &name : names)
        ASSERT_EQ(tnrpc_register(name.c_str(), proc_no_block, 0), 0) << name;
    for (std::size_t i = 0; i < names.size(); i += 2)
        ASSERT_EQ(tnrpc_unregister(names[i].c_str()), 0) << names[i];
    for (std::size_t i = 0; i < names.size(); ++i)
        EXPECT_EQ(answer_to(call_of(names[i], 0, "")), reply_of(77, i % 2 == 0 ? 1 : 0, i % 2)) << names[i];
    for (std::size_t i = 1; i < names.size(); i += 2)
        ASSERT_EQ(tnrpc_unregister(names[i].c_str()), 0) << names[i];
}

TEST_F(tnrpc_server, a_link_left_by_a_dead_server_is_replaced)
{
    for (const char *stale : {"../4711", "../nonsense", "/etc/passwd", "../9x", "../09"}) {
        std::filesystem::create_symlink(stale, card_file("rpc/names/stale"));
        ASSERT_EQ(tnrpc_register("stale", proc_no_block, 0), 0);
        EXPECT_EQ(link_of("stale"), "../9") << stale;
        ASSERT_EQ(tnrpc_unregister("stale"), 0);
        EXPECT_EQ(link_of("stale"), "");
    }
}

TEST_F(tnrpc_server, a_second_instance_neither_takes_over_nor_takes_down)
{
    second_instance.start();
    EXPECT_EQ(second_instance.answer(), '1');
    EXPECT_EQ(link_of("sum"), "../9");
    EXPECT_EQ(answer_to(call_of("sum", 3, SUM_ARGS)), reply_of(77, 0, 6));
}

TEST_F(tnrpc_server, names_of_a_live_endpoint_belong_to_it)
{
    other_endpoint.start();
    ASSERT_EQ(other_endpoint.answer(), '1');
    EXPECT_EQ(link_of("sum"), "../9") << "taken by another endpoint";
    ASSERT_EQ(tnrpc_register("only_theirs", proc_no_block, 0), 0);
    EXPECT_EQ(link_of("only_theirs"), "../21") << "taken from a live endpoint";
    ASSERT_EQ(tnrpc_unregister("only_theirs"), 0);
    EXPECT_EQ(link_of("only_theirs"), "../21") << "removed under a live endpoint";

    other_endpoint.end();
    ASSERT_EQ(tnrpc_register("only_theirs", proc_no_block, 0), 0);
    EXPECT_EQ(link_of("only_theirs"), "../9");
    ASSERT_EQ(tnrpc_unregister("only_theirs"), 0);
}

TEST_F(tnrpc_server, the_platforms_client_gets_every_kind_of_value_back)
{
    platform_client.start();
    while (!platform_client.has_answered())
        if (is_readable(20))
            (void)tnrpc_process(descriptor);
    EXPECT_EQ(platform_client.answer(), '1');
}

} // namespace
