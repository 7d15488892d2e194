// fuzz_card.cpp - memory, stores and peers of the card that the fuzz targets work on.
//
// After the start a picture of every allocated block, of the tables and of the pools is kept; restoring copies it back
// and gives back what was allocated since. A block of the start that was freed is only set aside until then.
// Elsewhere: the services that the process calls, and the time (fuzz_peer.cpp).
#include "fuzz_card.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <unordered_map>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "card_dir.h"
#include "hw_store.h"
#include "mtrack.h"
#include "norvik_init.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "platform_mem.h"
#include "rib_check.h"
#include "rib_host.h"
#include "rib_nexthop_index.h"
#include "rib_table.h"
#include "route_advert.h"
#include "route_handler.h"
#include "route_ids.h"
#include "route_log.h"
#include "route_mts.h"
#include "route_rpc_client.h"
#include "route_rpc_serv.h"
#include "scp.h"
#include "sdwrap.h"

namespace
{
constexpr std::uint32_t WIRED_BYTES = 0x104000, PHYS_BASE = 0x08000000;
constexpr unsigned OWN_SAP = 600;

struct block {
    std::uint32_t type;
    std::size_t bytes;
    bool from_start = false;
    bool set_aside = false; // freed, but of the start
    std::vector<std::byte> picture;
};
struct table {
    card_addr addr = 0;
    std::size_t bytes = 0;
    std::vector<std::byte> picture;
    std::vector<bool> dirty; // pages stored to since the last restore
};
constexpr std::size_t PAGE = 4096;

std::unordered_map<void *, block> blocks;
std::array<table, 3> tables;
std::array<mtrie_pool, 3> pools_at_start;
std::array<card_ptr<mtrie_leaf>, ROUTE_CONTEXTS> defaults_at_start;
std::array<rib_occupancy, ROUTE_CONTEXTS> occupied_at_start; // which chains hold routes
sdwrap_gate_table gates_at_start;
syslog_facility facility = {"ROUTE Mgr", 1984, 2, 2};
std::array<mtrack_type_stats, MTRACK_MAX_TYPES> type_stats;
unsigned type_count = 0;
unsigned fail_countdown = 0;
bool changed = false; // since the last audit
bool drifted = false; // since the last restore

void touch() { changed = drifted = true; }

// The pages of a run of words that was stored.
void touch_words(const std::uint32_t *words, std::size_t count)
{
    touch();
    const card_addr from = card_addr_of(words), to = from + static_cast<card_addr>(4 * count) - 1;
    for (table &t : tables)
        if (count > 0 && from >= t.addr && from < t.addr + t.bytes)
            for (std::size_t page = (from - t.addr) / PAGE; page <= (to - t.addr) / PAGE; ++page)
                t.dirty[page] = true;
}

card_addr map_table(std::size_t index, std::size_t bytes)
{
    tables[index] = {card_space_map(-1, bytes), bytes, {}, std::vector<bool>((bytes + PAGE - 1) / PAGE)};
    return tables[index].addr;
}

void restore_table(table &t)
{
    for (std::size_t page = 0; page < t.dirty.size(); ++page)
        if (t.dirty[page])
            std::memcpy(card_at<std::byte>(t.addr) + page * PAGE, t.picture.data() + page * PAGE,
                        std::min(PAGE, t.bytes - page * PAGE));
    t.dirty.assign(t.dirty.size(), false);
}

std::string &directory()
{
    static auto *const path = new std::string;
    return *path;
}

void remove_directory()
{
    std::error_code ignored;
    std::filesystem::remove_all(directory(), ignored);
}

sockaddr_un address_of(const char *name)
{
    sockaddr_un address;
    if (card_dir_address(name, &address) != 0)
        fuzz_fail(name);
    return address;
}

// Eight interfaces, 1 to 8: the last down, the one before without an address, the one before that not routed.
void write_interfaces()
{
    std::vector<std::uint32_t> words(16 + 8192 * 8);
    const std::uint32_t header[] = {0x49464442, 1, 32, 8192};
    std::copy(std::begin(header), std::end(header), words.begin());
    for (std::uint32_t i = 1; i <= 8; ++i) {
        const std::uint32_t flags = (i == 8 ? 0x01u : 0x03u) | (i == 7 ? 0u : 0x04u) | 0x18u;
        const std::uint32_t record[] = {2,          flags, i == 6 ? 2u : 1u, 5, 0x0A000001u | i << 16,
                                        0xFFFFFF00, i % 4, i + 100};
        std::copy(std::begin(record), std::end(record), words.begin() + 16 + 8 * i);
    }
    std::ofstream(fuzz_card_file("interfaces"), std::ios::binary)
        .write(reinterpret_cast<const char *>(words.data()), static_cast<std::streamsize>(words.size() * 4));
}

void make_directory()
{
    const char *const parent = std::getenv("TMPDIR");
    directory() = std::string(parent != nullptr ? parent : "/tmp") + "/fuzz.XXXXXX";
    if (mkdtemp(directory().data()) == nullptr || setenv("CARD_DIR", directory().c_str(), 1) != 0)
        fuzz_fail("no card directory");
    std::atexit(remove_directory);
    std::ofstream(fuzz_card_file("card.conf")) << "rpc_timeout_ms = 20\n";
    write_interfaces();
}

void open_services()
{
    static const char *const types[MTRACK_ROUTE_ENTRY_MAX] = {"table", "tree",  "mgr", "trees", "pool",   "d1",
                                                              "d2",    "route", "fib", "host",  "static", "nat"};
    static const char *const categories[ROUTE_DBG_COUNT] = {"100", "101", "102", "103", "104", "105",
                                                            "106", "107", "108", "109", "110", "111"};
    const mts_bind_options options = {{1, 0, 1024, 0, 0}};
    (void)norvik_route_tnrpc_serv();
    (void)norvik_route_tnrpc_client();
    route_mts_q = mts_bind(4, ROUTE_MGR_SAP, &options, "Route Manager");
    sdwrap_sys_facility = &facility;
    scphandle = scp_init(4, route_mts_q);
    if (rpcfd < 0 || route_mts_q < 0 || scphandle == 0 ||
        sdwrap_dbg_init(route_mts_q, "ROUTE Mgr", "ROUTE Mgr", ROUTE_DBG_COUNT, categories, 0, 0, 0) != 0)
        fuzz_fail("services");
    (void)mtrack_init("ROUTE Manager", ROUTE_MGR_UUID, types, MTRACK_ROUTE_ENTRY_MAX);
    (void)sdwrap_hist_init_for_uuid(ROUTE_HIST_ID, 0x10000);
    (void)sdwrap_hist_set_event_subtype(ROUTE_HIST_EVENT, 0, 1); // every category, so that all lines are formatted
}

void start_tables()
{
    if (mtrie_pool_init() != 0 || norvik_init_ixp_fib() != 0)
        fuzz_fail("tables");
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        if (route_add_rib_and_mtrie_entry(RIB_F_MCAST_DROP, 0x8001, RIB_OBJ_MCAST_DROP, 0xE0000000, 3, 0, ctx) ==
            nullptr)
            fuzz_fail("drop entries");
}

void take_picture()
{
    for (auto &[at, b] : blocks) {
        b.from_start = true;
        const auto *bytes = static_cast<const std::byte *>(at);
        b.picture.assign(bytes, bytes + b.bytes);
    }
    for (table &t : tables) {
        const auto *bytes = card_at<std::byte>(t.addr);
        t.picture.assign(bytes, bytes + t.bytes);
    }
    std::copy(std::begin(mtrie_pools), std::end(mtrie_pools), pools_at_start.begin());
    std::copy(std::begin(rib_occupied), std::end(rib_occupied), occupied_at_start.begin());
    std::copy(std::begin(norvik_leaf_default), std::end(norvik_leaf_default), defaults_at_start.begin());
    gates_at_start = sdwrap_gates;
}

void check_context(std::uint32_t ctx)
{
    if (rib_check(ctx) != 0)
        fuzz_fail("audit of the routes");
    if (mtrie_check(mtrie_get_root_node(ctx), nullptr) != 0)
        fuzz_fail("audit of the trees");
}

bool waits()
{
    pollfd set[2] = {{route_mts_q, POLLIN, 0}, {rpcfd, POLLIN, 0}};
    return poll(set, 2, 0) > 0;
}
} // namespace

std::string fuzz_card_file(const char *name) { return directory() + "/" + name; }

void fuzz_card_boot()
{
    if (!directory().empty())
        return;
    make_directory();
    open_services();
    fuzz_peer_open();
    start_tables();
    fuzz_card_check_all();
    take_picture();
    for (table &t : tables)
        t.dirty.assign(t.dirty.size(), false);
    drifted = false;
}

void fuzz_card_check()
{
    if (!changed)
        return;
    changed = false;
    if (mtrie_pool_check() != 0)
        fuzz_fail("audit of the pools");
    for (const std::uint32_t ctx : {0u, 1u, 2u, 3u, ROUTE_CONTEXTS - 1})
        check_context(ctx);
}

void fuzz_card_check_all()
{
    if (!drifted)
        return;
    if (mtrie_pool_check() != 0)
        fuzz_fail("audit of the pools");
    if (mtrie_hw_check() != 0)
        fuzz_fail("audit of the copies");
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        check_context(ctx);
}

void fuzz_card_restore()
{
    fail_countdown = 0;
    sdwrap_gates = gates_at_start;
    facility.level = facility.default_level;
    if (!drifted)
        return;
    for (auto it = blocks.begin(); it != blocks.end();) {
        block &b = it->second;
        if (b.from_start) {
            b.set_aside = false;
            if (b.type != MTRACK_ROUTE_TABLE) // those that nobody refers to
                std::memcpy(it->first, b.picture.data(), b.bytes);
            ++it;
        } else {
            card_heap_free(it->first, b.bytes);
            it = blocks.erase(it);
        }
    }
    for (table &t : tables)
        restore_table(t);
    std::copy(pools_at_start.begin(), pools_at_start.end(), std::begin(mtrie_pools));
    std::copy(defaults_at_start.begin(), defaults_at_start.end(), std::begin(norvik_leaf_default));
    std::copy(occupied_at_start.begin(), occupied_at_start.end(), std::begin(rib_occupied));
    rib_nexthop_index_routes.clear(); // there is no static route at the start
    changed = drifted = false;
}

void fuzz_card_fail_alloc(unsigned nth) { fail_countdown = nth; }

void fuzz_card_serve()
{
    pollfd set[2] = {{route_mts_q, POLLIN, 0}, {rpcfd, POLLIN, 0}};
    while (waits())
        norvik_route_handler_pass(set);
}

int fuzz_bound(int type, const char *name)
{
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address = address_of(name);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fuzz_fail(name);
    return fd;
}

int fuzz_connect()
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const sockaddr_un address = address_of("rpc/9");
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fuzz_fail("connect");
    return fd;
}

int fuzz_queue() { return fuzz_bound(SOCK_DGRAM, ("mts/" + std::to_string(OWN_SAP)).c_str()); }

void fuzz_send_message(int queue, const std::uint8_t *bytes, std::size_t length)
{
    const sockaddr_un address = address_of("mts/514");
    (void)sendto(queue, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address),
                 sizeof address);
}

// --- Memory tracking, table memories and stores, in place of the host's.

int mtrack_init(const char *, std::uint32_t, const char *const *type_names, unsigned count)
{
    for (unsigned i = 0; i < count; ++i)
        type_stats[i].name = type_names[i];
    type_count = count;
    return 0;
}

void *mtrack_alloc(std::uint32_t, std::uint32_t type, std::size_t size)
{
    touch();
    if (type >= MTRACK_MAX_TYPES || (fail_countdown > 0 && --fail_countdown == 0))
        return nullptr;
    void *const at = card_heap_alloc(size);
    if (at != nullptr)
        blocks[at] = {type, size, false, false, {}};
    return at;
}

void mtrack_free(void *at)
{
    if (at == nullptr)
        return;
    touch();
    const auto it = blocks.find(at);
    if (it == blocks.end() || it->second.set_aside)
        fuzz_fail("freed a block that is not allocated");
    if (it->second.from_start) {
        it->second.set_aside = true;
        return;
    }
    card_heap_free(at, it->second.bytes);
    blocks.erase(it);
}

void mtrack_freeze() {} // no target ends by a signal that the process handles

unsigned mtrack_type_count() { return type_count; }

mtrack_type_stats mtrack_stats(unsigned type) { return type_stats[type]; }

int syscall_open() { return open("/dev/null", O_RDWR | O_CLOEXEC); }
int syscall_close(int descriptor) { return close(descriptor); }

int norvik_get_wired_info(int, wired_info *info)
{
    *info = {PHYS_BASE, WIRED_BYTES};
    return 0;
}

card_addr map_wired_route(int) { return map_table(0, WIRED_BYTES); }

void unmap_wired_route(int, card_addr) {}

card_addr map_pci_xram_to_uspace(std::uint32_t, std::uint32_t bytes, std::uint32_t processor)
{
    return processor > 1 ? 0 : map_table(1 + processor, bytes);
}

void unmap_pci_xram_to_uspace(card_addr, std::uint32_t) {}
unsigned platform_get_num_ixp() { return 2; }
int tn_flush_rt_cache(int) { return 0; }

void platform_store32(std::uint32_t *word, std::uint32_t value)
{
    touch_words(word, 1);
    *word = value;
}

void platform_fill32(std::uint32_t *words, std::uint32_t value, std::size_t count)
{
    touch_words(words, count);
    std::fill_n(words, count, value);
}

void platform_copy32(std::uint32_t *to, const std::uint32_t *from, std::size_t count)
{
    touch_words(to, count);
    std::copy_n(from, count, to);
}
