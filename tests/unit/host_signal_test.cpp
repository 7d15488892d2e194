// host_signal_test.cpp - a stop signal at every instruction of a change of the next hop index and of the card's heap.
//
// The process stands on the real platform, with a static route in the set of every context's multicast drop entry: the
// clean-up of a signal takes these sets out. A change runs with the processor's trap flag set; at the instruction whose
// turn it is, the handler of the trap does what the signal's handler does. Each such end is status 1.
#include <csignal>
#include <cstdlib>

#include <sys/mman.h>
#include <ucontext.h>

#include "host_support.h"
#include "mtrack.h"
#include "norvik_init.h"
#include "norvik_mtrie_pool.h"
#include "rib_host.h"
#include "rib_nexthop_index.h"
#include "rib_static.h"
#include "route_mgr.h"

using namespace harness;

// The thread sanitizer reports what a clean-up calls in a handler, as it has to.
#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
namespace
{
constexpr std::uint32_t MCAST = 0xE0000000, MCAST_MASK = 0xE0000000, FIRST_GATEWAY = 0x0A010001;
constexpr std::uint32_t CONTEXTS = 5, PATHS = 8; // with a drop entry, and the static routes in the set of each

constexpr greg_t TRAP_FLAG = 0x100;
volatile unsigned steps = 0, stop_at = 0;

void set_trap_flag(bool on)
{
    const std::uint64_t flags = __builtin_ia32_readeflags_u64(), trap = static_cast<std::uint64_t>(TRAP_FLAG);
    __builtin_ia32_writeeflags_u64(on ? flags | trap : flags & ~trap);
}

void on_trap(int, siginfo_t *, void *context)
{
    steps = steps + 1;
    if (steps != stop_at)
        return;
    static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_EFL] &= ~TRAP_FLAG;
    route_mgr_sig_handler(SIGINT);
}

void add_static(std::uint32_t ctx, std::uint32_t prefix, std::uint32_t mask, std::uint32_t gateway)
{
    ASSERT_EQ(rib_add_route(static_cast<std::uint16_t>(ctx), ctx, prefix, mask, gateway), 0u);
}

// The trees, and sets of paths at the multicast drop entries of some contexts: the whole index is what a clean-up takes
// out, so whatever a change left half done would be met.
void start()
{
    ASSERT_EQ(mtrie_pool_init(), 0);
    ASSERT_EQ(norvik_init_ixp_fib(), 0);
    for (std::uint32_t ctx = 0; ctx < CONTEXTS; ++ctx) {
        ASSERT_NE(route_add_rib_and_mtrie_entry(RIB_F_MCAST_DROP, 0x8001, RIB_OBJ_MCAST_DROP, MCAST, 3, 0, ctx),
                  nullptr);
        for (std::uint32_t path = 1; path < PATHS; ++path)
            add_static(ctx, MCAST, MCAST_MASK, FIRST_GATEWAY + path);
    }
}

route_entry *route_through(std::uint32_t ctx, std::uint32_t gateway)
{
    return rib_nexthop_index_find(ctx, gateway, [](const route_entry *) { return true; });
}

// Runs `change` in a child, and the signal's clean-up at its instruction `at`, which 0 is not. Returns its exit status.
int stopped_at(unsigned at, const std::function<void()> &change, unsigned *counted)
{
    return in_child([&] {
        struct sigaction action = {};
        action.sa_sigaction = on_trap;
        action.sa_flags = SA_SIGINFO;
        (void)sigaction(SIGTRAP, &action, nullptr);
        (void)std::atexit(route_mgr_cleanup);
        stop_at = at;
        set_trap_flag(true);
        change();
        set_trap_flag(false);
        *counted = steps;
    });
}

// A first child counts the instructions, then each other one is stopped at one of them: at each, or at each `stride`th.
// Those of a sanitizer are many: then more are passed over.
void expect_clean_up_everywhere(const char *name, const std::function<void()> &change, unsigned stride = 1)
{
    constexpr unsigned MOST = 500, OF_A_SANITIZER = 60;
    auto *const counted = static_cast<unsigned *>(
        mmap(nullptr, sizeof(unsigned), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(stopped_at(0, change, counted), 0);
    const unsigned instructions = *counted;
    EXPECT_GT(instructions, 100u) << name;
    if (instructions > MOST)
        stride = instructions / OF_A_SANITIZER;
    for (unsigned at = 1; at < instructions; at += stride)
        ASSERT_EQ(stopped_at(at, change, counted), 1) << name << ", instruction " << at << " of " << instructions;
}
} // namespace

TEST(signals, at_every_instruction_of_a_change_of_index_or_heap_end_the_process_with_status_1)
{
    on_fresh_card([] {
        ASSERT_NE(std::freopen("/dev/null", "w", stdout), nullptr); // every child prints what a clean-up prints
        (void)stderr_of(start);
        for (const std::uint32_t ctx : {0u, 2u, 4u}) { // at both ends of the order and in its middle
            route_entry *const route = route_through(ctx, FIRST_GATEWAY + (ctx == 4 ? PATHS - 1 : 1));
            ASSERT_NE(route, nullptr);
            const unsigned stride = ctx == 2 ? 1 : 5;
            expect_clean_up_everywhere(
                "a route is taken out", [route] { rib_nexthop_index_remove(route); }, stride);
            rib_nexthop_index_remove(route);
            expect_clean_up_everywhere(
                "a route is entered", [route] { (void)rib_nexthop_index_add(route); }, stride);
            ASSERT_TRUE(rib_nexthop_index_add(route));
        }
        expect_clean_up_everywhere(
            "a block is taken", [] { (void)!mtrack_alloc(ROUTE_MGR_UUID, MTRACK_ROUTE_ENTRY_3, sizeof(route_entry)); });
        void *const block = mtrack_alloc(ROUTE_MGR_UUID, MTRACK_ROUTE_ENTRY_3, sizeof(route_entry));
        expect_clean_up_everywhere("a block is given back", [block] { mtrack_free(block); });
    });
}
#else
TEST(signals, at_every_instruction_of_a_change_of_index_or_heap_end_the_process_with_status_1)
{
    GTEST_SKIP() << "needs the trap flag of x86-64, and no thread sanitizer";
}
#endif
