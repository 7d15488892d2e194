// live_maps_ports.cpp - attaches the packet program to devices.
//
// An attachment is a link of the kernel's: pinned beside the maps it stays when the process ends, and takes another
// program in place of its own without a packet between. Of a device that goes, the kernel empties the link.
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <dirent.h>
#include <linux/if_link.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

#include "live_maps.h"
#include "live_program.h"

#include "card_xdp.skel.h" // needs live_card.h before it

namespace
{
constexpr std::string_view PIN_PREFIX = "port_"; // then the ifindex in decimal

std::string pin_of(const std::string &folder, std::uint32_t ifindex)
{
    return folder + "/" + std::string(PIN_PREFIX) + std::to_string(ifindex);
}

// The devices whose attachments are pinned in the folder.
std::vector<std::uint32_t> pinned_devices(const std::string &folder)
{
    std::vector<std::uint32_t> devices;
    const std::unique_ptr<DIR, int (*)(DIR *)> open(opendir(folder.c_str()), closedir);
    while (const dirent *entry = open == nullptr ? nullptr : readdir(open.get())) {
        std::string_view name = entry->d_name;
        std::uint32_t ifindex = 0;
        if (!name.starts_with(PIN_PREFIX))
            continue;
        name.remove_prefix(PIN_PREFIX.size());
        if (std::from_chars(name.data(), name.data() + name.size(), ifindex).ec == std::errc{})
            devices.push_back(ifindex);
    }
    return devices;
}

// The link of a device: its descriptor, -1 for none. One whose device has gone is taken away on the way.
int link_of(const live_maps &maps, std::uint32_t ifindex)
{
    if (maps.folder.empty()) {
        const auto at = maps.program->links.find(ifindex);
        return at == maps.program->links.end() ? -1 : dup(at->second);
    }
    const std::string pin = pin_of(maps.folder, ifindex);
    const int link = bpf_obj_get(pin.c_str());
    if (link < 0)
        return -1;
    bpf_link_info info{};
    std::uint32_t bytes = sizeof info;
    if (bpf_obj_get_info_by_fd(link, &info, &bytes) == 0 && info.xdp.ifindex == ifindex)
        return link;
    (void)close(link);
    (void)unlink(pin.c_str());
    return -1;
}

int keep_link(live_maps &maps, std::uint32_t ifindex, int link, std::string &why)
{
    if (maps.folder.empty()) {
        maps.program->links[ifindex] = link;
        return 0;
    }
    const int wrong = bpf_obj_pin(link, pin_of(maps.folder, ifindex).c_str());
    if (wrong != 0)
        why = pin_of(maps.folder, ifindex) + ": " + std::strerror(errno);
    (void)close(link); // the pin holds it
    return wrong != 0;
}

int link_create(int program, std::uint32_t ifindex, std::uint32_t flags)
{
    bpf_link_create_opts options{};
    options.sz = sizeof options;
    options.flags = flags;
    return bpf_link_create(program, static_cast<int>(ifindex), BPF_XDP, &options);
}

std::string refusal(int error)
{
    switch (error) {
    case EOPNOTSUPP:
        return "the driver has no native mode";
    case ERANGE:
    case EINVAL:
        return "the driver refuses it at this MTU or with these settings";
    case ENOSPC:
        return "the driver has too few queues for it";
    case EBUSY:
    case EEXIST:
        return "another packet program is attached";
    default:
        return std::strerror(error);
    }
}

// Whether another port is open than that of `ifindex`, by which a native program would lose frames.
bool has_port_without_frames(const live_maps &maps, std::uint32_t ifindex)
{
    for (std::uint32_t ifid = 1; ifid < LIVE_IFIDS; ++ifid) {
        if (live_maps_egress(maps, ifid) == 0)
            continue;
        const std::uint32_t device = live_maps_device(maps, ifid);
        if (device != 0 && device != ifindex && !live_maps_takes_frames(device))
            return true;
    }
    return false;
}

// Attaches natively. Returns the link, or -1 with the reason.
int link_create_native(const live_maps &maps, std::uint32_t ifindex, std::string &why)
{
    if (has_port_without_frames(maps, ifindex)) {
        why = "a port is open whose driver takes no frames from native programs";
        return -1;
    }
    const int link = link_create(live_maps_program(maps), ifindex, XDP_FLAGS_DRV_MODE);
    if (link < 0) {
        why = refusal(errno);
        return -1;
    }
    if (live_maps_takes_frames(ifindex)) // asked now: some drivers do while they have a program
        return link;
    why = "the driver takes no frames from native programs of other devices (a veth does with gro on at its pair)";
    (void)bpf_link_detach(link);
    (void)close(link);
    return -1;
}

live_mode mode_of(std::uint32_t ifindex)
{
    bpf_xdp_query_opts query{};
    query.sz = sizeof query;
    const bool generic =
        bpf_xdp_query(static_cast<int>(ifindex), 0, &query) == 0 && query.attach_mode == XDP_ATTACHED_SKB;
    return generic ? live_mode::generic : live_mode::native;
}

live_attachment attachment_of(std::uint32_t ifindex)
{
    const live_mode mode = mode_of(ifindex);
    return {ifindex, mode, mode == live_mode::native ? "" : "generic mode was taken when it was attached"};
}
} // namespace

int live_maps_program(const live_maps &maps) { return bpf_program__fd(maps.program->skeleton->progs.card_forward); }

bool live_maps_has_native(const live_maps &maps)
{
    const std::vector<live_attachment> all = live_maps_attachments(maps);
    return std::any_of(all.begin(), all.end(), [](const live_attachment &a) { return a.mode == live_mode::native; });
}

int live_maps_attach(live_maps &maps, std::uint32_t ifindex, live_attachment &attachment, std::string &why)
{
    const int program = live_maps_program(maps);
    if (const int link = link_of(maps, ifindex); link >= 0) {
        const int wrong = bpf_link_update(link, program, nullptr);
        if (wrong != 0)
            why = "device " + std::to_string(ifindex) + ": " + std::strerror(errno);
        (void)close(link);
        attachment = attachment_of(ifindex);
        if (wrong != 0 || attachment.mode == live_mode::generic || live_maps_takes_frames(ifindex))
            return wrong != 0;
        live_maps_detach(maps, ifindex);
    }

    attachment = {ifindex, live_mode::native, ""};
    int link = link_create_native(maps, ifindex, attachment.why);
    if (link < 0) {
        attachment.mode = live_mode::generic;
        link = link_create(program, ifindex, XDP_FLAGS_SKB_MODE);
    }
    if (link < 0) {
        why = "device " + std::to_string(ifindex) + ": " + refusal(errno);
        return 1;
    }
    return keep_link(maps, ifindex, link, why);
}

void live_maps_detach(live_maps &maps, std::uint32_t ifindex)
{
    const int link = link_of(maps, ifindex);
    if (link < 0)
        return;
    (void)bpf_link_detach(link); // of a device that has gone there is nothing to detach
    (void)close(link);
    if (!maps.folder.empty()) {
        (void)unlink(pin_of(maps.folder, ifindex).c_str());
        return;
    }
    (void)close(maps.program->links[ifindex]);
    maps.program->links.erase(ifindex);
}

std::vector<live_attachment> live_maps_attachments(const live_maps &maps)
{
    std::vector<live_attachment> attachments;
    std::vector<std::uint32_t> devices = pinned_devices(maps.folder);
    for (const auto &[ifindex, link] : maps.program->links)
        devices.push_back(ifindex);
    for (const std::uint32_t ifindex : devices) {
        const int link = link_of(maps, ifindex);
        if (link < 0)
            continue;
        (void)close(link);
        attachments.push_back(attachment_of(ifindex));
    }
    return attachments;
}

int live_maps_remove(const std::string &folder, std::string &why)
{
    live_maps pins;
    pins.folder = folder;
    for (const std::uint32_t ifindex : pinned_devices(folder))
        live_maps_detach(pins, ifindex);
    for (const char *name : LIVE_MAP_NAMES)
        (void)unlink((folder + "/" + name).c_str()); // the folder tells whether something stays
    if (rmdir(folder.c_str()) == 0 || errno == ENOENT)
        return 0;
    why = folder + ": " + std::strerror(errno);
    return 1;
}
