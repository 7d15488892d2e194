// live_conf.h - what the operator says about a live card: which links are its ports, and which tables its contexts.
//
// One statement a line, words set apart by blanks, `#` starts a comment; the same statements stand on the command line.
//   context 3 table 100      context 3 searches the kernel's table 100 (main unless it is said)
//   port eth1 ctx 3 id 7     eth1 is a port of context 3, with interface id 7 (a free one unless it is said)
//   stale 10s                without a sign of life for this long, the program sends everything to the kernel
//   pins /sys/fs/bpf/card    where maps and links outlive the program
// Without a port, every Ethernet link that belongs to no other one is a port of context 0.
// Elsewhere: what becomes of it (live_plan.h).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

constexpr std::uint32_t LIVE_MAX_PORT_ID = 1023, LIVE_MAX_CTX = 255;
constexpr const char *LIVE_CONF_FILE = "/etc/card/live.conf";

struct live_conf_port {
    std::string name;
    std::uint32_t ctx = 0;
    std::optional<std::uint32_t> id; // 1 to LIVE_MAX_PORT_ID
};

struct live_conf {
    std::map<std::uint32_t, std::uint32_t> tables; // by context; one that is not named searches main
    std::vector<live_conf_port> ports;             // in the order of their statements; empty: every Ethernet link
    std::uint32_t stale_ms = 10'000;
    std::string pins; // empty: none is given
};
std::uint32_t live_conf_table(const live_conf &conf, std::uint32_t ctx);

// Adds the statements of a text to `conf`. Returns 0, or 1 with `conf` as it was and `error` one line, such as
// "live.conf:7: prot: expected context, port, stale or pins".
[[nodiscard]] int live_conf_parse(const std::string &name, const std::string &text, live_conf *conf,
                                  std::string *error);

// The same from a file. One that does not exist has no statements.
[[nodiscard]] int live_conf_read(const std::string &path, live_conf *conf, std::string *error);
