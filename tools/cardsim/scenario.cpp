// scenario.cpp - reads scenario files.
//
// A statement is read word by word. Interfaces are followed through the file, so that a statement about one that does
// not exist at that point is found before anything runs. Always: the first unexpected word ends the reading with a line
// that names it and what was expected; nothing of a faulty file is played.
#include "scenario.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include <fmt/format.h>

#include "card_tool/address_text.h"
#include "card_tool/shown_text.h"

namespace
{
// One line being read.
struct reader {
    std::vector<std::string> words;
    std::size_t at = 0;
    std::string error;                                 // empty: no error
    std::map<std::uint32_t, scenario_interface> known; // interfaces at this point of the file
    std::uint64_t last_at_ms = 0;
};

bool refuse(reader &r, const std::string &word, const std::string &why)
{
    if (r.error.empty())
        r.error = (word.empty() ? "the line ends" : shown_text(word)) + ": " + why;
    return false;
}
// The next word; empty at the end of the line.
std::string peek(const reader &r) { return r.at < r.words.size() ? r.words[r.at] : std::string(); }
bool refuse_next(reader &r, const std::string &expected) { return refuse(r, peek(r), "expected " + expected); }

bool take(reader &r, const char *word)
{
    if (peek(r) != word)
        return false;
    ++r.at;
    return true;
}
bool need(reader &r, const char *word) { return take(r, word) || refuse_next(r, std::string("\"") + word + "\""); }

bool need_number(reader &r, const char *what, std::uint32_t low, std::uint32_t high, std::uint32_t *value)
{
    const auto number = number_parse(peek(r), high);
    if (!number || *number < low)
        return refuse_next(r, fmt::format("{} ({} to {})", what, low, high));
    *value = *number;
    ++r.at;
    return true;
}
bool need_ifid(reader &r, std::uint32_t *ifid) { return need_number(r, "an interface id", 1, SCENARIO_MAX_IFID, ifid); }
bool need_ctx(reader &r, std::uint32_t *ctx) { return need_number(r, "a context", 0, SCENARIO_MAX_CTX, ctx); }
bool need_encap(reader &r, std::uint32_t *encap) { return need_number(r, "an encapsulation id", 1, 0x7FFF, encap); }

bool need_address(reader &r, std::uint32_t *address)
{
    const auto dotted = address_parse(peek(r));
    if (!dotted)
        return refuse_next(r, "an IPv4 address such as 10.1.1.2");
    *address = *dotted;
    ++r.at;
    return true;
}

// ADDRESS/LENGTH. is_prefix: host bits are refused, with the prefix that was meant.
bool need_slashed(reader &r, bool is_prefix, std::uint32_t *address, std::uint32_t *mask)
{
    const std::string word = peek(r);
    const std::size_t slash = std::min(word.find('/'), word.size());
    const auto dotted = address_parse(word.substr(0, slash));
    const auto length = slash == word.size() ? std::nullopt : number_parse(word.substr(slash + 1), 32);
    if (!dotted || !length)
        return refuse_next(r, is_prefix ? "a prefix such as 10.1.0.0/16" : "an address such as 10.1.1.1/24");
    *address = *dotted;
    *mask = address_mask_of(*length);
    if (is_prefix && (*address & ~*mask) != 0)
        return refuse_next(r, prefix_text(*address & *mask, *length));
    ++r.at;
    return true;
}

// A time such as 50ms or 2s, up to a day.
bool need_time(reader &r, std::uint64_t *ms)
{
    constexpr std::uint32_t DAY_MS = 86'400'000;
    const std::string word = peek(r);
    const std::size_t digits = std::min(word.find_first_not_of("0123456789"), word.size());
    const std::string unit = word.substr(digits);
    const std::uint32_t unit_ms = unit == "ms" ? 1 : 1000;
    const auto number = number_parse(word.substr(0, digits), DAY_MS / unit_ms);
    if (!number || (unit != "ms" && unit != "s"))
        return refuse_next(r, "a time such as 50ms or 2s");
    *ms = *number * unit_ms;
    ++r.at;
    return true;
}

bool need_mac(reader &r, std::uint64_t *mac)
{
    const std::string word = peek(r);
    bool is_right = word.size() == 17;
    *mac = 0;
    for (std::size_t i = 0; is_right && i < 6; ++i) {
        const char *const at = word.data() + 3 * i;
        unsigned byte = 0;
        const auto [end, fault] = std::from_chars(at, at + 2, byte, 16);
        is_right = fault == std::errc() && end == at + 2 && (i == 5 || at[2] == ':');
        *mac = *mac << 8 | byte;
    }
    if (!is_right)
        return refuse_next(r, "a MAC address such as 02:00:00:00:10:01");
    ++r.at;
    return true;
}

bool need_known(reader &r, std::uint32_t *ifid)
{
    if (!need_ifid(r, ifid))
        return false;
    if (r.known.count(*ifid) != 0)
        return true;
    std::string ids;
    for (const auto &[id, interface] : r.known)
        ids += (ids.empty() ? "" : ", ") + std::to_string(id);
    return refuse(r, r.words[r.at - 1],
                  "unknown interface; " + (ids.empty() ? "none is declared yet" : "expected " + ids));
}

bool need_end(reader &r) { return r.at == r.words.size() || refuse_next(r, "the end of the line"); }

// ---- statements ----

bool read_new_interface(reader &r, scenario_step &s)
{
    s.kind = STEP_IF_CREATE;
    if (r.known.count(s.ifid) != 0)
        return refuse(r, r.words[r.at - 1], "declared already; expected up, down, delete or address after it");
    if (!need(r, "ctx") || !need_ctx(r, &s.ctx))
        return false;
    while (r.at < r.words.size()) {
        std::uint32_t vlan = 0;
        if (peek(r).find('/') != std::string::npos) {
            if (!need_slashed(r, false, &s.address, &s.mask))
                return false;
        } else if (take(r, "down")) {
            s.is_down = true;
        } else if (take(r, "vlan")) {
            if (!need_number(r, "a VLAN", 1, 4094, &vlan))
                return false;
            s.vlan = vlan;
        } else if (take(r, "bridge")) {
            s.mode = 2; // anything but 1: the bridge interface routes for it
            if (!need_known(r, &s.bvi))
                return false;
        } else {
            return refuse_next(r, "an address such as 10.1.1.1/24, vlan, bridge, down or the end of the line");
        }
    }
    r.known[s.ifid] = {s.ctx, s.address, s.mask, s.mode, s.bvi};
    return true;
}

bool read_interface(reader &r, scenario_step &s)
{
    if (!need_ifid(r, &s.ifid))
        return false;
    if (peek(r) == "ctx" || r.known.count(s.ifid) == 0)
        return read_new_interface(r, s);
    if (take(r, "up")) {
        s.kind = STEP_IF_UP;
    } else if (take(r, "down")) {
        s.kind = STEP_IF_DOWN;
    } else if (take(r, "delete")) {
        s.kind = STEP_IF_DELETE;
        r.known.erase(s.ifid);
    } else if (take(r, "address")) {
        s.kind = STEP_IF_ADDRESS;
        if (!take(r, "none") && !need_slashed(r, false, &s.address, &s.mask))
            return false;
        r.known[s.ifid].address = s.address;
        r.known[s.ifid].mask = s.mask;
    } else {
        return refuse_next(r, "up, down, delete or address");
    }
    return need_end(r);
}

// A host has an address in the subnet of the interface that routes for it.
bool need_in_subnet(reader &r, const scenario_step &s)
{
    const scenario_interface &own = r.known[s.ifid];
    const auto routing = r.known.find(own.mode == 1 ? s.ifid : own.bvi);
    if (routing == r.known.end() || routing->second.address == 0)
        return true;
    const scenario_interface &i = routing->second;
    if (((s.address ^ i.address) & i.mask) == 0)
        return true;
    return refuse(r, address_text(s.address),
                  fmt::format("not in the subnet of interface {}; expected an address of {}", routing->first,
                              prefix_text(i.address & i.mask, address_mask_length(i.mask))));
}

bool read_host(reader &r, scenario_step &s)
{
    if (!need_known(r, &s.ifid) || !need_address(r, &s.address) || !need_in_subnet(r, s))
        return false;
    s.ctx = r.known[s.ifid].ctx;
    while (r.at < r.words.size()) {
        std::uint64_t delay = 0;
        if (take(r, "mac")) {
            s.has_mac = true;
            if (!need_mac(r, &s.mac))
                return false;
        } else if (take(r, "encap")) {
            if (!need_encap(r, &s.encap))
                return false;
        } else if (take(r, "delay")) {
            if (!need_time(r, &delay))
                return false;
            s.delay_ms = static_cast<std::uint32_t>(delay);
        } else if (take(r, "quiet")) {
            s.is_quiet = true;
        } else {
            return refuse_next(r, "mac, encap, delay, quiet or the end of the line");
        }
    }
    return true;
}

// route PREFIX via HOP ctx N
bool read_route(reader &r, scenario_step &s)
{
    return need_slashed(r, true, &s.address, &s.mask) && need(r, "via") && need_address(r, &s.hop) && need(r, "ctx") &&
           need_ctx(r, &s.ctx) && need_end(r);
}

// nat ADDRESS count N interface I ixp E
bool read_nat(reader &r, scenario_step &s)
{
    if (!need_address(r, &s.address) || !need(r, "count") || !need_number(r, "a count", 1, 0xFFFFFFFF, &s.count) ||
        !need(r, "interface") || !need_known(r, &s.ifid) || !need(r, "ixp") ||
        !need_number(r, "an IXP id", 0, 0xFFFF, &s.ixp))
        return false;
    s.ctx = r.known[s.ifid].ctx;
    return need_end(r);
}

// advertise PREFIX via HOP interface I [metric M]
bool read_advertise(reader &r, scenario_step &s)
{
    if (!need_slashed(r, true, &s.address, &s.mask) || !need(r, "via") || !need_address(r, &s.hop) ||
        !need(r, "interface") || !need_known(r, &s.ifid))
        return false;
    s.ctx = r.known[s.ifid].ctx;
    if (s.kind == STEP_ADVERTISE && take(r, "metric") && !need_number(r, "a metric", 0, 0xFFFE, &s.metric))
        return false;
    return need_end(r);
}

bool read_path(reader &r, scenario_step &s)
{
    expected_path path{};
    if (!need(r, "interface") || !need_number(r, "an interface id", 0, SCENARIO_MAX_IFID, &path.ifid))
        return false;
    if (take(r, "resolve")) {
        s.resolve_ifid = path.ifid;
        return true;
    }
    if (!need(r, "encap") || !need_number(r, "an encapsulation id", 0, 0xFFFF, &path.encap))
        return false;
    s.paths.push_back(path);
    return true;
}

// lookup ctx N ADDRESS -> miss | nat E | [paths N] interface I encap E [and interface I encap E]... | interface I
// resolve
bool read_expect_lookup(reader &r, scenario_step &s)
{
    std::uint32_t number = 0;
    if (!need(r, "ctx") || !need_ctx(r, &s.ctx) || !need_address(r, &s.address) || !need(r, "->"))
        return false;
    if (take(r, "miss")) {
        s.is_miss = true;
    } else if (take(r, "nat")) {
        if (!need_number(r, "an IXP id", 0, 0xFFFF, &number))
            return false;
        s.nat = number;
    } else if (take(r, "paths")) {
        if (!need_number(r, "a number of paths", 1, 8, &number))
            return false;
        s.path_count = number;
        if (r.at < r.words.size() && !read_path(r, s))
            return false;
    } else if (peek(r) != "interface") {
        return refuse_next(r, "miss, nat, paths or interface");
    } else if (!read_path(r, s)) {
        return false;
    }
    while (!s.paths.empty() && take(r, "and"))
        if (!read_path(r, s))
            return false;
    return need_end(r);
}

bool read_expect_slowpath(reader &r, scenario_step &s)
{
    if (!need(r, "ctx") || !need_ctx(r, &s.ctx) || !need_address(r, &s.address) || !need(r, "->"))
        return false;
    s.is_miss = take(r, "miss");
    return (s.is_miss || need_address(r, &s.hop)) && need_end(r);
}

// routes ctx N [connected C] [static S] [fib F]
bool read_expect_routes(reader &r, scenario_step &s)
{
    if (!need(r, "ctx") || !need_ctx(r, &s.ctx))
        return false;
    do {
        const bool is_connected = take(r, "connected"), is_static = !is_connected && take(r, "static");
        std::uint32_t number = 0;
        if (!is_connected && !is_static && !take(r, "fib"))
            return refuse_next(r, "connected, static or fib");
        if (!need_number(r, "a count", 0, 0xFFFFFFFF, &number))
            return false;
        (is_connected ? s.connected : is_static ? s.statics : s.fib) = number;
    } while (r.at < r.words.size());
    return true;
}

bool read_expect(reader &r, scenario_step &s)
{
    if (take(r, "lookup")) {
        s.kind = STEP_EXPECT_LOOKUP;
        return read_expect_lookup(r, s);
    }
    if (take(r, "slowpath")) {
        s.kind = STEP_EXPECT_SLOWPATH;
        return read_expect_slowpath(r, s);
    }
    if (take(r, "routes")) {
        s.kind = STEP_EXPECT_ROUTES;
        return read_expect_routes(r, s);
    }
    const bool is_withdrawn = take(r, "withdrawn");
    if (!is_withdrawn && !take(r, "advertised"))
        return refuse_next(r, "lookup, slowpath, routes, advertised or withdrawn");
    s.kind = is_withdrawn ? STEP_EXPECT_WITHDRAWN : STEP_EXPECT_ADVERTISED;
    return need_slashed(r, true, &s.address, &s.mask) && need_end(r);
}

bool read_show(reader &r, scenario_step &s)
{
    s.kind = STEP_SHOW;
    s.text.clear();
    for (; r.at < r.words.size(); ++r.at)
        s.text += (s.text.empty() ? "" : " ") + r.words[r.at];
    return !s.text.empty() || refuse_next(r, "the words of a routectl command");
}

bool read_statement(reader &r, scenario_step &s)
{
    struct statement {
        const char *word, *word_to_undo;
        scenario_kind kind, kind_to_undo;
        bool (*read)(reader &, scenario_step &);
    };
    static constexpr statement STATEMENTS[] = {
        {"host", "host", STEP_HOST_ADD, STEP_HOST_DEL, read_host},
        {"route", "route", STEP_ROUTE_ADD, STEP_ROUTE_DEL, read_route},
        {"nat", "nat", STEP_NAT_ADD, STEP_NAT_DEL, read_nat},
        {"advertise", "advertise", STEP_ADVERTISE, STEP_WITHDRAW, read_advertise},
    };
    const bool is_undone = take(r, "no");
    for (const statement &known : STATEMENTS) {
        if (!take(r, known.word))
            continue;
        s.kind = is_undone ? known.kind_to_undo : known.kind;
        return known.read(r, s);
    }
    if (is_undone)
        return refuse_next(r, "host, route, nat or advertise");
    if (take(r, "interface"))
        return read_interface(r, s);
    if (take(r, "expect"))
        return read_expect(r, s);
    if (take(r, "show"))
        return read_show(r, s);
    return refuse_next(r, "interface, host, route, nat, advertise, no, at, expect or show");
}

bool read_line(reader &r, scenario_step &s)
{
    s.at_ms = r.last_at_ms;
    if (take(r, "at")) {
        const std::string word = peek(r);
        if (!need_time(r, &s.at_ms))
            return false;
        if (s.at_ms < r.last_at_ms)
            return refuse(r, word, fmt::format("earlier than a line above; expected {}ms or later", r.last_at_ms));
        r.last_at_ms = s.at_ms;
    }
    for (std::size_t i = r.at; i < r.words.size(); ++i)
        s.text += (i == r.at ? "" : " ") + r.words[i];
    return read_statement(r, s);
}
} // namespace

int scenario_parse(const std::string &name, const std::string &text, scenario *out, std::string *error)
{
    reader r;
    r.known = out->interfaces;
    r.last_at_ms = out->steps.empty() ? 0 : out->steps.back().at_ms;
    std::vector<scenario_step> steps;
    std::istringstream lines(text);
    std::string line;
    for (unsigned number = 1; std::getline(lines, line); ++number) {
        std::istringstream words(line.substr(0, line.find('#')));
        r.words.assign(std::istream_iterator<std::string>(words), {});
        r.at = 0;
        if (r.words.empty())
            continue;
        scenario_step step;
        step.source = fmt::format("{}:{}", name, number);
        if (!read_line(r, step)) {
            *error = step.source + ": " + r.error;
            return 1;
        }
        steps.push_back(step);
    }
    out->steps.insert(out->steps.end(), steps.begin(), steps.end());
    out->interfaces = r.known;
    return 0;
}

int scenario_read(const std::string &path, scenario *out, std::string *error)
{
    std::ostringstream text;
    if (path == "-") {
        text << std::cin.rdbuf();
    } else {
        std::ifstream file(path);
        std::error_code none;
        if (!file || std::filesystem::is_directory(path, none)) {
            *error = path + ": " + std::strerror(file ? EISDIR : errno);
            return 1;
        }
        text << file.rdbuf();
    }
    return scenario_parse(path == "-" ? "standard input" : path, text.str(), out, error);
}
