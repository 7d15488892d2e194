// card_conf.cpp - the settings of the card, read once from card.conf.
//
// The file is optional and written by hand, so a mistake in it never keeps the card from starting: a line that cannot
// be used is reported with its number and changes nothing.
// Always: each setting has its default or a value inside its range.
// Elsewhere: the settings and their defaults (card_dir.h), the directory that holds the file (card_dir.cpp).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_files.h"

namespace
{
constexpr std::uint32_t U32_MAX = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t INT_LIMIT = std::numeric_limits<std::int32_t>::max();

// The wired region lies below 4 GiB as a whole. Its words are the addresses of what they name, with their lowest bit
// for a node, so an odd base would make leaves of nodes.
constexpr std::uint32_t WIRED_BASE_STEP = 0x1000, WIRED_BASE_MAX = 0 - HW_WIRED_BYTES;
static_assert(WIRED_BASE_MAX == 0xFEC00000);

struct number_key {
    std::string_view key;
    std::uint32_t min, max, multiple_of;
    void (*set)(card_conf &conf, std::uint32_t value);
};
constexpr number_key NUMBER_KEYS[] = {
    {"slot", 1, INT_LIMIT, 1, [](card_conf &c, std::uint32_t v) { c.slot = v; }},
    {"num_ixp", 0, 2, 1, [](card_conf &c, std::uint32_t v) { c.num_ixp = v; }},
    {"wired_phys_base", 0, WIRED_BASE_MAX, WIRED_BASE_STEP,
     [](card_conf &c, std::uint32_t v) { c.wired_phys_base = v; }},
    {"supervisor_address", 0, 255, 1,
     [](card_conf &c, std::uint32_t v) { c.supervisor_address = static_cast<std::uint8_t>(v); }},
    {"rpc_timeout_ms", 1, INT_LIMIT, 1, [](card_conf &c, std::uint32_t v) { c.rpc_timeout_ms = v; }},
};

// A setting that is one of two words, of which the first is the default.
struct word_key {
    std::string_view key, usual, other;
    const char *wrong;
    void (*set)(card_conf &conf, bool is_other);
};
constexpr const char *NO_MEMORY_KIND = "is neither file nor provider";
constexpr word_key WORD_KEYS[] = {
    {"route_cache", "none", "kernel", "is neither none nor kernel",
     [](card_conf &c, bool is_kernel) { c.route_cache_kernel = is_kernel; }},
    {"ixp1", "file", "provider", NO_MEMORY_KIND,
     [](card_conf &c, bool is_provider) { c.ixp_is_provided[0] = is_provider; }},
    {"ixp2", "file", "provider", NO_MEMORY_KIND,
     [](card_conf &c, bool is_provider) { c.ixp_is_provided[1] = is_provider; }},
};

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t\r\n\v\f";
    const std::size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

// The value of a decimal digit or a hexadecimal one of either case; 16 for any other character.
constexpr unsigned digit_of(char c)
{
    if (c >= '0' && c <= '9')
        return static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'f')
        return static_cast<unsigned>(c - 'a') + 10;
    return c >= 'A' && c <= 'F' ? static_cast<unsigned>(c - 'A') + 10 : 16;
}

// Reads a number, decimal or 0x hexadecimal. Returns false when it is none or does not fit 32 bits.
constexpr bool read_number(std::string_view text, std::uint32_t &out)
{
    unsigned base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    }
    std::uint64_t value = 0;
    for (const char c : text) {
        const unsigned digit = digit_of(c);
        if (digit >= base)
            return false;
        value = value * base + digit;
        if (value > U32_MAX)
            return false;
    }
    out = static_cast<std::uint32_t>(value);
    return !text.empty();
}

// Takes one setting over. Returns null, or what is wrong with it.
const char *apply(card_conf &conf, std::string_view key, std::string_view value)
{
    for (const word_key &known : WORD_KEYS) {
        if (known.key != key)
            continue;
        if (value != known.usual && value != known.other)
            return known.wrong;
        known.set(conf, value == known.other);
        return nullptr;
    }
    for (const number_key &known : NUMBER_KEYS) {
        if (known.key != key)
            continue;
        std::uint32_t number = 0;
        if (!read_number(value, number))
            return "is not a number of 32 bits";
        if (number < known.min || number > known.max)
            return "is out of range";
        if (number % known.multiple_of != 0)
            return "is not aligned";
        known.set(conf, number);
        return nullptr;
    }
    return "is an unknown key";
}

void read_line(card_conf &conf, const char *path, unsigned number, std::string_view line)
{
    line = trimmed(line.substr(0, line.find('#')));
    if (line.empty())
        return;
    const std::size_t equals = line.find('=');
    const std::string key(trimmed(line.substr(0, equals)));
    const std::string value(equals == std::string_view::npos ? std::string_view{} : trimmed(line.substr(equals + 1)));
    const char *const wrong = equals == std::string_view::npos ? "is not `key = value`" : apply(conf, key, value);
    if (wrong != nullptr)
        (void)std::fprintf(stderr, "%s: %s: line %u: `%.*s` %s; nothing is changed\n", program_invocation_short_name,
                           path, number, static_cast<int>(line.size() < 80 ? line.size() : 80), line.data(), wrong);
}

// Opens the file for reading; null when there is none or it cannot be read (reported).
std::FILE *open_conf(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0 && errno == ENOENT)
        return nullptr;
    struct stat st = {};
    if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
        return fdopen(fd, "r");
    (void)std::fprintf(stderr, "%s: %s: %s; the defaults stand\n", program_invocation_short_name, path.c_str(),
                       fd < 0 ? std::strerror(errno) : "is not a plain file");
    if (fd >= 0)
        (void)close(fd);
    return nullptr;
}

} // namespace

card_conf card_conf_read(const std::string &path)
{
    card_conf conf;
    std::FILE *const file = open_conf(path);
    if (file == nullptr)
        return conf;
    char *line = nullptr;
    std::size_t room = 0;
    ssize_t length = 0;
    for (unsigned number = 1; (length = getline(&line, &room, file)) >= 0; ++number)
        read_line(conf, path.c_str(), number, std::string_view(line, static_cast<std::size_t>(length)));
    std::free(line);
    (void)std::fclose(file);
    return conf;
}

const card_conf &card_conf_get()
{
    static const card_conf conf =
        card_dir_path().empty() ? card_conf{} : card_conf_read(card_dir_path() + "/" + CARD_CONF_FILE);
    return conf;
}
