// main.cpp - cardsim: the card's other processes in one program.
//
// Always: one thread, one poll. What the route manager asks is answered within the pass, and nothing here ever waits
// for the route manager, which may be waiting for us. Elsewhere: the options and the scenario's statements for a user
// (cardsim(1)).

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "big_endian.h"
#include "card_dir.h"
#include "card_model.h"
#include "card_service/if_db.h"
#include "card_service/manager_link.h"
#include "card_tool/tool_app.h"
#include "interface_events.h"
#include "play.h"
#include "procedures.h"
#include "scenario.h"
#include "supervisor.h"
#include "sysmgr.h"
#include "tnrpc.h"

namespace
{
constexpr int EXIT_DONE = 0, EXIT_WRONG = 1, EXIT_NO_CARD = 3;
constexpr std::uint32_t CARDSIM_UUID = 341;

struct options {
    bool check = false, parse = false, quiet = false;
    std::string routectl;
    std::vector<std::string> files;
};

struct card {
    options opts;
    scenario plan;
    if_db db;
    card_model model;
    supervisor sup;
    manager_link link;
    play show;
    int server = -1, signals = -1;
    bool is_said = false; // that the scenario stands
};

std::uint64_t now_ms()
{
    using namespace std::chrono;
    return static_cast<std::uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

// routectl beside this program, or the one that the path finds.
std::string routectl_default()
{
    std::error_code none; // then the path is empty
    const auto beside = std::filesystem::read_symlink("/proc/self/exe", none).replace_filename("routectl");
    return access(beside.c_str(), X_OK) == 0 ? beside.string() : "routectl";
}

// Returns the exit status when the options leave nothing to do.
std::optional<int> options_read(int argc, char **argv, options *opts)
{
    opts->routectl = routectl_default();
    CLI::App app("The line card's other processes in one program. Without a file the card has no interface\n"
                 "until one is made (routectl if create).",
                 "cardsim");
    app.add_flag("--check", opts->check,
                 "play the scenario, judge its expectations and end: status 0 when all are right");
    app.add_flag("--parse", opts->parse, "only read the scenario and say what is wrong in it");
    app.add_flag("-q,--quiet", opts->quiet, "no line about what happens");
    app.add_option("--routectl", opts->routectl, "program that `show` lines run, in place of the one beside cardsim")
        ->type_name("PROGRAM");
    app.add_option("file", opts->files, "scenario files, - for standard input")->type_name("");
    return tool_app_parse(app, argc, argv);
}

void arrival(card &c)
{
    c.model.now_ms = now_ms();
    if (c.show.plan == nullptr) { // found while we start: it may know hosts from an earlier run of ours
        c.model.is_unsure = true;
        c.show.has_started = true;
        c.show.start_ms = c.model.now_ms;
        return;
    }
    c.model.out.say("route manager: found");
    card_announce_all(c.model);
    play_arrival(c.show, c.model.now_ms);
}

// The route manager's own messages: an interface's routes came or went.
void message_take(card &c, const mts_message &message)
{
    if (message.opcode == MTS_OPC_ROUTE_IF_REMOVED && message.length >= IFANN_BYTES)
        card_if_withdrawn(c.model, get_be32(message.payload + IFANN_AT_CTX), get_be32(message.payload + IFANN_AT_IFID));
}

void connect_parts(card &c)
{
    c.model.out.record = [&c](std::uint32_t ifid, const if_db_record &record) { if_db_write(c.db, ifid, record); };
    c.model.out.event = [&c](std::uint32_t opcode, const std::vector<std::uint8_t> &payload) {
        link_event(c.link, opcode, payload);
    };
    c.model.out.call = [&c](const std::string &procedure, const std::vector<card_rpc_arg> &args, card_rpc_done done) {
        link_call(c.link, procedure, args, std::move(done));
    };
    c.model.out.say = [&c](const std::string &line) {
        if (c.opts.quiet)
            return;
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    };
    c.link.on_arrival = [&c] { arrival(c); };
    c.link.on_message = [&c](const mts_message &message) { message_take(c, message); };
}

// Returns 0, or -1 with a line on standard error.
int open_card(card &c)
{
    if (card_dir_path().empty() ||
        link_open(&c.link, {"cardsim", CARD_SERVICE_SAP, card_conf_get().rpc_timeout_ms}) != 0)
        return -1;
    if (if_db_open(&c.db, "cardsim", if_db_earlier::remove) != 0 || sup_open(&c.sup) != 0)
        return -1;
    c.server = procedures_open(&c.model, &c.sup);
    if (c.server < 0)
        return -1;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    c.signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    c.show.plan = &c.plan;
    c.show.model = &c.model;
    c.show.link = &c.link;
    c.show.sup = &c.sup;
    c.show.is_check = c.opts.check;
    c.show.routectl = c.opts.routectl;
    return c.signals < 0 ? -1 : 0;
}

// What has to be done now, as far as it goes without waiting.
void work(card &c)
{
    c.model.now_ms = now_ms();
    link_process(c.link, c.model.now_ms);
    sup_process(c.sup, c.model.out.say);
    // Hosts wait until the route manager has handled what happened to their interfaces.
    if (!link_has_events(c.link))
        card_arp_run(c.model);
    play_run(c.show, c.model.now_ms);
    link_process(c.link, c.model.now_ms);
    if (c.show.is_standing && !c.is_said && !c.opts.check) {
        c.is_said = true;
        std::printf("cardsim: the card stands\n");
        std::fflush(stdout);
    }
}

int wait_ms(const card &c)
{
    const std::uint64_t now = now_ms();
    std::uint64_t next = std::min(link_next_ms(c.link, now), play_next_ms(c.show));
    if (!link_has_events(c.link))
        next = std::min(next, card_arp_next_ms(c.model));
    if (next == UINT64_MAX)
        return -1;
    return next <= now ? 0 : static_cast<int>(std::min<std::uint64_t>(next - now, INT_MAX));
}

// The loop. Returns the exit status.
int run(card &c)
{
    for (;;) {
        work(c);
        if (c.opts.check && play_is_over(c.show) && link_is_at_rest(c.link)) {
            std::printf("%u right, %u wrong\n", c.show.right, c.show.wrong);
            return c.show.wrong == 0 ? EXIT_DONE : EXIT_WRONG;
        }
        pollfd set[] = {{c.server, POLLIN, 0},     {c.link.queue, POLLIN, 0},
                        {c.link.watch, POLLIN, 0}, {c.sup.socket, POLLIN, 0},
                        {c.signals, POLLIN, 0},    {card_rpc_fd(*c.link.rpc), card_rpc_events(*c.link.rpc), 0},
                        {c.show.child, POLLIN, 0}};
        (void)poll(set, std::size(set), wait_ms(c)); // whatever ended it, the loop looks at everything
        if ((set[4].revents & POLLIN) != 0)
            return EXIT_DONE;
        c.model.now_ms = now_ms();
        if ((set[0].revents & POLLIN) != 0)
            (void)tnrpc_process(c.server); // a connection that ends is an event too
    }
}

// Takes the command line and plays the card until it ends. Returns the program's status.
int play_card(int argc, char **argv)
{
    static card c; // procedures and answers refer to it until the end
    if (const auto status = options_read(argc, argv, &c.opts))
        return *status;
    for (const std::string &file : c.opts.files) {
        std::string error;
        if (scenario_read(file, &c.plan, &error) != 0) {
            std::fprintf(stderr, "cardsim: %s\n", error.c_str());
            return TOOL_USAGE;
        }
    }
    if (c.opts.parse)
        return EXIT_DONE;
    connect_parts(c);
    if (open_card(c) != 0)
        return EXIT_NO_CARD;
    work(c);
    (void)sysmgr_handshake(c.link.queue, CARDSIM_UUID); // without a listener it is lost, which is no error
    std::printf("cardsim: serves %s\n", card_dir_path().c_str());
    std::fflush(stdout);
    const int status = run(c);
    procedures_close();
    if_db_close(&c.db);
    return status;
}
} // namespace

int main(int argc, char **argv)
{
    try {
        return play_card(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "cardsim: %s\n", error.what());
        return EXIT_WRONG;
    }
}
