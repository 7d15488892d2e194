// route_example.cpp - a small stand-in for the card's other processes: it gives the route manager an example and checks
// what the network processors would then read.
//
// It plays the interface manager (writes the database), the service manager (waits for READY=1), the ARP service
// (answers tn_arp_add_entry from a child process) and a caller with two hosts and a static route over both. Then it
// walks the three copies of the table, prints each answer and compares it with the expected one.
//
//   route_example                  the example, on the daemon that is started with $NOTIFY_SOCKET = $CARD_DIR/notify
//                                  after the line "waiting for the route manager"; exit status 0 when all was right
//   route_example history [lines]  the last lines of the event history, without the searches of the RIB

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "card_dir.h"
#include "history_view.h"
#include "hw_table.h"
#include "mtrie_records.h"
#include "mts.h"
#include "route_ids.h"
#include "table_view.h"
#include "tnrpc.h"

namespace
{
constexpr int READY_WAIT_MS = 30000, ANSWER_WAIT_MS = 5000;
constexpr std::uint32_t ARP_ENDPOINT = 10, TOOL_SAP = 1024, MTS_MODE = 4;
constexpr std::uint32_t OBJ_ARP_HOST = 1, HOST_LEN = 32;
constexpr std::uint32_t DROP_ENCAP = 0x8001; // adjacency of the multicast drop entry

constexpr std::uint32_t ip(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d)
{
    return a << 24 | b << 16 | c << 8 | d;
}

struct example_interface {
    std::uint32_t ifid, address, mask;
};
struct example_host {
    std::uint32_t address, ifid, encap;
};
constexpr std::uint32_t CONTEXT = 3, OTHER_CONTEXT = 4;
constexpr example_interface INTERFACES[] = {{5, ip(10, 1, 1, 1), ip(255, 255, 255, 0)},
                                            {6, ip(10, 1, 2, 1), ip(255, 255, 255, 0)}};
constexpr example_host HOSTS[] = {{ip(10, 1, 1, 2), 5, 0x1001}, {ip(10, 1, 2, 2), 6, 0x1002}};
constexpr std::uint32_t ROUTE = ip(10, 20, 0, 0), ROUTE_MASK = ip(255, 255, 0, 0);

// What every copy has to answer.
struct expected_answer {
    const char *what;
    std::uint32_t tree, address, adjacency;
    bool has_block;
    std::uint32_t block[2]; // header and first entry, when it has one
};
constexpr expected_answer EXPECTED[] = {
    {"first ARP host", CONTEXT, HOSTS[0].address, adj_pack(0, 5, 0x1001), false, {}},
    {"second ARP host", CONTEXT, HOSTS[1].address, adj_pack(0, 6, 0x1002), false, {}},
    {"static route, two paths",
     CONTEXT,
     ip(10, 20, 30, 40),
     adj_pack(ADJ_ECMP, 5, 0x1001),
     true,
     {ecmp_header(1, 1), ecmp_entry(6, 0x1002)}},
    {"no route", CONTEXT, ip(10, 21, 0, 1), 0, false, {}},
    {"multicast drop", CONTEXT, ip(224, 0, 0, 5), adj_pack(0, 0, DROP_ENCAP), false, {}},
    {"another context", OTHER_CONTEXT, ip(10, 20, 30, 40), 0, false, {}},
};

std::string dotted(std::uint32_t address)
{
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xFF) + "." +
           std::to_string(address >> 8 & 0xFF) + "." + std::to_string(address & 0xFF);
}

int complain(const char *what)
{
    std::fprintf(stderr, "route_example: %s: %s\n", what, std::strerror(errno));
    return -1;
}

// The interface database, whole, before the daemon can look for it.
int interfaces_write()
{
    constexpr std::size_t HEADER_WORDS = 16, RECORD_WORDS = 8, RECORDS = 8192;
    constexpr std::uint32_t EXISTS = 1, UP = 2, HAS_ADDRESS = 4, HAS_CONTEXT = 8, ROUTED = 1;
    std::vector<std::uint32_t> image(HEADER_WORDS + RECORDS * RECORD_WORDS);
    image[0] = 0x49464442; // "IFDB"
    image[1] = 1;          // version
    image[2] = RECORD_WORDS * 4;
    image[3] = RECORDS;
    for (const example_interface &i : INTERFACES) {
        std::uint32_t *record = &image[HEADER_WORDS + i.ifid * RECORD_WORDS];
        record[1] = EXISTS | UP | HAS_ADDRESS | HAS_CONTEXT;
        record[2] = ROUTED;
        record[4] = i.address;
        record[5] = i.mask;
        record[6] = CONTEXT;
    }
    const std::string path = card_dir_path() + "/interfaces";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const ssize_t bytes = static_cast<ssize_t>(image.size() * 4);
    const bool written = fd >= 0 && write(fd, image.data(), image.size() * 4) == bytes;
    if (fd >= 0)
        close(fd);
    return written ? 0 : complain(path.c_str());
}

bool wait_readable(int fd, int limit_ms)
{
    pollfd p{fd, POLLIN, 0};
    int n = 0;
    do
        n = poll(&p, 1, limit_ms);
    while (n < 0 && errno == EINTR);
    return n == 1;
}

// The socket to which the daemon reports. Returns its descriptor or -1.
int notify_open()
{
    sockaddr_un address;
    if (card_dir_address("notify", &address) != 0)
        return -1;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    unlink(address.sun_path);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return complain("notify");
    return fd;
}

int ready_wait(int notify)
{
    char text[64] = {};
    if (!wait_readable(notify, READY_WAIT_MS) || recv(notify, text, sizeof text - 1, 0) < 0 ||
        std::strcmp(text, "READY=1") != 0) {
        std::fprintf(stderr, "route_example: the route manager did not report READY=1 but \"%s\"\n", text);
        return -1;
    }
    std::printf("route manager: %s\n\n", text);
    return 0;
}

unsigned resolutions_asked; // in the ARP service's process

// The ARP service: counts and says what it is asked. args: context, interface, gateway, gateway, 2, sense.
std::uint32_t tn_arp_add_entry(const tnrpc_arg *args)
{
    resolutions_asked += args[5].value;
    std::printf("  ARP service: context %u: %s %s (interface %u)\n", args[0].value,
                args[5].value != 0 ? "resolve" : "give up", dotted(args[2].value).c_str(), args[1].value);
    std::fflush(stdout);
    return 0;
}

// In the child: serves until the other end of `life` is closed. Its exit status is 0 when each path of the route was
// asked for once.
[[noreturn]] void arp_service_run(int life, int started)
{
    const int server = tnrpc_serv_init(ARP_ENDPOINT);
    if (server < 0 || tnrpc_register("tn_arp_add_entry", tn_arp_add_entry, 6, RPC_ARG_U16, RPC_ARG_U32, RPC_ARG_U32,
                                     RPC_ARG_U32, RPC_ARG_SMALL, RPC_ARG_SMALL) != 0)
        _exit(1);
    if (write(started, "", 1) != 1)
        _exit(1);
    pollfd set[] = {{server, POLLIN, 0}, {life, POLLIN, 0}};
    while (poll(set, 2, -1) >= 0 || errno == EINTR) {
        if ((set[0].revents & POLLIN) != 0)
            (void)tnrpc_process(server); // a connection that ends is an event too
        if (set[1].revents != 0)
            break;
    }
    (void)tnrpc_unregister("tn_arp_add_entry"); // it is ours: nothing can be in the way
    _exit(resolutions_asked == std::size(HOSTS) ? 0 : 1);
}

struct arp_service {
    pid_t pid;
    int life; // closed to end it
};

int arp_service_start(arp_service *service)
{
    int life[2], started[2];
    if (pipe2(life, O_CLOEXEC) != 0 || pipe2(started, O_CLOEXEC) != 0)
        return complain("pipe");
    std::fflush(stdout);
    service->pid = fork();
    if (service->pid < 0)
        return complain("fork");
    if (service->pid == 0) {
        close(life[1]);
        close(started[0]);
        arp_service_run(life[0], started[1]);
    }
    close(life[0]);
    close(started[1]);
    service->life = life[1];
    char byte;
    const bool runs = read(started[0], &byte, 1) == 1;
    close(started[0]);
    return runs ? 0 : complain("the ARP service did not start");
}

int arp_service_stop(const arp_service &service)
{
    int status = 0;
    close(service.life);
    if (waitpid(service.pid, &status, 0) == service.pid && status == 0)
        return 0;
    std::fprintf(stderr, "route_example: the ARP service was not asked for each gateway once\n");
    return -1;
}

void put32(std::uint8_t *to, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        to[i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

int debug_request(int queue, std::uint32_t verb, std::uint32_t category, std::uint32_t value)
{
    constexpr mts_address ROUTE_MANAGER = {MTS_NODE_LOCAL, ROUTE_MGR_SAP};
    std::uint8_t payload[16] = {};
    put32(payload, verb);
    put32(payload + 4, category);
    put32(payload + 12, value);
    return mts_send(queue, &ROUTE_MANAGER, MTS_OPC_DEBUG_REQUEST, payload, sizeof payload);
}

// Asks the debug service and prints its answer; nothing asked before is still on its way then.
int debug_answer_print(int queue, std::uint32_t verb)
{
    constexpr mts_recv_options OPTIONS = {{1, 0, 0, 0, 0, 0}};
    mts_message message;
    if (debug_request(queue, verb, 0, 0) != 0 || !wait_readable(queue, ANSWER_WAIT_MS) ||
        mts_recv(queue, &message, &OPTIONS) != 0) {
        std::fprintf(stderr, "route_example: the debug service did not answer\n");
        return -1;
    }
    const char *text = reinterpret_cast<const char *>(message.payload);
    for (std::uint32_t i = 0; i < message.length; ++i)
        std::printf("%s%c", i == 0 || text[i - 1] == '\n' ? "  " : "", text[i]);
    mts_drop(queue, &message);
    return 0;
}

// Asks the procedure's result to be 0, and says what was given.
int given(const std::string &what, std::uint32_t result)
{
    std::printf("  %s: %s\n", what.c_str(),
                result == 0              ? "taken"
                : result == TNRPC_FAILED ? "the call failed"
                                         : "refused");
    std::fflush(stdout);
    return result == 0 ? 0 : -1;
}

int routes_give()
{
    int wrong = 0;
    std::printf("giving, in context %u:\n", CONTEXT);
    for (const example_host &h : HOSTS)
        wrong |=
            given("ARP host " + dotted(h.address) + " at interface " + std::to_string(h.ifid),
                  tnrpc_call("arp_prefix_mgr_add_route", 6, RPC_ARG_U16, OBJ_ARP_HOST, RPC_ARG_U32, h.address,
                             RPC_ARG_U32, HOST_LEN, RPC_ARG_U16, h.encap, RPC_ARG_U16, h.ifid, RPC_ARG_U32, CONTEXT));
    for (const example_host &h : HOSTS)
        wrong |= given("static route " + dotted(ROUTE) + " " + dotted(ROUTE_MASK) + " via " + dotted(h.address),
                       tnrpc_call("rib_add_route", 5, RPC_ARG_U16, CONTEXT, RPC_ARG_U32, CONTEXT, RPC_ARG_U32, ROUTE,
                                  RPC_ARG_U32, ROUTE_MASK, RPC_ARG_U32, h.address));
    return wrong;
}

bool is_right(const table_answer &answer, const expected_answer &expected)
{
    if (answer.fault != nullptr || answer.leaf == 0 || answer.adjacency != expected.adjacency)
        return false;
    if (!expected.has_block)
        return answer.ecmp == 0;
    bool right = answer.ecmp != 0 && answer.block[0] == expected.block[0] && answer.block[1] == expected.block[1];
    for (unsigned i = 2; i < TABLE_BLOCK_WORDS; ++i)
        right = right && answer.block[i] == 0;
    return right;
}

// The three copies, or the two of a card with one processor. Returns 0 when each answers what it should.
int copies_check()
{
    const card_conf &conf = card_conf_get();
    const struct {
        const char *name;
        std::uint32_t base;
    } copies[] = {{"mem/wired", conf.wired_phys_base}, {"mem/ixp1", HW_IXP_BASE}, {"mem/ixp2", HW_IXP_BASE}};
    std::vector<table_view> views;
    for (std::uint32_t i = 0; i <= conf.num_ixp; ++i) {
        table_view view;
        if (table_open(&view, copies[i].name, copies[i].base) != 0)
            return -1;
        views.push_back(view);
    }
    unsigned wrong = 0, right = 0;
    for (const expected_answer &expected : EXPECTED) {
        std::printf("\n%s, context %u: %s\n", dotted(expected.address).c_str(), expected.tree, expected.what);
        for (const table_view &view : views) {
            const table_answer answer = table_find(view, expected.tree, expected.address);
            table_answer_print(view, answer);
            const bool is_good = is_right(answer, expected);
            std::printf("    %s\n", is_good ? "right" : "WRONG");
            (is_good ? right : wrong) += 1;
        }
    }
    for (table_view &view : views)
        table_close(&view);
    std::printf("\n%u answers right, %u wrong\n", right, wrong);
    return wrong == 0 ? 0 : -1;
}

int example_run(int queue)
{
    std::printf("memory of the route manager, by type (blocks, bytes, peak):\n");
    // The progress lines go to the history too, from here on.
    if (debug_request(queue, 2, ROUTE_DBG_INFO, 1) != 0 || debug_answer_print(queue, 3) != 0)
        return -1;
    std::printf("\n");
    int wrong = routes_give();
    wrong |= copies_check();
    return wrong;
}

int example_main()
{
    const int notify = notify_open();
    if (notify < 0 || interfaces_write() != 0)
        return -1;
    std::printf("waiting for the route manager\n");
    std::fflush(stdout);
    if (ready_wait(notify) != 0)
        return -1;
    arp_service arp{-1, -1};
    if (arp_service_start(&arp) != 0)
        return -1;
    constexpr mts_bind_options OPTIONS = {{1, 0, MTS_MAX_PAYLOAD, 0, 0}};
    const int queue = mts_bind(MTS_MODE, TOOL_SAP, &OPTIONS, "route_example");
    int wrong = queue < 0 || tnrpc_clnt_init(ARP_ENDPOINT) != 0 ? complain("the card's services") : 0;
    if (wrong == 0)
        wrong = example_run(queue);
    std::fflush(stdout);
    return wrong | arp_service_stop(arp);
}
} // namespace

int main(int argc, char **argv)
{
    if (argc == 1)
        return example_main() == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    if (std::strcmp(argv[1], "history") == 0) {
        const unsigned long lines = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 20;
        return history_print(lines, ROUTE_DBG_EVENTS) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    std::fprintf(stderr, "usage: route_example [history [lines]]\n");
    return EXIT_FAILURE;
}
