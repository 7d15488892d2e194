// procedures.cpp - what the card's other processes answer.
//
// Four are called by the route manager, the others drive the simulation.
// Always: a procedure calls nothing: the route manager waits for its answer inside a procedure of its own. What follows
// from a call is done afterwards, by the loop.

#include "procedures.h"

#include <cstdio>
#include <cstring>

#include "card_dir.h"
#include "mtrack.h"
#include "tnrpc.h"

namespace
{
constexpr std::uint32_t CARDSIM_UUID = 341, ARP_RESOLVE = 1;

card_model *model = nullptr;
supervisor *sup = nullptr;

// ---- asked by the route manager ----

// context, interface, gateway, gateway, 2, sense
std::uint32_t tn_arp_add_entry(const tnrpc_arg *a)
{
    card_arp_request(*model, a[0].value, a[2].value, a[5].value == ARP_RESOLVE);
    return 0;
}

// context, address, and a word without meaning here; the result: the interface that has the address in its subnet, or 0
std::uint32_t slowpath_find_interface_route(const tnrpc_arg *a)
{
    *a[3].ref = card_interface_of(*model, a[0].value, a[1].value);
    return 0;
}

std::uint32_t slowpath_relaign_arp(const tnrpc_arg *)
{
    card_realign(*model);
    return 0;
}

// The answer stands in the by-reference value; a result that is not 0 would be an error to the caller.
std::uint32_t encap_valid_mac(const tnrpc_arg *a)
{
    *a[1].ref = card_encap_is_valid(*model, a[0].value) ? 1 : 0;
    return 0;
}

// ---- asked by an operator ----

std::uint32_t cardsim_if_create(const tnrpc_arg *a)
{
    card_interface i;
    i.ctx = a[1].value;
    i.address = a[2].value;
    i.mask = a[3].value;
    i.mode = a[4].value;
    return card_if_create(*model, a[0].value, i);
}

std::uint32_t cardsim_if_state(const tnrpc_arg *a)
{
    return a[1].value > 1 ? CARD_BAD_ARGUMENT : card_if_state(*model, a[0].value, a[1].value == 1);
}

std::uint32_t cardsim_if_delete(const tnrpc_arg *a) { return card_if_delete(*model, a[0].value); }

std::uint32_t cardsim_if_address(const tnrpc_arg *a)
{
    return card_if_address(*model, a[0].value, a[1].value, a[2].value);
}

std::uint32_t cardsim_host_add(const tnrpc_arg *a)
{
    return card_host_add(*model, {a[0].value, a[1].value, a[2].value, std::nullopt, 0, false});
}

std::uint32_t cardsim_host_del(const tnrpc_arg *a) { return card_host_del(*model, a[0].value, a[1].value); }

std::uint32_t cardsim_advertisements(const tnrpc_arg *a)
{
    const std::string text = sup_listing(*sup);
    void *const block = mtrack_alloc(CARDSIM_UUID, 0, text.size());
    if (block == nullptr)
        return CARD_BAD_ARGUMENT;
    std::memcpy(block, text.data(), text.size());
    a[0].block->length = static_cast<std::uint32_t>(text.size());
    a[0].block->data = static_cast<std::byte *>(block);
    return CARD_DONE;
}

struct served {
    const char *name;
    tnrpc_function function;
    unsigned arg_count;
    unsigned types[6];
};
constexpr unsigned U16 = RPC_ARG_U16, U32 = RPC_ARG_U32, SMALL = RPC_ARG_SMALL, REF = RPC_ARG_REF,
                   BLOCK = RPC_ARG_BLOCK;
constexpr served SERVED[] = {
    {"tn_arp_add_entry", tn_arp_add_entry, 6, {U16, U32, U32, U32, SMALL, SMALL}},
    {"slowpath_find_interface_route", slowpath_find_interface_route, 4, {U16, U32, U32, REF}},
    {"slowpath_relaign_arp", slowpath_relaign_arp, 0, {}},
    {"encap_valid_mac", encap_valid_mac, 2, {U16, REF}},
    {"cardsim_if_create", cardsim_if_create, 5, {U32, U32, U32, U32, U32}},
    {"cardsim_if_state", cardsim_if_state, 2, {U32, U32}},
    {"cardsim_if_delete", cardsim_if_delete, 1, {U32}},
    {"cardsim_if_address", cardsim_if_address, 3, {U32, U32, U32}},
    {"cardsim_host_add", cardsim_host_add, 3, {U32, U32, U32}},
    {"cardsim_host_del", cardsim_host_del, 2, {U32, U32}},
    {"cardsim_advertisements", cardsim_advertisements, 1, {BLOCK}},
};
} // namespace

int procedures_open(card_model *m, supervisor *s)
{
    static constexpr const char *MEMORY[] = {"CARDSIM_LISTING"};
    model = m;
    sup = s;
    if (mtrack_init("cardsim", CARDSIM_UUID, MEMORY, 1) != 0)
        return -1;
    const int server = tnrpc_serv_init(CARDSIM_ENDPOINT);
    if (server < 0)
        return -1;
    for (const served &p : SERVED) {
        const unsigned *const t = p.types;
        if (tnrpc_register(p.name, p.function, p.arg_count, t[0], t[1], t[2], t[3], t[4], t[5]) != 0) {
            std::fprintf(stderr, "cardsim: %s: cannot be served\n", p.name);
            return -1;
        }
    }
    return server;
}

void procedures_close()
{
    for (const served &p : SERVED)
        (void)tnrpc_unregister(p.name); // ours, so it cannot fail
}
