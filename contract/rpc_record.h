// rpc_record.h - the records of a remote procedure call, as they travel between the card's processes.
//
// One record is one call or one reply, its integers big-endian. A call: magic, transaction, name length, argument
// count, the name without NUL, the arguments. A reply: magic, transaction, status, result, then (status 0 alone) the
// value of each by-reference argument and each block. Everything here is bytes in, numbers out.
// Always: lengths are judged against the bytes received, never believed; a value taken lies inside its record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "big_endian.h"

constexpr std::uint32_t TNRPC_CALL_MAGIC = 0x544E5251;  // "TNRQ"
constexpr std::uint32_t TNRPC_REPLY_MAGIC = 0x544E5250; // "TNRP"

constexpr std::size_t TNRPC_CALL_HEAD = 12;    // magic, transaction, name length and argument count (16 bits each)
constexpr std::size_t TNRPC_REPLY_HEAD = 16;   // magic, transaction, status, result
constexpr std::size_t TNRPC_VALUE_HEAD = 8;    // type code and a zero word (16 bits each), length
constexpr std::size_t TNRPC_CALL_BYTES = 4096; // the largest record that is a call
constexpr std::size_t TNRPC_MAX_NAME = 63;
constexpr unsigned TNRPC_MAX_ARGS = 16;
constexpr std::size_t TNRPC_ENDPOINT_PATH_BYTES = sizeof "rpc/4294967295";
constexpr std::uint32_t TNRPC_FIRST_SERVICE_ENDPOINT = 10; // of the card's services beside the route manager

// Type code of an argument.
enum tnrpc_type : unsigned {
    RPC_ARG_SMALL = 0, // 1 byte, by value
    RPC_ARG_U16 = 1,   // 2 bytes, by value
    RPC_ARG_U32 = 2,   // 4 bytes, by value
    RPC_ARG_REF = 8,   // by reference, in and out; the caller chooses 2 or 4 bytes
    RPC_ARG_BLOCK = 9, // a block of the reply; no bytes in the call
};

enum tnrpc_status : std::uint32_t {
    TNRPC_RAN = 0,           // the procedure ran
    TNRPC_NO_PROCEDURE = 1,  // a readable name that is not served here
    TNRPC_BAD_ARGUMENTS = 2, // not the arguments of the procedure, or a name that cannot be read
    TNRPC_OUT_OF_RANGE = 3,  // an argument over the bound of the procedure
};

// Reads `length` big-endian bytes (0 to 4) as one number.
constexpr std::uint32_t tnrpc_get(const std::uint8_t *bytes, std::size_t length)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < length; ++i)
        value = value << 8 | bytes[i];
    return value;
}

// Writes the low `length` bytes (0 to 4) of `value`, big-endian. Returns the place after them.
constexpr std::uint8_t *tnrpc_put(std::uint8_t *bytes, std::size_t length, std::uint32_t value)
{
    for (std::size_t i = length; i-- > 0; value >>= 8)
        bytes[i] = static_cast<std::uint8_t>(value);
    return bytes + length;
}

constexpr std::uint8_t *tnrpc_put_value_head(std::uint8_t *bytes, unsigned type, std::uint32_t length)
{
    return tnrpc_put(tnrpc_put(tnrpc_put(bytes, 2, type), 2, 0), 4, length);
}

constexpr bool tnrpc_is_type(unsigned type)
{
    return type == RPC_ARG_SMALL || type == RPC_ARG_U16 || type == RPC_ARG_U32 || type == RPC_ARG_REF ||
           type == RPC_ARG_BLOCK;
}

// Whether an argument of `type` may have `length` bytes in a call.
constexpr bool tnrpc_is_call_length(unsigned type, std::uint32_t length)
{
    switch (type) {
    case RPC_ARG_SMALL:
        return length == 1;
    case RPC_ARG_U16:
        return length == 2;
    case RPC_ARG_U32:
        return length == 4;
    case RPC_ARG_REF:
        return length == 2 || length == 4;
    case RPC_ARG_BLOCK:
        return length == 0;
    default:
        return false;
    }
}

// Whether `length` bytes are the name of a procedure: 1 to 63 ASCII characters, none of them NUL.
constexpr bool tnrpc_is_name(const std::uint8_t *name, std::size_t length)
{
    if (length == 0 || length > TNRPC_MAX_NAME)
        return false;
    for (std::size_t i = 0; i < length; ++i)
        if (name[i] == 0 || name[i] > 0x7F)
            return false;
    return true;
}

// What is left of a record while its values are taken one by one.
struct tnrpc_rest {
    const std::uint8_t *bytes;
    std::size_t length;
};

// An argument or a returned value inside a record.
struct tnrpc_value {
    unsigned type;
    std::uint32_t length;
    const std::uint8_t *bytes;
};

// Takes the next value. Returns 0, or 1 when bytes are missing or the reserved word is not 0.
[[nodiscard]] constexpr int tnrpc_take_value(tnrpc_rest &rest, tnrpc_value &value)
{
    if (rest.length < TNRPC_VALUE_HEAD || tnrpc_get(rest.bytes + 2, 2) != 0)
        return 1;
    value.type = tnrpc_get(rest.bytes, 2);
    value.length = tnrpc_get(rest.bytes + 4, 4);
    value.bytes = rest.bytes + TNRPC_VALUE_HEAD;
    rest.length -= TNRPC_VALUE_HEAD;
    if (value.length > rest.length)
        return 1;
    rest.bytes = value.bytes + value.length;
    rest.length -= value.length;
    return 0;
}

// Whether `name` can stand as a link in the directory of names: one path component that is not hidden.
constexpr bool tnrpc_is_link_name(const char *name)
{
    std::size_t length = 0;
    for (; name[length] != 0; ++length) {
        const auto c = static_cast<unsigned char>(name[length]);
        if (length >= TNRPC_MAX_NAME || c > 0x7F || c == '/')
            return false;
    }
    return length != 0 && name[0] != '.';
}

// Reads the target of a name's link, "../" and the endpoint in decimal. Returns 0, or 1 when it has another form.
[[nodiscard]] constexpr int tnrpc_link_endpoint(const char *target, std::size_t length, std::uint32_t &endpoint)
{
    if (length < 4 || length > 13 || target[0] != '.' || target[1] != '.' || target[2] != '/')
        return 1;
    if (target[3] == '0' && length > 4)
        return 1;
    std::uint64_t number = 0;
    for (std::size_t i = 3; i < length; ++i) {
        if (target[i] < '0' || target[i] > '9')
            return 1;
        number = number * 10 + static_cast<unsigned>(target[i] - '0');
    }
    if (number > UINT32_MAX)
        return 1;
    endpoint = static_cast<std::uint32_t>(number);
    return 0;
}
