// platform_mem.cpp - the system library on a host: table memories are mapped files, processors are a setting.
//
// The memories are files, so a program that plays a network processor maps the same words. They keep their contents
// when the process ends, as a memory would. A processor's can be another process's instead, its provider's, which hands
// it out: then it lies where packets are searched.
// Always: a table memory lies in the card space, so it has a card address; its file has all its blocks before it is
// mapped. The connection to a provider lasts as long as its memory is mapped, and nothing is asked of it any more: it
// may end, the memory stays.
// Elsewhere: how words are stored there (hw_store.cpp), what they mean (security/routing), how a provider is asked
// (provided_memory.cpp).
#include "platform_mem.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "card_dir.h"
#include "card_files.h"
#include "counters.h"
#include "provided_memory.h"
#include "route_table.h"

namespace
{
constexpr const char *ROUTE_FLUSH = "/proc/sys/net/ipv4/route/flush";

// Maps the first `bytes` of the memory file `name`, which is `file_bytes` long. Returns its card address or 0.
card_addr map_memory(const char *name, std::size_t file_bytes, std::size_t bytes)
{
    bool made = false;
    const int fd = card_dir_file(name, file_bytes, &made);
    if (fd < 0)
        return 0;
    const card_addr addr = card_space_map(fd, bytes);
    (void)close(fd);
    return addr;
}

// A processor's memory that its provider has handed out.
struct provided_mapping {
    card_addr addr = 0; // where it is mapped; 0: it is not
    int connection = -1;
};
provided_mapping provided[std::size(IXP_FILES)];

// Maps what was handed out. Returns its card address; 0, with the connection ended, when that cannot be.
card_addr map_handed_out(const provided_memory &memory, std::size_t bytes, provided_mapping &mapping, std::string &why)
{
    errno = ENOMEM; // unless the host says otherwise
    const card_addr addr = card_space_map(memory.descriptor, bytes);
    if (addr == 0) {
        why += std::string(": what its provider sent cannot be mapped: ") + std::strerror(errno);
        (void)close(memory.connection);
    } else {
        mapping = {addr, memory.connection};
    }
    (void)close(memory.descriptor);
    return addr;
}

// Asks the provider of a processor's memory for it, and maps its first `bytes`. Returns its card address, or 0 with a
// line on standard error.
card_addr map_provided(unsigned processor, std::size_t bytes)
{
    (void)std::fflush(stdout); // its reader sees all that came before the wait
    const std::string path = card_dir_path() + "/" + IXP_FILES[processor];
    std::string why = path;
    provided_memory memory;
    card_addr addr = 0;
    if (provided_memory_ask(path, MEMORY_WRITE, card_conf_get().rpc_timeout_ms, &memory, &why) == 0)
        addr = map_handed_out(memory, bytes, provided[processor], why);
    if (addr == 0)
        (void)std::fprintf(stderr, "%s: %s; not mapped\n", program_invocation_short_name, why.c_str());
    return addr;
}

// Has the kernel empty its route cache. Returns 0 or a negative error number.
int flush_kernel_cache()
{
    const int fd = open(ROUTE_FLUSH, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    const int result = write(fd, "1", 1) == 1 ? 0 : -errno;
    (void)close(fd);
    return result;
}
} // namespace

int syscall_open()
{
    const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    return fd < 0 ? -errno : fd;
}

int syscall_close(int descriptor) { return close(descriptor); }

int norvik_get_wired_info(int descriptor, wired_info *info)
{
    if (descriptor < 0)
        return -1;
    *info = {card_conf_get().wired_phys_base, HW_WIRED_BYTES};
    return 0;
}

card_addr map_wired_route(int descriptor)
{
    return descriptor < 0 ? 0 : map_memory(WIRED_FILE, HW_WIRED_BYTES, HW_WIRED_BYTES);
}

void unmap_wired_route(int, card_addr addr) { card_space_unmap(addr, HW_WIRED_BYTES); }

card_addr map_pci_xram_to_uspace(std::uint32_t, std::uint32_t bytes, std::uint32_t processor)
{
    // The first memory is made and mapped on a card without processors too.
    if (processor >= std::max(platform_get_num_ixp(), 1u) || bytes == 0 || bytes > HW_TABLE_BYTES)
        return 0;
    if (card_conf_get().ixp_is_provided[processor])
        return map_provided(processor, bytes);
    return map_memory(IXP_FILES[processor], HW_TABLE_BYTES, bytes);
}

void unmap_pci_xram_to_uspace(card_addr addr, std::uint32_t bytes)
{
    card_space_unmap(addr, bytes);
    for (provided_mapping &mapping : provided) {
        if (addr == 0 || mapping.addr != addr)
            continue;
        (void)close(mapping.connection); // behind the mapping: its end says that nothing is written any more
        mapping = {};
    }
}

unsigned platform_get_num_ixp() { return card_conf_get().num_ixp; }

int tn_flush_rt_cache(int)
{
    const int result = card_conf_get().route_cache_kernel ? flush_kernel_cache() : 0;
    if (result == 0)
        ++platform_counters.route_cache_flushes;
    return result;
}
