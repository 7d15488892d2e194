// play.cpp - plays the steps of a scenario.
//
// Always: steps are applied in the order of the file, and an expectation is judged only when the card is at rest.
// Elsewhere: the statements as they are written (scenario.cpp), the judging of lookups (lookup.cpp).

#include "play.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <utility>

#include <fmt/format.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "big_endian.h"
#include "card_tool/address_text.h"
#include "lookup.h"
#include "route_listing.h"
#include "supervisor_advert.h"

namespace
{

const scenario_step &step_at(const play &p, std::size_t i) { return p.plan->steps[i]; }

void refused(play &p, const scenario_step &step, const std::string &why)
{
    std::printf("%s: %s: %s\n", step.source.c_str(), step.text.c_str(), why.c_str());
    p.wrong += 1;
}

void judged(play &p, bool right)
{
    const scenario_step &step = step_at(p, p.next);
    std::printf("%s %s\n%s", right ? "right" : "WRONG", step.text.c_str(), p.seen.c_str());
    if (!right)
        std::printf("    (%s)\n", step.source.c_str());
    std::fflush(stdout);
    (right ? p.right : p.wrong) += 1;
    p.seen.clear();
    p.is_wrong = false;
    p.rest_since_ms = 0;
    ++p.next;
}

// ---- what is given to the route manager ----

// A call whose result has to be 0. may_stand: it may be refused, since the same may exist from an earlier run.
void give(play &p, const scenario_step &step, const char *procedure, const std::vector<card_rpc_arg> &args,
          bool may_stand)
{
    link_call(*p.link, procedure, args, [&p, &step, procedure, may_stand](const card_rpc_reply &reply) {
        if (!reply.ran())
            refused(p, step, card_rpc_reason(reply.end, procedure));
        else if (reply.result != 0 && !may_stand)
            refused(p, step, "the route manager refused it");
        else
            p.model->out.say(step.text + (reply.result == 0 ? ": given" : ": stands already"));
    });
}

std::vector<card_rpc_arg> route_args(const scenario_step &s)
{
    return {rpc_u16(s.ctx), rpc_u32(s.ctx), rpc_u32(s.address), rpc_u32(s.mask), rpc_u32(s.hop)};
}
std::vector<card_rpc_arg> nat_args(const scenario_step &s)
{
    return {rpc_u16(s.ctx), rpc_u16(s.ifid), rpc_u32(s.address), rpc_u32(s.count), rpc_u16(s.ixp)};
}

void give_standing(play &p, const scenario_step &s)
{
    const bool may_stand = p.model->is_unsure;
    if (s.kind == STEP_ROUTE_ADD) {
        give(p, s, "rib_add_route", route_args(s), may_stand);
        return;
    }
    // Adding a pool that exists already is refused and removes it as well: so it is removed first.
    if (may_stand)
        give(p, s, "rib_remove_nat_pool", nat_args(s), false);
    give(p, s, "rib_add_nat_pool", nat_args(s), false);
}

bool is_same_given(const scenario_step &a, const scenario_step &undone)
{
    const scenario_kind kind = undone.kind == STEP_ROUTE_DEL ? STEP_ROUTE_ADD : STEP_NAT_ADD;
    return a.kind == kind && a.ctx == undone.ctx && a.address == undone.address && a.mask == undone.mask &&
           a.hop == undone.hop && a.count == undone.count && a.ixp == undone.ixp;
}

void apply_route_or_nat(play &p, const scenario_step &s)
{
    if (s.kind == STEP_ROUTE_ADD || s.kind == STEP_NAT_ADD) {
        p.given.push_back(p.next);
        if (p.link->is_present)
            give_standing(p, s);
        return;
    }
    const auto same =
        std::find_if(p.given.begin(), p.given.end(), [&](std::size_t i) { return is_same_given(step_at(p, i), s); });
    if (same != p.given.end())
        p.given.erase(same);
    if (!p.link->is_present)
        return; // one that starts is not given it
    if (s.kind == STEP_ROUTE_DEL)
        give(p, s, "rib_remove_route", route_args(s), false);
    else
        give(p, s, "rib_remove_nat_pool", nat_args(s), false);
}

void apply_advert(play &p, const scenario_step &s)
{
    const std::uint32_t metric = s.kind == STEP_WITHDRAW ? ROUTE_ADVERT_WITHDRAW : s.metric;
    give(p, s, "norvik_send_route_advert",
         {rpc_u32(s.address), rpc_u32(s.mask), rpc_u32(s.ifid), rpc_u32(s.hop), rpc_u16(metric), rpc_u16(s.ctx)},
         false);
}

// ---- what happens on the card ----

std::uint32_t create(card_model &m, const scenario_step &s)
{
    card_interface i;
    i.ctx = s.ctx;
    i.address = s.address;
    i.mask = s.mask;
    i.mode = s.mode;
    i.bvi = s.bvi;
    i.vlan = s.vlan;
    const std::uint32_t result = card_if_create(m, s.ifid, i);
    return result != CARD_DONE || s.is_down ? result : card_if_state(m, s.ifid, true);
}

std::uint32_t add_host(card_model &m, const scenario_step &s)
{
    const std::optional<std::uint64_t> mac = s.has_mac ? std::optional(s.mac) : std::nullopt;
    return card_host_add(m, {s.ifid, s.address, s.encap, mac, s.delay_ms, s.is_quiet});
}

std::uint32_t apply_to_card(card_model &m, const scenario_step &s)
{
    switch (s.kind) {
    case STEP_IF_CREATE:
        return create(m, s);
    case STEP_IF_UP:
    case STEP_IF_DOWN:
        return card_if_state(m, s.ifid, s.kind == STEP_IF_UP);
    case STEP_IF_DELETE:
        return card_if_delete(m, s.ifid);
    case STEP_IF_ADDRESS:
        return card_if_address(m, s.ifid, s.address, s.mask);
    case STEP_HOST_ADD:
        return add_host(m, s);
    default: // STEP_HOST_DEL: no other kind comes here
        return card_host_del(m, s.ifid, s.address);
    }
}

void apply(play &p, const scenario_step &s)
{
    if (p.is_check) {
        std::printf("      %s\n", s.text.c_str());
        std::fflush(stdout);
    }
    if (s.kind == STEP_ADVERTISE || s.kind == STEP_WITHDRAW) {
        apply_advert(p, s);
    } else if (s.kind >= STEP_ROUTE_ADD) {
        apply_route_or_nat(p, s);
    } else if (const std::uint32_t result = apply_to_card(*p.model, s); result != CARD_DONE) {
        refused(p, s, card_result_text(result));
    }
    ++p.next;
}

// ---- expectations ----

// An answer for the current expectation; `judge` adds to p.seen and says whether it is right.
void ask(play &p, const char *procedure, const std::vector<card_rpc_arg> &args,
         std::function<bool(const card_rpc_reply &)> judge)
{
    ++p.answers_due;
    link_call(*p.link, procedure, args, [&p, procedure, judge = std::move(judge)](const card_rpc_reply &reply) {
        if (!reply.ran())
            p.seen += "    " + card_rpc_reason(reply.end, procedure) + "\n";
        if (!reply.ran() || !judge(reply))
            p.is_wrong = true;
        if (--p.answers_due == 0)
            judged(p, !p.is_wrong);
    });
}

void ask_slowpath(play &p, const scenario_step &s)
{
    ask(p, "slowpath_route_lookup", {rpc_u16(s.ctx), rpc_u32(s.address), rpc_ref32(0)},
        [&p, &s](const card_rpc_reply &reply) {
            const bool is_miss = reply.result != 0;
            p.seen += is_miss ? "    miss\n" : fmt::format("    next hop {}\n", address_text(reply.refs[0]));
            return s.is_miss ? is_miss : !is_miss && reply.refs[0] == s.hop;
        });
}

// A count of a summary; one that the step does not name is right.
bool count_is(play &p, const char *what, const std::vector<std::uint8_t> &block, std::size_t at,
              const std::optional<std::uint32_t> &expected)
{
    const std::uint32_t count = get_be32(block.data() + at);
    if (expected)
        p.seen += fmt::format("    {} {}\n", what, count);
    return !expected || count == *expected;
}

void ask_routes(play &p, const scenario_step &s)
{
    ask(p, "show_rib_summary", {rpc_u16(s.ctx), rpc_block()}, [&p, &s](const card_rpc_reply &reply) {
        const std::vector<std::uint8_t> &block = reply.blocks[0];
        if (reply.result != 0 || block.size() != RIB_SUMMARY_BYTES)
            return false;
        const bool connected_right = count_is(p, "connected and NAT", block, 0, s.connected);
        return count_is(p, "static", block, 4, s.statics) && connected_right;
    });
    ask(p, "show_fib_summary", {rpc_u16(s.ctx), rpc_block()}, [&p, &s](const card_rpc_reply &reply) {
        const std::vector<std::uint8_t> &block = reply.blocks[0];
        return reply.result == 0 && block.size() == FIB_SUMMARY_BYTES &&
               count_is(p, "fib", block, FIB_SUMMARY_AT_ROUTES, s.fib);
    });
}

void run_show(play &p, const scenario_step &s)
{
    std::vector<std::string> words = {p.routectl};
    std::istringstream text(s.text);
    for (std::string word; text >> word;)
        words.push_back(word);
    std::vector<char *> args;
    args.reserve(words.size() + 1);
    for (std::string &word : words)
        args.push_back(word.data());
    args.push_back(nullptr);

    std::printf("\n$ routectl %s\n", s.text.c_str());
    std::fflush(stdout);
    posix_spawnattr_t attributes;
    sigset_t none;
    sigemptyset(&none); // the loop has signals blocked, the child must not
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    const int error = posix_spawnp(&p.child_pid, args[0], nullptr, &attributes, args.data(), environ);
    posix_spawnattr_destroy(&attributes);
    if (error == 0)
        p.child = static_cast<int>(syscall(SYS_pidfd_open, p.child_pid, 0));
    if (error == 0 && p.child >= 0)
        return;
    refused(p, s, p.routectl + ": " + std::strerror(error != 0 ? error : errno));
    ++p.next;
}

// Takes the end of the program that `show` runs. Returns whether it has ended.
bool child_has_ended(play &p)
{
    int status = 0;
    if (waitpid(p.child_pid, &status, WNOHANG) == 0)
        return false;
    (void)close(p.child);
    p.child = p.child_pid = -1;
    const scenario_step &step = step_at(p, p.next);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        refused(p, step,
                fmt::format("routectl ended with status {}",
                            WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)));
    p.rest_since_ms = 0;
    ++p.next;
    return true;
}

bool is_advertised(const play &p, const scenario_step &s) { return p.sup->advertised.count({s.address, s.mask}) != 0; }

void judge(play &p, const scenario_step &s)
{
    switch (s.kind) {
    case STEP_EXPECT_LOOKUP:
        judged(p, lookup_check(s, &p.seen));
        break;
    case STEP_EXPECT_SLOWPATH:
        ask_slowpath(p, s);
        break;
    case STEP_EXPECT_ROUTES:
        ask_routes(p, s);
        break;
    case STEP_SHOW:
        run_show(p, s);
        break;
    default: // advertised or withdrawn
        judged(p, is_advertised(p, s) == (s.kind == STEP_EXPECT_ADVERTISED));
    }
}

bool is_at_rest(const play &p) { return link_is_at_rest(*p.link) && p.model->busy == 0 && p.model->due.empty(); }

// Whether all that has no time is applied, and the card is at rest.
bool can_stand(const play &p) { return is_at_rest(p) && (play_is_over(p) || step_at(p, p.next).at_ms != 0); }

// Judges the expectation once the card is at rest. Returns whether the play can go on.
bool run_check(play &p, const scenario_step &s, std::uint64_t now_ms)
{
    if (!p.is_check) {
        ++p.next;
        return true;
    }
    if (p.child >= 0)
        return child_has_ended(p);
    if (p.answers_due != 0)
        return false;
    if (p.rest_since_ms == 0)
        p.rest_since_ms = now_ms;
    if (!is_at_rest(p)) {
        if (now_ms < p.rest_since_ms + PLAY_REST_MS)
            return false;
        p.seen = p.link->is_present ? "    the card did not come to rest\n" : "    there is no route manager\n";
        judged(p, false);
        return true;
    }
    const std::size_t before = p.next;
    judge(p, s);
    return p.next != before;
}
} // namespace

void play_run(play &p, std::uint64_t now_ms)
{
    bool goes_on = true;
    while (goes_on && p.next < p.plan->steps.size()) {
        const scenario_step &s = step_at(p, p.next);
        const bool is_advert = s.kind == STEP_ADVERTISE || s.kind == STEP_WITHDRAW;
        if (is_advert && !p.link->is_present)
            break; // only a route manager can send it
        const bool is_time = s.at_ms == 0 || (p.has_started && now_ms >= p.start_ms + s.at_ms);
        if (is_time && scenario_is_check(s.kind))
            goes_on = run_check(p, s, now_ms);
        else if (is_time)
            apply(p, s);
        else
            goes_on = false;
    }
    p.model->is_unsure = false;
    p.is_standing = p.is_standing || can_stand(p);
}

void play_arrival(play &p, std::uint64_t now_ms)
{
    if (!p.has_started)
        p.start_ms = now_ms;
    p.has_started = true;
    for (const std::size_t i : p.given)
        give_standing(p, step_at(p, i));
}

bool play_is_over(const play &p) { return p.next == p.plan->steps.size(); }

std::uint64_t play_next_ms(const play &p)
{
    if (!p.is_standing && can_stand(p))
        return 0;
    if (play_is_over(p) || p.child >= 0 || p.answers_due != 0)
        return UINT64_MAX;
    if (p.rest_since_ms != 0)
        return is_at_rest(p) ? 0 : p.rest_since_ms + PLAY_REST_MS;
    return p.has_started ? p.start_ms + step_at(p, p.next).at_ms : UINT64_MAX;
}
