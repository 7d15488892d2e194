// fake_services.cpp - message queue, debug service, syslog, history, interface manager, system manager and the
// supervisor's channel, as a test's card has them.
//
// The queue's descriptor is a real one that polls readable exactly while a message waits; poll(2) itself answers from
// the test's script first and never waits.
// Always: a service that is told to fail does what the real one does when it fails: its result, and nothing else.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fake_call.h"
#include "fake_card.h"
#include "if_mgr.h"
#include "scp.h"
#include "sdwrap.h"
#include "sysmgr.h"

using namespace harness;

sdwrap_gate_table sdwrap_gates;
const char *sdwrap_dbg_modname = "";
syslog_facility *sdwrap_sys_facility = nullptr;

namespace
{

// The interface that a query asks for; null when there is none.
const fake_interface *queried(const char *query, std::uint32_t ifid)
{
    the_card().queries.push_back(query + (" " + std::to_string(ifid)));
    const auto it = the_card().interfaces.find(ifid);
    return it == the_card().interfaces.end() ? nullptr : &it->second;
}

std::string queue_name(int queue) { return fake_descriptor_name(queue); }

std::string words_text(const std::uint32_t *words, unsigned count)
{
    std::string text;
    for (unsigned i = 0; i < count; ++i)
        text += (i == 0 ? "" : " ") + std::to_string(words[i]);
    return text;
}

} // namespace

void harness::fake_called(const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    const std::string entry = vtext(format, arguments);
    va_end(arguments);
    the_card().calls.push_back(entry);
    if (the_card().on_call)
        the_card().on_call(entry);
}

std::string harness::fake_descriptor_name(int descriptor)
{
    if (descriptor >= 0 && descriptor == the_card().queue_fd)
        return "q";
    if (descriptor >= 0 && descriptor == the_card().rpc_fd)
        return "rpc";
    return std::to_string(descriptor);
}

const char *harness::fake_copy_name(card_addr addr)
{
    static const char *const names[] = {"wired", "ixp1", "ixp2"};
    if (addr == 0)
        return "0";
    const auto it = the_card().maps.find(addr);
    return it == the_card().maps.end() ? "unmapped" : names[it->second.copy];
}

// --- Message transport.

void fake_card::post(std::uint32_t opcode, std::vector<std::uint8_t> payload, mts_address from)
{
    queue.push_back({opcode, from, std::move(payload)});
    const std::uint64_t one = 1;
    if (write(queue_fd, &one, sizeof one) != sizeof one)
        ADD_FAILURE() << "the queue is not bound";
}

int mts_bind(std::uint32_t mode, std::uint32_t sap, const mts_bind_options *options, const char *name)
{
    fake_called("mts_bind %u %u %s [%s]", mode, sap, name, words_text(options->words, 5).c_str());
    if (the_card().mts_bind_fails)
        return -1;
    return the_card().queue_fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
}

std::uint32_t mts_options_get(int queue, std::uint32_t opcode)
{
    fake_called("mts_options_get %s %u", queue_name(queue).c_str(), opcode);
    return the_card().option_words[opcode];
}

int mts_options_set(int queue, std::uint32_t opcode, std::uint16_t value)
{
    fake_called("mts_options_set %s %u 0x%x", queue_name(queue).c_str(), opcode, static_cast<unsigned>(value));
    the_card().option_words[opcode] = value;
    return 0;
}

int mts_recv(int queue, mts_message *message, const mts_recv_options *options)
{
    fake_card &card = the_card();
    fake_called("mts_recv %s [%s]", queue_name(queue).c_str(), words_text(options->words, 6).c_str());
    const_cast<mts_recv_options *>(options)->words[2] = card.mts_recv_leaves;
    if (card.mts_recv_result < 0)
        return card.mts_recv_result;
    std::uint64_t one = 0;
    if (card.queue.empty() || read(card.queue_fd, &one, sizeof one) != sizeof one)
        return -EAGAIN;
    card.received = card.queue.front();
    card.queue.pop_front();
    *message = {card.received.opcode, card.received.address, static_cast<std::uint32_t>(card.received.payload.size()),
                card.received.payload.data()};
    return 0;
}

void mts_drop(int queue, mts_message *message)
{
    fake_called("mts_drop %s %u", queue_name(queue).c_str(), message->opcode);
    the_card().received = {};
    *message = {};
}

int mts_send(int queue, const mts_address *to, std::uint32_t opcode, const void *payload, std::size_t bytes)
{
    fake_called("mts_send %s 0x%x:%u 0x%x %zu", queue_name(queue).c_str(), to->node, to->sap, opcode, bytes);
    if (bytes > MTS_MAX_PAYLOAD)
        return -1;
    const auto *data = static_cast<const std::uint8_t *>(payload);
    the_card().sent.push_back({opcode, *to, std::vector<std::uint8_t>(data, data + bytes)});
    return 0;
}

std::uint32_t mts_opc_get(const mts_message *message) { return message->opcode; }
const std::uint8_t *mts_payload_get(const mts_message *message) { return message->payload; }
std::uint32_t mts_payload_length_get(const mts_message *message) { return message->length; }

const char *mts_opc_name_get(std::uint32_t opcode)
{
    std::string &name = the_card().opcode_name;
    switch (opcode) {
    case MTS_OPC_NORVIK_IF_CREATED:
        name = "MTS_OPC_NORVIK_IF_CREATED";
        break;
    case MTS_OPC_NORVIK_IF_DELETED:
        name = "MTS_OPC_NORVIK_IF_DELETED";
        break;
    case MTS_OPC_NORVIK_IF_UP:
        name = "MTS_OPC_NORVIK_IF_UP";
        break;
    case MTS_OPC_NORVIK_IF_DOWN:
        name = "MTS_OPC_NORVIK_IF_DOWN";
        break;
    case MTS_OPC_NORVIK_IF_CHANGED:
        name = "MTS_OPC_NORVIK_IF_CHANGED";
        break;
    case MTS_OPC_NORVIK_ENCAP_ACQUIRE:
        name = "MTS_OPC_NORVIK_ENCAP_ACQUIRE";
        break;
    case MTS_OPC_NORVIK_ENCAP_RELEASE:
        name = "MTS_OPC_NORVIK_ENCAP_RELEASE";
        break;
    default:
        name = "MTS_OPC_" + std::to_string(opcode);
        break;
    }
    return name.c_str();
}

extern "C" int poll(pollfd *fds, nfds_t count, int timeout)
{
    if (!fake_card_lives())
        return static_cast<int>(syscall(SYS_poll, fds, count, timeout));
    fake_card &card = the_card();
    std::string entry = "poll";
    for (nfds_t i = 0; i < count; ++i)
        entry += " " + fake_descriptor_name(fds[i].fd) + ":" + std::to_string(fds[i].events);
    fake_called("%s %d", entry.c_str(), timeout);
    if (card.polls.empty())
        return static_cast<int>(syscall(SYS_poll, fds, count, 0)); // what waits now; a long time-out passes at once
    const fake_poll_result scripted = card.polls.front();
    card.polls.pop_front();
    if (scripted.result < 0)
        errno = scripted.error_number;
    else
        for (nfds_t i = 0; i < count && i < 2; ++i)
            fds[i].revents = scripted.revents[i];
    return scripted.result;
}

extern "C" sighandler_t signal(int signo, sighandler_t handler) noexcept
{
    if (fake_card_lives())
        fake_called("signal %d", signo);
    struct sigaction wanted = {}, before = {};
    wanted.sa_handler = handler;
    wanted.sa_flags = SA_RESTART;
    return sigaction(signo, &wanted, &before) == 0 ? before.sa_handler : SIG_ERR;
}

// --- Debug service, syslog, event history.

int sdwrap_dbg_init(int queue, const char *module, const char *title, unsigned count, const char *const *names,
                    unsigned a, unsigned b, unsigned c)
{
    fake_called("sdwrap_dbg_init %s %s/%s %u %u %u %u", queue_name(queue).c_str(), module, title, count, a, b, c);
    if (the_card().sdwrap_dbg_init_result != 0)
        return the_card().sdwrap_dbg_init_result;
    sdwrap_dbg_modname = module;
    the_card().categories.assign(names, names + count);
    return 0;
}

void sdwrap_dbg_clean(int queue)
{
    fake_called("sdwrap_dbg_clean %s", queue_name(queue).c_str());
    std::memset(sdwrap_gates.debug, 0, sizeof sdwrap_gates.debug);
}

int sdwrap_sys_init_helper(int queue, const char *ident, const char *title, std::uint32_t facility, unsigned a,
                           unsigned b, unsigned c)
{
    fake_called("sdwrap_sys_init_helper %s %s/%s %u %u %u %u", queue_name(queue).c_str(), ident, title, facility, a, b,
                c);
    return the_card().sdwrap_sys_init_result;
}

void sdwrap_sys_clean(int queue) { fake_called("sdwrap_sys_clean %s", queue_name(queue).c_str()); }

void zumo_syslog(unsigned severity, const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    const std::string text = vtext(format, arguments);
    va_end(arguments);
    the_card().syslogs.push_back({severity, text});
    fake_called("zumo_syslog %u %s", severity, text.c_str());
}

int sdwrap_hist_init(std::size_t bytes)
{
    fake_called("sdwrap_hist_init 0x%zx", bytes);
    return 0;
}

int sdwrap_hist_init_for_uuid(std::uint32_t component, std::size_t bytes)
{
    fake_called("sdwrap_hist_init_for_uuid 0x%x 0x%zx", component, bytes);
    return 0;
}

int sdwrap_hist_set_event_subtype(std::uint32_t event_type, std::uint32_t subtype, unsigned on)
{
    fake_called("sdwrap_hist_set_event_subtype 0x%x %u %u", event_type, subtype, on);
    the_card().open_history(subtype, on != 0);
    return 0;
}

int sdwrap_hist_event(std::uint32_t event_type, std::size_t bytes, const void *record)
{
    const auto *data = static_cast<const char *>(record);
    fake_line line{0, event_type, bytes, ""};
    std::memcpy(&line.category, data, sizeof line.category);
    line.text = std::string(data + sizeof line.category, strnlen(data + sizeof line.category, bytes - 4));
    the_card().history.push_back(line);
    if (the_card().log_in_calls)
        fake_called("log %u %s", line.category, line.text.c_str());
    return 0;
}

void buginf_vcid(std::int32_t context, unsigned, const char *module, unsigned, const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    the_card().debug.push_back({context, module, vtext(format, arguments)});
    va_end(arguments);
}

int sdwrap_process_msg(int queue, const mts_message *message)
{
    fake_called("sdwrap_process_msg %s %u", queue_name(queue).c_str(), message->opcode);
    return message->opcode == MTS_OPC_DEBUG_REQUEST ? 0 : 1;
}

// --- Interface manager.

int if_get_address(std::uint32_t ifid, std::uint32_t *rmode, std::uint32_t *scratch)
{
    const fake_interface *entry = queried("if_get_address", ifid);
    if (entry == nullptr || !entry->has_rmode)
        return -1;
    *rmode = entry->rmode;
    if (scratch != nullptr)
        *scratch = 0;
    return 0;
}

int if_get_ip(std::uint32_t ifid, std::uint32_t *address, std::uint32_t *mask)
{
    const fake_interface *entry = queried("if_get_ip", ifid);
    if (entry == nullptr || !entry->has_address)
        return -1;
    *address = entry->address;
    *mask = entry->mask;
    return 0;
}

std::int32_t if_get_context_id(std::uint32_t ifid)
{
    const fake_interface *entry = queried("if_get_context_id", ifid);
    return entry == nullptr ? -1 : entry->ctx;
}

int if_get_status(std::uint32_t ifid)
{
    const fake_interface *entry = queried("if_get_status", ifid);
    return entry == nullptr ? -1 : entry->up ? 1 : 0;
}

std::int32_t if_get_bvi(std::uint32_t ifid)
{
    const fake_interface *entry = queried("if_get_bvi", ifid);
    return entry == nullptr ? -1 : entry->bvi;
}

std::int32_t if_get_vlanid(std::uint32_t ifid)
{
    const fake_interface *entry = queried("if_get_vlanid", ifid);
    return entry == nullptr ? -1 : entry->vlan;
}

// --- System manager, adjacency library, module information, supervisor.

int sysmgr_handshake(int queue, std::uint32_t uuid)
{
    fake_called("sysmgr_handshake %s %u", queue_name(queue).c_str(), uuid);
    return the_card().handshake_result;
}

int fb_adj_init(int queue, unsigned flags, unsigned events, unsigned errors, unsigned reads, unsigned writes,
                unsigned details)
{
    fake_called("fb_adj_init %s %u %u %u %u %u %u", queue_name(queue).c_str(), flags, events, errors, reads, writes,
                details);
    return the_card().fb_adj_init_result;
}

void fb_adj_cleanup(int descriptor) { fake_called("fb_adj_cleanup %d", descriptor); }

int get_module_info(module_info *info)
{
    *info = {the_card().slot, {}};
    return 0;
}

std::uint32_t scp_init(std::uint32_t service, int queue)
{
    fake_called("scp_init %u %s", service, queue_name(queue).c_str());
    return the_card().scp_handle;
}

std::uint8_t scp_sup_rp_addr_get(std::uint32_t) { return the_card().supervisor_address; }

int scp_send(std::uint32_t handle, const void *message, std::size_t bytes)
{
    fake_called("scp_send %u %zu", handle, bytes);
    if (the_card().scp_send_result == 0)
        the_card().scp_messages.emplace_back(static_cast<const char *>(message), bytes);
    return the_card().scp_send_result;
}
