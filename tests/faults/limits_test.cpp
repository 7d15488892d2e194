// limits_test.cpp - the daemon on a host that has run out: of descriptors, of room for a file, of a disk.
//
// What holds in all: start-up fails in words and with status 255, or the daemon serves; nothing half made is left; the
// next start on a host that has room again serves.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "card_peers.h"
#include "daemon.h"
#include "tables.h"

using namespace harness;

namespace
{
constexpr unsigned long WIRED_BYTES = 0x1400000, IXP_BYTES = 0x103400, HISTORY_BYTES = 0x10000 + 64;

enum class outcome { served, refused, wrong };

// Starts a daemon under limits. One that serves is ended by a signal.
outcome try_start(const card_dir &card, const daemon_limits &limits, std::string &said)
{
    const history before = history_read(card);
    daemon_process daemon(card, "limited", limits);
    const bool serves = daemon_notification(daemon) == "READY=1";
    if (serves)
        daemon_signal(daemon, SIGINT);
    const int status = daemon_exit_status(daemon);
    const history after = history_read(card);
    said = file_text(daemon.err);
    if (after.valid && after.head > before.head && !after.records.empty())
        said += after.records.back().text();
    if (serves)
        return status == 1 ? outcome::served : outcome::wrong;
    return status == 255 && !said.empty() ? outcome::refused : outcome::wrong;
}

void expect_service(const card_dir &card)
{
    const mts_queue manager(card, 600);
    const arp_service arp(card);
    interface_database(card);
    const daemon_process again(card, "again");
    ASSERT_EQ(daemon_notification(again), "READY=1") << file_text(again.err);
    EXPECT_EQ(table_difference(memory_words(card, "mem/wired"), table_at_start(TABLE_WIRED).words), "");
    EXPECT_EQ(daemon_trouble(card, manager, arp), "");
}

bool has_half_made_file(const card_dir &card)
{
    for (const char *folder : {"mem", "history"})
        if (std::filesystem::exists(card.at(folder)))
            for (const auto &entry : std::filesystem::directory_iterator(card.at(folder)))
                if (entry.path().extension() == ".new")
                    return true;
    return false;
}

// A disk of its own under a card directory, seen by this process and its children alone.
struct small_disk {
    std::string path;
    bool is_mounted = false;
    small_disk(const card_dir &card, unsigned long bytes) : path(card.path)
    {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return;
        const std::string options = "mode=0700,size=" + std::to_string(bytes);
        is_mounted = ::mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) == 0;
    }
    ~small_disk()
    {
        if (is_mounted)
            ::umount2(path.c_str(), MNT_DETACH);
    }
    small_disk(const small_disk &) = delete;
    small_disk &operator=(const small_disk &) = delete;
    // Writes until nothing more fits.
    void fill() const
    {
        const int fd = ::open((path + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::string page(4096, 'x');
        while (::write(fd, page.data(), page.size()) > 0) {
        }
        ::close(fd);
    }
};
} // namespace

TEST(limits, with_few_descriptors_start_up_fails_in_words_or_the_daemon_serves)
{
    const card_dir card;
    unsigned served = 0, refused = 0;
    std::string said;
    for (unsigned descriptors = 4; descriptors <= 26; ++descriptors) {
        SCOPED_TRACE(std::to_string(descriptors) + " descriptors");
        const outcome result = try_start(card, {descriptors, 0, "", 0}, said);
        // The sanitizer opens a pipe to see whether an object is there, and takes having none left for no object.
        // The loader of the program's libraries needs one, too, before there is a daemon.
        if (said.find("invalid vptr") != std::string::npos || said.find("shared libraries") != std::string::npos)
            continue;
        // Descriptors that the test was itself started with may leave too few to load the program at all.
        if (said.find("error while loading shared libraries") != std::string::npos)
            continue;
        ASSERT_NE(result, outcome::wrong) << said;
        ++(result == outcome::served ? served : refused);
        EXPECT_FALSE(has_half_made_file(card));
    }
    EXPECT_GT(served, 0u);
    EXPECT_GT(refused, 0u);
    expect_service(card);
    std::printf("%u starts with too few descriptors refused, %u served\n", refused, served);
}

TEST(limits, callers_beyond_the_descriptors_wait_and_are_served_when_others_have_gone)
{
    const card_dir card;
    const daemon_process daemon(card, "limited", {24, 0, "", 0});
    ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
    const byte_string call = rpc_record(5, "rib_max_ecmp_route", {arg16(0), arg32(0), arg32(0), arg32(0)});
    std::vector<int> callers;
    for (unsigned i = 0; i < 40; ++i) {
        callers.push_back(rpc_connect(card, "rpc/9"));
        ASSERT_GE(callers.back(), 0);
        rpc_send(callers.back(), call);
    }
    // Each gives its descriptor back once it has its answer; the listener looks again.
    for (const int caller : callers) {
        EXPECT_TRUE(rpc_receive(caller).arrived);
        ::close(caller);
    }
}

TEST(limits, a_file_that_may_not_grow_is_refused_at_the_start_and_the_next_start_serves)
{
    const unsigned long lengths[] = {1000, HISTORY_BYTES, IXP_BYTES, WIRED_BYTES - 1, WIRED_BYTES};
    for (const unsigned long length : lengths) {
        SCOPED_TRACE(std::to_string(length) + " bytes a file");
        const card_dir card;
        std::string said;
        const outcome result = try_start(card, {0, length, "", 0}, said);
        EXPECT_EQ(result, length < WIRED_BYTES ? outcome::refused : outcome::served) << said;
        if (length < WIRED_BYTES) {
            EXPECT_NE(said.find("mem/wired"), std::string::npos) << said;
        }
        EXPECT_FALSE(has_half_made_file(card));
        EXPECT_FALSE(length < WIRED_BYTES && path_exists(card.at("mem/wired")));
        // The history is there first, and says what failed.
        EXPECT_EQ(history_has(history_read(card), 100, "<Ctx:0>main: mtrie_pool_init failed\n"),
                  length >= HISTORY_BYTES && length < WIRED_BYTES);
        expect_service(card);
    }
}

TEST(limits, without_room_for_the_cards_address_space_start_up_fails_in_words)
{
    const card_dir card;
    for (const unsigned long gib_quarters : {1ul, 16ul, 34ul, 40ul}) { // twice 4 GiB are reserved at first
        SCOPED_TRACE(std::to_string(gib_quarters) + " quarters of a GiB");
        std::string said;
        const outcome result = try_start(card, {0, 0, "", gib_quarters << 28}, said);
        if (said.find("Sanitizer") != std::string::npos)
            GTEST_SKIP() << "the sanitizer needs more than that for itself";
        EXPECT_EQ(result, gib_quarters < 32 ? outcome::refused : outcome::served) << said;
        if (gib_quarters < 32) {
            EXPECT_TRUE(history_has(history_read(card), 100, "<Ctx:0>main: mtrie_pool_init failed\n"));
        }
    }
    expect_service(card);
}

TEST(limits, a_disk_without_room_is_refused_at_the_start_and_one_that_fills_later_harms_nothing)
{
    const card_dir card, output;
    {
        const small_disk disk(card, 0x20000);
        if (!disk.is_mounted)
            GTEST_SKIP() << "the host lets nobody mount a disk here";
        std::string said;
        EXPECT_EQ(try_start(card, {0, 0, output.path, 0}, said), outcome::refused);
        EXPECT_TRUE(history_has(history_read(card), 100, "<Ctx:0>main: mtrie_pool_init failed\n"));
        EXPECT_FALSE(has_half_made_file(card));
    }
    const small_disk disk(card, 24 << 20);
    ASSERT_TRUE(disk.is_mounted);
    const mts_queue manager(card, 600);
    const arp_service arp(card);
    interface_database(card);
    {
        daemon_process daemon(card, "filled", {0, 0, output.path, 0});
        ASSERT_EQ(daemon_notification(daemon), "READY=1") << file_text(daemon.err);
        disk.fill();
        for (unsigned i = 0; i < 20; ++i)
            ASSERT_EQ(daemon_trouble(card, manager, arp), "");
        EXPECT_TRUE(history_read(card).valid);
        daemon_signal(daemon, SIGKILL);
        EXPECT_EQ(daemon_exit_status(daemon), 1000 + SIGKILL);
    }
    const daemon_process again(card, "again", {0, 0, output.path, 0}); // all that it needs is there already
    ASSERT_EQ(daemon_notification(again), "READY=1") << file_text(again.err);
    EXPECT_EQ(daemon_trouble(card, manager, arp), "");
}
