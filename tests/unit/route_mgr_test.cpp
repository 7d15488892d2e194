// route_mgr_test.cpp - start-up in its one order, each step that can fail, and the clean-up, once and twice.
//
// The process is run in a child, since it ends by exit; what it called comes back as one list with its error and
// main-loop lines in their places.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "fake_card.h"
#include "norvik_mtrie.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "rib_table.h"
#include "route_log.h"
#include "route_mgr.h"
#include "sdwrap.h"

using namespace harness;

namespace
{

using strings = std::vector<std::string>;
using action = std::function<void()>;

constexpr char FIRST_POLL[] = "poll q:1 rpc:1 60000";
constexpr char CLEANUP_BEGINS[] = "sdwrap_dbg_clean";
constexpr int STOPPED = 42; // exit status of a child that a test ends

bool begins(const std::string &text, const std::string &with) { return text.compare(0, with.size(), with) == 0; }

struct step {
    const char *call; // beginning of the entry after which `then` runs, each time
    action then;
};

// Runs the whole process. Lines of the search and the table addresses are left out of the calls.
fake_child_result run_process(const std::vector<step> &steps, const action &prepare = {})
{
    fake_child_result result = run_in_child([&] {
        fake_card &card = the_card();
        card.open_all_history(false);
        card.open_history(ROUTE_DBG_ERRORS, true);
        card.open_history(ROUTE_DBG_MAIN_LOOP, true);
        card.on_call = [&steps](const std::string &entry) {
            for (const step &s : steps)
                if (begins(entry, s.call))
                    s.then();
        };
        if (prepare)
            prepare();
        std::exit(route_mgr_main());
    });
    std::erase_if(result.calls, [](const std::string &entry) {
        return begins(entry, "log 101 ") || begins(entry, "log 100 <Ctx:0>main: init wired region");
    });
    return result;
}

action stop()
{
    return [] { std::exit(STOPPED); };
}

bool exited_with(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }

strings without(strings calls, const std::string &beginning)
{
    std::erase_if(calls, [&](const std::string &entry) { return begins(entry, beginning); });
    return calls;
}

// What comes before the clean-up's first call, and what from it on.
strings start_part(const strings &calls)
{
    const auto at = std::find_if(calls.begin(), calls.end(),
                                 [](const std::string &entry) { return begins(entry, CLEANUP_BEGINS); });
    return strings(calls.begin(), at);
}
strings cleanup_part(const strings &calls)
{
    return strings(calls.begin() + static_cast<std::ptrdiff_t>(start_part(calls).size()), calls.end());
}

strings cleanup_calls(const char *queue, const char *wired, const char *ixp1, const char *ixp2)
{
    strings calls = {std::string("sdwrap_dbg_clean ") + queue, std::string("sdwrap_sys_clean ") + queue};
    for (const char *name :
         {"arp_prefix_mgr_add_route", "arp_prefix_mgr_remove_route", "rib_max_ecmp_route", "rib_add_route",
          "rib_remove_route", "slowpath_route_lookup", "show_rib_print", "show_rib_summary", "show_fib_print",
          "show_fib_summary", "mtrie_lookup_exact_stub", "rib_add_nat_pool", "rib_remove_nat_pool", "mtrie_hw_dump_api",
          "norvik_send_route_advert", "route_print_debug"})
        calls.push_back(std::string("tnrpc_unregister ") + name);
    calls.push_back(std::string("unmap_wired_route 0 ") + wired);
    calls.push_back(std::string("unmap_pci_xram_to_uspace ") + ixp1 + " 0x104000");
    calls.push_back(std::string("unmap_pci_xram_to_uspace ") + ixp2 + " 0x104000");
    calls.push_back("fb_adj_cleanup 0");
    calls.push_back("syscall_close 0");
    return calls;
}

const std::string NOT_REMOVED =
    "log 100 <Ctx:0>route_remove_rib_and_mtrie_entry: rib remove failed, addr 0xe0000000/3\n";

// A start-up that fails: how, the line that says so, and what was called last before it.
struct failing_step {
    const char *name;
    std::function<void(fake_card &)> make_fail;
    std::string line;
    std::string last_call;
    strings cleanup; // names in cleanup_calls
};

void PrintTo(const failing_step &step, std::ostream *out) { *out << step.name; }

struct start_up_fails : testing::TestWithParam<failing_step> {
};

const failing_step FAILING[] = {
    {"the_bind",
     [](fake_card &card) { card.mts_bind_fails = true; },
     "log 100 <Ctx:0>Routemgr: couldn't bind to MTS, Routemgr might already be running.\n",
     "mts_bind 4 514 Route Manager [1 0 1024 0 0]",
     {"-1", "0", "0", "0"}},
    {"the_debug_service",
     [](fake_card &card) { card.sdwrap_dbg_init_result = -3; },
     "log 100 <Ctx:0>Couldn't initialize sdwrap. retval = -3\n",
     "sdwrap_dbg_init q ROUTE Mgr/ROUTE Mgr 12 0 0 0",
     {"q", "0", "0", "0"}},
    {"syslog",
     [](fake_card &card) { card.sdwrap_sys_init_result = 9; },
     "log 100 <Ctx:0>Couldn't initialize syslog. retval = 9\n",
     "sdwrap_sys_init_helper q ROUTE Mgr/ROUTE Manager 1984 0 0 0",
     {"q", "0", "0", "0"}},
    {"the_system_library",
     [](fake_card &card) { card.syscall_open_result = -2; },
     "log 100 <Ctx:0>main: mtrie_pool_init failed\n",
     "syscall_open",
     {"q", "0", "0", "0"}},
    {"the_wired_region",
     [](fake_card &card) { card.map_wired_fails = true; },
     "log 100 <Ctx:0>main: mtrie_pool_init failed\n",
     "map_wired_route",
     {"q", "0", "0", "0"}},
    {"the_regions_description",
     [](fake_card &card) { card.wired_info_result = -1; },
     "log 100 <Ctx:0>main: mtrie_pool_init failed\n",
     "norvik_get_wired_info",
     {"q", "wired", "0", "0"}},
    {"the_first_processor",
     [](fake_card &card) { card.map_ixp_result[0] = 0; },
     "log 100 <Ctx:0>main: mtrie_pool_init failed\n",
     "map_pci_xram_to_uspace 0x48202000 0x103400 0",
     {}},
    {"the_second_processor",
     [](fake_card &card) { card.map_ixp_result[1] = 0xFFFFFFFF; },
     "log 100 <Ctx:0>main: mtrie_pool_init failed\n",
     "map_pci_xram_to_uspace 0x50202000 0x103400 1",
     {}},
    {"the_node_pool",
     [](fake_card &card) { card.fail_alloc(MTRACK_CP_POOL, 1); },
     "log 100 <Ctx:0>main: mtrie_pool_init failed\n",
     "map_pci_xram_to_uspace 0x50202000 0x103400 1",
     {"q", "wired", "ixp1", "ixp2"}},
    {"the_ecmp_pool",
     [](fake_card &card) { card.fail_alloc(MTRACK_CP_POOL, 3); },
     "log 100 <Ctx:0>main: mtrie_pool_init failed\n",
     "map_pci_xram_to_uspace 0x50202000 0x103400 1",
     {"q", "wired", "ixp1", "ixp2"}},
    {"the_third_tree",
     [](fake_card &card) { card.fail_alloc(MTRACK_PREFIX_TREE, 3); },
     "log 100 <Ctx:0>main: norvik_init_ixp_fib failed\n",
     "log 100 <Ctx:0>norvik_init_ixp_fib: wired_region_init failed\n",
     {"q", "wired", "ixp1", "ixp2"}},
    {"a_multicast_entry",
     [](fake_card &card) { card.fail_alloc(MTRACK_ROUTE_ENTRY_1, 11); },
     "log 100 <Ctx:0>couldn't add entry for multicast pkt drop\n",
     "log 100 <Ctx:0>route_add_rib_and_mtrie_entry: rib add failed, addr 0xe0000000/3, ifid 0x0\n",
     {"q", "wired", "ixp1", "ixp2"}},
    {"the_supervisor",
     [](fake_card &card) { card.scp_handle = 0; },
     "log 100 <Ctx:0>Couldn't initialize SCP.\n",
     "scp_init 4 q",
     {"q", "wired", "ixp1", "ixp2"}},
    {"the_adjacency_library",
     [](fake_card &card) { card.fb_adj_init_result = -1; },
     "log 100 <Ctx:0>main: fb_adj_init failed\n",
     "fb_adj_init q 0 107 108 109 110 111",
     {"q", "wired", "ixp1", "ixp2"}},
};

} // namespace

TEST(route_mgr, start_up_makes_its_calls_in_one_fixed_order)
{
    fake_card card;
    const fake_child_result child = run_process({{FIRST_POLL, stop()}});
    EXPECT_TRUE(exited_with(child.status, STOPPED)) << child.status;
    strings expected = {"tnrpc_serv_init 9"};
    for (const char *entry :
         {"arp_prefix_mgr_add_route 6: 1 2 2 1 1 2", "arp_prefix_mgr_remove_route 7: 1 2 2 2 1 1 2",
          "rib_max_ecmp_route 4: 1 2 2 2", "rib_add_route 5: 1 2 2 2 2", "rib_remove_route 5: 1 2 2 2 2",
          "slowpath_route_lookup 3: 1 2 8", "show_rib_print 5: 1 8 8 8 9", "show_rib_summary 2: 1 9",
          "show_fib_print 5: 1 8 8 8 9", "show_fib_summary 2: 1 9", "mtrie_lookup_exact_stub 4: 2 2 2 8",
          "rib_add_nat_pool 5: 1 1 2 2 1", "rib_remove_nat_pool 5: 1 1 2 2 1", "mtrie_hw_dump_api 4: 1 2 2 9",
          "norvik_send_route_advert 6: 2 2 2 2 1 1"})
        expected.push_back(std::string("tnrpc_register ") + entry);
    expected.insert(expected.end(), {"tnrpc_clnt_init 9", "signal 2", "signal 1", "signal 3",
                                     "mts_bind 4 514 Route Manager [1 0 1024 0 0]"});
    for (const char *opcode : {"4063", "4064", "4065", "4066", "4089", "4069", "4070", "1530"}) {
        expected.push_back(std::string("mts_options_get q ") + opcode);
        expected.push_back(std::string("mts_options_set q ") + opcode + " 0x10");
    }
    expected.insert(expected.end(),
                    {"sdwrap_dbg_init q ROUTE Mgr/ROUTE Mgr 12 0 0 0",
                     "sdwrap_sys_init_helper q ROUTE Mgr/ROUTE Manager 1984 0 0 0", "sdwrap_hist_init 0x10000",
                     "sdwrap_hist_init_for_uuid 0x73 0x10000", "sdwrap_hist_set_event_subtype 0x730000 100 1",
                     "sdwrap_hist_set_event_subtype 0x730000 101 1", "mtrack_init ROUTE Manager 340 12", "syscall_open",
                     "map_wired_route", "norvik_get_wired_info", "map_pci_xram_to_uspace 0x48202000 0x103400 0",
                     "map_pci_xram_to_uspace 0x50202000 0x103400 1", "scp_init 4 q",
                     "fb_adj_init q 0 107 108 109 110 111", "log 106 <Ctx:0>main: norvik_route_mgr process init DONE\n",
                     "sysmgr_handshake q 340", "log 106 <Ctx:0>\nmain: Waiting for MTS messages ...\n", FIRST_POLL});
    EXPECT_EQ(start_part(child.calls), expected);
}

TEST(route_mgr, an_option_word_keeps_its_other_bits_and_is_cut_to_16)
{
    fake_card card;
    card.option_words[4065] = 0xABCD0101;
    const fake_child_result child = run_process({{FIRST_POLL, stop()}});
    EXPECT_NE(std::find(child.calls.begin(), child.calls.end(), "mts_options_set q 4065 0x111"), child.calls.end());
}

TEST(route_mgr, the_twelve_categories_and_types_are_named_in_order)
{
    fake_card card;
    const fake_child_result child =
        run_process({{FIRST_POLL, [] {
                          for (const std::string &name : the_card().categories)
                              the_card().calls.push_back("category " + name);
                          for (unsigned i = 0; i < mtrack_type_count(); ++i)
                              the_card().calls.push_back(std::string("type ") + mtrack_stats(i).name);
                          std::exit(STOPPED);
                      }}});
    strings named;
    for (const std::string &entry : child.calls)
        if (begins(entry, "category ") || begins(entry, "type "))
            named.push_back(entry);
    EXPECT_EQ(named, (strings{"category route manager errors",
                              "category route manager events",
                              "category route manager MTS messages",
                              "category route manager lock msg",
                              "category route manager warning",
                              "category route manager info messages",
                              "category route manager main loop messages",
                              "category route manager adj-events",
                              "category route manager adj-errors",
                              "category route manager adj-reads",
                              "category route manager adj-writes",
                              "category route manager adj-details",
                              "type MTRACK_ROUTE_TABLE",
                              "type MTRACK_PREFIX_TREE",
                              "type MTRACK_PREFIX_MGR",
                              "type MTRACK_PREFIX_MGR_TREES",
                              "type MTRACK_CP_POOL",
                              "type MTRACK_ROUTE_TREE_DISPLAY",
                              "type MTRACK_ROUTE_TABLE_DISPLAY",
                              "type MTRACK_CLI_ROUTE",
                              "type MTRACK_FIB_DISPLAY",
                              "type MTRACK_ROUTE_ENTRY_1",
                              "type MTRACK_ROUTE_ENTRY_2",
                              "type MTRACK_ROUTE_ENTRY_3"}));
}

TEST(route_mgr, after_a_start_every_context_drops_multicast_by_encap_id_8001)
{
    fake_card card;
    const fake_child_result child =
        run_process({{FIRST_POLL, [] {
                          unsigned good = 0;
                          for (std::uint32_t ctx = 0; ctx < 256; ++ctx) {
                              rib_search_result found;
                              const mtrie_leaf *leaf =
                                  mtrie_longest_match(mtrie_get_root_node(ctx), IP(239, 255, 255, 250));
                              if (rib_route_search(ctx, 0xE0000000, 3, nullptr, nullptr, &found) == 1 &&
                                  found.entry->encap_id == 0x8001 && found.entry->flags == RIB_F_MCAST_DROP &&
                                  found.entry->ctx == ctx && leaf != nullptr && leaf->adjacency == 0x8001)
                                  ++good;
                          }
                          the_card().calls.push_back("good " + std::to_string(good));
                          the_card().calls.push_back("broken " + std::to_string(mtrie_pool_check() + mtrie_hw_check()));
                          std::exit(STOPPED);
                      }}});
    EXPECT_NE(std::find(child.calls.begin(), child.calls.end(), "good 256"), child.calls.end());
    EXPECT_NE(std::find(child.calls.begin(), child.calls.end(), "broken 0"), child.calls.end());
}

TEST_P(start_up_fails, with_its_line_and_status_255_and_one_clean_up)
{
    const failing_step &failing = GetParam();
    fake_card card;
    failing.make_fail(card);
    const fake_child_result child = run_process({});
    EXPECT_TRUE(exited_with(child.status, 255)) << "status " << child.status;

    const strings started = start_part(child.calls);
    ASSERT_GE(started.size(), 2u);
    EXPECT_EQ(started.back(), failing.line);
    EXPECT_EQ(started[started.size() - 2], failing.last_call);

    const strings cleaned = without(cleanup_part(child.calls), "log ");
    EXPECT_EQ(std::count_if(cleaned.begin(), cleaned.end(),
                            [](const std::string &entry) { return begins(entry, CLEANUP_BEGINS); }),
              1);
    if (!failing.cleanup.empty()) {
        EXPECT_EQ(cleaned, cleanup_calls(failing.cleanup[0].c_str(), failing.cleanup[1].c_str(),
                                         failing.cleanup[2].c_str(), failing.cleanup[3].c_str()));
    }
}

INSTANTIATE_TEST_SUITE_P(at, start_up_fails, testing::ValuesIn(FAILING),
                         [](const testing::TestParamInfo<failing_step> &param) { return param.param.name; });

TEST(route_mgr, a_second_instance_registers_before_it_fails_and_unregisters_sixteen_names_at_exit)
{
    fake_card card;
    card.tnrpc_serv_fails = true; // the running one owns the endpoint and the queue
    card.mts_bind_fails = true;
    const fake_child_result child = run_process({});
    EXPECT_TRUE(exited_with(child.status, 255));
    const auto count = [&](const char *beginning) {
        return std::count_if(child.calls.begin(), child.calls.end(),
                             [&](const std::string &entry) { return begins(entry, beginning); });
    };
    EXPECT_EQ(count("tnrpc_register "), 15);
    EXPECT_EQ(count("tnrpc_unregister "), 16);
    EXPECT_EQ(count("mts_options"), 0);
}

TEST(route_mgr, a_multicast_entry_that_fails_in_context_10_leaves_the_lower_ones_until_clean_up_tries_all)
{
    fake_card card;
    card.fail_alloc(MTRACK_ROUTE_ENTRY_1, 11);
    const fake_child_result child = run_process(
        {{CLEANUP_BEGINS,
          [] {
              std::string holders;
              for (std::uint32_t ctx = 0; ctx < 256; ++ctx) {
                  rib_search_result found;
                  if (rib_route_search(ctx, 0xE0000000, 3, nullptr, nullptr, &found) == 1)
                      holders += " " + std::to_string(ctx);
              }
              the_card().calls.push_back("holders" + holders);
          }},
         {"syscall_close 0", [] {
              the_card().calls.push_back("entries left " + std::to_string(the_card().blocks(MTRACK_ROUTE_ENTRY_1)));
          }}});
    EXPECT_TRUE(exited_with(child.status, 255));
    EXPECT_NE(std::find(child.calls.begin(), child.calls.end(), "holders 0 1 2 3 4 5 6 7 8 9"), child.calls.end());
    EXPECT_NE(std::find(child.calls.begin(), child.calls.end(), "entries left 0"), child.calls.end());
    EXPECT_EQ(std::count(child.calls.begin(), child.calls.end(), NOT_REMOVED), 246);
}

TEST(route_mgr, without_processors_start_up_fails_at_the_first_route)
{
    fake_card card(0);
    const fake_child_result child = run_process({});
    EXPECT_TRUE(exited_with(child.status, 255)) << child.status;
    EXPECT_EQ(start_part(child.calls).back(), "log 100 <Ctx:0>couldn't add entry for multicast pkt drop\n");
}

TEST(route_mgr, an_init_failure_is_not_sent_to_syslog_below_its_threshold)
{
    for (const bool debug_service : {true, false}) {
        fake_card card;
        (debug_service ? card.sdwrap_dbg_init_result : card.sdwrap_sys_init_result) = -1;
        const fake_child_result child = run_process({});
        EXPECT_EQ(without(child.calls, "zumo_syslog").size(), child.calls.size());
    }
}

TEST(route_mgr, an_init_failure_of_syslog_is_sent_once_the_level_was_raised)
{
    fake_card card;
    card.sdwrap_sys_init_result = -1;
    const fake_child_result child = run_process({{"sdwrap_sys_init_helper", [] { sdwrap_sys_facility->level = 3; }}});
    EXPECT_EQ(start_part(child.calls).back(),
              "zumo_syslog 3 <<%ROUTE MGR-3-INIT_FAILED>> Initialization failed. Component SYSLOG");
    EXPECT_TRUE(exited_with(child.status, 255));
}

TEST(route_mgr, an_init_failure_of_the_debug_service_is_sent_once_the_level_was_raised)
{
    fake_card card;
    const fake_child_result child = run_process({}, [] {
        the_card().sdwrap_sys_init_result = -1;
        (void)route_mgr_main(); // leaves the facility record where the debug service finds it
        sdwrap_sys_facility->level = 7;
        the_card().sdwrap_dbg_init_result = -1;
    });
    EXPECT_EQ(start_part(child.calls).back(),
              "zumo_syslog 3 <<%ROUTE MGR-3-INIT_FAILED>> Initialization failed. Component DEBUG");
}

TEST(route_mgr, the_facility_is_route_mgr_1984_with_both_levels_2)
{
    fake_card card;
    const fake_child_result child =
        run_process({{"sdwrap_sys_init_helper", [] {
                          const syslog_facility &facility = *sdwrap_sys_facility;
                          the_card().calls.push_back(
                              std::string("facility ") + facility.name + " " + std::to_string(facility.code) + " " +
                              std::to_string(facility.default_level) + " " + std::to_string(facility.level));
                          std::exit(STOPPED);
                      }}});
    EXPECT_NE(std::find(child.calls.begin(), child.calls.end(), "facility ROUTE Mgr 1984 2 2"), child.calls.end());
}

TEST(route_mgr, the_message_of_a_failed_start_is_init_failed_of_that_facility_with_severity_3)
{
    EXPECT_STREQ(syslog_msg_INIT_FAILED.name, "INIT_FAILED");
    EXPECT_EQ(syslog_msg_INIT_FAILED.facility, &syslog_fac_LOG_ROUTE_MGR);
    EXPECT_STREQ(syslog_msg_INIT_FAILED.format, "<<%%%s-%d-INIT_FAILED>> Initialization failed. Component %s");
    EXPECT_EQ(syslog_msg_INIT_FAILED.severity, 3);
}

TEST(route_mgr, the_default_leaves_are_cleared_before_the_first_call)
{
    fake_card card;
    const fake_child_result child =
        run_process({{"tnrpc_serv_init",
                      [] {
                          for (const card_ptr<mtrie_leaf> &leaf : norvik_leaf_default)
                              EXPECT_FALSE(leaf);
                          std::exit(testing::Test::HasFailure() ? 1 : STOPPED);
                      }}},
                    [] { std::memset(static_cast<void *>(norvik_leaf_default), 0xEE, sizeof norvik_leaf_default); });
    EXPECT_TRUE(exited_with(child.status, STOPPED)) << child.status;
}

TEST(route_mgr, results_that_do_not_matter_do_not_stop_a_start)
{
    fake_card card;
    card.tnrpc_serv_fails = true;
    card.tnrpc_clnt_result = -1;
    card.handshake_result = -1;
    const fake_child_result child = run_process({{"poll", stop()}});
    EXPECT_TRUE(exited_with(child.status, STOPPED)) << child.status;
}

TEST(route_mgr, a_signal_cleans_up_twice_and_exits_with_1)
{
    for (const int signo : {SIGINT, SIGHUP, SIGQUIT}) {
        fake_card card;
        const fake_child_result child = run_process({{FIRST_POLL, [signo] { raise(signo); }}});
        EXPECT_TRUE(exited_with(child.status, 1)) << "signal " << signo << " status " << child.status;
        strings expected = cleanup_calls("q", "wired", "ixp1", "ixp2");
        strings second = cleanup_calls("q", "unmapped", "0", "0");
        // The second pass finds no entry any more: a line for each context, after the names were taken back.
        second.insert(second.begin() + 18, 256, NOT_REMOVED);
        expected.insert(expected.end(), second.begin(), second.end());
        EXPECT_EQ(cleanup_part(child.calls), expected) << "signal " << signo;
    }
}

TEST(route_mgr, another_signal_in_any_call_of_the_clean_up_begins_it_anew_and_the_status_stays_1)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer keeps a signal back while a handler runs";
#endif
    const std::size_t calls = cleanup_calls("", "", "", "").size();
    for (std::size_t at = 0; at < 2 * calls; ++at) { // of the handler's clean-up, and of the one at exit
        fake_card card;
        bool has_begun = false;
        std::size_t made = 0;
        const auto raise_at = [&] {
            const std::string &entry = the_card().calls.back();
            has_begun = has_begun || begins(entry, CLEANUP_BEGINS);
            if (has_begun && !begins(entry, "log ") && made++ == at)
                raise(SIGHUP);
        };
        const fake_child_result child = run_process({{FIRST_POLL, [] { raise(SIGINT); }}, {"", raise_at}});
        EXPECT_TRUE(exited_with(child.status, 1)) << "call " << at << " status " << child.status;
        const strings cleaned = without(cleanup_part(child.calls), "log ");
        ASSERT_GE(cleaned.size(), at + 1 + calls) << "call " << at;
        EXPECT_TRUE(begins(cleaned[at + 1], CLEANUP_BEGINS)) << "call " << at << " goes on with " << cleaned[at + 1];
        EXPECT_EQ(cleaned.back(), "syscall_close 0");
    }
}

TEST(route_mgr, the_same_signal_in_the_clean_up_waits_for_ever)
{
    fake_card card;
    const fake_child_result child =
        run_process({{FIRST_POLL, [] { raise(SIGINT); }}, {"fb_adj_cleanup", [] { raise(SIGINT); }}});
    EXPECT_TRUE(exited_with(child.status, 1)) << child.status;
    EXPECT_EQ(without(cleanup_part(child.calls), "log ").size(), 2 * cleanup_calls("", "", "", "").size());
}

TEST(route_mgr, clean_up_frees_the_multicast_entries)
{
    fake_card card;
    ASSERT_EQ(card.start(), 0);
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 256u);
    route_mgr_cleanup();
    EXPECT_EQ(card.blocks(MTRACK_ROUTE_ENTRY_1), 0u);
    EXPECT_TRUE(card.maps.empty());
    EXPECT_EQ(va_ixp1_dram_base, 0u);
    EXPECT_EQ(va_ixp2_dram_base, 0u);
}

TEST(route_mgr, clean_up_before_anything_was_started_finds_nothing)
{
    fake_card card;
    route_mgr_cleanup();
    route_mgr_cleanup();
    EXPECT_EQ(card.texts(ROUTE_DBG_ERRORS).size(), 512u);
    EXPECT_EQ(card.all_blocks(), 0u);
}

TEST(route_mgr, only_three_signals_get_a_handler)
{
    fake_card card;
    const fake_child_result child =
        run_process({{FIRST_POLL, [] {
                          std::string caught;
                          for (int signo = 1; signo < 32; ++signo) {
                              struct sigaction now;
                              if (sigaction(signo, nullptr, &now) == 0 && now.sa_handler == route_mgr_sig_handler)
                                  caught += " " + std::to_string(signo);
                          }
                          the_card().calls.push_back("caught" + caught);
                          std::exit(STOPPED);
                      }}});
    EXPECT_NE(std::find(child.calls.begin(), child.calls.end(), "caught 1 2 3"), child.calls.end());
}
