// side_changes.cpp - choosing one, making it by call or message, and telling the model.
#include "side_changes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

namespace
{
constexpr std::uint32_t ip(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d)
{
    return a << 24 | b << 16 | c << 8 | d;
}

constexpr std::uint32_t IFID = CHANGE_FIRST_IFID + CHANGE_INTERFACES, ADDRESS = ip(10, 60, 0, 1), MASK = 0xFFFFFF00;
constexpr std::uint32_t UP_FLAGS = IF_EXISTS | IF_UP | IF_ADDRESS | IF_CONTEXT;
constexpr std::uint32_t EVENT_UP = 4065, EVENT_DOWN = 4066, DEBUG_ANSWER = 1531, DEBUG_COUNTERS = 5;
constexpr std::uint32_t HOSTS[] = {ip(10, 60, 0, 5), ip(10, 60, 0, 6), ip(10, 60, 0, 70)};
constexpr std::uint32_t FIRST_ENCAP = 0x2001;
constexpr model_key STATICS[] = {{16, ip(10, 70, 0, 0)}, {24, ip(10, 71, 1, 0)}};
struct pool {
    std::uint32_t first, count, encap;
};
constexpr pool POOLS[] = {{ip(10, 60, 0, 32), 32, 7}, {ip(10, 80, 0, 1), 6, 8}}; // one prefix, and four

// A call with the same arguments on the card and in the model.
bool call_both(side_changes &side, const char *procedure, const std::vector<std::uint32_t> &numbers,
               const std::vector<rpc_arg> &args)
{
    return random_changes_beside(
        side.all, [&](plain_model &model) { return model.call(procedure, numbers).result; },
        [&] {
            const rpc_reply reply = rpc_call(side.connection, procedure, args);
            if (!reply.arrived || reply.status != 0)
                throw std::runtime_error(std::string(procedure) + ": no answer");
            return reply.result;
        });
}

// The flags of the interface as its manager stores them: one word, whole.
void store_flags(const side_changes &side, std::uint32_t flags)
{
    constexpr off_t AT = 64 + 32 * IFID + 4;
    const int fd = ::open(side.interfaces.c_str(), O_WRONLY | O_CLOEXEC);
    const bool done = fd >= 0 && ::pwrite(fd, &flags, sizeof flags, AT) == sizeof flags;
    if (fd >= 0)
        ::close(fd);
    if (!done)
        throw std::runtime_error(side.interfaces + ": " + std::strerror(errno));
}

bool change_interface(side_changes &side)
{
    byte_string payload;
    put16(payload, IFID);
    put16(payload, CHANGE_SIDE_CONTEXT);
    put32(payload, ADDRESS);
    payload.resize(21);
    put32(payload, MASK);
    payload.resize(44);
    put32(payload, 1); // it routes by itself
    side.is_up = !side.is_up;
    const std::uint32_t opcode = side.is_up ? EVENT_UP : EVENT_DOWN;
    return random_changes_beside(
        side.all,
        [&](plain_model &model) {
            model.interfaces[IFID].up = side.is_up;
            model.event(opcode, payload);
            return 0u;
        },
        [&] {
            store_flags(side, side.is_up ? UP_FLAGS : UP_FLAGS & ~IF_UP);
            mts_send(side.queue, opcode, payload);
            (void)side_debug_answer(side.queue, DEBUG_COUNTERS); // messages are taken in their order
            return 0u;
        });
}

bool change_pool(side_changes &side)
{
    const std::size_t i = side.random() % std::size(POOLS);
    const auto &[first, count, encap] = POOLS[i];
    side.pools.resize(std::size(POOLS));
    side.pools[i] = !side.pools[i];
    return call_both(side, side.pools[i] ? "rib_add_nat_pool" : "rib_remove_nat_pool",
                     {CHANGE_SIDE_CONTEXT, IFID, first, count, encap},
                     {arg16(CHANGE_SIDE_CONTEXT), arg16(IFID), arg32(first), arg32(count), arg16(encap)});
}

bool change_host(side_changes &side)
{
    const std::uint32_t i = static_cast<std::uint32_t>(side.random() % std::size(HOSTS)), host = HOSTS[i];
    const std::uint32_t encap = FIRST_ENCAP + i;
    if (side.all.model.rib[CHANGE_SIDE_CONTEXT].contains({32, host}))
        return call_both(
            side, "arp_prefix_mgr_remove_route", {MODEL_OBJ_HOST, host, 32, 0, encap, IFID, CHANGE_SIDE_CONTEXT},
            {arg16(1), arg32(host), arg32(32), arg32(0), arg16(encap), arg16(IFID), arg32(CHANGE_SIDE_CONTEXT)});
    if (!side.is_up) // nobody is heard on it
        return change_interface(side);
    return call_both(side, "arp_prefix_mgr_add_route", {MODEL_OBJ_HOST, host, 32, encap, IFID, CHANGE_SIDE_CONTEXT},
                     {arg16(1), arg32(host), arg32(32), arg16(encap), arg16(IFID), arg32(CHANGE_SIDE_CONTEXT)});
}

bool change_static(side_changes &side)
{
    const auto &[len, prefix] = STATICS[side.random() % std::size(STATICS)];
    const std::uint32_t gateway = HOSTS[side.random() % std::size(HOSTS)], mask = plain_mask(len);
    const std::vector<model_path> *set = model_set(side.all.model, CHANGE_SIDE_CONTEXT, {len, prefix});
    const bool there = set != nullptr && std::any_of(set->begin(), set->end(), [gateway](const model_path &path) {
                           return path.nexthop == gateway;
                       });
    return call_both(
        side, there ? "rib_remove_route" : "rib_add_route",
        {CHANGE_SIDE_CONTEXT, CHANGE_SIDE_CONTEXT, prefix, mask, gateway},
        {arg16(CHANGE_SIDE_CONTEXT), arg32(CHANGE_SIDE_CONTEXT), arg32(prefix), arg32(mask), arg32(gateway)});
}
} // namespace

bool side_next(side_changes &side)
{
    static constexpr bool (*CHANGES[SIDE_KINDS])(side_changes &) = {change_interface, change_pool, change_host,
                                                                    change_static};
    model_interface &ours = side.all.model.interfaces[IFID];
    ours.up = side.is_up;
    ours.address = ADDRESS;
    ours.ctx = CHANGE_SIDE_CONTEXT;
    const unsigned kind = static_cast<unsigned>(side.random() % SIDE_KINDS);
    ++side.made[kind];
    return CHANGES[kind](side);
}

interface_record side_interface() { return {IFID, UP_FLAGS & ~IF_UP, 1, 0, ADDRESS, MASK, CHANGE_SIDE_CONTEXT, 0}; }

std::string side_message(const mts_queue &queue, std::uint32_t opcode)
{
    for (;;) {
        mts_message message = mts_receive(queue);
        if (message.opcode == opcode)
            return std::move(message.payload);
        if (message.opcode == 0)
            throw std::runtime_error("the route manager does not answer a message");
    }
}

std::string side_debug_answer(const mts_queue &queue, std::uint32_t verb)
{
    debug_request(queue, verb, 0, 0, 0);
    return side_message(queue, DEBUG_ANSWER);
}
