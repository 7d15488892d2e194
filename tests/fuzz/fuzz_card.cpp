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
#include <numeric>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "card_bytes.h"
#include "card_dir.h"
#include "fuzz_memory.h"
#include "mtrack.h"
#include "norvik_init.h"
#include "norvik_mtrie_check.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "norvik_mtrie_pool.h"
#include "norvik_mtrie_slot.h"
#include "prefix_mgr.h"
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

using namespace harness;

namespace
{
constexpr unsigned OWN_SAP = 600;
constexpr std::uint32_t MCAST = 0xE0000000, MCAST_LEN = 3; // the drop entry of every context

std::array<mtrie_pool, 3> pools_at_start;
std::array<card_ptr<mtrie_leaf>, ROUTE_CONTEXTS> defaults_at_start;
std::array<rib_occupancy, ROUTE_CONTEXTS> occupied_at_start; // which chains hold routes
sdwrap_gate_table gates_at_start;
syslog_facility facility = {"ROUTE Mgr", 1984, 2, 2};
unsigned full_every = 256; // inputs: how often everything is audited and compared, not what was touched alone
unsigned inputs = 0;

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
    std::vector<harness::interface_record> all;
    for (std::uint32_t i = 1; i <= 8; ++i) {
        const std::uint32_t lacks = i == 8 ? harness::IF_UP : i == 7 ? harness::IF_ADDRESS : 0;
        all.push_back({i, (harness::IF_USUAL | harness::IF_VLAN) & ~lacks, i == 6 ? 2u : 1u, 5, 0x0A000001u | i << 16,
                       0xFFFFFF00, i % 4, i + 100});
    }
    std::ofstream(fuzz_card_file("interfaces"), std::ios::binary) << harness::interfaces_image(all);
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
        if (route_add_rib_and_mtrie_entry(RIB_F_MCAST_DROP, 0x8001, RIB_OBJ_MCAST_DROP, MCAST, MCAST_LEN, 0, ctx) ==
            nullptr)
            fuzz_fail("drop entries");
}

const void *wired_at(std::uint32_t offset) { return card_at<const void>(va_wired_base + offset); }

// What tells of a leaf of the start: its record, and its words in the wired copy.
void leaf_belongs(std::uint32_t ctx, const mtrie_leaf *leaf)
{
    fuzz_memory_belongs(ctx, leaf, sizeof *leaf);
    fuzz_memory_belongs(ctx, wired_at(mtrie_slot_of(leaf)), HW_LEAF_BYTES);
}

// Every change of a context's routes or of its tree shows in one of these: what else they hold hangs off them.
void parts_belong(std::uint32_t ctx)
{
    const mtrie_node *const root = mtrie_get_root_node(ctx);
    fuzz_memory_belongs(ctx, norvik_get_t(ctx), sizeof(prefix_tree));
    fuzz_memory_belongs(ctx, rib_chain_entry(ctx, MCAST, MCAST_LEN), sizeof(route_entry));
    fuzz_memory_belongs(ctx, root, sizeof *root);
    fuzz_memory_belongs(ctx, wired_at(4 * ctx), 4);
    fuzz_memory_belongs(ctx, wired_at(mtrie_slot_of(root)), HW_NODE_BYTES);
    leaf_belongs(ctx, norvik_leaf_default[ctx]);
    leaf_belongs(ctx, mtrie_leaf_of(root->children[MCAST >> 24]));
}

void take_picture()
{
    fuzz_memory_take_picture();
    for (std::uint32_t ctx = 0; ctx < ROUTE_CONTEXTS; ++ctx)
        parts_belong(ctx);
    std::copy(std::begin(mtrie_pools), std::end(mtrie_pools), pools_at_start.begin());
    std::copy(std::begin(rib_occupied), std::end(rib_occupied), occupied_at_start.begin());
    std::copy(std::begin(norvik_leaf_default), std::end(norvik_leaf_default), defaults_at_start.begin());
    gates_at_start = sdwrap_gates;
}

void check(bool is_in_order, const char *what)
{
    if (!is_in_order)
        fuzz_fail(what);
}

void check_contexts(const std::vector<std::uint32_t> &contexts)
{
    for (const std::uint32_t ctx : contexts) {
        check(rib_check(ctx) == 0, "audit of the routes");
        check(mtrie_check(mtrie_get_root_node(ctx), nullptr) == 0, "audit of the trees");
    }
}

// Everything, whatever was touched.
void check_whole_card()
{
    static const std::vector<std::uint32_t> all = [] {
        std::vector<std::uint32_t> contexts(ROUTE_CONTEXTS);
        std::iota(contexts.begin(), contexts.end(), 0);
        return contexts;
    }();
    check_contexts(all);
    check(mtrie_pool_check() == 0, "audit of the pools");
    check(mtrie_hw_check() == 0, "audit of the copies");
}

// The contexts that were touched and the table pages that were stored to.
void check_what_was_touched()
{
    const std::vector<std::uint32_t> &contexts = fuzz_memory_changed_contexts();
    check_contexts(contexts);
    check(mtrie_pool_check() == 0, "audit of the pools");
    for (const std::uint32_t ctx : contexts)
        check(mtrie_hw_check_tree(ctx) == 0, "audit of the wired copy");
    for (const std::uint32_t at : fuzz_memory_table_pages())
        check(mtrie_hw_check_copies(at, at + FUZZ_PAGE_BYTES) == 0, "audit of the copies");
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
    check_whole_card();
    take_picture();
    if (const char *const every = std::getenv("FUZZ_FULL_EVERY"))
        full_every = static_cast<unsigned>(std::max(std::atoi(every), 1));
}

void fuzz_card_check()
{
    if (fuzz_memory_take_activity())
        check_contexts(fuzz_memory_changed_contexts());
}

void fuzz_card_check_all()
{
    if (fuzz_memory_is_dirty())
        check_what_was_touched();
    if (++inputs % full_every == 0)
        check_whole_card();
}

void fuzz_card_restore()
{
    sdwrap_gates = gates_at_start;
    facility.level = facility.default_level;
    if (fuzz_memory_is_dirty()) {
        fuzz_memory_restore();
        std::copy(pools_at_start.begin(), pools_at_start.end(), std::begin(mtrie_pools));
        std::copy(defaults_at_start.begin(), defaults_at_start.end(), std::begin(norvik_leaf_default));
        std::copy(occupied_at_start.begin(), occupied_at_start.end(), std::begin(rib_occupied));
        rib_nexthop_index_routes.clear(); // there is no static route at the start
    }
    if (inputs % full_every == 0)
        check(!fuzz_memory_differs(), "what was put back is not the start");
}

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
