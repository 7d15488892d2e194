// fake_rpc.cpp - the RPC service as a test's card has it: procedures by name, calls made at once or queued.
//
// The server's descriptor is a real one that polls readable exactly while a call waits. Limits are judged as the real
// server judges them: over the whole argument, before the procedure runs.
// Always: tnrpc_register keeps a procedure also when the endpoint was refused.
#include <cstdarg>
#include <string>

#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fake_call.h"
#include "fake_card.h"

using namespace harness;

namespace
{

std::string hex(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

struct reference {
    std::uint32_t *word;
    unsigned size;
};

} // namespace

fake_reply fake_card::call(const std::string &procedure, const std::vector<std::uint32_t> &args)
{
    const auto it = procedures.find(procedure);
    if (it == procedures.end())
        return {1, 0, {}, {}};
    const fake_procedure &served = it->second;
    if (args.size() != served.types.size())
        return {2, 0, {}, {}};
    for (const auto &[index, max] : served.limits)
        if (args[index] > max)
            return {3, 0, {}, {}};
    std::vector<std::uint32_t> words(args);
    std::vector<tnrpc_block> returned(args.size(), tnrpc_block{0, nullptr});
    std::vector<tnrpc_arg> decoded;
    for (std::size_t i = 0; i < args.size(); ++i)
        decoded.push_back({words[i], &words[i], &returned[i]});
    fake_reply reply{0, served.function(decoded.data()), {}, {}};
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (served.types[i] == RPC_ARG_REF)
            reply.refs.push_back(words[i]);
        if (served.types[i] != RPC_ARG_BLOCK)
            continue;
        const auto *data = reinterpret_cast<const std::uint8_t *>(returned[i].data.get());
        reply.blocks.emplace_back(data, data + (data == nullptr ? 0 : returned[i].length));
        mtrack_free(returned[i].data);
    }
    return reply;
}

void fake_card::post_call(const std::string &procedure, std::vector<std::uint32_t> args)
{
    rpc_queue.emplace_back(procedure, std::move(args));
    const std::uint64_t one = 1;
    if (write(rpc_fd, &one, sizeof one) != sizeof one)
        ADD_FAILURE() << "the endpoint is not open";
}

int tnrpc_serv_init(std::uint32_t endpoint)
{
    fake_called("tnrpc_serv_init %u", endpoint);
    if (the_card().tnrpc_serv_fails)
        return -1;
    return the_card().rpc_fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
}

int tnrpc_register(const char *name, tnrpc_function function, unsigned arg_count, ...)
{
    fake_procedure served{function, {}, {}};
    std::string entry = std::string("tnrpc_register ") + name + " " + std::to_string(arg_count) + ":";
    std::va_list arguments;
    va_start(arguments, arg_count);
    for (unsigned i = 0; i < arg_count; ++i) {
        served.types.push_back(va_arg(arguments, unsigned));
        entry += " " + std::to_string(served.types.back());
    }
    va_end(arguments);
    fake_called("%s", entry.c_str());
    the_card().procedures[name] = served;
    return 0;
}

int tnrpc_limit(const char *name, unsigned index, std::uint32_t max)
{
    const auto it = the_card().procedures.find(name);
    if (it == the_card().procedures.end() || index >= it->second.types.size())
        return -1;
    it->second.limits[index] = max;
    return 0;
}

int tnrpc_unregister(const char *name)
{
    fake_called("tnrpc_unregister %s", name);
    return the_card().procedures.erase(name) == 1 ? 0 : -1;
}

int tnrpc_process(int descriptor)
{
    fake_called("tnrpc_process %s", fake_descriptor_name(descriptor).c_str());
    fake_card &card = the_card();
    std::uint64_t one = 0;
    if (card.rpc_queue.empty() || read(card.rpc_fd, &one, sizeof one) != sizeof one)
        return -1;
    const auto waiting = card.rpc_queue.front();
    card.rpc_queue.pop_front();
    (void)card.call(waiting.first, waiting.second); // the answer is the caller's business
    return 0;
}

int tnrpc_clnt_init(std::uint32_t endpoint)
{
    fake_called("tnrpc_clnt_init %u", endpoint);
    return the_card().tnrpc_clnt_result;
}

std::uint32_t tnrpc_call(const char *name, unsigned arg_count, ...)
{
    std::string entry = std::string("tnrpc_call ") + name;
    std::vector<reference> references;
    std::va_list arguments;
    va_start(arguments, arg_count);
    for (unsigned i = 0; i < arg_count; ++i) {
        const unsigned type = va_arg(arguments, unsigned);
        entry += " " + std::to_string(type) + ":";
        if (type == RPC_ARG_REF) {
            std::uint32_t *word = va_arg(arguments, std::uint32_t *);
            references.push_back({word, va_arg(arguments, unsigned)});
            entry += std::to_string(*word) + "/" + std::to_string(references.back().size);
        } else if (type == RPC_ARG_BLOCK) {
            (void)va_arg(arguments, tnrpc_block *); // no procedure that the process calls returns one
        } else {
            const std::uint32_t value = va_arg(arguments, std::uint32_t);
            entry += type == RPC_ARG_U32 ? hex(value) : std::to_string(value);
        }
    }
    va_end(arguments);
    fake_called("%s", entry.c_str());
    fake_card &card = the_card();
    const auto it = card.call_results.find(name);
    const std::uint32_t result = it != card.call_results.end()             ? it->second
                                 : std::string(name) == "tn_arp_add_entry" ? 0
                                                                           : TNRPC_FAILED;
    const auto value = card.call_refs.find(name);
    if (result == TNRPC_FAILED || value == card.call_refs.end())
        return result;
    for (const reference &out : references)
        *out.word = out.size == 2 ? (*out.word & 0xFFFF0000) | (value->second & 0xFFFF) : value->second;
    return result;
}
