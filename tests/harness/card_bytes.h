// card_bytes.h - what the card's processes share, as bytes: typed here a second time, from the contract alone.
//
// These are the forms that tests write and expect. Nothing of the platform or of the process is used, so a mistake in
// the code that keeps the contract cannot hide in the tests.
// Always: bytes in, bytes out; no socket, no file, no state.
// Elsewhere: who sends and receives them (daemon.h), the route tables (tables.h).
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace harness
{
using byte_string = std::vector<std::uint8_t>;
using text_lines = std::vector<std::string>;

constexpr std::uint32_t IP(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d)
{
    return a << 24 | b << 16 | c << 8 | d;
}

// A text as printf makes it.
[[gnu::format(printf, 1, 2)]] std::string text(const char *format, ...);
[[gnu::format(printf, 1, 0)]] std::string vtext(const char *format, std::va_list arguments);

// The card that most tests start from: an interface that is up and routes, a host on it.
constexpr std::uint16_t CTX = 3, IFID = 5, ENCAP = 0x1234;
constexpr std::uint32_t IF_ADDR = IP(10, 1, 0, 1), GATEWAY = IP(10, 1, 0, 9);
constexpr std::uint32_t MASK8 = 0xFF000000, MASK16 = 0xFFFF0000, MASK24 = 0xFFFFFF00, MASK32 = 0xFFFFFFFF;

// Numbers, most significant byte first.
void put16(byte_string &to, std::uint32_t value);
void put32(byte_string &to, std::uint32_t value);
std::uint32_t get32(const byte_string &from, std::size_t at); // 0 beyond the end
byte_string word_bytes(const std::vector<std::uint32_t> &numbers);
byte_string text_bytes(std::string_view text);
byte_string joined(const std::vector<byte_string> &parts);

// --- Remote calls. An argument: type code and bytes.

constexpr std::uint32_t CALL_MAGIC = 0x544E5251, REPLY_MAGIC = 0x544E5250; // "TNRQ", "TNRP"
struct rpc_arg {
    std::uint32_t code;
    byte_string bytes;
};
rpc_arg arg_small(std::uint32_t value); // code 0
rpc_arg arg16(std::uint32_t value);     // code 1
rpc_arg arg32(std::uint32_t value);     // code 2
rpc_arg arg_ref(std::uint32_t value);   // code 8, 4 bytes
rpc_arg arg_ref16(std::uint32_t value); // code 8, 2 bytes
rpc_arg arg_block();                    // code 9

// A call by its procedure's name.
struct remote_call {
    std::string name;
    std::vector<rpc_arg> args;
    std::vector<std::uint32_t> numbers() const; // of the arguments; 0 for a block
};
// The route manager's that tests make again and again.
remote_call call_host_add(std::uint32_t host, std::uint32_t encap = ENCAP, std::uint32_t ifid = IFID,
                          std::uint32_t ctx = CTX);
remote_call call_host_remove(std::uint32_t host, std::uint32_t encap = ENCAP, std::uint32_t ifid = IFID,
                             std::uint32_t ctx = CTX);
remote_call call_route_add(std::uint32_t prefix, std::uint32_t mask, std::uint32_t nexthop, std::uint32_t ctx = CTX);
remote_call call_route_remove(std::uint32_t prefix, std::uint32_t mask, std::uint32_t nexthop, std::uint32_t ctx = CTX);
remote_call call_pool_add(std::uint32_t first, std::uint32_t count, std::uint32_t encap = ENCAP,
                          std::uint32_t ifid = IFID, std::uint32_t ctx = CTX);
remote_call call_pool_remove(std::uint32_t first, std::uint32_t count, std::uint32_t encap = ENCAP,
                             std::uint32_t ifid = IFID, std::uint32_t ctx = CTX);

void put_argument(byte_string &to, const rpc_arg &arg); // type code, 0, length, bytes
byte_string rpc_record(std::uint32_t transaction, const remote_call &call);
inline byte_string rpc_record(std::uint32_t transaction, const std::string &name, const std::vector<rpc_arg> &args)
{
    return rpc_record(transaction, {name, args});
}
byte_string rpc_reply_record(std::uint32_t transaction, std::uint32_t status, std::uint32_t result,
                             const std::vector<rpc_arg> &values = {});

// --- Messages.

constexpr std::uint32_t MESSAGE_MAGIC = 0x4D545331; // "MTS1"
constexpr std::uint32_t EVENT_CREATED = 4063, EVENT_DELETED = 4064, EVENT_UP = 4065, EVENT_DOWN = 4066,
                        EVENT_ENCAP_ACQUIRE = 4069, EVENT_ENCAP_RELEASE = 4070, EVENT_CHANGED = 4089;
constexpr std::uint32_t IF_ADDED = 0x1005, IF_REMOVED = 0x1006, DEBUG_REQUEST = 1530, DEBUG_ANSWER = 1531;
constexpr std::uint32_t ROUTE_MANAGER_SAP = 514;

byte_string message_bytes(std::uint32_t opcode, std::uint32_t sap, const byte_string &payload = {});

// What an event of the interface manager says. Bytes that no one reads are 0xEE.
struct interface_state {
    std::uint32_t ifid = IFID, ctx = CTX, addr = IF_ADDR, mask = MASK24, rmode = 1;
};
byte_string state_payload(const interface_state &state = {});
struct address_change {
    std::uint32_t old_addr, ifid = IFID, old_mask = MASK24, word = 0x80000000;
};
byte_string change_payload(const address_change &change);

// --- The interface database.

struct interface_record {
    std::uint32_t ifid, flags, rmode, bvi, address, mask, context, vlan;
};
constexpr std::uint32_t IF_EXISTS = 1, IF_UP = 2, IF_ADDRESS = 4, IF_CONTEXT = 8, IF_VLAN = 16;
constexpr std::uint32_t IF_USUAL = IF_EXISTS | IF_UP | IF_ADDRESS | IF_CONTEXT;
constexpr std::size_t interface_at(std::uint32_t ifid) { return 64 + 32 * std::size_t{ifid}; } // its record's offset
std::string interfaces_image(const std::vector<interface_record> &interfaces);                 // the whole file

// --- The event history.

struct history_record {
    std::uint32_t type;
    std::uint64_t time;
    std::string data;
    std::uint64_t end; // position in the history behind it, as `head` counts
    // Of the route manager's records: the category word, and the text without its NUL.
    std::uint32_t category() const;
    std::string text() const;
};
struct history {
    bool valid = false;
    std::uint64_t capacity = 0, tail = 0, head = 0;
    std::vector<history_record> records; // oldest first
};
// The records in `ring`, which holds the bytes from `h.tail` on in one piece. False with those before the first that is
// none.
bool history_parse(history &h, std::string_view ring);
bool history_has(const history &from, std::uint32_t category, std::string_view text); // a record of just this text
} // namespace harness
