// cardlive.cpp - the card's other processes on this host: its interfaces, neighbours and routes are the kernel's.
//
// One thread, one poll. The kernel's changes come first: a port that is down is closed before anything else is done.
// Then the plan follows, what is wanted, and what the route manager is told. Nothing here waits for the route manager,
// which may be waiting for us. Maps, attachments and rules stay when the process ends, for the next one.
// Elsewhere: options and statements for a user (cardlive(8)), what always holds of what is told (live_sync.h).
#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <linux/neighbour.h>
#include <poll.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_files.h"
#include "card_service/if_db.h"
#include "card_service/manager_link.h"
#include "card_tool/address_text.h"
#include "card_tool/card_rpc.h"
#include "card_tool/tool_app.h"
#include "kernel_ask.h"
#include "live_adopt.h"
#include "live_barrier.h"
#include "live_conf.h"
#include "live_look.h"
#include "live_maps.h"
#include "live_memory.h"
#include "live_plan.h"
#include "live_ports.h"
#include "live_procedures.h"
#include "live_requests.h"
#include "live_status.h"
#include "live_sync.h"
#include "live_wants.h"
#include "netlink_kernel.h"
#include "sysmgr.h"
#include "tnrpc.h"

namespace
{
constexpr int EXIT_DONE = 0, EXIT_WRONG = 1, EXIT_NO_CARD = 3;
constexpr std::uint32_t LIVE_UUID = 342;
constexpr const char *PINS_DEFAULT = "/sys/fs/bpf/card", *ROUTES_FILE = "/etc/card/routes";
constexpr std::uint64_t RENEW_MOST_MS = 500, SOON_MS = 10, AGAIN_MS = 1000;
constexpr unsigned CALLS_A_PASS = 64, VERIFY_A_PASS = 256;

struct options {
    std::string conf = LIVE_CONF_FILE, pins, routes = ROUTES_FILE, routectl;
    std::vector<std::string> statements;
    double stale_seconds = 0; // 0: not given
    bool detach = false, status = false, quiet = false;
};

struct card {
    options opts;
    live_conf conf;
    live_maps maps;
    live_memory memory;
    live_barrier_ptr barrier;
    live_ports ports;
    live_ids ids;
    live_plan plan;
    live_sync sync;
    live_requests requests;
    live_procedures procedures;
    netlink_kernel_ptr kernel;
    kernel_ask_ptr ask;
    live_verify asked_verify; // of a tool
    live_verify verify;       // of the route manager's table, before it is searched
    bool is_verifying = false;
    std::uint64_t verify_ms = 0; // not before
    if_db db;
    manager_link link;
    kernel_changes changes; // not in the plan yet
    std::vector<kernel_rule> rules;
    bool has_plan = false, was_current = false;
    bool has_rules = false;
    bool is_new_manager = false;     // one has started and has no table yet
    bool is_unknown_manager = false; // one was there before, and has not said yet what it knows
    bool is_said = false;            // that the card stands
    bool has_closed_port = false;    // one is to be attached anew
    std::uint64_t renewed_ms = 0, rules_ms = 0, adopt_ms = 0;
    int server = -1, signals = -1;
    int child = -1, child_pid = -1; // routectl, with the operator's routes
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
    const auto self = std::filesystem::read_symlink("/proc/self/exe", none);
    for (const char *const beside : {"routectl", "../tools/routectl"}) {
        const auto path = self.parent_path() / beside;
        if (access(path.c_str(), X_OK) == 0)
            return path.string();
    }
    return "routectl";
}

// Returns the exit status when the options leave nothing to do.
std::optional<int> options_read(int argc, char **argv, options *opts)
{
    opts->routectl = routectl_default();
    CLI::App app("A card made of this host: an XDP program forwards what the route manager's table answers,\n"
                 "and the kernel does the rest. Statements as in live.conf(5) may follow.",
                 "cardlive");
    app.add_option("--conf", opts->conf, "file of statements")->type_name("FILE");
    app.add_option("--pins", opts->pins, "folder of a BPF file system for maps and attachments")->type_name("FOLDER");
    app.add_option("--stale", opts->stale_seconds, "without a sign of life for so long, all packets go to the kernel")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber);
    app.add_option("--routes", opts->routes, "the operator's own routes, lines for routectl --batch")
        ->type_name("FILE");
    app.add_option("--routectl", opts->routectl, "program that gives those, in place of the one beside cardlive")
        ->type_name("PROGRAM");
    app.add_flag("--detach", opts->detach, "take maps, attachments and rules away, and end");
    app.add_flag("--status", opts->status, "print the state of the card that is served, a JSON document, and end");
    app.add_flag("-q,--quiet", opts->quiet, "no line about what happens");
    app.add_option("statement", opts->statements, "words of a statement, statements set apart by ;")->type_name("");
    return tool_app_parse(app, argc, argv);
}

// Returns 0, or 1 with a line on standard error.
int conf_read(const options &opts, live_conf *conf)
{
    std::string error, words;
    for (const std::string &word : opts.statements)
        words += word + " ";
    std::replace(words.begin(), words.end(), ';', '\n');
    if (live_conf_read(opts.conf, conf, &error) != 0 || live_conf_parse("statement", words, conf, &error) != 0) {
        std::fprintf(stderr, "cardlive: %s\n", error.c_str());
        return 1;
    }
    if (!opts.pins.empty())
        conf->pins = opts.pins;
    if (conf->pins.empty())
        conf->pins = PINS_DEFAULT;
    if (opts.stale_seconds > 0)
        conf->stale_ms = static_cast<std::uint32_t>(opts.stale_seconds * 1000);
    return 0;
}

std::string file_text(const std::string &path)
{
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

const kernel_state &state_of(const card &c) { return netlink_kernel_state(*c.kernel); }

// ---- the operator's own routes ----

void give_extra(card &c)
{
    if (access(c.opts.routes.c_str(), R_OK) != 0)
        return sync_extra_given(c.sync);
    std::vector<std::string> words = {c.opts.routectl, "--go-on", "--batch", c.opts.routes};
    std::vector<char *> args;
    args.reserve(words.size() + 1);
    for (std::string &word : words)
        args.push_back(word.data());
    args.push_back(nullptr);
    posix_spawnattr_t attributes;
    sigset_t none;
    sigemptyset(&none); // the loop has signals blocked, the child must not
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    const int error = posix_spawnp(&c.child_pid, args[0], nullptr, &attributes, args.data(), environ);
    posix_spawnattr_destroy(&attributes);
    c.child = error == 0 ? static_cast<int>(syscall(SYS_pidfd_open, c.child_pid, 0)) : -1;
    if (c.child >= 0)
        return;
    c.sync.out.say(fmt::format("{}: {}", c.opts.routectl, std::strerror(error != 0 ? error : errno)));
    sync_extra_given(c.sync);
}

void child_process(card &c)
{
    int status = 0;
    if (c.child < 0 || waitpid(c.child_pid, &status, WNOHANG) == 0)
        return;
    (void)close(c.child);
    c.child = c.child_pid = -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        c.sync.out.say(fmt::format("{}: not all of it was taken", c.opts.routes));
    sync_extra_given(c.sync);
}

// ---- connections between the parts ----

void say(const card &c, const std::string &line)
{
    if (c.opts.quiet)
        return;
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

// ---- the route manager's table against the kernel ----

live_view view_of(card &c) { return {c.maps, c.plan, state_of(c), *c.ask}; }

// The prefixes that the operator's own file gives a context.
std::vector<kernel_prefix> given_to(const card &c, std::uint32_t ctx)
{
    std::vector<kernel_prefix> prefixes;
    for (const auto &[given_ctx, prefix, gateway] : live_extra_read(file_text(c.opts.routes)))
        if (given_ctx == ctx)
            prefixes.push_back(prefix);
    return prefixes;
}

void verify_begin(card &c, std::uint32_t ctx)
{
    c.is_verifying = true;
    c.verify = live_verify_begin(c.plan, state_of(c), ctx, given_to(c, ctx));
}

// Some of it, so that nothing else waits. What differs is said, and looked at again later.
void verify_process(card &c)
{
    if (!c.is_verifying || c.sync.now_ms < c.verify_ms)
        return;
    const live_searched table = c.memory.written == 0 ? LIVE_SEARCHED_TABLE_0 : LIVE_SEARCHED_TABLE_1;
    std::string why;
    if (live_verify_some(view_of(c), table, VERIFY_A_PASS, &c.verify, &why) == 0 && !c.verify.differences.empty()) {
        const live_traced &t = c.verify.differences[0];
        why = fmt::format("{}: {}, the kernel: {}", address_text(t.packet.destination), t.card, t.kernel);
    }
    if (!why.empty()) {
        say(c, fmt::format("the table is not searched yet: {}", why));
        c.is_verifying = false;
        c.verify_ms = c.sync.now_ms + AGAIN_MS;
        sync_verified(c.sync, false);
    } else if (c.verify.at == c.verify.addresses.size()) {
        const auto next = c.plan.contexts.upper_bound(c.verify.ctx);
        c.is_verifying = next != c.plan.contexts.end();
        if (c.is_verifying)
            verify_begin(c, next->first);
        else
            sync_verified(c.sync, true);
    }
}

void connect_sync(card &c)
{
    sync_outside &out = c.sync.out;
    out.encap = [&c](std::uint32_t encap, std::uint64_t mac) {
        if (mac == 0)
            live_maps_clear_encap(c.maps, encap);
        else
            live_maps_set_encap(c.maps, encap, mac);
    };
    out.forwards = [&c](std::uint32_t ctx, bool forwards) {
        if (forwards)
            live_maps_release(c.maps, ctx);
        else
            live_maps_hold(c.maps, ctx);
    };
    out.barrier = [&c](std::uint64_t ticket) { live_barrier_ask(*c.barrier, ticket); };
    out.record = [&c](std::uint32_t ifid, const if_db_record &record) { if_db_write(c.db, ifid, record); };
    out.event = [&c](std::uint32_t opcode, const std::vector<std::uint8_t> &payload) {
        link_event(c.link, opcode, payload);
    };
    out.mark = [&c](std::function<void()> passed) { link_mark(c.link, std::move(passed)); };
    out.call = [&c](const std::string &procedure, const std::vector<card_rpc_arg> &args, card_rpc_done done) {
        link_call(c.link, procedure, args, std::move(done));
    };
    out.give_extra = [&c] { give_extra(c); };
    out.verify = [&c] { verify_begin(c, c.plan.contexts.empty() ? 0 : c.plan.contexts.begin()->first); };
    out.search = [&c] { live_memory_search(c.memory); };
    out.say = [&c](const std::string &line) { say(c, line); };
}

int link_of(const card &c, std::uint32_t ctx, std::uint32_t address)
{
    const auto context = c.plan.contexts.find(ctx);
    if (context == c.plan.contexts.end() || address == SYNC_UP_GATEWAY)
        return 0;
    if (const auto host = context->second.card.hosts.find(address); host != context->second.card.hosts.end())
        return host->second.ifindex;
    const kernel_answer answer = kernel_lookup(state_of(c), context->second.tables, address);
    for (const kernel_hop &hop : answer.hops)
        if (hop.gateway == 0 && hop.ifindex != 0)
            return hop.ifindex;
    for (const auto &[ifindex, port] : c.plan.ports)
        if (port.ctx == ctx && port.length != 0 &&
            kernel_prefix_covers(kernel_prefix_of(port.address, port.length), address))
            return ifindex;
    return 0;
}

std::uint32_t interface_of(const card &c, std::uint32_t ctx, std::uint32_t address)
{
    std::uint32_t best = 0, best_length = 0;
    for (const auto &[ifindex, port] : c.plan.ports)
        if (port.ctx == ctx && port.is_up && port.length > best_length &&
            kernel_prefix_covers(kernel_prefix_of(port.address, port.length), address)) {
            best = port.id;
            best_length = port.length;
        }
    return best;
}

void connect_parts(card &c)
{
    connect_sync(c);
    c.ports.say = c.sync.out.say;
    c.requests.link_of = [&c](std::uint32_t ctx, std::uint32_t address) { return link_of(c, ctx, address); };
    c.requests.manage = [&c](int ifindex, std::uint32_t address, bool is_wanted) {
        if (is_wanted)
            netlink_kernel_manage(*c.kernel, ifindex, address);
        else
            netlink_kernel_unmanage(*c.kernel, ifindex, address);
    };
    c.procedures.request = [&c](std::uint32_t ctx, std::uint32_t address, bool is_wanted) {
        live_requests_change(c.requests, ctx, address, is_wanted);
    };
    c.procedures.interface_of = [&c](std::uint32_t ctx, std::uint32_t address) {
        return interface_of(c, ctx, address);
    };
    c.procedures.is_encap_valid = [&c](std::uint32_t encap) {
        return encap < LIVE_ENCAPS && live_maps_encap(c.maps, encap) != 0;
    };
    c.procedures.status = [&c] { return live_status(c.maps, c.ports, c.plan, c.sync, *c.kernel); };
    c.procedures.trace = [&c](std::uint32_t address, std::uint32_t source, std::uint32_t ifid) {
        return live_look_trace(view_of(c), address, source, ifid);
    };
    c.procedures.verify = [&c](std::uint32_t ctx, std::uint32_t *at) {
        return live_look_verify(view_of(c), c.asked_verify, ctx, given_to(c, ctx), at);
    };
    c.link.on_arrival = [&c] {
        link_forget(c.link);
        sync_departed(c.sync);
        c.is_verifying = false;
        c.is_new_manager = true;
        c.is_unknown_manager = false;
    };
    c.link.on_departure = [&c] {
        sync_departed(c.sync);
        c.is_verifying = false;
        c.is_unknown_manager = false;
        say(c, "route manager: gone");
    };
    c.link.on_message = [](const mts_message &) {};
}

// ---- opening ----

// Returns 0, or -1 with a line on standard error.
int complain(const std::string &why)
{
    std::fprintf(stderr, "cardlive: %s\n", why.c_str());
    return -1;
}

// Asks the route manager that was there before us what it knows. Until it has answered, all packets go to the kernel.
void adopt_manager(card &c)
{
    if (!c.is_unknown_manager || now_ms() < c.adopt_ms)
        return;
    std::string why;
    c.is_unknown_manager = live_adopt(c.sync, c.maps, live_extra_read(file_text(c.opts.routes)),
                                      live_memory_is_searched(c.memory), card_conf_get().rpc_timeout_ms, &why) != 0;
    say(c, c.is_unknown_manager ? why : "route manager: was there before");
    c.adopt_ms = now_ms() + AGAIN_MS;
}

// What the maps hold of an earlier process: nothing is told before what the route manager knows is known.
void adopt(card &c)
{
    c.ids = live_ports_ids(c.maps);
    live_ports_adopt(c.ports, c.maps);
    sync_open(c.sync);
    if (!c.link.is_present)
        return;
    c.is_new_manager = false;
    c.is_unknown_manager = live_memory_has_writer(c.memory);
    if (!c.is_unknown_manager)
        say(c, "the route manager that is there has no table of ours: it is to be restarted");
    adopt_manager(c);
}

// Words of encapsulations that nothing names any more.
void clear_encaps(card &c)
{
    for (std::uint32_t encap = 0; encap < LIVE_ENCAPS; ++encap)
        if (c.sync.encaps.count(encap) == 0 && live_maps_encap(c.maps, encap) != 0)
            live_maps_clear_encap(c.maps, encap);
}

int open_card(card &c)
{
    std::string why;
    if (card_dir_path().empty() ||
        link_open(&c.link, {"cardlive", CARD_SERVICE_SAP, card_conf_get().rpc_timeout_ms}) != 0)
        return -1;
    if (if_db_open(&c.db, "cardlive", if_db_earlier::keep) != 0)
        return -1;
    if (live_maps_open(c.maps, c.conf.pins, why) != 0)
        return complain(why);
    if (!card_conf_get().ixp_is_provided[1] || card_conf_get().num_ixp < 2)
        (void)complain(
            "card.conf: without `num_ixp = 2` and `ixp2 = provider` the route manager does not fill our tables");
    c.barrier = live_barrier_open();
    std::set<std::uint32_t> tables;
    for (const auto &context : c.conf.tables)
        tables.insert(context.second);
    c.kernel = netlink_kernel_open(tables, &why);
    c.ask = kernel_ask_open();
    if (c.barrier == nullptr || c.kernel == nullptr || c.ask == nullptr)
        return complain(c.kernel == nullptr ? why : std::strerror(errno));
    live_maps_set_stale_after(c.maps, std::uint64_t{c.conf.stale_ms} * 1'000'000);
    if (live_memory_open(&c.memory, &c.maps) != 0)
        return -1;
    c.sync.now_ms = now_ms();
    adopt(c);
    clear_encaps(c);
    c.server = live_procedures_open(&c.procedures);
    if (c.server < 0)
        return -1;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    c.signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    return c.signals < 0 ? complain(std::strerror(errno)) : 0;
}

// ---- the loop ----

void set_rules(card &c)
{
    const std::uint64_t now = now_ms();
    if ((c.has_rules && c.rules == c.plan.rules) || now < c.rules_ms)
        return;
    std::string error;
    c.rules = c.plan.rules;
    c.has_rules = netlink_kernel_set_rules(*c.kernel, LIVE_RULE_PROTOCOL, c.rules, &error) == 0;
    c.rules_ms = c.has_rules ? 0 : now + AGAIN_MS;
    if (!c.has_rules)
        say(c, error);
}

bool has_local_routes(const kernel_changes &changes)
{
    return std::any_of(changes.routes.begin(), changes.routes.end(),
                       [](const auto &route) { return route.first == KERNEL_TABLE_LOCAL; });
}

// The kernel sees no packet that the card sends to a host. So when it takes the host for stale, it is told of one.
void look_after_host(card &c, std::uint32_t ctx, std::uint32_t address)
{
    const auto &hosts = c.plan.contexts.at(ctx).card.hosts;
    const auto host = hosts.find(address);
    if (host == hosts.end())
        return;
    const auto known = state_of(c).neighbours.find({host->second.ifindex, address});
    if (known != state_of(c).neighbours.end() && known->second.state == NUD_STALE)
        netlink_kernel_use(*c.kernel, host->second.ifindex, address);
}

void look_after_hosts(card &c, const live_scope &scope)
{
    if (scope.is_whole)
        for (const auto &[ctx, context] : c.plan.contexts)
            for (const auto &[address, host] : context.card.hosts)
                look_after_host(c, ctx, address);
    for (const auto &[ctx, address] : scope.hosts)
        look_after_host(c, ctx, address);
    for (const auto &[ifindex, address] : c.changes.neighbours) {
        const auto port = c.plan.ports.find(ifindex);
        if (port != c.plan.ports.end() && port->second.is_bound)
            look_after_host(c, port->second.ctx, address);
    }
}

// Takes the kernel's changes into the plan and into what is wanted.
void follow(card &c)
{
    const kernel_state &state = state_of(c);
    const bool is_current = netlink_kernel_is_current(*c.kernel);
    if (!c.has_plan && !is_current)
        return; // the first reading is not through
    live_scope scope;
    if (!c.has_plan) {
        c.plan = live_plan_make(state, c.conf, c.ids, LIVE_ROOM_ALL);
        scope.is_whole = true;
    } else if (!c.changes.empty()) {
        scope = live_plan_update(c.plan, state, c.conf, c.ids, LIVE_ROOM_ALL, c.changes);
    }
    c.has_rules = c.has_rules && !c.changes.rules;
    const bool is_whole = scope.is_whole || is_current != c.was_current;
    if (is_whole)
        for (const auto &[ifindex, port] : c.plan.ports)
            if (port.is_bound)
                c.ids[ifindex] = port.id;
    if (is_whole || c.has_closed_port || !c.changes.links.empty())
        live_ports_apply(c.ports, c.maps, c.plan, state);
    if (is_whole || !c.changes.links.empty() || has_local_routes(c.changes))
        live_ports_set_own(c.maps, state);
    c.has_closed_port = false;
    if (is_whole)
        live_wants_all(c.sync, c.plan, state, is_current ? "" : "the kernel's routes are read again");
    else
        live_wants_scope(c.sync, c.plan, state, scope);
    live_wants_neighbours(c.sync, c.plan, state, c.changes.neighbours);
    look_after_hosts(c, scope);
    c.changes = {};
    c.has_plan = true;
    c.was_current = is_current;
}

// A route manager that has started is told everything once it has a table.
void meet(card &c)
{
    if (!c.is_new_manager || !c.link.is_present || !c.has_plan || !live_memory_has_writer(c.memory))
        return;
    c.is_new_manager = false;
    live_requests_forget(c.requests);
    sync_arrived(c.sync);
    say(c, "route manager: found");
}

void renew(card &c)
{
    const std::uint64_t now = now_ms();
    if (now < c.renewed_ms + std::min<std::uint64_t>(RENEW_MOST_MS, c.conf.stale_ms / 4))
        return;
    c.renewed_ms = now;
    c.has_closed_port = live_ports_check(c.ports, c.maps) || c.has_closed_port;
    live_maps_renew(c.maps);
}

// What has to be done now, as far as it goes without waiting. Returns 0, or -1 with a line on standard error.
int work(card &c)
{
    std::string error;
    renew(c);
    if (netlink_kernel_process(*c.kernel, &c.changes, &error) != 0)
        return complain(error);
    live_ports_close(c.ports, c.maps, state_of(c), c.changes.links);
    follow(c);
    if (c.has_plan)
        set_rules(c);
    c.sync.now_ms = now_ms();
    sync_barrier_passed(c.sync, live_barrier_passed(*c.barrier));
    memory_service_process(c.memory.service);
    link_process(c.link, c.sync.now_ms);
    child_process(c);
    adopt_manager(c);
    meet(c);
    verify_process(c);
    if (c.has_plan)
        sync_run(c.sync);
    link_process(c.link, c.sync.now_ms);
    if (c.has_plan && c.sync.phase != sync_phase::telling)
        live_requests_run(c.requests);
    if (!c.is_said && sync_is_settled(c.sync)) {
        c.is_said = true;
        std::printf("cardlive: the card stands\n");
        std::fflush(stdout);
    }
    return 0;
}

int wait_ms(const card &c)
{
    const std::uint64_t now = now_ms();
    std::uint64_t next = c.renewed_ms + std::min<std::uint64_t>(RENEW_MOST_MS, c.conf.stale_ms / 4);
    next = std::min(next, link_next_ms(c.link, now));
    const std::uint64_t retry = sync_next_ms(c.sync);
    if (retry != UINT64_MAX)
        next = std::min(next, std::max(retry, now + SOON_MS)); // what could be done now was
    if (c.is_unknown_manager)
        next = std::min(next, c.adopt_ms);
    if (c.has_plan && !c.has_rules)
        next = std::min(next, std::max(c.rules_ms, now + SOON_MS));
    if (c.is_verifying)
        next = std::min(next, c.verify_ms);
    return next <= now ? 0 : static_cast<int>(std::min<std::uint64_t>(next - now, INT_MAX));
}

// The loop. Returns the exit status.
int run(card &c)
{
    for (;;) {
        if (work(c) != 0)
            return EXIT_WRONG;
        pollfd set[] = {{c.server, POLLIN, 0},
                        {c.signals, POLLIN, 0},
                        {c.link.queue, POLLIN, 0},
                        {c.link.watch, POLLIN, 0},
                        {card_rpc_fd(*c.link.rpc), card_rpc_events(*c.link.rpc), 0},
                        {netlink_kernel_fd(*c.kernel), POLLIN, 0},
                        {c.memory.service.events, POLLIN, 0},
                        {live_barrier_fd(*c.barrier), POLLIN, 0},
                        {c.child, POLLIN, 0}};
        (void)poll(set, std::size(set), wait_ms(c)); // whatever ended it, the loop looks at everything
        if ((set[1].revents & POLLIN) != 0)
            return EXIT_DONE;
        for (unsigned i = 0; i < CALLS_A_PASS && tnrpc_process(c.server) == 0; ++i) {
        }
    }
}

int detach(const card &c)
{
    std::string why = "another process serves the card";
    const std::string queue = std::string(MTS_FOLDER) + "/" + std::to_string(CARD_SERVICE_SAP);
    bool is_done = card_dir_owner(queue.c_str()) == card_owner::none && live_maps_remove(c.conf.pins, why) == 0;
    if (is_done) {
        const netlink_kernel_ptr kernel = netlink_kernel_open({}, &why);
        is_done = kernel != nullptr && netlink_kernel_set_rules(*kernel, LIVE_RULE_PROTOCOL, {}, &why) == 0;
    }
    if (!is_done)
        (void)complain(why);
    return is_done ? EXIT_DONE : EXIT_WRONG;
}

// Asks the process that serves the card.
int show_status()
{
    constexpr const char *PROCEDURE = "cardlive_status";
    const card_rpc_ptr rpc = card_rpc_open(PROCEDURE, card_conf_get().rpc_timeout_ms);
    const card_rpc_reply reply = card_rpc_call_wait(*rpc, PROCEDURE, {rpc_block()});
    if (!reply.ran() || reply.result != 0 || reply.blocks.size() != 1) {
        (void)complain(card_rpc_reason(reply.end, PROCEDURE));
        return EXIT_NO_CARD;
    }
    std::printf("%.*s\n", static_cast<int>(reply.blocks[0].size()),
                reinterpret_cast<const char *>(reply.blocks[0].data()));
    return EXIT_DONE;
}

// Takes the command line and serves the card until it ends. Returns the program's status.
int serve_card(int argc, char **argv)
{
    static card c; // procedures and answers refer to it until the end
    if (const auto status = options_read(argc, argv, &c.opts))
        return *status;
    if (conf_read(c.opts, &c.conf) != 0)
        return TOOL_USAGE;
    if (c.opts.status)
        return show_status();
    if (c.opts.detach)
        return detach(c);
    connect_parts(c);
    if (open_card(c) != 0)
        return EXIT_NO_CARD;
    (void)sysmgr_handshake(c.link.queue, LIVE_UUID); // without a listener it is lost, which is no error
    std::printf("cardlive: serves %s\n", card_dir_path().c_str());
    std::fflush(stdout);
    const int status = run(c);
    // What changes from now on is seen by nobody, so all packets go to the kernel until the next process has looked.
    for (std::uint32_t ctx = 0; ctx < LIVE_CONTEXTS; ++ctx)
        live_maps_hold(c.maps, ctx);
    live_procedures_close();
    if_db_close(&c.db);
    c.barrier.reset();
    return status;
}
} // namespace

int main(int argc, char **argv)
{
    try {
        return serve_card(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "cardlive: %s\n", error.what());
        return EXIT_WRONG;
    }
}
