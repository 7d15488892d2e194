// host_services_test.cpp - interface database, supervisor, system manager and the table memories.
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/un.h>

#include "counters.h"
#include "host_support.h"
#include "if_mgr.h"
#include "mts.h"
#include "platform_mem.h"
#include "scp.h"
#include "sdwrap.h"
#include "sysmgr.h"

using namespace harness;

namespace
{
// Puts a database at the card directory in which interface 5 is as given and 8191 exists. Returns its words, mapped.
std::uint32_t *put_database(const interface_record &record)
{
    const std::string file = interfaces_image({record, {8191, IF_EXISTS, 2, 3, 0, 0, 0, 0}});
    file_write(card_file("interfaces"), file);
    const int fd = open(card_file("interfaces").c_str(), O_RDWR | O_CLOEXEC);
    void *const at = mmap(nullptr, file.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return static_cast<std::uint32_t *>(at);
}
constexpr interface_record FULL = {5, 0x1F, 1, 4000, 0x0A000001, MASK24, 7, 42};

void put_conf(const char *text) { file_write(card_file("card.conf"), text); }
} // namespace

TEST(if_mgr, every_field_of_an_interface_is_answered)
{
    on_fresh_card([] {
        put_database(FULL);
        std::uint32_t a = 9, b = 9;
        EXPECT_EQ(if_get_address(5, &a, &b), 0);
        EXPECT_EQ(a, IF_RMODE_ROUTED);
        EXPECT_EQ(if_get_ip(5, &a, &b), 0);
        EXPECT_EQ(a, 0x0A000001u);
        EXPECT_EQ(b, 0xFFFFFF00u);
        EXPECT_EQ(if_get_context_id(5), 7);
        EXPECT_EQ(if_get_status(5), 1);
        EXPECT_EQ(if_get_bvi(5), 4000);
        EXPECT_EQ(if_get_vlanid(5), 42);
    });
}

TEST(if_mgr, a_database_that_is_cut_while_it_is_mapped_is_looked_for_again)
{
    on_fresh_card([] {
        put_database(FULL);
        EXPECT_EQ(if_get_status(5), 1);
        std::filesystem::resize_file(card_file("interfaces"), 64); // a manager that starts anew, in the same file
        const std::string said = stderr_of([] { EXPECT_EQ(if_get_status(8191), -1); }); // on a page that is gone
        EXPECT_NE(said.find("is not an interface database"), std::string::npos) << said;
        put_database({5, 1, 1, 0, 0, 0, 0, 0});
        EXPECT_EQ(if_get_status(5), 0);
    });
}

TEST(if_mgr, what_an_interface_lacks_is_minus_one)
{
    on_fresh_card([] {
        put_database({5, 0x01, 1, 4000, 1, 1, 7, 42});
        std::uint32_t a = 9, b = 9;
        EXPECT_EQ(if_get_address(5, &a, &b), 0) << "known of every interface";
        EXPECT_EQ(if_get_bvi(5), 4000);
        EXPECT_EQ(if_get_status(5), 0);
        a = 9;
        EXPECT_EQ(if_get_ip(5, &a, &b), -1);
        EXPECT_EQ(a, 9u) << "untouched";
        EXPECT_EQ(if_get_context_id(5), -1);
        EXPECT_EQ(if_get_vlanid(5), -1);
    });
}

TEST(if_mgr, an_interface_that_does_not_exist_answers_minus_one)
{
    on_fresh_card([] {
        put_database({5, 0x1E, 1, 4000, 1, 1, 7, 42});
        std::uint32_t a = 0, b = 0;
        EXPECT_EQ(if_get_status(8191), 0) << "the last one exists";
        for (const std::uint32_t ifid : {5u, 6u, 8192u, 0xFFFFFFFFu}) {
            EXPECT_EQ(if_get_address(ifid, &a, &b), -1) << ifid;
            EXPECT_EQ(if_get_ip(ifid, &a, &b), -1) << ifid;
            EXPECT_EQ(if_get_status(ifid), -1) << ifid;
            EXPECT_EQ(if_get_bvi(ifid), -1) << ifid;
            EXPECT_EQ(if_get_vlanid(ifid), -1) << ifid;
            EXPECT_EQ(if_get_context_id(ifid), -1) << ifid;
        }
    });
}

TEST(if_mgr, the_file_is_looked_for_until_it_is_there)
{
    on_fresh_card([] {
        const std::string said = stderr_of([] {
            EXPECT_EQ(if_get_status(5), -1) << "no file";
            file_write(card_file("interfaces"), "too short");
            EXPECT_EQ(if_get_status(5), -1);
            file_write(card_file("interfaces"), std::string(interface_at(8192), 'x'));
            EXPECT_EQ(if_get_status(5), -1);
        });
        EXPECT_NE(said.find("interfaces"), std::string::npos) << said;
        EXPECT_EQ(said.find('\n'), said.size() - 1) << "said once: " << said;
        put_database(FULL);
        EXPECT_EQ(if_get_status(5), 1);
    });
}

TEST(if_mgr, a_record_that_stays_torn_is_given_up_after_10_ms_and_counted)
{
    on_fresh_card([] {
        std::uint32_t *const words = put_database(FULL);
        EXPECT_EQ(if_get_status(5), 1);
        words[16 + 5 * 8] = 3;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(if_get_status(5), -1);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10));
        EXPECT_EQ(platform_counters.interface_reads_torn, 1u);
        words[16 + 5 * 8] = 4;
        EXPECT_EQ(if_get_status(5), 1);
        EXPECT_EQ(platform_counters.interface_reads_torn, 1u);
    });
}

TEST(scp, a_message_is_one_datagram_and_errors_are_the_systems)
{
    on_fresh_card([] {
        const std::uint32_t handle = scp_init(4, -1);
        ASSERT_NE(handle, 0u);
        EXPECT_EQ(scp_send(handle, "x", 1), ENOENT);
        const int peer = peer_socket(card_file("scp/supervisor"));
        EXPECT_EQ(scp_send(handle, "exactly this", 12), 0);
        EXPECT_EQ(peer_receive(peer), "exactly this");
        int result = 0;
        for (int i = 0; i < 1000 && result == 0; ++i)
            result = scp_send(handle, "x", 1);
        EXPECT_EQ(result, EAGAIN);
        close(peer);
        EXPECT_EQ(scp_send(handle, "x", 1), ECONNREFUSED);
        EXPECT_EQ(scp_send(handle + 1, "x", 1), EBADF);
        EXPECT_EQ(platform_counters.scp_failed, 4u);
        EXPECT_GE(platform_counters.scp_sent, 2u);
    });
}

TEST(scp, the_supervisors_address_is_a_setting)
{
    on_fresh_card([] {
        put_conf("supervisor_address = 200\n");
        EXPECT_EQ(scp_sup_rp_addr_get(1), 200);
    });
}

TEST(scp, without_a_card_directory_there_is_no_service)
{
    on_card("/nowhere/at/all", [] { EXPECT_EQ(scp_init(4, -1), 0u); });
}

TEST(sysmgr, the_service_manager_gets_ready_over_a_path_or_an_abstract_name)
{
    on_fresh_card([] {
        const int peer = peer_socket(card_file("notify"));
        setenv("NOTIFY_SOCKET", card_file("notify").c_str(), 1);
        EXPECT_EQ(sysmgr_handshake(-1, 340), 0);
        EXPECT_EQ(peer_receive(peer), "READY=1");

        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string name = std::string(1, '\0') + "card-test-" + std::to_string(getpid());
        name.copy(address.sun_path, name.size());
        const int hidden = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const auto bytes = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        ASSERT_EQ(bind(hidden, reinterpret_cast<const sockaddr *>(&address), bytes), 0);
        std::string shown = name;
        shown[0] = '@';
        setenv("NOTIFY_SOCKET", shown.c_str(), 1);
        EXPECT_EQ(sysmgr_handshake(-1, 340), 0);
        EXPECT_EQ(peer_receive(hidden), "READY=1");

        setenv("NOTIFY_SOCKET", "/nowhere/notify", 1);
        EXPECT_EQ(sysmgr_handshake(-1, 340), -1);
        unsetenv("NOTIFY_SOCKET");
        EXPECT_EQ(sysmgr_handshake(-1, 340), 0);
    });
}

TEST(sysmgr, the_adjacency_library_wants_its_categories_registered)
{
    on_fresh_card([] {
        static const char *const names[12] = {};
        const mts_bind_options options = {};
        const int queue = mts_bind(4, 514, &options, "test");
        EXPECT_EQ(fb_adj_init(queue, 0, 107, 108, 109, 110, 111), -1);
        EXPECT_EQ(sdwrap_dbg_init(queue, "m", "t", 11, names, 0, 0, 0), 0);
        EXPECT_EQ(fb_adj_init(queue, 0, 107, 108, 109, 110, 111), -1) << "111 is the twelfth";
        EXPECT_EQ(sdwrap_dbg_init(queue, "m", "t", 12, names, 0, 0, 0), 0);
        EXPECT_EQ(fb_adj_init(queue, 0, 107, 108, 109, 110, 111), 0);
    });
}

TEST(sysmgr, the_modules_slot_is_a_setting)
{
    on_fresh_card([] {
        put_conf("slot = 9\n");
        module_info info;
        EXPECT_EQ(get_module_info(&info), 0);
        EXPECT_EQ(info.slot, 9);
    });
}

TEST(platform_mem, the_table_memories_are_files_that_keep_their_contents)
{
    const card_dir folder;
    on_card(folder.path, [] {
        const int fd = syscall_open();
        ASSERT_GE(fd, 0);
        const card_addr wired = map_wired_route(fd), ixp1 = map_pci_xram_to_uspace(0x48202000, 0x103400, 0),
                        ixp2 = map_pci_xram_to_uspace(0x48202000, 0x103400, 1);
        ASSERT_TRUE(wired != 0 && ixp1 != 0 && ixp2 != 0);
        EXPECT_EQ(syscall_close(fd), 0);
        *card_at<std::uint32_t>(wired + 0x13FFFFC) = 1;
        *card_at<std::uint32_t>(ixp1 + 0x1033FC) = 2;
        *card_at<std::uint32_t>(ixp2) = 3;
        for (int pass = 0; pass < 2; ++pass) { // the clean-up runs twice
            unmap_wired_route(0, wired);
            unmap_pci_xram_to_uspace(pass == 0 ? ixp1 : 0, 0x104000);
            unmap_pci_xram_to_uspace(pass == 0 ? ixp2 : 0, 0x104000);
        }
    });
    EXPECT_EQ(std::filesystem::file_size(folder.path + "/mem/wired"), 0x1400000u);
    EXPECT_EQ(std::filesystem::file_size(folder.path + "/mem/ixp1"), 0x103400u);
    EXPECT_EQ(file_text(folder.path + "/mem/ixp2")[0], 3);
    on_card(folder.path, [] {
        const card_addr wired = map_wired_route(0);
        EXPECT_EQ(*card_at<std::uint32_t>(wired + 0x13FFFFC), 1u);
        unmap_wired_route(0, wired);
    });
}

TEST(platform_mem, with_one_processor_the_second_table_is_left_alone)
{
    on_fresh_card([] {
        put_conf("num_ixp = 1\n");
        EXPECT_EQ(platform_get_num_ixp(), 1u);
        EXPECT_EQ(map_pci_xram_to_uspace(0x48202000, 0x103400, 1), 0u);
        EXPECT_FALSE(std::filesystem::exists(card_file("mem/ixp2")));
        EXPECT_EQ(map_pci_xram_to_uspace(0x48202000, 0x103401, 0), 0u) << "over the table";
        EXPECT_EQ(map_pci_xram_to_uspace(0x48202000, 0, 0), 0u);
    });
}

TEST(platform_mem, without_processors_the_first_table_is_mapped_all_the_same)
{
    on_fresh_card([] {
        put_conf("num_ixp = 0\n");
        EXPECT_EQ(platform_get_num_ixp(), 0u);
        EXPECT_NE(map_pci_xram_to_uspace(0x48202000, 0x103400, 0), 0u);
        EXPECT_EQ(map_pci_xram_to_uspace(0x50202000, 0x103400, 1), 0u);
        EXPECT_FALSE(std::filesystem::exists(card_file("mem/ixp2")));
    });
}

TEST(platform_mem, the_wired_region_has_the_address_that_is_set)
{
    on_fresh_card([] {
        put_conf("wired_phys_base = 0x12340000\n");
        wired_info info = {};
        EXPECT_EQ(norvik_get_wired_info(0, &info), 0);
        EXPECT_EQ(info.phys_base, 0x12340000u);
        EXPECT_EQ(info.size, 0x1400000u);
        EXPECT_EQ(norvik_get_wired_info(-1, &info), -1);
    });
}

TEST(platform_mem, a_flush_without_a_route_cache_succeeds_and_is_counted)
{
    on_fresh_card([] {
        EXPECT_EQ(tn_flush_rt_cache(0), 0);
        EXPECT_EQ(tn_flush_rt_cache(0), 0);
        EXPECT_EQ(platform_counters.route_cache_flushes, 2u);
    });
}

TEST(platform_mem, a_flush_of_the_kernels_route_cache_writes_1_and_fails_with_the_systems_error)
{
    if (!own_mounts_are_allowed())
        GTEST_SKIP() << "the host does not let this user put a file in the kernel's place";
    const auto flush_into = [](const char *file) {
        EXPECT_EQ(mount(file, "/proc/sys/net/ipv4/route/flush", nullptr, MS_BIND, nullptr), 0);
        return tn_flush_rt_cache(0);
    };
    on_fresh_card([&] {
        ASSERT_TRUE(have_own_mounts());
        put_conf("route_cache = kernel\n");
        file_write(card_file("flush"), "");
        EXPECT_EQ(flush_into(card_file("flush").c_str()), 0);
        EXPECT_EQ(file_text(card_file("flush")), "1");
        EXPECT_EQ(platform_counters.route_cache_flushes, 1u);
        EXPECT_EQ(flush_into("/dev/full"), -ENOSPC);
        rlimit usual = {};
        (void)getrlimit(RLIMIT_NOFILE, &usual);
        const rlimit none = {0, usual.rlim_max};
        (void)setrlimit(RLIMIT_NOFILE, &none);
        EXPECT_EQ(tn_flush_rt_cache(0), -EMFILE);
        (void)setrlimit(RLIMIT_NOFILE, &usual);
        EXPECT_EQ(platform_counters.route_cache_flushes, 1u) << "what failed is not counted";
    });
    on_fresh_card([&] {
        ASSERT_TRUE(have_own_mounts());
        EXPECT_EQ(flush_into("/dev/full"), 0) << "the host has no route cache by default";
    });
}

TEST(platform_mem, closing_takes_the_descriptor_that_is_given)
{
    on_fresh_card([] {
        EXPECT_EQ(syscall_close(0), 0);
        EXPECT_EQ(fcntl(0, F_GETFD), -1);
        EXPECT_EQ(syscall_close(0), -1);
    });
}
