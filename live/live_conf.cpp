// live_conf.cpp - reads the statements about a live card.
//
// Always: the first unexpected word ends the reading with a line that names it and what was expected; nothing of a
// faulty text is taken.
#include "live_conf.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <fmt/format.h>

#include "card_tool/address_text.h"
#include "card_tool/shown_text.h"
#include "kernel_state.h"

namespace
{
// One line being read.
struct reader {
    std::vector<std::string> words;
    std::size_t at = 0;
    std::string error; // empty: no error
    live_conf conf;    // with the lines before
};

std::string peek(const reader &r) { return r.at < r.words.size() ? r.words[r.at] : std::string(); }

bool refuse(reader &r, const std::string &word, const std::string &why)
{
    r.error = (word.empty() ? "the line ends" : shown_text(word)) + ": " + why;
    return false;
}
bool refuse_next(reader &r, const std::string &expected) { return refuse(r, peek(r), "expected " + expected); }

bool take(reader &r, const char *word)
{
    if (peek(r) != word)
        return false;
    ++r.at;
    return true;
}
bool need(reader &r, const char *word) { return take(r, word) || refuse_next(r, std::string("\"") + word + "\""); }
bool need_end(reader &r) { return r.at == r.words.size() || refuse_next(r, "the end of the line"); }

bool need_number(reader &r, const char *what, std::uint32_t low, std::uint32_t high, std::uint32_t *value)
{
    const auto number = number_parse(peek(r), high);
    if (!number || *number < low)
        return refuse_next(r, fmt::format("{} ({} to {})", what, low, high));
    *value = *number;
    ++r.at;
    return true;
}
bool need_ctx(reader &r, std::uint32_t *ctx) { return need_number(r, "a context", 0, LIVE_MAX_CTX, ctx); }

bool need_table(reader &r, std::uint32_t *table)
{
    constexpr const char *EXPECTED = "a table of the kernel: main, default or a number other than 255, which is local";
    if (take(r, "main")) {
        *table = KERNEL_TABLE_MAIN;
    } else if (take(r, "default")) {
        *table = KERNEL_TABLE_DEFAULT;
    } else {
        const auto number = number_parse(peek(r), 0xFFFFFFFF);
        if (!number || *number == 0 || *number == KERNEL_TABLE_LOCAL)
            return refuse_next(r, EXPECTED);
        *table = *number;
        ++r.at;
    }
    return true;
}

// context N table T
bool read_context(reader &r)
{
    std::uint32_t ctx = 0, table = 0;
    if (!need_ctx(r, &ctx))
        return false;
    const std::string number = r.words[r.at - 1];
    if (!need(r, "table") || !need_table(r, &table) || !need_end(r))
        return false;
    return r.conf.tables.emplace(ctx, table).second || refuse(r, number, "this context has a table already");
}

// The kernel's own rule for the name of a link.
bool is_link_name(const std::string &name)
{
    return !name.empty() && name.size() < 16 && name != "." && name != ".." &&
           name.find_first_of("/: ") == std::string::npos;
}

// port NAME ctx N [id I]
bool read_port(reader &r)
{
    live_conf_port port;
    port.name = peek(r);
    if (!is_link_name(port.name))
        return refuse_next(r, "the name of a link, such as eth1");
    ++r.at;
    for (const live_conf_port &known : r.conf.ports)
        if (known.name == port.name)
            return refuse(r, port.name, "this link is a port already");
    if (!need(r, "ctx") || !need_ctx(r, &port.ctx))
        return false;
    std::uint32_t id = 0;
    if (take(r, "id")) {
        if (!need_number(r, "an interface id", 1, LIVE_MAX_PORT_ID, &id))
            return false;
        for (const live_conf_port &known : r.conf.ports)
            if (known.id == id)
                return refuse(r, r.words[r.at - 1], "this is the interface id of " + known.name);
        port.id = id;
    }
    r.conf.ports.push_back(port);
    return need_end(r);
}

// stale TIME
bool read_stale(reader &r)
{
    constexpr std::uint32_t HOUR_MS = 3'600'000;
    const std::string word = peek(r);
    const std::size_t digits = std::min(word.find_first_not_of("0123456789"), word.size());
    const std::string unit = word.substr(digits);
    const std::uint32_t unit_ms = unit == "ms" ? 1 : 1000;
    const auto number = number_parse(word.substr(0, digits), HOUR_MS / unit_ms);
    if (!number || *number == 0 || (unit != "ms" && unit != "s"))
        return refuse_next(r, "a time such as 500ms or 10s, an hour at most");
    r.conf.stale_ms = *number * unit_ms;
    ++r.at;
    return need_end(r);
}

// pins FOLDER
bool read_pins(reader &r)
{
    if (peek(r).substr(0, 1) != "/")
        return refuse_next(r, "the path of a folder, such as /sys/fs/bpf/card");
    r.conf.pins = peek(r);
    ++r.at;
    return need_end(r);
}

bool read_statement(reader &r)
{
    if (take(r, "context"))
        return read_context(r);
    if (take(r, "port"))
        return read_port(r);
    if (take(r, "stale"))
        return read_stale(r);
    if (take(r, "pins"))
        return read_pins(r);
    return refuse_next(r, "context, port, stale or pins");
}
} // namespace

std::uint32_t live_conf_table(const live_conf &conf, std::uint32_t ctx)
{
    const auto found = conf.tables.find(ctx);
    return found == conf.tables.end() ? KERNEL_TABLE_MAIN : found->second;
}

int live_conf_parse(const std::string &name, const std::string &text, live_conf *conf, std::string *error)
{
    reader r;
    r.conf = *conf;
    std::istringstream lines(text);
    std::string line;
    for (unsigned number = 1; std::getline(lines, line); ++number) {
        std::istringstream words(line.substr(0, line.find('#')));
        r.words.assign(std::istream_iterator<std::string>(words), {});
        r.at = 0;
        if (r.words.empty() || read_statement(r))
            continue;
        *error = fmt::format("{}:{}: {}", name, number, r.error);
        return 1;
    }
    *conf = r.conf;
    return 0;
}

int live_conf_read(const std::string &path, live_conf *conf, std::string *error)
{
    std::ifstream file(path);
    std::error_code none;
    if (!file && errno == ENOENT)
        return 0;
    if (!file || std::filesystem::is_directory(path, none)) {
        *error = path + ": " + std::strerror(file ? EISDIR : errno);
        return 1;
    }
    std::ostringstream text;
    text << file.rdbuf();
    return live_conf_parse(path, text.str(), conf, error);
}
