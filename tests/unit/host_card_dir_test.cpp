// host_card_dir_test.cpp - the card directory, its locks and files, and the settings of the card.
#include <cerrno>
#include <ctime>
#include <set>

#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "card_dir.h"
#include "host_support.h"
#include "mts.h"
#include "tnrpc.h"

using namespace harness;

namespace
{
constexpr mts_bind_options OPTIONS = {};

unsigned mode_of(const std::string &path)
{
    struct stat st = {};
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777u : 0xFFFFu;
}

int open_flags(int fd) { return fcntl(fd, F_GETFD); }

// The settings that a card.conf of `text` gives, judged by `check`, and what is said about it.
std::string with_conf(const std::string &text, const std::function<void(const card_conf &)> &check)
{
    const card_dir folder;
    file_write(folder.path + "/card.conf", text);
    on_card(folder.path, [&] {
        const std::string said = stderr_of([&] { (void)card_conf_get(); });
        check(card_conf_get());
        file_write(card_file("said"), said);
    });
    return file_text(folder.path + "/said");
}
} // namespace

TEST(card_dir, is_made_with_its_folders_for_us_alone_whatever_the_umask)
{
    const card_dir above;
    on_card(above.path + "/card", [] {
        umask(0777);
        EXPECT_EQ(card_dir_path(), std::getenv("CARD_DIR"));
        EXPECT_EQ(mode_of(card_dir_path()), 0700u);
        for (const char *folder : {"mts", "rpc", "rpc/names", "mem", "history", "scp"})
            EXPECT_EQ(mode_of(card_file(folder)), 0700u) << folder;
    });
}

TEST(card_dir, folders_that_exist_get_their_mode_and_a_link_in_place_of_one_is_left_alone)
{
    const card_dir folder, elsewhere;
    constexpr struct {
        const char *name;
        mode_t mode;
    } FOLDERS[] = {{"mts", 0755}, {"rpc", 0777}, {"rpc/names", 02770}, {"mem", 0500}, {"history", 0}};
    for (const auto &[name, mode] : FOLDERS)
        std::filesystem::create_directory(folder.path + "/" + name);
    for (const auto &[name, mode] : FOLDERS)
        chmod((folder.path + "/" + name).c_str(), mode);
    chmod(elsewhere.path.c_str(), 0755);
    std::filesystem::create_symlink(elsewhere.path, folder.path + "/scp");
    on_card(folder.path, [&] {
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(card_dir_path(), folder.path); }), "");
        for (const auto &[name, mode] : FOLDERS)
            EXPECT_EQ(mode_of(card_file(name)), 0700u) << name;
        EXPECT_EQ(mode_of(elsewhere.path), 0755u);
    });
}

TEST(card_dir, one_that_others_can_enter_is_refused_with_one_line)
{
    const card_dir folder;
    chmod(folder.path.c_str(), 0750);
    on_card(folder.path, [] {
        const std::string said = stderr_of([] {
            EXPECT_EQ(card_dir_path(), "");
            EXPECT_EQ(card_dir_path(), "");
            EXPECT_EQ(card_dir_bind(SOCK_DGRAM, "mts/514"), -1);
        });
        EXPECT_NE(said.find("0750"), std::string::npos) << said;
        EXPECT_EQ(said.find('\n'), said.size() - 1) << said;
    });
}

TEST(card_dir, one_of_another_user_is_refused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a folder away";
    const card_dir folder;
    ASSERT_EQ(chown(folder.path.c_str(), 12345, 12345), 0);
    on_card(folder.path, [] {
        const std::string said = stderr_of([] { EXPECT_EQ(card_dir_path(), ""); });
        EXPECT_NE(said.find("owned by uid 12345, not 0; refused"), std::string::npos) << said;
    });
}

TEST(card_dir, a_link_of_another_user_is_refused_and_an_own_one_taken)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a link away";
    const card_dir folder, above;
    const std::string link = above.path + "/card";
    std::filesystem::create_symlink(folder.path, link);
    on_card(link, [&] { EXPECT_EQ(card_dir_path(), link); });
    ASSERT_EQ(lchown(link.c_str(), 12345, 12345), 0); // who can point it elsewhere after the check
    on_card(link, [] {
        const std::string said = stderr_of([] { EXPECT_EQ(card_dir_path(), ""); });
        EXPECT_NE(said.find("is a link of uid 12345, not 0; refused"), std::string::npos) << said;
    });
}

TEST(card_dir, a_path_of_64_bytes_is_taken_and_one_more_refused)
{
    const card_dir above;
    const std::string fits = above.path + "/" + std::string(64 - above.path.size() - 1, 'x');
    on_card(fits, [&] { EXPECT_EQ(card_dir_path(), fits); });
    on_card(fits + "x", [] {
        const std::string said = stderr_of([] { EXPECT_EQ(card_dir_path(), ""); });
        EXPECT_NE(said.find("over 64 bytes"), std::string::npos) << said;
    });
    EXPECT_FALSE(std::filesystem::exists(fits + "x"));
}

TEST(card_dir, a_stale_socket_is_replaced_and_a_live_one_kept)
{
    const card_dir folder;
    on_card(folder.path, [] { EXPECT_GE(card_dir_bind(SOCK_DGRAM, "mts/600"), 0); });
    on_card(folder.path, [&] {
        EXPECT_EQ(card_dir_owner("mts/600"), card_owner::none) << "its process is gone";
        const int fd = card_dir_bind(SOCK_DGRAM, "mts/600");
        EXPECT_GE(fd, 0);
        EXPECT_EQ(card_dir_owner("mts/600"), card_owner::self);
        const auto inode = std::filesystem::hash_value(card_file("mts/600"));
        EXPECT_EQ(card_dir_bind(SOCK_DGRAM, "mts/600"), -1);
        EXPECT_EQ(inode, std::filesystem::hash_value(card_file("mts/600")));
        EXPECT_EQ(peer_send(card_file("mts/600"), "x"), 1) << "the first socket still receives";
        EXPECT_EQ(peer_receive(fd), "x");
    });
}

TEST(card_dir, a_folder_in_a_sockets_place_is_not_replaced)
{
    on_fresh_card([] {
        std::filesystem::create_directories(card_file("mts/602"));
        EXPECT_EQ(card_dir_bind(SOCK_DGRAM, "mts/602"), -1);
        EXPECT_EQ(errno, EISDIR);
        EXPECT_TRUE(std::filesystem::is_directory(card_file("mts/602")));
        EXPECT_EQ(card_dir_owner("mts/602"), card_owner::none) << "its lock is free again";
    });
}

TEST(card_dir, a_bind_that_fails_says_why_on_one_line)
{
    on_fresh_card([] {
        std::filesystem::create_directories(card_file("mts/514"));
        std::filesystem::create_directories(card_file("rpc/9"));
        const std::string card = std::string(program_invocation_short_name) + ": " + card_dir_path();
        EXPECT_EQ(stderr_of([] { EXPECT_EQ(mts_bind(4, 514, &OPTIONS, "test"), -1); }),
                  card + "/mts/514: Is a directory; not bound\n");
        EXPECT_EQ(stderr_of([] { EXPECT_EQ(tnrpc_serv_init(9), -1); }), card + "/rpc/9: Is a directory; not bound\n");
        EXPECT_GE(mts_bind(4, 515, &OPTIONS, "test"), 0);
        EXPECT_EQ(stderr_of([] { EXPECT_EQ(mts_bind(4, 515, &OPTIONS, "test"), -1); }),
                  card + "/mts/515: a live process holds its lock; not bound\n");
        EXPECT_EQ(stderr_of([] { EXPECT_EQ(mts_bind(4, 0, &OPTIONS, "test"), -1); }),
                  card + "/mts/0: Invalid argument; not bound\n");
        const std::string said = stderr_of([] {
            rlimit usual = {};
            (void)getrlimit(RLIMIT_NOFILE, &usual);
            const rlimit none = {0, usual.rlim_max};
            (void)setrlimit(RLIMIT_NOFILE, &none);
            EXPECT_EQ(mts_bind(4, 516, &OPTIONS, "test"), -1);
            EXPECT_EQ(tnrpc_serv_init(10), -1);
            (void)setrlimit(RLIMIT_NOFILE, &usual);
        });
        EXPECT_EQ(said, card + "/mts/516: Too many open files; not bound\n" + card +
                            "/rpc/10: Too many open files; not bound\n");
    });
}

TEST(card_dir, a_lock_that_is_freed_within_100_ms_is_waited_for)
{
    on_fresh_card([] {
        (void)card_dir_path();
        const int lock = open(card_file("rpc/9.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_EQ(flock(lock, LOCK_EX), 0);
        const pid_t holder = fork(); // shares the lock, and ends with it
        if (holder == 0) {
            const timespec held = {0, 20 * 1000000L};
            (void)nanosleep(&held, nullptr);
            _exit(0);
        }
        close(lock);
        EXPECT_GE(card_dir_bind(SOCK_SEQPACKET, "rpc/9"), 0);
        waitpid(holder, nullptr, 0);
    });
}

TEST(card_dir, another_live_process_keeps_its_socket_and_the_try_is_short)
{
    const card_dir folder;
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t owner = fork();
    if (owner == 0) {
        setenv("CARD_DIR", folder.path.c_str(), 1);
        const char bound = card_dir_bind(SOCK_SEQPACKET, "rpc/9") >= 0 ? 'y' : 'n';
        (void)!write(ready[1], &bound, 1);
        pause();
    }
    char bound = 0;
    ASSERT_EQ(read(ready[0], &bound, 1), 1);
    EXPECT_EQ(bound, 'y');
    on_card(folder.path, [] {
        timespec start = {}, end = {};
        clock_gettime(CLOCK_MONOTONIC, &start);
        EXPECT_EQ(card_dir_owner("rpc/9"), card_owner::other);
        EXPECT_EQ(card_dir_bind(SOCK_SEQPACKET, "rpc/9"), -1);
        clock_gettime(CLOCK_MONOTONIC, &end);
        const long ms = (end.tv_sec - start.tv_sec) * 1000 + (end.tv_nsec - start.tv_nsec) / 1000000;
        EXPECT_GE(ms, 95);
        EXPECT_LT(ms, 2000);
    });
    kill(owner, SIGKILL);
    waitpid(owner, nullptr, 0);
    on_card(folder.path,
            [] { EXPECT_GE(card_dir_bind(SOCK_SEQPACKET, "rpc/9"), 0) << "the lock went with its owner"; });
    close(ready[0]);
    close(ready[1]);
}

TEST(card_dir, sockets_locks_and_files_are_ours_alone_and_close_on_exec)
{
    on_fresh_card([] {
        umask(0);
        std::set<int> inherited; // whoever started the tests may have left some open
        for (int any = 3; any < 64; ++any)
            if (open_flags(any) >= 0)
                inherited.insert(any);
        const int fd = card_dir_bind(SOCK_DGRAM, "mts/601");
        bool made = false;
        const int file = card_dir_file("mem/ixp1", 4096, &made);
        EXPECT_EQ(mode_of(card_file("mts/601")), 0600u);
        EXPECT_EQ(mode_of(card_file("mts/601.lock")), 0600u);
        EXPECT_EQ(mode_of(card_file("mem/ixp1")), 0600u);
        for (int any = 3; any <= file; ++any)
            EXPECT_TRUE(inherited.count(any) != 0 || open_flags(any) < 0 || (open_flags(any) & FD_CLOEXEC) != 0)
                << "descriptor " << any;
        EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    });
}

TEST(card_dir, a_file_is_allocated_whole_kept_at_its_size_and_made_anew_at_another)
{
    on_fresh_card([] {
        bool made = false;
        const int fd = card_dir_file("mem/wired", 100000, &made);
        struct stat st = {};
        ASSERT_EQ(fstat(fd, &st), 0);
        EXPECT_TRUE(made);
        EXPECT_EQ(st.st_size, 100000);
        EXPECT_GE(st.st_blocks * 512, 100000) << "no holes";
        EXPECT_EQ(pwrite(fd, "kept", 4, 0), 4);

        EXPECT_GE(card_dir_file("mem/wired", 100000, &made), 0);
        EXPECT_FALSE(made);
        EXPECT_EQ(file_text(card_file("mem/wired")).substr(0, 4), "kept");

        EXPECT_GE(card_dir_file("mem/wired", 50000, &made), 0);
        EXPECT_TRUE(made);
        EXPECT_EQ(file_text(card_file("mem/wired")), std::string(50000, '\0'));
        ASSERT_EQ(fstat(fd, &st), 0);
        EXPECT_EQ(st.st_size, 100000) << "who has the old file open keeps it";
    });
}

TEST(card_dir, a_file_is_never_opened_through_a_link)
{
    on_fresh_card([] {
        file_write(card_dir_path() + "/elsewhere", "mine");
        std::filesystem::create_symlink("../elsewhere", card_file("mem/wired"));
        bool made = true;
        const std::string said = stderr_of([&] { EXPECT_EQ(card_dir_file("mem/wired", 4, &made), -1); });
        EXPECT_FALSE(made);
        EXPECT_NE(said, "");
        EXPECT_EQ(file_text(card_file("elsewhere")), "mine");
    });
}

TEST(card_dir, a_file_that_the_host_has_no_room_for_is_refused_and_leaves_nothing)
{
    on_fresh_card([] {
        bool made = true;
        (void)card_dir_path();
        const std::string said =
            stderr_of([&] { EXPECT_EQ(card_dir_file("mem/wired", std::size_t{1} << 50, &made), -1); });
        EXPECT_FALSE(made);
        EXPECT_NE(said.find("mem/wired"), std::string::npos) << said;
        EXPECT_TRUE(std::filesystem::is_empty(card_file("mem")));
    });
}

TEST(card_conf, the_defaults_stand_without_a_file)
{
    on_fresh_card([] {
        EXPECT_EQ(stderr_of([] { (void)card_conf_get(); }), "");
        EXPECT_EQ(card_conf_get().slot, 1u);
        EXPECT_EQ(card_conf_get().num_ixp, 2u);
        EXPECT_EQ(card_conf_get().wired_phys_base, 0x08000000u);
        EXPECT_EQ(card_conf_get().supervisor_address, 1u);
        EXPECT_EQ(card_conf_get().rpc_timeout_ms, 2000u);
        EXPECT_FALSE(card_conf_get().route_cache_kernel);
        EXPECT_FALSE(card_conf_get().ixp_is_provided[0] || card_conf_get().ixp_is_provided[1]);
    });
}

TEST(card_conf, a_link_is_not_followed)
{
    const card_dir folder;
    file_write(folder.path + "/elsewhere", "slot = 9\n");
    std::filesystem::create_symlink("elsewhere", folder.path + "/card.conf");
    on_card(folder.path, [] {
        const std::string said = stderr_of([] { (void)card_conf_get(); });
        EXPECT_EQ(card_conf_get().slot, 1u);
        EXPECT_NE(said.find("the defaults stand"), std::string::npos) << said;
    });
}

TEST(card_conf, every_key_is_read_decimal_or_hexadecimal)
{
    const std::string said =
        with_conf("# the card\nslot=7\n  num_ixp = 0x1 # one only\r\n\nwired_phys_base = 0xF0000000\n"
                  "supervisor_address = 255\nrpc_timeout_ms = 0500\nroute_cache = kernel\nixp1=file\nixp2 = provider",
                  [](const card_conf &c) {
                      EXPECT_EQ(c.slot, 7u);
                      EXPECT_EQ(c.num_ixp, 1u);
                      EXPECT_EQ(c.wired_phys_base, 0xF0000000u);
                      EXPECT_EQ(c.supervisor_address, 255u);
                      EXPECT_EQ(c.rpc_timeout_ms, 500u);
                      EXPECT_TRUE(c.route_cache_kernel);
                      EXPECT_FALSE(c.ixp_is_provided[0]);
                      EXPECT_TRUE(c.ixp_is_provided[1]);
                  });
    EXPECT_EQ(said, "");
}

TEST(card_conf, the_wired_region_may_begin_anywhere_on_a_page_that_leaves_it_room_below_4_gib)
{
    for (const std::uint32_t base : {0u, 0x1000u, 0xFEC00000u})
        EXPECT_EQ(with_conf("wired_phys_base = " + std::to_string(base) + "\n",
                            [base](const card_conf &c) { EXPECT_EQ(c.wired_phys_base, base); }),
                  "");
}

TEST(card_conf, a_bad_value_is_reported_with_its_line_and_changes_nothing)
{
    struct bad_line {
        const char *line;
    };
    for (const auto &[line] : std::initializer_list<bad_line>{{"slot = -1"},
                                                              {"slot = 0"},
                                                              {"slot ="},
                                                              {"slot"},
                                                              {"num_ixp = 3"},
                                                              {"num_ixp = two"},
                                                              {"supervisor_address = 256"},
                                                              {"wired_phys_base = 0x100000000"},
                                                              {"wired_phys_base = 0x"},
                                                              {"wired_phys_base = 0x08000001"},
                                                              {"wired_phys_base = 0x08000800"},
                                                              {"wired_phys_base = 0xFEC01000"},
                                                              {"rpc_timeout_ms = 0"},
                                                              {"rpc_timeout_ms = 10ms"},
                                                              {"rpc_timeout_ms = 99999999999999999999"},
                                                              {"route_cache = on"},
                                                              {"ixp1 = files"},
                                                              {"ixp2 = 1"},
                                                              {"ixp2 ="},
                                                              {"ixp3 = file"},
                                                              {"ixp = provider"},
                                                              {"colour = 1"},
                                                              {"Slot = 2"}}) {
        const std::string said = with_conf("\n# two\n" + std::string(line) + "\nslot = 4\n", [](const card_conf &c) {
            EXPECT_EQ(c.slot, 4u) << "the lines after it are read";
            EXPECT_EQ(c.num_ixp, 2u);
            EXPECT_EQ(c.wired_phys_base, 0x08000000u);
            EXPECT_EQ(c.supervisor_address, 1u);
            EXPECT_EQ(c.rpc_timeout_ms, 2000u);
            EXPECT_FALSE(c.route_cache_kernel);
            EXPECT_FALSE(c.ixp_is_provided[0] || c.ixp_is_provided[1]);
        });
        EXPECT_NE(said.find("line 3"), std::string::npos) << line << ": " << said;
        EXPECT_EQ(said.find('\n'), said.size() - 1) << line << ": " << said;
        EXPECT_NE(said.find("; nothing is changed"), std::string::npos) << line << ": " << said;
    }
    const std::string said =
        with_conf("slot = 7\nslot = no\nroute_cache = kernel\nroute_cache = on\nixp2 = provider\nixp2 = no\n",
                  [](const card_conf &c) {
                      EXPECT_EQ(c.slot, 7u) << "the value that stood";
                      EXPECT_TRUE(c.ixp_is_provided[1]);
                      EXPECT_TRUE(c.route_cache_kernel);
                  });
    EXPECT_EQ(said.find("default"), std::string::npos) << said;
}
