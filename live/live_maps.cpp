// live_maps.cpp - makes, maps and fills the maps of a live card.
//
// The library that loads the program makes the maps from the program's own definitions, or takes those that are pinned
// under the same names when they have the same form. The program refers to the maps that are mapped as if it called
// the kernel for them; just before it is loaded, each such reference becomes the address of the map's value, so that a
// packet costs no call for them.
// Always: a word that the program reads is stored by one of two functions here, whole and with release order.
// Elsewhere: attachments of the program to devices (live_maps_ports.cpp).
#include "live_maps.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/magic.h>
#include <linux/membarrier.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "live_program.h"

#include "card_xdp.skel.h" // needs live_card.h before it

namespace
{
constexpr std::uint64_t STALE_AFTER_NS = 10'000'000'000; // until live_maps_set_stale_after says otherwise
constexpr unsigned MAPPED_MAPS = LIVE_MAP_DEVICES;       // the first of the maps: those that are mapped
constexpr std::uint32_t COUNTERS_BYTES = LIVE_PORTS * sizeof(live_counters); // of a processor
constexpr const char *SECTION = "card";                                      // of the programs

template <class Word> void store(Word &place, Word value)
{
    std::atomic_ref<Word>(place).store(value, std::memory_order_release);
}
template <class Word> Word load(Word &place) { return std::atomic_ref<Word>(place).load(std::memory_order_acquire); }

live_control &control_of(const live_maps &maps) { return *static_cast<live_control *>(maps.values[LIVE_MAP_CONTROL]); }
live_ingress &ingress_of(const live_maps &maps, std::uint32_t ifindex)
{
    return static_cast<live_ingress *>(maps.values[LIVE_MAP_INGRESS])[ifindex];
}
std::uint64_t &word_of(const live_maps &maps, live_map map, std::uint32_t at)
{
    return static_cast<std::uint64_t *>(maps.values[map])[at];
}

std::uint64_t now_ns()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

// Rounded up. The coarse clock goes on a tick at a time.
std::uint64_t ticks_of(std::uint64_t ns)
{
    timespec tick{};
    (void)clock_getres(CLOCK_MONOTONIC_COARSE, &tick); // cannot fail for this clock
    const auto tick_ns = static_cast<std::uint64_t>(tick.tv_nsec);
    return ns / tick_ns + (ns % tick_ns != 0);
}

// What the library first complained about: the only place where its reason for a failure stands.
std::string complaint;
[[gnu::format(printf, 2, 0)]] int keep_complaint(libbpf_print_level level, const char *format, va_list arguments)
{
    if (level != LIBBPF_WARN || !complaint.empty())
        return 0;
    char text[512];
    (void)vsnprintf(text, sizeof text, format, arguments); // cut is good enough
    complaint = text;
    while (!complaint.empty() && complaint.back() == '\n')
        complaint.pop_back();
    return 0;
}

int failed(std::string &why, const std::string &what)
{
    why = what + ": " + (complaint.empty() ? std::string(std::strerror(errno)) : complaint);
    return 1;
}

// --- Loading.

bool is_mapped(int map)
{
    bpf_map_info info{};
    std::uint32_t bytes = sizeof info;
    return bpf_obj_get_info_by_fd(map, &info, &bytes) == 0 && (info.map_flags & BPF_F_MMAPABLE) != 0;
}

// Runs when the references are resolved, just before the kernel sees the program. Returns 0, or the library's error.
int refer_to_values(bpf_program *program, bpf_prog_load_opts *, long)
{
    const bpf_insn *const first = bpf_program__insns(program);
    std::vector<bpf_insn> instructions(first, first + bpf_program__insn_cnt(program));
    for (std::size_t i = 0; i < instructions.size(); ++i) {
        bpf_insn &at = instructions[i];
        if (at.code != (BPF_LD | BPF_IMM | BPF_DW))
            continue;
        if (at.src_reg == BPF_PSEUDO_MAP_FD && is_mapped(at.imm))
            at.src_reg = BPF_PSEUDO_MAP_VALUE; // at offset 0, as the instruction's second half says
        ++i;
    }
    return bpf_program__set_insns(program, instructions.data(), instructions.size());
}

int know_section()
{
    static const int handler = [] {
        libbpf_prog_handler_opts options{};
        options.sz = sizeof options;
        options.prog_prepare_load_fn = refer_to_values;
        return libbpf_register_prog_handler(SECTION, BPF_PROG_TYPE_XDP, BPF_XDP, &options);
    }();
    return handler;
}

int make_folder(const std::string &folder, std::string &why)
{
    const bool is_made = mkdir(folder.c_str(), 0700) == 0;
    if (!is_made && errno != EEXIST)
        return failed(why, folder);
    struct statfs system {
    };
    if (statfs(folder.c_str(), &system) != 0)
        return failed(why, folder);
    if (static_cast<std::uint64_t>(system.f_type) == BPF_FS_MAGIC)
        return 0;
    if (is_made)
        (void)rmdir(folder.c_str());
    why = folder + ": not in a BPF file system, as there is one after: mount -t bpf bpf /sys/fs/bpf";
    return 1;
}

std::string pin_of(const live_maps &maps, unsigned map) { return maps.folder + "/" + LIVE_MAP_NAMES[map]; }
bpf_map *map_of(const live_maps &maps, unsigned map)
{
    return bpf_object__find_map_by_name(maps.program->skeleton->obj, LIVE_MAP_NAMES[map]);
}

bool has_form_of(int pinned, const bpf_map *declared)
{
    bpf_map_info info{};
    std::uint32_t bytes = sizeof info;
    return bpf_obj_get_info_by_fd(pinned, &info, &bytes) == 0 &&
           info.type == static_cast<std::uint32_t>(bpf_map__type(declared)) &&
           info.key_size == bpf_map__key_size(declared) && info.value_size == bpf_map__value_size(declared) &&
           info.max_entries == bpf_map__max_entries(declared) &&
           (info.map_flags & BPF_F_MMAPABLE) == (bpf_map__map_flags(declared) & BPF_F_MMAPABLE);
}

// Takes a map that is pinned, for the program to be loaded over. One that is not will be made.
int take_pinned(live_maps &maps, unsigned map, std::string &why)
{
    const int pinned = bpf_obj_get(pin_of(maps, map).c_str());
    if (pinned < 0)
        return errno == ENOENT ? 0 : failed(why, pin_of(maps, map));
    int wrong = 1;
    if (!has_form_of(pinned, map_of(maps, map)))
        why = pin_of(maps, map) + ": a map of another form";
    else if (bpf_map__reuse_fd(map_of(maps, map), pinned) != 0)
        why = pin_of(maps, map) + ": " + std::strerror(errno);
    else
        wrong = 0;
    (void)close(pinned); // the library has its own
    return wrong;
}

int pin_new(const live_maps &maps, unsigned map, std::string &why)
{
    const int made = bpf_map__fd(map_of(maps, map));
    return bpf_obj_pin(made, pin_of(maps, map).c_str()) == 0 || errno == EEXIST ? 0 : failed(why, pin_of(maps, map));
}

int load_program(live_maps &maps, std::string &why)
{
    card_xdp *const skeleton = card_xdp__open();
    if (skeleton == nullptr)
        return failed(why, "the packet program");
    maps.program = new live_program{skeleton, {}};
    const int processors = libbpf_num_possible_cpus();
    if (processors <= 0 || bpf_map__set_value_size(skeleton->maps.card_counters,
                                                   static_cast<std::uint32_t>(processors) * COUNTERS_BYTES) != 0)
        return failed(why, "the processors");
    skeleton->rodata->card_processors = static_cast<std::uint32_t>(processors);
    const bool pinned = !maps.folder.empty();
    for (unsigned map = 0; pinned && map < LIVE_MAPS; ++map)
        if (take_pinned(maps, map, why) != 0)
            return 1;
    if (card_xdp__load(skeleton) != 0)
        return failed(why, "the packet program");
    for (unsigned map = 0; pinned && map < LIVE_MAPS; ++map)
        if (pin_new(maps, map, why) != 0)
            return 1;
    return 0;
}

std::size_t mapped_bytes(bpf_map *map)
{
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return (bpf_map__value_size(map) + page - 1) / page * page;
}

int map_values(live_maps &maps, std::string &why)
{
    for (unsigned map = 0; map < LIVE_MAPS; ++map) {
        bpf_map *const made = map_of(maps, map);
        maps.descriptors[map] = bpf_map__fd(made);
        if (map >= MAPPED_MAPS)
            continue;
        void *const value =
            mmap(nullptr, mapped_bytes(made), PROT_READ | PROT_WRITE, MAP_SHARED, maps.descriptors[map], 0);
        if (value == MAP_FAILED)
            return failed(why, LIVE_MAP_NAMES[map]);
        maps.values[map] = value;
    }
    return 0;
}

// Maps that were just made get their version; those of another one are refused.
int check_version(live_maps &maps, std::string &why)
{
    live_control &control = control_of(maps);
    if (control.version == 0) {
        control.stale_after_ticks = ticks_of(STALE_AFTER_NS);
        store(control.version, LIVE_VERSION);
    }
    if (control.version == LIVE_VERSION)
        return 0;
    why = maps.folder + ": maps of version " + std::to_string(control.version) + ", expected " +
          std::to_string(LIVE_VERSION);
    return 1;
}

int open_steps(live_maps &maps, std::string &why)
{
    if (know_section() < 0)
        return failed(why, "the packet program");
    if (!maps.folder.empty() && make_folder(maps.folder, why) != 0)
        return 1;
    if (load_program(maps, why) != 0 || map_values(maps, why) != 0)
        return 1;
    return check_version(maps, why);
}
} // namespace

int live_maps_open(live_maps &maps, const std::string &folder, std::string &why)
{
    const libbpf_print_fn_t before = libbpf_set_print(keep_complaint);
    complaint.clear();
    maps = {};
    maps.folder = folder;
    const int wrong = open_steps(maps, why);
    if (wrong != 0)
        live_maps_close(maps);
    (void)libbpf_set_print(before);
    complaint.clear();
    return wrong;
}

void live_maps_close(live_maps &maps)
{
    if (maps.program != nullptr) {
        for (unsigned map = 0; map < MAPPED_MAPS; ++map)
            if (maps.values[map] != nullptr)
                (void)munmap(maps.values[map], mapped_bytes(bpf_object__find_map_by_name(maps.program->skeleton->obj,
                                                                                         LIVE_MAP_NAMES[map])));
        for (const auto &[ifindex, link] : maps.program->links)
            (void)close(link);
        card_xdp__destroy(maps.program->skeleton); // closes the descriptors
        delete maps.program;
    }
    maps = {};
}

// --- The tables.

std::uint32_t *live_maps_table(const live_maps &maps, unsigned table)
{
    return static_cast<std::uint32_t *>(maps.values[LIVE_MAP_TABLE_0 + table]);
}

int live_maps_table_descriptor(const live_maps &maps, unsigned table)
{
    return maps.descriptors[LIVE_MAP_TABLE_0 + table];
}

live_searched live_maps_searched(const live_maps &maps)
{
    return static_cast<live_searched>(load(control_of(maps).searched));
}

void live_maps_search(live_maps &maps, live_searched table)
{
    store(control_of(maps).searched, static_cast<std::uint32_t>(table));
}

std::uint64_t live_maps_generation(const live_maps &maps, unsigned table)
{
    return load(control_of(maps).generation[table]);
}

void live_maps_set_generation(live_maps &maps, unsigned table, std::uint64_t generation)
{
    store(control_of(maps).generation[table], generation);
}

// --- Neighbours.

void live_maps_set_encap(live_maps &maps, std::uint32_t encap, std::uint64_t mac)
{
    store(word_of(maps, LIVE_MAP_ENCAPS, encap), live_encap_word(mac));
}

void live_maps_clear_encap(live_maps &maps, std::uint32_t encap)
{
    store(word_of(maps, LIVE_MAP_ENCAPS, encap), std::uint64_t{0});
}

std::uint64_t live_maps_encap(const live_maps &maps, std::uint32_t encap)
{
    return load(word_of(maps, LIVE_MAP_ENCAPS, encap));
}

// --- Ports.

int live_maps_bind(live_maps &maps, const live_port &port, std::string &why)
{
    if (port.ifindex >= LIVE_IFINDEXES || port.ifid == 0 || port.ifid >= LIVE_PORTS) {
        why = "interface " + std::to_string(port.ifid) + ", index " + std::to_string(port.ifindex) +
              ": a port has an id from 1 to " + std::to_string(LIVE_PORTS - 1) + " and an index below " +
              std::to_string(LIVE_IFINDEXES);
        return 1;
    }
    live_ingress &row = ingress_of(maps, port.ifindex);
    store(row.ifid, std::uint64_t{port.ifid}); // before what binds
    store(row.word, live_ingress_word(port.mac, port.ctx));
    return 0;
}

void live_maps_unbind(live_maps &maps, std::uint32_t ifindex)
{
    if (ifindex < LIVE_IFINDEXES)
        store(ingress_of(maps, ifindex).word, std::uint64_t{0});
}

live_ingress live_maps_ingress(const live_maps &maps, std::uint32_t ifindex)
{
    if (ifindex >= LIVE_IFINDEXES)
        return {};
    live_ingress &row = ingress_of(maps, ifindex);
    const std::uint64_t word = load(row.word);
    return word == 0 ? live_ingress{} : live_ingress{word, load(row.ifid)};
}

int live_maps_open_port(live_maps &maps, const live_port &port, std::string &why)
{
    if (!live_maps_takes_frames(port.ifindex) && live_maps_has_native(maps)) {
        why = "interface " + std::to_string(port.ifid) + ", index " + std::to_string(port.ifindex) +
              ": its driver takes no frames from the native programs of other ports";
        return 1;
    }
    if (port.ifid >= LIVE_IFIDS ||
        bpf_map_update_elem(maps.descriptors[LIVE_MAP_DEVICES], &port.ifid, &port.ifindex, BPF_ANY) != 0) {
        why = "interface " + std::to_string(port.ifid) + ", index " + std::to_string(port.ifindex) + ": " +
              std::strerror(port.ifid >= LIVE_IFIDS ? ERANGE : errno);
        return 1;
    }
    store(word_of(maps, LIVE_MAP_EGRESS, port.ifid), live_egress_word(port.mac, std::min(port.mtu, 0xFFFFu)));
    return 0;
}

void live_maps_close_port(live_maps &maps, std::uint32_t ifid)
{
    store(word_of(maps, LIVE_MAP_EGRESS, ifid), std::uint64_t{0});
}

void live_maps_remove_device(live_maps &maps, std::uint32_t ifid)
{
    (void)bpf_map_delete_elem(maps.descriptors[LIVE_MAP_DEVICES], &ifid); // nothing to do about one that is not there
}

std::uint64_t live_maps_egress(const live_maps &maps, std::uint32_t ifid)
{
    return load(word_of(maps, LIVE_MAP_EGRESS, ifid));
}

std::uint32_t live_maps_device(const live_maps &maps, std::uint32_t ifid)
{
    std::uint32_t ifindex = 0;
    return bpf_map_lookup_elem(maps.descriptors[LIVE_MAP_DEVICES], &ifid, &ifindex) == 0 ? ifindex : 0;
}

void live_maps_set_own_addresses(live_maps &maps, std::span<const std::uint32_t> addresses)
{
    std::array<std::uint64_t, LIVE_SOURCE_BITS / 64> bits{};
    for (const std::uint32_t address : addresses)
        bits[live_source_bit(address) / 64] |= std::uint64_t{1} << live_source_bit(address) % 64;
    for (std::uint32_t at = 0; at < bits.size(); ++at)
        store(word_of(maps, LIVE_MAP_SOURCES, at), bits[at]);
}

void live_maps_set_all_own(live_maps &maps)
{
    for (std::uint32_t at = 0; at < LIVE_SOURCE_BITS / 64; ++at)
        store(word_of(maps, LIVE_MAP_SOURCES, at), ~std::uint64_t{0});
}

// --- Held back, and alive.

void live_maps_hold(live_maps &maps, std::uint32_t ctx) { store(control_of(maps).forwards[ctx], 0u); }

void live_maps_release(live_maps &maps, std::uint32_t ctx) { store(control_of(maps).forwards[ctx], 1u); }

bool live_maps_is_held(const live_maps &maps, std::uint32_t ctx) { return load(control_of(maps).forwards[ctx]) == 0; }

void live_maps_set_stale_after(live_maps &maps, std::uint64_t ns)
{
    store(control_of(maps).stale_after_ticks, ticks_of(ns));
}

// The program itself tells its clock's time, which no process can read.
void live_maps_renew(live_maps &maps)
{
    std::array<std::uint8_t, 64> nothing{};
    bpf_test_run_opts run{};
    run.sz = sizeof run;
    run.data_in = nothing.data();
    run.data_size_in = nothing.size();
    // A renewal that fails is one that is not made: the card goes stale.
    if (bpf_prog_test_run_opts(bpf_program__fd(maps.program->skeleton->progs.card_renew), &run) == 0)
        store(control_of(maps).renewed_ns, now_ns());
}

std::uint64_t live_maps_renewed_ns(const live_maps &maps) { return load(control_of(maps).renewed_ns); }

namespace
{
// A map that holds maps: its update returns after a grace period too, since a program may be using the map before.
int wait_by_map(std::string &why)
{
    constexpr std::uint32_t KEY = 0;
    int inner = bpf_map_create(BPF_MAP_TYPE_ARRAY, "card_inner", sizeof KEY, sizeof KEY, 1, nullptr), wrong = 1;
    bpf_map_create_opts options{};
    options.sz = sizeof options;
    options.inner_map_fd = static_cast<std::uint32_t>(inner);
    const int outer =
        inner < 0 ? -1
                  : bpf_map_create(BPF_MAP_TYPE_ARRAY_OF_MAPS, "card_barrier", sizeof KEY, sizeof KEY, 1, &options);
    if (outer < 0 || bpf_map_update_elem(outer, &KEY, &inner, BPF_ANY) != 0)
        why = std::string("waiting for the packet program: ") + std::strerror(errno);
    else
        wrong = 0;
    for (const int descriptor : {outer, inner})
        if (descriptor >= 0)
            (void)close(descriptor);
    return wrong;
}
} // namespace

// The program runs with bottom halves disabled, which holds an RCU grace period up, as do all regions of that kind. The
// global memory barrier is such a grace period over all processors; a kernel with processors that never tick refuses
// it.
int live_maps_barrier(std::string &why)
{
    if (syscall(__NR_membarrier, MEMBARRIER_CMD_GLOBAL, 0, 0) == 0)
        return 0;
    return wait_by_map(why);
}

// --- What it did.

int live_maps_counters(const live_maps &maps, std::uint32_t ifid, live_counters &sum)
{
    sum = {};
    if (ifid >= LIVE_PORTS)
        return 1;
    auto *const rows = static_cast<live_counters *>(maps.values[LIVE_MAP_COUNTERS]);
    for (std::uint32_t processor = 0; processor < maps.program->skeleton->rodata->card_processors; ++processor) {
        live_counters &one = rows[processor * LIVE_PORTS + ifid];
        for (unsigned reason = 0; reason < LIVE_REASONS; ++reason)
            sum.reasons[reason] += load(one.reasons[reason]);
        sum.out_packets += load(one.out_packets);
        sum.out_bytes += load(one.out_bytes);
    }
    return 0;
}

int live_maps_trace(const live_maps &maps, std::uint32_t ifindex, std::vector<std::uint8_t> &frame, live_trace &trace,
                    std::string &why, live_searched table)
{
    xdp_md context{};
    context.data_end = static_cast<std::uint32_t>(frame.size());
    context.ingress_ifindex = ifindex;
    std::vector<std::uint8_t> out(frame.size());
    bpf_test_run_opts run{};
    run.sz = sizeof run;
    run.data_in = frame.data();
    run.data_size_in = static_cast<std::uint32_t>(frame.size());
    run.data_out = out.data();
    run.data_size_out = static_cast<std::uint32_t>(out.size());
    run.ctx_in = &context;
    run.ctx_size_in = sizeof context;
    maps.program->skeleton->bss->asked_table = table;
    if (bpf_prog_test_run_opts(bpf_program__fd(maps.program->skeleton->progs.card_trace), &run) != 0) {
        why = std::string("running the packet program: ") + std::strerror(errno);
        return 1;
    }
    trace = maps.program->skeleton->bss->traced;
    frame.assign(out.begin(), out.begin() + run.data_size_out);
    return 0;
}
