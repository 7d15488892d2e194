// live_procedures.cpp - serves the ARP service's and the slow path's procedures, and the card's own.
#include "live_procedures.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "card_dir.h"
#include "card_files.h"
#include "mtrack.h"
#include "tnrpc.h"

namespace
{
constexpr std::uint32_t LIVE_UUID = 342, LAST_ENDPOINT = LIVE_FIRST_ENDPOINT + 20, ARP_RESOLVE = 1;
constexpr std::uint32_t DONE = 0, FAILED = 1;

const live_procedures *card = nullptr;

// context, interface, gateway, gateway, 2, sense
std::uint32_t tn_arp_add_entry(const tnrpc_arg *a)
{
    card->request(a[0].value, a[2].value, a[5].value == ARP_RESOLVE);
    return DONE;
}

// context, address, and a word without meaning here; the result: the interface that has the address in its subnet, or 0
std::uint32_t slowpath_find_interface_route(const tnrpc_arg *a)
{
    *a[3].ref = card->interface_of(a[0].value, a[1].value);
    return DONE;
}

// Nothing to do: every host is announced as it is, and one that is announced again takes a leaf.
std::uint32_t slowpath_relaign_arp(const tnrpc_arg *) { return DONE; }

// The answer stands in the by-reference value; a result that is not 0 would be an error to the caller.
std::uint32_t encap_valid_mac(const tnrpc_arg *a)
{
    *a[1].ref = card->is_encap_valid(a[0].value) ? 1 : 0;
    return DONE;
}

// Answers a document.
std::uint32_t give(const std::string &text, tnrpc_block *to)
{
    void *const block = mtrack_alloc(LIVE_UUID, 0, text.size());
    if (block == nullptr)
        return FAILED;
    std::memcpy(block, text.data(), text.size());
    to->length = static_cast<std::uint32_t>(text.size());
    to->data = static_cast<std::byte *>(block);
    return DONE;
}

std::uint32_t cardlive_status(const tnrpc_arg *a) { return give(card->status(), a[0].block); }

// address, source, interface; 0 for the latter two: chosen here
std::uint32_t cardlive_trace(const tnrpc_arg *a)
{
    return give(card->trace(a[0].value, a[1].value, a[2].value), a[3].block);
}

// context, the part and then the next one
std::uint32_t cardlive_verify(const tnrpc_arg *a) { return give(card->verify(a[0].value, a[1].ref), a[2].block); }

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
    {"cardlive_status", cardlive_status, 1, {BLOCK}},
    {"cardlive_trace", cardlive_trace, 4, {U32, U32, U32, BLOCK}},
    {"cardlive_verify", cardlive_verify, 3, {U32, REF, BLOCK}},
};
} // namespace

int live_procedures_open(const live_procedures *procedures)
{
    static constexpr const char *MEMORY[] = {"CARDLIVE_STATUS"};
    card = procedures;
    if (mtrack_init("cardlive", LIVE_UUID, MEMORY, 1) != 0)
        return -1;
    std::uint32_t endpoint = LIVE_FIRST_ENDPOINT;
    while (endpoint < LAST_ENDPOINT &&
           card_dir_owner((std::string(RPC_FOLDER) + "/" + std::to_string(endpoint)).c_str()) != card_owner::none)
        ++endpoint;
    const int server = tnrpc_serv_init(endpoint);
    if (server < 0)
        return -1;
    for (const served &p : SERVED) {
        const unsigned *const t = p.types;
        if (tnrpc_register(p.name, p.function, p.arg_count, t[0], t[1], t[2], t[3], t[4], t[5]) != 0) {
            std::fprintf(stderr, "cardlive: %s: cannot be served\n", p.name);
            return -1;
        }
    }
    return server;
}

void live_procedures_close()
{
    for (const served &p : SERVED)
        (void)tnrpc_unregister(p.name); // ours, so it cannot fail
}
