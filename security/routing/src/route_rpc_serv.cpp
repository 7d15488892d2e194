// route_rpc_serv.cpp - the table of remote procedures that the process serves.
//
// A caller's arguments are checked before a procedure runs: their count, types and lengths by the RPC service, and the
// bounds set here for contexts and route ids, which index arrays of 256 without a check of their own.
// Elsewhere: what each procedure does (rib_*.cpp, norvik_mtrie_leaf.cpp, norvik_mtrie_dump.cpp, slowpath_lookup.cpp,
// route_advert.cpp).
#include "route_rpc_serv.h"

#include <cstddef>
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

// The type code of a procedure's parameter, and its value from a decoded argument. There is none for a type that no
// argument can have, so that a row with such a parameter does not compile.
template <class T> struct parameter;
template <> struct parameter<std::uint16_t> {
    static constexpr tnrpc_type TYPE = RPC_ARG_U16;
    const tnrpc_arg &arg;
    operator std::uint16_t() const { return static_cast<std::uint16_t>(arg.value); }
};
template <> struct parameter<std::uint32_t> {
    static constexpr tnrpc_type TYPE = RPC_ARG_U32;
    const tnrpc_arg &arg;
    operator std::uint32_t() const { return arg.value; }
};
template <> struct parameter<std::uint32_t *> {
    static constexpr tnrpc_type TYPE = RPC_ARG_REF;
    const tnrpc_arg &arg;
    operator std::uint32_t *() const { return arg.ref; }
};
template <> struct parameter<std::uint16_t *> { // the low half of the word; the upper half of a longer value stays
    static constexpr tnrpc_type TYPE = RPC_ARG_REF;
    const tnrpc_arg &arg;
    std::uint16_t half = static_cast<std::uint16_t>(*arg.ref);
    operator std::uint16_t *() { return &half; }
    ~parameter() { *arg.ref = (*arg.ref & 0xFFFF0000u) | half; } // when the procedure has returned
};
template <> struct parameter<tnrpc_block *> {
    static constexpr tnrpc_type TYPE = RPC_ARG_BLOCK;
    const tnrpc_arg &arg;
    operator tnrpc_block *() const { return arg.block; }
};

constexpr unsigned MAX_ARGS = 7;
struct rpc_procedure {
    const char *name;
    tnrpc_function function;
    unsigned arg_count;
    unsigned types[MAX_ARGS];
    unsigned contexts; // bit i: argument i is a context or a route id
};

// The row of a procedure. Its types are those of its parameters; a signed result travels as its 32 bits.
template <auto Procedure, unsigned... Contexts, class Result, class... Params, std::size_t... Index>
constexpr rpc_procedure row(const char *name, Result (*)(Params...), std::index_sequence<Index...>)
{
    constexpr tnrpc_type TYPES[] = {parameter<Params>::TYPE...};
    static_assert(sizeof...(Params) <= MAX_ARGS && sizeof(Result) == 4);
    static_assert(((TYPES[Contexts] == RPC_ARG_U16 || TYPES[Contexts] == RPC_ARG_U32) && ...), "a context is a value");
    const tnrpc_function function = [](const tnrpc_arg *args) {
        return static_cast<std::uint32_t>(Procedure(parameter<Params>{args[Index]}...));
    };
    return {name, function, sizeof...(Params), {parameter<Params>::TYPE...}, (0u | ... | (1u << Contexts))};
}
template <auto Procedure, unsigned... Contexts, class Result, class... Params>
constexpr rpc_procedure row(const char *name, Result (*procedure)(Params...))
{
    return row<Procedure, Contexts...>(name, procedure, std::index_sequence_for<Params...>{});
}
#define ROW(procedure, ...) row<procedure, __VA_ARGS__>(#procedure, procedure)

// In registration order: each procedure, and which of its arguments, from 0, are a context or a route id.
constexpr rpc_procedure PROCEDURES[] = {
    ROW(arp_prefix_mgr_add_route, 5),    // ctx
    ROW(arp_prefix_mgr_remove_route, 6), // ctx
    ROW(rib_max_ecmp_route, 0, 1),       // ctx, route id
    ROW(rib_add_route, 0, 1),            // ctx, route id
    ROW(rib_remove_route, 0, 1),         // ctx, route id
    ROW(slowpath_route_lookup, 0),       // ctx
    ROW(show_rib_print, 0),              // ctx
    ROW(show_rib_summary, 0),            // ctx
    ROW(show_fib_print, 0),              // ctx
    ROW(show_fib_summary, 0),            // ctx
    ROW(mtrie_lookup_exact_stub, 0),     // route id
    ROW(rib_add_nat_pool, 0),            // ctx
    ROW(rib_remove_nat_pool, 0),         // ctx
    ROW(mtrie_hw_dump_api, 1),           // tree
    ROW(norvik_send_route_advert, 5),    // ctx
};
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
    for (const rpc_procedure &p : PROCEDURES)
        (void)tnrpc_unregister(p.name);          // a name that is gone is no failure
    (void)tnrpc_unregister("route_print_debug"); // odd, and meant: it was never registered
}
