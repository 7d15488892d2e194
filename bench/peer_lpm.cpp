// peer_lpm.cpp - rte_lpm and rte_fib as peers, through their own bulk functions.
#include "peer_lpm.h"

#include <rte_eal.h>
#include <rte_fib.h>
#include <rte_lpm.h>
#include <rte_version.h>

std::string peer_lpm_start()
{
    char words[][20] = {"bench", "--no-huge", "--no-pci",       "--no-shconf",
                        "-m",    "512",       "--no-telemetry", "--log-level=3"};
    constexpr int COUNT = sizeof words / sizeof words[0];
    char *argv[COUNT + 1] = {};
    for (int i = 0; i < COUNT; ++i)
        argv[i] = words[i];
    return rte_eal_init(COUNT, argv) < 0 ? "the DPDK environment did not start" : "";
}

void *peer_lpm_new(const char *name, std::uint32_t rules, std::uint32_t tbl8s)
{
    rte_lpm_config config{};
    config.max_rules = rules;
    config.number_tbl8s = tbl8s;
    return rte_lpm_create(name, 0, &config);
}

int peer_lpm_add(void *table, const peer_route &route)
{
    return rte_lpm_add(static_cast<rte_lpm *>(table), route.prefix, static_cast<std::uint8_t>(route.len), route.value);
}

int peer_lpm_delete(void *table, const peer_route &route)
{
    return rte_lpm_delete(static_cast<rte_lpm *>(table), route.prefix, static_cast<std::uint8_t>(route.len));
}

void peer_lpm_find(void *table, const std::uint32_t *addresses, std::uint32_t *values, std::size_t count,
                   std::uint32_t missing)
{
    auto *const lpm = static_cast<rte_lpm *>(table);
    for (; count >= 4; count -= 4, addresses += 4, values += 4)
        rte_lpm_lookupx4(lpm, _mm_loadu_si128(reinterpret_cast<const __m128i *>(addresses)), values, missing);
    peer_lpm_find_scalar(table, addresses, values, count, missing);
}

void peer_lpm_find_scalar(void *table, const std::uint32_t *addresses, std::uint32_t *values, std::size_t count,
                          std::uint32_t missing)
{
    auto *const lpm = static_cast<rte_lpm *>(table);
    for (; count > 0; --count, ++addresses, ++values)
        if (rte_lpm_lookup(lpm, *addresses, values) != 0)
            *values = missing;
}

void peer_lpm_delete_table(void *table) { rte_lpm_free(static_cast<rte_lpm *>(table)); }

void *peer_fib_new(const char *name, std::uint32_t rules, std::uint32_t tbl8s, std::uint32_t missing)
{
    rte_fib_conf config{};
    config.type = RTE_FIB_DIR24_8;
    config.default_nh = missing;
    config.max_routes = static_cast<int>(rules);
    config.dir24_8.nh_sz = RTE_FIB_DIR24_8_4B;
    config.dir24_8.num_tbl8 = tbl8s;
    return rte_fib_create(name, 0, &config);
}

int peer_fib_add(void *table, const peer_route &route)
{
    return rte_fib_add(static_cast<rte_fib *>(table), route.prefix, static_cast<std::uint8_t>(route.len), route.value);
}

void peer_fib_find(void *table, const std::uint32_t *addresses, std::uint64_t *values, std::size_t count)
{
    // The library takes the addresses as not const, and leaves them as they are.
    (void)rte_fib_lookup_bulk(static_cast<rte_fib *>(table), const_cast<std::uint32_t *>(addresses), values,
                              static_cast<int>(count));
}

void peer_fib_find_scalar(void *table)
{
    (void)rte_fib_select_lookup(static_cast<rte_fib *>(table), RTE_FIB_LOOKUP_DIR24_8_SCALAR_MACRO);
}

void peer_fib_delete_table(void *table) { rte_fib_free(static_cast<rte_fib *>(table)); }

const char *peer_lpm_version() { return rte_version(); }
