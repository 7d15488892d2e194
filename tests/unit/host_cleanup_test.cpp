// host_cleanup_test.cpp - the clean-up of a signal, which can come in the middle of an allocation: it allocates
// nothing.
#include <cstdlib>
#include <new>

#include "host_support.h"
#include "mts.h"
#include "sdwrap.h"
#include "tnrpc.h"

using namespace harness;

namespace
{
bool counting = false;
unsigned allocations = 0;

std::uint32_t nothing(const tnrpc_arg *) { return 0; }
} // namespace

// Not inlined: a compiler that sees malloc and free behind them takes the pair for mismatched.
[[gnu::noinline]] void *operator new(std::size_t bytes)
{
    if (counting)
        ++allocations;
    if (void *const at = std::malloc(bytes))
        return at;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void *at) noexcept { std::free(at); }
[[gnu::noinline]] void operator delete(void *at, std::size_t) noexcept { std::free(at); }

TEST(clean_up, may_come_while_messages_are_sent_and_received_which_allocates_nothing_either)
{
    on_fresh_card([] {
        const mts_bind_options bind_options = {};
        const mts_recv_options receive_options = {};
        const int queue = mts_bind(4, 514, &bind_options, "test");
        const int peer = peer_socket(card_file("mts/700"));
        const mts_address to = {MTS_NODE_LOCAL, 700}, itself = {MTS_NODE_LOCAL, 514}, all = {MTS_NODE_BROADCAST, 0};
        mts_message message = {};
        allocations = 0;
        counting = true;
        const int sent = mts_send(queue, &to, 1, "x", 1), broadcast = mts_send(queue, &all, 1, "x", 1),
                  own = mts_send(queue, &itself, 1, "x", 1), received = mts_recv(queue, &message, &receive_options);
        counting = false;
        EXPECT_TRUE(sent == 0 && broadcast == 0 && own == 0 && received == 0);
        EXPECT_EQ(allocations, 0u);
        EXPECT_NE(peer_receive(peer), "<none>");
    });
}

TEST(clean_up, takes_names_and_gates_back_without_an_allocation)
{
    on_fresh_card([] {
        EXPECT_GE(tnrpc_serv_init(9), 0);
        const std::string name = "a_procedure_with_a_name_that_no_string_keeps_in_place";
        EXPECT_EQ(tnrpc_register(name.c_str(), nothing, 0), 0);
        const std::string link = card_file("rpc/names/") + name;
        EXPECT_TRUE(std::filesystem::is_symlink(link));
        allocations = 0;
        counting = true;
        sdwrap_dbg_clean(-1);
        sdwrap_sys_clean(-1);
        const int result = tnrpc_unregister(name.c_str()), unknown = tnrpc_unregister("route_print_debug");
        counting = false;
        EXPECT_EQ(result, 0);
        EXPECT_EQ(unknown, -1);
        EXPECT_EQ(allocations, 0u);
        EXPECT_FALSE(std::filesystem::is_symlink(link));
    });
}
