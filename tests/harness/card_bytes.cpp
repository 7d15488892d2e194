// card_bytes.cpp - making and reading the forms that the card's processes share.
#include "card_bytes.h"

#include <cstdio>
#include <cstring>

namespace harness
{
namespace
{
rpc_arg arg_bytes(std::uint32_t code, std::uint32_t value, unsigned bytes)
{
    rpc_arg arg{code, {}};
    for (unsigned i = bytes; i-- > 0;)
        arg.bytes.push_back(static_cast<std::uint8_t>(value >> 8 * i));
    return arg;
}

// Host-order number out of a file's bytes.
template <class T> T number_at(std::string_view image, std::size_t at)
{
    T value;
    std::memcpy(&value, image.data() + at, sizeof value);
    return value;
}
} // namespace

std::string vtext(const char *format, std::va_list arguments)
{
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string made(static_cast<std::size_t>(length), '\0');
    (void)std::vsnprintf(made.data(), made.size() + 1, format, arguments);
    return made;
}

std::string text(const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    std::string made = vtext(format, arguments);
    va_end(arguments);
    return made;
}

void put16(byte_string &to, std::uint32_t value)
{
    to.push_back(static_cast<std::uint8_t>(value >> 8));
    to.push_back(static_cast<std::uint8_t>(value));
}

void put32(byte_string &to, std::uint32_t value)
{
    put16(to, value >> 16);
    put16(to, value);
}

std::uint32_t get32(const byte_string &from, std::size_t at)
{
    if (at + 4 > from.size())
        return 0;
    return IP(from[at], from[at + 1], from[at + 2], from[at + 3]);
}

byte_string word_bytes(const std::vector<std::uint32_t> &numbers)
{
    byte_string bytes;
    for (const std::uint32_t number : numbers)
        put32(bytes, number);
    return bytes;
}

byte_string text_bytes(std::string_view text) { return byte_string(text.begin(), text.end()); }

byte_string joined(const std::vector<byte_string> &parts)
{
    byte_string all;
    for (const byte_string &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

rpc_arg arg_small(std::uint32_t value) { return arg_bytes(0, value, 1); }
rpc_arg arg16(std::uint32_t value) { return arg_bytes(1, value, 2); }
rpc_arg arg32(std::uint32_t value) { return arg_bytes(2, value, 4); }
rpc_arg arg_ref(std::uint32_t value) { return arg_bytes(8, value, 4); }
rpc_arg arg_ref16(std::uint32_t value) { return arg_bytes(8, value, 2); }
rpc_arg arg_block() { return {9, {}}; }

std::vector<std::uint32_t> remote_call::numbers() const
{
    std::vector<std::uint32_t> values;
    for (const rpc_arg &arg : args) {
        std::uint32_t &value = values.emplace_back(0);
        for (const std::uint8_t byte : arg.bytes)
            value = value << 8 | byte;
    }
    return values;
}

remote_call call_host_add(std::uint32_t host, std::uint32_t encap, std::uint32_t ifid, std::uint32_t ctx)
{
    return {"arp_prefix_mgr_add_route", {arg16(1), arg32(host), arg32(32), arg16(encap), arg16(ifid), arg32(ctx)}};
}

remote_call call_host_remove(std::uint32_t host, std::uint32_t encap, std::uint32_t ifid, std::uint32_t ctx)
{
    return {"arp_prefix_mgr_remove_route",
            {arg16(1), arg32(host), arg32(32), arg32(0), arg16(encap), arg16(ifid), arg32(ctx)}};
}

remote_call call_route_add(std::uint32_t prefix, std::uint32_t mask, std::uint32_t nexthop, std::uint32_t ctx)
{
    return {"rib_add_route", {arg16(ctx), arg32(ctx), arg32(prefix), arg32(mask), arg32(nexthop)}};
}

remote_call call_route_remove(std::uint32_t prefix, std::uint32_t mask, std::uint32_t nexthop, std::uint32_t ctx)
{
    return {"rib_remove_route", {arg16(ctx), arg32(ctx), arg32(prefix), arg32(mask), arg32(nexthop)}};
}

remote_call call_pool_add(std::uint32_t first, std::uint32_t count, std::uint32_t encap, std::uint32_t ifid,
                          std::uint32_t ctx)
{
    return {"rib_add_nat_pool", {arg16(ctx), arg16(ifid), arg32(first), arg32(count), arg16(encap)}};
}

remote_call call_pool_remove(std::uint32_t first, std::uint32_t count, std::uint32_t encap, std::uint32_t ifid,
                             std::uint32_t ctx)
{
    return {"rib_remove_nat_pool", {arg16(ctx), arg16(ifid), arg32(first), arg32(count), arg16(encap)}};
}

void put_argument(byte_string &to, const rpc_arg &arg)
{
    put16(to, arg.code);
    put16(to, 0);
    put32(to, static_cast<std::uint32_t>(arg.bytes.size()));
    to.insert(to.end(), arg.bytes.begin(), arg.bytes.end());
}

byte_string rpc_record(std::uint32_t transaction, const remote_call &call)
{
    byte_string record = word_bytes({CALL_MAGIC, transaction});
    put16(record, static_cast<std::uint32_t>(call.name.size()));
    put16(record, static_cast<std::uint32_t>(call.args.size()));
    record.insert(record.end(), call.name.begin(), call.name.end());
    for (const rpc_arg &arg : call.args)
        put_argument(record, arg);
    return record;
}

byte_string rpc_reply_record(std::uint32_t transaction, std::uint32_t status, std::uint32_t result,
                             const std::vector<rpc_arg> &values)
{
    byte_string record = word_bytes({REPLY_MAGIC, transaction, status, result});
    for (const rpc_arg &value : values)
        put_argument(record, value);
    return record;
}

byte_string message_bytes(std::uint32_t opcode, std::uint32_t sap, const byte_string &payload)
{
    return joined({word_bytes({MESSAGE_MAGIC, opcode, 0, sap}), payload});
}

byte_string state_payload(const interface_state &state)
{
    constexpr std::size_t MASK_AT = 21, MODE_AT = 44;
    byte_string payload;
    put16(payload, state.ifid);
    put16(payload, state.ctx);
    put32(payload, state.addr);
    payload.resize(MASK_AT, 0xEE);
    put32(payload, state.mask);
    payload.resize(MODE_AT, 0xEE);
    put32(payload, state.rmode);
    return payload;
}

byte_string change_payload(const address_change &change)
{
    return word_bytes({change.ifid, change.word, change.old_addr, change.old_mask});
}

std::string interfaces_image(const std::vector<interface_record> &interfaces)
{
    constexpr std::uint32_t HEADER[] = {0x49464442, 1, 32, 8192}; // "IFDB", version, bytes of a record, records
    std::string image(interface_at(HEADER[3]), '\0');
    std::memcpy(image.data(), HEADER, sizeof HEADER);
    for (const interface_record &i : interfaces) {
        const std::uint32_t record[] = {0, i.flags, i.rmode, i.bvi, i.address, i.mask, i.context, i.vlan};
        std::memcpy(image.data() + interface_at(i.ifid), record, sizeof record);
    }
    return image;
}

std::uint32_t history_record::category() const
{
    return data.size() < 4 ? ~std::uint32_t{0} : number_at<std::uint32_t>(data, 0);
}

std::string history_record::text() const { return data.size() < 5 ? "" : data.substr(4, data.size() - 5); }

bool history_parse(history &h, std::string_view ring)
{
    constexpr std::size_t HEAD = 20;
    for (std::size_t at = 0; at < ring.size();) {
        const std::size_t left = ring.size() - at;
        const std::size_t size = left >= HEAD ? number_at<std::uint32_t>(ring, at) : 0;
        if (size < HEAD || size % 8 != 0 || size > left)
            return false;
        const std::size_t length = number_at<std::uint32_t>(ring, at + 16);
        if ((HEAD + length + 7) / 8 * 8 != size)
            return false;
        h.records.push_back({number_at<std::uint32_t>(ring, at + 4), number_at<std::uint64_t>(ring, at + 8),
                             std::string(ring.substr(at + HEAD, length)), h.tail + at + size});
        at += size;
    }
    return true;
}

bool history_has(const history &from, std::uint32_t category, std::string_view text)
{
    for (const history_record &record : from.records)
        if (record.category() == category && record.text() == text)
            return true;
    return false;
}
} // namespace harness
