// route_rpc_serv.cpp - the table of remote procedures that the process serves.
//
// A caller's arguments are checked before a procedure runs: their count, types and lengths by the RPC service, and the
// bounds set here for contexts and route ids, which index arrays of 256 without a check of their own.
// Elsewhere: what each procedure does (rib_*.cpp, norvik_mtrie_leaf.cpp, norvik_mtrie_dump.cpp, slowpath_lookup.cpp,
// route_advert.cpp).
#include "route_rpc_serv.h"

#include <iterator>
#include <type_traits>
#include <utility>

#include "norvik_mtrie_dump.h"
#include "norvik_mtrie_leaf.h"
#include "rib_host.h"
#include "rib_nat.h"
#include "rib_show.h"
#include "rib_static.h"
#include "route_advert.h"
#include "route_ids.h"
#include "slowpath_lookup.h"
#include "tnrpc.h"

std::int32_t rpcfd;

namespace
{
constexpr std::uint32_t MAX_CONTEXT = ROUTE_CONTEXTS - 1;

// A decoded argument as a procedure's parameter: its low bits, the word behind a reference, the block to fill.
template <class T> T parameter(const tnrpc_arg &arg)
{
    if constexpr (std::is_same_v<T, std::uint32_t *>)
        return arg.ref;
    else if constexpr (std::is_same_v<T, tnrpc_block *>)
        return arg.block;
    else
        return static_cast<T>(arg.value);
}

template <class... Params, std::size_t... Index>
std::uint32_t call_with(std::uint32_t (*procedure)(Params...), const tnrpc_arg *args, std::index_sequence<Index...>)
{
    return procedure(parameter<Params>(args[Index])...);
}

template <class... Params> std::uint32_t call_with(std::uint32_t (*procedure)(Params...), const tnrpc_arg *args)
{
    return call_with(procedure, args, std::index_sequence_for<Params...>{});
}

template <auto Procedure> std::uint32_t dispatch(const tnrpc_arg *args) { return call_with(Procedure, args); }

using list_procedure = std::uint32_t (*)(std::uint16_t, std::uint16_t *, std::uint16_t *, std::uint32_t *,
                                         tnrpc_block *);

void set_low_half(std::uint32_t *word, std::uint16_t half) { *word = (*word & 0xFFFF0000u) | half; }

// A listing's list and bucket are 16 bits wide: the upper half of a longer value stays.
template <list_procedure Procedure> std::uint32_t dispatch_list(const tnrpc_arg *args)
{
    auto list = static_cast<std::uint16_t>(*args[1].ref), bucket = static_cast<std::uint16_t>(*args[2].ref);
    const std::uint32_t records =
        Procedure(static_cast<std::uint16_t>(args[0].value), &list, &bucket, args[3].ref, args[4].block);
    set_low_half(args[1].ref, list);
    set_low_half(args[2].ref, bucket);
    return records;
}

// A signed result travels as its 32 bits.
std::uint32_t send_route_advert(std::uint32_t prefix, std::uint32_t mask, std::uint32_t ifid, std::uint32_t next_hop,
                                std::uint16_t metric, std::uint16_t ctx)
{
    return static_cast<std::uint32_t>(norvik_send_route_advert(prefix, mask, ifid, next_hop, metric, ctx));
}

constexpr unsigned MAX_ARGS = 7;
struct rpc_procedure {
    const char *name;
    tnrpc_function function;
    unsigned arg_count;
    unsigned types[MAX_ARGS];
    unsigned contexts; // bit i: argument i is a context or a route id
};

constexpr unsigned U16 = RPC_ARG_U16, U32 = RPC_ARG_U32, REF = RPC_ARG_REF, BLOCK = RPC_ARG_BLOCK;
constexpr rpc_procedure PROCEDURES[] = {
    // in registration order
    {"arp_prefix_mgr_add_route", dispatch<arp_prefix_mgr_add_route>, 6, {U16, U32, U32, U16, U16, U32}, 1u << 5},
    {"arp_prefix_mgr_remove_route",
     dispatch<arp_prefix_mgr_remove_route>,
     7,
     {U16, U32, U32, U32, U16, U16, U32},
     1u << 6},
    {"rib_max_ecmp_route", dispatch<rib_max_ecmp_route>, 4, {U16, U32, U32, U32}, 1u << 0 | 1u << 1},
    {"rib_add_route", dispatch<rib_add_route>, 5, {U16, U32, U32, U32, U32}, 1u << 0 | 1u << 1},
    {"rib_remove_route", dispatch<rib_remove_route>, 5, {U16, U32, U32, U32, U32}, 1u << 0 | 1u << 1},
    {"slowpath_route_lookup", dispatch<slowpath_route_lookup>, 3, {U16, U32, REF}, 1u << 0},
    {"show_rib_print", dispatch_list<show_rib_print>, 5, {U16, REF, REF, REF, BLOCK}, 1u << 0},
    {"show_rib_summary", dispatch<show_rib_summary>, 2, {U16, BLOCK}, 1u << 0},
    {"show_fib_print", dispatch_list<show_fib_print>, 5, {U16, REF, REF, REF, BLOCK}, 1u << 0},
    {"show_fib_summary", dispatch<show_fib_summary>, 2, {U16, BLOCK}, 1u << 0},
    {"mtrie_lookup_exact_stub", dispatch<mtrie_lookup_exact_stub>, 4, {U32, U32, U32, REF}, 1u << 0},
    {"rib_add_nat_pool", dispatch<rib_add_nat_pool>, 5, {U16, U16, U32, U32, U16}, 1u << 0},
    {"rib_remove_nat_pool", dispatch<rib_remove_nat_pool>, 5, {U16, U16, U32, U32, U16}, 1u << 0},
    {"mtrie_hw_dump_api", dispatch<mtrie_hw_dump_api>, 4, {U16, U32, U32, BLOCK}, 1u << 1},
    {"norvik_send_route_advert", dispatch<send_route_advert>, 6, {U32, U32, U32, U32, U16, U16}, 1u << 5},
};

// Names that clean-up takes back. The last was never registered.
constexpr const char *UNREGISTERED[] = {
    "arp_prefix_mgr_add_route", "arp_prefix_mgr_remove_route",
    "rib_max_ecmp_route",       "rib_add_route",
    "rib_remove_route",         "slowpath_route_lookup",
    "show_rib_print",           "show_rib_summary",
    "show_fib_print",           "show_fib_summary",
    "mtrie_lookup_exact_stub",  "rib_add_nat_pool",
    "rib_remove_nat_pool",      "mtrie_hw_dump_api",
    "norvik_send_route_advert", "route_print_debug",
};
static_assert(std::size(UNREGISTERED) == 16);
} // namespace

std::uint32_t norvik_route_tnrpc_serv()
{
    // Neither result is checked: without an endpoint the process still serves its messages.
    rpcfd = tnrpc_serv_init(ROUTE_RPC_ENDPOINT);
    for (const rpc_procedure &p : PROCEDURES) {
        const unsigned(&t)[MAX_ARGS] = p.types;
        (void)tnrpc_register(p.name, p.function, p.arg_count, t[0], t[1], t[2], t[3], t[4], t[5], t[6]);
        for (unsigned i = 0; i < p.arg_count; ++i)
            if ((p.contexts >> i & 1) != 0)
                (void)tnrpc_limit(p.name, i, MAX_CONTEXT);
    }
    return 0;
}

void norvik_route_tnrpc_unregister()
{
    for (const char *name : UNREGISTERED)
        (void)tnrpc_unregister(name); // nothing to do about a name that is gone
}
