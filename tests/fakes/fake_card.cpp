// fake_card.cpp - the record of one test's card: bringing the process up, looking into it, giving everything back.
//
// Standard output goes to a memory file while a card lives, since the trie traces each of its steps there; a failing
// check writes to the real one through a listener of its own.
// Always: the process's globals are as a fresh process has them when a card is constructed.
// Elsewhere: the services themselves (fake_services.cpp, fake_rpc.cpp, fake_memory.cpp).
#include "fake_card.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fake_call.h"
#include "norvik_init.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "prefix_mgr.h"
#include "rib_host.h"
#include "rib_nexthop_index.h"
#include "route_advert.h"
#include "route_mgr.h"
#include "route_mts.h"
#include "route_rpc_serv.h"
#include "sdwrap.h"

using namespace harness;

namespace
{

fake_card *current_card = nullptr;

void store_all(int fd, const char *data, std::size_t bytes)
{
    while (bytes > 0) {
        const ssize_t n = write(fd, data, bytes);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return; // nobody is left to read it
        data += n;
        bytes -= static_cast<std::size_t>(n);
    }
}

// Repeats each failure on the real standard output while a card holds it back.
struct failure_listener : testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult &result) override
    {
        if (!result.failed() || current_card == nullptr || current_card->saved_stdout < 0)
            return;
        const char *file = result.file_name() != nullptr ? result.file_name() : "";
        const std::string text =
            std::string(file) + ":" + std::to_string(result.line_number()) + ": " + result.message() + "\n";
        store_all(current_card->saved_stdout, text.data(), text.size());
    }
};

void listen_once()
{
    static const bool done = [] {
        testing::UnitTest::GetInstance()->listeners().Append(new failure_listener); // owned by the list
        return true;
    }();
    (void)done;
}

// A process that has done nothing yet.
void reset_process()
{
    std::memset(mtrie_pools, 0, sizeof mtrie_pools);
    std::memset(static_cast<void *>(norvik_leaf_default), 0, sizeof norvik_leaf_default);
    wired_table_mgr = nullptr;
    rib_nexthop_index_routes.clear();
    for (const mtrie_hw_copy &copy : mtrie_hw_copies)
        copy.base = 0;
    wired_route_phys_base = 0;
    mtrie_hw_ops = {};
    route_mts_q = -1;
    rpcfd = 0;
    scphandle = 0;
    route_sysfd = 0;
}

// The child's calls travel as lines, each ended by a NUL since texts hold line ends.
int child_pipe = -1;

void child_ends(int status, void *)
{
    std::fflush(stdout);
    for (const std::string &entry : the_card().calls)
        store_all(child_pipe, entry.c_str(), entry.size() + 1);
    _exit(status);
}

} // namespace

fake_card::fake_card(unsigned ixps) : num_ixp(ixps)
{
    if (current_card != nullptr)
        std::abort(); // one at a time
    current_card = this;
    listen_once();
    reset_process();
    std::memset(&sdwrap_gates, 0, sizeof sdwrap_gates);
    sdwrap_dbg_modname = "";
    sdwrap_sys_facility = nullptr;
    std::cout.flush();
    std::fflush(stdout);
    saved_stdout = dup(STDOUT_FILENO);
    captured = memfd_create("printed", MFD_CLOEXEC);
    if (saved_stdout < 0 || captured < 0 || dup2(captured, STDOUT_FILENO) < 0)
        std::abort();
}

fake_card::~fake_card()
{
    std::cout.flush();
    std::fflush(stdout);
    dup2(saved_stdout, STDOUT_FILENO);
    close(saved_stdout);
    close(captured);
    for (const auto &[addr, taken] : heap)
        card_heap_free(card_at<std::byte>(addr), taken.bytes);
    for (const auto &[addr, mapped] : maps)
        card_space_unmap(addr, mapped.bytes);
    if (queue_fd >= 0)
        close(queue_fd);
    if (rpc_fd >= 0)
        close(rpc_fd);
    reset_process();
    current_card = nullptr;
}

int fake_card::start_tables()
{
    if (mtrie_pool_init() != 0) {
        ADD_FAILURE() << "mtrie_pool_init failed";
        return 1;
    }
    if (norvik_init_ixp_fib() != 0) {
        ADD_FAILURE() << "norvik_init_ixp_fib failed";
        return 1;
    }
    return 0;
}

int fake_card::start()
{
    if (start_tables() != 0)
        return 1;
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        if (route_add_rib_and_mtrie_entry(RIB_F_MCAST_DROP, 0x8001, RIB_OBJ_MCAST_DROP, 0xE0000000, 3, 0, ctx) ==
            nullptr) {
            ADD_FAILURE() << "no multicast drop entry in context " << ctx;
            return 1;
        }
    return 0;
}

fake_interface &fake_card::add_interface(std::uint32_t ifid, std::uint32_t address, std::int32_t ctx)
{
    fake_interface entry;
    entry.has_address = true;
    entry.address = address;
    entry.mask = 0xFFFFFF00;
    entry.ctx = ctx;
    return interfaces[ifid] = entry;
}

void fake_card::open_history(std::uint32_t category, bool open)
{
    sdwrap_gates.history[category - SDWRAP_FIRST_CATEGORY] = open ? 0 : 1;
}

void fake_card::open_all_history(bool open)
{
    std::memset(sdwrap_gates.history, open ? 0 : 1, sizeof sdwrap_gates.history);
}

void fake_card::open_debug(std::uint32_t category, bool open)
{
    auto &row = sdwrap_gates.debug[category - SDWRAP_FIRST_CATEGORY];
    std::memset(row, open ? 1 : 0, sizeof row);
}

void fake_card::open_debug_for(std::uint32_t category, std::int32_t ctx, bool open)
{
    const auto i = static_cast<std::uint32_t>(ctx);
    sdwrap_gates.debug[category - SDWRAP_FIRST_CATEGORY][i < SDWRAP_CONTEXTS ? i : SDWRAP_CONTEXTS] = open ? 1 : 0;
}

std::vector<std::string> fake_card::texts(std::uint32_t category) const
{
    std::vector<std::string> found;
    for (const fake_line &line : history)
        if (line.category == category)
            found.push_back(line.text);
    return found;
}

std::vector<std::string> fake_card::lines() const
{
    std::vector<std::string> all;
    for (const fake_line &line : history)
        all.push_back(std::to_string(line.category) + " " + line.text);
    return all;
}

bool fake_card::has_line(std::uint32_t category, const std::string &text) const
{
    for (const fake_line &line : history)
        if (line.category == category && line.text == text)
            return true;
    return false;
}

std::vector<std::string> fake_card::calls_of(const std::string &prefix) const
{
    std::vector<std::string> found;
    for (const std::string &entry : calls)
        if (entry.compare(0, prefix.size(), prefix) == 0)
            found.push_back(entry);
    return found;
}

std::string fake_card::printed()
{
    std::cout.flush();
    std::fflush(stdout);
    const off_t size = lseek(captured, 0, SEEK_END);
    std::string text(static_cast<std::size_t>(size), '\0');
    if (pread(captured, text.data(), text.size(), 0) != size || ftruncate(captured, 0) != 0)
        ADD_FAILURE() << "captured output is gone: " << std::strerror(errno);
    lseek(captured, 0, SEEK_SET);
    return text;
}

void fake_card::forget()
{
    (void)printed();
    history.clear();
    debug.clear();
    syslogs.clear();
    sent.clear();
    scp_messages.clear();
    calls.clear();
    queries.clear();
    journal.clear();
}

bool harness::fake_card_lives() { return current_card != nullptr; }

fake_card &harness::the_card()
{
    if (current_card == nullptr) {
        std::fputs("a platform service was called outside any test\n", stderr);
        std::abort();
    }
    return *current_card;
}

fake_child_result harness::run_in_child(const std::function<void()> &body)
{
    fake_child_result result{-1, {}};
    int ends[2];
    std::cout.flush();
    std::fflush(stdout);
    if (pipe(ends) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return result;
    }
    const pid_t child = fork();
    if (child < 0) {
        ADD_FAILURE() << "fork: " << std::strerror(errno);
        close(ends[0]);
        close(ends[1]);
        return result;
    }
    if (child == 0) {
        close(ends[0]);
        child_pipe = ends[1];
        the_card().log_in_calls = true;
        on_exit(child_ends, nullptr); // first in, so after every exit handler of the process
        body();
        std::exit(0);
    }
    close(ends[1]);
    std::string all;
    char buffer[4096];
    for (ssize_t n; (n = read(ends[0], buffer, sizeof buffer)) != 0;) {
        if (n < 0 && errno != EINTR)
            break;
        if (n > 0)
            all.append(buffer, static_cast<std::size_t>(n));
    }
    close(ends[0]);
    while (waitpid(child, &result.status, 0) < 0 && errno == EINTR) {
    }
    for (std::size_t at = 0; at < all.size(); at = all.find('\0', at) + 1)
        result.calls.emplace_back(all.c_str() + at);
    return result;
}
