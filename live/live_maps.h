// live_maps.h - the maps of a live card and the packet program that reads them.
//
// The maps are made, or opened again, in a folder of a BPF file system, where they and the attachments of the program
// outlive the process. Their values are mapped into the process, so most of what is set here is one store and no
// system call. One process fills the maps of a folder at a time; who that is, is its caller's affair.
// Always: a word is stored whole and with release order; what a word leads to is to be stored before it.
// Functions that can fail return 0, or 1 with a readable reason in `why`.
// Elsewhere: the layouts (contract/live_card.h), what the program does with a packet (xdp/card.bpf.c,
// docs/live-card.md).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "live_card.h"

struct live_program; // the program, loaded over these maps

struct live_maps {
    std::string folder; // where they are pinned; empty: nowhere
    int descriptors[LIVE_MAPS] = {-1, -1, -1, -1, -1, -1, -1, -1, -1};
    void *values[LIVE_MAPS] = {}; // of those that are mapped
    live_program *program = nullptr;
};

// Opens the maps that are pinned in `folder` (an absolute path below a BPF file system), makes those that are missing,
// and loads the program over them. The folder is made with mode 0700. An empty folder: maps of the process alone.
// Refused is a folder with maps of another version or form: `live_maps_remove` makes room for new ones.
[[nodiscard]] int live_maps_open(live_maps &maps, const std::string &folder, std::string &why);
// Leaves pins and attachments as they are. Can be repeated.
void live_maps_close(live_maps &maps);
// Takes every attachment and map of the folder away, and the folder. 0 too when there is none.
[[nodiscard]] int live_maps_remove(const std::string &folder, std::string &why);

// --- The tables: 0 and 1.

std::uint32_t *live_maps_table(const live_maps &maps, unsigned table); // HW_TABLE_BYTES, as it is mapped here
int live_maps_table_descriptor(const live_maps &maps, unsigned table); // to hand out; stays this record's
live_searched live_maps_searched(const live_maps &maps);
void live_maps_search(live_maps &maps, live_searched table);
std::uint64_t live_maps_generation(const live_maps &maps, unsigned table); // 0: never handed out for writing
void live_maps_set_generation(live_maps &maps, unsigned table, std::uint64_t generation);

// --- Neighbours: encap id (below LIVE_ENCAPS) -> destination MAC address.

void live_maps_set_encap(live_maps &maps, std::uint32_t encap, std::uint64_t mac); // mac: as live_mac gives it
void live_maps_clear_encap(live_maps &maps, std::uint32_t encap);                  // its packets go to the kernel
std::uint64_t live_maps_encap(const live_maps &maps, std::uint32_t encap);         // its word

// --- Ports. Interface ids of ports are 1 to LIVE_PORTS - 1.

struct live_port {
    std::uint32_t ifid, ifindex;
    std::uint64_t mac; // as live_mac gives it
    std::uint32_t ctx, mtu;
};
// Packets that come in by the port are its context's from now on. Refused for an ifindex or id that is too large.
[[nodiscard]] int live_maps_bind(live_maps &maps, const live_port &port, std::string &why);
void live_maps_unbind(live_maps &maps, std::uint32_t ifindex);
live_ingress live_maps_ingress(const live_maps &maps, std::uint32_t ifindex); // 0 and 0 when not bound

// Packets may leave by the port: its device, then its word. An MTU over 65535 counts as that.
[[nodiscard]] int live_maps_open_port(live_maps &maps, const live_port &port, std::string &why);
void live_maps_close_port(live_maps &maps, std::uint32_t ifid);            // the word alone: one store
void live_maps_remove_device(live_maps &maps, std::uint32_t ifid);         // after the port was closed
std::uint64_t live_maps_egress(const live_maps &maps, std::uint32_t ifid); // its word; 0: closed
std::uint32_t live_maps_device(const live_maps &maps, std::uint32_t ifid); // its ifindex; 0: none

// Every address that is the host's own, wherever (host order): packets that name one of them as their source go to the
// kernel, which takes them for forged. Replaces what was given before; what is in both stays set throughout.
void live_maps_set_own_addresses(live_maps &maps, std::span<const std::uint32_t> addresses);
void live_maps_set_all_own(live_maps &maps); // any address may be one: all packets go to the kernel

// --- Held back, and alive.

void live_maps_hold(live_maps &maps, std::uint32_t ctx);    // its packets go to the kernel
void live_maps_release(live_maps &maps, std::uint32_t ctx); // and now by the table again
bool live_maps_is_held(const live_maps &maps, std::uint32_t ctx);

void live_maps_set_stale_after(live_maps &maps, std::uint64_t ns);
void live_maps_renew(live_maps &maps);
std::uint64_t live_maps_renewed_ns(const live_maps &maps); // CLOCK_MONOTONIC of the last renewal; 0: never

// Returns when every run of the program that began before the call has ended, so that none of them still goes by what
// was stored before. Takes some milliseconds.
[[nodiscard]] int live_maps_barrier(std::string &why);

// --- What it did.

// Sums a port's counters over all CPUs; row 0 holds what came in over no port.
[[nodiscard]] int live_maps_counters(const live_maps &maps, std::uint32_t ifid, live_counters &sum);

// Runs the program on a frame as if it had come in by the device `ifindex` of this network namespace. Counts nothing
// and sends nothing. `frame` becomes what would leave. One caller at a time.
//   table: the one to be searched, also while packets may not be, or NONE for what happens to a packet now.
[[nodiscard]] int live_maps_trace(const live_maps &maps, std::uint32_t ifindex, std::vector<std::uint8_t> &frame,
                                  live_trace &trace, std::string &why, live_searched table = LIVE_SEARCHED_NONE);

// --- Attachments.

enum class live_mode { native, generic };
struct live_attachment {
    std::uint32_t ifindex;
    live_mode mode;
    std::string why; // why not native; empty when it is
};
// Attaches the program to a device of this network namespace, natively where the driver can and also takes the frames
// that native programs of other devices send to it, else in generic mode. An attachment that is pinned already gets
// this program in place of its own, without a packet between; a native one whose driver takes frames no more is made
// anew.
[[nodiscard]] int live_maps_attach(live_maps &maps, std::uint32_t ifindex, live_attachment &attachment,
                                   std::string &why);
// Whether the driver of a device of this network namespace takes such frames now. Where it does not, they are lost, so
// no port is open by which they could leave: `live_maps_open_port` refuses it while an attachment is native, and no
// attachment is native while one is open.
bool live_maps_takes_frames(std::uint32_t ifindex);
bool live_maps_has_native(const live_maps &maps); // an attachment is native
int live_maps_program(const live_maps &maps);     // the descriptor of what is attached; stays this record's
void live_maps_detach(live_maps &maps, std::uint32_t ifindex); // nothing to do when it is not attached
// Those that are pinned; devices that have gone are not among them, and their pins are taken away.
std::vector<live_attachment> live_maps_attachments(const live_maps &maps);
