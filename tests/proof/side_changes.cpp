// side_changes.cpp - choosing one, making it by call or message, and telling the model.
#include "side_changes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

namespace harness
{
namespace
{
constexpr std::uint32_t SIDE_IFID = CHANGE_FIRST_IFID + CHANGE_INTERFACES, ADDRESS = IP(10, 60, 0, 1);
constexpr std::uint32_t DEBUG_COUNTERS = 5;
constexpr std::uint32_t HOSTS[] = {IP(10, 60, 0, 5), IP(10, 60, 0, 6), IP(10, 60, 0, 70)};
constexpr std::uint32_t FIRST_ENCAP = 0x2001;
constexpr model_key STATICS[] = {{16, IP(10, 70, 0, 0)}, {24, IP(10, 71, 1, 0)}};
struct pool {
    std::uint32_t first, count, encap;
};
constexpr pool POOLS[] = {{IP(10, 60, 0, 32), 32, 7}, {IP(10, 80, 0, 1), 6, 8}}; // one prefix, and four

// The same call on the card and in the model.
bool call_both(side_changes &side, const remote_call &call)
{
    return random_changes_beside(
        side.all, [&](plain_model &model) { return model.call(call.name, call.numbers()).result; },
        [&] { return change_by_call(side.connection, call); });
}

// The flags of the interface as its manager stores them: one word, whole.
void store_flags(const side_changes &side, std::uint32_t flags)
{
    constexpr off_t AT = interface_at(SIDE_IFID) + 4;
    const int fd = ::open(side.interfaces.c_str(), O_WRONLY | O_CLOEXEC);
    const bool done = fd >= 0 && ::pwrite(fd, &flags, sizeof flags, AT) == sizeof flags;
    if (fd >= 0)
        ::close(fd);
    if (!done)
        throw std::runtime_error(side.interfaces + ": " + std::strerror(errno));
}

bool change_interface(side_changes &side)
{
    const byte_string payload = state_payload({.ifid = SIDE_IFID, .ctx = CHANGE_SIDE_CONTEXT, .addr = ADDRESS});
    side.is_up = !side.is_up;
    const std::uint32_t opcode = side.is_up ? EVENT_UP : EVENT_DOWN;
    return random_changes_beside(
        side.all,
        [&](plain_model &model) {
            model.interfaces[SIDE_IFID].up = side.is_up;
            model.event(opcode, payload);
            return 0u;
        },
        [&] {
            store_flags(side, side.is_up ? IF_USUAL : IF_USUAL & ~IF_UP);
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
    const auto call = side.pools[i] ? call_pool_add : call_pool_remove;
    return call_both(side, call(first, count, encap, SIDE_IFID, CHANGE_SIDE_CONTEXT));
}

bool change_host(side_changes &side)
{
    const std::uint32_t i = static_cast<std::uint32_t>(side.random() % std::size(HOSTS)), host = HOSTS[i];
    const std::uint32_t encap = FIRST_ENCAP + i;
    if (side.all.model.rib[CHANGE_SIDE_CONTEXT].contains({32, host}))
        return call_both(side, call_host_remove(host, encap, SIDE_IFID, CHANGE_SIDE_CONTEXT));
    if (!side.is_up) // nobody is heard on it
        return change_interface(side);
    return call_both(side, call_host_add(host, encap, SIDE_IFID, CHANGE_SIDE_CONTEXT));
}

bool change_static(side_changes &side)
{
    const auto &[len, prefix] = STATICS[side.random() % std::size(STATICS)];
    const std::uint32_t gateway = HOSTS[side.random() % std::size(HOSTS)], mask = plain_mask(len);
    const std::vector<model_path> *set = model_set(side.all.model, CHANGE_SIDE_CONTEXT, {len, prefix});
    const bool there = set != nullptr && std::any_of(set->begin(), set->end(), [gateway](const model_path &path) {
                           return path.nexthop == gateway;
                       });
    const auto call = there ? call_route_remove : call_route_add;
    return call_both(side, call(prefix, mask, gateway, CHANGE_SIDE_CONTEXT));
}
} // namespace

bool side_next(side_changes &side)
{
    static constexpr bool (*CHANGES[SIDE_KINDS])(side_changes &) = {change_interface, change_pool, change_host,
                                                                    change_static};
    model_interface &ours = side.all.model.interfaces[SIDE_IFID];
    ours.up = side.is_up;
    ours.address = ADDRESS;
    ours.ctx = CHANGE_SIDE_CONTEXT;
    const unsigned kind = static_cast<unsigned>(side.random() % SIDE_KINDS);
    ++side.made[kind];
    return CHANGES[kind](side);
}

std::uint32_t change_by_call(int connection, const remote_call &call)
{
    const rpc_reply reply = rpc_call(connection, call);
    if (!reply.arrived || reply.status != 0)
        throw std::runtime_error(call.name + ": no answer");
    return reply.result;
}

interface_record side_interface()
{
    return {SIDE_IFID, IF_USUAL & ~IF_UP, 1, 0, ADDRESS, MASK24, CHANGE_SIDE_CONTEXT, 0};
}

std::string side_message(const mts_queue &queue, std::uint32_t opcode)
{
    for (;;) {
        received_message message = mts_receive(queue);
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
} // namespace harness
